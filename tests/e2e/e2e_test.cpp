// End to end: zemd and clients as separate processes, over real Unix sockets
// (gRPC) and the host binder runtime.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include "TestUtil.h"
#include "e2e_util.h"

namespace {

using namespace zem_e2e;
using zem_test::TempDir;

const char* kCampaign = R"(
kpiCfgs { id: 10 type: KPI_NUMERIC subType: COUNTER c_cfg {} nof_samples: 10 }
kpiCfgs {
  id: 11 type: KPI_NUMERIC subType: GAUGE
  g_cfg { min: true max: true mean: true }
  nof_samples: 10
}
kpiCfgs {
  id: 12 type: KPI_NUMERIC subType: HISTOGRAM
  h_cfg { bucket_bounds: [10, 20, 30] underflow_en: true overflow_en: true }
  nof_samples: 10
}
kpiCfgs {
  id: 13 type: KPI_BLOB
  b_cfg { singleSampleSizeTresholdBytes: 64 sampleRateThresholdPerSec: 100 }
  nof_samples: 2
}
size_threshold: 65536
time_threshold: 60
cfg_payload: "e2e payload"
)";

// What e2e_client logs for its sample number k.
uint32_t counterValue(uint64_t k) {
    return static_cast<uint32_t>(k % 5);
}
uint32_t numericValue(uint64_t k) {
    return static_cast<uint32_t>(k * 7 % 37);
}

// The windows one campaign produces from samples [first, end): ten samples
// per numeric window, two blobs (one every fifth sample) per blob window, and
// the partial windows flushed at the stop.
olvan::KPIData expectedWindows(uint64_t first, uint64_t end) {
    olvan::KPIData d;
    for (uint64_t w = first; w < end; w += 10) {
        const uint64_t we = std::min(end, w + 10);
        auto* c = d.add_counters();
        auto* g = d.add_gauges();
        auto* h = d.add_histograms();
        for (auto* meta : {c->mutable_meta(), g->mutable_meta(), h->mutable_meta()}) {
            meta->set_nof_samples(we - w);
        }
        c->mutable_meta()->set_id(10);
        g->mutable_meta()->set_id(11);
        h->mutable_meta()->set_id(12);
        uint64_t sum = 0, gsum = 0;
        uint32_t mn = UINT32_MAX, mx = 0;
        uint32_t bins[4] = {0, 0, 0, 0};
        for (uint64_t k = w; k < we; ++k) {
            sum += counterValue(k);
            const uint32_t v = numericValue(k);
            gsum += v;
            mn = std::min(mn, v);
            mx = std::max(mx, v);
            bins[v <= 10 ? 0 : v <= 20 ? 1 : v <= 30 ? 2 : 3]++;
        }
        c->set_value(sum);
        g->set_min(mn);
        g->set_max(mx);
        g->set_mean(static_cast<float>(static_cast<double>(gsum) / static_cast<double>(we - w)));
        for (uint32_t b : bins) h->add_bin_counts(b);
    }
    std::vector<std::string> blobs;
    for (uint64_t k = first; k < end; ++k) {
        if (k % 5 == 0) blobs.push_back("blob-" + std::to_string(k));
    }
    for (size_t i = 0; i < blobs.size(); i += 2) {
        auto* b = d.add_blobs();
        b->mutable_meta()->set_id(13);
        b->mutable_meta()->set_nof_samples(std::min<size_t>(2, blobs.size() - i));
        b->set_data(blobs[i] + (i + 1 < blobs.size() ? blobs[i + 1] : ""));
    }
    return d;
}

size_t windowCount(const olvan::KPIData& d) {
    return static_cast<size_t>(d.counters_size() + d.gauges_size() + d.histograms_size() +
                               d.blobs_size());
}

// `got` holds the windows of `want` in order, times aside.
void expectSameWindows(const olvan::KPIData& want, olvan::KPIData got) {
    auto untimed = [](auto* windows) {
        for (auto& w : *windows) {
            w.mutable_meta()->clear_ts_start();
            w.mutable_meta()->clear_ts_end();
        }
    };
    untimed(got.mutable_counters());
    untimed(got.mutable_gauges());
    untimed(got.mutable_histograms());
    untimed(got.mutable_blobs());
    got.clear_version();
    EXPECT_EQ(got.DebugString(), want.DebugString());
}

