#!/usr/bin/env bash
# Builds the library, tools, tests and benchmarks and runs every test: first for the host
# (build/host), then for the 32-bit ARM target (build/armhf, tests under qemu-arm), where the
# byte layouts are the board's, then the checked builds (build/asan, build/tsan). Fails when
# any of them fails.
# Usage: scripts/test.sh [all|host|armhf|sanitize]   (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."

what=${1:-all}
case "$what" in
all | host | armhf | sanitize) ;;
*)
    echo "usage: $0 [all|host|armhf|sanitize]" >&2
    exit 2
    ;;
esac

jobs=$(nproc 2>/dev/null || echo 2)
failed=()
timings=()

# step NAME COMMAND...: runs the command and notes how long it took.
step() {
    local name=$1 start rc=0
    shift
    start=$(date +%s)
    "$@" || rc=$?
    timings+=("$name $(($(date +%s) - start)) s")
    return $rc
}

run_suite() {
    local abi=$1 build=build/$1
    shift
    step "$abi configure" cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    step "$abi build" cmake --build "$build" -j "$jobs"
    if ! step "$abi tests" ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 600; then
        failed+=("$abi")
    fi
}

if [ "$what" = all ] || [ "$what" = host ]; then
    run_suite host
fi

if [ "$what" = all ] || [ "$what" = armhf ]; then
    step "armhf sysroot" scripts/armhf-sysroot.sh build/armhf-sysroot
    # Benchmarks are timed on the host only; the target tree builds the library, tools and tests.
    run_suite armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
        -DVESK_ARMHF_SYSROOT="$PWD/build/armhf-sysroot" -DVESK_BUILD_BENCH=OFF
    # The footprint on the board: the shared library as it would be installed, stripped.
    lib=build/armhf/libvesk_utility.so.1
    arm-linux-gnueabihf-strip -o build/armhf/libvesk_utility.stripped "$(readlink -f "$lib")"
    echo "test: armhf libvesk_utility.so stripped: $(stat -c %s build/armhf/libvesk_utility.stripped) bytes"
fi

# Checked builds: ASan+UBSan over every test, TSan over the concurrent suites.
if [ "$what" = all ] || [ "$what" = sanitize ]; then
    if ! step "sanitizers" scripts/test-sanitize.sh; then
        failed+=("sanitizer")
    fi
fi

printf 'test: %s\n' "${timings[@]}"
if [ ${#failed[@]} -gt 0 ]; then
    echo "test: FAILED: ${failed[*]} tests" >&2
    exit 1
fi
echo "test: all passed ($what)"
