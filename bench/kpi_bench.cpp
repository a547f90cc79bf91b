// Cost of one sample on each aggregator, against a floor measured in the
// same run: one steady-clock reading plus one plain 64-bit add, which is the
// least any sample pays. A summary at the end prints each result as a
// multiple of that floor.
//
//   kpi_bench 2>/dev/null   # window closes log to stderr; keep it off the terminal
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kpi/Blob.h"
#include "kpi/KPI.h"
#include "serializer/KPISerializer.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kValueMask = 4095;

// Random values, so histogram searches and gauge branches are not flattered
// by a repeating input.
const std::vector<uint32_t>& values() {
    static const std::vector<uint32_t> v = [] {
        std::mt19937 rng(1);
        std::vector<uint32_t> out(kValueMask + 1);
        for (uint32_t& x : out) x = rng();
        return out;
    }();
    return v;
}

// One serializer with its writer thread for the whole run, writing into a
// scratch directory that is removed at exit.
struct Sink {
    std::string dir;
    std::unique_ptr<KPISerializer> serializer;
    Sink() {
        const char* base = getenv("TMPDIR");
        std::string tmpl = std::string(base ? base : "/tmp") + "/kpi_bench.XXXXXX";
        dir = mkdtemp(&tmpl[0]) ? tmpl : ".";
        serializer = std::make_unique<KPISerializer>(dir, nullptr);
        serializer->Initialize(4194304, 1);
    }
    ~Sink() {
        serializer->Finalize();
        serializer.reset();
        std::string cmd = "rm -rf '" + dir + "'";
        if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", dir.c_str());
    }
};

KPISerializer& sink() {
    static Sink s;
    return *s.serializer;
}

std::unique_ptr<KPI> create(const KPICfg& cfg) {
    std::unique_ptr<KPI> kpi = KPI::Create(cfg, sink());
    if (!kpi) abort();
    return kpi;
}

KPICfg numeric(KPISubType sub, uint32_t nofSamples) {
    KPICfg cfg;
    cfg.set_id(1);
    cfg.set_type(KPI_NUMERIC);
    cfg.set_subtype(sub);
    cfg.set_nof_samples(nofSamples);
    return cfg;
}

// Evenly spaced bounds (fixed-width bins) over the whole value range, or
// random ascending ones, which the histogram cannot index directly.
KPICfg histogram(uint32_t bounds, bool even) {
    KPICfg cfg = numeric(HISTOGRAM, 0xFFFFFFFFu);
    const uint64_t step = (uint64_t{1} << 32) / bounds;
    std::vector<uint32_t> b(bounds);
    std::mt19937 rng(2);
    for (uint32_t i = 0; i < bounds; ++i) b[i] = even ? static_cast<uint32_t>(i * step) : rng();
    std::sort(b.begin(), b.end());
    for (uint32_t x : b) cfg.mutable_h_cfg()->add_bucket_bounds(x);
    cfg.mutable_h_cfg()->set_overflow_en(true);
    cfg.mutable_h_cfg()->set_underflow_en(true);
    return cfg;
}

void BM_Floor(benchmark::State& state) {
    const uint32_t* v = values().data();
    uint64_t acc = 0;
    size_t i = 0;
    for (auto _ : state) {
        Clock::time_point now = Clock::now();
        benchmark::DoNotOptimize(now);
        acc += v[i++ & kValueMask];
        benchmark::DoNotOptimize(acc);
    }
}

// The collector's per-sample calls: GetType, then AddSample through the base.
void runSamples(benchmark::State& state, KPI& kpi) {
    const uint32_t* v = values().data();
    size_t i = 0;
    for (auto _ : state) {
        if (kpi.GetType() == KPI_NUMERIC) kpi.AddSample(v[i++ & kValueMask]);
        benchmark::ClobberMemory();
    }
}

void BM_Counter(benchmark::State& state) {
    auto kpi = create(numeric(COUNTER, 0xFFFFFFFFu));
    runSamples(state, *kpi);
}

