// Accounted heap and note trees: alignment, totals, realloc, the dumps, the note counts and
// compaction, and the fatal checks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_mem_layout.h"
#include "core/vesk_utility_mem_note.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using testing::HasSubstr;

namespace
{

vesk_mem_account& account()
{
    return vesk_ground::instance()->mem_account();
}

void free_all(std::initializer_list<void*> blocks)
{
    for (void* p : blocks)
        vesk_utility_free(__FILE__, __func__, p);
}

bool holds(const void* p, size_t n, unsigned char v)
{
    for (size_t i = 0; i < n; i++)
        if (static_cast<const unsigned char*>(p)[i] != v)
            return false;
    return true;
}

// The process's virtual size in pages.
long vm_pages()
{
    long pages = -1;
    FILE* fp = fopen("/proc/self/statm", "r");
    if (fp != nullptr) {
        if (fscanf(fp, "%ld", &pages) != 1)
            pages = -1;
        fclose(fp);
    }
    return pages;
}

} // namespace

// (Totals over many blocks freed in mixed order are the leak soak's.)
TEST(MemAccountTest, AlignedBlocksStartAtTheFirstMultipleAfterTheHeader)
{
    const uint32_t base_blocks = account().live_blocks();
    for (unsigned align : {1u, 8u, 64u, 4096u}) {
        void* q = vesk_utility_malloc(0x41, 0x4243, 5000, align);
        ASSERT_NE(q, nullptr);
        EXPECT_EQ(account().live_blocks(), base_blocks + 1);
        const uintptr_t user = reinterpret_cast<uintptr_t>(q);
        uintptr_t raw;
        memcpy(&raw, static_cast<char*>(q) - k_mem_head_size + offsetof(vesk_mem_head, src_memory), sizeof(raw));
        EXPECT_EQ(user % align, 0u);
        EXPECT_TRUE(user >= raw + k_mem_head_size && user < raw + k_mem_head_size + align) << align;
        memset(q, 0xA5, 5000); // the whole user area is usable
        vesk_utility_free(__FILE__, __func__, q);
    }
    EXPECT_EQ(account().live_blocks(), base_blocks);
    EXPECT_EQ(vesk_utility_free(__FILE__, __func__, nullptr), VESK_OK);
}

// The plain build's own leak check (the checked builds have LeakSanitizer, whose quarantine
// would hold the freed blocks here): 128 MB freed in 1 MB blocks leaves the process's size.
TEST(MemAccountTest, FreedBlocksGoBackToTheSystem)
{
#if VESK_TEST_SANITIZER_EXIT != 0
    GTEST_SKIP() << "the sanitizer's quarantine keeps freed blocks";
#endif
    const long before = vm_pages();
    ASSERT_GT(before, 0);
    for (int i = 0; i < 128; i++) {
        void* p = vesk_utility_malloc(0x48, 0x4801, 1u << 20, 8);
        ASSERT_NE(p, nullptr);
        vesk_utility_free(__FILE__, __func__, p);
    }
    EXPECT_LT((vm_pages() - before) * sysconf(_SC_PAGESIZE), 32L << 20);
}

