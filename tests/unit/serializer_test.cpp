// Cache files: naming, the version record, the size rule and rollover,
// leftovers from an earlier run, stopping with records queued, concurrent
// producers, and failures.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "TestUtil.h"
#include "collector/zem_collector.h"
#include "serializer/KPISerializer.h"

using zem_test::countLogLines;
using zem_test::LogCapture;
using zem_test::readFile;
using zem_test::TempDir;
using zem_test::writeFile;

namespace {

// Stands in for the collector: takes every handed-over file the way a
// successful transport does (reads it whole, then removes it).
class RecordingCollector : public zem_collector {
  public:
    explicit RecordingCollector(const std::string& dir)
        : zem_collector(zem_test::cacheDirCfg(dir)) {}

    int SendData(const std::string& filename) override {
        std::string bytes = readFile(filename);
        remove(filename.c_str());
        std::lock_guard<std::mutex> lock(mutex);
        files.push_back({filename, std::move(bytes)});
        return 0;
    }

    struct Delivered {
        std::string name;
        std::string bytes;
    };
    std::vector<Delivered> delivered() {
        std::lock_guard<std::mutex> lock(mutex);
        return files;
    }

  private:
    std::mutex mutex;
    std::vector<Delivered> files;
};

// A record of exactly `size` bytes once serialized (size >= 4), tagged by `id`.
olvan::KPIData recordOfSize(size_t size, uint32_t id = 1) {
    olvan::KPIData data;
    olvan::Blob* blob = data.add_blobs();
    blob->mutable_meta()->set_id(id);
    std::string payload;
    while (data.ByteSizeLong() < size) {
        payload.push_back('x');
        blob->set_data(payload);
    }
    EXPECT_EQ(size, data.ByteSizeLong());
    return data;
}

olvan::KPIData counterRecord(uint32_t id, uint64_t value) {
    olvan::KPIData data;
    olvan::Counter* c = data.add_counters();
    c->mutable_meta()->set_id(id);
    c->set_value(value);
    return data;
}

const std::string kVersionRecord("\x08\x01", 2);

}  // namespace

TEST(Serializer, NewFileIsNamedBySecondsAndStartsWithTheVersionRecord) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.path(), &collector);
    const int64_t before = KPISerializer::currTs();
    ASSERT_EQ(0, ser.Initialize(4096, 1));
    const int64_t after = KPISerializer::currTs();
    EXPECT_TRUE(ser.writerRunning());

    const std::string name = ser.GetCurrFileName();
    const std::string prefix = dir.path() + "/kpidata.";
    ASSERT_EQ(0u, name.find(prefix)) << name;
    const int64_t secs = std::stoll(name.substr(prefix.size()));
    EXPECT_GE(secs, before);
    EXPECT_LE(secs, after);

    auto rec = counterRecord(3, 12);
    ser.Write(rec);
    ser.Finalize();
    EXPECT_FALSE(ser.writerRunning());
    EXPECT_EQ(0u, ser.sizeThresholdForTest());
    auto files = collector.delivered();
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(name, files[0].name);
    EXPECT_EQ(kVersionRecord + rec.SerializeAsString(), files[0].bytes);
}

TEST(Serializer, RollsOverAtTheFirstRecordPastTheThreshold) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.path(), &collector);
    ASSERT_EQ(0, ser.Initialize(100, 1));

    // Version (2) + 98 bytes: exactly at the threshold, the file stays open.
    auto exact = recordOfSize(98, 1);
    ser.Write(exact);
    ASSERT_TRUE(zem_test::waitFor([&] { return readFile(ser.GetCurrFileName()).size() == 100; }));
    EXPECT_TRUE(collector.delivered().empty());

    // One more record takes it past: the file closes holding that record.
    auto past = recordOfSize(10, 2);
    ser.Write(past);
    ASSERT_TRUE(zem_test::waitFor([&] { return collector.delivered().size() == 1; }));
    auto after = recordOfSize(20, 3);
    ser.Write(after);
    ser.Finalize();

    auto files = collector.delivered();
    ASSERT_EQ(2u, files.size());
    EXPECT_EQ(kVersionRecord + exact.SerializeAsString() + past.SerializeAsString(),
              files[0].bytes);
    // The next file gets its own version record ahead of the later record.
    EXPECT_EQ(kVersionRecord + after.SerializeAsString(), files[1].bytes);
    EXPECT_TRUE(dir.list().empty());
}

