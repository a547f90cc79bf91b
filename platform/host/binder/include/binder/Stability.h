// internal::Stability: the stability level a binder carries (which partition's
// code may talk to it). The host runtime records it on each object, writes it
// after every flattened binder and restores it on the proxy, as libbinder
// does; it enforces nothing, since every process on the host is one
// partition. Static functions; the level is an atomic field of the object.
#pragma once

#include <binder/IBinder.h>

#include <string>

namespace android {

class BpBinder;
class ProcessState;

namespace internal {

class Stability final {
  public:
    // Marks `binder` with the stability of the code it was compiled with.
    static void markCompilationUnit(IBinder* binder);
    static void markVintf(IBinder* binder);
    static void markVndk(IBinder* binder);
    static void debugLogStability(const std::string& tag, const sp<IBinder>& binder);
    static bool requiresVintfDeclaration(const sp<IBinder>& binder);

    enum Level : int32_t {
        UNDECLARED = 0,
        VENDOR = 0b000011,
        SYSTEM = 0b001100,
        VINTF = 0b111111,
    };

    // The level carried by `binder` (UNDECLARED for null).
    static int32_t get(IBinder* binder);
    // Marks a binder that has no level yet with the local one.
    static void tryMarkCompilationUnit(IBinder* binder);
    // Sets the level read from a parcel.
    static void setRemote(IBinder* binder, int32_t level);

  private:
    // A vendor library: every binder it makes is vendor-stable.
    static constexpr Level kLocalStability = Level::VENDOR;
    Stability() = delete;
};

}  // namespace internal
}  // namespace android
