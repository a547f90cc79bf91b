// Names, bin labels, wall-clock times and Prometheus buckets in the tools:
// the KPI catalog, labels from campaign bounds for every bin layout, the
// mapping of bins onto cumulative buckets, and the clock reference.
#include <google/protobuf/text_format.h>

#include "TestUtil.h"
#include "tools/KPICatalog.h"
#include "tools/KPIDataFormat.h"
#include "tools/MetricsExporter.h"
#include "tools/WallClock.h"

namespace {

using zemtools::WallClock;

HistogramConfig bounds102030(bool underflow, bool overflow) {
    HistogramConfig h;
    for (const uint32_t b : {10u, 20u, 30u}) h.add_bucket_bounds(b);
    h.set_underflow_en(underflow);
    h.set_overflow_en(overflow);
    return h;
}

olvan::Histogram window(std::vector<uint32_t> bins) {
    olvan::Histogram h;
    h.mutable_meta()->set_id(7);
    for (const uint32_t b : bins) h.add_bin_counts(b);
    return h;
}

// Each layout's labels follow the bins the histogram fills: a value v lands
// in the bin whose label interval holds it, and the cumulative buckets
// (le = 10, 20, 30, +Inf) count exactly the binned values up to each bound.
TEST(MetricsExporterTest, BinLabelsAndPrometheusBucketsMatchWhereTheHistogramPutsEachValue) {
    struct Case {
        bool underflow, overflow;
        std::vector<std::string> labels;
        std::vector<uint32_t> bins;      // a window, one count per bin
        std::vector<double> cumulative;  // le=10, 20, 30, +Inf
    } cases[] = {
            {false, false, {"(10, 20]", "(20, 30]"}, {3, 5}, {0, 3, 8, 8}},
            {true, false, {"underflow (<= 10)", "(10, 20]", "(20, 30]"}, {2, 3, 5}, {2, 5, 10, 10}},
            {true,
             true,
             {"underflow (<= 10)", "(10, 20]", "(20, 30]", "overflow (> 30)"},
             {2, 3, 5, 7},
             {2, 5, 10, 17}},
            // Overflow alone: values above 30 land in no emitted bin and the
            // last bin is never filled.
            {false, true, {"(10, 20]", "(20, 30]", "phantom (always 0)"}, {3, 5, 0}, {0, 3, 8, 8}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.underflow) + "/" + std::to_string(c.overflow));
        const HistogramConfig cfg = bounds102030(c.underflow, c.overflow);
        EXPECT_EQ(zemtools::boundLabels(cfg), c.labels);
        const std::vector<double> inc =
                zemtools::MetricsExporter::bucketIncrements(cfg, window(c.bins));
        ASSERT_EQ(inc.size(), 4u);
        double sum = 0;
        for (size_t i = 0; i < inc.size(); ++i) {
            sum += inc[i];
            EXPECT_EQ(sum, c.cumulative[i]) << "bucket " << i;
        }
        // A window whose bin count does not fit the layout is not mapped.
        std::vector<uint32_t> longer = c.bins;
        longer.push_back(1);
        EXPECT_TRUE(zemtools::MetricsExporter::bucketIncrements(cfg, window(longer)).empty());
    }
    // Buckets need ascending bounds; a single bound without flags has no bin.
    HistogramConfig unsorted;
    for (const uint32_t b : {20u, 10u, 30u}) unsorted.add_bucket_bounds(b);
    EXPECT_TRUE(zemtools::MetricsExporter::bucketIncrements(unsorted, window({1, 1})).empty());
    HistogramConfig single;
    single.add_bucket_bounds(5);
    EXPECT_TRUE(zemtools::boundLabels(single).empty());
}

class KPICatalogTest : public ::testing::Test {
  protected:
    bool load(const std::string& text, std::string* error) {
        zem_test::writeFile(dir.file("c.txtpb"), text);
        return catalog.load(dir.file("c.txtpb"), error);
    }
    zem_test::TempDir dir;
    zemtools::KPICatalog catalog;
};

