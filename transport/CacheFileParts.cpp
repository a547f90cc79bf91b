#include "transport/CacheFileParts.h"

#include <cstdio>
#include <sstream>
#include <utility>

#include "serializer/CacheFile.h"
#include "serializer/CacheFileField.h"

namespace zem {
namespace internal {

namespace {

// A KPIData holding only version = V1.
const std::string kVersionRecord("\x08\x01", 2);

}  // namespace

CacheFileParts::CacheFileParts(std::istream& in, size_t maxPartBytes)
    : in(in), maxPartBytes(maxPartBytes) {}

void CacheFileParts::fill(size_t want) {
    while (!atEnd && pending.size() < want) {
        const size_t have = pending.size();
        pending.resize(want);
        in.read(&pending[have], static_cast<std::streamsize>(want - have));
        pending.resize(have + static_cast<size_t>(in.gcount()));
        if (!in) atEnd = true;
    }
}

bool CacheFileParts::next(std::string* part) {
    part->clear();
    fill(maxPartBytes + 1);
    if (first) {
        first = false;
        if (atEnd && pending.size() <= maxPartBytes) {
            part->swap(pending);
            return true;
        }
    }
    if (pending.empty()) return false;

    size_t used = 0;
    while (used < pending.size()) {
        size_t len = cacheFileField(pending.data() + used, pending.size() - used);
        // A field running past what has been read: read on when the part
        // has no record yet (a field larger than a part); otherwise it opens
        // the next part.
        while (len == 0 && !atEnd && part->size() <= kVersionRecord.size()) {
            fill(pending.size() + maxPartBytes);
            len = cacheFileField(pending.data() + used, pending.size() - used);
        }
        if (len == 0) {
            if (!atEnd) break;
            len = pending.size() - used;  // the tail that is no field
        }
        if (part->size() > kVersionRecord.size() && part->size() + len > maxPartBytes) break;
        const bool isVersion =
                len == kVersionRecord.size() && pending.compare(used, len, kVersionRecord) == 0;
        if (part->empty() && !isVersion) *part = kVersionRecord;
        part->append(pending, used, len);
        used += len;
    }
    pending.erase(0, used);
    return true;
}

bool deliverInParts(const std::string& path, size_t maxPartBytes,
                    const std::function<bool(std::string& part)>& sendPart) {
    std::string content;
    if (!readForDelivery(path, &content)) return false;
    std::istringstream in(std::move(content));
    CacheFileParts parts(in, maxPartBytes);
    std::string part;
    while (parts.next(&part)) {
        // A failure keeps the file whole; parts already sent come again with it.
        if (!sendPart(part)) return false;
    }
    // The transport succeeded: the daemon holds the bytes, whatever it answered.
    remove(path.c_str());
    return true;
}

}  // namespace internal
}  // namespace zem
