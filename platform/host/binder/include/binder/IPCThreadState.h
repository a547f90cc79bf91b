// IPCThreadState: the calling thread's side of binder. On the host only
// joinThreadPool is provided, for daemons whose main thread serves calls.
#pragma once

#include <binder/ProcessState.h>

namespace android {

class IPCThreadState {
  public:
    static IPCThreadState* self();
    // Makes the calling thread one more pool thread; returns only when the
    // process is shutting the pool down (never, on the host).
    void joinThreadPool(bool isMain = true);
    void flushCommands() {}

  private:
    IPCThreadState() = default;
};

}  // namespace android
