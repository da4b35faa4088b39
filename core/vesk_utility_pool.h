// vesk_utility_pool - the string pool and the little memory pools: sub-allocators that carve
// small nodes out of large accounted chunks, tag every node with its caller and purpose, and
// guard it with two magic words so that a bad free is diagnosed at the first overwrite.
#ifndef VESK_UTILITY_POOL_H
#define VESK_UTILITY_POOL_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_utility
{

class pool_fit_index;

using vesk_soft::print_fn;
using vesk_soft::VESK_CHAR;
using vesk_soft::VESK_ERR;
using vesk_soft::vesk_memmory_purpose;
using vesk_soft::vesk_user_id;

// ---- Byte layout of a chunk -----------------------------------------------------------------
//
//   chunk (from the accounted heap)
//   | chunk header (32) | node hdr (32) | data ... | magic_1 (4) | slack | node hdr (32) | data ...
//   ^ chunk             ^ chunk_addr    ^ chunk_addr + mem_ofset
//
// Chunk header (offsets on the 32-bit target):
//    0 chunk_addr: address of the node area (chunk + 32) | 4 area size (chunk size - 32)
//    8 zero up to offset 16 | 16 empty-node list head (address order) | 20 used-node list head
//   24 previous chunk | 28 next chunk
// Node header, immediately before the data:
//    0 magic_0 0x13149527 in used nodes, 0 in empty ones | 4 mem_ofset: data - chunk_addr
//    8 mem_size: the data area | 12 usr_mem_size: what the caller asked for
//   16 previous node | 20 next node (empty or used list) | 24 user id | 28 purpose
// magic_1 0x52052013 stands at data + usr_mem_size, unaligned in general.
// Invariant of every node: node == chunk_addr + mem_ofset - sizeof(node header).
//
// On a 64-bit host the address fields (chunk_addr, list heads and links) are 8 bytes: the
// chunk header keeps its zero area up to offset 16 and is 48 bytes, the node header is 40.
// Headers are packed; string nodes sit at any byte address, so fields are never assumed to
// be aligned.
constexpr uint32_t k_pool_magic_0 = 0x13149527;
constexpr uint32_t k_pool_magic_1 = 0x52052013;
constexpr uint32_t k_pool_magic_1_size = 4;

#pragma pack(push, 1)
struct utility_string_pool_mem_node {
    uint32_t magic_0;
    uint32_t mem_ofset;
    uint32_t mem_size;
    uint32_t usr_mem_size;
    utility_string_pool_mem_node* prev;
    utility_string_pool_mem_node* next;
    uint32_t usr_id;
    uint32_t purpose;
};

struct utility_pool_chunk {
    VESK_CHAR* chunk_addr;
    uint32_t area_size;
    uint8_t zero[16 - sizeof(VESK_CHAR*) - 4];
    utility_string_pool_mem_node* empty_head;
    utility_string_pool_mem_node* used_head;
    utility_pool_chunk* prev;
    utility_pool_chunk* next;
};
#pragma pack(pop)

constexpr uint32_t k_pool_node_head_size = sizeof(utility_string_pool_mem_node);
constexpr uint32_t k_pool_chunk_head_size = sizeof(utility_pool_chunk);

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(k_pool_node_head_size == 32, "pool node header is 32 bytes on the 32-bit target");
static_assert(k_pool_chunk_head_size == 32, "pool chunk header is 32 bytes on the 32-bit target");
static_assert(offsetof(utility_string_pool_mem_node, prev) == 16 && offsetof(utility_string_pool_mem_node, next) == 20
        && offsetof(utility_string_pool_mem_node, usr_id) == 24
        && offsetof(utility_string_pool_mem_node, purpose) == 28,
    "pool node header offsets on the 32-bit target");
static_assert(offsetof(utility_pool_chunk, area_size) == 4 && offsetof(utility_pool_chunk, empty_head) == 16
        && offsetof(utility_pool_chunk, used_head) == 20 && offsetof(utility_pool_chunk, prev) == 24
        && offsetof(utility_pool_chunk, next) == 28,
    "pool chunk header offsets on the 32-bit target");
#else
static_assert(k_pool_node_head_size == 40, "pool node header is 40 bytes on a 64-bit host");
static_assert(k_pool_chunk_head_size == 48, "pool chunk header is 48 bytes on a 64-bit host");
static_assert(offsetof(utility_string_pool_mem_node, prev) == 16 && offsetof(utility_string_pool_mem_node, next) == 24
        && offsetof(utility_string_pool_mem_node, usr_id) == 32
        && offsetof(utility_string_pool_mem_node, purpose) == 36,
    "pool node header offsets on a 64-bit host");
static_assert(offsetof(utility_pool_chunk, area_size) == 8 && offsetof(utility_pool_chunk, empty_head) == 16
        && offsetof(utility_pool_chunk, used_head) == 24 && offsetof(utility_pool_chunk, prev) == 32
        && offsetof(utility_pool_chunk, next) == 40,
    "pool chunk header offsets on a 64-bit host");
#endif
static_assert(offsetof(utility_string_pool_mem_node, mem_ofset) == 4
        && offsetof(utility_string_pool_mem_node, mem_size) == 8
        && offsetof(utility_string_pool_mem_node, usr_mem_size) == 12,
    "pool node size fields");

// Chunks of the string pool, and the purposes of the pools' chunks.
constexpr uint32_t k_string_pool_chunk_size = 32768;
constexpr vesk_memmory_purpose k_purpose_string_pool = 0x3017;
constexpr vesk_memmory_purpose k_purpose_little_mem_pool = 0x301A;
constexpr vesk_memmory_purpose k_purpose_av_reader_pool = 0x301F;
constexpr uint32_t k_little_mem_pool_chunk_size = 0x40000;
constexpr uint32_t k_av_reader_pool_chunk_size = 0x80000;
// A string whose copy needs this much room (characters, NUL and magic_1) bypasses the pool.
constexpr uint32_t k_string_pool_big_need = 1024;

// The machinery both pools share: chunk list, best-fit allocation with tail splitting,
// coalescing free, chunk release, the checks of a freed node and the dumps.
//
// Thread safety: every public member may be called from any thread. m_lock guards the chunk
// list, every header inside the chunks and m_total_mem_size. Lock order: m_lock, then the
// accounting's live-list lock (chunks are taken from and given back to the heap with m_lock
// held); nothing here is called with the live-list lock held.
class utility_pool_base : public vesk_soft::vesk_diagnose_client
{
public:
    utility_pool_base(const utility_pool_base&) = delete;
    utility_pool_base& operator=(const utility_pool_base&) = delete;

    // VESK_OK when ptr lies in one of this pool's chunks and was freed; VESK_ERR_INVALID_PARAM
    // when no chunk contains it (the caller tries the next owner). A pointer inside a chunk
    // that is not a live node's data, or whose magic words were overwritten, is reported
    // naming file and func and ends the process.
    VESK_ERR try_free(const char* file, const char* func, const void* ptr);
    // The size the caller asked for, with the same checks as try_free; VESK_ERR_INVALID_PARAM
    // when no chunk contains ptr.
    VESK_ERR get_mem_size(const char* file, const char* func, const void* ptr, unsigned& size);

    // 1: per-chunk and per-user summary; 2: every node of every chunk. Never blocks.
    VESK_ERR diagnose(int para, print_fn print) override;

    // Bytes taken from the accounted heap (chunk sizes including their headers).
    uint32_t total_mem_size();
    uint32_t chunk_count();

protected:
    struct pool_rules {
        const char* cls; // class name in messages
        uint32_t chunk_size; // bytes per chunk, header included
        vesk_memmory_purpose purpose; // of the chunks (user id 0x13)
        uint32_t whole_slack; // a node leaving at most this much beside need is used whole
        bool little; // the little pool's message variants
    };

    explicit utility_pool_base(const pool_rules& rules);
    ~utility_pool_base() override = default;

    // A used node with `need` bytes of data area holding `usr_size` caller bytes, or NULL when
    // no chunk has room (the caller then adds one with creat_chunk and retries).
    // REQUIRES: m_lock held.
    VESK_CHAR* take_node(vesk_user_id usr_id, vesk_memmory_purpose purpose, uint32_t need, uint32_t usr_size);
    // A new chunk at the head of the list, or NULL when the heap refuses (fatal when
    // `must_succeed`). REQUIRES: m_lock held.
    utility_pool_chunk* creat_chunk(bool must_succeed);

    pthread_mutex_t m_lock;
    utility_pool_chunk* m_chunk_head = nullptr; // GUARDED_BY(m_lock)
    uint32_t m_total_mem_size = 0; // GUARDED_BY(m_lock)
    const uint32_t m_chunk_size;
    const vesk_memmory_purpose m_purpose;

private:
    const char* const m_cls;
    const uint32_t m_whole_slack;
    const bool m_little;
    // The search structures of every chunk, in the order of the chunk list (C heap memory).
    pool_fit_index** m_index = nullptr; // GUARDED_BY(m_lock)
    // The same, in address order, so that a free finds its chunk by bisection.
    pool_fit_index** m_by_addr = nullptr; // GUARDED_BY(m_lock)
    uint32_t m_index_count = 0; // GUARDED_BY(m_lock)
    uint32_t m_index_cap = 0; // GUARDED_BY(m_lock)
    // The lowest and highest address of any chunk's node area (written under m_lock), so that
    // a free of a block that is not the pool's skips the lock. A live node keeps its chunk,
    // so every value stored from its allocation until its free covers it: a reader may mix
    // values of different updates and still never misses a node of the pool.
    std::atomic<uintptr_t> m_lo {UINTPTR_MAX};
    std::atomic<uintptr_t> m_hi {0};

    // The index of the chunk whose node area holds ptr, or NULL.
    pool_fit_index* find_chunk(const void* ptr);
    // Room for one more chunk in m_index and m_by_addr; false when the C heap refuses.
    bool index_room();
    // False only when no chunk can hold ptr; read without m_lock (see m_lo).
    bool may_own(const void* ptr) const;
    // REQUIRES: m_lock held.
    void update_bounds();
    utility_string_pool_mem_node* proc_find_used_node(
        const char* file, const char* func, utility_pool_chunk* chunk, const void* ptr);
    void release_node(pool_fit_index* index, utility_string_pool_mem_node* node);
    void dump_nodes(print_fn print);
    void dump_summary(print_fn print);
    void dump_total(print_fn print);
};

// Copies of strings, below 1020 characters from 32 KB chunks, longer ones from the heap.
class utility_string_pool final : public utility_pool_base
{
public:
    utility_string_pool();
    ~utility_string_pool() override; // fatal: the pool lives as long as the process

    // A NUL-terminated copy of at most max_len characters of str, tagged with usr_id and
    // purpose, or NULL for a NULL str or when no memory is left. *out_len (when given) gets the
    // number of characters copied, 0 on failure. Free it with the general free.
    VESK_CHAR* strdup(
        vesk_user_id usr_id, vesk_memmory_purpose purpose, const VESK_CHAR* str, unsigned max_len, unsigned* out_len);
};

// Small fixed requests, from chunks of a size fixed at construction.
class utility_little_mem_pool final : public utility_pool_base
{
public:
    // chunk_size is rounded up to a multiple of 16; chunks are accounted under purpose.
    utility_little_mem_pool(uint32_t chunk_size, vesk_memmory_purpose purpose);
    ~utility_little_mem_pool() override; // fatal: the pool lives as long as the process

    // size usable bytes (no alignment beyond 4), or NULL when no memory is left. A request that
    // no chunk could hold comes from the heap under the caller's id and purpose.
    void* malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size);
};

} // namespace vesk_utility

#endif // VESK_UTILITY_POOL_H
