// vesk_utility_api_watch_dog - the exported watchdog functions: the service exists only in the
// main application, so each wrapper checks that role first.
#include "sched/vesk_utility_watch_dog.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

namespace
{

vesk_utility_watch_dog_manage* dogs()
{
    return vesk_utility_res_manage::instance()->get_watch_dog_manage();
}

} // namespace

VESK_ERR vesk_utility_regist_dog(vesk_watch_dog_purpose purpose, unsigned int timeout_s, unsigned long* dog_hand)
{
    VESK_REQUIRE_MAIN_ROLE();
    if (dog_hand == nullptr) {
        VESK_ERR_FN("para err");
        return VESK_ERR_INVALID_PARAM;
    }
    return dogs()->regist_dog(purpose, timeout_s, dog_hand);
}

VESK_ERR vesk_utility_fetch_dog(unsigned long dog_hand)
{
    VESK_REQUIRE_MAIN_ROLE();
    return dogs()->fetch_dog(dog_hand);
}

VESK_ERR vesk_utility_unregist_dog(unsigned long dog_hand)
{
    VESK_REQUIRE_MAIN_ROLE();
    return dogs()->unregist_dog(dog_hand);
}

void vesk_utility_regist_reboot_func(VESK_ERR (*reboot_func)())
{
    VESK_REQUIRE_MAIN_ROLE_OR();
    dogs()->regist_reboot_func(reboot_func);
}

} // namespace vesk_soft
