// zemd: a reference collection daemon for developing and testing zem_sdk
// clients. See usage() for what it does and how to run it.
#include <fcntl.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <grpcpp/grpcpp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "tools/ZemBinderService.h"
#include "tools/ZemDaemon.h"

namespace {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;  // bad option or campaign file
constexpr int kExitSocket = 3;
constexpr int kExitOutDir = 4;

constexpr const char* kDefaultSocket = "/dev/socket/olvand/spc";

void usage(FILE* out) {
    fprintf(out,
            "usage: zemd [options]\n"
            "\n"
            "A reference collection daemon: serves olvan.SPC on a Unix socket, hands out\n"
            "tokens, pushes a campaign to every client whose command stream opens, and\n"
            "stores and decodes every cache file the clients deliver. Every call is\n"
            "printed as one event line on standard output.\n"
            "\n"
            "It also serves IZEMManager as vendor_zemsdkservice on the host binder runtime\n"
            "(registry HOST_BINDER_REGISTRY, default \"default\"), pushing the campaign\n"
            "when a binder client asks for a pending one.\n"
            "\n"
            "options:\n"
            "  --socket PATH         Unix socket to serve (default %s)\n"
            "  --campaign FILE       campaign (LTCCampaignDef in protobuf text format) pushed\n"
            "                        to each client when its command stream opens\n"
            "  --stop-after SECONDS  stop each client's campaign this long after starting it\n"
            "  --out DIR             store each delivered file in DIR (created if missing)\n"
            "  --json                print events and windows as JSON lines\n"
            "  --control             read commands from standard input, one per line:\n"
            "                        start, stop, start-collection, stop-collection, empty\n"
            "                        (sent to every open stream), end (end every stream),\n"
            "                        quit; end of input also quits\n"
            "  -h, --help            this text\n"
            "\n"
            "It runs until SIGINT or SIGTERM (or quit). Exit status: 0 after a clean stop,\n"
            "2 for a bad option or campaign file, 3 when the socket cannot be served,\n"
            "4 when the output folder cannot be written.\n"
            "\n"
            "examples:\n"
            "  zemd --campaign examples/frame_pipeline.campaign.txtpb --stop-after 6 --out "
            "/tmp/zem\n"
            "  zemd --socket /tmp/spc.sock --campaign c.txtpb --json | grep "
            "'\"event\":\"window\"'\n"
            "  zemdump /tmp/zem/*.kpidata\n",
            kDefaultSocket);
}

// Collects the text parser's complaints as "FILE:LINE:COLUMN: message".
class CampaignErrors : public google::protobuf::io::ErrorCollector {
  public:
    explicit CampaignErrors(std::string file) : file(std::move(file)) {}
    void AddError(int line, google::protobuf::io::ColumnNumber column,
                  const std::string& message) override {
        text += file + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " +
                message + "\n";
    }
    std::string text;

