// vesk_utility_api_json - the exported wrappers that create and destroy the JSON document
// operators, each recorded on its registry list ("json fd", "json_V2 fd").
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "store/vesk_utility_json_impl.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

vesk_json_operate* vesk_utility_new_json_operate(const char* text, vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(
        VESK_LIST_JSON, static_cast<vesk_json_operate*>(vesk_tool_json::create(text)), usr_id, name);
}

vesk_json_operate_V2* vesk_utility_new_json_operate_V2(const char* text, vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(
        VESK_LIST_JSON_V2, static_cast<vesk_json_operate_V2*>(vesk_tool_json_V2::create(text)), usr_id, name);
}

VESK_ERR vesk_utility_delete_json_operate(vesk_json_operate* json, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_JSON, json, file, func);
}

VESK_ERR vesk_utility_delete_json_operate_V2(vesk_json_operate_V2* json, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_JSON_V2, json, file, func);
}

} // namespace vesk_soft
