// zemd: a reference collection daemon for developing and testing zem_sdk
// clients. See usage() for what it does and how to run it.
#include <fcntl.h>
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
#include <vector>

#include "tools/CampaignFile.h"
#include "tools/HtmlReport.h"
#include "tools/MetricsExporter.h"
#include "tools/ZemBinderService.h"
#include "tools/ZemDaemon.h"
#include "tools/ZemExec.h"
#include "tools/ZemFault.h"

namespace {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;  // bad option or campaign file
constexpr int kExitSocket = 3;
constexpr int kExitOutDir = 4;  // also: the --html report cannot be written

constexpr const char* kDefaultSocket = "/dev/socket/olvand/spc";

void usage(FILE* out) {
    fprintf(out,
            "usage: zemd [options]\n"
            "\n"
            "A reference collection daemon: serves olvan.SPC on a Unix socket, hands out\n"
            "tokens, pushes a campaign to every client whose command stream opens, and\n"
            "stores and decodes every cache file the clients deliver. Every call is\n"
            "printed as one event line on standard output; problems go to standard error.\n"
            "\n"
            "It also serves IZEMManager as vendor_zemsdkservice on the host binder runtime\n"
            "(registry HOST_BINDER_REGISTRY, default \"default\"), pushing the campaign\n"
            "when a binder client asks for a pending one.\n"
            "\n"
            "options:\n"
            "  --socket PATH          Unix socket to serve (default %s)\n"
            "  --control-socket PATH  control socket for zemctl (default: the socket's path\n"
            "                         followed by .ctl)\n"
            "  --campaign FILE        campaign (LTCCampaignDef in protobuf text format) pushed\n"
            "                         to each client when its command stream opens\n"
            "  --stop-after SECONDS   stop each client's campaign this long after starting it\n"
            "  --out DIR              store each delivered file in DIR (created if missing)\n"
            "  --json                 print events and windows as JSON lines\n"
            "  --catalog FILE         KPI names, units and bin labels (zemcatalog.Catalog in\n"
            "                         protobuf text format, see tools/catalog.proto)\n"
            "  --metrics ADDR:PORT    serve Prometheus metrics at http://ADDR:PORT/metrics\n"
            "                         (PORT 0: any free port, printed when listening)\n"
            "  --html FILE            at exit, write an HTML report with a chart per KPI\n"
            "  --exec -- COMMAND...   run COMMAND in a private mount namespace (a user\n"
            "                         namespace too without root) where\n"
            "                         /dev/socket/olvand/spc is this zemd, and "
            "HOST_BINDER_REGISTRY\n"
            "                         (when unset) a registry of this zemd's own; wait for it\n"
            "                         and exit with its status. Without --socket, zemd serves\n"
            "                         a private socket for it. Must come last.\n"
            "  --control              also read control commands from standard input, one\n"
            "                         per line; end of input quits\n"
            "  --default-receive-limit  keep gRPC's default 4 MiB limit on received messages,\n"
            "                         as a daemon that never changed it does (default: 64 MiB)\n"
            "  --fault NAME[=VALUE]   misbehave on purpose, for fault-injection tests\n"
            "                         (repeatable; the names are listed in tools/ZemFault.h)\n"
            "  -h, --help             this text\n"
            "\n"
            "control commands (zemctl sends them over the control socket):\n"
            "  push FILE         make FILE the campaign and start it on every client\n"
            "  start             start the current campaign again on every client\n"
            "  stop              stop the campaign on every client\n"
            "  clients           list clients: name, version, transport, token (tab-separated)\n"
            "  start-collection, stop-collection, empty\n"
            "                    send that command on every gRPC command stream\n"
            "  end               end every gRPC command stream (clients re-register)\n"
            "  quit              stop zemd\n"
            "\n"
            "It runs until SIGINT or SIGTERM (or quit). Exit status: 0 after a clean stop,\n"
            "2 for a bad option or campaign file, 3 when a socket cannot be served,\n"
            "4 when the output folder or the report cannot be written; with --exec, the\n"
            "command's status (126: no namespace could be made, 127: no such command).\n"
            "Window times are printed in steady-clock seconds and, beside them, in UTC.\n"
            "\n"
            "examples:\n"
            "  zemd --campaign examples/frame_pipeline.campaign.txtpb --stop-after 6 --out "
            "/tmp/zem\n"
            "  zemd --socket /tmp/spc.sock --campaign c.txtpb --json | grep "
            "'\"event\":\"window\"'\n"
            "  zemd --socket /tmp/spc.sock &  zemctl --socket /tmp/spc.sock push c.txtpb\n"
            "  zemdump /tmp/zem/*.kpidata\n"
            "  zemd --campaign c.txtpb --metrics 127.0.0.1:9464 --html report.html \\\n"
            "       --exec -- ./my_client\n",
            kDefaultSocket);
}

bool loadCampaign(const std::string& file, LTCCampaignDef* def) {
    std::string error;
    if (!zemtools::loadCampaignFile(file, def, &error)) {
        fprintf(stderr, "zemd: bad campaign file:\n%s", error.c_str());
        return false;
    }
    // Clients refuse campaigns that break their rules; say so early.
    for (const std::string& problem : zemtools::campaignRefusals(*def)) {
        fprintf(stderr, "zemd: warning: %s: %s; clients will refuse this campaign\n", file.c_str(),
                problem.c_str());
    }
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

// What one control command produced: lines for the asker's standard output
// and standard error, informational lines, and whether it succeeded.
struct ControlReply {
    std::vector<std::string> out, err, info;
    bool ok = true;
    bool quit = false;
    void fail(const std::string& message) {
        err.push_back(message);
        ok = false;
    }
};

// Runs one control command; shared by --control (standard input) and the
// control socket.
ControlReply runControl(ZemDaemon* daemon, const std::string& line) {
    using C = ZemDaemon::Command;
    ControlReply reply;
    const size_t space = line.find(' ');
    const std::string word = line.substr(0, space);
    std::string arg = space == std::string::npos ? "" : line.substr(space + 1);
    while (!arg.empty() && arg.front() == ' ') arg.erase(0, 1);
    if (!arg.empty() && word != "push") {
        reply.fail("'" + word + "' takes no argument");
        return reply;
    }
    int n = 0;
    if (word == "quit") {
        reply.quit = true;
    } else if (word == "push") {
        if (arg.empty()) {
            reply.fail("push needs a campaign file");
            return reply;
        }
        LTCCampaignDef def;
        std::string error;
        if (!zemtools::loadCampaignFile(arg, &def, &error)) {
            std::istringstream lines(error);
            for (std::string l; std::getline(lines, l);) reply.err.push_back(l);
            reply.ok = false;
            return reply;
        }
        for (const std::string& problem : zemtools::campaignRefusals(def)) {
            reply.err.push_back("warning: " + problem + "; clients will refuse this campaign");
        }
        daemon->setCampaign(def);
        n = daemon->queueCommand(C::kStartCampaign);
        if (gBinderService != nullptr) n += gBinderService->pushToAll(true);
        reply.info.push_back("campaign " + arg + " (" + std::to_string(def.kpicfgs_size()) +
                             " KPIs) sent to " + std::to_string(n) + " clients");
    } else if (word == "start") {
        n = daemon->queueCommand(C::kStartCampaign);
        if (n < 0) {
            reply.fail("no campaign to start (give one with push FILE or zemd --campaign)");
        } else if (gBinderService != nullptr) {
            n += gBinderService->pushToAll(true);
        }
    } else if (word == "stop") {
        n = daemon->queueCommand(C::kStopCampaign);
        if (gBinderService != nullptr) n += gBinderService->pushToAll(false);
        reply.info.push_back("stop sent to " + std::to_string(n) + " clients");
    } else if (word == "clients") {
        std::vector<ZemDaemon::ClientRow> rows = daemon->listGrpcClients();
        if (gBinderService != nullptr) {
            for (auto& r : gBinderService->listClients()) rows.push_back(std::move(r));
        }
        for (const auto& r : rows) {
            reply.out.push_back(r.name + "\t" + r.version + "\t" + r.transport + "\t" + r.token);
        }
        n = static_cast<int>(rows.size());
    } else if (word == "start-collection") {
        n = daemon->queueCommand(C::kStartCollection);
    } else if (word == "stop-collection") {
        n = daemon->queueCommand(C::kStopCollection);
    } else if (word == "empty") {
        n = daemon->queueCommand(C::kEmpty);
    } else if (word == "end") {
        daemon->endStreams();
    } else {
        reply.fail("unknown control command '" + line + "'");
        return reply;
    }
    zemtools::JsonObject f;
    f.add("command", line).add("streams", n).add("ok", reply.ok);
    daemon->emit("control", f, line + (reply.ok ? "" : " (failed)"));
    return reply;
}

std::string trimmed(std::string line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    return line;
}

void stdinControlLoop(ZemDaemon* daemon) {
    std::string line;
    while (std::getline(std::cin, line)) {
        line = trimmed(line);
        if (line.empty()) continue;
        const ControlReply reply = runControl(daemon, line);
        // Standard output carries the event stream; answers go to stderr.
        for (const auto& l : reply.out) fprintf(stderr, "%s\n", l.c_str());
        for (const auto& l : reply.err) fprintf(stderr, "zemd: %s\n", l.c_str());
        if (reply.quit) break;
    }
    requestExit();
}

// The control socket: one command per connection. The asker writes one line;
// zemd answers with lines "out TEXT", "err TEXT" and "info TEXT" and a last
// line "ok" or "fail", then closes the connection.
void controlSocketLoop(ZemDaemon* daemon, int listenFd) {
    for (;;) {
        const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;
        }
        // A silent asker cannot hold the loop for long.
        timeval tv{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        std::string line;
        char c;
        bool complete = false;
        while (line.size() < 4096 && read(fd, &c, 1) == 1) {
            if (c == '\n') {
                complete = true;
                break;
            }
            line += c;
        }
        std::string answer;
        bool quit = false;
        if (!complete) {
            answer = "err a control command is one line ending in a newline\nfail\n";
        } else {
            const ControlReply reply = runControl(daemon, trimmed(line));
            for (const auto& l : reply.out) answer += "out " + l + "\n";
            for (const auto& l : reply.err) answer += "err " + l + "\n";
            for (const auto& l : reply.info) answer += "info " + l + "\n";
            answer += reply.ok ? "ok\n" : "fail\n";
            quit = reply.quit;
        }
        size_t done = 0;
        while (done < answer.size()) {
            const ssize_t w = send(fd, answer.data() + done, answer.size() - done, MSG_NOSIGNAL);
            if (w <= 0) break;
            done += static_cast<size_t>(w);
        }
        close(fd);
        if (quit) requestExit();
    }
}

// Binds and listens on `path` (already checked by checkSocketPath); -1 with a
// message on failure.
int listenControlSocket(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(fd, 16) != 0) {
        fprintf(stderr, "zemd: cannot serve control socket %s: %s\n", path.c_str(),
                strerror(errno));
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

// What the command line asks for.
struct ZemdArgs {
    DaemonOptions options;
    std::string socketPath = kDefaultSocket;
    bool socketGiven = false;
    std::string controlPath;
    std::string campaignFile;
    bool control = false;
    bool defaultReceiveLimit = false;
    std::string catalogFile, metricsAddress, htmlPath;
    std::vector<std::string> execArgv;
};

// What the setup steps below return when zemd goes on.
constexpr int kContinue = -1;

// Reads the options into `*args`. kContinue, or the status to exit with
// (after --help, or with the problem printed).
int parseArgs(int argc, char** argv, ZemdArgs* args) {
    DaemonOptions& options = args->options;
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
            args->socketPath = value("--socket");
            args->socketGiven = true;
            if (args->socketPath.rfind("unix:", 0) == 0) args->socketPath.erase(0, 5);
        } else if (arg == "--control-socket") {
            args->controlPath = value("--control-socket");
        } else if (arg == "--campaign") {
            args->campaignFile = value("--campaign");
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
        } else if (arg == "--catalog") {
            args->catalogFile = value("--catalog");
        } else if (arg == "--metrics") {
            args->metricsAddress = value("--metrics");
        } else if (arg == "--html") {
            args->htmlPath = value("--html");
        } else if (arg == "--exec") {
            if (i + 1 < argc && strcmp(argv[i + 1], "--") == 0) ++i;
            for (++i; i < argc; ++i) args->execArgv.push_back(argv[i]);
            if (args->execArgv.empty()) {
                fprintf(stderr, "zemd: --exec needs a command\n");
                return kExitUsage;
            }
        } else if (arg == "--control") {
            args->control = true;
        } else if (arg == "--default-receive-limit") {
            args->defaultReceiveLimit = true;
        } else if (arg == "--fault") {
            std::string error;
            if (!zemfault::add(value("--fault"), &error)) {
                fprintf(stderr, "zemd: %s\n", error.c_str());
                return kExitUsage;
            }
        } else {
            fprintf(stderr, "zemd: unknown option %s (see zemd --help)\n", arg.c_str());
            return kExitUsage;
        }
    }
    if (options.stopAfter > 0 && args->campaignFile.empty()) {
        fprintf(stderr, "zemd: --stop-after needs --campaign\n");
        return kExitUsage;
    }
    return kContinue;
}

// Loads the campaign and the catalog the options name and prepares the
// output folder. kContinue, or the status to exit with.
int loadInputs(ZemdArgs* args, zemtools::KPICatalog* catalog) {
    DaemonOptions& options = args->options;
    if (!args->campaignFile.empty()) {
        if (!loadCampaign(args->campaignFile, &options.campaign)) return kExitUsage;
        options.haveCampaign = true;
    }
    if (!args->catalogFile.empty()) {
        std::string error;
        if (!catalog->load(args->catalogFile, &error)) {
            fprintf(stderr, "zemd: bad catalog file:\n%s", error.c_str());
            return kExitUsage;
        }
        options.catalog = *catalog;
    }
    if (!options.outDir.empty() && !prepareOutDir(options.outDir)) return kExitOutDir;
    return kContinue;
}

// The command of --exec meets this zemd alone: on a socket of its own unless
// one was given, and in a binder registry of its own unless the environment
// names one. Makes the folder for it in `*execDir`; false with a message.
bool prepareExecScope(ZemdArgs* args, std::string* execDir) {
    const char* tmp = getenv("TMPDIR");
    *execDir = std::string(tmp && *tmp ? tmp : "/tmp") + "/zemd-exec.XXXXXX";
    if (mkdtemp(&(*execDir)[0]) == nullptr) {
        fprintf(stderr, "zemd: cannot create a folder for --exec: %s\n", strerror(errno));
        return false;
    }
    if (!args->socketGiven) args->socketPath = *execDir + "/spc";
    if (getenv("HOST_BINDER_REGISTRY") == nullptr) {
        setenv("HOST_BINDER_REGISTRY", ("zemd-exec-" + std::to_string(getpid())).c_str(), 1);
    }
    return true;
}

// Checks both sockets and listens on the control socket, its descriptor in
// `*controlFd`. kContinue, or the status to exit with.
int openControlSocket(ZemdArgs* args, int* controlFd) {
    if (args->controlPath.empty()) args->controlPath = args->socketPath + ".ctl";
    if (args->controlPath == args->socketPath) {
        fprintf(stderr, "zemd: --control-socket must differ from --socket\n");
        return kExitUsage;
    }
    if (!checkSocketPath(args->socketPath) || !checkSocketPath(args->controlPath)) {
        return kExitSocket;
    }
    *controlFd = listenControlSocket(args->controlPath);
    return *controlFd < 0 ? kExitSocket : kContinue;
}

// Signals are taken by one thread with sigwait; every thread started after
// this inherits the mask. Returns the signals that thread waits for.
sigset_t blockExitSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return signals;
}

