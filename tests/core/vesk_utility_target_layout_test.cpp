// The accounted block as the board sees it: header words read byte by byte from real blocks at
// the literal offsets of the 32-bit layout, independently of the struct that writes them. On a
// 64-bit host the address fields are wider and these offsets do not hold, so the test is
// skipped there; the build for the target runs it under qemu.
#include <gtest/gtest.h>

#include <cstdint>

#include "core/vesk_utility_mem_account.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_utility;

#if UINTPTR_MAX == 0xFFFFFFFFu

namespace
{

// Little-endian 32-bit word at user + offset, assembled from single bytes.
uint32_t le32_at(const void* user, long offset)
{
    const unsigned char* b = static_cast<const unsigned char*>(user) + offset;
    return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}

uint32_t addr32(const void* p)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
}

} // namespace

TEST(TargetLayoutTest, AccountedHeaderWordsSitAtMinus40ToMinus4AndTrailerAfterUserArea)
{
    vesk_mem_account& account = vesk_ground::instance()->mem_account();
    const uint32_t size = 100;
    // Three blocks in a row: the middle one's list links name its neighbours' headers.
    void* a = account.proc_vesk_malloc(0x41, 0x4242, size, 1);
    void* b = account.proc_vesk_malloc(0x42, 0x4343, size, 1);
    void* c = account.proc_vesk_malloc(0x43, 0x4444, size, 1);
    ASSERT_TRUE(a != nullptr && b != nullptr && c != nullptr);

    EXPECT_EQ(le32_at(b, -40), 0x13149527u);
    const uint32_t src = le32_at(b, -36);
    EXPECT_EQ(src, addr32(b) - 40); // align 1: the user area follows the header directly
    const uint32_t need = le32_at(b, -32);
    EXPECT_EQ(need, size + 44);
    EXPECT_EQ(le32_at(b, -28), size);
    EXPECT_EQ(le32_at(b, -24), 0x42u);
    EXPECT_EQ(le32_at(b, -20), 0x4343u);
    EXPECT_EQ(le32_at(b, -16), size);
    EXPECT_EQ(le32_at(b, -12), addr32(a) - 40);
    EXPECT_EQ(le32_at(b, -8), addr32(c) - 40);
    EXPECT_EQ(le32_at(a, -8), addr32(b) - 40);
    EXPECT_EQ(le32_at(c, -12), addr32(b) - 40);
    EXPECT_EQ(le32_at(b, -4), ~(0x13149527u ^ 0x4343u ^ 0x42u ^ size ^ need ^ src));
    EXPECT_EQ(le32_at(b, size), 0x52052013u);

    for (void* p : {a, b, c})
        account.proc_vesk_free(__FILE__, __func__, p);

    // Aligned: the first multiple of align at or after raw + 40, with align - 1 bytes of slack.
    for (uint32_t align : {8u, 16u, 64u}) {
        void* p = account.proc_vesk_malloc(0x41, 0x4242, size, align);
        ASSERT_NE(p, nullptr);
        const uint32_t raw = le32_at(p, -36);
        EXPECT_EQ(addr32(p) % align, 0u) << align;
        EXPECT_TRUE(addr32(p) >= raw + 40 && addr32(p) < raw + 40 + align) << align;
        EXPECT_EQ(le32_at(p, -32), size + 44 + align - 1) << align;
        EXPECT_EQ(le32_at(p, -4), ~(0x13149527u ^ 0x4242u ^ 0x41u ^ size ^ (size + 44 + align - 1) ^ raw)) << align;
        EXPECT_EQ(le32_at(p, size), 0x52052013u) << align;
        account.proc_vesk_free(__FILE__, __func__, p);
    }
}

#else

TEST(TargetLayoutTest, AccountedHeaderWordsSitAtMinus40ToMinus4AndTrailerAfterUserArea)
{
    GTEST_SKIP() << "the 40-byte header layout is exact on the 32-bit target only";
}

#endif
