// Aggregator behaviour seen from outside: the records a real serializer
// writes to its cache file and the lines the aggregators log. Windows are
// crossed with explicit clock readings, never by sleeping.
#include "kpi/KPI.h"

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <climits>
#include <random>
#include <set>

#include "TestUtil.h"
#include "kpi/Blob.h"
#include "kpi/Counter.h"
#include "kpi/Histogram.h"
#include "serializer/KPISerializer.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using TimePoint = KPI::TimePoint;
using zem_test::countLogLines;

const TimePoint kT0{nanoseconds(12340000000)};  // 12.34 s: 123 in record units

KPICfg cfgOf(const std::string& text) {
    KPICfg cfg;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &cfg)) << text;
    return cfg;
}

std::string logLine(const char* cls, int n, TimePoint start, TimePoint end) {
    return std::string(cls) + "::Serialize(), numSamples=" + std::to_string(n) +
           ", tsStart=" + std::to_string(start.time_since_epoch().count()) +
           ", tsEnd=" + std::to_string(end.time_since_epoch().count());
}

class KpiTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, serializer.Initialize(4194304, 1)); }

    std::unique_ptr<KPI> make(const std::string& text) {
        std::unique_ptr<KPI> kpi = KPI::Create(cfgOf(text), serializer);
        EXPECT_NE(kpi, nullptr) << text;
        return kpi;
    }

    zem_test::TempDir dir;
    KPISerializer serializer{dir.path(), nullptr};
};

constexpr int64_t kMs = 1000000;  // in nanoseconds
constexpr int64_t kNoValue = -1;

// What a campaign wrote, in one line: each record's window as
// "start-end/samples" in record units (with "#id" before it when set) and its
// aggregate; histogram bins in brackets, blob data as runs ("aaab" is "a3b1").
template <class Records>
void describe(Records* records, std::string* out) {
    for (auto& r : *records) {
        const olvan::MetaData m = r.meta();
        r.clear_meta();
        if (m.id() != 0) *out += "#" + std::to_string(m.id()) + " ";
        *out += std::to_string(m.ts_start()) + "-" + std::to_string(m.ts_end()) + "/" +
                std::to_string(m.nof_samples()) + " ";
        using R = std::decay_t<decltype(r)>;
        if constexpr (std::is_same_v<R, olvan::Histogram>) {
            *out += "[";
            for (uint32_t n : r.bin_counts()) *out += std::to_string(n) + " ";
            out->back() = ']';
        } else if constexpr (std::is_same_v<R, olvan::Blob>) {
            for (size_t i = 0, j; i < r.data().size(); i = j) {
                for (j = i; j < r.data().size() && r.data()[j] == r.data()[i];) ++j;
                *out += r.data()[i] + std::to_string(j - i);
            }
        } else {
            *out += "{" + r.ShortDebugString() + "}";
        }
        *out += " ";
    }
}

struct WindowCase {
    std::string cfg;
    std::vector<int64_t> values;   // kNoValue: a sample without one; a blob's: its length
    std::string outcome;           // refused samples, the records written, the samples left open
    std::vector<int64_t> at = {};  // nanoseconds after kT0; by default sample i at i * 100 ms
};

// Feeds one case to a KPI of its own. A blob sample of length n is n bytes of
// the letter 'a' + its index.
void checkWindows(const WindowCase& c) {
    SCOPED_TRACE(c.cfg);
    zem_test::TempDir dir;
    KPISerializer ser(dir.path(), nullptr);
    ASSERT_EQ(0, ser.Initialize(4194304, 1));
    std::unique_ptr<KPI> kpi = KPI::Create(cfgOf(c.cfg), ser);
    ASSERT_NE(nullptr, kpi);
    std::string outcome;
    std::vector<unsigned char> buf;
    for (size_t i = 0; i < c.values.size(); ++i) {
        const TimePoint t = kT0 + nanoseconds(c.at.empty() ? 100 * kMs * i : c.at[i]);
        int rc;
        if (kpi->GetType() == KPI_BLOB) {
            buf.assign(c.values[i], static_cast<unsigned char>('a' + i));
            rc = static_cast<Blob&>(*kpi).LogBufAt(t, buf.empty() ? nullptr : buf.data(),
                                                   static_cast<unsigned int>(buf.size()));
        } else {
            rc = c.values[i] == kNoValue ? kpi->AddSampleAt(t)
                                         : kpi->AddSampleAt(t, static_cast<unsigned>(c.values[i]));
        }
        if (rc != 0) outcome += "refused " + std::to_string(i) + " ";
    }
    const unsigned int open = kpi->sampleCount();
    ser.Finalize();
    olvan::KPIData written;
    for (const std::string& name : dir.list())
        written.MergeFrom(zem_test::parseCacheFile(dir.file(name)));
    EXPECT_EQ(olvan::V1, written.version());
    describe(written.mutable_counters(), &outcome);
    describe(written.mutable_gauges(), &outcome);
    describe(written.mutable_histograms(), &outcome);
    describe(written.mutable_blobs(), &outcome);
    EXPECT_EQ(c.outcome, outcome + "open " + std::to_string(open));
}

