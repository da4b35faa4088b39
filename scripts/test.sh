#!/usr/bin/env bash
# Builds the library, tools, tests and benchmarks for the host and runs every test.
# Usage: scripts/test.sh   (build tree: build/host)
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
build=build/host

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 600
scripts/test-sanitize.sh  # checked builds: ASan+UBSan (all tests), TSan (concurrent suites)
