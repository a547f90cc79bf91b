// Parcels into the binder stubs and fuzzed replies into the proxies.
//
//  - BnZEMManager (the daemon stand-in) and BnZEMCallback (the client's real
//    callback object, zemAIDLClient::ZEMCallbackImpl) get fuzzed request
//    parcels through BBinder::transact, as the pool threads deliver them.
//    The callback's collector is registered under the token a parcel can
//    name, so fuzzed campaigns reach StartCampaign and StopCampaign.
//  - BpZEMManager and BpZEMCallback call a local binder that answers with a
//    fuzzed status and reply parcel.
//
// Input: u8 mode (mode % 4: 0 manager stub, 1 callback stub, 2 manager
// proxy, 3 callback proxy), then
//   stubs:   u8 code (% 8), u8 flags (bit 0: one-way), u8 form, parcel
//   proxies: u8 call (% 4, the manager's slot; the callback has one),
//            u8 transact result (% 4: OK, UNKNOWN_TRANSACTION, DEAD_OBJECT,
//            u32 that follows), u8 form, reply parcel
// where form bit 0 set means the rest of the input is the parcel's raw bytes,
// and clear means parcel ops (see BinderFuzzSupport.h).
#include <binder/Binder.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/BinderFuzzSupport.h"

namespace {

void fillParcel(zem_fuzz::ByteReader& in, bool raw, android::Parcel* p) {
    if (raw) {
        const std::string bytes = in.rest();
        p->setData(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    } else {
        zem_fuzz::buildParcel(in, p);
    }
}

// Answers every transaction with the reply and result it was given.
class ReplyBinder : public android::BBinder {
  public:
    ReplyBinder(std::string input, bool raw, android::status_t result)
        : input(std::move(input)), raw(raw), result(result) {}

    android::status_t onTransact(uint32_t, const android::Parcel&, android::Parcel* reply,
                                 uint32_t flags) override {
        if (reply != nullptr && (flags & android::IBinder::FLAG_ONEWAY) == 0) {
            zem_fuzz::ByteReader in(reinterpret_cast<const uint8_t*>(input.data()), input.size());
            fillParcel(in, raw, reply);
        }
        return result;
    }

  private:
    const std::string input;
    const bool raw;
    const android::status_t result;
};

void fuzzStub(zem_fuzz::ByteReader& in, const android::sp<android::IBinder>& stub) {
    const uint32_t code = in.u8() % 8;
    const uint32_t flags = (in.u8() & 1) != 0 ? android::IBinder::FLAG_ONEWAY : 0;
    const bool raw = (in.u8() & 1) != 0;
    android::Parcel data;
    fillParcel(in, raw, &data);
    android::Parcel reply;
    const android::status_t err = stub->transact(code, data, &reply, flags);
    // A two-way call of the interface that succeeded always answers with a
    // status first.
    const uint32_t last = stub->getInterfaceDescriptor() == IZEMManager::descriptor
                                  ? IZEMManager::SENDDATA
                                  : IZEMCallback::ONCAMPAIGNEVENT;
    if (err == android::OK && code >= 1 && code <= last &&
        code != IZEMManager::CHECKFORPENDINGCAMPAIGN) {
        android::binder::Status status;
        if (status.readFromParcel(reply) != android::OK) __builtin_trap();
    }
}

void fuzzProxy(zem_fuzz::ByteReader& in, bool manager) {
    const uint8_t call = in.u8() % 4;
    android::status_t result;
    switch (in.u8() % 4) {
        case 0:
            result = android::OK;
            break;
        case 1:
            result = android::UNKNOWN_TRANSACTION;
            break;
        case 2:
            result = android::DEAD_OBJECT;
            break;
        default:
            result = static_cast<android::status_t>(in.u32());
            break;
    }
    const bool raw = (in.u8() & 1) != 0;
    android::sp<ReplyBinder> remote = new ReplyBinder(in.rest(), raw, result);
    zem_fuzz::BinderWorld& world = zem_fuzz::binderWorld();
    if (manager) {
        android::sp<IZEMManager> proxy = new BpZEMManager(remote);
        std::string token;
        bool sent = false;
        switch (call) {
            case 0:
                proxy->registerZEMClient("fuzz", world.callback, &token);
                break;
            case 1:
                proxy->checkForPendingCampaign(zem_fuzz::kToken);
                break;
            case 2:
                proxy->deregisterZEMClient(zem_fuzz::kToken);
                break;
            default:
                proxy->sendData({1, 2, 3}, zem_fuzz::kToken, &sent);
                break;
        }
    } else {
        android::sp<IZEMCallback> proxy = new BpZEMCallback(remote);
        int32_t answer = 0;
        proxy->onCampaignEvent(IZEMCallback::kCampaignStart, 1, {0x10, 0x64}, 0, zem_fuzz::kToken,
                               &answer);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zem_fuzz::silenceLog();
    zem_fuzz::binderWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zem_fuzz::BinderWorld& world = zem_fuzz::binderWorld();
    zem_fuzz::ByteReader in(data, size);
    switch (in.u8() % 4) {
        case 0:
            fuzzStub(in, world.manager);
            break;
        case 1:
            fuzzStub(in, IZEMCallback::asBinder(world.callback));
            break;
        case 2:
            fuzzProxy(in, true);
            break;
        default:
            fuzzProxy(in, false);
            break;
    }
    // Whatever campaign a parcel started ends with the input.
    world.collector->StopCampaign();
    world.cache->clear();
    return 0;
}
