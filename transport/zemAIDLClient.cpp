#include "transport/zemAIDLClient.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <binder/Stability.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "collector/zem_collector.h"
#include "common/DaemonCall.h"
#include "common/ZemLog.h"
#include "transport/CacheFileParts.h"

using android::defaultServiceManager;
using android::IBinder;
using android::ProcessState;
using android::sp;
using android::String16;
using android::wp;
using android::binder::Status;

namespace {

const char* const kServiceName = "vendor_zemsdkservice";

// The most file bytes one sendData transaction carries. The daemon's binder
// buffer (1 MiB less two pages) is shared by every transaction in flight to
// it, from every client process at once; a quarter of it leaves room for
// three other deliveries and the small calls beside them, and bigger parts
// would save only a round trip each.
constexpr size_t kMaxSendBytes = 256 * 1024;

// How long deRegisterClient waits for another call to the daemon to end.
constexpr std::chrono::seconds kCallGrace{2};

// The daemon's service binder and the one death recipient, shared by every
// instance of the process.
zem::Mutex gBinderMutex;
sp<IBinder> zemBinder ZEM_GUARDED_BY(gBinderMutex);
sp<zemAIDLClient::DeathRecipientImpl> handleOlvDeath ZEM_GUARDED_BY(gBinderMutex);

}  // namespace

zem::Mutex zemAIDLClient::clientPtrMutex;
std::shared_ptr<zemAIDLClient> zemAIDLClient::clientPtr;
std::vector<std::weak_ptr<zemAIDLClient>> zemAIDLClient::instances;

std::shared_ptr<zemAIDLClient> zemAIDLClient::getClientInstance() {
    zem::MutexLock lock(&clientPtrMutex);
    if (!clientPtr) {
        clientPtr.reset(new zemAIDLClient());
        instances.erase(
                std::remove_if(instances.begin(), instances.end(),
                               [](const std::weak_ptr<zemAIDLClient>& w) { return w.expired(); }),
                instances.end());
        instances.push_back(clientPtr);
    }
    return clientPtr;
}

void zemAIDLClient::resetClientPtr(const zemAIDLClient* self) {
    std::shared_ptr<zemAIDLClient> old;
    {
        zem::MutexLock lock(&clientPtrMutex);
        if (clientPtr.get() == self) old = std::move(clientPtr);
    }
    // `old` may be the last reference: the instance goes outside the lock.
}

zemAIDLClient::~zemAIDLClient() = default;

bool zemAIDLClient::setZEMBinder() {
    static const char* const kOp = "setZEMBinder";
    ZEM_LOGI("%s - getting new instance of zem client binder", kOp);
    const sp<android::IServiceManager> sm = defaultServiceManager();
    const String16 name(kServiceName);
    if (sm->checkService(name) == nullptr) {
        ZEM_LOGE("%s - zemsdkservice service not available yet", kOp);
        return false;
    }
    const sp<IBinder> binder = sm->getService(name);
    sp<IBinder> previous;
    {
        zem::MutexLock lock(&gBinderMutex);
        previous = zemBinder;
        zemBinder = binder;
    }
    previous.clear();
    if (binder == nullptr) {
        ZEM_LOGE("%s - getService failed", kOp);
        return false;
    }
    ZEM_LOGI("%s - got new instance of zem client binder", kOp);
    sp<DeathRecipientImpl> recipient;
    {
        zem::MutexLock lock(&gBinderMutex);
        if (handleOlvDeath == nullptr) handleOlvDeath = new DeathRecipientImpl();
        recipient = handleOlvDeath;
    }
    const android::status_t linked = binder->linkToDeath(recipient, nullptr, 0);
    ZEM_LOGI("%s: linkToDeath status: %d", kOp, linked);

    // Made directly rather than through asInterface: the service lives in
    // the daemon's process, never in this one, so there is no local object
    // to look for.
    sp<IZEMManager> made = new BpZEMManager(binder);
    zem::MutexLock lock(&stateMutex);
    manager = made;
    service = binder;
    return true;
}

sp<IZEMManager> zemAIDLClient::managerFor(const char* op, const std::string& token) {
    ZEM_LOGI("%s called for token - %s", op, token.c_str());
    sp<IZEMManager> m;
    {
        zem::MutexLock lock(&stateMutex);
        m = manager;
    }
    if (m == nullptr) ZEM_LOGE("%s - Failed to get zem manager handle", op);
    return m;
}

