// A registered client with a running campaign, for benchmarks and the
// instruction-count workload. Its transport is a sink standing in for a
// daemon that takes every file at once, so that no benchmark measures the
// writer retrying deliveries that have nowhere to go.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <functional>
#include <memory>
#include <string>

#include "collector/CollectorSeams.h"
#include "collector/zem_collector.h"
#include "transport/zemTransportClient.h"
#include "zem_sdk.h"

namespace zem_bench {

class SinkTransport : public zemTransportClient {
  public:
    int32_t registerClient(const std::string&, uint32_t, zem_collector* collector) override {
        collector->setToken("bench");
        return 0;
    }
    int32_t sendData(const std::string& filename, const std::string&) override {
        remove(filename.c_str());
        return 0;
    }
    int32_t deRegisterClient(const std::string&) override { return 0; }
};

// Every collector the process registers gets a sink.
inline void useSinkTransport() {
    static const bool done = [] {
        zem::internal::setTransportFactory(
                [](uint32_t) { return std::make_shared<SinkTransport>(); });
        return true;
    }();
    (void)done;
}

class Client {
  public:
    // `fill` adds the campaign's KPIs.
    explicit Client(const std::function<void(LTCCampaignDef&)>& fill) {
        char tmpl[] = "/tmp/zem_bench.XXXXXX";
        dir = mkdtemp(tmpl);
        useSinkTransport();
        zem_cfg_s cfg{};
        cfg.name = "bench";
        cfg.cache_dir = dir.c_str();
        cfg.transport = 0;
        handle = zem_register(&cfg);
        LTCCampaignDef def;
        def.set_size_threshold(4194304);
        // No rollover while a benchmark runs: there is no daemon to deliver to.
        def.set_time_threshold(21600);
        fill(def);
        if (handle->StartCampaign(def.SerializeAsString()) != 0) abort();
    }
    ~Client() {
        handle->StopCampaign();
        zem_deregister(handle);
        std::string cmd = "rm -rf '" + dir + "'";
        if (system(cmd.c_str()) != 0) abort();
    }

    static KPICfg* add(LTCCampaignDef& def, int32_t id, KPIType type, KPISubType sub,
                       uint32_t window) {
        KPICfg* k = def.add_kpicfgs();
        k->set_id(id);
        k->set_type(type);
        k->set_subtype(sub);
        k->set_nof_samples(window);
        return k;
    }

    std::string dir;
    zem_handle handle;
};

// Never closes within a benchmark: every sample lands in an open window.
constexpr uint32_t kHugeWindow = 0xFFFFFFFFu;

inline void addCounters(LTCCampaignDef& def, int n) {
    for (int i = 0; i < n; ++i) Client::add(def, i * 7 + 3, KPI_NUMERIC, COUNTER, kHugeWindow);
}

inline void addGauge(LTCCampaignDef& def, int32_t id) {
    GaugeConfig* g = Client::add(def, id, KPI_NUMERIC, GAUGE, kHugeWindow)->mutable_g_cfg();
    g->set_min(true);
    g->set_max(true);
    g->set_mean(true);
}

// Ascending bounds 10, 20, ... with both outer bins.
inline void addHistogram(LTCCampaignDef& def, int32_t id, int bounds) {
    HistogramConfig* h = Client::add(def, id, KPI_NUMERIC, HISTOGRAM, kHugeWindow)->mutable_h_cfg();
    for (int i = 1; i <= bounds; ++i) h->add_bucket_bounds(static_cast<uint32_t>(i * 10));
    h->set_underflow_en(true);
    h->set_overflow_en(true);
}

inline void addBlob(LTCCampaignDef& def, int32_t id, uint32_t window) {
    Client::add(def, id, KPI_BLOB, INVALID, window)
            ->mutable_b_cfg()
            ->set_singlesamplesizetresholdbytes(1024);
}

}  // namespace zem_bench
