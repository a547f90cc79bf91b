#include "tools/HtmlReport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace zemtools {

namespace {

// Chart geometry, in SVG user units.
constexpr double kWidth = 900, kHeight = 240;
constexpr double kLeft = 160, kRight = 20, kTop = 12, kBottom = 34;
constexpr double kPlotW = kWidth - kLeft - kRight, kPlotH = kHeight - kTop - kBottom;

std::string esc(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string num(double v) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

// SVG coordinates to one decimal.
std::string co(double v) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.1f", v);
    return buf;
}

std::string steady(uint64_t tenths) {
    char buf[32];
    snprintf(buf, sizeof buf, "%" PRIu64 ".%" PRIu64 "s", tenths / 10, tenths % 10);
    return buf;
}

// A row's start for axis labels: wall-clock time of day when known.
std::string when(const HtmlReport::Row& r) {
    if (!r.haveWall) return steady(r.tsStart);
    const std::string iso = isoTime(r.wallStart, 1);
    return iso.substr(11, iso.size() - 12);
}

std::string text(double x, double y, const std::string& s, const char* anchor,
                 const char* cls = "axis") {
    return "<text class=\"" + std::string(cls) + "\" x=\"" + co(x) + "\" y=\"" + co(y) +
           "\" text-anchor=\"" + anchor + "\">" + esc(s) + "</text>";
}

// The smallest of 1, 2, 4, 8 and 10 times a power of ten that reaches `v`,
// so that quarter ticks are round numbers.
double niceMax(double v) {
    if (v <= 0) return 1;
    const double p = std::pow(10.0, std::floor(std::log10(v)));
    for (const double m : {1.0, 2.0, 4.0, 8.0, 10.0}) {
        if (m * p >= v) return m * p;
    }
    return 10 * p;
}

// The y range of a chart: from 0, unless every value sits high above it (a
// gauge around 60 fps), then a round range around the values.
struct YRange {
    double lo = 0, hi = 1;
};

YRange yRange(double lo, double hi) {
    if (hi <= 0 || lo < 0.5 * hi) return {0, niceMax(hi)};
    double span = niceMax((hi - lo) * 1.25 + hi * 1e-9);
    for (;;) {
        const double step = span / 4;
        const double from = std::floor(lo / step) * step;
        if (from + span >= hi) return {from, from + span};
        span = niceMax(span * 1.5);
    }
}

// Frame, y ticks over `y` and x labels of the first, middle and last
// window.
std::string axes(const std::vector<HtmlReport::Row>& rows, YRange y, bool yTicks) {
    std::string out = "<rect class=\"frame\" x=\"" + co(kLeft) + "\" y=\"" + co(kTop) +
                      "\" width=\"" + co(kPlotW) + "\" height=\"" + co(kPlotH) + "\"/>";
    if (yTicks) {
        for (int i = 0; i <= 4; ++i) {
            const double yPos = kTop + kPlotH - kPlotH * i / 4;
            out += "<line class=\"grid\" x1=\"" + co(kLeft) + "\" x2=\"" + co(kLeft + kPlotW) +
                   "\" y1=\"" + co(yPos) + "\" y2=\"" + co(yPos) + "\"/>";
            out += text(kLeft - 6, yPos + 4, num(y.lo + (y.hi - y.lo) * i / 4), "end");
        }
    }
    const size_t n = rows.size();
    const size_t picks[] = {0, n / 2, n - 1};
    for (int i = 0; i < 3; ++i) {
        if (i == 1 && (n < 3)) continue;
        if (i == 2 && n < 2) continue;
        const char* anchor = i == 0 ? "start" : i == 1 ? "middle" : "end";
        const double x = i == 0 ? kLeft : i == 1 ? kLeft + kPlotW / 2 : kLeft + kPlotW;
        out += text(x, kHeight - 12, when(rows[picks[i]]), anchor);
    }
    return out;
}

// Window i's x position, spread over the plot by start time.
std::vector<double> timeX(const std::vector<HtmlReport::Row>& rows) {
    std::vector<double> xs;
    const double t0 = static_cast<double>(rows.front().tsStart);
    const double t1 = static_cast<double>(rows.back().tsStart);
    for (const auto& r : rows) {
        xs.push_back(t1 > t0 ? kLeft + (static_cast<double>(r.tsStart) - t0) / (t1 - t0) * kPlotW
                             : kLeft + kPlotW / 2);
    }
    return xs;
}

double yOf(double v, YRange y) {
    return kTop + kPlotH - (v - y.lo) / (y.hi - y.lo) * kPlotH;
}

std::string polyline(const std::vector<double>& xs, const std::vector<double>& ys,
                     const char* cls) {
    std::string pts;
    for (size_t i = 0; i < xs.size(); ++i) pts += (i ? " " : "") + co(xs[i]) + "," + co(ys[i]);
    return "<polyline class=\"" + std::string(cls) + "\" points=\"" + pts + "\"/>";
}

std::string marks(const std::vector<double>& xs, const std::vector<double>& ys) {
    std::string out;
    for (size_t i = 0; i < xs.size(); ++i) {
        out += "<circle class=\"mark\" cx=\"" + co(xs[i]) + "\" cy=\"" + co(ys[i]) + "\" r=\"3\"/>";
    }
    return out;
}

std::string counterChart(const std::vector<HtmlReport::Row>& rows) {
    double top = 0;
    for (const auto& r : rows) top = std::max(top, r.value);
    const YRange ymax = yRange(0, top);
    const std::vector<double> xs = timeX(rows);
    std::vector<double> ys;
    for (const auto& r : rows) ys.push_back(yOf(r.value, ymax));
    return axes(rows, ymax, true) + polyline(xs, ys, "line") + marks(xs, ys);
}

std::string gaugeChart(const std::vector<HtmlReport::Row>& rows) {
    double lo = 0, hi = 0;
    bool seen = false;
    for (const auto& r : rows) {
        const std::pair<bool, double> stats[] = {
                {r.hasMin, r.min}, {r.hasMax, r.max}, {r.hasMean, r.mean}};
        for (const auto& [has, v] : stats) {
            if (!has) continue;
            lo = seen ? std::min(lo, v) : v;
            hi = seen ? std::max(hi, v) : v;
            seen = true;
        }
    }
    const YRange ymax = yRange(lo, hi);
    const std::vector<double> allX = timeX(rows);
    std::string out = axes(rows, ymax, true);
    // The band over the windows that report both ends, then the mean (or
    // whichever statistic the windows carry) as a line with marks.
    std::vector<double> bx, top, bottom, lx, ly;
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto& r = rows[i];
        if (r.hasMin && r.hasMax) {
            bx.push_back(allX[i]);
            top.push_back(yOf(r.max, ymax));
            bottom.push_back(yOf(r.min, ymax));
        }
        const bool any = r.hasMean || r.hasMax || r.hasMin;
        if (any) {
            lx.push_back(allX[i]);
            ly.push_back(yOf(r.hasMean ? r.mean : r.hasMax ? r.max : r.min, ymax));
        }
    }
    if (!bx.empty()) {
        std::string pts;
        for (size_t i = 0; i < bx.size(); ++i) pts += co(bx[i]) + "," + co(top[i]) + " ";
        for (size_t i = bx.size(); i-- > 0;) pts += co(bx[i]) + "," + co(bottom[i]) + " ";
        if (bx.size() == 1) {
            out += "<line class=\"band-line\" x1=\"" + co(bx[0]) + "\" x2=\"" + co(bx[0]) +
                   "\" y1=\"" + co(top[0]) + "\" y2=\"" + co(bottom[0]) + "\"/>";
        } else {
            out += "<polygon class=\"band\" points=\"" + pts + "\"/>";
        }
    }
    return out + polyline(lx, ly, "line") + marks(lx, ly);
}

