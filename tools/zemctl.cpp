// zemctl: controls a running zemd through its control socket, and checks
// campaign files by the library's campaign rules. See usage().
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "collector/CampaignRules.h"
#include "common/ZemLog.h"
#include "tools/CampaignFile.h"
#include "tools/KPICatalog.h"

namespace {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the daemon refused the command, or check found a fault
constexpr int kExitUsage = 2;
constexpr int kExitNoDaemon = 3;
constexpr int kExitProtocol = 4;

constexpr const char* kDefaultSocket = "/dev/socket/olvand/spc";

void usage(FILE* out) {
    fprintf(out,
            "usage: zemctl [options] COMMAND [FILE]\n"
            "\n"
            "Controls a running zemd: starts and stops campaigns on every connected client\n"
            "(gRPC and binder) and lists the clients, without restarting anything.\n"
            "\n"
            "commands:\n"
            "  push FILE    make FILE (LTCCampaignDef in protobuf text format) zemd's campaign\n"
            "               and start it on every client; later clients receive it too\n"
            "  start        start zemd's current campaign again on every client\n"
            "  stop         stop the campaign on every client (each delivers its last file)\n"
            "  clients      list registered clients, one per line, tab-separated:\n"
            "               name, version (major.minor, \"-\" over binder), transport, token\n"
            "  end          end every gRPC command stream (those clients re-register)\n"
            "  quit         stop zemd\n"
            "  check FILE   report, without any daemon, what a client would refuse in FILE\n"
            "               (every line it would log, each followed by the field, its value\n"
            "               and the allowed range) and what it would accept but probably\n"
            "               not as meant (warnings)\n"
            "  limits       list the limits a campaign must keep, one per line, tab-separated:\n"
            "               field, least and most allowed (inclusive)\n"
            "\n"
            "options:\n"
            "  --socket PATH          zemd's service socket (default %s);\n"
            "                         the control socket is PATH.ctl\n"
            "  --control-socket PATH  zemd's control socket, when zemd was given one\n"
            "  --catalog FILE         name KPIs in check's warnings by this KPI catalog\n"
            "  -v, --verbose          also print what zemd did (how many clients got a\n"
            "                         command)\n"
            "  -h, --help             this text\n"
            "\n"
            "Nothing is printed on success except the answer of clients. Exit status:\n"
            "0 success, 1 refused (zemd refused the command, or check found the campaign\n"
            "refused), 2 usage error, 3 zemd not reachable, 4 unexpected answer.\n"
            "\n"
            "examples:\n"
            "  zemctl push examples/frame_pipeline.campaign.txtpb\n"
            "  zemctl --socket /tmp/spc.sock clients | cut -f1,3\n"
            "  zemctl stop\n"
            "  zemctl check my.campaign.txtpb && echo accepted\n",
            kDefaultSocket);
}

// Sends `command` and relays the answer. Returns the exit status.
int talk(const std::string& path, const std::string& command, bool verbose) {
    sockaddr_un addr{};
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        fprintf(stderr, "zemctl: control socket path must be 1 to %zu bytes long: '%s'\n",
                sizeof addr.sun_path - 1, path.c_str());
        return kExitUsage;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        fprintf(stderr, "zemctl: cannot reach zemd at %s: %s (is zemd running? see --socket)\n",
                path.c_str(), strerror(errno));
        if (fd >= 0) close(fd);
        return kExitNoDaemon;
    }
    // zemd answers within its own 5 s limit; this one only bounds a stuck peer.
    timeval tv{30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    const std::string request = command + "\n";
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
        fprintf(stderr, "zemctl: cannot send to %s: %s\n", path.c_str(), strerror(errno));
        close(fd);
        return kExitNoDaemon;
    }
    std::string answer;
    char buf[4096];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) {
            answer.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        break;
    }
    close(fd);

    int status = kExitProtocol;
    size_t pos = 0;
    while (pos < answer.size()) {
        size_t end = answer.find('\n', pos);
        if (end == std::string::npos) end = answer.size();
        const std::string line = answer.substr(pos, end - pos);
        pos = end + 1;
        if (line == "ok") {
            status = kExitOk;
        } else if (line == "fail") {
            status = kExitFailed;
        } else if (line.rfind("out ", 0) == 0) {
            printf("%s\n", line.c_str() + 4);
        } else if (line.rfind("err ", 0) == 0) {
            fprintf(stderr, "zemctl: %s\n", line.c_str() + 4);
        } else if (line.rfind("info ", 0) == 0) {
            if (verbose) fprintf(stderr, "zemctl: %s\n", line.c_str() + 5);
        }
    }
    if (status == kExitProtocol) {
        fprintf(stderr, "zemctl: no complete answer from zemd at %s\n", path.c_str());
    }
    return status;
}

