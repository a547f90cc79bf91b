// Decoding and printing of cache files, shared by zemd and zemdump.
//
// A cache file is a concatenation of serialized olvan::KPIData records and
// parses as one KPIData holding every window. These helpers turn such a
// message into one line per window, readable or as a flat JSON object, and
// build the JSON lines both tools print. Plain functions; no shared state.
//
//   olvan::KPIData data;
//   if (decodeCacheBytes(bytes, &data))
//       for (const auto& line : formatWindows(data, /*json=*/false, "")) puts(line.c_str());
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kpi.pb.h"
#include "metric.pb.h"

namespace zemtools {

class KPICatalog;
class WallClock;

// What a tool knows beyond the records; each part may be null.
struct WindowContext {
    const KPICatalog* catalog = nullptr;       // names, units, bin labels
    const LTCCampaignDef* campaign = nullptr;  // histogram bounds for bin labels
    const WallClock* clock = nullptr;          // wall-clock times beside steady ones
};

// Parses `bytes` as one merged KPIData. False when they are not one.
bool decodeCacheBytes(const std::string& bytes, olvan::KPIData* data);

// Number of windows (counters, gauges, histograms and blobs) in `data`.
size_t windowCount(const olvan::KPIData& data);

// One line per window, ordered by window start and then id. Readable lines
// show id, kind, window span (steady-clock seconds), sample count and the
// window's value(s); with `json` each line is a flat JSON object that starts
// with the fields in `jsonPrefix` (for example "\"file\":\"x\"," or empty).
std::vector<std::string> formatWindows(const olvan::KPIData& data, bool json,
                                       const std::string& jsonPrefix);
// The same with names from the catalog in place of ids ("name", "unit" in
// JSON), bins labelled by the catalog or the campaign's bounds (readable
// "label=count"; JSON "bin_labels") and ISO 8601 wall-clock times beside the
// steady-clock ones (JSON "wall_start", "wall_end") where `context` allows.
std::vector<std::string> formatWindows(const olvan::KPIData& data, bool json,
                                       const std::string& jsonPrefix, const WindowContext& context);

// Receives printed lines one at a time.
using LineSink = std::function<void(const std::string&)>;

// A cache file decoded window by window, so that memory stays proportional
// to the file whatever its windows look like: the index holds 16 bytes per
// window (a window takes at least 2 bytes of the file), and each window is
// parsed again only while its line is printed. The decoded windows and lines
// are exactly those of decodeCacheBytes and formatWindows.
//
//   CacheFileIndex index;
//   if (index.decode(bytes)) index.forEachLine(false, "", [](const std::string& l) {
//   puts(l.c_str()); });
class CacheFileIndex {
  public:
    // False when `bytes` are not one KPIData (or exceed 4 GiB). `bytes` must
    // stay alive and unchanged while the index is used.
    bool decode(const std::string& bytes);
    size_t windowCount() const { return entries.size(); }
    // The version field as a merged parse sees it (the last one wins).
    int version() const { return lastVersion; }
    // formatWindows' lines, in its order (window start, then id).
    void forEachLine(bool json, const std::string& jsonPrefix, const LineSink& line,
                     const WindowContext& context = WindowContext());
    // Each window as a KPIData of its own, in file order.
    void forEachWindow(const std::function<void(const olvan::KPIData&)>& window);

  private:
    struct Entry {
        uint64_t tsStart;
        uint32_t id;
        uint32_t pos;  // offset of the window's field in the file
    };
    // Parses the window whose field starts at `pos` into `out`.
    void windowAt(uint32_t pos, olvan::KPIData* out) const;
    int kindAt(uint32_t pos) const;

    const std::string* file = nullptr;
    std::vector<Entry> entries;
    int lastVersion = 0;
};

// A JSON number, or null for NaN and the infinities, which JSON cannot carry.
std::string jsonNumber(double value);

// `text` as a JSON string literal, quotes included.
std::string jsonString(const std::string& text);

// Builds one flat JSON object, field by field, in insertion order.
class JsonObject {
  public:
    JsonObject& add(const std::string& key, const std::string& value);
    JsonObject& add(const std::string& key, const char* value);
    JsonObject& add(const std::string& key, int64_t value);
    JsonObject& add(const std::string& key, uint64_t value);
    JsonObject& add(const std::string& key, int value) { return add(key, int64_t{value}); }
    JsonObject& add(const std::string& key, unsigned value) { return add(key, uint64_t{value}); }
    // NaN and the infinities are written as null.
    JsonObject& add(const std::string& key, double value);
    JsonObject& add(const std::string& key, bool value);
    // `json` is inserted as it stands (an array, say).
    JsonObject& addRaw(const std::string& key, const std::string& json);
    // The fields so far, comma-separated, without braces.
    const std::string& fields() const { return body; }
    std::string str() const { return "{" + body + "}"; }

  private:
    void key(const std::string& k);
    std::string body;
};

}  // namespace zemtools