class E2ETest : public ::testing::Test {
  protected:
    E2ETest() {
        signal(SIGPIPE, SIG_IGN);
        // Every process of this test, and only those, share one binder registry.
        static int n = 0;
        setenv("HOST_BINDER_REGISTRY",
               ("e2e_" + std::to_string(getpid()) + "_" + std::to_string(++n)).c_str(), 1);
        mkdir(cache.c_str(), 0755);
        zem_test::writeFile(campaign, kCampaign);
    }

    // zemd, up on both transports.
    std::unique_ptr<Child> startDaemon(const std::string& name, bool withCampaign = true,
                                       const std::vector<std::string>& extra = {}) {
        std::vector<std::string> argv = {ZEMD_BIN,    "--socket", socket,        "--json",
                                         "--control", "--out",    dir.file(name)};
        if (withCampaign) argv.insert(argv.end(), {"--campaign", campaign});
        argv.insert(argv.end(), extra.begin(), extra.end());
        auto d = std::make_unique<Child>(argv, dir.file(name + ".out"), dir.file(name + ".err"));
        EXPECT_TRUE(waitEvents(*d, 1, "listening") && waitEvents(*d, 1, "binder", "status", "0"))
                << d->err();
        return d;
    }

    std::unique_ptr<Child> startClient(std::vector<std::string> extra = {},
                                       const std::string& name = "client",
                                       const std::vector<std::string>& env = {}) {
        std::vector<std::string> argv = {E2E_CLIENT_BIN, "--socket", socket, "--cache", cache};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return std::make_unique<Child>(argv, dir.file(name + ".out"), dir.file(name + ".err"), env);
    }

    // Logs `n` samples and waits for the client's report of them, the
    // first with this count.
    void logSamples(Child& client, int n) {
        const std::string report = "e2e: logged " + std::to_string(n) + " rejected 0";
        const int before = count(client.out(), report);
        client.send("log " + std::to_string(n));
        EXPECT_TRUE(client.waitFor(report, before + 1)) << client.out();
    }

    // kpidata files left in a cache folder.
    static size_t cached(const std::string& folder) {
        size_t n = 0;
        DIR* d = opendir(folder.c_str());
        while (dirent* e = d ? readdir(d) : nullptr) {
            n += std::string(e->d_name).rfind("kpidata.", 0) == 0;
        }
        if (d) closedir(d);
        return n;
    }

    // Tokens of the registrations a daemon printed, in order.
    static std::vector<std::string> tokens(const std::string& out) {
        std::vector<std::string> t;
        for (const auto& e : events(out, "register")) t.push_back(jsonField(e, "token"));
        return t;
    }

    TempDir dir;
    const std::string socket = dir.file("spc.sock");
    const std::string cache = dir.file("cache");
    const std::string campaign = dir.file("campaign.txtpb");
};

// A client of one transport: one collector over gRPC, two sharing one
// process (and one binder connection) over binder.
struct Transport {
    const char* name;
    std::vector<std::string> args;
    std::vector<std::string> folders;  // below the cache folder
    const char* keptLine;  // the client's line for a file it cannot deliver at a lost daemon
};

const Transport kGrpc{"grpc", {}, {""}, "SendData failed: "};
const Transport kBinder{"binder",
                        {"--transport", "binder", "--name", "bind", "--collectors", "2"},
                        {"/bind-0", "/bind-1"},
                        "zem_collector::LostConn deleteing client instance"};

void PrintTo(const Transport& t, std::ostream* os) {
    *os << t.name;
}

class E2ETransportTest : public E2ETest, public ::testing::WithParamInterface<Transport> {
  protected:
    // Three registration attempts 2 s apart give a restarted daemon 4 s to
    // come up, even in a sanitizer build.
    std::unique_ptr<Child> startClient(std::vector<std::string> extra = {}) {
        extra.insert(extra.end(), {"--retry-ms", "2000"});
        extra.insert(extra.end(), GetParam().args.begin(), GetParam().args.end());
        return E2ETest::startClient(extra);
    }
    size_t collectors() const { return GetParam().folders.size(); }
    size_t cachedFiles() {
        size_t n = 0;
        for (const std::string& f : GetParam().folders) n += cached(cache + f);
        return n;
    }
    bool grpc() const { return GetParam().folders.size() == 1; }
};