std::string blobChart(const std::vector<HtmlReport::Row>& rows) {
    double top = 0;
    for (const auto& r : rows) top = std::max(top, r.value);
    const YRange ymax = yRange(0, top);
    std::string out = axes(rows, ymax, true);
    const double slot = kPlotW / static_cast<double>(rows.size());
    const double w = std::max(1.0, slot * 0.8);
    for (size_t i = 0; i < rows.size(); ++i) {
        const double y = yOf(rows[i].value, ymax);
        // Empty windows keep a sliver, so that every window shows.
        const double h = std::max(1.0, kTop + kPlotH - y);
        out += "<rect class=\"mark bar\" x=\"" + co(kLeft + slot * i + (slot - w) / 2) + "\" y=\"" +
               co(kTop + kPlotH - h) + "\" width=\"" + co(w) + "\" height=\"" + co(h) + "\"/>";
    }
    return out;
}

// Light grey-blue for 0 up to dark blue for the largest count.
std::string heat(uint32_t count, uint32_t max) {
    if (count == 0 || max == 0) return "#eef2f7";
    const double f = 0.15 + 0.85 * count / max;
    const int r = static_cast<int>(222 - f * (222 - 8));
    const int g = static_cast<int>(235 - f * (235 - 48));
    const int b = static_cast<int>(247 - f * (247 - 107));
    char buf[16];
    snprintf(buf, sizeof buf, "#%02x%02x%02x", r, g, b);
    return buf;
}

