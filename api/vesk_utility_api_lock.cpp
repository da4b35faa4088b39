// vesk_utility_api_lock - the exported wrappers that create and destroy the named locks,
// read-write locks and interruptible sleeps, each recorded on its registry list.
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_lock.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

vesk_lock* vesk_utility_new_lock(vesk_user_id usr_id, const char* name)
{
    if (vesk_ops_type() == 0) {
        VESK_ERR_FN("s_ops_type = 0x%x, not init or not support\n", vesk_ops_type());
        return nullptr;
    }
    return VESK_REGISTER_NEW(VESK_LIST_COMMON_LOCK, static_cast<vesk_lock*>(new vesk_lock_realize(name)), usr_id, name);
}

vesk_rw_lock* vesk_utility_new_rw_lock(vesk_user_id usr_id, const char* name)
{
    if (vesk_ops_type() == 0) {
        VESK_ERR_FN("s_ops_type = 0x%x, not init or not support\n", vesk_ops_type());
        return nullptr;
    }
    return VESK_REGISTER_NEW(
        VESK_LIST_RW_LOCK, static_cast<vesk_rw_lock*>(new vesk_rw_lock_realize(name)), usr_id, name);
}

vesk_interuptable_sleep* vesk_utility_new_interuptable_sleep(vesk_user_id usr_id, const char* name)
{
    if (vesk_ops_type() == 0) {
        VESK_ERR_FN("s_ops_type = 0x%x, not init or not support\n", vesk_ops_type());
        return nullptr;
    }
    return VESK_REGISTER_NEW(
        VESK_LIST_SLEEP, static_cast<vesk_interuptable_sleep*>(new interuptable_sleep()), usr_id, name);
}

VESK_ERR vesk_utility_delete_lock(vesk_lock* lock, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_COMMON_LOCK, lock, file, func);
}

VESK_ERR vesk_utility_delete_rw_lock(vesk_rw_lock* lock, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_RW_LOCK, lock, file, func);
}

VESK_ERR vesk_utility_delete_interuptable_sleep(vesk_interuptable_sleep* sleep, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_SLEEP, sleep, file, func);
}

} // namespace vesk_soft
