// zemd --exec: a program run under zemd reaches it at the library's fixed
// socket path inside a private namespace, zemd exits with the program's
// status and writes its report, and nothing appears in the host's /dev.
#include <sys/stat.h>

#include "TestUtil.h"
#include "e2e_util.h"

namespace {

using zem_e2e::Child;
using zem_e2e::events;
using zem_e2e::jsonField;
using zem_test::TempDir;

// The example client links gRPC, whose uninstrumented code the thread
// sanitizer needs told about.
const bool kChildSuppressions = [] {
    const char* old = getenv("TSAN_OPTIONS");
    const std::string value = std::string(old ? old : "") + " suppressions=" GRPC_TSAN_SUPP;
    return setenv("TSAN_OPTIONS", value.c_str(), 1) == 0;
}();

struct ZemdRun {
    int status;
    std::string out, err;
};

ZemdRun zemd(TempDir& dir, std::vector<std::string> args) {
    static int n = 0;
    const std::string name = "zemd" + std::to_string(++n);
    args.insert(args.begin(), ZEMD_BIN);
    Child c(args, dir.file(name + ".out"), dir.file(name + ".err"));
    const int status = c.waitExit(std::chrono::seconds(60));
    return {status, c.out(), c.err()};
}

bool exists(const char* path) {
    struct stat st;
    return lstat(path, &st) == 0;
}

TEST(ZemdExec, TheExampleClientRunsAgainstZemdAtTheFixedPathAndTheReportIsWritten) {
    TempDir dir;
    const bool hostHadSocketDir = exists("/dev/socket/olvand");
    const std::string report = dir.file("report.html");
    const ZemdRun r =
            zemd(dir, {"--json", "--campaign", EXAMPLES_DIR "/frame_pipeline.campaign.txtpb",
                       "--catalog", EXAMPLES_DIR "/frame_pipeline.catalog.txtpb", "--stop-after",
                       "2", "--html", report, "--exec", "--", FRAME_PIPELINE_BIN, "--seconds", "1",
                       "--wait", "30"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_FALSE(events(r.out, "data").empty()) << r.out;
    const auto exited = events(r.out, "exec", "state", "exited");
    ASSERT_EQ(exited.size(), 1u) << r.out;
    EXPECT_EQ(jsonField(exited[0], "status"), "0");
    // Windows are named by the catalog and dated.
    const auto windows = events(r.out, "window");
    ASSERT_FALSE(windows.empty());
    EXPECT_NE(jsonField(windows[0], "name"), "<absent>") << windows[0];
    EXPECT_EQ(jsonField(windows[0], "wall_start").size(), 22u) << windows[0];
    ASSERT_EQ(events(r.out, "report").size(), 1u) << r.out;
    const std::string page = zem_test::readFile(report);
    for (const char* name : {"frame_latency", "frame_rate", "dropped_frames", "error_reports"}) {
        EXPECT_NE(page.find(std::string("<h2>") + name), std::string::npos) << name;
    }
    EXPECT_EQ(exists("/dev/socket/olvand"), hostHadSocketDir);
}

TEST(ZemdExec, ExitsWithTheProgramsStatusAndExplainsAProgramThatCannotRun) {
    TempDir dir;
    struct Case {
        std::vector<std::string> command;
        int status;
        const char* err;
    } cases[] = {
            // The namespace's /dev has the socket and the host's devices.
            {{"/bin/sh", "-c",
              "test -S /dev/socket/olvand/spc && test -c /dev/null && test -e /dev/urandom"},
             0,
             ""},
            {{"/bin/sh", "-c", "exit 7"}, 7, ""},
            {{"/bin/sh", "-c", "kill -TERM $$"}, 128 + SIGTERM, ""},
            {{"no-such-program-zem"}, 127, "cannot run no-such-program-zem"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command.back());
        std::vector<std::string> args = {"--exec", "--"};
        args.insert(args.end(), c.command.begin(), c.command.end());
        const ZemdRun r = zemd(dir, args);
        EXPECT_EQ(r.status, c.status) << r.out << r.err;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    }
}

// Run as an unprivileged user, zemd makes a user namespace too and the
// program keeps that user's ids; where the kernel refuses, zemd says what is
// missing.
TEST(ZemdExec, WithoutRootTheProgramRunsInAUserNamespaceUnderItsOwnIds) {
    if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0) {
        GTEST_SKIP() << "needs root to drop to another user with setpriv";
    }
    TempDir dir;
    chmod(dir.file("").c_str(), 0777);
    std::vector<std::string> argv = {"/usr/bin/setpriv",
                                     "--reuid=65534",
                                     "--regid=65534",
                                     "--clear-groups",
                                     "env",
                                     "TMPDIR=" + dir.file(""),
                                     ZEMD_BIN,
                                     "--exec",
                                     "--",
                                     "/bin/sh",
                                     "-c",
                                     "test \"$(id -u)\" = 65534 && test -S /dev/socket/olvand/spc"};
    Child c(argv, dir.file("nobody.out"), dir.file("nobody.err"));
    const int status = c.waitExit(std::chrono::seconds(60));
    if (status == 126 && c.err().find("user namespace") != std::string::npos) {
        GTEST_SKIP() << "this kernel refuses unprivileged user namespaces: " << c.err();
    }
    EXPECT_EQ(status, 0) << c.out() << c.err();
}

}  // namespace
