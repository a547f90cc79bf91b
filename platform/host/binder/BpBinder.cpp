#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include "HostRuntime.h"

namespace android {

using hostbinder::HostRuntime;

sp<BpBinder> BpBinder::create(const std::string& endpoint, uint64_t objectId) {
    return new BpBinder(endpoint, objectId);
}

BpBinder::BpBinder(const std::string& endpoint, uint64_t objectId)
    : mEndpoint(endpoint), mObjectId(objectId) {}

BpBinder::~BpBinder() {
    std::shared_ptr<hostbinder::DeathLink> link;
    {
        std::lock_guard<std::mutex> lock(mLock);
        link = std::move(mLink);
    }
    HostRuntime::get().closeDeathLink(link);
}

const String16& BpBinder::getInterfaceDescriptor() const {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mHaveDescriptor) return mDescriptorCache;
    }
    Parcel data;
    Parcel reply;
    String16 descriptor;
    // Not cached on failure, so a later call asks again.
    if (const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply) == NO_ERROR &&
        reply.readString16(&descriptor) == NO_ERROR) {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mHaveDescriptor) {
            mDescriptorCache = descriptor;
            mHaveDescriptor = true;
        }
        return mDescriptorCache;
    }
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

bool BpBinder::isBinderAlive() const {
    return mAlive.load();
}

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) {
    return NO_ERROR;
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!mAlive.load()) return DEAD_OBJECT;
    const status_t status =
            HostRuntime::get().transact(mEndpoint, mObjectId, code, data, reply, flags);
    if (status == DEAD_OBJECT) mAlive.store(false);
    return status;
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t flags) {
    if (recipient == nullptr) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mLock);
    if (mObitsSent || !mAlive.load()) return DEAD_OBJECT;
    if (!mLink) {
        mLink = HostRuntime::get().openDeathLink(mEndpoint, mObjectId, wp<BpBinder>(this));
        if (!mLink) {
            mAlive.store(false);
            return DEAD_OBJECT;
        }
    }
    mObituaries.push_back({recipient, cookie, flags});
    return NO_ERROR;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                                 wp<DeathRecipient>* outRecipient) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mObitsSent) return DEAD_OBJECT;
    for (auto it = mObituaries.begin(); it != mObituaries.end(); ++it) {
        if ((it->recipient == recipient || (recipient == nullptr && it->cookie == cookie)) &&
            it->flags == flags) {
            if (outRecipient != nullptr) *outRecipient = it->recipient;
            mObituaries.erase(it);
            if (mObituaries.empty()) {
                HostRuntime::get().closeDeathLink(mLink);
                mLink.reset();
            }
            return NO_ERROR;
        }
    }
    return NAME_NOT_FOUND;
}

void BpBinder::sendObituary() {
    std::vector<Obituary> obits;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mAlive.store(false);
        if (mObitsSent) return;
        mObitsSent = true;
        obits.swap(mObituaries);
        mLink.reset();
    }
    const wp<IBinder> who(this);
    for (const Obituary& o : obits) {
        sp<DeathRecipient> recipient = o.recipient.promote();
        if (recipient != nullptr) recipient->binderDied(who);
    }
}

void BpBinder::attachObject(const void* /*objectID*/, void* /*object*/, void* /*cleanupCookie*/,
                            object_cleanup_func /*func*/) {}
void* BpBinder::findObject(const void* /*objectID*/) const {
    return nullptr;
}
void BpBinder::detachObject(const void* /*objectID*/) {}

BpBinder* BpBinder::remoteBinder() {
    return this;
}

}  // namespace android
