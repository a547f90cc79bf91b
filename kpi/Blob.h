// Blob: the aggregator of a KPI_BLOB KPI.
//
// Keeps a copy of every binary buffer logged during the window and, when the
// window closes, emits them joined end to end as one olvan::Blob record.
// Buffers larger than the configured single-sample threshold are refused.
// Every accepted buffer stays in memory until its window closes; a window
// whose stored bytes reach zem::kBlobWindowBytes closes at that sample, as if
// its sample count had been reached, so one KPI holds at most
// zem::kBlobWindowBytes + zem::kBlobSampleThreshold.max - 1 bytes of samples.
// The limits of its configuration are CampaignRules'.
//
// Owned by the collector's KPI table; LogBuf runs on the logging thread and
// takes no lock (one thread at a time per KPI, like every aggregator).
#pragma once

#include <vector>

#include "kpi/KPI.h"

class Blob : public KPI {
  public:
    Blob(const KPICfg& cfg, KPISerializer& serializer);
    ~Blob() override;

    // Stores a copy of `len` bytes and counts it as a sample; a window that
    // ends with this sample is emitted including it. Returns 0, or -1 (and
    // stores nothing) when `len` exceeds the single-sample threshold.
    int LogBuf(const unsigned char* buf, unsigned int len);
    // The same, with the caller's clock reading.
    int LogBufAt(TimePoint now, const unsigned char* buf, unsigned int len);

    // Blob samples never carry a value: accepts and ignores it.
    int Aggregate(unsigned int value) override;
    void ResetAggregates() override;
    bool validCfg() override;
    int Serialize() override;

  private:
    bool store(const unsigned char* buf, unsigned int len);
    // Closes the window early once it holds zem::kBlobWindowBytes; the next sample
    // opens a new one at `now`.
    void closeIfFull(TimePoint now);

    const BlobConfig& blobCfg;
    std::vector<std::vector<unsigned char>> samples;
    size_t storedBytes = 0;
};
