#!/usr/bin/env bash
# A short fuzz run from the seed corpus, as a ctest smoke test.
#
#   smoke.sh FUZZER SEED_DIR WORK_DIR SECONDS
#
# Every seed runs first; then the fuzzer mutates for SECONDS. New inputs go to
# WORK_DIR/corpus and crash artifacts to WORK_DIR, so the seeds stay as they
# are. Fails on any finding, and when SEED_DIR holds no seed.
set -euo pipefail
fuzzer=$1 seeds=$2 work=$3 seconds=$4

if [ -z "$(ls -A "$seeds" 2>/dev/null)" ]; then
    echo "smoke: no seeds in $seeds" >&2
    exit 1
fi
rm -rf "$work"
mkdir -p "$work/corpus"
exec "$fuzzer" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" "$seeds"
