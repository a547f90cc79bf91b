#include "tools/KPIDataFormat.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <tuple>

#include "tools/KPICatalog.h"
#include "tools/WallClock.h"

namespace zemtools {

namespace {

// Window times are steady-clock tenths of a second.
std::string seconds(uint64_t tenths) {
    char buf[32];
    snprintf(buf, sizeof buf, "%" PRIu64 ".%" PRIu64, tenths / 10, tenths % 10);
    return buf;
}

std::string number(double v) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

// A short printable rendering of blob bytes for the readable form.
std::string preview(const std::string& bytes) {
    const size_t kMax = 40;
    std::string out;
    for (size_t i = 0; i < bytes.size() && i < kMax; ++i) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        }
    }
    if (bytes.size() > kMax) out += "...";
    return out;
}

struct Window {
    const olvan::MetaData* meta;
    const char* kind;
    std::string text;      // kind-specific part of the readable line
    JsonObject jsonExtra;  // kind-specific JSON fields
};

std::string readable(const Window& w, const WindowContext& ctx) {
    const olvan::MetaData& m = *w.meta;
    const zemcatalog::Kpi* named = ctx.catalog ? ctx.catalog->find(m.id()) : nullptr;
    const std::string who = named ? named->name() : "id=" + std::to_string(m.id());
    std::string span = seconds(m.ts_start()) + "s.." + seconds(m.ts_end()) + "s";
    if (ctx.clock && ctx.clock->known()) {
        span += " (" + ctx.clock->iso(m.ts_start()) + ".." + ctx.clock->iso(m.ts_end()) + ")";
    }
    char head[256];
    snprintf(head, sizeof head, "%-8s %-9s t=%s n=%-5" PRIu64 " ", who.c_str(), w.kind,
             span.c_str(), m.nof_samples());
    std::string line = head + w.text;
    if (named && !named->unit().empty() && std::string(w.kind) != "blob") {
        line += " [" + named->unit() + "]";
    }
    return line;
}

std::string asJson(const Window& w, const std::string& prefix, const WindowContext& ctx) {
    const olvan::MetaData& m = *w.meta;
    JsonObject o;
    o.add("id", uint64_t{m.id()});
    if (const zemcatalog::Kpi* named = ctx.catalog ? ctx.catalog->find(m.id()) : nullptr) {
        o.add("name", named->name()).add("unit", named->unit());
    }
    o.add("kind", w.kind)
            .add("ts_start", uint64_t{m.ts_start()})
            .add("ts_end", uint64_t{m.ts_end()})
            .add("samples", uint64_t{m.nof_samples()});
    if (ctx.clock && ctx.clock->known()) {
        o.add("wall_start", ctx.clock->iso(m.ts_start()))
                .add("wall_end", ctx.clock->iso(m.ts_end()));
    }
    std::string body = prefix + o.fields();
    if (!w.jsonExtra.fields().empty()) body += "," + w.jsonExtra.fields();
    return "{" + body + "}";
}

}  // namespace

bool decodeCacheBytes(const std::string& bytes, olvan::KPIData* data) {
    return data->ParseFromString(bytes);
}

size_t windowCount(const olvan::KPIData& data) {
    return static_cast<size_t>(data.counters_size() + data.gauges_size() + data.histograms_size() +
                               data.blobs_size());
}

std::vector<std::string> formatWindows(const olvan::KPIData& data, bool json,
                                       const std::string& jsonPrefix) {
    return formatWindows(data, json, jsonPrefix, WindowContext());
}

