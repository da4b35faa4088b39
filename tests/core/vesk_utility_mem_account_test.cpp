// Accounted heap: block layout, totals, realloc, the A/V cache budget and the fatal checks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_mem_layout.h"
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

long off(size_t field)
{
    return static_cast<long>(field) - static_cast<long>(k_mem_head_size);
}

// A header field of the block whose user area starts at p, read as raw bytes.
template <typename T = uint32_t> T head(const void* p, size_t field)
{
    T v;
    memcpy(&v, static_cast<const char*>(p) + off(field), sizeof(v));
    return v;
}

uint32_t word_at(const void* p, size_t offset)
{
    uint32_t v;
    memcpy(&v, static_cast<const char*>(p) + offset, 4);
    return v;
}

void free_all(std::initializer_list<void*> blocks)
{
    for (void* p : blocks)
        vesk_utility_free(__FILE__, __func__, p);
}

} // namespace

TEST(MemAccountTest, HeaderAndTrailerHoldCallerPurposeSizesAndCheckWord)
{
    // Above the little-memory pool's limit, so the block comes from the heap even with align 1.
    const unsigned size = 5000;
    void* p = vesk_utility_malloc(0x41, 0x4242, size, 1);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(head(p, offsetof(vesk_mem_head, magic)), 0x13149527u);
    const uintptr_t src = head<uintptr_t>(p, offsetof(vesk_mem_head, src_memory));
    EXPECT_EQ(src + k_mem_head_size, reinterpret_cast<uintptr_t>(p)); // align 1: right behind the header
    const uint32_t need = head(p, offsetof(vesk_mem_head, need_size));
    EXPECT_EQ(need, size + k_mem_head_size + 4);
    EXPECT_EQ(head(p, offsetof(vesk_mem_head, malloc_size)), size);
    EXPECT_EQ(head(p, offsetof(vesk_mem_head, caller_id)), 0x41u);
    EXPECT_EQ(head(p, offsetof(vesk_mem_head, purpose)), 0x4242u);
    EXPECT_EQ(head(p, offsetof(vesk_mem_head, malloc_size2)), size);
    EXPECT_EQ(head<unsigned long>(p, offsetof(vesk_mem_head, xor_chk)),
        ~(0x13149527UL ^ 0x4242UL ^ 0x41UL ^ size ^ need ^ static_cast<unsigned long>(src)));
    EXPECT_EQ(word_at(p, size), 0x52052013u);
    vesk_utility_free(__FILE__, __func__, p);

    // Alignment: the user pointer is the first multiple of align at or after raw + header.
    for (unsigned align : {8u, 64u, 4096u}) {
        void* q = vesk_utility_malloc(0x41, 0x4243, 100, align);
        ASSERT_NE(q, nullptr);
        const uintptr_t user = reinterpret_cast<uintptr_t>(q);
        const uintptr_t raw = head<uintptr_t>(q, offsetof(vesk_mem_head, src_memory));
        EXPECT_EQ(user % align, 0u);
        EXPECT_TRUE(user >= raw + k_mem_head_size && user < raw + k_mem_head_size + align) << align;
        EXPECT_EQ(head(q, offsetof(vesk_mem_head, need_size)), 100 + k_mem_head_size + 4 + align - 1);
        memset(q, 0xA5, 100); // the whole user area is usable
        vesk_utility_free(__FILE__, __func__, q);
    }
}

TEST(MemAccountTest, TotalsReturnToBaselineAndPatternsSurvive)
{
    const uint32_t base_total = account().total_size();
    const uint32_t base_blocks = account().live_blocks();
    void* blocks[64];
    uint32_t expect = 0;
    const auto size_of = [](int i) { return 5000u + i * 37; };
    for (int i = 0; i < 64; i++) {
        blocks[i] = vesk_utility_malloc(0x42, 0x4200 + i % 3, size_of(i), i % 2 ? 1 : 16);
        ASSERT_NE(blocks[i], nullptr);
        memset(blocks[i], i, size_of(i));
        expect += size_of(i);
    }
    EXPECT_EQ(account().total_size(), base_total + expect);
    EXPECT_EQ(account().live_blocks(), base_blocks + 64);
    // Free in an order that unlinks heads, tails and middles of the live list.
    for (int i = 0; i < 64; i += 2)
        vesk_utility_free(__FILE__, __func__, blocks[i]);
    for (int i = 63; i > 0; i -= 2) {
        for (unsigned k = 0; k < size_of(i); k++)
            ASSERT_EQ(static_cast<unsigned char*>(blocks[i])[k], static_cast<unsigned char>(i));
        vesk_utility_free(__FILE__, __func__, blocks[i]);
    }
    EXPECT_EQ(account().total_size(), base_total);
    EXPECT_EQ(account().live_blocks(), base_blocks);
    EXPECT_EQ(vesk_utility_free(__FILE__, __func__, nullptr), VESK_OK);
}

