// System and process memory figures: the fixed-position meminfo read, the summary
// arithmetic, smaps, and SQLite's heap going through the accounting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_sys.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using testing::HasSubstr;

namespace
{

FILE* fixture(const std::string& text)
{
    FILE* fp = tmpfile();
    fputs(text.c_str(), fp);
    rewind(fp);
    return fp;
}

const char* k_meminfo = "MemTotal:         506880 kB\n"
                        "MemFree:          102400 kB\n"
                        "MemAvailable:     300000 kB\n"
                        "Buffers:           10240 kB\n"
                        "Cached:           153600 kB\n"
                        "SwapCached:            0 kB\n"
                        "Unevictable:        2048 kB\n"
                        "Shmem:             51200 kB\n"
                        "KernelStack:        1024 kB\n"
                        "PageTables:         2048 kB\n"
                        "SUnreclaim:         8192 kB\n";

} // namespace

TEST(MemSysTest, FixedPositionReadMatchesTheKernelsLayout)
{
    FILE* fp = fixture(k_meminfo);
    unsigned total, free_kb, buffers, cached;
    parse_meminfo_fixed(fp, total, free_kb, buffers, cached);
    fclose(fp);
    EXPECT_EQ(total, 506880u);
    EXPECT_EQ(free_kb, 102400u);
    EXPECT_EQ(buffers, 10240u);
    EXPECT_EQ(cached, 153600u);

    // The live file agrees with the keyed read of the same file.
    ASSERT_EQ(vesk_utility_get_system_mem_info(total, free_kb, buffers, cached), VESK_OK);
    fp = fopen("/proc/meminfo", "r");
    ASSERT_NE(fp, nullptr);
    vesk_meminfo mi {};
    parse_meminfo_keys(fp, mi);
    fclose(fp);
    EXPECT_EQ(total, mi.total);
    EXPECT_GT(total, 0u);
}

TEST(MemSysTest, SummaryArithmetic)
{
    FILE* fp = fixture(k_meminfo);
    vesk_meminfo mi {};
    mi.vmalloc = 4 * 1024 * 1024; // bytes
    parse_meminfo_keys(fp, mi);
    fclose(fp);
    const std::string out = vesk_test::capture_stdout([&] { print_meminfo_summary(mi, vesk_print_stdout); });
    // used = 506880 - (102400 + 10240 + (153600 - 51200)) = 291840 kB = 285.0 MB, 57 %;
    // kernel = 8192 + 1024 + 2048 + 4096 = 15360 kB = 15.0 MB.
    EXPECT_EQ(out,
        "System total use mem = 57%\n"
        "total = 495.0MB, free = 100.0MB, buff = 10.0MB, cach = 150.0MB, ramfs_cache = 50.0MB, kernel_used = "
        "15.0MB total_used = 285.0MB\n");

    fp = fixture("0xa-0xb    8192 load_module+0x1/0x2 pages=1 vmalloc N0=1\n"
                 "0xc-0xd   12288 ioremap+0x3/0x4 phys=0x1 ioremap\n"
                 "0xe-0xf   16384 f+0x5/0x6 pages=3 vmalloc vpages N0=3\n");
    EXPECT_EQ(parse_vmallocinfo(fp), 8192u + 16384u);
    fclose(fp);
}

TEST(MemSysTest, SmapsSummaryAndDetailLargestFirst)
{
    FILE* fp = fixture("00400000-00452000 r-xp 00000000 08:02 173521      /usr/bin/nvr\n"
                       "Size:                328 kB\nRss:                 100 kB\nPss:                  50 kB\n"
                       "Private_Dirty:         0 kB\n"
                       "b6f00000-b7000000 rw-p 00000000 00:00 0 \n"
                       "Size:               1024 kB\nRss:                 900 kB\nPss:                 900 kB\n"
                       "Private_Dirty:       900 kB\n"
                       "b7100000-b7101000 rw-p 00000000 00:00 0           [stack]\n"
                       "Size:                  4 kB\nRss:                   0 kB\nPss:                   0 kB\n");
    const std::string out = vesk_test::capture_stdout([&] { dump_smaps(fp, true, vesk_print_stdout); });
    fclose(fp);
    EXPECT_THAT(out, HasSubstr("mappings = 3, size = 1356KB, rss = 1000KB, pss = 950KB"));
    const size_t anon = out.find("b6f00000-b7000000 rw-p        900        900            900 \n");
    const size_t text = out.find("00400000-00452000 r-xp        100         50              0 /usr/bin/nvr\n");
    ASSERT_NE(anon, std::string::npos) << out;
    ASSERT_NE(text, std::string::npos) << out;
    EXPECT_LT(anon, text);
    EXPECT_EQ(out.find("[stack]"), std::string::npos); // nothing resident
}

TEST(SqliteHookTest, SqliteHeapIsAccountedToItsOwnCaller)
{
    vesk_mem_account& account = vesk_ground::instance()->mem_account();
    const uint32_t before = account.total_size();
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(a TEXT); INSERT INTO t VALUES(hex(randomblob(5000)));", nullptr, nullptr,
                  nullptr),
        SQLITE_OK);
    EXPECT_GT(account.total_size(), before + 10000);
    const std::string out = vesk_test::capture_stdout([&] { account.dump_by_module(vesk_print_stdout); });
    EXPECT_THAT(out, HasSubstr("caller = 0x22, "));
    EXPECT_THAT(out, HasSubstr("\tpurpose = 0x1600, "));
    sqlite3_close(db);
}
