// zem_collector: the object behind a zem_sdk handle.
//
// Owns the client's identity (name, version, token), its transport client,
// the KPI table of the running campaign, the serializer that writes and
// ships cache files, and the fixed campaign limits. Created by zem_register,
// destroyed by zem_deregister.
//
// Threads that call in:
//  - application threads: Log/LogEvent/LogState (hot path, no lock), and
//    zem_register/zem_deregister;
//  - the registration thread (one series per Register or LostConn);
//  - transport threads (gRPC command stream, binder pool): StartCampaign,
//    StopCampaign, LostConn, setToken;
//  - the serializer's writer thread: SendData.
// The KPI table takes no lock. Logging threads read the published table
// through one atomic pointer. A campaign start builds a new table and
// publishes it, so a start that reaches a running campaign never changes or
// frees anything a logging thread may be using: replaced KPIs and old tables
// are kept until the next StopCampaign, whose stop callback runs first so the
// application has stopped logging by the time they are freed. Campaigns are
// otherwise started and stopped while the
// application is not logging. Everything else shared between threads (the
// client pointer, the token, the registration threads) is guarded by
// stateMutex, which the logging path never touches.
#pragma once

#include <google/protobuf/text_format.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "collector/KPITable.h"
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
        KPI* kpi = liveTable()->find(id);
        if (kpi == nullptr || kpi->GetType() != KPI_EVENT) return -1;
        return 0;
    }
    int LogState(uint32_t id, uint32_t /*from*/, uint32_t /*to*/) {
        KPI* kpi = liveTable()->find(id);
        if (kpi == nullptr) return -1;
        return kpi->GetType() == KPI_STATE ? 0 : -2;
    }
    int Log(uint32_t id, const unsigned char* buf, uint32_t len);

    // True when `def` lies within the collector's fixed limits.
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

    const KPITable& kpiTable() const { return *table; }
    KPISerializer& getSerializer() { return serializer; }

  private:
    // Log for histograms and for duration windows; -1 for a KPI that is not
    // numeric.
    [[gnu::noinline]] static int LogOther(KPI* kpi, uint32_t value);

    const KPITable* liveTable() const { return published.load(std::memory_order_acquire); }
    // Makes `next` the table that logging threads read; the previous one is
    // retired, not freed.
    void publish(std::unique_ptr<KPITable> next);

    struct RegistrationThread {
        std::thread thread;
        bool done = false;
    };

    void startRegistrationThread();
    void registrationLoop(RegistrationThread* self);

    // Guards client, token, the registration threads and `stopping`. Declared
    // first so it outlives every member a writer or transport thread may
    // still reach while the collector is being destroyed.
    mutable std::mutex stateMutex;
    std::condition_variable stateCv;
    bool stopping = false;
    std::list<RegistrationThread> registrationThreads;

    // Fixed campaign limits.
    const uint32_t minTimeThreshold = 1;
    const uint32_t maxTimeThreshold = 21600;
    const uint32_t minSizeThreshold = 100;
    const uint32_t maxSizeThreshold = 4194304;
    const uint32_t maxKpiCount = 1024;
    const uint32_t maxPayloadLength = 1048576;

    const std::string name;
    std::string secondString;
    const uint32_t version;
    zem_campaign_start_cb startCb;
    zem_campaign_stop_cb stopCb;
    std::shared_ptr<zemTransportClient> client;
    // The current table, owned here, and the same table as logging threads
    // see it. Tables and KPIs replaced while a campaign ran wait in the
    // retired lists until the next stop.
    std::unique_ptr<KPITable> table = std::make_unique<KPITable>();
    std::atomic<const KPITable*> published{table.get()};
    std::vector<std::unique_ptr<KPITable>> retiredTables;
    std::vector<std::unique_ptr<KPI>> retiredKpis;
    KPISerializer serializer;
    const uint32_t transport;
    std::string token;
    google::protobuf::TextFormat::Printer printer;
};
