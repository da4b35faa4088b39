// Main of the subsystem test executables: a private root, then the layer initialised as the
// main application, once per process, never torn down.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sched/vesk_utility_timer.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"

int main(int argc, char** argv)
{
    // A death-test child re-runs the binary and starts the layer again: in a root of its own,
    // or its diagnose agent would take over the parent's socket and leave it dead at exit.
    bool death_child = false;
    for (int i = 1; i < argc; i++)
        death_child = death_child || strncmp(argv[i], "--gtest_internal_run_death_test", 31) == 0;
    testing::InitGoogleTest(&argc, argv);
    // A child then starts from a clean, single-threaded process, though the parent runs timers.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    // Listing the tests (CTest's discovery) must print nothing else: no start-up at all.
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    if (death_child) {
        unsetenv("VESK_UTILITY_ROOT");
        atexit(vesk_test::remove_private_root); // the layer's fatal paths end with exit()
    }
    vesk_test::make_private_root();
    vesk_soft::vesk_utility_init(vesk_soft::VESK_UTILITY_OPS_MAIN_APP);
    // Tests that match printed output exactly start once the timer's thread has greeted.
    vesk_utility::vesk_utility_timer* timer = vesk_utility::vesk_utility_res_manage::instance()->get_timer();
    for (int i = 0; i < 30000 && !timer->check_thread_entered(); i++)
        usleep(1000);
    const int result = RUN_ALL_TESTS();
    vesk_test::remove_private_root();
    return result;
}
