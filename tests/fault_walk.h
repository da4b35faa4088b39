// Allocation-failure walks: rerun one operation with its 1st, 2nd, 3rd ... C allocation
// failing until a run gets through untouched, and hand every run to a check of the outcome:
//     walk_alloc_failures([&] { err = op(); }, [&](const fault_run& run) {
//         EXPECT_EQ(err, run.failed ? VESK_ERR_NO_RESOURCE : VESK_OK); });
#ifndef VESK_FAULT_WALK_H
#define VESK_FAULT_WALK_H

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "core/vesk_utility_fault.h"

namespace vesk_test
{

struct fault_run {
    unsigned n; // the allocation that was made to fail (1-based)
    bool failed; // false: the operation needed fewer than n allocations and ran clean
    std::string out; // what the operation printed
};

// Runs op with allocation n = 1, 2, ... failing (this thread only), then check(run); stops
// after the first clean run and returns the allocations op makes.
template <typename Op, typename Check> unsigned walk_alloc_failures(Op op, Check check, unsigned limit = 20000)
{
    for (unsigned n = 1; n <= limit; n++) {
        fault_run run { n, false, {} };
        run.out = capture_stdout([&] {
            vesk_utility::vesk_fault_arm(n);
            op();
            vesk_utility::vesk_fault_disarm();
        });
        run.failed = vesk_utility::vesk_fault_failures() != 0;
        SCOPED_TRACE(testing::Message() << "allocation " << n << " failed: " << run.failed);
        check(run);
        if (!run.failed)
            return vesk_utility::vesk_fault_calls();
    }
    ADD_FAILURE() << "operation still allocating after " << limit << " failed runs";
    return limit;
}

} // namespace vesk_test

#endif // VESK_FAULT_WALK_H
