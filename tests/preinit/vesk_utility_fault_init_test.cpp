// Allocation failure during start-up: every allocation that vesk_utility_init makes is made to
// fail in turn, each in a fresh process. A service start-up cannot run without ends in the
// assertion that names it; a failure start-up can live with (a diagnose client's title, say)
// is logged and start-up completes. Never a crash, never a silent loss.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_fault.h"

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
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        fflush(stdout);
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            vesk_fault_arm(n);
            vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);
            vesk_fault_disarm();
            fflush(stdout);
            _exit(vesk_fault_failures() == 1 ? 0 : 3);
        }
        close(out[1]);
        std::string text;
        char buf[4096];
        for (ssize_t k; (k = read(out[0], buf, sizeof(buf))) > 0;)
            text.append(buf, static_cast<size_t>(k));
        close(out[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status)) << "allocation " << n << " crashed start-up:\n" << text;
        if (WEXITSTATUS(status) == 255)
            EXPECT_NE(text.find("ASSERT!\n >File name: "), std::string::npos) << n << ":\n" << text;
        else
            EXPECT_TRUE(WEXITSTATUS(status) == 0 && text.find("fail") != std::string::npos)
                << "allocation " << n << " failed without a word (status " << WEXITSTATUS(status) << "):\n" << text;
    }
}
