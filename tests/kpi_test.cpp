// Aggregator behaviour seen from outside: the records a real serializer
// writes to its cache file and the lines the aggregators log. Windows are
// crossed with explicit clock readings, never by sleeping.
#include "kpi/KPI.h"

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <climits>
#include <random>
#include <set>
#include <typeinfo>

#include "TestUtil.h"
#include "collector/CampaignRules.h"
#include "kpi/Blob.h"
#include "kpi/Counter.h"
#include "kpi/Gauge.h"
#include "kpi/Histogram.h"
#include "kpi/StateMachine.h"
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

class KpiFixture : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, serializer.Initialize(4194304, 1)); }

    std::unique_ptr<KPI> make(const std::string& text) {
        std::unique_ptr<KPI> kpi = KPI::Create(cfgOf(text), serializer);
        EXPECT_NE(kpi, nullptr) << text;
        return kpi;
    }

    // Everything written so far, in write order. Ends the campaign.
    olvan::KPIData records() {
        serializer.Finalize();
        olvan::KPIData all;
        for (const std::string& name : dir.list())
            all.MergeFrom(zem_test::parseCacheFile(dir.file(name)));
        return all;
    }

    zem_test::TempDir dir;
    KPISerializer serializer{dir.path(), nullptr};
};

// Suites are named in lower case so that selecting tests by "kpi" finds them.
using kpi = KpiFixture;

// With a value the window test comes first, so a window of N closes on
// sample N+1; without one the sample is counted first and closes it on N.
TEST_F(kpi, CountWindowClosesAfterSampleNWithAValueAndOnItWithout) {
    auto valued = make("id: 7 type: KPI_NUMERIC subType: COUNTER nof_samples: 3");
    const unsigned int values[] = {5, 7, 0, 100, 1, 2, 9};
    for (int i = 0; i < 7; ++i) valued->AddSampleAt(kT0 + milliseconds(100 * i), values[i]);
    EXPECT_EQ(1u, valued->sampleCount());  // 9 opened a window that is never flushed
    auto valueless = make("type: KPI_NUMERIC subType: COUNTER nof_samples: 3");
    for (int i = 0; i < 3; ++i) valueless->AddSampleAt(kT0);
    EXPECT_EQ(0u, valueless->sampleCount());
    auto state = make("type: KPI_STATE nof_samples: 2");  // rolls windows, never emits
    for (int i = 0; i < 5; ++i) state->AddSampleAt(kT0, 1);
    EXPECT_EQ(1u, state->sampleCount());

    const olvan::KPIData data = records();
    ASSERT_EQ(3, data.counters_size());
    EXPECT_EQ(12u, data.counters(0).value());
    EXPECT_EQ(3u, data.counters(0).meta().nof_samples());
    EXPECT_EQ(7u, data.counters(0).meta().id());
    EXPECT_EQ(103u, data.counters(1).value());
    // The closing sample opens the next window at its own time.
    EXPECT_EQ(126u, data.counters(1).meta().ts_start());
    EXPECT_EQ(128u, data.counters(1).meta().ts_end());
    EXPECT_EQ(3u, data.counters(2).meta().nof_samples());
    EXPECT_EQ(0u, data.counters(2).value());
}

TEST_F(kpi, DurationWindowHoldsWhileFewerWholeMillisecondsPassed) {
    auto kpi = make("type: KPI_NUMERIC subType: COUNTER duration_msecs: 1000");
    kpi->AddSampleAt(kT0, 1);
    kpi->AddSampleAt(kT0 + milliseconds(999), 2);
    kpi->AddSampleAt(kT0 + nanoseconds(999999999), 4);  // still 999 whole ms
    kpi->AddSampleAt(kT0 + milliseconds(1000), 8);      // closes, opens at 1000
    kpi->AddSampleAt(kT0 + milliseconds(1999), 16);
    kpi->AddSampleAt(kT0 + milliseconds(2000), 32);

    const olvan::KPIData data = records();
    ASSERT_EQ(2, data.counters_size());
    EXPECT_EQ(7u, data.counters(0).value());
    EXPECT_EQ(3u, data.counters(0).meta().nof_samples());
    EXPECT_EQ(123u, data.counters(0).meta().ts_start());  // tenths of a second
    EXPECT_EQ(133u, data.counters(0).meta().ts_end());
    EXPECT_EQ(24u, data.counters(1).value());
    EXPECT_EQ(133u, data.counters(1).meta().ts_start());
}

