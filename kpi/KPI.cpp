#include "kpi/KPI.h"

#include <time.h>

#include "collector/CampaignRules.h"
#include "common/ZemLog.h"
#include "kpi/Blob.h"
#include "kpi/Counter.h"
#include "kpi/Gauge.h"
#include "kpi/Histogram.h"
#include "kpi/StateMachine.h"
#include "serializer/KPISerializer.h"

namespace {

// A configuration without a window gets limit 0: no sample is ever within
// it, so every sample closes one.
unsigned int windowLimitOf(const KPICfg& cfg) {
    switch (cfg.agg_window_oneof_case()) {
        case KPICfg::kDurationMsecs:
            return cfg.duration_msecs();
        case KPICfg::kNofSamples:
            return cfg.nof_samples();
        default:
            return 0;
    }
}

KPI::CountedPath countedPathOf(const KPICfg& cfg) {
    if (cfg.type() != KPI_NUMERIC || cfg.agg_window_oneof_case() == KPICfg::kDurationMsecs) {
        return KPI::CountedPath::kOther;
    }
    switch (cfg.subtype()) {
        case COUNTER:
            return KPI::CountedPath::kCounter;
        case GAUGE:
            return KPI::CountedPath::kGauge;
        case HISTOGRAM:
            return KPI::CountedPath::kHistogram;
        default:
            return KPI::CountedPath::kOther;
    }
}

// Record times are steady-clock tenths of a second.
constexpr int64_t kNsPerMetaTick = 100000000;

}  // namespace

KPI::KPI(const KPICfg& cfg, KPISerializer& serializer)
    : windowLimit(windowLimitOf(cfg)),
      type(cfg.type()),
      subType(cfg.subtype()),
      byDuration(cfg.agg_window_oneof_case() == KPICfg::kDurationMsecs),
      countedPath(countedPathOf(cfg)),
      serializer(serializer),
      cfg(cfg) {}

KPI::~KPI() = default;

std::unique_ptr<KPI> KPI::Create(const KPICfg& cfg, KPISerializer& serializer) {
    // The campaign rules decide, so that what a client refuses and what the
    // tools report cannot differ; only an unknown type is logged here.
    const zem::KpiRefusal refusal = zem::kpiRefusal(cfg);
    if (refusal == zem::KpiRefusal::kUnknownType) {
        ZEM_LOGE(zem::kUnknownKpiTypeFormat, static_cast<int>(cfg.type()));
    }
    if (refusal != zem::KpiRefusal::kNone) return nullptr;
    switch (cfg.type()) {
        case KPI_STATE:
            return std::make_unique<StateMachine>(cfg, serializer);
        case KPI_BLOB:
            return std::make_unique<Blob>(cfg, serializer);
        default:  // numeric, the only other type the rules let through
            break;
    }
    switch (cfg.subtype()) {
        case COUNTER:
            return std::make_unique<Counter>(cfg, serializer);
        case GAUGE:
            return std::make_unique<Gauge>(cfg, serializer);
        default:  // histogram, the only other subtype the rules let through
            return std::make_unique<Histogram>(cfg, serializer);
    }
}

void KPI::closeWindow(TimePoint now) {
    Serialize();
    ResetAggregates();
    ResetWindow(now);
}

bool KPI::skipEmptyWindow(const char* kind) const {
    if (numSamples >= 1) return false;
    serializer.WriteEmpty(windowNote(kind));
    return true;
}

void KPI::fillMeta(olvan::MetaData* meta) const {
    meta->set_id(static_cast<uint32_t>(cfg.id()));
    meta->set_ts_start(static_cast<uint64_t>(tsStart.time_since_epoch().count() / kNsPerMetaTick));
    meta->set_ts_end(static_cast<uint64_t>(tsEnd.time_since_epoch().count() / kNsPerMetaTick));
    meta->set_nof_samples(numSamples);
}

int64_t curr_ts() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec);
}
