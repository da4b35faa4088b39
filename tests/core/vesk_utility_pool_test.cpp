// String pool and little memory pools: placement, coalescing, chunk release, the routing of
// the general allocator and the fatal diagnosis of bad frees.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <utility>
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

// Where the chunk area of a block starts; string headers are unaligned, so read by value.
const char* chunk_addr_of(const void* p)
{
    uint32_t ofset;
    memcpy(&ofset, static_cast<const char*>(p) - NH + offsetof(utility_string_pool_mem_node, mem_ofset), 4);
    return static_cast<const char*>(p) - ofset;
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

// Pools of the tests' own; never destroyed, like the layer's.
utility_little_mem_pool* private_little_pool(uint32_t chunk_size)
{
    return vesk_test::never_destroyed(new utility_little_mem_pool(chunk_size, 0x3999));
}

int print_nothing(const char*, ...)
{
    return 0;
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

// Copies kept whole beside other frees, and coalescing, are the concurrency and randomized tests'.
TEST(StringPoolTest, LengthsAreCutAndLongCopiesAreWhole)
{
    const totals base;
    utility_string_pool* pool = res()->get_string_pool();
    unsigned len = 77;
    EXPECT_TRUE(pool->strdup(0x51, 0x5101, nullptr, 10, &len) == nullptr && len == 0);
    char* cut = pool->strdup(0x51, 0x5101, "front door camera", 5, &len);
    EXPECT_STREQ(cut, "front");
    EXPECT_EQ(len, 5u);
    // Long copies are whole, from the pool or, past its limit, the heap.
    const std::string pooled(1018, 'p'), big(5000, 'b');
    char* in_pool = nullptr;
    char* on_heap = nullptr;
    vesk_test::capture_stdout([&] {
        in_pool = pool->strdup(0x52, 0x5201, pooled.c_str(), 5000, &len);
        on_heap = pool->strdup(0x52, 0x5202, big.c_str(), 5000, nullptr);
    });
    EXPECT_EQ(len, 1018u);
    EXPECT_TRUE(in_pool == pooled && on_heap == big);
    unsigned size = 0;
    EXPECT_EQ(pool->get_mem_size(__FILE__, __func__, in_pool, size), VESK_OK);
    EXPECT_EQ(size, 1019u);
    EXPECT_EQ(pool->get_mem_size(__FILE__, __func__, on_heap, size), VESK_ERR_INVALID_PARAM);
    for (char* p : {cut, in_pool, on_heap})
        vesk_utility_free(__FILE__, __func__, p);
    EXPECT_TRUE(totals() == base);
}

TEST(LittlePoolTest, GeneralAllocatorRoutesBySizeAlignAndCaller)
{
    const totals base;
    utility_little_mem_pool* little = res()->get_little_mem_pool();
    const struct {
        unsigned size, align;
        vesk_user_id usr;
        bool pooled;
    } probes[] = {{1, 1, 0x60, true}, {5, 4, 0x60, true}, {4096, 4, 0x60, true}, {4097, 4, 0x60, false},
        {64, 8, 0x60, false}, {64, 1, VESK_USER_SQLITE, false}};
    void* p[6];
    for (int i = 0; i < 6; i++) {
        p[i] = vesk_utility_malloc(probes[i].usr, 0x6001, probes[i].size, probes[i].align);
        ASSERT_NE(p[i], nullptr);
        memset(p[i], 0xC0 + i, probes[i].size);
        unsigned size = 0;
        EXPECT_EQ(little->get_mem_size(__FILE__, __func__, p[i], size) == VESK_OK, probes[i].pooled) << i;
        EXPECT_TRUE(!probes[i].pooled || (size == probes[i].size && reinterpret_cast<uintptr_t>(p[i]) % 4 == 0)) << i;
    }
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
    char* s = vesk_utility_strdup(0x61, 0x6102, "channel 7", 64);
    s = static_cast<char*>(vesk_utility_realloc(0x61, 0x6103, s, 40, __FILE__, __func__, 1));
    EXPECT_STREQ(s, "channel 7");
    vesk_utility_free(__FILE__, __func__, r);
    vesk_utility_free(__FILE__, __func__, s);

    // The A/V-reader pool: small requests pooled, requests no chunk can hold from the heap.
    utility_little_mem_pool* av = res()->get_av_reader_pool();
    void* frame = vesk_utility_av_reader_malloc(0x70, 0x91110, 2000);
    void* huge = vesk_utility_av_reader_malloc(0x70, 0x91110, k_av_reader_pool_chunk_size);
    unsigned size = 0;
    EXPECT_EQ(av->get_mem_size(__FILE__, __func__, frame, size), VESK_OK);
    EXPECT_EQ(av->get_mem_size(__FILE__, __func__, huge, size), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(av->total_mem_size(), base.av_reader + k_av_reader_pool_chunk_size);
    EXPECT_EQ(vesk_utility_av_reader_free(__FILE__, __func__, frame), VESK_OK);
    EXPECT_EQ(vesk_utility_av_reader_free(__FILE__, __func__, huge), VESK_OK);
    EXPECT_TRUE(totals() == base);
}

// Invariant: under concurrent use a live block keeps its owner's pattern until freed, and once
// every thread has freed its blocks no chunk is left behind.
TEST(PoolConcurrencyTest, BlocksNeverOverlapAndEveryChunkIsReturned)
{
    const totals base;
    std::atomic<int> broken {0};
    std::atomic<bool> done {false};
    auto worker = [&](int id) {
        std::mt19937 rng(id);
        std::vector<std::pair<char*, unsigned>> mine; // block, length
        const unsigned char pattern = static_cast<unsigned char>(0x10 + id);
        for (int i = 0; i < 4000 || !mine.empty(); i++) {
            if (i < 4000 && mine.size() < 48 && rng() % 3 != 0) {
                const bool as_string = rng() % 2 == 0;
                const unsigned n = 1 + rng() % (as_string ? 1100 : 4096);
                const std::string text(n, static_cast<char>(pattern));
                char* p = as_string ? vesk_utility_strdup(0x80 + id, 0x8002, text.c_str(), 2000)
                                    : static_cast<char*>(vesk_utility_malloc(0x80 + id, 0x8001, n, 4));
                memset(p, pattern, n);
                mine.emplace_back(p, n);
            } else if (!mine.empty()) {
                const size_t k = rng() % mine.size();
                if (!holds(mine[k].first, mine[k].second, pattern))
                    broken++;
                vesk_utility_free(__FILE__, __func__, mine[k].first);
                mine[k] = mine.back();
                mine.pop_back();
            }
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

const char* end_of_node(const utility_string_pool_mem_node* n)
{
    return reinterpret_cast<const char*>(n) + NH + n->mem_size;
}

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

TEST(PoolDeathTest, OverrunStrayPointerDoubleFreeAndDestructionAreFatal)
{
    VESK_EXPECT_FATAL(
        {
            char* p = static_cast<char*>(vesk_utility_malloc(0x51, 0x5101, 16, 4));
            p[16] = 0;
            vesk_utility_free("record.cpp", "flush", p);
        },
        "utility_little_mem_pool::proc_find_used_node\\[[0-9]+\\]:record.cpp, flush user_id = 0x51, .*"
        "magic_1 = 0x52052000 why\\?.*Condition: magic_1 == k_pool_magic_1\n");
    VESK_EXPECT_FATAL(
        {
            char* s = vesk_utility_strdup(0x52, 0x5201, "abc", 16);
            s[4] = 'x';
            vesk_utility_free("gui.cpp", "close", s);
        },
        "utility_string_pool::proc_find_used_node\\[[0-9]+\\]:gui.cpp, close user_id = 0x52, .*magic_1 = 0x52052078");
    // A pointer into a node names the node before it.
    VESK_EXPECT_FATAL(
        {
            char* a = static_cast<char*>(vesk_utility_malloc(0x61, 0x6101, 64, 4));
            memset(a, 0x5A, 64);
            vesk_utility_malloc(0x62, 0x6201, 64, 4);
            vesk_utility_free("net.cpp", "drop", a + 48);
        },
        "net.cpp, drop memory = .*front usr is 0x61, purpose = 0x6101, .*Condition: \\(VESK_CHAR \\*\\)node == ");
    VESK_EXPECT_FATAL(
        {
            char* a = static_cast<char*>(vesk_utility_malloc(0x63, 0x6301, 32, 4));
            vesk_utility_free("db.cpp", "close", chunk_addr_of(a) + 8);
        },
        "db.cpp, close memory = .*Condition: ofset >= sizeof\\(utility_string_pool_mem_node\\)\n");
    VESK_EXPECT_FATAL(
        {
            void* a = vesk_utility_malloc(0x64, 0x6402, 32, 4);
            vesk_utility_malloc(0x64, 0x6401, 32, 4); // right below a: not merged
            vesk_utility_free("db.cpp", "first", a);
            vesk_utility_free("db.cpp", "second", a);
        },
        "db.cpp, second memory = .*magic_0 = 0x0 why\\?.*Condition: node->magic_0 == k_pool_magic_0\n");
    VESK_EXPECT_FATAL(delete new utility_string_pool(), "Function: ~utility_string_pool\n.*Condition: 0\n");
    VESK_EXPECT_FATAL(delete private_little_pool(1024), "Function: ~utility_little_mem_pool\n.*Condition: 0\n");
}