TEST(MemAccountTest, ReallocCallocAndStrdup)
{
    const uint32_t base_total = account().total_size();
    char* p = static_cast<char*>(vesk_utility_realloc(0x43, 0x4301, nullptr, 10000, __FILE__, __func__, 1));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 10000; i++)
        p[i] = static_cast<char>(i * 7);
    EXPECT_EQ(vesk_utility_realloc(0x99, 0x9999, p, 10000, __FILE__, __func__, 1), p); // same size: unchanged
    // Grown, then shrunk: the contents that fit survive each move.
    for (unsigned size : {20000u, 6000u}) {
        p = static_cast<char*>(vesk_utility_realloc(0x43, 0x4302, p, size, __FILE__, __func__, 1));
        ASSERT_NE(p, nullptr);
        for (int i = 0; i < 6000; i++)
            ASSERT_EQ(p[i], static_cast<char>(i * 7)) << size;
    }
    EXPECT_EQ(account().total_size(), base_total + 6000);
    const std::string out = vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_realloc(0x43, 0x4304, p, 0, __FILE__, __func__, 1), nullptr); });
    EXPECT_THAT(out, HasSubstr("caller_id = 0x43, purpose = 0x4304, free old1\n"));
    EXPECT_EQ(account().total_size(), base_total);
    // Neither a block nor a size: the size lookup refuses the NULL block, and nothing is made.
    const std::string none = vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_realloc(0x43, 0x4307, nullptr, 0, "app.cpp", "shrink", 1), nullptr); });
    EXPECT_THAT(none, HasSubstr("vesk_get_mem_size["));
    EXPECT_THAT(none, HasSubstr("'app.cpp shrink' mem (nil) is invalid\n"));
    EXPECT_THAT(none, HasSubstr("caller_id = 0x43, purpose = 0x4307, memory = (nil), fetch size fail!\n"));
    EXPECT_EQ(account().total_size(), base_total);

    unsigned char* z = static_cast<unsigned char*>(vesk_utility_calloc(0x43, 0x4305, 100, 50));
    ASSERT_NE(z, nullptr);
    for (int i = 0; i < 5000; i++)
        ASSERT_EQ(z[i], 0);
    char* s = vesk_utility_strdup(0x43, 0x4306, "front door camera", 5);
    EXPECT_STREQ(s, "front");
    free_all({z, s});
    EXPECT_EQ(vesk_utility_strdup(0x43, 0x4306, nullptr, 5), nullptr);
    EXPECT_EQ(account().total_size(), base_total);
}

namespace
{
int s_wakeups = 0;
} // namespace

// The cache budget is process-wide: every test that moves it puts the defaults back.
class MemBudgetTest : public testing::Test
{
protected:
    void TearDown() override
    {
        vesk_mem_set_av_limits(0x2800000, 0x3000000);
        vesk_mem_set_rotate_waker(nullptr);
    }
};

TEST_F(MemBudgetTest, RefusalWarnsOncePerThousandAndRotationIsWoken)
{
    const uint32_t base = vesk_mem_av_total();
    vesk_mem_set_av_limits(base + 40000, base + 100000);
    vesk_mem_set_rotate_waker([] { s_wakeups++; });
    s_wakeups = 0;
    const auto refused_warnings = [](vesk_memmory_purpose purpose, int times) {
        const std::string out = vesk_test::capture_stdout([&] {
            for (int i = 0; i < times; i++)
                EXPECT_EQ(vesk_utility_malloc(VESK_USER_AV_CACHE, purpose, 16, 4), nullptr);
        });
        EXPECT_TRUE(times == 1 || out.find("\e[1;33m[UTL] WARNING! vesk_malloc[") != std::string::npos) << out;
        return vesk_test::count_of(out, "forbid malloc!\n");
    };

    void* blocks[10];
    const std::string out = vesk_test::capture_stdout([&] {
        for (int i = 0; i < 10; i++)
            blocks[i] = vesk_utility_malloc(VESK_USER_AV_CACHE, i % 2 ? 0x9110C : 0x91114, 10000, 4);
    });
    for (void* b : blocks)
        ASSERT_NE(b, nullptr);
    EXPECT_EQ(vesk_mem_av_total(), base + 100000);
    // Reaching the rotation threshold at the 4th block wakes rotation on that and every later one.
    EXPECT_EQ(s_wakeups, 7);
    EXPECT_EQ(vesk_test::count_of(out, "wakeup_rotate!\n"), 7);
    // At the forbid limit: 1000 refusals print one warning, the 1001st prints it again.
    EXPECT_EQ(refused_warnings(0x9110D, 1000), 1);
    EXPECT_EQ(refused_warnings(0x9110E, 1), 1);

    // Purposes outside the budget, and other callers, are not refused.
    void* other = vesk_utility_malloc(VESK_USER_AV_CACHE, 0x91110, 1000, 4);
    void* other_user = vesk_utility_malloc(0x71, 0x9110C, 1000, 4);
    EXPECT_TRUE(other != nullptr && other_user != nullptr);
    EXPECT_EQ(vesk_mem_av_total(), base + 100000);
    free_all({other, other_user});

    // Freeing lowers the cache total; the next success resets the refusal count.
    vesk_utility_free(__FILE__, __func__, blocks[0]);
    EXPECT_EQ(vesk_mem_av_total(), base + 90000);
    blocks[0] = vesk_utility_malloc(VESK_USER_AV_CACHE, 0x9110F, 10000, 4);
    ASSERT_NE(blocks[0], nullptr);
    EXPECT_EQ(refused_warnings(0x91112, 1), 1);
    for (void* b : blocks)
        vesk_utility_free(__FILE__, __func__, b);
    EXPECT_EQ(vesk_mem_av_total(), base);
}

