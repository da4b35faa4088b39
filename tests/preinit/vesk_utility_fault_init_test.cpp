// Allocation failure during start-up: every C allocation that vesk_utility_init makes is made
// to fail in turn, each in a fresh process. Start-up cannot run without its services, so each
// failure must end in the assertion that names the missing one, never in a crash.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"
#include "vesk_utility.h"
#include "vesk_utility_fault.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

// Allocations made by a complete start-up, counted in a forked child (this process must stay
// uninitialised for the death tests that follow).
unsigned count_init_allocations()
{
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        vesk_fault_arm(0);
        vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);
        vesk_fault_disarm();
        _exit(static_cast<int>(vesk_fault_calls() < 200 ? vesk_fault_calls() : 200));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? static_cast<unsigned>(WEXITSTATUS(status)) : 0;
}

} // namespace

TEST(PreInitFaultDeathTest, EveryStartUpAllocationFailureEndsInItsAssertion)
{
    const unsigned allocs = count_init_allocations();
    ASSERT_GE(allocs, 1u) << "start-up made no allocation through the seam";
    ASSERT_LT(allocs, 200u);
    // The first is the registry's node pool.
    VESK_EXPECT_FATAL(
        {
            vesk_fault_arm(1);
            vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);
        },
        "caller_id = 0x13, purpose = 0x3001, malloc [0-9]+ fail!\n.*ASSERT!\n >File name: core/[a-z_]+\\.cpp\n "
        ">Function: [a-z_]+\n >Line No: [0-9]+\n >Condition: m_node_pool != NULL\n");
    for (unsigned n = 2; n <= allocs; n++) {
        VESK_EXPECT_FATAL(
            {
                vesk_fault_arm(n);
                vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);
            },
            "ASSERT!\n >File name: .*\n >Condition: ");
    }
}
