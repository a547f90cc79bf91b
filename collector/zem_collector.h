// zem_collector: the object behind a zem_sdk handle.
//
// Owns the client's identity (name, version, token), its transport client,
// the KPI table of the running campaign, the serializer that writes and
// ships cache files. The limits a campaign must keep are CampaignRules'.
// Created by zem_register, destroyed by zem_deregister.
//
// Threads that call in:
//  - application threads: Log/LogEvent/LogState (hot path, no lock), and
//    zem_register/zem_deregister;
//  - the registration thread (one series per Register or LostConn);
//  - transport threads (gRPC command stream, binder pool and death
//    threads): StartCampaign, StopCampaign, LostConn, setToken;
//  - the serializer's writer thread: SendData.
//
// Logging threads read the published KPI table through one atomic pointer,
// inside a zem::ReadSection, and take no lock. A campaign change never
// changes a table or KPI that a logging thread may be using: it publishes a
// new table, waits for the grace period (zem::waitForReaders), and only then
// serializes the windows of KPIs that are going away and frees them. So a
// sample that races a stop lands in the window the stop serializes or is
// refused with -1.
//
// Campaign changes (StartCampaign, StopCampaign, LostConn and destruction)
// run one at a time under `campaignMutex`, whichever thread they arrive on.
// A change that arrives on a thread inside a call to the daemon (a nested
// binder call, see common/DaemonCall.h) must not wait for that lock or
// deliver a file: a stop answers with the stop callback's result at once and
// leaves the rest to a helper thread, a start runs only if the lock is free.
// Everything else shared between threads (the client pointer, the token, the
// helper threads) is guarded by `stateMutex`, which is taken after
// `campaignMutex` and never by the logging path.
#pragma once

#include <google/protobuf/text_format.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "collector/KPITable.h"
#include "common/GracePeriod.h"
#include "common/Mutex.h"
#include "include/zem_sdk.h"
#include "kpi.pb.h"
#include "kpi/Counter.h"
#include "kpi/Gauge.h"
#include "kpi/Histogram.h"
#include "serializer/KPISerializer.h"
#include "transport/zemTransportClient.h"

class zem_collector {
  public:
    // Copies everything it needs from `cfg`; starts nothing. `cfg->name` and
    // `cfg->cache_dir` must not be null (zem_register checks).
    explicit zem_collector(const zem_cfg_s& cfg);

    // Delivers the cache file at `filename` through the transport client.
    // Runs on the serializer's writer thread or on the thread stopping a
    // campaign; blocks for the transfer. Returns the transport's result, or
    // -1 (with an ERROR line) when there is no client.
    virtual int SendData(const std::string& filename);

    // Drops the client, ends the writer thread (queued records are written,
    // the open file is closed but not sent), and deletes the KPIs without
    // serializing their open windows. Waits for a running registration
    // thread to notice and end.
    virtual ~zem_collector();

    // Destroys `collector` for zem_deregister without letting a daemon that
    // never answers hang the caller. The destruction runs on a helper thread
    // that the caller waits for, up to 5 seconds; a binder call cannot be
    // cancelled, so a registration or delivery stuck on the daemon keeps the
    // helper (and the collector) until the daemon answers or dies, and the
    // caller returns without them.
    static void Dispose(zem_collector* collector);

    // Starts the registration thread: up to three attempts, 5 seconds apart.
    // Returns 0 at once; never waits for the daemon.
    virtual int Register();

    // Ends the registration with the daemon. Returns the client's result, or
    // -1 (with an ERROR line) when there is no client.
    virtual int DeRegister();

    // The daemon went away: stops a running campaign, drops the client and
    // starts registering again. Called by transport threads. Returns 0.
    virtual int LostConn();

    // Runs the stop callback, serializes every KPI's open window, empties the
    // table, stops the writer and hands the last file over. Returns the stop
    // callback's result, or 0.
    virtual int StopCampaign();

    // Parses, validates and starts the serialized LTCCampaignDef in `config`.
    // Returns the start callback's result (0 without one), or -1.
    virtual int StartCampaign(const std::string& config);

