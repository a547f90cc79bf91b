// The cache folder as a hostile or broken neighbour leaves it: entries named
// like cache files that are links, pipes, directories, sockets or hard links,
// links planted while a campaign runs, odd modes and umasks, files that cannot
// be opened or written; and the record queue's bound when the writer cannot
// keep up. Nothing outside the folder may change or be delivered, no start may
// block, and the campaign goes on.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "collector/zem_collector.h"
#include "serializer/CacheFile.h"
#include "serializer/KPISerializer.h"

using zem_test::countLogLines;
using zem_test::LogCapture;
using zem_test::readFile;
using zem_test::TempDir;
using zem_test::writeFile;

namespace {

const std::string kSecret = "secret text outside the cache folder\n";

// Takes finished files the way the transports do: through readCacheFile,
// removing a file only once it was read. `onDelivery` runs after each file
// was taken, on the thread that delivers.
class Daemon : public zem_collector {
  public:
    explicit Daemon(const std::string& dir) : zem_collector(zem_test::cacheDirCfg(dir)) {}

    int SendData(const std::string& filename) override {
        std::string bytes;
        const zem::CacheOpen r = zem::readCacheFile(filename, &bytes);
        if (r != zem::CacheOpen::kOk && r != zem::CacheOpen::kMissing) return -1;
        remove(filename.c_str());
        {
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back(bytes);
        }
        if (onDelivery) onDelivery();
        return 0;
    }

    std::vector<std::string> files() {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }
    // Every window received, merged.
    olvan::KPIData windows() {
        olvan::KPIData all;
        for (const std::string& f : files()) {
            olvan::KPIData one;
            EXPECT_TRUE(one.ParseFromString(f));
            all.MergeFrom(one);
        }
        return all;
    }

    std::function<void()> onDelivery;

  private:
    std::mutex mutex;
    std::vector<std::string> received;
};

olvan::KPIData counterRecord(uint32_t id, uint64_t value) {
    olvan::KPIData data;
    olvan::Counter* c = data.add_counters();
    c->mutable_meta()->set_id(id);
    c->set_value(value);
    return data;
}

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
}

std::string notCacheFileLine(const std::string& path, const char* what) {
    return "Not a cache file, left alone: " + path + " (" + what + ")";
}

