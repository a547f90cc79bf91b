// An in-process transport client for collector tests: records every call,
// answers registration with a scripted sequence of results, and takes
// delivered files the way a successful transport does (reads, then removes).
// With `hold` set, registration waits until release(), like a binder call
// that cannot be cancelled.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "collector/zem_collector.h"
#include "transport/zemTransportClient.h"

namespace zem_test {

class FakeTransport : public zemTransportClient {
  public:
    struct Sent {
        std::string filename;
        std::string token;
        std::string bytes;
    };

    int32_t registerClient(const std::string& name, uint32_t version,
                           zem_collector* collector) override {
        std::unique_lock<std::mutex> lock(mutex);
        ++attempts;
        lastName = name;
        lastVersion = version;
        cv.wait(lock, [this] { return !hold; });
        int rc = 0;
        if (!results.empty()) {
            rc = results.front();
            results.pop_front();
        }
        if (rc == 0) {
            collector->setToken(tokenToHand);
            registered = collector;
        }
        return rc;
    }

    int32_t sendData(const std::string& filename, const std::string& token) override {
        std::string bytes = readFile(filename);
        std::lock_guard<std::mutex> lock(mutex);
        if (sendResult == 0) remove(filename.c_str());
        sent.push_back({filename, token, std::move(bytes)});
        return sendResult;
    }

    int32_t deRegisterClient(const std::string& token) override {
        std::lock_guard<std::mutex> lock(mutex);
        deregistered.push_back(token);
        return 0;
    }

    void forgetCollector(zem_collector* c) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (registered == c) registered = nullptr;
        ++forgotten;
    }

    size_t attemptCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return attempts;
    }
    std::vector<Sent> sentFiles() {
        std::lock_guard<std::mutex> lock(mutex);
        return sent;
    }
    void failSends(int rc) {
        std::lock_guard<std::mutex> lock(mutex);
        sendResult = rc;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        hold = false;
        cv.notify_all();
    }

    std::mutex mutex;
    std::condition_variable cv;
    bool hold = false;
    std::deque<int> results;  // of successive registrations; 0 once they run out
    std::string tokenToHand = "tok-1";
    size_t attempts = 0;
    std::string lastName;
    uint32_t lastVersion = 0;
    zem_collector* registered = nullptr;
    std::vector<Sent> sent;
    std::vector<std::string> deregistered;
    int sendResult = 0;
    int forgotten = 0;
};

}  // namespace zem_test
