// CacheFileParts: reads a cache file for delivery, in parts that each fit in
// one call to the daemon, for both transports.
//
// A cache file is a plain concatenation of serialized olvan::KPIData
// records, that is a sequence of top-level KPIData fields, so the places
// where it may be cut are found by stepping over fields (tag, then the
// field's length or fixed size) without decoding any record. Each part is a
// cache file image of its own: the version record followed by whole fields,
// so the daemon reads every part as it reads a file, and the parts together
// merge into exactly what the file holds. The file is read as the parts are
// taken, so a large file never sits in memory whole.
//
// One object per delivery, used by one thread. deliverInParts is the whole
// delivery both transports make: read, send part by part, remove.
#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <string>

namespace zem {
namespace internal {

class CacheFileParts {
  public:
    // Reads from `in`, which must outlive this object.
    CacheFileParts(std::istream& in, size_t maxPartBytes);

    // Puts the next part into *part; false once the file is done. A file of
    // at most `maxPartBytes` bytes is one part, unchanged (an empty or
    // unreadable one gives one empty part). Otherwise every part starts with
    // the version record (unless its first field is one) and holds as many
    // whole fields as fit; a field too large for a part travels alone after
    // the version record, in a part larger than `maxPartBytes`. Bytes at the
    // end that do not read as a field (a record cut short by a killed
    // process) travel as they are, as the last field.
    bool next(std::string* part);

  private:
    // Reads until `pending` holds at least `want` bytes or the file ends.
    void fill(size_t want);

    std::istream& in;
    const size_t maxPartBytes;
    std::string pending;  // read, not yet in a part
    bool atEnd = false;
    bool first = true;
};

// Reads the cache file at `path` for delivery (zem::readForDelivery: a missing
// file is sent empty) and hands it to `sendPart` in CacheFileParts of at most
// `maxPartBytes`, in order, stopping at the first part it refuses (returns
// false for). Once every part has gone, the file is removed. Returns whether
// it was; a file that may not be sent, or whose delivery failed, stays whole.
bool deliverInParts(const std::string& path, size_t maxPartBytes,
                    const std::function<bool(std::string& part)>& sendPart);

}  // namespace internal
}  // namespace zem
