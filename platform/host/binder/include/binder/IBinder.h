// IBinder: the base of every binder object, local (BBinder) or remote
// (BpBinder), as the platform's libbinder declares it for the calls this
// library and interface-definition generated code make.
//
// Part of the host binder runtime: on a Linux host there is no binder driver,
// so transactions travel over Unix-domain sockets between processes (see
// HostRuntime). Objects are reference counted through libutils' RefBase and
// may be used from any thread.
#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include <atomic>

#define B_PACK_CHARS(c1, c2, c3, c4) ((((c1) << 24)) | (((c2) << 16)) | (((c3) << 8)) | (c4))

namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;

namespace internal {
class Stability;
}

class IBinder : public virtual RefBase {
  public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,

        PING_TRANSACTION = B_PACK_CHARS('_', 'P', 'N', 'G'),
        DUMP_TRANSACTION = B_PACK_CHARS('_', 'D', 'M', 'P'),
        SHELL_COMMAND_TRANSACTION = B_PACK_CHARS('_', 'C', 'M', 'D'),
        INTERFACE_TRANSACTION = B_PACK_CHARS('_', 'N', 'T', 'F'),
        SYSPROPS_TRANSACTION = B_PACK_CHARS('_', 'S', 'P', 'R'),

        // The caller does not wait for the call and gets no reply.
        FLAG_ONEWAY = 0x00000001,
        FLAG_PRIVATE_VENDOR = 0x10000000,
    };

    IBinder();

    // The local interface object for `descriptor`, or null (always null for
    // a remote object).
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);

    virtual const String16& getInterfaceDescriptor() const = 0;
    virtual bool isBinderAlive() const = 0;
    virtual status_t pingBinder() = 0;
    virtual status_t dump(int fd, const Vector<String16>& args) = 0;

    // Sends `code` with `data`; for a two-way call waits for the reply.
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) = 0;

    // Told when the process serving a remote object goes away. Runs on the
    // host runtime's death-watch thread.
    class DeathRecipient : public virtual RefBase {
      public:
        virtual void binderDied(const wp<IBinder>& who) = 0;
    };

    // Remote objects only (a local object answers INVALID_OPERATION). The
    // recipient is held weakly, as libbinder does: the caller keeps it alive.
    // DEAD_OBJECT when the serving process is already gone.
    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0) = 0;
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0,
                                   wp<DeathRecipient>* outRecipient = nullptr) = 0;

    virtual bool checkSubclass(const void* subclassID) const;

    typedef void (*object_cleanup_func)(const void* id, void* obj, void* cleanupCookie);
    virtual void attachObject(const void* objectID, void* object, void* cleanupCookie,
                              object_cleanup_func func) = 0;
    virtual void* findObject(const void* objectID) const = 0;
    virtual void detachObject(const void* objectID) = 0;

    virtual BBinder* localBinder();
    virtual BpBinder* remoteBinder();

  protected:
    virtual ~IBinder();

  private:
    friend class internal::Stability;
    // The stability level (internal::Stability) carried with the object.
    std::atomic<int32_t> mStability{0};
};

}  // namespace android