std::unique_ptr<grpc::Server> startServer(ZemDaemon* daemon, const ZemdArgs& args) {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + args.socketPath, grpc::InsecureServerCredentials());
    // A cache file may be up to 4 MiB plus one record.
    if (!args.defaultReceiveLimit) builder.SetMaxReceiveMessageSize(64 * 1024 * 1024);
    builder.RegisterService(daemon);
    return builder.BuildAndStart();
}

// The "listening" event: where zemd serves and what it was asked to do.
void printBanner(ZemDaemon& daemon, const ZemdArgs& args,
                 const zemtools::MetricsExporter* metrics) {
    const DaemonOptions& options = args.options;
    zemtools::JsonObject f;
    f.add("socket", "unix:" + args.socketPath)
            .add("control_socket", args.controlPath)
            .add("pid", static_cast<int64_t>(getpid()))
            .add("campaign", args.campaignFile)
            .add("kpis", options.campaign.kpicfgs_size())
            .add("stop_after", options.stopAfter)
            .add("out", options.outDir)
            .add("faults", zemfault::describe())
            .add("catalog", args.catalogFile)
            .add("clock_ref", zemtools::WallClock::now().reference());
    std::string metricsUrl;
    if (metrics) {
        // A bare port serves every interface.
        const size_t colon = args.metricsAddress.rfind(':');
        const std::string host =
                colon == std::string::npos ? "" : args.metricsAddress.substr(0, colon);
        metricsUrl = "http://" + (host.empty() ? "localhost" : host) + ":" +
                     std::to_string(metrics->port()) + "/metrics";
        f.add("metrics", metricsUrl);
    }
    std::string text = "unix:" + args.socketPath + " pid " + std::to_string(getpid());
    if (options.haveCampaign) {
        text += ", campaign " + args.campaignFile + " (" +
                std::to_string(options.campaign.kpicfgs_size()) + " KPIs)";
    }
    if (options.stopAfter > 0) {
        char buf[48];
        snprintf(buf, sizeof buf, ", stopped after %gs", options.stopAfter);
        text += buf;
    }
    if (!options.outDir.empty()) text += ", files stored in " + options.outDir;
    if (metrics) text += ", metrics on " + metricsUrl;
    daemon.emit("listening", f, text);
}

