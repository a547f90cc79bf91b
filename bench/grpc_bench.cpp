// The gRPC transport's delivery path, against an in-process daemon on a Unix
// socket that stores every delivered file:
//  - StopToDelivered: from the daemon writing stopCampaign to the daemon
//    holding the campaign's last cache file (4 KiB and 4 MiB files): the
//    collector's stop, the serializer's drain and flush, the read, the send,
//    the daemon's store;
//  - SendData beside a plain Unix socket: the same file read, sent, stored
//    and removed, once through zemGRPCClient::sendData and once as a length
//    prefix and the raw bytes over a connected stream socket, in the same
//    iteration; counters give both rates in MB/s and their ratio.
#include <benchmark/benchmark.h>
#include <grpcpp/grpcpp.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "collector/CollectorSeams.h"
#include "collector/zem_collector.h"
#include "spc.grpc.pb.h"
#include "transport/zemGRPCClient.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string makeDir() {
    char tmpl[] = "/tmp/zem_grpc_bench.XXXXXX";
    const char* d = mkdtemp(tmpl);
    if (d == nullptr) abort();
    return d;
}

void removeDir(const std::string& dir) {
    const std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) abort();
}

// Always a new file: ext4 forces the data of a file truncated by open() out
// to disk when it is closed, which would dominate small deliveries.
void writeFile(const std::string& path, const std::string& bytes) {
    remove(path.c_str());
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) abort();
    fclose(f);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    std::string s(static_cast<size_t>(in.tellg()), '\0');
    in.seekg(0);
    in.read(&s[0], static_cast<std::streamsize>(s.size()));
    return s;
}

// The daemon side: stores delivered files, pushes queued commands on every
// open stream and counts the responses.
class BenchDaemon final : public olvan::SPC::Service {
  public:
    explicit BenchDaemon(std::string dir) : dir(std::move(dir)) {}

    grpc::Status Register(grpc::ServerContext*, const olvan::ClientInfo*,
                          olvan::RegisterResponse* r) override {
        r->set_token("bench");
        return grpc::Status::OK;
    }
    grpc::Status DeRegister(grpc::ServerContext*, const olvan::Empty*, olvan::Response*) override {
        return grpc::Status::OK;
    }
    grpc::Status SendData(grpc::ServerContext*, const olvan::Data* request,
                          olvan::Response*) override {
        writeFile(dir + "/delivered", request->data());
        std::lock_guard<std::mutex> lock(mutex);
        ++delivered;
        lastSize = request->data().size();
        cv.notify_all();
        return grpc::Status::OK;
    }
    grpc::Status CommandStream(grpc::ServerContext* context,
                               grpc::ServerReaderWriter<olvan::CommandRequest,
                                                        olvan::CommandResponse>* stream) override {
        std::unique_lock<std::mutex> lock(mutex);
        ++streams;
        cv.notify_all();
        lock.unlock();
        std::thread reader([this, stream] {
            olvan::CommandResponse r;
            while (stream->Read(&r)) {
                std::lock_guard<std::mutex> l(mutex);
                ++responses;
                cv.notify_all();
            }
        });
        lock.lock();
        while (!stopping) {
            if (commands.empty()) {
                cv.wait(lock);
                continue;
            }
            olvan::CommandRequest c = commands.front();
            commands.pop_front();
            // The time of the write is where StopToDelivered starts.
            sentAt = Clock::now();
            lock.unlock();
            stream->Write(c);
            lock.lock();
        }
        lock.unlock();
        context->TryCancel();
        reader.join();
        return grpc::Status::OK;
    }

    void push(const olvan::CommandRequest& c) {
        std::lock_guard<std::mutex> lock(mutex);
        commands.push_back(c);
        cv.notify_all();
    }
    template <typename T>
    T get(const T& field) {
        std::lock_guard<std::mutex> lock(mutex);
        return field;
    }
    template <typename Pred>
    void waitFor(Pred pred) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!cv.wait_for(lock, std::chrono::seconds(30), pred)) abort();
    }
    void stop() {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        cv.notify_all();
    }

    const std::string dir;
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<olvan::CommandRequest> commands;
    int streams = 0;
    int responses = 0;
    int delivered = 0;
    size_t lastSize = 0;
    bool stopping = false;
    Clock::time_point sentAt;  // when the last command went out
};

