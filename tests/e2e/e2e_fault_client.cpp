// e2e_fault_client: a zem_sdk process for the fault-injection ledger and the
// soak. It registers one collector through the C API and logs from one or
// two threads while a campaign runs, each thread to its own counter KPI
// (thread t to id t + 1) with values 0, 1, 2, ... in order, so that with
// one-sample windows every delivered window names exactly one logged sample.
//
//   e2e_fault_client --transport grpc|binder [--socket PATH] --cache DIR
//                    [--threads 1|2] [--rate N] [--ledger FILE] [--retry-ms N]
//                    [--blob-bytes N]
//
// --rate N   samples per second per thread (0: as fast as possible)
// --blob-bytes N  log blobs of N bytes (zem_log_blob) instead of numbers
// --ledger   a file whose first 16 bytes hold, per thread, the number of
//            samples logged so far; written through a shared mapping, so
//            it stays right when the process is killed. A new run on the
//            same file continues the numbering.
//
// Standard output: "fault: start N0 N1" when a campaign starts and "fault:
// stop N0 N1" when one stops (the samples logged so far), "fault: end
// RUNNING N0 N1" after `quit` (deregister and exit) on standard input.
// The library's log goes to standard error.
//
// The threads log without any lock of their own, also while the daemon
// starts, merges or stops a campaign: a sample is counted when zem_log
// accepts it (0), and one refused (-1) is logged again with the same value.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "collector/CollectorSeams.h"
#include "include/zem_sdk.h"
#include "transport/zemGRPCClient.h"

namespace {

constexpr int kMaxThreads = 2;

std::atomic<bool> gRunning{false};
int gThreads = 1;
std::atomic<uint64_t>* gLogged = nullptr;  // one counter per thread
std::atomic<bool> gQuit{false};

void report(const char* what) {
    printf("fault: %s %llu %llu\n", what, static_cast<unsigned long long>(gLogged[0].load()),
           static_cast<unsigned long long>(gLogged[1].load()));
    fflush(stdout);
}

int32_t onStart(const uint8_t*, uint64_t) {
    gRunning.store(true);
    report("start");
    return 0;
}

int32_t onStop() {
    gRunning.store(false);
    report("stop");
    return 0;
}

size_t gBlobBytes = 0;  // nonzero: blob samples of this size

void logLoop(zem_handle h, int t, long rate) {
    const uint32_t id = static_cast<uint32_t>(t + 1);
    const std::vector<uint8_t> blob(gBlobBytes, static_cast<uint8_t>('a' + t));
    // With a rate, samples follow a schedule counted from the campaign's
    // start, so that the rate holds whatever a sleep really takes; a thread
    // behind schedule catches up in batches of at most 256.
    using Clock = std::chrono::steady_clock;
    Clock::time_point since{};
    uint64_t sinceCount = 0;
    while (!gQuit.load(std::memory_order_relaxed)) {
        if (!gRunning.load(std::memory_order_relaxed)) {
            since = Clock::time_point{};
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            continue;
        }
        uint64_t batch = 256;
        if (rate > 0) {
            const Clock::time_point now = Clock::now();
            if (since == Clock::time_point{}) {
                since = now;
                sinceCount = gLogged[t].load(std::memory_order_relaxed);
            }
            const auto elapsed =
                    std::chrono::duration_cast<std::chrono::microseconds>(now - since).count();
            const uint64_t due =
                    sinceCount +
                    static_cast<uint64_t>(elapsed) * static_cast<uint64_t>(rate) / 1000000 + 1;
            const uint64_t done = gLogged[t].load(std::memory_order_relaxed);
            batch = due > done ? std::min<uint64_t>(due - done, 256) : 0;
        }
        for (uint64_t i = 0; i < batch; ++i) {
            const uint64_t k = gLogged[t].load(std::memory_order_relaxed);
            const int32_t rc = gBlobBytes > 0 ? zem_log_blob(h, id, blob.data(),
                                                             static_cast<uint32_t>(blob.size()))
                                              : zem_log(h, id, static_cast<uint32_t>(k));
            if (rc == 0) gLogged[t].store(k + 1, std::memory_order_relaxed);
        }
        if (rate > 0)
            std::this_thread::sleep_for(std::chrono::microseconds(rate > 1000 ? 500 : 1000));
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string transport = "grpc", socket, cache = ".", ledger;
    long rate = 200, retryMs = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        const char* v = argv[i + 1];
        if (opt == "--transport") {
            transport = v;
        } else if (opt == "--socket") {
            socket = v;
        } else if (opt == "--cache") {
            cache = v;
        } else if (opt == "--threads") {
            gThreads = atoi(v);
        } else if (opt == "--rate") {
            rate = atol(v);
        } else if (opt == "--ledger") {
            ledger = v;
        } else if (opt == "--retry-ms") {
            retryMs = atol(v);
        } else if (opt == "--blob-bytes") {
            gBlobBytes = static_cast<size_t>(atol(v));
        } else {
            fprintf(stderr, "e2e_fault_client: unknown option %s\n", opt.c_str());
            return 2;
        }
    }
    if (gThreads < 1 || gThreads > kMaxThreads || (transport != "grpc" && transport != "binder")) {
        fprintf(stderr, "e2e_fault_client: bad --threads or --transport\n");
        return 2;
    }
    void* counters = nullptr;
    const size_t size = sizeof(std::atomic<uint64_t>) * kMaxThreads;
    if (!ledger.empty()) {
        const int fd = open(ledger.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) return 1;
        counters = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (counters == MAP_FAILED) return 1;
    } else {
        counters = calloc(1, size);
    }
    // Not value-initialised: a ledger file of an earlier run keeps its counts.
    gLogged = static_cast<std::atomic<uint64_t>*>(counters);

    if (!socket.empty()) {
        const std::string target = "unix:" + socket;
        zem::internal::setTransportFactory(
                [target](uint32_t) -> std::shared_ptr<zemTransportClient> {
                    return std::make_shared<zemGRPCClient>(target);
                });
    }
    if (retryMs > 0) zem::internal::setRetryDelay(std::chrono::milliseconds(retryMs));

    zem_cfg_s cfg{};
    cfg.name = "fault";
    cfg.version = 0x0100;
    cfg.cache_dir = cache.c_str();
    cfg.campaign_start_cb = onStart;
    cfg.campaign_stop_cb = onStop;
    cfg.transport = transport == "binder" ? ZEM_TRANSPORT_BINDER : ZEM_TRANSPORT_GRPC;
    zem_handle h = zem_register(&cfg);
    if (h == nullptr) return 1;

    std::vector<std::thread> threads;
    for (int t = 0; t < gThreads; ++t) threads.emplace_back(logLoop, h, t, rate);
    std::string line;
    while (std::getline(std::cin, line) && line != "quit") {
    }
    gQuit.store(true);
    for (std::thread& t : threads) t.join();
    const bool running = gRunning.load();
    const int32_t rc = zem_deregister(h);
    printf("fault: deregistered %d\n", rc);
    printf("fault: end %d %llu %llu\n", running ? 1 : 0,
           static_cast<unsigned long long>(gLogged[0].load()),
           static_cast<unsigned long long>(gLogged[1].load()));
    fflush(stdout);
    return 0;
}
