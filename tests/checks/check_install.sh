#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds the C example out of
# tree against it, once through find_package(zem_sdk CONFIG) and once through
# pkg-config as docs/integration.md writes it; both programs must link the
# installed library and run. The installed tools must run too.
set -euo pipefail
build=$1
src=$2
# A sanitizer build's library needs its consumers built the same way.
sanitize=${3:-}
san_flags=""
[ -n "$sanitize" ] && san_flags="-fsanitize=$sanitize"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null

mkdir -p "$work/cmake-consumer"
cat > "$work/cmake-consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.18)
project(consumer C)
find_package(zem_sdk 1.0 CONFIG REQUIRED)
find_package(Threads REQUIRED)
add_executable(frame_pipeline "$src/examples/frame_pipeline.c")
target_link_libraries(frame_pipeline PRIVATE zem_sdk::zem_sdk Threads::Threads)
CMAKE
cmake -S "$work/cmake-consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_C_FLAGS="$san_flags" -DCMAKE_EXE_LINKER_FLAGS="$san_flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
cc -std=c99 -Wall -Werror $san_flags -o "$work/pc-frame_pipeline" "$src/examples/frame_pipeline.c" \
    $(pkg-config --cflags --libs zem_sdk) -pthread -Wl,-rpath,"$(pkg-config --variable=libdir zem_sdk)"

for bin in "$work/cmake-build/frame_pipeline" "$work/pc-frame_pipeline"; do
    libs=$(ldd "$bin")
    # The run path may reach the library through "..": compare real paths.
    used=$(awk '$1 ~ /^libzem_sdk\.so/ { print $3 }' <<<"$libs")
    if [ -z "$used" ] || [ "$(readlink -f "$used")" != "$(readlink -f "$work/prefix/lib/libzem_sdk.so")" ]; then
        echo "$bin does not use the installed library"; echo "$libs"; exit 1
    fi
    "$bin" --help >/dev/null
done
for tool in zemd zemdump zemctl; do
    "$work/prefix/bin/$tool" --help >/dev/null
done
[ -f "$work/prefix/share/zem_sdk/catalog.proto" ]
echo "1 passed, 0 failed"
