#include "HostRuntime.h"

#include <binder/Binder.h>
#include <binder/Stability.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>

namespace android {
namespace hostbinder {

namespace {

// How long the acceptor waits for a frame header before dropping a peer that
// connected and sent nothing, and how long a pool thread waits for the rest
// of a request.
constexpr int kHeaderTimeoutMs = 2000;
constexpr int kBodyTimeoutMs = 10000;

std::string registryPrefix() {
    const char* reg = getenv("HOST_BINDER_REGISTRY");
    std::string name = (reg != nullptr && reg[0] != '\0') ? reg : "default";
    return "host_binder/" + std::to_string(getuid()) + "/" + name + "/";
}

void makePipe(int fds[2]) {
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        fds[0] = fds[1] = -1;
    }
}

void drain(int fd) {
    char buf[64];
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
}

// The process at the other end of a connected Unix socket, 0 if unknown.
pid_t peerPid(int fd) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return 0;
    return cred.pid;
}

// The process that owns an endpoint ".../proc/<pid>-<nonce>", 0 if unknown.
pid_t endpointPid(const std::string& ep) {
    const size_t at = ep.rfind("/proc/");
    if (at == std::string::npos) return 0;
    return static_cast<pid_t>(strtol(ep.c_str() + at + 6, nullptr, 10));
}

// The two-way transactions this thread is serving, innermost last: the
// connection each arrived on and the process that sent it.
struct Serving {
    int fd;
    pid_t peer;
};
thread_local std::vector<Serving> tServing;

class ServingScope {
  public:
    ServingScope(int fd, pid_t peer) { tServing.push_back({fd, peer}); }
    ~ServingScope() { tServing.pop_back(); }
    ServingScope(const ServingScope&) = delete;
    ServingScope& operator=(const ServingScope&) = delete;
};

}  // namespace

HostRuntime& HostRuntime::get() {
    // Never destroyed: pool threads may still be running at exit.
    static HostRuntime* runtime = new HostRuntime();
    return *runtime;
}

HostRuntime::HostRuntime() : mPrefix(registryPrefix()) {
    makePipe(mAcceptWake);
    makePipe(mWatchWake);
}

std::string HostRuntime::endpoint() {
    std::lock_guard<std::mutex> lock(mLock);
    return endpointLocked();
}

std::string HostRuntime::endpointLocked() {
    if (!mEndpoint.empty()) return mEndpoint;
    std::random_device rd;
    char nonce[32];
    snprintf(nonce, sizeof(nonce), "%08x%08x", rd(), rd());
    const std::string name = mPrefix + "proc/" + std::to_string(getpid()) + "-" + nonce;
    const int fd = listenAbstract(name);
    if (fd < 0) {
        fprintf(stderr, "host binder: cannot listen on %s: %s\n", name.c_str(), strerror(errno));
        return std::string();
    }
    mEndpoint = name;
    mListeners.push_back({fd, std::string()});
    if (!mAcceptorRunning) {
        mAcceptorRunning = true;
        std::thread(&HostRuntime::acceptLoop, this).detach();
    }
    return mEndpoint;
}

void HostRuntime::wakeAcceptor() {
    const char c = 1;
    if (write(mAcceptWake[1], &c, 1) < 0) {
        // A full pipe already holds a wake-up.
    }
}

uint64_t HostRuntime::exportLocked(const sp<IBinder>& binder) {
    auto it = mObjectIds.find(binder.get());
    if (it != mObjectIds.end()) return it->second;
    // The host keeps no remote reference counts, so an object once handed to
    // another process stays alive for the life of this one.
    const uint64_t id = mNextObjectId++;
    mObjects[id] = binder;
    mObjectIds[binder.get()] = id;
    return id;
}

