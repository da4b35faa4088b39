// vesk_utility_mem_account - the accounted heap: every block carries a guarded header naming
// its caller and purpose and sits on one live list whose total the diagnostics print.
// Also owns the A/V cache budget that caps blocks of the A/V cache.
#ifndef VESK_UTILITY_MEM_ACCOUNT_H
#define VESK_UTILITY_MEM_ACCOUNT_H

#include <pthread.h>

#include <cstdint>
#include <mutex>

#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::print_fn;
using vesk_soft::VESK_ERR;
using vesk_soft::vesk_memmory_purpose;
using vesk_soft::vesk_user_id;

// The live-block list and its running total. Thread safety: every member function may be
// called from any thread; m_lock guards the list and the total and is never held while
// calling out of this class (except into the logger).
class vesk_mem_account {
public:
    vesk_mem_account();
    vesk_mem_account(const vesk_mem_account&) = delete;
    vesk_mem_account& operator=(const vesk_mem_account&) = delete;

    // A new block of `size` bytes aligned to `align` (1: none), or NULL (logged) when malloc
    // fails. A size whose block (header, trailer and alignment slack added) would not fit the
    // 32-bit need_size field, or would wrap the target's size_t, is refused with NULL and a
    // message instead of allocating a wrapped, too-small block.
    void* proc_vesk_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size, unsigned align);
    // Frees a block from proc_vesk_malloc. REQUIRES: p came from proc_vesk_malloc and was not
    // freed; anything else is reported and ends the process.
    void proc_vesk_free(const char* file, const char* func, const void* p);
    // The caller's size of a block, after the same checks as the free; VESK_ERR_INVALID_PARAM
    // (reported) for a pointer that fails them.
    VESK_ERR vesk_get_mem_size(const char* file, const char* func, const void* p, unsigned& size);

    // Sum of the caller sizes of all live blocks, and their number.
    uint32_t total_size();
    uint32_t live_blocks();
    // Sum of the caller sizes of the live blocks of one caller and purpose; O(live blocks).
    uint32_t total_of(vesk_user_id usr_id, vesk_memmory_purpose purpose);

    // "NVR2.0 model_layer total malloc size = ..." from the total.
    void dump_total(print_fn print);
    // Totals per caller and purpose (at most 64 x 64).
    void dump_by_module(print_fn print);

private:
    // Validates the header and trailer of p; on failure prints the diagnosis under `fn` and
    // returns NULL.
    struct vesk_mem_head* check_block(const char* fn, const char* file, const char* func, const void* p);

    // Adaptive: the critical section is a few stores, so a contending thread spins briefly
    // instead of sleeping in the kernel.
    pthread_mutex_t m_lock;
    uintptr_t m_head = 0;  // header address of the oldest live block; 0 when empty
    uintptr_t m_tail = 0;  // header address of the newest live block
    uint32_t m_total = 0;  // GUARDED_BY(m_lock)
    uint32_t m_count = 0;  // GUARDED_BY(m_lock)
};

// Budget of the A/V cache blocks (user 0x70, purposes 0x9110C-0x9110F and 0x91111-0x91114).
bool is_av_budget_block(vesk_user_id usr_id, vesk_memmory_purpose purpose);
// REQUIRES: forbid >= start (fatal otherwise).
void vesk_mem_set_av_limits(uint32_t start_rotate, uint32_t forbid_malloc);
uint32_t vesk_mem_av_total();
// Called (under the budget mutex) when the cache total reaches the rotation threshold; the
// A/V cache installs the call that wakes its rotation task. NULL: nobody to wake.
void vesk_mem_set_rotate_waker(void (*waker)());

// The alignment to ask for when allocating records of type T: its own, capped at a pointer's.
// On the board that is 4, so small records stay in the little-memory pool (whose blocks are
// word-aligned; ARMv7 reads 64-bit fields from word-aligned addresses). On a 64-bit host it
// is 8, which sends them to the heap, where they are aligned for their pointers.
template <class T>
constexpr unsigned vesk_obj_align()
{
    return alignof(T) < alignof(void*) ? static_cast<unsigned>(alignof(T)) : static_cast<unsigned>(alignof(void*));
}

// Front doors of the accounting used throughout the layer; they route by size, caller and
// purpose and work before vesk_utility_init (SQLite and the protocol libraries call them).
void* vesk_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size, unsigned align);
void* vesk_realloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, void* p, unsigned size, const char* file,
                   const char* func, unsigned align);
VESK_ERR vesk_free(const char* file, const char* func, const void* p);
VESK_ERR vesk_get_mem_size(const char* file, const char* func, const void* p, unsigned& size);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_MEM_ACCOUNT_H