// Things a client accepts but that rarely mean what their author wanted.
std::vector<std::string> campaignWarnings(const LTCCampaignDef& def,
                                          const zemtools::KPICatalog& catalog) {
    std::vector<std::string> out;
    std::set<int32_t> seen;
    for (const KPICfg& k : def.kpicfgs()) {
        const std::string id = catalog.describe(static_cast<uint32_t>(k.id())) + ": ";
        if (!seen.insert(k.id()).second) {
            out.push_back(id + "listed more than once; the last entry wins");
        }
        if (k.agg_window_oneof_case() == KPICfg::AGG_WINDOW_ONEOF_NOT_SET) {
            out.push_back(id + "no nof_samples or duration_msecs: every sample is a window");
        }
        if (k.type() == KPI_STATE) out.push_back(id + "state KPIs record nothing");
        if (k.type() == KPI_NUMERIC && k.subtype() == HISTOGRAM && k.has_h_cfg()) {
            const auto& h = k.h_cfg();
            const auto& b = h.bucket_bounds();
            for (int i = 1; i < b.size(); ++i) {
                if (b[i] <= b[i - 1]) {
                    out.push_back(id + "bucket_bounds are not strictly ascending");
                    break;
                }
            }
            if (b.size() == 1 && !h.underflow_en() && !h.overflow_en()) {
                out.push_back(id + "one bound and no underflow/overflow bin: no bin at all");
            }
            if (h.overflow_en() && !h.underflow_en()) {
                out.push_back(id +
                              "overflow_en without underflow_en: values above the last bound "
                              "are counted but land in no bin, and the last bin stays 0");
            }
        }
    }
    return out;
}

// Reports what a client refuses in the campaign in `file`, as the lines it
// would log, and the warnings. Returns the exit status.
int check(const std::string& file, const zemtools::KPICatalog& catalog) {
    LTCCampaignDef def;
    std::string error;
    if (!zemtools::loadCampaignFile(file, &def, &error)) {
        fprintf(stderr, "zemctl: %s", error.c_str());
        return kExitFailed;
    }
    // Through the library's log, which a host prints to standard error, so
    // the lines read as a client named "check" would log them.
    const std::vector<zem::CampaignProblem> problems = zem::campaignProblems(def);
    for (const zem::CampaignProblem& problem : problems) {
        if (!problem.factoryLine.empty()) ZEM_LOGE("%s", problem.factoryLine.c_str());
        zem::logCollectorLines(problem, "check");
    }
    for (const std::string& w : campaignWarnings(def, catalog)) {
        fprintf(stderr, "zemctl: %s: warning: %s\n", file.c_str(), w.c_str());
    }
    if (!problems.empty()) {
        fprintf(stderr, "zemctl: %s: a client refuses this campaign (StartCampaign returns -1)\n",
                file.c_str());
        return kExitFailed;
    }
    return kExitOk;
}

// Prints every limit of the campaign rules: field, least and most allowed.
int limits() {
    for (const zem::Limit* limit : zem::kAllLimits) {
        printf("%s\t%u\t%u\n", limit->field, limit->min, limit->max);
    }
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath = kDefaultSocket;
    std::string controlPath;
    bool verbose = false;
    zemtools::KPICatalog catalog;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char* name) -> std::string {
            if (i + 1 >= argc) {
                fprintf(stderr, "zemctl: %s needs a value\n", name);
                exit(kExitUsage);
            }
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return kExitOk;
        } else if (arg == "-v" || arg == "--verbose") {
            verbose = true;
        } else if (arg == "--socket") {
            socketPath = value("--socket");
            if (socketPath.rfind("unix:", 0) == 0) socketPath.erase(0, 5);
        } else if (arg == "--control-socket") {
            controlPath = value("--control-socket");
        } else if (arg == "--catalog") {
            std::string error;
            if (!catalog.load(value("--catalog"), &error)) {
                fprintf(stderr, "zemctl: bad catalog file:\n%s", error.c_str());
                return kExitUsage;
            }
        } else if (arg.size() > 1 && arg[0] == '-' && words.empty()) {
            fprintf(stderr, "zemctl: unknown option %s (see zemctl --help)\n", arg.c_str());
            return kExitUsage;
        } else {
            words.push_back(arg);
        }
    }
    if (words.empty()) {
        fprintf(stderr, "zemctl: no command given (see zemctl --help)\n");
        return kExitUsage;
    }
    const std::string& command = words[0];
    const bool takesFile = command == "push" || command == "check";
    static const std::set<std::string> kPlain = {
            "start", "stop", "clients",         "end",   "start-collection",
            "empty", "quit", "stop-collection", "limits"};
    if (!takesFile && kPlain.count(command) == 0) {
        fprintf(stderr, "zemctl: unknown command '%s' (see zemctl --help)\n", command.c_str());
        return kExitUsage;
    }
    if (takesFile ? words.size() != 2 : words.size() != 1) {
        fprintf(stderr,
                takesFile ? "zemctl: %s needs exactly one campaign file\n"
                          : "zemctl: %s takes no argument\n",
                command.c_str());
        return kExitUsage;
    }
    if (command == "check") return check(words[1], catalog);
    if (command == "limits") return limits();

    std::string line = command;
    if (command == "push") {
        // zemd reads the file itself, from its own working folder.
        char* full = realpath(words[1].c_str(), nullptr);
        if (full == nullptr) {
            fprintf(stderr, "zemctl: cannot read campaign file %s: %s\n", words[1].c_str(),
                    strerror(errno));
            return kExitFailed;
        }
        line += " " + std::string(full);
        free(full);
        if (line.find('\n') != std::string::npos) {
            fprintf(stderr, "zemctl: a campaign file name cannot hold a newline\n");
            return kExitUsage;
        }
    }
    if (controlPath.empty()) controlPath = socketPath + ".ctl";
    return talk(controlPath, line, verbose);
}
