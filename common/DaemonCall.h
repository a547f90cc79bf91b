// Marks the calls a thread makes to the collection daemon, so that the
// library knows when a campaign event reaches it from inside one.
//
// On a device, a synchronous call that the daemon makes back into this
// process while one of our threads waits for that daemon's answer is
// delivered to the waiting thread itself. That thread may hold the binder
// client's call lock, be the writer thread that a campaign stop would join,
// or be stopping a campaign already; a campaign change run there in the
// usual way would wait for itself. The transports open a DaemonCall around
// every call to the daemon; the collector asks insideDaemonCall() and takes
// a path that never waits for what the thread already holds.
#pragma once

namespace zem {

namespace internal {
inline int& daemonCallDepth() {
    static thread_local int depth = 0;
    return depth;
}
}  // namespace internal

// For its scope the calling thread is waiting for the daemon.
class DaemonCall {
  public:
    DaemonCall() { ++internal::daemonCallDepth(); }
    ~DaemonCall() { --internal::daemonCallDepth(); }
    DaemonCall(const DaemonCall&) = delete;
    DaemonCall& operator=(const DaemonCall&) = delete;
};

// True when the calling thread is inside a call to the daemon.
inline bool insideDaemonCall() {
    return internal::daemonCallDepth() > 0;
}

}  // namespace zem
