#include "kpi/Histogram.h"

#include <algorithm>
#include <cstring>

#include "collector/CampaignRules.h"
#include "serializer/KPISerializer.h"

namespace {

constexpr size_t kBlock = 16;
constexpr uint32_t kPad = 0xFFFFFFFFu;

// Four lanes of unsigned 32-bit values: compiles to SSE2 on x86 and to NEON
// on ARM, with no target-specific code.
typedef uint32_t U32x4 __attribute__((vector_size(16)));
typedef int32_t I32x4 __attribute__((vector_size(16)));

// How many of the nBlocks * 16 values at p are below `value`. A lane that
// compares true reads -1, so the lane sums count downwards.
inline uint32_t countBelow(const uint32_t* p, size_t nBlocks, uint32_t value) {
    const U32x4 v = U32x4{} + value;
    I32x4 acc = {0, 0, 0, 0};
    for (size_t k = 0; k < nBlocks; ++k, p += kBlock) {
        U32x4 a, b, c, d;
        std::memcpy(&a, p, sizeof a);
        std::memcpy(&b, p + 4, sizeof b);
        std::memcpy(&c, p + 8, sizeof c);
        std::memcpy(&d, p + 12, sizeof d);
        acc += (a < v) + (b < v) + (c < v) + (d < v);
    }
    return static_cast<uint32_t>(-(acc[0] + acc[1] + acc[2] + acc[3]));
}

size_t wholeBlocks(size_t n) {
    return (n + kBlock - 1) / kBlock;
}

}  // namespace

// h_cfg() is the default instance (no bounds, no flags) unless the
// configuration holds a histogram configuration.
Histogram::Histogram(const KPICfg& cfg, KPISerializer& serializer)
    : KPI(cfg, serializer),
      bounds(cfg.h_cfg().bucket_bounds().begin(), cfg.h_cfg().bucket_bounds().end()),
      overflowEn(cfg.h_cfg().overflow_en()),
      underflowEn(cfg.h_cfg().underflow_en()) {
    // Without bounds the bin count would start at -1 and either wrap to
    // 2^32-1 bins or overflow fatally; refuse it here instead. A list past
    // the limit is refused too, so there is no point building its bins.
    if (!zem::kHistogramBounds.holds(bounds.size())) return;
    numBins = static_cast<uint32_t>(bounds.size()) - 1;
    if (overflowEn) zem::checkedIncrement(numBins, "Histogram numBins");
    if (underflowEn) zem::checkedIncrement(numBins, "Histogram numBins");
    bins.assign(numBins, 0);
    buildSearch();
}

Histogram::~Histogram() = default;

void Histogram::buildSearch() {
    if (!std::is_sorted(bounds.begin(), bounds.end())) return;
    const size_t n = bounds.size();
    const size_t nBlocks = wholeBlocks(n);
    blocks.assign((nBlocks + 1) * kBlock, kPad);
    std::copy(bounds.begin(), bounds.end(), blocks.begin());

    // Value v maps to entry min((v - b0) >> shift, last), with values below
    // b0 in entry 0. At least four entries per bound: evenly spread bounds
    // then never share an entry.
    const uint32_t base = bounds.front();
    const uint32_t span = bounds.back() - base;
    uint32_t size = 4;
    while (size < 4 * n) size *= 2;
    uint8_t shift = 0;
    while ((span >> shift) >= size) ++shift;
    const uint32_t last = span >> shift;
    std::vector<uint16_t> table(size_t{last} + 1);
    bool spread = true;
    for (uint32_t j = 0; j <= last; ++j) {
        const uint32_t entryMin = base + (j << shift);
        table[j] = static_cast<uint16_t>(std::lower_bound(bounds.begin(), bounds.end(), entryMin) -
                                         bounds.begin());
        if (j > 0 && table[j] - table[j - 1] > 1) spread = false;
    }
    if (n - table[last] > 1) spread = false;
    if (spread) {
        radix = std::move(table);
        radixBase = base;
        radixShift = shift;
        radixLast = last;
        searchKind = Search::kRadix;
        return;
    }

    if (nBlocks > 1) {
        blockLasts.assign(wholeBlocks(nBlocks) * kBlock, kPad);
        for (size_t k = 0; k < nBlocks; ++k) blockLasts[k] = blocks[k * kBlock + kBlock - 1];
    }
    searchKind = Search::kBlocks;
}

// An entry holds at most one bound, so the count of bounds below the value
// is the entry's count, plus one if that bound is below the value too (a
// pad, or a bound of a later entry, is not).
uint32_t Histogram::firstNotBelowRadix(unsigned int value) const {
    const uint32_t offset = value > radixBase ? value - radixBase : 0;
    const uint32_t j = std::min(offset >> radixShift, radixLast);
    const uint32_t below = radix[j];
    return below + (blocks[below] < value ? 1 : 0);
}

// Blocks before the first block whose last bound is not below the value are
// below it entirely; the answer lies in that block, or is the bound count
// when every block is below (the block of pads after the bounds adds 0).
// With a single block there are no block lasts and the first level counts 0.
uint32_t Histogram::firstNotBelowBlocks(unsigned int value) const {
    const uint32_t before = countBelow(blockLasts.data(), blockLasts.size() / kBlock, value);
    return before * kBlock + countBelow(blocks.data() + size_t{before} * kBlock, 1, value);
}

uint32_t Histogram::findBucketId(unsigned int value) const {
    const uint32_t n = static_cast<uint32_t>(bounds.size());
    uint32_t i;
    switch (searchKind) {
        case Search::kRadix:
            i = firstNotBelowRadix(value);
            break;
        case Search::kBlocks:
            i = firstNotBelowBlocks(value);
            break;
        default:
            i = firstNotBelowByScan(value);
            break;
    }
    if (!underflowEn && static_cast<int32_t>(i) < static_cast<int32_t>(n)) i -= 1;
    if (overflowEn) return i;
    return i == n ? kNoBin : i;
}

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
    if (id == numBins) return 0;
    zem::checkedIncrement(bins[id], "Histogram bin count");
    return 0;
}

void Histogram::ResetAggregates() {
    std::fill_n(bins.begin(), numBins, 0u);
}

// An empty list is refused too: it got no bins at construction.
bool Histogram::validCfg() {
    return zem::kpiRefusal(cfg) == zem::KpiRefusal::kNone;
}

int Histogram::Serialize() {
    if (skipEmptyWindow("Histogram")) return 0;
    olvan::KPIData& data = emptyRecord();
    olvan::Histogram* histogram = data.add_histograms();
    fillMeta(histogram->mutable_meta());
    histogram->mutable_bin_counts()->Add(bins.begin(), bins.begin() + numBins);
    serializer.Write(data, windowNote("Histogram"));
    return 0;
}
