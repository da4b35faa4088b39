#!/usr/bin/env bash
# Builds the host tree and runs the demo process, which initialises the library as the main
# application in a private root and prints what its diagnostics show.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
build=build/host
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$jobs" --target vesk_example

root=$(mktemp -d /tmp/vesk_demo.XXXXXX)
mkdir -p "$root/usr/lib" "$root/config" "$root/reserve" "$root/mnt/mtd/res/platform" "$root/mnt/mtd/app"
echo "demo root: $root"
VESK_UTILITY_ROOT="$root" "$build/tools/vesk_example" "$@"