TEST(MemDumpTest, ByModuleAggregatesCallersAndPurposesWithUnitsAndStopsAtTableOverflow)
{
    // Align 8 keeps the small blocks out of the little-memory pool, on the live list.
    void* a = vesk_utility_malloc(0x7A, 0x7A01, 1000, 8);
    void* b = vesk_utility_malloc(0x7A, 0x7A02, 2 * 1024 * 1024, 1);
    void* c = vesk_utility_malloc(0x7A, 0x7A03, 3000, 8);
    void* d = vesk_utility_malloc(0x7A, 0x7A03, 2500, 8);
    std::string out = vesk_test::capture_stdout([] { account().dump_by_module(vesk_print_stdout); });
    for (const char* line : {"caller = 0x7a, total malloc = 2.0MB!\n", "\tpurpose = 0x7a01, total malloc = 1000!\n",
             "\tpurpose = 0x7a02, total malloc = 2.0MB!\n", "\tpurpose = 0x7a03, total malloc = 5KB!\n",
             "caller = 0x13, "}) // the last: the registry's node pool
        EXPECT_THAT(out, HasSubstr(line));
    free_all({a, b, c, d});

    const std::string total = vesk_test::capture_stdout([] { account().dump_total(vesk_print_stdout); });
    const uint32_t t = account().total_size();
    char expect[96];
    if (t >= (1u << 20))
        snprintf(expect, sizeof(expect), "NVR2.0 model_layer total malloc size = %u.%uMB\n", t >> 20,
            (100 * (t & 0xFFFFF)) >> 20);
    else
        snprintf(expect, sizeof(expect), "NVR2.0 model_layer total malloc size = %uKB\n", t >> 10);
    EXPECT_EQ(total, expect);

    // 70 callers: the 65th distinct one ends the walk; so do 65 purposes of one caller.
    void* blocks[70];
    for (int i = 0; i < 70; i++)
        blocks[i] = vesk_utility_malloc(0x1000 + i, 0x1, 8, 8); // align 8: heap blocks
    out = vesk_test::capture_stdout([] { account().dump_by_module(vesk_print_stdout); });
    EXPECT_EQ(vesk_test::count_of(out, "caller over flow!\n"), 1);
    EXPECT_EQ(vesk_test::count_of(out, "caller = 0x"), 64);
    for (void* p : blocks)
        vesk_utility_free(__FILE__, __func__, p);
    for (int i = 0; i < 65; i++)
        blocks[i] = vesk_utility_malloc(0x7B, 0x100 + i, 8, 8);
    out = vesk_test::capture_stdout([] { account().dump_by_module(vesk_print_stdout); });
    EXPECT_EQ(vesk_test::count_of(out, "caller = 0x7b, purpose over flow!\n"), 1) << out;
    EXPECT_EQ(vesk_test::count_of(out, "\tpurpose = 0x1"), 64);
    for (int i = 0; i < 65; i++)
        vesk_utility_free(__FILE__, __func__, blocks[i]);
}

