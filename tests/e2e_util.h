// Helpers for end-to-end tests that run zemd and clients as real processes:
// a child process in its own process group with its output in files, and
// readers for zemd's JSON event lines.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestUtil.h"

namespace zem_e2e {

#ifdef GRPC_TSAN_SUPP
// The programs the tests start may be ThreadSanitizer builds as well; they
// run gRPC, so they get its suppressions.
inline const bool kChildSuppressions = [] {
    const char* old = getenv("TSAN_OPTIONS");
    const std::string value = std::string(old ? old : "") + " suppressions=" GRPC_TSAN_SUPP;
    return setenv("TSAN_OPTIONS", value.c_str(), 1) == 0;
}();
#endif

// Polls `cond` every 10 ms until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& cond,
                       std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

inline int count(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size())) {
        ++n;
    }
    return n;
}

// One child process, its standard output and error in files, its standard
// input a pipe, its environment the test's with `env`'s "NAME=value" entries
// put in. The child leads its own process group; destruction kills the whole
// group, so nothing it started outlives the test. It also dies with the test
// process.
class Child {
  public:
    Child(const std::vector<std::string>& argv, const std::string& outFile,
          const std::string& errFile, const std::vector<std::string>& env = {})
        : outPath(outFile), errPath(errFile) {
        // Everything the child needs is prepared before fork: between fork and
        // exec only async-signal-safe calls are made.
        std::vector<char*> args, envp;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
        for (char** e = environ; *e != nullptr; ++e) {
            const std::string name(*e, strcspn(*e, "=") + 1);
            if (std::none_of(env.begin(), env.end(),
                             [&](const std::string& v) { return v.rfind(name, 0) == 0; })) {
                envp.push_back(*e);
            }
        }
        args.push_back(nullptr);
        envp.push_back(nullptr);
        int in[2];
        if (pipe2(in, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe2 failed";
            return;
        }
        const pid_t parent = getpid();
        pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(127);
            const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (out < 0 || err < 0) _exit(127);
            dup2(in[0], 0);
            dup2(out, 1);
            dup2(err, 2);
            execve(args[0], args.data(), envp.data());
            _exit(127);
        }
        close(in[0]);
        stdinFd = in[1];
        if (pid < 0) ADD_FAILURE() << "fork failed";
        // Also in the parent, so that the group exists before anyone kills it.
        if (pid > 0) setpgid(pid, pid);
    }

    ~Child() {
        closeStdin();
        if (pid > 0 && !reaped) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            int status;
            waitpid(pid, &status, 0);
        }
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void send(const std::string& line) {
        const std::string text = line + "\n";
        if (stdinFd < 0 ||
            write(stdinFd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            ADD_FAILURE() << "cannot write '" << line << "' to the child";
        }
    }

    void closeStdin() {
        if (stdinFd >= 0) close(stdinFd);
        stdinFd = -1;
    }

    void signal(int sig) {
        if (pid > 0 && !reaped) kill(pid, sig);
    }

    // Waits for the child to exit; its exit status, or -1 after `timeout`
    // (or when it died of a signal: 128 + the signal).
    int waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
        return reaped || eventually([&] { return reap(); }, timeout) ? exitStatus : -1;
    }

    std::string out() const { return zem_test::readFile(outPath); }
    std::string err() const { return zem_test::readFile(errPath); }

    // Waits until the child's standard output (with `inErr`, its standard
    // error) holds `needle` exactly `n` times.
    bool waitFor(const std::string& needle, int n = 1, bool inErr = false) const {
        return eventually([&] { return count(inErr ? err() : out(), needle) == n; });
    }

    pid_t pid = -1;

  private:
    // Reaps the child if it has exited; whatever it left in its group goes too.
    bool reap() {
        int status;
        if (waitpid(pid, &status, WNOHANG) != pid) return false;
        reaped = true;
        exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        kill(-pid, SIGKILL);
        return true;
    }

    std::string outPath, errPath;
    int stdinFd = -1;
    bool reaped = false;
    int exitStatus = -1;
};

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) out.push_back(line);
    return out;
}

// The raw value of `key` in a flat JSON object line: a string's characters
// (escapes kept as they are), or a number, literal or array as written.
inline std::string jsonField(const std::string& line, const std::string& key) {
    const std::string k = "\"" + key + "\":";
    size_t pos = line.find(k);
    if (pos == std::string::npos) return "<absent>";
    pos += k.size();
    if (line[pos] == '"') {
        size_t end = pos + 1;
        while (end < line.size() && !(line[end] == '"' && line[end - 1] != '\\')) ++end;
        return line.substr(pos + 1, end - pos - 1);
    }
    const char close = line[pos] == '[' ? ']' : '\0';
    size_t end = pos;
    if (close) {
        end = line.find(']', pos) + 1;
    } else {
        while (end < line.size() && line[end] != ',' && line[end] != '}') ++end;
    }
    return line.substr(pos, end - pos);
}

// zemd's JSON lines of one event kind, optionally narrowed by `field` = `value`.
inline std::vector<std::string> events(const std::string& output, const std::string& event,
                                       const std::string& field = "",
                                       const std::string& value = "") {
    std::vector<std::string> out;
    for (const std::string& line : lines(output)) {
        if (jsonField(line, "event") != event) continue;
        if (!field.empty() && jsonField(line, field) != value) continue;
        out.push_back(line);
    }
    return out;
}

// Waits until `child` printed `n` JSON lines of `event` (narrowed as events()
// narrows).
inline bool waitEvents(const Child& child, size_t n, const std::string& event,
                       const std::string& field = "", const std::string& value = "") {
    return eventually([&] { return events(child.out(), event, field, value).size() == n; });
}

}  // namespace zem_e2e
