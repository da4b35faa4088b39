// Monotonic time helpers and vesk_utility_remove_file.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

TEST(TimeTest, DifferencesTruncateTowardZeroAcrossSecondsAndSigns)
{
    const struct {
        vesk_timeval end, start;
        int64_t us, ms;
    } cases[] = {
        {{10, 0}, {10, 0}, 0, 0},
        {{10, 1500}, {10, 0}, 1500, 1},
        {{11, 100}, {10, 999900}, 200, 0},
        {{10, 0}, {10, 1500}, -1500, -1},
        {{10, 0}, {11, 999999}, -1999999, -1999},
        {{4102444800LL, 250000}, {0, 0}, 4102444800250000LL, 4102444800250LL}, // 2100: time_t is 64-bit
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vesk_utility_timeval_diff_us(c.end, c.start), c.us) << c.end.tv_sec << "." << c.end.tv_usec;
        EXPECT_EQ(vesk_utility_timeval_diff_ms(c.end, c.start), c.ms) << c.end.tv_sec << "." << c.end.tv_usec;
        // The same as timespecs, with a sub-microsecond rest that is dropped.
        const timespec e = {static_cast<time_t>(c.end.tv_sec), static_cast<long>(c.end.tv_usec * 1000 + 999)};
        const timespec s = {static_cast<time_t>(c.start.tv_sec), static_cast<long>(c.start.tv_usec * 1000 + 999)};
        EXPECT_EQ(vesk_utility_timespec_diff_us(e, s), c.us) << c.end.tv_sec;
        EXPECT_EQ(vesk_utility_timespec_diff_ms(e, s), c.ms) << c.end.tv_sec;
    }
    // Now is checked against the monotonic clock in public_api_time.cpp.
    EXPECT_EQ(vesk_utility_get_timeval(nullptr), VESK_ERR_INVALID_PARAM);
}

TEST(RemoveFileTest, RemovesFilesAndReportsEveryFailure)
{
    const std::string path = vesk_test::private_root() + "/to_remove";
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    EXPECT_EQ(vesk_utility_remove_file(path.c_str()), VESK_OK);
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    std::string log = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_remove_file(path.c_str()), VESK_ERR_REMOVE_FAIL); });
    EXPECT_NE(log.find("unlink " + path + " fail: No such file or directory"), std::string::npos) << log;
    const std::string dir = vesk_test::private_root() + "/a_dir";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    log = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_remove_file(dir.c_str()), VESK_ERR_REMOVE_FAIL); });
    EXPECT_NE(log.find("Is a directory"), std::string::npos) << log;
    EXPECT_EQ(access(dir.c_str(), F_OK), 0);
    rmdir(dir.c_str());
    EXPECT_EQ(vesk_utility_remove_file(nullptr), VESK_ERR_INVALID_PARAM);
}
