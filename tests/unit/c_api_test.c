/*
 * The public header used from plain C99 against the shared library: every
 * entry point links, and a client with no daemon present still gets a handle that logs and
 * deregisters cleanly.
 */
#include <stdio.h>
#include <stdlib.h>

#include "zem_sdk.h"

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: CHECK failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

static int32_t on_start(const uint8_t* payload, uint64_t length) {
    (void)payload;
    (void)length;
    return 0;
}

int main(void) {
    struct zem_cfg_s cfg = {0};
    zem_handle h;
    uint8_t bytes[4] = {1, 2, 3, 4};

    cfg.name = "c_api_test";
    cfg.version = (1u << 8) | 0u;
    cfg.cache_dir = "/tmp";
    cfg.campaign_start_cb = on_start;
    cfg.transport = 99u; /* no transport: registration fails in the background */
    h = zem_register(&cfg);
    CHECK(h != NULL);
    /* No campaign yet: every id is unknown. */
    CHECK(zem_log(h, 1, 1) == -1);
    CHECK(zem_log_event(h, 1) == -1);
    CHECK(zem_log_state(h, 1) == -1);
    CHECK(zem_log_blob(h, 1, bytes, sizeof bytes) == -1);
    /* Never registered: nothing to deregister, the handle is freed anyway. */
    CHECK(zem_deregister(h) == -1);

    if (failures == 0) printf("1 passed, 0 failed\n");
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
