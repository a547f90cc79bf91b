#!/usr/bin/env bash
# Runs the examples of the documentation, so that they cannot go stale.
#
#   docs_check.sh TOOLS_DIR SAMPLE_CACHE_BIN SOURCE_DIR SHARED_LIB DOC...
#
# Fenced blocks are recognised by their info string:
#   ```txtpb check-ok       a campaign that `zemctl check` accepts
#   ```txtpb check-refused  a campaign that `zemctl check` refuses; a
#   ```text log             block right after it lists log lines (one per line,
#                           the client's name in place of %s) that the check
#                           must print
#   ```sh doctest           commands run with bash -euo pipefail in a scratch
#                           folder holding cache/kpidata.1700000000 (written by
#                           the library), proto/ and examples/; the tools are
#                           on PATH
#   ```c compile            a C file compiled and linked against the library
# Every document must hold at least one such block.
#
# Table rows whose first cell starts with a `field` and whose second reads
# "MIN to MAX" are limits: together they must be exactly what `zemctl limits`
# prints from the library's campaign rules.
set -uo pipefail
tools=$1 sample=$2 src=$3 lib=$4
shift 4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PATH="$tools:$PATH" TMPDIR="$work"
export HOST_BINDER_REGISTRY="docs_check_$$"

mkdir -p "$work/run/cache"
ln -s "$src/proto" "$work/run/proto"
ln -s "$src/examples" "$work/run/examples"
if ! "$sample" "$work/run/cache" 2>"$work/sample.log"; then
    echo "cannot make the sample cache file:"; cat "$work/sample.log"; exit 1
fi

passed=0 failed=0
fail() {
    echo "FAIL $1"
    shift
    printf '%s\n' "$@" | sed 's/^/    /'
    failed=$((failed + 1))
}

for doc in "$@"; do
    name=${doc#"$src"/}
    blocks="$work/blocks"
    rm -rf "$blocks" && mkdir -p "$blocks"
    # One file per tagged block, named N.KIND.LINE; the index lists them.
    awk -v out="$blocks" '
        !inblock && /^```/ {
            info = substr($0, 4); kind = ""
            if (info ~ /^txtpb +check-ok *$/) kind = "ok"
            else if (info ~ /^txtpb +check-refused *$/) kind = "refused"
            else if (info ~ /^text +log *$/) kind = "log"
            else if (info ~ /^sh +doctest *$/) kind = "sh"
            else if (info ~ /^c +compile *$/) kind = "c"
            inblock = 1; n++
            file = (kind == "" ? "" : sprintf("%s/%03d.%s.%d", out, n, kind, NR))
            if (file != "") { printf "" > file; print file > (out "/index") }
            next
        }
        inblock && /^```/ { inblock = 0; if (file != "") close(file); file = ""; next }
        inblock && file != "" { print > file }
    ' "$doc"
    if [ ! -s "$blocks/index" ]; then
        fail "$name: no example block to run"
        continue
    fi
    last_err=""
    while read -r block; do
        base=${block##*/}
        kind=$(echo "$base" | cut -d. -f2)
        line=$(echo "$base" | cut -d. -f3)
        where="$name:$line"
        case "$kind" in
        ok | refused)
            cp "$block" "$work/campaign.txtpb"
            zemctl check "$work/campaign.txtpb" >"$work/out" 2>"$work/err"
            status=$?
            last_err="$work/err.$line"
            cp "$work/err" "$last_err"
            want=0
            [ "$kind" = refused ] && want=1
            if [ "$status" -ne "$want" ]; then
                fail "$where: zemctl check exits $status, not $want" "$(cat "$work/err")"
            else
                passed=$((passed + 1))
            fi
            ;;
        log)
            missing=()
            while IFS= read -r want; do
                [ -z "$want" ] && continue
                # The documented %s is the client's name; zemctl check calls it "check".
                text=${want//%s/check}
                grep -qF -- "$text" "${last_err:-/dev/null}" || missing+=("missing: $want")
            done <"$block"
            if [ ${#missing[@]} -gt 0 ]; then
                fail "$where: log lines not printed by the check above" "${missing[@]}" \
                    "$(cat "${last_err:-/dev/null}")"
            else
                passed=$((passed + 1))
            fi
            ;;
        sh)
            if (cd "$work/run" && timeout 60 bash -euo pipefail "$block") >"$work/out" 2>&1; then
                passed=$((passed + 1))
            else
                fail "$where: commands fail" "$(cat "$block")" "--- output:" "$(tail -n 20 "$work/out")"
            fi
            ;;
        c)
            cp "$block" "$work/example.c"
            if cc -std=c99 -Wall -Wextra -Werror -I"$src/include" -o "$work/example" \
                    "$work/example.c" "$lib" -pthread >"$work/out" 2>&1; then
                passed=$((passed + 1))
            else
                fail "$where: does not compile" "$(cat "$work/out")"
            fi
            ;;
        esac
    done <"$blocks/index"
done
# The documented limits against the library's.
awk -F'|' '/^\| *`/ {
    if (!match($2, /`[^`]+`/)) next
    field = substr($2, RSTART + 1, RLENGTH - 2); range = $3
    gsub(/^ +| +$/, "", range)
    if (range ~ /^[0-9]+ to [0-9]+$/) { split(range, r, " to "); print field "\t" r[1] "\t" r[2] }
}' "$@" | sort >"$work/doc-limits"
if ! zemctl limits 2>&1 | sort >"$work/limits"; then
    fail "zemctl limits fails" "$(cat "$work/limits")"
elif ! diff "$work/doc-limits" "$work/limits" >"$work/limits.diff"; then
    fail "the documented limits differ from the library's (< documented, > zemctl limits)" \
        "$(cat "$work/limits.diff")"
else
    passed=$((passed + 1))
fi

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
