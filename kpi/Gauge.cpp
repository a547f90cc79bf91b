#include "kpi/Gauge.h"

#include "serializer/KPISerializer.h"

// g_cfg() is the all-false default instance unless the configuration holds a
// gauge configuration, so such a gauge emits bare headers.
Gauge::Gauge(const KPICfg& cfg, KPISerializer& serializer)
    : KPI(cfg, serializer),
      wantMin(cfg.g_cfg().min()),
      wantMax(cfg.g_cfg().max()),
      wantMean(cfg.g_cfg().mean()) {}

Gauge::~Gauge() = default;

void Gauge::ResetAggregates() {
    sum = 0;
    min = kNoMin;
    max = 0;
}

bool Gauge::validCfg() {
    return true;
}

int Gauge::Serialize() {
    if (skipEmptyWindow("Gauge")) return 0;
    olvan::KPIData& data = emptyRecord();
    olvan::Gauge* gauge = data.add_gauges();
    fillMeta(gauge->mutable_meta());
    if (wantMean) {
        gauge->set_mean(
                static_cast<float>(static_cast<double>(sum) / static_cast<double>(numSamples)));
    }
    if (wantMin) gauge->set_min(min);
    if (wantMax) gauge->set_max(max);
    serializer.Write(data, windowNote("Gauge"));
    return 0;
}
