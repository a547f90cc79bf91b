#include "tools/ZemDaemon.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include "tools/ZemFault.h"

using zemtools::JsonObject;

namespace {

std::string metadata(const grpc::ServerContext* context, const char* key) {
    const auto& md = context->client_metadata();
    const auto it = md.find(key);
    return it == md.end() ? std::string() : std::string(it->second.data(), it->second.size());
}

// Keeps a client name usable inside a file name.
std::string fileSafe(const std::string& name) {
    std::string out;
    for (const char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        out += ok ? c : '_';
    }
    return out.empty() ? "unknown" : out;
}

const char* commandName(const olvan::CommandRequest& c) {
    switch (c.event_oneof_case()) {
        case olvan::CommandRequest::kStartCampaign:
            return "startCampaign";
        case olvan::CommandRequest::kStopCampaign:
            return "stopCampaign";
        case olvan::CommandRequest::kStartCollection:
            return "startCollection";
        case olvan::CommandRequest::kStopCollection:
            return "stopCollection";
        case olvan::CommandRequest::EVENT_ONEOF_NOT_SET:
            break;
    }
    return "empty";
}

}  // namespace

ZemDaemon::ZemDaemon(DaemonOptions options)
    : options(std::move(options)), startTime(std::chrono::steady_clock::now()) {
    if (this->options.haveCampaign) {
        campaign = std::make_shared<const LTCCampaignDef>(this->options.campaign);
    }
}

void ZemDaemon::setCampaign(const LTCCampaignDef& def) {
    auto next = std::make_shared<const LTCCampaignDef>(def);
    std::lock_guard<std::mutex> lock(mutex);
    campaign = std::move(next);
}

std::shared_ptr<const LTCCampaignDef> ZemDaemon::currentCampaign() {
    std::lock_guard<std::mutex> lock(mutex);
    return campaign;
}

std::vector<ZemDaemon::ClientRow> ZemDaemon::listGrpcClients() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::pair<uint64_t, ClientRow>> rows;
    for (const auto& s : streams) {
        const auto it = clients.find(s->token);
        if (it == clients.end() || it->second.deregistered || it->second.binder) continue;
        const ClientRecord& c = it->second;
        rows.push_back({c.order,
                        {c.name, std::to_string(c.major) + "." + std::to_string(c.minor), "grpc",
                         it->first}});
    }
    std::sort(rows.begin(), rows.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<ClientRow> out;
    for (auto& r : rows) out.push_back(std::move(r.second));
    return out;
}

double ZemDaemon::elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime).count();
}

void ZemDaemon::emit(const char* event, const JsonObject& fields, const std::string& text,
                     const std::vector<std::string>& extraLines) {
    emit(event, fields, text, [&extraLines](const zemtools::LineSink& line) {
        for (const std::string& l : extraLines) line(l);
    });
}

void ZemDaemon::emit(const char* event, const JsonObject& fields, const std::string& text,
                     const std::function<void(const zemtools::LineSink&)>& lines) {
    std::string out;
    if (options.json) {
        JsonObject head;
        head.add("t", elapsed()).add("event", event);
        out = "{" + head.fields() + (fields.fields().empty() ? "" : ",") + fields.fields() + "}\n";
    } else {
        char stamp[48];
        snprintf(stamp, sizeof stamp, "[%8.3f] %-10s ", elapsed(), event);
        out = stamp + text + "\n";
    }
    std::lock_guard<std::mutex> lock(outMutex);
    fwrite(out.data(), 1, out.size(), stdout);
    const char* indent = options.json ? "" : "    ";
    lines([indent](const std::string& l) {
        fputs(indent, stdout);
        fwrite(l.data(), 1, l.size(), stdout);
        fputc('\n', stdout);
    });
    fflush(stdout);
}

std::string ZemDaemon::clientName(const std::string& token) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = clients.find(token);
    return it == clients.end() ? std::string() : it->second.name;
}

