#include "transport/zemGRPCClient.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "collector/zem_collector.h"
#include "common/Mutex.h"
#include "common/ZemLog.h"
#include "transport/CacheFileParts.h"

namespace {

// Progress lines go to standard output, flushed at once so that a reader on a
// pipe sees them as they happen.
void printOut(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

std::shared_ptr<grpc::Channel> makeChannel(const std::string& target) {
    grpc::ChannelArguments args;
    // A private subchannel pool: a new client (one per registration attempt)
    // then connects afresh instead of inheriting the reconnect backoff of a
    // connection to a daemon that has gone away.
    args.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    // Campaigns may be larger than gRPC's default 4 MiB receive limit.
    args.SetMaxReceiveMessageSize(-1);
    return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), args);
}

}  // namespace

struct zemGRPCClient::Link {
    zem::RecursiveMutex mutex;
    zem_collector* collector ZEM_GUARDED_BY(mutex) = nullptr;  // null once forgotten

    // The unary calls in flight, so that a collector going away can cancel a
    // call to a daemon that never answers. Guarded by callsMutex, never held
    // while waiting for the daemon.
    zem::Mutex callsMutex;
    std::set<grpc::ClientContext*> calls ZEM_GUARDED_BY(callsMutex);
    bool cancelled ZEM_GUARDED_BY(callsMutex) = false;  // set once forgotten: later calls fail

    void cancelCalls() {
        zem::MutexLock lock(&callsMutex);
        cancelled = true;
        for (grpc::ClientContext* c : calls) c->TryCancel();
    }
};

namespace {

// Registers a unary call's context with the link for as long as the call
// runs.
class CallScope {
  public:
    CallScope(const std::shared_ptr<zemGRPCClient::Link>& link, grpc::ClientContext* context)
        : link(link), context(context) {
        zem::MutexLock lock(&link->callsMutex);
        link->calls.insert(context);
        if (link->cancelled) context->TryCancel();
    }
    ~CallScope() {
        zem::MutexLock lock(&link->callsMutex);
        link->calls.erase(context);
    }

  private:
    const std::shared_ptr<zemGRPCClient::Link>& link;
    grpc::ClientContext* const context;
};

// The most file bytes one SendData carries. A daemon that keeps gRPC's
// default refuses messages over 4 MiB, and the Data message adds its own
// field tag and length (five bytes at this size) around the bytes.
constexpr size_t kMaxSendBytes = 4 * 1024 * 1024 - 16;

// How long a collector going away waits for a call into it to finish (for
// example a campaign stop delivering its last file) before cancelling the
// calls to the daemon that hold it up.
constexpr std::chrono::seconds kForgetGrace{2};

}  // namespace

// One open command stream and everything its thread touches. Shared by the
// client and the stream thread, so the thread can outlive a client destroyed
// on it (from inside LostConn).
class zemGRPCClient::StreamSession {
  public:
    StreamSession(std::shared_ptr<grpc::Channel> channel, std::shared_ptr<Link> link)
        : channel(std::move(channel)), link(std::move(link)) {}

    // The stream thread's body: reads commands until the stream ends, then
    // reports the lost connection once, unless the client retired the
    // session on purpose.
    void serve();

    // Writes one response with default options. Stream thread only: it is
    // the stream's one writer.
    bool SendCommandResponse(olvan::CommandResponse& response) { return stream->Write(response); }

    // Keeps the call's channel alive as long as the stream.
    const std::shared_ptr<grpc::Channel> channel;
    const std::shared_ptr<Link> link;
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReaderWriter<olvan::CommandResponse, olvan::CommandRequest>> stream;
    std::atomic<bool> retired{false};

  private:
    // Calls fn(collector) under the link's lock; -1 when the collector has
    // been forgotten.
    template <typename Fn>
    int withCollector(Fn&& fn) {
        zem::RecursiveMutexLock lock(&link->mutex);
        return link->collector != nullptr ? fn(link->collector) : -1;
    }
};

void zemGRPCClient::StreamSession::serve() {
    pthread_setname_np(pthread_self(), "zem_cmd");
    printOut("waiting for cmds .. \n");

    olvan::CommandRequest request;
    while (stream->Read(&request)) {
        olvan::CommandResponse response;
        bool answer;
        {
            zem::RecursiveMutexLock lock(&link->mutex);
            answer = zem::internal::dispatchCommand(request, link->collector, &response);
        }
        // A failed write is not acted on: the next read tells whether the
        // stream is still alive.
        if (answer) SendCommandResponse(response);
    }
    // Releases the call; returns at once since the read already failed.
    stream->Finish();

    if (retired.load()) return;
    // LostConn may drop the last reference to the client on this thread; the
    // client then detaches this thread, and this session stays alive through
    // the thread's own reference.
    withCollector([](zem_collector* c) { return c->LostConn(); });
}

