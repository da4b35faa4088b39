#!/usr/bin/env bash
# Builds the host tree and runs the demo: nvr_sim, a simulated recorder that initialises the
# library as the main application in a private root, starts the proxy server beside it and
# drives the A/V cache with cameras, recorders, live viewers and snapshots (60 s by default;
# arguments go to nvr_sim, e.g. --channels 32 --seconds 120 --out /tmp/rec; --help lists them).
# While it runs, the console reaches it: see README.md, "The console".
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
build=build/host
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$jobs" --target nvr_sim vesk_proxy_server vesk_diag

root=$(mktemp -d /tmp/vesk_demo.XXXXXX)
echo "demo root: $root"
echo "console (from 30 s on, in another terminal): VESK_UTILITY_ROOT=$root $build/tools/vesk_diag list"
VESK_UTILITY_ROOT="$root" exec "$build/tools/nvr_sim" "$@"
