/*
 * zem_sdk: report key performance indicators (KPIs) to the device's
 * collection daemon.
 *
 * A process registers once, then logs raw samples tagged with a numeric KPI
 * id. The daemon sends campaigns naming the KPIs it wants and how to
 * aggregate them; the library aggregates in-process, writes each closed
 * window to cache files and ships finished files to the daemon.
 *
 * Conventions:
 *  1. Status codes: 0 is success. -1 means a null handle, an id the running
 *     campaign does not name (or no campaign yet), a wrong KPI type on the
 *     numeric and event paths, or a rejected blob. -2 means a wrong KPI type
 *     on the state and blob paths. Nothing throws across this interface.
 *  2. Threading: any thread may log at any time, also while the daemon
 *     starts, merges or stops a campaign on the library's own threads; no
 *     lock of the application's is needed. One KPI id must not be logged
 *     from two threads at once; different ids may be logged concurrently.
 *     zem_deregister must not race with logging calls on the same handle.
 *     A sample that races a campaign stop lands in the window the stop
 *     writes out, or is refused with -1.
 *  3. Ownership: zem_register copies everything from the configuration
 *     record; the caller may free it (and its strings) as soon as the call
 *     returns. The handle stays valid until zem_deregister destroys it.
 *  4. Blocking: the logging calls never block or log. zem_log,
 *     zem_log_event and zem_log_state allocate nothing (a thread's first
 *     call sets up its per-thread record once); zem_log_blob copies the
 *     buffer into the open window. zem_register returns at once;
 *     registration with the daemon runs on a thread of its own.
 *
 * Usage:
 *
 *   static int32_t on_start(const uint8_t* payload, uint64_t len) { return 0; }
 *
 *   struct zem_cfg_s cfg = {0};
 *   cfg.name = "camera.pipeline";
 *   cfg.version = (1u << 8) | 2u;              // version 1.2
 *   cfg.cache_dir = "/data/vendor/camera/zem";
 *   cfg.campaign_start_cb = on_start;
 *   cfg.transport = ZEM_TRANSPORT_GRPC;
 *   zem_handle h = zem_register(&cfg);
 *   ...
 *   zem_log(h, 42, frame_latency_us);          // -1 until a campaign names 42
 *   ...
 *   zem_deregister(h);
 */
#ifndef ZEM_SDK_H
#define ZEM_SDK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZEM_EXPORT __attribute__((visibility("default")))
#else
#define ZEM_EXPORT
#endif

/* Values of zem_cfg_s.transport. */
#define ZEM_TRANSPORT_BINDER 1u
#define ZEM_TRANSPORT_GRPC 2u

/*
 * Called on a library thread once a campaign has been set up, with the
 * campaign's opaque payload. Its result is reported to the daemon. The
 * thread is the gRPC command-stream thread, a binder pool thread or the
 * registration thread; callbacks of one handle never run at the same time.
 * Keep it short; it may log, but must not call zem_deregister.
 */
typedef int32_t (*zem_campaign_start_cb)(const uint8_t* payload, uint64_t length);

/*
 * Called on a library thread when a campaign is stopped, before its last
 * windows are written out; its result is reported to the daemon. The
 * thread is one of those above, the binder death thread, or the thread of
 * a call the library is making to the daemon when the daemon sends the stop
 * from inside it. Keep it short; it must not call zem_deregister.
 */
typedef int32_t (*zem_campaign_stop_cb)(void);

/* The configuration record of zem_register. */
struct zem_cfg_s {
    /* Client name, sent to the daemon; prefixes this client's log lines. */
    const char* name;
    /* Client version: major number in bits 8 and up, minor in the low 8. */
    uint32_t version;
    /* Existing directory for the "kpidata." cache files. */
    const char* cache_dir;
    /* May be null. */
    zem_campaign_start_cb campaign_start_cb;
    /* May be null. */
    zem_campaign_stop_cb campaign_stop_cb;
    /* ZEM_TRANSPORT_BINDER or ZEM_TRANSPORT_GRPC. */
    uint32_t transport;
};

#ifdef __cplusplus
class zem_collector;
#else
typedef struct zem_collector zem_collector;
#endif

/* Opaque handle of one registered client. */
typedef zem_collector* zem_handle;

/*
 * Registers a client and starts connecting to the daemon in the background.
 *
 * \param cfg  the configuration; copied, may be freed after the call.
 * \return     the handle, or NULL (with an ERROR line in the log) when cfg,
 *             cfg->name or cfg->cache_dir is NULL. With no daemon present it
 *             still returns a usable handle and keeps trying three times,
 *             5 seconds apart.
 */
ZEM_EXPORT zem_handle zem_register(const struct zem_cfg_s* cfg);

/*
 * Ends the registration with the daemon and destroys the handle. Records of
 * windows still open are dropped; cache files already written stay on disk
 * and are delivered by a later run. Returns within about 7 seconds whatever
 * the daemon does: a binder call the daemon never answers is left to finish
 * on its own thread, which frees the collector when it returns.
 *
 * \param handle  from zem_register; invalid afterwards.
 * \return        0 on success, the transport's non-zero result, or -1 for a
 *                NULL handle or when the client is not registered (the handle
 *                is destroyed all the same).
 */
ZEM_EXPORT int32_t zem_deregister(zem_handle handle);

/*
 * Logs one numeric sample for a counter, gauge or histogram KPI.
 *
 * \return 0 when the KPI exists and is numeric (the sample may still be
 *         dropped by the aggregator, for example a value outside every
 *         histogram bin); -1 for a NULL handle, an unknown id or another
 *         KPI type.
 */
ZEM_EXPORT int32_t zem_log(zem_handle handle, uint32_t kpi_id, uint32_t value);

/*
 * Logs an event. Events are type-checked but not aggregated.
 *
 * \return 0 for an event KPI; -1 otherwise (NULL handle, unknown id, other
 *         type).
 */
ZEM_EXPORT int32_t zem_log_event(zem_handle handle, uint32_t kpi_id);

/*
 * Logs a state change. State KPIs are type-checked but record nothing.
 *
 * \return 0 for a state KPI; -1 for a NULL handle or an unknown id; -2 for a
 *         KPI of another type.
 */
ZEM_EXPORT int32_t zem_log_state(zem_handle handle, uint32_t kpi_id);

/*
 * Logs a binary sample for a blob KPI. The bytes are copied.
 *
 * \param buffer  the bytes; may be NULL only when length is 0.
 * \param length  must not exceed the KPI's single-sample threshold.
 * \return        0 when stored; -1 for a NULL handle, an unknown id, a buffer
 *                over the threshold, or a NULL buffer with a non-zero length
 *                (nothing is stored or counted); -2 for a KPI of another type.
 */
ZEM_EXPORT int32_t zem_log_blob(zem_handle handle, uint32_t kpi_id, const uint8_t* buffer,
                                uint32_t length);

#ifdef __cplusplus
}
#endif

#endif /* ZEM_SDK_H */
