// IZEMCallback: the binder interface through which the collection daemon
// pushes campaign events to a client process.
//
// Wire contract: descriptor "IZEMCallback" (no package prefix; the daemon
// checks it), one two-way call, onCampaignEvent, code 1. Request: interface
// token, int32 eventType, int64 campaignId, byte vector campaignConfig, int32
// eventArg, string token (UTF-8 sent as UTF-16). Reply: binder::Status, then
// for an ok status the int32 result.
//
// BnZEMCallback is the stub; the client process serves one implementation
// (zemAIDLClient::ZEMCallbackImpl) whose onTransact runs on a binder pool
// thread. BpZEMCallback is the proxy the daemon side uses; any thread may
// call it. Nothing here locks; the default implementation is a plain global
// set before use.
//
// The same source builds against the platform's libbinder and the host
// binder runtime.
#pragma once

#include "transport/BinderInterface.h"

class BpZEMCallback;

class IZEMCallback : public zem_binder::MetaInterface<IZEMCallback, BpZEMCallback> {
  public:
    enum Call : uint32_t {
        ONCAMPAIGNEVENT = android::IBinder::FIRST_CALL_TRANSACTION,
    };

    // eventType values the client acts on.
    static constexpr int32_t kCampaignStart = 256;
    static constexpr int32_t kCampaignStop = 512;

    static const android::String16& descriptor;

    // Campaign start (256) or stop (512) for the registration `token`; the
    // outcome travels in *result.
    virtual android::binder::Status onCampaignEvent(int32_t eventType, int64_t campaignId,
                                                    const std::vector<uint8_t>& campaignConfig,
                                                    int32_t eventArg, const std::string& token,
                                                    int32_t* result) = 0;
};

class BpZEMCallback : public android::BpInterface<IZEMCallback> {
  public:
    explicit BpZEMCallback(const android::sp<android::IBinder>& impl);
    android::binder::Status onCampaignEvent(int32_t eventType, int64_t campaignId,
                                            const std::vector<uint8_t>& campaignConfig,
                                            int32_t eventArg, const std::string& token,
                                            int32_t* result) override;
};

class BnZEMCallback : public android::BnInterface<IZEMCallback> {
  public:
    // Codes other than 1 go to BBinder::onTransact; a wrong interface token
    // gives BAD_TYPE; the first argument that cannot be read gives its error.
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
};
