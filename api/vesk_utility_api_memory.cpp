// vesk_utility_api_memory - the accounted allocator, the pools' entries, the note counters and
// the physical-memory queries (vesk_utility_memory.h): each wrapper checks the role, then
// forwards to the ground's accounting.
#include <cstring>

#include "vesk_utility.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_mem_sys.h"
#include "core/vesk_utility_pool.h"

namespace vesk_soft {

using namespace vesk_utility;

namespace {

vesk_ground* ground()
{
    return vesk_ground::instance();
}

}  // namespace

void* vesk_utility_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size, unsigned align)
{
    VESK_REQUIRE_INIT(nullptr);
    return vesk_malloc(usr_id, purpose, size, align);
}

void* vesk_utility_calloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned count, unsigned size)
{
    VESK_REQUIRE_INIT(nullptr);
    // The product is checked: a wrapped one would hand out a block smaller than count elements.
    const uint64_t wide = uint64_t{count} * size;
    if (wide > UINT32_MAX) {
        VESK_ERR_FN("caller_id = 0x%x, purpose = 0x%x, count = %u, size = %u, too large!\n", usr_id, purpose, count,
                    size);
        return nullptr;
    }
    const unsigned bytes = static_cast<unsigned>(wide);
    void* p = vesk_malloc(usr_id, purpose, bytes, 1);
    if (p != nullptr)
        memset(p, 0, bytes);
    return p;
}

void* vesk_utility_realloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, void* p, unsigned size,
                           const char* file, const char* func, unsigned align)
{
    VESK_REQUIRE_INIT(nullptr);
    return vesk_realloc(usr_id, purpose, p, size, file, func, align);
}

char* vesk_utility_strdup(vesk_user_id usr_id, vesk_memmory_purpose purpose, const char* s, unsigned len)
{
    VESK_REQUIRE_INIT(nullptr);
    return ground()->get_string_pool()->strdup(usr_id, purpose, s, len, nullptr);
}

VESK_ERR vesk_utility_free(const char* file, const char* func, const void* p)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_free(file, func, p);
}

void* vesk_utility_av_reader_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(nullptr);
    return ground()->get_av_reader_pool()->malloc(usr_id, purpose, size);
}

VESK_ERR vesk_utility_av_reader_free(const char* file, const char* func, const void* p)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    // Requests too large for the pool's chunks came from the heap.
    if (p == nullptr || ground()->get_av_reader_pool()->try_free(file, func, p) == VESK_OK)
        return VESK_OK;
    return vesk_free(file, func, p);
}

VESK_ERR vesk_utility_note_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    ground()->malloc_note().add(usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_free(const char* file, const char* func, vesk_user_id usr_id,
                                vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    ground()->malloc_note().sub(file, func, usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_new(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    ground()->new_note().add(usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_delete(const char* file, const char* func, vesk_user_id usr_id,
                                  vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    ground()->new_note().sub(file, func, usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_new(const char* class_name)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (class_name == nullptr) {
        VESK_ERR_FN("class_name == NULL!\n");
        return VESK_ERR_INVALID_PARAM;
    }
    ground()->class_note().add_class_note(class_name);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_delete(const char* class_name)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (class_name == nullptr) {
        VESK_ERR_FN("class_name == NULL!\n");
        return VESK_ERR_INVALID_PARAM;
    }
    ground()->class_note().sub_class_note(class_name);
    return VESK_OK;
}

VESK_ERR vesk_utility_get_system_mem_info(unsigned& total, unsigned& free, unsigned& buffers, unsigned& cached)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    FILE* fp = fopen("/proc/meminfo", "r");
    if (fp == nullptr) {
        VESK_ERR_FN("/proc/meminfo open fail!");
        VESK_ASSERT(0);
    }
    parse_meminfo_fixed(fp, total, free, buffers, cached);
    fclose(fp);
    return VESK_OK;
}

void vesk_utility_dump_rss(VESK_BOOL detail)
{
    VESK_REQUIRE_INIT();
    dump_rss(detail != 0, vesk_print_stdout);
}

}  // namespace vesk_soft
