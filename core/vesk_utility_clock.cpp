// vesk_utility_clock - the monotonic clock in the layer's fixed-width vesk_timeval. Built with a
// 64-bit time_t on the board, so the seconds never wrap in 2038 whatever the caller uses.
#include "core/vesk_utility_clock.h"

#include <time.h>

namespace vesk_utility {

void vesk_monotonic_now(vesk_soft::vesk_timeval* now)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);  // cannot fail for this clock and a valid pointer
    now->tv_sec = static_cast<int64_t>(ts.tv_sec);
    now->tv_usec = static_cast<int64_t>(ts.tv_nsec / 1000);
}

int64_t vesk_timeval_diff_us(const vesk_soft::vesk_timeval& end, const vesk_soft::vesk_timeval& start)
{
    return (end.tv_sec - start.tv_sec) * 1000000 + (end.tv_usec - start.tv_usec);
}

}  // namespace vesk_utility