TEST_F(KpiTest, WithoutWindowEverySampleLogsTheWindowItCloses) {
    auto counter = make("type: KPI_NUMERIC subType: COUNTER");
    auto gauge = make("type: KPI_NUMERIC subType: GAUGE");
    auto histogram = make("type: KPI_NUMERIC subType: HISTOGRAM h_cfg { bucket_bounds: 10 }");
    auto blob = make("type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 4 }");
    const unsigned char byte = 1;
    zem_test::LogCapture log;
    for (KPI* kpi : {counter.get(), gauge.get()}) {
        kpi->AddSampleAt(kT0, 4);
        kpi->AddSampleAt(kT0 + milliseconds(50), 5);
    }
    histogram->AddSampleAt(kT0, 3);  // one bound, no flags: no bin takes it
    static_cast<Blob&>(*blob).LogBufAt(kT0, &byte, 1);
    // Emitted windows are logged by the writer thread as it writes them.
    serializer.stopWriterThread();
    const std::string& text = log.text();
    EXPECT_EQ(3, countLogLines(text, 'I', "numSamples < 1, so skipping"));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Counter", 0, kT0, TimePoint{})));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Counter", 1, kT0, kT0)));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Gauge", 1, kT0, kT0)));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Histogram", 0, kT0, TimePoint{})));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Blob", 1, kT0, kT0)));
}

TEST_F(KpiTest, FactoryRefusesJustWhatTheClassesReject) {
    std::string bounds1024 = "type: KPI_NUMERIC subType: HISTOGRAM h_cfg {";
    for (int i = 0; i < 1024; ++i) bounds1024 += " bucket_bounds: " + std::to_string(i);
    // Every other kind is built by the window cases.
    EXPECT_NE(nullptr, KPI::Create(cfgOf(bounds1024 + " }"), serializer));
    zem_test::LogCapture log;
    const std::string refused[] = {
            "type: KPI_NUMERIC",
            "type: KPI_NUMERIC subType: 9",
            "type: KPI_EVENT subType: COUNTER",
            "type: KPIType_INVALID",
            "type: 167772161 subType: COUNTER",
            bounds1024 + " bucket_bounds: 2000 }",
            // No bounds: refused, rather than sized to 2^32-1 bins or overflowed.
            "type: KPI_NUMERIC subType: HISTOGRAM",
            "type: KPI_NUMERIC subType: HISTOGRAM h_cfg { overflow_en: true underflow_en: true }",
            "type: KPI_BLOB",
            "type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 3 }",
            "type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 524289 }",
            "type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 100 sampleRateThresholdPerSec: "
            "1001 }",
    };
    for (const std::string& text : refused) {
        EXPECT_EQ(nullptr, KPI::Create(cfgOf(text), serializer)) << text;
    }
    const std::string& text = log.text();
    EXPECT_EQ(1, countLogLines(text, 'E', "Unknown KPI Type: 201326592 to create"));
    EXPECT_EQ(1, countLogLines(text, 'E', "Unknown KPI Type: 0 to create"));
    EXPECT_EQ(1, countLogLines(text, 'E', "Unknown KPI Type: 167772161 to create"));
    EXPECT_EQ(3, static_cast<int>(std::count(text.begin(), text.end(), '\n')));
}

