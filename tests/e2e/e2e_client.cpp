// e2e_client: a zem_sdk process for the end-to-end tests, the tools tests
// and the harness scripts. It registers its collectors through the C API and
// reports on standard output as "e2e: ..." lines; the library's own log goes
// to standard error, its progress lines to standard output.
//
//   e2e_client [--transport grpc|binder] [--socket PATH] [--cache DIR]
//              [--name NAME] [--collectors N] [--retry-ms N] [--start-result N]
//              [--threads 1|2] [--rate N] [--blob-bytes N] [--ledger FILE]
//
// --socket      the gRPC server's Unix socket (default: the library's fixed one)
// --collectors  N collectors NAME-0 .. NAME-(N-1), each with the cache folder
//               DIR/NAME-i; without it one collector NAME (default "e2e") in DIR
// --start-result  what the campaign-start callback answers
//
// Two workloads. Without --threads, commands on standard input:
//   log N   logs N samples to each numeric KPI of every collector (10
//           counter, 11 gauge, 12 histogram) and a blob to KPI 13 for every
//           fifth sample, only while every collector's campaign runs; sample
//           k of the process (counting from 0 across commands) has counter
//           value k % 5 and gauge/histogram value k * 7 % 37. Samples are
//           logged under a lock that the campaign callbacks also take, so no
//           sample is logged while the library changes a campaign.
//   quit    deregisters every collector and exits
//   exit    exits without deregistering, the command stream still open
//
// With --threads T, T threads log to the first collector while its campaign
// runs, thread t to its own counter KPI t + 1 with values 0, 1, 2, ... in
// order (or blobs of --blob-bytes bytes), at --rate samples per second each
// (0: as fast as possible), with no lock of their own. A sample counts when
// zem_log accepts it; a refused one is logged again with the same value.
// Standard input is read until `quit`.
//
// --ledger FILE  a file whose first 16 bytes hold, per thread, the samples
//                logged so far, written through a shared mapping so that they
//                stay right when the process is killed; a new run on the same
//                file continues the numbering.
//
// Lines: "e2e: start-callback N0 N1 len=L payload=P" (the first 64 bytes),
// "e2e: stop-callback N0 N1", "e2e: logged N rejected R next K",
// "e2e: deregistered R...", "e2e: end RUNNING N0 N1" (after quit), where N0 N1
// are the samples logged so far per thread and RUNNING is 1 when the first
// collector's campaign still ran.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "collector/CollectorSeams.h"
#include "include/zem_sdk.h"
#include "transport/zemGRPCClient.h"

