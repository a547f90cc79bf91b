// Writes the seed corpora of the fuzz targets, one directory per target:
//
//   make_corpus CORPUS_DIR CAMPAIGN_TXTPB
//
// CAMPAIGN_TXTPB is the example campaign in protobuf text format. A seed
// holds only what a mutating fuzzer does not find on its own: well-formed
// protobuf messages with their lengths right (campaigns, commands, KPI
// configurations), a cache file written by a real collector, and binder
// transactions and replies in the shape the interfaces expect. Values,
// codes and modes are left to the fuzzer, except where a smoke run of a few
// seconds does not find a branch from a neighbouring seed (a campaign stop
// event, a second campaign start): such a branch keeps an input of its own.
// Existing seeds of the same name are overwritten; nothing else in
// CORPUS_DIR is touched.
#include <google/protobuf/text_format.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "kpi.pb.h"
#include "metric.pb.h"
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
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A campaign of one KPI of each kind the collector takes, every optional
// statistic on, a histogram without its underflow bin, and a second
// configuration for an id, which replaces the first.
constexpr const char* kEveryKind = R"(
kpiCfgs { id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg { aggregate: true } nof_samples: 4 }
kpiCfgs { id: 2 type: KPI_NUMERIC subType: GAUGE duration_msecs: 1000
          g_cfg { min: true max: true mean: true stdddev: true variance: true mode: true
                  slope_min: true slope_max: true slope_duration_msec: 100 } }
kpiCfgs { id: 3 type: KPI_NUMERIC subType: HISTOGRAM duration_msecs: 500
          h_cfg { bucket_bounds: [4, 8, 16, 33, 100] overflow_en: true underflow_en: true } }
kpiCfgs { id: 4 type: KPI_BLOB nof_samples: 2
          b_cfg { singleSampleSizeTresholdBytes: 64 sampleRateThresholdPerSec: 10 } }
kpiCfgs { id: 5 type: KPI_STATE nof_samples: 3 }
kpiCfgs { id: 6 type: KPI_NUMERIC subType: HISTOGRAM nof_samples: 4
          h_cfg { bucket_bounds: [10, 20] overflow_en: true } }
kpiCfgs { id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg { aggregate: false } nof_samples: 2 }
size_threshold: 4096 time_threshold: 60 cfg_payload: "payload for the start callback"
)";

// A campaign from protobuf text format; `what` names it in the error.
LTCCampaignDef campaign(const std::string& text, const std::string& what) {
    LTCCampaignDef def;
    if (!google::protobuf::TextFormat::ParseFromString(text, &def)) {
        fprintf(stderr, "make_corpus: %s does not parse\n", what.c_str());
        exit(1);
    }
    return def;
}

std::string everyKind() {
    return campaign(kEveryKind, "the campaign of every kind").SerializeAsString();
}

void campaignAndCommandSeeds(const std::string& exampleTxtpb) {
    seed("campaign_fuzzer", "example_frame_pipeline",
         campaign(readWhole(exampleTxtpb), exampleTxtpb).SerializeAsString());
    seed("campaign_fuzzer", "every_kind", everyKind());

    // One command of each kind, a second start that merges into the running
    // campaign, and a stop with none running; a start carries the campaign of
    // every kind.
    zem_fuzz::ByteWriter commands;
    const std::string start = "startCampaign { campaignID: 11 notifications: 1 }";
    const std::string stop = "stopCampaign { campaignID: 11 }";
    for (const std::string& text :
         {start, std::string("startCollection { counters: 'cpu' }"),
          std::string("stopCollection { counters: 'cpu' }"), start, stop, stop}) {
        olvan::CommandRequest request;
        google::protobuf::TextFormat::ParseFromString(text, &request);
        if (request.has_startcampaign()) {
            request.mutable_startcampaign()->set_campaignconfig(everyKind());
        }
        commands.blob(request.SerializeAsString());
    }
    seed("command_fuzzer", "every_command", commands.str());
}

// One stream of every operation of the kpi target, after each KPI
// configuration of the campaign of every kind (seed kpi_cfg_N after its Nth):
// every histogram bin, blobs around the size threshold, state changes, and
// steps across the windows' durations.
void kpiSeeds() {
    constexpr uint8_t kMs = 5 * 2;  // the step unit of an operation
    const std::string blobs[] = {"first", std::string(64, 'x'), std::string(65, 'y')};
    zem_fuzz::ByteWriter ops;
    uint32_t i = 0;
    for (uint32_t v : {0u, 4u, 5u, 8u, 33u, 34u, 100u, 101u, 0xFFFFFFFFu}) {
        ops.u8(kMs + 0).u32(v).u16(300);
        ops.u8(kMs + 2).blob(blobs[i % 3]).u16(1);
        ops.u8(kMs + 3).u32(i % 3).u32((i + 1) % 3).u16(5);
        ++i;
    }
    ops.u8(kMs + 1).u16(2000).u8(4).u16(0);
    LTCCampaignDef def;
    def.ParseFromString(everyKind());
    for (int k = 0; k < def.kpicfgs_size(); ++k) {
        zem_fuzz::ByteWriter stream;
        stream.blob(def.kpicfgs(k).SerializeAsString()).u32(5000000).raw(ops.str());
        seed("kpi_fuzzer", "kpi_cfg_" + std::to_string(k + 1), stream.str());
    }
}

