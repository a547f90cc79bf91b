// zem_log through the C API for a counter KPI with 1, 64 and 1024 KPIs in the
// table, in-window, beside the floor measured in the same run: one
// steady-clock read plus a plain add, which every sample pays for its window
// test.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <limits>
#include <string>

#include "collector/zem_collector.h"
#include "zem_sdk.h"

namespace {

void BM_Floor_ClockReadPlusAdd(benchmark::State& state) {
    uint64_t sum = 0;
    uint32_t v = 1;
    for (auto _ : state) {
        auto now = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(now);
        sum += v++;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_Floor_ClockReadPlusAdd);

// A registered collector (no transport: registration fails quietly in the
// background) running a campaign of `kpis` counters with sparse ids.
struct Client {
    explicit Client(int kpis) {
        char tmpl[] = "/tmp/zem_bench.XXXXXX";
        dir = mkdtemp(tmpl);
        zem_cfg_s cfg{};
        cfg.name = "bench";
        cfg.cache_dir = dir.c_str();
        cfg.transport = 0;
        handle = zem_register(&cfg);
        LTCCampaignDef def;
        def.set_size_threshold(4194304);
        def.set_time_threshold(1);
        for (int i = 0; i < kpis; ++i) {
            KPICfg* k = def.add_kpicfgs();
            k->set_id(idOf(i));
            k->set_type(KPI_NUMERIC);
            k->set_subtype(COUNTER);
            k->set_nof_samples(std::numeric_limits<uint32_t>::max());
        }
        handle->StartCampaign(def.SerializeAsString());
    }
    ~Client() {
        zem_deregister(handle);
        std::string cmd = "rm -rf '" + dir + "'";
        if (system(cmd.c_str()) != 0) abort();
    }
    static int32_t idOf(int i) { return i * 7 + 3; }

    std::string dir;
    zem_handle handle;
};

// One counter KPI logged while the table holds `kpis` of them.
void BM_ZemLog_Counter(benchmark::State& state) {
    const int kpis = static_cast<int>(state.range(0));
    Client client(kpis);
    const uint32_t id = static_cast<uint32_t>(Client::idOf(kpis / 2));
    uint32_t v = 1;
    for (auto _ : state) benchmark::DoNotOptimize(zem_log(client.handle, id, v++));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZemLog_Counter)->Arg(1)->Arg(64)->Arg(1024);

// Every KPI of the table in turn: the lookup and the KPIs' own state no
// longer stay in the innermost cache.
void BM_ZemLog_CounterCycling(benchmark::State& state) {
    const int kpis = static_cast<int>(state.range(0));
    Client client(kpis);
    // Cycle through every KPI so the lookup cannot settle on one path.
    std::vector<uint32_t> ids;
    for (int i = 0; i < kpis; ++i) ids.push_back(static_cast<uint32_t>(Client::idOf(i)));
    size_t next = 0;
    uint32_t v = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zem_log(client.handle, ids[next], v++));
        if (++next == ids.size()) next = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZemLog_CounterCycling)->Arg(64)->Arg(1024);

}  // namespace
