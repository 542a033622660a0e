#!/usr/bin/env bash
# Builds the programs and every test suite twice, with AddressSanitizer and
# UndefinedBehaviorSanitizer in build-asan/ and with ThreadSanitizer in build-tsan/, and runs
# all of them in each: the unit suites and the end-to-end suites that start the real server,
# cdsctl and the profiler. Every process writes its reports into the build's san-logs/ folder,
# so a report from a child program fails the run as surely as one from the test driver.
# SANITIZERS="address" (or "thread") runs one build only.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bash scripts/deps.sh

status=0
for kind in ${SANITIZERS:-address thread}; do
    case $kind in
    address) dir=build-asan ;;
    thread) dir=build-tsan ;;
    *) echo "sanitize: unknown sanitizer '$kind'" >&2; exit 2 ;;
    esac
    echo "sanitize: $kind build in $dir"
    bash scripts/build.sh "$dir" -DMB_SANITIZE="$kind" -DMB_BENCH=OFF >"$dir.build.log" 2>&1 ||
        { tail -n 50 "$dir.build.log"; exit 1; }
    logs="$root/$dir/san-logs"
    rm -rf "$logs"
    mkdir -p "$logs"
    export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:log_path=$logs/asan"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$logs/ubsan"
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$logs/tsan:suppressions=$root/scripts/tsan.supp"
    ctest --test-dir "$dir" --output-on-failure -j 2 || status=1
    if [ -n "$(ls -A "$logs")" ]; then
        echo "sanitize: $kind reports:" >&2
        for f in "$logs"/*; do echo "== $f" >&2; head -n 80 "$f" >&2; done
        status=1
    fi
done
exit $status
