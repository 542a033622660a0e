#!/usr/bin/env bash
# live_store.sh - our server measured by the peer kit while a device process keeps writing
# the registers it serves: the fixture of the kit's make_fixture.py, loaded with cdsctl,
# modbus_server on CPU 0, bench_live_writer rewriting R0..R{N-1} in one batch per tick,
# then the kit's scenarios against it (TARGET mode). Run from the project root.
#
# usage: bench/live_store.sh
#   env: OURS_BUILD=build      build folder with modbus_server, cdsctl, bench_live_writer
#        KIT=../shared/bench   the peer kit
#        DUR=5 CONNS="1 8"     as the kit: seconds per run, connection counts
#        PIN=same              as the kit; the server runs on CPU 0 either way
#        LIVE_N=100            leaves per batch
#        LIVE_RATE=10          batches per second; 0 runs without the writer (the baseline)
#        QUICK=1               only FC3 x 125, straight through the kit's load client
#        PORT=15030            TCP port for the server
#        BENCH_OUT=/tmp/modbus-bench   where the kit builds and writes its tables
# Everything started here is stopped by PID when the script ends.
set -euo pipefail

ROOT=$PWD
OURS_BUILD=$(cd "${OURS_BUILD:-build}" && pwd)
KIT=$(cd "${KIT:-$ROOT/../shared/bench}" && pwd)
DUR=${DUR:-5}
CONNS=${CONNS:-"1 8"}
PIN=${PIN:-same}
LIVE_N=${LIVE_N:-100}
LIVE_RATE=${LIVE_RATE:-10}
QUICK=${QUICK:-0}
PORT=${PORT:-15030}
OUT=${BENCH_OUT:-${TMPDIR:-/tmp}/modbus-bench}
export BENCH_OUT=$OUT
DEV=/Devices/Bench

for f in modbus_server cdsctl bench_live_writer; do
  [[ -x $OURS_BUILD/$f ]] || { echo "live_store.sh: no $OURS_BUILD/$f (build with -DMB_BENCH=ON)" >&2; exit 2; }
done
[[ -f $KIT/run_peers.sh ]] || { echo "live_store.sh: no peer kit at $KIT" >&2; exit 2; }
if ss -Htln "sport = :$PORT" | grep -q .; then echo "live_store.sh: port $PORT busy" >&2; exit 2; fi

FX=$(mktemp -d)
SERVER_PID=""
WRITER_PID=""
stop() { # pid: SIGTERM, then SIGKILL after 5 s
  [[ -n $1 ]] && kill -0 "$1" 2>/dev/null || return 0
  kill -TERM "$1" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$1" 2>/dev/null || break; sleep 0.1; done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
cleanup() {
  stop "$WRITER_PID"
  stop "$SERVER_PID"
  rm -rf "$FX"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

export CDS_STORE=$FX/store.db
python3 "$KIT/make_fixture.py" "$FX" "$PORT" >/dev/null
"$OURS_BUILD/cdsctl" init >/dev/null
"$OURS_BUILD/cdsctl" load "$FX/store.json" >/dev/null

taskset -c 0 "$OURS_BUILD/modbus_server" -Ns -D 1 >"$FX/server.log" 2>&1 &
SERVER_PID=$!
for _ in $(seq 100); do ss -Htln "sport = :$PORT" | grep -q . && break; sleep 0.1; done
ss -Htln "sport = :$PORT" | grep -q . || { echo "live_store.sh: the server did not start" >&2; cat "$FX/server.log" >&2; exit 1; }

if [[ $LIVE_RATE != 0 ]]; then
  "$OURS_BUILD/bench_live_writer" --count "$LIVE_N" --rate "$LIVE_RATE" "$DEV" >"$FX/writer.log" 2>&1 &
  WRITER_PID=$!
  sleep 0.5
  kill -0 "$WRITER_PID" 2>/dev/null || { echo "live_store.sh: the writer ended" >&2; cat "$FX/writer.log" >&2; exit 1; }
  echo "live writer: $LIVE_N leaves of $DEV, $LIVE_RATE batches/s (pid $WRITER_PID)"
else
  echo "live writer: off (baseline)"
fi
echo "server: pid $SERVER_PID on 127.0.0.1:$PORT, CPU 0"

if [[ $QUICK == 1 ]]; then
  # The kit's client, built where the kit builds it; the server's CPU time from /proc.
  mkdir -p "$OUT/build"
  LC=$OUT/build/load_client
  # shellcheck disable=SC2046
  [[ -x $LC ]] || gcc -O2 -pthread $(pkg-config --cflags libmodbus) "$KIT/load_client.c" -o "$LC" $(pkg-config --libs libmodbus)
  cli=(); [[ $PIN == same ]] && cli=(taskset -c 0); [[ $PIN == split ]] && cli=(taskset -c 1)
  ticks() { awk '{print $14 + $15}' "/proc/$SERVER_PID/stat"; }
  for c in $CONNS; do
    t0=$(ticks)
    line=$("${cli[@]}" "$LC" -m tcp -h 127.0.0.1 -p "$PORT" -f 3 -a 0 -q 125 -c "$c" -t "$DUR" -l "ours-live/fc3_read125" | grep '^RESULT' || true)
    t1=$(ticks)
    [[ -n $line ]] || { echo "FAILED: fc3_read125 c=$c" >&2; continue; }
    reqs=$(sed -E 's/.* reqs=([0-9]+).*/\1/' <<<"$line")
    cpu=$(awk -v d=$((t1 - t0)) -v hz="$(getconf CLK_TCK)" -v n="$reqs" 'BEGIN{printf "%.1f", n ? d/hz*1e6/n : 0}')
    echo "$line srv_cpu_us_per_req=$cpu"
  done
else
  TARGET=127.0.0.1:$PORT TARGET_PID=$SERVER_PID PIN=$PIN DUR=$DUR CONNS=$CONNS bash "$KIT/run_peers.sh"
fi

if [[ -n $WRITER_PID ]]; then
  stop "$WRITER_PID"
  WRITER_PID=""
  cat "$FX/writer.log"
fi
echo "server log: $(grep -ciE 'error|warn' "$FX/server.log" || true) error/warning lines"
grep -iE 'error|warn' "$FX/server.log" | head -5 || true
