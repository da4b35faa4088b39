// vesk_utility_api_event - the exported event functions: the manager exists only in the main
// application, so each wrapper checks that role, then its pointers, then forwards.
#include "event/vesk_utility_event_manage.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

namespace
{

vesk_utility_event_manage* manager()
{
    return vesk_utility_res_manage::instance()->get_event_manage();
}

} // namespace

#define VESK_EVENT_REQUIRE_PTR(p)                                                                                      \
    do {                                                                                                               \
        if ((p) == nullptr) {                                                                                          \
            VESK_ERR_FN(#p " == NULL, invalid!\n");                                                                    \
            return VESK_ERR_INVALID_PARAM;                                                                             \
        }                                                                                                              \
    } while (0)

VESK_ERR vesk_utility_set_event_push_state(VESK_BOOL enable)
{
    VESK_REQUIRE_MAIN_ROLE();
    manager()->set_push_state(enable);
    return VESK_OK;
}

VESK_ERR vesk_utility_get_event_push_state(VESK_BOOL* enable)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(enable);
    *enable = manager()->get_push_state();
    return VESK_OK;
}

VESK_ERR vesk_utility_register_event_oberver(vesk_user_id user, const vesk_event_oberver* oberver)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(oberver);
    return manager()->register_event_oberver(user, oberver);
}

VESK_ERR vesk_utility_unregister_event_oberver(vesk_user_id user, const vesk_event_oberver* oberver)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(oberver);
    return manager()->unregister_event_oberver(user, oberver);
}

VESK_ERR vesk_utility_set_event_arming(const vesk_event_id* id, const vesk_arming_shedule* schedule)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(id);
    VESK_EVENT_REQUIRE_PTR(schedule);
    return manager()->set_event_arming(*id, *schedule);
}

VESK_ERR vesk_utility_get_event_arming(const vesk_event_id* id, vesk_arming_shedule* schedule)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(id);
    VESK_EVENT_REQUIRE_PTR(schedule);
    return manager()->get_event_arming_schedule(*id, *schedule);
}

VESK_ERR vesk_utility_set_event_state(const vesk_event_info* detail, VESK_BOOL trigger)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(detail);
    return manager()->set_event_state(*detail, trigger);
}

VESK_ERR vesk_utility_get_event_state(const vesk_event_id* id, VESK_BOOL* active, long* start_time, long* last_time)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(id);
    VESK_EVENT_REQUIRE_PTR(active);
    VESK_EVENT_REQUIRE_PTR(start_time);
    VESK_EVENT_REQUIRE_PTR(last_time);
    return manager()->get_event_state(*id, *active, *start_time, *last_time);
}

VESK_ERR vesk_utility_get_event_state(const vesk_event_type* type, VESK_BOOL* active)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(type);
    VESK_EVENT_REQUIRE_PTR(active);
    return manager()->get_event_state(*type, *active);
}

VESK_ERR vesk_utility_set_event_filter(vesk_event_user_id user, const vesk_event_id* id, VESK_BOOL enable)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(id);
    return manager()->set_event_filter(user, *id, enable);
}

VESK_ERR vesk_utility_set_event_filter(vesk_event_user_id user, const vesk_event_type* type, VESK_BOOL enable)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(type);
    return manager()->set_event_filter(user, *type, enable);
}

VESK_ERR vesk_utility_get_event_info(
    vesk_event_user_id user, vesk_event_detail_info* out, uint32_t capacity, uint32_t* count)
{
    VESK_REQUIRE_MAIN_ROLE();
    VESK_EVENT_REQUIRE_PTR(count);
    if (out == nullptr && capacity != 0) {
        VESK_ERR_FN("out == NULL with capacity %u, invalid!\n", capacity);
        return VESK_ERR_INVALID_PARAM;
    }
    return manager()->get_event_info(user, out, capacity, *count);
}

VESK_ERR vesk_utility_set_event_valid_time(uint32_t seconds)
{
    VESK_REQUIRE_MAIN_ROLE();
    if (seconds == 0) {
        VESK_ERR_FN("valid time 0, invalid!\n");
        return VESK_ERR_INVALID_PARAM;
    }
    manager()->set_valid_time(seconds);
    return VESK_OK;
}

} // namespace vesk_soft