grpc::Status ZemDaemon::Register(grpc::ServerContext* /*context*/, const olvan::ClientInfo* request,
                                 olvan::RegisterResponse* response) {
    std::string token;
    {
        std::lock_guard<std::mutex> lock(mutex);
        // The pid keeps tokens of a restarted daemon apart from the old ones.
        const uint64_t order = nextToken++;
        token = "zemd-" + std::to_string(getpid()) + "-" + std::to_string(order);
        ClientRecord& rec = clients[token];
        rec.order = order;
        rec.name = request->name();
        rec.major = request->major();
        rec.minor = request->minor();
    }
    response->set_status(zemfault::beforeRegister());
    response->set_token(token);

    JsonObject f;
    f.add("name", request->name())
            .add("major", request->major())
            .add("minor", request->minor())
            .add("features", request->features_size())
            .add("token", token);
    emit("register", f,
         "name=" + request->name() + " version=" + std::to_string(request->major()) + "." +
                 std::to_string(request->minor()) + " token=" + token);
    return grpc::Status::OK;
}

grpc::Status ZemDaemon::DeRegister(grpc::ServerContext* context, const olvan::Empty* /*request*/,
                                   olvan::Response* response) {
    const std::string token = metadata(context, "token");
    const std::string clientid = metadata(context, "clientid");
    std::string name;
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = clients.find(token);
        if (it != clients.end() && !it->second.deregistered) {
            known = true;
            name = it->second.name;
            it->second.deregistered = true;
        }
    }
    // A token this daemon never handed out (or already ended) is refused.
    response->set_status(known ? 0 : 1);

    JsonObject f;
    f.add("token", token)
            .add("clientid", clientid)
            .add("name", name)
            .add("known", known)
            .add("status", known ? 0 : 1);
    emit("deregister", f,
         "token=" + token + (known ? " (" + name + ")" : " (unknown token, status 1)"));
    return grpc::Status::OK;
}

std::string ZemDaemon::storeFile(const std::string& name, uint64_t seq, const std::string& bytes,
                                 std::string* error) {
    char num[32];
    snprintf(num, sizeof num, "%06llu", static_cast<unsigned long long>(seq));
    const std::string path = options.outDir + "/" + num + "-" + fileSafe(name) + ".kpidata";
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        *error = path + ": " + strerror(errno);
        return std::string();
    }
    const bool written = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    const int savedErrno = errno;
    if (fclose(f) != 0 || !written) {
        *error = path + ": " + strerror(written ? errno : savedErrno);
        remove(path.c_str());
        return std::string();
    }
    return path;
}

grpc::Status ZemDaemon::SendData(grpc::ServerContext* context, const olvan::Data* request,
                                 olvan::Response* response) {
    const std::string clientid = metadata(context, "clientid");
    if (const int code = zemfault::beforeSend()) {
        return grpc::Status(static_cast<grpc::StatusCode>(code), "zemd --fault send-status");
    }
    std::string name = clientName(clientid);
    if (name.empty()) name = "unknown";
    uint64_t seq;
    {
        std::lock_guard<std::mutex> lock(mutex);
        seq = ++fileSeq;
    }

    std::string stored;
    if (!options.outDir.empty()) {
        std::string error;
        stored = storeFile(name, seq, request->data(), &error);
        if (stored.empty()) {
            JsonObject f;
            f.add("clientid", clientid).add("name", name).add("error", error);
            emit("error", f, "cannot store data from " + name + ": " + error);
            // A transport-level failure: the client keeps its file.
            return grpc::Status(grpc::StatusCode::INTERNAL, "zemd cannot store the file: " + error);
        }
    }

    zemtools::CacheFileIndex data;
    const bool parsed = data.decode(request->data());
    const size_t windows = parsed ? data.windowCount() : 0;
    JsonObject f;
    f.add("clientid", clientid)
            .add("token", metadata(context, "token"))
            .add("name", name)
            .add("bytes", uint64_t{request->data().size()})
            .add("parsed", parsed)
            .add("version", parsed ? olvan::KPIDataVersion_Name(data.version()) : "")
            .add("windows", uint64_t{windows})
            .add("filename", request->filename())
            .add("file", stored);
    JsonObject prefix;
    prefix.add("event", "window").add("clientid", clientid).add("file", stored);
    emit("data", f,
         "<- " + name + " " + std::to_string(request->data().size()) + " bytes, " +
                 (parsed ? std::to_string(windows) + " windows" : "NOT a KPIData") +
                 (stored.empty() ? "" : ", stored " + stored),
         [&](const zemtools::LineSink& line) {
             if (parsed) received(name, data, prefix.fields() + ",", line);
         });
    response->set_status(0);
    return grpc::Status::OK;
}