// Moves between the pool and the heap are the pool tests'.
TEST(MemAccountTest, ReallocCallocStrdupAndSizesWhoseBlockWouldWrap)
{
    const uint32_t base_total = account().total_size();
    char* p = static_cast<char*>(vesk_utility_realloc(0x43, 0x4301, nullptr, 10000, __FILE__, __func__, 1));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(vesk_utility_realloc(0x99, 0x9999, p, 10000, __FILE__, __func__, 1), p); // same size: unchanged
    EXPECT_EQ(account().total_size(), base_total + 10000);
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_realloc(0x43, 0x4304, p, 0, __FILE__, __func__, 1), nullptr); // frees
        EXPECT_EQ(vesk_utility_realloc(0x43, 0x4307, nullptr, 0, "app.cpp", "shrink", 1), nullptr);
    });
    EXPECT_EQ(account().total_size(), base_total);
    char* s = vesk_utility_strdup(0x43, 0x4306, "front door camera", 5);
    EXPECT_STREQ(s, "front");
    vesk_utility_free(__FILE__, __func__, s);
    EXPECT_EQ(vesk_utility_strdup(0x43, 0x4306, nullptr, 5), nullptr);

    // The smallest sizes whose header + trailer + alignment slack no longer fit 32 bits.
    const unsigned edge = static_cast<unsigned>(UINT32_MAX - k_mem_head_size - k_mem_tail_size + 1);
    const struct {
        unsigned size, align;
    } refused[] = {{0xFFFFFFFFu, 1}, {0xFFFFFFF0u, 4}, {edge, 1}, {edge - 15, 16}};
    vesk_test::capture_stdout([&] {
        for (const auto& r : refused)
            EXPECT_EQ(vesk_utility_malloc(0x47, 0x4701, r.size, r.align), nullptr) << r.size;
    });
    // A failed realloc leaves the old block whole and valid.
    p = static_cast<char*>(vesk_utility_malloc(0x47, 0x4702, 100, 8)); // align 8: a heap block
    ASSERT_NE(p, nullptr);
    memset(p, 0x5A, 100);
    EXPECT_EQ(vesk_utility_realloc(0x47, 0x4702, p, 0xFFFFFFF0u, __FILE__, __func__, 1), nullptr);
    EXPECT_TRUE(holds(p, 100, 0x5A));
    unsigned size = 0;
    EXPECT_EQ(vesk_get_mem_size(__FILE__, __func__, p, size), VESK_OK);
    EXPECT_EQ(size, 100u);
    // calloc products that wrap 32 bits are refused; the last two fit and must work.
    const std::pair<unsigned, unsigned> products[] = {{65537, 65536}, {65536, 65536}, {0xFFFFFFFF, 2}};
    vesk_test::capture_stdout([&] {
        for (const auto& n : products)
            EXPECT_EQ(vesk_utility_calloc(0x47, 0x4703, n.first, n.second), nullptr) << n.first;
    });
    unsigned char* z = static_cast<unsigned char*>(vesk_utility_calloc(0x47, 0x4703, 3, 4000));
    ASSERT_NE(z, nullptr);
    EXPECT_TRUE(holds(z, 12000, 0));
    void* none = vesk_utility_calloc(0x47, 0x4703, 0, 65536);
    free_all({p, z, none});
    EXPECT_EQ(account().total_size(), base_total);
}

TEST(MemDumpTest, ByModuleAggregatesWithUnitsAndTotalsAreInMegabytesFromOne)
{
    // Align 8 keeps the small blocks out of the little-memory pool, on the live list.
    void* a = vesk_utility_malloc(0x7A, 0x7A01, 1000, 8);
    void* b = vesk_utility_malloc(0x7A, 0x7A02, 2 * 1024 * 1024, 1);
    void* c = vesk_utility_malloc(0x7A, 0x7A03, 3000, 8);
    void* d = vesk_utility_malloc(0x7A, 0x7A03, 2500, 8);
    // SQLite's heap goes through the accounting, under a caller of its own.
    const uint32_t before_db = account().total_size();
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(a TEXT); INSERT INTO t VALUES(hex(randomblob(5000)));", nullptr,
                  nullptr, nullptr),
        SQLITE_OK);
    EXPECT_GT(account().total_size(), before_db + 10000);
    std::string out = vesk_test::capture_stdout([] { account().dump_by_module(vesk_print_stdout); });
    for (const char* line : {"caller = 0x7a, total malloc = 2.0MB!\n", "\tpurpose = 0x7a01, total malloc = 1000!\n",
             "\tpurpose = 0x7a02, total malloc = 2.0MB!\n", "\tpurpose = 0x7a03, total malloc = 5KB!\n",
             "caller = 0x22, ", "\tpurpose = 0x1600, "})
        EXPECT_THAT(out, HasSubstr(line));
    sqlite3_close(db);
    free_all({a, b, c, d});

    // The process total made exactly 1 MB, and 1 KB less, by a block of the difference.
    for (const auto& row : {std::make_pair(1u << 20, "1.0MB"), std::make_pair((1u << 20) - 1024, "1023KB")}) {
        const uint32_t t = account().total_size();
        ASSERT_LT(t, row.first - 8192);
        void* fill = vesk_utility_malloc(0x7C, 0x7C01, row.first - t, 8);
        const std::string total = vesk_test::capture_stdout([] { account().dump_total(vesk_print_stdout); });
        EXPECT_EQ(total, std::string("NVR2.0 model_layer total malloc size = ") + row.second + "\n");
        vesk_utility_free(__FILE__, __func__, fill);
    }
}

