#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and UBSan over the whole library,
# and runs one of them for a while, one process, on a scratch copy of its seed corpus (new
# inputs found stay in build/fuzz/corpus/<target>; copy the useful ones into fuzz/corpus).
# Usage: scripts/fuzz.sh <target> [seconds]     targets: json_parse, json_path
#        scripts/fuzz.sh --seeds                 runs every seed corpus once (a smoke check)
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/fuzz
sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
# clang sees a padding field of the sleep object as unused; GCC builds keep the warning.
clang_quirks="-Wno-error=unused-private-field"
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_BUILD_FUZZ=ON \
  -DVESK_BUILD_TESTS=ON -DVESK_BUILD_BENCH=OFF -DVESK_BUILD_TOOLS=OFF \
  "-DCMAKE_C_FLAGS=$sanitize" "-DCMAKE_CXX_FLAGS=$sanitize -fsanitize=fuzzer-no-link $clang_quirks" >/dev/null

if [[ "${1:-}" == "--seeds" ]]; then
  cmake --build "$build" -j 2 --target vesk_fuzz_json_parse vesk_fuzz_json_path
  ctest --test-dir "$build" -R '^fuzz_seeds_' --output-on-failure
  exit 0
fi

target=${1:?usage: scripts/fuzz.sh <target> [seconds]}
seconds=${2:-300}
cmake --build "$build" -j 2 --target "vesk_fuzz_$target"
work="$build/corpus/$target"
mkdir -p "$work"
cp -n fuzz/corpus/"$target"/* "$work"/ 2>/dev/null || true
# In-process, one worker; the parser target never initialises the library.
"$build/fuzz/vesk_fuzz_$target" -max_total_time="$seconds" -max_len=65536 \
  -print_final_stats=1 "$work" fuzz/corpus/"$target"
