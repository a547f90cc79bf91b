// BBinder: a local binder object, the base of every stub (BnInterface), and
// BpRefBase, the base of every proxy (BpInterface).
//
// A BBinder is called by the host runtime's pool threads (transactions from
// other processes) and directly by threads of its own process. It takes a lock
// only around its attached objects.
#pragma once

#include <binder/IBinder.h>

#include <map>
#include <mutex>

namespace android {

class BBinder : public IBinder {
  public:
    BBinder();

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t dump(int fd, const Vector<String16>& args) override;

    // Rewinds `data`, answers PING_TRANSACTION itself and hands every other
    // code to onTransact; rewinds `reply` afterwards.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

    // A local object never dies on its own: INVALID_OPERATION.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    void attachObject(const void* objectID, void* object, void* cleanupCookie,
                      object_cleanup_func func) override;
    void* findObject(const void* objectID) const override;
    void detachObject(const void* objectID) override;

    BBinder* localBinder() override;

  protected:
    ~BBinder() override;

    // Answers INTERFACE_TRANSACTION with the descriptor and every other code
    // with UNKNOWN_TRANSACTION. Subclasses handle their own codes first.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);

  private:
    BBinder(const BBinder&) = delete;
    BBinder& operator=(const BBinder&) = delete;

    struct Attached {
        void* object;
        void* cleanupCookie;
        object_cleanup_func func;
    };
    mutable std::mutex mObjectsLock;
    std::map<const void*, Attached> mObjects;
};

class BpRefBase : public virtual RefBase {
  protected:
    explicit BpRefBase(const sp<IBinder>& o);
    ~BpRefBase() override;

    inline IBinder* remote() { return mRemote.get(); }
    inline IBinder* remote() const { return mRemote.get(); }

  private:
    BpRefBase(const BpRefBase& o) = delete;
    BpRefBase& operator=(const BpRefBase& o) = delete;

    const sp<IBinder> mRemote;
};

}  // namespace android
