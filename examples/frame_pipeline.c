/*
 * frame_pipeline: a zem_sdk client that reports a simulated video frame
 * pipeline.
 *
 * It registers over gRPC, waits for the daemon's campaign, then renders
 * frames at a fixed rate for a while and logs, per frame, its latency
 * (histogram, KPI 1) and whether it was dropped (counter, KPI 3); four times
 * a second the measured frame rate (gauge, KPI 2); and a text blob for every
 * slow frame (KPI 4). The campaign that names these ids is
 * frame_pipeline.campaign.txtpb.
 *
 *   frame_pipeline [--seconds N] [--fps N] [--cache DIR] [--wait SECONDS]
 *                  [--transport grpc|binder]
 *
 * With --transport binder it registers over binder instead (the daemon's
 * service "vendor_zemsdkservice").
 *
 * The daemon starts and stops campaigns from the library's threads. The
 * campaign callbacks and the render loop share one mutex, held while a
 * frame's samples are logged, so no sample is logged while the library
 * changes the campaign.
 */
#define _POSIX_C_SOURCE 200809L

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "zem_sdk.h"

enum { KPI_LATENCY = 1, KPI_FPS = 2, KPI_DROPPED = 3, KPI_ERRORS = 4 };

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_changed = PTHREAD_COND_INITIALIZER;
static int g_running;   /* a campaign is running; guarded by g_lock */
static int g_campaigns; /* campaigns started so far; guarded by g_lock */

/* Library thread: the campaign is set up and its KPIs exist. */
static int32_t on_campaign_start(const uint8_t* payload, uint64_t length) {
    printf("frame_pipeline: campaign started, payload \"%.*s\" (%llu bytes)\n", (int)length,
           (const char*)payload, (unsigned long long)length);
    fflush(stdout);
    pthread_mutex_lock(&g_lock);
    g_running = 1;
    g_campaigns++;
    pthread_cond_broadcast(&g_changed);
    pthread_mutex_unlock(&g_lock);
    return 0;
}

/* Library thread: runs before the KPIs are flushed and deleted. Taking the
 * lock waits for the frame being logged; afterwards the loop logs nothing. */
static int32_t on_campaign_stop(void) {
    pthread_mutex_lock(&g_lock);
    g_running = 0;
    pthread_cond_broadcast(&g_changed);
    pthread_mutex_unlock(&g_lock);
    printf("frame_pipeline: campaign stopped\n");
    fflush(stdout);
    return 0;
}

