// IServiceManager: the registry of named services that every process on the
// host reaches (see HostRuntime for how names map to sockets).
//
// defaultServiceManager() returns the process's one instance; any thread may
// call it. getService waits about 5 seconds for a service that is not
// published yet, as libbinder's does; checkService never waits.
#pragma once

#include <binder/IInterface.h>
#include <utils/Vector.h>

namespace android {

class IServiceManager : public IInterface {
  public:
    static const int DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0;
    static const int DUMP_FLAG_PRIORITY_HIGH = 1 << 1;
    static const int DUMP_FLAG_PRIORITY_NORMAL = 1 << 2;
    static const int DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3;
    static const int DUMP_FLAG_PRIORITY_ALL = DUMP_FLAG_PRIORITY_CRITICAL |
                                              DUMP_FLAG_PRIORITY_HIGH | DUMP_FLAG_PRIORITY_NORMAL |
                                              DUMP_FLAG_PRIORITY_DEFAULT;

    IServiceManager();
    ~IServiceManager() override;

    // Looks the service up, waiting up to about 5 seconds for it to appear.
    virtual sp<IBinder> getService(const String16& name) const = 0;
    // Looks the service up without waiting; null when it is not published.
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    // Publishes a local object under `name`. ALREADY_EXISTS when another
    // live process serves that name; BAD_VALUE for a remote or null object or
    // an unusable name.
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
    // Names published by this process (the host registry cannot be listed).
    virtual Vector<String16> listServices(int dumpsysFlags = DUMP_FLAG_PRIORITY_ALL) = 0;
};

sp<IServiceManager> defaultServiceManager();

template <typename INTERFACE>
status_t getService(const String16& name, sp<INTERFACE>* outService) {
    const sp<IServiceManager> sm = defaultServiceManager();
    if (sm != nullptr) {
        *outService = interface_cast<INTERFACE>(sm->getService(name));
        if ((*outService) != nullptr) return NO_ERROR;
    }
    return NAME_NOT_FOUND;
}

}  // namespace android
