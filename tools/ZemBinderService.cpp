#include "tools/ZemBinderService.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "tools/ZemFault.h"

using android::sp;
using android::binder::Status;
using zemtools::JsonObject;

ZemBinderService::ZemBinderService(ZemDaemon& daemon) : daemon(daemon) {}

android::status_t ZemBinderService::publish() {
    const android::status_t status = android::defaultServiceManager()->addService(
            android::String16(kServiceName), sp<ZemBinderService>(this));
    if (status == android::OK) android::ProcessState::self()->startThreadPool();
    JsonObject f;
    f.add("service", kServiceName).add("status", static_cast<int64_t>(status));
    daemon.emit("binder", f,
                std::string(kServiceName) +
                        (status == android::OK
                                 ? " on the host binder runtime"
                                 : " NOT served (status " + std::to_string(status) + ")"));
    return status;
}

Status ZemBinderService::registerZEMClient(const std::string& name,
                                           const sp<IZEMCallback>& callback, std::string* token) {
    if (const int code = zemfault::beforeRegister()) {
        return Status::fromServiceSpecificError(code, "zemd --fault register-status");
    }
    {
        std::lock_guard<std::mutex> lock(daemon.mutex);
        // The pid keeps tokens of a restarted daemon apart from the old ones.
        const uint64_t order = daemon.nextToken++;
        *token = "zemd-" + std::to_string(getpid()) + "-" + std::to_string(order);
        ZemDaemon::ClientRecord& rec = daemon.clients[*token];
        rec.name = name;
        rec.binder = true;
        rec.order = order;
    }
    const android::sp<ClientDeath> death = new ClientDeath(this, *token);
    {
        std::lock_guard<std::mutex> lock(timerMutex);
        callbacks[*token] = callback;
        deaths[*token] = death;
    }
    if (callback != nullptr) IZEMCallback::asBinder(callback)->linkToDeath(death, nullptr, 0);
    JsonObject f;
    f.add("name", name).add("transport", "binder").add("token", *token);
    daemon.emit("register", f, "name=" + name + " (binder) token=" + *token);
    if (zemfault::stopInRegisterNow()) push(*token, false);
    return Status::ok();
}

void ZemBinderService::ClientDeath::binderDied(const android::wp<android::IBinder>& /*who*/) {
    {
        std::lock_guard<std::mutex> lock(service->timerMutex);
        service->callbacks.erase(token);
    }
    JsonObject f;
    f.add("token", token).add("transport", "binder");
    service->daemon.emit("died", f, "binder client of token " + token + " died");
}

Status ZemBinderService::checkForPendingCampaign(const std::string& token) {
    if (daemon.currentCampaign()) push(token, true);
    return Status::ok();
}

void ZemBinderService::push(const std::string& token, bool start) {
    sp<IZEMCallback> callback;
    {
        std::lock_guard<std::mutex> lock(timerMutex);
        auto it = callbacks.find(token);
        if (it == callbacks.end()) return;
        callback = it->second;
    }
    const std::string name = daemon.clientName(token);
    std::vector<uint8_t> config;
    const std::shared_ptr<const LTCCampaignDef> campaign = daemon.currentCampaign();
    if (start) {
        if (!campaign) return;
        std::string bytes;
        campaign->SerializeToString(&bytes);
        zemfault::corruptCampaign(&bytes);
        config.assign(bytes.begin(), bytes.end());
    }
    const char* command = start ? "startCampaign" : "stopCampaign";
    int32_t result = -1;
    Status status;
    if (!start || !zemfault::sendBadEvent(callback, &status)) {
        status = callback->onCampaignEvent(start ? 256 : 512, 1, config, 0, token, &result);
    }
    {
        JsonObject f;
        f.add("clientid", token)
                .add("name", name)
                .add("command", command)
                .add("transport", "binder")
                .add("written", status.isOk());
        std::string text = "-> " + name + " " + command + " (binder)";
        if (start) {
            text += " (" + std::to_string(campaign->kpicfgs_size()) + " KPIs, payload " +
                    std::to_string(campaign->cfg_payload().size()) + " bytes)";
        }
        daemon.emit("command", f, text + (status.isOk() ? "" : " [call failed]"));
    }
    if (!status.isOk()) {
        // The client went away; forget its callback.
        std::lock_guard<std::mutex> lock(timerMutex);
        callbacks.erase(token);
        return;
    }
    {
        JsonObject f;
        f.add("clientid", token).add("name", name).add("status", result);
        daemon.emit("response", f, "<- " + name + " status=" + std::to_string(result));
    }
    if (start && daemon.options.stopAfter > 0) {
        std::lock_guard<std::mutex> lock(timerMutex);
        stops.emplace(std::chrono::steady_clock::now() +
                              std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                      std::chrono::duration<double>(daemon.options.stopAfter)),
                      token);
        if (!timerRunning) {
            timerRunning = true;
            std::thread(&ZemBinderService::timerLoop, sp<ZemBinderService>(this)).detach();
        }
        timerCv.notify_all();
    }
}

