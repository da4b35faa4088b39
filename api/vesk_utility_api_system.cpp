// vesk_utility_api_system - the exported command and process functions: argument checks, then
// the system-command client or the process helpers.
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_system.h"

namespace vesk_soft
{

using namespace vesk_utility;

VESK_ERR vesk_utility_system(const char* cmd)
{
    if (vesk_ops_type() == 0) {
        VESK_ERR_FN("s_ops_type = 0x%x, not init or not support\n", vesk_ops_type());
        return VESK_ERR_NOT_INIT;
    }
    if (cmd == nullptr) {
        VESK_ERR_FN("para err");
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_utility_system_client* client = vesk_ground::instance()->find_system_client();
    if (client == nullptr) {
        VESK_ERR_FN("get system fail!");
        return VESK_ERR_OPERATE_FAIL;
    }
    if (client->process_system(cmd) != 0) {
        VESK_ERR_FN("operate fail!");
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

VESK_ERR vesk_utility_exe_cmd(const char* cmd, unsigned timeout_ms, char* buf, unsigned buf_size)
{
    if (vesk_ops_type() == 0) {
        VESK_ERR_FN("Utility Module Not Init");
        return VESK_ERR_NOT_INIT;
    }
    if (cmd == nullptr || buf == nullptr || buf_size == 0) {
        VESK_ERR_FN("Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    return execute_cmd(cmd, timeout_ms, buf, buf_size);
}

VESK_ERR vesk_utility_popen(const char* cmd, const char* type, int* fd, int* pid)
{
    if (cmd == nullptr || type == nullptr || fd == nullptr || pid == nullptr) {
        VESK_ERR_FN("error: invalid param");
        return VESK_ERR_INVALID_PARAM;
    }
    // Every refusal of popen_ex, a bad type included, is reported as the pipe failing.
    if (popen_ex(cmd, type, fd, pid) != VESK_OK) {
        VESK_ERR_FN("popen_ex function Failed");
        VESK_ERR_FN("error: popen cmd pipe fail!");
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

VESK_ERR vesk_utility_pclose(int fd, int pid)
{
    if (fd < 0 || pid <= 0) {
        VESK_ERR_FN("error: invalid param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (close_ex(fd, pid) != VESK_OK) {
        VESK_ERR_FN("close_ex function Failed");
        VESK_ERR_FN("error: pclose function fail!");
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

FILE* vesk_utility_popen(const char* cmd, const char* mode)
{
    if (cmd == nullptr || mode == nullptr) {
        VESK_ERR_FN("error: invalid param");
        return nullptr;
    }
    VESK_REQUIRE_INIT(nullptr);
    vesk_utility_system_client* client = vesk_ground::instance()->find_system_client();
    if (client == nullptr) {
        VESK_ERR_FN("get system fail!");
        return nullptr;
    }
    return vesk_popen(client, cmd, mode);
}

int vesk_utility_pclose(FILE* fp)
{
    if (fp == nullptr) {
        VESK_ERR_FN("error: invalid param");
        return -1;
    }
    return vesk_pclose(fp);
}

} // namespace vesk_soft
