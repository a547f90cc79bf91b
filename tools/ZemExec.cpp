#include "tools/ZemExec.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace zemtools {

namespace {

// Where the child's set-up stopped, reported to the parent through a pipe.
enum Stage : int {
    kUserNamespace = 1,
    kMountNamespace,
    kIdMaps,
    kPrivateMounts,
    kStashDev,
    kFreshDev,
    kSocketFolder,
    kSocketBind,
    kExec,
};

struct Failure {
    int stage;
    int error;
};

const char* stageText(int stage) {
    switch (stage) {
        case kIdMaps:
            return "mapping the user and group ids";
        case kPrivateMounts:
            return "making the mounts private";
        case kStashDev:
            return "binding the host's /dev aside";
        case kFreshDev:
            return "mounting a tmpfs on /dev";
        case kSocketFolder:
            return "creating /dev/socket/olvand";
        case kSocketBind:
            return "binding zemd's socket to /dev/socket/olvand/spc";
        default:
            return "setting up the namespace";
    }
}

std::string firstLine(const char* path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// What keeps this kernel from giving an unprivileged user a user namespace.
std::string userNamespaceHint() {
    if (firstLine("/proc/sys/kernel/unprivileged_userns_clone") == "0") {
        return "unprivileged user namespaces are disabled: "
               "sysctl kernel.unprivileged_userns_clone=1 enables them";
    }
    if (firstLine("/proc/sys/kernel/apparmor_restrict_unprivileged_userns") == "1") {
        return "AppArmor restricts unprivileged user namespaces: "
               "sysctl kernel.apparmor_restrict_unprivileged_userns=0 lifts it";
    }
    if (firstLine("/proc/sys/user/max_user_namespaces") == "0") {
        return "user namespaces are disabled: sysctl user.max_user_namespaces=15000 enables them";
    }
    return "the kernel or a container's seccomp profile refuses them; run zemd as root "
           "instead, or allow unshare(CLONE_NEWUSER)";
}

// argv[0] as a path, searched in PATH when it holds no '/'.
std::string findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    const char* path = getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t pos = 0;
    while (pos <= dirs.size()) {
        size_t end = dirs.find(':', pos);
        if (end == std::string::npos) end = dirs.size();
        const std::string dir = end > pos ? dirs.substr(pos, end - pos) : ".";
        const std::string candidate = dir + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        pos = end + 1;
    }
    return name;
}

// One entry of the host's /dev, recreated in the namespace's fresh /dev.
struct DevEntry {
    std::string source;  // under the folder the host's /dev is bound to
    std::string target;  // under /dev
    enum Kind { kDir, kLink, kNode } kind;
    std::string linkTarget;
};

}  // namespace

