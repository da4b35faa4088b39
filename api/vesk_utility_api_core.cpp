// vesk_utility_api_core - the exported entry, the registered descriptors and the diagnose
// registration (vesk_utility_core.h): each wrapper checks the role, checks its arguments, and
// forwards to the ground or the resource manager.
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "vesk_utility.h"
#include "av/vesk_utility_av_mng.h"
#include "core/vesk_utility_diagnose.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_hooks.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_sys.h"
#include "core/vesk_utility_pool.h"
#include "api/vesk_utility_resource.h"

namespace vesk_utility {

namespace {
pthread_mutex_t s_init_lock = PTHREAD_MUTEX_INITIALIZER;
}  // namespace

}  // namespace vesk_utility

namespace vesk_soft {

using namespace vesk_utility;

namespace {

vesk_ground* ground()
{
    return vesk_ground::instance();
}

vesk_handle_registry& registry()
{
    return ground()->registry();
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
        vesk_utility_res_manage::instance()->construct_res(ops);
        vesk_set_ops_type(ops);
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
    return ground()->get_diagnose()->regist_diag(client, purpose, help);
}

}  // namespace vesk_soft
