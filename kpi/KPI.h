// KPI: the abstract aggregator behind one KPI id of a running campaign.
//
// A KPI counts the samples of its current aggregation window, remembers the
// steady-clock times of the window's start and of its last sample, and
// decides when the window is over. Windows close lazily, inside the
// AddSample call that finds the window over: the concrete class then turns
// its aggregate into an olvan::KPIData record for KPISerializer::Write and
// resets. There is no timer, and nothing is flushed at destruction.
//
// Owned by the collector's KPI table from campaign start to campaign stop;
// the serializer it writes to belongs to the same collector and outlives it.
// Called on the application threads that log samples. Takes no lock: callers
// never log to one KPI from two threads at once, so a window closes (and its
// record is serialized) on the logging thread.
//
//   std::unique_ptr<KPI> kpi = KPI::Create(cfg, serializer);  // null if refused
//   if (kpi && kpi->GetType() == KPI_NUMERIC) kpi->AddSample(42);
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "common/CheckedMath.h"
#include "kpi.pb.h"
#include "metric.pb.h"
#include "serializer/KPISerializer.h"

class KPI {
  public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;

    KPI(const KPICfg& cfg, KPISerializer& serializer);
    virtual ~KPI();

    KPI(const KPI&) = delete;
    KPI& operator=(const KPI&) = delete;

    // Builds the aggregator for `cfg`, or returns null when the campaign
    // rules refuse it (zem::kpiRefusal): the type or subtype has no
    // aggregator, or the configuration breaks a limit.
    static std::unique_ptr<KPI> Create(const KPICfg& cfg, KPISerializer& serializer);

    // Folds one value into the window's aggregate. 0 accepts the sample;
    // anything else drops it uncounted.
    virtual int Aggregate(unsigned int value) = 0;
    // Clears the aggregate for the next window.
    virtual void ResetAggregates() = 0;
    // Whether `cfg` is acceptable for this class, by the campaign rules that
    // Create has already applied.
    virtual bool validCfg() = 0;
    // Emits the current window as one record, unless it is empty.
    virtual int Serialize() = 0;

    KPIType GetType() const { return type; }
    KPISubType GetSubType() const { return subType; }

    // The numeric KPIs whose window counts samples (or that have no window),
    // by class: the collector's sample path tests this one byte instead of
    // type, subtype and window kind. kOther for every other KPI.
    enum class CountedPath : uint8_t { kOther, kCounter, kGauge, kHistogram };
    CountedPath GetCountedPath() const { return countedPath; }

    // A numeric sample. A window that is over is closed before the value is
    // looked at, so the value opens the next window. Returns 0.
    int AddSample(unsigned int value) { return AddSampleAt(Clock::now(), value); }
    // A sample without a value. It is counted before the window is tested,
    // so the sample that ends a window belongs to it. Returns 0.
    int AddSample() { return AddSampleAt(Clock::now()); }

    // The same, with the caller's clock reading (tests cross windows with it).
    int AddSampleAt(TimePoint now, unsigned int value) { return AddSampleAs<KPI>(now, value); }

    // AddSampleAt for a KPI known to be an `Agg`: with Agg's Aggregate final,
    // the aggregation is a direct call the compiler can inline rather than a
    // virtual one. The collector uses it for the numeric subtypes.
    template <class Agg>
    int AddSampleAs(TimePoint now, unsigned int value) {
        if (tsStart == TimePoint{}) tsStart = now;
        if (!IsWithinWindow(now)) closeWindow(now);
        return addToWindow<Agg>(now, value);
    }
    // AddSampleAs for a KPI whose window counts samples, without the test of
    // the window kind. A window that is over is closed, and the sample added,
    // out of line, so the common case keeps nothing across a call.
    template <class Agg>
    int AddCountedSampleAs(TimePoint now, unsigned int value) {
        if (tsStart == TimePoint{}) tsStart = now;
        if (numSamples >= windowLimit) return closeWindowThenAdd<Agg>(now, value);
        return addToWindow<Agg>(now, value);
    }
    int AddSampleAt(TimePoint now) {
        if (tsStart == TimePoint{}) tsStart = now;
        zem::checkedIncrement(numSamples, "KPI numSamples");
        tsEnd = now;
        if (!IsWithinWindow(now)) closeWindow(now);
        return 0;
    }

    // A duration window holds while fewer whole milliseconds than its
    // duration have passed since tsStart; a sample-count window while fewer
    // samples than its limit were counted. Without either, never.
    bool IsWithinWindow(TimePoint now) const {
        if (byDuration) {
            const int64_t elapsedNs =
                    zem::checkedSub(now.time_since_epoch().count(),
                                    tsStart.time_since_epoch().count(), "KPI window elapsed time");
            return elapsedNs / 1000000 < static_cast<int64_t>(windowLimit);
        }
        return numSamples < windowLimit;
    }

    // Starts an empty window at `t`.
    void ResetWindow(TimePoint t) {
        numSamples = 0;
        tsStart = t;
        tsEnd = t;
    }

    // The record header: id, window times in steady-clock tenths of a
    // second, and the sample count.
    void fillMeta(olvan::MetaData* meta) const;

    const KPICfg& config() const { return cfg; }
    unsigned int sampleCount() const { return numSamples; }

  protected:
    // Starts a subclass's Serialize: an empty window queues its lines (the
    // Serialize line and the skip) behind the records of earlier windows and
    // returns true (nothing to emit).
    bool skipEmptyWindow(const char* kind) const;

    // The Serialize line of the window being closed, printed by the
    // serializer's writer thread when it takes the window's record.
    KPISerializer::WindowNote windowNote(const char* kind) const {
        return {kind, numSamples, startNs(), endNs()};
    }

    // Raw steady-clock nanoseconds, as the Serialize log lines print them.
    long startNs() const { return static_cast<long>(tsStart.time_since_epoch().count()); }
    long endNs() const { return static_cast<long>(tsEnd.time_since_epoch().count()); }

    // The fields every sample touches sit together at the front, window
    // kind and limit copied out of the immutable configuration.
    unsigned int numSamples = 0;
    const unsigned int windowLimit;  // samples, or milliseconds when byDuration
    TimePoint tsStart{};             // zero: the window has not started
    TimePoint tsEnd{};
    const KPIType type;
    const KPISubType subType;
    const bool byDuration;
    const CountedPath countedPath;

    KPISerializer& serializer;
    const KPICfg cfg;

    // An empty record to build the closing window's record in. The record
    // is kept between windows so that its sub-messages and arrays are
    // reused instead of allocated and freed on every close.
    olvan::KPIData& emptyRecord() {
        record.Clear();
        return record;
    }

  private:
    // Emits and resets the window that is over, and opens the next at `now`.
    // Kept out of line: it runs once per window, not once per sample.
    void closeWindow(TimePoint now);

    template <class Agg>
    int addToWindow(TimePoint now, unsigned int value) {
        if (static_cast<Agg*>(this)->Aggregate(value) != 0) return 0;
        tsEnd = now;
        zem::checkedIncrement(numSamples, "KPI numSamples");
        return 0;
    }
    template <class Agg>
    [[gnu::noinline]] int closeWindowThenAdd(TimePoint now, unsigned int value) {
        closeWindow(now);
        return addToWindow<Agg>(now, value);
    }

    olvan::KPIData record;
};

// Whole seconds of wall-clock time since the Unix epoch.
int64_t curr_ts();
