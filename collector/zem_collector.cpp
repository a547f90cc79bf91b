#include "collector/zem_collector.h"

#include <pthread.h>

#include <system_error>
#include <utility>

#include "collector/CampaignRules.h"
#include "collector/CollectorSeams.h"
#include "common/DaemonCall.h"
#include "common/ZemLog.h"
#include "kpi/Blob.h"

namespace zem {
namespace internal {
// The registration thread's view of the seams.
std::shared_ptr<zemTransportClient> makeTransport(uint32_t transport);
std::chrono::milliseconds retryDelay();
std::chrono::milliseconds disposePatience();
bool threadStartFails();
}  // namespace internal
}  // namespace zem

namespace {
constexpr long kRetrySeconds = 5;
constexpr int kRegistrationAttempts = 3;

// Records the thread running a campaign change for its scope.
class CampaignOwner {
  public:
    explicit CampaignOwner(std::atomic<std::thread::id>& owner) : owner(owner) {
        owner.store(std::this_thread::get_id());
    }
    ~CampaignOwner() { owner.store(std::thread::id()); }

  private:
    std::atomic<std::thread::id>& owner;
};
}  // namespace

zem_collector::zem_collector(const zem_cfg_s& cfg)
    : name(cfg.name),
      version(cfg.version),
      startCb(cfg.campaign_start_cb),
      stopCb(cfg.campaign_stop_cb),
      serializer(cfg.cache_dir, this),
      transport(cfg.transport) {
    zem::initGracePeriods();
    published.store(table.get(), std::memory_order_seq_cst);
    printer.SetSingleLineMode(true);
}

zem_collector::~zem_collector() {
    std::shared_ptr<zemTransportClient> current;
    {
        zem::MutexLock lock(&stateMutex);
        stopping = true;
        current = client;
    }
    stateCv.notifyAll();
    // The client stays in place while it forgets us: a campaign stop already
    // running on a transport thread still delivers its last file through it,
    // and forgetCollector waits for that call to return.
    if (current) current->forgetCollector(this);
    std::list<RegistrationThread> threads;
    std::vector<std::thread> stopThreads;
    {
        zem::MutexLock lock(&stateMutex);
        threads.swap(registrationThreads);
        stopThreads.swap(deferredStopThreads);
    }
    // A registration thread sleeping between attempts wakes up on `stopping`;
    // one inside registerClient finishes that attempt first.
    for (RegistrationThread& t : threads) t.thread.join();
    // A stop that arrived inside a call to the daemon finishes, delivering
    // its last file while the client is still here.
    for (std::thread& t : stopThreads) t.join();
    {
        zem::MutexLock lock(&stateMutex);
        current = std::move(client);
    }
    // That last attempt may have registered us with the client again.
    if (current) current->forgetCollector(this);
    current.reset();
    zem::MutexLock campaign(&campaignMutex);
    // No logging thread may still be in the table (the application does not
    // log while deregistering); the wait costs little and makes sure.
    published.store(nullptr, std::memory_order_seq_cst);
    zem::waitForReaders();
    // Records still queued are written; a rollover meanwhile finds no client
    // and leaves its file for the next run.
    serializer.stopWriterThread();
}

