// The lock wrappers before vesk_utility_init: nothing is created, nothing is deleted.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;

TEST(PreInitLockTest, NewRefusesAndDeleteReportsNotInit)
{
    ASSERT_EQ(vesk_utility::vesk_ops_type(), 0u);
    std::string out = vesk_test::capture_stdout([] {
        EXPECT_EQ(vesk_utility_new_lock(0x41, "early"), nullptr);
        EXPECT_EQ(vesk_utility_new_rw_lock(0x41, "early"), nullptr);
        EXPECT_EQ(vesk_utility_new_interuptable_sleep(0x41, "early"), nullptr);
    });
    EXPECT_EQ(vesk_test::count_of(out, "s_ops_type = 0x0, not init or not support\n\e[m"), 3) << out;
    EXPECT_NE(out.find("[UTL] ERROR! vesk_utility_new_lock["), std::string::npos) << out;
    EXPECT_NE(out.find("[UTL] ERROR! vesk_utility_new_rw_lock["), std::string::npos) << out;
    EXPECT_NE(out.find("[UTL] ERROR! vesk_utility_new_interuptable_sleep["), std::string::npos) << out;

    // A pointer that was never registered is not even looked at before init.
    vesk_lock* bogus = reinterpret_cast<vesk_lock*>(0x1000);
    out = vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_delete_lock(bogus, "boot.cpp", "early_exit"), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_delete_rw_lock(nullptr, "boot.cpp", "early_exit"), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_delete_interuptable_sleep(nullptr, "boot.cpp", "early_exit"), VESK_ERR_NOT_INIT);
    });
    EXPECT_EQ(vesk_test::count_of(out, "boot.cpp early_exit not init, s_ops_type = 0x0 not support\n"), 3) << out;
}
