// The collector: registration and its retries, lost connections, campaign
// validation, start and stop, sample dispatch, and the C API end to end into
// cache files, with an in-process transport.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include "FakeTransport.h"
#include "TestUtil.h"
#include "collector/CollectorSeams.h"
#include "collector/zem_collector.h"
#include "zem_sdk.h"

using zem_test::countLogLines;
using zem_test::FakeTransport;
using zem_test::LogCapture;
using zem_test::TempDir;
using zem_test::waitFor;
using namespace std::chrono_literals;

namespace {

std::atomic<int> gStartCalls{0}, gStopCalls{0};
std::string gPayload;
int32_t gStartResult = 0, gStopResult = 0;

int32_t onStart(const uint8_t* payload, uint64_t len) {
    gPayload.assign(reinterpret_cast<const char*>(payload), len);
    ++gStartCalls;
    return gStartResult;
}
int32_t onStop() {
    ++gStopCalls;
    return gStopResult;
}

KPICfg counterCfg(int32_t id, uint32_t window) {
    KPICfg cfg;
    cfg.set_id(id);
    cfg.set_type(KPI_NUMERIC);
    cfg.set_subtype(COUNTER);
    cfg.set_nof_samples(window);
    return cfg;
}

KPICfg blobCfg(int32_t id, uint32_t window, uint32_t threshold) {
    KPICfg cfg;
    cfg.set_id(id);
    cfg.set_type(KPI_BLOB);
    cfg.set_nof_samples(window);
    cfg.mutable_b_cfg()->set_singlesamplesizetresholdbytes(threshold);
    return cfg;
}

LTCCampaignDef campaign(std::initializer_list<KPICfg> kpis, uint32_t size = 4096) {
    LTCCampaignDef def;
    def.set_size_threshold(size);
    def.set_time_threshold(60);
    for (const auto& k : kpis) *def.add_kpicfgs() = k;
    return def;
}

class CollectorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        gStartCalls = gStopCalls = 0;
        gStartResult = gStopResult = 0;
        gPayload.clear();
        zem::internal::setRetryDelay(std::chrono::milliseconds(20));
        zem::internal::setTransportFactory([this](uint32_t) { return transport; });
    }
    void TearDown() override {
        zem::internal::setTransportFactory(nullptr);
        zem::internal::setRetryDelay(std::chrono::milliseconds(0));
        zem::internal::setDisposePatience(std::chrono::milliseconds(0));
        zem::internal::setThreadStartFailure(false);
    }

    zem_cfg_s cfg(uint32_t transportValue = ZEM_TRANSPORT_GRPC) {
        zem_cfg_s c{};
        c.name = "cam";
        c.version = 0x0102;
        c.cache_dir = dir.path().c_str();
        c.campaign_start_cb = onStart;
        c.campaign_stop_cb = onStop;
        c.transport = transportValue;
        return c;
    }

    // Registers and waits until the fake transport handed out its token.
    zem_handle registered() {
        zem_cfg_s c = cfg();
        zem_handle h = zem_register(&c);
        EXPECT_NE(nullptr, h);
        EXPECT_TRUE(waitFor([h] { return h->getToken() == "tok-1"; }));
        return h;
    }

    TempDir dir;
    std::shared_ptr<FakeTransport> transport = std::make_shared<FakeTransport>();
};

}  // namespace

