// zemGRPCClient against an in-process olvan.SPC server on a Unix socket, with
// a collector whose campaign operations are replaced by recorders.
#include <grpcpp/grpcpp.h>

#include <deque>
#include <map>
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

using zem_test::TempDir;
using zem_test::waitFor;

using Metadata = std::multimap<std::string, std::string>;

Metadata copyMetadata(const grpc::ServerContext* context) {
    Metadata md;
    for (const auto& kv : context->client_metadata()) {
        const std::string key(kv.first.data(), kv.first.size());
        // gRPC adds its own keys (user-agent, ...); keep only ours.
        if (key == "clientid" || key == "token") {
            md.emplace(key, std::string(kv.second.data(), kv.second.size()));
        }
    }
    return md;
}

// A scriptable daemon: answers as configured and records every call.
class FakeDaemon final : public olvan::SPC::Service {
  public:
    grpc::Status Register(grpc::ServerContext*, const olvan::ClientInfo* request,
                          olvan::RegisterResponse* response) override {
        std::lock_guard<std::mutex> lock(mutex);
        registrations.push_back(*request);
        response->set_status(registerStatus);
        response->set_token(token);
        return grpc::Status::OK;
    }

    grpc::Status DeRegister(grpc::ServerContext* context, const olvan::Empty*,
                            olvan::Response* response) override {
        std::lock_guard<std::mutex> lock(mutex);
        deregistrations.push_back(copyMetadata(context));
        response->set_status(deregisterStatus);
        return grpc::Status::OK;
    }

    grpc::Status SendData(grpc::ServerContext* context, const olvan::Data* request,
                          olvan::Response* response) override {
        std::lock_guard<std::mutex> lock(mutex);
        deliveries.push_back({copyMetadata(context), *request});
        if (!sendError.ok() && deliveries.size() > sendErrorAfter) return sendError;
        response->set_status(sendStatus);
        return grpc::Status::OK;
    }

    grpc::Status CommandStream(grpc::ServerContext* context,
                               grpc::ServerReaderWriter<olvan::CommandRequest,
                                                        olvan::CommandResponse>* stream) override {
        std::unique_lock<std::mutex> lock(mutex);
        streamMetadata.push_back(copyMetadata(context));
        ++openStreams;
        cv.notify_all();
        lock.unlock();

        bool clientGone = false;  // guarded by mutex
        std::thread reader([this, stream, &clientGone] {
            olvan::CommandResponse response;
            while (stream->Read(&response)) {
                std::lock_guard<std::mutex> l(mutex);
                responses.push_back(response);
                cv.notify_all();
            }
            std::lock_guard<std::mutex> l(mutex);
            clientGone = true;
            cv.notify_all();
        });
        lock.lock();
        for (;;) {
            if (endStreams || clientGone) break;
            if (!commands.empty()) {
                olvan::CommandRequest c = commands.front();
                commands.pop_front();
                lock.unlock();
                stream->Write(c);
                lock.lock();
                continue;
            }
            cv.wait(lock);
        }
        --openStreams;
        lock.unlock();
        context->TryCancel();
        reader.join();
        return grpc::Status::OK;
    }

    void send(const olvan::CommandRequest& c) {
        std::lock_guard<std::mutex> lock(mutex);
        commands.push_back(c);
        cv.notify_all();
    }
    // Changes the daemon's behaviour under its lock: the handler threads read
    // it, and gRPC's hand-over of the call is invisible to race detectors.
    template <typename Fn>
    void behave(Fn fn) {
        std::lock_guard<std::mutex> lock(mutex);
        fn();
    }
    void endAllStreams() {
        std::lock_guard<std::mutex> lock(mutex);
        endStreams = true;
        cv.notify_all();
    }
    // Waits until `pred` holds under the lock; false after 10 seconds.
    template <typename Pred>
    bool waitUntil(Pred pred) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(10), pred);
    }

    std::mutex mutex;
    std::condition_variable cv;
    // Behaviour.
    int32_t registerStatus = 0;
    std::string token = "tok-1";
    int32_t deregisterStatus = 0;
    int32_t sendStatus = 0;
    grpc::Status sendError = grpc::Status::OK;
    size_t sendErrorAfter = 0;  // deliveries that succeed before sendError applies
    // Records.
    struct Delivery {
        Metadata metadata;
        olvan::Data data;
    };
    std::vector<olvan::ClientInfo> registrations;
    std::vector<Metadata> deregistrations;
    std::vector<Delivery> deliveries;
    std::vector<Metadata> streamMetadata;
    std::vector<olvan::CommandResponse> responses;
    std::deque<olvan::CommandRequest> commands;
    int openStreams = 0;
    bool endStreams = false;
};