TEST(MemAccountDeathTest, OverrunForeignPointerChangedHeaderAndDoubleFreeAreFatal)
{
    VESK_EXPECT_FATAL(
        {
            char* p = static_cast<char*>(vesk_utility_malloc(0x44, 0x4401, 16, 8)); // a heap block
            p[16] = 0;
            vesk_utility_free("record.cpp", "flush", p);
        },
        "record.cpp, flush user_id = 0x44, purpose = 0x4401, memory = 0x[0-9a-f]+, malloc_size = 16 magic_1 = "
        "0x52052000 why\\?.*ASSERT!\n >File name: core/vesk_utility_mem_account.cpp\n >Function: proc_vesk_free\n "
        ">Line No: [0-9]+\n >Condition: 0");
    VESK_EXPECT_FATAL(vesk_utility_free("net.cpp", "drop", static_cast<char*>(calloc(1, 256)) + 128),
        "'net.cpp drop' mem 0x[0-9a-f]+, head->magic = 0x0, err!");
    VESK_EXPECT_FATAL(
        vesk_utility_free("net.cpp", "drop", reinterpret_cast<void*>(24)), "'net.cpp drop' mem 0x18 is invalid");
    // A flipped purpose bit fails the check word.
    VESK_EXPECT_FATAL(
        {
            char* p = static_cast<char*>(vesk_utility_malloc(0x45, 0x4501, 32, 8));
            p[off(offsetof(vesk_mem_head, purpose))] ^= 0x10;
            vesk_utility_free("gui.cpp", "close", p);
        },
        "'gui.cpp close' source 0x[0-9a-f]+, align = 0x[0-9a-f]+, mem_head = 0x[0-9a-f]+, xor err.*src_mem_size = "
        "[0-9]+, caller_id = 0x45, purpose = 0x4511, malloc_size = 32");
    VESK_EXPECT_FATAL_OR_SANITIZER(
        {
            void* p = vesk_utility_malloc(0x46, 0x4601, 64, 8);
            vesk_utility_free("a.cpp", "first", p);
            vesk_utility_free("a.cpp", "second", p);
        },
        "'a.cpp second' mem 0x[0-9a-f]+, head->magic = 0x[0-9a-f]+, err!", "Sanitizer: heap-use-after-free");
}

TEST(MemAccountTest, SizesWhoseBlockWouldWrapAreRefusedOnEveryAbi)
{
    const uint32_t base_total = account().total_size();
    const uint32_t base_blocks = account().live_blocks();
    // The smallest sizes whose header + trailer + alignment slack no longer fit 32 bits.
    const unsigned edge = static_cast<unsigned>(UINT32_MAX - k_mem_head_size - k_mem_tail_size + 1);
    const struct {
        unsigned size, align;
    } refused[] = {{0xFFFFFFFFu, 1}, {0xFFFFFFF0u, 4}, {edge, 1}, {edge - 15, 16}};
    for (const auto& r : refused) {
        const std::string out = vesk_test::capture_stdout(
            [&] { EXPECT_EQ(vesk_utility_malloc(0x47, 0x4701, r.size, r.align), nullptr) << r.size; });
        EXPECT_THAT(out, HasSubstr("size = " + std::to_string(r.size) + ", align = " + std::to_string(r.align) +
                                   ", too large!\n"));
    }

    // A failed realloc leaves the old block whole and valid.
    char* p = static_cast<char*>(vesk_utility_malloc(0x47, 0x4702, 100, 8)); // align 8: a heap block
    ASSERT_NE(p, nullptr);
    memset(p, 0x5A, 100);
    EXPECT_EQ(vesk_utility_realloc(0x47, 0x4702, p, 0xFFFFFFF0u, __FILE__, __func__, 1), nullptr);
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(p[i], 0x5A);
    unsigned size = 0;
    EXPECT_EQ(vesk_get_mem_size(__FILE__, __func__, p, size), VESK_OK);
    EXPECT_EQ(size, 100u);

    // calloc products that wrap 32 bits; the last two fit and must work.
    const std::string out = vesk_test::capture_stdout([] {
        EXPECT_EQ(vesk_utility_calloc(0x47, 0x4703, 65537, 65536), nullptr);
        EXPECT_EQ(vesk_utility_calloc(0x47, 0x4703, 65536, 65536), nullptr);
        EXPECT_EQ(vesk_utility_calloc(0x47, 0x4703, 0xFFFFFFFFu, 2), nullptr);
    });
    EXPECT_THAT(out, HasSubstr("count = 65537, size = 65536, too large!\n"));
    unsigned char* z = static_cast<unsigned char*>(vesk_utility_calloc(0x47, 0x4703, 3, 4000));
    ASSERT_NE(z, nullptr);
    for (int i = 0; i < 12000; i++)
        ASSERT_EQ(z[i], 0);
    void* none = vesk_utility_calloc(0x47, 0x4703, 0, 65536);
    free_all({p, z, none});
    EXPECT_EQ(account().total_size(), base_total);
    EXPECT_EQ(account().live_blocks(), base_blocks);
}
