#include "kpi/Blob.h"

#include "collector/CampaignRules.h"
#include "serializer/KPISerializer.h"

// b_cfg() is the default instance (both thresholds 0) unless the
// configuration holds a blob configuration; validCfg refuses that.
Blob::Blob(const KPICfg& cfg, KPISerializer& serializer)
    : KPI(cfg, serializer), blobCfg(this->cfg.b_cfg()) {}

Blob::~Blob() = default;

bool Blob::store(const unsigned char* buf, unsigned int len) {
    if (len > blobCfg.singlesamplesizetresholdbytes()) return false;
    samples.emplace_back(buf, buf + len);
    storedBytes += len;
    return true;
}

void Blob::closeIfFull(TimePoint now) {
    // AddSampleAt may have closed the window already (its own limit came
    // first), in which case nothing is stored any more.
    if (storedBytes < zem::kBlobWindowBytes) return;
    Serialize();
    ResetAggregates();
    ResetWindow(now);
}

int Blob::LogBuf(const unsigned char* buf, unsigned int len) {
    return LogBufAt(Clock::now(), buf, len);
}

int Blob::LogBufAt(TimePoint now, const unsigned char* buf, unsigned int len) {
    if (!store(buf, len)) return -1;
    AddSampleAt(now);
    closeIfFull(now);
    return 0;
}

int Blob::Aggregate(unsigned int) {
    return 0;
}

void Blob::ResetAggregates() {
    // Swapping with an empty list frees the buffers' memory, which clear()
    // would keep reserved in the list itself.
    std::vector<std::vector<unsigned char>>().swap(samples);
    storedBytes = 0;
}

bool Blob::validCfg() {
    return zem::kpiRefusal(cfg) == zem::KpiRefusal::kNone;
}

int Blob::Serialize() {
    if (skipEmptyWindow("Blob")) return 0;
    // A record of its own: kept between windows it would hold on to the
    // largest window's bytes.
    olvan::KPIData data;
    olvan::Blob* blob = data.add_blobs();
    fillMeta(blob->mutable_meta());
    size_t total = 0;
    for (const auto& s : samples) total += s.size();
    std::string* joined = blob->mutable_data();
    joined->reserve(total);
    for (const auto& s : samples) joined->append(s.begin(), s.end());
    serializer.Write(data, windowNote("Blob"));
    return 0;
}