TEST_F(kpi, WithoutWindowEverySampleEmitsThePreviousOneAndLogsIt) {
    auto counter = make("type: KPI_NUMERIC subType: COUNTER");
    auto gauge = make("type: KPI_NUMERIC subType: GAUGE");
    auto histogram = make("type: KPI_NUMERIC subType: HISTOGRAM h_cfg { bucket_bounds: 10 }");
    auto blob = make("type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 4 }");
    const TimePoint t1 = kT0 + milliseconds(50);
    const unsigned char byte = 1;
    zem_test::LogCapture log;
    for (KPI* kpi : {counter.get(), gauge.get()}) {
        kpi->AddSampleAt(kT0, 4);
        kpi->AddSampleAt(t1, 5);
    }
    histogram->AddSampleAt(kT0, 3);  // one bound, no flags: no bin takes it
    static_cast<Blob&>(*blob).LogBufAt(kT0, &byte, 1);
    // Emitted windows are logged by the writer thread as it writes them.
    serializer.stopWriterThread();
    const std::string& text = log.text();

    // The first sample closes a window that never started.
    EXPECT_EQ(3, countLogLines(text, 'I', "numSamples < 1, so skipping"));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Counter", 0, kT0, TimePoint{})));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Counter", 1, kT0, kT0)));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Gauge", 1, kT0, kT0)));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Histogram", 0, kT0, TimePoint{})));
    EXPECT_EQ(1, countLogLines(text, 'I', logLine("Blob", 1, kT0, kT0)));

    const olvan::KPIData data = records();
    ASSERT_EQ(1, data.counters_size());
    EXPECT_EQ(4u, data.counters(0).value());
    EXPECT_EQ(1, data.gauges_size());
    EXPECT_EQ(0, data.histograms_size());
    EXPECT_EQ(1, data.blobs_size());
}

