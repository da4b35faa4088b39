// The timer functions outside the main application role: refused with the role message,
// before initialisation here (the proxy role never finishes initialising, see the role tests).
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{
vesk_timer_ret_code never_cb(void*, unsigned int*, vesk_timer_task_type*)
{
    return VESK_TIMER_RET_DELETE;
}
} // namespace

TEST(PreInitTimerTest, EveryTimerFunctionRefusesOutsideTheMainRole)
{
    const std::string out = vesk_test::capture_stdout([] {
        EXPECT_EQ(
            vesk_utility_c_regist_timer(0x40, never_cb, 1, 10, nullptr, VESK_TIMER_TASK_COMMON, 0), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_c_regist_fetch_wd_timer(never_cb, 10, nullptr), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_c_unregist_timer(never_cb, nullptr, 1, VESK_TIMER_TASK_ALL), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_c_timer_wakeup(never_cb, nullptr, 0, VESK_TIMER_TASK_ALL), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_adj_comm_thr_num(8, 2), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_adj_real_time_thr_num(3), VESK_ERR_NOT_INIT);
    });
    EXPECT_EQ(vesk_test::count_of(out, "not init, or not support, s_ops_type = 0x0\n\e[m"), 6) << out;
    EXPECT_NE(out.find("\e[0;32;31m[UTL] ERROR! vesk_utility_c_regist_timer["), std::string::npos) << out;
    EXPECT_NE(out.find("\e[0;32;31m[UTL] ERROR! vesk_utility_adj_real_time_thr_num["), std::string::npos) << out;
}
