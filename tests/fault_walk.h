// Allocation-failure walks: rerun one operation with its 1st, 2nd, 3rd ... C allocation
// failing until a run gets through untouched, and hand every run to a check of the outcome.
//
// A suite adds a walk in a few lines:
//     const unsigned allocs = vesk_test::walk_alloc_failures(
//         [&] { err = do_the_thing(); },
//         [&](const vesk_test::fault_run& run) {
//             if (run.failed) { EXPECT_EQ(err, VESK_ERR_NO_RESOURCE) << run.out; }
//             else            { EXPECT_EQ(err, VESK_OK); undo_the_thing(); }
//             EXPECT_EQ(account().total_size(), baseline);
//         });
//     EXPECT_GE(allocs, 1u);  // the walk really went through an allocation
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

// Runs op once per n = 1, 2, ... with allocation n failing (only on this thread), its output
// captured, then check(run). Stops after the first clean run and returns the number of
// allocations op makes. `limit` guards against an operation that never stops allocating.
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
