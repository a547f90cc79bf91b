// ZemBinderService: zemd's IZEMManager, served as "vendor_zemsdkservice" on
// the host binder runtime beside the gRPC service.
//
// It shares the gRPC service's client table, token counter, campaign, file
// storage and event printing (it is a friend of ZemDaemon and takes that
// object's lock for its tables). A client's registration hands out a token;
// checkForPendingCampaign pushes the configured campaign through the
// client's IZEMCallback (event 256) and, with --stop-after, a stop (event
// 512) that long afterwards; delivered files are stored and decoded as over
// gRPC.
//
// Owned by zemd's main() through a strong pointer. Binder calls arrive on the
// host runtime's pool threads; stops are sent from one timer thread of its
// own. `timerMutex` guards the pending stops and the callbacks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tools/ZemDaemon.h"
#include "transport/IZEMManager.h"

class ZemBinderService : public BnZEMManager {
  public:
    static constexpr const char* kServiceName = "vendor_zemsdkservice";

    explicit ZemBinderService(ZemDaemon& daemon);

    // Publishes the service and starts the binder thread pool. Prints a
    // "binder" event either way; returns the service manager's status.
    android::status_t publish();

    // Sends the campaign (start) or a stop to every registered client; the
    // number of clients tried.
    int pushToAll(bool start);

    // Registered binder clients that have not deregistered and whose
    // callback has not failed, in registration order.
    std::vector<ZemDaemon::ClientRow> listClients();

    android::binder::Status registerZEMClient(const std::string& name,
                                              const android::sp<IZEMCallback>& callback,
                                              std::string* token) override;
    android::binder::Status checkForPendingCampaign(const std::string& token) override;
    android::binder::Status deregisterZEMClient(const std::string& token) override;
    android::binder::Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                                     bool* result) override;
    // Defined in ZemFault.cpp: lets --fault bad-reply garble a reply.
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

  private:
    // Forgets a client whose process died, so that it leaves the list of
    // clients at once rather than at the next failed push.
    class ClientDeath : public android::IBinder::DeathRecipient {
      public:
        ClientDeath(ZemBinderService* service, std::string token)
            : service(service), token(std::move(token)) {}
        void binderDied(const android::wp<android::IBinder>& who) override;

      private:
        ZemBinderService* service;  // outlives every client: zemd never drops it
        const std::string token;
    };

    // Calls the client's onCampaignEvent and prints the command and answer.
    void push(const std::string& token, bool start);
    void timerLoop();

    ZemDaemon& daemon;
    std::mutex timerMutex;
    std::condition_variable timerCv;
    std::map<std::string, android::sp<IZEMCallback>> callbacks;
    std::map<std::string, android::sp<ClientDeath>> deaths;
    std::multimap<std::chrono::steady_clock::time_point, std::string> stops;
    bool timerRunning = false;
};
