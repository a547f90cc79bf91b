// HtmlReport: one self-contained HTML page with a chart per KPI (zemdump
// --html FILE, zemd --html FILE at exit).
//
// Per source (a zemd client, or zemdump's files) and KPI: a time series for
// counters and gauges (a min-max band with the mean), a heat map of bin
// counts over windows for histograms with the bins' labels, blob bytes per
// window, and under each chart a table of the raw windows. Inline SVG and
// CSS only: no scripts, nothing fetched from anywhere.
//
//   zemtools::HtmlReport report;
//   report.add("camera", data, zemtools::WallClock::now());
//   std::string error;
//   report.write("report.html", "zemd report", catalog, &campaign, &error);
//
// add() may be called from several threads at once (`mutex`); write() and
// render() take the same lock.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "kpi.pb.h"
#include "metric.pb.h"
#include "tools/KPICatalog.h"
#include "tools/WallClock.h"

namespace zemtools {

class HtmlReport {
  public:
    // Adds every window of `data` under `source`; `clock` (may be unknown)
    // dates them.
    void add(const std::string& source, const olvan::KPIData& data, const WallClock& clock);

    // The page. `campaign` (may be null) labels histogram bins by bounds.
    std::string render(const std::string& title, const KPICatalog& catalog,
                       const LTCCampaignDef* campaign);
    // Writes render()'s page to `path`; false with a message on failure.
    bool write(const std::string& path, const std::string& title, const KPICatalog& catalog,
               const LTCCampaignDef* campaign, std::string* error);

    // Number of charts the page holds (one per source, KPI and kind).
    size_t chartCount();

    struct Row {
        uint64_t tsStart = 0, tsEnd = 0, samples = 0;
        bool haveWall = false;
        int64_t wallStart = 0, wallEnd = 0;  // Unix nanoseconds
        double value = 0;                    // counter value, blob bytes
        bool hasMin = false, hasMax = false, hasMean = false;
        double min = 0, max = 0, mean = 0;
        std::vector<uint32_t> bins;
    };

  private:
    using Key = std::tuple<std::string, uint32_t, std::string>;  // source, id, kind
    std::mutex mutex;
    std::map<Key, std::vector<Row>> series;
};

}  // namespace zemtools
