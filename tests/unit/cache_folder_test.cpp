// The cache folder as a hostile or broken neighbour leaves it: entries named
// like cache files that are links, pipes, directories, sockets or hard links,
// links planted while a campaign runs, odd modes and umasks, files that cannot
// be opened or written; and the record queue's bound when the writer cannot
// keep up. Nothing outside the folder may change or be delivered, no start may
// block, and the campaign goes on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "serializer/KPISerializer.h"

using zem_test::counterRecord;
using zem_test::countLogLines;
using zem_test::kVersionRecord;
using zem_test::LogCapture;
using zem_test::readFile;
using zem_test::RecordingCollector;
using zem_test::TempDir;
using zem_test::writeFile;

namespace {

const std::string kSecret = "secret text outside the cache folder\n";

// How many counter windows the delivered files hold; each must parse.
int countersIn(const std::vector<RecordingCollector::Delivered>& files) {
    int n = 0;
    for (const auto& f : files) {
        olvan::KPIData d;
        EXPECT_TRUE(d.ParseFromString(f.bytes));
        EXPECT_EQ(std::string::npos, f.bytes.find("secret"));
        n += d.counters_size();
    }
    return n;
}

std::string notCacheFileLine(const std::string& path, const char* what) {
    return "Not a cache file, left alone: " + path + " (" + what + ")";
}

mode_t typeOf(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & S_IFMT : 0;
}

// The folder as a campaign finds it: what sits under the name of the newest
// cache file, the umask, and what the campaign makes of it. Nothing outside
// the folder may change or be delivered, and no start may block.
TEST(CacheFolderTest, HostileOrOddFolderStatesEndAsExpected) {
    using Make = std::function<pid_t(const std::string& entry, const std::string& outside)>;
    struct Case {
        const char* what;
        Make make;                     // returns a process to end after the campaign, or 0
        const char* logged = nullptr;  // the one error line, after the entry's name
        int started = 0;               // what Initialize returns
        bool reopened = false;         // the entry is the file delivered
        mode_t mask = 022;
    };
    const Make nothing = [](const std::string&, const std::string&) { return 0; };
    const auto leftover = [](mode_t mode) {
        return [mode](const std::string& e, const std::string&) {
            writeFile(e, kVersionRecord);
            EXPECT_EQ(0, chmod(e.c_str(), mode));
            return 0;
        };
    };
    const Case cases[] = {
            {"a symbolic link", [](const std::string& e,
                                   const std::string& o) { return symlink(o.c_str(), e.c_str()); }},
            {"a symbolic link",  // dangling: must not create its target
             [](const std::string& e, const std::string& o) {
                 return symlink((o + ".new").c_str(), e.c_str());
             }},
            {"a named pipe",
             [](const std::string& e, const std::string&) { return mkfifo(e.c_str(), 0600); }},
            {"a directory",
             [](const std::string& e, const std::string&) { return mkdir(e.c_str(), 0700); }},
            {"a socket",
             [](const std::string& e, const std::string&) {
                 const int s = socket(AF_UNIX, SOCK_STREAM, 0);
                 sockaddr_un addr{};
                 addr.sun_family = AF_UNIX;
                 if (e.size() >= sizeof addr.sun_path) return -1;
                 e.copy(addr.sun_path, e.size());
                 const int rc = bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
                 close(s);
                 return rc;
             }},
            {"a regular file with 2 links",
             [](const std::string& e, const std::string& o) { return link(o.c_str(), e.c_str()); }},
            // A running program's file cannot be opened for writing: the start
            // fails as it always did.
            {"busy",
             [](const std::string& e, const std::string&) {
                 writeFile(e, readFile("/bin/sleep"));
                 chmod(e.c_str(), 0700);
                 const pid_t child = fork();
                 if (child == 0) {
                     execl(e.c_str(), "sleep", "30", static_cast<char*>(nullptr));
                     _exit(127);
                 }
                 // Busy only once the child runs it: wait for exactly that,
                 // without opening the file for writing, which would make the
                 // child's exec fail.
                 const std::string exe = "/proc/" + std::to_string(child) + "/exe";
                 char* real = realpath(e.c_str(), nullptr);
                 const std::string path = real != nullptr ? real : e;
                 free(real);
                 EXPECT_TRUE(zem_test::waitFor([&] {
                     char buf[PATH_MAX];
                     const ssize_t n = readlink(exe.c_str(), buf, sizeof buf);
                     return n > 0 && std::string(buf, static_cast<size_t>(n)) == path;
                 }));
                 return child;
             },
             "Failed to open file: ", -1},
            // Leftovers are grown and delivered whole, owner-only whatever
            // their mode (write-only could not be read back for delivery).
            {"world-writable leftover", leftover(0666), nullptr, 0, true},
            {"write-only leftover", leftover(0200), nullptr, 0, true},
            // New files are owner-only whatever the umask.
            {"umask 0000", nothing, nullptr, 0, false, 0000},
            {"umask 0077", nothing, nullptr, 0, false, 0077},
            {"umask 0277", nothing, nullptr, 0, false, 0277},
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
        const pid_t child = c.make(entry, outside);
        ASSERT_GE(child, 0);
        const mode_t type = typeOf(entry);

        RecordingCollector daemon(cache);
        KPISerializer ser(cache, &daemon);
        LogCapture cap;
        const mode_t old = umask(c.mask);
        EXPECT_EQ(c.started, ser.Initialize(4096, 1));
        umask(old);
        EXPECT_EQ(c.started == 0, ser.writerRunning());
        std::string written = kVersionRecord;
        for (uint32_t i = 0; c.started == 0 && i < 3; ++i) {
            auto rec = counterRecord(i, i);
            ser.Write(rec);
            written += rec.SerializeAsString();
        }
        if (c.started == 0) ser.Finalize();
        const std::string log = cap.text();
        if (child > 0) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }

        if (c.reopened || type == 0) {
            EXPECT_EQ(std::string::npos, log.find("zem_sdk E ")) << log;
        } else {
            const std::string line = c.logged ? c.logged + entry : notCacheFileLine(entry, c.what);
            EXPECT_EQ(1, countLogLines(log, 'E', line)) << log;
        }
        EXPECT_EQ(kSecret, readFile(outside));
        EXPECT_NE(0, access((outside + ".new").c_str(), F_OK));
        const auto files = daemon.delivered();
        ASSERT_EQ(c.started == 0 ? 1u : 0u, files.size());
        if (!files.empty()) {
            EXPECT_EQ(written, files[0].bytes);
            EXPECT_EQ(0600u, files[0].mode);
            EXPECT_EQ(c.reopened, files[0].name == entry);
        }
        if (!c.reopened) {
            EXPECT_EQ(type, typeOf(entry));
        }
    }
}

