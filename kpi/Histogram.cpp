#include "kpi/Histogram.h"

#include <algorithm>

#include "common/ZemLog.h"
#include "serializer/KPISerializer.h"

// h_cfg() is the default instance (no bounds, no flags) unless the
// configuration holds a histogram configuration.
Histogram::Histogram(const KPICfg& cfg, KPISerializer& serializer)
    : KPI(cfg, serializer),
      bounds(cfg.h_cfg().bucket_bounds().begin(), cfg.h_cfg().bucket_bounds().end()),
      overflowEn(cfg.h_cfg().overflow_en()),
      underflowEn(cfg.h_cfg().underflow_en()),
      sorted(std::is_sorted(bounds.begin(), bounds.end())) {
    // Without bounds the bin count would start at -1 and either wrap to
    // 2^32-1 bins or overflow fatally; refuse it here instead. A list past
    // the limit is refused too, so there is no point building its bins.
    if (bounds.empty() || bounds.size() > kMaxBounds) return;
    numBins = static_cast<uint32_t>(bounds.size()) - 1;
    if (overflowEn) zem::checkedIncrement(numBins, "Histogram numBins");
    if (underflowEn) zem::checkedIncrement(numBins, "Histogram numBins");
    bins.assign(size_t{numBins} + 1, 0);
}

Histogram::~Histogram() = default;

uint32_t Histogram::firstNotBelowByScan(unsigned int value) const {
    const uint32_t n = static_cast<uint32_t>(bounds.size());
    for (uint32_t i = 0; i < n; ++i) {
        if (bounds[i] >= value) return i;
    }
    return n;
}

int Histogram::Aggregate(unsigned int value) {
    const uint32_t id = findBucketId(value);
    if (id == kNoBin) return static_cast<int>(id);
    zem::checkedIncrement(bins[id], "Histogram bin count");
    return 0;
}

void Histogram::ResetAggregates() {
    std::fill_n(bins.begin(), numBins, 0u);
}

// An empty list is refused too: it got no bins at construction.
bool Histogram::validCfg() {
    return !bounds.empty() && bounds.size() <= kMaxBounds;
}

int Histogram::Serialize() {
    ZEM_LOGI("Histogram::Serialize(), numSamples=%d, tsStart=%ld, tsEnd=%ld",
             static_cast<int>(numSamples), startNs(), endNs());
    if (numSamples < 1) {
        ZEM_LOGI("numSamples < 1, so skipping");
        return 0;
    }
    olvan::KPIData data;
    olvan::Histogram* histogram = data.add_histograms();
    fillMeta(histogram->mutable_meta());
    histogram->mutable_bin_counts()->Add(bins.begin(), bins.begin() + numBins);
    serializer.Write(data);
    return 0;
}
