// String pool and little memory pools: placement, splitting, coalescing, chunk release, the
// routing of the general allocator, the dumps and the fatal diagnosis of bad frees.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_pool.h"
#include "core/vesk_utility_ground.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

constexpr uint32_t NH = k_pool_node_head_size;
constexpr uint32_t CH = k_pool_chunk_head_size;

vesk_ground* res()
{
    return vesk_ground::instance();
}

// The header fields before a block, read out by value: a string's header sits at any byte
// address, and the assertions bind references to what they compare.
struct node_fields {
    uint32_t magic_0, mem_ofset, mem_size, usr_mem_size, usr_id, purpose;
};

node_fields node_of(const void* p)
{
    const auto* n = reinterpret_cast<const utility_string_pool_mem_node*>(static_cast<const char*>(p) - NH);
    return {n->magic_0, n->mem_ofset, n->mem_size, n->usr_mem_size, n->usr_id, n->purpose};
}

const char* chunk_addr_of(const void* p)
{
    return static_cast<const char*>(p) - node_of(p).mem_ofset;
}

uint32_t magic_1_of(const void* p)
{
    uint32_t v;
    memcpy(&v, static_cast<const char*>(p) + node_of(p).usr_mem_size, 4);
    return v;
}

// Everything the pools and the heap hold; each test ends where it started.
struct totals {
    uint32_t heap = res()->mem_account().total_size();
    uint32_t strings = res()->get_string_pool()->total_mem_size();
    uint32_t little = res()->get_little_mem_pool()->total_mem_size();
    uint32_t av_reader = res()->get_av_reader_pool()->total_mem_size();
    bool operator==(const totals& o) const
    {
        return heap == o.heap && strings == o.strings && little == o.little && av_reader == o.av_reader;
    }
};

std::string dump(utility_pool_base& pool, int para)
{
    return vesk_test::capture_stdout([&] { pool.diagnose(para, vesk_print_stdout); });
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

// Pools of the tests' own; never destroyed, like the layer's.
utility_little_mem_pool* private_little_pool(uint32_t chunk_size)
{
    return vesk_test::never_destroyed(new utility_little_mem_pool(chunk_size, 0x3999));
}

int print_nothing(const char*, ...)
{
    return 0;
}

const char* end_of_node(const utility_string_pool_mem_node* n)
{
    return reinterpret_cast<const char*>(n) + NH + n->mem_size;
}

bool holds(const void* p, size_t n, unsigned char v)
{
    const unsigned char* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; i++)
        if (b[i] != v)
            return false;
    return true;
}

} // namespace