void cacheSeeds() {
    // A real cache file: what a collector leaves after a campaign of every
    // kind of KPI.
    std::string file;
    {
        zem_fuzz::ScratchDir dir;
        zem_collector collector(zem_fuzz::collectorCfg("corpus", dir));
        collector.StartCampaign(everyKind());
        zem_fuzz::logIntoEveryKpi(collector);
        collector.StopCampaign();
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            file = readWhole(entry.path());
        }
    }
    olvan::KPIData record;
    if (!record.ParseFromString(file) || record.ByteSizeLong() == 0) {
        fprintf(stderr, "make_corpus: the collector wrote no cache file\n");
        exit(1);
    }
    // Gauge means that JSON cannot carry as numbers, and a gauge without
    // statistics.
    olvan::KPIData gauges;
    gauges.set_version(olvan::V1);
    for (float mean :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), 1.5f}) {
        gauges.add_gauges()->set_mean(mean);
    }
    gauges.add_gauges();
    for (const char* target : {"dump_fuzzer", "json_fuzzer"}) {
        seed(target, "cache_file", file);
        seed(target, "gauges", gauges.SerializeAsString());
    }

    // Leftovers of an earlier run: the newest file, which is reopened and
    // grows past the threshold, an older one, a directory and a file of
    // another name; then records that roll over.
    zem_fuzz::ByteWriter leftovers;
    leftovers.u32(300).u8(4);  // a threshold of 400 bytes, four entries
    leftovers.u8(0).blob("1700000000").blob(file);
    leftovers.u8(0).blob("1699999999").blob(file.substr(0, 40));
    leftovers.u8(2).blob("99999999999").blob("");
    leftovers.u8(1).blob("notes.txt").blob("not a cache file");
    for (int n = 0; n < 6; ++n) leftovers.blob(record.SerializeAsString());
    seed("cache_fuzzer", "leftovers_and_rollovers", leftovers.str());
}

// The same parcel ops (in the format of BinderFuzzSupport.h) as binder_fuzzer
// and binder_wire_fuzzer take them: for `mode` 0 and 1, a request of `code`
// to the manager or the callback stub (object 1 or 2 on the wire); for mode
// 2, the reply to the manager call of slot `code`.
void binderSeed(const std::string& name, uint8_t mode, uint8_t code, const std::string& ops) {
    using zem_fuzz::ByteWriter;
    seed("binder_fuzzer", name, ByteWriter().u8(mode).u8(code).u8(0).u8(0).raw(ops).str());
    // The frame: parcel ops form, the mode's own kind, object, code, flags,
    // status, no object offsets, nothing cut.
    ByteWriter wire;
    if (mode == 2) wire.u8(2).u8(code).u8(0).u8(0).u8(0).u8(0);
    if (mode != 2) wire.u8(0).u8(0).u8(0).u8(mode + 1).u8(code);
    seed("binder_wire_fuzzer", name, wire.u8(0).u32(0).u8(0).u8(0).raw(ops).str());
}

void binderSeeds() {
    // registerZEMClient("camera.pipeline", the callback)
    zem_fuzz::ByteWriter reg;
    reg.u8(0).u8(0).u8(3).u8(0).blob("camera.pipeline").u8(5).u8(2);
    binderSeed("manager_register", 0, 1, reg.str());
    // onCampaignEvent(start with a campaign or stop, 5, ..., 0, the registered
    // token)
    for (const bool start : {true, false}) {
        zem_fuzz::ByteWriter event;
        event.u8(0).u8(1).u8(1).u32(start ? 256 : 512).u8(2).put<uint64_t>(5);
        event.u8(4).blob(start ? everyKind() : "").u8(1).u32(0).u8(3).u8(1).blob("");
        binderSeed(start ? "callback_campaign_start" : "callback_campaign_stop", 1, 1, event.str());
    }
    // The replies of registerZEMClient and sendData: an ok status and the out
    // value, a token or a bool.
    zem_fuzz::ByteWriter reply;
    reply.u8(8).u32(0).u32(0).blob("");
    binderSeed("reply_register_token", 2, 0,
               zem_fuzz::ByteWriter(reply).u8(3).u8(0).blob("tok-1").str());
    binderSeed("reply_send_data_true", 2, 3, reply.u8(6).u8(1).str());
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
    campaignAndCommandSeeds(argv[2]);
    kpiSeeds();
    cacheSeeds();
    binderSeeds();
    return 0;
}
