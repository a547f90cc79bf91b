#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include "HostRuntime.h"

namespace android {

using hostbinder::HostRuntime;

sp<ProcessState> ProcessState::self() {
    // Never destroyed: pool threads may run while the process exits.
    static sp<ProcessState>* const state = new sp<ProcessState>(new ProcessState());
    return *state;
}

sp<ProcessState> ProcessState::selfOrNull() {
    return self();
}

ProcessState::ProcessState() {}
ProcessState::~ProcessState() {}

void ProcessState::startThreadPool() {
    HostRuntime::get().startThreadPool();
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    return HostRuntime::get().setThreadPoolMaxThreadCount(maxThreads);
}

String8 ProcessState::getDriverName() {
    return String8("host");
}

IPCThreadState* IPCThreadState::self() {
    static IPCThreadState* const state = new IPCThreadState();
    return state;
}

void IPCThreadState::joinThreadPool(bool /*isMain*/) {
    HostRuntime::get().joinThreadPool();
}

}  // namespace android
