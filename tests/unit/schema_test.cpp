// Wire encodings of the campaign and data-record schemas that the daemon and
// the cache-file format depend on byte for byte: field numbers, types, the
// enumeration values and which fields carry presence.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <memory>

#include "kpi.pb.h"
#include "metric.pb.h"

namespace {

std::string bytes(std::initializer_list<int> b) {
    std::string s;
    for (int c : b) s.push_back(static_cast<char>(c));
    return s;
}

TEST(SchemaTest, EncodingsTheDaemonAndTheCacheFilesDependOn) {
    struct Case {
        const google::protobuf::Message& type;
        const char* text;
        std::string wire;
    };
    const Case cases[] = {
            {olvan::KPIData::default_instance(), "version: V1", bytes({0x08, 0x01})},
            // An empty meta is present; a zero value is not.
            {olvan::KPIData::default_instance(), "counters { meta {} value: 0 }",
             bytes({0x12, 0x02, 0x0A, 0x00})},
            // A requested gauge minimum of 0 is on the wire.
            {olvan::Gauge::default_instance(), "min: 0", bytes({0x10, 0x00})},
            {olvan::Histogram::default_instance(), "meta { id: 1 } bin_counts: [2, 3]",
             bytes({0x0A, 0x02, 0x08, 0x01, 0x12, 0x02, 0x02, 0x03})},
            // An explicit zero-sample window differs from no window at all.
            {KPICfg::default_instance(), "nof_samples: 0", bytes({0x38, 0x00})},
            {KPICfg::default_instance(), "duration_msecs: 5", bytes({0x40, 0x05})},
            // b_cfg carries number 9 although declared before the window fields.
            {KPICfg::default_instance(), "b_cfg { singleSampleSizeTresholdBytes: 4 }",
             bytes({0x4A, 0x02, 0x08, 0x04})},
            // Types are whole 32-bit words; the id is signed.
            {KPICfg::default_instance(), "id: -1 type: KPI_NUMERIC subType: HISTOGRAM",
             bytes({0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x10, 0x80,
                    0x80, 0x80, 0x50, 0x18, 0x03})},
            {KPICfg::default_instance(), "type: KPI_BLOB", bytes({0x10, 0x80, 0x80, 0x80, 0x68})},
            {LTCCampaignDef::default_instance(),
             "kpiCfgs { id: 1 } size_threshold: 2 time_threshold: 3 cfg_payload: '\\001'",
             bytes({0x0A, 0x02, 0x08, 0x01, 0x10, 0x02, 0x18, 0x03, 0x22, 0x01, 0x01})},
    };
    for (const Case& c : cases) {
        std::unique_ptr<google::protobuf::Message> m(c.type.New());
        ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(c.text, m.get())) << c.text;
        EXPECT_EQ(c.wire, m->SerializeAsString()) << c.text;
    }
    // An unknown type survives as a raw value.
    KPICfg raw;
    ASSERT_TRUE(raw.ParseFromString(bytes({0x10, 0x81, 0x80, 0x80, 0x50})));
    EXPECT_EQ(0x0A000001, static_cast<int>(raw.type()));
}

}  // namespace