TEST(Serializer, ReopensTheNewestLeftoverByNumberNotText) {
    TempDir dir;
    writeFile(dir.file("kpidata.3"), "three");
    writeFile(dir.file("kpidata.20"), "twenty");
    const auto old = counterRecord(1, 1).SerializeAsString();
    writeFile(dir.file("kpidata.100"), kVersionRecord + old);
    writeFile(dir.file("other.1000"), "not a cache file");

    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.path(), &collector);
    ASSERT_EQ(0, ser.Initialize(4096, 1));
    EXPECT_EQ(dir.file("kpidata.100"), ser.GetCurrFileName());
    auto rec = counterRecord(2, 5);
    ser.Write(rec);
    ser.Finalize();

    auto files = collector.delivered();
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(dir.file("kpidata.100"), files[0].name);
    // Appended to, with no second version record.
    EXPECT_EQ(kVersionRecord + old + rec.SerializeAsString(), files[0].bytes);
    // The older leftovers are neither sent nor touched.
    EXPECT_EQ(readFile(dir.file("kpidata.3")), "three");
    EXPECT_EQ(readFile(dir.file("kpidata.20")), "twenty");
    EXPECT_EQ((std::vector<std::string>{"kpidata.20", "kpidata.3", "other.1000"}), dir.list());
}

TEST(Serializer, NameWithoutNumberSortsAsZero) {
    TempDir dir;
    writeFile(dir.file("kpidata.old"), "");
    writeFile(dir.file("kpidata.7"), "");
    {
        KPISerializer ser(dir.path(), nullptr);
        ASSERT_EQ(0, ser.Initialize(4096, 1));
        EXPECT_EQ(dir.file("kpidata.7"), ser.GetCurrFileName());
        ser.Finalize();
    }
    remove(dir.file("kpidata.7").c_str());
    KPISerializer ser(dir.path(), nullptr);
    ASSERT_EQ(0, ser.Initialize(4096, 1));
    EXPECT_EQ(dir.file("kpidata.old"), ser.GetCurrFileName());
    ser.Finalize();
}

TEST(Serializer, StopWritesEveryQueuedRecordBeforeTheLastHandover) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.path(), &collector);
    ASSERT_EQ(0, ser.Initialize(2000, 1));
    constexpr uint32_t kRecords = 20000;
    for (uint32_t i = 0; i < kRecords; ++i) {
        auto rec = counterRecord(i, i);
        ser.Write(rec);
    }
    ser.Finalize();  // immediately: most records are still queued

    std::vector<uint32_t> seen;
    size_t totalBytes = 0, recordBytes = 0;
    const auto files = collector.delivered();
    for (const auto& f : files) {
        olvan::KPIData data;
        ASSERT_TRUE(data.ParseFromString(f.bytes));
        // Rollover kept every file near the threshold.
        EXPECT_LE(f.bytes.size(), 2000u + 2 + counterRecord(~0u, ~0ull).ByteSizeLong());
        totalBytes += f.bytes.size();
        for (const auto& c : data.counters()) seen.push_back(c.meta().id());
    }
    ASSERT_EQ(kRecords, seen.size());
    for (uint32_t i = 0; i < kRecords; ++i) {
        ASSERT_EQ(i, seen[i]) << "out of order at " << i;
        recordBytes += counterRecord(i, i).ByteSizeLong();
    }
    // Every file created queued one version record, and none was dropped
    // (behind a backlog it lands in a later file than the one it announced).
    EXPECT_EQ(recordBytes + 2 * files.size(), totalBytes);
}