INSTANTIATE_TEST_SUITE_P(Transports, E2ETransportTest, ::testing::Values(kGrpc, kBinder),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(E2ETransportTest, CampaignRoundTripFromRegistrationToDeregistration) {
    auto daemon = startDaemon("zemd");
    auto client = startClient({"--start-result", "5"});
    const size_t n = collectors();

    // Registration, then the campaign: each start callback gets the payload,
    // its result is the answer, which zemd prints after the callback returned.
    ASSERT_TRUE(client->waitFor("e2e: start-callback", int(n))) << client->err();
    const std::vector<std::string> toks = tokens(daemon->out());
    ASSERT_EQ(toks.size(), n);
    EXPECT_EQ(count(client->out(), " len=11 payload=e2e payload\n"), int(n));
    ASSERT_TRUE(waitEvents(*daemon, n, "response", "status", "5")) << daemon->out();
    const std::string err = client->err();
    if (grpc()) {
        const std::string reg = events(daemon->out(), "register")[0];
        EXPECT_EQ(jsonField(reg, "name"), "e2e");
        EXPECT_EQ(jsonField(reg, "major"), "1");
        EXPECT_EQ(jsonField(reg, "minor"), "2");
        EXPECT_EQ(count(client->out(), "waiting for cmds .. \n"), 1);
        EXPECT_NE(client->out().find("Token: " + toks[0] + "\nRegister Client success\n"),
                  std::string::npos);
        EXPECT_EQ(jsonField(events(daemon->out(), "response")[0], "seq_no"), "0");
        EXPECT_EQ(events(daemon->out(), "stream", "state", "open").size(), 1u);
        EXPECT_EQ(jsonField(events(daemon->out(), "stream")[0], "clientid"), toks[0]);
        EXPECT_NE(client->out().find("received cmd: startCampaign\n"), std::string::npos);
    } else {
        for (const std::string& t : toks) {
            EXPECT_EQ(1, zem_test::countLogLines(err, 'I',
                                                 "registerClient success. Token received - " + t));
            EXPECT_EQ(1, zem_test::countLogLines(err, 'I',
                                                 "onCampaignEvent - camp start event received, "
                                                 "camp Id - 1, token - " +
                                                         t));
        }
        // One process, one connection: the service is looked up once.
        EXPECT_EQ(1, zem_test::countLogLines(
                             err, 'I', "setZEMBinder - got new instance of zem client binder"));
    }

    // Every collector's file: one KPIData with every window in write order.
    logSamples(*client, 25);
    daemon->send("stop");
    const olvan::KPIData want = expectedWindows(0, 25);
    ASSERT_TRUE(waitEvents(*daemon, n * windowCount(want), "window")) << client->err();
    for (const std::string& t : toks) {
        const auto data = events(daemon->out(), "data", "clientid", t);
        ASSERT_EQ(data.size(), 1u);
        EXPECT_EQ(jsonField(data[0], "windows"), std::to_string(windowCount(want)));
        if (grpc()) {
            EXPECT_EQ(jsonField(data[0], "filename"), "");
        }
        const olvan::KPIData received = zem_test::parseCacheFile(jsonField(data[0], "file"));
        EXPECT_EQ(received.version(), olvan::V1);
        expectSameWindows(want, received);
    }
    EXPECT_TRUE(client->waitFor("e2e: stop-callback", int(n)));
    // Delivered files leave the cache.
    EXPECT_TRUE(eventually([&] { return cachedFiles() == 0; }));

    client->send("quit");
    EXPECT_EQ(client->waitExit(), 0);
    EXPECT_NE(client->out().find(n == 1 ? "e2e: deregistered 0\n" : "e2e: deregistered 0 0\n"),
              std::string::npos);
    const auto dereg = events(daemon->out(), "deregister", "known", "true");
    ASSERT_EQ(dereg.size(), n);
    if (grpc()) {
        EXPECT_EQ(jsonField(dereg[0], "token"), toks[0]);
        EXPECT_EQ(jsonField(dereg[0], "clientid"), "");
        EXPECT_TRUE(waitEvents(*daemon, 1, "stream", "state", "closed"));
    }
}

// Entries named like cache files that are not: a pipe (which would block an
// open), a link to a file outside the folder, a directory. The start is
// answered, the daemon receives the campaign's windows and nothing else, and
// nothing outside the folder changes.
TEST_F(E2ETest, HostileCacheEntriesNeitherBlockTheStartNorReachTheDaemon) {
    const std::string outside = dir.file("outside");
    zem_test::writeFile(outside, "secret text\n");
    const std::string pipe = cache + "/kpidata.99999999999";
    const std::string link = cache + "/kpidata.99999999998";
    const std::string folder = cache + "/kpidata.99999999997";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    ASSERT_EQ(0, symlink(outside.c_str(), link.c_str()));
    ASSERT_EQ(0, mkdir(folder.c_str(), 0700));

    auto daemon = startDaemon("zemd");
    auto client = startClient();
    ASSERT_TRUE(waitEvents(*daemon, 1, "response", "status", "0")) << client->err();
    logSamples(*client, 25);
    daemon->send("stop");
    ASSERT_TRUE(waitEvents(*daemon, 1, "data")) << client->err();
    client->send("quit");
    EXPECT_EQ(client->waitExit(), 0);

    const auto data = events(daemon->out(), "data");
    ASSERT_EQ(data.size(), 1u);
    const std::string stored = zem_test::readFile(jsonField(data[0], "file"));
    EXPECT_EQ(stored.find("secret"), std::string::npos);
    olvan::KPIData received;
    ASSERT_TRUE(received.ParseFromString(stored));
    expectSameWindows(expectedWindows(0, 25), received);
    EXPECT_EQ(zem_test::readFile(outside), "secret text\n");
    struct stat st;
    EXPECT_TRUE(lstat(pipe.c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
    EXPECT_TRUE(lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    EXPECT_TRUE(lstat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode));
    for (const std::string& entry : {pipe, link, folder}) {
        EXPECT_EQ(count(client->err(), "Not a cache file, left alone: " + entry), 1)
                << client->err();
    }
}

TEST_P(E2ETransportTest, KilledDaemonLosesNoWindowOnceANewOneStarts) {
    auto first = startDaemon("zemd1");
    auto client = startClient();
    const size_t n = collectors();
    ASSERT_TRUE(client->waitFor("e2e: start-callback", int(n))) << client->err();
    const std::vector<std::string> firstTokens = tokens(first->out());
    logSamples(*client, 25);

    // The daemon dies mid-campaign: each collector stops its campaign, cannot
    // deliver its file and keeps it. The line saying so comes after the stop
    // callback: wait for those lines, not for the callbacks.
    first->signal(SIGKILL);
    EXPECT_EQ(first->waitExit(), 128 + SIGKILL);
    ASSERT_TRUE(client->waitFor(GetParam().keptLine, int(n), true) &&
                client->waitFor("e2e: stop-callback", int(n)))
            << client->err();
    for (const std::string& f : GetParam().folders) EXPECT_EQ(cached(cache + f), 1u) << f;
    EXPECT_TRUE(events(first->out(), "data").empty());
    if (!grpc()) {
        // One death notification, one LostConn per collector.
        const std::string err = client->err();
        EXPECT_EQ(1, zem_test::countLogLines(err, 'I', "DeathRecipientImpl - ZEM Server has died"));
        for (const std::string name : {"bind-0", "bind-1"}) {
            int lost = 0;
            for (const std::string& t : firstTokens) {
                lost += zem_test::countLogLines(
                        err, 'I',
                        name + ": zem_collector::LostConn deleteing client instance for token - " +
                                t);
            }
            EXPECT_EQ(1, lost) << name;
        }
    }

    // A new daemon: the collectors register again, get the campaign again,
    // and the kept files grow with the new campaign's windows.
    auto second = startDaemon("zemd2");
    ASSERT_TRUE(client->waitFor("e2e: start-callback", int(2 * n))) << client->err();
    const std::vector<std::string> secondTokens = tokens(second->out());
    ASSERT_EQ(secondTokens.size(), n);
    logSamples(*client, 15);
    second->send("stop");

    olvan::KPIData want = expectedWindows(0, 25);
    want.MergeFrom(expectedWindows(25, 40));
    EXPECT_TRUE(waitEvents(*second, n * windowCount(want), "window")) << second->out();
    for (const std::string& t : secondTokens) {
        olvan::KPIData received;
        for (const std::string& d : events(second->out(), "data", "clientid", t)) {
            received.MergeFrom(zem_test::parseCacheFile(jsonField(d, "file")));
        }
        EXPECT_EQ(received.version(), olvan::V1);
        expectSameWindows(want, received);
    }
    EXPECT_TRUE(eventually([&] { return cachedFiles() == 0; }));

    client->send("quit");
    EXPECT_EQ(client->waitExit(), 0);
    EXPECT_EQ(events(second->out(), "deregister", "known", "true").size(), n);
}

TEST_F(E2ETest, DaemonEndingTheStreamGivesOneReRegistration) {
    auto daemon = startDaemon("zemd", /*withCampaign=*/false);
    auto client = startClient();
    ASSERT_TRUE(waitEvents(*daemon, 1, "stream", "state", "open"));

    // Collection commands are refused; an empty command gets no answer.
    daemon->send("start-collection");
    daemon->send("empty");
    daemon->send("stop-collection");
    ASSERT_TRUE(waitEvents(*daemon, 2, "response"));
    for (const std::string& r : events(daemon->out(), "response")) {
        EXPECT_EQ(jsonField(r, "status"), "-1");
        EXPECT_EQ(jsonField(r, "seq_no"), "0");
    }

    daemon->send("end");
    ASSERT_TRUE(waitEvents(*daemon, 2, "stream", "state", "open"));
    // The new stream answers, and no further registration follows.
    daemon->send("start-collection");
    ASSERT_TRUE(waitEvents(*daemon, 3, "response"));
    EXPECT_EQ(count(client->out(), "Register Client success"), 2);
    EXPECT_EQ(count(client->err(), "LostConn deleteing client instance"), 1);

    // Up to the deregistration, which carries the second token.
    client->send("quit");
    EXPECT_EQ(client->waitExit(), 0);
    ASSERT_TRUE(waitEvents(*daemon, 1, "deregister"));
    const auto regs = events(daemon->out(), "register");
    ASSERT_EQ(regs.size(), 2u);
    EXPECT_EQ(jsonField(events(daemon->out(), "deregister")[0], "token"),
              jsonField(regs[1], "token"));
}

TEST_F(E2ETest, ClientExitingWithItsStreamOpenEndsCleanly) {
    auto daemon = startDaemon("zemd");
    // The handle is never released, so its finished registration thread is
    // never joined: expected here, not a leak to report.
    auto client = startClient(
            {}, "client",
            {"TSAN_OPTIONS=" + std::string(getenv("TSAN_OPTIONS")) + " report_thread_leaks=0"});
    ASSERT_TRUE(client->waitFor("e2e: start-callback"));
    logSamples(*client, 5);
    client->send("exit");
    EXPECT_EQ(client->waitExit(), 0) << client->err();
    EXPECT_TRUE(waitEvents(*daemon, 1, "stream", "state", "closed"));
}

// A daemon that sends a campaign stop from inside its own handler of the
// client's binder call: on a device (and on the host runtime) that stop
// arrives on the very thread that waits for the handler, which holds the
// binder client's call lock (registration) or is the writer thread a stop
// joins (a rollover's delivery). The stop must be answered with the stop
// callback's result, nothing may deadlock, and every window still arrives.
TEST_F(E2ETest, StopSentFromInsideTheBinderClientsCallIsAnsweredAndLosesNothing) {
    // A 100-byte threshold makes the first records roll the file over, so
    // the first delivery runs on a writer thread.
    std::string small = kCampaign;
    small.replace(small.find("65536"), 5, "100");
    zem_test::writeFile(campaign, small);
    for (const std::string fault : {"stop-in-register", "stop-in-send"}) {
        SCOPED_TRACE(fault);
        auto daemon = startDaemon("zemd-" + fault, true, {"--fault", fault});
        auto client = startClient(kBinder.args, "client-" + fault);
        ASSERT_TRUE(client->waitFor("e2e: start-callback", 2)) << client->err();
        // Under stop-in-send the first rollover's delivery brings the stop.
        logSamples(*client, 100);
        // The stop sent from inside the call got its answer: the stop
        // callback's result, or -1 for a registration whose token the client
        // does not know before the call returns.
        ASSERT_TRUE(waitEvents(*daemon, 1, "command", "command", "stopCampaign") &&
                    waitEvents(*daemon, 3, "response"))
                << daemon->out() << client->out() << client->err();
        EXPECT_EQ(fault == "stop-in-send" ? 3u : 2u,
                  events(daemon->out(), "response", "status", "0").size())
                << daemon->out();

        daemon->send("stop");
        // Every window logged reaches the daemon, those of a collector whose
        // stop came from inside a call included (its last file goes out once
        // that call has ended).
        EXPECT_TRUE(eventually([&] {
            return events(daemon->out(), "window").size() ==
                           2 * windowCount(expectedWindows(0, 100)) &&
                   cached(cache + "/bind-0") + cached(cache + "/bind-1") == 0;
        })) << daemon->out()
            << client->out() << client->err();
        client->send("quit");
        EXPECT_EQ(0, client->waitExit()) << client->err();
        EXPECT_NE(client->out().find("e2e: deregistered 0 0"), std::string::npos) << client->out();
        daemon->signal(SIGTERM);
        daemon->waitExit();
    }
}

}  // namespace
