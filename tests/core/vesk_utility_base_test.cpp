// Generic helpers: clamps, intervals with counter wrap, bits and the ring buffer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using testing::HasSubstr;

TEST(BaseTest, MinMaxMiddleAndIntervals)
{
    EXPECT_EQ(vesk_utility_min(-3, 2), -3);
    EXPECT_EQ(vesk_utility_max(-3, 2), 2);
    EXPECT_EQ(vesk_utility_min(3u, 0xFFFFFFFFu), 3u);
    EXPECT_EQ(vesk_utility_max(3u, 0xFFFFFFFFu), 0xFFFFFFFFu);
    EXPECT_EQ(vesk_utility_middle(-5, 0, 10), 0);
    EXPECT_EQ(vesk_utility_middle(10, 0, 10), 10); // value >= high gives high
    EXPECT_EQ(vesk_utility_middle(7, 0, 10), 7);
    EXPECT_EQ(vesk_utility_middle(1u, 2u, 9u), 2u);
    EXPECT_EQ(vesk_utility_middle(20u, 2u, 9u), 9u);

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
}

TEST(BaseTest, Bits)
{
    unsigned v = 0;
    vesk_utility_set_bit(v, 0);
    vesk_utility_set_bit(v, 31);
    EXPECT_EQ(v, 0x80000001u);
    EXPECT_TRUE(vesk_utility_tst_bit(v, 31));
    EXPECT_FALSE(vesk_utility_tst_bit(v, 30));
    vesk_utility_clr_bit(v, 0);
    EXPECT_EQ(v, 0x80000000u);
}

TEST(RingTest, FillsToOneLessThanSizeWrapsAndReportsFull)
{
    char pool[8];
    memset(pool, '.', sizeof(pool));
    unsigned wr = 0, rd = 0;
    ASSERT_EQ(vesk_utility_add_circle_data(pool, 8, wr, rd, "abcdefg", 7), VESK_OK);
    EXPECT_EQ(wr, 7u);
    std::string out = vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_add_circle_data(pool, 8, wr, rd, "h", 1), VESK_ERR_OPERATE_FAIL); });
    EXPECT_THAT(out, HasSubstr("[UTL] ERROR! vesk_utility_add_circle_data["));
    EXPECT_THAT(out, HasSubstr("pool_size = 8, pool_wr_pos = 7, pool_rd_pos = 0, empty_size = 0, len = 1\n"));

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

    out = vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_del_circle_data(pool, 8, wr, rd, 8), VESK_ERR_OPERATE_FAIL); });
    EXPECT_THAT(out, HasSubstr("pool_size = 8, pool_wr_pos = 2, pool_rd_pos = 3, valid_size = 7, len = 8\n"));
    ASSERT_EQ(vesk_utility_del_circle_data(pool, 8, wr, rd, 7), VESK_OK);
    EXPECT_EQ(rd, wr);
    vesk_utility_fetch_circle_data(pool, 8, wr, rd, p1, len1, p2, len2);
    EXPECT_EQ(p1, nullptr);
    EXPECT_EQ(len1, 0u);
}

TEST(RingTest, EdgesOfFetchAndOutOfRangePositions)
{
    char pool[16];
    char *p1, *p2;
    unsigned len1, len2;
    // rd > wr with wr == 0: only the first piece.
    vesk_utility_fetch_circle_data(pool, 16, 0, 10, p1, len1, p2, len2);
    EXPECT_EQ(p1, pool + 10);
    EXPECT_EQ(len1, 6u);
    EXPECT_EQ(p2, nullptr);
    EXPECT_EQ(len2, 0u);

    unsigned wr = 16, rd = 0;
    std::string out = vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_add_circle_data(pool, 16, wr, rd, "a", 1), VESK_ERR_OPERATE_FAIL);
        EXPECT_EQ(vesk_utility_del_circle_data(pool, 16, wr, rd, 1), VESK_ERR_OPERATE_FAIL);
        vesk_utility_fetch_circle_data(pool, 16, wr, rd, p1, len1, p2, len2);
    });
    EXPECT_EQ(vesk_test::count_of(out, "pool_size = 16, pool_wr_pos = 16, pool_rd_pos = 0 overflow!\n"), 3) << out;
    EXPECT_EQ(p1, nullptr);

    // An empty ring skips the capacity check: the caller's contract is len < pool_size.
    wr = rd = 5;
    ASSERT_EQ(vesk_utility_add_circle_data(pool, 16, wr, rd, "0123456789abcde", 15), VESK_OK);
    EXPECT_EQ(wr, 4u);
}
