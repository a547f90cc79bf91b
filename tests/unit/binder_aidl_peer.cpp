// binder_aidl_peer: the other side of the binder transport's tests, built
// only from the platform code generator's classes (BnZEMManager,
// BpZEMCallback) on the host binder runtime, so that the hand-written manager
// proxy and callback stub are checked against an independent implementation
// of the same wire contract (the transport test's byte tables hold the
// hand-written manager stub and callback proxy to the layout these accept). It runs as its own
// process: the generated classes share their names with the hand-written ones.
//
//   binder_aidl_peer daemon SERVICE [CAMPAIGN_HEX]
//       Serves a scripted IZEMManager under SERVICE. Tokens are
//       "<name>-<n>". checkForPendingCampaign pushes CAMPAIGN_HEX (if given)
//       to the caller's callback as event 256. Commands on standard input,
//       one per line: "event TOKEN TYPE ID ARG HEX" calls onCampaignEvent;
//       any other line, or the end of input, exits.
//
// Every call made or received is printed as one line on standard output.
#include <BnZEMManager.h>
#include <IZEMCallback.h>
#include <IZEMManager.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <stdio.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

using android::sp;
using android::String16;
using android::binder::Status;

namespace {

std::mutex gOutMutex;

void say(const std::string& line) {
    std::lock_guard<std::mutex> lock(gOutMutex);
    fprintf(stdout, "%s\n", line.c_str());
    fflush(stdout);
}

std::string toHex(const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out += kDigits[b >> 4];
        out += kDigits[b & 15];
    }
    return out.empty() ? "-" : out;
}

std::vector<uint8_t> fromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    if (hex == "-") return out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

class ScriptedDaemon : public BnZEMManager {
  public:
    explicit ScriptedDaemon(std::vector<uint8_t> campaign) : campaign(std::move(campaign)) {}

    Status registerZEMClient(const std::string& name, const sp<IZEMCallback>& callback,
                             std::string* token) override {
        std::lock_guard<std::mutex> lock(mutex);
        *token = name + "-" + std::to_string(++next);
        callbacks[*token] = callback;
        say("register " + name + " " + *token);
        return Status::ok();
    }

    Status checkForPendingCampaign(const std::string& token) override {
        say("pending " + token);
        if (!campaign.empty()) push(token, 256, 7, 0, campaign);
        return Status::ok();
    }

    Status deregisterZEMClient(const std::string& token) override {
        say("deregister " + token);
        return Status::ok();
    }

    Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                    bool* result) override {
        say("send " + token + " " + std::to_string(data.size()) + " " + toHex(data));
        if (token.compare(0, 4, "fail") == 0) {
            return Status::fromServiceSpecificError(5, "refused");
        }
        *result = true;
        return Status::ok();
    }

    void push(const std::string& token, int32_t type, int64_t id, int32_t arg,
              const std::vector<uint8_t>& config) {
        sp<IZEMCallback> cb;
        {
            std::lock_guard<std::mutex> lock(mutex);
            auto it = callbacks.find(token);
            if (it == callbacks.end()) return;
            cb = it->second;
        }
        int32_t result = 12345;
        const Status status = cb->onCampaignEvent(type, id, config, arg, token, &result);
        say("event-result " + token + " " + std::to_string(type) + " " +
            std::to_string(status.exceptionCode()) + " " + std::to_string(result));
    }

  private:
    const std::vector<uint8_t> campaign;
    std::mutex mutex;
    int next = 0;
    std::map<std::string, sp<IZEMCallback>> callbacks;
};

int runDaemon(const std::string& service, const std::vector<uint8_t>& campaign) {
    sp<ScriptedDaemon> daemon = new ScriptedDaemon(campaign);
    const android::status_t added =
            android::defaultServiceManager()->addService(String16(service.c_str()), daemon);
    if (added != android::OK) {
        say("add-failed " + std::to_string(added));
        return 1;
    }
    android::ProcessState::self()->startThreadPool();
    say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string cmd, token, hex;
        int32_t type = 0, arg = 0;
        int64_t id = 0;
        in >> cmd >> token >> type >> id >> arg >> hex;
        if (cmd != "event") break;
        daemon->push(token, type, id, arg, fromHex(hex));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    int status = 2;
    if (args.size() >= 2 && args[0] == "daemon") {
        status = runDaemon(args[1], args.size() >= 3 ? fromHex(args[2]) : std::vector<uint8_t>());
    } else {
        fprintf(stderr, "usage: binder_aidl_peer daemon SERVICE [CAMPAIGN_HEX]\n");
    }
    // Binder pool threads may still run: leave without destroying the
    // generated classes' static descriptors under them.
    fflush(stdout);
    _exit(status);
}