class Daemon {
  public:
    Daemon() : dir(makeDir()), target("unix:" + dir + "/spc.sock"), service(dir) {
        grpc::ServerBuilder builder;
        builder.AddListeningPort(target, grpc::InsecureServerCredentials());
        builder.SetMaxReceiveMessageSize(64 << 20);
        builder.RegisterService(&service);
        server = builder.BuildAndStart();
        if (!server) abort();
    }
    ~Daemon() {
        service.stop();
        server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
        removeDir(dir);
    }
    const std::string dir;
    const std::string target;
    BenchDaemon service;
    std::unique_ptr<grpc::Server> server;
};

olvan::CommandRequest blobCampaign() {
    LTCCampaignDef def;
    KPICfg* k = def.add_kpicfgs();
    k->set_id(1);
    k->set_type(KPI_BLOB);
    k->mutable_b_cfg()->set_singlesamplesizetresholdbytes(524288);
    k->set_nof_samples(1);  // every blob is a record of its own
    def.set_size_threshold(4194304);
    def.set_time_threshold(60);
    olvan::CommandRequest c;
    def.SerializeToString(c.mutable_startcampaign()->mutable_campaignconfig());
    return c;
}

off_t fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

void BM_StopToDelivered(benchmark::State& state) {
    const size_t target = static_cast<size_t>(state.range(0));
    Daemon daemon;
    const std::string cache = daemon.dir + "/cache";
    mkdir(cache.c_str(), 0755);
    const std::string socketTarget = daemon.target;
    zem::internal::setTransportFactory(
            [socketTarget](uint32_t) { return std::make_shared<zemGRPCClient>(socketTarget); });
    zem_cfg_s cfg{"bench", 0x0100, cache.c_str(), nullptr, nullptr, 2};
    auto collector = std::make_unique<zem_collector>(cfg);
    collector->Register();
    daemon.service.waitFor([&] { return daemon.service.streams == 1; });

    // Blobs of up to 64 KiB, each a record of its own, as many as fill the
    // file to about the target size.
    const size_t blob = std::min<size_t>(65536, target / 16);
    const std::string payload(blob, 'z');
    olvan::KPIData sample;
    auto* b = sample.add_blobs();
    b->mutable_meta()->set_id(1);
    b->mutable_meta()->set_ts_start(123456);
    b->mutable_meta()->set_ts_end(123456);
    b->mutable_meta()->set_nof_samples(1);
    b->set_data(payload);
    const size_t record = sample.ByteSizeLong();
    const size_t count = (target - 2) / record;
    olvan::CommandRequest stop;
    stop.mutable_stopcampaign();

    int responses = 0;
    for (auto _ : state) {
        daemon.service.push(blobCampaign());
        daemon.service.waitFor([&] { return daemon.service.responses == responses + 1; });
        for (size_t i = 0; i < count; ++i) {
            collector->Log(1, reinterpret_cast<const unsigned char*>(payload.data()),
                           static_cast<uint32_t>(payload.size()));
        }
        // Everything logged is on disk before the clock starts.
        const std::string file = collector->getSerializer().GetCurrFileName();
        const off_t expected = static_cast<off_t>(count * (record - 4));
        while (fileSize(file) < expected)
            std::this_thread::sleep_for(std::chrono::microseconds(50));

        const int delivered = daemon.service.get(daemon.service.delivered);
        daemon.service.push(stop);
        daemon.service.waitFor([&] { return daemon.service.delivered == delivered + 1; });
        const auto end = Clock::now();
        state.SetIterationTime(
                std::chrono::duration<double>(end - daemon.service.get(daemon.service.sentAt))
                        .count());
        daemon.service.waitFor([&] { return daemon.service.responses == responses + 2; });
        responses += 2;
    }
    state.counters["file_bytes"] = static_cast<double>(daemon.service.get(daemon.service.lastSize));
    collector.reset();
    zem::internal::setTransportFactory(nullptr);
}
BENCHMARK(BM_StopToDelivered)
        ->Arg(4096)
        ->Arg(4 << 20)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);

