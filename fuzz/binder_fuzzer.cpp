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

// Answers every transaction with the reply and result it was given.
class ReplyBinder : public android::BBinder {
  public:
    ReplyBinder(std::string input, bool raw, android::status_t result)
        : input(std::move(input)), raw(raw), result(result) {}

    android::status_t onTransact(uint32_t, const android::Parcel&, android::Parcel* reply,
                                 uint32_t flags) override {
        if (reply != nullptr && (flags & android::IBinder::FLAG_ONEWAY) == 0) {
            zem_fuzz::ByteReader in(reinterpret_cast<const uint8_t*>(input.data()), input.size());
            zem_fuzz::fillParcel(in, raw, reply);
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
    const uint32_t flags = in.flag() ? android::IBinder::FLAG_ONEWAY : 0;
    android::Parcel data;
    zem_fuzz::fillParcel(in, in.flag(), &data);
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
    const uint8_t call = in.u8();
    constexpr android::status_t kResults[] = {android::OK, android::UNKNOWN_TRANSACTION,
                                              android::DEAD_OBJECT};
    const uint8_t pick = in.u8() % 4;
    const android::status_t result =
            pick < 3 ? kResults[pick] : static_cast<android::status_t>(in.u32());
    const bool raw = in.flag();
    android::sp<ReplyBinder> remote = new ReplyBinder(in.rest(), raw, result);
    if (manager) {
        zem_fuzz::callManager(new BpZEMManager(remote), call);
    } else {
        int32_t answer = 0;
        android::sp<IZEMCallback> proxy = new BpZEMCallback(remote);
        proxy->onCampaignEvent(IZEMCallback::kCampaignStart, 1, {0x10, 0x64}, 0, zem_fuzz::kToken,
                               &answer);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zem_fuzz::binderWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zem_fuzz::BinderWorld& world = zem_fuzz::binderWorld();
    zem_fuzz::ByteReader in(data, size);
    const uint8_t mode = in.u8() % 4;
    if (mode < 2) {
        fuzzStub(in, mode == 0 ? android::sp<android::IBinder>(world.manager)
                               : IZEMCallback::asBinder(world.callback));
    } else {
        fuzzProxy(in, mode == 2);
    }
    zem_fuzz::endInput();
    return 0;
}
