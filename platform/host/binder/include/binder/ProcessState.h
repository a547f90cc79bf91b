// ProcessState: the process's binder state: its endpoint, its thread pool and
// the table of its objects that other processes hold.
//
// One instance per process (self()), never destroyed. startThreadPool may be
// called any number of times from any thread; the pool starts once.
#pragma once

#include <binder/IBinder.h>
#include <utils/String8.h>

namespace android {

class ProcessState : public virtual RefBase {
  public:
    static sp<ProcessState> self();
    static sp<ProcessState> selfOrNull();

    // Starts the pool that serves incoming transactions: threads named
    // "binder:<pid>_<n>", one at first, more on demand up to the maximum.
    void startThreadPool();
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    // Not used on the host; kept for the platform's API.
    void giveThreadPoolName() {}
    String8 getDriverName();

  private:
    ProcessState();
    ~ProcessState() override;
};

}  // namespace android