template <typename Call>
bool zemAIDLClient::callDaemon(const char* op, const sp<IZEMManager>& m, Call&& call) {
    Status status;
    {
        zem::DaemonCall waiting;
        status = call();
    }
    if (status.isOk()) return true;
    ZEM_LOGE("%s - failed with error - %d", op, status.exceptionCode());
    dropIfDead(m, status);
    return false;
}

int32_t zemAIDLClient::registerClient(const std::string& name, uint32_t /*version*/,
                                      zem_collector* collector) {
    static const char* const kOp = "registerClient";
    ZEM_LOGI("%s: called", kOp);
    // Recorded before anything can block, so that a forgetCollector from
    // here on cancels this registration.
    {
        zem::MutexLock lock(&stateMutex);
        registering[collector] = false;
    }
    // Every way out of here ends the registration's bookkeeping.
    struct Done {
        zemAIDLClient* self;
        zem_collector* collector;
        ~Done() {
            zem::MutexLock lock(&self->stateMutex);
            self->registering.erase(collector);
        }
    } done{this, collector};

    const sp<ProcessState> ps = ProcessState::self();
    if (ps == nullptr) {
        ZEM_LOGE("%s: ProcessState init failed", kOp);
        return -1;
    }
    ps->startThreadPool();
    ZEM_LOGI("%s - created threadpool", kOp);

    zem::MutexLock calls(&mutex);

    sp<IZEMManager> m;
    sp<ZEMCallbackImpl> cb;
    {
        zem::MutexLock lock(&stateMutex);
        m = manager;
    }
    if (m == nullptr) {
        if (!setZEMBinder()) {
            resetClientPtr(this);
            ZEM_LOGE("%s failed to set zem binder", kOp);
            return -1;
        }
    }
    {
        zem::MutexLock lock(&stateMutex);
        if (callback == nullptr) callback = new ZEMCallbackImpl(weak_from_this());
        m = manager;
        cb = callback;
    }

    std::string token;
    if (!callDaemon(kOp, m, [&] { return m->registerZEMClient(name, cb, &token); })) return -1;
    ZEM_LOGI("%s success. Token received - %s", kOp, token.c_str());
    {
        zem::MutexLock lock(&stateMutex);
        // A collector forgotten meanwhile is being destroyed: it must not
        // enter the table, or a later event would reach freed memory.
        if (registering[collector]) return -1;
        collectors[token] = collector;
    }
    if (collector != nullptr) collector->setToken(token);
    {
        // Another collector's failed connection may have dropped this
        // instance from clientPtr meanwhile; the collectors that register
        // next must share it, or they would build a second connection.
        zem::MutexLock lock(&clientPtrMutex);
        if (!clientPtr) clientPtr = shared_from_this();
    }

    // The entry exists before the daemon is asked, so an event pushed in
    // answer finds its collector.
    m->checkForPendingCampaign(token);
    return 0;
}

int32_t zemAIDLClient::sendData(const std::string& filename, const std::string& token) {
    static const char* const kOp = "sendData";
    const sp<IZEMManager> m = managerFor(kOp, token);
    if (m == nullptr) return -1;
    zem::MutexLock calls(&mutex);
    // A file that fits goes in one transaction, as it is; a larger one in
    // parts, each a cache file image of its own.
    const bool delivered =
            zem::internal::deliverInParts(filename, kMaxSendBytes, [&](const std::string& part) {
                const std::vector<uint8_t> bytes(part.begin(), part.end());
                ZEM_LOGI("%s - Data vector length - %d", kOp, static_cast<int>(bytes.size()));
                // The daemon's bool is not looked at.
                bool ok = false;
                return callDaemon(kOp, m, [&] { return m->sendData(bytes, token, &ok); });
            });
    return delivered ? 0 : -1;
}

int32_t zemAIDLClient::deRegisterClient(const std::string& token) {
    static const char* const kOp = "deRegisterClient";
    const sp<IZEMManager> m = managerFor(kOp, token);
    if (m == nullptr) return -1;
    // A registration or delivery that the daemon never answers holds the
    // lock for as long; a binder call cannot be cancelled, so after a grace
    // period the deregistration is given up instead of waiting with it.
    if (!mutex.lockWithin(kCallGrace)) {
        ZEM_LOGE("%s - an earlier call to the daemon is still waiting for its answer", kOp);
        return -1;
    }
    const bool done = callDaemon(kOp, m, [&] { return m->deregisterZEMClient(token); });
    mutex.unlock();
    return done ? 0 : -1;
}

void zemAIDLClient::dropIfDead(const sp<IZEMManager>& m, const Status& status) {
    if (status.exceptionCode() != Status::EX_TRANSACTION_FAILED ||
        status.transactionError() != android::DEAD_OBJECT) {
        return;
    }
    zem::MutexLock lock(&stateMutex);
    if (manager == m) manager = nullptr;
}

