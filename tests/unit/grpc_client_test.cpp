// zemGRPCClient against an in-process olvan.SPC daemon on a Unix socket, with
// a collector whose daemon-facing operations only record their calls.
#include <grpcpp/grpcpp.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestUtil.h"
#include "collector/zem_collector.h"
#include "metric.pb.h"
#include "spc.grpc.pb.h"
#include "transport/zemGRPCClient.h"

namespace {

using Strings = std::vector<std::string>;

// The call's metadata under our own keys as " key=value"; gRPC adds others
// (user-agent, ...).
std::string ours(const grpc::ServerContext* context) {
    std::string md;
    for (const auto& kv : context->client_metadata()) {
        const std::string key(kv.first.data(), kv.first.size());
        if (key == "clientid" || key == "token") {
            md += " " + key + "=" + std::string(kv.second.data(), kv.second.size());
        }
    }
    return md;
}

// The daemon of every case: answers as its switches say and records every
// call in `calls` as a line of text. Switches and records are guarded by `mutex`: gRPC's hand-over
// of a call to its handler thread is invisible to race detectors.
class FakeDaemon final : public olvan::SPC::Service {
  public:
    using Stream = grpc::ServerReaderWriter<olvan::CommandRequest, olvan::CommandResponse>;

    grpc::Status Register(grpc::ServerContext*, const olvan::ClientInfo* request,
                          olvan::RegisterResponse* response) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back("Register " + request->name() + " " + std::to_string(request->major()) +
                        "." + std::to_string(request->minor()) +
                        (request->features_size() != 0 ? " with features" : ""));
        response->set_status(registerStatus);
        response->set_token(token);
        return grpc::Status::OK;
    }

    grpc::Status DeRegister(grpc::ServerContext* context, const olvan::Empty*,
                            olvan::Response* response) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back("DeRegister" + ours(context));
        response->set_status(deregisterStatus);
        return grpc::Status::OK;
    }

    grpc::Status SendData(grpc::ServerContext* context, const olvan::Data* request,
                          olvan::Response* response) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back("SendData" + ours(context) + (request->filename().empty() ? "" : " named"));
        deliveries.push_back(request->data());
        if (!sendError.ok() && deliveries.size() > sendErrorAfter) return sendError;
        response->set_status(sendStatus);
        return grpc::Status::OK;
    }

    // Records the responses until the client or the daemon ends the stream;
    // commands are written by send() from the test's thread.
    grpc::Status CommandStream(grpc::ServerContext* context, Stream* stream) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            calls.push_back("CommandStream" + ours(context));
            open.emplace_back(context, stream);
            cv.notify_all();
        }
        olvan::CommandResponse response;
        while (stream->Read(&response)) {
            std::lock_guard<std::mutex> lock(mutex);
            responses.emplace_back(response.seq_no(), response.status());
            cv.notify_all();
        }
        std::lock_guard<std::mutex> lock(mutex);
        open.erase(std::find(open.begin(), open.end(), std::make_pair(context, stream)));
        cv.notify_all();
        return grpc::Status::OK;
    }

    // Writes `command` on the stream opened last.
    void send(const olvan::CommandRequest& command) {
        std::lock_guard<std::mutex> lock(mutex);
        ASSERT_FALSE(open.empty());
        open.back().second->Write(command);
    }
    // Ends every open stream and waits until their handlers have returned.
    void endAllStreams() {
        std::unique_lock<std::mutex> lock(mutex);
        for (const auto& s : open) s.first->TryCancel();
        EXPECT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return open.empty(); }));
    }
    // Runs `fn` (a switch change or a read of the records) under the lock.
    template <typename Fn>
    auto locked(Fn fn) {
        std::lock_guard<std::mutex> lock(mutex);
        return fn();
    }
    // Waits until `pred` holds under the lock; false after 10 seconds.
    template <typename Pred>
    bool waitUntil(Pred pred) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(10), pred);
    }

    std::mutex mutex;
    std::condition_variable cv;
    // Switches.
    int32_t registerStatus = 0;
    std::string token = "tok-1";
    int32_t deregisterStatus = 0;
    int32_t sendStatus = 0;
    grpc::Status sendError = grpc::Status::OK;
    size_t sendErrorAfter = 0;  // deliveries that succeed before sendError applies
    // Records.
    Strings calls;
    Strings deliveries;                                   // the bytes of each SendData
    std::vector<std::pair<uint32_t, int32_t>> responses;  // seq_no, status
    std::vector<std::pair<grpc::ServerContext*, Stream*>> open;
};