status_t HostRuntime::flatten(Parcel* parcel, const sp<IBinder>& binder) {
    FlatBinderHeader flat{};
    std::string ep;
    if (binder == nullptr) {
        flat.type = kFlatNullType;
    } else if (BpBinder* proxy = binder->remoteBinder()) {
        flat.type = kFlatBinderType;
        flat.objectId = proxy->objectId();
        ep = proxy->endpoint();
    } else {
        std::lock_guard<std::mutex> lock(mLock);
        ep = endpointLocked();
        if (ep.empty()) return NO_INIT;
        flat.type = kFlatBinderType;
        flat.objectId = exportLocked(binder);
    }
    flat.endpointLength = static_cast<uint32_t>(ep.size());

    const size_t offset = parcel->mData.size();
    if (parcel->mPos != offset) {
        // libbinder writes at the position; the host only appends objects.
        return INVALID_OPERATION;
    }
    status_t err = parcel->write(&flat, sizeof(flat));
    if (err == OK && !ep.empty()) err = parcel->write(ep.data(), ep.size());
    if (err != OK) return err;
    parcel->mObjects.push_back(offset);
    if (binder != nullptr) {
        parcel->mHeld.push_back(binder);
        internal::Stability::tryMarkCompilationUnit(binder.get());
    }
    return parcel->writeInt32(internal::Stability::get(binder.get()));
}

status_t HostRuntime::unflatten(const Parcel& parcel, sp<IBinder>* out) {
    const size_t pos = parcel.mPos;
    if (!std::binary_search(parcel.mObjects.begin(), parcel.mObjects.end(), pos)) {
        return BAD_TYPE;
    }
    FlatBinderHeader flat;
    if (parcel.read(&flat, sizeof(flat)) != OK) return BAD_VALUE;
    std::string ep;
    if (flat.type == kFlatNullType) {
        if (flat.endpointLength != 0) return BAD_VALUE;
    } else if (flat.type == kFlatBinderType) {
        if (flat.endpointLength == 0 || flat.endpointLength > kMaxSocketName) return BAD_VALUE;
        const void* p = parcel.readInplace(flat.endpointLength);
        if (p == nullptr) return BAD_VALUE;
        ep.assign(static_cast<const char*>(p), flat.endpointLength);
    } else {
        return BAD_TYPE;
    }
    int32_t stability = 0;
    if (parcel.readInt32(&stability) != OK) return BAD_VALUE;
    if (flat.type == kFlatNullType) {
        out->clear();
        return OK;
    }
    sp<IBinder> b = importObject(ep, flat.objectId);
    if (b == nullptr) return BAD_VALUE;
    if (b->remoteBinder() != nullptr) internal::Stability::setRemote(b.get(), stability);
    *out = b;
    return OK;
}

sp<IBinder> HostRuntime::importObject(const std::string& ep, uint64_t id) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!mEndpoint.empty() && ep == mEndpoint) {
        auto it = mObjects.find(id);
        return it != mObjects.end() ? it->second : nullptr;
    }
    const auto key = std::make_pair(ep, id);
    auto it = mProxies.find(key);
    if (it != mProxies.end()) {
        sp<BpBinder> existing = it->second.promote();
        if (existing != nullptr) return existing;
    }
    sp<BpBinder> proxy = BpBinder::create(ep, id);
    mProxies[key] = proxy;
    return proxy;
}

status_t HostRuntime::sendParcelFrame(int fd, FrameHeader header, const Parcel* parcel) {
    header.magic = kFrameMagic;
    header.dataSize = parcel != nullptr ? static_cast<uint32_t>(parcel->mData.size()) : 0;
    header.objectCount = parcel != nullptr ? static_cast<uint32_t>(parcel->mObjects.size()) : 0;
    // A reply lands in the caller's buffer, which is no bigger than ours.
    if (parcel != nullptr &&
        bufferBytes(parcel->mData.size(), parcel->mObjects.size()) > kProcessBufferBytes) {
        return FAILED_TRANSACTION;
    }
    if (!writeFully(fd, &header, sizeof(header))) return DEAD_OBJECT;
    if (parcel == nullptr) return OK;
    if (!parcel->mData.empty() && !writeFully(fd, parcel->mData.data(), parcel->mData.size())) {
        return DEAD_OBJECT;
    }
    if (!parcel->mObjects.empty()) {
        std::vector<uint64_t> offsets(parcel->mObjects.begin(), parcel->mObjects.end());
        if (!writeFully(fd, offsets.data(), offsets.size() * sizeof(uint64_t))) return DEAD_OBJECT;
    }
    return OK;
}

