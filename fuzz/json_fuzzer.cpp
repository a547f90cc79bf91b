// Arbitrary bytes into the tools' JSON output: every line that zemdump --json
// and zemdump --summary --json (and zemd --json) would print for them must be
// valid JSON, whatever the windows hold (NaN or infinite gauge means) and
// whatever bytes a file or client name carries.
//
// Input: a cache file's bytes; the same bytes also serve as the file name in
// each window's "file" field, and their first eight as a double.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "tools/JsonCheck.h"
#include "tools/KPIDataFormat.h"
#include "tools/KPISummary.h"

namespace {

void check(const std::string& json) {
    if (!zemtools::isValidJson(json)) __builtin_trap();
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
        check(zemtools::JsonObject().add("v", d).add("name", bytes).str());
    }

    zemtools::CacheFileIndex index;
    if (!index.decode(bytes)) return 0;
    const std::string prefix = "\"file\":" + zemtools::jsonString(bytes) + ",";
    index.forEachLine(true, prefix, check);
    zemtools::KPISummary summary;
    index.forEachWindow([&summary](const olvan::KPIData& one) { summary.add(one); });
    for (const std::string& line : zemtools::formatSummary(summary.rows(), true)) check(line);
    // The readable forms draw charts from the same values (NaN included).
    zemtools::formatSummary(summary.rows(), false);
    return 0;
}
