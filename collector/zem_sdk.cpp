// The six exported C entry points: thin guards in front of zem_collector.
// Nothing throws across this boundary.
#include "include/zem_sdk.h"

#include <exception>
#include <new>

#include "collector/zem_collector.h"
#include "common/ZemLog.h"

extern "C" {

zem_handle zem_register(const struct zem_cfg_s* cfg) {
    if (cfg == nullptr || cfg->name == nullptr || cfg->cache_dir == nullptr) {
        ZEM_LOGE("zem_register: %s is NULL, no client registered",
                 cfg == nullptr         ? "the configuration"
                 : cfg->name == nullptr ? "name"
                                        : "cache_dir");
        return nullptr;
    }
    zem_collector* collector = nullptr;
    try {
        collector = new zem_collector(*cfg);
        collector->Register();
    } catch (const std::exception& e) {
        ZEM_LOGE("%s: zem_register failed: %s", cfg->name, e.what());
        delete collector;
        return nullptr;
    }
    return collector;
}

int32_t zem_deregister(zem_handle handle) {
    if (handle == nullptr) return -1;
    int32_t rc = -1;
    try {
        rc = handle->DeRegister();
    } catch (const std::exception& e) {
        ZEM_LOGE("%s: zem_deregister: %s", handle->getName().c_str(), e.what());
    }
    try {
        zem_collector::Dispose(handle);
    } catch (const std::exception& e) {
        // Dispose deletes the collector itself when it cannot start its
        // helper thread; what is left to report is the failure.
        ZEM_LOGE("zem_deregister failed: %s", e.what());
    }
    return rc;
}

int32_t zem_log(zem_handle handle, uint32_t kpi_id, uint32_t value) {
    if (handle == nullptr) return -1;
    return handle->Log(kpi_id, value);
}

int32_t zem_log_event(zem_handle handle, uint32_t kpi_id) {
    if (handle == nullptr) return -1;
    return handle->LogEvent(kpi_id, 0);
}

int32_t zem_log_state(zem_handle handle, uint32_t kpi_id) {
    if (handle == nullptr) return -1;
    return handle->LogState(kpi_id, 0, 0);
}

int32_t zem_log_blob(zem_handle handle, uint32_t kpi_id, const uint8_t* buffer, uint32_t length) {
    if (handle == nullptr) return -1;
    return handle->Log(kpi_id, buffer, length);
}

}  // extern "C"
