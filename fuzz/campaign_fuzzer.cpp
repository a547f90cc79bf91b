// Campaign bytes from the daemon into zem_collector::StartCampaign, then
// StopCampaign. The collector has no transport: the stop hands its last
// cache file to nobody, and the file is removed before the next input.
//
// Input: the serialized LTCCampaignDef, as the transports pass it on.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "collector/zem_collector.h"
#include "fuzz/FuzzSupport.h"

namespace {

int32_t onStart(const uint8_t* payload, uint64_t length) {
    // Touch every payload byte so a bad pointer or length shows up here.
    uint32_t sum = 0;
    for (uint64_t i = 0; i < length; ++i) sum += payload[i];
    return sum == 0xFFFFFFFFu ? 1 : 0;
}

int32_t onStop() {
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static zem_fuzz::ScratchDir* cache = [] {
        zem_fuzz::silenceLog();
        return new zem_fuzz::ScratchDir();
    }();
    cache->clear();

    zem_cfg_s cfg{};
    cfg.name = "fuzz.campaign";
    cfg.version = 0x0102;
    cfg.cache_dir = cache->path().c_str();
    cfg.campaign_start_cb = onStart;
    cfg.campaign_stop_cb = onStop;
    cfg.transport = 2;
    zem_collector collector(cfg);

    const std::string bytes(reinterpret_cast<const char*>(data), size);
    collector.StartCampaign(bytes);
    // A few samples into every KPI the campaign made, of every kind, so
    // windows close and records reach the serializer before the stop.
    std::vector<uint32_t> ids;
    collector.kpiTable().forEach([&ids](uint32_t id, const KPI&) { ids.push_back(id); });
    const unsigned char buf[4] = {1, 2, 3, 4};
    for (uint32_t id : ids) {
        for (uint32_t v = 0; v < 3; ++v) {
            collector.Log(id, v * 1000u);
            collector.LogEvent(id, v);
            collector.LogState(id, v, v + 1);
            collector.Log(id, buf, sizeof(buf));
        }
    }
    collector.StopCampaign();
    return 0;
}
