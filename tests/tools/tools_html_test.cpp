// zemdump --html: the report opened in a real headless Chromium, which must
// build a chart with marks for every KPI and paint a screenshot that is not
// blank (tests/tools_html_check.py does the looking).
#include "TestUtil.h"
#include "e2e_util.h"
#include "metric.pb.h"

namespace {

using zem_e2e::Child;
using zem_test::TempDir;

void fill(olvan::MetaData* m, uint32_t id, uint64_t start, uint64_t n) {
    m->set_id(id);
    m->set_ts_start(start);
    m->set_ts_end(start + 9);
    m->set_nof_samples(n);
}

// One cache file of `windows` windows per KPI: a counter, a gauge with all
// three statistics, a gauge with the mean only, a histogram and a blob.
std::string cacheFile(uint64_t start, int windows) {
    olvan::KPIData d;
    d.set_version(olvan::V1);
    for (int i = 0; i < windows; ++i) {
        const uint64_t t = start + 10 * static_cast<uint64_t>(i);
        auto* c = d.add_counters();
        fill(c->mutable_meta(), 1, t, 10);
        c->set_value(static_cast<uint64_t>(i % 4));
        auto* g = d.add_gauges();
        fill(g->mutable_meta(), 2, t, 10);
        g->set_min(55 + i % 3);
        g->set_max(64 - i % 2);
        g->set_mean(60.5f);
        auto* m = d.add_gauges();
        fill(m->mutable_meta(), 3, t, 10);
        m->set_mean(static_cast<float>(i) / 3);
        auto* h = d.add_histograms();
        fill(h->mutable_meta(), 4, t, 10);
        for (const uint32_t b : {0u, static_cast<uint32_t>(i), 5u, 1u}) h->add_bin_counts(b);
        auto* b = d.add_blobs();
        fill(b->mutable_meta(), 5, t, 1);
        b->set_data(std::string(static_cast<size_t>(10 * i), 'x'));
    }
    return d.SerializeAsString();
}

TEST(HtmlReport, EveryKpiChartRendersInHeadlessChromium) {
    TempDir dir;
    zem_test::writeFile(dir.file("a.kpidata"), cacheFile(1000, 6));
    zem_test::writeFile(dir.file("b.kpidata"), cacheFile(1060, 6));
    zem_test::writeFile(dir.file("c.txtpb"), R"(
kpiCfgs { id: 4 type: KPI_NUMERIC subType: HISTOGRAM
          h_cfg { bucket_bounds: [10, 20, 30] underflow_en: true overflow_en: true } }
size_threshold: 1000 time_threshold: 60)");
    // A help text that would be markup if the page did not escape it.
    zem_test::writeFile(dir.file("k.txtpb"), R"(
kpi { id: 1 name: "dropped" help: "<script>alert(1)</script>" }
kpi { id: 4 name: "latency" unit: "ms" })");
    const std::string report = dir.file("report.html");
    Child dump({ZEMDUMP_BIN, "--html", report, "--campaign", dir.file("c.txtpb"), "--catalog",
                dir.file("k.txtpb"), "--clock-ref", "100=2026-01-01T00:00:00Z",
                dir.file("a.kpidata"), dir.file("b.kpidata")},
               dir.file("dump.out"), dir.file("dump.err"));
    ASSERT_EQ(dump.waitExit(std::chrono::seconds(30)), 0) << dump.err();
    const std::string page = zem_test::readFile(report);
    EXPECT_NE(page.find("underflow (&lt;= 10)"), std::string::npos);
    EXPECT_NE(page.find("2026-01-01T00:00:00.0Z"), std::string::npos);
    EXPECT_NE(page.find("&lt;script&gt;"), std::string::npos);

    Child check({"/usr/bin/python3", TOOLS_HTML_CHECK_PY, report, SCREENSHOT_PNG, "5"},
                dir.file("check.out"), dir.file("check.err"));
    ASSERT_EQ(check.waitExit(std::chrono::seconds(240)), 0) << check.out() << check.err();
    const std::string out = check.out();
    for (const char* chart :
         {"chart 1 counter windows=12 marks=12", "chart 2 gauge windows=12",
          "chart 3 gauge windows=12 marks=12", "chart 4 histogram windows=12 marks=48",
          "chart 5 blob windows=12 marks=12"}) {
        EXPECT_NE(out.find(chart), std::string::npos) << chart << "\n" << out;
    }
}

}  // namespace