TEST(CacheFolderTest, LinksPlantedUnderTheNextNamesDuringACampaignAreSkipped) {
    TempDir root;
    const std::string cache = root.file("cache");
    ASSERT_EQ(0, mkdir(cache.c_str(), 0700));
    const std::string outside = root.file("outside");
    writeFile(outside, kSecret);
    ASSERT_EQ(0, chmod(outside.c_str(), 0444));

    RecordingCollector daemon(cache);
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
        EXPECT_EQ(S_IFLNK, typeOf(p)) << p;
    }
    EXPECT_GE(skipped, 1) << log;
    EXPECT_EQ(kSecret, readFile(outside));
    EXPECT_EQ(kRecords, countersIn(daemon.delivered()));
}

// Writes that fail (here the file size limit) are logged once per file, with
// the reason.
TEST(CacheFolderTest, FailedWritesAreLoggedOncePerFile) {
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
    EXPECT_EQ(1, countLogLines(log, 'E', "Failed to write file: " + name + ": " + strerror(EFBIG)))
            << log;
}

TEST(CacheFolderTest, RecordQueueIsBoundedAndCountsWhatItDrops) {
    TempDir dir;
    RecordingCollector daemon(dir.path());
    // The first delivery holds the writer until released.
    std::atomic<bool> held{false};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    daemon.onDelivery = [&] {
        held = true;
        released.wait();
    };
    KPISerializer ser(dir.path(), &daemon);
    ASSERT_EQ(0, ser.Initialize(100, 1));
    // The first file passes the threshold at once; its delivery then holds
    // the writer, and everything after it queues.
    olvan::KPIData big;
    big.add_blobs()->set_data(std::string(200, 'x'));
    ser.Write(big);
    ASSERT_TRUE(zem_test::waitFor([&] { return held.load(); }, std::chrono::seconds(30)));
    // What is let through then goes into one file.
    ASSERT_EQ(0, ser.Initialize(4194304, 1));
    const size_t perRecord = KPISerializer::kMaxQueuedBytes / KPISerializer::kRecordOverhead;
    const int kRecords = static_cast<int>(2 * perRecord);  // twice what the bound can hold
    LogCapture cap;
    for (int i = 0; i < kRecords; ++i) {
        auto rec = counterRecord(1, static_cast<uint64_t>(i));
        ser.Write(rec);
    }
    release.set_value();
    ser.Finalize();
    const std::string log = cap.text();

    const int delivered = countersIn(daemon.delivered());
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
