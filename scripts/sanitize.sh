#!/usr/bin/env bash
# Builds the unit suites with AddressSanitizer and UndefinedBehaviorSanitizer in
# build-asan/ and runs them.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
bash scripts/build.sh build-asan -DMB_SANITIZE=ON -DMB_BENCH=OFF
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build-asan --output-on-failure -j 2 -L unit
