// vesk_utility_memory.h - accounted allocation. Every block carries the caller's module id and
// purpose, is guarded by a header and a trailer, and is counted on one live list that the
// diagnostics print by module and purpose.
//
// Contract: blocks from vesk_utility_malloc/calloc/realloc/strdup are released with
// vesk_utility_free only. A corrupted header or trailer, a double free and a pointer that did
// not come from here end the process with a diagnostic and an assertion, on purpose, so that
// the first overwrite is found where it happened. Allocation failure returns NULL, and so does
// a size whose guarded block would not fit 32 bits (sizes near UINT32_MAX), on every ABI.
// Every function logs "not init" and refuses work before vesk_utility_init.
#ifndef VESK_UTILITY_MEMORY_H
#define VESK_UTILITY_MEMORY_H

#include "vesk_utility_types.h"

namespace vesk_soft {

// `align` is 1 for no alignment, or a power of two; 0 must not be passed.
// Blocks of user 0x70 with an A/V cache purpose (0x9110C-0x9110F, 0x91111-0x91114) count
// against the cache budget and are refused (NULL, warning once per 1000) above it.
VESK_API void* vesk_utility_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size, unsigned align);
// count * size bytes, zero-filled; NULL (logged) when the product does not fit 32 bits.
VESK_API void* vesk_utility_calloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned count, unsigned size);
// NULL p allocates; size 0 frees p and returns NULL (both NULL and 0: the size lookup's
// error messages, then NULL); the same size returns p unchanged.
// When the new block cannot be had, NULL is returned and p stays valid.
VESK_API void* vesk_utility_realloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, void* p, unsigned size,
                                    const char* file, const char* func, unsigned align);
// Copy of at most `len` characters of s, NUL-terminated; NULL for a NULL s.
VESK_API char* vesk_utility_strdup(vesk_user_id usr_id, vesk_memmory_purpose purpose, const char* s, unsigned len);
// Frees any block of this family; NULL is accepted. `file` and `func` name the caller in
// every message.
VESK_API VESK_ERR vesk_utility_free(const char* file, const char* func, const void* p);

// Relay memory of the A/V readers; the free accepts any accounted block.
VESK_API void* vesk_utility_av_reader_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size);
VESK_API VESK_ERR vesk_utility_av_reader_free(const char* file, const char* func, const void* p);

// Counters of allocations made elsewhere: the "malloc/free num:" tree and the
// "new/delete num:" tree. A release that was never noted (or noted fewer times) is fatal.
VESK_API VESK_ERR vesk_utility_note_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size);
VESK_API VESK_ERR vesk_utility_note_free(const char* file, const char* func, vesk_user_id usr_id,
                                         vesk_memmory_purpose purpose, unsigned size);
VESK_API VESK_ERR vesk_utility_note_new(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size);
VESK_API VESK_ERR vesk_utility_note_delete(const char* file, const char* func, vesk_user_id usr_id,
                                           vesk_memmory_purpose purpose, unsigned size);
// Live-object counters by class name; deleting a class never noted (or at 0) is fatal.
VESK_API VESK_ERR vesk_utility_note_new(const char* class_name);
VESK_API VESK_ERR vesk_utility_note_delete(const char* class_name);

// MemTotal, MemFree, Buffers and Cached of /proc/meminfo in kB. Returns VESK_OK; a missing
// /proc/meminfo is fatal.
VESK_API VESK_ERR vesk_utility_get_system_mem_info(unsigned& total, unsigned& free, unsigned& buffers,
                                                   unsigned& cached);
// Prints the system's memory use and this process's resident memory (from its smaps); with
// `detail` also one line per mapping that holds resident pages, largest first.
VESK_API void vesk_utility_dump_rss(VESK_BOOL detail);

}  // namespace vesk_soft

#endif  // VESK_UTILITY_MEMORY_H
