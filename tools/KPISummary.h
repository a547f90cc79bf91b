// KPI summaries over many windows, for zemdump --summary.
//
// Folds every window of one or more decoded cache files into one row per KPI
// (id and kind): window and sample counts, the totals that suit the kind, and
// the KPI's value per window in time order; and draws them as text: a bar
// chart of histogram bin totals and a sparkline per numeric KPI.
//
//   zemtools::KPISummary summary;
//   summary.add(fileA);  summary.add(fileB);
//   for (const auto& line : zemtools::formatSummary(summary.rows(), false)) puts(line.c_str());
//
// Plain values; not shared between threads.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "metric.pb.h"
#include "tools/KPIDataFormat.h"

namespace zemtools {

struct KPISummaryRow {
    uint32_t id = 0;
    std::string kind;  // "counter", "gauge", "histogram" or "blob"
    uint64_t windows = 0;
    uint64_t samples = 0;
    uint64_t counterSum = 0;
    // Gauges: each only over the windows that report it.
    bool haveMin = false, haveMax = false;
    uint32_t min = 0, max = 0;
    uint64_t meanWindows = 0;
    double meanOfMeans = 0;
    std::vector<uint64_t> binTotals;  // histograms, as long as the longest window
    uint64_t blobBytes = 0;
    // Numeric kinds: (ts_start, value) per window in time order. The value is
    // a counter's value, a gauge's mean (else max, else min) and a
    // histogram's sample count.
    std::vector<std::pair<uint64_t, double>> series;
};

class KPISummary {
  public:
    // Adds every window of `data`; windows with equal start times keep the
    // order in which they were added.
    void add(const olvan::KPIData& data);
    // One row per (id, kind), by id and then kind.
    std::vector<KPISummaryRow> rows() const;

  private:
    KPISummaryRow& row(uint32_t id, const char* kind);
    std::map<std::pair<uint32_t, std::string>, KPISummaryRow> byKey;
    std::map<std::pair<uint32_t, std::string>, double> meanSums;
};

// ▁▂▃▄▅▆▇█ per value, scaled from 0 to the largest value; more values than
// `width` are averaged in consecutive groups first. Empty for no values.
std::string sparkline(const std::vector<double>& values, size_t width = 60);

// A horizontal bar of `value` out of `max` in `width` cells, with eighth-block
// resolution (UTF-8); any nonzero value shows at least a sliver.
std::string bar(uint64_t value, uint64_t max, size_t width = 40);

// The readable table with bar charts and sparklines, or one JSON object per
// row with `json`; KPIs named and bins labelled as `context` allows.
std::vector<std::string> formatSummary(const std::vector<KPISummaryRow>& rows, bool json,
                                       const WindowContext& context = WindowContext());

}  // namespace zemtools