std::string histogramChart(const std::vector<HtmlReport::Row>& rows,
                           const std::vector<std::string>& labels) {
    size_t bins = 0;
    uint32_t max = 0;
    for (const auto& r : rows) {
        bins = std::max(bins, r.bins.size());
        for (const uint32_t c : r.bins) max = std::max(max, c);
    }
    std::string out = axes(rows, YRange(), false);
    if (bins == 0) return out;
    const double cw = kPlotW / static_cast<double>(rows.size());
    const double ch = kPlotH / static_cast<double>(bins);
    for (size_t i = 0; i < rows.size(); ++i) {
        for (size_t k = 0; k < rows[i].bins.size(); ++k) {
            const uint32_t c = rows[i].bins[k];
            out += "<rect class=\"cell\" x=\"" + co(kLeft + cw * i) + "\" y=\"" +
                   co(kTop + kPlotH - ch * (k + 1)) + "\" width=\"" + co(cw) + "\" height=\"" +
                   co(ch) + "\" fill=\"" + heat(c, max) + "\"><title>" +
                   esc(labels.size() == bins ? labels[k] : "bin " + std::to_string(k)) + ": " +
                   std::to_string(c) + "</title></rect>";
        }
    }
    // Bin labels, thinned so that they do not overlap.
    const size_t every = std::max<size_t>(1, static_cast<size_t>(14.0 / ch) + 1);
    for (size_t k = 0; k < bins; k += every) {
        const std::string label = labels.size() == bins ? labels[k] : "bin " + std::to_string(k);
        out += text(kLeft - 6, kTop + kPlotH - ch * (k + 0.5) + 4, label, "end");
    }
    out += text(kLeft + kPlotW, kTop - 2, "darkest = " + std::to_string(max) + " samples", "end",
                "legend");
    return out;
}

