// MetricsExporter: zemd's windows as Prometheus metrics, served over HTTP in
// the text exposition format (zemd --metrics ADDRESS:PORT).
//
// Every decoded file of a client adds its windows: per client the files and
// windows received; per client and KPI (label "kpi": the catalog's name, else
// the id) the windows and samples, the wall-clock end of the last window, and
// by kind: a counter's running total and last window, a gauge's last
// min/max/mean, a histogram as a Prometheus histogram whose "le" bounds are
// the campaign's bucket bounds, a blob's bytes. Histogram bins are upper-
// inclusive intervals (b(k), b(k+1)] like Prometheus buckets (le = upper
// bound), so bin counts map onto buckets exactly: bin (b(k), b(k+1)] adds to
// the bucket le=b(k+1), the underflow bin to le=b0, the overflow bin only to
// le=+Inf. The records carry no sample values, so a histogram's _sum is NaN.
//
//   std::string error;
//   auto exporter = zemtools::MetricsExporter::start("127.0.0.1:9464", &error);
//   exporter->add("camera", data, catalog, &campaign, zemtools::WallClock::now());
//
// Owned by zemd's main(). add() is called from gRPC and binder threads at
// once; `mutex` guards the per-KPI state. The HTTP server runs its own
// threads and reads the metrics through prometheus-cpp's own locking.
#pragma once

#include <prometheus/counter.h>
#include <prometheus/exposer.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kpi.pb.h"
#include "metric.pb.h"
#include "tools/KPICatalog.h"
#include "tools/WallClock.h"

namespace zemtools {

class MetricsExporter {
  public:
    // Metrics without an HTTP server (render() shows them).
    MetricsExporter();
    // Serves http://ADDRESS:PORT/metrics (PORT 0: any free port). Null with a
    // message in `error` when the address cannot be served.
    static std::unique_ptr<MetricsExporter> start(const std::string& address, std::string* error);

    // The port served, or 0.
    int port() const;

    // Counts one file that `client` delivered.
    void addFile(const std::string& client);

    // Adds every window of `data`, all or part of a file that `client`
    // delivered; `campaign` (may be null) gives histogram bounds, `clock`
    // wall-clock times.
    void add(const std::string& client, const olvan::KPIData& data, const KPICatalog& catalog,
             const LTCCampaignDef* campaign, const WallClock& clock);

    // The current metrics in the text exposition format.
    std::string render() const;

    // Cumulative-bucket increments, one per bound plus +Inf, of a histogram
    // window's bins under `cfg`; empty when the bins do not fit its layout.
    static std::vector<double> bucketIncrements(const HistogramConfig& cfg,
                                                const olvan::Histogram& window);

  private:
    struct KpiState {
        uint64_t lastEnd = 0;
        bool seen = false;
        prometheus::Histogram* histogram = nullptr;
        std::string layout;  // the HistogramConfig the histogram was made for
    };
    using Labels = std::map<std::string, std::string>;

    // With `mutex` held: the state of one KPI, and whether `end` is at least
    // as late as its last window's (then the window is the new last one).
    KpiState& state(const std::string& client, const std::string& kpi);
    bool isLatest(KpiState& s, uint64_t end);
    void addHistogram(KpiState& s, const Labels& labels, const std::string& describe,
                      const olvan::Histogram& h, const LTCCampaignDef* campaign);

    std::shared_ptr<prometheus::Registry> registry;
    std::unique_ptr<prometheus::Exposer> exposer;

    prometheus::Family<prometheus::Counter>& files;
    prometheus::Family<prometheus::Counter>& clientWindows;
    prometheus::Family<prometheus::Counter>& windows;
    prometheus::Family<prometheus::Counter>& samples;
    prometheus::Family<prometheus::Gauge>& lastEnd;
    prometheus::Family<prometheus::Counter>& counterTotal;
    prometheus::Family<prometheus::Gauge>& counterLast;
    prometheus::Family<prometheus::Gauge>& gaugeMin;
    prometheus::Family<prometheus::Gauge>& gaugeMax;
    prometheus::Family<prometheus::Gauge>& gaugeMean;
    prometheus::Family<prometheus::Histogram>& histograms;
    prometheus::Family<prometheus::Counter>& blobBytes;
    prometheus::Family<prometheus::Gauge>& blobLastBytes;

    std::mutex mutex;
    std::map<std::pair<std::string, std::string>, KpiState> kpis;
    std::set<std::string> warned;
};

}  // namespace zemtools
