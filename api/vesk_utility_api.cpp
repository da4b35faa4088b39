// vesk_utility_api - the exported entry and the thin wrappers of the core services: each
// checks the role, checks its arguments, and forwards to the resource manager.
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "vesk_utility.h"
#include "av/vesk_utility_av_mng.h"
#include "vesk_utility_diagnose.h"
#include "vesk_utility_handle.h"
#include "vesk_utility_hooks.h"
#include "vesk_utility_log.h"
#include "vesk_utility_mem_sys.h"
#include "vesk_utility_pool.h"
#include "vesk_utility_resource.h"

namespace vesk_utility {

namespace {
// Written once, last, under s_init_lock; read without a lock by every wrapper.
std::atomic<uint32_t> s_ops_type{0};
pthread_mutex_t s_init_lock = PTHREAD_MUTEX_INITIALIZER;
}  // namespace

uint32_t vesk_ops_type()
{
    return s_ops_type.load(std::memory_order_acquire);
}

}  // namespace vesk_utility

namespace vesk_soft {

using namespace vesk_utility;

namespace {

vesk_utility_res_manage* res()
{
    return vesk_utility_res_manage::instance();
}

vesk_handle_registry& registry()
{
    return res()->registry();
}

uintptr_t as_handle(int fd)
{
    return static_cast<uintptr_t>(static_cast<intptr_t>(fd));
}

uintptr_t as_handle(const void* p)
{
    return reinterpret_cast<uintptr_t>(p);
}

}  // namespace

// ---- Entry -------------------------------------------------------------------------------

VESK_ERR vesk_utility_init(vesk_utility_ops_type ops)
{
    if (vesk_ops_type() != 0)
        return VESK_OK;
    pthread_mutex_lock(&s_init_lock);
    if (vesk_ops_type() == 0) {
        // SQLite refuses a new allocator once it is in use; its heap then stays unaccounted.
        const int sqlite_ret = install_sqlite_allocator();
        if (sqlite_ret != 0)
            VESK_WARN_FN("sqlite3_config ret = %d, sqlite memory is not accounted!\n", sqlite_ret);
        install_protocol_allocators();
        res()->construct_res(ops);
        s_ops_type.store(ops, std::memory_order_release);
        load_logo_frame();
    }
    pthread_mutex_unlock(&s_init_lock);
    return VESK_OK;
}

// ---- Descriptors -------------------------------------------------------------------------

int vesk_utility_open_socket(vesk_user_id usr_id, const char* name, int domain, int type, int protocol)
{
    VESK_REQUIRE_INIT(-1);
    const int fd = socket(domain, type, protocol);
    if (fd < 0) {
        VESK_ERR_FN("socket fail!");
        return -1;
    }
    registry().save_node(VESK_LIST_SOCKET, as_handle(fd), usr_id, name);
    return fd;
}

// The close functions drop the registry record, then close in every case. The message for an
// unregistered descriptor sits behind a negative test that the registry's positive failure
// code never meets: an unknown descriptor is closed silently, unlike the object deletes.
VESK_ERR vesk_utility_close_socket(const char* file, const char* func, int fd)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    const int32_t ret = static_cast<int32_t>(registry().delete_node(VESK_LIST_SOCKET, as_handle(fd)));
    if (ret < 0)
        VESK_ERR_FN("%s, %s invalid socket!\n", file, func);
    close(fd);
    return VESK_OK;
}

int vesk_utility_open(vesk_user_id usr_id, const char* name, const char* path, int flags, unsigned mode)
{
    VESK_REQUIRE_INIT(-1);
    if (path == nullptr) {
        VESK_ERR_FN("path == NULL!\n");
        return -1;
    }
    const int fd = open(path, flags, mode);
    if (fd < 0) {
        VESK_ERR_FN("open %s, flags = 0x%x, mode = 0x%x fail!\n", path, flags, mode);
        return -1;
    }
    registry().save_node(VESK_LIST_OPEN, as_handle(fd), usr_id, name);
    return fd;
}

VESK_ERR vesk_utility_close(const char* file, const char* func, int fd)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    const int32_t ret = static_cast<int32_t>(registry().delete_node(VESK_LIST_OPEN, as_handle(fd)));
    if (ret < 0)
        VESK_ERR_FN("%s, %s invalid fd!\n", file, func);
    close(fd);
    return VESK_OK;
}

