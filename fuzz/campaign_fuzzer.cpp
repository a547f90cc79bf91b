// Campaign bytes from the daemon into zem_collector::StartCampaign, samples
// of every kind into every KPI it made, then StopCampaign. The collector has
// no transport: the stop hands its last cache file to nobody, and the file is
// removed before the next input.
//
// Input: the serialized LTCCampaignDef, as the transports pass it on.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zem_collector collector(zem_fuzz::collectorCfg("fuzz.campaign", zem_fuzz::emptyScratch()));
    collector.StartCampaign(std::string(reinterpret_cast<const char*>(data), size));
    zem_fuzz::logIntoEveryKpi(collector);
    collector.StopCampaign();
    return 0;
}
