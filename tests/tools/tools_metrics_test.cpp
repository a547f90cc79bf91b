// zemd --metrics end to end: windows delivered over gRPC by a client are
// scraped from zemd over HTTP and parsed by the Prometheus client library's
// exposition-format parser, and every value is checked against what was sent.
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cmath>
#include <map>

#include "TestUtil.h"
#include "e2e_util.h"
#include "spc.grpc.pb.h"

namespace {

using zem_e2e::Child;
using zem_e2e::events;
using zem_e2e::eventually;
using zem_e2e::jsonField;
using zem_test::TempDir;

// zemd runs gRPC, whose uninstrumented code the thread sanitizer needs told
// about.
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
kpiCfgs { id: 13 type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 64 } nof_samples: 2 }
size_threshold: 65536
time_threshold: 60
)";

const char* kCatalog = R"(
kpi { id: 10 name: "frames" } kpi { id: 11 name: "temp" } kpi { id: 12 name: "latency" }
)";

olvan::MetaData* meta(olvan::MetaData* m, uint32_t id, uint64_t start, uint64_t end, uint64_t n) {
    m->set_id(id);
    m->set_ts_start(start);
    m->set_ts_end(end);
    m->set_nof_samples(n);
    return m;
}

std::string file(uint64_t start, uint64_t counter, uint32_t min, uint32_t max, float mean,
                 std::vector<uint32_t> bins, const std::string& blob) {
    olvan::KPIData d;
    d.set_version(olvan::V1);
    auto* c = d.add_counters();
    meta(c->mutable_meta(), 10, start, start + 10, 10);
    c->set_value(counter);
    auto* g = d.add_gauges();
    meta(g->mutable_meta(), 11, start, start + 10, 10);
    g->set_min(min);
    g->set_max(max);
    g->set_mean(mean);
    auto* h = d.add_histograms();
    meta(h->mutable_meta(), 12, start, start + 10, 10);
    for (const uint32_t b : bins) h->add_bin_counts(b);
    auto* b = d.add_blobs();
    meta(b->mutable_meta(), 13, start, start + 10, blob.size() > 3 ? 2 : 1);
    b->set_data(blob);
    return d.SerializeAsString();
}

// "SAMPLE{label=value,...}" -> value, from tools_scrape.py's lines.
std::map<std::string, double> samples(const std::string& scraped) {
    std::map<std::string, double> out;
    for (const std::string& line : zem_e2e::lines(scraped)) {
        std::istringstream in(line);
        std::string type, name, labels, value;
        in >> type >> name >> labels >> value;
        out[name + "{" + (labels == "-" ? "" : labels) + "}"] = strtod(value.c_str(), nullptr);
    }
    return out;
}

