// Helpers shared by the fuzz targets and the seed-corpus generator: a
// byte-stream reader and its matching writer (so seeds are written in the
// very format the targets read), a silent log, a scratch directory, and the
// collector the campaign and command targets drive.
//
// Input format read by ByteReader: integers little-endian, taken from the
// front; a "blob" is a 16-bit length followed by that many bytes. Reading
// past the end yields zeros and empty blobs, so every byte string is a valid
// input.
#pragma once

#include <android/log.h>
#include <google/protobuf/stubs/logging.h>
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "collector/zem_collector.h"

namespace zem_fuzz {

class ByteReader {
  public:
    ByteReader(const uint8_t* data, size_t size) : p(data), left(size) {}

    bool empty() const { return left == 0; }

    template <typename T>
    T take() {
        uint64_t v = 0;
        for (size_t i = 0; i < sizeof(T) && left > 0; ++i, ++p, --left) {
            v |= uint64_t{*p} << (8 * i);
        }
        return static_cast<T>(v);
    }
    uint8_t u8() { return take<uint8_t>(); }
    uint16_t u16() { return take<uint16_t>(); }
    uint32_t u32() { return take<uint32_t>(); }
    bool flag() { return (u8() & 1) != 0; }

    std::string bytes(size_t n) {
        n = n < left ? n : left;
        std::string s(reinterpret_cast<const char*>(p), n);
        p += n;
        left -= n;
        return s;
    }
    std::string blob() { return bytes(u16()); }
    std::string rest() { return bytes(left); }

  private:
    const uint8_t* p;
    size_t left;
};

class ByteWriter {
  public:
    template <typename T>
    ByteWriter& put(T v) {
        for (size_t i = 0; i < sizeof(T); ++i) {
            out.push_back(static_cast<char>((static_cast<uint64_t>(v) >> (8 * i)) & 0xFF));
        }
        return *this;
    }
    ByteWriter& u8(uint8_t v) { return put(v); }
    ByteWriter& u16(uint16_t v) { return put(v); }
    ByteWriter& u32(uint32_t v) { return put(v); }
    ByteWriter& raw(const std::string& s) {
        out += s;
        return *this;
    }
    // Blobs longer than 65535 bytes do not fit the format.
    ByteWriter& blob(const std::string& s) {
        u16(static_cast<uint16_t>(s.size()));
        return raw(s.substr(0, 0xFFFF));
    }
    const std::string& str() const { return out; }

  private:
    std::string out;
};

// Formats every log line (so format strings still meet their arguments) and
// drops it, and drops protobuf's complaints about malformed input: a
// fuzzer's output stays readable and fast.
inline void silenceLog() {
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
    google::protobuf::SetLogHandler(nullptr);
}

// A fresh directory under $TMPDIR for the life of the process.
class ScratchDir {
  public:
    ScratchDir() {
        const char* base = getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr ? base : "/tmp") + "/zem_fuzz.XXXXXX";
        if (mkdtemp(&tmpl[0]) == nullptr) abort();
        dir = tmpl;
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return dir; }

    // Removes every entry, so no input sees another's files.
    void clear() const {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
            std::filesystem::remove_all(entry.path(), ec);
        }
    }

  private:
    std::string dir;
};

// The process's scratch directory, emptied for the input about to run. The
// first call also silences the log.
inline ScratchDir& emptyScratch() {
    static ScratchDir* dir = [] {
        silenceLog();
        return new ScratchDir();
    }();
    dir->clear();
    return *dir;
}

// The configuration of a fuzzed collector caching in `dir`, with campaign
// callbacks, and no transport unless the caller sets one.
inline zem_cfg_s collectorCfg(const char* name, const ScratchDir& dir) {
    zem_cfg_s cfg{};
    cfg.name = name;
    cfg.version = 0x0102;
    cfg.cache_dir = dir.path().c_str();
    cfg.campaign_start_cb = [](const uint8_t* payload, uint64_t length) -> int32_t {
        // Touch every payload byte so a bad pointer or length shows up here.
        uint32_t sum = 0;
        for (uint64_t i = 0; i < length; ++i) sum += payload[i];
        return sum == 0xFFFFFFFFu ? 1 : 0;
    };
    cfg.campaign_stop_cb = []() -> int32_t { return 0; };
    cfg.transport = 2;
    return cfg;
}

// A few samples of every kind into every KPI the running campaign made, so
// windows close and records reach the serializer before the campaign stops.
inline void logIntoEveryKpi(zem_collector& collector) {
    std::vector<uint32_t> ids;
    collector.kpiTable().forEach([&ids](uint32_t id, const KPI&) { ids.push_back(id); });
    const unsigned char buf[4] = {1, 2, 3, 4};
    for (uint32_t id : ids) {
        for (uint32_t v = 0; v < 3; ++v) {
            collector.Log(id, v * 1000u);
            collector.LogEvent(id, v);
            collector.LogState(id, v, v + 1);
            collector.Log(id, buf, sizeof(buf));
        }
    }
}

}  // namespace zem_fuzz
