// Scaffolding shared by the tools' tests: zemd, zemctl, zemdump and test
// clients run as real processes in a scratch folder of their own.
#pragma once

#include <memory>

#include "TestUtil.h"
#include "e2e_util.h"
#include "kpi_windows.h"

namespace zem_tools_test {

using namespace zem_e2e;
using zem_test::TempDir;

struct ToolRun {
    int status;
    std::string out, err;
};

// A scratch folder with kCampaign in it, a binder registry of the test's own,
// and zemd, zemctl and clients at the service socket `socket`.
class ToolsTest : public ::testing::Test {
  protected:
    ToolsTest() {
        static int n = 0;
        setenv("HOST_BINDER_REGISTRY",
               ("tools_" + std::to_string(getpid()) + "_" + std::to_string(++n)).c_str(), 1);
        signal(SIGPIPE, SIG_IGN);
        mkdir(dir.file("cache").c_str(), 0755);
        zem_test::writeFile(campaign, kCampaign);
    }

    // Runs a program to its end (bounded); every run writes files of its
    // own, so that nothing reads what an earlier one printed.
    ToolRun run(const std::vector<std::string>& argv,
                std::chrono::seconds timeout = std::chrono::seconds(30)) {
        const std::string name = dir.file("run" + std::to_string(++children));
        Child c(argv, name + ".out", name + ".err");
        const int status = c.waitExit(timeout);
        return {status, c.out(), c.err()};
    }

    ToolRun zemctl(std::vector<std::string> args) {
        args.insert(args.begin(), {ZEMCTL_BIN, "--socket", socket});
        return run(args);
    }

    // zemd with JSON output, serving both transports once it returns.
    std::unique_ptr<Child> startDaemon(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv = {ZEMD_BIN, "--socket", socket,
                                         "--json", "--out",    dir.file("received")};
        argv.insert(argv.end(), extra.begin(), extra.end());
        auto d = start(argv);
        EXPECT_TRUE(eventually([&] { return !events(d->out(), "binder").empty(); }))
                << d->out() << d->err();
        return d;
    }

    // The test client of either transport ("grpc" or "binder") with its
    // cache in the scratch folder; the binder one runs `collectors`
    // collectors.
    std::unique_ptr<Child> startClient(const std::string& transport, int collectors = 1) {
        if (transport == "grpc") {
            return start({E2E_CLIENT_BIN, "--socket", socket, "--cache", dir.file("cache")});
        }
        return start({E2E_CLIENT_BIN, "--transport", "binder", "--name", "bind", "--collectors",
                      std::to_string(collectors), "--cache", dir.file("cache")});
    }

    std::unique_ptr<Child> start(const std::vector<std::string>& argv) {
        const std::string name = dir.file("child" + std::to_string(++children));
        return std::make_unique<Child>(argv, name + ".out", name + ".err");
    }

    TempDir dir;
    int children = 0;
    const std::string socket = dir.file("spc");
    const std::string campaign = dir.file("campaign.txtpb");
};

}  // namespace zem_tools_test
