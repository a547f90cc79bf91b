// Writes the seed corpora of the fuzz targets, one directory per target:
//
//   make_corpus CORPUS_DIR CAMPAIGN_TXTPB
//
// CAMPAIGN_TXTPB is the example campaign in protobuf text format. Seeds are
// built with the library itself (campaigns and commands serialized from
// messages, cache files written by a real serializer from real KPIs), in
// the input formats the targets read. Existing seeds of the same name are
// overwritten; nothing else in CORPUS_DIR is touched.
#include <google/protobuf/text_format.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "kpi.pb.h"
#include "kpi/Blob.h"
#include "kpi/KPI.h"
#include "kpi/StateMachine.h"
#include "metric.pb.h"
#include "serializer/KPISerializer.h"
#include "spc.pb.h"

namespace {

std::string corpusDir;

void seed(const std::string& target, const std::string& name, const std::string& bytes) {
    const std::string dir = corpusDir + "/" + target;
    mkdir(dir.c_str(), 0755);
    std::ofstream out(dir + "/" + name, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out) {
        fprintf(stderr, "make_corpus: cannot write %s/%s\n", dir.c_str(), name.c_str());
        exit(1);
    }
}

std::string readWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

KPICfg counterCfg(int32_t id) {
    KPICfg c;
    c.set_id(id);
    c.set_type(KPI_NUMERIC);
    c.set_subtype(COUNTER);
    c.mutable_c_cfg()->set_aggregate(true);
    c.set_nof_samples(4);
    return c;
}

KPICfg gaugeCfg(int32_t id) {
    KPICfg c;
    c.set_id(id);
    c.set_type(KPI_NUMERIC);
    c.set_subtype(GAUGE);
    GaugeConfig* g = c.mutable_g_cfg();
    g->set_min(true);
    g->set_max(true);
    g->set_mean(true);
    g->set_stdddev(true);
    g->set_variance(true);
    g->set_mode(true);
    g->set_slope_min(true);
    g->set_slope_max(true);
    g->set_slope_duration_msec(100);
    c.set_duration_msecs(1000);
    return c;
}

KPICfg histogramCfg(int32_t id) {
    KPICfg c;
    c.set_id(id);
    c.set_type(KPI_NUMERIC);
    c.set_subtype(HISTOGRAM);
    HistogramConfig* h = c.mutable_h_cfg();
    for (uint32_t b : {4u, 8u, 16u, 33u, 100u}) h->add_bucket_bounds(b);
    h->set_overflow_en(true);
    h->set_underflow_en(true);
    c.set_duration_msecs(500);
    return c;
}

KPICfg blobCfg(int32_t id) {
    KPICfg c;
    c.set_id(id);
    c.set_type(KPI_BLOB);
    c.mutable_b_cfg()->set_singlesamplesizetresholdbytes(64);
    c.mutable_b_cfg()->set_sampleratethresholdpersec(10);
    c.set_nof_samples(2);
    return c;
}

KPICfg stateCfg(int32_t id) {
    KPICfg c;
    c.set_id(id);
    c.set_type(KPI_STATE);
    c.set_nof_samples(3);
    return c;
}

KPICfg eventCfg(int32_t id) {
    KPICfg c;
    c.set_id(id);
    c.set_type(KPI_EVENT);
    c.set_nof_samples(1);
    return c;
}

LTCCampaignDef everyKind() {
    LTCCampaignDef def;
    *def.add_kpicfgs() = counterCfg(1);
    *def.add_kpicfgs() = gaugeCfg(2);
    *def.add_kpicfgs() = histogramCfg(3);
    *def.add_kpicfgs() = blobCfg(4);
    *def.add_kpicfgs() = stateCfg(5);
    def.set_size_threshold(4096);
    def.set_time_threshold(60);
    def.set_cfg_payload("payload for the start callback");
    return def;
}

std::string bytesOf(const google::protobuf::Message& m) {
    return m.SerializeAsString();
}

void campaignSeeds(const std::string& exampleTxtpb) {
    LTCCampaignDef example;
    if (!google::protobuf::TextFormat::ParseFromString(readWhole(exampleTxtpb), &example)) {
        fprintf(stderr, "make_corpus: %s does not parse\n", exampleTxtpb.c_str());
        exit(1);
    }
    seed("campaign_fuzzer", "example_frame_pipeline", bytesOf(example));
    seed("campaign_fuzzer", "every_kind", bytesOf(everyKind()));

    LTCCampaignDef edges = everyKind();
    edges.set_size_threshold(100);
    edges.set_time_threshold(21600);
    seed("campaign_fuzzer", "threshold_bounds", bytesOf(edges));

    LTCCampaignDef dup;
    *dup.add_kpicfgs() = counterCfg(7);
    *dup.add_kpicfgs() = histogramCfg(7);
    dup.set_size_threshold(100);
    dup.set_time_threshold(1);
    seed("campaign_fuzzer", "duplicate_id", bytesOf(dup));

    LTCCampaignDef refused;
    *refused.add_kpicfgs() = counterCfg(1);
    *refused.add_kpicfgs() = gaugeCfg(2);
    *refused.add_kpicfgs() = eventCfg(3);
    *refused.add_kpicfgs() = blobCfg(4);
    refused.set_size_threshold(200);
    refused.set_time_threshold(5);
    seed("campaign_fuzzer", "event_refused_midway", bytesOf(refused));

    LTCCampaignDef empty;
    empty.set_size_threshold(100);
    empty.set_time_threshold(1);
    empty.set_cfg_payload(std::string(300, '\x5a'));
    seed("campaign_fuzzer", "no_kpis_with_payload", bytesOf(empty));

    LTCCampaignDef invalid = everyKind();
    invalid.set_size_threshold(99);
    seed("campaign_fuzzer", "size_threshold_too_small", bytesOf(invalid));
}

olvan::CommandRequest startCommand(const LTCCampaignDef& def, uint32_t seqNo) {
    olvan::CommandRequest r;
    r.set_seq_no(seqNo);
    r.mutable_startcampaign()->set_campaignid(11);
    r.mutable_startcampaign()->add_notifications(1);
    r.mutable_startcampaign()->set_campaignconfig(bytesOf(def));
    return r;
}

olvan::CommandRequest stopCommand(uint32_t seqNo) {
    olvan::CommandRequest r;
    r.set_seq_no(seqNo);
    r.mutable_stopcampaign()->set_campaignid(11);
    return r;
}

void commandSeeds() {
    zem_fuzz::ByteWriter startStop;
    startStop.blob(bytesOf(startCommand(everyKind(), 1))).blob(bytesOf(stopCommand(2)));
    seed("command_fuzzer", "start_stop", startStop.str());

    olvan::CommandRequest collection;
    collection.set_seq_no(3);
    collection.mutable_startcollection()->add_counters("cpu");
    olvan::CommandRequest stopCollection;
    stopCollection.mutable_stopcollection()->add_counters("cpu");
    olvan::CommandRequest none;
    none.set_seq_no(7);
    zem_fuzz::ByteWriter mixed;
    mixed.blob(bytesOf(startCommand(everyKind(), 1)))
            .blob(bytesOf(collection))
            .blob(bytesOf(none))
            .blob(bytesOf(stopCollection))
            .blob(bytesOf(stopCommand(7)));
    seed("command_fuzzer", "unsupported_and_empty", mixed.str());

    LTCCampaignDef second;
    *second.add_kpicfgs() = histogramCfg(1);
    *second.add_kpicfgs() = counterCfg(9);
    second.set_size_threshold(150);
    second.set_time_threshold(10);
    zem_fuzz::ByteWriter merged;
    merged.blob(bytesOf(startCommand(everyKind(), 1)))
            .blob(bytesOf(startCommand(second, 2)))
            .blob(bytesOf(stopCommand(3)))
            .blob(bytesOf(stopCommand(4)));
    seed("command_fuzzer", "merge_then_stop_twice", merged.str());
}

// The operations of the kpi target's input format.
struct KpiStream {
    zem_fuzz::ByteWriter w;
    // unit: 0 ns, 1 us, 2 ms, 3 s
    KpiStream& sample(uint32_t value, uint16_t step, int unit) {
        w.u8(static_cast<uint8_t>(0 + 5 * unit)).u32(value).u16(step);
        return *this;
    }
    KpiStream& bare(uint16_t step, int unit) {
        w.u8(static_cast<uint8_t>(1 + 5 * unit)).u16(step);
        return *this;
    }
    KpiStream& blob(const std::string& bytes, uint16_t step, int unit) {
        w.u8(static_cast<uint8_t>(2 + 5 * unit)).blob(bytes).u16(step);
        return *this;
    }
    KpiStream& state(uint32_t from, uint32_t to, uint16_t step, int unit) {
        w.u8(static_cast<uint8_t>(3 + 5 * unit)).u32(from).u32(to).u16(step);
        return *this;
    }
    KpiStream& serialize() {
        w.u8(4).u16(0);
        return *this;
    }
};

KpiStream streamFor(const KPICfg& cfg) {
    KpiStream s;
    s.w.blob(bytesOf(cfg)).u32(5000000);
    return s;
}

void kpiSeeds() {
    KpiStream counter = streamFor(counterCfg(1));
    for (uint32_t v : {0u, 1u, 5u, 0xFFFFFFFFu, 3u, 9u, 2u}) counter.sample(v, 10, 1);
    seed("kpi_fuzzer", "counter_sample_windows", counter.w.str());

    KpiStream gauge = streamFor(gaugeCfg(2));
    for (uint32_t v : {10u, 20u, 5u, 40u, 40u, 7u}) gauge.sample(v, 300, 2);
    gauge.sample(1, 2, 3).bare(1, 2).serialize();
    seed("kpi_fuzzer", "gauge_every_statistic", gauge.w.str());

    KpiStream hist = streamFor(histogramCfg(3));
    for (uint32_t v : {0u, 4u, 5u, 8u, 33u, 34u, 100u, 101u, 0xFFFFFFFFu}) hist.sample(v, 100, 2);
    seed("kpi_fuzzer", "histogram_every_bin", hist.w.str());

    KPICfg bare = histogramCfg(6);
    bare.mutable_h_cfg()->set_underflow_en(false);
    KpiStream hist2 = streamFor(bare);
    hist2.sample(200, 1, 0).sample(1, 1, 0).sample(50, 1, 0);
    seed("kpi_fuzzer", "histogram_overflow_only", hist2.w.str());

    KpiStream blob = streamFor(blobCfg(4));
    blob.blob("first", 1, 2).blob(std::string(64, 'x'), 1, 2).blob(std::string(65, 'y'), 1, 2);
    blob.blob("", 1, 3).blob("late", 1, 0);
    seed("kpi_fuzzer", "blob_sizes_and_rate", blob.w.str());

    KpiStream state = streamFor(stateCfg(5));
    state.state(0, 1, 5, 2).state(1, 2, 5, 2).state(2, 0, 5, 2).state(0, 1, 5, 2).bare(1, 1);
    seed("kpi_fuzzer", "state_transitions", state.w.str());
}

// Real cache files: a serializer fed by real KPIs in a scratch directory.
std::vector<std::string> realCacheFiles() {
    zem_fuzz::ScratchDir dir;
    KPISerializer serializer(dir.path(), nullptr);
    if (serializer.Initialize(400, 60) != 0) {
        fprintf(stderr, "make_corpus: serializer did not start\n");
        exit(1);
    }
    std::vector<std::unique_ptr<KPI>> kpis;
    for (const KPICfg& cfg :
         {counterCfg(1), gaugeCfg(2), histogramCfg(3), blobCfg(4), stateCfg(5)}) {
        kpis.push_back(KPI::Create(cfg, serializer));
    }
    int64_t ns = 1000000000;
    for (uint32_t i = 0; i < 12; ++i) {
        const KPI::TimePoint t{std::chrono::nanoseconds(ns)};
        for (auto& kpi : kpis) {
            if (kpi == nullptr) continue;
            if (kpi->GetType() == KPI_BLOB) {
                const std::string msg = "error " + std::to_string(i);
                static_cast<Blob*>(kpi.get())->LogBufAt(
                        t, reinterpret_cast<const unsigned char*>(msg.data()),
                        static_cast<unsigned int>(msg.size()));
            } else if (kpi->GetType() == KPI_STATE) {
                static_cast<StateMachine*>(kpi.get())->AddStateTransistion(i % 3, (i + 1) % 3);
            } else {
                kpi->AddSampleAt(t, i * 7);
            }
        }
        ns += 300000000;
    }
    for (auto& kpi : kpis) {
        if (kpi != nullptr) kpi->Serialize();
    }
    kpis.clear();
    serializer.Finalize();

    std::vector<std::string> files;
    for (const std::string& name : dir.list()) files.push_back(readWhole(dir.path() + "/" + name));
    if (files.empty()) {
        fprintf(stderr, "make_corpus: the serializer wrote no file\n");
        exit(1);
    }
    return files;
}

void cacheAndDumpSeeds() {
    const std::vector<std::string> files = realCacheFiles();
    for (size_t i = 0; i < files.size(); ++i) {
        seed("dump_fuzzer", "real_cache_file_" + std::to_string(i), files[i]);
    }
    seed("dump_fuzzer", "version_only", std::string("\x08\x01", 2));

    // Gauge means that JSON cannot carry as numbers, beside a real file.
    seed("json_fuzzer", "real_cache_file", files.front());
    olvan::KPIData gauges;
    gauges.set_version(olvan::V1);
    const float means[] = {std::numeric_limits<float>::quiet_NaN(),
                           std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(), 1.5f};
    for (size_t i = 0; i < sizeof means / sizeof means[0]; ++i) {
        olvan::Gauge* g = gauges.add_gauges();
        g->mutable_meta()->set_id(7);
        g->mutable_meta()->set_ts_start(i);
        g->set_mean(means[i]);
    }
    seed("json_fuzzer", "gauge_nan_and_infinite_means", bytesOf(gauges));

    olvan::KPIData record;
    record.ParseFromString(files.front());
    const std::string window = bytesOf(record);

    // A leftover newest file is reopened and grows; older ones stay.
    zem_fuzz::ByteWriter leftovers;
    leftovers.u32(4096).u8(3);
    leftovers.u8(0).blob("1700000000").blob(files.front());
    leftovers.u8(0).blob("1699999999").blob(files.back());
    leftovers.u8(1).blob("notes.txt").blob("not a cache file");
    leftovers.blob(window).blob(std::string("\x08\x01", 2));
    seed("cache_fuzzer", "leftover_files", leftovers.str());

    // Odd names: sign and blanks before the digits, no digits, a directory
    // that looks like the newest file.
    zem_fuzz::ByteWriter odd;
    odd.u32(100).u8(4);
    odd.u8(0).blob(" +12abc").blob("x");
    odd.u8(0).blob("").blob("");
    odd.u8(2).blob("99999999999").blob("");
    odd.u8(0).blob("18446744073709551616").blob(files.front());
    odd.blob(window).blob(window).blob(window);
    seed("cache_fuzzer", "odd_names_and_directory", odd.str());

    // An empty directory and a small threshold: several rollovers.
    zem_fuzz::ByteWriter rollover;
    rollover.u32(100).u8(0);
    for (int i = 0; i < 6; ++i) rollover.blob(window);
    seed("cache_fuzzer", "empty_dir_rollovers", rollover.str());
}

// Parcel ops in the format of BinderFuzzSupport.h.
struct ParcelOps {
    zem_fuzz::ByteWriter w;
    ParcelOps& token(uint8_t which) {
        w.u8(0).u8(which);
        return *this;
    }
    ParcelOps& i32(int32_t v) {
        w.u8(1).u32(static_cast<uint32_t>(v));
        return *this;
    }
    ParcelOps& i64(int64_t v) {
        w.u8(2).u64(static_cast<uint64_t>(v));
        return *this;
    }
    ParcelOps& str(const std::string& s) {
        w.u8(3).u8(0).blob(s);
        return *this;
    }
    ParcelOps& registeredToken() {
        w.u8(3).u8(1).blob("");
        return *this;
    }
    ParcelOps& bytes(const std::string& s) {
        w.u8(4).blob(s);
        return *this;
    }
    ParcelOps& binder(uint8_t which) {
        w.u8(5).u8(which);
        return *this;
    }
    ParcelOps& boolean(bool b) {
        w.u8(6).u8(b ? 1 : 0);
        return *this;
    }
    ParcelOps& status(int32_t exception, const std::string& message) {
        w.u8(8).u32(static_cast<uint32_t>(exception)).u32(0).blob(message);
        return *this;
    }
};

constexpr uint8_t kManagerToken = 0;
constexpr uint8_t kCallbackToken = 1;
constexpr int32_t kExIllegalState = -5;

struct BinderSeed {
    std::string name;
    uint8_t code;  // request code, or the manager call slot - 1 for replies
    bool oneway;
    std::string ops;
};

std::vector<BinderSeed> managerRequests() {
    return {
            {"manager_register", 1, false,
             ParcelOps().token(kManagerToken).str("camera.pipeline").binder(2).w.str()},
            {"manager_check_pending", 2, true,
             ParcelOps().token(kManagerToken).registeredToken().w.str()},
            {"manager_deregister_empty_token", 3, false,
             ParcelOps().token(kManagerToken).str("").w.str()},
            {"manager_send_data", 4, false,
             ParcelOps().token(kManagerToken).bytes("\x08\x01").registeredToken().w.str()},
            {"manager_wrong_descriptor", 1, false,
             ParcelOps().token(kCallbackToken).str("x").binder(0).w.str()},
    };
}

std::vector<BinderSeed> callbackRequests() {
    const std::string campaign = bytesOf(everyKind());
    return {
            {"callback_campaign_start", 1, false,
             ParcelOps()
                     .token(kCallbackToken)
                     .i32(256)
                     .i64(5)
                     .bytes(campaign)
                     .i32(0)
                     .registeredToken()
                     .w.str()},
            {"callback_campaign_stop", 1, false,
             ParcelOps()
                     .token(kCallbackToken)
                     .i32(512)
                     .i64(5)
                     .bytes("")
                     .i32(0)
                     .registeredToken()
                     .w.str()},
            {"callback_unknown_token", 1, false,
             ParcelOps()
                     .token(kCallbackToken)
                     .i32(256)
                     .i64(5)
                     .bytes(campaign)
                     .i32(0)
                     .str("nobody")
                     .w.str()},
    };
}

// Replies, by manager call slot (0 register ... 3 sendData).
std::vector<BinderSeed> managerReplies() {
    return {
            {"reply_register_token", 0, false, ParcelOps().status(0, "").str("tok-1").w.str()},
            {"reply_register_refused", 0, false,
             ParcelOps().status(kExIllegalState, "no room").w.str()},
            {"reply_deregister_ok", 2, false, ParcelOps().status(0, "").w.str()},
            {"reply_send_data_true", 3, false, ParcelOps().status(0, "").boolean(true).w.str()},
    };
}

void binderSeeds() {
    for (const BinderSeed& s : managerRequests()) {
        seed("binder_fuzzer", s.name,
             zem_fuzz::ByteWriter().u8(0).u8(s.code).u8(s.oneway).u8(0).raw(s.ops).str());
        // The same request as another process sends it to the daemon object.
        seed("binder_wire_fuzzer", s.name,
             zem_fuzz::ByteWriter()
                     .u8(0)
                     .u8(0)
                     .u8(1)
                     .u8(1)
                     .u8(s.code)
                     .u8(s.oneway)
                     .u32(0)
                     .u8(0)
                     .u8(0)
                     .raw(s.ops)
                     .str());
    }
    for (const BinderSeed& s : callbackRequests()) {
        seed("binder_fuzzer", s.name,
             zem_fuzz::ByteWriter().u8(1).u8(s.code).u8(0).u8(0).raw(s.ops).str());
        seed("binder_wire_fuzzer", s.name,
             zem_fuzz::ByteWriter()
                     .u8(0)
                     .u8(0)
                     .u8(1)
                     .u8(2)
                     .u8(s.code)
                     .u8(0)
                     .u32(0)
                     .u8(0)
                     .u8(0)
                     .raw(s.ops)
                     .str());
    }
    for (const BinderSeed& s : managerReplies()) {
        seed("binder_fuzzer", s.name,
             zem_fuzz::ByteWriter().u8(2).u8(s.code).u8(0).u8(0).raw(s.ops).str());
        seed("binder_wire_fuzzer", s.name,
             zem_fuzz::ByteWriter()
                     .u8(2)
                     .u8(s.code)
                     .u8(0)
                     .u8(2)
                     .u8(0)
                     .u8(0)
                     .u8(0)
                     .u32(0)
                     .u8(0)
                     .u8(0)
                     .raw(s.ops)
                     .str());
    }
    seed("binder_fuzzer", "reply_campaign_event_result",
         zem_fuzz::ByteWriter()
                 .u8(3)
                 .u8(0)
                 .u8(0)
                 .u8(0)
                 .raw(ParcelOps().status(0, "").i32(0).w.str())
                 .str());
    seed("binder_fuzzer", "reply_unknown_transaction",
         zem_fuzz::ByteWriter().u8(2).u8(3).u8(1).u8(0).str());

    // A death link to the daemon object, and a service lookup.
    seed("binder_wire_fuzzer", "link_to_manager",
         zem_fuzz::ByteWriter().u8(0).u8(0).u8(4).u8(1).u8(0).u8(0).u32(0).u8(0).u8(0).str());
    seed("binder_wire_fuzzer", "service_lookup",
         zem_fuzz::ByteWriter().u8(1).u8(0).u8(3).u8(0).u8(0).u8(0).u32(0).u8(0).u8(0).str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: make_corpus CORPUS_DIR CAMPAIGN_TXTPB\n");
        return 2;
    }
    zem_fuzz::silenceLog();
    corpusDir = argv[1];
    mkdir(corpusDir.c_str(), 0755);
    campaignSeeds(argv[2]);
    commandSeeds();
    kpiSeeds();
    cacheAndDumpSeeds();
    binderSeeds();
    return 0;
}
