#!/usr/bin/env bash
# Builds and runs every benchmark program; each prints its ratio table against its baseline.
# Extra arguments go to Google Benchmark (e.g. --benchmark_filter=malloc).
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
build=build/bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DVESK_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$jobs"
for b in "$build"/bench/vesk_utility_*_bench; do
  echo "== $(basename "$b")"
  "$b" "$@"
done