TEST(StringPoolTest, CopiesAreGuardedCarvedFromTheTailAndCoalesceOnBothSides)
{
    const totals base;
    utility_string_pool* pool = res()->get_string_pool();
    ASSERT_EQ(pool->chunk_count(), 0u);

    const std::string text[4]
        = {std::string(100, 'd'), std::string(20, 'a'), std::string(40, 'b'), std::string(60, 'c')};
    char* s[4];
    for (uint32_t i = 0; i < 4; i++) {
        s[i] = vesk_utility_strdup(0x50 + i, 0x5000 + i, text[i].c_str(), 1000);
        ASSERT_NE(s[i], nullptr);
        const node_fields n = node_of(s[i]);
        const uint32_t len = static_cast<uint32_t>(text[i].size());
        EXPECT_EQ(std::vector<uint32_t>({n.magic_0, n.usr_mem_size, n.mem_size, n.usr_id, n.purpose}),
            std::vector<uint32_t>({k_pool_magic_0, len + 1, len + 5, 0x50 + i, 0x5000 + i}))
            << i;
        EXPECT_EQ(magic_1_of(s[i]), k_pool_magic_1);
    }
    EXPECT_EQ(pool->chunk_count(), 1u);
    EXPECT_EQ(pool->total_mem_size(), base.strings + k_string_pool_chunk_size);
    // The first copy takes the chunk's tail; each later one sits right before the previous.
    const char* area = chunk_addr_of(s[0]);
    EXPECT_EQ(s[0] + node_of(s[0]).mem_size, area + (k_string_pool_chunk_size - CH));
    for (int i = 1; i < 4; i++)
        EXPECT_EQ(s[i] + node_of(s[i]).mem_size + NH, s[i - 1]);

    // Layout now: [empty][s3][s2][s1][s0]. Freeing s1 (right of s2), then s3 (left of s2)
    // leaves two holes; freeing s2 merges all three with the leading empty node.
    vesk_utility_free(__FILE__, __func__, s[1]);
    EXPECT_NE(dump(*pool, 2).find("used/empty[node] = 3/2,"), std::string::npos);
    vesk_utility_free(__FILE__, __func__, s[3]);
    EXPECT_NE(dump(*pool, 2).find("used/empty[node] = 2/2,"), std::string::npos);
    EXPECT_STREQ(s[2], text[2].c_str());
    vesk_utility_free(__FILE__, __func__, s[2]);
    const uint32_t one_hole = k_string_pool_chunk_size - CH - NH - node_of(s[0]).mem_size;
    const std::string left = dump(*pool, 2);
    EXPECT_NE(left.find(format("used/empty[node] = 1/1, used/empty/total[size] = %u[0KB]/%u[31KB]",
                  NH + node_of(s[0]).mem_size, one_hole)),
        std::string::npos)
        << left;

    // The last node releases the chunk and lowers the pool total by its size.
    EXPECT_STREQ(s[0], text[0].c_str());
    vesk_utility_free(__FILE__, __func__, s[0]);
    EXPECT_EQ(pool->chunk_count(), 0u);
    EXPECT_TRUE(totals() == base);
}