class DaemonServer {
  public:
    explicit DaemonServer(const std::string& socket) : target("unix:" + socket) {
        grpc::ServerBuilder builder;
        builder.AddListeningPort(target, grpc::InsecureServerCredentials());
        builder.RegisterService(&daemon);
        server = builder.BuildAndStart();
        EXPECT_NE(server, nullptr);
    }
    ~DaemonServer() { stop(); }
    void stop() {
        if (!server) return;
        daemon.endAllStreams();
        server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(5));
        server.reset();
    }
    const std::string target;
    FakeDaemon daemon;
    std::unique_ptr<grpc::Server> server;
};

// A collector whose daemon-facing operations only record their calls.
class RecordingCollector : public zem_collector {
  public:
    explicit RecordingCollector(const std::string& cacheDir)
        : zem_collector(zem_cfg_s{"recorder", 0x0102, cacheDir.c_str(), nullptr, nullptr, 2}) {}

    int StartCampaign(const std::string& config) override {
        std::unique_lock<std::mutex> lock(mutex);
        events.push_back("start-entered");
        cv.notify_all();
        cv.wait(lock, [this] { return !holdStart; });
        configs.push_back(config);
        events.push_back("start-left");
        return startResult;
    }
    int StopCampaign() override {
        std::lock_guard<std::mutex> lock(mutex);
        ++stops;
        return stopResult;
    }
    int LostConn() override {
        std::function<void()> hook;
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++lostConns;
            hook = onLostConn;
        }
        if (hook) hook();
        return 0;
    }

    void record(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
    }
    void releaseStart() {
        std::lock_guard<std::mutex> lock(mutex);
        holdStart = false;
        cv.notify_all();
    }
    template <typename T>
    T read(const T& field) {
        std::lock_guard<std::mutex> lock(mutex);
        return field;
    }

    std::mutex mutex;
    std::condition_variable cv;
    bool holdStart = false;
    int startResult = 0;
    int stopResult = 0;
    std::vector<std::string> configs;
    std::vector<std::string> events;
    int stops = 0;
    int lostConns = 0;
    std::function<void()> onLostConn;
};

class GrpcClientTest : public ::testing::Test {
  protected:
    GrpcClientTest() : server(dir.file("spc.sock")), collector(dir.path()), daemon(server.daemon) {}

    // Registers a fresh client with the fake daemon; its stream is open when
    // this returns.
    std::shared_ptr<zemGRPCClient> registered(uint32_t version = 0x0102) {
        auto client = std::make_shared<zemGRPCClient>(server.target);
        int opened;
        {
            std::lock_guard<std::mutex> lock(daemon.mutex);
            opened = daemon.openStreams;
        }
        EXPECT_EQ(client->registerClient("recorder", version, &collector), 0);
        EXPECT_TRUE(daemon.waitUntil([&] { return daemon.openStreams == opened + 1; }));
        return client;
    }

    olvan::CommandRequest startCommand(const std::string& config, uint32_t seq) {
        olvan::CommandRequest c;
        c.set_seq_no(seq);
        c.mutable_startcampaign()->set_campaignconfig(config);
        return c;
    }

    size_t responseCount() {
        std::lock_guard<std::mutex> lock(daemon.mutex);
        return daemon.responses.size();
    }
    olvan::CommandResponse waitResponse(size_t index) {
        EXPECT_TRUE(daemon.waitUntil([&] { return daemon.responses.size() > index; }));
        std::lock_guard<std::mutex> lock(daemon.mutex);
        return index < daemon.responses.size() ? daemon.responses[index] : olvan::CommandResponse();
    }

    TempDir dir;
    DaemonServer server;
    RecordingCollector collector;
    FakeDaemon& daemon;
};

