// An in-process transport client for collector tests: records every call,
// answers registration with a scripted sequence of results, and takes
// delivered files the way a successful transport does (reads, then removes).
#pragma once

#include <chrono>
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

    // Results of successive registerClient calls; 0 once the list runs out.
    explicit FakeTransport(std::deque<int> registerResults = {}, std::string token = "tok-1")
        : results(std::move(registerResults)), tokenToHand(std::move(token)) {}

    int32_t registerClient(const std::string& name, uint32_t version,
                           zem_collector* collector) override {
        std::lock_guard<std::mutex> lock(mutex);
        attempts.push_back(std::chrono::steady_clock::now());
        lastName = name;
        lastVersion = version;
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
        return attempts.size();
    }
    std::vector<Sent> sentFiles() {
        std::lock_guard<std::mutex> lock(mutex);
        return sent;
    }
    void failSends(int rc) {
        std::lock_guard<std::mutex> lock(mutex);
        sendResult = rc;
    }

    std::mutex mutex;
    std::deque<int> results;
    std::string tokenToHand;
    std::vector<std::chrono::steady_clock::time_point> attempts;
    std::string lastName;
    uint32_t lastVersion = 0;
    zem_collector* registered = nullptr;
    std::vector<Sent> sent;
    std::vector<std::string> deregistered;
    int sendResult = 0;
    int forgotten = 0;
};

}  // namespace zem_test