  private:
    std::string file;
};

bool loadCampaign(const std::string& file, LTCCampaignDef* def) {
    std::ifstream in(file);
    if (!in) {
        fprintf(stderr, "zemd: cannot read campaign file %s: %s\n", file.c_str(), strerror(errno));
        return false;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    CampaignErrors errors(file);
    google::protobuf::TextFormat::Parser parser;
    parser.RecordErrorsTo(&errors);
    if (!parser.ParseFromString(ss.str(), def)) {
        fprintf(stderr, "zemd: bad campaign file:\n%s", errors.text.c_str());
        return false;
    }
    // Clients refuse campaigns outside their fixed limits; say so early.
    auto warn = [&file](const std::string& what) {
        fprintf(stderr, "zemd: warning: %s: %s; clients will refuse this campaign\n", file.c_str(),
                what.c_str());
    };
    if (def->size_threshold() < 100 || def->size_threshold() > 4194304)
        warn("size_threshold " + std::to_string(def->size_threshold()) +
             " is outside 100..4194304");
    if (def->time_threshold() < 1 || def->time_threshold() > 21600)
        warn("time_threshold " + std::to_string(def->time_threshold()) + " is outside 1..21600");
    if (def->kpicfgs_size() > 1024) warn("more than 1024 kpiCfgs");
    if (def->cfg_payload().size() > 1048576) warn("cfg_payload is larger than 1048576 bytes");
    return true;
}

// Checks that `path` can be served before gRPC tries, for a clear message.
bool checkSocketPath(const std::string& path) {
    sockaddr_un addr{};
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        fprintf(stderr, "zemd: socket path must be 1 to %zu bytes long: '%s'\n",
                sizeof addr.sun_path - 1, path.c_str());
        return false;
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash ? slash : 1);
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        fprintf(stderr, "zemd: cannot serve %s: folder %s does not exist (mkdir -p %s)\n",
                path.c_str(), dir.c_str(), dir.c_str());
        return false;
    }
    if (access(dir.c_str(), W_OK | X_OK) != 0) {
        fprintf(stderr, "zemd: cannot serve %s: folder %s is not writable: %s\n", path.c_str(),
                dir.c_str(), strerror(errno));
        return false;
    }
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            fprintf(stderr, "zemd: cannot serve %s: it exists and is not a socket\n", path.c_str());
            return false;
        }
        // A socket file: refuse a live server, replace a stale one.
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path, path.c_str(), path.size());
        const bool live =
                fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        if (fd >= 0) close(fd);
        if (live) {
            fprintf(stderr, "zemd: cannot serve %s: another server is listening on it\n",
                    path.c_str());
            return false;
        }
        unlink(path.c_str());
    }
    return true;
}

bool prepareOutDir(const std::string& dir) {
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        fprintf(stderr, "zemd: cannot create output folder %s: %s\n", dir.c_str(), strerror(errno));
        return false;
    }
    const std::string probe = dir + "/.zemd-probe-" + std::to_string(getpid());
    const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        fprintf(stderr, "zemd: output folder %s is not writable: %s\n", dir.c_str(),
                strerror(errno));
        return false;
    }
    close(fd);
    unlink(probe.c_str());
    return true;
}

// Set by the signal thread, the control thread or main; main waits on it.
std::mutex gExitMutex;
std::condition_variable gExitCv;
bool gExitRequested = false;

// zemd's binder service, set once before the control thread starts.
ZemBinderService* gBinderService = nullptr;

void requestExit() {
    std::lock_guard<std::mutex> lock(gExitMutex);
    gExitRequested = true;
    gExitCv.notify_all();
}

void controlLoop(ZemDaemon* daemon) {
    using C = ZemDaemon::Command;
    std::string line;
    while (std::getline(std::cin, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        int n = 0;
        if (line.empty()) continue;
        if (line == "quit") break;
        if (line == "start") {
            n = daemon->queueCommand(C::kStartCampaign);
            if (n >= 0 && gBinderService != nullptr) n += gBinderService->pushToAll(true);
        } else if (line == "stop") {
            n = daemon->queueCommand(C::kStopCampaign);
            if (gBinderService != nullptr) n += gBinderService->pushToAll(false);
        } else if (line == "start-collection") {
            n = daemon->queueCommand(C::kStartCollection);
        } else if (line == "stop-collection") {
            n = daemon->queueCommand(C::kStopCollection);
        } else if (line == "empty") {
            n = daemon->queueCommand(C::kEmpty);
        } else if (line == "end") {
            daemon->endStreams();
        } else {
            fprintf(stderr, "zemd: unknown control command '%s'\n", line.c_str());
            continue;
        }
        zemtools::JsonObject f;
        f.add("command", line).add("streams", n);
        daemon->emit("control", f, line + (n < 0 ? " (no campaign configured)" : ""));
    }
    requestExit();
}

}  // namespace

