// Arbitrary file bytes into the cache-file decoder that zemdump and zemd
// share: decode, count, and print every window both readable and as JSON,
// and check that the window-by-window decoder says the same.
//
// Input: the file's bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "tools/KPIDataFormat.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zem_fuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    olvan::KPIData decoded;
    if (!zemtools::decodeCacheBytes(bytes, &decoded)) {
        // Bytes the merged parse refuses are refused window by window too.
        zemtools::CacheFileIndex index;
        if (index.decode(bytes)) __builtin_trap();
        return 0;
    }
    size_t lines = zemtools::windowCount(decoded);
    lines += zemtools::formatWindows(decoded, false, "").size();
    lines += zemtools::formatWindows(decoded, true, "\"file\":" + zemtools::jsonString(bytes) + ",")
                     .size();
    // Every window gives exactly one line in each form.
    if (lines != 3 * zemtools::windowCount(decoded)) __builtin_trap();

    // The window-by-window decoder that zemd and zemdump use agrees with the
    // merged parse, line for line.
    zemtools::CacheFileIndex index;
    if (!index.decode(bytes)) __builtin_trap();
    if (index.windowCount() != zemtools::windowCount(decoded)) __builtin_trap();
    if (index.version() != static_cast<int>(decoded.version())) __builtin_trap();
    const std::vector<std::string> expected = zemtools::formatWindows(decoded, true, "");
    size_t n = 0;
    index.forEachLine(true, "", [&](const std::string& line) {
        if (n >= expected.size() || line != expected[n]) __builtin_trap();
        ++n;
    });
    if (n != expected.size()) __builtin_trap();
    return 0;
}