status_t HostRuntime::readParcelFrame(int fd, const FrameHeader& header, Parcel* parcel) {
    if (header.magic != kFrameMagic || header.dataSize > kMaxParcelBytes ||
        header.objectCount > header.dataSize / sizeof(FlatBinderHeader)) {
        return BAD_VALUE;
    }
    std::vector<uint8_t> data(header.dataSize);
    if (!data.empty() && !readFully(fd, data.data(), data.size())) return NOT_ENOUGH_DATA;
    std::vector<uint64_t> offsets(header.objectCount);
    if (!offsets.empty() && !readFully(fd, offsets.data(), offsets.size() * sizeof(uint64_t))) {
        return NOT_ENOUGH_DATA;
    }
    // Objects must lie inside the data, aligned, in ascending order and not
    // overlapping, so that unflatten never reads outside the parcel.
    uint64_t next = 0;
    for (uint64_t off : offsets) {
        if (off < next || off % 4 != 0 || off > data.size() ||
            data.size() - off < sizeof(FlatBinderHeader) + sizeof(int32_t)) {
            return BAD_VALUE;
        }
        next = off + sizeof(FlatBinderHeader);
    }
    parcel->freeData();
    parcel->mData = std::move(data);
    parcel->mObjects.assign(offsets.begin(), offsets.end());
    parcel->mPos = 0;
    return OK;
}

status_t HostRuntime::transact(const std::string& ep, uint64_t id, uint32_t code,
                               const Parcel& data, Parcel* reply, uint32_t flags) {
    // More than the receiver's whole buffer (half of it for a one-way call)
    // never fits, however idle the receiver is.
    const size_t limit =
            (flags & IBinder::FLAG_ONEWAY) != 0 ? kOnewayBufferBytes : kProcessBufferBytes;
    if (bufferBytes(data.mData.size(), data.mObjects.size()) > limit) return FAILED_TRANSACTION;
    FrameHeader header;
    header.kind = kTransact;
    header.object = id;
    header.code = code;
    header.flags = flags;
    // A two-way call to a process that is waiting for this thread's answer
    // goes to the thread that waits, over the connection its call came on, as
    // the binder driver delivers it; the pool may be busy or even full of
    // threads waiting on us.
    if ((flags & IBinder::FLAG_ONEWAY) == 0) {
        const pid_t owner = endpointPid(ep);
        for (auto it = tServing.rbegin(); owner != 0 && it != tServing.rend(); ++it) {
            if (it->peer != owner) continue;
            const int fd = it->fd;
            setReceiveTimeout(fd, 0);
            const status_t err = sendParcelFrame(fd, header, &data);
            return err != OK ? err : awaitReply(fd, reply);
        }
    }
    const int fd = connectAbstract(ep);
    if (fd < 0) return DEAD_OBJECT;
    status_t err = sendParcelFrame(fd, header, &data);
    const bool sent = err == OK;
    if ((!sent && err != DEAD_OBJECT) || (flags & IBinder::FLAG_ONEWAY) != 0) {
        close(fd);
        return err;
    }
    if (!sent) {
        // The owner answered without reading the whole request: its buffer
        // had no room for it.
        FrameHeader answer;
        const bool read = readFully(fd, &answer, sizeof(answer));
        close(fd);
        return read && answer.magic == kFrameMagic && answer.kind == kReply ? answer.status
                                                                            : DEAD_OBJECT;
    }
    err = awaitReply(fd, reply);
    close(fd);
    return err;
}

status_t HostRuntime::awaitReply(int fd, Parcel* reply) {
    for (;;) {
        FrameHeader answer;
        if (!readFully(fd, &answer, sizeof(answer))) {
            // The owner went away before it answered.
            return DEAD_OBJECT;
        }
        if (answer.magic == kFrameMagic && answer.kind == kTransact &&
            (answer.flags & IBinder::FLAG_ONEWAY) == 0) {
            // The owner calls back into this process while serving us: this
            // thread runs the call and answers it, then waits on.
            const status_t err = serveOn(fd, answer, peerPid(fd), false);
            if (err != OK) return err;
            continue;
        }
        Parcel scratch;
        Parcel* target = reply != nullptr ? reply : &scratch;
        if (answer.magic != kFrameMagic || answer.kind != kReply) return FAILED_TRANSACTION;
        const status_t err = readParcelFrame(fd, answer, target);
        if (err == NOT_ENOUGH_DATA) return DEAD_OBJECT;
        if (err != OK) return FAILED_TRANSACTION;
        return answer.status;
    }
}

