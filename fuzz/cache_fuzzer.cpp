// Cache-directory contents left by an earlier run into KPISerializer:
// Initialize (which picks the newest leftover "kpidata." file and appends to
// it), a few records through Write, then Finalize. Rollovers happen when the
// records pass the fuzzed size threshold. Finished files go to a stand-in
// collector that takes them as a successful delivery does (removes them).
//
// The threshold is kept within the campaign's bounds (100 to 4194304 bytes)
// as the collector's validation keeps it: below 2 bytes every version record
// closes its file and the writer never stops rolling over.
//
// Input: u32 size threshold (folded into those bounds); u8 file count (at most kMaxFiles); per file
// u8 kind (0: "kpidata." + blob name; 1: blob name as it is; 2: a directory named "kpidata." + blob
// name), then blob(name), blob(content); then records until the input ends, each blob(KPIData
// bytes).
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "collector/CampaignRules.h"
#include "fuzz/FuzzSupport.h"
#include "metric.pb.h"
#include "serializer/KPISerializer.h"

namespace {

constexpr int kMaxFiles = 6;
constexpr int kMaxRecords = 64;

class Receiver : public zem_collector {
  public:
    explicit Receiver(const zem_cfg_s& cfg) : zem_collector(cfg) {}
    int SendData(const std::string& filename) override {
        remove(filename.c_str());
        return 0;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const zem_fuzz::ScratchDir& cache = zem_fuzz::emptyScratch();
    static Receiver* receiver = new Receiver(zem_fuzz::collectorCfg("fuzz.cache", cache));

    zem_fuzz::ByteReader in(data, size);
    const uint32_t sizeThreshold =
            zem::kSizeThreshold.min +
            in.u32() % (zem::kSizeThreshold.max - zem::kSizeThreshold.min + 1);
    const int files = in.u8() % (kMaxFiles + 1);
    for (int i = 0; i < files; ++i) {
        const uint8_t kind = in.u8() % 3;
        std::string name = (kind == 1 ? "" : "kpidata.") + in.blob();
        const std::string content = in.blob();
        // One entry of the directory, whatever the name holds.
        for (char& c : name) {
            if (c == '/' || c == '\0') c = '_';
        }
        name.resize(std::min<size_t>(name.size(), 200));
        if (name.empty() || name == "." || name == "..") continue;
        const std::string path = cache.path() + "/" + name;
        if (kind == 2) {
            mkdir(path.c_str(), 0700);
        } else {
            std::ofstream(path, std::ios::binary) << content;
        }
    }

    KPISerializer serializer(cache.path(), receiver);
    if (serializer.Initialize(sizeThreshold, 60) == 0) {
        for (int i = 0; i < kMaxRecords && !in.empty(); ++i) {
            olvan::KPIData record;
            // A record that does not parse fully is written as far as it did.
            record.ParseFromString(in.blob());
            serializer.Write(record);
        }
    }
    serializer.Finalize();
    return 0;
}