namespace {

constexpr int kMaxCollectors = 4;
constexpr int kMaxThreads = 2;

std::mutex gLock;
std::atomic<bool> gRunning[kMaxCollectors];
int gCollectors = 1;
int32_t gStartResult = 0;
std::atomic<uint64_t>* gLogged = nullptr;  // one counter per thread
std::atomic<bool> gQuit{false};

void say(const std::string& line) {
    printf("e2e: %s\n", line.c_str());
    fflush(stdout);
}

std::string counts() {
    return std::to_string(gLogged[0].load()) + " " + std::to_string(gLogged[1].load());
}

bool allRunning() {
    for (int c = 0; c < gCollectors; ++c) {
        if (!gRunning[c].load(std::memory_order_relaxed)) return false;
    }
    return true;
}

// One pair of callbacks per collector: the C API's callbacks carry no
// collector, so each collector gets its own instantiation.
template <int C>
int32_t onStart(const uint8_t* payload, uint64_t length) {
    std::lock_guard<std::mutex> lock(gLock);
    gRunning[C].store(true);
    say("start-callback " + counts() + " len=" + std::to_string(length) + " payload=" +
        std::string(reinterpret_cast<const char*>(payload), std::min<uint64_t>(length, 64)));
    return gStartResult;
}

template <int C>
int32_t onStop() {
    std::lock_guard<std::mutex> lock(gLock);
    gRunning[C].store(false);
    say("stop-callback " + counts());
    return 0;
}

using StartCb = int32_t (*)(const uint8_t*, uint64_t);
using StopCb = int32_t (*)();
const StartCb kStarts[kMaxCollectors] = {onStart<0>, onStart<1>, onStart<2>, onStart<3>};
const StopCb kStops[kMaxCollectors] = {onStop<0>, onStop<1>, onStop<2>, onStop<3>};

// The command workload's `log n`; returns the report line.
std::string logCommand(const std::vector<zem_handle>& handles, long n) {
    std::lock_guard<std::mutex> lock(gLock);
    long rejected = 0, done = 0;
    uint64_t k = gLogged[0].load();
    for (; done < n && allRunning(); ++done, ++k) {
        for (zem_handle h : handles) {
            rejected += zem_log(h, 10, static_cast<uint32_t>(k % 5)) != 0;
            rejected += zem_log(h, 11, static_cast<uint32_t>(k * 7 % 37)) != 0;
            rejected += zem_log(h, 12, static_cast<uint32_t>(k * 7 % 37)) != 0;
            if (k % 5 == 0) {
                const std::string blob = "blob-" + std::to_string(k);
                rejected += zem_log_blob(h, 13, reinterpret_cast<const uint8_t*>(blob.data()),
                                         static_cast<uint32_t>(blob.size())) != 0;
            }
        }
    }
    gLogged[0].store(k);
    return "logged " + std::to_string(done) + " rejected " + std::to_string(rejected) + " next " +
           std::to_string(k);
}

void logLoop(zem_handle h, int t, long rate, size_t blobBytes) {
    const uint32_t id = static_cast<uint32_t>(t + 1);
    const std::vector<uint8_t> blob(blobBytes, static_cast<uint8_t>('a' + t));
    // With a rate, samples follow a schedule counted from the campaign's
    // start, so that the rate holds whatever a sleep really takes; a thread
    // behind schedule catches up in batches of at most 256.
    using Clock = std::chrono::steady_clock;
    Clock::time_point since{};
    uint64_t sinceCount = 0;
    while (!gQuit.load(std::memory_order_relaxed)) {
        if (!gRunning[0].load(std::memory_order_relaxed)) {
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
            const int32_t rc = blobBytes > 0 ? zem_log_blob(h, id, blob.data(),
                                                            static_cast<uint32_t>(blob.size()))
                                             : zem_log(h, id, static_cast<uint32_t>(k));
            if (rc == 0) gLogged[t].store(k + 1, std::memory_order_relaxed);
        }
        if (rate > 0)
            std::this_thread::sleep_for(std::chrono::microseconds(rate > 1000 ? 500 : 1000));
    }
}

// Per-thread sample counters: in `ledger` when named (kept across runs and
// kills), else in memory.
std::atomic<uint64_t>* counters(const std::string& ledger) {
    const size_t size = sizeof(std::atomic<uint64_t>) * kMaxThreads;
    if (ledger.empty()) return static_cast<std::atomic<uint64_t>*>(calloc(1, size));
    const int fd = open(ledger.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) return nullptr;
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    // Not value-initialised: a ledger file of an earlier run keeps its counts.
    return p == MAP_FAILED ? nullptr : static_cast<std::atomic<uint64_t>*>(p);
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> opt = {
            {"--transport", "grpc"}, {"--socket", ""},      {"--cache", "."},
            {"--name", "e2e"},       {"--collectors", "0"}, {"--retry-ms", "0"},
            {"--start-result", "0"}, {"--threads", "0"},    {"--rate", "200"},
            {"--blob-bytes", "0"},   {"--ledger", ""}};
    for (int i = 1; i + 1 < argc; i += 2) {
        if (opt.count(argv[i]) == 0) {
            fprintf(stderr, "e2e_client: unknown option %s\n", argv[i]);
            return 2;
        }
        opt[argv[i]] = argv[i + 1];
    }
    const std::string transport = opt["--transport"], socket = opt["--socket"],
                      cache = opt["--cache"], name = opt["--name"], ledger = opt["--ledger"];
    const long rate = atol(opt["--rate"].c_str()), retryMs = atol(opt["--retry-ms"].c_str());
    const int threads = atoi(opt["--threads"].c_str());
    const int collectors = atoi(opt["--collectors"].c_str());
    const size_t blobBytes = static_cast<size_t>(atol(opt["--blob-bytes"].c_str()));
    gStartResult = atoi(opt["--start-result"].c_str());
    gCollectors = std::max(collectors, 1);
    if (threads < 0 || threads > kMaxThreads || gCollectors > kMaxCollectors ||
        (transport != "grpc" && transport != "binder")) {
        fprintf(stderr, "e2e_client: bad --threads, --collectors or --transport\n");
        return 2;
    }
    gLogged = counters(ledger);
    if (gLogged == nullptr) return 1;
    if (!socket.empty() && transport == "grpc") {
        const std::string target = "unix:" + socket;
        zem::internal::setTransportFactory(
                [target](uint32_t) -> std::shared_ptr<zemTransportClient> {
                    return std::make_shared<zemGRPCClient>(target);
                });
    }
    if (retryMs > 0) zem::internal::setRetryDelay(std::chrono::milliseconds(retryMs));

    std::vector<std::string> names, dirs;
    for (int c = 0; c < gCollectors; ++c) {
        names.push_back(collectors > 0 ? name + "-" + std::to_string(c) : name);
        dirs.push_back(collectors > 0 ? cache + "/" + names.back() : cache);
        if (collectors > 0) mkdir(dirs.back().c_str(), 0755);
    }
    std::vector<zem_handle> handles;
    for (int c = 0; c < gCollectors; ++c) {
        zem_cfg_s cfg{};
        cfg.name = names[c].c_str();
        cfg.version = 0x0102;
        cfg.cache_dir = dirs[c].c_str();
        cfg.campaign_start_cb = kStarts[c];
        cfg.campaign_stop_cb = kStops[c];
        cfg.transport = transport == "binder" ? ZEM_TRANSPORT_BINDER : ZEM_TRANSPORT_GRPC;
        handles.push_back(zem_register(&cfg));
        if (handles.back() == nullptr) return 1;
    }

    std::vector<std::thread> loggers;
    for (int t = 0; t < threads; ++t) loggers.emplace_back(logLoop, handles[0], t, rate, blobBytes);
    std::string line;
    while (std::getline(std::cin, line) && line != "quit") {
        if (line.compare(0, 4, "log ") == 0) {
            say(logCommand(handles, atol(line.c_str() + 4)));
        } else if (line == "exit") {
            say("exiting");
            return 0;
        } else {
            say("unknown command " + line);
        }
    }
    gQuit.store(true);
    for (std::thread& t : loggers) t.join();
    const bool running = gRunning[0].load();
    std::string results;
    for (zem_handle h : handles) results += " " + std::to_string(zem_deregister(h));
    say("deregistered" + results);
    say(std::string("end ") + (running ? "1 " : "0 ") + counts());
    return 0;
}
