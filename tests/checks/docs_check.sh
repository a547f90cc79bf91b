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
#                           folder holding cache/kpidata.1700000000 (twelve
#                           windows of every KPI kind), proto/ and examples/;
#                           the tools are on PATH
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
# result WHAT [PROBLEM...]: WHAT passed unless problems follow it.
result() {
    if [ $# -eq 1 ]; then
        passed=$((passed + 1))
        return
    fi
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
    [ -s "$blocks/index" ] || { result "$name" "no example block to run"; continue; }
    last_err=/dev/null
    while read -r block; do
        IFS=. read -r _ kind line <<<"${block##*/}"
        problem=()
        case "$kind" in
        ok | refused)
            last_err="$work/err.$line"
            zemctl check "$block" >/dev/null 2>"$last_err"
            status=$? want=0
            [ "$kind" = refused ] && want=1
            [ "$status" -eq "$want" ] ||
                problem=("zemctl check exits $status, not $want" "$(cat "$last_err")")
            ;;
        log)
            # The documented %s is the client's name; zemctl check calls it "check".
            while IFS= read -r want; do
                [ -z "$want" ] || grep -qF -- "${want//%s/check}" "$last_err" ||
                    problem+=("missing: $want")
            done <"$block"
            [ ${#problem[@]} -eq 0 ] || problem=("log lines not printed by the check above"
                "${problem[@]}" "$(cat "$last_err")")
            ;;
        sh)
            (cd "$work/run" && timeout 60 bash -euo pipefail "$block") >"$work/out" 2>&1 ||
                problem=("commands fail" "$(cat "$block")" "--- output:" "$(tail -n 20 "$work/out")")
            ;;
        c)
            cp "$block" "$work/example.c"
            cc -std=c99 -Wall -Wextra -Werror -I"$src/include" -o "$work/example" \
                "$work/example.c" "$lib" -pthread >"$work/out" 2>&1 ||
                problem=("does not compile" "$(cat "$work/out")")
            ;;
        esac
        result "$name:$line" "${problem[@]}"
    done <"$blocks/index"
done
# The documented limits against the library's.
awk -F'|' '/^\| *`/ {
    if (!match($2, /`[^`]+`/)) next
    field = substr($2, RSTART + 1, RLENGTH - 2); range = $3
    gsub(/^ +| +$/, "", range)
    if (range ~ /^[0-9]+ to [0-9]+$/) { split(range, r, " to "); print field "\t" r[1] "\t" r[2] }
}' "$@" | sort >"$work/doc-limits"
problem=()
zemctl limits 2>&1 | sort >"$work/limits" || problem=("zemctl limits fails")
diff "$work/doc-limits" "$work/limits" >"$work/limits.diff" ||
    problem+=("they differ (< documented, > zemctl limits)" "$(cat "$work/limits.diff")")
result "the documented limits against the library's" "${problem[@]}"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
