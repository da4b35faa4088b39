#!/usr/bin/env bash
# Checked builds of the test suite, run by scripts/test.sh (and so by CI):
#   asan  every test under AddressSanitizer + LeakSanitizer + UndefinedBehaviorSanitizer
#         (build/asan); UBSan halts at its first report.
#   tsan  the suites labelled "concurrent" under ThreadSanitizer (build/tsan); a suite joins
#         by adding its folder to VESK_CONCURRENT_SUITES in tests/CMakeLists.txt.
# Usage: scripts/test-sanitize.sh [asan] [tsan]   (no argument: both)
# Suppressions and the reasons for each are in scripts/sanitize/.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
supp=$PWD/scripts/sanitize
jobs_to_run=("$@")
[ ${#jobs_to_run[@]} -eq 0 ] && jobs_to_run=(asan tsan)

# Only the library and its tests are instrumented; the benchmarks and tools add build time
# and nothing runs them here.
configure_and_build() {
    local dir=$1 sanitize=$2
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_SANITIZE="$sanitize" \
        -DVESK_BUILD_BENCH=OFF -DVESK_BUILD_TOOLS=ON >/dev/null
    cmake --build "$dir" -j "$jobs"
}

timed() {
    local what=$1 start
    shift
    start=$(date +%s)
    "$@"
    echo "test-sanitize: $what took $(( $(date +%s) - start )) s"
}

run_asan() {
    timed "asan build" configure_and_build build/asan "address,undefined"
    # detect_leaks: LSan runs at every process exit, death-test children included.
    # abort_on_error=0: a report exits with status 1 (not a signal), which death tests of the
    # layer's own checks can tell from its 255.
    export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1:suppressions=$supp/asan.supp"
    export LSAN_OPTIONS="suppressions=$supp/lsan.supp:print_suppressions=0"
    export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:suppressions=$supp/ubsan.supp"
    timed "asan tests" ctest --test-dir build/asan -j "$jobs" --output-on-failure --timeout 900
    unset ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS
}

run_tsan() {
    timed "tsan build" configure_and_build build/tsan thread
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$supp/tsan.supp"
    timed "tsan tests" ctest --test-dir build/tsan -L concurrent -j "$jobs" --output-on-failure --timeout 900
    unset TSAN_OPTIONS
}

for job in "${jobs_to_run[@]}"; do
    case $job in
    asan) run_asan ;;
    tsan) run_tsan ;;
    *)
        echo "test-sanitize: unknown job '$job' (asan, tsan)" >&2
        exit 2
        ;;
    esac
done
