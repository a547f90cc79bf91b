// KPICatalog: the names, units and help lines of a campaign's KPI ids, and
// the labels of histogram bins, for every tool that prints KPIs.
//
// A catalog is a text file (zemcatalog.Catalog in protobuf text format, see
// tools/catalog.proto). Without one, or for ids it does not list, the tools
// keep printing bare ids. Bin labels come from the catalog when it gives them
// for the KPI, else from the histogram's bucket bounds in the campaign, else
// the tools print bins by index as before.
//
//   zemtools::KPICatalog catalog;
//   std::string error;
//   if (!catalog.load("frame_pipeline.catalog.txtpb", &error)) fputs(error.c_str(), stderr);
//   printf("%s\n", catalog.name(1).c_str());                  // "frame_latency"
//   auto labels = catalog.binLabels(1, 10, &campaign);         // "underflow (<= 4)", "(4, 8]", ...
//
// Loaded once, then read only; const methods may be called from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "catalog.pb.h"
#include "kpi.pb.h"

namespace zemtools {

class KPICatalog {
  public:
    // Reads `file`. False with one line per problem in `error` when it does
    // not parse, lists an id twice or names a KPI with characters other than
    // letters, digits and '_'.
    bool load(const std::string& file, std::string* error);

    // The entry of `id`, or null.
    const zemcatalog::Kpi* find(uint32_t id) const;

    // The catalog's name of `id`, or `id` in decimal.
    std::string name(uint32_t id) const;
    // "frame_latency (id 1)" for messages, or "KPI 1" without a name.
    std::string describe(uint32_t id) const;
    std::string unit(uint32_t id) const;

    // One label per bin of a histogram window of `id` with `binCount` bins:
    // the catalog's labels when it lists exactly that many, else labels from
    // the bounds of `id` in `campaign` (null: unknown) when its layout has that
    // many bins, else none (empty).
    std::vector<std::string> binLabels(uint32_t id, size_t binCount,
                                       const LTCCampaignDef* campaign) const;

    bool empty() const { return byId.empty(); }

  private:
    std::map<uint32_t, zemcatalog::Kpi> byId;
};

// The KPI of `id` in `campaign` (the last entry when listed twice), or null.
const KPICfg* findKpi(const LTCCampaignDef* campaign, uint32_t id);

// Labels of the bins that a histogram with `cfg` emits, in bin order, from
// its bounds: "(10, 20]" for a bin between bounds, "underflow (<= 10)" and
// "overflow (> 30)" for the outer bins, and "phantom (always 0)" for the last
// bin of the overflow-only layout, which no value ever reaches. Empty when the
// bounds give no bin.
std::vector<std::string> boundLabels(const HistogramConfig& cfg);

}  // namespace zemtools
