#include "tools/KPISummary.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>

#include "tools/KPICatalog.h"
#include "tools/KPIDataFormat.h"

namespace zemtools {

namespace {

const char* const kLevels[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
const char* const kEighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};

std::string number(double v) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

const char* seriesLabel(const KPISummaryRow& r) {
    if (r.kind == "counter") return "value per window";
    if (r.kind == "histogram") return "samples per window";
    if (r.meanWindows > 0) return "mean per window";
    if (r.haveMax) return "max per window";
    return "min per window";
}

}  // namespace

KPISummaryRow& KPISummary::row(uint32_t id, const char* kind) {
    KPISummaryRow& r = byKey[{id, kind}];
    r.id = id;
    r.kind = kind;
    return r;
}

void KPISummary::add(const olvan::KPIData& data) {
    auto count = [](KPISummaryRow& r, const olvan::MetaData& m) {
        r.windows += 1;
        r.samples += m.nof_samples();
    };
    for (const auto& c : data.counters()) {
        KPISummaryRow& r = row(c.meta().id(), "counter");
        count(r, c.meta());
        r.counterSum += c.value();
        r.series.emplace_back(c.meta().ts_start(), static_cast<double>(c.value()));
    }
    for (const auto& g : data.gauges()) {
        KPISummaryRow& r = row(g.meta().id(), "gauge");
        count(r, g.meta());
        const bool hasMin = g.min_oneof_case() == olvan::Gauge::kMin;
        const bool hasMax = g.max_oneof_case() == olvan::Gauge::kMax;
        const bool hasMean = g.mean_oneof_case() == olvan::Gauge::kMean;
        if (hasMin) {
            r.min = r.haveMin ? std::min(r.min, g.min()) : g.min();
            r.haveMin = true;
        }
        if (hasMax) {
            r.max = r.haveMax ? std::max(r.max, g.max()) : g.max();
            r.haveMax = true;
        }
        if (hasMean) {
            double& sum = meanSums[{r.id, r.kind}];
            sum += g.mean();
            r.meanWindows += 1;
            r.meanOfMeans = sum / static_cast<double>(r.meanWindows);
        }
        if (hasMean || hasMax || hasMin) {
            r.series.emplace_back(g.meta().ts_start(), hasMean  ? g.mean()
                                                       : hasMax ? g.max()
                                                                : g.min());
        }
    }
    for (const auto& h : data.histograms()) {
        KPISummaryRow& r = row(h.meta().id(), "histogram");
        count(r, h.meta());
        if (r.binTotals.size() < static_cast<size_t>(h.bin_counts_size())) {
            r.binTotals.resize(static_cast<size_t>(h.bin_counts_size()), 0);
        }
        for (int i = 0; i < h.bin_counts_size(); ++i) {
            r.binTotals[static_cast<size_t>(i)] += h.bin_counts(i);
        }
        r.series.emplace_back(h.meta().ts_start(), static_cast<double>(h.meta().nof_samples()));
    }
    for (const auto& b : data.blobs()) {
        KPISummaryRow& r = row(b.meta().id(), "blob");
        count(r, b.meta());
        r.blobBytes += b.data().size();
    }
}

std::vector<KPISummaryRow> KPISummary::rows() const {
    std::vector<KPISummaryRow> out;
    for (const auto& entry : byKey) {
        out.push_back(entry.second);
        auto& s = out.back().series;
        std::stable_sort(s.begin(), s.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
    }
    return out;
}

std::string sparkline(const std::vector<double>& values, size_t width) {
    if (values.empty() || width == 0) return "";
    std::vector<double> points;
    if (values.size() <= width) {
        points = values;
    } else {
        // Group i covers [i*n/width, (i+1)*n/width).
        for (size_t i = 0; i < width; ++i) {
            const size_t from = i * values.size() / width;
            const size_t to = (i + 1) * values.size() / width;
            double sum = 0;
            for (size_t k = from; k < to; ++k) sum += values[k];
            points.push_back(sum / static_cast<double>(to - from));
        }
    }
    // Scaled to the largest finite value; NaN draws as the lowest level and
    // infinity as the highest.
    double top = 0;
    for (const double v : points) {
        if (std::isfinite(v)) top = std::max(top, v);
    }
    std::string out;
    for (const double v : points) {
        int level = 0;
        if (v == std::numeric_limits<double>::infinity()) {
            level = 7;
        } else if (std::isfinite(v) && top > 0 && v > 0) {
            level = static_cast<int>(v / top * 7.0 + 0.5);
        }
        out += kLevels[std::min(7, std::max(0, level))];
    }
    return out;
}

std::string bar(uint64_t value, uint64_t max, size_t width) {
    if (max == 0 || value == 0) return "";
    uint64_t eighths = static_cast<uint64_t>(static_cast<double>(value) / static_cast<double>(max) *
                                             8.0 * static_cast<double>(width));
    if (eighths == 0) eighths = 1;
    std::string out;
    for (uint64_t i = 0; i < eighths / 8; ++i) out += "█";
    out += kEighths[eighths % 8];
    return out;
}

std::vector<std::string> formatSummary(const std::vector<KPISummaryRow>& rows, bool json,
                                       const WindowContext& context) {
    static const KPICatalog kNoNames;
    const KPICatalog& names = context.catalog ? *context.catalog : kNoNames;
    std::vector<std::string> lines;
    if (json) {
        for (const KPISummaryRow& r : rows) {
            JsonObject o;
            o.add("id", uint64_t{r.id});
            if (names.find(r.id)) o.add("name", names.name(r.id));
            o.add("kind", r.kind).add("windows", r.windows).add("samples", r.samples);
            if (r.kind == "counter") o.add("sum", r.counterSum);
            if (r.haveMin) o.add("min", uint64_t{r.min});
            if (r.haveMax) o.add("max", uint64_t{r.max});
            if (r.meanWindows > 0) o.add("mean_of_means", r.meanOfMeans);
            if (r.kind == "histogram") {
                std::string arr = "[";
                for (size_t i = 0; i < r.binTotals.size(); ++i) {
                    arr += (i ? "," : "") + std::to_string(r.binTotals[i]);
                }
                o.addRaw("bins", arr + "]");
            }
            if (r.kind == "blob") o.add("bytes", r.blobBytes);
            if (r.kind != "blob") {
                std::string arr = "[";
                for (size_t i = 0; i < r.series.size(); ++i) {
                    arr += (i ? "," : "") + jsonNumber(r.series[i].second);
                }
                o.addRaw("series", arr + "]");
            }
            lines.push_back(o.str());
        }
        return lines;
    }

    char buf[160];
    snprintf(buf, sizeof buf, "%-10s %-9s %8s %10s  %s", "id", "kind", "windows", "samples",
             "totals");
    lines.push_back(buf);
    for (const KPISummaryRow& r : rows) {
        std::string totals;
        if (r.kind == "counter") {
            totals = "sum=" + std::to_string(r.counterSum);
        } else if (r.kind == "gauge") {
            if (r.haveMin) totals += "min=" + std::to_string(r.min);
            if (r.haveMax)
                totals += std::string(totals.empty() ? "" : " ") + "max=" + std::to_string(r.max);
            if (r.meanWindows > 0) {
                totals += std::string(totals.empty() ? "" : " ") +
                          "mean-of-means=" + number(r.meanOfMeans);
            }
            if (totals.empty()) totals = "(no statistics requested)";
        } else if (r.kind == "histogram") {
            totals = "bins=[";
            for (size_t i = 0; i < r.binTotals.size(); ++i) {
                totals += (i ? " " : "") + std::to_string(r.binTotals[i]);
            }
            totals += "]";
        } else {
            totals = "bytes=" + std::to_string(r.blobBytes);
        }
        snprintf(buf, sizeof buf, "%-10s %-9s %8" PRIu64 " %10" PRIu64 "  ",
                 names.name(r.id).c_str(), r.kind.c_str(), r.windows, r.samples);
        lines.push_back(buf + totals);
    }
    for (const KPISummaryRow& r : rows) {
        if (r.kind != "histogram" || r.binTotals.empty()) continue;
        lines.push_back("");
        lines.push_back(names.describe(r.id) + " histogram, samples per bin:");
        const std::vector<std::string> labels =
                names.binLabels(r.id, r.binTotals.size(), context.campaign);
        size_t width = 3;
        for (const std::string& l : labels) width = std::max(width, l.size());
        const uint64_t top = *std::max_element(r.binTotals.begin(), r.binTotals.end());
        for (size_t i = 0; i < r.binTotals.size(); ++i) {
            std::string b = bar(r.binTotals[i], top);
            // Pad to 40 cells; every block character is one cell.
            size_t cells = 0;
            for (const char c : b) cells += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
            b.append(40 - std::min<size_t>(40, cells), ' ');
            if (labels.empty()) {
                snprintf(buf, sizeof buf, "  bin %-3zu %s %" PRIu64, i, b.c_str(), r.binTotals[i]);
                lines.push_back(buf);
            } else {
                lines.push_back("  " + labels[i] + std::string(width - labels[i].size() + 1, ' ') +
                                b + " " + std::to_string(r.binTotals[i]));
            }
        }
    }
    bool header = false;
    for (const KPISummaryRow& r : rows) {
        if (r.kind == "blob" || r.series.empty()) continue;
        if (!header) {
            lines.push_back("");
            lines.push_back("over time (0 to the largest value; wide series averaged):");
            header = true;
        }
        std::vector<double> values;
        for (const auto& p : r.series) values.push_back(p.second);
        double top = *std::max_element(values.begin(), values.end());
        snprintf(buf, sizeof buf, "  %-10s %-9s ", names.name(r.id).c_str(), r.kind.c_str());
        lines.push_back(buf + sparkline(values) + "  " + seriesLabel(r) + ", max " + number(top));
    }
    return lines;
}

}  // namespace zemtools