std::string tableOf(const std::vector<HtmlReport::Row>& rows, const std::string& kind,
                    const std::vector<std::string>& labels) {
    std::string out = "<table><thead><tr><th>#</th><th>start</th><th>end</th>";
    const bool wall =
            std::any_of(rows.begin(), rows.end(), [](const auto& r) { return r.haveWall; });
    if (wall) out += "<th>wall-clock start</th><th>wall-clock end</th>";
    out += "<th>samples</th>";
    if (kind == "counter") out += "<th>value</th>";
    if (kind == "gauge") out += "<th>min</th><th>max</th><th>mean</th>";
    if (kind == "blob") out += "<th>bytes</th>";
    if (kind == "histogram") out += "<th>bins</th>";
    out += "</tr></thead><tbody>";
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto& r = rows[i];
        out += "<tr><td>" + std::to_string(i) + "</td><td>" + steady(r.tsStart) + "</td><td>" +
               steady(r.tsEnd) + "</td>";
        if (wall) {
            out += "<td>" + (r.haveWall ? isoTime(r.wallStart, 1) : "") + "</td><td>" +
                   (r.haveWall ? isoTime(r.wallEnd, 1) : "") + "</td>";
        }
        out += "<td>" + std::to_string(r.samples) + "</td>";
        if (kind == "counter" || kind == "blob") out += "<td>" + num(r.value) + "</td>";
        if (kind == "gauge") {
            out += "<td>" + (r.hasMin ? num(r.min) : "") + "</td><td>" +
                   (r.hasMax ? num(r.max) : "") + "</td><td>" + (r.hasMean ? num(r.mean) : "") +
                   "</td>";
        }
        if (kind == "histogram") {
            std::string cell;
            for (size_t k = 0; k < r.bins.size(); ++k) {
                const std::string label =
                        labels.size() == r.bins.size() ? labels[k] : "bin " + std::to_string(k);
                cell += (k ? ", " : "") + label + "=" + std::to_string(r.bins[k]);
            }
            out += "<td class=\"bins\">" + esc(cell) + "</td>";
        }
        out += "</tr>";
    }
    return out + "</tbody></table>";
}