// The clock seam: the caller's reading instead of the built-in one.
void BM_CounterAddSampleAt(benchmark::State& state) {
    auto kpi = create(numeric(COUNTER, 0xFFFFFFFFu));
    const uint32_t* v = values().data();
    size_t i = 0;
    for (auto _ : state) {
        kpi->AddSampleAt(Clock::now(), v[i++ & kValueMask]);
        benchmark::ClobberMemory();
    }
}

void BM_Gauge(benchmark::State& state) {
    KPICfg cfg = numeric(GAUGE, 0xFFFFFFFFu);
    cfg.mutable_g_cfg()->set_min(true);
    cfg.mutable_g_cfg()->set_max(true);
    cfg.mutable_g_cfg()->set_mean(true);
    auto kpi = create(cfg);
    runSamples(state, *kpi);
}

void BM_Histogram(benchmark::State& state) {
    auto kpi = create(histogram(static_cast<uint32_t>(state.range(0)), true));
    runSamples(state, *kpi);
}

void BM_HistogramUneven(benchmark::State& state) {
    auto kpi = create(histogram(static_cast<uint32_t>(state.range(0)), false));
    runSamples(state, *kpi);
}

// Every sample after the first closes a window: serialize, hand to the
// writer, reset. Arg 1 logs the Serialize line (to stderr), arg 0 runs with
// INFO filtered out as a release build's log settings would.
void BM_CounterWindowClose(benchmark::State& state) {
    auto kpi = create(numeric(COUNTER, 1));
    const bool logging = state.range(0) != 0;
    __android_log_set_minimum_priority(logging ? ANDROID_LOG_INFO : ANDROID_LOG_WARN);
    uint32_t v = 0;
    for (auto _ : state) kpi->AddSample(v++);
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
}

// 64-byte buffers in windows of 1024; the close is amortized into the figure.
void BM_Blob64(benchmark::State& state) {
    KPICfg cfg;
    cfg.set_id(2);
    cfg.set_type(KPI_BLOB);
    cfg.set_nof_samples(1024);
    cfg.mutable_b_cfg()->set_singlesamplesizetresholdbytes(64);
    auto kpi = create(cfg);
    Blob& blob = static_cast<Blob&>(*kpi);
    unsigned char buf[64] = {1};
    for (auto _ : state) blob.LogBuf(buf, sizeof buf);
}

BENCHMARK(BM_Floor);
BENCHMARK(BM_Counter);
BENCHMARK(BM_CounterAddSampleAt);
BENCHMARK(BM_Gauge);
BENCHMARK(BM_Histogram)->Arg(16)->Arg(1024);
BENCHMARK(BM_HistogramUneven)->Arg(16)->Arg(1024);
// Bounded runs: every close writes a record to the scratch directory.
BENCHMARK(BM_CounterWindowClose)->Arg(0)->Arg(1)->Iterations(300000);
BENCHMARK(BM_Blob64)->Iterations(300000);

// Console output as usual, then every result as a multiple of the floor.
// CPU time of the benchmark thread: the machine may be shared, and wall time
// would charge other processes' load to the sample path. With repetitions
// the median is used.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median) continue;
            const std::string name = run.run_name.str();
            auto it = std::find_if(results.begin(), results.end(),
                                   [&](const Result& r) { return r.name == name; });
            if (it == results.end()) {
                results.push_back({name, run.GetAdjustedCPUTime(), median});
            } else if (median || !it->median) {
                *it = {name, run.GetAdjustedCPUTime(), median};
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        double floor = 0;
        for (const Result& r : results) {
            if (r.name == "BM_Floor") floor = r.ns;
        }
        if (floor <= 0) return;
        printf("\n%-44s %10s %8s\n", "benchmark (CPU time)", "ns", "x floor");
        for (const Result& r : results) {
            printf("%-44s %10.1f %8.2f\n", r.name.c_str(), r.ns, r.ns / floor);
        }
    }

  private:
    struct Result {
        std::string name;
        double ns;
        bool median;
    };
    std::vector<Result> results;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
