// CampaignRules: what a client accepts of a campaign, in one place.
//
// Holds every fixed limit a campaign and its KPI configurations must respect
// and says, for a parsed campaign, everything a client would refuse and why:
// the ERROR lines a client has always logged ("NAME: invalid campaign
// config", "NAME: error: could not create KPI id: ID from KPICfg",
// "Unknown KPI Type: T to create") and after each a line that names the
// field, its value and the allowed range. StartCampaign logs from these
// records, KPI::Create and the aggregators' validCfg decide by the same
// rules, and the tools check campaign files with them without a client.
//
//   for (const zem::CampaignProblem& p : zem::campaignProblems(def)) {
//       if (!p.factoryLine.empty()) ZEM_LOGE("%s", p.factoryLine.c_str());
//       zem::logCollectorLines(p, name);
//   }
//
// Plain functions and constants; no state, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kpi.pb.h"

namespace zem {

// An inclusive range that one value of a campaign must lie in. `field` names
// the value as the detail lines and `zemctl limits` do.
struct Limit {
    const char* field;
    uint32_t min;
    uint32_t max;

    constexpr bool holds(uint64_t value) const { return value >= min && value <= max; }
};

// Campaign-wide limits, checked in this order before any KPI is looked at.
inline constexpr Limit kSizeThreshold{"size_threshold", 100, 4194304};
inline constexpr Limit kTimeThreshold{"time_threshold", 1, 21600};
inline constexpr Limit kKpiCount{"kpiCfgs count", 0, 1024};
inline constexpr Limit kPayloadLength{"cfg_payload length", 0, 1048576};
// Limits of one KPI's configuration.
inline constexpr Limit kHistogramBounds{"h_cfg.bucket_bounds count", 1, 1024};
inline constexpr Limit kBlobSampleThreshold{"b_cfg.singleSampleSizeTresholdBytes", 4, 524288};
inline constexpr Limit kBlobRateThreshold{"b_cfg.sampleRateThresholdPerSec", 0, 1000};

// Every limit above, in that order.
inline constexpr const Limit* kAllLimits[] = {
        &kSizeThreshold,   &kTimeThreshold,       &kKpiCount,         &kPayloadLength,
        &kHistogramBounds, &kBlobSampleThreshold, &kBlobRateThreshold};

// Stored bytes at which a blob window closes whatever its own limit.
inline constexpr size_t kBlobWindowBytes = 524288;

// KPI::Create's line for a type that has no aggregator, with the type value.
inline constexpr char kUnknownKpiTypeFormat[] = "Unknown KPI Type: %d to create";

// Why KPI::Create refuses a KPICfg; the first that applies.
enum class KpiRefusal : uint8_t {
    kNone,
    kUnknownType,          // not numeric, state or blob (event, unset, other)
    kUnknownSubType,       // numeric but not counter, gauge or histogram
    kHistogramBounds,      // no bucket bounds, or too many
    kNoBlobConfig,         // a blob without b_cfg
    kBlobSampleThreshold,  // singleSampleSizeTresholdBytes out of range
    kBlobRateThreshold,    // sampleRateThresholdPerSec out of range
};

KpiRefusal kpiRefusal(const KPICfg& cfg);

// One refusal, with the ERROR lines a client logs for it, in order.
struct CampaignProblem {
    // Index in kpiCfgs of the refused KPICfg, or -1 for the campaign-wide
    // limits.
    int kpiIndex = -1;
    // The line KPI::Create logs itself, without a prefix, or empty.
    std::string factoryLine;
    // The collector's lines, each logged after "NAME: ": the refusal it has
    // always logged ("invalid campaign config", "error: could not create KPI
    // id: ID from KPICfg"), then the details: one line per campaign-wide
    // limit broken, or the one reason a KPI is refused.
    std::string refusal;
    std::vector<std::string> details;
};

// The campaign-wide limits `def` breaks, or nothing when it keeps them all.
std::optional<CampaignProblem> campaignLimitProblem(const LTCCampaignDef& def);

// Everything a client refuses in `def`, as if it went on past each failure:
// the campaign-wide limits first, then every refused KPICfg in list order.
// Empty when a client accepts the campaign.
std::vector<CampaignProblem> campaignProblems(const LTCCampaignDef& def);

// Logs the collector's lines of `problem` at ERROR for the client `name`.
void logCollectorLines(const CampaignProblem& problem, const std::string& name);

}  // namespace zem