// The signal thread and the control threads, all detached.
void startControlThreads(ZemDaemon* daemon, const sigset_t& signals, bool stdinControl,
                         int controlFd) {
    std::thread([signals] {
        int sig = 0;
        sigwait(&signals, &sig);
        requestExit();
    }).detach();
    if (stdinControl) std::thread(stdinControlLoop, daemon).detach();
    std::thread(controlSocketLoop, daemon, controlFd).detach();
}

// The command of --exec: started once zemd serves, watched by a thread of its
// own that asks zemd to exit when the command ends.
class ExecRun {
  public:
    // Starts the command; when it cannot be started, says so and asks zemd
    // to exit with the status ZemExec gives.
    void start(ZemDaemon* daemon, const ZemdArgs& args, const std::string& execDir) {
        std::string error;
        std::string command;
        for (const std::string& a : args.execArgv) command += (command.empty() ? "" : " ") + a;
        if (!exec.start(args.execArgv, args.socketPath, execDir, &error, &status)) {
            fprintf(stderr, "zemd: --exec: %s\n", error.c_str());
            done = true;
            requestExit();
            return;
        }
        zemtools::JsonObject f;
        f.add("state", "started")
                .add("pid", static_cast<int64_t>(exec.pid()))
                .add("command", command);
        daemon->emit("exec", f, "started pid " + std::to_string(exec.pid()) + ": " + command);
        std::thread([this, daemon] {
            const int exited = exec.wait();
            zemtools::JsonObject ended;
            ended.add("state", "exited").add("status", exited);
            daemon->emit("exec", ended, "exited with status " + std::to_string(exited));
            {
                std::lock_guard<std::mutex> lock(mutex);
                status = exited;
                done = true;
            }
            cv.notify_all();
            requestExit();
        }).detach();
    }

