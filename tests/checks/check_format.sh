#!/bin/sh
# Every C and C++ source of the project follows the checked-in .clang-format
# (the aidl-generated peer's inputs and build trees excepted).
set -eu
root=$1
cd "$root"
find include collector kpi serializer transport common platform tools examples tests bench fuzz \
    -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) -print0 |
    xargs -0 clang-format --dry-run -Werror