TEST(Metrics, ScrapedValuesMatchTheWindowsClientsSent) {
    TempDir dir;
    zem_test::writeFile(dir.file("c.txtpb"), kCampaign);
    zem_test::writeFile(dir.file("k.txtpb"), kCatalog);
    const std::string socket = dir.file("spc");
    Child zemd({ZEMD_BIN, "--socket", socket, "--json", "--campaign", dir.file("c.txtpb"),
                "--catalog", dir.file("k.txtpb"), "--metrics", "127.0.0.1:0"},
               dir.file("zemd.out"), dir.file("zemd.err"));
    ASSERT_TRUE(eventually([&] { return !events(zemd.out(), "listening").empty(); })) << zemd.err();
    const std::string url = jsonField(events(zemd.out(), "listening")[0], "metrics");
    ASSERT_EQ(url.rfind("http://127.0.0.1:", 0), 0u) << url;

    auto stub = olvan::SPC::NewStub(
            grpc::CreateChannel("unix:" + socket, grpc::InsecureChannelCredentials()));
    olvan::ClientInfo info;
    info.set_name("cam");
    olvan::RegisterResponse reg;
    {
        grpc::ClientContext ctx;
        ASSERT_TRUE(stub->Register(&ctx, info, &reg).ok());
    }
    // The second file also brings, as a record of its own, a window older
    // than every other: it adds to the totals but is not the latest window.
    olvan::KPIData late;
    auto* old = late.add_counters();
    meta(old->mutable_meta(), 10, 50, 60, 10);
    old->set_value(100);
    const std::string files[] = {
            file(100, 4, 3, 9, 5.5f, {1, 2, 3, 4}, "abcde"),
            file(110, 6, 1, 4, 2.0f, {0, 1, 0, 2}, "xyz") + late.SerializeAsString(),
    };
    const auto steadyAtSend = std::chrono::steady_clock::now();
    const auto wallAtSend = std::chrono::system_clock::now();
    for (const std::string& bytes : files) {
        grpc::ClientContext ctx;
        ctx.AddMetadata("clientid", reg.token());
        olvan::Data data;
        data.set_data(bytes);
        olvan::Response response;
        ASSERT_TRUE(stub->SendData(&ctx, data, &response).ok());
    }
    ASSERT_TRUE(eventually([&] { return events(zemd.out(), "data").size() == 2; }));

    Child scrape({"/usr/bin/python3", TOOLS_SCRAPE_PY, url}, dir.file("scrape.out"),
                 dir.file("scrape.err"));
    ASSERT_EQ(scrape.waitExit(std::chrono::seconds(30)), 0) << scrape.err();
    const auto m = samples(scrape.out());
    auto at = [&](const std::string& key) {
        const auto it = m.find(key);
        return it == m.end() ? -1.0 : it->second;
    };
    const std::string frames = "client=cam,kpi=frames";
    EXPECT_EQ(at("zem_client_files_total{client=cam}"), 2);
    EXPECT_EQ(at("zem_client_windows_total{client=cam}"), 9);
    EXPECT_EQ(at("zem_kpi_windows_total{" + frames + "}"), 3);
    EXPECT_EQ(at("zem_kpi_samples_total{" + frames + "}"), 30);
    EXPECT_EQ(at("zem_counter_total{" + frames + "}"), 110);
    EXPECT_EQ(at("zem_counter_last_window{" + frames + "}"), 6);
    EXPECT_EQ(at("zem_gauge_min{client=cam,kpi=temp}"), 1);
    EXPECT_EQ(at("zem_gauge_max{client=cam,kpi=temp}"), 4);
    EXPECT_EQ(at("zem_gauge_mean{client=cam,kpi=temp}"), 2);
    // Bins [1 3 3 6] over both files: underflow (<= 10), (10, 20], (20, 30],
    // overflow (> 30), as cumulative buckets.
    const std::string lat = "client=cam,kpi=latency";
    EXPECT_EQ(at("zem_histogram_bucket{" + lat + ",le=10}"), 1);
    EXPECT_EQ(at("zem_histogram_bucket{" + lat + ",le=20}"), 4);
    EXPECT_EQ(at("zem_histogram_bucket{" + lat + ",le=30}"), 7);
    EXPECT_EQ(at("zem_histogram_bucket{" + lat + ",le=+Inf}"), 13);
    EXPECT_EQ(at("zem_histogram_count{" + lat + "}"), 13);
    EXPECT_TRUE(std::isnan(at("zem_histogram_sum{" + lat + "}"))) << scrape.out();
    // The blob KPI has no name in the catalog: its id labels it.
    EXPECT_EQ(at("zem_blob_bytes_total{client=cam,kpi=13}"), 8);
    EXPECT_EQ(at("zem_blob_last_window_bytes{client=cam,kpi=13}"), 3);
    EXPECT_EQ(at("zem_kpi_samples_total{client=cam,kpi=13}"), 3);

    // The latest window ended at steady-clock 12.0 s: its wall-clock time is
    // that far before the moment of sending as steady-clock now is after it.
    const double sentAt = std::chrono::duration<double>(wallAtSend.time_since_epoch()).count() -
                          std::chrono::duration<double>(steadyAtSend.time_since_epoch()).count() +
                          12.0;
    EXPECT_NEAR(at("zem_kpi_last_window_end_seconds{" + frames + "}"), sentAt, 1.0);
}

}  // namespace