TEST_F(GrpcClientTest, RegistrationSplitsTheVersionStoresTheTokenAndOpensTheStream) {
    testing::internal::CaptureStdout();
    auto client = registered(0x0102);
    EXPECT_TRUE(waitFor([&] { return collector.getToken() == "tok-1"; }));
    client.reset();  // joins the stream thread, so its line has been written
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Token: tok-1\nRegister Client success\nwaiting for cmds .. \n");

    // Everything above the low byte is the major number.
    auto wide = std::make_shared<zemGRPCClient>(server.target);
    EXPECT_EQ(wide->registerClient("wide", 0x123456, &collector), 0);

    std::lock_guard<std::mutex> lock(daemon.mutex);
    ASSERT_EQ(daemon.registrations.size(), 2u);
    EXPECT_EQ(daemon.registrations[0].name(), "recorder");
    EXPECT_EQ(daemon.registrations[0].major(), 1);
    EXPECT_EQ(daemon.registrations[0].minor(), 2);
    EXPECT_EQ(daemon.registrations[0].features_size(), 0);
    EXPECT_EQ(daemon.registrations[1].major(), 0x1234);
    EXPECT_EQ(daemon.registrations[1].minor(), 0x56);
    // The stream carries the token under "clientid".
    EXPECT_EQ(daemon.streamMetadata[0], (Metadata{{"clientid", "tok-1"}}));
}

TEST_F(GrpcClientTest, RefusedRegistrationStillStoresTheTokenAndOpensTheStream) {
    daemon.behave([&] {
        daemon.registerStatus = 3;
        daemon.token = "tok-refused";
    });
    auto client = std::make_shared<zemGRPCClient>(server.target);
    testing::internal::CaptureStdout();
    EXPECT_EQ(client->registerClient("recorder", 1, &collector), 3);
    EXPECT_EQ(collector.getToken(), "tok-refused");
    EXPECT_TRUE(daemon.waitUntil([&] { return daemon.openStreams == 1; }));
    client.reset();
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Register Client success"),
              std::string::npos);
}

