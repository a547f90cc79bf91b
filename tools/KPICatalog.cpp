#include "tools/KPICatalog.h"

#include "tools/CampaignFile.h"

namespace zemtools {

namespace {

bool plainName(const std::string& name) {
    if (name.empty()) return false;
    for (const char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '_';
        if (!ok) return false;
    }
    return true;
}

}  // namespace

bool KPICatalog::load(const std::string& file, std::string* error) {
    zemcatalog::Catalog catalog;
    if (!loadTextFile(file, &catalog, "KPI catalog", error)) return false;
    std::map<uint32_t, zemcatalog::Kpi> entries;
    std::string problems;
    for (const zemcatalog::Kpi& k : catalog.kpi()) {
        const std::string where = file + ": id " + std::to_string(k.id()) + ": ";
        if (!plainName(k.name())) {
            problems += where + "name '" + k.name() +
                        "' must be letters, digits and '_' (and not empty)\n";
        }
        if (!entries.emplace(k.id(), k).second) problems += where + "listed more than once\n";
    }
    if (!problems.empty()) {
        *error = problems;
        return false;
    }
    byId = std::move(entries);
    return true;
}

const zemcatalog::Kpi* KPICatalog::find(uint32_t id) const {
    const auto it = byId.find(id);
    return it == byId.end() ? nullptr : &it->second;
}

std::string KPICatalog::name(uint32_t id) const {
    const zemcatalog::Kpi* k = find(id);
    return k ? k->name() : std::to_string(id);
}

std::string KPICatalog::describe(uint32_t id) const {
    const zemcatalog::Kpi* k = find(id);
    return k ? k->name() + " (id " + std::to_string(id) + ")" : "KPI " + std::to_string(id);
}

std::string KPICatalog::unit(uint32_t id) const {
    const zemcatalog::Kpi* k = find(id);
    return k ? k->unit() : std::string();
}

std::vector<std::string> KPICatalog::binLabels(uint32_t id, size_t binCount,
                                               const LTCCampaignDef* campaign) const {
    const zemcatalog::Kpi* k = find(id);
    if (k && static_cast<size_t>(k->bin_labels_size()) == binCount) {
        return {k->bin_labels().begin(), k->bin_labels().end()};
    }
    const KPICfg* cfg = findKpi(campaign, id);
    if (cfg && cfg->type() == KPI_NUMERIC && cfg->subtype() == HISTOGRAM) {
        std::vector<std::string> labels =
                boundLabels(cfg->has_h_cfg() ? cfg->h_cfg() : HistogramConfig::default_instance());
        if (labels.size() == binCount) return labels;
    }
    return {};
}

const KPICfg* findKpi(const LTCCampaignDef* campaign, uint32_t id) {
    if (campaign == nullptr) return nullptr;
    const KPICfg* found = nullptr;
    // Ids are carried bit for bit from the signed KPICfg.id.
    for (const KPICfg& k : campaign->kpicfgs()) {
        if (static_cast<uint32_t>(k.id()) == id) found = &k;
    }
    return found;
}

std::vector<std::string> boundLabels(const HistogramConfig& cfg) {
    const auto& b = cfg.bucket_bounds();
    const int n = b.size();
    std::vector<std::string> labels;
    if (n == 0) return labels;
    auto between = [&](int lo, int hi) {
        return "(" + std::to_string(b[lo]) + ", " + std::to_string(b[hi]) + "]";
    };
    if (cfg.underflow_en()) {
        // Bin 0 holds values up to b0, bin k the values in (b(k-1), b(k)].
        labels.push_back("underflow (<= " + std::to_string(b[0]) + ")");
        for (int k = 1; k < n; ++k) labels.push_back(between(k - 1, k));
        if (cfg.overflow_en()) labels.push_back("overflow (> " + std::to_string(b[n - 1]) + ")");
    } else {
        // Bin k holds (b(k), b(k+1)]; values up to b0 are dropped.
        for (int k = 0; k + 1 < n; ++k) labels.push_back(between(k, k + 1));
        // With overflow alone, values above the last bound land past the
        // emitted bins and the last emitted bin is never filled.
        if (cfg.overflow_en()) labels.push_back("phantom (always 0)");
    }
    return labels;
}

}  // namespace zemtools
