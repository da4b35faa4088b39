// Generic helpers: clamps, intervals with counter wrap, bits, the ring buffer, the assertion
// block, the fixed-path prefix and the error codes of file removal and the clock.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_paths.h"

using namespace vesk_soft;
using namespace vesk_utility;

TEST(BaseTest, MinMaxMiddleIntervalsAndBits)
{
    EXPECT_EQ(vesk_utility_min(-3, 2), -3);
    EXPECT_EQ(vesk_utility_max(-3, 2), 2);
    EXPECT_EQ(vesk_utility_min(3u, 0xFFFFFFFFu), 3u);
    EXPECT_EQ(vesk_utility_max(3u, 0xFFFFFFFFu), 0xFFFFFFFFu);
    for (int v : {-5, 0, 7, 10, 11})
        EXPECT_EQ(vesk_utility_middle(v, 0, 10), v < 0 ? 0 : v > 10 ? 10 : v) << v;
    EXPECT_EQ(vesk_utility_middle(1u, 2u, 9u), 2u);

    EXPECT_EQ(vesk_utility_cnt_interval(-5, 7), 12u);
    EXPECT_EQ(vesk_utility_cnt_interval(INT_MIN, INT_MAX), 0xFFFFFFFFu);
    EXPECT_EQ(vesk_utility_cnt_interval(-100L, 100L), 200UL);
    EXPECT_EQ(vesk_utility_cnt_interval(1000u, 40u), 960u);
    // A counter that wrapped: 0xFFFFFFF0 -> 0x10 is 32 steps; the complement gives 31.
    EXPECT_EQ(vesk_utility_cnt_interval(0xFFFFFFF0u, 0x10u), 31u);
    EXPECT_EQ(vesk_utility_cnt_interval(0x10u, 0xFFFFFFF0u), 31u);
    // Exactly 0xF0000000 apart is not treated as a wrap.
    EXPECT_EQ(vesk_utility_cnt_interval(0xF0000000u, 0u), 0xF0000000u);
    EXPECT_EQ(vesk_utility_cnt_interval(0xF0000001u, 0u), 0x0FFFFFFEu);

    unsigned v = 0;
    vesk_utility_set_bit(v, 0);
    vesk_utility_set_bit(v, 31);
    vesk_utility_clr_bit(v, 0);
    EXPECT_EQ(v, 0x80000000u);
    EXPECT_TRUE(vesk_utility_tst_bit(v, 31) && !vesk_utility_tst_bit(v, 30));
}

TEST(RingTest, FillsToOneLessThanSizeWrapsReportsFullAndRefusesPositionsOutOfRange)
{
    char pool[8];
    memset(pool, '.', sizeof(pool));
    unsigned wr = 0, rd = 0;
    ASSERT_EQ(vesk_utility_add_circle_data(pool, 8, wr, rd, "abcdefg", 7), VESK_OK);
    EXPECT_EQ(wr, 7u);
    vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_add_circle_data(pool, 8, wr, rd, "h", 1), VESK_ERR_OPERATE_FAIL); });
    ASSERT_EQ(vesk_utility_del_circle_data(pool, 8, wr, rd, 3), VESK_OK);
    EXPECT_EQ(rd, 3u);
    ASSERT_EQ(vesk_utility_add_circle_data(pool, 8, wr, rd, "XYZ", 3), VESK_OK);
    EXPECT_EQ(wr, 2u);
    EXPECT_EQ(std::string(pool, 8), "YZcdefgX");

    // Held data wrap: p1 from rd to the end, p2 from the start to wr.
    char *p1, *p2;
    unsigned len1, len2;
    vesk_utility_fetch_circle_data(pool, 8, wr, rd, p1, len1, p2, len2);
    EXPECT_EQ(std::string(p1, len1), "defgX");
    EXPECT_EQ(std::string(p2, len2), "YZ");
    vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_del_circle_data(pool, 8, wr, rd, 8), VESK_ERR_OPERATE_FAIL); });
    ASSERT_EQ(vesk_utility_del_circle_data(pool, 8, wr, rd, 7), VESK_OK);
    EXPECT_EQ(rd, wr);
    vesk_utility_fetch_circle_data(pool, 8, wr, rd, p1, len1, p2, len2);
    EXPECT_TRUE(p1 == nullptr && len1 == 0);

    // rd > wr with wr == 0: only the first piece.
    vesk_utility_fetch_circle_data(pool, 8, 0, 5, p1, len1, p2, len2);
    EXPECT_TRUE(p1 == pool + 5 && len1 == 3 && p2 == nullptr && len2 == 0);
    // Positions out of range are refused by every operation.
    wr = 8, rd = 0;
    const std::string out = vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_add_circle_data(pool, 8, wr, rd, "a", 1), VESK_ERR_OPERATE_FAIL);
        EXPECT_EQ(vesk_utility_del_circle_data(pool, 8, wr, rd, 1), VESK_ERR_OPERATE_FAIL);
        vesk_utility_fetch_circle_data(pool, 8, wr, rd, p1, len1, p2, len2);
    });
    EXPECT_EQ(vesk_test::count_of(out, "pool_wr_pos = 8, pool_rd_pos = 0 overflow!\n"), 3) << out;
    EXPECT_EQ(p1, nullptr);
}

TEST(LogDeathTest, AssertionBlockIsRedAndExitsWithMinusOne)
{
    VESK_EXPECT_FATAL(VESK_ASSERT(1 + 1 == 3),
        "^\e\\[0;32;31mASSERT!\n >File name: tests/core/vesk_utility_base_test.cpp\n >Function: TestBody\n "
        ">Line No: [0-9]+\n >Condition: 1 \\+ 1 == 3\n");
}

TEST(PathsTest, FixedPathsMoveUnderThePrivateRoot)
{
    char path[256];
    const std::string root = vesk_test::private_root();
    ASSERT_FALSE(root.empty());
    EXPECT_STREQ(vesk_root(), root.c_str());
    EXPECT_EQ(std::string(vesk_rooted_path(path, sizeof(path), k_path_diag_socket_main)),
        root + "/usr/lib/libutility.socket");
    EXPECT_EQ(std::string(vesk_rooted_path(path, sizeof(path), k_path_close_dog)), root + "/config//close_dog");
    // Cut, never overrun.
    char small[8];
    vesk_rooted_path(small, sizeof(small), k_path_wdt_tag);
    EXPECT_EQ(strlen(small), 7u);
}

TEST(ErrorCodeTest, RemoveFileReportsEveryFailureAndTheClockRefusesNoBuffer)
{
    const std::string path = vesk_test::private_root() + "/to_remove";
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    EXPECT_EQ(vesk_utility_remove_file(path.c_str()), VESK_OK);
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    // Missing, a directory (left alone), or no path at all.
    const std::string dir = vesk_test::private_root() + "/a_dir";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_remove_file(path.c_str()), VESK_ERR_REMOVE_FAIL);
        EXPECT_EQ(vesk_utility_remove_file(dir.c_str()), VESK_ERR_REMOVE_FAIL);
    });
    EXPECT_EQ(access(dir.c_str(), F_OK), 0);
    rmdir(dir.c_str());
    EXPECT_EQ(vesk_utility_remove_file(nullptr), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_get_timeval(nullptr), VESK_ERR_INVALID_PARAM);
}
