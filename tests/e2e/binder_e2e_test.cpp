// End to end over binder: zemd and a client process with two collectors on
// the host binder runtime, through the C API. Registration, the pending
// campaign pushed back through onCampaignEvent, logging, delivery,
// deregistration, and zemd killed and restarted.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "e2e_util.h"

using zem_e2e::Child;
using zem_e2e::count;
using zem_e2e::events;
using zem_e2e::eventually;
using zem_e2e::jsonField;

namespace {

// KPI 10 closes a window every 10 samples; files only roll over at stop.
const char* const kCampaign = R"(
kpiCfgs {
  id: 10
  type: KPI_NUMERIC
  subType: COUNTER
  c_cfg { aggregate: true }
  nof_samples: 10
}
size_threshold: 100000
time_threshold: 60
cfg_payload: "binder e2e"
)";

constexpr int kWindowSamples = 10;

int windowsFor(int samples) {
    return (samples + kWindowSamples - 1) / kWindowSamples;
}

class BinderE2ETest : public ::testing::Test {
  protected:
    BinderE2ETest() {
        // Every process of this test, and only those, share one registry.
        static int n = 0;
        setenv("HOST_BINDER_REGISTRY",
               ("binder_e2e_" + std::to_string(getpid()) + "_" + std::to_string(++n)).c_str(), 1);
        mkdir(cache.c_str(), 0755);
        zem_test::writeFile(campaign, kCampaign);
    }

    std::unique_ptr<Child> startDaemon(const std::string& name,
                                       const std::vector<std::string>& extra = {}) {
        std::vector<std::string> argv = {ZEMD_BIN, "--socket",  dir.file(name + ".sock"),
                                         "--json", "--control", "--campaign",
                                         campaign, "--out",     dir.file(name)};
        argv.insert(argv.end(), extra.begin(), extra.end());
        auto d = std::make_unique<Child>(argv, dir.file(name + ".out"), dir.file(name + ".err"));
        EXPECT_TRUE(eventually([&] { return !events(d->out(), "binder", "status", "0").empty(); }))
                << d->out() << d->err();
        return d;
    }

    // Three registration attempts 2 s apart give a restarted daemon 4 s to
    // come up, even in a sanitizer build.
    std::unique_ptr<Child> startClient(const std::string& name = "client") {
        std::vector<std::string> argv = {
                BINDER_E2E_CLIENT_BIN, "--collectors", "2", "--cache", cache, "--retry-ms", "2000"};
        return std::make_unique<Child>(argv, dir.file(name + ".out"), dir.file(name + ".err"));
    }

    void logSamples(Child& client, int n) {
        const int before = count(client.out(), "e2e: logged ");
        client.send("log " + std::to_string(n));
        ASSERT_TRUE(eventually([&] { return count(client.out(), "e2e: logged ") > before; }));
        EXPECT_NE(client.out().find("e2e: logged " + std::to_string(n) + " rejected 0"),
                  std::string::npos)
                << client.out();
    }

    // kpidata files left in a collector's cache folder.
    size_t cached(const std::string& collector) {
        size_t n = 0;
        DIR* d = opendir((cache + "/" + collector).c_str());
        while (dirent* e = d ? readdir(d) : nullptr) {
            if (std::string(e->d_name).rfind("kpidata.", 0) == 0) ++n;
        }
        if (d) closedir(d);
        return n;
    }

    // Tokens of the binder registrations a daemon printed, in order.
    static std::vector<std::string> tokens(const std::string& out) {
        std::vector<std::string> t;
        for (const auto& e : events(out, "register", "transport", "binder")) {
            t.push_back(jsonField(e, "token"));
        }
        return t;
    }

    zem_test::TempDir dir;
    const std::string cache = dir.file("cache");
    const std::string campaign = dir.file("campaign.txtpb");
};

