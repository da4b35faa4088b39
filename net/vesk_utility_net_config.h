// vesk_utility_net_config - the parsers behind the network-configuration queries, taking open
// streams so that tests can feed them fixtures of /proc/net/dev, /proc/net/route,
// /proc/net/ipv6_route and resolver files.
#ifndef VESK_UTILITY_NET_CONFIG_H
#define VESK_UTILITY_NET_CONFIG_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "vesk_utility_net.h"

namespace vesk_utility
{

// A /proc/net/dev stream: whether a line after the two header lines contains if_name.
bool net_dev_listed(FILE* fp, const char* if_name);
// A /proc/net/route stream: routes with a non-zero gateway on interfaces whose name begins
// with if_name; NULL when there are none.
vesk_soft::vesk_inet_ipv4_route_info_list* parse_ipv4_routes(FILE* fp, const char* if_name);
// A /proc/net/ipv6_route stream: routes of device if_name (exact) to a non-zero destination.
vesk_soft::vesk_inet_ipv6_route_info_list* parse_ipv6_routes(FILE* fp, const char* if_name);
// A resolver file: one entry per "nameserver " line with a line feed and a '.' (IPv4) or a
// ':' (IPv6).
vesk_soft::vesk_inet_ipv4_dns_info_list* parse_ipv4_dns(FILE* fp);
vesk_soft::vesk_inet_ipv6_dns_info_list* parse_ipv6_dns(FILE* fp);
// The addresses of if_name as the address queries build them, but for exactly that name (an
// IPv4 alias by its label) and whether or not the interface is up; no message. NULL when none.
vesk_soft::vesk_inet_ipv4_ip_info_list* ipv4_addresses(const char* if_name, bool exact);
vesk_soft::vesk_inet_ipv6_ip_info_list* ipv6_addresses(const char* if_name, bool exact);
// A /proc/net/route stream: whether it holds a default route of exactly if_name through
// gateway (network order, as the table holds it) with that metric.
bool ipv4_default_route_listed(FILE* fp, const char* if_name, uint32_t gateway, int metric);
// The rooted resolver file name for if_name from one of the resolver formats, with the line
// feed that ends the real file names.
char* resolver_path(char* out, size_t size, const char* fmt, const char* if_name);

} // namespace vesk_utility

#endif // VESK_UTILITY_NET_CONFIG_H
