#!/usr/bin/env bash
# Gateway throughput: the kit's libmodbus RTU slave on a line paced at wire speed (the kit's
# pty_pacer), asked back to back by the kit's libmodbus RTU master on the line itself
# (direct), by the same master pausing 3.5 characters (at least 1.75 ms) after each answer, as
# the line's rules ask of a master and the gateway does (direct + silence), and by the kit's
# libmodbus TCP master through modbus_server, whose gateway line is the line's master
# (gateway). Prints one row per baud rate and request: the three request rates and the
# gateway's over each direct one. The slave, the pacer and the server are stopped by PID.
#
#   bash bench/gateway.sh                          # 19200 and 115200 baud, 5 s per run
#   BAUDS=9600 DUR=10 bash bench/gateway.sh
#
# Env: OURS_BUILD (build), KIT (../shared/bench), BENCH_OUT (/tmp/modbus-bench: the kit's
# programs are built there), DUR, BAUDS, PORT (15050). Needs gcc, pkg-config, libmodbus-dev.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${OURS_BUILD:-build}" && pwd)
kit=$(cd "${KIT:-../shared/bench}" && pwd)
pb=${BENCH_OUT:-/tmp/modbus-bench}/build
dur=${DUR:-5}
port=${PORT:-15050}
mkdir -p "$pb"
cflags=$(pkg-config --cflags libmodbus)
libs=$(pkg-config --libs libmodbus)
# shellcheck disable=SC2086
for f in load_client libmodbus_rtu_server; do
    [ -x "$pb/$f" ] || gcc -O2 -pthread $cflags "$kit/$f.c" -o "$pb/$f" $libs
done
[ -x "$pb/pty_pacer" ] || gcc -O2 "$kit/pty_pacer.c" -o "$pb/pty_pacer"

d=$(mktemp -d /tmp/gateway-bench.XXXXXX)
pids=()
# Newest first: the server and the slave before the pacer whose ptys they hold.
stop_all() {
    local pid
    while [ ${#pids[@]} -gt 0 ]; do
        pid=${pids[-1]}
        unset 'pids[-1]'
        kill -TERM "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
}
trap 'stop_all; rm -rf "$d"' EXIT
wait_for() { for _ in $(seq 100); do eval "$1" && return 0; sleep 0.05; done; echo "gateway bench: $2 never came" >&2; exit 1; }
# The request rate of one load_client run, into $rate; a run with exceptions or failed
# requests stops the bench.
run() {
    local line
    line=$("$pb/load_client" "$@" -t "$dur" -o 2000 | grep RESULT || true)
    case $line in
    *" exc=0 errs=0 "*) rate=$(sed -n 's/.*rps=\([0-9.]*\).*/\1/p' <<<"$line") ;;
    *) echo "gateway bench: failed requests: ${line:-no result}" >&2; exit 1 ;;
    esac
}

export CDS_STORE=$d/store.db
serial="/Software/Data Servers/Modbus/Interface Type/Serial"
results=()
for baud in ${BAUDS:-19200 115200}; do
    rm -f "$d/slave" "$d/master"
    "$pb/pty_pacer" "$d/slave" "$d/master" "$baud" 10 600 >/dev/null &
    pids+=($!)
    wait_for '[ -e "$d/master" ]' "the pacer's pty pair"
    "$pb/libmodbus_rtu_server" "$d/slave" "$baud" N 1 >/dev/null &
    pids+=($!)
    sleep 0.3
    # 3.5 characters of 10 bits (8N1), at least 1.75 ms, in microseconds.
    silence=$(awk -v b="$baud" 'BEGIN { s = 35000000 / b; printf "%d", s < 1750 ? 1750 : s }')
    direct=() paced=()
    for sc in "3 1 0" "3 125 0" "16 100 300"; do
        read -r fc qty addr <<<"$sc"
        run -m rtu -D "$d/master" -b "$baud" -u 1 -f "$fc" -a "$addr" -q "$qty" -l direct
        direct+=("$rate")
        run -m rtu -D "$d/master" -b "$baud" -u 1 -f "$fc" -a "$addr" -q "$qty" -i "$silence" \
            -l paced
        paced+=("$rate")
    done
    # The device is a gateway only: slave 1 is behind its line.
    cat >"$d/store.json" <<EOF
{ "/Software/Device Handlers/UPS/Status/Value": 1,
  "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value": $port,
  "/Software/Data Servers/Modbus/Interface Type/TCP/Timeout/Value": 1000,
  "$serial/Timeout/Value": 1000,
  "$serial/Interface/Line/Serial Port/Value": "$d/master",
  "$serial/Interface/Line/Baud Rate/Value": $baud,
  "$serial/Interface/Line/Role/Value": "Gateway",
  "$serial/Interface/Line/Downstream/Value": "1" }
EOF
    rm -f "$CDS_STORE" "$CDS_STORE-wal" "$CDS_STORE-shm"
    "$build/cdsctl" init >/dev/null
    "$build/cdsctl" load "$d/store.json" >/dev/null
    "$build/modbus_server" -Ns -D 1 >"$d/server.log" 2>&1 &
    pids+=($!)
    wait_for "(exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null" "the server"
    i=0
    for sc in "3 1 0" "3 125 0" "16 100 300"; do
        read -r fc qty addr <<<"$sc"
        run -m tcp -h 127.0.0.1 -p "$port" -u 1 -f "$fc" -a "$addr" -q "$qty" -l gateway
        results+=("$(awk -v b="$baud" -v f="$fc" -v q="$qty" -v d="${direct[i]}" \
            -v p="${paced[i]}" -v g="$rate" 'BEGIN { printf "| %s | FC%s×%s | %.1f | %.1f | %.1f | %.3f | %.3f |", b, f, q, d, p, g, g / d, g / p }')")
        i=$((i + 1))
    done
    warnings=$(grep -ciE ' (warn|err) ' "$d/server.log" || true)
    [ "$warnings" = 0 ] || { echo "gateway bench: the server logged:" >&2; grep -iE ' (warn|err) ' "$d/server.log" >&2; }
    stop_all
done
echo "| baud | request | direct req/s | direct + silence req/s | gateway req/s | gateway / direct | gateway / direct + silence |"
echo "|---:|---|---:|---:|---:|---:|---:|"
printf '%s\n' "${results[@]}"
