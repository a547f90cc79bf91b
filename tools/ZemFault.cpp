#include "tools/ZemFault.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "tools/ZemBinderService.h"

namespace zemfault {
namespace {

struct Settings {
    bool any = false;
    int registerStatus = 0;
    bool hangRegister = false;
    int sendStatus = 0;
    bool hangSend = false;
    long slowSendMs = 0;
    double dropStreams = 0;
    bool badCampaign = false;
    bool badCommand = false;
    bool badReply = false;
    bool badEvent = false;
    bool stopInRegister = false;
    bool stopInSend = false;
    std::string names;
};

Settings gSettings;
std::atomic<bool> gStoppedInRegister{false};
std::atomic<bool> gStoppedInSend{false};

[[noreturn]] void hangForever() {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

bool parseLong(const std::string& text, long* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    *out = strtol(text.c_str(), &end, 10);
    return *end == '\0';
}

}  // namespace

bool add(const std::string& option, std::string* error) {
    const size_t eq = option.find('=');
    const std::string name = option.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : option.substr(eq + 1);
    const bool hasValue = eq != std::string::npos;
    Settings& s = gSettings;
    long n = 0;
    bool ok = true;
    if (name == "register-status" || name == "send-status" || name == "slow-send") {
        ok = hasValue && parseLong(value, &n) && (name == "slow-send" ? n >= 0 : n != 0);
        if (ok && name == "register-status") s.registerStatus = static_cast<int>(n);
        if (ok && name == "send-status") s.sendStatus = static_cast<int>(n);
        if (ok && name == "slow-send") s.slowSendMs = n;
    } else if (name == "drop-streams") {
        char* end = nullptr;
        s.dropStreams = hasValue ? strtod(value.c_str(), &end) : -1;
        ok = hasValue && *end == '\0' && s.dropStreams >= 0 && s.dropStreams <= 1;
    } else if (!hasValue && name == "hang-register") {
        s.hangRegister = true;
    } else if (!hasValue && name == "hang-send") {
        s.hangSend = true;
    } else if (!hasValue && name == "bad-campaign") {
        s.badCampaign = true;
    } else if (!hasValue && name == "bad-command") {
        s.badCommand = true;
    } else if (!hasValue && name == "bad-reply") {
        s.badReply = true;
    } else if (!hasValue && name == "bad-event") {
        s.badEvent = true;
    } else if (!hasValue && name == "stop-in-register") {
        s.stopInRegister = true;
    } else if (!hasValue && name == "stop-in-send") {
        s.stopInSend = true;
    } else {
        ok = false;
    }
    if (!ok) {
        *error = "bad --fault '" + option + "' (see zemd --help)";
        return false;
    }
    s.any = true;
    s.names += (s.names.empty() ? "" : ",") + option;
    return true;
}

std::string describe() {
    return gSettings.names;
}

int beforeRegister() {
    if (gSettings.hangRegister) hangForever();
    return gSettings.registerStatus;
}

bool stopInRegisterNow() {
    return gSettings.stopInRegister && !gStoppedInRegister.exchange(true);
}

bool stopInSendNow() {
    return gSettings.stopInSend && !gStoppedInSend.exchange(true);
}

int beforeSend() {
    if (gSettings.hangSend) hangForever();
    if (gSettings.slowSendMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(gSettings.slowSendMs));
    }
    return gSettings.sendStatus;
}

bool dropStreamNow() {
    if (gSettings.dropStreams <= 0) return false;
    thread_local std::mt19937 rng(std::random_device{}());
    return std::uniform_real_distribution<double>(0, 1)(rng) < gSettings.dropStreams;
}

std::chrono::milliseconds streamPoll() {
    return gSettings.dropStreams > 0 ? std::chrono::milliseconds(1000) : std::chrono::hours(24);
}

void corruptCampaign(std::string* bytes) {
    // A field-1 length prefix that runs past the end, then an invalid tag.
    if (gSettings.badCampaign) *bytes = std::string("\x0a\xff\xff\xff\x0f\x00\x07", 7);
}

void corruptCommand(olvan::CommandRequest* request) {
    if (!gSettings.badCommand) return;
    // The startCampaign field's bytes are not a StartCampaign message: the
    // client's stream fails to decode the whole request.
    request->GetReflection()->MutableUnknownFields(request)->AddLengthDelimited(
            1, std::string("\x1a\xff\xff\xff\x7f", 5));
}

bool badReply() {
    return gSettings.badReply;
}

bool sendBadEvent(const android::sp<IZEMCallback>& callback, android::binder::Status* status) {
    if (!gSettings.badEvent) return false;
    android::Parcel data, reply;
    android::sp<android::IBinder> remote = android::IInterface::asBinder(callback);
    zem_binder::markForBinder(data, remote);
    data.writeInterfaceToken(IZEMCallback::descriptor);
    data.writeInt32(256);
    // Ends here: campaign id, config, argument and token are missing.
    const android::status_t err = remote->transact(IZEMCallback::ONCAMPAIGNEVENT, data, &reply, 0);
    *status = err == android::OK
                      ? android::binder::Status::fromExceptionCode(reply.readExceptionCode())
                      : android::binder::Status::fromStatusT(err);
    return true;
}

}  // namespace zemfault

// The binder service's transactions pass through here so that bad-reply can
// answer Register with a reply that holds a status and no token.
android::status_t ZemBinderService::onTransact(uint32_t code, const android::Parcel& data,
                                               android::Parcel* reply, uint32_t flags) {
    if (zemfault::badReply() && code == REGISTERZEMCLIENT && reply != nullptr) {
        reply->writeNoException();
        reply->writeInt32(3);  // a string length with no characters behind it
        return android::OK;
    }
    return BnZEMManager::onTransact(code, data, reply, flags);
}
