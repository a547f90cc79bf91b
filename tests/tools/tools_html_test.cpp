// zemdump --html: the report opened in a real headless Chromium, which must
// build a chart with marks for every KPI and paint a screenshot that is not
// blank (tools_html_check.py does the looking).
#include "tools_util.h"

namespace {

using namespace zem_tools_test;

// One cache file of `windows` windows per KPI: kCampaign's counter, gauge
// with all three statistics, histogram and blob, and a gauge with the mean
// only.
std::string cacheFile(uint64_t start, int windows) {
    olvan::KPIData d;
    d.set_version(olvan::V1);
    for (int i = 0; i < windows; ++i) {
        const uint64_t t = start + 10 * static_cast<uint64_t>(i);
        window(d.mutable_counters(), 10, t, t + 9, 10)->set_value(static_cast<uint64_t>(i % 4));
        auto* g = window(d.mutable_gauges(), 11, t, t + 9, 10);
        g->set_min(55 + i % 3);
        g->set_max(64 - i % 2);
        g->set_mean(60.5f);
        window(d.mutable_gauges(), 14, t, t + 9, 10)->set_mean(static_cast<float>(i) / 3);
        auto* h = window(d.mutable_histograms(), 12, t, t + 9, 10);
        for (const uint32_t b : {0u, static_cast<uint32_t>(i), 5u, 1u}) h->add_bin_counts(b);
        window(d.mutable_blobs(), 13, t, t + 9, 1)
                ->set_data(std::string(10 * static_cast<size_t>(i), 'x'));
    }
    return d.SerializeAsString();
}

TEST_F(ToolsTest, ZemdumpHtmlRendersEveryKpiChartInHeadlessChromium) {
    zem_test::writeFile(dir.file("a.kpidata"), cacheFile(1000, 6));
    zem_test::writeFile(dir.file("b.kpidata"), cacheFile(1060, 6));
    // A help text that would be markup if the page did not escape it.
    zem_test::writeFile(dir.file("k.txtpb"), R"(
kpi { id: 10 name: "dropped" help: "<script>alert(1)</script>" }
kpi { id: 12 name: "latency" unit: "ms" })");
    const std::string report = dir.file("report.html");
    ToolRun r = run({ZEMDUMP_BIN, "--html", report, "--campaign", campaign, "--catalog",
                     dir.file("k.txtpb"), "--clock-ref", "100=2026-01-01T00:00:00Z",
                     dir.file("a.kpidata"), dir.file("b.kpidata")});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string page = zem_test::readFile(report);
    EXPECT_NE(page.find("underflow (&lt;= 10)"), std::string::npos);
    EXPECT_NE(page.find("2026-01-01T00:00:00.0Z"), std::string::npos);
    EXPECT_NE(page.find("&lt;script&gt;"), std::string::npos);

    r = run({"/usr/bin/python3", TOOLS_HTML_CHECK_PY, report, SCREENSHOT_PNG, "5"},
            std::chrono::seconds(240));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    for (const char* chart :
         {"chart 10 counter windows=12 marks=12", "chart 11 gauge windows=12",
          "chart 12 histogram windows=12 marks=48", "chart 13 blob windows=12 marks=12",
          "chart 14 gauge windows=12 marks=12"}) {
        EXPECT_NE(r.out.find(chart), std::string::npos) << chart << "\n" << r.out;
    }
}

}  // namespace
