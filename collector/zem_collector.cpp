#include "collector/zem_collector.h"

#include <pthread.h>

#include <system_error>
#include <utility>

#include "collector/CollectorSeams.h"
#include "common/ZemLog.h"
#include "kpi/Blob.h"

namespace zem {
namespace internal {
// The registration thread's view of the seams.
std::shared_ptr<zemTransportClient> makeTransport(uint32_t transport);
std::chrono::milliseconds retryDelay();
std::chrono::milliseconds disposePatience();
}  // namespace internal
}  // namespace zem

namespace {
constexpr long kRetrySeconds = 5;
constexpr int kRegistrationAttempts = 3;
}  // namespace

zem_collector::zem_collector(const zem_cfg_s& cfg)
    : name(cfg.name),
      version(cfg.version),
      startCb(cfg.campaign_start_cb),
      stopCb(cfg.campaign_stop_cb),
      serializer(cfg.cache_dir, this),
      transport(cfg.transport) {
    printer.SetSingleLineMode(true);
}

zem_collector::~zem_collector() {
    std::shared_ptr<zemTransportClient> current;
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        stopping = true;
        current = client;
    }
    stateCv.notify_all();
    // The client stays in place while it forgets us: a campaign stop already
    // running on a transport thread still delivers its last file through it,
    // and forgetCollector waits for that call to return.
    if (current) current->forgetCollector(this);
    std::list<RegistrationThread> threads;
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        threads.swap(registrationThreads);
    }
    // A registration thread sleeping between attempts wakes up on `stopping`;
    // one inside registerClient finishes that attempt first.
    for (RegistrationThread& t : threads) t.thread.join();
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        current = std::move(client);
    }
    // That last attempt may have registered us with the client again.
    if (current) current->forgetCollector(this);
    current.reset();
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
        ZEM_LOGE("%s: a call to the daemon is still waiting for its answer; the collector is freed "
                 "when it returns",
                 name.c_str());
    }
}

std::string zem_collector::getToken() const {
    std::lock_guard<std::mutex> lock(stateMutex);
    return token;
}

void zem_collector::setToken(const std::string& t) {
    std::lock_guard<std::mutex> lock(stateMutex);
    token = t;
}

std::shared_ptr<zemTransportClient> zem_collector::getClient() const {
    std::lock_guard<std::mutex> lock(stateMutex);
    return client;
}

bool zem_collector::registering() const {
    std::lock_guard<std::mutex> lock(stateMutex);
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
    std::lock_guard<std::mutex> lock(stateMutex);
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
    self->thread = std::thread(&zem_collector::registrationLoop, this, self);
}

void zem_collector::registrationLoop(RegistrationThread* self) {
    for (int attempt = 0; attempt < kRegistrationAttempts; ++attempt) {
        std::shared_ptr<zemTransportClient> made = zem::internal::makeTransport(transport);
        std::shared_ptr<zemTransportClient> c;
        {
            std::lock_guard<std::mutex> lock(stateMutex);
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
        std::unique_lock<std::mutex> lock(stateMutex);
        if (client) {
            ZEM_LOGI("%s: Resetting client ptr", name.c_str());
            old = std::move(client);
        }
        if (old) {
            lock.unlock();
            old->forgetCollector(this);
            old.reset();
            lock.lock();
        }
        // The wait follows the last attempt too; destruction cuts it short.
        stateCv.wait_for(lock, zem::internal::retryDelay(), [this] { return stopping; });
        if (stopping) break;
    }
    std::lock_guard<std::mutex> lock(stateMutex);
    self->done = true;
}

int zem_collector::LostConn() {
    if (!table->empty()) StopCampaign();
    ZEM_LOGI("%s: zem_collector::LostConn deleteing client instance for token - %s", name.c_str(),
             getToken().c_str());
    std::shared_ptr<zemTransportClient> old;
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        old = std::move(client);
    }
    // On a transport thread this may destroy the very client whose thread
    // runs this call; the client copes with being released from its own
    // thread.
    old.reset();
    startRegistrationThread();
    return 0;
}

bool zem_collector::validCfg(const LTCCampaignDef& def) const {
    if (def.size_threshold() < minSizeThreshold) return false;
    if (def.size_threshold() > maxSizeThreshold) return false;
    if (def.time_threshold() < minTimeThreshold) return false;
    if (def.time_threshold() > maxTimeThreshold) return false;
    if (static_cast<uint32_t>(def.kpicfgs_size()) > maxKpiCount) return false;
    if (def.cfg_payload().size() > maxPayloadLength) return false;
    return true;
}

int zem_collector::StartCampaign(const std::string& config) {
    ZEM_LOGI("%s: %s called for token - %s", name.c_str(), "StartCampaign", getToken().c_str());
    LTCCampaignDef def;
    if (!def.ParseFromString(config)) {
        ZEM_LOGE("%s: failed to parse campaign config", name.c_str());
        return -1;
    }
    ZEM_LOGI("%s: Recvd Thresholds Size: %d Time: %d", name.c_str(),
             static_cast<int>(def.size_threshold()), static_cast<int>(def.time_threshold()));
    if (!validCfg(def)) {
        ZEM_LOGE("%s: invalid campaign config", name.c_str());
        return -1;
    }
    if (serializer.Initialize(def.size_threshold(), def.time_threshold()) != 0) return -1;

    // The KPIs go into a new table, published when complete (or at the first
    // failure, with those inserted so far), so logging threads never see a
    // table being changed.
    auto next = std::make_unique<KPITable>();
    next->adopt(*table, static_cast<size_t>(def.kpicfgs_size()));
    for (const KPICfg& cfg : def.kpicfgs()) {
        std::string text;
        printer.PrintToString(cfg, &text);
        ZEM_LOGI("%s: Recvd KPICfg %s", name.c_str(), text.c_str());
        std::unique_ptr<KPI> kpi = KPI::Create(cfg, serializer);
        if (!kpi) {
            publish(std::move(next));
            ZEM_LOGE("%s: error: could not create KPI id: %d from KPICfg", name.c_str(), cfg.id());
            return -1;
        }
        // The last KPICfg with a given id wins.
        std::unique_ptr<KPI> replaced =
                next->insertOrReplace(static_cast<uint32_t>(cfg.id()), std::move(kpi));
        if (replaced) retiredKpis.push_back(std::move(replaced));
    }
    publish(std::move(next));

    if (startCb != nullptr) {
        const std::string& payload = def.cfg_payload();
        return startCb(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    }
    return 0;
}

void zem_collector::publish(std::unique_ptr<KPITable> next) {
    retiredTables.push_back(std::move(table));
    table = std::move(next);
    published.store(table.get(), std::memory_order_release);
}

int zem_collector::StopCampaign() {
    ZEM_LOGI("%s: %s called for token - %s", name.c_str(), "StopCampaign", getToken().c_str());
    const int result = stopCb != nullptr ? stopCb() : 0;
    // Every partly filled window becomes a record before its KPI goes. The
    // application stops logging when told of the stop, so from here on
    // nothing reads the tables and KPIs freed below.
    table->forEach([](uint32_t, KPI& kpi) { kpi.Serialize(); });
    table->clear();
    retiredKpis.clear();
    retiredTables.clear();
    serializer.Finalize();
    return result;
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
