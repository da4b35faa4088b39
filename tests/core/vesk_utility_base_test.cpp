// Generic helpers: clamps, intervals with counter wrap, bits, the ring buffer, time
// differences, file removal, the printing module, the fixed-path prefix, and the allocator
// hooks handed to the protocol libraries.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_hooks.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
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

TEST(LogTest, LevelsCarryTheirColourPrefixAndResetAndRepeatsAreCounted)
{
    const std::string out = vesk_test::capture_stdout([] {
        vesk_log(vesk_log_level::error, "vesk_cls", "work", 12, "x = %d\n", 5);
        vesk_log(vesk_log_level::warning, "vesk_cls", "work", 13, "careful");
        vesk_log(vesk_log_level::debug, nullptr, "free_fn", 14, "%s\n", "hello");
    });
    EXPECT_EQ(out,
        "\e[0;32;31m[UTL] ERROR! vesk_cls::work[12]:x = 5\n\e[m"
        "\e[1;33m[UTL] WARNING! vesk_cls::work[13]:careful\e[m"
        "\e[0;32;32m[UTL] DEBUG! free_fn[14]:hello\n\e[m");

    // One site on a driven clock: the same text within 10 s of the last is counted; the count
    // is printed every 60 s of a run, and when the text changes; after a gap the text prints.
    vesk_log_site site;
    const struct {
        int64_t ms;
        int fd;
        const char* printed;
    } steps[] = {{1000, 3, "fd 3 fail!\n"}, {1100, 3, ""}, {10000, 3, ""}, {19000, 3, ""}, {28000, 3, ""},
        {37000, 3, ""}, {46000, 3, ""}, {55000, 3, ""}, {61000, 3, "last message repeated 8 times\n"}, {62000, 3, ""},
        {63000, 4, "last message repeated 1 times\n|fd 4 fail!\n"}, {73001, 4, "fd 4 fail!\n"}, {73002, 4, ""}};
    for (const auto& step : steps) {
        const std::string got = vesk_test::capture_stdout([&] {
            vesk_log_repeat_at(step.ms, site, vesk_log_level::error, "cls", "poll", 7, "fd %d fail!\n", step.fd);
        });
        std::string want;
        for (std::string rest = step.printed; !rest.empty();) {
            const size_t bar = rest.find('|');
            want += "\e[0;32;31m[UTL] ERROR! cls::poll[7]:" + rest.substr(0, bar) + "\e[m";
            rest = bar == std::string::npos ? "" : rest.substr(bar + 1);
        }
        EXPECT_EQ(got, want) << "at " << step.ms;
    }
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

    // Missing, a directory (left alone), or no path at all.
    const std::string dir = vesk_test::private_root() + "/a_dir";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const std::string log = vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_remove_file(path.c_str()), VESK_ERR_REMOVE_FAIL);
        EXPECT_EQ(vesk_utility_remove_file(dir.c_str()), VESK_ERR_REMOVE_FAIL);
    });
    EXPECT_NE(log.find("unlink " + path + " fail: No such file or directory"), std::string::npos) << log;
    EXPECT_EQ(access(dir.c_str(), F_OK), 0);
    rmdir(dir.c_str());
    EXPECT_EQ(vesk_utility_remove_file(nullptr), VESK_ERR_INVALID_PARAM);
}

namespace
{

// This executable stands in for the firmware's builds of the protocol libraries, whose entries
// replace the layer's weak no-ops: they record what vesk_utility_init handed them, in order.
std::vector<std::pair<std::string, vesk_malloc_funcs>> s_hooked;

} // namespace

extern "C" {
void register_libcurl_malloc_funcs(vesk_malloc_funcs* funcs) { s_hooked.emplace_back("libcurl", *funcs); }
void register_libfcgi_malloc_funcs(vesk_malloc_funcs* funcs) { s_hooked.emplace_back("libfcgi", *funcs); }
void register_polarssl_malloc_funcs(vesk_malloc_funcs* funcs) { s_hooked.emplace_back("polarssl", *funcs); }
void register_zlib_malloc_funcs(vesk_malloc_funcs* funcs) { s_hooked.emplace_back("zlib", *funcs); }
}

TEST(AllocatorHookTest, ProtocolLibrariesAreHookedOnceInOrderWithTheAccountedAllocator)
{
    const std::pair<std::string, vesk_memmory_purpose> want[]
        = {{"libcurl", 0x130400}, {"libfcgi", 0x130401}, {"polarssl", 0x130405}, {"zlib", 0x130403}};
    ASSERT_EQ(s_hooked.size(), 4u);
    for (size_t i = 0; i < 4; i++) {
        const vesk_malloc_funcs& f = s_hooked[i].second;
        EXPECT_EQ(s_hooked[i].first, want[i].first);
        EXPECT_EQ(f.usr_id, 0x83u) << want[i].first;
        EXPECT_EQ(f.purpose, want[i].second) << want[i].first;
        // A heap block (past the little-memory pool) has its size on record.
        void* p = f.malloc_fn(f.usr_id, f.purpose, 5000, 1);
        unsigned size = 0;
        EXPECT_EQ(vesk_get_mem_size(__FILE__, __func__, p, size), VESK_OK);
        EXPECT_EQ(size, 5000u);
        p = f.realloc_fn(f.usr_id, f.purpose, p, 9000, __FILE__, __func__, 1);
        EXPECT_EQ(f.free_fn(__FILE__, __func__, p), VESK_OK);
        EXPECT_EQ(f.free_fn(__FILE__, __func__, f.calloc_fn(f.usr_id, f.purpose, 2, 3)), VESK_OK);
    }
    EXPECT_EQ(vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP), VESK_OK); // a second init hooks nothing
    EXPECT_EQ(s_hooked.size(), 4u);
}