TEST_F(BinderE2ETest, TwoCollectorsShareOneClientFromRegistrationToDeregistration) {
    auto daemon = startDaemon("zemd");
    auto client = startClient();

    ASSERT_TRUE(eventually([&] { return count(client->out(), "e2e: start-callback") == 2; }))
            << client->err();
    const std::vector<std::string> toks = tokens(daemon->out());
    ASSERT_EQ(2u, toks.size());
    const std::string err = client->err();
    for (const std::string& t : toks) {
        EXPECT_EQ(1, zem_test::countLogLines(err, 'I',
                                             "registerClient success. Token received - " + t));
        EXPECT_EQ(1, zem_test::countLogLines(err, 'I',
                                             "onCampaignEvent - camp start event received, camp "
                                             "Id - 1, token - " +
                                                     t));
    }
    // One process, one connection: the service is looked up once.
    EXPECT_EQ(1, zem_test::countLogLines(err, 'I',
                                         "setZEMBinder - got new instance of zem client binder"));
    // zemd prints each answer after the client's callback has returned: wait
    // for the answers themselves.
    EXPECT_TRUE(eventually([&] {
        return events(daemon->out(), "response", "status", "0").size() == 2u;
    })) << daemon->out();

    logSamples(*client, 25);
    daemon->send("stop");
    ASSERT_TRUE(eventually([&] { return events(daemon->out(), "data").size() == 2; }))
            << client->err();
    for (const std::string& t : toks) {
        const auto data = events(daemon->out(), "data", "clientid", t);
        ASSERT_EQ(1u, data.size());
        EXPECT_EQ("true", jsonField(data[0], "parsed"));
        EXPECT_EQ(std::to_string(windowsFor(25)), jsonField(data[0], "windows"));
        zem_test::parseCacheFile(jsonField(data[0], "file"));
    }
    EXPECT_EQ(static_cast<size_t>(2 * windowsFor(25)), events(daemon->out(), "window").size());
    EXPECT_TRUE(eventually([&] { return cached("bind-0") + cached("bind-1") == 0; }));

    client->send("quit");
    EXPECT_EQ(0, client->waitExit());
    EXPECT_NE(client->out().find("e2e: deregistered 0 0"), std::string::npos);
    EXPECT_EQ(2u, events(daemon->out(), "deregister", "known", "true").size());
}

TEST_F(BinderE2ETest, KilledDaemonGivesEachCollectorOneLostConnAndARestartGetsEveryWindow) {
    auto first = startDaemon("zemd1");
    auto client = startClient();
    ASSERT_TRUE(eventually([&] { return count(client->out(), "e2e: start-callback") == 2; }))
            << client->err();
    const std::vector<std::string> firstTokens = tokens(first->out());
    ASSERT_EQ(2u, firstTokens.size());
    logSamples(*client, 25);

    // SIGKILL: one death notification, one LostConn per collector, each
    // campaign stopped and its file kept, since it cannot be delivered.
    first->signal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, first->waitExit());
    // Each collector logs its LostConn line after its stop callback has
    // returned: wait for those lines, not for the callbacks.
    ASSERT_TRUE(eventually([&] {
        return count(client->err(), "zem_collector::LostConn deleteing client instance") == 2;
    })) << client->err();
    EXPECT_EQ(2, count(client->out(), "e2e: stop-callback"));
    const std::string afterKill = client->err();
    EXPECT_EQ(1,
              zem_test::countLogLines(afterKill, 'I', "DeathRecipientImpl - ZEM Server has died"));
    for (int c = 0; c < 2; ++c) {
        const std::string name = "bind-" + std::to_string(c);
        int lost = 0;
        for (const std::string& t : firstTokens) {
            lost += zem_test::countLogLines(
                    afterKill, 'I',
                    name + ": zem_collector::LostConn deleteing client instance for token - " + t);
        }
        EXPECT_EQ(1, lost) << name;
        EXPECT_EQ(1u, cached(name)) << name;
    }
    EXPECT_TRUE(events(first->out(), "data").empty());

    // A new daemon: both register again, get the campaign again, and the kept
    // files grow with the new windows before they are delivered.
    auto second = startDaemon("zemd2");
    ASSERT_TRUE(eventually([&] { return count(client->out(), "e2e: start-callback") == 4; }))
            << client->err();
    const std::vector<std::string> secondTokens = tokens(second->out());
    ASSERT_EQ(2u, secondTokens.size());
    logSamples(*client, 15);
    second->send("stop");
    ASSERT_TRUE(eventually([&] { return events(second->out(), "data").size() == 2; }))
            << client->err();

    const int logged = 2 * (windowsFor(25) + windowsFor(15));
    const int received = static_cast<int>(events(second->out(), "window").size());
    std::cout << "windows logged " << logged << ", received " << received << ", lost "
              << (logged > received ? logged - received : 0)
              << (logged > received ? " (kept cache files not delivered)" : "") << "\n";
    RecordProperty("windows_logged", logged);
    RecordProperty("windows_received", received);
    EXPECT_EQ(logged, received);
    for (const std::string& t : secondTokens) {
        EXPECT_EQ(std::to_string(windowsFor(25) + windowsFor(15)),
                  jsonField(events(second->out(), "data", "clientid", t).at(0), "windows"));
    }
    EXPECT_TRUE(eventually([&] { return cached("bind-0") + cached("bind-1") == 0; }));

    client->send("quit");
    EXPECT_EQ(0, client->waitExit());
    EXPECT_EQ(2u, events(second->out(), "deregister", "known", "true").size());
}