void ZemDaemon::received(const std::string& client, zemtools::CacheFileIndex& data,
                         const std::string& jsonPrefix, const zemtools::LineSink& line) {
    // Clients share this host's steady clock, so the clocks read now date
    // their windows.
    const zemtools::WallClock clock = zemtools::WallClock::now();
    const std::shared_ptr<const LTCCampaignDef> current = currentCampaign();
    if (options.onFile) options.onFile(client);
    // Window by window, so that a large file never sits decoded whole.
    if (options.onData) {
        data.forEachWindow([&](const olvan::KPIData& one) {
            options.onData(client, one, current.get(), clock);
        });
    }
    zemtools::WindowContext context;
    context.catalog = &options.catalog;
    context.campaign = current.get();
    context.clock = &clock;
    data.forEachLine(options.json, jsonPrefix, line, context);
}

olvan::CommandRequest ZemDaemon::makeCommand(Command command) {
    olvan::CommandRequest c;
    switch (command) {
        case Command::kStartCampaign: {
            auto* start = c.mutable_startcampaign();
            start->set_campaignid(1);
            if (campaign) campaign->SerializeToString(start->mutable_campaignconfig());
            zemfault::corruptCampaign(start->mutable_campaignconfig());
            break;
        }
        case Command::kStopCampaign:
            c.mutable_stopcampaign()->set_campaignid(1);
            break;
        case Command::kStartCollection:
            c.mutable_startcollection()->add_counters("cpu");
            break;
        case Command::kStopCollection:
            c.mutable_stopcollection()->add_counters("cpu");
            break;
        case Command::kEmpty:
            break;
    }
    zemfault::corruptCommand(&c);
    return c;
}

int ZemDaemon::queueCommand(Command command) {
    std::lock_guard<std::mutex> lock(mutex);
    if (command == Command::kStartCampaign && !campaign) return -1;
    const olvan::CommandRequest c = makeCommand(command);
    for (const auto& s : streams) s->outbox.push_back(c);
    cv.notify_all();
    return static_cast<int>(streams.size());
}

void ZemDaemon::endStreams() {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& s : streams) s->endRequested = true;
    cv.notify_all();
}

void ZemDaemon::shutdown() {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
    cv.notify_all();
}

namespace {

using Clock = std::chrono::steady_clock;

// One stream's --stop-after timer: each campaign start written arms it, each
// stop written disarms it.
class StopTimer {
  public:
    explicit StopTimer(double seconds) : seconds(seconds) {}

    // Follows the command just written.
    void wrote(const olvan::CommandRequest& c) {
        if (c.has_startcampaign() && seconds > 0) {
            due = true;
            at = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(seconds));
        }
        if (c.has_stopcampaign()) due = false;
    }

    // True once the stop is due; the timer is then disarmed.
    bool fire() {
        if (!due || Clock::now() < at) return false;
        due = false;
        return true;
    }

    // Waits on `cv` for news, at most one poll interval and not past the
    // stop.
    void wait(std::condition_variable& cv, std::unique_lock<std::mutex>& lock) const {
        if (due) {
            cv.wait_until(lock, std::min(at, Clock::now() + zemfault::streamPoll()));
        } else {
            cv.wait_for(lock, zemfault::streamPoll());
        }
    }

