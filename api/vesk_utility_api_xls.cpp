// vesk_utility_api_xls - the exported wrappers that create and destroy spreadsheet
// operators, each recorded on the "xls fd" list.
#include "store/vesk_utility_xls_operate.h"
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"

namespace vesk_soft
{

using namespace vesk_utility;

vesk_xls_operate* vesk_utility_new_xls_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(VESK_LIST_XLS, static_cast<vesk_xls_operate*>(new (std::nothrow) vesk_xls_realize()),
        usr_id, name != nullptr ? name : "");
}

VESK_ERR vesk_utility_delete_xls_operate(vesk_xls_operate* op, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_XLS, op, file, func);
}

} // namespace vesk_soft
