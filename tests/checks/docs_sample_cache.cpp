// docs_sample_cache DIR: writes DIR/kpidata.1700000000, a cache file made by
// the library itself (a collector with no transport runs one campaign of
// every KPI kind and stops it), for the documentation's example commands.
#include <dirent.h>
#include <stdio.h>

#include <string>

#include "collector/zem_collector.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: docs_sample_cache DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    const char* campaign = R"(
kpiCfgs { id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {} nof_samples: 5 }
kpiCfgs { id: 2 type: KPI_NUMERIC subType: GAUGE g_cfg { min: true max: true mean: true }
          nof_samples: 5 }
kpiCfgs { id: 3 type: KPI_NUMERIC subType: HISTOGRAM
          h_cfg { bucket_bounds: [10, 20, 30] underflow_en: true overflow_en: true }
          nof_samples: 5 }
kpiCfgs { id: 4 type: KPI_BLOB
          b_cfg { singleSampleSizeTresholdBytes: 64 sampleRateThresholdPerSec: 10 }
          nof_samples: 2 }
size_threshold: 65536
time_threshold: 60
)";
    LTCCampaignDef def;
    if (!google::protobuf::TextFormat::ParseFromString(campaign, &def)) return 1;
    std::string bytes;
    def.SerializeToString(&bytes);

    zem_cfg_s cfg{};
    cfg.name = "docs";
    cfg.cache_dir = dir.c_str();
    cfg.transport = 0;  // no daemon: the stopped campaign's file stays in DIR
    {
        zem_collector collector(cfg);
        if (collector.StartCampaign(bytes) != 0) return 1;
        for (uint32_t k = 0; k < 12; ++k) {
            collector.Log(1, k % 3);
            collector.Log(2, 40 + k * 2);
            collector.Log(3, k * 3);
        }
        const std::string errors[] = {"E1: timeout", "E2: overrun", "E3: retry"};
        for (const std::string& e : errors) {
            collector.Log(4, reinterpret_cast<const unsigned char*>(e.data()),
                          static_cast<uint32_t>(e.size()));
        }
        collector.StopCampaign();
    }
    DIR* d = opendir(dir.c_str());
    int renamed = 0;
    while (dirent* e = d ? readdir(d) : nullptr) {
        const std::string name = e->d_name;
        if (name.rfind("kpidata.", 0) == 0 && renamed == 0) {
            renamed +=
                    rename((dir + "/" + name).c_str(), (dir + "/kpidata.1700000000").c_str()) == 0;
        }
    }
    if (d) closedir(d);
    return renamed == 1 ? 0 : 1;
}
