// Cache-directory contents left by an earlier run into KPISerializer:
// Initialize (which picks the newest leftover "kpidata." file and appends to
// it), a few records through Write, then Finalize. Rollovers happen when the
// records pass the fuzzed size threshold. Finished files go to a stand-in
// collector that takes them as a successful delivery does (removes them).
//
// The threshold is kept within the campaign's bounds (zem::kSizeThreshold)
// as the collector's validation keeps it: below 2 bytes every version record
// closes its file and the writer never stops rolling over.
//
// Input: u32 size threshold (folded into those bounds); u8 file count (at most kMaxFiles); per file
// u8 kind (0: "kpidata." + blob name; 1: blob name as it is; 2: a directory named "kpidata." + blob
// name), then blob(name), blob(content); then records until the input ends, each blob(KPIData
// bytes).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "collector/CampaignRules.h"
#include "collector/zem_collector.h"
#include "fuzz/FuzzSupport.h"
#include "metric.pb.h"
#include "serializer/KPISerializer.h"

namespace {

constexpr int kMaxFiles = 6;
constexpr int kMaxRecords = 64;

// Takes every finished file the way a transport does after a successful
// send: reads it whole and removes it.
class Receiver : public zem_collector {
  public:
    explicit Receiver(const zem_cfg_s& cfg) : zem_collector(cfg) {}
    int SendData(const std::string& filename) override {
        std::string bytes;
        if (FILE* f = fopen(filename.c_str(), "rb")) {
            char buf[4096];
            size_t n;
            while ((n = fread(buf, 1, sizeof(buf), f)) > 0) bytes.append(buf, n);
            fclose(f);
        }
        remove(filename.c_str());
        return 0;
    }
};

// A name the file system takes as one entry of the directory, or empty.
std::string entryName(std::string name) {
    for (char& c : name) {
        if (c == '/' || c == '\0') c = '_';
    }
    if (name.size() > 200) name.resize(200);
    if (name == "." || name == "..") return std::string();
    return name;
}

void writeWhole(const std::string& path, const std::string& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    if (write(fd, bytes.data(), bytes.size()) < 0) {
        // A short leftover is as good an input as any.
    }
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static zem_fuzz::ScratchDir* cache = [] {
        zem_fuzz::silenceLog();
        return new zem_fuzz::ScratchDir();
    }();
    static Receiver* receiver = [] {
        zem_cfg_s cfg{};
        cfg.name = "fuzz.cache";
        cfg.cache_dir = cache->path().c_str();
        cfg.transport = 2;
        return new Receiver(cfg);
    }();
    cache->clear();

    zem_fuzz::ByteReader in(data, size);
    const uint32_t sizeThreshold =
            zem::kSizeThreshold.min +
            in.u32() % (zem::kSizeThreshold.max - zem::kSizeThreshold.min + 1);
    const int files = in.u8() % (kMaxFiles + 1);
    for (int i = 0; i < files; ++i) {
        const uint8_t kind = in.u8() % 3;
        std::string name = in.blob();
        const std::string content = in.blob();
        name = entryName(kind == 1 ? name : "kpidata." + name);
        if (name.empty()) continue;
        const std::string path = cache->path() + "/" + name;
        if (kind == 2) {
            mkdir(path.c_str(), 0700);
        } else {
            writeWhole(path, content);
        }
    }

    KPISerializer serializer(cache->path(), receiver);
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