// A collector whose daemon-facing operations only record their calls as
// events: "start <config>" and "started", "stop", "lost". Starting a
// campaign returns 5, stopping it -7. Like a real collector, it may own its
// client and drop it when the connection is lost.
class RecordingCollector : public zem_collector {
  public:
    explicit RecordingCollector(const std::string& cacheDir)
        : zem_collector(zem_cfg_s{"recorder", 0x0102, cacheDir.c_str(), nullptr, nullptr, 2}) {}

    // Waits while held between its two events.
    int StartCampaign(const std::string& config) override {
        record("start " + config);
        EXPECT_TRUE(zem_test::waitFor([this] { return !holdStart; }));
        record("started");
        return 5;
    }
    int StopCampaign() override {
        record("stop");
        return -7;
    }
    int LostConn() override {
        std::shared_ptr<zemGRPCClient> dropped;
        {
            std::lock_guard<std::mutex> lock(mutex);
            events.push_back("lost");
            dropped.swap(client);
        }
        return 0;  // the last reference destroys the client here, on its own thread
    }

    void record(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
    }
    Strings read() {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }

    std::mutex mutex;
    std::atomic<bool> holdStart{false};
    Strings events;
    std::shared_ptr<zemGRPCClient> client;
};

class GrpcClientTest : public ::testing::Test {
  protected:
    GrpcClientTest() : target("unix:" + dir.file("spc.sock")), collector(dir.path()) {
        grpc::ServerBuilder builder;
        builder.AddListeningPort(target, grpc::InsecureServerCredentials());
        builder.RegisterService(&daemon);
        server = builder.BuildAndStart();
        EXPECT_NE(server, nullptr);
    }
    ~GrpcClientTest() override { stopServer(); }

    // The daemon exits: its streams end, then the server.
    void stopServer() {
        if (!server) return;
        daemon.endAllStreams();
        server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(5));
        server.reset();
    }

    // Registers a fresh client with the fake daemon, expecting `status`; the
    // daemon serves its stream when this returns (its two calls are recorded).
    std::shared_ptr<zemGRPCClient> registered(uint32_t version = 0x0102, int32_t status = 0) {
        auto client = std::make_shared<zemGRPCClient>(target);
        const size_t before = daemon.locked([&] { return daemon.calls.size(); });
        EXPECT_EQ(client->registerClient("recorder", version, &collector), status);
        EXPECT_TRUE(daemon.waitUntil([&] { return daemon.calls.size() == before + 2; }));
        return client;
    }

    // The daemon's record of answers (seq_no, status) once it holds `n`.
    std::vector<std::pair<uint32_t, int32_t>> answers(size_t n) {
        EXPECT_TRUE(daemon.waitUntil([&] { return daemon.responses.size() >= n; }));
        return daemon.locked([&] { return daemon.responses; });
    }

    zem_test::TempDir dir;
    const std::string target;
    FakeDaemon daemon;
    std::unique_ptr<grpc::Server> server;
    RecordingCollector collector;
};