status_t HostRuntime::serveOn(int fd, const FrameHeader& header, pid_t peer, bool budgeted) {
    Parcel data;
    Parcel reply;
    status_t status = readParcelFrame(fd, header, &data);
    if (status == NOT_ENOUGH_DATA) return DEAD_OBJECT;
    if (status == OK) {
        sp<IBinder> target;
        {
            std::lock_guard<std::mutex> lock(mLock);
            auto it = mObjects.find(header.object);
            if (it != mObjects.end()) target = it->second;
        }
        if (target == nullptr) {
            status = DEAD_OBJECT;
        } else if ((header.flags & IBinder::FLAG_ONEWAY) != 0) {
            // Nobody waits for a one-way call: calls made while serving it
            // go the usual way.
            status = target->transact(header.code, data, &reply, header.flags);
        } else {
            ServingScope scope(fd, peer);
            status = target->transact(header.code, data, &reply, header.flags);
        }
    } else {
        reply.freeData();
    }
    // The request's room is free again before the caller hears the answer,
    // as libbinder frees the buffer along with its reply.
    if (budgeted) {
        mBudget.release(bufferBytes(header.dataSize, header.objectCount),
                        (header.flags & IBinder::FLAG_ONEWAY) != 0);
    }
    if ((header.flags & IBinder::FLAG_ONEWAY) != 0) return OK;
    FrameHeader answer;
    answer.kind = kReply;
    answer.status = status;
    status_t sent = sendParcelFrame(fd, answer, &reply);
    if (sent == FAILED_TRANSACTION) {
        answer.status = FAILED_TRANSACTION;
        sent = sendParcelFrame(fd, answer, nullptr);
    }
    return sent;
}

void HostRuntime::acceptLoop() {
    pthread_setname_np(pthread_self(), "hbinder_accept");
    for (;;) {
        std::vector<Listener> listeners;
        {
            std::lock_guard<std::mutex> lock(mLock);
            listeners = mListeners;
        }
        std::vector<pollfd> fds;
        fds.push_back({mAcceptWake[0], POLLIN, 0});
        for (const Listener& l : listeners) fds.push_back({l.fd, POLLIN, 0});
        const int n = poll(fds.data(), fds.size(), -1);
        if (n < 0) continue;
        if (fds[0].revents != 0) drain(mAcceptWake[0]);
        for (size_t i = 1; i < fds.size(); ++i) {
            if ((fds[i].revents & POLLIN) == 0) continue;
            const int conn = accept4(fds[i].fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (conn < 0) continue;
            handleAccepted(conn, listeners[i - 1].service);
        }
    }
}

void HostRuntime::handleAccepted(int fd, const std::string& service) {
    setReceiveTimeout(fd, kHeaderTimeoutMs);
    FrameHeader header;
    if (!readFully(fd, &header, sizeof(header)) || header.magic != kFrameMagic) {
        close(fd);
        return;
    }
    if (!service.empty()) {
        if (header.kind != kLookup) {
            close(fd);
            return;
        }
        sp<IBinder> binder;
        {
            std::lock_guard<std::mutex> lock(mLock);
            auto it = mServices.find(service);
            if (it != mServices.end()) binder = mObjects[it->second];
        }
        Parcel parcel;
        FrameHeader answer;
        answer.kind = kReply;
        answer.status = binder != nullptr ? flatten(&parcel, binder) : NAME_NOT_FOUND;
        sendParcelFrame(fd, answer, &parcel);
        close(fd);
        return;
    }
    if (header.kind == kLink) {
        bool known;
        {
            std::lock_guard<std::mutex> lock(mLock);
            known = mObjects.count(header.object) != 0;
        }
        FrameHeader answer;
        answer.kind = kReply;
        answer.status = known ? OK : DEAD_OBJECT;
        if (sendParcelFrame(fd, answer, nullptr) != OK || !known) {
            close(fd);
            return;
        }
        // Held until the proxy side closes it; our exit closes it for them.
        watchFd(fd, nullptr);
        return;
    }
    if (header.kind != kTransact) {
        close(fd);
        return;
    }
    // The transaction holds its room in this process's buffer from now until
    // serveTransaction is done with it.
    if (!mBudget.reserve(bufferBytes(header.dataSize, header.objectCount),
                         (header.flags & IBinder::FLAG_ONEWAY) != 0)) {
        if ((header.flags & IBinder::FLAG_ONEWAY) == 0) {
            FrameHeader answer;
            answer.kind = kReply;
            answer.status = FAILED_TRANSACTION;
            sendParcelFrame(fd, answer, nullptr);
        }
        close(fd);
        return;
    }
    const pid_t peer = peerPid(fd);
    std::lock_guard<std::mutex> lock(mLock);
    mQueue.push_back({fd, header, peer});
    if (mPoolStarted && mQueue.size() > mPoolIdle && mPoolThreads < mPoolMax) {
        spawnPoolThreadLocked();
    }
    mPoolCv.notify_one();
}

void HostRuntime::spawnPoolThreadLocked() {
    ++mPoolThreads;
    std::thread(&HostRuntime::poolLoop, this).detach();
}

void HostRuntime::startThreadPool() {
    std::lock_guard<std::mutex> lock(mLock);
    if (mPoolStarted) return;
    mPoolStarted = true;
    // Transactions can only arrive at an endpoint that exists.
    endpointLocked();
    spawnPoolThreadLocked();
}

status_t HostRuntime::setThreadPoolMaxThreadCount(size_t maxThreads) {
    std::lock_guard<std::mutex> lock(mLock);
    mPoolMax = std::max<size_t>(maxThreads, 1);
    return OK;
}

void HostRuntime::joinThreadPool() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mPoolStarted = true;
        endpointLocked();
        ++mPoolThreads;
    }
    poolLoop();
}