const char* kStyle = R"(
body { font: 14px/1.4 sans-serif; margin: 24px; color: #1d2733; background: #fff; }
h1 { font-size: 22px; margin: 0 0 4px; }
h2 { font-size: 17px; margin: 0 0 2px; }
h2 span { font-weight: normal; color: #5b6b7c; font-size: 14px; }
.meta, .help { color: #5b6b7c; margin: 0 0 8px; }
section.kpi { border-top: 1px solid #d5dde6; padding: 14px 0 8px; }
svg.chart { display: block; background: #fff; }
.frame { fill: #fbfcfd; stroke: #b8c4d0; }
.grid { stroke: #e3e8ee; }
.axis { font: 11px sans-serif; fill: #5b6b7c; }
.legend { font: 11px sans-serif; fill: #08306b; }
.line { fill: none; stroke: #1f6fb2; stroke-width: 2; }
.mark { fill: #1f6fb2; }
.bar { fill: #e07b24; }
.band { fill: #9ecae1; fill-opacity: 0.6; stroke: none; }
.band-line { stroke: #9ecae1; stroke-width: 6; }
table { border-collapse: collapse; font-size: 12px; margin-top: 6px; }
th, td { border: 1px solid #d5dde6; padding: 2px 6px; text-align: right; }
td.bins { text-align: left; }
summary { cursor: pointer; color: #1f6fb2; }
)";

}  // namespace

void HtmlReport::add(const std::string& source, const olvan::KPIData& data,
                     const WallClock& clock) {
    auto base = [&](const olvan::MetaData& m) {
        Row r;
        r.tsStart = m.ts_start();
        r.tsEnd = m.ts_end();
        r.samples = m.nof_samples();
        if (clock.known()) {
            r.haveWall = true;
            r.wallStart = clock.unixNanos(m.ts_start());
            r.wallEnd = clock.unixNanos(m.ts_end());
        }
        return r;
    };
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& c : data.counters()) {
        Row r = base(c.meta());
        r.value = static_cast<double>(c.value());
        series[Key{source, c.meta().id(), "counter"}].push_back(r);
    }
    for (const auto& g : data.gauges()) {
        Row r = base(g.meta());
        r.hasMin = g.min_oneof_case() == olvan::Gauge::kMin;
        r.hasMax = g.max_oneof_case() == olvan::Gauge::kMax;
        r.hasMean = g.mean_oneof_case() == olvan::Gauge::kMean;
        r.min = g.min();
        r.max = g.max();
        r.mean = g.mean();
        series[Key{source, g.meta().id(), "gauge"}].push_back(r);
    }
    for (const auto& h : data.histograms()) {
        Row r = base(h.meta());
        r.bins.assign(h.bin_counts().begin(), h.bin_counts().end());
        series[Key{source, h.meta().id(), "histogram"}].push_back(r);
    }
    for (const auto& b : data.blobs()) {
        Row r = base(b.meta());
        r.value = static_cast<double>(b.data().size());
        series[Key{source, b.meta().id(), "blob"}].push_back(r);
    }
}

size_t HtmlReport::chartCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return series.size();
}

std::string HtmlReport::render(const std::string& title, const KPICatalog& catalog,
                               const LTCCampaignDef* campaign) {
    std::lock_guard<std::mutex> lock(mutex);
    std::string body;
    std::string nav;
    size_t windows = 0;
    int n = 0;
    for (auto& [key, rowsIn] : series) {
        const auto& [source, id, kind] = key;
        std::vector<Row> rows = rowsIn;
        std::stable_sort(rows.begin(), rows.end(),
                         [](const Row& a, const Row& b) { return a.tsStart < b.tsStart; });
        windows += rows.size();
        std::vector<std::string> labels;
        if (kind == "histogram") {
            size_t bins = 0;
            for (const auto& r : rows) bins = std::max(bins, r.bins.size());
            labels = catalog.binLabels(id, bins, campaign);
        }
        std::string chart;
        if (kind == "counter") chart = counterChart(rows);
        if (kind == "gauge") chart = gaugeChart(rows);
        if (kind == "histogram") chart = histogramChart(rows, labels);
        if (kind == "blob") chart = blobChart(rows);

        const std::string anchor = "chart-" + std::to_string(++n);
        const zemcatalog::Kpi* named = catalog.find(id);
        const std::string name = named ? named->name() : "KPI " + std::to_string(id);
        std::string sub = "id " + std::to_string(id) + ", " + kind;
        if (!source.empty()) sub += ", " + source;
        nav += "<li><a href=\"#" + anchor + "\">" + esc(name) + "</a> " + esc(sub) + "</li>";
        body += "<section class=\"kpi\" id=\"" + anchor + "\" data-source=\"" + esc(source) +
                "\" data-kpi=\"" + std::to_string(id) + "\" data-kind=\"" + kind +
                "\" data-windows=\"" + std::to_string(rows.size()) + "\">";
        body += "<h2>" + esc(name) + " <span>(" + esc(sub) + ")</span></h2>";
        std::string help = named ? named->help() : "";
        if (named && !named->unit().empty())
            help += (help.empty() ? "" : " ") + std::string("[") + named->unit() + "]";
        const char* what = kind == "counter" ? "value per window"
                           : kind == "gauge" ? "min-max band and mean per window"
                           : kind == "blob"  ? "bytes per window"
                                             : "bin counts per window (columns in time order)";
        body += "<p class=\"help\">" + esc(help) + (help.empty() ? "" : " &middot; ") + what +
                "</p>";
        body += "<svg class=\"chart\" xmlns=\"http://www.w3.org/2000/svg\" width=\"" + co(kWidth) +
                "\" height=\"" + co(kHeight) + "\" viewBox=\"0 0 " + co(kWidth) + " " +
                co(kHeight) + "\" role=\"img\" aria-label=\"" + esc(name) + "\">" + chart +
                "</svg>";
        body += "<details><summary>" + std::to_string(rows.size()) + " windows</summary>" +
                tableOf(rows, kind, labels) + "</details></section>\n";
    }
    std::string page =
            "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
            "<title>" +
            esc(title) + "</title><style>" + kStyle + "</style></head><body>\n<h1>" + esc(title) +
            "</h1>";
    page += "<p class=\"meta\">" + std::to_string(series.size()) + " charts, " +
            std::to_string(windows) + " windows; written " +
            isoTime(std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count(),
                    0) +
            "</p>";
    if (series.empty()) page += "<p>No windows.</p>";
    page += "<ul class=\"nav\">" + nav + "</ul>\n" + body + "</body></html>\n";
    return page;
}

bool HtmlReport::write(const std::string& path, const std::string& title, const KPICatalog& catalog,
                       const LTCCampaignDef* campaign, std::string* error) {
    const std::string page = render(title, catalog, campaign);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (out) out.write(page.data(), static_cast<std::streamsize>(page.size()));
    out.close();
    if (!out) {
        *error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

}  // namespace zemtools
