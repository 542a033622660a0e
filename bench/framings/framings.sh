#!/usr/bin/env bash
# framings.sh - the server's CPU per request over Modbus TCP, RTU over TCP and Modbus/UDP, side
# by side in one run, with pymodbus's UDP server as the peer on UDP. Our server runs on the
# fixture of the peer kit's make_fixture.py, its one unit served on all three framings; every
# server and the load client share CPU 0 (as the kit's PIN=same), so the server's CPU time per
# answer is the figure that carries over. Run from the project root.
#
# usage: bench/framings/framings.sh
#   env: OURS_BUILD=build      build folder with modbus_server, cdsctl and modbus_load
#        KIT=../shared/bench   the peer kit (its make_fixture.py)
#        DUR=5                 seconds per framing
#        CONNS=1               connections (UDP: sockets) of the load client
#        REQUEST=read125       the load client's request kind (read125 is FC3 x 125)
#        PORT=15040            TCP port; RTU over TCP takes PORT+1, UDP PORT+2, pymodbus PORT+3
#        PEER=1                0 leaves pymodbus out
# Prints one table row per framing: answers per second, server CPU us per answer, and that
# cost as a multiple of ours over Modbus TCP. Everything started here is stopped by PID.
set -euo pipefail

ROOT=$PWD
OURS_BUILD=$(cd "${OURS_BUILD:-build}" && pwd)
KIT=$(cd "${KIT:-$ROOT/../shared/bench}" && pwd)
HERE=$(cd "$(dirname "$0")" && pwd)
DUR=${DUR:-5}
CONNS=${CONNS:-1}
REQUEST=${REQUEST:-read125}
PORT=${PORT:-15040}
PEER=${PEER:-1}
HZ=$(getconf CLK_TCK)

for f in modbus_server cdsctl modbus_load; do
  [[ -x $OURS_BUILD/$f ]] || { echo "framings.sh: no $OURS_BUILD/$f" >&2; exit 2; }
done
[[ -f $KIT/make_fixture.py ]] || { echo "framings.sh: no peer kit at $KIT" >&2; exit 2; }

FX=$(mktemp -d)
PIDS=()
stop() { # pid: SIGTERM, then SIGKILL after 5 s
  kill -0 "$1" 2>/dev/null || return 0
  kill -TERM "$1" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$1" 2>/dev/null || break; sleep 0.1; done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
cleanup() {
  for p in "${PIDS[@]}"; do stop "$p"; done
  rm -rf "$FX"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
tcp_up() { ss -Htln "sport = :$1" | grep -q .; }
udp_up() { ss -Huln "sport = :$1" | grep -q .; }
wait_up() { # test port
  for _ in $(seq 100); do "$1" "$2" && return 0; sleep 0.1; done
  return 1
}

export CDS_STORE=$FX/store.db
python3 "$KIT/make_fixture.py" "$FX" "$PORT" >/dev/null
# The fixture's unit on RTU over TCP too (the same device and mapping file), and UDP without a
# rate limit, so that the load client is not refused.
python3 - "$FX" "$PORT" >"$FX/framings.json" <<'PY'
import json, os, sys
d, port = sys.argv[1], int(sys.argv[2])
mb = "/Software/Data Servers/Modbus/Interface Type"
unit = {"Slave ID/Value": 1, "Device Path/Value": "/Devices/Bench",
        "EDS Paths/Value": os.path.join(d, "bench.eds")}
leaves = {f"{mb}/RTU over TCP/Port/Value": port + 1, f"{mb}/UDP/Port/Value": port + 2,
          f"{mb}/UDP/Rate Limit/Value": 0}
leaves.update({f"{mb}/RTU over TCP/Mappings/Bench/{k}": v for k, v in unit.items()})
print(json.dumps(leaves))
PY
"$OURS_BUILD/cdsctl" init >/dev/null
"$OURS_BUILD/cdsctl" load "$FX/store.json" >/dev/null
"$OURS_BUILD/cdsctl" load "$FX/framings.json" >/dev/null

taskset -c 0 "$OURS_BUILD/modbus_server" -Ns -D 1 >"$FX/server.log" 2>&1 &
OURS=$!
PIDS+=("$OURS")
wait_up tcp_up "$PORT" && wait_up tcp_up $((PORT + 1)) && wait_up udp_up $((PORT + 2)) ||
  { echo "framings.sh: our server did not start" >&2; cat "$FX/server.log" >&2; exit 1; }

PYM=""
if [[ $PEER == 1 ]]; then
  taskset -c 0 /usr/bin/python3 "$HERE/pymodbus_udp_server.py" $((PORT + 3)) >"$FX/pymodbus.log" 2>&1 &
  PYM=$!
  PIDS+=("$PYM")
  wait_up udp_up $((PORT + 3)) ||
    { echo "framings.sh: pymodbus did not start" >&2; cat "$FX/pymodbus.log" >&2; exit 1; }
fi

echo "# $(date -u +%FT%TZ) $(nproc) cpus, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)"
echo "# $REQUEST, $CONNS connection(s), ${DUR} s each, server and client on CPU 0"
echo
echo "| server | framing | answers/s | server CPU us/answer | / ours over TCP | exceptions | failed |"
echo "|---|---|---:|---:|---:|---:|---:|"
BASE=""
run() { # name pid framing port
  local name=$1 pid=$2 framing=$3 port=$4 t0 t1 out answers rps exceptions failed us ratio
  t0=$(cpu_ticks "$pid")
  out=$(taskset -c 0 "$OURS_BUILD/modbus_load" --framing "$framing" --port "$port" \
    --connections "$CONNS" --duration "$DUR" --request "$REQUEST" 2>&1) || true
  t1=$(cpu_ticks "$pid")
  answers=$(sed -nE 's/^answers: ([0-9]+) .*/\1/p' <<<"$out")
  rps=$(sed -nE 's/.* = ([0-9.]+) requests\/s.*/\1/p' <<<"$out")
  exceptions=$(sed -nE 's/^exception responses: ([0-9]+).*/\1/p' <<<"$out")
  failed=$(sed -nE 's/.*errors: ([0-9]+).*/\1/p' <<<"$out")
  if [[ -z $answers || $answers == 0 ]]; then
    echo "| $name | $framing | - | - | - | - | all |"
    echo "$out" | sed 's/^/#   /'
    return
  fi
  us=$(awk -v d=$((t1 - t0)) -v hz="$HZ" -v n="$answers" 'BEGIN{printf "%.1f", d / hz * 1e6 / n}')
  [[ -z $BASE ]] && BASE=$us
  ratio=$(awk -v a="$us" -v b="$BASE" 'BEGIN{printf "%.2f", a / b}')
  echo "| $name | $framing | $rps | $us | ${ratio}x | ${exceptions:-?} | ${failed:-?} |"
}
run ours "$OURS" tcp "$PORT"
run ours "$OURS" rtu-over-tcp $((PORT + 1))
run ours "$OURS" udp $((PORT + 2))
[[ -n $PYM ]] && run pymodbus "$PYM" udp $((PORT + 3))
warnings=$(grep -ciE 'error|warn' "$FX/server.log" || true)
echo
echo "our server's log: $warnings error or warning lines"
