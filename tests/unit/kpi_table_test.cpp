// The collector's KPI table against std::map on random workloads: the hash
// index must find exactly what the ordered arrays hold, through growth,
// replacement and ids at both ends of the range.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "collector/KPITable.h"
#include "serializer/KPISerializer.h"

namespace {

class TagKPI : public KPI {
  public:
    TagKPI(KPISerializer& s, int tag) : KPI(KPICfg(), s), tag(tag) {}
    int Aggregate(unsigned int) override { return 0; }
    void ResetAggregates() override {}
    bool validCfg() override { return true; }
    int Serialize() override { return 0; }
    const int tag;
};

}  // namespace

TEST(KpiTableTest, AgreesWithAnOrderedMap) {
    KPISerializer ser("/nonexistent", nullptr);
    std::mt19937 rng(12345);
    for (int round = 0; round < 20; ++round) {
        KPITable table;
        std::map<uint32_t, int> model;
        // Small rounds use a narrow id range (many replacements, dense
        // clusters), larger ones the whole 32-bit range.
        const uint32_t range = round % 2 ? 0xFFFFFFFFu : 3000u;
        const int inserts = 1 + static_cast<int>(rng() % 1500);
        for (int i = 0; i < inserts; ++i) {
            uint32_t id = static_cast<uint32_t>(rng() % (uint64_t{range} + 1));
            if (i % 97 == 0) id = i % 2 ? 0u : 0xFFFFFFFFu;
            table.insertOrReplace(id, std::make_unique<TagKPI>(ser, i));
            model[id] = i;
        }
        ASSERT_EQ(model.size(), table.size());
        for (const auto& [id, tag] : model) {
            KPI* k = table.find(id);
            ASSERT_NE(nullptr, k) << id;
            ASSERT_EQ(tag, static_cast<TagKPI*>(k)->tag) << "stale entry for " << id;
        }
        for (int probe = 0; probe < 2000; ++probe) {
            const uint32_t id = static_cast<uint32_t>(rng());
            ASSERT_EQ(model.count(id) != 0, table.find(id) != nullptr) << id;
        }
        auto it = model.begin();
        table.forEach([&](uint32_t id, KPI& k) {
            ASSERT_EQ(it->first, id);
            ASSERT_EQ(it->second, static_cast<TagKPI&>(k).tag);
            ++it;
        });
        table.clear();
        EXPECT_TRUE(table.empty());
        EXPECT_EQ(nullptr, table.find(model.begin()->first));
    }
}
