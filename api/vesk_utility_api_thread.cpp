// vesk_utility_api_thread - the exported thread functions: each checks that the layer is
// initialised and its pointers, then hands the operation to the thread pool.
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"
#include "sched/vesk_utility_thread_pool.h"

namespace vesk_soft
{

using namespace vesk_utility;

namespace
{

utility_thread_pool* pool()
{
    return vesk_utility_res_manage::instance()->find_thread_pool();
}

} // namespace

VESK_ERR vesk_utility_creat_thread(const vesk_thread_creat_ctl* ctl, const char* name, unsigned long* thread_hand)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (ctl == nullptr || thread_hand == nullptr) {
        VESK_ERR_FN(
            "ctl = %p, thread_hand = %p, invalid!\n", static_cast<const void*>(ctl), static_cast<void*>(thread_hand));
        return VESK_ERR_INVALID_PARAM;
    }
    return creat_thread(pool(), ctl, name, thread_hand);
}

VESK_ERR vesk_utility_enter_thread(unsigned long thread_hand, const char* name)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return enter_thread(pool(), thread_hand, name);
}

VESK_ERR vesk_utility_exit_thread(unsigned long thread_hand)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return exit_thread(pool(), thread_hand);
}

VESK_ERR vesk_utility_retrieve_thread(unsigned long thread_hand)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return retrieve_thread(pool(), thread_hand);
}

} // namespace vesk_soft
