// Cache files: naming, the version record, the size rule and rollover,
// leftovers from an earlier run, stopping with records queued, concurrent
// producers, and failures.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

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

}  // namespace

TEST(SerializerTest, NewFileIsNamedBySecondsAndStartsWithTheVersionRecord) {
    // Finalize hands the file over; without a collector it stays in the
    // cache folder, and so it does when the serializer is destroyed with
    // its writer running (what was queued is still written).
    enum Ending { kFinalize, kFinalizeWithoutCollector, kDestroyRunning };
    const auto rec = counterRecord(3, 12);
    for (Ending ending : {kFinalize, kFinalizeWithoutCollector, kDestroyRunning}) {
        SCOPED_TRACE(ending);
        TempDir dir;
        RecordingCollector collector(dir.path());
        std::string name;
        {
            KPISerializer ser(dir.path(),
                              ending == kFinalizeWithoutCollector ? nullptr : &collector);
            const int64_t before = KPISerializer::currTs();
            ASSERT_EQ(0, ser.Initialize(4096, 1));
            const int64_t after = KPISerializer::currTs();
            EXPECT_TRUE(ser.writerRunning());

            name = ser.GetCurrFileName();
            const std::string prefix = dir.path() + "/kpidata.";
            ASSERT_EQ(0u, name.find(prefix)) << name;
            const int64_t secs = std::stoll(name.substr(prefix.size()));
            EXPECT_GE(secs, before);
            EXPECT_LE(secs, after);

            auto copy = rec;
            ser.Write(copy);
            if (ending != kDestroyRunning) {
                ser.Finalize();
                EXPECT_FALSE(ser.writerRunning());
                EXPECT_EQ(0u, ser.sizeThresholdForTest());
            }
        }
        auto files = collector.delivered();
        if (ending == kFinalize) {
            ASSERT_EQ(1u, files.size());
            EXPECT_EQ(name, files[0].name);
            EXPECT_EQ(kVersionRecord + rec.SerializeAsString(), files[0].bytes);
        } else {
            EXPECT_TRUE(files.empty());
            EXPECT_EQ(kVersionRecord + rec.SerializeAsString(), readFile(name));
        }
    }
}

TEST(SerializerTest, RollsOverAtTheFirstRecordPastTheThreshold) {
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

TEST(SerializerTest, ReopensTheNewestLeftoverByNumberNotText) {
    // The entries present and the one reopened; a name without a number
    // sorts as zero.
    const struct {
        std::vector<std::string> present;
        std::string newest;
    } cases[] = {
            {{"kpidata.3", "kpidata.20", "kpidata.100", "other.1000"}, "kpidata.100"},
            {{"kpidata.old", "kpidata.7"}, "kpidata.7"},
            {{"kpidata.old"}, "kpidata.old"},
    };
    const std::string old = kVersionRecord + counterRecord(1, 1).SerializeAsString();
    const auto rec = counterRecord(2, 5);
    for (const auto& c : cases) {
        TempDir dir;
        for (const auto& name : c.present) writeFile(dir.file(name), name == c.newest ? old : name);
        RecordingCollector collector(dir.path());
        KPISerializer ser(dir.path(), &collector);
        ASSERT_EQ(0, ser.Initialize(4096, 1));
        EXPECT_EQ(dir.file(c.newest), ser.GetCurrFileName());
        auto copy = rec;
        ser.Write(copy);
        ser.Finalize();

        auto files = collector.delivered();
        ASSERT_EQ(1u, files.size());
        EXPECT_EQ(dir.file(c.newest), files[0].name);
        // Appended to, with no second version record.
        EXPECT_EQ(old + rec.SerializeAsString(), files[0].bytes);
        // The older leftovers are neither sent nor touched.
        EXPECT_EQ(c.present.size() - 1, dir.list().size());
        for (const auto& name : dir.list()) EXPECT_EQ(name, readFile(dir.file(name)));
    }
}

TEST(SerializerTest, StopWritesEveryQueuedRecordBeforeTheLastHandover) {
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

TEST(SerializerTest, AFailedDeliveryCostsOneAttemptAndTheNextFileANameOfItsOwn) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    collector.refuse = true;
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
    const auto handed = collector.delivered();
    ASSERT_FALSE(handed.empty());
    EXPECT_LE(handed.size(), static_cast<size_t>(end - start) + 3);
    const std::string prefix = dir.path() + "/kpidata.";
    int64_t last = -1;
    for (size_t i = 0; i + 1 < handed.size(); ++i) {
        const int64_t key = std::stoll(handed[i].name.substr(prefix.size()));
        EXPECT_GT(key, last) << handed[i].name;
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

TEST(SerializerTest, ConcurrentProducersLoseAndCorruptNothing) {
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

TEST(SerializerTest, WithoutItsFolderNothingStartsAndFinalizeStillHandsOverTheLastName) {
    TempDir dir;
    RecordingCollector collector(dir.path());
    KPISerializer ser(dir.file("missing"), &collector);
    {
        LogCapture cap;
        EXPECT_EQ(-1, ser.Initialize(4096, 1));
        const std::string& log = cap.text();
        EXPECT_EQ(1,
                  countLogLines(log, 'E', "Error opening cache directory: " + dir.file("missing")))
                << log;
        EXPECT_EQ(1, countLogLines(log, 'E', "Failed to get files from cache dir: -1")) << log;
    }
    EXPECT_FALSE(ser.writerRunning());
    EXPECT_EQ(0, ser.Finalize());
    auto files = collector.delivered();
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ("", files[0].name);
}

TEST(SerializerTest, WriterThreadIsNamedAndGoneAfterStop) {
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
