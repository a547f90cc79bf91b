// zemGRPCClient: the gRPC transport to the collection daemon (service
// olvan.SPC on a Unix socket).
//
// A collector's registration thread makes one client per registration attempt
// and the collector owns it through a shared pointer. Besides the three unary
// calls, a registered client serves the daemon's command stream on a thread of
// its own ("zem_cmd"): each command read becomes a StartCampaign or
// StopCampaign call on the collector, and the end of the stream becomes one
// LostConn call.
//
// Threads: registerClient runs on the registration thread, sendData on the
// serializer's writer thread (or the thread stopping a campaign),
// deRegisterClient on the application thread in zem_deregister,
// forgetCollector and the destructor on whichever thread drops the collector
// or the last reference to the client; the latter may be the command-stream
// thread itself, from inside LostConn.
//
// Locks: one recursive mutex, shared with the command-stream thread, guards
// the remembered collector and is held around every call into it, so
// forgetCollector waits for a call in flight and no call starts afterwards.
// It is recursive because a collector callback may drop the last reference to
// this client on the command-stream thread itself. A second, plain mutex
// guards the set of unary calls in flight: forgetCollector cancels them, so a
// daemon that never answers cannot hold up a collector that is going away.
#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "spc.grpc.pb.h"
#include "transport/zemTransportClient.h"

namespace zem {
namespace internal {

// The command stream's handling of one request, without the stream: runs the
// command on `collector` (null: a forgotten collector, answered -1) and fills
// `response` with what the stream writes back. False when the request
// carries no command, which gets no answer. The caller holds whatever lock
// guards `collector`.
bool dispatchCommand(const olvan::CommandRequest& request, zem_collector* collector,
                     olvan::CommandResponse* response);

}  // namespace internal
}  // namespace zem

class zemGRPCClient : public zemTransportClient {
  public:
    // The daemon's fixed socket.
    static constexpr const char* kDefaultTarget = "unix:///dev/socket/olvand/spc";

    // Builds a plaintext channel to the daemon's fixed socket. Connects
    // nothing yet: the first call does.
    zemGRPCClient();

    // Same, with another target; for tests and tools only.
    explicit zemGRPCClient(const std::string& target);

    // Detaches the collector, cancels the command stream so that a pending
    // read returns, and joins the command-stream thread, or detaches it when
    // the destructor runs on that very thread.
    ~zemGRPCClient() override;

    zemGRPCClient(const zemGRPCClient&) = delete;
    zemGRPCClient& operator=(const zemGRPCClient&) = delete;

    // Registers `name` with major = version >> 8 and minor = version & 0xFF.
    // On transport success prints the token, stores it in `collector`, and
    // opens the command stream, whatever status the daemon answered; returns
    // that status. On transport failure returns the gRPC status code.
    int32_t registerClient(const std::string& name, uint32_t version,
                           zem_collector* collector) override;

    // Sends the whole file (empty when it cannot be read) with metadata
    // "clientid" = token; a file over 4 MiB, the most a daemon with gRPC's
    // default limits takes in one message, goes in parts cut between records.
    // Removes the file when every call succeeded and returns the daemon's
    // first nonzero status (or 0); otherwise logs, keeps the file and returns
    // the gRPC status code. Blocks for the transfer.
    int32_t sendData(const std::string& filename, const std::string& token) override;

    // Calls DeRegister with metadata "token" = token. Returns the gRPC status
    // code on failure, else the daemon's status. The command stream stays.
    int32_t deRegisterClient(const std::string& token) override;

    // After this returns no thread of this client calls `collector` again,
    // and every call to the daemon still in flight is cancelled (later ones
    // fail at once). Waits up to 2 seconds for a collector call in flight on
    // the command-stream thread, such as a campaign stop delivering its last
    // file, then cancels what holds it up.
    void forgetCollector(zem_collector* collector) override;

    // Opens the command stream with metadata "clientid" = the remembered
    // collector's token and starts its thread. Returns 0. Called by
    // registerClient; a stream opened earlier by this client is cancelled and
    // its thread ended without a LostConn call.
    int32_t CommandStream();

    // The target this client talks to.
    const std::string& getTarget() const { return target; }

    // The state shared with the command-stream thread (internal).
    struct Link;

  private:
    class StreamSession;

    void endSession();

    std::unique_ptr<olvan::SPC::Stub> stub;
    const std::string target;
    std::shared_ptr<grpc::Channel> channel;
    std::thread streamThread;
    std::shared_ptr<StreamSession> session;
    // The remembered collector and its lock, shared with the stream thread.
    std::shared_ptr<Link> link;
};