TEST_F(KpiTest, WindowsCloseByCountDurationAndBytesAndEmitTheAggregate) {
    const std::string kBins =
            "type: KPI_NUMERIC subType: HISTOGRAM h_cfg { bucket_bounds: [10, 20, 30] ";
    const std::string kHuge =
            "type: KPI_BLOB nof_samples: 4294967295 b_cfg { singleSampleSizeTresholdBytes: 524288 "
            "sampleRateThresholdPerSec: 1000 }";
    const WindowCase cases[] = {
            // With a value the window test comes first, so a window of N closes
            // on sample N+1; without one the sample is counted first and closes
            // it on N. The closing sample opens the next window at its own time.
            {"id: 7 type: KPI_NUMERIC subType: COUNTER nof_samples: 3",
             {5, 7, 0, 100, 1, 2, 9},
             "#7 123-125/3 {value: 12} #7 126-128/3 {value: 103} open 1"},
            {"type: KPI_NUMERIC subType: COUNTER nof_samples: 3",
             {kNoValue, kNoValue, kNoValue},
             "123-125/3 {} open 0"},
            // State and blob aggregators take any subtype.
            {"type: KPI_STATE subType: GAUGE nof_samples: 2",
             {1, 1, 1, 1, 1},
             "open 1"},  // never emits
            // A duration window holds while fewer whole milliseconds passed.
            {"type: KPI_NUMERIC subType: COUNTER duration_msecs: 1000",
             {1, 2, 4, 8, 16, 32},
             "123-133/3 {value: 7} 133-143/2 {value: 24} open 1",
             {0, 999 * kMs, 1000 * kMs - 1, 1000 * kMs, 1999 * kMs, 2000 * kMs}},
            // Without a window every sample emits the one before.
            {"type: KPI_NUMERIC subType: COUNTER", {4, 5}, "123-123/1 {value: 4} open 1"},
            {"type: KPI_NUMERIC subType: GAUGE", {4, 5}, "123-123/1 {} open 1"},
            {"type: KPI_BLOB subType: COUNTER b_cfg { singleSampleSizeTresholdBytes: 4 }",
             {1},
             "123-123/1 a1 open 0"},
            // Gauges report only the statistics asked for, each window from
            // fresh extremes; the mean is taken in double and only then
            // rounded (rounding the sum first gives 5592406.5).
            {"type: KPI_NUMERIC subType: GAUGE nof_samples: 3 g_cfg { min: true max: true mean: "
             "true }",
             {10, 2, 7, 50, 51, 52, 0},
             "123-125/3 {min: 2 max: 10 mean: 6.33333349} 126-128/3 {min: 50 max: 52 mean: 51} "
             "open 1"},
            {"type: KPI_NUMERIC subType: GAUGE nof_samples: 3 g_cfg { mean: true }",
             {5592407, 5592407, 5592407, 0},
             "123-125/3 {mean: 5592407} open 1"},
            {"type: KPI_NUMERIC subType: GAUGE nof_samples: 1 g_cfg { min: true }",
             {UINT_MAX, 0},
             "123-123/1 {min: 4294967295} open 1"},
            // Histogram bins follow the flags. A value above the last bound
            // without overflow is dropped: neither counted nor moving the window
            // end; with overflow it is counted into no emitted bin.
            {kBins + "} duration_msecs: 1000",
             {10, 11, 20, 21, 30, 31, 15},
             "123-123/4 [2 2] open 1",
             {0, 0, 0, 0, 0, 500 * kMs, 5000 * kMs}},
            {kBins + "underflow_en: true overflow_en: true } nof_samples: 6",
             {0, 10, 11, 30, 31, UINT_MAX, 15},
             "123-128/6 [2 1 1 2] open 1"},
            {kBins + "underflow_en: true } nof_samples: 4",
             {5, 10, 31, 20, 30, 15},
             "123-127/4 [2 1 1] open 1"},
            {kBins + "overflow_en: true } nof_samples: 4",
             {5, 11, 21, 31, UINT_MAX, 11, 11, 11, 11, 15},
             "123-127/4 [1 1 0] 128-131/4 [4 0 0] open 1"},
            // One bound without flags has no bin at all: nothing is ever counted.
            {"type: KPI_NUMERIC subType: HISTOGRAM nof_samples: 1 h_cfg { bucket_bounds: 5 }",
             {0, 5, 6},
             "open 0"},
            // Blobs keep buffers up to the threshold and join them.
            {"type: KPI_BLOB nof_samples: 3 b_cfg { singleSampleSizeTresholdBytes: 4 }",
             {5, 3, 0, 4, 2, 1, 1},
             "refused 0 124-126/3 b3d4 126-129/3 e2f1g1 open 0"},
            // A blob window also closes at the sample that brings its stored
            // bytes to 512 KiB; the next sample opens a new one.
            {kHuge, {524287, 1, 5}, "123-124/2 a524287b1 open 1"},  // exactly the bound closes
            {kHuge,
             {524287, 524288, 1},
             "123-124/2 a524287b524288 open 1"},  // the largest record: 1 MiB - 1
            {kHuge,
             {524288, 524288, 3},
             "123-123/1 a524288 123-124/1 b524288 open 1"},  // one full sample is a window
            {kHuge, {262144, 262143}, "open 2"},             // one byte short stays open
            {"type: KPI_BLOB duration_msecs: 60000 b_cfg { singleSampleSizeTresholdBytes: 524288 }",
             {300000, 300000, 300000},
             "123-124/2 a300000b300000 open 1"},
            // The count closes first; the byte bound then closes its own.
            {"type: KPI_BLOB nof_samples: 2 b_cfg { singleSampleSizeTresholdBytes: 524288 }",
             {10, 524288, 524288},
             "123-124/2 a10b524288 124-125/1 c524288 open 0"},
    };
    for (const WindowCase& c : cases) checkWindows(c);
}

