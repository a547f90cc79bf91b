#include "transport/IZEMCallback.h"

using android::IBinder;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;

const String16& IZEMCallback::descriptor = *new String16("IZEMCallback");

BpZEMCallback::BpZEMCallback(const sp<IBinder>& impl) : BpInterface<IZEMCallback>(impl) {}

Status BpZEMCallback::onCampaignEvent(int32_t eventType, int64_t campaignId,
                                      const std::vector<uint8_t>& campaignConfig, int32_t eventArg,
                                      const std::string& token, int32_t* result) {
    return zem_binder::proxyCall<IZEMCallback>(
            remote(), ONCAMPAIGNEVENT, 0,
            [&](Parcel& data) {
                status_t err = data.writeInt32(eventType);
                if (err == OK) err = data.writeInt64(campaignId);
                if (err == OK) err = data.writeByteVector(campaignConfig);
                if (err == OK) err = data.writeInt32(eventArg);
                if (err == OK) err = data.writeUtf8AsUtf16(token);
                return err;
            },
            [&](IZEMCallback& impl) {
                return impl.onCampaignEvent(eventType, campaignId, campaignConfig, eventArg, token,
                                            result);
            },
            [&](const Parcel& reply) { return reply.readInt32(result); });
}

status_t BnZEMCallback::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                   uint32_t flags) {
    if (code != ONCAMPAIGNEVENT) return BBinder::onTransact(code, data, reply, flags);
    if (!data.checkInterface(this)) return android::BAD_TYPE;

    int32_t eventType = 0;
    int64_t campaignId = 0;
    std::vector<uint8_t> campaignConfig;
    int32_t eventArg = 0;
    std::string token;
    status_t err = data.readInt32(&eventType);
    if (err == OK) err = data.readInt64(&campaignId);
    if (err == OK) err = data.readByteVector(&campaignConfig);
    if (err == OK) err = data.readInt32(&eventArg);
    if (err == OK) err = data.readUtf8FromUtf16(&token);
    if (err != OK) return err;
    if (reply == nullptr) return android::BAD_VALUE;

    int32_t result = 0;
    const Status status =
            onCampaignEvent(eventType, campaignId, campaignConfig, eventArg, token, &result);
    return zem_binder::writeReply(reply, status, [&] { return reply->writeInt32(result); });
}
