// The developer tools: zemd's control socket driven by zemctl against live
// clients of both transports, zemctl's campaign check, and zemdump's summary
// (its folding and drawing in-process, its command line as a process).
#include <sys/stat.h>

#include <memory>

#include "TestUtil.h"
#include "e2e_util.h"
#include "tools/JsonCheck.h"
#include "tools/KPIDataFormat.h"
#include "tools/KPISummary.h"

namespace {

using zem_e2e::Child;
using zem_e2e::count;
using zem_e2e::events;
using zem_e2e::eventually;
using zem_e2e::jsonField;
using zem_e2e::lines;
using zem_test::TempDir;

const bool kChildSuppressions = [] {
    const char* old = getenv("TSAN_OPTIONS");
    const std::string value = std::string(old ? old : "") + " suppressions=" GRPC_TSAN_SUPP;
    return setenv("TSAN_OPTIONS", value.c_str(), 1) == 0;
}();

const char* kCampaign = R"(
kpiCfgs { id: 10 type: KPI_NUMERIC subType: COUNTER c_cfg {} nof_samples: 10 }
kpiCfgs { id: 11 type: KPI_NUMERIC subType: GAUGE g_cfg { min: true max: true mean: true }
          nof_samples: 10 }
kpiCfgs { id: 12 type: KPI_NUMERIC subType: HISTOGRAM
          h_cfg { bucket_bounds: [10, 20, 30] underflow_en: true overflow_en: true }
          nof_samples: 10 }
kpiCfgs { id: 13 type: KPI_BLOB
          b_cfg { singleSampleSizeTresholdBytes: 64 sampleRateThresholdPerSec: 100 }
          nof_samples: 2 }
size_threshold: 65536
time_threshold: 60
)";

struct ToolRun {
    int status;
    std::string out, err;
};

class ToolsTest : public ::testing::Test {
  protected:
    ToolsTest() {
        static int n = 0;
        setenv("HOST_BINDER_REGISTRY",
               ("tools_" + std::to_string(getpid()) + "_" + std::to_string(++n)).c_str(), 1);
        signal(SIGPIPE, SIG_IGN);
        mkdir(dir.file("cache").c_str(), 0755);
        mkdir(dir.file("scratch").c_str(), 0755);
        zem_test::writeFile(campaign, kCampaign);
    }

    // Runs a tool to its end (bounded) and collects its output.
    ToolRun run(std::vector<std::string> argv) {
        Child c(argv, dir.file("tool.out"), dir.file("tool.err"));
        const int status = c.waitExit(std::chrono::seconds(30));
        return {status, c.out(), c.err()};
    }

    ToolRun zemctl(std::vector<std::string> args) {
        args.insert(args.begin(), {ZEMCTL_BIN, "--socket", socket});
        return run(args);
    }

    // Each daemon of a test writes to files of its own, so that waiting for
    // one never reads what an earlier one printed.
    std::unique_ptr<Child> startDaemon(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv = {ZEMD_BIN, "--socket", socket,
                                         "--json", "--out",    dir.file("received")};
        argv.insert(argv.end(), extra.begin(), extra.end());
        const std::string name = "zemd" + std::to_string(++daemons);
        auto d = std::make_unique<Child>(argv, dir.file(name + ".out"), dir.file(name + ".err"));
        EXPECT_TRUE(eventually([&] { return !events(d->out(), "binder").empty(); }))
                << d->out() << d->err();
        return d;
    }

    TempDir dir;
    int daemons = 0;
    const std::string socket = dir.file("spc");
    const std::string campaign = dir.file("campaign.txtpb");
};