TEST(StringPoolTest, LengthLimitsAndTheBigBufferBoundary)
{
    const totals base;
    utility_string_pool* pool = res()->get_string_pool();
    unsigned len = 77;
    EXPECT_EQ(pool->strdup(0x51, 0x5101, nullptr, 10, &len), nullptr);
    EXPECT_EQ(len, 0u);
    char* cut = pool->strdup(0x51, 0x5101, "front door camera", 5, &len);
    EXPECT_STREQ(cut, "front");
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(node_of(cut).usr_mem_size, 6u);
    char* empty = pool->strdup(0x51, 0x5101, "", 5, &len);
    EXPECT_STREQ(empty, "");
    EXPECT_EQ(len, 0u);

    // 1018 characters need 1023 bytes: pooled. 1019 need 1024: straight from the heap.
    const std::string pooled(1018, 'p'), big(1019, 'b');
    char* in_pool = nullptr;
    char* on_heap = nullptr;
    const uint32_t heap_before = res()->mem_account().total_size();
    const std::string out = vesk_test::capture_stdout([&] {
        in_pool = pool->strdup(0x52, 0x5201, pooled.c_str(), 5000, &len);
        on_heap = pool->strdup(0x52, 0x5202, big.c_str(), 5000, nullptr);
    });
    EXPECT_EQ(len, 1018u);
    EXPECT_STREQ(in_pool, pooled.c_str());
    EXPECT_STREQ(on_heap, big.c_str());
    EXPECT_EQ(res()->mem_account().total_size(), heap_before + 1020);
    unsigned size = 0;
    EXPECT_EQ(pool->get_mem_size(__FILE__, __func__, in_pool, size), VESK_OK);
    EXPECT_EQ(size, 1019u);
    EXPECT_EQ(pool->get_mem_size(__FILE__, __func__, on_heap, size), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(out.find("need_malloc_len = 1023, use big buf!"), std::string::npos) << out;
    EXPECT_NE(out.find("\e[0;32;32m[UTL] DEBUG! utility_string_pool::strdup["), std::string::npos) << out;
    EXPECT_NE(out.find("need_malloc_len = 1024, use big buf!\n"), std::string::npos) << out;
    for (char* p : {cut, empty, in_pool, on_heap})
        vesk_utility_free(__FILE__, __func__, p);
    EXPECT_TRUE(totals() == base);
}

TEST(LittlePoolTest, GeneralAllocatorRoutesBySizeAlignAndCaller)
{
    const totals base;
    utility_little_mem_pool* little = res()->get_little_mem_pool();
    struct probe {
        unsigned size, align;
        vesk_user_id usr;
        bool pooled;
    } const probes[] = {{1, 1, 0x60, true}, {5, 4, 0x60, true}, {4096, 4, 0x60, true}, {4097, 4, 0x60, false},
        {64, 8, 0x60, false}, {64, 1, VESK_USER_SQLITE, false}};
    void* p[6];
    for (int i = 0; i < 6; i++) {
        p[i] = vesk_utility_malloc(probes[i].usr, 0x6001, probes[i].size, probes[i].align);
        ASSERT_NE(p[i], nullptr);
        memset(p[i], 0xC0 + i, probes[i].size);
        unsigned size = 0;
        EXPECT_EQ(little->get_mem_size(__FILE__, __func__, p[i], size) == VESK_OK, probes[i].pooled) << i;
        if (probes[i].pooled) {
            EXPECT_EQ(size, probes[i].size);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p[i]) % 4, 0u);
        }
    }
    // A 5-byte block has its trailer unaligned, right behind the fifth byte.
    EXPECT_EQ(magic_1_of(p[1]), k_pool_magic_1);
    for (int i = 0; i < 6; i++) {
        EXPECT_TRUE(holds(p[i], probes[i].size, static_cast<unsigned char>(0xC0 + i))) << i;
        vesk_utility_free(__FILE__, __func__, p[i]);
    }

    // Reallocation takes the old size of a pooled block from the pool, in both directions.
    char* r = static_cast<char*>(vesk_utility_realloc(0x61, 0x6101, nullptr, 300, __FILE__, __func__, 1));
    memset(r, 0x3C, 300);
    r = static_cast<char*>(vesk_utility_realloc(0x61, 0x6101, r, 6000, __FILE__, __func__, 1));
    EXPECT_TRUE(holds(r, 300, 0x3C));
    memset(r, 0x3D, 6000);
    r = static_cast<char*>(vesk_utility_realloc(0x61, 0x6101, r, 200, __FILE__, __func__, 1));
    EXPECT_TRUE(holds(r, 200, 0x3D));
    unsigned size = 0;
    EXPECT_EQ(little->get_mem_size(__FILE__, __func__, r, size), VESK_OK);
    EXPECT_EQ(size, 200u);
    char* s = vesk_utility_strdup(0x61, 0x6102, "channel 7", 64);
    s = static_cast<char*>(vesk_utility_realloc(0x61, 0x6103, s, 40, __FILE__, __func__, 1));
    EXPECT_STREQ(s, "channel 7");
    vesk_utility_free(__FILE__, __func__, r);
    vesk_utility_free(__FILE__, __func__, s);

    // The A/V-reader pool: small requests pooled, requests no chunk can hold from the heap.
    utility_little_mem_pool* av = res()->get_av_reader_pool();
    void* frame = vesk_utility_av_reader_malloc(0x70, 0x91110, 2000);
    void* huge = vesk_utility_av_reader_malloc(0x70, 0x91110, k_av_reader_pool_chunk_size);
    EXPECT_EQ(av->get_mem_size(__FILE__, __func__, frame, size), VESK_OK);
    EXPECT_EQ(av->get_mem_size(__FILE__, __func__, huge, size), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(av->total_mem_size(), base.av_reader + k_av_reader_pool_chunk_size);
    EXPECT_EQ(vesk_utility_av_reader_free(__FILE__, __func__, frame), VESK_OK);
    EXPECT_EQ(vesk_utility_av_reader_free(__FILE__, __func__, huge), VESK_OK);
    EXPECT_TRUE(totals() == base);
}

