// zemd --metrics end to end: windows delivered over gRPC by a client are
// scraped from zemd over HTTP and parsed by the Prometheus client library's
// exposition-format parser, and every value is checked against what was sent.
#include <grpcpp/grpcpp.h>

#include <cmath>
#include <map>

#include "spc.grpc.pb.h"
#include "tools_util.h"

namespace {

using namespace zem_tools_test;

TEST_F(ToolsTest, ZemdMetricsScrapedMatchTheWindowsClientsSent) {
    zem_test::writeFile(dir.file("k.txtpb"),
                        "kpi { id: 10 name: \"frames\" } kpi { id: 11 name: \"temp\" } "
                        "kpi { id: 12 name: \"latency\" }");
    auto zemd = startDaemon(
            {"--campaign", campaign, "--catalog", dir.file("k.txtpb"), "--metrics", "127.0.0.1:0"});
    const std::string url = jsonField(events(zemd->out(), "listening").at(0), "metrics");
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
    olvan::KPIData first, second;
    appendWindows(&first, 100, 4, 3, 9, 5.5f, {1, 2, 3, 4}, "abcde");
    appendWindows(&second, 110, 6, 1, 4, 2.0f, {0, 1, 0, 2}, "xyz");
    window(second.mutable_counters(), 10, 50, 60, 10)->set_value(100);
    const std::string files[] = {first.SerializeAsString(), second.SerializeAsString()};
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
    // zemd prints a file's windows after it has counted them.
    ASSERT_TRUE(eventually([&] { return events(zemd->out(), "window").size() == 9; }));

    // tools_scrape.py prints "NAME{LABEL=VALUE,...} VALUE" per sample.
    const ToolRun scrape = run({"/usr/bin/python3", TOOLS_SCRAPE_PY, url});
    ASSERT_EQ(scrape.status, 0) << scrape.err;
    std::map<std::string, double> m;
    for (const std::string& line : lines(scrape.out)) {
        std::istringstream in(line);
        std::string key, value;
        in >> key >> value;
        m[key] = strtod(value.c_str(), nullptr);
    }
    auto at = [&](const std::string& key) { return m.count(key) ? m[key] : -1.0; };
    const std::string frames = "{client=cam,kpi=frames}", temp = "{client=cam,kpi=temp}";
    const std::string lat = "{client=cam,kpi=latency", blob = "{client=cam,kpi=13}";
    // Bins [1 3 3 6] over both files: underflow (<= 10), (10, 20], (20, 30],
    // overflow (> 30), as cumulative buckets (`lat` lacks its closing brace
    // for the le label). The blob KPI has no name in
    // the catalog: its id labels it.
    const std::pair<std::string, double> expected[] = {
            {"zem_client_files_total{client=cam}", 2},
            {"zem_client_windows_total{client=cam}", 9},
            {"zem_kpi_windows_total" + frames, 3},
            {"zem_kpi_samples_total" + frames, 30},
            {"zem_counter_total" + frames, 110},
            {"zem_counter_last_window" + frames, 6},
            {"zem_gauge_min" + temp, 1},
            {"zem_gauge_max" + temp, 4},
            {"zem_gauge_mean" + temp, 2},
            {"zem_histogram_bucket" + lat + ",le=10}", 1},
            {"zem_histogram_bucket" + lat + ",le=20}", 4},
            {"zem_histogram_bucket" + lat + ",le=30}", 7},
            {"zem_histogram_bucket" + lat + ",le=+Inf}", 13},
            {"zem_histogram_count" + lat + "}", 13},
            {"zem_blob_bytes_total" + blob, 8},
            {"zem_blob_last_window_bytes" + blob, 3},
            {"zem_kpi_samples_total" + blob, 3},
    };
    for (const auto& e : expected) EXPECT_EQ(at(e.first), e.second) << e.first;
    EXPECT_TRUE(std::isnan(at("zem_histogram_sum" + lat + "}"))) << scrape.out;

    // The latest window ended at steady-clock 12.0 s: its wall-clock time is
    // that far before the moment of sending as steady-clock now is after it.
    const double sentAt = std::chrono::duration<double>(wallAtSend.time_since_epoch()).count() -
                          std::chrono::duration<double>(steadyAtSend.time_since_epoch()).count() +
                          12.0;
    EXPECT_NEAR(at("zem_kpi_last_window_end_seconds" + frames), sentAt, 1.0);
}

}  // namespace
