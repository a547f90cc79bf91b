// ZemDaemon: the olvan.SPC service of the reference daemon zemd.
//
// Hands out tokens, pushes the current campaign to every client whose
// command stream opens (and stops it after a configured time), stores and
// decodes every delivered cache file, and prints one event line per call, as
// readable text or as JSON lines.
//
// Owned by zemd's main(), which registers it with a gRPC server. Its handlers
// run on the server's threads; each open command stream keeps one handler
// thread (the stream's only writer) plus one reader thread of its own. The
// control operations (setCampaign, queueCommand, endStreams, listClients,
// shutdown) may be called from any thread. `mutex` guards the campaign, the
// clients, the streams and the counters;
// `outMutex` keeps each event's lines together on standard output.
#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kpi.pb.h"
#include "spc.grpc.pb.h"
#include "tools/KPICatalog.h"
#include "tools/KPIDataFormat.h"
#include "tools/WallClock.h"

struct DaemonOptions {
    bool json = false;
    // Folder that receives every delivered file; empty: files are only decoded.
    std::string outDir;
    bool haveCampaign = false;
    LTCCampaignDef campaign;
    // Seconds after a campaign start at which the daemon stops it; 0: never.
    double stopAfter = 0;
    // Names for the KPIs of printed windows; empty: ids.
    zemtools::KPICatalog catalog;
    // Called with every window of a delivered file, each as a KPIData of its
    // own, on the thread that received it, with
    // the current campaign (may be null) and the clock reading of arrival.
    std::function<void(const std::string& client, const olvan::KPIData& data,
                       const LTCCampaignDef* campaign, const zemtools::WallClock& clock)>
            onData;
    // Called once per delivered file that decodes, before its windows.
    std::function<void(const std::string& client)> onFile;
};

class ZemDaemon final : public olvan::SPC::Service {
  public:
    explicit ZemDaemon(DaemonOptions options);

    grpc::Status Register(grpc::ServerContext* context, const olvan::ClientInfo* request,
                          olvan::RegisterResponse* response) override;
    grpc::Status DeRegister(grpc::ServerContext* context, const olvan::Empty* request,
                            olvan::Response* response) override;
    grpc::Status SendData(grpc::ServerContext* context, const olvan::Data* request,
                          olvan::Response* response) override;
    using CommandStreamIO = grpc::ServerReaderWriter<olvan::CommandRequest, olvan::CommandResponse>;
    grpc::Status CommandStream(grpc::ServerContext* context, CommandStreamIO* stream) override;

    // Commands the control interface can send to every open stream.
    enum class Command { kStartCampaign, kStopCampaign, kStartCollection, kStopCollection, kEmpty };

    // Queues `command` on every open stream. Returns how many streams got it;
    // -1 for kStartCampaign without a campaign.
    int queueCommand(Command command);

    // Replaces the campaign that start commands carry (and that new streams
    // and binder clients asking for a pending campaign receive).
    void setCampaign(const LTCCampaignDef& campaign);

    // The current campaign, or null when none was given yet.
    std::shared_ptr<const LTCCampaignDef> currentCampaign();

    // One registered, not deregistered client that can still receive
    // commands: a gRPC client with an open command stream, or a binder client
    // (`live` is filled by the binder service).
    struct ClientRow {
        std::string name;
        std::string version;  // "major.minor"; "-" when the transport reports none
        std::string transport;
        std::string token;
    };
    // gRPC clients with an open stream, in registration order.
    std::vector<ClientRow> listGrpcClients();

    // Ends every open command stream (the clients see their stream end).
    void endStreams();

    // Ends every stream handler and refuses new streams; call before the
    // server's own Shutdown so that it does not wait on them.
    void shutdown();

    // Prints one event: `text` in readable mode, `fields` (after "t" and
    // "event") in JSON mode, followed by `extraLines` as they stand.
    void emit(const char* event, const zemtools::JsonObject& fields, const std::string& text,
              const std::vector<std::string>& extraLines = {});
    // The same, with the extra lines handed over one at a time by `lines`,
    // so that a file of many windows is printed without holding its lines.
    void emit(const char* event, const zemtools::JsonObject& fields, const std::string& text,
              const std::function<void(const zemtools::LineSink&)>& lines);

    // Passes each window of a file that `client` delivered to `onData`, then
    // gives `line` the windows' printed lines, named and dated.
    void received(const std::string& client, zemtools::CacheFileIndex& data,
                  const std::string& jsonPrefix, const zemtools::LineSink& line);

  private:
    // zemd's binder service shares the client table, storage and printing.
    friend class ZemBinderService;

    struct ClientRecord {
        std::string name;
        int32_t major = 0;
        int32_t minor = 0;
        bool deregistered = false;
        bool binder = false;
        uint64_t order = 0;
    };
    struct StreamRecord {
        std::string token;
        std::deque<olvan::CommandRequest> outbox;
        bool endRequested = false;
        bool readerDone = false;
    };

    // The steps of one command stream's handler. readResponses starts the
    // thread that prints the client's responses until the stream ends.
    // serveStream, entered and left with `lock` on `mutex`, writes the
    // stream's commands as they come due (the --stop-after stop included)
    // until the stream is to end, and returns why. printCommand prints one
    // command written.
    std::thread readResponses(CommandStreamIO* stream, std::shared_ptr<StreamRecord> rec,
                              const std::string& name);
    const char* serveStream(CommandStreamIO* stream, StreamRecord& rec, const std::string& name,
                            std::unique_lock<std::mutex>& lock);
    void printCommand(const StreamRecord& rec, const std::string& name,
                      const olvan::CommandRequest& c, bool written);

    // With `mutex` held.
    olvan::CommandRequest makeCommand(Command command);
    std::string clientName(const std::string& token);
    std::string storeFile(const std::string& name, uint64_t seq, const std::string& bytes,
                          std::string* error);
    double elapsed() const;

    const DaemonOptions options;
    const std::chrono::steady_clock::time_point startTime;

    std::mutex mutex;
    std::condition_variable cv;
    std::shared_ptr<const LTCCampaignDef> campaign;
    std::map<std::string, ClientRecord> clients;
    std::list<std::shared_ptr<StreamRecord>> streams;
    bool stopping = false;
    uint64_t nextToken = 1;
    uint32_t nextSeq = 1;
    uint64_t fileSeq = 0;

    std::mutex outMutex;
};
