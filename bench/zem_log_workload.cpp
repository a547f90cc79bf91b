// A fixed workload for instruction counting under callgrind:
//
//   zem_log_workload KIND SAMPLES
//
// KIND is counter, gauge, histogram, blob or clock (the clock read alone).
// The scripts run it at two sample counts and divide the difference of the
// totals by the difference of the counts, which cancels start-up and
// campaign set-up.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ZemBenchClient.h"

using zem_bench::Client;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: zem_log_workload counter|gauge|histogram|blob|clock N\n");
        return 2;
    }
    const char* kind = argv[1];
    const long n = std::atol(argv[2]);
    volatile uint64_t sink = 0;
    if (std::strcmp(kind, "clock") == 0) {
        uint32_t v = 0;
        for (long i = 0; i < n; ++i) {
            v = v + 37 < 10500 ? v + 37 : 0;
            sink = sink + v +
                   static_cast<uint64_t>(
                           std::chrono::steady_clock::now().time_since_epoch().count());
        }
        return 0;
    }
    Client client([](LTCCampaignDef& d) {
        // A full table: 1020 counters and one KPI of each other kind.
        zem_bench::addCounters(d, 1020);
        zem_bench::addGauge(d, 100000);
        zem_bench::addHistogram(d, 100001, 1024);
        zem_bench::addBlob(d, 100002, zem_bench::kHugeWindow);
    });
    uint8_t buf[64] = {};
    // Each kind has its own loop so the workload adds no branching of its
    // own; values step through every histogram bin.
    zem_handle h = client.handle;
    uint32_t v = 0;
    auto next = [&v] { return v = v + 37 < 10500 ? v + 37 : 0; };
    if (std::strcmp(kind, "counter") == 0) {
        for (long i = 0; i < n; ++i)
            sink = sink + static_cast<uint64_t>(zem_log(h, 512 * 7 + 3, next()));
    } else if (std::strcmp(kind, "gauge") == 0) {
        for (long i = 0; i < n; ++i)
            sink = sink + static_cast<uint64_t>(zem_log(h, 100000, next()));
    } else if (std::strcmp(kind, "histogram") == 0) {
        for (long i = 0; i < n; ++i)
            sink = sink + static_cast<uint64_t>(zem_log(h, 100001, next()));
    } else {
        for (long i = 0; i < n; ++i)
            sink = sink + static_cast<uint64_t>(zem_log_blob(h, 100002, buf, 64));
    }
    return 0;
}
