#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

IBinder::IBinder() : RefBase() {}
IBinder::~IBinder() {}

sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) {
    return nullptr;
}
bool IBinder::checkSubclass(const void* /*subclassID*/) const {
    return false;
}
BBinder* IBinder::localBinder() {
    return nullptr;
}
BpBinder* IBinder::remoteBinder() {
    return nullptr;
}

BBinder::BBinder() {}

BBinder::~BBinder() {
    for (auto& entry : mObjects) {
        if (entry.second.func != nullptr) {
            entry.second.func(entry.first, entry.second.object, entry.second.cleanupCookie);
        }
    }
}

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

bool BBinder::isBinderAlive() const {
    return true;
}
status_t BBinder::pingBinder() {
    return NO_ERROR;
}
status_t BBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) {
    return NO_ERROR;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    status_t err = NO_ERROR;
    switch (code) {
        case PING_TRANSACTION:
            err = pingBinder();
            break;
        default:
            err = onTransact(code, data, reply, flags);
            break;
    }
    if (reply != nullptr) reply->setDataPosition(0);
    return err;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& /*data*/, Parcel* reply,
                             uint32_t /*flags*/) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            if (reply == nullptr) return BAD_VALUE;
            reply->writeString16(getInterfaceDescriptor());
            return NO_ERROR;
        default:
            return UNKNOWN_TRANSACTION;
    }
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                              uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                uint32_t /*flags*/, wp<DeathRecipient>* /*outRecipient*/) {
    return INVALID_OPERATION;
}

void BBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                           object_cleanup_func func) {
    std::lock_guard<std::mutex> lock(mObjectsLock);
    mObjects[objectID] = Attached{object, cleanupCookie, func};
}

void* BBinder::findObject(const void* objectID) const {
    std::lock_guard<std::mutex> lock(mObjectsLock);
    auto it = mObjects.find(objectID);
    return it != mObjects.end() ? it->second.object : nullptr;
}

void BBinder::detachObject(const void* objectID) {
    std::lock_guard<std::mutex> lock(mObjectsLock);
    mObjects.erase(objectID);
}

BBinder* BBinder::localBinder() {
    return this;
}

BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o) {}
BpRefBase::~BpRefBase() {}

IInterface::IInterface() : RefBase() {}
IInterface::~IInterface() {}

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    if (iface == nullptr) return nullptr;
    return const_cast<IInterface*>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    if (iface == nullptr) return nullptr;
    return iface->onAsBinder();
}

}  // namespace android
