// vesk_utility_clock - the monotonic clock as vesk_timeval, and differences of two of them.
#ifndef VESK_UTILITY_CLOCK_H
#define VESK_UTILITY_CLOCK_H

#include "vesk_utility_time.h"

namespace vesk_utility {

void vesk_monotonic_now(vesk_soft::vesk_timeval* now);
// end - start in microseconds.
int64_t vesk_timeval_diff_us(const vesk_soft::vesk_timeval& end, const vesk_soft::vesk_timeval& start);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_CLOCK_H