int main(int argc, char** argv) {
    DaemonOptions options;
    std::string socketPath = kDefaultSocket;
    std::string campaignFile;
    bool control = false;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                fprintf(stderr, "zemd: %s needs a value\n", name);
                exit(kExitUsage);
            }
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return kExitOk;
        } else if (arg == "--socket") {
            socketPath = value("--socket");
            if (socketPath.rfind("unix:", 0) == 0) socketPath.erase(0, 5);
        } else if (arg == "--campaign") {
            campaignFile = value("--campaign");
        } else if (arg == "--stop-after") {
            const char* v = value("--stop-after");
            char* end = nullptr;
            options.stopAfter = strtod(v, &end);
            if (end == v || *end != '\0' || options.stopAfter <= 0) {
                fprintf(stderr, "zemd: --stop-after needs a positive number of seconds, not '%s'\n",
                        v);
                return kExitUsage;
            }
        } else if (arg == "--out") {
            options.outDir = value("--out");
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--control") {
            control = true;
        } else {
            fprintf(stderr, "zemd: unknown option %s (see zemd --help)\n", arg.c_str());
            return kExitUsage;
        }
    }
    if (options.stopAfter > 0 && campaignFile.empty()) {
        fprintf(stderr, "zemd: --stop-after needs --campaign\n");
        return kExitUsage;
    }
    if (!campaignFile.empty()) {
        if (!loadCampaign(campaignFile, &options.campaign)) return kExitUsage;
        options.haveCampaign = true;
    }
    if (!options.outDir.empty() && !prepareOutDir(options.outDir)) return kExitOutDir;
    if (!checkSocketPath(socketPath)) return kExitSocket;

    // Signals are taken by one thread with sigwait; every other thread
    // inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    ZemDaemon daemon(options);
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + socketPath, grpc::InsecureServerCredentials());
    // A cache file may be up to 4 MiB plus one record.
    builder.SetMaxReceiveMessageSize(64 * 1024 * 1024);
    builder.RegisterService(&daemon);
    std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (!server) {
        fprintf(stderr, "zemd: cannot listen on unix:%s\n", socketPath.c_str());
        return kExitSocket;
    }

    {
        zemtools::JsonObject f;
        f.add("socket", "unix:" + socketPath)
                .add("pid", static_cast<int64_t>(getpid()))
                .add("campaign", campaignFile)
                .add("kpis", options.campaign.kpicfgs_size())
                .add("stop_after", options.stopAfter)
                .add("out", options.outDir);
        std::string text = "unix:" + socketPath + " pid " + std::to_string(getpid());
        if (options.haveCampaign) {
            text += ", campaign " + campaignFile + " (" +
                    std::to_string(options.campaign.kpicfgs_size()) + " KPIs)";
        }
        if (options.stopAfter > 0) {
            char buf[48];
            snprintf(buf, sizeof buf, ", stopped after %gs", options.stopAfter);
            text += buf;
        }
        if (!options.outDir.empty()) text += ", files stored in " + options.outDir;
        daemon.emit("listening", f, text);
    }

    // The same service over binder, for clients registering with transport 1.
    android::sp<ZemBinderService> binderService = new ZemBinderService(daemon);
    if (binderService->publish() == android::OK) gBinderService = binderService.get();

    std::thread([signals] {
        int sig = 0;
        sigwait(&signals, &sig);
        requestExit();
    }).detach();
    if (control) std::thread(controlLoop, &daemon).detach();

    {
        std::unique_lock<std::mutex> lock(gExitMutex);
        gExitCv.wait(lock, [] { return gExitRequested; });
    }

    daemon.shutdown();
    server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
    server.reset();
    struct stat st;
    if (lstat(socketPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) unlink(socketPath.c_str());
    daemon.emit("exit", zemtools::JsonObject(), "stopped");
    fflush(stdout);
    // Detached threads may still sit in sigwait or a read of standard input;
    // leave without running destructors under them.
    _exit(kExitOk);
}