TEST_F(CollectorTest, SamplesThroughTheCApiArriveAsOneParsableFilePerCampaign) {
    zem_handle h = registered();
    EXPECT_EQ("cam", transport->lastName);
    EXPECT_EQ(0x0102u, transport->lastVersion);
    EXPECT_EQ(-1, zem_log(h, 10, 5));  // no campaign yet

    // Every numeric class with a window of two samples (ids x0), of a minute
    // (x1) and none (x2): windows that count samples take the collector's
    // short path, duration windows the general one. Both must give the
    // records the windows define. Blob 2 closes on its second sample.
    std::string text;
    const char* windows[] = {"nof_samples: 2", "duration_msecs: 60000", ""};
    const char* classes[] = {"subType: COUNTER", "subType: GAUGE g_cfg { max: true }",
                             "subType: HISTOGRAM h_cfg { bucket_bounds: [10, 1000] "
                             "underflow_en: true overflow_en: true }"};
    for (int c = 0; c < 3; ++c) {
        for (int w = 0; w < 3; ++w) {
            text += "kpiCfgs { id: " + std::to_string(10 * (c + 1) + w) + " type: KPI_NUMERIC " +
                    classes[c] + " " + windows[w] + " }\n";
        }
    }
    LTCCampaignDef def;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(
            text + "size_threshold: 4096 time_threshold: 60", &def));
    *def.add_kpicfgs() = blobCfg(2, 2, 16);
    def.set_cfg_payload(std::string("\0pay", 4));
    gStartResult = 7;
    EXPECT_EQ(7, h->StartCampaign(def.SerializeAsString()));
    EXPECT_EQ(1, gStartCalls.load());
    EXPECT_EQ(std::string("\0pay", 4), gPayload);

    for (uint32_t v : {5u, 7u, 0u, 100u, 50u}) {
        for (uint32_t id : {10u, 11u, 12u, 20u, 21u, 22u, 30u, 31u, 32u}) {
            ASSERT_EQ(0, zem_log(h, id, v)) << id;
        }
    }
    const uint8_t a[] = {1, 2, 3}, b[] = {4, 5};
    EXPECT_EQ(0, zem_log_blob(h, 2, a, sizeof a));
    EXPECT_EQ(0, zem_log_blob(h, 2, b, sizeof b));
    EXPECT_EQ(-1, zem_log_blob(h, 2, nullptr, 4));  // refused, nothing counted
    EXPECT_EQ(0, zem_log_blob(h, 2, nullptr, 0));

    gStopResult = 3;
    EXPECT_EQ(3, h->StopCampaign());
    EXPECT_EQ(-1, zem_log(h, 10, 1));

    auto sent = transport->sentFiles();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ("tok-1", sent[0].token);
    EXPECT_FALSE(zem_test::readFile(sent[0].filename).size());  // removed after delivery
    olvan::KPIData data;
    ASSERT_TRUE(data.ParseFromString(sent[0].bytes));
    EXPECT_EQ(olvan::V1, data.version());

    // Samples per window, by id: a window closes on its last sample, the open
    // one is serialized at stop; no window at all is one window per sample.
    std::map<uint32_t, std::vector<uint64_t>> counts;
    for (const auto& r : data.counters()) counts[r.meta().id()].push_back(r.meta().nof_samples());
    for (const auto& r : data.gauges()) counts[r.meta().id()].push_back(r.meta().nof_samples());
    for (const auto& r : data.histograms()) counts[r.meta().id()].push_back(r.meta().nof_samples());
    for (const auto& r : data.blobs()) counts[r.meta().id()].push_back(r.meta().nof_samples());
    for (uint32_t base : {10u, 20u, 30u}) {
        EXPECT_EQ((std::vector<uint64_t>{2, 2, 1}), counts[base]) << base;
        EXPECT_EQ((std::vector<uint64_t>{5}), counts[base + 1]) << base + 1;
        EXPECT_EQ((std::vector<uint64_t>{1, 1, 1, 1, 1}), counts[base + 2]) << base + 2;
    }
    std::map<uint32_t, std::vector<uint64_t>> sums, maxes;
    for (const auto& r : data.counters()) sums[r.meta().id()].push_back(r.value());
    for (const auto& r : data.gauges()) maxes[r.meta().id()].push_back(r.max());
    EXPECT_EQ((std::vector<uint64_t>{12, 100, 50}), sums[10]);
    EXPECT_EQ((std::vector<uint64_t>{162}), sums[11]);
    EXPECT_EQ((std::vector<uint64_t>{5, 7, 0, 100, 50}), sums[12]);
    EXPECT_EQ((std::vector<uint64_t>{7, 100, 50}), maxes[20]);
    EXPECT_EQ((std::vector<uint64_t>{100}), maxes[21]);
    // The zero-length blob sat alone at stop.
    EXPECT_EQ((std::vector<uint64_t>{2, 1}), counts[2]);
    EXPECT_EQ(std::string("\1\2\3\4\5"), data.blobs(0).data());

    EXPECT_EQ(0, zem_deregister(h));
    EXPECT_EQ(std::vector<std::string>{"tok-1"}, transport->deregistered);
    // The client no longer knows the destroyed collector.
    EXPECT_EQ(nullptr, transport->registered);
    EXPECT_GE(transport->forgotten, 1);
}

