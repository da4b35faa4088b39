// vesk_utility_net_change - interface and route changes. Every argument is checked and turned
// into canonical text before a command is built, the command (`ip`, the subset that busybox
// also accepts) runs in the proxy server through the system-command client, so the calling
// process never forks, and the change is read back from the kernel afterwards. DNS servers
// are written into the interface's resolver file by an atomic rename, in this process.
#ifndef VESK_UTILITY_NET_CHANGE_H
#define VESK_UTILITY_NET_CHANGE_H

#include <cstddef>

#include "vesk_utility_net.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

constexpr size_t k_net_cmd_max = 192; // the longest command built is well under this
constexpr unsigned k_net_dns_max = 8; // servers per resolver file
constexpr unsigned k_net_mtu_min = 68; // the IPv4 minimum
constexpr unsigned k_net_mtu_max = 65535;

// The checks, exposed for tests. Each refuses NULL.
// 1 to 15 of [A-Za-z0-9_.-], not starting with '-', not "." or "..".
bool net_if_name_ok(const char* name);
// "<interface>:<suffix>", 15 characters at most, the suffix 1 or more of [A-Za-z0-9_.-];
// the interface part goes to if_name (16 bytes).
bool net_alias_label_ok(const char* label, char* if_name);
// Dotted decimal (inet_pton) of an address an interface or a gateway can have: not 0.0.0.0,
// not multicast or above (224.0.0.0/3). Canonical text into out (16 bytes).
bool net_ipv4_unicast(const char* text, char* out);
// A contiguous IPv4 netmask; its prefix length (1 to 32).
bool net_ipv4_mask_len(const char* mask, unsigned* len);
// An IPv6 address that is neither :: nor multicast; canonical text (at most 39 characters)
// into out (40 bytes).
bool net_ipv6_unicast(const char* text, char* out);
// True when cmd holds nothing the shell treats as syntax: letters, digits, ' ', '.', ':',
// '/', '_', '-'. The last guard before a command leaves the process.
bool net_cmd_plain(const char* cmd);

// Test seam: runs each command instead of the system-command client (0 = ran). NULL restores
// the client.
void net_change_set_runner(int (*runner)(const char* cmd));

// The changes. VESK_ERR_INVALID_PARAM: an argument failed its check, nothing was run.
// VESK_ERR_OPERATE_FAIL: the interface does not exist (nothing run), a command could not be
// run, or the kernel does not show the change afterwards. Changes are serialised.
VESK_ERR net_set_up(const char* if_name, bool up);
VESK_ERR net_set_mtu(const char* if_name, unsigned mtu);
VESK_ERR net_set_mac(const char* if_name, const unsigned char* mac, unsigned size);
VESK_ERR net_set_ipv4(const char* if_name, const char* ip, const char* netmask);
VESK_ERR net_add_ipv4_alias(const char* label, const char* ip, const char* netmask);
VESK_ERR net_del_ipv4_alias(const char* label);
VESK_ERR net_change_ipv6(const char* if_name, const char* ip, unsigned prefix_len, bool add);
VESK_ERR net_change_gateway(const char* if_name, const char* gateway, unsigned metric, bool add);
VESK_ERR net_set_dns(const char* if_name, const char* const* servers, unsigned count, bool ipv6);

} // namespace vesk_utility

#endif // VESK_UTILITY_NET_CHANGE_H
