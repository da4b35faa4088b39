// vesk_utility_api_xml - the exported wrappers that create and destroy XML operators, each
// recorded on the "xml fd" list.
#include "store/vesk_utility_xml.h"
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

vesk_xml_operate* vesk_utility_new_xml_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(VESK_LIST_XML, static_cast<vesk_xml_operate*>(new (std::nothrow) vesk_xml_realize()),
        usr_id, name != nullptr ? name : "");
}

VESK_ERR vesk_utility_delete_xml_operate(vesk_xml_operate* op, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_XML, op, file, func);
}

} // namespace vesk_soft
