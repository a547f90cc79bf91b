// zemd --exec: a program run under zemd reaches it at the library's fixed
// socket path inside a private namespace, zemd exits with the program's
// status and writes its report, and nothing appears in the host's /dev.
#include "tools_util.h"

namespace {

using namespace zem_tools_test;

TEST_F(ToolsTest, ZemdExecRunsTheExampleClientAtTheFixedPathAndWritesTheReport) {
    const bool hostHadSocketDir = access("/dev/socket/olvand", F_OK) == 0;
    const std::string report = dir.file("report.html");
    const ToolRun r =
            run({ZEMD_BIN, "--json", "--campaign", EXAMPLES_DIR "/frame_pipeline.campaign.txtpb",
                 "--catalog", EXAMPLES_DIR "/frame_pipeline.catalog.txtpb", "--stop-after", "2",
                 "--html", report, "--exec", "--", FRAME_PIPELINE_BIN, "--seconds", "1", "--wait",
                 "30"},
                std::chrono::seconds(60));
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
    EXPECT_EQ(access("/dev/socket/olvand", F_OK) == 0, hostHadSocketDir);
}

TEST_F(ToolsTest, ZemdExecExitsWithTheProgramsStatusAndExplainsAProgramThatCannotRun) {
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
        std::vector<std::string> argv = {ZEMD_BIN, "--exec", "--"};
        argv.insert(argv.end(), c.command.begin(), c.command.end());
        const ToolRun r = run(argv, std::chrono::seconds(60));
        EXPECT_EQ(r.status, c.status) << r.out << r.err;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    }
}

// Run as an unprivileged user, zemd makes a user namespace too and the
// program keeps that user's ids; where the kernel refuses, zemd says what is
// missing.
TEST_F(ToolsTest, ZemdExecWithoutRootRunsTheProgramInAUserNamespaceUnderItsOwnIds) {
    if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0) {
        GTEST_SKIP() << "needs root to drop to another user with setpriv";
    }
    chmod(dir.path().c_str(), 0777);
    const ToolRun r = run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                           "env", "TMPDIR=" + dir.path(), ZEMD_BIN, "--exec", "--", "/bin/sh", "-c",
                           "test \"$(id -u)\" = 65534 && test -S /dev/socket/olvand/spc"},
                          std::chrono::seconds(60));
    if (r.status == 126 && r.err.find("user namespace") != std::string::npos) {
        GTEST_SKIP() << "this kernel refuses unprivileged user namespaces: " << r.err;
    }
    EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace
