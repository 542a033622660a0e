#!/usr/bin/env bash
# Runs the load client against a small libmodbus server: every request kind, exception
# responses counted, a refused connection and bad arguments reported with a non-zero exit.
set -euo pipefail
load=$1
server=$2
work=$(mktemp -d)
"$server" 60 >"$work/port" &
pid=$!
trap 'kill $pid 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in $(seq 100); do
    [ -s "$work/port" ] && break
    sleep 0.05
done
port=$(cat "$work/port")

fail() {
    echo "FAIL: $*" >&2
    cat "$work/out" >&2 || true
    exit 1
}

for kind in read125 read1 write100 coils2000; do
    "$load" --port "$port" --connections 2 --duration 1 --request "$kind" >"$work/out" ||
        fail "$kind exited with $?"
    grep -q "^$kind at address 0, unit 1, 127.0.0.1:$port, 2 connections" "$work/out" ||
        fail "$kind header"
    grep -Eq '^answers: [1-9][0-9]* in [0-9.]+ s = [0-9]+ requests/s$' "$work/out" ||
        fail "$kind answers"
    grep -Eq '^latency: p50 [0-9.]+ ms, p99 [0-9.]+ ms, max [0-9.]+ ms$' "$work/out" ||
        fail "$kind latency"
    grep -q '^exception responses: 0, errors: 0$' "$work/out" || fail "$kind counts"
done

# Past the server's 10000 registers: every answer is an exception response.
"$load" --port "$port" --duration 1 --address 9950 >"$work/out" || fail "exceptions run"
grep -Eq '^exception responses: [1-9][0-9]*, errors: 0$' "$work/out" || fail "exceptions"

kill $pid
wait $pid 2>/dev/null || true
set +e
"$load" --port "$port" --duration 1 >"$work/out" 2>&1
rc=$?
set -e
[ $rc -eq 1 ] || fail "refused connection exit $rc"
grep -q "^modbus_load: Couldn't connect to 127.0.0.1:$port: " "$work/out" || fail "refused message"

for args in "--connections 0" "--port 70000" "--unit 250" "--request read7" "--duration x" \
    "--address 65500" "--host nosuch.invalid" "--port" "-z" "extra" "--framing rtu"; do
    set +e
    # shellcheck disable=SC2086
    "$load" $args >"$work/out" 2>&1
    rc=$?
    set -e
    [ $rc -eq 2 ] || fail "'$args' exit $rc"
    grep -q '^modbus_load: ' "$work/out" || fail "'$args' message"
    grep -q '^usage: ' "$work/out" || fail "'$args' usage"
done
echo "modbus_load: all checks passed"