  private:
    const double seconds;
    bool due = false;
    Clock::time_point at;
};

}  // namespace

grpc::Status ZemDaemon::CommandStream(grpc::ServerContext* context, CommandStreamIO* stream) {
    auto rec = std::make_shared<StreamRecord>();
    rec->token = metadata(context, "clientid");
    const std::string name = clientName(rec->token);
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping) return grpc::Status(grpc::StatusCode::UNAVAILABLE, "zemd is shutting down");
        streams.push_back(rec);
        if (campaign) rec->outbox.push_back(makeCommand(Command::kStartCampaign));
    }
    {
        JsonObject f;
        f.add("state", "open").add("clientid", rec->token).add("name", name);
        emit("stream", f, "open clientid=" + rec->token + " (" + name + ")");
    }

    std::thread reader = readResponses(stream, rec, name);
    std::unique_lock<std::mutex> lock(mutex);
    const char* reason = serveStream(stream, *rec, name, lock);
    const bool readerDone = rec->readerDone;
    streams.remove(rec);
    lock.unlock();

    // The reader may still wait for a response; cancelling ends its Read.
    if (!readerDone) context->TryCancel();
    reader.join();

    JsonObject f;
    f.add("state", "closed").add("clientid", rec->token).add("name", name).add("reason", reason);
    emit("stream", f, "closed clientid=" + rec->token + " (" + name + "): " + reason);
    return grpc::Status::OK;
}

std::thread ZemDaemon::readResponses(CommandStreamIO* stream, std::shared_ptr<StreamRecord> rec,
                                     const std::string& name) {
    return std::thread([this, stream, rec, name] {
        olvan::CommandResponse response;
        while (stream->Read(&response)) {
            JsonObject f;
            f.add("clientid", rec->token)
                    .add("name", name)
                    .add("seq_no", uint64_t{response.seq_no()})
                    .add("status", response.status());
            emit("response", f,
                 "<- " + name + " seq_no=" + std::to_string(response.seq_no()) +
                         " status=" + std::to_string(response.status()));
        }
        std::lock_guard<std::mutex> lock(mutex);
        rec->readerDone = true;
        cv.notify_all();
    });
}

const char* ZemDaemon::serveStream(CommandStreamIO* stream, StreamRecord& rec,
                                   const std::string& name, std::unique_lock<std::mutex>& lock) {
    StopTimer stop(options.stopAfter);
    for (;;) {
        if (rec.readerDone) return "client closed the stream";
        if (stopping) return "daemon shutting down";
        if (rec.endRequested) return "ended by the daemon";
        if (!rec.outbox.empty()) {
            olvan::CommandRequest c = std::move(rec.outbox.front());
            rec.outbox.pop_front();
            c.set_seq_no(nextSeq++);
            lock.unlock();
            const bool written = stream->Write(c);
            printCommand(rec, name, c, written);
            lock.lock();
            stop.wrote(c);
            continue;
        }
        if (stop.fire()) {
            rec.outbox.push_back(makeCommand(Command::kStopCampaign));
            continue;
        }
        if (zemfault::dropStreamNow()) return "dropped by --fault drop-streams";
        stop.wait(cv, lock);
    }
}

void ZemDaemon::printCommand(const StreamRecord& rec, const std::string& name,
                             const olvan::CommandRequest& c, bool written) {
    JsonObject f;
    f.add("clientid", rec.token)
            .add("name", name)
            .add("command", commandName(c))
            .add("seq_no", uint64_t{c.seq_no()})
            .add("written", written);
    std::string text =
            "-> " + name + " " + commandName(c) + " seq_no=" + std::to_string(c.seq_no());
    if (c.has_startcampaign()) {
        LTCCampaignDef sent;
        sent.ParseFromString(c.startcampaign().campaignconfig());
        text += " (" + std::to_string(sent.kpicfgs_size()) + " KPIs, payload " +
                std::to_string(sent.cfg_payload().size()) + " bytes)";
    }
    emit("command", f, text + (written ? "" : " [write failed]"));
}
