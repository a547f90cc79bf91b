// IZEMManager: the binder interface of the collection daemon, published as
// the service "vendor_zemsdkservice".
//
// Wire contract: descriptor "IZEMManager" (no package prefix; the daemon
// checks it). Codes and parcels (requests start with the interface token;
// strings are UTF-8 sent as UTF-16; replies start with binder::Status and
// carry the out value only for an ok status):
//   1 registerZEMClient        two-way  name, callback binder  -> token
//   2 checkForPendingCampaign  one-way  token                  -> (no reply)
//   3 deregisterZEMClient      two-way  token                  -> (status only)
//   4 sendData                 two-way  byte vector data, token -> bool
//
// BpZEMManager is the proxy the client uses, from any thread; BnZEMManager is
// the stub a daemon derives from, called on its binder pool threads. Nothing
// here locks; the default implementation is a plain global set before use.
//
// The same source builds against the platform's libbinder and the host
// binder runtime.
#pragma once

#include "transport/IZEMCallback.h"

class BpZEMManager;

class IZEMManager : public zem_binder::MetaInterface<IZEMManager, BpZEMManager> {
  public:
    enum Call : uint32_t {
        REGISTERZEMCLIENT = android::IBinder::FIRST_CALL_TRANSACTION,
        CHECKFORPENDINGCAMPAIGN,
        DEREGISTERZEMCLIENT,
        SENDDATA,
    };

    static const android::String16& descriptor;

    virtual android::binder::Status registerZEMClient(const std::string& name,
                                                      const android::sp<IZEMCallback>& callback,
                                                      std::string* token) = 0;
    // One-way: returns once the request is sent, never waiting for the daemon.
    virtual android::binder::Status checkForPendingCampaign(const std::string& token) = 0;
    virtual android::binder::Status deregisterZEMClient(const std::string& token) = 0;
    virtual android::binder::Status sendData(const std::vector<uint8_t>& data,
                                             const std::string& token, bool* result) = 0;
};

class BpZEMManager : public android::BpInterface<IZEMManager> {
  public:
    explicit BpZEMManager(const android::sp<android::IBinder>& impl);
    android::binder::Status registerZEMClient(const std::string& name,
                                              const android::sp<IZEMCallback>& callback,
                                              std::string* token) override;
    android::binder::Status checkForPendingCampaign(const std::string& token) override;
    android::binder::Status deregisterZEMClient(const std::string& token) override;
    android::binder::Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                                     bool* result) override;
};

class BnZEMManager : public android::BnInterface<IZEMManager> {
  public:
    // Codes outside 1..4 go to BBinder::onTransact; a wrong interface token
    // gives BAD_TYPE; the first argument that cannot be read gives its error.
    // The one-way code 2 writes nothing and returns OK whatever the
    // implementation answered.
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
};
