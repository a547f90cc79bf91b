// Cache files built window by window, for the tools' tests and the
// documentation's sample file.
#pragma once

#include <string>
#include <vector>

#include "metric.pb.h"

namespace zem_tools_test {

// A campaign of every KPI kind, within a client's limits.
inline const char* const kCampaign = R"(
kpiCfgs { id: 10 type: KPI_NUMERIC subType: COUNTER c_cfg {} nof_samples: 10 }
kpiCfgs { id: 11 type: KPI_NUMERIC subType: GAUGE g_cfg { min: true max: true mean: true }
          nof_samples: 10 }
kpiCfgs { id: 12 type: KPI_NUMERIC subType: HISTOGRAM
          h_cfg { bucket_bounds: [10, 20, 30] underflow_en: true overflow_en: true }
          nof_samples: 10 }
kpiCfgs { id: 13 type: KPI_BLOB
          b_cfg { singleSampleSizeTresholdBytes: 64 sampleRateThresholdPerSec: 100 }
          nof_samples: 2 }
size_threshold: 65536
time_threshold: 60
)";

// Appends a window of KPI `id` to one of a KPIData's lists.
template <class Window>
Window* window(google::protobuf::RepeatedPtrField<Window>* into, uint32_t id, uint64_t start,
               uint64_t end, uint64_t samples) {
    Window* w = into->Add();
    w->mutable_meta()->set_id(id);
    w->mutable_meta()->set_ts_start(start);
    w->mutable_meta()->set_ts_end(end);
    w->mutable_meta()->set_nof_samples(samples);
    return w;
}

// Appends one version-1 window of each of kCampaign's KPIs, 10 tenths from
// `start` with 10 samples each (the blob one or two).
inline void appendWindows(olvan::KPIData* d, uint64_t start, uint64_t counter, uint32_t min,
                          uint32_t max, float mean, const std::vector<uint32_t>& bins,
                          const std::string& blob) {
    d->set_version(olvan::V1);
    window(d->mutable_counters(), 10, start, start + 10, 10)->set_value(counter);
    auto* g = window(d->mutable_gauges(), 11, start, start + 10, 10);
    g->set_min(min);
    g->set_max(max);
    g->set_mean(mean);
    auto* h = window(d->mutable_histograms(), 12, start, start + 10, 10);
    for (const uint32_t b : bins) h->add_bin_counts(b);
    window(d->mutable_blobs(), 13, start, start + 10, blob.size() > 3 ? 2 : 1)->set_data(blob);
}

}  // namespace zem_tools_test