void HostRuntime::poolLoop() {
    uint32_t seq;
    {
        std::lock_guard<std::mutex> lock(mLock);
        seq = ++mPoolSeq;
    }
    char name[16];
    snprintf(name, sizeof(name), "binder:%d_%X", static_cast<int>(getpid()), seq);
    pthread_setname_np(pthread_self(), name);
    for (;;) {
        Incoming in;
        {
            std::unique_lock<std::mutex> lock(mLock);
            ++mPoolIdle;
            mPoolCv.wait(lock, [this] { return !mQueue.empty(); });
            --mPoolIdle;
            in = mQueue.front();
            mQueue.pop_front();
            // One-way calls to one object run one at a time, in the order
            // they arrived, as libbinder delivers them; a call arriving while
            // another runs waits behind it.
            if ((in.header.flags & IBinder::FLAG_ONEWAY) != 0) {
                AsyncQueue& q = mAsync[in.header.object];
                if (q.busy) {
                    q.pending.push_back(in);
                    continue;
                }
                q.busy = true;
            }
        }
        serveTransaction(in);
        if ((in.header.flags & IBinder::FLAG_ONEWAY) == 0) continue;
        for (;;) {
            Incoming next;
            {
                std::lock_guard<std::mutex> lock(mLock);
                auto it = mAsync.find(in.header.object);
                if (it->second.pending.empty()) {
                    mAsync.erase(it);
                    break;
                }
                next = it->second.pending.front();
                it->second.pending.pop_front();
            }
            serveTransaction(next);
        }
    }
}

void HostRuntime::serveTransaction(const Incoming& in) {
    setReceiveTimeout(in.fd, kBodyTimeoutMs);
    serveOn(in.fd, in.header, in.peer, true);
    close(in.fd);
}

status_t HostRuntime::addService(const std::string& name, const sp<IBinder>& binder) {
    if (binder == nullptr || binder->localBinder() == nullptr || name.empty() ||
        name.find('/') != std::string::npos) {
        return BAD_VALUE;
    }
    std::lock_guard<std::mutex> lock(mLock);
    if (endpointLocked().empty()) return NO_INIT;
    const uint64_t id = exportLocked(binder);
    auto it = mServices.find(name);
    if (it != mServices.end()) {
        it->second = id;
        return OK;
    }
    const int fd = listenAbstract(mPrefix + "svc/" + name);
    if (fd < 0) return errno == EADDRINUSE ? ALREADY_EXISTS : BAD_VALUE;
    mServices[name] = id;
    mListeners.push_back({fd, name});
    wakeAcceptor();
    return OK;
}