// A plain stream-socket receiver: length, bytes, store, one byte of answer.
class RawReceiver {
  public:
    explicit RawReceiver(const std::string& dir) : path(dir + "/raw.sock"), dir(dir) {
        listenFd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        if (bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listenFd, 1) != 0) {
            abort();
        }
        thread = std::thread([this] { serve(); });
        fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) abort();
    }
    ~RawReceiver() {
        close(fd);
        thread.join();
        close(listenFd);
    }

    // Reads the file, sends it, waits for the answer, removes the file.
    void send(const std::string& file) {
        const std::string bytes = readFile(file);
        uint64_t n = bytes.size();
        // One writev, so the receiver wakes once for small files.
        iovec iov[2] = {{&n, sizeof n}, {const_cast<char*>(bytes.data()), bytes.size()}};
        const ssize_t w = writev(fd, iov, 2);
        if (w < static_cast<ssize_t>(sizeof n) ||
            !writeAll(fd, bytes.data() + (static_cast<size_t>(w) - sizeof n),
                      bytes.size() - (static_cast<size_t>(w) - sizeof n))) {
            abort();
        }
        char ack;
        if (read(fd, &ack, 1) != 1) abort();
        remove(file.c_str());
    }

  private:
    static bool writeAll(int fd, const void* p, size_t n) {
        const char* c = static_cast<const char*>(p);
        while (n > 0) {
            const ssize_t w = write(fd, c, n);
            if (w <= 0) return false;
            c += w;
            n -= static_cast<size_t>(w);
        }
        return true;
    }
    static bool readAll(int fd, void* p, size_t n) {
        char* c = static_cast<char*>(p);
        while (n > 0) {
            const ssize_t r = read(fd, c, n);
            if (r <= 0) return false;
            c += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }
    void serve() {
        const int c = accept(listenFd, nullptr, nullptr);
        uint64_t n;
        std::string buf;
        while (readAll(c, &n, sizeof n)) {
            buf.resize(n);
            if (!readAll(c, &buf[0], n)) break;
            writeFile(dir + "/raw-delivered", buf);
            const char ack = 0;
            if (write(c, &ack, 1) != 1) break;
        }
        close(c);
    }

    const std::string path, dir;
    int listenFd = -1, fd = -1;
    std::thread thread;
};

void BM_SendDataVsUnixSocket(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    Daemon daemon;
    RawReceiver raw(daemon.dir);
    zemGRPCClient client(daemon.target);
    const std::string file = daemon.dir + "/kpidata.1";
    const std::string bytes(size, 'k');

    double grpcSeconds = 0, rawSeconds = 0;
    for (auto _ : state) {
        writeFile(file, bytes);
        auto t0 = Clock::now();
        if (client.sendData(file, "bench") != 0) abort();
        auto t1 = Clock::now();
        writeFile(file, bytes);
        auto t2 = Clock::now();
        raw.send(file);
        auto t3 = Clock::now();
        grpcSeconds += std::chrono::duration<double>(t1 - t0).count();
        rawSeconds += std::chrono::duration<double>(t3 - t2).count();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    }
    const double mb = static_cast<double>(size) * static_cast<double>(state.iterations()) / 1e6;
    state.counters["grpc_MBps"] = mb / grpcSeconds;
    state.counters["unix_MBps"] = mb / rawSeconds;
    state.counters["grpc_vs_unix"] = rawSeconds / grpcSeconds;
    state.SetBytesProcessed(static_cast<int64_t>(size) * state.iterations());
}
BENCHMARK(BM_SendDataVsUnixSocket)
        ->Arg(4096)
        ->Arg(4 << 20)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);

}  // namespace