TEST_F(GrpcClientTest, RegistrationStoresTheTokenAndOpensTheStreamWhateverTheStatus) {
    struct Row {
        uint32_t version;
        int32_t status;
        std::string token;
    };
    // Everything above the low byte is the major number; a refused
    // registration still stores the token and opens the stream.
    const Row rows[] = {{0x0102, 0, "tok-1"}, {0x123456, 3, "tok-refused"}};
    for (const Row& row : rows) {
        daemon.locked([&] {
            daemon.registerStatus = row.status;
            daemon.token = row.token;
        });
        testing::internal::CaptureStdout();
        registered(row.version, row.status).reset();  // joins the stream thread and its line
        EXPECT_EQ(collector.getToken(), row.token);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Token: " + row.token + "\nRegister Client success\nwaiting for cmds .. \n");
    }
    // Deregistration carries the token under its own key.
    daemon.locked([&] { daemon.deregisterStatus = 4; });
    EXPECT_EQ(zemGRPCClient(target).deRegisterClient("tok-9"), 4);
    // 0x123456 is major 0x1234, minor 0x56; the stream carries the token.
    EXPECT_EQ(daemon.locked([&] { return daemon.calls; }),
              (Strings{"Register recorder 1.2", "CommandStream clientid=tok-1",
                       "Register recorder 4660.86", "CommandStream clientid=tok-refused",
                       "DeRegister token=tok-9"}));
}

TEST_F(GrpcClientTest, SentFileIsRemovedOnlyWhenEveryPartWasDelivered) {
    // Over gRPC's default 4 MiB receive limit, which the fake daemon keeps.
    std::string image("\x08\x01", 2);
    for (uint32_t i = 0; image.size() < 9 * 1024 * 1024; ++i) {
        olvan::KPIData rec;
        rec.add_counters()->mutable_meta()->set_id(i);
        image += rec.SerializeAsString();
    }
    struct Row {
        std::string bytes;  // no file when empty
        grpc::Status error;
        size_t errorAfter;
        int32_t status;  // the daemon's answer when the call succeeds
        size_t calls;
    };
    const Row rows[] = {
            // A file that cannot be read is sent empty.
            {"", {}, 0, 0, 1},
            // A failed call, even on a part after the first, keeps the file
            // whole and logs the reason.
            {"\x08\x01", {grpc::StatusCode::RESOURCE_EXHAUSTED, "disk full"}, 0, 0, 1},
            {image, {grpc::StatusCode::UNAVAILABLE, "going away"}, 1, 0, 2},
            // Delivered: the file goes whatever status the daemon answers.
            {image, {}, 0, 9, 3},
    };
    zemGRPCClient client(target);
    const std::string file = dir.file("kpidata.1");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.bytes.size());
        if (!row.bytes.empty()) zem_test::writeFile(file, row.bytes);
        daemon.locked([&] {
            daemon.sendError = row.error;
            daemon.sendErrorAfter = row.errorAfter;
            daemon.sendStatus = row.status;
            daemon.deliveries.clear();
            daemon.calls.clear();
        });
        zem_test::LogCapture log;
        EXPECT_EQ(client.sendData(file, "tok-1"),
                  row.error.ok() ? row.status : row.error.error_code());
        const Strings logged{"SendData failed: " + row.error.error_message()};
        EXPECT_EQ(zem_test::logMessages(log.text(), 'E'), row.error.ok() ? Strings{} : logged);
        // Removed, or kept whole (not compared in the message: 9 MiB).
        EXPECT_TRUE(row.error.ok() ? access(file.c_str(), F_OK) != 0
                                   : zem_test::readFile(file) == row.bytes);

        std::lock_guard<std::mutex> lock(daemon.mutex);
        EXPECT_EQ(daemon.calls, Strings(row.calls, "SendData clientid=tok-1"));
        if (row.calls == 1) {
            EXPECT_EQ(daemon.deliveries, Strings{row.bytes});
        }
    }

    // The last row's parts are cache file images that merge into the file.
    std::lock_guard<std::mutex> lock(daemon.mutex);
    olvan::KPIData whole, merged, part;
    ASSERT_TRUE(whole.ParseFromString(image));
    for (const std::string& bytes : daemon.deliveries) {
        ASSERT_TRUE(part.ParseFromString(bytes));
        EXPECT_EQ(part.version(), olvan::V1);
        merged.MergeFrom(part);
    }
    EXPECT_EQ(merged.SerializeAsString(), whole.SerializeAsString());
}

