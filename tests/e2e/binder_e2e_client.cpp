// binder_e2e_client: a zem_sdk process with several collectors registered
// over binder through the C API, driven line by line on standard input, for
// the binder end-to-end tests. Reports on standard output as "e2e: ..."
// lines; the library's log goes to standard error.
//
//   binder_e2e_client [--collectors N] [--cache DIR] [--retry-ms N]
//
// Commands:
//   log N   logs N samples to KPI 10 of every collector (sample k of the
//           process has value k % 5), only while every collector's campaign
//           runs; reports how many were logged and refused
//   quit    deregisters every collector and exits
//
// Samples are logged under a lock that the campaign callbacks also take, so
// no sample is logged while the library changes a campaign.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "collector/CollectorSeams.h"
#include "include/zem_sdk.h"

namespace {

std::mutex gLock;
int gRunning = 0;  // collectors whose campaign runs; guarded by gLock

void say(const std::string& line) {
    printf("e2e: %s\n", line.c_str());
    fflush(stdout);
}

int32_t onStart(const uint8_t* /*payload*/, uint64_t /*length*/) {
    std::lock_guard<std::mutex> lock(gLock);
    ++gRunning;
    say("start-callback");
    return 0;
}

int32_t onStop() {
    std::lock_guard<std::mutex> lock(gLock);
    --gRunning;
    say("stop-callback");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string cache = ".";
    int collectors = 2;
    long retryMs = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        if (opt == "--cache") {
            cache = argv[i + 1];
        } else if (opt == "--collectors") {
            collectors = atoi(argv[i + 1]);
        } else if (opt == "--retry-ms") {
            retryMs = atol(argv[i + 1]);
        } else {
            fprintf(stderr, "binder_e2e_client: unknown option %s\n", opt.c_str());
            return 2;
        }
    }
    if (retryMs > 0) zem::internal::setRetryDelay(std::chrono::milliseconds(retryMs));

    std::vector<std::string> names, dirs;
    std::vector<zem_handle> handles;
    for (int c = 0; c < collectors; ++c) {
        names.push_back("bind-" + std::to_string(c));
        dirs.push_back(cache + "/" + names.back());
        mkdir(dirs.back().c_str(), 0755);
    }
    for (int c = 0; c < collectors; ++c) {
        zem_cfg_s cfg{};
        cfg.name = names[c].c_str();
        cfg.version = 0x0102;
        cfg.cache_dir = dirs[c].c_str();
        cfg.campaign_start_cb = onStart;
        cfg.campaign_stop_cb = onStop;
        cfg.transport = ZEM_TRANSPORT_BINDER;
        handles.push_back(zem_register(&cfg));
        if (handles.back() == nullptr) return 1;
    }

    uint64_t k = 0;
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line.compare(0, 4, "log ") == 0) {
            const long n = atol(line.c_str() + 4);
            long done = 0, rejected = 0;
            {
                std::lock_guard<std::mutex> lock(gLock);
                for (; done < n && gRunning == collectors; ++done, ++k) {
                    for (zem_handle h : handles) {
                        rejected += zem_log(h, 10, static_cast<uint32_t>(k % 5)) != 0;
                    }
                }
            }
            say("logged " + std::to_string(done) + " rejected " + std::to_string(rejected));
        } else if (line == "quit") {
            break;
        } else {
            say("unknown command " + line);
        }
    }
    std::string results;
    for (zem_handle h : handles) results += " " + std::to_string(zem_deregister(h));
    say("deregistered" + results);
    return 0;
}
