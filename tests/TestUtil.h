// Helpers shared by the test binaries: scratch directories, file access,
// reading the library's log lines from the real liblog output on stderr, and
// a collector that takes the serializer's finished files.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "collector/zem_collector.h"
#include "metric.pb.h"
#include "serializer/CacheFile.h"
#include "zem_sdk.h"

namespace zem_test {

// A configuration record naming `dir` as the cache folder, for collectors
// built directly by a test. The name stays valid until the next call.
inline zem_cfg_s cacheDirCfg(const std::string& dir) {
    static std::string keep;
    keep = dir;
    zem_cfg_s cfg{};
    cfg.name = "test";
    cfg.cache_dir = keep.c_str();
    return cfg;
}

// A fresh directory under $TMPDIR, removed with its content on destruction.
class TempDir {
  public:
    TempDir() {
        const char* base = getenv("TMPDIR");
        std::string tmpl = std::string(base ? base : "/tmp") + "/zem_test.XXXXXX";
        char* p = mkdtemp(&tmpl[0]);
        if (p == nullptr) ADD_FAILURE() << "mkdtemp failed";
        path_ = tmpl;
    }
    ~TempDir() { removeTree(path_); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    // Bare names of the directory's entries, sorted.
    std::vector<std::string> list() const {
        std::vector<std::string> names;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(path_, ec))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    // Removes `path` with everything under it, read-only folders included.
    static void removeTree(const std::string& path) {
        namespace fs = std::filesystem;
        std::error_code ec;
        for (fs::recursive_directory_iterator it(path, ec), end; !ec && it != end;
             it.increment(ec)) {
            if (it->is_directory(ec) && !it->is_symlink(ec))
                fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
        }
        fs::remove_all(path, ec);
    }

  private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

// A whole cache file parsed as one merged KPIData.
inline olvan::KPIData parseCacheFile(const std::string& path) {
    olvan::KPIData data;
    EXPECT_TRUE(data.ParseFromString(readFile(path))) << path;
    return data;
}

// The record every cache file starts with.
inline const std::string kVersionRecord("\x08\x01", 2);

inline olvan::KPIData counterRecord(uint32_t id, uint64_t value) {
    olvan::KPIData data;
    olvan::Counter* c = data.add_counters();
    c->mutable_meta()->set_id(id);
    c->set_value(value);
    return data;
}

// Stands in for the collector behind a serializer: takes every finished file
// the way the transports do (read whole as a cache file, then removed) and
// notes its name, bytes and mode. `onDelivery` runs after each file was taken,
// on the thread that delivers. With `refuse` set it notes only the name and
// leaves the file, as a transport whose daemon refuses the delivery.
class RecordingCollector : public zem_collector {
  public:
    struct Delivered {
        std::string name;
        std::string bytes;
        unsigned int mode;
    };

    explicit RecordingCollector(const std::string& dir) : zem_collector(cacheDirCfg(dir)) {}

    int SendData(const std::string& filename) override {
        if (refuse) {
            std::lock_guard<std::mutex> lock(mutex);
            files.push_back({filename, "", 0});
            return -1;
        }
        struct stat st {};
        lstat(filename.c_str(), &st);
        std::string bytes;
        if (!zem::readForDelivery(filename, &bytes)) return -1;
        remove(filename.c_str());
        {
            std::lock_guard<std::mutex> lock(mutex);
            files.push_back({filename, std::move(bytes), st.st_mode & 07777u});
        }
        if (onDelivery) onDelivery();
        return 0;
    }

    std::vector<Delivered> delivered() {
        std::lock_guard<std::mutex> lock(mutex);
        return files;
    }

    std::function<void()> onDelivery;
    bool refuse = false;  // set before the first delivery

  private:
    std::mutex mutex;
    std::vector<Delivered> files;
};

// Captures everything written to stderr (where the host liblog prints) while
// alive. Not nestable.
class LogCapture {
  public:
    LogCapture() { testing::internal::CaptureStderr(); }
    ~LogCapture() {
        if (!done_) testing::internal::GetCapturedStderr();
    }
    // Stops capturing and returns what was logged.
    const std::string& text() {
        if (!done_) {
            text_ = testing::internal::GetCapturedStderr();
            done_ = true;
        }
        return text_;
    }

  private:
    bool done_ = false;
    std::string text_;
};

// The messages of the liblog lines of priority `prio` ('I' or 'E') under the
// tag "zem_sdk" in `log`, in the order they were written.
inline std::vector<std::string> logMessages(const std::string& log, char prio) {
    std::vector<std::string> messages;
    std::istringstream in(log);
    std::string line;
    const std::string head = std::string("zem_sdk ") + prio + " ";
    while (std::getline(in, line)) {
        if (line.compare(0, head.size(), head) != 0) continue;
        // "zem_sdk I MM-DD HH:MM:SS  pid  tid message": the message follows
        // the fifth blank-separated field.
        std::istringstream fields(line);
        std::string tag, p, date, time, pid, tid;
        fields >> tag >> p >> date >> time >> pid >> tid;
        std::string rest;
        std::getline(fields, rest);
        if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
        messages.push_back(rest);
    }
    return messages;
}

// How many lines of `log` are a liblog line of priority `prio` under the tag
// "zem_sdk" whose message is exactly `message`.
inline int countLogLines(const std::string& log, char prio, const std::string& message) {
    const std::vector<std::string> messages = logMessages(log, prio);
    return static_cast<int>(std::count(messages.begin(), messages.end(), message));
}

// Polls `cond` every millisecond until it holds or `timeout` passes.
inline bool waitFor(const std::function<bool()>& cond,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zem_test
