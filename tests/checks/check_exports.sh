#!/usr/bin/env bash
# libzem_sdk.so must export the six C entry points and nothing else: no
# protobuf, gRPC or C++ symbol of ours may reach a linking process.
set -euo pipefail
lib=$1
expected="zem_deregister
zem_log
zem_log_blob
zem_log_event
zem_log_state
zem_register"
actual=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWwDdBbRrVviu]$/ {print $3}' | sed 's/@.*//' | grep -v '^LIBZEM_SDK' | sort)
if [ "$actual" != "$expected" ]; then
    echo "unexpected exports of $lib:"
    diff <(echo "$expected") <(echo "$actual") || true
    exit 1
fi
echo "1 passed, 0 failed"