TEST_F(CollectorTest, DispatchChecksIdAndTypeWithTheirOwnCodes) {
    zem_handle h = registered();
    KPICfg state;
    state.set_id(3);
    state.set_type(KPI_STATE);
    ASSERT_EQ(0,
              h->StartCampaign(
                      campaign({counterCfg(1, 10), blobCfg(2, 10, 8), state}).SerializeAsString()));

    // A null handle, then an unknown id: -1 everywhere.
    for (zem_handle x : {zem_handle(nullptr), h}) {
        const uint32_t id = x == nullptr ? 1 : 99;
        EXPECT_EQ(-1, zem_log(x, id, 1));
        EXPECT_EQ(-1, zem_log_event(x, id));
        EXPECT_EQ(-1, zem_log_state(x, id));
        EXPECT_EQ(-1, zem_log_blob(x, id, nullptr, 0));
    }
    EXPECT_EQ(-1, zem_deregister(nullptr));

    const uint8_t buf[9] = {};
    EXPECT_EQ(-1, zem_log(h, 2, 1));            // numeric on a blob: -1
    EXPECT_EQ(-2, zem_log_blob(h, 1, buf, 1));  // blob on a numeric: -2
    EXPECT_EQ(-1, zem_log_event(h, 1));         // event on a numeric: -1
    EXPECT_EQ(-2, zem_log_state(h, 1));         // state on a numeric: -2
    EXPECT_EQ(0, zem_log_state(h, 3));          // accepted, records nothing
    EXPECT_EQ(-1, zem_log_blob(h, 2, buf, 9));  // over the threshold
    EXPECT_EQ(0, zem_log_blob(h, 2, buf, 8));   // at the threshold
    EXPECT_EQ(1u, h->kpiTable().find(2)->sampleCount());
    EXPECT_EQ(0u, h->kpiTable().find(3)->sampleCount());
    zem_deregister(h);
}

