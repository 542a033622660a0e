#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and UndefinedBehaviorSanitizer)
# in build-fuzz and runs each for FUZZ_SECONDS seconds (default 60), one job each. A crash,
# leak, time-out or failed check makes the script exit 1 after the other targets have run,
# and the reproducer's path is printed. Runs without a terminal; installs clang and the
# libFuzzer runtime when they are missing.
#
#   bash scripts/fuzz.sh                    # every target
#   FUZZ_SECONDS=300 bash scripts/fuzz.sh eds settings
#
# Each target's new inputs collect in build-fuzz/corpus/<target>; the seeds in
# fuzz/corpus/<target> are read, never written.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

seconds=${FUZZ_SECONDS:-60}
build=${FUZZ_BUILD:-build-fuzz}
all_targets=(tcp_request rtu_over_tcp_stream udp_datagram ascii_line eds store_json settings
    profiler_rows)
[ -f fuzz/rtu_frame.cpp ] && all_targets+=(rtu_frame)
[ -f fuzz/gateway_answer.cpp ] && all_targets+=(gateway_answer)
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=("${all_targets[@]}")

# The longest input worth trying per target: a few pipelined TCP or RTU frames or datagrams,
# a few ASCII lines of the longest frame, a few dozen mapping nodes or JSON leaves, eight
# settings leaves, a few RTU frames with their gaps.
max_len() {
    case $1 in
    tcp_request | rtu_over_tcp_stream | udp_datagram) echo 1024 ;;
    ascii_line) echo 2048 ;;
    settings) echo 256 ;;
    rtu_frame) echo 1024 ;;
    gateway_answer) echo 1024 ;;
    *) echo 4096 ;;
    esac
}

# clang and its libFuzzer runtime, besides what every build needs.
bash scripts/deps.sh clang libclang-rt-14-dev

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DMB_BENCH=OFF -DMB_FUZZ=ON \
    -DMB_WERROR=OFF >/dev/null </dev/null
cmake --build "$build" -j "${FUZZ_BUILD_JOBS:-2}" --target "${targets[@]/#/fuzz_}" </dev/null

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
failed=()
for t in "${targets[@]}"; do
    work="$build/corpus/$t" artifacts="$build/artifacts/$t" log="$build/fuzz-$t.log"
    mkdir -p "$work" "$artifacts"
    dict=()
    [ -f "fuzz/dict/$t.dict" ] && dict=(-dict="fuzz/dict/$t.dict")
    echo "fuzz: $t for ${seconds}s (log $log)"
    status=0
    "$build/fuzz_$t" -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=25 \
        -rss_limit_mb=2048 -print_final_stats=1 "${dict[@]}" \
        -artifact_prefix="$root/$artifacts/" "$work" "fuzz/corpus/$t" \
        </dev/null >"$log" 2>&1 || status=$?
    # The last status line (coverage, corpus, exec/s) and the average speed.
    grep -E '^#[0-9]+[[:space:]]+(DONE|pulse|NEW|REDUCE|INITED)' "$log" | tail -1 || true
    grep -E '^stat::average_exec_per_sec' "$log" || true
    if [ $status -ne 0 ]; then
        failed+=("$t")
        echo "fuzz: $t FAILED (status $status); the end of its log:" >&2
        tail -40 "$log" >&2
        reproducer=$(grep -oE 'Test unit written to .*' "$log" | sed 's/Test unit written to //' | tail -1)
        echo "fuzz: reproducer: ${reproducer:-see $log}" >&2
    fi
done

if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzz: failed: ${failed[*]}" >&2
    exit 1
fi
echo "fuzz: no findings in ${targets[*]}"
