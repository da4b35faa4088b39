// vesk_utility_api_time - the exported monotonic-clock helpers; no initialisation needed.
#include "vesk_utility_time.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_clock.h"

namespace vesk_soft
{

using namespace vesk_utility;

VESK_ERR vesk_utility_get_timeval(vesk_timeval* now)
{
    if (now == nullptr) {
        VESK_ERR_FN("now == NULL\n");
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_monotonic_now(now);
    return VESK_OK;
}

int64_t vesk_utility_timeval_diff_ms(const vesk_timeval& end, const vesk_timeval& start)
{
    return vesk_timeval_diff_us(end, start) / 1000;
}

int64_t vesk_utility_timeval_diff_us(const vesk_timeval& end, const vesk_timeval& start)
{
    return vesk_timeval_diff_us(end, start);
}

} // namespace vesk_soft