// Window lines and bin labels: the catalog's own labels only where they fit,
// else the campaign's bounds, else none rather than wrong ones.
TEST_F(KPICatalogTest, NamesKpisAndLabelsTheirBinsAndWindowsOnlyWhereTheyFit) {
    std::string error;
    ASSERT_TRUE(load(R"(kpi { id: 7 name: "latency" unit: "ms" bin_labels: ["fast", "slow"] }
                       kpi { id: 8 name: "rate" unit: "ms" })",
                     &error))
            << error;
    EXPECT_EQ(catalog.name(7), "latency");
    EXPECT_EQ(catalog.name(9), "9");
    EXPECT_EQ(catalog.describe(9), "KPI 9");
    LTCCampaignDef campaign;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(
            R"(kpiCfgs { id: 7 type: KPI_NUMERIC subType: HISTOGRAM
                         h_cfg { bucket_bounds: [10, 20, 30] } }
               kpiCfgs { id: 8 type: KPI_NUMERIC subType: HISTOGRAM
                         h_cfg { bucket_bounds: [10, 20, 30] underflow_en: true overflow_en: true } })",
            &campaign));
    EXPECT_EQ(catalog.binLabels(7, 2, &campaign), (std::vector<std::string>{"fast", "slow"}));
    EXPECT_TRUE(catalog.binLabels(7, 3, &campaign).empty());
    EXPECT_EQ(catalog.binLabels(8, 4, &campaign).front(), "underflow (<= 10)");
    EXPECT_TRUE(catalog.binLabels(8, 4, nullptr).empty());

    olvan::KPIData data;
    *data.add_histograms() = window({1, 2, 3, 4});
    data.mutable_histograms(0)->mutable_meta()->set_id(8);
    data.mutable_histograms(0)->mutable_meta()->set_ts_start(1000);
    data.mutable_histograms(0)->mutable_meta()->set_ts_end(1012);
    WallClock clock;
    ASSERT_TRUE(WallClock::parse("100=2026-01-01T00:00:00Z", &clock, &error));
    const zemtools::WindowContext ctx{&catalog, &campaign, &clock};
    EXPECT_EQ(
            zemtools::formatWindows(data, false, "", ctx).at(0),
            "rate     histogram t=100.0s..101.2s (2026-01-01T00:00:00.0Z..2026-01-01T00:00:01.2Z) "
            "n=0     bins=[underflow (<= 10)=1, (10, 20]=2, (20, 30]=3, overflow (> 30)=4] [ms]");
    EXPECT_EQ(zemtools::formatWindows(data, true, "", ctx).at(0),
              R"({"id":8,"name":"rate","unit":"ms","kind":"histogram","ts_start":1000,)"
              R"("ts_end":1012,"samples":0,"wall_start":"2026-01-01T00:00:00.0Z",)"
              R"("wall_end":"2026-01-01T00:00:01.2Z","bins":[1,2,3,4],"bin_labels":)"
              R"j(["underflow (<= 10)","(10, 20]","(20, 30]","overflow (> 30)"]})j");
    // Without context the lines stay as they were.
    EXPECT_EQ(zemtools::formatWindows(data, false, "").at(0),
              "id=8     histogram t=100.0s..101.2s n=0     bins=[1 2 3 4]");
}

TEST_F(KPICatalogTest, RefusesFilesThatWouldNameTwoKpisAlikeOrNotParse) {
    std::string error;
    EXPECT_FALSE(load("kpi { id: 1 name: \"a\" } kpi { id: 1 name: \"b\" }", &error));
    EXPECT_NE(error.find("id 1: listed more than once"), std::string::npos) << error;
    EXPECT_FALSE(load("kpi { id: 2 name: \"frame latency\" }", &error));
    EXPECT_NE(error.find("must be letters, digits and '_'"), std::string::npos) << error;
    EXPECT_FALSE(load("kpi { id: 3 nmae: \"x\" }", &error));
    EXPECT_NE(error.find("c.txtpb:1:"), std::string::npos) << error;
    // A failed load keeps what was loaded before.
    ASSERT_TRUE(load("kpi { id: 4 name: \"ok\" }", &error));
    EXPECT_FALSE(load("kpi { id: 4 name: \"\" }", &error));
    EXPECT_EQ(catalog.name(4), "ok");
}

TEST(WallClockTest, MapsSteadyTenthsToUtcFromEitherForm) {
    for (const char* ref :
         {"100.0=2026-01-01T00:00:00Z", "100=1767225600", "100.25=2026-01-01T00:00:00.250Z"}) {
        SCOPED_TRACE(ref);
        WallClock clock;
        std::string error;
        ASSERT_TRUE(WallClock::parse(ref, &clock, &error)) << error;
        EXPECT_EQ(clock.iso(1005), "2026-01-01T00:00:00.5Z");
        EXPECT_EQ(clock.iso(995), "2025-12-31T23:59:59.5Z");
        EXPECT_DOUBLE_EQ(clock.unixSeconds(1000), 1767225600.0);
    }
    for (const char* bad : {"", "100", "x=2026-01-01T00:00:00Z", "100=2026-01-01 00:00:00",
                            "100=2026-01-01T00:00:00+01:00", "-5=1767225600"}) {
        WallClock clock;
        std::string error;
        EXPECT_FALSE(WallClock::parse(bad, &clock, &error)) << bad;
    }
    // A reference reads back as it prints.
    WallClock now = WallClock::now(), again;
    std::string error;
    ASSERT_TRUE(WallClock::parse(now.reference(), &again, &error)) << error;
    EXPECT_NEAR(again.unixSeconds(12345), now.unixSeconds(12345), 0.002);
    EXPECT_EQ(WallClock().iso(5), "");
}

}  // namespace
