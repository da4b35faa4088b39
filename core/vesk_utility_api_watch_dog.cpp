// vesk_utility_api_watch_dog - the exported watchdog functions: the service exists only in the
// main application, so each wrapper checks that role first.
#include "sched/vesk_utility_watch_dog.h"
#include "vesk_utility_log.h"
#include "vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

namespace
{

vesk_utility_watch_dog_manage* dogs()
{
    return vesk_utility_res_manage::instance()->get_watch_dog_manage();
}

bool main_role(const char* func, int line)
{
    if (vesk_ops_type() == VESK_UTILITY_OPS_MAIN_APP)
        return true;
    vesk_log(
        vesk_log_level::error, nullptr, func, line, "not init, or not support, s_ops_type = 0x%x\n", vesk_ops_type());
    return false;
}

} // namespace

VESK_ERR vesk_utility_regist_dog(vesk_watch_dog_purpose purpose, unsigned int timeout_s, unsigned long* dog_hand)
{
    if (!main_role(__func__, __LINE__))
        return VESK_ERR_NOT_INIT;
    if (dog_hand == nullptr) {
        VESK_ERR_FN("para err");
        return VESK_ERR_INVALID_PARAM;
    }
    return dogs()->regist_dog(purpose, timeout_s, dog_hand);
}

VESK_ERR vesk_utility_fetch_dog(unsigned long dog_hand)
{
    if (!main_role(__func__, __LINE__))
        return VESK_ERR_NOT_INIT;
    return dogs()->fetch_dog(dog_hand);
}

VESK_ERR vesk_utility_unregist_dog(unsigned long dog_hand)
{
    if (!main_role(__func__, __LINE__))
        return VESK_ERR_NOT_INIT;
    return dogs()->unregist_dog(dog_hand);
}

void vesk_utility_regist_reboot_func(VESK_ERR (*reboot_func)())
{
    if (!main_role(__func__, __LINE__))
        return;
    dogs()->regist_reboot_func(reboot_func);
}

} // namespace vesk_soft