TEST_F(GrpcClientTest, CommandsReachTheCollectorUntilItIsForgotten) {
    testing::internal::CaptureStdout();
    auto client = registered();

    // Collection commands are refused without touching the collector, an
    // empty command is read but not answered, and every answer carries
    // seq_no 0.
    const std::string config("\x0a\x00\xff campaign", 11);
    olvan::CommandRequest start, collect, uncollect, empty, stop;
    start.set_seq_no(9);
    start.mutable_startcampaign()->set_campaignconfig(config);
    collect.mutable_startcollection()->add_counters("cpu");
    uncollect.mutable_stopcollection()->add_counters("cpu");
    stop.set_seq_no(7);
    stop.mutable_stopcampaign()->set_campaignid(2);
    for (const auto* c : {&start, &collect, &uncollect, &empty, &stop}) daemon.send(*c);
    using Answers = std::vector<std::pair<uint32_t, int32_t>>;
    EXPECT_EQ(answers(4), (Answers{{0, 5}, {0, -1}, {0, -1}, {0, -7}}));
    EXPECT_EQ(collector.read(), (Strings{"start " + config, "started", "stop"}));

    // forgetCollector waits for a call in flight; a forgotten collector is
    // called no more: its commands are answered -1, the stream's end is not
    // reported to it.
    collector.holdStart = true;
    daemon.send(start);
    EXPECT_TRUE(zem_test::waitFor([&] { return collector.read().size() == 4; }));
    std::thread forgetter([&] {
        client->forgetCollector(&collector);
        collector.record("forgotten");
    });
    // Give forgetCollector every chance to return early if it did not wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    collector.holdStart = false;
    forgetter.join();
    daemon.send(stop);
    EXPECT_EQ(answers(6), (Answers{{0, 5}, {0, -1}, {0, -1}, {0, -7}, {0, 5}, {0, -1}}));
    daemon.endAllStreams();
    client.reset();  // joins the stream thread
    EXPECT_EQ(collector.read(), (Strings{"start " + config, "started", "stop", "start " + config,
                                         "started", "forgotten"}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Token: tok-1\nRegister Client success\nwaiting for cmds .. \n"
              "received cmd: startCampaign\n"
              "received cmd: received cmd: received cmd: received cmd: stopCampaign\n"
              "received cmd: startCampaign\nreceived cmd: stopCampaign\n");
}

TEST_F(GrpcClientTest, EndOfTheStreamIsReportedOnceUnlessTheClientEndedIt) {
    // Destroying a client whose stream is idle in a read neither hangs nor
    // reports; the daemon sees the stream go away.
    registered().reset();
    EXPECT_TRUE(daemon.waitUntil([&] { return daemon.open.empty(); }));

    // The daemon ends the stream; the collector may drop the last reference
    // to the client from LostConn, on the stream thread.
    auto client = registered();
    std::weak_ptr<zemGRPCClient> weak = client;
    {
        std::lock_guard<std::mutex> lock(collector.mutex);
        collector.client.swap(client);
    }
    daemon.endAllStreams();
    EXPECT_TRUE(zem_test::waitFor([&] { return weak.expired(); }));
    EXPECT_EQ(collector.read(), Strings{"lost"});

    // The daemon exits: one report.
    client = registered();
    stopServer();
    EXPECT_TRUE(zem_test::waitFor([&] { return collector.read().size() == 2; }));
    client.reset();  // joins the stream thread: no further report can come
    EXPECT_EQ(collector.read(), (Strings{"lost", "lost"}));

    // Calls to a daemon that is gone give the status code, print nothing and
    // leave the token and the file as they were.
    client = std::make_shared<zemGRPCClient>(target);
    testing::internal::CaptureStdout();
    EXPECT_EQ(client->registerClient("recorder", 1, &collector), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(collector.getToken(), "tok-1");
    const std::string file = dir.file("kpidata.1");
    zem_test::writeFile(file, "\x08\x01");
    EXPECT_EQ(client->sendData(file, "tok"), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(zem_test::readFile(file), "\x08\x01");
    EXPECT_EQ(client->deRegisterClient("tok"), grpc::StatusCode::UNAVAILABLE);
}

}  // namespace
