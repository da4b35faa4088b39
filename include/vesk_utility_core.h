// vesk_utility_core.h - library entry, handle registry of descriptors, and the generic helpers
// (min/max/middle/interval, bits, sleep, ring buffer over a caller's byte array).
#ifndef VESK_UTILITY_CORE_H
#define VESK_UTILITY_CORE_H

#include <cstdio>

#include "vesk_utility_types.h"

namespace vesk_soft {

// ---- Entry -------------------------------------------------------------------------------
// Initialises the layer once per process in the given role and always returns VESK_OK.
// A second call, with any role, does nothing: the first role stays. An unknown role ends the
// process with an assertion. There is no de-initialisation. Safe to call from several threads.
VESK_API VESK_ERR vesk_utility_init(vesk_utility_ops_type ops);

// ---- Descriptors, recorded with the caller's id and name --------------------------------
// Every descriptor handed out here is kept on a registry list (shown by the resource
// manager's diagnose command 4) until closed through the matching call. Closing a descriptor
// the registry does not know closes it all the same, silently; this differs on purpose from
// the object deletes, where an unknown handle is fatal.
// Return the descriptor, or -1 (logged) when not initialised or when the system call fails.
VESK_API int vesk_utility_open_socket(vesk_user_id usr_id, const char* name, int domain, int type, int protocol);
VESK_API VESK_ERR vesk_utility_close_socket(const char* file, const char* func, int fd);
VESK_API int vesk_utility_open(vesk_user_id usr_id, const char* name, const char* path, int flags, unsigned mode);
VESK_API VESK_ERR vesk_utility_close(const char* file, const char* func, int fd);
// Returns the stream, or NULL when not initialised or when fopen fails.
VESK_API FILE* vesk_utility_fopen(vesk_user_id usr_id, const char* name, const char* path, const char* mode);
VESK_API VESK_ERR vesk_utility_fclose(const char* file, const char* func, FILE* fp);
// Whether the value is registered; false before initialisation.
VESK_API bool vesk_utility_is_valid_socket(int fd);
VESK_API bool vesk_utility_is_valid_open_fd(int fd);
VESK_API bool vesk_utility_is_valid_fopen_fd(FILE* fp);

// ---- Diagnostics -------------------------------------------------------------------------
// Registers a client with the process's diagnose agent: the console lists it by `purpose`
// (its title), shows `help` (one command per line, each starting with the number the
// client's diagnose() accepts) and runs client->diagnose(para, print). The client must live
// as long as the process. A client registered twice is refused with a warning.
VESK_API VESK_ERR vesk_utility_regist_diag(vesk_diagnose_client* client, const char* purpose, const char* help);

// ---- Generic helpers (no initialisation needed) -----------------------------------------
VESK_API int vesk_utility_min(int a, int b);
VESK_API unsigned vesk_utility_min(unsigned a, unsigned b);
VESK_API int vesk_utility_max(int a, int b);
VESK_API unsigned vesk_utility_max(unsigned a, unsigned b);
// low when value < low, else high when value >= high, else value.
VESK_API int vesk_utility_middle(int value, int low, int high);
VESK_API unsigned vesk_utility_middle(unsigned value, unsigned low, unsigned high);
// |a - b|. The unsigned overload treats a distance above 0xF0000000 as a counter that wrapped
// past zero and returns its complement (2^32 - 1 - d), one less than the true wrap distance.
VESK_API unsigned vesk_utility_cnt_interval(int a, int b);
VESK_API unsigned long vesk_utility_cnt_interval(long a, long b);
VESK_API unsigned vesk_utility_cnt_interval(unsigned a, unsigned b);
// Bit n of v.
VESK_API bool vesk_utility_tst_bit(unsigned v, unsigned n);
VESK_API void vesk_utility_set_bit(unsigned& v, unsigned n);
VESK_API void vesk_utility_clr_bit(unsigned& v, unsigned n);
VESK_API void vesk_utility_sleep_ms(unsigned ms);

// Ring buffer over the caller's `pool` of `pool_size` bytes. `wr` and `rd` lie in
// [0, pool_size); the ring is empty when wr == rd and one byte always stays unused, so a
// ring holds at most pool_size - 1 bytes.
// Adds `len` bytes at wr (wrapping) and advances wr; VESK_ERR_OPERATE_FAIL when wr is out of
// range or the free space is short. An empty ring takes any len without a capacity check:
// callers keep len below pool_size.
VESK_API VESK_ERR vesk_utility_add_circle_data(char* pool, unsigned pool_size, unsigned& wr, unsigned rd,
                                               const char* data, unsigned len);
// Consumes `len` bytes by advancing rd; nothing is copied. VESK_ERR_OPERATE_FAIL when wr is
// out of range or fewer than len bytes are held.
VESK_API VESK_ERR vesk_utility_del_circle_data(char* pool, unsigned pool_size, unsigned wr, unsigned& rd,
                                               unsigned len);
// Points p1/len1 (and p2/len2 when the data wrap) at the held bytes without consuming them.
// All four are zero/NULL for an empty ring or an out-of-range wr.
VESK_API void vesk_utility_fetch_circle_data(char* pool, unsigned pool_size, unsigned wr, unsigned rd, char*& p1,
                                             unsigned& len1, char*& p2, unsigned& len2);

}  // namespace vesk_soft

#endif  // VESK_UTILITY_CORE_H
