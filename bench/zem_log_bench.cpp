// The per-sample cost of every zem_log kind through the C API, each beside
// the floor measured in the same run (one steady-clock read plus a plain
// add: the window rules read the clock on every sample) and beside the
// same work done by prometheus-cpp, the C++ metrics client most processes
// reach for, plus one clock read so both sides pay for a timestamp.
// Also: window close on the logging thread, two logging threads, the cost
// of zem_register, and resident memory per collector.
#include <benchmark/benchmark.h>
#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <random>
#include <vector>

#include "ZemBenchClient.h"

using zem_bench::Client;

namespace {

constexpr int kHistogramBounds = 1024;

// Values spread over every histogram bin, the outer ones included.
const std::vector<uint32_t>& sampleValues() {
    static const std::vector<uint32_t> values = [] {
        std::mt19937 rng(7);
        std::vector<uint32_t> v(4096);
        for (auto& x : v) x = rng() % (kHistogramBounds * 10 + 500);
        return v;
    }();
    return values;
}

void BM_Floor_ClockReadPlusAdd(benchmark::State& state) {
    const auto& values = sampleValues();
    uint64_t sum = 0;
    size_t i = 0;
    for (auto _ : state) {
        auto now = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(now);
        sum += values[i++ & 4095];
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_Floor_ClockReadPlusAdd);

// One counter KPI logged while the table holds `kpis` of them.
void BM_ZemLog_Counter(benchmark::State& state) {
    const int kpis = static_cast<int>(state.range(0));
    Client client([kpis](LTCCampaignDef& d) { zem_bench::addCounters(d, kpis); });
    const uint32_t id = static_cast<uint32_t>((kpis / 2) * 7 + 3);
    const auto& values = sampleValues();
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(zem_log(client.handle, id, values[i++ & 4095]));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZemLog_Counter)->Arg(1)->Arg(64)->Arg(1024);

// Every KPI of the table in turn: the lookup and the KPIs' own state no
// longer stay in the innermost cache.
void BM_ZemLog_CounterCycling(benchmark::State& state) {
    const int kpis = static_cast<int>(state.range(0));
    Client client([kpis](LTCCampaignDef& d) { zem_bench::addCounters(d, kpis); });
    std::vector<uint32_t> ids;
    for (int i = 0; i < kpis; ++i) ids.push_back(static_cast<uint32_t>(i * 7 + 3));
    size_t next = 0;
    uint32_t v = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zem_log(client.handle, ids[next], v++));
        if (++next == ids.size()) next = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZemLog_CounterCycling)->Arg(1024);

void BM_ZemLog_Gauge(benchmark::State& state) {
    Client client([](LTCCampaignDef& d) { zem_bench::addGauge(d, 5); });
    const auto& values = sampleValues();
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(zem_log(client.handle, 5, values[i++ & 4095]));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZemLog_Gauge);

void BM_ZemLog_Histogram(benchmark::State& state) {
    const int bounds = static_cast<int>(state.range(0));
    Client client([bounds](LTCCampaignDef& d) { zem_bench::addHistogram(d, 9, bounds); });
    const auto& values = sampleValues();
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(zem_log(client.handle, 9, values[i++ & 4095]));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZemLog_Histogram)->Arg(16)->Arg(kHistogramBounds);

// 64-byte buffers into an open window. The window is restarted outside the
// timing every 1000 samples so the kept copies do not pile up.
void BM_ZemLogBlob_64(benchmark::State& state) {
    constexpr int kBatch = 1000;
    Client client([](LTCCampaignDef& d) { zem_bench::addBlob(d, 11, 2 * kBatch); });
    LTCCampaignDef def;
    def.set_size_threshold(4194304);
    def.set_time_threshold(21600);
    zem_bench::addBlob(def, 11, 2 * kBatch);
    const std::string restart = def.SerializeAsString();
    uint8_t buf[64] = {1, 2, 3};
    for (auto _ : state) {
        for (int k = 0; k < kBatch; ++k) {
            buf[0] = static_cast<uint8_t>(k);
            benchmark::DoNotOptimize(zem_log_blob(client.handle, 11, buf, sizeof buf));
        }
        state.PauseTiming();
        client.handle->StopCampaign();
        client.handle->StartCampaign(restart);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_ZemLogBlob_64);

// Every sample closes the previous one-sample window: the record is built,
// serialized and queued on the logging thread; the writer runs beside it.
void BM_ZemLog_WindowClose(benchmark::State& state) {
    Client client([](LTCCampaignDef& d) { Client::add(d, 1, KPI_NUMERIC, COUNTER, 1); });
    uint32_t v = 1;
    for (auto _ : state) benchmark::DoNotOptimize(zem_log(client.handle, 1, v++));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZemLog_WindowClose);

// Each thread logs its own counter KPI.
void BM_ZemLog_Threads(benchmark::State& state) {
    static Client* client = nullptr;
    if (state.thread_index() == 0) {
        client = new Client([](LTCCampaignDef& d) { zem_bench::addCounters(d, 64); });
    }
    const uint32_t id = static_cast<uint32_t>(state.thread_index() * 7 + 3);
    uint32_t v = 1;
    for (auto _ : state) benchmark::DoNotOptimize(zem_log(client->handle, id, v++));
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        delete client;
        client = nullptr;
    }
}
BENCHMARK(BM_ZemLog_Threads)->Threads(1)->Threads(2)->UseRealTime();

void BM_Peer_PrometheusCounterIncrement(benchmark::State& state) {
    prometheus::Registry registry;
    auto& counter = prometheus::BuildCounter().Name("frames").Register(registry).Add({});
    const auto& values = sampleValues();
    size_t i = 0;
    for (auto _ : state) {
        auto now = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(now);
        counter.Increment(values[i++ & 4095]);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Peer_PrometheusCounterIncrement);

void BM_Peer_PrometheusGaugeSet(benchmark::State& state) {
    prometheus::Registry registry;
    auto& gauge = prometheus::BuildGauge().Name("fps").Register(registry).Add({});
    const auto& values = sampleValues();
    size_t i = 0;
    for (auto _ : state) {
        auto now = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(now);
        gauge.Set(values[i++ & 4095]);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Peer_PrometheusGaugeSet);

void BM_Peer_PrometheusHistogramObserve(benchmark::State& state) {
    prometheus::Registry registry;
    prometheus::Histogram::BucketBoundaries bounds;
    for (int i = 1; i <= state.range(0); ++i) bounds.push_back(i * 10.0);
    auto& histogram =
            prometheus::BuildHistogram().Name("latency").Register(registry).Add({}, bounds);
    const auto& values = sampleValues();
    size_t i = 0;
    for (auto _ : state) {
        auto now = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(now);
        histogram.Observe(values[i++ & 4095]);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Peer_PrometheusHistogramObserve)->Arg(16)->Arg(kHistogramBounds);

// zem_register alone; the deregistration is outside the timing.
void BM_ZemRegister(benchmark::State& state) {
    char tmpl[] = "/tmp/zem_bench.XXXXXX";
    std::string dir = mkdtemp(tmpl);
    zem_cfg_s cfg{};
    cfg.name = "bench";
    cfg.cache_dir = dir.c_str();
    cfg.transport = 0;
    for (auto _ : state) {
        zem_handle h = zem_register(&cfg);
        state.PauseTiming();
        zem_deregister(h);
        state.ResumeTiming();
    }
    rmdir(dir.c_str());
}
BENCHMARK(BM_ZemRegister)->Repetitions(5)->ReportAggregatesOnly(true)->Iterations(200);

long residentKiB() {
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Resident memory added by each collector running 1024 counter KPIs.
// scripts/bench runs it alone in a fresh process: memory that earlier
// benchmarks freed would be handed out again and hide the growth. One
// collector made first, and kept, takes the process's one-time costs.
void BM_Memory_CollectorWith1024Counters(benchmark::State& state) {
    constexpr int kClients = 8;
    double perClient = 0;
    for (auto _ : state) {
        Client first([](LTCCampaignDef& d) { zem_bench::addCounters(d, 1024); });
        for (int i = 0; i < 1024; ++i) zem_log(first.handle, i * 7 + 3, 1);
        const long before = residentKiB();
        std::vector<std::unique_ptr<Client>> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.push_back(std::make_unique<Client>(
                    [](LTCCampaignDef& d) { zem_bench::addCounters(d, 1024); }));
            for (int i = 0; i < 1024; ++i) zem_log(clients.back()->handle, i * 7 + 3, 1);
        }
        perClient = static_cast<double>(residentKiB() - before) / kClients;
    }
    state.counters["rss_kib_per_collector"] = perClient;
}
BENCHMARK(BM_Memory_CollectorWith1024Counters)->Iterations(1);

}  // namespace
