// Cost of KPISerializer::Write on the producer's thread and the writer
// thread's sustained throughput, each beside a baseline measured in the same
// run: the bare SerializeToString of the same record, and raw write(2) of the
// same bytes into a file in the same kind of directory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "collector/zem_collector.h"
#include "serializer/KPISerializer.h"

namespace {

olvan::KPIData counterRecord() {
    olvan::KPIData data;
    olvan::Counter* c = data.add_counters();
    olvan::MetaData* m = c->mutable_meta();
    m->set_id(1234);
    m->set_ts_start(98765432);
    m->set_ts_end(98765440);
    m->set_nof_samples(100);
    c->set_value(123456789);
    return data;
}

std::string makeDir() {
    char tmpl[] = "/tmp/zem_bench.XXXXXX";
    return mkdtemp(tmpl);
}

void removeDir(const std::string& dir) {
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) abort();
}

// Takes each finished file the way a transport does after a successful send.
class DiscardingCollector : public zem_collector {
  public:
    explicit DiscardingCollector(const char* dir) : zem_collector(cfg(dir)) {}
    int SendData(const std::string& filename) override {
        unlink(filename.c_str());
        return 0;
    }

  private:
    static zem_cfg_s cfg(const char* dir) {
        zem_cfg_s c{};
        c.name = "bench";
        c.cache_dir = dir;
        return c;
    }
};

void BM_Baseline_SerializeToString(benchmark::State& state) {
    olvan::KPIData rec = counterRecord();
    for (auto _ : state) {
        std::string out;
        rec.SerializeToString(&out);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_SerializeToString);

// Producer-side cost: serialize, queue, occasionally wake the writer.
void BM_Write(benchmark::State& state) {
    static KPISerializer* ser = nullptr;
    static DiscardingCollector* collector = nullptr;
    static std::string dir;
    if (state.thread_index() == 0) {
        dir = makeDir();
        collector = new DiscardingCollector(dir.c_str());
        ser = new KPISerializer(dir, collector);
        ser->Initialize(4194304, 1);
    }
    olvan::KPIData rec = counterRecord();
    for (auto _ : state) ser->Write(rec);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        ser->Finalize();
        delete ser;
        delete collector;
        removeDir(dir);
    }
}
BENCHMARK(BM_Write)->Threads(1)->Threads(2)->UseRealTime();

// Writer throughput: records queued up front, timed from Initialize until
// the writer has put every one of them in a file.
void BM_WriterThroughput(benchmark::State& state) {
    const int64_t records = state.range(0);
    olvan::KPIData rec = counterRecord();
    for (auto _ : state) {
        state.PauseTiming();
        std::string dir = makeDir();
        DiscardingCollector collector(dir.c_str());
        auto* ser = new KPISerializer(dir, &collector);
        for (int64_t i = 0; i < records; ++i) ser->Write(rec);
        state.ResumeTiming();
        ser->Initialize(4194304, 1);
        ser->Finalize();
        state.PauseTiming();
        delete ser;
        removeDir(dir);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * records);
}
BENCHMARK(BM_WriterThroughput)->Arg(200000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Floor for the writer: one write(2) per record of the same bytes, rolling
// over to a new file at the same size threshold.
void BM_Baseline_RawWrite(benchmark::State& state) {
    const int64_t records = state.range(0);
    const std::string bytes = counterRecord().SerializeAsString();
    for (auto _ : state) {
        state.PauseTiming();
        std::string dir = makeDir();
        state.ResumeTiming();
        int fileNo = 0;
        std::string path = dir + "/f" + std::to_string(fileNo);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        int64_t size = 0;
        for (int64_t i = 0; i < records; ++i) {
            if (write(fd, bytes.data(), bytes.size()) < 0) abort();
            size += static_cast<int64_t>(bytes.size());
            if (size > 4194304) {
                close(fd);
                unlink(path.c_str());
                path = dir + "/f" + std::to_string(++fileNo);
                fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
                size = 0;
            }
        }
        close(fd);
        state.PauseTiming();
        removeDir(dir);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * records);
}
BENCHMARK(BM_Baseline_RawWrite)->Arg(200000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
