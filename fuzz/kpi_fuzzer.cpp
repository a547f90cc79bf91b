// A fuzzed KPICfg through KPI::Create, then a stream of samples, blobs, state
// changes and explicit window closes at fuzzed, steadily advancing times.
//
// Counters that overflow terminate the process on purpose; the stream stays
// far below that: at most kMaxOps operations, values of at most 32 bits, and
// times that only move forward and stop short of the int64 maximum.
//
// Input: blob(KPICfg bytes), u32 start time in microseconds, then operations
// until the input ends. Each operation is a byte op and its arguments:
//   op % 5 == 0  numeric sample: u32 value
//   op % 5 == 1  sample without a value
//   op % 5 == 2  blob: blob(bytes)
//   op % 5 == 3  state change: u32 from, u32 to
//   op % 5 == 4  emit the open window (Serialize), as a campaign stop does
// followed by u16 step; (op / 5) % 4 picks the step's unit (ns, us, ms, s).
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "kpi/Blob.h"
#include "kpi/KPI.h"
#include "kpi/StateMachine.h"
#include "serializer/KPISerializer.h"

namespace {

constexpr int kMaxOps = 4096;
constexpr int64_t kUnitNs[4] = {1, 1000, 1000000, 1000000000};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& cache = zem_fuzz::emptyScratch().path();
    zem_fuzz::ByteReader in(data, size);
    KPICfg cfg;
    if (!cfg.ParseFromString(in.blob())) return 0;

    // No writer thread: closed windows queue in memory and are dropped with
    // the serializer.
    KPISerializer serializer(cache, nullptr);
    std::unique_ptr<KPI> kpi = KPI::Create(cfg, serializer);
    if (kpi == nullptr) return 0;

    // Zero means "no window yet" to the aggregators, so time starts at 1 ns.
    int64_t now = 1 + int64_t{in.u32()} * 1000;
    for (int i = 0; i < kMaxOps && !in.empty(); ++i) {
        const uint8_t op = in.u8();
        const KPI::TimePoint t{std::chrono::nanoseconds(now)};
        switch (op % 5) {
            case 0:
                kpi->AddSampleAt(t, in.u32());
                break;
            case 1:
                kpi->AddSampleAt(t);
                break;
            case 2: {
                const std::string buf = in.blob();
                if (kpi->GetType() == KPI_BLOB) {
                    static_cast<Blob*>(kpi.get())->LogBufAt(
                            t, reinterpret_cast<const unsigned char*>(buf.data()),
                            static_cast<unsigned int>(buf.size()));
                }
                break;
            }
            case 3: {
                const uint32_t from = in.u32();
                const uint32_t to = in.u32();
                if (kpi->GetType() == KPI_STATE) {
                    static_cast<StateMachine*>(kpi.get())->AddStateTransistion(from, to);
                }
                break;
            }
            default:
                kpi->Serialize();
                break;
        }
        const int64_t step = int64_t{in.u16()} * kUnitNs[(op / 5) % 4];
        if (now > std::numeric_limits<int64_t>::max() - step) break;
        now += step;
    }
    kpi->Serialize();
    return 0;
}