// Stands in for a collector whose daemon refuses every delivery: the file
// stays where it is, as the transports leave it.
class RefusingCollector : public zem_collector {
  public:
    explicit RefusingCollector(const zem_cfg_s& cfg) : zem_collector(cfg) {}
    int SendData(const std::string& filename) override {
        std::lock_guard<std::mutex> lock(mutex);
        names.push_back(filename);
        return -1;
    }
    std::vector<std::string> handed() {
        std::lock_guard<std::mutex> lock(mutex);
        return names;
    }

  private:
    std::mutex mutex;
    std::vector<std::string> names;
};

TEST(Serializer, AFailedDeliveryCostsOneAttemptAndTheNextFileANameOfItsOwn) {
    TempDir dir;
    zem_cfg_s cfg{};
    cfg.name = "refused";
    cfg.cache_dir = dir.path().c_str();
    RefusingCollector collector(cfg);
    KPISerializer ser(dir.path(), &collector);
    const int64_t start = KPISerializer::currTs();
    ASSERT_EQ(0, ser.Initialize(100, 1));
    // Every record takes a fresh file past the threshold.
    constexpr uint32_t kRecords = 400;
    for (uint32_t i = 0; i < kRecords; ++i) {
        auto rec = recordOfSize(120, i);
        ser.Write(rec);
    }
    ser.Finalize();
    const int64_t end = KPISerializer::currTs();

    // One attempt per file, files named in increasing order, at most one new
    // name per second after the first failure (plus the stop's handover):
    // reopening the refused file would hand it over again at every record.
    const std::vector<std::string> handed = collector.handed();
    ASSERT_FALSE(handed.empty());
    EXPECT_LE(handed.size(), static_cast<size_t>(end - start) + 3);
    const std::string prefix = dir.path() + "/kpidata.";
    int64_t last = -1;
    for (size_t i = 0; i + 1 < handed.size(); ++i) {
        const int64_t key = std::stoll(handed[i].substr(prefix.size()));
        EXPECT_GT(key, last) << handed[i];
        EXPECT_LE(key, end + 1) << "never more than a second ahead of the clock";
        last = key;
    }
    // Every record is on disk, in order, in the files kept.
    std::vector<std::string> names = dir.list();
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::stoll(a.substr(8)) < std::stoll(b.substr(8));
    });
    std::string kept;
    for (const std::string& name : names) {
        olvan::KPIData data;
        const std::string bytes = readFile(dir.file(name));
        ASSERT_TRUE(data.ParseFromString(bytes)) << name;
        EXPECT_EQ(olvan::V1, data.version());
        kept += bytes;
    }
    olvan::KPIData all;
    ASSERT_TRUE(all.ParseFromString(kept));
    ASSERT_EQ(static_cast<int>(kRecords), all.blobs_size());
    for (uint32_t i = 0; i < kRecords; ++i) ASSERT_EQ(i, all.blobs(i).meta().id());
}

TEST(Serializer, ConcurrentProducersLoseAndCorruptNothing) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.path(), &collector);
    ASSERT_EQ(0, ser.Initialize(4096, 1));
    constexpr uint32_t kThreads = 4, kPerThread = 5000;
    std::vector<std::thread> producers;
    for (uint32_t t = 0; t < kThreads; ++t) {
        producers.emplace_back([&ser, t] {
            for (uint32_t i = 0; i < kPerThread; ++i) {
                auto rec = counterRecord(t * kPerThread + i, t);
                ser.Write(rec);
            }
        });
    }
    for (auto& p : producers) p.join();
    ser.Finalize();

    std::vector<int> count(kThreads * kPerThread, 0);
    std::vector<uint32_t> nextOfThread(kThreads, 0);
    for (const auto& f : collector.delivered()) {
        // Records that came in while a file was handed over, or behind the
        // one that filled it, go after the next file's version record.
        ASSERT_EQ(0u, f.bytes.rfind(kVersionRecord, 0)) << f.name;
        olvan::KPIData data;
        ASSERT_TRUE(data.ParseFromString(f.bytes)) << f.name;
        for (const auto& c : data.counters()) {
            const uint32_t id = c.meta().id();
            ASSERT_LT(id, count.size());
            ASSERT_EQ(id / kPerThread, c.value()) << "record bytes mixed up";
            ++count[id];
            // Each producer's records keep their order.
            const uint32_t t = static_cast<uint32_t>(c.value());
            ASSERT_EQ(t * kPerThread + nextOfThread[t], id);
            ++nextOfThread[t];
        }
    }
    for (size_t i = 0; i < count.size(); ++i) ASSERT_EQ(1, count[i]) << "record " << i;
}

