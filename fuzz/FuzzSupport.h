// Helpers shared by the fuzz targets and the seed-corpus generator: a
// byte-stream reader and its matching writer (so seeds are written in the
// very format the targets read), a silent log, and a scratch directory.
//
// Input format read by ByteReader: integers little-endian, taken from the
// front; a "blob" is a 16-bit length followed by that many bytes. Reading
// past the end yields zeros and empty blobs, so every byte string is a valid
// input.
#pragma once

#include <android/log.h>
#include <dirent.h>
#include <google/protobuf/stubs/logging.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zem_fuzz {

class ByteReader {
  public:
    ByteReader(const uint8_t* data, size_t size) : p(data), left(size) {}

    bool empty() const { return left == 0; }
    size_t remaining() const { return left; }

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
    uint64_t u64() { return take<uint64_t>(); }
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
    ByteWriter& u64(uint64_t v) { return put(v); }
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

// A fresh directory under $TMPDIR for the life of the process. Targets call
// clear() before each input so no input sees another's files.
class ScratchDir {
  public:
    ScratchDir() {
        const char* base = getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr ? base : "/tmp") + "/zem_fuzz.XXXXXX";
        if (mkdtemp(&tmpl[0]) == nullptr) abort();
        dir = tmpl;
    }
    ~ScratchDir() {
        clear();
        rmdir(dir.c_str());
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return dir; }

    // Bare names of the entries, sorted.
    std::vector<std::string> list() const {
        std::vector<std::string> names;
        if (DIR* d = opendir(dir.c_str())) {
            while (dirent* e = readdir(d)) {
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
                    names.push_back(e->d_name);
                }
            }
            closedir(d);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Removes every entry (files and empty directories; the targets make
    // nothing deeper).
    void clear() const {
        DIR* d = opendir(dir.c_str());
        if (d == nullptr) return;
        while (dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
            const std::string child = dir + "/" + e->d_name;
            if (unlink(child.c_str()) != 0) rmdir(child.c_str());
        }
        closedir(d);
    }

  private:
    std::string dir;
};

}  // namespace zem_fuzz
