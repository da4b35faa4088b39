#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and UBSan over the whole library)
# and runs one of them for a while, one process, on a scratch copy of its seed corpus (new
# inputs found stay in build/fuzz/corpus/<target>; copy the useful ones into fuzz/corpus).
# Usage: scripts/fuzz.sh <target> [seconds]     targets: the names of fuzz/vesk_fuzz_<target>.cpp
#        scripts/fuzz.sh --seeds                 runs every seed corpus once (a smoke check)
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_BUILD_FUZZ=ON \
  -DVESK_BUILD_TESTS=ON -DVESK_BUILD_BENCH=OFF -DVESK_BUILD_TOOLS=OFF >/dev/null

targets=()
for src in fuzz/vesk_fuzz_*.cpp; do
  targets+=("$(basename "$src" .cpp)")
done

if [[ "${1:-}" == "--seeds" ]]; then
  cmake --build "$build" -j 2 --target "${targets[@]}"
  ctest --test-dir "$build" -R '^fuzz_seeds_' --output-on-failure
  exit 0
fi

target=${1:?usage: scripts/fuzz.sh <target> [seconds]}
seconds=${2:-300}
cmake --build "$build" -j 2 --target "vesk_fuzz_$target"
work="$build/corpus/$target"
mkdir -p "$work"
cp -n fuzz/corpus/"$target"/* "$work"/ 2>/dev/null || true
# In-process, one worker; -close_fd_mask keeps the layer's logging out of the fuzzer's output.
(cd "$build" && "fuzz/vesk_fuzz_$target" -max_total_time="$seconds" -max_len=65536 -close_fd_mask=1 \
  -print_final_stats=1 "corpus/$target" "$OLDPWD/fuzz/corpus/$target")
