// Wire encodings of the campaign and data-record schemas that the daemon and
// the cache-file format depend on byte for byte.
#include <gtest/gtest.h>

#include "kpi.pb.h"
#include "metric.pb.h"

namespace {
std::string bytes(std::initializer_list<int> b) {
    std::string s;
    for (int c : b) s.push_back(static_cast<char>(c));
    return s;
}
}  // namespace

TEST(DataRecord, EncodingsTheFileFormatDependsOn) {
    olvan::KPIData version;
    version.set_version(olvan::V1);
    EXPECT_EQ(bytes({0x08, 0x01}), version.SerializeAsString());

    // An empty meta set through its mutable accessor is present; a zero
    // value is not.
    olvan::KPIData counter;
    counter.add_counters()->mutable_meta();
    EXPECT_EQ(bytes({0x12, 0x02, 0x0A, 0x00}), counter.SerializeAsString());

    // Gauge statistics carry presence: a requested minimum of 0 is on the
    // wire, an unrequested one is not.
    olvan::Gauge withMin;
    withMin.set_min(0);
    EXPECT_EQ(bytes({0x10, 0x00}), withMin.SerializeAsString());
    olvan::Gauge withoutMin;
    EXPECT_EQ("", withoutMin.SerializeAsString());
    EXPECT_EQ(olvan::Gauge::MIN_ONEOF_NOT_SET, withoutMin.min_oneof_case());
}

TEST(DataRecord, ConcatenatedRecordsParseAsOneMergedRecord) {
    olvan::KPIData version;
    version.set_version(olvan::V1);
    olvan::KPIData first, second;
    auto* c1 = first.add_counters();
    c1->mutable_meta()->set_id(7);
    c1->set_value(12);
    auto* c2 = second.add_counters();
    c2->mutable_meta()->set_id(9);
    c2->set_value(3);
    olvan::KPIData gauge;
    gauge.add_gauges()->set_mean(1.5f);

    olvan::KPIData merged;
    ASSERT_TRUE(merged.ParseFromString(version.SerializeAsString() + first.SerializeAsString() +
                                       gauge.SerializeAsString() + second.SerializeAsString()));
    EXPECT_EQ(olvan::V1, merged.version());
    ASSERT_EQ(2, merged.counters_size());
    EXPECT_EQ(7u, merged.counters(0).meta().id());
    EXPECT_EQ(12u, merged.counters(0).value());
    EXPECT_EQ(9u, merged.counters(1).meta().id());
    ASSERT_EQ(1, merged.gauges_size());
    EXPECT_FLOAT_EQ(1.5f, merged.gauges(0).mean());
}

TEST(CampaignSchema, FieldNumbersAndWindowOneof) {
    KPICfg cfg;
    // An explicit zero-sample window differs from no window at all.
    EXPECT_EQ(KPICfg::AGG_WINDOW_ONEOF_NOT_SET, cfg.agg_window_oneof_case());
    cfg.set_nof_samples(0);
    EXPECT_EQ(KPICfg::kNofSamples, cfg.agg_window_oneof_case());
    EXPECT_EQ(bytes({0x38, 0x00}), cfg.SerializeAsString());  // field 7, varint
    cfg.set_duration_msecs(5);
    EXPECT_EQ(KPICfg::kDurationMsecs, cfg.agg_window_oneof_case());
    EXPECT_EQ(bytes({0x40, 0x05}), cfg.SerializeAsString());  // field 8 alone

    // b_cfg carries number 9 although declared before the window fields.
    KPICfg blob;
    blob.mutable_b_cfg()->set_singlesamplesizetresholdbytes(4);
    EXPECT_EQ(bytes({0x4A, 0x02, 0x08, 0x04}), blob.SerializeAsString());

    // Types are whole 32-bit words; an unknown one survives as a raw value.
    KPICfg raw;
    ASSERT_TRUE(raw.ParseFromString(bytes({0x10, 0x81, 0x80, 0x80, 0x50})));  // 0x0A000001
    EXPECT_EQ(0x0A000001, static_cast<int>(raw.type()));
    EXPECT_NE(KPI_NUMERIC, raw.type());
    EXPECT_EQ(0x0A000000, KPI_NUMERIC);
    EXPECT_EQ(0x0D000000, KPI_BLOB);

    // A configuration of another family parses; the aggregator decides.
    KPICfg mixed;
    mixed.set_type(KPI_NUMERIC);
    mixed.set_subtype(COUNTER);
    mixed.mutable_h_cfg()->add_bucket_bounds(10);
    KPICfg back;
    ASSERT_TRUE(back.ParseFromString(mixed.SerializeAsString()));
    EXPECT_EQ(KPICfg::kHCfg, back.cfg_oneof_case());
}

TEST(CampaignSchema, CampaignFieldsRoundTrip) {
    LTCCampaignDef def;
    def.set_size_threshold(4096);
    def.set_time_threshold(60);
    def.set_cfg_payload(std::string("\0\1payload", 9));
    def.add_kpicfgs()->set_id(-1);
    LTCCampaignDef back;
    ASSERT_TRUE(back.ParseFromString(def.SerializeAsString()));
    EXPECT_EQ(4096u, back.size_threshold());
    EXPECT_EQ(60u, back.time_threshold());
    EXPECT_EQ(9u, back.cfg_payload().size());
    // A negative id is carried over bit for bit into the unsigned record id.
    olvan::MetaData meta;
    meta.set_id(static_cast<uint32_t>(back.kpicfgs(0).id()));
    EXPECT_EQ(0xFFFFFFFFu, meta.id());
}
