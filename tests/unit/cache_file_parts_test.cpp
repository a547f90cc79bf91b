// Cutting cache files into parts for delivery: where the cuts fall, what
// each part holds, and that the parts together give back the file.
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "metric.pb.h"
#include "transport/CacheFileParts.h"

using zem::internal::CacheFileParts;

namespace {

const std::string kVersionRecord("\x08\x01", 2);

std::string counter(uint32_t id, uint64_t value) {
    olvan::KPIData data;
    olvan::Counter* c = data.add_counters();
    c->mutable_meta()->set_id(id);
    c->mutable_meta()->set_ts_start(static_cast<int64_t>(value));
    c->set_value(value);
    return data.SerializeAsString();
}

std::string blob(size_t size) {
    olvan::KPIData data;
    olvan::Blob* b = data.add_blobs();
    b->mutable_meta()->set_id(9);
    b->set_data(std::string(size, 'b'));
    return data.SerializeAsString();
}

std::vector<std::string> cut(const std::string& image, size_t maxPart) {
    std::istringstream in(image);
    CacheFileParts parts(in, maxPart);
    std::vector<std::string> out;
    std::string part;
    while (parts.next(&part)) out.push_back(part);
    return out;
}

}  // namespace

TEST(CacheFilePartsTest, PartsAreWholeImagesThatMergeIntoTheFile) {
    // The version record first, as the serializer writes it, then windows of
    // several sizes, a version record in the middle (a file reopened after a
    // rollover), and one window larger than any part.
    std::string image = kVersionRecord;
    for (uint32_t i = 0; i < 3000; ++i) image += counter(1 + i % 3, 1000000ull * i);
    image += kVersionRecord;
    image += blob(5000);
    for (uint32_t i = 0; i < 500; ++i) image += counter(7, i);

    struct Case {
        size_t maxPart;
    } cases[] = {{1024}, {4096}, {image.size() - 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE("part size " + std::to_string(c.maxPart));
        const std::vector<std::string> parts = cut(image, c.maxPart);
        ASSERT_GE(parts.size(), 2u);
        // The first part is the file's own beginning; later ones gain a
        // version record; removing those gives back the file byte for byte.
        std::string joined;
        olvan::KPIData merged;
        for (size_t i = 0; i < parts.size(); ++i) {
            const std::string& p = parts[i];
            ASSERT_EQ(0u, p.compare(0, 2, kVersionRecord)) << "part " << i;
            const bool oversized = p.find(std::string(5000, 'b')) != std::string::npos;
            if (!oversized) {
                EXPECT_LE(p.size(), c.maxPart) << "part " << i;
            }
            olvan::KPIData one;
            ASSERT_TRUE(one.ParseFromString(p)) << "part " << i << " is a cache file image";
            EXPECT_EQ(olvan::V1, one.version());
            merged.MergeFrom(one);
            joined += i == 0 ? p : p.substr(2);
        }
        olvan::KPIData whole;
        ASSERT_TRUE(whole.ParseFromString(image));
        EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(whole, merged));
        // Only the version record that opened the middle of the file may be
        // the one a part starts with; otherwise the joined bytes are the file.
        if (joined != image) {
            std::string withoutMiddle = image;
            withoutMiddle.erase(withoutMiddle.find(kVersionRecord + blob(5000)), 2);
            EXPECT_EQ(withoutMiddle, joined);
        }
    }
}

TEST(CacheFilePartsTest, SmallEmptyAndDamagedFiles) {
    // A file that fits is one part, unchanged, even when it does not parse.
    const std::string small = kVersionRecord + counter(1, 1) + "\xff";
    EXPECT_EQ(std::vector<std::string>{small}, cut(small, small.size()));
    // An empty (or unreadable) file is one empty part, as one empty call.
    EXPECT_EQ(std::vector<std::string>{""}, cut("", 100));
    std::ifstream missing("/nonexistent/kpidata.1", std::ios::binary);
    CacheFileParts none(missing, 100);
    std::string part = "x";
    EXPECT_TRUE(none.next(&part));
    EXPECT_EQ("", part);
    EXPECT_FALSE(none.next(&part));

    // A record cut short by a killed process goes last, as it is.
    std::string image = kVersionRecord;
    for (uint32_t i = 0; i < 200; ++i) image += counter(1, i);
    const std::string cutShort = counter(2, 99).substr(0, 4);
    const std::vector<std::string> parts = cut(image + cutShort, 512);
    ASSERT_GE(parts.size(), 2u);
    EXPECT_EQ(cutShort, parts.back().substr(parts.back().size() - cutShort.size()));
    std::string joined = parts[0];
    for (size_t i = 1; i < parts.size(); ++i) joined += parts[i].substr(2);
    EXPECT_EQ(image + cutShort, joined);
}