TEST(LittlePoolTest, BestFitSplitThresholdAndChunkRelease)
{
    // 4001 rounds up to 4016; one chunk's node area holds 4016 - CH - NH bytes at first.
    utility_little_mem_pool* pool = private_little_pool(4001);
    const uint32_t room = 4016 - CH - NH;
    const uint32_t heap_base = res()->mem_account().total_size();
    std::vector<char*> b;
    const unsigned sizes[] = {40, 96, 40, 200, 40, 96, 40};
    for (unsigned sz : sizes) {
        b.push_back(static_cast<char*>(pool->malloc(0x62, 0x6201, sz)));
        ASSERT_NE(b.back(), nullptr);
        memset(b.back(), static_cast<int>(b.size()), sz);
    }
    EXPECT_EQ(pool->total_mem_size(), 4016u);
    EXPECT_EQ(res()->mem_account().total_size(), heap_base + 4016);
    // Holes of 200, 96 and 96 bytes (needs 204, 100, 100), left to right: b[5], b[3], b[1].
    for (int i : {1, 3, 5})
        pool->try_free(__FILE__, __func__, b[i]);
    // Exactly 100: the first 100-byte hole in address order (b[5]'s).
    char* exact = static_cast<char*>(pool->malloc(0x63, 0x6301, 96));
    EXPECT_EQ(exact, b[5]);
    // The smallest hole that fits is b[1]'s 100 bytes; a need that leaves exactly NH + 32
    // beside it still takes it whole.
    char* whole = static_cast<char*>(pool->malloc(0x63, 0x6302, 100 - NH - 32 - 4));
    EXPECT_EQ(whole, b[1]);
    EXPECT_EQ(node_of(whole).mem_size, 100u);
    // 12 (need 16) into the 204-byte hole: split, the new node at the hole's tail.
    char* split = static_cast<char*>(pool->malloc(0x63, 0x6303, 12));
    EXPECT_EQ(split, b[3] + 204 - 16);
    EXPECT_EQ(node_of(split).mem_size, 16u);
    for (int i : {0, 2, 4, 6})
        EXPECT_TRUE(holds(b[i], sizes[i], static_cast<unsigned char>(i + 1))) << i;

    // A request the chunk cannot hold comes from the heap; one that fits but finds no room
    // opens a second chunk at the head of the list.
    void* big = pool->malloc(0x63, 0x6304, room - 4);
    unsigned size = 0;
    EXPECT_EQ(pool->get_mem_size(__FILE__, __func__, big, size), VESK_ERR_INVALID_PARAM);
    void* second = pool->malloc(0x63, 0x6305, 3500);
    EXPECT_EQ(pool->chunk_count(), 2u);
    EXPECT_EQ(pool->total_mem_size(), 2 * 4016u);
    // Freeing the second chunk's only node releases it.
    EXPECT_EQ(pool->try_free(__FILE__, __func__, second), VESK_OK);
    EXPECT_EQ(pool->total_mem_size(), 4016u);
    EXPECT_EQ(pool->try_free(__FILE__, __func__, big), VESK_ERR_INVALID_PARAM);
    vesk_utility_free(__FILE__, __func__, big);
    for (char* p : {b[0], b[2], b[4], b[6], exact, whole, split})
        EXPECT_EQ(pool->try_free(__FILE__, __func__, p), VESK_OK);
    EXPECT_EQ(pool->chunk_count(), 0u);
    EXPECT_EQ(pool->total_mem_size(), 0u);
    EXPECT_EQ(res()->mem_account().total_size(), heap_base);
}