TEST_F(CollectorTest, CampaignLimitsAndKpiRefusalsAreLoggedWithTheFieldAndWhy) {
    zem_handle h = registered();
    const std::string invalid = "cam: invalid campaign config";
    // What a campaign beyond its limits logs: the refusal, then each field.
    auto broken = [&](std::initializer_list<std::string> fields) {
        std::vector<std::string> lines = {invalid};
        for (const std::string& f : fields) lines.push_back("cam: campaign field " + f);
        return lines;
    };
    // What a refused KPI logs: KPI::Create's own line when it has one, then
    // the collector's two.
    auto refused = [](int id, const std::string& why, const std::string& factoryLine = "") {
        const std::string n = std::to_string(id);
        std::vector<std::string> lines = {
                "cam: error: could not create KPI id: " + n + " from KPICfg",
                "cam: KPI id " + n + " refused: " + why};
        if (!factoryLine.empty()) lines.insert(lines.begin(), factoryLine);
        return lines;
    };
    struct Case {
        uint32_t size, time, kpis, payload;
        std::string kpi;  // one more KPICfg, in text format
        // The ERROR lines of StartCampaign; none when the campaign passes.
        std::vector<std::string> errors;
    } const cases[] = {
            {100, 1, 0, 0, "", {}},
            {4194304, 21600, 1024, 1048576, "", {}},
            {99, 60, 0, 0, "", broken({"size_threshold=99 outside [100, 4194304]"})},
            {4194305, 60, 0, 0, "", broken({"size_threshold=4194305 outside [100, 4194304]"})},
            {4096, 0, 0, 0, "", broken({"time_threshold=0 outside [1, 21600]"})},
            {4096, 21601, 0, 0, "", broken({"time_threshold=21601 outside [1, 21600]"})},
            {4096, 60, 1025, 0, "", broken({"kpiCfgs count=1025 outside [0, 1024]"})},
            {4096, 60, 0, 1048577, "", broken({"cfg_payload length=1048577 outside [0, 1048576]"})},
            // Every limit broken is named, in the order they are checked, and
            // no KPI is looked at.
            {0, 0, 0, 0, "id: 1 type: KPI_EVENT",
             broken({"size_threshold=0 outside [100, 4194304]",
                     "time_threshold=0 outside [1, 21600]"})},
            {4096, 60, 0, 0, "id: 2 type: KPI_EVENT",
             refused(2,
                     "type KPI_EVENT has no aggregator (KPI_NUMERIC, KPI_STATE and KPI_BLOB have "
                     "one)",
                     "Unknown KPI Type: 201326592 to create")},
            {4096, 60, 0, 0, "id: 3 type: KPI_NUMERIC subType: 9",
             refused(3,
                     "subType 9 of a KPI_NUMERIC has no aggregator (COUNTER, GAUGE and HISTOGRAM "
                     "have one)")},
            {4096, 60, 0, 0, "id: 4 type: KPI_NUMERIC subType: HISTOGRAM",
             refused(4, "h_cfg.bucket_bounds count=0 outside [1, 1024]")},
            {4096, 60, 0, 0, "id: 5 type: KPI_BLOB nof_samples: 1",
             refused(5, "a KPI_BLOB needs b_cfg")},
            {4096, 60, 0, 0, "id: 6 type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 524289 }",
             refused(6, "b_cfg.singleSampleSizeTresholdBytes=524289 outside [4, 524288]")},
            {4096, 60, 0, 0,
             "id: 7 type: KPI_BLOB b_cfg { singleSampleSizeTresholdBytes: 4 "
             "sampleRateThresholdPerSec: 1001 }",
             refused(7, "b_cfg.sampleRateThresholdPerSec=1001 outside [0, 1000]")},
    };
    for (const Case& c : cases) {
        LTCCampaignDef def;
        def.set_size_threshold(c.size);
        def.set_time_threshold(c.time);
        for (uint32_t i = 0; i < c.kpis; ++i) *def.add_kpicfgs() = counterCfg(i, 1);
        def.set_cfg_payload(std::string(c.payload, 'p'));
        if (!c.kpi.empty()) {
            ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(c.kpi, def.add_kpicfgs()));
        }
        const bool limitsHold = c.errors.empty() || c.errors[0] != invalid;
        EXPECT_EQ(limitsHold, h->validCfg(def)) << c.size << " " << c.time << " " << c.kpis;
        if (!c.errors.empty()) {
            LogCapture cap;
            EXPECT_EQ(-1, h->StartCampaign(def.SerializeAsString()));
            EXPECT_EQ(c.errors, zem_test::logMessages(cap.text(), 'E')) << c.kpi;
        }
    }
    EXPECT_TRUE(h->kpiTable().empty());
    EXPECT_EQ(0, gStartCalls.load());

    LogCapture cap;
    EXPECT_EQ(-1, h->StartCampaign("\xff\xff\xff"));
    EXPECT_EQ(1, countLogLines(cap.text(), 'E', "cam: failed to parse campaign config"));

    // No KPIs at all is a valid campaign that still reaches the callback.
    EXPECT_EQ(0, h->StartCampaign(campaign({}).SerializeAsString()));
    EXPECT_EQ(1, gStartCalls.load());
    h->StopCampaign();
    zem_deregister(h);
}