bool zem::internal::dispatchCommand(const olvan::CommandRequest& request, zem_collector* collector,
                                    olvan::CommandResponse* response) {
    printOut("received cmd: ");
    // The daemon expects seq_no 0 whatever the request carried.
    response->set_seq_no(0);
    response->set_status(0);
    switch (request.event_oneof_case()) {
        case olvan::CommandRequest::kStartCampaign:
            printOut("startCampaign\n");
            response->set_status(
                    collector != nullptr
                            ? collector->StartCampaign(request.startcampaign().campaignconfig())
                            : -1);
            return true;
        case olvan::CommandRequest::kStopCampaign:
            printOut("stopCampaign\n");
            response->set_status(collector != nullptr ? collector->StopCampaign() : -1);
            return true;
        case olvan::CommandRequest::kStartCollection:
        case olvan::CommandRequest::kStopCollection:
            response->set_status(-1);
            return true;
        case olvan::CommandRequest::EVENT_ONEOF_NOT_SET:
            break;
    }
    return false;
}

zemGRPCClient::zemGRPCClient() : zemGRPCClient(kDefaultTarget) {}

zemGRPCClient::zemGRPCClient(const std::string& target)
    : target(target), channel(makeChannel(target)), link(std::make_shared<Link>()) {
    stub = olvan::SPC::NewStub(channel);
}

zemGRPCClient::~zemGRPCClient() {
    {
        zem::RecursiveMutexLock lock(&link->mutex);
        link->collector = nullptr;
    }
    endSession();
}

void zemGRPCClient::endSession() {
    if (session) {
        session->retired.store(true);
        // Makes a pending Read (or Write) return at once.
        session->context.TryCancel();
    }
    if (streamThread.joinable()) {
        if (streamThread.get_id() == std::this_thread::get_id()) {
            streamThread.detach();
        } else {
            streamThread.join();
        }
    }
    session.reset();
}

void zemGRPCClient::forgetCollector(zem_collector* collector) {
    if (!link->mutex.lockWithin(kForgetGrace)) {
        // A call into the collector is stuck on the daemon: give up on it.
        link->cancelCalls();
        link->mutex.lock();
    }
    if (link->collector == collector) link->collector = nullptr;
    // A registration or delivery still waiting for the daemon ends now.
    link->cancelCalls();
    link->mutex.unlock();
}

int32_t zemGRPCClient::registerClient(const std::string& name, uint32_t version,
                                      zem_collector* collector) {
    olvan::ClientInfo info;
    info.set_name(name);
    info.set_major(static_cast<int32_t>(version >> 8));
    info.set_minor(static_cast<int32_t>(version & 0xFF));

    grpc::ClientContext context;
    olvan::RegisterResponse response;
    grpc::Status status;
    {
        CallScope scope(link, &context);
        status = stub->Register(&context, info, &response);
    }
    if (!status.ok()) return status.error_code();

    printOut("Token: " + response.token() + "\n");
    printOut("Register Client success\n");
    {
        zem::RecursiveMutexLock lock(&link->mutex);
        link->collector = collector;
        if (collector != nullptr) collector->setToken(response.token());
    }
    // Opened even when the daemon answered a non-zero status: the collector
    // then counts the attempt as failed and drops this client.
    CommandStream();
    return response.status();
}

int32_t zemGRPCClient::CommandStream() {
    endSession();

    auto s = std::make_shared<StreamSession>(channel, link);
    std::string token;
    {
        zem::RecursiveMutexLock lock(&link->mutex);
        if (link->collector != nullptr) token = link->collector->getToken();
    }
    s->context.AddMetadata("clientid", token);
    s->stream = stub->CommandStream(&s->context);
    session = s;
    streamThread = std::thread([s] { s->serve(); });
    return 0;
}

int32_t zemGRPCClient::sendData(const std::string& filename, const std::string& token) {
    // A file that fits goes in one call, as it is; a larger one in parts,
    // each a cache file image of its own.
    int32_t result = 0;
    int32_t failure = -1;  // a file that may not be sent
    const bool delivered =
            zem::internal::deliverInParts(filename, kMaxSendBytes, [&](std::string& part) {
                olvan::Data data;
                data.set_data(std::move(part));
                grpc::ClientContext context;
                context.AddMetadata("clientid", token);
                olvan::Response response;
                grpc::Status status;
                {
                    CallScope scope(link, &context);
                    status = stub->SendData(&context, data, &response);
                }
                if (!status.ok()) {
                    ZEM_LOGE("SendData failed: %s", status.error_message().c_str());
                    failure = status.error_code();
                    return false;
                }
                if (result == 0) result = response.status();
                return true;
            });
    return delivered ? result : failure;
}

int32_t zemGRPCClient::deRegisterClient(const std::string& token) {
    grpc::ClientContext context;
    context.AddMetadata("token", token);
    olvan::Empty request;
    olvan::Response response;
    grpc::Status status;
    {
        CallScope scope(link, &context);
        status = stub->DeRegister(&context, request, &response);
    }
    if (!status.ok()) return status.error_code();
    return response.status();
}