// Invariant: while several threads allocate and free through the same pools, a live block is
// never handed out twice nor overlapped by another (each keeps its owner's pattern until the
// owner frees it), and once every thread has freed its blocks no chunk is left behind.
TEST(PoolConcurrencyTest, BlocksNeverOverlapAndEveryChunkIsReturned)
{
    const totals base;
    std::atomic<int> broken {0};
    std::atomic<bool> done {false};
    auto worker = [&](int id) {
        std::mt19937 rng(id);
        struct live {
            char* p;
            unsigned n;
        };
        std::vector<live> mine;
        const unsigned char pattern = static_cast<unsigned char>(0x10 + id);
        for (int i = 0; i < 4000; i++) {
            if (mine.size() < 48 && rng() % 3 != 0) {
                live l;
                if (rng() % 2) {
                    l.n = 1 + rng() % 4096;
                    l.p = static_cast<char*>(vesk_utility_malloc(0x80 + id, 0x8001, l.n, 4));
                    memset(l.p, pattern, l.n);
                } else {
                    const std::string s(1 + rng() % 1100, static_cast<char>(pattern));
                    l.p = vesk_utility_strdup(0x80 + id, 0x8002, s.c_str(), 2000);
                    l.n = static_cast<unsigned>(s.size());
                }
                mine.push_back(l);
            } else if (!mine.empty()) {
                const size_t k = rng() % mine.size();
                if (!holds(mine[k].p, mine[k].n, pattern))
                    broken++;
                vesk_utility_free(__FILE__, __func__, mine[k].p);
                mine.erase(mine.begin() + static_cast<long>(k));
            }
        }
        for (live& l : mine) {
            if (!holds(l.p, l.n, pattern))
                broken++;
            vesk_utility_free(__FILE__, __func__, l.p);
        }
    };
    // The dumps run beside the allocators: they must never block them nor crash.
    std::thread dumper([&] {
        while (!done) {
            res()->get_little_mem_pool()->diagnose(1, print_nothing);
            res()->get_string_pool()->diagnose(1, print_nothing);
        }
    });
    std::vector<std::thread> threads;
    for (int id = 0; id < 4; id++)
        threads.emplace_back(worker, id);
    for (std::thread& t : threads)
        t.join();
    done = true;
    dumper.join();
    EXPECT_EQ(broken.load(), 0);
    EXPECT_TRUE(totals() == base);
}

namespace
{

// The best-fit rule as a plain walk over the chunk list and the empty lists: the first chunk
// with room; in it an exact size at once, else the smallest larger node, first in address
// order among equals. Returns where the new block's data must start (the whole node, or the
// tail of a split one), or NULL when no chunk has room. `any` is a live block of the pool.
const char* plain_walk_choice(const void* any, uint32_t need, uint32_t whole_slack)
{
    const auto* chunk = reinterpret_cast<const utility_pool_chunk*>(chunk_addr_of(any) - CH);
    while (chunk->prev != nullptr)
        chunk = chunk->prev;
    for (; chunk != nullptr; chunk = chunk->next) {
        const utility_string_pool_mem_node* best = nullptr;
        for (const auto* n = chunk->empty_head; n != nullptr; n = n->next) {
            if (n->mem_size == need) {
                best = n;
                break;
            }
            if (n->mem_size > need && (best == nullptr || n->mem_size < best->mem_size))
                best = n;
        }
        if (best == nullptr)
            continue;
        const char* data = chunk->chunk_addr + best->mem_ofset;
        return best->mem_size <= need + NH + whole_slack ? data : data + best->mem_size - need;
    }
    return nullptr;
}

// Every chunk's nodes tile its area, and its empty list holds exactly the empty nodes, in
// address order, no two of them touching.
void expect_chunks_sound(const void* any)
{
    const auto* chunk = reinterpret_cast<const utility_pool_chunk*>(chunk_addr_of(any) - CH);
    while (chunk->prev != nullptr)
        chunk = chunk->prev;
    for (; chunk != nullptr; chunk = chunk->next) {
        std::vector<const char*> empties;
        for (uint32_t ofset = NH; ofset <= chunk->area_size;) {
            const auto* n = reinterpret_cast<const utility_string_pool_mem_node*>(chunk->chunk_addr + ofset - NH);
            const uint32_t n_ofset = n->mem_ofset; // string headers are unaligned: read by value
            ASSERT_EQ(n_ofset, ofset);
            if (n->magic_0 != k_pool_magic_0)
                empties.push_back(chunk->chunk_addr + ofset);
            ofset += n->mem_size + NH;
            if (ofset - NH == chunk->area_size)
                break;
        }
        std::vector<const char*> listed;
        const utility_string_pool_mem_node* prev = nullptr;
        for (const auto* n = chunk->empty_head; n != nullptr; prev = n, n = n->next) {
            const utility_string_pool_mem_node* n_prev = n->prev;
            ASSERT_EQ(n_prev, prev);
            if (prev != nullptr) {
                EXPECT_LT(end_of_node(prev), reinterpret_cast<const char*>(n));
            }
            listed.push_back(chunk->chunk_addr + n->mem_ofset);
        }
        EXPECT_EQ(listed, empties);
    }
}

} // namespace