// A daemon that sends a campaign stop from inside its own handler of the
// client's call: on a device (and on the host runtime) that stop arrives on
// the very thread that waits for the handler, which holds the binder
// client's call lock (registration) or is the writer thread a stop joins
// (a rollover's delivery). The stop must be answered with the stop
// callback's result, nothing may deadlock, and every window still arrives.
TEST_F(BinderE2ETest, StopSentFromInsideTheClientsCallIsAnsweredAndLosesNothing) {
    for (const std::string fault : {"stop-in-register", "stop-in-send"}) {
        SCOPED_TRACE(fault);
        // A 100-byte threshold makes the first records roll the file over,
        // so the first delivery runs on a writer thread.
        std::string small = kCampaign;
        small.replace(small.find("100000"), 6, "100");
        zem_test::writeFile(campaign, small);
        auto daemon = startDaemon("zemd-" + fault, {"--fault", fault});
        auto client = startClient("client-" + fault);
        ASSERT_TRUE(eventually([&] { return count(client->out(), "e2e: start-callback") == 2; }))
                << client->err();
        // Under stop-in-send the first rollover's delivery brings the stop.
        client->send("log 100");
        ASSERT_TRUE(eventually([&] { return count(client->out(), "e2e: logged ") == 1; }));
        ASSERT_NE(client->out().find("e2e: logged 100 rejected 0"), std::string::npos);
        // The stop sent from inside the call got its answer: the stop
        // callback's result, or -1 for a registration whose token the client
        // does not know before the call returns.
        ASSERT_TRUE(eventually([&] {
            return events(daemon->out(), "command", "command", "stopCampaign").size() == 1 &&
                   events(daemon->out(), "response").size() == 3;
        })) << daemon->out()
            << client->out() << client->err();
        EXPECT_EQ(fault == "stop-in-send" ? 3u : 2u,
                  events(daemon->out(), "response", "status", "0").size())
                << daemon->out();

        daemon->send("stop");
        // Every window logged reaches the daemon, those of a collector whose
        // stop came from inside a call included (its last file goes out once
        // that call has ended).
        EXPECT_TRUE(eventually([&] {
            return events(daemon->out(), "window").size() == 2u * windowsFor(100) &&
                   cached("bind-0") + cached("bind-1") == 0;
        })) << daemon->out()
            << client->out() << client->err();
        client->send("quit");
        EXPECT_EQ(0, client->waitExit()) << client->err();
        EXPECT_NE(client->out().find("e2e: deregistered 0 0"), std::string::npos) << client->out();
        daemon->signal(SIGTERM);
        daemon->waitExit();
        zem_test::writeFile(campaign, kCampaign);
    }
}

}  // namespace