bool ZemExec::start(const std::vector<std::string>& argv, const std::string& socketPath,
                    const std::string& workDir, std::string* error, int* exitStatus) {
    // Everything the child needs is prepared here: between fork and exec it
    // makes system calls only.
    const std::string program = findProgram(argv[0]);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    const bool root = geteuid() == 0;
    const std::string uidMap = std::to_string(geteuid()) + " " + std::to_string(geteuid()) + " 1\n";
    const std::string gidMap = std::to_string(getegid()) + " " + std::to_string(getegid()) + " 1\n";
    const std::string hostDev = workDir + "/host-dev";
    if (mkdir(hostDev.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot create " + hostDev + ": " + strerror(errno);
        *exitStatus = 126;
        return false;
    }
    std::vector<DevEntry> entries;
    if (DIR* d = opendir("/dev")) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            // The namespace brings its own /dev/socket.
            if (name == "." || name == ".." || name == "socket") continue;
            DevEntry entry{hostDev + "/" + name, "/dev/" + name, DevEntry::kNode, ""};
            struct stat st;
            if (lstat(entry.target.c_str(), &st) != 0) continue;
            if (S_ISDIR(st.st_mode)) {
                entry.kind = DevEntry::kDir;
            } else if (S_ISLNK(st.st_mode)) {
                entry.kind = DevEntry::kLink;
                char buf[4096];
                const ssize_t n = readlink(entry.target.c_str(), buf, sizeof buf - 1);
                if (n <= 0) continue;
                entry.linkTarget.assign(buf, static_cast<size_t>(n));
            }
            entries.push_back(std::move(entry));
        }
        closedir(d);
    }

    int pipeFd[2];
    if (pipe2(pipeFd, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + strerror(errno);
        *exitStatus = 126;
        return false;
    }
    const pid_t parent = getpid();
    child = fork();
    if (child == 0) {
        close(pipeFd[0]);
        auto fail = [&](int stage) {
            const Failure f{stage, errno};
            ssize_t ignored = write(pipeFd[1], &f, sizeof f);
            (void)ignored;
            _exit(stage == kExec ? 127 : 126);
        };
        // zemd blocks its stop signals in every thread and ignores SIGPIPE;
        // the program starts with the defaults.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        if (!root) {
            if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) fail(kUserNamespace);
            // The program keeps its own ids inside.
            auto writeFile = [](const char* path, const std::string& text) {
                const int fd = open(path, O_WRONLY | O_CLOEXEC);
                const bool ok = fd >= 0 && write(fd, text.data(), text.size()) ==
                                                   static_cast<ssize_t>(text.size());
                if (fd >= 0) close(fd);
                return ok;
            };
            if (!writeFile("/proc/self/setgroups", "deny") ||
                !writeFile("/proc/self/uid_map", uidMap) ||
                !writeFile("/proc/self/gid_map", gidMap)) {
                fail(kIdMaps);
            }
        } else if (unshare(CLONE_NEWNS) != 0) {
            fail(kMountNamespace);
        }
        // It ends with zemd.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(126);
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) fail(kPrivateMounts);
        if (mount("/dev", hostDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            fail(kStashDev);
        }
        if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") != 0) fail(kFreshDev);
        // An entry that cannot be recreated is left out; the program meets
        // it as missing, as it would on a device without it.
        for (const DevEntry& e : entries) {
            switch (e.kind) {
                case DevEntry::kDir:
                    if (mkdir(e.target.c_str(), 0755) == 0) {
                        mount(e.source.c_str(), e.target.c_str(), nullptr, MS_BIND | MS_REC,
                              nullptr);
                    }
                    break;
                case DevEntry::kLink:
                    if (symlink(e.linkTarget.c_str(), e.target.c_str()) != 0) {
                        // Nothing else to do.
                    }
                    break;
                case DevEntry::kNode: {
                    const int fd = open(e.target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
                    if (fd >= 0) {
                        close(fd);
                        mount(e.source.c_str(), e.target.c_str(), nullptr, MS_BIND, nullptr);
                    }
                    break;
                }
            }
        }
        if (mkdir("/dev/socket", 0755) != 0 || mkdir("/dev/socket/olvand", 0755) != 0) {
            fail(kSocketFolder);
        }
        const int fd = open("/dev/socket/olvand/spc", O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0) fail(kSocketFolder);
        close(fd);
        if (mount(socketPath.c_str(), "/dev/socket/olvand/spc", nullptr, MS_BIND, nullptr) != 0) {
            fail(kSocketBind);
        }
        execv(program.c_str(), args.data());
        fail(kExec);
    }
    close(pipeFd[1]);
    if (child < 0) {
        close(pipeFd[0]);
        *error = std::string("fork: ") + strerror(errno);
        *exitStatus = 126;
        return false;
    }
    Failure f{};
    ssize_t n;
    do {
        n = read(pipeFd[0], &f, sizeof f);
    } while (n < 0 && errno == EINTR);
    close(pipeFd[0]);
    if (n != static_cast<ssize_t>(sizeof f)) return true;  // the program runs

    wait();
    child = -1;
    if (f.stage == kExec) {
        *error = "cannot run " + program + ": " + strerror(f.error);
        *exitStatus = 127;
    } else if (f.stage == kUserNamespace) {
        *error = std::string("cannot create a user namespace (") + strerror(f.error) +
                 "), which --exec needs without root: " + userNamespaceHint();
        *exitStatus = 126;
    } else if (f.stage == kMountNamespace) {
        *error = std::string("cannot create a mount namespace: ") + strerror(f.error);
        *exitStatus = 126;
    } else {
        *error = std::string("cannot prepare the program's namespace: ") + stageText(f.stage) +
                 ": " + strerror(f.error);
        *exitStatus = 126;
    }
    return false;
}

int ZemExec::wait() {
    int status = 0;
    pid_t r;
    do {
        r = waitpid(child, &status, 0);
    } while (r < 0 && errno == EINTR);
    reaped = true;
    if (r != child) return 126;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void ZemExec::terminate(int graceMs) {
    if (child <= 0 || reaped) return;
    kill(child, SIGTERM);
    // The thread in wait() reaps the program once it ends.
    for (int waited = 0; waited < graceMs; waited += 10) {
        if (reaped) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!reaped) kill(child, SIGKILL);
}

}  // namespace zemtools