// Long random sequences of allocations and frees, with sizes down to the smallest nodes and
// through the growth and release of chunks: every allocation lands exactly where a plain walk
// of the empty lists says the best-fit rule puts it.
TEST(PoolIndexTest, FastSearchChoosesTheNodeOfAPlainWalk)
{
    utility_little_mem_pool* little = private_little_pool(8192);
    utility_string_pool* strings = vesk_test::never_destroyed(new utility_string_pool());
    const std::string text(1000, 't');
    struct pool_case {
        utility_pool_base* pool;
        uint32_t whole_slack;
        bool is_string;
    };
    for (const pool_case& pc : {pool_case {little, 32, false}, pool_case {strings, 8, true}}) {
        std::mt19937 rng(pc.is_string ? 7 : 3);
        std::vector<char*> live;
        unsigned checked = 0;
        unsigned chunks_opened = 0;
        for (int step = 0; step < 30000; step++) {
            // Phases that grow the set to a few chunks and shrink it to nothing.
            const size_t target = (step / 3000) % 2 == 0 ? 400 : 0;
            if (live.empty() || (live.size() < target && rng() % 4 != 0) || (target != 0 && rng() % 3 == 0)) {
                const uint32_t size = rng() % 4 == 0 ? rng() % 8 : rng() % 600;
                const uint32_t need = pc.is_string ? size + 1 + 4 : ((size + 3) & ~3u) + 4;
                const char* expected = live.empty() ? nullptr : plain_walk_choice(live.front(), need, pc.whole_slack);
                const uint32_t chunks = pc.pool->chunk_count();
                char* p = pc.is_string
                    ? strings->strdup(0x71, 0x7101, text.c_str(), size, nullptr)
                    : static_cast<char*>(little->malloc(0x71, 0x7101, size));
                ASSERT_NE(p, nullptr);
                if (expected != nullptr) {
                    ASSERT_EQ(p, expected) << "step " << step << " need " << need;
                    checked++;
                } else {
                    ASSERT_EQ(pc.pool->chunk_count(), chunks + 1) << "step " << step;
                    chunks_opened++;
                }
                live.push_back(p);
            } else {
                const size_t k = rng() % live.size();
                ASSERT_EQ(pc.pool->try_free(__FILE__, __func__, live[k]), VESK_OK);
                live[k] = live.back();
                live.pop_back();
            }
            if (step % 500 == 0 && !live.empty())
                expect_chunks_sound(live.front());
        }
        for (char* p : live)
            ASSERT_EQ(pc.pool->try_free(__FILE__, __func__, p), VESK_OK);
        EXPECT_EQ(pc.pool->chunk_count(), 0u);
        EXPECT_EQ(pc.pool->total_mem_size(), 0u);
        EXPECT_GT(checked, 5000u);
        EXPECT_GT(chunks_opened, 4u);
    }
}

namespace
{
utility_pool_base* s_reentered = nullptr;
std::string s_inner;
int print_to_inner(const char* fmt, ...)
{
    s_inner += fmt;
    return 0;
}
int print_and_reenter(const char* fmt, ...)
{
    if (s_reentered != nullptr) {
        utility_pool_base* pool = s_reentered;
        s_reentered = nullptr;
        pool->diagnose(2, print_to_inner);
    }
    (void)fmt;
    return 0;
}
} // namespace

