// vesk_utility_net.h - network-configuration queries: whether an interface exists, is up or is
// a bonding slave, and its IPv4/IPv6 addresses, routes and DNS servers, read from the kernel
// (getifaddrs, /proc/net, SIOCGIFFLAGS) and from the per-interface resolver files.
//
// Every list is freshly allocated from the accounted heap (user 0x13, purpose 0x3013) and
// handed back with the matching vesk_utility_relase_* call. A query that finds nothing
// returns NULL; no empty list is ever allocated. Entries keep the order of their source.
// Name matching: the existence test looks for the name as a substring of a /proc/net/dev
// line, addresses and IPv4 routes take every interface whose name begins with if_name (so
// eth0 also gives eth0:1, and eth1 also gives eth10), IPv6 routes take the exact device only.
// A NULL argument to the address queries, the interface record, the flag queries, the
// existence test, the prefix-length helper or a release function is a programming error and
// ends the process, as does a missing /proc/net file or a failing SIOCGIFFLAGS (for instance
// on a name that is not an interface). No initialisation is needed; all are thread-safe.
#ifndef VESK_UTILITY_NET_H
#define VESK_UTILITY_NET_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

struct vesk_inet_ipv4_ip_info {
    char if_name[16]; // may be an alias label such as "eth0:1"
    char ip[16]; // dotted decimal
    char netmask[16];
    vesk_inet_ipv4_ip_info* next;
    vesk_inet_ipv4_ip_info* prev;
};

struct vesk_inet_ipv6_ip_info {
    char ip[40]; // numeric, as getnameinfo prints it (link-local ones with "%<device>")
    uint32_t prefix_len;
    vesk_inet_ipv6_ip_info* next;
    vesk_inet_ipv6_ip_info* prev;
};

struct vesk_inet_ipv4_route_info {
    int32_t metric;
    char gateway[16]; // dotted decimal, never 0.0.0.0
    vesk_inet_ipv4_route_info* next;
    vesk_inet_ipv4_route_info* prev;
};

struct vesk_inet_ipv6_route_info {
    int32_t metric;
    char destination[40]; // eight groups of four hex digits joined by ':', never all zero
    vesk_inet_ipv6_route_info* next;
    vesk_inet_ipv6_route_info* prev;
};

struct vesk_inet_ipv4_dns_info {
    char server[16];
    vesk_inet_ipv4_dns_info* next;
    vesk_inet_ipv4_dns_info* prev;
};

struct vesk_inet_ipv6_dns_info {
    char server[40];
    vesk_inet_ipv6_dns_info* next;
    vesk_inet_ipv6_dns_info* prev;
};

// Head of every list: entry count, first and last entry.
struct vesk_inet_ipv4_ip_info_list {
    uint32_t num;
    vesk_inet_ipv4_ip_info* first;
    vesk_inet_ipv4_ip_info* last;
};
struct vesk_inet_ipv6_ip_info_list {
    uint32_t num;
    vesk_inet_ipv6_ip_info* first;
    vesk_inet_ipv6_ip_info* last;
};
struct vesk_inet_ipv4_route_info_list {
    uint32_t num;
    vesk_inet_ipv4_route_info* first;
    vesk_inet_ipv4_route_info* last;
};
struct vesk_inet_ipv6_route_info_list {
    uint32_t num;
    vesk_inet_ipv6_route_info* first;
    vesk_inet_ipv6_route_info* last;
};
struct vesk_inet_ipv4_dns_info_list {
    uint32_t num;
    vesk_inet_ipv4_dns_info* first;
    vesk_inet_ipv4_dns_info* last;
};
struct vesk_inet_ipv6_dns_info_list {
    uint32_t num;
    vesk_inet_ipv6_dns_info* first;
    vesk_inet_ipv6_dns_info* last;
};

// The whole picture of one interface. Each list is NULL when empty; the reserved words are
// left zero.
struct vesk_if_config_struct {
    uint32_t reserved0[3];
    VESK_BOOL up;
    VESK_BOOL slave;
    uint32_t reserved1;
    vesk_inet_ipv4_ip_info_list* ipv4_ip;
    vesk_inet_ipv4_route_info_list* ipv4_route;
    vesk_inet_ipv4_dns_info_list* ipv4_dns;
    uint32_t reserved2;
    vesk_inet_ipv6_ip_info_list* ipv6_ip;
    vesk_inet_ipv6_route_info_list* ipv6_route;
    vesk_inet_ipv6_dns_info_list* ipv6_dns;
};