    // Ends the command if it still runs (zemd was stopped by a signal or
    // quit) and waits for it. Its exit status.
    int finish() {
        exec.terminate(5000);
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return done; });
        return status;
    }

  private:
    zemtools::ZemExec exec;
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    int status = kExitOk;
};

void waitForExitRequest() {
    std::unique_lock<std::mutex> lock(gExitMutex);
    gExitCv.wait(lock, [] { return gExitRequested; });
}

// Stops serving and removes what zemd made: its sockets and the --exec
// folder.
void stopServing(ZemDaemon* daemon, std::unique_ptr<grpc::Server> server, const ZemdArgs& args,
                 const std::string& execDir) {
    daemon->shutdown();
    server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
    server.reset();
    struct stat st;
    for (const std::string& path : {args.socketPath, args.controlPath}) {
        if (lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) unlink(path.c_str());
    }
    if (!execDir.empty()) {
        rmdir((execDir + "/host-dev").c_str());
        rmdir(execDir.c_str());
    }
}

// Writes the --html report; false with a message.
bool writeReport(ZemDaemon& daemon, zemtools::HtmlReport& report, const std::string& htmlPath,
                 const zemtools::KPICatalog& catalog) {
    std::string error;
    const std::shared_ptr<const LTCCampaignDef> campaign = daemon.currentCampaign();
    if (!report.write(htmlPath, "zemd report", catalog, campaign.get(), &error)) {
        fprintf(stderr, "zemd: %s\n", error.c_str());
        return false;
    }
    zemtools::JsonObject f;
    f.add("file", htmlPath).add("charts", uint64_t{report.chartCount()});
    daemon.emit("report", f, htmlPath + " (" + std::to_string(report.chartCount()) + " charts)");
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    ZemdArgs args;
    int status = parseArgs(argc, argv, &args);
    if (status != kContinue) return status;
    zemtools::KPICatalog catalog;
    status = loadInputs(&args, &catalog);
    if (status != kContinue) return status;
    std::string execDir;
    if (!args.execArgv.empty() && !prepareExecScope(&args, &execDir)) return kExitSocket;
    std::unique_ptr<zemtools::MetricsExporter> metrics;
    if (!args.metricsAddress.empty()) {
        std::string error;
        metrics = zemtools::MetricsExporter::start(args.metricsAddress, &error);
        if (!metrics) {
            fprintf(stderr, "zemd: %s\n", error.c_str());
            return kExitSocket;
        }
    }
    zemtools::HtmlReport report;
    const std::string& htmlPath = args.htmlPath;
    args.options.onData = [&](const std::string& client, const olvan::KPIData& data,
                              const LTCCampaignDef* campaign, const zemtools::WallClock& clock) {
        if (metrics) metrics->add(client, data, catalog, campaign, clock);
        if (!htmlPath.empty()) report.add(client, data, clock);
    };
    args.options.onFile = [&](const std::string& client) {
        if (metrics) metrics->addFile(client);
    };
    int controlFd = -1;
    status = openControlSocket(&args, &controlFd);
    if (status != kContinue) return status;
    const sigset_t signals = blockExitSignals();

    ZemDaemon daemon(args.options);
    std::unique_ptr<grpc::Server> server = startServer(&daemon, args);
    if (!server) {
        fprintf(stderr, "zemd: cannot listen on unix:%s\n", args.socketPath.c_str());
        unlink(args.controlPath.c_str());
        return kExitSocket;
    }
    printBanner(daemon, args, metrics.get());

    // The same service over binder, for clients registering with transport 1.
    android::sp<ZemBinderService> binderService = new ZemBinderService(daemon);
    if (binderService->publish() == android::OK) gBinderService = binderService.get();
    startControlThreads(&daemon, signals, args.control, controlFd);
    ExecRun exec;
    if (!args.execArgv.empty()) exec.start(&daemon, args, execDir);

    waitForExitRequest();
    status = args.execArgv.empty() ? kExitOk : exec.finish();
    stopServing(&daemon, std::move(server), args, execDir);
    if (!htmlPath.empty() && !writeReport(daemon, report, htmlPath, catalog) && status == kExitOk) {
        status = kExitOutDir;
    }
    daemon.emit("exit", zemtools::JsonObject(), "stopped");
    fflush(stdout);
    // Detached threads may still sit in sigwait or a read of standard input;
    // leave without running destructors under them.
    _exit(status);
}
