// vesk_utility_time.h - time on the monotonic clock (CLOCK_MONOTONIC: it never jumps when the
// wall clock is set from NTP or by the user), and differences of two points in time.
//
// Size guarantee: the board is 32-bit and the layer is built with a 64-bit time_t
// (_TIME_BITS=64), while a firmware module may still be built with a 32-bit one. No exported
// function takes or returns a time_t, a struct timeval or a struct timespec, whose sizes follow
// the caller's _TIME_BITS: the exported ones take vesk_timeval, whose fields are fixed-width
// (16 bytes everywhere, checked below), and the timespec differences are inline functions
// compiled in the caller with the caller's own timespec.
#ifndef VESK_UTILITY_TIME_H
#define VESK_UTILITY_TIME_H

#include <cstdint>
#include <ctime>

#include "vesk_utility_types.h"

namespace vesk_soft {

// A point on the monotonic clock: seconds and microseconds (0 <= tv_usec < 1000000).
struct vesk_timeval {
    int64_t tv_sec;
    int64_t tv_usec;
};
static_assert(sizeof(vesk_timeval) == 16, "vesk_timeval is two 64-bit fields whatever time_t is");

// Now on the monotonic clock; VESK_ERR_INVALID_PARAM for a NULL now. No initialisation needed.
VESK_API VESK_ERR vesk_utility_get_timeval(vesk_timeval* now);

// end - start, in milliseconds or microseconds, truncated toward zero; negative when end is
// earlier. Exact for any two points within about 292,000 years (microseconds in 64 bits).
VESK_API int64_t vesk_utility_timeval_diff_ms(const vesk_timeval& end, const vesk_timeval& start);
VESK_API int64_t vesk_utility_timeval_diff_us(const vesk_timeval& end, const vesk_timeval& start);

// The same for timespec (clock_gettime, pthread time-outs): inline, see the size guarantee.
// Exact within about 292 years (nanoseconds in 64 bits).
inline int64_t vesk_utility_timespec_diff_us(const struct timespec& end, const struct timespec& start)
{
    const int64_t ns = (static_cast<int64_t>(end.tv_sec) - static_cast<int64_t>(start.tv_sec)) * 1000000000 +
                       (static_cast<int64_t>(end.tv_nsec) - static_cast<int64_t>(start.tv_nsec));
    return ns / 1000;
}
inline int64_t vesk_utility_timespec_diff_ms(const struct timespec& end, const struct timespec& start)
{
    const int64_t ns = (static_cast<int64_t>(end.tv_sec) - static_cast<int64_t>(start.tv_sec)) * 1000000000 +
                       (static_cast<int64_t>(end.tv_nsec) - static_cast<int64_t>(start.tv_nsec));
    return ns / 1000000;
}

}  // namespace vesk_soft

#endif  // VESK_UTILITY_TIME_H
