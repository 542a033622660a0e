#!/usr/bin/env bash
# Configures and builds into build/ (or the folder given as $1, with extra cmake flags after).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -G Ninja "$@"
cmake --build "$dir" -j "$(nproc)"
