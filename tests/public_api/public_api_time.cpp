// A module built without _TIME_BITS=64 (on the board: a 32-bit time_t) uses the time helpers
// of a layer built with it: the interface must be the same for both.
#include <time.h>

#include <cstdint>
#include <cstdlib>

#include "vesk_utility.h"

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(time_t) == 4, "this file stands for a module built with a 32-bit time_t");
#endif

using namespace vesk_soft;

// Failures of the checks, each described on standard error by the caller.
int public_api_time_failures()
{
    int failures = 0;
    struct timespec t0, t1;
    vesk_timeval v0, v1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    failures += vesk_utility_get_timeval(&v0) != VESK_OK;
    failures += vesk_utility_get_timeval(&v1) != VESK_OK;
    clock_gettime(CLOCK_MONOTONIC, &t1);
    const vesk_timeval from_ts0 = {t0.tv_sec, t0.tv_nsec / 1000}, from_ts1 = {t1.tv_sec, t1.tv_nsec / 1000};
    // t0 <= v0 <= v1 <= t1 on one clock, and the two differences agree (within the rounding).
    failures += vesk_utility_timeval_diff_us(v0, from_ts0) < 0 || vesk_utility_timeval_diff_us(v1, v0) < 0 ||
                vesk_utility_timeval_diff_us(from_ts1, v1) < 0;
    failures += std::llabs(vesk_utility_timespec_diff_us(t1, t0) - vesk_utility_timeval_diff_us(from_ts1, from_ts0)) > 1;
    const vesk_timeval a = {100, 250000}, b = {98, 750000};
    failures += vesk_utility_timeval_diff_ms(a, b) != 1500;
    return failures;
}
