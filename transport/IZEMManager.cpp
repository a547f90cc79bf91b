#include "transport/IZEMManager.h"

using android::IBinder;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;

const String16& IZEMManager::descriptor = *new String16("IZEMManager");

BpZEMManager::BpZEMManager(const sp<IBinder>& impl) : BpInterface<IZEMManager>(impl) {}

Status BpZEMManager::registerZEMClient(const std::string& name, const sp<IZEMCallback>& callback,
                                       std::string* token) {
    return zem_binder::proxyCall<IZEMManager>(
            remote(), REGISTERZEMCLIENT, 0,
            [&](Parcel& data) {
                status_t err = data.writeUtf8AsUtf16(name);
                if (err == OK) err = data.writeStrongBinder(IInterface::asBinder(callback));
                return err;
            },
            [&](IZEMManager& impl) { return impl.registerZEMClient(name, callback, token); },
            [&](const Parcel& reply) { return reply.readUtf8FromUtf16(token); });
}

Status BpZEMManager::checkForPendingCampaign(const std::string& token) {
    return zem_binder::proxyCall<IZEMManager>(
            remote(), CHECKFORPENDINGCAMPAIGN, IBinder::FLAG_ONEWAY,
            [&](Parcel& data) { return data.writeUtf8AsUtf16(token); },
            [&](IZEMManager& impl) { return impl.checkForPendingCampaign(token); },
            [](const Parcel&) { return OK; });
}

Status BpZEMManager::deregisterZEMClient(const std::string& token) {
    return zem_binder::proxyCall<IZEMManager>(
            remote(), DEREGISTERZEMCLIENT, 0,
            [&](Parcel& data) { return data.writeUtf8AsUtf16(token); },
            [&](IZEMManager& impl) { return impl.deregisterZEMClient(token); },
            [](const Parcel&) { return OK; });
}

Status BpZEMManager::sendData(const std::vector<uint8_t>& content, const std::string& token,
                              bool* result) {
    return zem_binder::proxyCall<IZEMManager>(
            remote(), SENDDATA, 0,
            [&](Parcel& data) {
                status_t err = data.writeByteVector(content);
                if (err == OK) err = data.writeUtf8AsUtf16(token);
                return err;
            },
            [&](IZEMManager& impl) { return impl.sendData(content, token, result); },
            [&](const Parcel& reply) { return reply.readBool(result); });
}

status_t BnZEMManager::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                  uint32_t flags) {
    if (code < REGISTERZEMCLIENT || code > SENDDATA) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) return android::BAD_TYPE;

    switch (code) {
        case REGISTERZEMCLIENT: {
            std::string name;
            sp<IZEMCallback> callback;
            status_t err = data.readUtf8FromUtf16(&name);
            if (err == OK) {
                sp<IBinder> binder;
                err = data.readStrongBinder(&binder);
                if (err == OK) callback = IZEMCallback::asInterface(binder);
            }
            if (err != OK) return err;
            if (reply == nullptr) return android::BAD_VALUE;
            std::string token;
            const Status status = registerZEMClient(name, callback, &token);
            return zem_binder::writeReply(reply, status,
                                          [&] { return reply->writeUtf8AsUtf16(token); });
        }
        case CHECKFORPENDINGCAMPAIGN: {
            std::string token;
            const status_t err = data.readUtf8FromUtf16(&token);
            if (err != OK) return err;
            // One-way: the caller is not waiting for a status.
            checkForPendingCampaign(token);
            return OK;
        }
        case DEREGISTERZEMCLIENT: {
            std::string token;
            const status_t err = data.readUtf8FromUtf16(&token);
            if (err != OK) return err;
            if (reply == nullptr) return android::BAD_VALUE;
            return deregisterZEMClient(token).writeToParcel(reply);
        }
        default: {  // SENDDATA
            std::vector<uint8_t> content;
            std::string token;
            status_t err = data.readByteVector(&content);
            if (err == OK) err = data.readUtf8FromUtf16(&token);
            if (err != OK) return err;
            if (reply == nullptr) return android::BAD_VALUE;
            bool result = false;
            const Status status = sendData(content, token, &result);
            return zem_binder::writeReply(reply, status, [&] { return reply->writeBool(result); });
        }
    }
}