TEST_F(GrpcClientTest, UnreachableDaemonGivesTheStatusCodeAndChangesNothing) {
    server.stop();
    auto client = std::make_shared<zemGRPCClient>(server.target);
    testing::internal::CaptureStdout();
    EXPECT_EQ(client->registerClient("recorder", 1, &collector), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(collector.getToken(), "");

    const std::string file = dir.file("kpidata.1");
    zem_test::writeFile(file, "\x08\x01");
    EXPECT_EQ(client->sendData(file, "tok"), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(zem_test::readFile(file), "\x08\x01");
    EXPECT_EQ(client->deRegisterClient("tok"), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(GrpcClientTest, SentFileIsRemovedWhenTheTransportSucceedsWhateverTheStatus) {
    auto client = std::make_shared<zemGRPCClient>(server.target);
    std::string bytes("\x08\x01\x12\x02\x0a\x00", 6);
    bytes += std::string(100000, '\x7f');  // larger than one socket buffer
    const std::string file = dir.file("kpidata.100");
    zem_test::writeFile(file, bytes);

    daemon.behave([&] { daemon.sendStatus = 9; });
    EXPECT_EQ(client->sendData(file, "tok-1"), 9);
    EXPECT_NE(access(file.c_str(), F_OK), 0);

    // A file that cannot be read is sent empty; the daemon's status comes back.
    daemon.behave([&] { daemon.sendStatus = 0; });
    EXPECT_EQ(client->sendData(dir.file("kpidata.missing"), "tok-1"), 0);

    std::lock_guard<std::mutex> lock(daemon.mutex);
    ASSERT_EQ(daemon.deliveries.size(), 2u);
    EXPECT_EQ(daemon.deliveries[0].data.data(), bytes);
    EXPECT_EQ(daemon.deliveries[0].data.filename(), "");
    EXPECT_EQ(daemon.deliveries[0].metadata, (Metadata{{"clientid", "tok-1"}}));
    EXPECT_EQ(daemon.deliveries[1].data.data(), "");
}

TEST_F(GrpcClientTest, FailedSendKeepsTheFileAndLogsTheReason) {
    auto client = std::make_shared<zemGRPCClient>(server.target);
    const std::string file = dir.file("kpidata.7");
    zem_test::writeFile(file, "\x08\x01");
    daemon.behave([&] {
        daemon.sendError = grpc::Status(grpc::StatusCode::RESOURCE_EXHAUSTED, "disk full");
    });

    zem_test::LogCapture log;
    EXPECT_EQ(client->sendData(file, "tok-1"), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(zem_test::countLogLines(log.text(), 'E', "SendData failed: disk full"), 1);
    EXPECT_EQ(zem_test::readFile(file), "\x08\x01");
}

TEST_F(GrpcClientTest, FilesOverTheDefaultReceiveLimitGoInPartsThatMergeIntoTheFile) {
    // The fake daemon keeps gRPC's default 4 MiB receive limit.
    auto client = std::make_shared<zemGRPCClient>(server.target);
    std::string image("\x08\x01", 2);
    for (uint32_t i = 0; image.size() < 9 * 1024 * 1024; ++i) {
        olvan::KPIData rec;
        olvan::Counter* c = rec.add_counters();
        c->mutable_meta()->set_id(i);
        c->set_value(i);
        image += rec.SerializeAsString();
    }
    const std::string file = dir.file("kpidata.200");

    // A part refused after the first: the file stays whole, one ERROR line.
    zem_test::writeFile(file, image);
    daemon.behave([&] {
        daemon.sendError = grpc::Status(grpc::StatusCode::UNAVAILABLE, "going away");
        daemon.sendErrorAfter = 1;
    });
    {
        zem_test::LogCapture log;
        EXPECT_EQ(client->sendData(file, "tok-1"), grpc::StatusCode::UNAVAILABLE);
        EXPECT_EQ(zem_test::countLogLines(log.text(), 'E', "SendData failed: going away"), 1);
    }
    EXPECT_EQ(zem_test::readFile(file), image);

    daemon.behave([&] {
        daemon.sendError = grpc::Status::OK;
        daemon.deliveries.clear();
    });
    EXPECT_EQ(client->sendData(file, "tok-1"), 0);
    EXPECT_NE(access(file.c_str(), F_OK), 0);
    std::lock_guard<std::mutex> lock(daemon.mutex);
    ASSERT_EQ(daemon.deliveries.size(), 3u);
    olvan::KPIData whole, merged;
    ASSERT_TRUE(whole.ParseFromString(image));
    for (const auto& d : daemon.deliveries) {
        olvan::KPIData part;
        ASSERT_TRUE(part.ParseFromString(d.data.data()));
        EXPECT_EQ(part.version(), olvan::V1);
        merged.MergeFrom(part);
    }
    EXPECT_EQ(merged.SerializeAsString(), whole.SerializeAsString());
}

TEST_F(GrpcClientTest, DeregistrationCarriesTheTokenUnderItsOwnKey) {
    auto client = std::make_shared<zemGRPCClient>(server.target);
    daemon.behave([&] { daemon.deregisterStatus = 4; });
    EXPECT_EQ(client->deRegisterClient("tok-9"), 4);
    std::lock_guard<std::mutex> lock(daemon.mutex);
    ASSERT_EQ(daemon.deregistrations.size(), 1u);
    EXPECT_EQ(daemon.deregistrations[0], (Metadata{{"token", "tok-9"}}));
}

TEST_F(GrpcClientTest, CommandsReachTheCollectorAndAreAnsweredWithSeqZero) {
    collector.startResult = 5;
    collector.stopResult = -7;
    auto client = registered();
    testing::internal::CaptureStdout();

    const std::string config("\x0a\x00\xff campaign", 11);
    daemon.send(startCommand(config, 9));
    const olvan::CommandResponse started = waitResponse(0);
    EXPECT_EQ(started.seq_no(), 0u);
    EXPECT_EQ(started.status(), 5);

    // Collection commands are refused without touching the collector, and an
    // empty command is read but not answered.
    olvan::CommandRequest collect;
    collect.set_seq_no(3);
    collect.mutable_startcollection()->add_counters("cpu");
    daemon.send(collect);
    olvan::CommandRequest uncollect;
    uncollect.mutable_stopcollection()->add_counters("cpu");
    daemon.send(uncollect);
    daemon.send(olvan::CommandRequest());
    olvan::CommandRequest stop;
    stop.set_seq_no(7);
    stop.mutable_stopcampaign()->set_campaignid(2);
    daemon.send(stop);

    EXPECT_EQ(waitResponse(1).status(), -1);
    EXPECT_EQ(waitResponse(2).status(), -1);
    const olvan::CommandResponse stopped = waitResponse(3);
    EXPECT_EQ(stopped.seq_no(), 0u);
    EXPECT_EQ(stopped.status(), -7);

    client.reset();
    EXPECT_EQ(responseCount(), 4u);
    EXPECT_EQ(collector.read(collector.configs), std::vector<std::string>{config});
    EXPECT_EQ(collector.read(collector.stops), 1);
    EXPECT_EQ(collector.read(collector.lostConns), 0);
    // The stream thread's first line may precede or follow the capture's start.
    std::string out = testing::internal::GetCapturedStdout();
    out.erase(0, out.find("received cmd: "));
    EXPECT_EQ(out,
              "received cmd: startCampaign\n"
              "received cmd: received cmd: received cmd: received cmd: stopCampaign\n");
}

TEST_F(GrpcClientTest, EndOfTheStreamIsReportedExactlyOnce) {
    auto client = registered();
    daemon.endAllStreams();
    EXPECT_TRUE(waitFor([&] { return collector.read(collector.lostConns) == 1; }));
    client.reset();  // joins the stream thread: no further report can come
    EXPECT_EQ(collector.read(collector.lostConns), 1);
}

TEST_F(GrpcClientTest, DaemonExitIsReportedExactlyOnce) {
    auto client = registered();
    server.stop();
    EXPECT_TRUE(waitFor([&] { return collector.read(collector.lostConns) == 1; }));
    client.reset();
    EXPECT_EQ(collector.read(collector.lostConns), 1);
}

TEST_F(GrpcClientTest, DestroyingAClientWithAnIdleStreamNeitherHangsNorReports) {
    auto client = registered();
    client.reset();  // the stream thread is waiting in a read
    EXPECT_EQ(collector.read(collector.lostConns), 0);
    // The daemon sees the stream go away.
    EXPECT_TRUE(daemon.waitUntil([&] { return daemon.openStreams == 0; }));
}

TEST_F(GrpcClientTest, CollectorMayReleaseTheClientFromItsOwnLostConn) {
    auto client = registered();
    std::weak_ptr<zemGRPCClient> weak = client;
    bool released = false;
    {
        // The stream thread reads the hook under this lock; the daemon ending
        // the stream orders the two only through gRPC's sockets, which the
        // thread sanitizer cannot see.
        std::lock_guard<std::mutex> lock(collector.mutex);
        collector.onLostConn = [&] {
            client.reset();  // the last reference, dropped on the stream thread
            std::lock_guard<std::mutex> lock(collector.mutex);
            released = weak.expired();
        };
    }
    daemon.endAllStreams();
    EXPECT_TRUE(waitFor([&] { return collector.read(collector.lostConns) == 1; }));
    EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
    EXPECT_TRUE(waitFor([&] {
        std::lock_guard<std::mutex> lock(collector.mutex);
        return released;
    }));
}

TEST_F(GrpcClientTest, ForgetCollectorWaitsForACallInFlightAndBlocksLaterOnes) {
    auto client = registered();
    {
        std::lock_guard<std::mutex> lock(collector.mutex);
        collector.holdStart = true;
    }
    daemon.send(startCommand("x", 1));
    EXPECT_TRUE(waitFor([&] { return !collector.read(collector.events).empty(); }));

    std::thread forgetter([&] {
        client->forgetCollector(&collector);
        collector.record("forgotten");
    });
    // Give forgetCollector every chance to return early if it did not wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    collector.releaseStart();
    forgetter.join();
    EXPECT_EQ(collector.read(collector.events),
              (std::vector<std::string>{"start-entered", "start-left", "forgotten"}));

    // A forgotten collector is not called: the command is answered -1.
    olvan::CommandRequest stop;
    stop.mutable_stopcampaign();
    daemon.send(stop);
    EXPECT_EQ(waitResponse(1).status(), -1);
    daemon.endAllStreams();
    client.reset();
    EXPECT_EQ(collector.read(collector.stops), 0);
    EXPECT_EQ(collector.read(collector.lostConns), 0);
}

}  // namespace
