// The top-level fields of a cache file, for code that walks one without
// decoding its records.
//
// A cache file is a plain concatenation of serialized olvan::KPIData
// records, that is a sequence of top-level KPIData fields (the version
// record, then one window per field). Stepping from field to field takes
// only each field's tag and its length or fixed size. A plain function; any
// thread.
//
//   uint32_t tag;
//   for (size_t pos = 0, len; pos < bytes.size(); pos += len)
//       if ((len = zem::cacheFileField(bytes.data() + pos, bytes.size() - pos, &tag)) == 0) break;
#pragma once

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>
#include <cstddef>
#include <cstdint>

namespace zem {

// The length of the whole field at the start of `bytes`, with its tag in
// `*tag` when given; 0 when the bytes there do not have a field's shape (malformed, or
// cut short). The shape is read leniently: whether the field's content is
// valid is for the protobuf parser to say.
inline size_t cacheFileField(const char* bytes, size_t size, uint32_t* tag = nullptr) {
    const int n = size > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(size);
    google::protobuf::io::CodedInputStream in(reinterpret_cast<const uint8_t*>(bytes), n);
    const uint32_t t = in.ReadTag();
    if (tag != nullptr) *tag = t;
    if (t == 0 || !google::protobuf::internal::WireFormatLite::SkipField(&in, t)) return 0;
    return static_cast<size_t>(in.CurrentPosition());
}

}  // namespace zem