    // Sample dispatch. Application threads; no lock, no allocation, no log
    // line. -1 for an unknown id; a wrong type gives -1 on the numeric and
    // event paths and -2 on the state and blob paths.
    [[gnu::always_inline]] int Log(uint32_t id, uint32_t value) {
        zem::ReadSection section;
        KPI* kpi = liveTable()->find(id);
        if (kpi == nullptr) return -1;
        // A numeric KPI's subtype names its class, so the aggregation is a
        // direct call rather than a virtual one. Counters and gauges whose
        // windows count samples, the usual kinds, are told apart by one byte
        // and handled here; the rest goes out of line, so that this path
        // keeps as little as possible across the clock read.
        const KPI::CountedPath path = kpi->GetCountedPath();
        if (path == KPI::CountedPath::kCounter) {
            return static_cast<Counter*>(kpi)->AddCountedSampleAs<Counter>(KPI::Clock::now(),
                                                                           value);
        }
        if (path == KPI::CountedPath::kGauge) {
            return static_cast<Gauge*>(kpi)->AddCountedSampleAs<Gauge>(KPI::Clock::now(), value);
        }
        return LogOther(kpi, value);
    }
    int LogEvent(uint32_t id, uint32_t /*value*/) {
        zem::ReadSection section;
        KPI* kpi = liveTable()->find(id);
        if (kpi == nullptr || kpi->GetType() != KPI_EVENT) return -1;
        return 0;
    }
    int LogState(uint32_t id, uint32_t /*from*/, uint32_t /*to*/) {
        zem::ReadSection section;
        KPI* kpi = liveTable()->find(id);
        if (kpi == nullptr) return -1;
        return kpi->GetType() == KPI_STATE ? 0 : -2;
    }
    int Log(uint32_t id, const unsigned char* buf, uint32_t len);

    // True when `def` lies within the campaign-wide limits (CampaignRules.h).
    bool validCfg(const LTCCampaignDef& def) const;

    const std::string& getName() const { return name; }
    uint32_t getVersion() const { return version; }

    // The daemon's token for this registration. Written by the transport
    // client during registerClient; read from any thread.
    std::string getToken() const;
    void setToken(const std::string& token);

    // The current transport client (may be empty).
    std::shared_ptr<zemTransportClient> getClient() const;

    // True while a registration thread is still attempting or waiting.
    bool registering() const;

    // The table logging threads see now; for tests, while no campaign
    // change runs.
    const KPITable& kpiTable() const { return *liveTable(); }
    KPISerializer& getSerializer() { return serializer; }

  private:
    // Log for histograms and for duration windows; -1 for a KPI that is not
    // numeric.
    [[gnu::noinline]] static int LogOther(KPI* kpi, uint32_t value);

    const KPITable* liveTable() const { return published.load(std::memory_order_seq_cst); }

    // Makes `next` the table that logging threads read and waits until none
    // can still be using the previous one, which it returns.
    std::unique_ptr<KPITable> publish(std::unique_ptr<KPITable> next) ZEM_REQUIRES(campaignMutex);

    int startLocked(const std::string& config) ZEM_REQUIRES(campaignMutex);
    // The stop after its callback: serializes and frees every KPI, stops the
    // writer and hands the last file over.
    void stopLocked() ZEM_REQUIRES(campaignMutex);
    // Finishes the stops that arrived inside a call to the daemon.
    void runDeferredStopsLocked() ZEM_REQUIRES(campaignMutex) ZEM_EXCLUDES(stateMutex);
    int stopFromDaemonCall();
    int startFromDaemonCall(const std::string& config);

    struct RegistrationThread {
        std::thread thread;
        bool done = false;
    };

    void startRegistrationThread() ZEM_EXCLUDES(stateMutex);
    void registrationLoop(RegistrationThread* self) ZEM_EXCLUDES(stateMutex);

    // Serialises the campaign changes. Declared first so that it outlives
    // every member a transport thread may still reach while the collector is
    // being destroyed.
    zem::Mutex campaignMutex;
    // Guards client, token, the helper threads and `stopping`.
    mutable zem::Mutex stateMutex ZEM_ACQUIRED_AFTER(campaignMutex);
    zem::CondVar stateCv;
    bool stopping ZEM_GUARDED_BY(stateMutex) = false;
    std::list<RegistrationThread> registrationThreads ZEM_GUARDED_BY(stateMutex);
    // Stops that arrived inside a call to the daemon and still have to
    // serialize, free and flush, and the threads that finish them.
    int deferredStops ZEM_GUARDED_BY(stateMutex) = 0;
    std::vector<std::thread> deferredStopThreads ZEM_GUARDED_BY(stateMutex);
    // The thread inside a campaign change, so that a nested event can tell
    // its own change from another thread's.
    std::atomic<std::thread::id> campaignOwner{};

    const std::string name;
    std::string secondString;
    const uint32_t version;
    zem_campaign_start_cb startCb;
    zem_campaign_stop_cb stopCb;
    std::shared_ptr<zemTransportClient> client ZEM_GUARDED_BY(stateMutex);
    // The current table, owned here, and the same table as logging threads
    // see it.
    std::unique_ptr<KPITable> table ZEM_GUARDED_BY(campaignMutex) = std::make_unique<KPITable>();
    std::atomic<const KPITable*> published;
    KPISerializer serializer;
    const uint32_t transport;
    std::string token ZEM_GUARDED_BY(stateMutex);
    google::protobuf::TextFormat::Printer printer ZEM_GUARDED_BY(campaignMutex);
};
