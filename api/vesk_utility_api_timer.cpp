// vesk_utility_api_timer - the exported timer functions: the service exists only in the main
// application, so each wrapper checks that role, then its pointers, then forwards.
#include "sched/vesk_utility_timer.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

namespace
{

vesk_utility_timer* timer()
{
    return vesk_utility_res_manage::instance()->get_timer();
}

} // namespace

#define VESK_TIMER_REQUIRE_FUNC(func)                                                                                  \
    do {                                                                                                               \
        if ((func) == nullptr) {                                                                                       \
            VESK_ERR_FN("func == NULL, invalid!\n");                                                                   \
            return VESK_ERR_INVALID_PARAM;                                                                             \
        }                                                                                                              \
    } while (0)

VESK_ERR vesk_utility_c_regist_timer(vesk_user_id user_id, vesk_timer_callback func, vesk_timer_purpose purpose,
    unsigned int interval_ms, void* param, vesk_timer_task_type task_type, unsigned int first_ms)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_TIMER_REQUIRE_FUNC(func);
    return timer()->regist_c_func(user_id, func, purpose, interval_ms, param, task_type, first_ms);
}

VESK_ERR vesk_utility_c_regist_fetch_wd_timer(vesk_timer_callback func, unsigned int interval_ms, void* param)
{
    VESK_REQUIRE_MAIN_ROLE();
    return timer()->regist_fetch_wd(func, interval_ms, param);
}

VESK_ERR vesk_utility_c_unregist_timer(
    vesk_timer_callback func, void* param, VESK_BOOL wait, vesk_timer_task_type task_type)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_TIMER_REQUIRE_FUNC(func);
    return timer()->unregist_c_func(func, param, wait, task_type);
}

VESK_ERR vesk_utility_c_timer_wakeup(
    vesk_timer_callback func, void* param, unsigned int delay_ms, vesk_timer_task_type task_type)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_TIMER_REQUIRE_FUNC(func);
    return timer()->wakeup(func, param, delay_ms, task_type);
}

VESK_ERR vesk_utility_adj_comm_thr_num(unsigned int num, unsigned int temp_num)
{
    VESK_REQUIRE_MAIN_ROLE();
    return timer()->adj_comm_thr_num(num, temp_num);
}

VESK_ERR vesk_utility_adj_real_time_thr_num(unsigned int num)
{
    VESK_REQUIRE_MAIN_ROLE();
    return timer()->adj_real_time_thr_num(num);
}

} // namespace vesk_soft
