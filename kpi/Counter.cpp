#include "kpi/Counter.h"

#include "serializer/KPISerializer.h"

Counter::Counter(const KPICfg& cfg, KPISerializer& serializer) : KPI(cfg, serializer) {}

Counter::~Counter() = default;

void Counter::ResetAggregates() {
    sum = 0;
}

bool Counter::validCfg() {
    return true;
}

int Counter::Serialize() {
    if (skipEmptyWindow("Counter")) return 0;
    olvan::KPIData& data = emptyRecord();
    olvan::Counter* counter = data.add_counters();
    fillMeta(counter->mutable_meta());
    counter->set_value(sum);
    serializer.Write(data, windowNote("Counter"));
    return 0;
}