static double now_s(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static void sleep_s(double s) {
    struct timespec ts;
    ts.tv_sec = (time_t)s;
    ts.tv_nsec = (long)((s - (double)ts.tv_sec) * 1e9);
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

/* Waits until `*counter` exceeds `seen` or `timeout` seconds pass. */
static int wait_count(const int* counter, int seen, double timeout) {
    struct timespec deadline;
    int ok;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += (time_t)timeout;
    pthread_mutex_lock(&g_lock);
    while (*counter <= seen) {
        if (pthread_cond_timedwait(&g_changed, &g_lock, &deadline) == ETIMEDOUT) break;
    }
    ok = *counter > seen;
    pthread_mutex_unlock(&g_lock);
    return ok;
}

/* Waits until no campaign runs or `timeout` seconds pass. */
static int wait_stopped(double timeout) {
    struct timespec deadline;
    int ok;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += (time_t)timeout;
    pthread_mutex_lock(&g_lock);
    while (g_running) {
        if (pthread_cond_timedwait(&g_changed, &g_lock, &deadline) == ETIMEDOUT) break;
    }
    ok = !g_running;
    pthread_mutex_unlock(&g_lock);
    return ok;
}

/* Waits until the cache directory holds no "kpidata." file, i.e. the library
 * has delivered what it cached, or `timeout` seconds pass. The last file of a
 * campaign is delivered just after the stop callback returns. */
static int wait_cache_drained(const char* dir, double timeout) {
    const double end = now_s() + timeout;
    for (;;) {
        int pending = 0;
        DIR* d = opendir(dir);
        struct dirent* e;
        while (d != NULL && (e = readdir(d)) != NULL) {
            if (strncmp(e->d_name, "kpidata.", 8) == 0) pending++;
        }
        if (d != NULL) closedir(d);
        if (pending == 0) return 1;
        if (now_s() > end) return 0;
        sleep_s(0.02);
    }
}

/* A deterministic pseudo-random frame latency in milliseconds: mostly 8 to
 * 15 ms, with occasional slow frames up to about 120 ms. */
static uint32_t next_latency(uint32_t* state) {
    uint32_t r;
    *state = *state * 1664525u + 1013904223u;
    r = *state >> 8;
    if (r % 53 == 0) return 34 + r % 90;
    if (r % 11 == 0) return 17 + r % 12;
    return 8 + r % 8;
}

static void usage(FILE* out) {
    fprintf(out,
            "usage: frame_pipeline [--seconds N] [--fps N] [--cache DIR] [--wait SECONDS]\n"
            "  --seconds N   how long to render once the campaign runs (default 6)\n"
            "  --fps N       target frame rate (default 60)\n"
            "  --cache DIR   cache directory (default: a fresh temporary one, removed at exit)\n"
            "  --wait S      how long to wait for the campaign to start and to stop (default "
            "30)\n"
            "  --transport T grpc (default) or binder\n");
}

static void remove_dir(const char* dir) {
    char cmd[512];
    snprintf(cmd, sizeof cmd, "rm -rf '%s'", dir);
    if (system(cmd) != 0) fprintf(stderr, "frame_pipeline: could not remove %s\n", dir);
}

int main(int argc, char** argv) {
    double seconds = 6, wait = 30;
    int fps = 60;
    const char* cache = NULL;
    char tmp[] = "/tmp/frame_pipeline.XXXXXX";
    int own_cache = 0, i, status = 0;
    long frames = 0, dropped = 0, errors = 0, fps_samples = 0, rejected = 0;
    uint32_t rng = 12345;
    struct zem_cfg_s cfg;
    zem_handle h;
    int32_t rc;
    uint32_t transport = ZEM_TRANSPORT_GRPC;

    for (i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = atof(argv[++i]);
        } else if (strcmp(argv[i], "--fps") == 0 && i + 1 < argc) {
            fps = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--cache") == 0 && i + 1 < argc) {
            cache = argv[++i];
        } else if (strcmp(argv[i], "--wait") == 0 && i + 1 < argc) {
            wait = atof(argv[++i]);
        } else if (strcmp(argv[i], "--transport") == 0 && i + 1 < argc) {
            ++i;
            if (strcmp(argv[i], "binder") == 0) {
                transport = ZEM_TRANSPORT_BINDER;
            } else if (strcmp(argv[i], "grpc") != 0) {
                usage(stderr);
                return 2;
            }
        } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 2;
        }
    }
    if (fps < 1 || fps > 1000 || seconds < 0) {
        usage(stderr);
        return 2;
    }
    if (cache == NULL) {
        cache = mkdtemp(tmp);
        if (cache == NULL) {
            perror("frame_pipeline: mkdtemp");
            return 1;
        }
        own_cache = 1;
    }

    memset(&cfg, 0, sizeof cfg);
    cfg.name = "frame_pipeline";
    cfg.version = (1u << 8) | 2u; /* 1.2 */
    cfg.cache_dir = cache;
    cfg.campaign_start_cb = on_campaign_start;
    cfg.campaign_stop_cb = on_campaign_stop;
    cfg.transport = transport;
    h = zem_register(&cfg);
    if (h == NULL) return 1;
    printf("frame_pipeline: registering; waiting for a campaign\n");
    fflush(stdout);

    if (!wait_count(&g_campaigns, 0, wait)) {
        fprintf(stderr, "frame_pipeline: no campaign within %.0f s\n", wait);
        status = 1;
    } else {
        const double frame = 1.0 / fps;
        const double start = now_s();
        double next_fps = start + 0.25, fps_window = start;
        long fps_frames = 0;
        while (now_s() - start < seconds) {
            const uint32_t latency = next_latency(&rng);
            const double t = now_s();
            pthread_mutex_lock(&g_lock);
            if (g_running) {
                frames++;
                fps_frames++;
                rejected += zem_log(h, KPI_LATENCY, latency) != 0;
                rejected += zem_log(h, KPI_DROPPED, latency > 33) != 0;
                dropped += latency > 33;
                if (latency > 50) {
                    char msg[96];
                    int n = snprintf(msg, sizeof msg, "slow frame %ld: %u ms in decode", frames,
                                     (unsigned)latency);
                    rejected += zem_log_blob(h, KPI_ERRORS, (const uint8_t*)msg, (uint32_t)n) != 0;
                    errors++;
                }
                if (t >= next_fps) {
                    rejected += zem_log(h, KPI_FPS,
                                        (uint32_t)(fps_frames / (t - fps_window) + 0.5)) != 0;
                    fps_samples++;
                    fps_frames = 0;
                    fps_window = t;
                    next_fps = t + 0.25;
                }
            }
            pthread_mutex_unlock(&g_lock);
            sleep_s(frame);
        }
        printf("frame_pipeline: %ld frames in %.1f s: %ld dropped, %ld errors, %ld fps samples, "
               "%ld samples rejected\n",
               frames, seconds, dropped, errors, fps_samples, rejected);
        fflush(stdout);

        /* The daemon decides when the campaign ends; the last windows are
         * delivered then. */
        if (!wait_stopped(wait)) {
            fprintf(stderr, "frame_pipeline: campaign still running after %.0f s\n", wait);
            status = 1;
        } else if (!wait_cache_drained(cache, 5)) {
            fprintf(stderr, "frame_pipeline: cache files in %s not delivered\n", cache);
            status = 1;
        }
    }

    rc = zem_deregister(h);
    printf("frame_pipeline: deregistered (status %d)\n", (int)rc);
    if (own_cache) remove_dir(cache);
    return status;
}
