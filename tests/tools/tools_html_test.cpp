// zemdump --html: the report opened in a real headless Chromium, which must
// lay out a chart with painted marks inside its frame for every KPI
// (tools_html_check.py does the looking).
#include "tools_util.h"

namespace {

using namespace zem_tools_test;

// One cache file of `windows` windows per KPI: kCampaign's, and a gauge with
// the mean only.
std::string cacheFile(uint64_t start, int windows) {
    olvan::KPIData d;
    for (uint32_t i = 0; i < static_cast<uint32_t>(windows); ++i) {
        const uint64_t t = start + 10 * i;
        appendWindows(&d, t, i % 4, 55 + i % 3, 64 - i % 2, 60.5f, {0, i, 5, 1},
                      std::string(10 * i, 'x'));
        window(d.mutable_gauges(), 14, t, t + 10, 10)->set_mean(static_cast<float>(i) / 3);
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

    r = run({"/usr/bin/python3", TOOLS_HTML_CHECK_PY, report, "5"}, std::chrono::seconds(240));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    for (const char* chart :
         {"chart 10 counter windows=12 marks=12", "chart 11 gauge windows=12",
          "chart 12 histogram windows=12 marks=48", "chart 13 blob windows=12 marks=12",
          "chart 14 gauge windows=12 marks=12"}) {
        EXPECT_NE(r.out.find(chart), std::string::npos) << chart << "\n" << r.out;
    }
}

}  // namespace
