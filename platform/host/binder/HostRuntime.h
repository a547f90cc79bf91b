// HostRuntime: the process-wide machinery behind the host's libbinder
// classes: the process endpoint and its acceptor thread, the pool threads
// that run incoming transactions, the table of local objects that other
// processes may name, the proxy cache, published services, and the
// death-watch thread.
//
// One instance per process, created on first use and never destroyed (pool
// threads may still run while the process exits). Threads:
//  - the acceptor ("hbinder_accept") accepts every connection, answers
//    service lookups and death links itself (so they work before a pool is
//    started) and queues transactions for the pool;
//  - pool threads ("binder:<pid>_<n>") run queued transactions: one at
//    startThreadPool, more on demand up to the maximum (15 by default);
//    one-way calls to one object run one at a time in arrival order;
//  - a thread waiting for the answer to its own two-way call runs the
//    two-way calls that the serving process makes back into this one while
//    serving it: they come over the same connection, as the binder driver
//    hands them to the waiting thread on a device;
//  - the death-watch thread ("hbinder_death") holds every death-link
//    connection, both the ones this process opened as a proxy (their end of
//    file fires the proxy's obituaries, on that thread) and the ones other
//    processes opened to it (closed when they end).
// `mLock` guards the tables, the services and the pool's queue; the watch
// thread has its own lock. No lock is held while a transaction or an
// obituary runs.
#pragma once

#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "HostWire.h"

namespace android {
namespace hostbinder {

// A death-link connection held by the watch thread for one proxy.
class DeathLink {
  public:
    DeathLink(int fd, const wp<BpBinder>& proxy) : fd(fd), proxy(proxy) {}
    const int fd;
    const wp<BpBinder> proxy;
    // Set when the proxy goes away; the watch thread then closes fd.
    std::atomic<bool> closed{false};
};

class HostRuntime {
  public:
    static HostRuntime& get();

    // This process's endpoint name, creating the socket and the acceptor on
    // first use; empty when the socket cannot be created.
    std::string endpoint();

    // Writes `binder` (local, remote or null) as a flat object followed by
    // its stability level, keeping it alive as long as the parcel.
    status_t flatten(Parcel* parcel, const sp<IBinder>& binder);
    // Reads the flat object at the parcel's position. BAD_TYPE when no object
    // was written there, BAD_VALUE for a malformed or unknown one.
    status_t unflatten(const Parcel& parcel, sp<IBinder>* out);

    // One transaction to object `id` at `endpoint` (see BpBinder::transact).
    status_t transact(const std::string& endpoint, uint64_t id, uint32_t code, const Parcel& data,
                      Parcel* reply, uint32_t flags);

    // Opens a death link to the owner of object `id` at `endpoint` and hands
    // it to the watch thread. Null when the owner cannot be reached.
    std::shared_ptr<DeathLink> openDeathLink(const std::string& endpoint, uint64_t id,
                                             const wp<BpBinder>& proxy);
    // The proxy is going away: the watch thread closes the link.
    void closeDeathLink(const std::shared_ptr<DeathLink>& link);

    status_t addService(const std::string& name, const sp<IBinder>& binder);
    sp<IBinder> checkService(const std::string& name);
    std::vector<std::string> localServiceNames();

    void startThreadPool();
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    // Runs the pool loop on the calling thread; never returns.
    void joinThreadPool();

  private:
    HostRuntime();

    struct Incoming {
        int fd;
        FrameHeader header;
        pid_t peer = 0;  // the calling process
    };
    // One-way calls to one object: whether one runs, and those waiting.
    struct AsyncQueue {
        bool busy = false;
        std::deque<Incoming> pending;
    };
    struct Listener {
        int fd;
        std::string service;  // empty for the process endpoint
    };
    struct Watched {
        int fd;
        std::shared_ptr<DeathLink> link;  // null: a link another process holds to us
    };

    std::string endpointLocked();
    void acceptLoop();
    void handleAccepted(int fd, const std::string& service);
    void poolLoop();
    void serveTransaction(const Incoming& in);
    // Reads the request whose header is `header` from `fd`, runs it with
    // this thread marked as serving `peer`, and answers a two-way call on
    // `fd`; `budgeted`: the request holds room in the buffer, freed before
    // the answer. DEAD_OBJECT when the request or the answer cannot be
    // carried.
    status_t serveOn(int fd, const FrameHeader& header, pid_t peer, bool budgeted);
    // Waits on `fd` for the answer to a call sent on it, running every call
    // the owner makes back into this process meanwhile.
    status_t awaitReply(int fd, Parcel* reply);
    void spawnPoolThreadLocked();
    void wakeAcceptor();

    void watchFd(int fd, std::shared_ptr<DeathLink> link);
    void watchLoop();
    void wakeWatcher();

    uint64_t exportLocked(const sp<IBinder>& binder);
    sp<IBinder> importObject(const std::string& endpoint, uint64_t id);

    static status_t sendParcelFrame(int fd, FrameHeader header, const Parcel* parcel);
    static status_t readParcelFrame(int fd, const FrameHeader& header, Parcel* parcel);

    const std::string mPrefix;

    std::mutex mLock;
    std::string mEndpoint;
    std::vector<Listener> mListeners;
    int mAcceptWake[2] = {-1, -1};
    bool mAcceptorRunning = false;

    uint64_t mNextObjectId = 1;
    std::map<uint64_t, sp<IBinder>> mObjects;
    std::map<IBinder*, uint64_t> mObjectIds;
    std::map<std::pair<std::string, uint64_t>, wp<BpBinder>> mProxies;
    std::map<std::string, uint64_t> mServices;

    // Room left in this process's transaction buffer.
    BufferBudget mBudget;

    std::condition_variable mPoolCv;
    std::deque<Incoming> mQueue;
    std::map<uint64_t, AsyncQueue> mAsync;
    bool mPoolStarted = false;
    size_t mPoolThreads = 0;
    size_t mPoolIdle = 0;
    size_t mPoolMax = 15;
    uint32_t mPoolSeq = 0;

    std::mutex mWatchLock;
    std::vector<Watched> mWatched;
    int mWatchWake[2] = {-1, -1};
    bool mWatcherRunning = false;
};

}  // namespace hostbinder
}  // namespace android