TEST_F(CollectorTest, CampaignsMergeByIdAndStopAtTheFirstBadKpi) {
    zem_handle h = registered();
    // The later of two configurations with one id wins.
    {
        LogCapture cap;
        ASSERT_EQ(0, h->StartCampaign(
                             campaign({counterCfg(5, 2), counterCfg(5, 1)}).SerializeAsString()));
        EXPECT_EQ(1, countLogLines(cap.text(), 'I', "cam: Recvd Thresholds Size: 4096 Time: 60"));
        EXPECT_EQ(1, countLogLines(cap.text(), 'I',
                                   "cam: Recvd KPICfg id: 5 type: KPI_NUMERIC subType: COUNTER "
                                   "nof_samples: 2 "))
                << cap.text();
    }
    EXPECT_EQ(1u, h->kpiTable().size());
    EXPECT_EQ(1u, h->kpiTable().find(5)->config().nof_samples());

    // A failure at the third of five keeps the first two (and what was
    // there before) and skips the callback.
    KPICfg event;
    event.set_id(12);
    event.set_type(KPI_EVENT);
    gStartCalls = 0;
    LogCapture cap;
    EXPECT_EQ(-1, h->StartCampaign(campaign({counterCfg(10, 1), counterCfg(11, 1), event,
                                             counterCfg(13, 1), counterCfg(14, 1)})
                                           .SerializeAsString()));
    EXPECT_EQ(1, countLogLines(cap.text(), 'E',
                               "cam: error: could not create KPI id: 12 from KPICfg"));
    EXPECT_EQ(1, countLogLines(cap.text(), 'E', "Unknown KPI Type: 201326592 to create"));
    EXPECT_EQ(0, gStartCalls.load());
    EXPECT_EQ(3u, h->kpiTable().size());
    EXPECT_NE(nullptr, h->kpiTable().find(5));
    EXPECT_NE(nullptr, h->kpiTable().find(11));
    EXPECT_EQ(nullptr, h->kpiTable().find(13));
    EXPECT_EQ(-1, zem_log_event(h, 12));
    h->StopCampaign();
    zem_deregister(h);
}

TEST_F(CollectorTest, StopSerializesInIdOrderThenHandsOverEvenWithoutAWriter) {
    zem_handle h = registered();
    ASSERT_EQ(0, h->StartCampaign(
                         campaign({counterCfg(30, 100), counterCfg(4, 100), counterCfg(20, 100),
                                   counterCfg(17, 100), counterCfg(1, 100)})
                                 .SerializeAsString()));
    // 4, 17 and 30 hold 1, 2 and 3 samples; 1 and 20 none.
    for (uint32_t id : {30u, 4u, 17u, 17u, 30u, 30u}) zem_log(h, id, id);
    LogCapture cap;
    EXPECT_EQ(0, h->StopCampaign());
    // Empty windows' lines come out among the others, in id order.
    std::vector<std::string> lines;
    for (const std::string& m : zem_test::logMessages(cap.text(), 'I')) {
        if (m.find("numSamples") != std::string::npos) lines.push_back(m.substr(0, m.find(", ts")));
    }
    const std::string skip = "numSamples < 1, so skipping", serialized = "Counter::Serialize(), ";
    EXPECT_EQ(std::vector<std::string>({serialized + "numSamples=0", skip,
                                        serialized + "numSamples=1", serialized + "numSamples=2",
                                        serialized + "numSamples=0", skip,
                                        serialized + "numSamples=3"}),
              lines);
    auto sent = transport->sentFiles();
    ASSERT_EQ(1u, sent.size());
    olvan::KPIData data;
    ASSERT_TRUE(data.ParseFromString(sent[0].bytes));
    ASSERT_EQ(3, data.counters_size());
    EXPECT_EQ(4u, data.counters(0).meta().id());
    EXPECT_EQ(17u, data.counters(1).meta().id());
    EXPECT_EQ(30u, data.counters(2).meta().id());

    // A second stop has no writer and no file: the callback still runs and
    // the (closed) last file name is handed over again.
    gStopResult = 9;
    EXPECT_EQ(9, h->StopCampaign());
    EXPECT_EQ(2u, transport->sentFiles().size());
    zem_deregister(h);
}

