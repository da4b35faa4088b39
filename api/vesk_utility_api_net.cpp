// vesk_utility_api_net - the exported network changes and Toolnet: the initialisation check,
// then the change functions or the Toolnet service. (The configuration queries are exported
// by net/vesk_utility_net_config.cpp, as they need no service.)
#include <arpa/inet.h>
#include <netinet/in.h>

#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "net/vesk_utility_net_change.h"
#include "net/vesk_utility_toolnet.h"

namespace vesk_soft
{

using namespace vesk_utility;

namespace
{

vesk_toolnet* toolnet()
{
    return vesk_utility_res_manage::instance()->get_toolnet();
}

} // namespace

VESK_ERR vesk_utility_set_net_dev_up(const char* if_name, VESK_BOOL up)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_set_up(if_name, up != 0);
}

VESK_ERR vesk_utility_set_net_dev_mtu(const char* if_name, unsigned mtu)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_set_mtu(if_name, mtu);
}

VESK_ERR vesk_utility_set_net_dev_mac(const char* if_name, const unsigned char* mac, unsigned size)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_set_mac(if_name, mac, size);
}

VESK_ERR vesk_utility_set_ipv4_ipconfig(const char* if_name, const char* ip, const char* netmask)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_set_ipv4(if_name, ip, netmask);
}

VESK_ERR vesk_utility_add_ipv4_alias(const char* label, const char* ip, const char* netmask)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_add_ipv4_alias(label, ip, netmask);
}

VESK_ERR vesk_utility_del_ipv4_alias(const char* label)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_del_ipv4_alias(label);
}

VESK_ERR vesk_utility_add_ipv6_ipconfig(const char* if_name, const char* ip, unsigned prefix_len)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_change_ipv6(if_name, ip, prefix_len, true);
}

VESK_ERR vesk_utility_del_ipv6_ipconfig(const char* if_name, const char* ip, unsigned prefix_len)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_change_ipv6(if_name, ip, prefix_len, false);
}

VESK_ERR vesk_utility_add_ipv4_gateway(const char* if_name, const char* gateway, unsigned metric)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_change_gateway(if_name, gateway, metric, true);
}

VESK_ERR vesk_utility_del_ipv4_gateway(const char* if_name, const char* gateway, unsigned metric)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_change_gateway(if_name, gateway, metric, false);
}

VESK_ERR vesk_utility_set_ipv4_dns_config(const char* if_name, const char* const* servers, unsigned count)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_set_dns(if_name, servers, count, false);
}

VESK_ERR vesk_utility_set_ipv6_dns_config(const char* if_name, const char* const* servers, unsigned count)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return net_set_dns(if_name, servers, count, true);
}

// ---- Toolnet -------------------------------------------------------------------------------

VESK_ERR vesk_utiltiy_net_start()
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return toolnet()->start();
}

VESK_ERR vesk_utility_toolnet_open_udp(const vesk_toolnet_udp_param* param, vesk_toolnet_handle* handle)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (param == nullptr || handle == nullptr)
        return VESK_ERR_INVALID_PARAM;
    *handle = 0;
    return toolnet()->open_udp(*param, handle);
}

VESK_ERR vesk_utility_toolnet_send_to(
    vesk_toolnet_handle handle, const void* data, unsigned len, const char* ip, unsigned short port)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    sockaddr_storage to {};
    socklen_t to_len = 0;
    if ((data == nullptr && len != 0) || ip == nullptr)
        return VESK_ERR_INVALID_PARAM;
    sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(&to);
    sockaddr_in6* v6 = reinterpret_cast<sockaddr_in6*>(&to);
    if (inet_pton(AF_INET, ip, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        to_len = sizeof(*v4);
    } else if (inet_pton(AF_INET6, ip, &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        to_len = sizeof(*v6);
    } else {
        return VESK_ERR_INVALID_PARAM;
    }
    return toolnet()->send_to(handle, data, len, reinterpret_cast<sockaddr*>(&to), to_len);
}

VESK_ERR vesk_utility_toolnet_send_to_addr(
    vesk_toolnet_handle handle, const void* data, unsigned len, const struct sockaddr* to, unsigned to_len)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if ((data == nullptr && len != 0) || to == nullptr || to_len == 0)
        return VESK_ERR_INVALID_PARAM;
    return toolnet()->send_to(handle, data, len, to, to_len);
}

VESK_ERR vesk_utility_toolnet_listen_tcp(const vesk_toolnet_listen_param* param, vesk_toolnet_handle* handle)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (param == nullptr || handle == nullptr)
        return VESK_ERR_INVALID_PARAM;
    *handle = 0;
    return toolnet()->listen_tcp(*param, handle);
}

VESK_ERR vesk_utility_toolnet_connect_tcp(const vesk_toolnet_connect_param* param, vesk_toolnet_handle* handle)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (param == nullptr || handle == nullptr)
        return VESK_ERR_INVALID_PARAM;
    *handle = 0;
    return toolnet()->connect_tcp(*param, handle);
}

VESK_ERR vesk_utility_toolnet_send(
    vesk_toolnet_handle handle, const void* data, unsigned len, unsigned timeout_ms, unsigned* sent)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (data == nullptr && len != 0)
        return VESK_ERR_INVALID_PARAM;
    return toolnet()->send(handle, data, len, timeout_ms, sent);
}

VESK_ERR vesk_utility_toolnet_close(vesk_toolnet_handle handle)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    return toolnet()->close(handle);
}

VESK_ERR vesk_utility_toolnet_local_port(vesk_toolnet_handle handle, unsigned short* port)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (port == nullptr)
        return VESK_ERR_INVALID_PARAM;
    return toolnet()->local_port(handle, port);
}

} // namespace vesk_soft