std::vector<std::string> formatWindows(const olvan::KPIData& data, bool json,
                                       const std::string& jsonPrefix,
                                       const WindowContext& context) {
    static const KPICatalog kNoNames;
    const KPICatalog& names = context.catalog ? *context.catalog : kNoNames;
    std::vector<Window> windows;
    windows.reserve(windowCount(data));

    for (const auto& c : data.counters()) {
        Window w{&c.meta(), "counter", "value=" + std::to_string(c.value()), {}};
        w.jsonExtra.add("value", uint64_t{c.value()});
        windows.push_back(std::move(w));
    }
    for (const auto& g : data.gauges()) {
        Window w{&g.meta(), "gauge", "", {}};
        auto stat = [&w](const char* name, const std::string& value) {
            if (!w.text.empty()) w.text += " ";
            w.text += std::string(name) + "=" + value;
        };
        if (g.min_oneof_case() == olvan::Gauge::kMin) {
            stat("min", std::to_string(g.min()));
            w.jsonExtra.add("min", uint64_t{g.min()});
        }
        if (g.max_oneof_case() == olvan::Gauge::kMax) {
            stat("max", std::to_string(g.max()));
            w.jsonExtra.add("max", uint64_t{g.max()});
        }
        if (g.mean_oneof_case() == olvan::Gauge::kMean) {
            stat("mean", number(g.mean()));
            w.jsonExtra.add("mean", static_cast<double>(g.mean()));
        }
        if (w.text.empty()) w.text = "(no statistics requested)";
        windows.push_back(std::move(w));
    }
    for (const auto& h : data.histograms()) {
        Window w{&h.meta(), "histogram", "bins=[", {}};
        const std::vector<std::string> labels = names.binLabels(
                h.meta().id(), static_cast<size_t>(h.bin_counts_size()), context.campaign);
        std::string arr = "[", labelArr = "[";
        for (int i = 0; i < h.bin_counts_size(); ++i) {
            const std::string n = std::to_string(h.bin_counts(i));
            if (labels.empty()) {
                w.text += (i ? " " : "") + n;
            } else {
                w.text += (i ? ", " : "") + labels[static_cast<size_t>(i)] + "=" + n;
                labelArr += (i ? "," : "") + jsonString(labels[static_cast<size_t>(i)]);
            }
            arr += (i ? "," : "") + n;
        }
        w.text += "]";
        w.jsonExtra.addRaw("bins", arr + "]");
        if (!labels.empty()) w.jsonExtra.addRaw("bin_labels", labelArr + "]");
        windows.push_back(std::move(w));
    }
    for (const auto& b : data.blobs()) {
        Window w{&b.meta(),
                 "blob",
                 "bytes=" + std::to_string(b.data().size()) + " \"" + preview(b.data()) + "\"",
                 {}};
        w.jsonExtra.add("bytes", uint64_t{b.data().size()});
        windows.push_back(std::move(w));
    }

    std::stable_sort(windows.begin(), windows.end(), [](const Window& a, const Window& b) {
        return std::make_tuple(a.meta->ts_start(), a.meta->id()) <
               std::make_tuple(b.meta->ts_start(), b.meta->id());
    });

    std::vector<std::string> lines;
    lines.reserve(windows.size());
    for (const Window& w : windows) {
        lines.push_back(json ? asJson(w, jsonPrefix, context) : readable(w, context));
    }
    return lines;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += ch;
                }
        }
    }
    return out + "\"";
}

void JsonObject::key(const std::string& k) {
    if (!body.empty()) body += ",";
    body += jsonString(k) + ":";
}

JsonObject& JsonObject::add(const std::string& k, const std::string& value) {
    key(k);
    body += jsonString(value);
    return *this;
}

JsonObject& JsonObject::add(const std::string& k, const char* value) {
    return add(k, std::string(value));
}

JsonObject& JsonObject::add(const std::string& k, int64_t value) {
    key(k);
    body += std::to_string(value);
    return *this;
}

JsonObject& JsonObject::add(const std::string& k, uint64_t value) {
    key(k);
    body += std::to_string(value);
    return *this;
}

JsonObject& JsonObject::add(const std::string& k, double value) {
    key(k);
    body += number(value);
    return *this;
}

JsonObject& JsonObject::add(const std::string& k, bool value) {
    key(k);
    body += value ? "true" : "false";
    return *this;
}

JsonObject& JsonObject::addRaw(const std::string& k, const std::string& json) {
    key(k);
    body += json;
    return *this;
}

}  // namespace zemtools
