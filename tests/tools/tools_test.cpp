// The developer tools: zemd's control socket driven by zemctl against live
// clients of both transports, zemctl's campaign check, and zemdump's summary
// and JSON output.
#include "tools/JsonCheck.h"
#include "tools/KPIDataFormat.h"
#include "tools/KPISummary.h"
#include "tools_util.h"

namespace {

using namespace zem_tools_test;

TEST_F(ToolsTest, ZemctlStartsStopsAndListsLiveClientsOfBothTransports) {
    auto daemon = startDaemon();
    auto grpc = startClient("grpc");
    auto binder = startClient("binder");
    ASSERT_TRUE(eventually([&] {
        return events(daemon->out(), "register").size() == 2 &&
               !events(daemon->out(), "stream", "state", "open").empty();
    })) << daemon->out();

    ToolRun r = zemctl({"clients"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const auto rows = lines(r.out);
    ASSERT_EQ(rows.size(), 2u) << r.out;
    const std::string grpcToken = jsonField(events(daemon->out(), "stream")[0], "clientid");
    for (const std::string& row : rows) {
        if (row.rfind("e2e\t", 0) == 0) {
            EXPECT_EQ(row, "e2e\t1.2\tgrpc\t" + grpcToken);
        } else {
            EXPECT_EQ(row.rfind("bind-0\t-\tbinder\tzemd-", 0), 0u) << row;
        }
    }
    auto both = [&](const std::string& line, int times) {
        return eventually([&] {
            return count(grpc->out(), line) == times && count(binder->out(), line) == times;
        });
    };

    // Nothing to start before a campaign is known.
    r = zemctl({"start"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no campaign to start"), std::string::npos) << r.err;

    // push: both clients start, nothing printed on success.
    r = zemctl({"push", campaign});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");
    ASSERT_TRUE(both("e2e: start-callback", 1)) << daemon->out();
    grpc->send("log 12");
    binder->send("log 12");
    ASSERT_TRUE(both("e2e: logged 12 rejected 0", 1)) << grpc->out() << binder->out();

    // stop: both deliver their last file; the gRPC client's 12 counter
    // samples make a full window and a partial one.
    r = zemctl({"stop"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");
    ASSERT_TRUE(eventually([&] {
        return events(daemon->out(), "data").size() == 2 &&
               events(daemon->out(), "data", "transport", "binder").size() == 1 &&
               events(daemon->out(), "window", "id", "10").size() == 4;
    })) << daemon->out();

    // start again: the same campaign, on both; -v says how many got it.
    r = zemctl({"-v", "start"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    ASSERT_TRUE(both("e2e: start-callback", 2));

    // Deregistered clients leave the list.
    grpc->send("quit");
    binder->send("quit");
    EXPECT_EQ(grpc->waitExit(), 0);
    EXPECT_EQ(binder->waitExit(), 0);
    ASSERT_TRUE(eventually([&] { return zemctl({"clients"}).out.empty(); }));

    r = zemctl({"quit"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(daemon->waitExit(), 0);
    EXPECT_NE(access((socket + ".ctl").c_str(), F_OK), 0);
    EXPECT_EQ(daemon->err(), "");
}

TEST_F(ToolsTest, ClientsThatDieLeaveTheClientList) {
    auto daemon = startDaemon();
    auto grpc = startClient("grpc");
    auto binder = startClient("binder", 2);
    ASSERT_TRUE(eventually([&] { return lines(zemctl({"clients"}).out).size() == 3; }))
            << daemon->out();

    grpc->signal(SIGKILL);
    grpc->waitExit();
    ASSERT_TRUE(eventually([&] { return lines(zemctl({"clients"}).out).size() == 2; }));
    binder->signal(SIGKILL);
    binder->waitExit();
    ASSERT_TRUE(eventually([&] {
        return zemctl({"clients"}).out.empty() && events(daemon->out(), "died").size() == 2;
    })) << daemon->out();
}

TEST_F(ToolsTest, ZemctlAndZemdExplainFailuresWithDistinctStatuses) {
    zem_test::writeFile(dir.file("bad.txtpb"), "size_threshold: 100\ntime_threshold: x\n");
    zem_test::writeFile(dir.file("big.txtpb"), "size_threshold: 99\ntime_threshold: 1\n");
    auto ctl = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {ZEMCTL_BIN, "--socket", socket});
        return args;
    };
    zem_test::writeFile(dir.file("plainfile"), "");
    olvan::KPIData windows;
    appendWindows(&windows, 0, 20, 1, 9, 5, {1, 2, 3, 4}, "ab");
    zem_test::writeFile(dir.file("kpidata.1"), windows.SerializeAsString());
    struct Case {
        bool daemon;  // a zemd runs at `socket`
        std::vector<std::string> argv;
        int status;
        std::string text;  // in the output or the error output
    } cases[] = {
            {false, ctl({"stop"}), 3, socket + ".ctl"},
            // Usage errors never reach a daemon.
            {false, ctl({"bogus"}), 2, ""},
            {false, ctl({"push"}), 2, ""},
            {false, ctl({"stop", "now"}), 2, ""},
            {false, ctl({"--frobnicate", "stop"}), 2, ""},
            {false, {ZEMCTL_BIN, "--help"}, 0, "examples:"},
            {false, {ZEMCTL_BIN}, 2, "no command"},
            // zemd refuses what it cannot run with, each cause its status.
            {false,
             {ZEMD_BIN, "--campaign", dir.file("bad.txtpb"), "--socket", socket},
             2,
             dir.file("bad.txtpb") + ":2:17: Expected integer"},
            {false, {ZEMD_BIN, "--stop-after", "soon"}, 2, "positive number of seconds"},
            {false, {ZEMD_BIN, "--socket", dir.file("missing/spc")}, 3, "does not exist"},
            {false,
             {ZEMD_BIN, "--socket", socket, "--out", dir.file("plainfile/out")},
             4,
             "cannot create output folder"},
            {false,
             {ZEMDUMP_BIN, dir.file("kpidata.1")},
             0,
             "id=10    counter   t=0.0s..1.0s n=10    value=20"},
            // A campaign file that does not parse is refused with its
            // position, and the running campaign stays.
            {true, ctl({"push", dir.file("bad.txtpb")}), 1,
             dir.file("bad.txtpb") + ":2:17: Expected integer"},
            {true, ctl({"push", dir.file("missing.txtpb")}), 1, ""},
            // Out of the client's limits: sent anyway (a test may want
            // that), with a warning.
            {true, ctl({"push", dir.file("big.txtpb")}), 0,
             "warning: campaign field size_threshold=99 outside [100, 4194304]; "
             "clients will refuse this campaign"},
            // A second zemd cannot take a live control socket.
            {true,
             {ZEMD_BIN, "--socket", dir.file("o"), "--control-socket", socket + ".ctl"},
             3,
             "another server is listening"},
            {true, {ZEMD_BIN, "--socket", socket, "--control-socket", socket}, 2, ""},
    };
    std::unique_ptr<Child> daemon;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.argv.back());
        if (c.daemon && !daemon) daemon = startDaemon({"--campaign", campaign});
        const ToolRun r = run(c.argv);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE((r.out + r.err).find(c.text), std::string::npos) << r.out << r.err;
        EXPECT_TRUE(c.status == 0 || r.out.empty()) << r.out;  // failures on stderr only
    }

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
    const std::string limits = "size_threshold: 100\ntime_threshold: 21600\n";
    struct Case {
        std::string campaign;
        int status;
        std::vector<std::string> err;  // each once in the error output; none: silent
    } cases[] = {
            {kCampaign, 0, {}},
            // Everything a client refuses, not only what it meets first: the
            // broken limit and each refused KPI, each with its reason.
            {"size_threshold: 4194305\ntime_threshold: 1\n"
             "kpiCfgs { id: 4 type: KPI_NUMERIC subType: COUNTER nof_samples: 1 }\n"
             "kpiCfgs { id: 5 type: KPI_EVENT nof_samples: 1 }\n"
             "kpiCfgs { id: 7 type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 3 } }\n",
             1,
             {"check: invalid campaign config",
              "check: campaign field size_threshold=4194305 outside [100, 4194304]",
              "Unknown KPI Type: 201326592 to create",
              "check: error: could not create KPI id: 5 from KPICfg",
              "check: KPI id 5 refused: type KPI_EVENT has no aggregator (KPI_NUMERIC, KPI_STATE "
              "and KPI_BLOB have one)",
              "check: error: could not create KPI id: 7 from KPICfg",
              "check: KPI id 7 refused: b_cfg.singleSampleSizeTresholdBytes=3 outside [4, 524288]",
              "a client refuses this campaign (StartCampaign returns -1)"}},
            // Accepted, but probably not meant.
            {limits + "kpiCfgs { id: 8 type: KPI_NUMERIC subType: HISTOGRAM\n" +
                     "          h_cfg { bucket_bounds: [10, 5] overflow_en: true } }\n",
             0,
             {"KPI 8: no nof_samples or duration_msecs",
              "KPI 8: bucket_bounds are not strictly ascending",
              "KPI 8: overflow_en without underflow_en"}},
            {"kpiCfgs { id: 1 typo: 3 }\n",
             1,
             {"c.txtpb:1:21: Message type \"KPICfg\" has no field named \"typo\""}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.campaign);
        zem_test::writeFile(dir.file("c.txtpb"), c.campaign);
        const ToolRun r = run({ZEMCTL_BIN, "check", dir.file("c.txtpb")});
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_EQ(r.out, "");
        std::string all;
        for (const std::string& line : c.err) {
            EXPECT_EQ(count(r.err, line), 1) << line << "\n" << r.err;
            all += line;
        }
        EXPECT_EQ(count(r.err, "could not create"), count(all, "could not create")) << r.err;
        EXPECT_EQ(c.err.empty(), r.err.empty()) << r.err;
    }
}

// Two files of one client, the second written first (earlier times), folded
// into one row per KPI and kind: in time order, not file order; each gauge
// statistic over the windows that report it, the mean the mean of the
// windows' means; bin totals as long as the longest window.
TEST_F(ToolsTest, ZemdumpSummaryFoldsEveryWindowOfEveryFileAndStillReportsABadOne) {
    olvan::KPIData late, early;
    window(late.mutable_counters(), 1, 20, 21, 4)->set_value(8);
    window(early.mutable_counters(), 1, 10, 11, 2)->set_value(0);
    auto* g = window(late.mutable_gauges(), 2, 20, 21, 3);
    g->set_min(5);
    g->set_max(9);
    g->set_mean(7);
    window(early.mutable_gauges(), 2, 15, 16, 9)->set_max(100);  // neither min nor mean
    g = window(early.mutable_gauges(), 2, 10, 11, 1);
    g->set_min(1);
    g->set_mean(1);  // no max in this window
    auto* h = window(late.mutable_histograms(), 3, 20, 21, 7);
    for (uint32_t b : {1, 2, 3, 1}) h->add_bin_counts(b);
    h = window(early.mutable_histograms(), 3, 10, 11, 2);
    for (uint32_t b : {2, 0}) h->add_bin_counts(b);
    window(late.mutable_blobs(), 4, 20, 21, 2)->set_data("abcde");
    // The same id as a counter in a later campaign: a row of its own.
    window(late.mutable_counters(), 4, 30, 31, 1)->set_value(3);
    zem_test::writeFile(dir.file("a"), late.SerializeAsString());
    zem_test::writeFile(dir.file("b"), early.SerializeAsString());
    zem_test::writeFile(dir.file("bad"), "\xff\xff");

    ToolRun r = run({ZEMDUMP_BIN, "--summary", "--json", dir.file("a"), dir.file("b")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(lines(r.out),
              std::vector<std::string>({
                      R"({"id":1,"kind":"counter","windows":2,"samples":6,"sum":8,"series":[0,8]})",
                      R"({"id":2,"kind":"gauge","windows":3,"samples":13,"min":1,"max":100,)"
                      R"("mean_of_means":4,"series":[1,100,7]})",
                      R"({"id":3,"kind":"histogram","windows":2,"samples":9,"bins":[3,2,3,1],)"
                      R"("series":[2,7]})",
                      R"({"id":4,"kind":"blob","windows":1,"samples":2,"bytes":5})",
                      R"({"id":4,"kind":"counter","windows":1,"samples":1,"sum":3,"series":[3]})",
              }));

    r = run({ZEMDUMP_BIN, "--summary", dir.file("a"), dir.file("bad"), dir.file("b")});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("bad: not a cache file"), std::string::npos) << r.err;
    for (const char* text :
         {"1          counter          2          6  sum=8", "min=1 max=100 mean-of-means=4",
          "bins=[3 2 3 1]", "bytes=5", "  bin 0   ████████████████████████████████████████ 3",
          "▁█  value per window, max 8"}) {
        EXPECT_NE(r.out.find(text), std::string::npos) << text << "\n" << r.out;
    }
    // Usage errors.
    EXPECT_EQ(run({ZEMDUMP_BIN}).status, 2);
    EXPECT_EQ(run({ZEMDUMP_BIN, "--sumary", dir.file("a")}).status, 2);
}

TEST(KPISummaryTest, SparklinesScaleFromZeroAndAverageWideSeries) {
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

// zemd and zemdump decode window by window; what they print must be what a
// merged parse of the whole file gives, for odd but valid encodings too, and
// they must refuse what it refuses.
TEST(CacheFileIndexTest, DecodesExactlyWhatAMergedParseDecodes) {
    olvan::KPIData real;
    real.set_version(olvan::V1);
    for (uint32_t id : {3u, 1u, 2u}) {
        window(real.mutable_counters(), id, 5, 0, 0)->set_value(id * 10);
        window(real.mutable_gauges(), id, 5 - id, 0, 0)->set_max(id);
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
    for (const float mean :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
          -std::numeric_limits<float>::infinity(), 1.5f}) {
        window(data.mutable_gauges(), 7, static_cast<uint64_t>(data.gauges_size()), 0, 0)
                ->set_mean(mean);
    }
    // A file name that is not UTF-8, with a quote and a control character.
    const std::string name = dir.file("odd\xff\xc3\"\x01");
    zem_test::writeFile(name, data.SerializeAsString());

    ToolRun r = run({ZEMDUMP_BIN, "--json", name});
    ASSERT_EQ(r.status, 0) << r.err;
    const auto objs = lines(r.out);
    ASSERT_EQ(objs.size(), 4u) << r.out;
    const char* means[] = {"null", "null", "null", "1.5"};
    for (size_t i = 0; i < objs.size(); ++i) {
        EXPECT_TRUE(zemtools::isValidJson(objs[i])) << objs[i];
        EXPECT_EQ(jsonField(objs[i], "mean"), means[i]);
    }

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
