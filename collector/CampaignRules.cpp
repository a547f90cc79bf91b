#include "collector/CampaignRules.h"

#include <cstdio>

#include "common/ZemLog.h"

namespace zem {

namespace {

std::string outside(const Limit& limit, uint64_t value) {
    return std::string(limit.field) + "=" + std::to_string(value) + " outside [" +
           std::to_string(limit.min) + ", " + std::to_string(limit.max) + "]";
}

// The enum's own name for a known value, else the number.
std::string typeName(KPIType type) {
    return KPIType_IsValid(type) ? KPIType_Name(type) : std::to_string(static_cast<int>(type));
}

std::string subTypeName(KPISubType subType) {
    return KPISubType_IsValid(subType) ? KPISubType_Name(subType)
                                       : std::to_string(static_cast<int>(subType));
}

std::string reasonOf(KpiRefusal refusal, const KPICfg& cfg) {
    switch (refusal) {
        case KpiRefusal::kUnknownType:
            return "type " + typeName(cfg.type()) +
                   " has no aggregator (KPI_NUMERIC, KPI_STATE and KPI_BLOB have one)";
        case KpiRefusal::kUnknownSubType:
            return "subType " + subTypeName(cfg.subtype()) +
                   " of a KPI_NUMERIC has no aggregator (COUNTER, GAUGE and HISTOGRAM have one)";
        case KpiRefusal::kHistogramBounds:
            return outside(kHistogramBounds,
                           static_cast<uint64_t>(cfg.h_cfg().bucket_bounds_size()));
        case KpiRefusal::kNoBlobConfig:
            return "a KPI_BLOB needs b_cfg";
        case KpiRefusal::kBlobSampleThreshold:
            return outside(kBlobSampleThreshold, cfg.b_cfg().singlesamplesizetresholdbytes());
        case KpiRefusal::kBlobRateThreshold:
            return outside(kBlobRateThreshold, cfg.b_cfg().sampleratethresholdpersec());
        case KpiRefusal::kNone:
            break;
    }
    return "";
}

}  // namespace

KpiRefusal kpiRefusal(const KPICfg& cfg) {
    switch (cfg.type()) {
        case KPI_NUMERIC:
            switch (cfg.subtype()) {
                case COUNTER:
                case GAUGE:
                    return KpiRefusal::kNone;
                case HISTOGRAM: {
                    const auto bounds = static_cast<uint64_t>(cfg.h_cfg().bucket_bounds_size());
                    return kHistogramBounds.holds(bounds) ? KpiRefusal::kNone
                                                          : KpiRefusal::kHistogramBounds;
                }
                default:
                    return KpiRefusal::kUnknownSubType;
            }
        case KPI_STATE:
            return KpiRefusal::kNone;
        case KPI_BLOB:
            if (!cfg.has_b_cfg()) return KpiRefusal::kNoBlobConfig;
            if (!kBlobSampleThreshold.holds(cfg.b_cfg().singlesamplesizetresholdbytes())) {
                return KpiRefusal::kBlobSampleThreshold;
            }
            if (!kBlobRateThreshold.holds(cfg.b_cfg().sampleratethresholdpersec())) {
                return KpiRefusal::kBlobRateThreshold;
            }
            return KpiRefusal::kNone;
        default:
            return KpiRefusal::kUnknownType;
    }
}

std::optional<CampaignProblem> campaignLimitProblem(const LTCCampaignDef& def) {
    const std::pair<const Limit&, uint64_t> values[] = {
            {kSizeThreshold, def.size_threshold()},
            {kTimeThreshold, def.time_threshold()},
            {kKpiCount, static_cast<uint64_t>(def.kpicfgs_size())},
            {kPayloadLength, def.cfg_payload().size()},
    };
    CampaignProblem problem;
    problem.refusal = "invalid campaign config";
    for (const auto& [limit, value] : values) {
        if (!limit.holds(value))
            problem.details.push_back("campaign field " + outside(limit, value));
    }
    if (problem.details.empty()) return std::nullopt;
    return problem;
}

std::vector<CampaignProblem> campaignProblems(const LTCCampaignDef& def) {
    std::vector<CampaignProblem> out;
    if (std::optional<CampaignProblem> limits = campaignLimitProblem(def)) {
        out.push_back(std::move(*limits));
    }
    for (int i = 0; i < def.kpicfgs_size(); ++i) {
        const KPICfg& cfg = def.kpicfgs(i);
        const KpiRefusal refusal = kpiRefusal(cfg);
        if (refusal == KpiRefusal::kNone) continue;
        CampaignProblem problem;
        problem.kpiIndex = i;
        if (refusal == KpiRefusal::kUnknownType) {
            char line[64];
            snprintf(line, sizeof line, kUnknownKpiTypeFormat, static_cast<int>(cfg.type()));
            problem.factoryLine = line;
        }
        const std::string id = std::to_string(cfg.id());
        problem.refusal = "error: could not create KPI id: " + id + " from KPICfg";
        problem.details = {"KPI id " + id + " refused: " + reasonOf(refusal, cfg)};
        out.push_back(std::move(problem));
    }
    return out;
}

void logCollectorLines(const CampaignProblem& problem, const std::string& name) {
    ZEM_LOGE("%s: %s", name.c_str(), problem.refusal.c_str());
    for (const std::string& detail : problem.details) {
        ZEM_LOGE("%s: %s", name.c_str(), detail.c_str());
    }
}

}  // namespace zem