void zem_collector::Dispose(zem_collector* collector) {
    struct Latch {
        std::mutex mutex;
        std::condition_variable cv;
        bool done = false;
    };
    auto latch = std::make_shared<Latch>();
    const std::string name = collector->name;
    try {
        std::thread([collector, latch] {
            pthread_setname_np(pthread_self(), "zem_dispose");
            delete collector;
            std::lock_guard<std::mutex> lock(latch->mutex);
            latch->done = true;
            latch->cv.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        delete collector;
        return;
    }
    std::unique_lock<std::mutex> lock(latch->mutex);
    if (!latch->cv.wait_for(lock, zem::internal::disposePatience(), [&] { return latch->done; })) {
        ZEM_LOGE(
                "%s: a call to the daemon is still waiting for its answer; the collector is freed "
                "when it returns",
                name.c_str());
    }
}

std::string zem_collector::getToken() const {
    zem::MutexLock lock(&stateMutex);
    return token;
}

void zem_collector::setToken(const std::string& t) {
    zem::MutexLock lock(&stateMutex);
    token = t;
}

std::shared_ptr<zemTransportClient> zem_collector::getClient() const {
    zem::MutexLock lock(&stateMutex);
    return client;
}

bool zem_collector::registering() const {
    zem::MutexLock lock(&stateMutex);
    for (const RegistrationThread& t : registrationThreads) {
        if (!t.done) return true;
    }
    return false;
}

int zem_collector::SendData(const std::string& filename) {
    std::shared_ptr<zemTransportClient> c = getClient();
    if (!c) {
        ZEM_LOGE("%s: no transport client, keeping %s", name.c_str(), filename.c_str());
        return -1;
    }
    return c->sendData(filename, getToken());
}

int zem_collector::Register() {
    startRegistrationThread();
    return 0;
}

int zem_collector::DeRegister() {
    std::shared_ptr<zemTransportClient> c = getClient();
    if (!c) {
        ZEM_LOGE("%s: not registered, nothing to deregister", name.c_str());
        return -1;
    }
    return c->deRegisterClient(getToken());
}

void zem_collector::startRegistrationThread() {
    zem::MutexLock lock(&stateMutex);
    if (stopping) return;
    // Threads of earlier series that have finished are joined here, so a
    // long-lived process that reconnects often does not pile them up.
    for (auto it = registrationThreads.begin(); it != registrationThreads.end();) {
        if (it->done) {
            it->thread.join();
            it = registrationThreads.erase(it);
        } else {
            ++it;
        }
    }
    registrationThreads.emplace_back();
    RegistrationThread* self = &registrationThreads.back();
    try {
        if (zem::internal::threadStartFails()) {
            throw std::system_error(
                    std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        self->thread = std::thread(&zem_collector::registrationLoop, this, self);
    } catch (...) {
        // No entry without a thread: the destructor joins every entry.
        registrationThreads.pop_back();
        throw;
    }
}

void zem_collector::registrationLoop(RegistrationThread* self) {
    for (int attempt = 0; attempt < kRegistrationAttempts; ++attempt) {
        std::shared_ptr<zemTransportClient> made = zem::internal::makeTransport(transport);
        std::shared_ptr<zemTransportClient> c;
        {
            zem::MutexLock lock(&stateMutex);
            if (stopping) break;
            if (made) client = made;
            c = client;
        }
        const int rc = c ? c->registerClient(name, version, this) : -1;
        if (rc == 0) {
            ZEM_LOGI("%s: SPC registration succeeded", name.c_str());
            break;
        }
        ZEM_LOGE("%s: SPC registration failed - waiting for %ld seconds before retrying",
                 name.c_str(), kRetrySeconds);
        std::shared_ptr<zemTransportClient> old;
        {
            zem::MutexLock lock(&stateMutex);
            if (client) {
                ZEM_LOGI("%s: Resetting client ptr", name.c_str());
                old = std::move(client);
            }
        }
        if (old) {
            old->forgetCollector(this);
            old.reset();
        }
        // The wait follows the last attempt too; destruction cuts it short.
        const auto deadline = std::chrono::steady_clock::now() + zem::internal::retryDelay();
        zem::MutexLock lock(&stateMutex);
        while (!stopping && std::chrono::steady_clock::now() < deadline) {
            stateCv.waitFor(&stateMutex, deadline - std::chrono::steady_clock::now());
        }
        if (stopping) break;
    }
    zem::MutexLock lock(&stateMutex);
    self->done = true;
}

int zem_collector::LostConn() {
    {
        zem::MutexLock campaign(&campaignMutex);
        CampaignOwner owner(campaignOwner);
        runDeferredStopsLocked();
        if (!table->empty()) {
            ZEM_LOGI("%s: %s called for token - %s", name.c_str(), "StopCampaign",
                     getToken().c_str());
            if (stopCb != nullptr) stopCb();
            stopLocked();
        }
    }
    ZEM_LOGI("%s: zem_collector::LostConn deleteing client instance for token - %s", name.c_str(),
             getToken().c_str());
    std::shared_ptr<zemTransportClient> old;
    {
        zem::MutexLock lock(&stateMutex);
        old = std::move(client);
    }
    // On a transport thread this may destroy the very client whose thread
    // runs this call; the client copes with being released from its own
    // thread.
    old.reset();
    try {
        startRegistrationThread();
    } catch (const std::system_error& e) {
        // Nothing may escape to the transport's thread; the collector stays
        // unregistered, as after three failed attempts.
        ZEM_LOGE("%s: cannot register again: %s", name.c_str(), e.what());
    }
    return 0;
}

bool zem_collector::validCfg(const LTCCampaignDef& def) const {
    return !zem::campaignLimitProblem(def).has_value();
}

int zem_collector::StartCampaign(const std::string& config) {
    if (zem::insideDaemonCall()) return startFromDaemonCall(config);
    zem::MutexLock campaign(&campaignMutex);
    CampaignOwner owner(campaignOwner);
    runDeferredStopsLocked();
    return startLocked(config);
}

int zem_collector::startLocked(const std::string& config) {
    ZEM_LOGI("%s: %s called for token - %s", name.c_str(), "StartCampaign", getToken().c_str());
    LTCCampaignDef def;
    if (!def.ParseFromString(config)) {
        ZEM_LOGE("%s: failed to parse campaign config", name.c_str());
        return -1;
    }
    ZEM_LOGI("%s: Recvd Thresholds Size: %d Time: %d", name.c_str(),
             static_cast<int>(def.size_threshold()), static_cast<int>(def.time_threshold()));
    // Everything the rules refuse, found once; each record is logged where
    // the start meets it.
    const std::vector<zem::CampaignProblem> problems = zem::campaignProblems(def);
    if (!problems.empty() && problems.front().kpiIndex < 0) {
        zem::logCollectorLines(problems.front(), name);
        return -1;
    }
    if (serializer.Initialize(def.size_threshold(), def.time_threshold()) != 0) return -1;

    // The KPIs go into a new table, published when complete (or at the first
    // failure, with those inserted so far), so logging threads never see a
    // table being changed. KPIs it replaces are freed once no logging thread
    // can still be in them.
    auto next = std::make_unique<KPITable>();
    next->adopt(*table, static_cast<size_t>(def.kpicfgs_size()));
    std::vector<std::unique_ptr<KPI>> replaced;
    int result = 0;
    for (int i = 0; i < def.kpicfgs_size(); ++i) {
        const KPICfg& cfg = def.kpicfgs(i);
        std::string text;
        printer.PrintToString(cfg, &text);
        ZEM_LOGI("%s: Recvd KPICfg %s", name.c_str(), text.c_str());
        std::unique_ptr<KPI> kpi = KPI::Create(cfg, serializer);
        if (!kpi) {
            // KPI::Create decides by the same rules, so the record is there;
            // it logged its own line already.
            for (const zem::CampaignProblem& p : problems) {
                if (p.kpiIndex == i) zem::logCollectorLines(p, name);
            }
            result = -1;
            break;
        }
        // The last KPICfg with a given id wins.
        std::unique_ptr<KPI> old =
                next->insertOrReplace(static_cast<uint32_t>(cfg.id()), std::move(kpi));
        if (old) replaced.push_back(std::move(old));
    }
    publish(std::move(next));
    replaced.clear();
    if (result != 0) return result;

    if (startCb != nullptr) {
        const std::string& payload = def.cfg_payload();
        return startCb(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    }
    return 0;
}

std::unique_ptr<KPITable> zem_collector::publish(std::unique_ptr<KPITable> next) {
    std::unique_ptr<KPITable> old = std::move(table);
    table = std::move(next);
    published.store(table.get(), std::memory_order_seq_cst);
    zem::waitForReaders();
    return old;
}

int zem_collector::StopCampaign() {
    if (zem::insideDaemonCall()) return stopFromDaemonCall();
    zem::MutexLock campaign(&campaignMutex);
    CampaignOwner owner(campaignOwner);
    runDeferredStopsLocked();
    ZEM_LOGI("%s: %s called for token - %s", name.c_str(), "StopCampaign", getToken().c_str());
    const int result = stopCb != nullptr ? stopCb() : 0;
    stopLocked();
    return result;
}

void zem_collector::stopLocked() {
    // Logging threads are sent to an empty table first; once none can still
    // be adding to a KPI, every partly filled window becomes a record before
    // its KPI goes.
    std::unique_ptr<KPITable> old = publish(std::make_unique<KPITable>());
    old->forEach([](uint32_t, KPI& kpi) { kpi.Serialize(); });
    old.reset();
    serializer.Finalize();
}

int zem_collector::stopFromDaemonCall() {
    // The daemon called us back from inside a call this thread is making to
    // it. The thread may hold the binder client's call lock, be the writer
    // thread, or be inside a campaign change already: the stop callback
    // answers now, and a helper thread serializes, frees and delivers the
    // last file once the call has returned.
    ZEM_LOGI("%s: %s called for token - %s", name.c_str(), "StopCampaign", getToken().c_str());
    const int result = stopCb != nullptr ? stopCb() : 0;
    zem::MutexLock lock(&stateMutex);
    if (stopping) return result;
    ++deferredStops;
    try {
        deferredStopThreads.emplace_back([this] {
            pthread_setname_np(pthread_self(), "zem_stop");
            zem::MutexLock campaign(&campaignMutex);
            CampaignOwner owner(campaignOwner);
            runDeferredStopsLocked();
        });
    } catch (const std::system_error&) {
        // The next campaign change, or the destruction, finishes it.
        ZEM_LOGE("%s: could not start a thread to finish the campaign stop", name.c_str());
    }
    return result;
}

void zem_collector::runDeferredStopsLocked() {
    {
        zem::MutexLock lock(&stateMutex);
        if (deferredStops == 0) return;
        deferredStops = 0;
    }
    stopLocked();
}

int zem_collector::startFromDaemonCall(const std::string& config) {
    // Started here only when no other change runs or waits: this thread must
    // not wait for the campaign lock (its holder may be waiting for a call
    // this thread makes) nor deliver a file (a pending stop would).
    const bool mine = campaignOwner.load() == std::this_thread::get_id();
    if (!mine && campaignMutex.try_lock()) {
        campaignMutex.assertHeld();
        bool pending;
        {
            zem::MutexLock lock(&stateMutex);
            pending = deferredStops != 0;
        }
        int result = -1;
        if (!pending) {
            CampaignOwner owner(campaignOwner);
            result = startLocked(config);
        }
        campaignMutex.unlock();
        if (!pending) return result;
    }
    ZEM_LOGE(
            "%s: %s refused: it arrived inside a call to the daemon while another campaign "
            "change runs",
            name.c_str(), "StartCampaign");
    return -1;
}

int zem_collector::LogOther(KPI* kpi, uint32_t value) {
    // The sample add functions return 0.
    if (kpi->GetCountedPath() == KPI::CountedPath::kHistogram) {
        return static_cast<Histogram*>(kpi)->AddCountedSampleAs<Histogram>(KPI::Clock::now(),
                                                                           value);
    }
    if (kpi->GetType() != KPI_NUMERIC) return -1;
    const KPI::TimePoint now = KPI::Clock::now();
    switch (kpi->GetSubType()) {
        case COUNTER:
            return static_cast<Counter*>(kpi)->AddSampleAs<Counter>(now, value);
        case GAUGE:
            return static_cast<Gauge*>(kpi)->AddSampleAs<Gauge>(now, value);
        default:
            return static_cast<Histogram*>(kpi)->AddSampleAs<Histogram>(now, value);
    }
}

int zem_collector::Log(uint32_t id, const unsigned char* buf, uint32_t len) {
    zem::ReadSection section;
    KPI* kpi = liveTable()->find(id);
    if (kpi == nullptr) return -1;
    if (kpi->GetType() != KPI_BLOB) return -2;
    if (buf == nullptr) {
        if (len != 0) return -1;
        static const unsigned char kEmpty = 0;
        buf = &kEmpty;
    }
    return static_cast<Blob*>(kpi)->LogBuf(buf, len);
}