TEST(PoolDumpTest, LittlePoolSummaryNodeTableAndTotals)
{
    utility_little_mem_pool* pool = private_little_pool(1024);
    char* p1 = static_cast<char*>(pool->malloc(0x31, 0x3101, 10)); // need 16
    char* p2 = static_cast<char*>(pool->malloc(0x32, 0x3201, 100)); // need 104
    const char* area = chunk_addr_of(p1);
    const void* chunk = area - CH;
    const uint32_t empty = 1024 - CH - NH - (16 + NH) - (104 + NH);
    const std::string chunk_line = format("chunk_0: mem = %p, size = 1024[1KB], used/empty[node] = 2/1, "
                                          "used/empty/total[size] = %u[0KB]/%u[0KB]/%u[0KB]\n",
        chunk, 2 * NH + 120, NH + empty, 1024 - CH);
    const std::string total_line = format("m_total_mem_size = 1024[1KB], total_usr_size = 110[0KB], total_empty_size = "
                                          "%u[0KB], utility_little_mem_pool\n",
        empty);

    EXPECT_EQ(dump(*pool, 2),
        chunk_line + format("usr_0: usr_id = 0x32, used_size = 100[0KB], node_size = %u[0KB]:\n", NH + 104)
            + format("usr_1: usr_id = 0x31, used_size = 10[0KB], node_size = %u[0KB]:\n", NH + 16) + total_line);
    EXPECT_EQ(dump(*pool, 1),
        "chunk node  usr_id      purpose     memory      size        state       \n" + chunk_line
            + format("0     0     -           -           %-12p%-12u%-12s\n", static_cast<const void*>(area + NH),
                empty, "empty")
            + format("0     1     0x32        0x3201      %-12p104         used        \n", static_cast<void*>(p2))
            + format("0     2     0x31        0x3101      %-12p16          used        \n", static_cast<void*>(p1))
            + total_line);
    EXPECT_EQ(dump(*pool, 3), "para = 0x3 not support!\n");

    // A dump that finds the pool busy says so instead of waiting (here: from inside a dump).
    s_reentered = pool;
    s_inner.clear();
    EXPECT_EQ(pool->diagnose(2, print_and_reenter), VESK_OK);
    EXPECT_EQ(s_inner, "sorry, try lock fail!\n");

    pool->try_free(__FILE__, __func__, p1);
    pool->try_free(__FILE__, __func__, p2);
    EXPECT_EQ(dump(*pool, 2),
        "m_total_mem_size = 0[0KB], total_usr_size = 0[0KB], total_empty_size = 0[0KB], utility_little_mem_pool\n");
}

TEST(PoolDumpTest, StringPoolTableShowsTheStrings)
{
    utility_string_pool* pool = vesk_test::never_destroyed(new utility_string_pool());
    char* s = pool->strdup(0x33, 0x3301, "cam1", 64, nullptr); // need 9
    const char* area = chunk_addr_of(s);
    const uint32_t empty = k_string_pool_chunk_size - CH - NH - (9 + NH);
    const std::string out = dump(*pool, 1);
    EXPECT_EQ(out,
        "chunk node  usr_id      purpose     memory      size        string" + std::string(6 + 32, ' ') + "\n"
            + format("chunk_0: mem = %p, size = 32768[32KB], used/empty[node] = 1/1, used/empty/total[size] = "
                     "%u[0KB]/%u[31KB]/%u[31KB]\n",
                static_cast<const void*>(area - CH), NH + 9, NH + empty, k_string_pool_chunk_size - CH)
            + format("0     0     -           -           %-12p%-12u%-12s\n", static_cast<const void*>(area + NH),
                empty, "empty")
            + format("0     1     0x33        0x3301      %-12p9           cam1        \n", static_cast<void*>(s))
            + format("m_total_mem_size = 32768[32KB], total_usr_size = 5[0KB], total_empty_size = %u[31KB] "
                     "utility_string_pool\n",
                empty));
    EXPECT_EQ(pool->try_free(__FILE__, __func__, s), VESK_OK);
    EXPECT_EQ(pool->total_mem_size(), 0u);
}

// ---- Fatal paths -------------------------------------------------------------------------

