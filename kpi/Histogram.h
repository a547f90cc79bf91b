// Histogram: the aggregator of a KPI_NUMERIC KPI of subtype HISTOGRAM.
//
// Sorts each value into the bins delimited by the configured bucket bounds
// (inclusive upper edges, optional underflow and overflow bins) and emits
// the bin counts once per window. A value outside every bin is dropped
// uncounted.
//
// Bounds are meant to ascend but are not required to (repeats are allowed,
// order is not checked). Ascending lists are searched without data-dependent
// branches, through a table indexed by the value when the bounds are spread
// out (fixed-width bins) and by counting bounds sixteen at a time otherwise;
// other lists are scanned from the front.
//
// Owned by the collector's KPI table; called on the logging thread, no lock.
#pragma once

#include <cstdint>
#include <vector>

#include "kpi/KPI.h"

class Histogram : public KPI {
  public:
    // findBucketId's answer for a value that belongs to no bin.
    static constexpr uint32_t kNoBin = 4294967295u;

    Histogram(const KPICfg& cfg, KPISerializer& serializer);
    ~Histogram() override;

    int Aggregate(unsigned int value) final;
    void ResetAggregates() override;
    bool validCfg() override;
    int Serialize() override;

    // The bin index of `value`, or kNoBin. With overflow_en but not
    // underflow_en, a value above the last bound gets index numBins: it is
    // counted as a sample but lands in no emitted bin.
    uint32_t findBucketId(unsigned int value) const;

    // How the first bound not below a value is found, chosen once from the
    // bound list. All give what a scan from the front gives.
    enum class Search : uint8_t {
        kScan,    // bounds out of order: scan from the front
        kRadix,   // ascending and spread out: a table indexed by the value
        kBlocks,  // ascending otherwise: sixteen-wide counts, in two levels
                  // when there are more than 16 bounds
    };
    Search search() const { return searchKind; }

    uint32_t binCount() const { return numBins; }

  protected:
    void buildSearch();
    // Index of the first bound >= value in list order, or the bound count.
    uint32_t firstNotBelowByScan(unsigned int value) const;
    // For ascending bounds the first bound >= value is the number of bounds
    // below the value. These count them without a data-dependent branch, so
    // scattered values cost what repeated ones do.
    uint32_t firstNotBelowRadix(unsigned int value) const;
    uint32_t firstNotBelowBlocks(unsigned int value) const;

    const std::vector<uint32_t> bounds;
    const bool overflowEn;
    const bool underflowEn;
    Search searchKind = Search::kScan;
    uint8_t radixShift = 0;
    uint32_t radixBase = 0;
    uint32_t radixLast = 0;
    uint32_t numBins = 0;
    // The bounds followed by at least one whole block of 0xFFFFFFFF pads (no
    // value is above a pad, so a pad never counts), in blocks of 16.
    std::vector<uint32_t> blocks;
    // kBlocks with more than one block: the last bound of every block,
    // padded to whole blocks.
    std::vector<uint32_t> blockLasts;
    // kRadix: entry j holds the number of bounds below the smallest value
    // that maps to j; no entry's value range holds more than one bound.
    std::vector<uint16_t> radix;
    // One counter per emitted bin. Index numBins (overflow_en without
    // underflow_en, a value above the last bound) has no counter: the sample
    // counts, no bin changes, and nothing outside the array is written.
    std::vector<uint32_t> bins;
};
