#include "tools/KPIDataFormat.h"

#include <google/protobuf/wire_format_lite.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>
#include <tuple>

#include "serializer/CacheFileField.h"
#include "tools/JsonCheck.h"
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

namespace {

using google::protobuf::internal::WireFormatLite;

// The window fields of KPIData (counters, gauges, histograms, blobs) are
// numbers 2 to 5, in formatWindows' order of kinds.
constexpr int kCounters = 2, kBlobs = 5;

// The top-level field that starts at `pos`: its tag and where it ends. False
// when the bytes there do not have a field's shape.
bool fieldAt(const std::string& bytes, size_t pos, uint32_t* tag, size_t* end) {
    const size_t len = zem::cacheFileField(bytes.data() + pos, bytes.size() - pos, tag);
    *end = pos + len;
    return len != 0;
}

bool isWindowField(uint32_t tag) {
    const int field = static_cast<int>(WireFormatLite::GetTagFieldNumber(tag));
    return field >= kCounters && field <= kBlobs &&
           WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_LENGTH_DELIMITED;
}

}  // namespace

// A merged parse reads the file field by field, carrying nothing from one
// top-level field to the next, so the file parses exactly when each of its
// top-level fields parses on its own as a KPIData. Each field is handed to
// the protobuf parser alone: validity is the parser's own, edge cases
// included, and only one window is ever decoded at a time.
bool CacheFileIndex::decode(const std::string& bytes) {
    file = &bytes;
    std::vector<Entry>().swap(entries);
    lastVersion = 0;
    // Offsets are 32-bit and the parser's sizes are ints.
    if (bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return false;
    // A first walk counts the windows, so that the index is allocated once
    // at its final size instead of growing by copies.
    size_t windows = 0;
    uint32_t tag;
    for (size_t pos = 0, end; pos < bytes.size(); pos = end) {
        if (!fieldAt(bytes, pos, &tag, &end)) return false;
        windows += isWindowField(tag);
    }
    entries.reserve(windows);

    olvan::KPIData one;
    for (size_t pos = 0, end = 0; pos < bytes.size(); pos = end) {
        fieldAt(bytes, pos, &tag, &end);
        if (!one.ParseFromArray(bytes.data() + pos, static_cast<int>(end - pos))) return false;
        const olvan::MetaData* meta = nullptr;
        if (one.counters_size() == 1) meta = &one.counters(0).meta();
        if (one.gauges_size() == 1) meta = &one.gauges(0).meta();
        if (one.histograms_size() == 1) meta = &one.histograms(0).meta();
        if (one.blobs_size() == 1) meta = &one.blobs(0).meta();
        if (meta != nullptr) {
            entries.push_back(Entry{meta->ts_start(), meta->id(), static_cast<uint32_t>(pos)});
        } else if (WireFormatLite::GetTagFieldNumber(tag) == 1 &&
                   WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_VARINT) {
            lastVersion = static_cast<int>(one.version());
        }
    }
    return true;
}

int CacheFileIndex::kindAt(uint32_t pos) const {
    uint32_t tag = 0;
    size_t end;
    fieldAt(*file, pos, &tag, &end);
    return static_cast<int>(WireFormatLite::GetTagFieldNumber(tag));
}

void CacheFileIndex::windowAt(uint32_t pos, olvan::KPIData* out) const {
    uint32_t tag;
    size_t end = pos;
    fieldAt(*file, pos, &tag, &end);
    out->ParseFromArray(file->data() + pos, static_cast<int>(end - pos));
}

void CacheFileIndex::forEachLine(bool json, const std::string& jsonPrefix, const LineSink& line,
                                 const WindowContext& context) {
    // formatWindows groups windows by kind, then sorts stably by start and
    // id: among equal keys, kind order first and file order within a kind.
    std::sort(entries.begin(), entries.end(), [this](const Entry& a, const Entry& b) {
        if (a.tsStart != b.tsStart) return a.tsStart < b.tsStart;
        if (a.id != b.id) return a.id < b.id;
        const int ka = kindAt(a.pos), kb = kindAt(b.pos);
        if (ka != kb) return ka < kb;
        return a.pos < b.pos;
    });
    olvan::KPIData one;
    for (const Entry& e : entries) {
        one.Clear();
        windowAt(e.pos, &one);
        for (const std::string& l : formatWindows(one, json, jsonPrefix, context)) line(l);
    }
}

void CacheFileIndex::forEachWindow(const std::function<void(const olvan::KPIData&)>& window) {
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.pos < b.pos; });
    olvan::KPIData one;
    for (const Entry& e : entries) {
        one.Clear();
        windowAt(e.pos, &one);
        window(one);
    }
}

std::string jsonString(const std::string& text) {
    // Bytes that are not UTF-8 (a client name or a file name can hold any)
    // are written as the code points of the same value, so the result is
    // always valid JSON text.
    std::string out = "\"";
    for (size_t i = 0; i < text.size(); ++i) {
        const char ch = text[i];
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c >= 0x80) {
            const size_t n = utf8SequenceLength(text, i);
            if (n == 0) {
                char buf[8];
                snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out.append(text, i, n);
                i += n - 1;
            }
            continue;
        }
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

std::string jsonNumber(double value) {
    return std::isfinite(value) ? number(value) : "null";
}

JsonObject& JsonObject::add(const std::string& k, double value) {
    key(k);
    body += jsonNumber(value);
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
