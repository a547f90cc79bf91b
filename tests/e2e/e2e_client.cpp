// e2e_client: a zem_sdk client driven line by line on standard input, for the
// end-to-end tests. It registers through the C API over gRPC (to the socket
// given, or the fixed one), and reports what happens on standard output as
// "e2e: ..." lines, beside the library's own progress lines.
//
//   e2e_client [--socket PATH] [--cache DIR] [--retry-ms N] [--start-result N]
//
// Commands:
//   log N   logs N samples to each numeric KPI (10 counter, 11 gauge,
//           12 histogram) and a blob to KPI 13 for every fifth sample; sample
//           k of the process (counting from 0 across commands) has counter
//           value k % 5 and gauge/histogram value k * 7 % 37
//   quit    deregisters and exits
//   exit    exits without deregistering, the command stream still open
//
// Samples are logged under a mutex that the campaign-stop callback also
// takes, so no sample is logged while the library changes the campaign.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "collector/CollectorSeams.h"
#include "include/zem_sdk.h"
#include "transport/zemGRPCClient.h"

namespace {

std::mutex gLock;
bool gRunning = false;  // guarded by gLock
int gStartResult = 0;

void say(const std::string& line) {
    std::lock_guard<std::mutex> lock(gLock);
    printf("e2e: %s\n", line.c_str());
    fflush(stdout);
}

int32_t onStart(const uint8_t* payload, uint64_t length) {
    std::lock_guard<std::mutex> lock(gLock);
    gRunning = true;
    printf("e2e: start-callback len=%llu payload=%.*s\n", static_cast<unsigned long long>(length),
           static_cast<int>(length), reinterpret_cast<const char*>(payload));
    fflush(stdout);
    return gStartResult;
}

int32_t onStop() {
    std::lock_guard<std::mutex> lock(gLock);
    gRunning = false;
    printf("e2e: stop-callback\n");
    fflush(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string socket, cache = ".";
    long retryMs = 0;
    uint32_t version = 0x0102;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        if (opt == "--socket") {
            socket = argv[i + 1];
        } else if (opt == "--cache") {
            cache = argv[i + 1];
        } else if (opt == "--retry-ms") {
            retryMs = atol(argv[i + 1]);
        } else if (opt == "--start-result") {
            gStartResult = atoi(argv[i + 1]);
        } else if (opt == "--version") {
            version = static_cast<uint32_t>(strtoul(argv[i + 1], nullptr, 0));
        } else {
            fprintf(stderr, "e2e_client: unknown option %s\n", opt.c_str());
            return 2;
        }
    }
    if (!socket.empty()) {
        const std::string target = "unix:" + socket;
        zem::internal::setTransportFactory(
                [target](uint32_t) -> std::shared_ptr<zemTransportClient> {
                    return std::make_shared<zemGRPCClient>(target);
                });
    }
    if (retryMs > 0) zem::internal::setRetryDelay(std::chrono::milliseconds(retryMs));

    zem_cfg_s cfg{};
    cfg.name = "e2e";
    cfg.version = version;
    cfg.cache_dir = cache.c_str();
    cfg.campaign_start_cb = onStart;
    cfg.campaign_stop_cb = onStop;
    cfg.transport = ZEM_TRANSPORT_GRPC;
    zem_handle h = zem_register(&cfg);
    if (h == nullptr) return 1;

    uint64_t k = 0;
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line.compare(0, 4, "log ") == 0) {
            const long n = atol(line.c_str() + 4);
            long rejected = 0, done = 0;
            {
                std::lock_guard<std::mutex> lock(gLock);
                for (; done < n && gRunning; ++done, ++k) {
                    rejected += zem_log(h, 10, static_cast<uint32_t>(k % 5)) != 0;
                    rejected += zem_log(h, 11, static_cast<uint32_t>(k * 7 % 37)) != 0;
                    rejected += zem_log(h, 12, static_cast<uint32_t>(k * 7 % 37)) != 0;
                    if (k % 5 == 0) {
                        const std::string blob = "blob-" + std::to_string(k);
                        rejected +=
                                zem_log_blob(h, 13, reinterpret_cast<const uint8_t*>(blob.data()),
                                             static_cast<uint32_t>(blob.size())) != 0;
                    }
                }
            }
            say("logged " + std::to_string(done) + " rejected " + std::to_string(rejected) +
                " next " + std::to_string(k));
        } else if (line == "quit") {
            break;
        } else if (line == "exit") {
            say("exiting");
            return 0;
        } else {
            say("unknown command " + line);
        }
    }
    const int32_t rc = zem_deregister(h);
    say("deregistered " + std::to_string(rc));
    return 0;
}
