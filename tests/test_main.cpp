// Main of the subsystem test executables: a private root, then the layer initialised as the
// main application, once per process, never torn down.
#include <gtest/gtest.h>

#include <unistd.h>

#include "test_support.h"
#include "vesk_utility_resource.h"
#include "sched/vesk_utility_timer.h"
#include "vesk_utility.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Death tests re-execute the binary, so a child starts from a clean, single-threaded
    // process even though the timer threads run in the parent.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    // Listing the tests (CTest's discovery) must print nothing else: no start-up at all.
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    vesk_test::make_private_root();
    vesk_soft::vesk_utility_init(vesk_soft::VESK_UTILITY_OPS_MAIN_APP);
    // The timer's check thread greets asynchronously; tests that match printed output exactly
    // start once it has.
    vesk_utility::vesk_utility_timer* timer = vesk_utility::vesk_utility_res_manage::instance()->get_timer();
    for (int i = 0; i < 30000 && !timer->check_thread_entered(); i++)
        usleep(1000);
    const int result = RUN_ALL_TESTS();
    vesk_test::remove_private_root();
    return result;
}