void zemAIDLClient::forgetCollector(zem_collector* collector) {
    zem::MutexLock lock(&stateMutex);
    for (auto it = collectors.begin(); it != collectors.end();) {
        if (it->second == collector) {
            it = collectors.erase(it);
        } else {
            ++it;
        }
    }
    auto reg = registering.find(collector);
    if (reg != registering.end()) reg->second = true;
    // A call made by this very thread (the collector going away from inside
    // its own callback) cannot be waited for.
    const std::thread::id self = std::this_thread::get_id();
    for (;;) {
        bool othersInFlight = false;
        auto range = inFlight.equal_range(collector);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second != self) othersInFlight = true;
        }
        if (!othersInFlight) break;
        callsDone.wait(&stateMutex);
    }
}

void zemAIDLClient::beginCall(zem_collector* collector) {
    inFlight.emplace(collector, std::this_thread::get_id());
}

void zemAIDLClient::endCall(zem_collector* collector) {
    {
        zem::MutexLock lock(&stateMutex);
        auto range = inFlight.equal_range(collector);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == std::this_thread::get_id()) {
                inFlight.erase(it);
                break;
            }
        }
    }
    callsDone.notifyAll();
}

template <typename Fn>
bool zemAIDLClient::callCollector(const std::string& token, Fn&& fn) {
    zem_collector* collector = nullptr;
    {
        zem::MutexLock lock(&stateMutex);
        auto it = collectors.find(token);
        if (it == collectors.end()) return false;
        collector = it->second;
        beginCall(collector);
    }
    fn(collector);
    endCall(collector);
    return true;
}

zemAIDLClient::ZEMCallbackImpl::ZEMCallbackImpl(std::weak_ptr<zemAIDLClient> owner)
    : owner(std::move(owner)) {
    android::internal::Stability::markCompilationUnit(this);
}

Status zemAIDLClient::ZEMCallbackImpl::onCampaignEvent(int32_t eventType, int64_t campaignId,
                                                       const std::vector<uint8_t>& campaignConfig,
                                                       int32_t /*eventArg*/,
                                                       const std::string& token, int32_t* result) {
    static const char* const kOp = "onCampaignEvent";
    *result = -1;
    const std::shared_ptr<zemAIDLClient> client = owner.lock();
    const bool found = client && client->callCollector(token, [&](zem_collector* collector) {
        // Stop is tested before start.
        if (eventType == IZEMCallback::kCampaignStop) {
            ZEM_LOGI("%s - camp stop event received, token - %s", kOp, token.c_str());
            *result = collector->StopCampaign();
        } else if (eventType == IZEMCallback::kCampaignStart) {
            ZEM_LOGI("%s - camp start event received, camp Id - %d, token - %s", kOp,
                     static_cast<int>(campaignId), token.c_str());
            const std::string config(campaignConfig.begin(), campaignConfig.end());
            *result = collector->StartCampaign(config);
        }
    });
    if (!found) ZEM_LOGE("%s - No entry found for token: %s", kOp, token.c_str());
    return Status::ok();
}

void zemAIDLClient::DeathRecipientImpl::binderDied(const wp<IBinder>& who) {
    ZEM_LOGI("DeathRecipientImpl - ZEM Server has died");
    // Held for the whole call: the collectors below drop their references.
    std::vector<std::shared_ptr<zemAIDLClient>> clients;
    {
        zem::MutexLock lock(&clientPtrMutex);
        for (const std::weak_ptr<zemAIDLClient>& w : instances) {
            if (std::shared_ptr<zemAIDLClient> c = w.lock()) clients.push_back(std::move(c));
        }
    }
    for (const std::shared_ptr<zemAIDLClient>& client : clients) {
        std::vector<std::pair<std::string, zem_collector*>> entries;
        {
            zem::MutexLock lock(&client->stateMutex);
            if (client->service.get() != who.unsafe_get()) continue;
            entries.assign(client->collectors.begin(), client->collectors.end());
        }
        for (const auto& entry : entries) {
            resetClientPtr(client.get());
            // An entry forgotten since the snapshot is skipped.
            zem_collector* collector = nullptr;
            {
                zem::MutexLock lock(&client->stateMutex);
                auto it = client->collectors.find(entry.first);
                if (it == client->collectors.end() || it->second != entry.second) continue;
                collector = it->second;
                client->beginCall(collector);
            }
            collector->LostConn();
            client->endCall(collector);
        }
    }
}
