// zemAIDLClient: the binder transport to the collection daemon's service
// "vendor_zemsdkservice".
//
// One instance per process, shared by every collector that registers over
// binder (getClientInstance). It holds the daemon's IZEMManager proxy, one
// callback object (ZEMCallbackImpl) through which the daemon pushes campaign
// events for all collectors, and the table from registration token to
// collector. A death recipient tells every registered collector when the
// daemon goes away; the collectors then register again, which builds a fresh
// instance. Collectors hold the instance through shared pointers; the
// process-wide pointer `clientPtr` holds it until a failed connection or the
// daemon's death drops it.
//
// Threads: registerClient runs on collectors' registration threads, sendData
// on writer threads or a thread stopping a campaign, deRegisterClient and
// forgetCollector on application threads; onCampaignEvent and binderDied run
// on binder threads of the process.
//
// Locks: `mutex` serialises the calls to the daemon (held across all of
// registerClient, and around the call in sendData and deRegisterClient).
// `stateMutex` guards the manager pointer, the callback, the table and the
// bookkeeping of collector calls in flight; it is never held across a call to
// the daemon or to a collector. `clientPtr` and the process-wide binder and
// death recipient have a lock of their own.
#pragma once

#include <binder/IBinder.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/Mutex.h"
#include "transport/IZEMCallback.h"
#include "transport/IZEMManager.h"
#include "transport/zemTransportClient.h"

class zemAIDLClient : public zemTransportClient,
                      public std::enable_shared_from_this<zemAIDLClient> {
  public:
    // The process's instance; creates it when there is none.
    static std::shared_ptr<zemAIDLClient> getClientInstance();

    ~zemAIDLClient() override;

    zemAIDLClient(const zemAIDLClient&) = delete;
    zemAIDLClient& operator=(const zemAIDLClient&) = delete;

    // Looks the service up (without waiting first, then with the service
    // manager's bounded wait), watches it for death and makes the manager
    // proxy. Returns false when the service is not published.
    bool setZEMBinder();

    // Starts the binder thread pool, connects when not yet connected, and
    // registers `name` with this process's callback object. On success the
    // token is in the table and in `collector`, and the daemon has been asked
    // (one-way) for a campaign waiting for this client. 0 or -1. `version`
    // is not used by this transport.
    int32_t registerClient(const std::string& name, uint32_t version,
                           zem_collector* collector) override;

    // Sends the whole file (empty when it cannot be opened), in parts of at
    // most 256 KiB cut between records when it is larger, and removes it when
    // every call succeeded; the daemon's bool is not looked at. 0 or -1.
    int32_t sendData(const std::string& filename, const std::string& token) override;

    // Tells the daemon the registration ends. The table keeps the token's
    // entry, so a later event for it still finds its collector. 0 or -1;
    // -1 also when another call to the daemon has not returned within 2
    // seconds.
    int32_t deRegisterClient(const std::string& token) override;

    // Removes every entry of `collector` and cancels a registration of it in
    // progress. After it returns no binder thread calls `collector` again;
    // it waits for a collector call in flight on another thread, which is
    // bounded by that call.
    void forgetCollector(zem_collector* collector) override;

    // The binder object that receives the daemon's campaign events for the
    // collectors registered through one instance.
    class ZEMCallbackImpl : public BnZEMCallback {
      public:
        explicit ZEMCallbackImpl(std::weak_ptr<zemAIDLClient> owner);

        // Runs on a binder thread, or on a thread of ours that is waiting for
        // the daemon when the daemon calls back from inside that call. Finds
        // the collector registered under `token` in the instance that
        // registered it and stops (512) or starts (256) its campaign;
        // *result is the collector's result, -1 for an unknown token or
        // another event. Always returns an ok status.
        android::binder::Status onCampaignEvent(int32_t eventType, int64_t campaignId,
                                                const std::vector<uint8_t>& campaignConfig,
                                                int32_t eventArg, const std::string& token,
                                                int32_t* result) override;

      private:
        // The instance whose table holds the tokens this object was
        // registered with: events reach it even after clientPtr has moved on
        // to another instance.
        const std::weak_ptr<zemAIDLClient> owner;
    };

    // Watches the daemon's service binder.
    class DeathRecipientImpl : public android::IBinder::DeathRecipient {
      public:
        // Runs on a binder thread when the daemon exits or is killed: every
        // collector in the table of each instance connected to `who`, in
        // token order, gets LostConn() once per entry, after clientPtr has
        // been dropped.
        void binderDied(const android::wp<android::IBinder>& who) override;
    };

  private:
    zemAIDLClient() = default;

    // A proxy whose daemon has died never works again: after a call failed
    // that way the manager is dropped, so the next registration looks the
    // service up afresh instead of failing on it forever.
    void dropIfDead(const android::sp<IZEMManager>& m, const android::binder::Status& status);

    // The manager for operation `op` on `token`, after the operation's
    // "called for token" line; null, logged, when there is none yet.
    android::sp<IZEMManager> managerFor(const char* op, const std::string& token)
            ZEM_EXCLUDES(stateMutex);

    // Makes one call to the daemon through `m` (call() returns its status),
    // marked as waiting for the daemon. False after a failed call, logged
    // for `op`, with a dead manager dropped.
    template <typename Call>
    bool callDaemon(const char* op, const android::sp<IZEMManager>& m, Call&& call);

    // Drops clientPtr if it still holds `self`.
    static void resetClientPtr(const zemAIDLClient* self);

    // Calls fn(collector) for the entry of `token`, marked in flight so that
    // forgetCollector waits for it. Returns false when there is no entry.
    template <typename Fn>
    bool callCollector(const std::string& token, Fn&& fn);
    void beginCall(zem_collector* collector) ZEM_REQUIRES(stateMutex);
    void endCall(zem_collector* collector) ZEM_EXCLUDES(stateMutex);

    // Serialises the calls to the daemon.
    zem::Mutex mutex;

    zem::Mutex stateMutex ZEM_ACQUIRED_AFTER(mutex);
    zem::CondVar callsDone;
    android::sp<IZEMManager> manager ZEM_GUARDED_BY(stateMutex);
    // The daemon's service binder the manager talks to, to tell which
    // instances a death notice is for.
    android::sp<android::IBinder> service ZEM_GUARDED_BY(stateMutex);
    android::sp<ZEMCallbackImpl> callback ZEM_GUARDED_BY(stateMutex);
    std::map<std::string, zem_collector*> collectors ZEM_GUARDED_BY(stateMutex);
    // Collectors with a registerClient in progress; true once forgotten.
    std::map<zem_collector*, bool> registering ZEM_GUARDED_BY(stateMutex);
    // Collector calls in flight and the threads making them.
    std::multimap<zem_collector*, std::thread::id> inFlight ZEM_GUARDED_BY(stateMutex);

    static zem::Mutex clientPtrMutex;
    static std::shared_ptr<zemAIDLClient> clientPtr ZEM_GUARDED_BY(clientPtrMutex);
    // Every instance made, so that a death notice reaches the collectors of
    // one that is no longer in clientPtr.
    static std::vector<std::weak_ptr<zemAIDLClient>> instances ZEM_GUARDED_BY(clientPtrMutex);
};