void ZemBinderService::timerLoop() {
    std::unique_lock<std::mutex> lock(timerMutex);
    for (;;) {
        if (stops.empty()) {
            timerCv.wait(lock);
            continue;
        }
        const auto due = stops.begin()->first;
        if (std::chrono::steady_clock::now() < due) {
            timerCv.wait_until(lock, due);
            continue;
        }
        const std::string token = stops.begin()->second;
        stops.erase(stops.begin());
        lock.unlock();
        push(token, false);
        lock.lock();
    }
}

int ZemBinderService::pushToAll(bool start) {
    if (start && !daemon.currentCampaign()) return -1;
    std::vector<std::string> tokens;
    {
        std::lock_guard<std::mutex> lock(timerMutex);
        for (const auto& c : callbacks) tokens.push_back(c.first);
    }
    for (const std::string& t : tokens) push(t, start);
    return static_cast<int>(tokens.size());
}

std::vector<ZemDaemon::ClientRow> ZemBinderService::listClients() {
    std::vector<std::string> tokens;
    {
        std::lock_guard<std::mutex> lock(timerMutex);
        for (const auto& c : callbacks) tokens.push_back(c.first);
    }
    std::vector<std::pair<uint64_t, ZemDaemon::ClientRow>> rows;
    {
        std::lock_guard<std::mutex> lock(daemon.mutex);
        for (const std::string& t : tokens) {
            const auto it = daemon.clients.find(t);
            if (it == daemon.clients.end() || it->second.deregistered) continue;
            rows.push_back({it->second.order, {it->second.name, "-", "binder", t}});
        }
    }
    std::sort(rows.begin(), rows.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<ZemDaemon::ClientRow> out;
    for (auto& r : rows) out.push_back(std::move(r.second));
    return out;
}

Status ZemBinderService::deregisterZEMClient(const std::string& token) {
    std::string name;
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(daemon.mutex);
        const auto it = daemon.clients.find(token);
        if (it != daemon.clients.end() && !it->second.deregistered) {
            known = true;
            name = it->second.name;
            it->second.deregistered = true;
        }
    }
    if (known) {
        // A deregistered client gets no further campaign commands.
        std::lock_guard<std::mutex> lock(timerMutex);
        callbacks.erase(token);
    }
    JsonObject f;
    f.add("token", token).add("name", name).add("known", known).add("transport", "binder");
    daemon.emit("deregister", f,
                "token=" + token + (known ? " (" + name + ")" : " (unknown token)") + " (binder)");
    return known ? Status::ok() : Status::fromServiceSpecificError(1, "unknown token");
}

Status ZemBinderService::sendData(const std::vector<uint8_t>& data, const std::string& token,
                                  bool* result) {
    if (const int code = zemfault::beforeSend()) {
        return Status::fromServiceSpecificError(code, "zemd --fault send-status");
    }
    if (zemfault::stopInSendNow()) push(token, false);
    std::string name = daemon.clientName(token);
    if (name.empty()) name = "unknown";
    uint64_t seq;
    {
        std::lock_guard<std::mutex> lock(daemon.mutex);
        seq = ++daemon.fileSeq;
    }
    const std::string bytes(data.begin(), data.end());
    std::string stored;
    if (!daemon.options.outDir.empty()) {
        std::string error;
        stored = daemon.storeFile(name, seq, bytes, &error);
        if (stored.empty()) {
            JsonObject f;
            f.add("clientid", token).add("name", name).add("error", error);
            daemon.emit("error", f, "cannot store data from " + name + ": " + error);
            // The client keeps its file.
            return Status::fromServiceSpecificError(2, ("cannot store the file: " + error).c_str());
        }
    }
    zemtools::CacheFileIndex decoded;
    const bool parsed = decoded.decode(bytes);
    const size_t windows = parsed ? decoded.windowCount() : 0;
    JsonObject f;
    f.add("clientid", token)
            .add("token", token)
            .add("name", name)
            .add("transport", "binder")
            .add("bytes", uint64_t{bytes.size()})
            .add("parsed", parsed)
            .add("version", parsed ? olvan::KPIDataVersion_Name(decoded.version()) : "")
            .add("windows", uint64_t{windows})
            .add("file", stored);
    JsonObject prefix;
    prefix.add("event", "window").add("clientid", token).add("file", stored);
    daemon.emit("data", f,
                "<- " + name + " " + std::to_string(bytes.size()) + " bytes (binder), " +
                        (parsed ? std::to_string(windows) + " windows" : "NOT a KPIData") +
                        (stored.empty() ? "" : ", stored " + stored),
                [&](const zemtools::LineSink& line) {
                    if (parsed) daemon.received(name, decoded, prefix.fields() + ",", line);
                });
    *result = true;
    return Status::ok();
}