TEST_F(kpi, FactoryBuildsByTypeAndRefusesWhatTheClassesReject) {
    std::string bounds1024 = "type: KPI_NUMERIC subType: HISTOGRAM h_cfg {";
    for (int i = 0; i < 1024; ++i) bounds1024 += " bucket_bounds: " + std::to_string(i);
    const std::pair<std::string, const std::type_info&> built[] = {
            {"type: KPI_NUMERIC subType: COUNTER", typeid(Counter)},
            {"type: KPI_NUMERIC subType: GAUGE", typeid(Gauge)},
            {bounds1024 + " }", typeid(Histogram)},
            {"type: KPI_STATE subType: GAUGE", typeid(StateMachine)},
            {"type: KPI_BLOB subType: COUNTER b_cfg { singleSampleSizeTresholdBytes: 4 }",
             typeid(Blob)},
            {"type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 524288 "
             "sampleRateThresholdPerSec: 1000 }",
             typeid(Blob)},
    };
    for (const auto& [text, type] : built) {
        std::unique_ptr<KPI> kpi = make(text);
        ASSERT_NE(nullptr, kpi);
        const KPI& ref = *kpi;
        EXPECT_EQ(type, typeid(ref)) << text;
        EXPECT_EQ(cfgOf(text).type(), kpi->GetType());
    }

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

TEST_F(kpi, GaugeReportsOnlyTheStatisticsAskedFor) {
    auto all =
            make("type: KPI_NUMERIC subType: GAUGE nof_samples: 3 "
                 "g_cfg { min: true max: true mean: true }");
    auto meanOnly = make("type: KPI_NUMERIC subType: GAUGE nof_samples: 3 g_cfg { mean: true }");
    auto minOnly = make("type: KPI_NUMERIC subType: GAUGE nof_samples: 1 g_cfg { min: true }");
    for (unsigned int v : {10u, 2u, 7u, 50u, 51u, 52u, 0u}) all->AddSampleAt(kT0, v);
    for (unsigned int v : {5592407u, 5592407u, 5592407u, 0u}) meanOnly->AddSampleAt(kT0, v);
    minOnly->AddSampleAt(kT0, UINT_MAX);
    minOnly->AddSampleAt(kT0, 0);

    const olvan::KPIData data = records();
    ASSERT_EQ(4, data.gauges_size());
    const olvan::Gauge& first = data.gauges(0);
    EXPECT_EQ(2u, first.min());
    EXPECT_EQ(10u, first.max());
    EXPECT_EQ(static_cast<float>(19.0 / 3.0), first.mean());
    // The second window starts from fresh extremes.
    EXPECT_EQ(50u, data.gauges(1).min());
    EXPECT_EQ(52u, data.gauges(1).max());
    EXPECT_EQ(51.0f, data.gauges(1).mean());
    // The quotient is taken in double and only then rounded: dividing the
    // sum rounded to float first would give 5592406.5.
    EXPECT_EQ(5592407.0f, data.gauges(2).mean());
    // What was not requested is absent.
    EXPECT_EQ(olvan::Gauge::MIN_ONEOF_NOT_SET, data.gauges(2).min_oneof_case());
    EXPECT_EQ(olvan::Gauge::MAX_ONEOF_NOT_SET, data.gauges(2).max_oneof_case());
    EXPECT_EQ(UINT_MAX, data.gauges(3).min());
    EXPECT_EQ(olvan::Gauge::MEAN_ONEOF_NOT_SET, data.gauges(3).mean_oneof_case());
}

TEST_F(kpi, HistogramBinLayoutFollowsTheFlags) {
    const std::string base =
            "type: KPI_NUMERIC subType: HISTOGRAM h_cfg { bucket_bounds: [10, 20, 30] ";
    const TimePoint late = kT0 + std::chrono::seconds(5);
    auto feed = [&](const std::string& text, std::initializer_list<unsigned int> values) {
        auto kpi = make(text);
        for (unsigned int v : values) kpi->AddSampleAt(kT0, v);
        return kpi;
    };
    auto none = feed(base + "} duration_msecs: 1000", {10, 11, 20, 21, 30});
    // Dropped: neither counted nor moving the window end.
    none->AddSampleAt(kT0 + milliseconds(500), 31);
    none->AddSampleAt(late, 15);
    feed(base + "underflow_en: true overflow_en: true } nof_samples: 6",
         {0, 10, 11, 30, 31, UINT_MAX, 15});
    feed(base + "underflow_en: true } nof_samples: 4", {5, 10, 31, 20, 30, 15});
    // Above the last bound: counted, but into no emitted bin.
    auto over = feed(base + "overflow_en: true } nof_samples: 4",
                     {5, 11, 21, 31, UINT_MAX, 11, 11, 11, 11});
    over->AddSampleAt(late, 15);

    const olvan::KPIData data = records();
    auto bins = [&](int i) {
        const auto& b = data.histograms(i).bin_counts();
        return std::vector<uint32_t>(b.begin(), b.end());
    };
    ASSERT_EQ(5, data.histograms_size());
    EXPECT_EQ((std::vector<uint32_t>{2, 2}), bins(0));
    EXPECT_EQ(123u, data.histograms(0).meta().ts_end());
    EXPECT_EQ((std::vector<uint32_t>{2, 1, 1, 2}), bins(1));
    EXPECT_EQ((std::vector<uint32_t>{2, 1, 1}), bins(2));
    EXPECT_EQ((std::vector<uint32_t>{1, 1, 0}), bins(3));
    EXPECT_EQ(4u, data.histograms(3).meta().nof_samples());
    EXPECT_EQ((std::vector<uint32_t>{4, 0, 0}), bins(4));  // reset, spare never shows

    // One bound without flags has no bin at all: nothing is ever counted.
    auto single =
            make("type: KPI_NUMERIC subType: HISTOGRAM nof_samples: 1 h_cfg { bucket_bounds: 5 }");
    for (unsigned int v : {0u, 5u, 6u}) single->AddSampleAt(kT0, v);
    EXPECT_EQ(0u, single->sampleCount());
}

// Every search the histogram may pick must agree with the scan from the
// front: repeated bounds, values equal to, next to and between bounds, and
// lists that are evenly spread, clustered, random or out of order.
TEST_F(kpi, BucketSearchMatchesTheFrontToBackScan) {
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

TEST_F(kpi, BlobKeepsBuffersUpToTheThresholdAndJoinsThem) {
    auto kpi = make("type: KPI_BLOB nof_samples: 3 b_cfg { singleSampleSizeTresholdBytes: 100 }");
    auto* blob = static_cast<Blob*>(kpi.get());
    const std::vector<unsigned char> big(101, 'x');
    const unsigned char abc[] = {'a', 'b', 'c'};
    EXPECT_EQ(-1, blob->LogBufAt(kT0, big.data(), 101));
    EXPECT_EQ(0u, blob->sampleCount());
    EXPECT_EQ(0, blob->LogBufAt(kT0, abc, 3));
    EXPECT_EQ(0, blob->LogBufAt(kT0, nullptr, 0));
    EXPECT_EQ(0, blob->LogBufAt(kT0, big.data(), 100));  // third sample closes the window
    EXPECT_EQ(0u, blob->sampleCount());
    EXPECT_EQ(0, blob->LogBufAt(kT0, abc + 1, 2));
    EXPECT_EQ(0, blob->LogBufAt(kT0, abc, 1));
    EXPECT_EQ(0, blob->LogBufAt(kT0, abc + 2, 1));

    const olvan::KPIData data = records();
    ASSERT_EQ(2, data.blobs_size());
    EXPECT_EQ("abc" + std::string(100, 'x'), data.blobs(0).data());
    EXPECT_EQ(3u, data.blobs(0).meta().nof_samples());
    EXPECT_EQ("bcac", data.blobs(1).data());
}

// A window closes at the sample that brings its stored bytes to 512 KiB,
// whatever its own limit; the next sample opens a new window.
TEST_F(kpi, BlobWindowClosesAtHalfAMebibyteOfStoredBytes) {
    struct Case {
        const char* cfg;
        std::vector<unsigned int> sizes;      // logged in order at kT0 + i ms
        std::vector<uint64_t> windowSamples;  // per emitted record (the last one stays open)
    };
    const char* const huge =
            "type: KPI_BLOB nof_samples: 4294967295 b_cfg { singleSampleSizeTresholdBytes: 524288 "
            "}";
    const char* const timed =
            "type: KPI_BLOB duration_msecs: 60000 b_cfg { singleSampleSizeTresholdBytes: 524288 }";
    const Case cases[] = {
            {huge, {524287, 1, 5}, {2}},             // exactly the bound closes
            {huge, {524287, 524288, 1}, {2}},        // the largest record: 1 MiB - 1
            {huge, {524288, 524288, 3}, {1, 1}},     // one full sample is a window
            {huge, {262144, 262143}, {}},            // one byte short stays open
            {timed, {300000, 300000, 300000}, {2}},  // duration windows too
            {"type: KPI_BLOB nof_samples: 2 b_cfg { singleSampleSizeTresholdBytes: 524288 }",
             {10, 524288, 524288},
             {2, 1}},  // the count closes first; the byte bound then closes its own
    };
    for (const Case& c : cases) {
        zem_test::TempDir caseDir;
        KPISerializer ser(caseDir.path(), nullptr);
        ASSERT_EQ(0, ser.Initialize(4194304, 1));
        auto kpi = KPI::Create(cfgOf(c.cfg), ser);
        ASSERT_NE(kpi, nullptr);
        auto* blob = static_cast<Blob*>(kpi.get());
        std::vector<unsigned char> buf;
        uint64_t logged = 0;
        for (size_t i = 0; i < c.sizes.size(); ++i) {
            buf.assign(c.sizes[i], static_cast<unsigned char>('a' + i));
            ASSERT_EQ(0, blob->LogBufAt(kT0 + milliseconds(i), buf.data(), c.sizes[i]));
            logged += c.sizes[i];
        }
        ser.Finalize();
        olvan::KPIData data;
        for (const std::string& name : caseDir.list())
            data.MergeFrom(zem_test::parseCacheFile(caseDir.file(name)));
        ASSERT_EQ(c.windowSamples.size(), static_cast<size_t>(data.blobs_size())) << c.cfg;
        uint64_t emitted = 0;
        for (int i = 0; i < data.blobs_size(); ++i) {
            EXPECT_EQ(c.windowSamples[i], data.blobs(i).meta().nof_samples()) << c.cfg;
            EXPECT_LT(data.blobs(i).data().size(), 2 * zem::kBlobWindowBytes);
            emitted += data.blobs(i).data().size();
        }
        // What is not emitted is still held by the open window, and less
        // than the bound.
        EXPECT_LT(logged - emitted, zem::kBlobWindowBytes) << c.cfg;
    }
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

TEST(kpiDeathTest, CountsTerminateTheProcessInsteadOfWrapping) {
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