TEST(CacheFolder, EntriesThatAreNotCacheFilesAreLeftAloneAndTheCampaignRuns) {
    struct Case {
        const char* what;
        // Makes the entry at `entry`; `outside` is a file outside the folder.
        std::function<void(const std::string& entry, const std::string& outside)> make;
    };
    const Case cases[] = {
            {"a symbolic link",
             [](const std::string& e, const std::string& o) {
                 ASSERT_EQ(0, symlink(o.c_str(), e.c_str()));
             }},
            {"a symbolic link",  // dangling: must not create its target
             [](const std::string& e, const std::string& o) {
                 ASSERT_EQ(0, symlink((o + ".new").c_str(), e.c_str()));
             }},
            {"a named pipe", [](const std::string& e,
                                const std::string&) { ASSERT_EQ(0, mkfifo(e.c_str(), 0600)); }},
            {"a directory", [](const std::string& e,
                               const std::string&) { ASSERT_EQ(0, mkdir(e.c_str(), 0700)); }},
            {"a socket",
             [](const std::string& e, const std::string&) {
                 const int s = socket(AF_UNIX, SOCK_STREAM, 0);
                 sockaddr_un addr{};
                 addr.sun_family = AF_UNIX;
                 ASSERT_LT(e.size(), sizeof addr.sun_path);
                 e.copy(addr.sun_path, e.size());
                 ASSERT_EQ(0, bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
                 close(s);
             }},
            {"a regular file with 2 links",
             [](const std::string& e, const std::string& o) {
                 ASSERT_EQ(0, link(o.c_str(), e.c_str()));
             }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir root;
        const std::string cache = root.file("cache");
        ASSERT_EQ(0, mkdir(cache.c_str(), 0700));
        const std::string outside = root.file("outside");
        writeFile(outside, kSecret);
        // Newer than any file the serializer creates, so it is the first
        // candidate for reopening.
        const std::string entry = cache + "/kpidata.99999999999";
        c.make(entry, outside);
        const mode_t type = lstatOf(entry).st_mode & S_IFMT;

        Daemon daemon(cache);
        KPISerializer ser(cache, &daemon);
        LogCapture cap;
        ASSERT_EQ(0, ser.Initialize(4096, 1));
        for (uint32_t i = 0; i < 3; ++i) {
            auto rec = counterRecord(i, i);
            ser.Write(rec);
        }
        ser.Finalize();
        const std::string log = cap.text();

        EXPECT_EQ(1, countLogLines(log, 'E', notCacheFileLine(entry, c.what))) << log;
        EXPECT_EQ(kSecret, readFile(outside));
        EXPECT_NE(0, access((outside + ".new").c_str(), F_OK));
        EXPECT_EQ(type, lstatOf(entry).st_mode & S_IFMT);
        // The daemon got one new file holding the campaign's windows only.
        const auto files = daemon.files();
        ASSERT_EQ(1u, files.size());
        EXPECT_EQ(std::string::npos, files[0].find("secret"));
        EXPECT_EQ(3, daemon.windows().counters_size());
    }
}

TEST(CacheFolder, LinksPlantedUnderTheNextNamesDuringACampaignAreSkipped) {
    TempDir root;
    const std::string cache = root.file("cache");
    ASSERT_EQ(0, mkdir(cache.c_str(), 0700));
    const std::string outside = root.file("outside");
    writeFile(outside, kSecret);
    ASSERT_EQ(0, chmod(outside.c_str(), 0444));

    Daemon daemon(cache);
    // At the first delivery, links take the names of the next seconds.
    std::vector<std::string> planted;
    daemon.onDelivery = [&] {
        if (!planted.empty()) return;
        const int64_t now = KPISerializer::currTs();
        for (int64_t t = now; t < now + 10; ++t) {
            planted.push_back(cache + "/kpidata." + std::to_string(t));
            symlink(outside.c_str(), planted.back().c_str());
        }
    };
    KPISerializer ser(cache, &daemon);
    LogCapture cap;
    ASSERT_EQ(0, ser.Initialize(100, 1));
    const int kRecords = 40;  // several rollovers after the links appear
    for (int i = 0; i < kRecords; ++i) {
        auto rec = counterRecord(1, static_cast<uint64_t>(i) << 40);  // ~10 bytes each
        ser.Write(rec);
    }
    ser.Finalize();
    const std::string log = cap.text();

    ASSERT_FALSE(planted.empty());
    // Each link met is reported once, however many rollovers meet it.
    int skipped = 0;
    for (const std::string& p : planted) {
        const int n = countLogLines(log, 'E', notCacheFileLine(p, "a symbolic link"));
        EXPECT_LE(n, 1) << p;
        skipped += n;
    }
    EXPECT_GE(skipped, 1) << log;
    EXPECT_EQ(kSecret, readFile(outside));
    for (const std::string& f : daemon.files()) EXPECT_EQ(std::string::npos, f.find("secret"));
    EXPECT_EQ(kRecords, daemon.windows().counters_size());
    for (const std::string& p : planted) EXPECT_TRUE(S_ISLNK(lstatOf(p).st_mode)) << p;
}

TEST(CacheFolder, CacheFilesAreOwnerOnlyWhateverTheUmaskOrTheLeftoversMode) {
    for (const mode_t mask : {0000, 0022, 0077, 0277}) {
        SCOPED_TRACE(mask);
        TempDir dir;
        const mode_t old = umask(mask);
        KPISerializer ser(dir.path(), nullptr);
        ASSERT_EQ(0, ser.Initialize(4096, 1));
        ser.Finalize();
        umask(old);
        const std::string name = ser.GetCurrFileName();
        EXPECT_EQ(0600u, lstatOf(name).st_mode & 07777);
        EXPECT_EQ(std::string("\x08\x01", 2), readFile(name));
    }
    // Leftovers: world-writable, and write-only (which a delivery could not
    // read back), are reopened as owner-only and delivered whole.
    for (const mode_t mode : {0666, 0200}) {
        SCOPED_TRACE(mode);
        TempDir dir;
        const std::string leftover = dir.file("kpidata.5");
        writeFile(leftover, std::string("\x08\x01", 2));
        ASSERT_EQ(0, chmod(leftover.c_str(), mode));
        Daemon daemon(dir.path());
        KPISerializer ser(dir.path(), &daemon);
        ASSERT_EQ(0, ser.Initialize(4096, 1));
        EXPECT_EQ(0600u, lstatOf(leftover).st_mode & 07777);
        auto rec = counterRecord(2, 2);
        ser.Write(rec);
        ser.Finalize();
        ASSERT_EQ(1u, daemon.files().size());
        EXPECT_EQ(std::string("\x08\x01", 2) + rec.SerializeAsString(), daemon.files()[0]);
    }
}

TEST(CacheFolder, FailuresOnRegularFilesAreLoggedOnce) {
    {
        // The newest leftover is a regular file that cannot be opened for
        // writing (a running program's file): the start fails as it always
        // did, and an older leftover is not touched.
        TempDir dir;
        writeFile(dir.file("kpidata.1"), "old");
        const std::string busy = dir.file("kpidata.2");
        writeFile(busy, readFile("/bin/sleep"));
        ASSERT_EQ(0, chmod(busy.c_str(), 0700));
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            execl(busy.c_str(), "sleep", "30", static_cast<char*>(nullptr));
            _exit(127);
        }
        // The file is busy once the child runs it; until then it opens fine,
        // so wait for that exact state.
        ASSERT_TRUE(zem_test::waitFor([&] {
            return readFile("/proc/" + std::to_string(child) + "/comm") == "kpidata.2\n";
        }));
        KPISerializer ser(dir.path(), nullptr);
        LogCapture cap;
        EXPECT_EQ(-1, ser.Initialize(4096, 1));
        const std::string log = cap.text();
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        EXPECT_EQ(1, countLogLines(log, 'E', "Failed to open file: " + busy)) << log;
        EXPECT_FALSE(ser.writerRunning());
        EXPECT_EQ("old", readFile(dir.file("kpidata.1")));
    }
    {
        // Writes that fail (here the file size limit) are logged once per
        // file, with the reason.
        TempDir dir;
        struct rlimit old;
        ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &old));
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit small = old;
        small.rlim_cur = 1 << 20;
        ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
        KPISerializer ser(dir.path(), nullptr);
        LogCapture cap;
        ASSERT_EQ(0, ser.Initialize(4194304, 1));
        const std::string name = ser.GetCurrFileName();
        for (int i = 0; i < 24; ++i) {
            olvan::KPIData rec;
            rec.add_blobs()->set_data(std::string(100000, 'b'));
            ser.Write(rec);
        }
        ser.stopWriterThread();
        const std::string log = cap.text();
        setrlimit(RLIMIT_FSIZE, &old);
        signal(SIGXFSZ, SIG_DFL);
        ser.Finalize();
        EXPECT_EQ(1,
                  countLogLines(log, 'E', "Failed to write file: " + name + ": " + strerror(EFBIG)))
                << log;
    }
}

