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
    Parcel data;
    Parcel reply;
    zem_binder::markForBinder(data, sp<IBinder>(remote()));
    status_t err = data.writeInterfaceToken(getInterfaceDescriptor());
    if (err == OK) err = data.writeUtf8AsUtf16(name);
    if (err == OK) err = data.writeStrongBinder(IInterface::asBinder(callback));
    if (err != OK) return Status::fromStatusT(err);

    err = remote()->transact(REGISTERZEMCLIENT, data, &reply, 0);
    if (err == android::UNKNOWN_TRANSACTION && getDefaultImpl()) {
        return getDefaultImpl()->registerZEMClient(name, callback, token);
    }
    if (err != OK) return Status::fromStatusT(err);
    return zem_binder::readReply(reply, [&] { return reply.readUtf8FromUtf16(token); });
}

Status BpZEMManager::checkForPendingCampaign(const std::string& token) {
    Parcel data;
    Parcel reply;
    zem_binder::markForBinder(data, sp<IBinder>(remote()));
    status_t err = data.writeInterfaceToken(getInterfaceDescriptor());
    if (err == OK) err = data.writeUtf8AsUtf16(token);
    if (err != OK) return Status::fromStatusT(err);

    err = remote()->transact(CHECKFORPENDINGCAMPAIGN, data, &reply, IBinder::FLAG_ONEWAY);
    if (err == android::UNKNOWN_TRANSACTION && getDefaultImpl()) {
        return getDefaultImpl()->checkForPendingCampaign(token);
    }
    return Status::fromStatusT(err);
}

Status BpZEMManager::deregisterZEMClient(const std::string& token) {
    Parcel data;
    Parcel reply;
    zem_binder::markForBinder(data, sp<IBinder>(remote()));
    status_t err = data.writeInterfaceToken(getInterfaceDescriptor());
    if (err == OK) err = data.writeUtf8AsUtf16(token);
    if (err != OK) return Status::fromStatusT(err);

    err = remote()->transact(DEREGISTERZEMCLIENT, data, &reply, 0);
    if (err == android::UNKNOWN_TRANSACTION && getDefaultImpl()) {
        return getDefaultImpl()->deregisterZEMClient(token);
    }
    if (err != OK) return Status::fromStatusT(err);
    return zem_binder::readReply(reply, [] { return OK; });
}

Status BpZEMManager::sendData(const std::vector<uint8_t>& content, const std::string& token,
                              bool* result) {
    Parcel data;
    Parcel reply;
    zem_binder::markForBinder(data, sp<IBinder>(remote()));
    status_t err = data.writeInterfaceToken(getInterfaceDescriptor());
    if (err == OK) err = data.writeByteVector(content);
    if (err == OK) err = data.writeUtf8AsUtf16(token);
    if (err != OK) return Status::fromStatusT(err);

    err = remote()->transact(SENDDATA, data, &reply, 0);
    if (err == android::UNKNOWN_TRANSACTION && getDefaultImpl()) {
        return getDefaultImpl()->sendData(content, token, result);
    }
    if (err != OK) return Status::fromStatusT(err);
    return zem_binder::readReply(reply, [&] { return reply.readBool(result); });
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