// In-memory records (they hold addresses): the sizes on the 32-bit target and a 64-bit host.
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(vesk_inet_ipv4_ip_info) == 56 && sizeof(vesk_inet_ipv6_ip_info) == 52
        && sizeof(vesk_inet_ipv4_route_info) == 28 && sizeof(vesk_inet_ipv6_route_info) == 52
        && sizeof(vesk_inet_ipv4_dns_info) == 24 && sizeof(vesk_inet_ipv6_dns_info) == 48
        && sizeof(vesk_inet_ipv4_ip_info_list) == 12 && sizeof(vesk_if_config_struct) == 52,
    "network records on the 32-bit target");
#else
static_assert(sizeof(vesk_inet_ipv4_ip_info) == 64 && sizeof(vesk_inet_ipv6_ip_info) == 64
        && sizeof(vesk_inet_ipv4_route_info) == 40 && sizeof(vesk_inet_ipv6_route_info) == 64
        && sizeof(vesk_inet_ipv4_dns_info) == 32 && sizeof(vesk_inet_ipv6_dns_info) == 56
        && sizeof(vesk_inet_ipv4_ip_info_list) == 24 && sizeof(vesk_if_config_struct) == 80,
    "network records on a 64-bit host");
#endif

// 1 when a line of /proc/net/dev (after its two header lines) contains if_name.
VESK_API VESK_BOOL vesk_utility_is_net_dev_exist(const char* if_name);
// IFF_UP and IFF_SLAVE of the interface (name cut to 15 characters).
VESK_API VESK_BOOL vesk_utility_is_net_dev_up(const char* if_name);
VESK_API VESK_BOOL vesk_utility_is_slave_net_dev(const char* if_name);
// Prefix length of an IPv6 netmask text: 16 per leading ffff group, then the leading one bits
// of the next group. "ffff:ffff:ffff:ffff::" gives 64, "ffff:ff00::" 24, "::" 0.
VESK_API unsigned vesk_utility_get_ipv6_prefixlen(const char* netmask);
// The 6-byte hardware address into mac (size >= 6). 0 on success, non-zero on failure.
VESK_API int vesk_utility_get_local_mac(const char* if_name, unsigned char* mac, unsigned size);

// Addresses of an interface that exists and is up (NULL otherwise, logged), aliases included.
VESK_API vesk_inet_ipv4_ip_info_list* vesk_utility_get_ipv4_ipconfig(const char* if_name);
VESK_API vesk_inet_ipv6_ip_info_list* vesk_utility_get_ipv6_ipconfig(const char* if_name);
// Routes with a gateway (IPv4: /proc/net/route, prefix match) and routes to a non-zero
// destination (IPv6: /proc/net/ipv6_route, exact device). A NULL if_name gives NULL.
VESK_API vesk_inet_ipv4_route_info_list* vesk_utility_get_ipv4_route_config(const char* if_name);
VESK_API vesk_inet_ipv6_route_info_list* vesk_utility_get_ipv6_route_config(const char* if_name);
// "nameserver " lines of the interface's resolver file, whose name ends in a line feed:
// "/reserve/resolv_<if>.conf\n" (IPv4) and "/etc/resolv_<if>.conf\n" (IPv6). NULL without the
// file or without servers; a NULL if_name gives NULL.
VESK_API vesk_inet_ipv4_dns_info_list* vesk_utility_get_ipv4_dns_config(const char* if_name);
VESK_API vesk_inet_ipv6_dns_info_list* vesk_utility_get_ipv6_dns_config(const char* if_name);
// All of the above for one interface; NULL when it does not exist or has no hardware address.
// An interface that is down still gives a record, with NULL address lists.
VESK_API vesk_if_config_struct* vesk_utility_get_if_config(const char* if_name);

// Free every entry, then the head (the record: its six lists, then itself).
VESK_API void vesk_utility_relase_ipv4_ipconfig(vesk_inet_ipv4_ip_info_list* list);
VESK_API void vesk_utility_relase_ipv6_ipconfig(vesk_inet_ipv6_ip_info_list* list);
VESK_API void vesk_utility_relase_ipv4_route_config(vesk_inet_ipv4_route_info_list* list);
VESK_API void vesk_utility_relase_ipv6_route_config(vesk_inet_ipv6_route_info_list* list);
VESK_API void vesk_utility_relase_ipv4_dns_config(vesk_inet_ipv4_dns_info_list* list);
VESK_API void vesk_utility_relase_ipv6_dns_config(vesk_inet_ipv6_dns_info_list* list);
VESK_API void vesk_utility_relase_if_config(vesk_if_config_struct* config);

} // namespace vesk_soft

#endif // VESK_UTILITY_NET_H
