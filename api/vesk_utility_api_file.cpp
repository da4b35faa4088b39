// vesk_utility_api_file - the exported wrappers that create and destroy the binary, text and
// block file operators, each recorded on its registry list with its creator.
#include <errno.h>
#include <unistd.h>

#include <cstring>

#include "vesk_utility.h"
#include "store/vesk_utility_block_file.h"
#include "store/vesk_utility_file_operate.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

namespace vesk_soft
{

using namespace vesk_utility;

vesk_binary_file_operate* vesk_utility_new_binary_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(
        VESK_LIST_BIN, static_cast<vesk_binary_file_operate*>(new binary_file_ops()), usr_id, name);
}

VESK_ERR vesk_utility_delete_binary_operate(vesk_binary_file_operate* ops, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_BIN, ops, file, func);
}

vesk_txt_file_operate* vesk_utility_new_txt_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(VESK_LIST_TXT, static_cast<vesk_txt_file_operate*>(new txt_file_ops()), usr_id, name);
}

VESK_ERR vesk_utility_delete_txt_operate(vesk_txt_file_operate* ops, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_TXT, ops, file, func);
}

vesk_block_file_operate* vesk_utility_new_block_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(
        VESK_LIST_BLOCK, static_cast<vesk_block_file_operate*>(new block_file_ops()), usr_id, name);
}

VESK_ERR vesk_utility_delete_block_operate(vesk_block_file_operate* ops, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_BLOCK, ops, file, func);
}

VESK_ERR vesk_utility_remove_file(const char* path)
{
    if (path == nullptr) {
        VESK_ERR_FN("path == NULL\n");
        return VESK_ERR_INVALID_PARAM;
    }
    if (unlink(path) != 0) {
        VESK_ERR_FN("unlink %s fail: %s\n", path, strerror(errno));
        return VESK_ERR_REMOVE_FAIL;
    }
    return VESK_OK;
}

} // namespace vesk_soft
