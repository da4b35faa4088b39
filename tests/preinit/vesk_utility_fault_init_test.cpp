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

// Starts the layer in a forked child (this process stays uninitialised) with allocation n
// failing, or none for 0; the child's exit status (-1: it crashed) and what it printed. The
// child ends with 255 on its fatal path; otherwise with the allocations made (at most 200)
// for n = 0, else 0 when exactly one failed.
int init_failing(unsigned n, std::string* out)
{
    int pipe_fd[2];
    if (pipe(pipe_fd) != 0)
        return -1;
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipe_fd[1], STDOUT_FILENO);
        close(pipe_fd[0]);
        vesk_fault_arm(n);
        vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);
        vesk_fault_disarm();
        fflush(stdout);
        if (n == 0)
            _exit(static_cast<int>(vesk_fault_calls() < 200 ? vesk_fault_calls() : 200));
        _exit(vesk_fault_failures() == 1 ? 0 : 3);
    }
    close(pipe_fd[1]);
    char buf[4096];
    for (ssize_t k; (k = read(pipe_fd[0], buf, sizeof(buf))) > 0;)
        out->append(buf, static_cast<size_t>(k));
    close(pipe_fd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(PreInitFaultDeathTest, EveryStartUpAllocationFailureEndsInItsAssertion)
{
    std::string text;
    const int allocs = init_failing(0, &text);
    ASSERT_GE(allocs, 1) << "start-up made no allocation through the seam";
    ASSERT_LT(allocs, 200);
    // The first is the registry's node pool.
    VESK_EXPECT_FATAL(
        {
            vesk_fault_arm(1);
            vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);
        },
        "caller_id = 0x13, purpose = 0x3001, malloc [0-9]+ fail!\n.*ASSERT!\n >File name: core/[a-z_]+\\.cpp\n "
        ">Function: [a-z_]+\n >Line No: [0-9]+\n >Condition: m_node_pool != NULL\n");
    for (int n = 2; n <= allocs; n++) {
        text.clear();
        const int status = init_failing(static_cast<unsigned>(n), &text);
        ASSERT_NE(status, -1) << "allocation " << n << " crashed start-up:\n" << text;
        if (status == 255)
            EXPECT_NE(text.find("ASSERT!\n >File name: "), std::string::npos) << n << ":\n" << text;
        else
            EXPECT_TRUE(status == 0 && text.find("fail") != std::string::npos)
                << "allocation " << n << " failed without a word (status " << status << "):\n" << text;
    }
}
