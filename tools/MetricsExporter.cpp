#include "tools/MetricsExporter.h"

#include <prometheus/text_serializer.h>

#include <cmath>
#include <cstdio>
#include <exception>
#include <limits>

namespace zemtools {

namespace {

using prometheus::BuildCounter;
using prometheus::BuildGauge;
using prometheus::BuildHistogram;

}  // namespace

MetricsExporter::MetricsExporter()
    : registry(std::make_shared<prometheus::Registry>()),
      files(BuildCounter()
                    .Name("zem_client_files_total")
                    .Help("Cache files received from the client")
                    .Register(*registry)),
      clientWindows(BuildCounter()
                            .Name("zem_client_windows_total")
                            .Help("Windows of every KPI received from the client")
                            .Register(*registry)),
      windows(BuildCounter()
                      .Name("zem_kpi_windows_total")
                      .Help("Windows received per KPI")
                      .Register(*registry)),
      samples(BuildCounter()
                      .Name("zem_kpi_samples_total")
                      .Help("Samples counted in the windows received per KPI")
                      .Register(*registry)),
      lastEnd(BuildGauge()
                      .Name("zem_kpi_last_window_end_seconds")
                      .Help("Wall-clock end of the KPI's latest window, Unix seconds")
                      .Register(*registry)),
      counterTotal(BuildCounter()
                           .Name("zem_counter_total")
                           .Help("Counter KPI: sum of the values of every window received")
                           .Register(*registry)),
      counterLast(BuildGauge()
                          .Name("zem_counter_last_window")
                          .Help("Counter KPI: value of the latest window")
                          .Register(*registry)),
      gaugeMin(BuildGauge()
                       .Name("zem_gauge_min")
                       .Help("Gauge KPI: minimum of the latest window that reports it")
                       .Register(*registry)),
      gaugeMax(BuildGauge()
                       .Name("zem_gauge_max")
                       .Help("Gauge KPI: maximum of the latest window that reports it")
                       .Register(*registry)),
      gaugeMean(BuildGauge()
                        .Name("zem_gauge_mean")
                        .Help("Gauge KPI: mean of the latest window that reports it")
                        .Register(*registry)),
      histograms(BuildHistogram()
                         .Name("zem_histogram")
                         .Help("Histogram KPI: bin counts of every window received, le = the "
                               "campaign's bucket bounds; _sum is unknown (NaN)")
                         .Register(*registry)),
      blobBytes(BuildCounter()
                        .Name("zem_blob_bytes_total")
                        .Help("Blob KPI: bytes of every window received")
                        .Register(*registry)),
      blobLastBytes(BuildGauge()
                            .Name("zem_blob_last_window_bytes")
                            .Help("Blob KPI: bytes of the latest window")
                            .Register(*registry)) {}

std::unique_ptr<MetricsExporter> MetricsExporter::start(const std::string& address,
                                                        std::string* error) {
    auto exporter = std::make_unique<MetricsExporter>();
    try {
        exporter->exposer = std::make_unique<prometheus::Exposer>(address, 2);
    } catch (const std::exception& e) {
        *error = "cannot serve metrics on " + address + ": " + e.what();
        return nullptr;
    }
    exporter->exposer->RegisterCollectable(exporter->registry);
    return exporter;
}

int MetricsExporter::port() const {
    if (!exposer) return 0;
    const std::vector<int> ports = exposer->GetListeningPorts();
    return ports.empty() ? 0 : ports.front();
}

std::string MetricsExporter::render() const {
    return prometheus::TextSerializer().Serialize(registry->Collect());
}

MetricsExporter::KpiState& MetricsExporter::state(const std::string& client,
                                                  const std::string& kpi) {
    return kpis[{client, kpi}];
}

bool MetricsExporter::isLatest(KpiState& s, uint64_t end) {
    if (s.seen && end < s.lastEnd) return false;
    s.seen = true;
    s.lastEnd = end;
    return true;
}

std::vector<double> MetricsExporter::bucketIncrements(const HistogramConfig& cfg,
                                                      const olvan::Histogram& window) {
    const auto& b = cfg.bucket_bounds();
    const size_t n = static_cast<size_t>(b.size());
    if (n == 0) return {};
    for (size_t i = 1; i < n; ++i) {
        if (b[static_cast<int>(i)] <= b[static_cast<int>(i - 1)]) return {};
    }
    const size_t expected = n - 1 + (cfg.overflow_en() ? 1 : 0) + (cfg.underflow_en() ? 1 : 0);
    if (static_cast<size_t>(window.bin_counts_size()) != expected) return {};

    // Bucket i (i < n) is le=b(i); bucket n is le=+Inf.
    std::vector<double> inc(n + 1, 0.0);
    for (size_t k = 0; k < expected; ++k) {
        const double count = window.bin_counts(static_cast<int>(k));
        if (cfg.underflow_en()) {
            // Bin 0 is <= b0, bin k is (b(k-1), b(k)], bin n is > b(n-1).
            inc[k] += count;
        } else if (k + 1 < n) {
            // Bin k is (b(k), b(k+1)].
            inc[k + 1] += count;
        }
        // Else the overflow-only layout's last bin, which is always 0.
    }
    return inc;
}

void MetricsExporter::addHistogram(KpiState& s, const Labels& labels, const std::string& describe,
                                   const olvan::Histogram& h, const LTCCampaignDef* campaign) {
    const KPICfg* cfg = findKpi(campaign, h.meta().id());
    std::vector<double> inc;
    std::string layout;
    if (cfg != nullptr && cfg->type() == KPI_NUMERIC && cfg->subtype() == HISTOGRAM) {
        const HistogramConfig& hc =
                cfg->has_h_cfg() ? cfg->h_cfg() : HistogramConfig::default_instance();
        inc = bucketIncrements(hc, h);
        hc.SerializeToString(&layout);
        if (!inc.empty() && s.histogram == nullptr) {
            prometheus::Histogram::BucketBoundaries bounds(hc.bucket_bounds().begin(),
                                                           hc.bucket_bounds().end());
            s.histogram = &histograms.Add(labels, bounds);
            s.layout = layout;
        }
    }
    if (inc.empty() || s.layout != layout) {
        // Buckets cannot change once exported; say once which KPI is left out.
        if (warned.insert(labels.at("client") + "/" + describe).second) {
            fprintf(stderr,
                    "zemd: metrics: %s of %s: histogram windows whose bins do not fit the "
                    "campaign's bounds (or whose bounds changed) are left out of zem_histogram\n",
                    describe.c_str(), labels.at("client").c_str());
        }
        return;
    }
    s.histogram->ObserveMultiple(inc, std::numeric_limits<double>::quiet_NaN());
}

void MetricsExporter::addFile(const std::string& client) {
    std::lock_guard<std::mutex> lock(mutex);
    files.Add({{"client", client}}).Increment();
}

void MetricsExporter::add(const std::string& client, const olvan::KPIData& data,
                          const KPICatalog& catalog, const LTCCampaignDef* campaign,
                          const WallClock& clock) {
    std::lock_guard<std::mutex> lock(mutex);
    const Labels clientLabels{{"client", client}};

    // The parts every kind shares; true when the window is the KPI's latest.
    auto common = [&](const olvan::MetaData& m, Labels* labels) -> KpiState& {
        *labels = {{"client", client}, {"kpi", catalog.name(m.id())}};
        clientWindows.Add(clientLabels).Increment();
        windows.Add(*labels).Increment();
        samples.Add(*labels).Increment(static_cast<double>(m.nof_samples()));
        KpiState& s = state(client, (*labels)["kpi"]);
        return s;
    };
    auto latest = [&](KpiState& s, const Labels& labels, const olvan::MetaData& m) {
        if (!isLatest(s, m.ts_end())) return false;
        if (clock.known()) lastEnd.Add(labels).Set(clock.unixSeconds(m.ts_end()));
        return true;
    };

    Labels labels;
    for (const auto& c : data.counters()) {
        KpiState& s = common(c.meta(), &labels);
        counterTotal.Add(labels).Increment(static_cast<double>(c.value()));
        if (latest(s, labels, c.meta()))
            counterLast.Add(labels).Set(static_cast<double>(c.value()));
    }
    for (const auto& g : data.gauges()) {
        KpiState& s = common(g.meta(), &labels);
        if (!latest(s, labels, g.meta())) continue;
        if (g.min_oneof_case() == olvan::Gauge::kMin) gaugeMin.Add(labels).Set(g.min());
        if (g.max_oneof_case() == olvan::Gauge::kMax) gaugeMax.Add(labels).Set(g.max());
        if (g.mean_oneof_case() == olvan::Gauge::kMean) gaugeMean.Add(labels).Set(g.mean());
    }
    for (const auto& h : data.histograms()) {
        KpiState& s = common(h.meta(), &labels);
        latest(s, labels, h.meta());
        addHistogram(s, labels, catalog.describe(h.meta().id()), h, campaign);
    }
    for (const auto& b : data.blobs()) {
        KpiState& s = common(b.meta(), &labels);
        const double bytes = static_cast<double>(b.data().size());
        blobBytes.Add(labels).Increment(bytes);
        if (latest(s, labels, b.meta())) blobLastBytes.Add(labels).Set(bytes);
    }
}

}  // namespace zemtools
