// Helpers shared by the test binaries: scratch directories, file access, and
// reading the library's log lines from the real liblog output on stderr.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "metric.pb.h"
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
        if (DIR* d = opendir(path_.c_str())) {
            while (dirent* e = readdir(d)) {
                std::string n = e->d_name;
                if (n != "." && n != "..") names.push_back(n);
            }
            closedir(d);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    static void removeTree(const std::string& path) {
        if (DIR* d = opendir(path.c_str())) {
            while (dirent* e = readdir(d)) {
                std::string n = e->d_name;
                if (n == "." || n == "..") continue;
                std::string child = path + "/" + n;
                struct stat st;
                if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
                    chmod(child.c_str(), 0700);
                    removeTree(child);
                } else {
                    unlink(child.c_str());
                }
            }
            closedir(d);
        }
        rmdir(path.c_str());
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

// How many lines of `log` are a liblog line of priority `prio` ('I' or 'E')
// under the tag "zem_sdk" whose message is exactly `message`.
// The messages of the library's lines at priority `prio` ('I', 'E'), in order.
inline std::vector<std::string> logMessages(const std::string& log, char prio) {
    std::vector<std::string> out;
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
        out.push_back(rest);
    }
    return out;
}

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
