// vesk_utility_mem_layout - the byte layout of an accounted heap block, in one place.
//
//   | header (40 bytes on the 32-bit target) | user area (size bytes) | trailer (4) |
//   ^ raw + k_head_size rounded up to align  ^ user pointer           ^ user + size
//
// Header, from its first byte (offsets on the 32-bit target; on a 64-bit host the address
// fields src_memory, pre, next and the `long` xor are 8 bytes and the offsets behind them
// shift, every other field and check being the same):
//   0 magic 0x13149527 | 4 src_memory | 8 need_size | 12 malloc_size (locates the trailer)
//  16 caller_id | 20 purpose | 24 malloc_size (counted) | 28 pre | 32 next | 36 xor
// The words from caller_id to next are the live-list node; pre/next hold the header address
// of the neighbouring live block. xor = ~(magic ^ purpose ^ caller_id ^ size ^ need_size ^
// src_memory), so that the XOR of magic, src_memory, need_size, caller_id, purpose,
// malloc_size (second copy) and xor is all ones. The header is packed: fields are read and
// written without assuming alignment.
#ifndef VESK_UTILITY_MEM_LAYOUT_H
#define VESK_UTILITY_MEM_LAYOUT_H

#include <cstddef>
#include <cstdint>

namespace vesk_utility {

constexpr uint32_t k_mem_head_magic = 0x13149527;
constexpr uint32_t k_mem_tail_magic = 0x52052013;

#pragma pack(push, 1)
struct vesk_mem_head {
    uint32_t magic;
    uintptr_t src_memory;  // what malloc returned
    uint32_t need_size;    // bytes asked of malloc
    uint32_t malloc_size;  // caller's size, first copy: locates the trailer
    uint32_t caller_id;
    uint32_t purpose;
    uint32_t malloc_size2;  // caller's size, second copy: what the totals count
    uintptr_t pre;          // previous live block's header
    uintptr_t next;         // next live block's header
    unsigned long xor_chk;
};
#pragma pack(pop)

constexpr size_t k_mem_head_size = sizeof(vesk_mem_head);
constexpr size_t k_mem_tail_size = 4;

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(k_mem_head_size == 40, "accounted block header is 40 bytes on the 32-bit target");
static_assert(offsetof(vesk_mem_head, src_memory) == 4 && offsetof(vesk_mem_head, need_size) == 8 &&
                  offsetof(vesk_mem_head, malloc_size) == 12 && offsetof(vesk_mem_head, caller_id) == 16 &&
                  offsetof(vesk_mem_head, purpose) == 20 && offsetof(vesk_mem_head, malloc_size2) == 24 &&
                  offsetof(vesk_mem_head, pre) == 28 && offsetof(vesk_mem_head, next) == 32 &&
                  offsetof(vesk_mem_head, xor_chk) == 36,
              "accounted block header offsets on the 32-bit target");
#else
static_assert(k_mem_head_size == 56, "accounted block header is 56 bytes on a 64-bit host");
static_assert(offsetof(vesk_mem_head, src_memory) == 4 && offsetof(vesk_mem_head, need_size) == 12 &&
                  offsetof(vesk_mem_head, malloc_size) == 16 && offsetof(vesk_mem_head, caller_id) == 20 &&
                  offsetof(vesk_mem_head, purpose) == 24 && offsetof(vesk_mem_head, malloc_size2) == 28 &&
                  offsetof(vesk_mem_head, pre) == 32 && offsetof(vesk_mem_head, next) == 40 &&
                  offsetof(vesk_mem_head, xor_chk) == 48,
              "accounted block header offsets on a 64-bit host");
#endif

inline vesk_mem_head* mem_head_of(const void* user)
{
    return reinterpret_cast<vesk_mem_head*>(reinterpret_cast<uintptr_t>(user) - k_mem_head_size);
}

inline void* user_of(vesk_mem_head* head)
{
    return reinterpret_cast<char*>(head) + k_mem_head_size;
}

// The check word stored in a new header.
inline unsigned long mem_head_xor(uint32_t purpose, uint32_t caller_id, uint32_t size, uint32_t need_size,
                                  uintptr_t src_memory)
{
    return ~(static_cast<unsigned long>(k_mem_head_magic) ^ purpose ^ caller_id ^ size ^ need_size ^ src_memory);
}

// The invariant checked at free: all ones when no word of the header was changed.
inline bool mem_head_xor_ok(const vesk_mem_head* h)
{
    unsigned long v = static_cast<unsigned long>(h->magic) ^ h->src_memory ^ h->need_size ^ h->caller_id ^
                      h->purpose ^ h->malloc_size2 ^ h->xor_chk;
    return v == ~0UL;
}

}  // namespace vesk_utility

#endif  // VESK_UTILITY_MEM_LAYOUT_H
