// The harness of the binder fuzz targets: a daemon stand-in serving
// IZEMManager, a process set up as a binder client registered with that
// stand-in, a parcel built from fuzz input, and the calls a proxy of the
// manager makes.
//
// Parcel ops read by buildParcel, until the input ends (at most kMaxOps):
//   0 interface token: u8 which (0 "IZEMManager", 1 "IZEMCallback", else a
//     blob as UTF-8)         1 int32: u32        2 int64: u64
//   3 string: u8 (odd: the registered token) then blob (UTF-8, sent as UTF-16)
//   4 byte vector: blob      5 strong binder: u8 (0 null, 1 manager, 2
//     callback)              6 bool: u8          7 raw bytes: blob
//   8 binder::Status: u32 exception code, u32 service-specific code, blob
//     message
// op % 9 picks the operation. fillParcel takes instead the rest of the input
// as the parcel's raw bytes when asked to.
#pragma once

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "collector/zem_collector.h"
#include "fuzz/FuzzSupport.h"
#include "transport/IZEMCallback.h"
#include "transport/IZEMManager.h"
#include "transport/zemAIDLClient.h"

namespace zem_fuzz {

using android::binder::Status;

constexpr const char* kServiceName = "vendor_zemsdkservice";
constexpr const char* kToken = "fuzz-token";

// The daemon's side of IZEMManager, answering at once. A deregistration with
// an empty token is refused with an exception, so replies carry both kinds of
// status.
class FakeManager : public BnZEMManager {
  public:
    Status registerZEMClient(const std::string& name, const android::sp<IZEMCallback>&,
                             std::string* token) override {
        *token = name.empty() ? std::string() : kToken;
        return Status::ok();
    }
    Status checkForPendingCampaign(const std::string&) override { return Status::ok(); }
    Status deregisterZEMClient(const std::string& token) override {
        if (token.empty()) {
            return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "empty token");
        }
        return Status::ok();
    }
    Status sendData(const std::vector<uint8_t>& data, const std::string&, bool* result) override {
        *result = !data.empty();
        return Status::ok();
    }
};

// The binder objects of the set-up process.
struct BinderWorld {
    android::sp<FakeManager> manager;
    android::sp<IZEMCallback> callback;  // the client's callback object
    zem_collector* collector = nullptr;  // registered under kToken, caching in emptyScratch()
};

// Publishes the stand-in in a registry of this process's own (so parallel
// runs never meet), starts the pool, and registers one collector through the
// binder client. The first call comes before any other binder use.
inline BinderWorld& binderWorld() {
    static BinderWorld* world = [] {
        // The first call of emptyScratch() silences the log.
        zem_cfg_s cfg = collectorCfg("fuzz.binder", emptyScratch());
        cfg.transport = 1;
        auto* w = new BinderWorld();
        const std::string registry = "zem_fuzz_" + std::to_string(getpid());
        setenv("HOST_BINDER_REGISTRY", registry.c_str(), 1);
        w->manager = new FakeManager();
        if (android::defaultServiceManager()->addService(android::String16(kServiceName),
                                                         w->manager) != android::OK) {
            abort();
        }
        android::ProcessState::self()->startThreadPool();

        w->collector = new zem_collector(cfg);
        if (zemAIDLClient::getClientInstance()->registerClient(cfg.name, cfg.version,
                                                               w->collector) != 0) {
            abort();
        }
        // The callback of the instance the collector registered with.
        w->callback = new zemAIDLClient::ZEMCallbackImpl(zemAIDLClient::getClientInstance());
        return w;
    }();
    return *world;
}

constexpr int kMaxParcelOps = 64;

inline void buildParcel(ByteReader& in, android::Parcel* p) {
    BinderWorld& world = binderWorld();
    for (int i = 0; i < kMaxParcelOps && !in.empty(); ++i) {
        switch (in.u8() % 9) {
            case 0: {
                const uint8_t which = in.u8();
                p->writeInterfaceToken(which == 0   ? IZEMManager::descriptor
                                       : which == 1 ? IZEMCallback::descriptor
                                                    : android::String16(in.blob().c_str()));
                break;
            }
            case 1:
                p->writeInt32(static_cast<int32_t>(in.u32()));
                break;
            case 2:
                p->writeInt64(static_cast<int64_t>(in.take<uint64_t>()));
                break;
            case 3: {
                const bool registered = in.flag();
                const std::string s = in.blob();
                p->writeUtf8AsUtf16(registered ? std::string(kToken) : s);
                break;
            }
            case 4: {
                const std::string s = in.blob();
                p->writeByteVector(std::vector<uint8_t>(s.begin(), s.end()));
                break;
            }
            case 5: {
                const uint8_t which = in.u8() % 3;
                android::sp<android::IBinder> b;
                if (which == 1) b = world.manager;
                if (which == 2) b = IZEMCallback::asBinder(world.callback);
                p->writeStrongBinder(b);
                break;
            }
            case 6:
                p->writeBool(in.flag());
                break;
            case 7: {
                const std::string s = in.blob();
                p->write(s.data(), s.size());
                break;
            }
            default: {
                const int32_t exception = static_cast<int32_t>(in.u32());
                const int32_t code = static_cast<int32_t>(in.u32());
                const std::string message = in.blob();
                Status status = exception == Status::EX_SERVICE_SPECIFIC
                                        ? Status::fromServiceSpecificError(code, message.c_str())
                                        : Status::fromExceptionCode(exception, message.c_str());
                status.writeToParcel(p);
                break;
            }
        }
    }
}

inline void fillParcel(ByteReader& in, bool raw, android::Parcel* p) {
    if (raw) {
        const std::string bytes = in.rest();
        p->setData(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    } else {
        buildParcel(in, p);
    }
}

// Calls the manager through `proxy`: slot % 4 picks registerZEMClient,
// checkForPendingCampaign, deregisterZEMClient or sendData.
inline void callManager(const android::sp<IZEMManager>& proxy, uint8_t slot) {
    std::string token;
    bool sent = false;
    switch (slot % 4) {
        case 0:
            proxy->registerZEMClient("fuzz", binderWorld().callback, &token);
            break;
        case 1:
            proxy->checkForPendingCampaign(kToken);
            break;
        case 2:
            proxy->deregisterZEMClient(kToken);
            break;
        default:
            proxy->sendData({1, 2, 3}, kToken, &sent);
            break;
    }
}

// Ends whatever campaign the input started and removes its cache files.
inline void endInput() {
    binderWorld().collector->StopCampaign();
    emptyScratch();
}

}  // namespace zem_fuzz
