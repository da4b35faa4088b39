// vesk_utility_hooks - wires the accounted allocator into SQLite and into the firmware's
// builds of the protocol libraries.
#ifndef VESK_UTILITY_HOOKS_H
#define VESK_UTILITY_HOOKS_H

#include <cstdint>

#include "vesk_utility_types.h"

// The allocator-hook record given to the protocol libraries: who their memory is accounted
// to, and the four accounted entry points. All fields are 32-bit on the target.
struct vesk_malloc_funcs {
    vesk_soft::vesk_user_id usr_id;
    vesk_soft::vesk_memmory_purpose purpose;
    void* (*malloc_fn)(vesk_soft::vesk_user_id, vesk_soft::vesk_memmory_purpose, unsigned size, unsigned align);
    void* (*calloc_fn)(vesk_soft::vesk_user_id, vesk_soft::vesk_memmory_purpose, unsigned count, unsigned size);
    void* (*realloc_fn)(vesk_soft::vesk_user_id, vesk_soft::vesk_memmory_purpose, void* p, unsigned size,
                        const char* file, const char* func, unsigned align);
    vesk_soft::VESK_ERR (*free_fn)(const char* file, const char* func, const void* p);
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(vesk_malloc_funcs) == 24, "allocator-hook record is six 32-bit fields");
#endif

// Exported by the firmware's own builds of these libraries; the layer defines weak no-ops so
// that it links and runs against stock packages.
extern "C" {
void register_libcurl_malloc_funcs(vesk_malloc_funcs* funcs);
void register_libfcgi_malloc_funcs(vesk_malloc_funcs* funcs);
void register_polarssl_malloc_funcs(vesk_malloc_funcs* funcs);
void register_zlib_malloc_funcs(vesk_malloc_funcs* funcs);
}

namespace vesk_utility {

constexpr vesk_soft::vesk_memmory_purpose k_purpose_sqlite = 0x1600;
constexpr vesk_soft::vesk_memmory_purpose k_purpose_libcurl = 0x130400;
constexpr vesk_soft::vesk_memmory_purpose k_purpose_libfcgi = 0x130401;
constexpr vesk_soft::vesk_memmory_purpose k_purpose_zlib = 0x130403;
constexpr vesk_soft::vesk_memmory_purpose k_purpose_polarssl = 0x130405;

// sqlite3_config(SQLITE_CONFIG_MALLOC) with the accounted methods (user 0x22, purpose
// 0x1600). Returns SQLite's result: it refuses once SQLite is already in use.
int install_sqlite_allocator();
// Hands the hook record to the four protocol libraries, in order libcurl, libfcgi,
// polarssl, zlib, changing only the purpose between calls.
void install_protocol_allocators();

}  // namespace vesk_utility

#endif  // VESK_UTILITY_HOOKS_H
