#!/usr/bin/env bash
# Runs the live writer against a real store file: the leaves it owns change together and
# the others stay, SIGTERM ends it with a summary, and a leaf the store lacks, a missing
# store or bad arguments each end it with one message and a non-zero exit.
set -euo pipefail
writer=$1
cdsctl=$2
work=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill $pid 2>/dev/null; rm -rf "$work"' EXIT
export CDS_STORE=$work/store.db

fail() {
    echo "FAIL: $*" >&2
    cat "$work/out" >&2 || true
    exit 1
}
get() { "$cdsctl" get "/Devices/T/R$1/Value"; }

cat >"$work/store.json" <<'JSON'
{"/Devices/T/R0/Value": 7, "/Devices/T/R1/Value": 7, "/Devices/T/R2/Value": 7,
 "/Devices/T/R3/Value": 7, "/Devices/T/R4/Value": 7, "/Devices/T/Name/Value": "t"}
JSON
"$cdsctl" init >/dev/null
"$cdsctl" load "$work/store.json" >/dev/null

# Three of the leaves at 50 batches a second for one second.
"$writer" --count 3 --rate 50 --duration 1 /Devices/T/ >"$work/out" 2>&1 || fail "run exit $?"
grep -Eq '^bench_live_writer: [0-9]+ batches of 3 leaves in 1\.[0-9] s \([0-9.]+/s\), 0 failed, [0-9]+ late; batch mean [0-9.]+ ms, max [0-9.]+ ms$' \
    "$work/out" || fail "summary"
batches=$(sed -E 's/^bench_live_writer: ([0-9]+) .*/\1/' "$work/out")
[ "$batches" -ge 25 ] && [ "$batches" -le 51 ] || fail "$batches batches at 50/s for 1 s"
# The last batch wrote its tick number into every leaf it owns.
for i in 0 1 2; do [ "$(get $i)" = "$batches" ] || fail "R$i is $(get $i), not $batches"; done
for i in 3 4; do [ "$(get $i)" = 7 ] || fail "R$i changed to $(get $i)"; done

# Until stopped: SIGTERM ends the run cleanly with its summary.
"$writer" -n 5 -r 100 /Devices/T >"$work/out" 2>&1 &
pid=$!
sleep 0.5
kill -TERM $pid
set +e
wait $pid
rc=$?
set -e
pid=""
[ $rc -eq 0 ] || fail "SIGTERM exit $rc"
grep -Eq '^bench_live_writer: [1-9][0-9]* batches of 5 leaves' "$work/out" || fail "SIGTERM summary"
[ "$(get 4)" != 7 ] || fail "R4 never written"

# One leaf too many: said once, with its path, and the run ends.
set +e
"$writer" -n 6 -r 100 -d 5 /Devices/T >"$work/out" 2>&1
rc=$?
set -e
[ $rc -eq 1 ] || fail "missing leaf exit $rc"
[ "$(grep -c '^bench_live_writer: /Devices/T/R5/Value: no such leaf$' "$work/out")" = 1 ] ||
    fail "missing leaf message"

set +e
CDS_STORE=$work/none/store.db "$writer" -d 1 /Devices/T >"$work/out" 2>&1
rc=$?
set -e
[ $rc -eq 1 ] || fail "missing store exit $rc"
grep -q "^bench_live_writer: .*$work/none/store.db" "$work/out" || fail "missing store message"

for args in "" "--rate 0" "--rate 1001" "--count 0" "--count x" "--duration -1" \
    "Devices/T" "/A /B" "--rate" "-z /Devices/T"; do
    set +e
    # shellcheck disable=SC2086
    "$writer" $args >"$work/out" 2>&1
    rc=$?
    set -e
    [ $rc -eq 2 ] || fail "'$args' exit $rc"
    grep -q '^bench_live_writer: ' "$work/out" || fail "'$args' message"
    grep -q '^usage: ' "$work/out" || fail "'$args' usage"
done
echo "bench_live_writer: all checks passed"
