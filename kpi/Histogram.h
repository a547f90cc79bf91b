// Histogram: the aggregator of a KPI_NUMERIC KPI of subtype HISTOGRAM.
//
// Sorts each value into the bins delimited by the configured bucket bounds
// (inclusive upper edges, optional underflow and overflow bins) and emits
// the bin counts once per window. A value outside every bin is dropped
// uncounted.
//
// Bounds are meant to ascend but are not required to: ascending lists
// (repeats allowed) are searched by bisection, other lists by a scan from
// the front, and both give the first bound not below the value.
//
// Owned by the collector's KPI table; called on the logging thread, no lock.
#pragma once

#include <cstdint>
#include <vector>

#include "kpi/KPI.h"

class Histogram : public KPI {
  public:
    // The most bucket bounds a configuration may list.
    static constexpr uint32_t kMaxBounds = 1024;
    // findBucketId's answer for a value that belongs to no bin.
    static constexpr uint32_t kNoBin = 4294967295u;

    Histogram(const KPICfg& cfg, KPISerializer& serializer);
    ~Histogram() override;

    int Aggregate(unsigned int value) override;
    void ResetAggregates() override;
    bool validCfg() override;
    int Serialize() override;

    // The bin index of `value`, or kNoBin. With overflow_en but not
    // underflow_en, a value above the last bound gets index numBins: it is
    // counted as a sample but lands in no emitted bin.
    uint32_t findBucketId(unsigned int value) const {
        const uint32_t n = static_cast<uint32_t>(bounds.size());
        uint32_t i = sorted ? firstNotBelowSorted(value) : firstNotBelowByScan(value);
        if (!underflowEn && static_cast<int32_t>(i) < static_cast<int32_t>(n)) i -= 1;
        if (overflowEn) return i;
        return i == n ? kNoBin : i;
    }

    // Index of the first bound >= value in list order, or the bound count.
    uint32_t firstNotBelowByScan(unsigned int value) const;

    uint32_t binCount() const { return numBins; }
    bool boundsAscending() const { return sorted; }

  private:
    // Lower bound by bisection without data-dependent branches, so random
    // values cost the same as repeated ones. Valid for ascending bounds.
    uint32_t firstNotBelowSorted(unsigned int value) const {
        const uint32_t* const begin = bounds.data();
        const uint32_t* first = begin;
        size_t len = bounds.size();
        if (len == 0) return 0;
        while (len > 1) {
            const size_t half = len / 2;
            first += first[half - 1] < value ? half : 0;
            len -= half;
        }
        return static_cast<uint32_t>(first - begin) + (*first < value ? 1 : 0);
    }

  protected:
    const std::vector<uint32_t> bounds;
    const bool overflowEn;
    const bool underflowEn;
    const bool sorted;
    uint32_t numBins = 0;
    // numBins counters plus one spare slot that takes the samples above the
    // last bound when only overflow_en is set. The spare is never emitted
    // nor reset; it only keeps that index inside the array.
    std::vector<uint32_t> bins;
};