sp<IBinder> HostRuntime::checkService(const std::string& name) {
    if (name.empty() || name.find('/') != std::string::npos) return nullptr;
    {
        // This process's own services need no socket round trip.
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mServices.find(name);
        if (it != mServices.end()) return mObjects[it->second];
    }
    const int fd = connectAbstract(mPrefix + "svc/" + name);
    if (fd < 0) return nullptr;
    FrameHeader header;
    header.kind = kLookup;
    sp<IBinder> result;
    FrameHeader answer;
    if (sendParcelFrame(fd, header, nullptr) == OK && readFully(fd, &answer, sizeof(answer)) &&
        answer.magic == kFrameMagic && answer.kind == kReply && answer.status == OK) {
        Parcel parcel;
        if (readParcelFrame(fd, answer, &parcel) == OK) {
            sp<IBinder> b;
            if (unflatten(parcel, &b) == OK) result = b;
        }
    }
    close(fd);
    return result;
}

std::vector<std::string> HostRuntime::localServiceNames() {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<std::string> names;
    for (const auto& s : mServices) names.push_back(s.first);
    return names;
}

std::shared_ptr<DeathLink> HostRuntime::openDeathLink(const std::string& ep, uint64_t id,
                                                      const wp<BpBinder>& proxy) {
    const int fd = connectAbstract(ep);
    if (fd < 0) return nullptr;
    FrameHeader header;
    header.kind = kLink;
    header.object = id;
    FrameHeader answer;
    if (sendParcelFrame(fd, header, nullptr) != OK || !readFully(fd, &answer, sizeof(answer)) ||
        answer.magic != kFrameMagic || answer.kind != kReply || answer.status != OK) {
        close(fd);
        return nullptr;
    }
    auto link = std::make_shared<DeathLink>(fd, proxy);
    watchFd(fd, link);
    return link;
}

void HostRuntime::closeDeathLink(const std::shared_ptr<DeathLink>& link) {
    if (!link) return;
    link->closed.store(true);
    wakeWatcher();
}

void HostRuntime::wakeWatcher() {
    const char c = 1;
    if (write(mWatchWake[1], &c, 1) < 0) {
        // A full pipe already holds a wake-up.
    }
}

void HostRuntime::watchFd(int fd, std::shared_ptr<DeathLink> link) {
    {
        std::lock_guard<std::mutex> lock(mWatchLock);
        mWatched.push_back({fd, std::move(link)});
        if (!mWatcherRunning) {
            mWatcherRunning = true;
            std::thread(&HostRuntime::watchLoop, this).detach();
        }
    }
    wakeWatcher();
}

void HostRuntime::watchLoop() {
    pthread_setname_np(pthread_self(), "hbinder_death");
    for (;;) {
        std::vector<Watched> watched;
        {
            std::lock_guard<std::mutex> lock(mWatchLock);
            // Links whose proxies went away are closed here, on the one thread
            // that polls them, so a descriptor is never reused under poll.
            for (auto it = mWatched.begin(); it != mWatched.end();) {
                if (it->link && it->link->closed.load()) {
                    close(it->fd);
                    it = mWatched.erase(it);
                } else {
                    ++it;
                }
            }
            watched = mWatched;
        }
        std::vector<pollfd> fds;
        fds.push_back({mWatchWake[0], POLLIN, 0});
        for (const Watched& w : watched) fds.push_back({w.fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0) continue;
        if (fds[0].revents != 0) drain(mWatchWake[0]);
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            char buf[64];
            const ssize_t n = recv(fds[i].fd, buf, sizeof(buf), MSG_DONTWAIT);
            // Nobody writes on a link; anything read is ignored.
            if (n > 0 || (n < 0 && (errno == EAGAIN || errno == EINTR))) continue;
            std::shared_ptr<DeathLink> link = watched[i - 1].link;
            {
                std::lock_guard<std::mutex> lock(mWatchLock);
                mWatched.erase(std::remove_if(mWatched.begin(), mWatched.end(),
                                              [&](const Watched& w) { return w.fd == fds[i].fd; }),
                               mWatched.end());
            }
            close(fds[i].fd);
            if (link && !link->closed.load()) {
                sp<BpBinder> proxy = link->proxy.promote();
                if (proxy != nullptr) proxy->sendObituary();
            }
        }
    }
}

}  // namespace hostbinder
}  // namespace android
