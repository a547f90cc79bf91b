// Arbitrary file bytes into the cache-file decoder that zemdump and zemd
// share: decode, count, and print every window both readable and as JSON.
//
// Input: the file's bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "tools/KPIDataFormat.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zem_fuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    olvan::KPIData decoded;
    if (!zemtools::decodeCacheBytes(bytes, &decoded)) return 0;
    size_t lines = zemtools::windowCount(decoded);
    lines += zemtools::formatWindows(decoded, false, "").size();
    lines += zemtools::formatWindows(decoded, true, "\"file\":" + zemtools::jsonString(bytes) + ",")
                     .size();
    // Every window gives exactly one line in each form.
    if (lines != 3 * zemtools::windowCount(decoded)) __builtin_trap();
    return 0;
}