TEST_F(CollectorTest, LoggingThreadsNeedNoLockWhileCampaignsStartMergeAndStop) {
    // Two threads log as fast as they can while the campaign is started, has
    // a second campaign merged into it (other ids, so nothing is replaced)
    // and is stopped, over and over. Every sample a thread saw accepted must
    // be in a delivered window; none may reach a freed KPI (the sanitizer
    // builds run this too).
    // Windows are long enough that the writer keeps up on a loaded machine:
    // records it cannot take in time would be dropped at the queue's bound,
    // by design, and the count below would not add up.
    zem_handle h = registered();
    const std::string def =
            campaign({counterCfg(1, 5000), counterCfg(2, 3000)}).SerializeAsString();
    const std::string extra =
            campaign({blobCfg(3, 1000, 16), counterCfg(4, 3)}).SerializeAsString();
    std::atomic<bool> done{false};
    uint64_t accepted[2] = {0, 0};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 2; ++t) {
        loggers.emplace_back([&, t] {
            const uint8_t buf[4] = {1, 2, 3, 4};
            uint64_t n = 0;
            for (uint32_t v = 0; !done.load(std::memory_order_relaxed); ++v) {
                if (zem_log(h, 1 + t, v) == 0) ++n;
                // One KPI id is logged by one thread at a time.
                if (t == 0) zem_log_blob(h, 3, buf, sizeof buf);
            }
            accepted[t] = n;
        });
    }
    for (int i = 0; i < 150; ++i) {
        ASSERT_EQ(0, h->StartCampaign(def));
        ASSERT_EQ(0, h->StartCampaign(extra));
        h->StopCampaign();
    }
    done = true;
    for (std::thread& t : loggers) t.join();
    uint64_t delivered[2] = {0, 0};
    for (const auto& f : transport->sentFiles()) {
        olvan::KPIData data;
        ASSERT_TRUE(data.ParseFromString(f.bytes));
        for (const auto& counter : data.counters()) {
            const uint32_t id = counter.meta().id();
            if (id == 1 || id == 2) delivered[id - 1] += counter.meta().nof_samples();
        }
    }
    EXPECT_EQ(accepted[0], delivered[0]);
    EXPECT_EQ(accepted[1], delivered[1]);
    EXPECT_GT(accepted[0] + accepted[1], 0u);
    zem_deregister(h);
}

TEST_F(CollectorTest, RegistrationRetriesThreeTimesAndResetsOnlyAnExistingClient) {
    const std::string failed =
            "cam: SPC registration failed - waiting for 5 seconds before retrying";
    const struct {
        std::deque<int> results;  // of successive attempts; 0 once they run out
        uint32_t transportValue;
        std::chrono::milliseconds retryDelay;
        size_t attempts;
        int failures, resets, successes;
    } cases[] = {
            // The thread waits after its last failure too, then gives up.
            {{5, 5, 5}, ZEM_TRANSPORT_GRPC, 20ms, 3, 3, 3, 0},
            {{1}, ZEM_TRANSPORT_GRPC, 20ms, 2, 1, 1, 1},
            // A wait after success would hold the thread for half a minute.
            {{}, ZEM_TRANSPORT_GRPC, 30s, 1, 0, 0, 1},
            // A transport value that makes no client (the last case, as it
            // drops the fake): attempts fail, nothing to reset.
            {{}, 7, 20ms, 0, 3, 0, 0},
    };
    for (const auto& c : cases) {
        transport = std::make_shared<FakeTransport>();
        transport->results = c.results;
        zem::internal::setRetryDelay(c.retryDelay);
        if (c.transportValue != ZEM_TRANSPORT_GRPC) zem::internal::setTransportFactory(nullptr);
        LogCapture cap;
        zem_cfg_s cf = cfg(c.transportValue);
        zem_handle h = zem_register(&cf);
        ASSERT_TRUE(waitFor([h] { return !h->registering(); }));
        EXPECT_EQ(c.attempts, transport->attemptCount());
        EXPECT_EQ(c.successes == 0, h->getClient() == nullptr);
        EXPECT_EQ(c.successes ? 0 : -1, zem_deregister(h));
        const std::string& log = cap.text();
        EXPECT_EQ(c.failures, countLogLines(log, 'E', failed)) << log;
        EXPECT_EQ(c.resets, countLogLines(log, 'I', "cam: Resetting client ptr"));
        EXPECT_EQ(c.successes, countLogLines(log, 'I', "cam: SPC registration succeeded"));
    }
}

