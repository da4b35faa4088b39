// Main of the executable that tests the layer before initialisation and the start-up roles:
// it never calls vesk_utility_init itself; tests that need a role start it in a child.
#include <gtest/gtest.h>

#include "test_support.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    vesk_test::make_private_root();
    const int result = RUN_ALL_TESTS();
    vesk_test::remove_private_root();
    return result;
}
