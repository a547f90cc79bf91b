// Arbitrary file bytes into the cache-file decoders that zemdump and zemd
// share, and into the tools' JSON output. Both decoders, the merged parse and
// the window-by-window index, must agree on whether the bytes decode and,
// line for line, on what every window prints; each window prints exactly one
// line in each form; and every line zemdump --json, zemdump --summary --json
// and zemd --json would print is valid JSON, whatever the windows hold (NaN
// or infinite gauge means) and whatever bytes a file name carries.
//
// Input: a cache file's bytes; the same bytes also serve as the file name in
// each window's "file" field, and their first eight as a double.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "tools/JsonCheck.h"
#include "tools/KPIDataFormat.h"
#include "tools/KPISummary.h"

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zem_fuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    if (size >= sizeof(double)) {
        double d;
        memcpy(&d, data, sizeof d);
        check(zemtools::isValidJson(zemtools::JsonObject().add("v", d).add("name", bytes).str()));
    }

    olvan::KPIData decoded;
    zemtools::CacheFileIndex index;
    const bool merged = zemtools::decodeCacheBytes(bytes, &decoded);
    check(index.decode(bytes) == merged);
    if (!merged) return 0;
    const size_t windows = zemtools::windowCount(decoded);
    check(index.windowCount() == windows);
    check(index.version() == static_cast<int>(decoded.version()));
    check(zemtools::formatWindows(decoded, false, "").size() == windows);
    const std::string prefix = "\"file\":" + zemtools::jsonString(bytes) + ",";
    const std::vector<std::string> expected = zemtools::formatWindows(decoded, true, prefix);
    check(expected.size() == windows);
    size_t n = 0;
    index.forEachLine(true, prefix, [&](const std::string& line) {
        check(n < expected.size() && line == expected[n] && zemtools::isValidJson(line));
        ++n;
    });
    check(n == windows);

    zemtools::KPISummary summary;
    index.forEachWindow([&summary](const olvan::KPIData& one) { summary.add(one); });
    for (const std::string& line : zemtools::formatSummary(summary.rows(), true)) {
        check(zemtools::isValidJson(line));
    }
    // The readable forms draw charts from the same values (NaN included).
    zemtools::formatSummary(summary.rows(), false);
    return 0;
}