TEST_F(CollectorTest, RetryWaitIsFiveSecondsByDefault) {
    zem::internal::setRetryDelay(std::chrono::milliseconds(0));  // the default
    transport->results = {1};
    const auto start = std::chrono::steady_clock::now();
    zem_handle h = registered();
    EXPECT_EQ(2u, transport->attemptCount());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    zem_deregister(h);
}

TEST_F(CollectorTest, DeregisterDuringTheRetryWaitDoesNotWaitItOut) {
    // With an hour between attempts, the test finishes only if destruction
    // cuts the wait short.
    zem::internal::setRetryDelay(std::chrono::hours(1));
    transport->results = {1, 1, 1};
    zem_cfg_s c = cfg();
    zem_handle h = zem_register(&c);
    // In the wait: the first attempt failed and its client was dropped.
    ASSERT_TRUE(waitFor([&] { return transport->attemptCount() == 1 && !h->getClient(); }));
    EXPECT_EQ(-1, zem_deregister(h));
    EXPECT_EQ(1u, transport->attemptCount());
}

TEST_F(CollectorTest, DeregisterReturnsWhileARegistrationWaitsOnTheDaemonAndFreesLater) {
    // Like a binder call, this registration cannot be cancelled: it returns
    // only when the test lets it.
    transport->hold = true;
    transport->results = {1};
    zem::internal::setDisposePatience(std::chrono::milliseconds(50));
    LogCapture cap;
    zem_cfg_s c = cfg();
    zem_handle h = zem_register(&c);
    ASSERT_TRUE(waitFor([&] { return transport->attemptCount() == 1; }));
    EXPECT_EQ(0, zem_deregister(h));
    EXPECT_EQ(1, countLogLines(cap.text(), 'E',
                               "cam: a call to the daemon is still waiting for its answer; the "
                               "collector is freed when it returns"));
    // The collector, still alive, keeps its client until the call returns.
    zem::internal::setTransportFactory(nullptr);
    std::weak_ptr<FakeTransport> weak = transport;
    FakeTransport* raw = transport.get();
    transport.reset();
    ASSERT_FALSE(weak.expired());
    raw->release();
    EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

TEST_F(CollectorTest, LostConnStopsARunningCampaignThenRegistersAfresh) {
    zem_handle h = registered();
    {
        // Idle: no stop, straight to a new registration.
        LogCapture cap;
        transport->tokenToHand = "tok-2";
        EXPECT_EQ(0, h->LostConn());
        ASSERT_TRUE(waitFor([h] { return h->getToken() == "tok-2"; }));
        EXPECT_EQ(0, gStopCalls.load());
        EXPECT_EQ(1, countLogLines(cap.text(), 'I',
                                   "cam: zem_collector::LostConn deleteing client instance for "
                                   "token - tok-1"));
    }
    ASSERT_EQ(0, h->StartCampaign(campaign({counterCfg(1, 100)}).SerializeAsString()));
    zem_log(h, 1, 42);
    // The daemon is gone, so the last file cannot be delivered: it stays.
    transport->failSends(14);
    transport->tokenToHand = "tok-3";
    EXPECT_EQ(0, h->LostConn());
    EXPECT_EQ(1, gStopCalls.load());
    EXPECT_TRUE(h->kpiTable().empty());
    ASSERT_TRUE(waitFor([h] { return h->getToken() == "tok-3"; }));
    EXPECT_EQ(3u, transport->attemptCount());
    auto sent = transport->sentFiles();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(sent[0].bytes, zem_test::readFile(sent[0].filename));

    // The next campaign reopens the kept file, so its window is delivered.
    transport->failSends(0);
    ASSERT_EQ(0, h->StartCampaign(campaign({counterCfg(1, 100)}).SerializeAsString()));
    zem_log(h, 1, 8);
    h->StopCampaign();
    sent = transport->sentFiles();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(sent[0].filename, sent[1].filename);
    olvan::KPIData data;
    ASSERT_TRUE(data.ParseFromString(sent[1].bytes));
    ASSERT_EQ(2, data.counters_size());
    EXPECT_EQ(42u, data.counters(0).value());
    EXPECT_EQ(8u, data.counters(1).value());

    // When no thread can start for the next registration the campaign still
    // stops, an ERROR line says so, and the handle stays usable.
    ASSERT_EQ(0, h->StartCampaign(campaign({counterCfg(1, 100)}).SerializeAsString()));
    zem::internal::setThreadStartFailure(true);
    {
        LogCapture cap;
        EXPECT_EQ(0, h->LostConn());
        EXPECT_NE(std::string::npos, cap.text().find("cam: cannot register again: ")) << cap.text();
    }
    zem::internal::setThreadStartFailure(false);
    EXPECT_EQ(3, gStopCalls.load());
    EXPECT_EQ(-1, zem_log(h, 1, 5));
    EXPECT_EQ(-1, zem_deregister(h));
}

TEST_F(CollectorTest, RegisterGivesNullAndOneErrorLineWhenItCannotStart) {
    zem_cfg_s noName = cfg(), noDir = cfg(), good = cfg();
    noName.name = nullptr;
    noDir.cache_dir = nullptr;
    const struct {
        const zem_cfg_s* cfg;
        bool threadFails;
        std::string error;  // when no thread starts, the start of the line
    } cases[] = {
            {nullptr, false, "zem_register: the configuration is NULL, no client registered"},
            {&noName, false, "zem_register: name is NULL, no client registered"},
            {&noDir, false, "zem_register: cache_dir is NULL, no client registered"},
            {&good, true, "cam: zem_register failed: "},
    };
    for (const auto& c : cases) {
        zem::internal::setThreadStartFailure(c.threadFails);
        LogCapture cap;
        EXPECT_EQ(nullptr, zem_register(c.cfg));
        const std::vector<std::string> errors = zem_test::logMessages(cap.text(), 'E');
        ASSERT_EQ(1u, errors.size()) << cap.text();
        EXPECT_EQ(c.error, c.threadFails ? errors[0].substr(0, c.error.size()) : errors[0]);
    }
}

TEST_F(CollectorTest, TheConfigurationMayBeFreedRightAfterRegister) {
    auto* name = new std::string("short-lived");
    auto* cdir = new std::string(dir.path());
    auto* c = new zem_cfg_s(cfg());
    c->name = name->c_str();
    c->cache_dir = cdir->c_str();
    zem_handle h = zem_register(c);
    delete c;
    name->assign(40, 'z');
    delete name;
    delete cdir;
    ASSERT_TRUE(waitFor([&] { return transport->attemptCount() == 1; }));
    EXPECT_EQ("short-lived", h->getName());
    EXPECT_EQ("short-lived", transport->lastName);
    EXPECT_EQ(0, h->StartCampaign(campaign({}).SerializeAsString()));
    EXPECT_EQ(1u, dir.list().size());
    h->StopCampaign();
    zem_deregister(h);
}