// A collector whose delivery holds the writer until released.
class StalledDaemon : public zem_collector {
  public:
    explicit StalledDaemon(const zem_cfg_s& cfg) : zem_collector(cfg) {}
    int SendData(const std::string& filename) override {
        std::unique_lock<std::mutex> lock(mutex);
        ++calls;
        entered.notify_all();
        released.wait(lock, [this] { return open; });
        files.push_back(readFile(filename));
        remove(filename.c_str());
        return 0;
    }
    std::mutex mutex;
    std::condition_variable entered, released;
    int calls = 0;
    bool open = false;
    std::vector<std::string> files;
};

TEST(CacheFolder, RecordQueueIsBoundedAndCountsWhatItDrops) {
    TempDir dir;
    StalledDaemon daemon(zem_test::cacheDirCfg(dir.path()));
    KPISerializer ser(dir.path(), &daemon);
    ASSERT_EQ(0, ser.Initialize(100, 1));
    // The first file passes the threshold at once; its delivery then holds
    // the writer, and everything after it queues.
    olvan::KPIData big;
    big.add_blobs()->set_data(std::string(200, 'x'));
    ser.Write(big);
    {
        std::unique_lock<std::mutex> lock(daemon.mutex);
        ASSERT_TRUE(daemon.entered.wait_for(lock, std::chrono::seconds(30),
                                            [&] { return daemon.calls == 1; }));
    }
    // What is let through then goes into one file.
    ASSERT_EQ(0, ser.Initialize(4194304, 1));
    const size_t perRecord = KPISerializer::kMaxQueuedBytes / KPISerializer::kRecordOverhead;
    const int kRecords = static_cast<int>(2 * perRecord);  // twice what the bound can hold
    LogCapture cap;
    for (int i = 0; i < kRecords; ++i) {
        auto rec = counterRecord(1, static_cast<uint64_t>(i));
        ser.Write(rec);
    }
    {
        std::lock_guard<std::mutex> lock(daemon.mutex);
        daemon.open = true;
    }
    daemon.released.notify_all();
    ser.Finalize();
    const std::string log = cap.text();

    int delivered = 0;
    for (const std::string& f : daemon.files) {
        olvan::KPIData d;
        ASSERT_TRUE(d.ParseFromString(f));
        delivered += d.counters_size();
    }
    // The bound held: no more records than it has room for.
    EXPECT_GT(delivered, 0);
    EXPECT_LE(static_cast<size_t>(delivered), perRecord);
    // Every dropped record is told, with the file it is missing from.
    const std::string tag = " records dropped while ";
    uint64_t dropped = 0;
    int lines = 0;
    for (size_t at = log.find(tag); at != std::string::npos; at = log.find(tag, at + 1)) {
        const size_t start = log.rfind(' ', at - 1) + 1;
        dropped += std::stoull(log.substr(start, at - start));
        ++lines;
    }
    EXPECT_EQ(1, lines) << log;
    EXPECT_EQ(static_cast<uint64_t>(kRecords - delivered), dropped);
    EXPECT_NE(std::string::npos, log.find("Record queue full")) << log;
}

}  // namespace