TEST(PoolDeathTest, OverrunStrayPointerAndDoubleFreeAreCaughtAtFree)
{
    VESK_EXPECT_FATAL(
        {
            char* p = static_cast<char*>(vesk_utility_malloc(0x51, 0x5101, 16, 4));
            p[16] = 0;
            vesk_utility_free("record.cpp", "flush", p);
        },
        "ERROR! utility_little_mem_pool::proc_find_used_node\\[[0-9]+\\]:record.cpp, flush user_id = 0x51, "
        "purpose = 0x5101, memory = 0x[0-9a-f]+, chunk_addr = 0x[0-9a-f]+ mem_ofset = [0-9]+ mem_size = 20, "
        "usr_mem_size = 16 magic_1 = 0x52052000 why\\?.*ASSERT!\n >File name: core/vesk_utility_pool.cpp\n "
        ">Function: proc_find_used_node\n >Line No: [0-9]+\n >Condition: magic_1 == k_pool_magic_1\n");
    VESK_EXPECT_FATAL(
        {
            char* s = vesk_utility_strdup(0x52, 0x5201, "abc", 16);
            s[4] = 'x';
            vesk_utility_free("gui.cpp", "close", s);
        },
        "ERROR! utility_string_pool::proc_find_used_node\\[[0-9]+\\]:gui.cpp, close user_id = 0x52, purpose = "
        "0x5201, memory = 0x[0-9a-f]+, chunk_addr = 0x[0-9a-f]+ mem_ofset = [0-9]+ magic_1 = 0x52052078 why\\?");
    // A pointer into a node names the node before it.
    VESK_EXPECT_FATAL(
        {
            char* a = static_cast<char*>(vesk_utility_malloc(0x61, 0x6101, 64, 4));
            memset(a, 0x5A, 64);
            vesk_utility_malloc(0x62, 0x6201, 64, 4);
            vesk_utility_free("net.cpp", "drop", a + 48);
        },
        "net.cpp, drop memory = 0x[0-9a-f]+, chunk_addr = 0x[0-9a-f]+ mem_ofset = 1515870810 magic_0 = 0x5a5a5a5a "
        "why\\?.*front usr is 0x61, purpose = 0x6101, ofset = -?[0-9]+, size = 68, diag_node = 0x[0-9a-f]+\n.*"
        "ASSERT!\n >File name: core/vesk_utility_pool.cpp\n >Function: proc_find_used_node\n >Line No: [0-9]+\n"
        " >Condition: \\(VESK_CHAR \\*\\)node == \\(chunk->chunk_addr \\+ node->mem_ofset - "
        "sizeof\\(utility_string_pool_mem_node\\)\\)\n");
    VESK_EXPECT_FATAL(
        {
            char* a = static_cast<char*>(vesk_utility_malloc(0x63, 0x6301, 32, 4));
            vesk_utility_free("db.cpp", "close", chunk_addr_of(a) + 8);
        },
        "ERROR! utility_little_mem_pool::proc_find_used_node\\[[0-9]+\\]:db.cpp, close memory = 0x[0-9a-f]+, "
        "chunk->chunk_addr = 0x[0-9a-f]+ why\\?.*Condition: ofset >= sizeof\\(utility_string_pool_mem_node\\)\n");
    VESK_EXPECT_FATAL(
        {
            void* a = vesk_utility_malloc(0x64, 0x6402, 32, 4);
            vesk_utility_malloc(0x64, 0x6401, 32, 4); // right below a: not merged
            vesk_utility_free("db.cpp", "first", a);
            vesk_utility_free("db.cpp", "second", a);
        },
        "db.cpp, second memory = 0x[0-9a-f]+, chunk_addr = 0x[0-9a-f]+ mem_ofset = [0-9]+ magic_0 = 0x0 why\\?.*"
        "front usr is 0x64, purpose = 0x6401, .*Condition: node->magic_0 == k_pool_magic_0\n");
}

TEST(PoolDeathTest, PoolsAreNeverDestroyed)
{
    VESK_EXPECT_FATAL(
        delete new utility_string_pool(), "Function: ~utility_string_pool\n >Line No: [0-9]+\n >Condition: 0\n");
    VESK_EXPECT_FATAL(
        delete private_little_pool(1024), "Function: ~utility_little_mem_pool\n >Line No: [0-9]+\n >Condition: 0\n");
}
