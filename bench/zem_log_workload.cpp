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
        for (long i = 0; i < n; ++i) {
            sink = sink + static_cast<uint64_t>(
                                  std::chrono::steady_clock::now().time_since_epoch().count());
        }
        return 0;
    }
    Client client([](LTCCampaignDef& d) {
        zem_bench::addCounters(d, 1024);
        zem_bench::addGauge(d, 100000);
        zem_bench::addHistogram(d, 100001, 1024);
        zem_bench::addBlob(d, 100002, zem_bench::kHugeWindow);
    });
    uint8_t buf[64] = {};
    for (long i = 0; i < n; ++i) {
        const uint32_t v = static_cast<uint32_t>((i * 2654435761u) % 10500);
        if (std::strcmp(kind, "counter") == 0) {
            sink = sink + static_cast<uint64_t>(zem_log(client.handle, 512 * 7 + 3, v));
        } else if (std::strcmp(kind, "gauge") == 0) {
            sink = sink + static_cast<uint64_t>(zem_log(client.handle, 100000, v));
        } else if (std::strcmp(kind, "histogram") == 0) {
            sink = sink + static_cast<uint64_t>(zem_log(client.handle, 100001, v));
        } else {
            sink = sink + static_cast<uint64_t>(zem_log_blob(client.handle, 100002, buf, 64));
        }
    }
    return 0;
}