FILE* vesk_utility_fopen(vesk_user_id usr_id, const char* name, const char* path, const char* mode)
{
    VESK_REQUIRE_INIT(nullptr);
    if (path == nullptr || mode == nullptr) {
        VESK_ERR_FN("path = %p, mode = %p!\n", static_cast<const void*>(path), static_cast<const void*>(mode));
        return nullptr;
    }
    FILE* fp = fopen(path, mode);
    if (fp == nullptr) {
        VESK_ERR_FN("fopen %s, mode = %s fail!\n", path, mode);
        return nullptr;
    }
    registry().save_node(VESK_LIST_FOPEN, as_handle(fp), usr_id, name);
    return fp;
}

VESK_ERR vesk_utility_fclose(const char* file, const char* func, FILE* fp)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (fp == nullptr) {
        VESK_ERR_FN("%s %s client == NULL!\n", file, func);
        return VESK_ERR_INVALID_PARAM;
    }
    const int32_t ret = static_cast<int32_t>(registry().delete_node(VESK_LIST_FOPEN, as_handle(fp)));
    if (ret < 0)
        VESK_ERR_FN("%s, %s invalid fd!\n", file, func);
    fclose(fp);
    return VESK_OK;
}

bool vesk_utility_is_valid_socket(int fd)
{
    VESK_REQUIRE_INIT(false);
    return registry().is_valid(VESK_LIST_SOCKET, as_handle(fd)) != 0;
}

bool vesk_utility_is_valid_open_fd(int fd)
{
    VESK_REQUIRE_INIT(false);
    return registry().is_valid(VESK_LIST_OPEN, as_handle(fd)) != 0;
}

bool vesk_utility_is_valid_fopen_fd(FILE* fp)
{
    VESK_REQUIRE_INIT(false);
    return registry().is_valid(VESK_LIST_FOPEN, as_handle(fp)) != 0;
}

// ---- Diagnostics -------------------------------------------------------------------------

VESK_ERR vesk_utility_regist_diag(vesk_diagnose_client* client, const char* purpose, const char* help)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (client == nullptr) {
        VESK_ERR_FN("client == NULL!\n");
        return VESK_ERR_INVALID_PARAM;
    }
    return res()->get_diagnose()->regist_diag(client, purpose, help);
}

// ---- Memory ------------------------------------------------------------------------------

void* vesk_utility_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size, unsigned align)
{
    VESK_REQUIRE_INIT(nullptr);
    return vesk_malloc(usr_id, purpose, size, align);
}

void* vesk_utility_calloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned count, unsigned size)
{
    VESK_REQUIRE_INIT(nullptr);
    const unsigned bytes = count * size;
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
    return res()->get_string_pool()->strdup(usr_id, purpose, s, len, nullptr);
}

VESK_ERR vesk_utility_free(const char* file, const char* func, const void* p)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return vesk_free(file, func, p);
}

void* vesk_utility_av_reader_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(nullptr);
    return res()->get_av_reader_pool()->malloc(usr_id, purpose, size);
}

VESK_ERR vesk_utility_av_reader_free(const char* file, const char* func, const void* p)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    // Requests too large for the pool's chunks came from the heap.
    if (p == nullptr || res()->get_av_reader_pool()->try_free(file, func, p) == VESK_OK)
        return VESK_OK;
    return vesk_free(file, func, p);
}

VESK_ERR vesk_utility_note_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    res()->malloc_note().add(usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_free(const char* file, const char* func, vesk_user_id usr_id,
                                vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    res()->malloc_note().sub(file, func, usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_new(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    res()->new_note().add(usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_delete(const char* file, const char* func, vesk_user_id usr_id,
                                  vesk_memmory_purpose purpose, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    res()->new_note().sub(file, func, usr_id, purpose, size);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_new(const char* class_name)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (class_name == nullptr) {
        VESK_ERR_FN("class_name == NULL!\n");
        return VESK_ERR_INVALID_PARAM;
    }
    res()->class_note().add_class_note(class_name);
    return VESK_OK;
}

VESK_ERR vesk_utility_note_delete(const char* class_name)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (class_name == nullptr) {
        VESK_ERR_FN("class_name == NULL!\n");
        return VESK_ERR_INVALID_PARAM;
    }
    res()->class_note().sub_class_note(class_name);
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
