// Gauge: the aggregator of a KPI_NUMERIC KPI of subtype GAUGE.
//
// Reports the minimum, the maximum and the mean of the window's values, each
// only when the configuration asks for it; a statistic not asked for is left
// out of the record so readers can tell it from a 0. The configuration's
// other statistics (stdddev, variance, mode, slopes) are not computed.
//
// Owned by the collector's KPI table; called on the logging thread, no lock.
#pragma once

#include <cstdint>

#include "kpi/KPI.h"

class Gauge : public KPI {
  public:
    Gauge(const KPICfg& cfg, KPISerializer& serializer);
    ~Gauge() override;

    int Aggregate(unsigned int value) final {
        if (wantMin && min > value) min = value;
        if (wantMax && max < value) max = value;
        if (wantMean) sum = zem::checkedAdd(sum, uint64_t{value}, "Gauge sum");
        return 0;
    }
    void ResetAggregates() override;
    bool validCfg() override;
    int Serialize() override;

  private:
    static constexpr uint32_t kNoMin = 4294967295u;

    uint32_t min = kNoMin;
    uint32_t max = 0;
    uint64_t sum = 0;
    // Copied out of the configuration once: read on every sample.
    const bool wantMin;
    const bool wantMax;
    const bool wantMean;
};