TEST(MemAccountDeathTest, OverrunForeignPointerChangedHeaderAndDoubleFreeAreFatal)
{
    VESK_EXPECT_FATAL(
        {
            char* p = static_cast<char*>(vesk_utility_malloc(0x44, 0x4401, 16, 8)); // a heap block
            p[16] = 0;
            vesk_utility_free("record.cpp", "flush", p);
        },
        "record.cpp, flush user_id = 0x44, purpose = 0x4401, .*magic_1 = 0x52052000 why\\?.*"
        ">Function: proc_vesk_free\n");
    VESK_EXPECT_FATAL(vesk_utility_free("net.cpp", "drop", static_cast<char*>(calloc(1, 256)) + 128),
        "'net.cpp drop' mem 0x[0-9a-f]+, head->magic = 0x0, err!");
    VESK_EXPECT_FATAL(
        vesk_utility_free("net.cpp", "drop", reinterpret_cast<void*>(24)), "'net.cpp drop' mem 0x18 is invalid");
    // A flipped purpose bit fails the check word.
    VESK_EXPECT_FATAL(
        {
            char* p = static_cast<char*>(vesk_utility_malloc(0x45, 0x4501, 32, 8));
            p[static_cast<long>(offsetof(vesk_mem_head, purpose)) - static_cast<long>(k_mem_head_size)] ^= 0x10;
            vesk_utility_free("gui.cpp", "close", p);
        },
        "'gui.cpp close' source .*xor err.*caller_id = 0x45, purpose = 0x4511, malloc_size = 32");
    VESK_EXPECT_FATAL_OR_SANITIZER(
        {
            void* p = vesk_utility_malloc(0x46, 0x4601, 64, 8);
            vesk_utility_free("a.cpp", "first", p);
            vesk_utility_free("a.cpp", "second", p);
        },
        "'a.cpp second' mem 0x[0-9a-f]+, head->magic = 0x[0-9a-f]+, err!", "Sanitizer: heap-use-after-free");
}

TEST(MemNoteTest, NotesCountPerCallerAndPurposeInTheDumpAndClassCountersCount)
{
    vesk_note_tree& tree = vesk_ground::instance()->malloc_note();
    ASSERT_EQ(vesk_utility_note_malloc(0x51, 0x5101, 100), VESK_OK);
    ASSERT_EQ(vesk_utility_note_malloc(0x51, 0x5101, 50), VESK_OK);
    ASSERT_EQ(vesk_utility_note_malloc(0x51, 0x5102, 7), VESK_OK);
    uint32_t cnt = 0, size = 0;
    ASSERT_TRUE(tree.find(0x51, 0x5101, cnt, size));
    EXPECT_EQ(std::make_pair(cnt, size), std::make_pair(2u, 150u));
    ASSERT_EQ(vesk_utility_note_free(__FILE__, __func__, 0x51, 0x5101, 100), VESK_OK);
    ASSERT_TRUE(tree.find(0x51, 0x5101, cnt, size));
    EXPECT_EQ(std::make_pair(cnt, size), std::make_pair(1u, 50u));
    EXPECT_FALSE(vesk_ground::instance()->new_note().find(0x51, 0x5101, cnt, size)); // a tree of its own
    ASSERT_EQ(vesk_utility_note_new(0x52, 0x5201, 64), VESK_OK);
    const std::string out
        = vesk_test::capture_stdout([] { vesk_utility_res_manage::instance()->diagnose(6, vesk_print_stdout); });
    // Other tests of the process may have callers of their own in either tree.
    const size_t mine = out.find("caller = 0x51:\n"
                                 "     purpose = 0x5101, note_cnt = 1, note_size = 50!\n"
                                 "     purpose = 0x5102, note_cnt = 1, note_size = 7!\n");
    const size_t new_at = out.find("- new/delete num: -");
    const size_t mine_new = out.find("caller = 0x52:\n     purpose = 0x5201, note_cnt = 1, note_size = 64!\n");
    EXPECT_LT(out.find("- malloc/free num: -"), mine) << out;
    EXPECT_LT(mine, new_at) << out;
    EXPECT_LT(new_at, mine_new) << out;
    EXPECT_NE(mine_new, std::string::npos) << out;

    for (int i = 0; i < 3; i++)
        ASSERT_EQ(vesk_utility_note_new("record_task"), VESK_OK);
    ASSERT_EQ(vesk_utility_note_new("live_view"), VESK_OK);
    ASSERT_EQ(vesk_utility_note_delete("record_task"), VESK_OK);
    vesk_class_note& cls = vesk_ground::instance()->class_note();
    EXPECT_EQ(cls.count_of("record_task"), 2);
    EXPECT_EQ(cls.count_of("never"), -1);
    EXPECT_EQ(cls.count_of("live_view"), 1);
    EXPECT_EQ(vesk_utility_note_new(nullptr), VESK_ERR_INVALID_PARAM);
}