TEST_F(ToolsTest, ZemctlStartsStopsAndListsLiveClientsOfBothTransports) {
    auto daemon = startDaemon();
    Child grpc({E2E_CLIENT_BIN, "--socket", socket, "--cache", dir.file("cache")},
               dir.file("grpc.out"), dir.file("grpc.err"));
    Child binder({BINDER_E2E_CLIENT_BIN, "--collectors", "1", "--cache", dir.file("cache")},
                 dir.file("binder.out"), dir.file("binder.err"));
    ASSERT_TRUE(eventually([&] {
        return events(daemon->out(), "register").size() == 2 &&
               !events(daemon->out(), "stream", "state", "open").empty();
    })) << daemon->out();

    ToolRun r = zemctl({"clients"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const auto rows = lines(r.out);
    ASSERT_EQ(rows.size(), 2u) << r.out;
    const auto regs = events(daemon->out(), "register");
    const std::string grpcToken = jsonField(events(daemon->out(), "stream")[0], "clientid");
    for (const std::string& row : rows) {
        if (row.rfind("e2e\t", 0) == 0) {
            EXPECT_EQ(row, "e2e\t1.2\tgrpc\t" + grpcToken);
        } else {
            EXPECT_EQ(row.rfind("bind-0\t-\tbinder\tzemd-", 0), 0u) << row;
        }
    }

    // Nothing to start before a campaign is known.
    r = zemctl({"start"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no campaign to start"), std::string::npos) << r.err;

    // push: both clients start, nothing printed on success.
    r = zemctl({"push", campaign});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");
    ASSERT_TRUE(eventually([&] {
        return count(grpc.out(), "e2e: start-callback") == 1 &&
               count(binder.out(), "e2e: start-callback") == 1;
    })) << daemon->out();
    grpc.send("log 12");
    binder.send("log 12");
    ASSERT_TRUE(eventually([&] {
        return count(grpc.out(), "e2e: logged 12 rejected 0") == 1 &&
               count(binder.out(), "e2e: logged 12 rejected 0") == 1;
    })) << grpc.out()
        << binder.out();

    // stop: both deliver their last file.
    r = zemctl({"stop"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");
    ASSERT_TRUE(eventually([&] {
        return events(daemon->out(), "data").size() == 2 &&
               events(daemon->out(), "data", "transport", "binder").size() == 1;
    })) << daemon->out();
    // The gRPC client's 12 counter samples: a full window and a partial one.
    EXPECT_EQ(events(daemon->out(), "window", "id", "10").size(), 4u) << daemon->out();

    // start again: the same campaign, on both; -v says how many got it.
    r = zemctl({"-v", "start"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    ASSERT_TRUE(eventually([&] {
        return count(grpc.out(), "e2e: start-callback") == 2 &&
               count(binder.out(), "e2e: start-callback") == 2;
    }));

    // Deregistered clients leave the list.
    grpc.send("quit");
    binder.send("quit");
    EXPECT_EQ(grpc.waitExit(), 0);
    EXPECT_EQ(binder.waitExit(), 0);
    ASSERT_TRUE(eventually([&] { return zemctl({"clients"}).out.empty(); }));

    r = zemctl({"quit"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(daemon->waitExit(), 0);
    EXPECT_NE(access((socket + ".ctl").c_str(), F_OK), 0);
    EXPECT_EQ(daemon->err(), "");
}

TEST_F(ToolsTest, ClientsThatDieLeaveTheClientList) {
    auto daemon = startDaemon();
    auto grpc = std::make_unique<Child>(std::vector<std::string>{E2E_CLIENT_BIN, "--socket", socket,
                                                                 "--cache", dir.file("cache")},
                                        dir.file("grpc.out"), dir.file("grpc.err"));
    auto binder =
            std::make_unique<Child>(std::vector<std::string>{BINDER_E2E_CLIENT_BIN, "--collectors",
                                                             "2", "--cache", dir.file("cache")},
                                    dir.file("binder.out"), dir.file("binder.err"));
    ASSERT_TRUE(eventually([&] { return lines(zemctl({"clients"}).out).size() == 3; }))
            << daemon->out();

    grpc->signal(SIGKILL);
    grpc->waitExit();
    ASSERT_TRUE(eventually([&] { return lines(zemctl({"clients"}).out).size() == 2; }));
    binder->signal(SIGKILL);
    binder->waitExit();
    ASSERT_TRUE(eventually([&] { return zemctl({"clients"}).out.empty(); })) << daemon->out();
    EXPECT_EQ(events(daemon->out(), "died").size(), 2u);
}

TEST_F(ToolsTest, ZemctlAndZemdExplainFailuresWithDistinctStatuses) {
    // No daemon.
    ToolRun r = zemctl({"stop"});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find(socket + ".ctl"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");

    // Usage errors never reach a daemon.
    EXPECT_EQ(zemctl({"bogus"}).status, 2);
    EXPECT_EQ(zemctl({"push"}).status, 2);
    EXPECT_EQ(zemctl({"stop", "now"}).status, 2);
    EXPECT_EQ(zemctl({"--frobnicate", "stop"}).status, 2);
    r = run({ZEMCTL_BIN, "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("examples:"), std::string::npos);
    r = run({ZEMCTL_BIN});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no command"), std::string::npos);

    auto daemon = startDaemon({"--campaign", campaign});
    // A campaign file that does not parse is refused with its position, and
    // the running campaign stays.
    zem_test::writeFile(dir.file("bad.txtpb"), "size_threshold: 100\ntime_threshold: x\n");
    r = zemctl({"push", dir.file("bad.txtpb")});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(dir.file("bad.txtpb") + ":2:17: Expected integer"), std::string::npos)
            << r.err;
    EXPECT_EQ(zemctl({"push", dir.file("missing.txtpb")}).status, 1);
    // Out of the client's limits: sent anyway (a test may want that), with a
    // warning.
    zem_test::writeFile(dir.file("big.txtpb"), "size_threshold: 99\ntime_threshold: 1\n");
    r = zemctl({"push", dir.file("big.txtpb")});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(
            r.err.find("warning: campaign field size_threshold=99 outside [100, 4194304]; clients "
                       "will refuse this campaign"),
            std::string::npos)
            << r.err;

    // A second zemd cannot take a live control socket.
    r = run({ZEMD_BIN, "--socket", dir.file("other"), "--control-socket", socket + ".ctl"});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("another server is listening"), std::string::npos) << r.err;
    EXPECT_EQ(run({ZEMD_BIN, "--socket", socket, "--control-socket", socket}).status, 2);

    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->waitExit(), 0);
    // A stale control socket left by a killed daemon is taken over.
    auto killed = startDaemon();
    killed->signal(SIGKILL);
    EXPECT_EQ(killed->waitExit(), 128 + SIGKILL);
    ASSERT_EQ(access((socket + ".ctl").c_str(), F_OK), 0);
    auto again = startDaemon();
    EXPECT_EQ(zemctl({"clients"}).status, 0);
}

TEST_F(ToolsTest, ZemctlCheckReportsEverythingAClientRefusesAndWhy) {
    auto check = [&](const std::string& text) {
        zem_test::writeFile(dir.file("c.txtpb"), text);
        return run({ZEMCTL_BIN, "check", dir.file("c.txtpb")});
    };
    const std::string limits = "size_threshold: 100\ntime_threshold: 21600\n";

    ToolRun r = run({ZEMCTL_BIN, "check", campaign});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");

    // Everything a client refuses, not only what it meets first: the broken
    // limit and each refused KPI, each with its reason.
    const char* refusedThrice =
            "size_threshold: 4194305\ntime_threshold: 1\n"
            "kpiCfgs { id: 4 type: KPI_NUMERIC subType: COUNTER nof_samples: 1 }\n"
            "kpiCfgs { id: 5 type: KPI_EVENT nof_samples: 1 }\n"
            "kpiCfgs { id: 7 type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 3 } }\n";
    r = check(refusedThrice);
    EXPECT_EQ(r.status, 1);
    const std::vector<std::string> logged = zem_test::logMessages(r.err, 'E');
    const std::vector<std::string> want = {
            "check: invalid campaign config",
            "check: campaign field size_threshold=4194305 outside [100, 4194304]",
            "Unknown KPI Type: 201326592 to create",
            "check: error: could not create KPI id: 5 from KPICfg",
            "check: KPI id 5 refused: type KPI_EVENT has no aggregator (KPI_NUMERIC, KPI_STATE and "
            "KPI_BLOB have one)",
            "check: error: could not create KPI id: 7 from KPICfg",
            "check: KPI id 7 refused: b_cfg.singleSampleSizeTresholdBytes=3 outside [4, 524288]"};
    EXPECT_EQ(logged, want) << r.err;
    EXPECT_NE(r.err.find("a client refuses this campaign (StartCampaign returns -1)"),
              std::string::npos);

    // Accepted, but probably not meant.
    r = check(limits +
              "kpiCfgs { id: 8 type: KPI_NUMERIC subType: HISTOGRAM\n"
              "          h_cfg { bucket_bounds: [10, 5] overflow_en: true } }\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("KPI 8: no nof_samples or duration_msecs"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("KPI 8: bucket_bounds are not strictly ascending"), std::string::npos);
    EXPECT_NE(r.err.find("KPI 8: overflow_en without underflow_en"), std::string::npos);

    r = check("kpiCfgs { id: 1 typo: 3 }\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("c.txtpb:1:21: Message type \"KPICfg\" has no field named \"typo\""),
              std::string::npos)
            << r.err;
}

olvan::MetaData* meta(olvan::MetaData* m, uint32_t id, uint64_t ts, uint64_t n) {
    m->set_id(id);
    m->set_ts_start(ts);
    m->set_ts_end(ts + 1);
    m->set_nof_samples(n);
    return m;
}

// Two files of one client; the second was written first (earlier times).
std::pair<olvan::KPIData, olvan::KPIData> twoFiles() {
    olvan::KPIData late, early;
    auto* c = late.add_counters();
    meta(c->mutable_meta(), 1, 20, 4);
    c->set_value(8);
    c = early.add_counters();
    meta(c->mutable_meta(), 1, 10, 2);
    c->set_value(0);

    auto* g = late.add_gauges();
    meta(g->mutable_meta(), 2, 20, 3);
    g->set_min(5);
    g->set_max(9);
    g->set_mean(7);
    g = early.add_gauges();
    meta(g->mutable_meta(), 2, 10, 1);
    g->set_min(1);
    g->set_mean(1);  // no max in this window
    g = early.add_gauges();
    meta(g->mutable_meta(), 2, 15, 9);
    g->set_max(100);  // neither min nor mean

    auto* h = late.add_histograms();
    meta(h->mutable_meta(), 3, 20, 7);
    for (uint32_t b : {1, 2, 3, 1}) h->add_bin_counts(b);
    h = early.add_histograms();
    meta(h->mutable_meta(), 3, 10, 2);
    for (uint32_t b : {2, 0}) h->add_bin_counts(b);

    auto* b = late.add_blobs();
    meta(b->mutable_meta(), 4, 20, 2);
    b->set_data("abcde");
    // The same id as a counter in a later campaign: a separate row.
    c = late.add_counters();
    meta(c->mutable_meta(), 4, 30, 1);
    c->set_value(3);
    return {late, early};
}

TEST(KPISummary, FoldsEveryWindowOfEveryFileIntoOneRowPerKpiAndKind) {
    zemtools::KPISummary s;
    const auto files = twoFiles();
    s.add(files.first);
    s.add(files.second);
    const auto rows = s.rows();
    ASSERT_EQ(rows.size(), 5u);

    EXPECT_EQ(rows[0].kind, "counter");
    EXPECT_EQ(rows[0].windows, 2u);
    EXPECT_EQ(rows[0].samples, 6u);
    EXPECT_EQ(rows[0].counterSum, 8u);
    // In time order, not file order.
    ASSERT_EQ(rows[0].series.size(), 2u);
    EXPECT_EQ(rows[0].series[0].second, 0);
    EXPECT_EQ(rows[0].series[1].second, 8);

    // Each gauge statistic over the windows that report it; the mean is the
    // mean of the windows' means, not weighted by samples.
    const auto& g = rows[1];
    EXPECT_EQ(g.kind, "gauge");
    EXPECT_EQ(g.windows, 3u);
    EXPECT_EQ(g.samples, 13u);
    EXPECT_EQ(g.min, 1u);
    EXPECT_EQ(g.max, 100u);
    EXPECT_EQ(g.meanWindows, 2u);
    EXPECT_DOUBLE_EQ(g.meanOfMeans, 4.0);
    ASSERT_EQ(g.series.size(), 3u);
    EXPECT_EQ(g.series[1].second, 100);  // the max stands in for the missing mean

    // Bin totals as long as the longest window.
    EXPECT_EQ(rows[2].binTotals, (std::vector<uint64_t>{3, 2, 3, 1}));
    EXPECT_EQ(rows[2].series[0].second, 2);  // samples per window

    EXPECT_EQ(rows[3].kind, "blob");
    EXPECT_EQ(rows[3].blobBytes, 5u);
    EXPECT_EQ(rows[4].kind, "counter");
    EXPECT_EQ(rows[4].id, 4u);
}

TEST(KPISummary, SparklinesScaleFromZeroAndAverageWideSeries) {
    EXPECT_EQ(zemtools::sparkline({}), "");
    EXPECT_EQ(zemtools::sparkline({0, 7, 14}), "▁▅█");
    EXPECT_EQ(zemtools::sparkline({0, 0}), "▁▁");
    EXPECT_EQ(zemtools::sparkline({5, 5}), "██");
    // Six values into three cells: pairs averaged.
    EXPECT_EQ(zemtools::sparkline({0, 0, 8, 8, 0, 16}, 3), "▁██");
    EXPECT_EQ(zemtools::sparkline({0, 2, 4, 4, 0, 16}, 3), "▂▅█");

    EXPECT_EQ(zemtools::bar(0, 10, 4), "");
    EXPECT_EQ(zemtools::bar(10, 10, 4), "████");
    EXPECT_EQ(zemtools::bar(5, 10, 4), "██");
    EXPECT_EQ(zemtools::bar(1, 1000000, 4), "▏");  // never invisible
}

TEST_F(ToolsTest, ZemdumpSummaryCoversAllFilesAndStillReportsABadOne) {
    const auto files = twoFiles();
    zem_test::writeFile(dir.file("a"), files.first.SerializeAsString());
    zem_test::writeFile(dir.file("b"), files.second.SerializeAsString());
    zem_test::writeFile(dir.file("bad"), "\xff\xff");

    ToolRun r = run({ZEMDUMP_BIN, "--summary", dir.file("a"), dir.file("bad"), dir.file("b")});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("bad: not a cache file"), std::string::npos) << r.err;
    EXPECT_NE(r.out.find("1          counter          2          6  sum=8"), std::string::npos)
            << r.out;
    EXPECT_NE(r.out.find("min=1 max=100 mean-of-means=4"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("bins=[3 2 3 1]"), std::string::npos);
    EXPECT_NE(r.out.find("bytes=5"), std::string::npos);
    EXPECT_NE(r.out.find("  bin 0   ████████████████████████████████████████ 3"), std::string::npos)
            << r.out;
    EXPECT_NE(r.out.find("▁█  value per window, max 8"), std::string::npos) << r.out;

    r = run({ZEMDUMP_BIN, "--summary", "--json", dir.file("a"), dir.file("b")});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto objs = lines(r.out);
    ASSERT_EQ(objs.size(), 5u) << r.out;
    EXPECT_EQ(jsonField(objs[2], "bins"), "[3,2,3,1]");
    EXPECT_EQ(jsonField(objs[1], "mean_of_means"), "4");
    EXPECT_EQ(jsonField(objs[0], "series"), "[0,8]");
    EXPECT_EQ(jsonField(objs[3], "series"), "<absent>");  // blobs have no series

    // Usage errors.
    EXPECT_EQ(run({ZEMDUMP_BIN}).status, 2);
    EXPECT_EQ(run({ZEMDUMP_BIN, "--sumary", dir.file("a")}).status, 2);
}

// zemd and zemdump decode window by window; what they print must be what a
// merged parse of the whole file gives, for odd but valid encodings too, and
// they must refuse what it refuses.
TEST(CacheFileIndex, DecodesExactlyWhatAMergedParseDecodes) {
    olvan::KPIData real;
    real.set_version(olvan::V1);
    for (uint32_t id : {3u, 1u, 2u}) {
        auto* c = real.add_counters();
        c->mutable_meta()->set_id(id);
        c->mutable_meta()->set_ts_start(5);
        c->set_value(id * 10);
        auto* g = real.add_gauges();
        g->mutable_meta()->set_id(id);
        g->mutable_meta()->set_ts_start(5 - id);
        g->set_max(id);
    }
    real.add_histograms()->add_bin_counts(4);
    real.add_blobs()->set_data("zz");
    const std::string file = real.SerializeAsString();
    const std::string v1("\x08\x01", 2), v0("\x08\x00", 2);
    struct Case {
        const char* what;
        std::string bytes;
        bool valid;
    };
    const Case cases[] = {
            {"a real file", file, true},
            {"the last version wins", v1 + file + v0, true},
            {"unknown fields are skipped", std::string("\x48\x07\x3a\x01x", 5) + file, true},
            {"a window field of another wire type is unknown", std::string("\x10\x05", 2) + file,
             true},
            {"a window's meta given twice merges",
             std::string("\x12\x08\x0a\x02\x08\x09\x0a\x02\x10\x01", 10), true},
            {"an empty file", "", true},
            {"a length past the end", file + std::string("\x12\x05\x0a", 3), false},
            {"a zero tag inside", v1 + std::string("\x00", 1) + v1, false},
            {"an end-group at the top", std::string("\x0c", 1), false},
            {"a broken window", std::string("\x12\x02\x0a\x05", 4), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        olvan::KPIData merged;
        ASSERT_EQ(c.valid, zemtools::decodeCacheBytes(c.bytes, &merged));
        zemtools::CacheFileIndex index;
        ASSERT_EQ(c.valid, index.decode(c.bytes));
        if (!c.valid) continue;
        EXPECT_EQ(zemtools::windowCount(merged), index.windowCount());
        EXPECT_EQ(static_cast<int>(merged.version()), index.version());
        for (const bool json : {false, true}) {
            std::vector<std::string> got;
            index.forEachLine(json, "\"f\":1,", [&got](const std::string& l) { got.push_back(l); });
            EXPECT_EQ(zemtools::formatWindows(merged, json, "\"f\":1,"), got);
        }
    }
}

TEST_F(ToolsTest, ZemdumpJsonStaysValidForNonFiniteMeansAndOddFileNames) {
    olvan::KPIData data;
    data.set_version(olvan::V1);
    const float means[] = {std::numeric_limits<float>::quiet_NaN(),
                           std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(), 1.5f};
    for (size_t i = 0; i < 4; ++i) {
        auto* g = data.add_gauges();
        g->mutable_meta()->set_id(7);
        g->mutable_meta()->set_ts_start(i);
        g->set_mean(means[i]);
    }
    // A file name that is not UTF-8, with a quote and a control character.
    const std::string name = dir.file("odd\xff\xc3\"\x01");
    zem_test::writeFile(name, data.SerializeAsString());

    ToolRun r = run({ZEMDUMP_BIN, "--json", name});
    ASSERT_EQ(r.status, 0) << r.err;
    const auto objs = lines(r.out);
    ASSERT_EQ(objs.size(), 4u) << r.out;
    for (const std::string& o : objs) EXPECT_TRUE(zemtools::isValidJson(o)) << o;
    EXPECT_EQ(jsonField(objs[0], "mean"), "null");
    EXPECT_EQ(jsonField(objs[1], "mean"), "null");
    EXPECT_EQ(jsonField(objs[2], "mean"), "null");
    EXPECT_EQ(jsonField(objs[3], "mean"), "1.5");

    r = run({ZEMDUMP_BIN, "--summary", "--json", name});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(lines(r.out).size(), 1u) << r.out;
    EXPECT_TRUE(zemtools::isValidJson(lines(r.out)[0])) << r.out;
    EXPECT_EQ(jsonField(lines(r.out)[0], "series"), "[null,null,null,1.5]");

    // The checker itself: what it must refuse.
    for (const char* bad : {"{\"a\":nan}", "[inf]", "[01]", "[1.]", "{\"a\":1,}", "\"\x01\"",
                            "\"\xff\"", "\"\xed\xa0\x80\"", "[1] [2]", "{\"a\" 1}"}) {
        EXPECT_FALSE(zemtools::isValidJson(bad)) << bad;
    }
    for (const char* good : {"{\"a\":[1,-0.5e+3,null,true,\"\\u00ff\xc3\xbf\"]}", " 0 "}) {
        EXPECT_TRUE(zemtools::isValidJson(good)) << good;
    }
}

}  // namespace
