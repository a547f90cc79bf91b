// BpBinder: a proxy for an object served by another process.
//
// On the host an object is named by its owner's endpoint (an abstract Unix
// socket of the serving process) and an object id within that process. Each
// transaction opens a connection to the endpoint, sends one request frame
// and, for a two-way call, reads one reply frame. Death notifications keep
// one extra connection open to the owner; its end of file means the owner
// exited or was killed.
//
// Made by the host runtime when a parcel carries a remote object or a service
// is looked up; one proxy per remote object per process while it lives. Any
// thread may call it; `mLock` guards the cached descriptor and the death
// recipients.
#pragma once

#include <binder/IBinder.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace android {

namespace hostbinder {
class DeathLink;
class HostRuntime;
}  // namespace hostbinder

class BpBinder : public IBinder {
  public:
    // The proxy for object `objectId` served at `endpoint`.
    static sp<BpBinder> create(const std::string& endpoint, uint64_t objectId);

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t dump(int fd, const Vector<String16>& args) override;

    // DEAD_OBJECT when the owner cannot be reached or went away before it
    // replied; FAILED_TRANSACTION for a parcel too large or a malformed
    // reply; otherwise what the remote object's transact returned.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags = 0) override;

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    void attachObject(const void* objectID, void* object, void* cleanupCookie,
                      object_cleanup_func func) override;
    void* findObject(const void* objectID) const override;
    void detachObject(const void* objectID) override;

    BpBinder* remoteBinder() override;

    const std::string& endpoint() const { return mEndpoint; }
    uint64_t objectId() const { return mObjectId; }

  protected:
    ~BpBinder() override;

  private:
    BpBinder(const std::string& endpoint, uint64_t objectId);

    // Called by the death-watch thread when the owner's connection ends.
    void sendObituary();
    friend class hostbinder::HostRuntime;

    const std::string mEndpoint;
    const uint64_t mObjectId;
    std::atomic<bool> mAlive{true};

    struct Obituary {
        wp<DeathRecipient> recipient;
        void* cookie;
        uint32_t flags;
    };
    mutable std::mutex mLock;
    mutable String16 mDescriptorCache;
    mutable bool mHaveDescriptor = false;
    std::vector<Obituary> mObituaries;
    bool mObitsSent = false;
    std::shared_ptr<hostbinder::DeathLink> mLink;
};

}  // namespace android