TEST(MemNoteTest, CompactionDropsEmptyNodesAndOverflowDropsNotes)
{
    vesk_note_tree tree("malloc/free num:");
    // Fill the tree past 0x1FFFF bytes with one purpose per caller, all balanced back to 0.
    uint32_t users = 0;
    for (; tree.malloc_size() <= 0x1FFFF; users++) {
        tree.add(0x10000 + users, 1, 8);
        tree.sub(__FILE__, __func__, 0x10000 + users, 1, 8);
    }
    // The next note compacts first: every empty node goes, only the new one stays.
    vesk_test::capture_stdout([&] { tree.add(0x7, 0x70, 5); });
    EXPECT_LT(tree.malloc_size() * users, 0x1FFFFu * 2);
    uint32_t cnt, size;
    EXPECT_FALSE(tree.find(0x10000, 1, cnt, size));
    ASSERT_TRUE(tree.find(0x7, 0x70, cnt, size));
    EXPECT_EQ(cnt, 1u);

    // Live notes cannot be compacted away: past the limit a note is dropped with a warning.
    vesk_note_tree full("new/delete num:");
    for (users = 0; full.malloc_size() <= 0x1FFFF; users++)
        full.add(0x20000 + users, 1, 8);
    const uint32_t before = full.malloc_size();
    vesk_test::capture_stdout([&] { full.add(0x5, 0x50, 1); });
    EXPECT_FALSE(full.find(0x5, 0x50, cnt, size));
    EXPECT_EQ(full.malloc_size(), before);
}

TEST(MemNoteDeathTest, UnbalancedReleasesAreFatal)
{
    VESK_EXPECT_FATAL(vesk_utility_note_free("dec.cpp", "stop", 0x61, 0x6101, 10),
        "dec.cpp::stop user_node = 0x61, purpose_node = 0x6101, user_node = \\(nil\\), .*ASSERT!");
    VESK_EXPECT_FATAL(
        {
            vesk_utility_note_new(0x62, 0x6201, 10);
            vesk_utility_note_delete("dec.cpp", "a", 0x62, 0x6201, 10);
            vesk_utility_note_delete("dec.cpp", "b", 0x62, 0x6201, 10);
        },
        "dec.cpp::b user_node = 0x62, purpose_node = 0x6201, note_cnt = 0, why\\?");
    VESK_EXPECT_FATAL(vesk_utility_note_delete("ghost_class"), "ghost_class find node fail!");
    VESK_EXPECT_FATAL(
        {
            vesk_utility_note_new("short_lived");
            vesk_utility_note_delete("short_lived");
            vesk_utility_note_delete("short_lived");
        },
        "short_lived node->note_cnt = 0 why!.*Condition: 0");
}
