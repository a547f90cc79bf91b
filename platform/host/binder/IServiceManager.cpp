#include <binder/IServiceManager.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "HostRuntime.h"

namespace android {

using hostbinder::HostRuntime;

namespace {

// libbinder's bounded wait in getService.
constexpr auto kGetServiceTimeout = std::chrono::seconds(5);
constexpr auto kGetServicePoll = std::chrono::milliseconds(100);

std::string toUtf8(const String16& name) {
    return std::string(String8(name).string());
}

// The registry as this process sees it. Local only: asBinder gives null.
class HostServiceManager : public IServiceManager {
  public:
    sp<IBinder> getService(const String16& name) const override {
        const auto deadline = std::chrono::steady_clock::now() + kGetServiceTimeout;
        for (;;) {
            sp<IBinder> svc = checkService(name);
            if (svc != nullptr || std::chrono::steady_clock::now() >= deadline) return svc;
            std::this_thread::sleep_for(kGetServicePoll);
        }
    }

    sp<IBinder> checkService(const String16& name) const override {
        return HostRuntime::get().checkService(toUtf8(name));
    }

    status_t addService(const String16& name, const sp<IBinder>& service, bool /*allowIsolated*/,
                        int /*dumpsysFlags*/) override {
        return HostRuntime::get().addService(toUtf8(name), service);
    }

    Vector<String16> listServices(int /*dumpsysFlags*/) override {
        Vector<String16> names;
        for (const std::string& n : HostRuntime::get().localServiceNames()) {
            names.add(String16(n.c_str()));
        }
        return names;
    }

  protected:
    IBinder* onAsBinder() override { return nullptr; }
};

}  // namespace

IServiceManager::IServiceManager() {}
IServiceManager::~IServiceManager() {}

sp<IServiceManager> defaultServiceManager() {
    // Never destroyed, like libbinder's.
    static sp<IServiceManager>* const sm = new sp<IServiceManager>(new HostServiceManager());
    return *sm;
}

}  // namespace android