TEST(Serializer, InitializeFailuresSayWhyAndStartNothing) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.file("missing"), &collector);
    LogCapture cap;
    EXPECT_EQ(-1, ser.Initialize(4096, 1));
    const std::string& log = cap.text();
    EXPECT_EQ(1, countLogLines(log, 'E', "Error opening cache directory: " + dir.file("missing")))
            << log;
    EXPECT_EQ(1, countLogLines(log, 'E', "Failed to get files from cache dir: -1")) << log;
    EXPECT_FALSE(ser.writerRunning());
}

TEST(Serializer, FinalizeWithoutAFileStillHandsOverTheLastName) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.file("missing"), &collector);
    EXPECT_EQ(-1, ser.Initialize(4096, 1));
    EXPECT_EQ(0, ser.Finalize());
    auto files = collector.delivered();
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ("", files[0].name);
}

TEST(Serializer, WithoutACollectorFilesStayInTheCacheDirectory) {
    TempDir dir;
    std::string name;
    auto rec = counterRecord(4, 4);
    {
        KPISerializer ser(dir.path(), nullptr);
        ASSERT_EQ(0, ser.Initialize(4096, 1));
        name = ser.GetCurrFileName();
        ser.Write(rec);
        ser.Finalize();
    }
    EXPECT_EQ(kVersionRecord + rec.SerializeAsString(), readFile(name));

    // Destruction with the writer running also writes what was queued and
    // closes the file without handing it over.
    TempDir dir2;
    RecordingCollector collector(dir2.path());
    {
        KPISerializer ser(dir2.path(), &collector);
        ASSERT_EQ(0, ser.Initialize(4096, 1));
        name = ser.GetCurrFileName();
        ser.Write(rec);
    }
    EXPECT_TRUE(collector.delivered().empty());
    EXPECT_EQ(kVersionRecord + rec.SerializeAsString(), readFile(name));
}

TEST(Serializer, WriterThreadIsNamedAndGoneAfterStop) {
    TempDir dir;
    KPISerializer ser(dir.path(), nullptr);
    auto writerThreads = [] {
        int n = 0;
        if (DIR* d = opendir("/proc/self/task")) {
            while (dirent* e = readdir(d)) {
                if (e->d_name[0] == '.') continue;
                std::string comm = readFile(std::string("/proc/self/task/") + e->d_name + "/comm");
                if (comm == "zem_writer\n") ++n;
            }
            closedir(d);
        }
        return n;
    };
    ASSERT_EQ(0, ser.Initialize(4096, 1));
    EXPECT_TRUE(zem_test::waitFor([&] { return writerThreads() == 1; }));
    // A second start on a running writer keeps the one writer and its file.
    const std::string file = ser.GetCurrFileName();
    ASSERT_EQ(0, ser.Initialize(8192, 2));
    EXPECT_EQ(8192u, ser.sizeThresholdForTest());
    EXPECT_EQ(file, ser.GetCurrFileName());
    EXPECT_EQ(1, writerThreads());
    ser.stopWriterThread();
    // A joined thread can stay listed for a moment while the kernel reaps it.
    EXPECT_TRUE(zem_test::waitFor([&] { return writerThreads() == 0; }));
    ser.Finalize();
}
