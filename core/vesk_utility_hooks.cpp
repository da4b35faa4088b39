// vesk_utility_hooks - the accounted allocator behind SQLite and the protocol libraries.
#include "core/vesk_utility_hooks.h"

#include <sqlite3.h>

#include "vesk_utility_core.h"
#include "core/vesk_utility_mem_account.h"
#include "vesk_utility_memory.h"

extern "C" {
__attribute__((weak, visibility("default"))) void register_libcurl_malloc_funcs(vesk_malloc_funcs*) {}
__attribute__((weak, visibility("default"))) void register_libfcgi_malloc_funcs(vesk_malloc_funcs*) {}
__attribute__((weak, visibility("default"))) void register_polarssl_malloc_funcs(vesk_malloc_funcs*) {}
__attribute__((weak, visibility("default"))) void register_zlib_malloc_funcs(vesk_malloc_funcs*) {}
}

namespace vesk_utility {

using namespace vesk_soft;

namespace {

void* sqlite_malloc(int n)
{
    return vesk_malloc(VESK_USER_SQLITE, k_purpose_sqlite, static_cast<unsigned>(n), 1);
}

void sqlite_free(void* p)
{
    vesk_free("", "", p);
}

void* sqlite_realloc(void* p, int n)
{
    return vesk_realloc(VESK_USER_SQLITE, k_purpose_sqlite, p, static_cast<unsigned>(n), "", "", 1);
}

int sqlite_size(void* p)
{
    unsigned size = 0;
    if (vesk_get_mem_size("", "", p, size) != VESK_OK)
        return 0;
    return static_cast<int>(size);
}

int sqlite_roundup(int n)
{
    return n;
}

int sqlite_init(void*)
{
    return 0;
}

void sqlite_shutdown(void*) {}

const sqlite3_mem_methods s_sqlite_methods = {sqlite_malloc, sqlite_free,   sqlite_realloc,  sqlite_size,
                                              sqlite_roundup, sqlite_init, sqlite_shutdown, nullptr};

vesk_malloc_funcs s_hook_record;

}  // namespace

int install_sqlite_allocator()
{
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &s_sqlite_methods);
}

void install_protocol_allocators()
{
    s_hook_record.usr_id = VESK_USER_PROTOCOL_LIBS;
    s_hook_record.malloc_fn = vesk_malloc;
    s_hook_record.calloc_fn = vesk_utility_calloc;
    s_hook_record.realloc_fn = vesk_realloc;
    s_hook_record.free_fn = vesk_free;
    s_hook_record.purpose = k_purpose_libcurl;
    register_libcurl_malloc_funcs(&s_hook_record);
    s_hook_record.purpose = k_purpose_libfcgi;
    register_libfcgi_malloc_funcs(&s_hook_record);
    s_hook_record.purpose = k_purpose_polarssl;
    register_polarssl_malloc_funcs(&s_hook_record);
    s_hook_record.purpose = k_purpose_zlib;
    register_zlib_malloc_funcs(&s_hook_record);
}

}  // namespace vesk_utility