// Every search the histogram may pick must agree with the scan from the
// front: repeated bounds, values equal to, next to and between bounds, and
// lists that are evenly spread, clustered, random or out of order.
TEST_F(KpiTest, BucketSearchMatchesTheFrontToBackScan) {
    std::mt19937 rng(20240601);
    auto reference = [](const std::vector<uint32_t>& b, bool over, bool under, uint32_t v) {
        const uint32_t n = static_cast<uint32_t>(b.size());
        uint32_t i = 0;
        while (i < n && b[i] < v) ++i;
        if (!under && static_cast<int32_t>(i) < static_cast<int32_t>(n)) i -= 1;
        if (over) return i;
        return i == n ? Histogram::kNoBin : i;
    };
    std::set<Histogram::Search> used;
    for (int round = 0; round < 600; ++round) {
        std::vector<uint32_t> b(1 + rng() % (round % 5 == 0 ? 1024 : 40));
        const uint32_t step = 1 + rng() % (UINT_MAX / static_cast<uint32_t>(b.size()));
        const uint32_t start = rng() % (UINT_MAX - step * (b.size() - 1) + 1);
        for (size_t i = 0; i < b.size(); ++i) {
            switch (round % 4) {
                case 0:  // evenly spread, slightly jittered
                    b[i] = start + static_cast<uint32_t>(i) * step + rng() % (step / 4 + 1);
                    break;
                case 1:  // clustered: many repeats
                    b[i] = rng() % 40;
                    break;
                default:  // random; case 3 stays out of order
                    b[i] = rng() % UINT_MAX + rng() % 2;
            }
        }
        if (round % 4 != 3) std::sort(b.begin(), b.end());
        KPICfg cfg = cfgOf("type: KPI_NUMERIC subType: HISTOGRAM");
        cfg.mutable_h_cfg()->mutable_bucket_bounds()->Add(b.begin(), b.end());
        cfg.mutable_h_cfg()->set_overflow_en(round & 1);
        cfg.mutable_h_cfg()->set_underflow_en(round & 2);
        Histogram h(cfg, serializer);
        used.insert(h.search());
        auto check = [&](uint32_t v) {
            ASSERT_EQ(reference(b, round & 1, round & 2, v), h.findBucketId(v))
                    << "round " << round << " value " << v;
        };
        for (int k = 0; k < 200; ++k) {
            const uint32_t pick = b[rng() % b.size()];
            check(pick);
            check(pick + 1);
            check(pick - 1);
            check(rng());
        }
        check(0);
        check(UINT_MAX);
    }
    EXPECT_EQ(3u, used.size());
}

// Starts from nearly full counts, which would otherwise take 2^32 samples.
class NearlyFullCounter : public Counter {
  public:
    using Counter::Counter;
    void fill(uint64_t s, unsigned int n) { sum = s, numSamples = n; }
};
class NearlyFullHistogram : public Histogram {
  public:
    using Histogram::Histogram;
    void fillBin(uint32_t i) { bins[i] = UINT_MAX; }
};

TEST(KpiDeathTest, CountsTerminateTheProcessInsteadOfWrapping) {
    zem_test::TempDir dir;
    KPISerializer serializer(dir.path(), nullptr);  // no writer thread: safe to fork
    NearlyFullCounter counter(cfgOf("type: KPI_NUMERIC duration_msecs: 1000"), serializer);
    counter.fill(ULLONG_MAX - 1, 2);
    EXPECT_DEATH(counter.AddSampleAt(kT0, 2), "arithmetic overflow in Counter sum");
    counter.fill(0, UINT_MAX);
    EXPECT_DEATH(counter.AddSampleAt(kT0, 0), "arithmetic overflow in KPI numSamples");

    const TimePoint earliest{nanoseconds(LLONG_MIN + 1)}, latest{nanoseconds(LLONG_MAX)};
    NearlyFullCounter timed(cfgOf("type: KPI_NUMERIC duration_msecs: 1000"), serializer);
    timed.AddSampleAt(earliest, 1);
    EXPECT_DEATH(timed.AddSampleAt(latest, 1), "arithmetic overflow in KPI window elapsed time");

    NearlyFullHistogram histogram(
            cfgOf("type: KPI_NUMERIC nof_samples: 9 h_cfg { bucket_bounds: [1, 2] }"), serializer);
    histogram.fillBin(0);
    EXPECT_DEATH(histogram.AddSampleAt(kT0, 2), "arithmetic overflow in Histogram bin count");
}

}  // namespace
