// Counter: the aggregator of a KPI_NUMERIC KPI of subtype COUNTER.
//
// Sums the values of the window's samples and emits the sum as one
// olvan::Counter record per window. The configuration's c_cfg is not
// consulted: a counter always sums.
//
// Owned by the collector's KPI table; called on the logging thread, no lock.
#pragma once

#include <cstdint>

#include "kpi/KPI.h"

class Counter : public KPI {
  public:
    Counter(const KPICfg& cfg, KPISerializer& serializer);
    ~Counter() override;

    int Aggregate(unsigned int value) final {
        sum = zem::checkedAdd(sum, uint64_t{value}, "Counter sum");
        return 0;
    }
    void ResetAggregates() override;
    bool validCfg() override;
    int Serialize() override;

  protected:
    uint64_t sum = 0;
};
