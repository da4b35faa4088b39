// vesk_utility_net_config - what an interface looks like now: existence, flags, hardware
// address, addresses from getifaddrs, routes from /proc/net, DNS servers from the
// per-interface resolver files. Every list is built from the accounted heap and released by
// the caller through the matching relase function.
#include "net/vesk_utility_net_config.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_paths.h"
#include "core/vesk_utility_purposes.h"

using namespace vesk_soft;

namespace vesk_utility
{

namespace
{

constexpr const char* k_proc_net_dev = "/proc/net/dev";
constexpr const char* k_proc_net_route = "/proc/net/route";
constexpr const char* k_proc_net_ipv6_route = "/proc/net/ipv6_route";
// Released blocks name this source, as the firmware's leak reports always have.
constexpr const char* k_release_file = "vesk_utility_base";

constexpr int k_route_line_max = 1024;
constexpr int k_dns_line_max = 256;
constexpr int k_mac_size = 6;
constexpr const char* k_nameserver = "nameserver ";
constexpr const char* k_ipv6_zero_dst = "00000000000000000000000000000000";

// A NULL argument where one is never legitimate is the caller's bug, and a kernel interface
// that is missing means the box is broken: both end the process where they are found. The
// printed condition is "0", as the firmware's reports have always shown it.
#define VESK_NET_REQUIRE_TRUE(ok)                                                                                      \
    do {                                                                                                               \
        if (!(ok))                                                                                                     \
            VESK_ASSERT(0);                                                                                            \
    } while (0)
#define VESK_NET_REQUIRE(p) VESK_NET_REQUIRE_TRUE((p) != nullptr)

template <class T> T* net_alloc()
{
    void* p = vesk_malloc(VESK_USER_UTILITY, k_purpose_net_lists, sizeof(T), vesk_obj_align<T>());
    if (p != nullptr)
        memset(p, 0, sizeof(T));
    return static_cast<T*>(p);
}

// Appends a zeroed entry at the tail, creating the head with the first entry. NULL (and the
// list as it was) when an allocation fails. O(1).
template <class Entry, class List> Entry* append_entry(List*& list)
{
    Entry* e = net_alloc<Entry>();
    if (e == nullptr)
        return nullptr;
    if (list == nullptr) {
        list = net_alloc<List>();
        if (list == nullptr) {
            vesk_free(__FILE__, __func__, e);
            return nullptr;
        }
    }
    e->prev = list->last;
    if (list->last != nullptr)
        list->last->next = e;
    else
        list->first = e;
    list->last = e;
    list->num++;
    return e;
}

// Frees every entry from the first to the last, then the head. NULL is a no-op here; the
// exported releases refuse it before calling this.
template <class List> void release_list(List* list, const char* func)
{
    if (list == nullptr)
        return;
    auto* e = list->first;
    while (e != nullptr) {
        auto* next = e->next;
        vesk_free(k_release_file, func, e);
        e = next;
    }
    vesk_free(k_release_file, func, list);
}

inline bool has_prefix(const char* name, const char* prefix)
{
    return strncmp(name, prefix, strlen(prefix)) == 0;
}

// Copies at most size - 1 characters and terminates.
inline void copy_text(char* dst, size_t size, const char* src, size_t len)
{
    if (len > size - 1)
        len = size - 1;
    memcpy(dst, src, len);
    dst[len] = '\0';
}

short interface_flags(const char* if_name)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    VESK_NET_REQUIRE_TRUE(fd >= 0);
    ifreq req;
    memset(&req, 0, sizeof(req));
    copy_text(req.ifr_name, IFNAMSIZ, if_name, strlen(if_name));
    const int rc = ioctl(fd, SIOCGIFFLAGS, &req);
    close(fd);
    VESK_NET_REQUIRE_TRUE(rc == 0);
    return req.ifr_flags;
}

// getifaddrs for an interface that exists, is up and has a hardware address; NULL (logged)
// otherwise.
ifaddrs* interface_addresses(const char* if_name)
{
    if (!vesk_utility_is_net_dev_exist(if_name) || !vesk_utility_is_net_dev_up(if_name)) {
        VESK_ERR_FN("getifaddrs if_name = %s is note exist\n", if_name);
        return nullptr;
    }
    unsigned char mac[k_mac_size];
    if (vesk_utility_get_local_mac(if_name, mac, sizeof(mac)) != 0) {
        VESK_ERR_FN("%s get_local_mac fail \n", if_name);
        return nullptr;
    }
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) {
        VESK_ERR_FN("getifaddrs if_name = %s fail\n", if_name);
        return nullptr;
    }
    return all;
}

// Numeric text of a socket address, cut to the field (a scoped link-local address can be
// longer than 39 characters).
void numeric_host(const sockaddr* sa, char* out, size_t size)
{
    char host[NI_MAXHOST];
    const socklen_t len = sa->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (getnameinfo(sa, len, host, sizeof(host), nullptr, 0, NI_NUMERICHOST) != 0)
        host[0] = '\0';
    copy_text(out, size, host, strlen(host));
}

bool is_match(const ifaddrs* ifa, const char* if_name, int family, bool exact)
{
    return ifa->ifa_addr != nullptr && ifa->ifa_name != nullptr
        && (exact ? strcmp(ifa->ifa_name, if_name) == 0 : has_prefix(ifa->ifa_name, if_name))
        && ifa->ifa_addr->sa_family == family;
}

FILE* open_proc(const char* path)
{
    FILE* fp = fopen(path, "r");
    VESK_NET_REQUIRE(fp);
    return fp;
}

// Every address of `family` on if_name, one entry each in getifaddrs order, filled by
// fill(entry, ifa); NULL when there is none. An allocation failure ends the list early.
// exact: the name as getifaddrs gives it (an IPv4 alias by its label), up or down, without
// the checks and messages of the exported queries.
template <class List, class Entry, class Fill>
List* address_list(const char* if_name, int family, Fill fill, bool exact = false)
{
    ifaddrs* all = nullptr;
    if (!exact)
        all = interface_addresses(if_name);
    else if (getifaddrs(&all) != 0)
        all = nullptr;
    if (all == nullptr)
        return nullptr;
    List* list = nullptr;
    for (const ifaddrs* ifa = all; ifa != nullptr; ifa = ifa->ifa_next) {
        if (!is_match(ifa, if_name, family, exact))
            continue;
        Entry* e = append_entry<Entry>(list);
        if (e == nullptr)
            break;
        fill(*e, *ifa);
    }
    freeifaddrs(all);
    return list;
}

template <class List, class Entry> List* parse_dns(FILE* fp, char family_mark)
{
    List* list = nullptr;
    char line[k_dns_line_max];
    while (fgets(line, sizeof(line), fp) != nullptr) {
        const char* at = strstr(line, k_nameserver);
        const char* end = strchr(line, '\n');
        if (at == nullptr || end == nullptr || strchr(line, family_mark) == nullptr)
            continue;
        at += strlen(k_nameserver);
        if (end < at)
            continue; // the line feed is not behind the keyword
        Entry* e = append_entry<Entry>(list);
        if (e == nullptr)
            break;
        copy_text(e->server, sizeof(e->server), at, static_cast<size_t>(end - at));
    }
    return list;
}

} // namespace

bool net_dev_listed(FILE* fp, const char* if_name)
{
    char line[k_route_line_max];
    for (int skip = 0; skip < 2; ++skip) {
        if (fgets(line, sizeof(line), fp) == nullptr)
            return false;
    }
    while (fgets(line, sizeof(line), fp) != nullptr) {
        if (strstr(line, if_name) != nullptr)
            return true;
    }
    return false;
}

vesk_inet_ipv4_route_info_list* parse_ipv4_routes(FILE* fp, const char* if_name)
{
    vesk_inet_ipv4_route_info_list* list = nullptr;
    char line[k_route_line_max];
    if (fgets(line, sizeof(line), fp) == nullptr) // column titles
        return nullptr;
    while (fgets(line, sizeof(line), fp) != nullptr) {
        char iface[64];
        unsigned long dst = 0, gw = 0, mask = 0;
        unsigned flags = 0;
        int refcnt = 0, use = 0, metric = 0, mtu = 0, window = 0, irtt = 0;
        if (sscanf(line, "%63s%lx%lx%X%d%d%d%lx%d%d%d\n", iface, &dst, &gw, &flags, &refcnt, &use, &metric, &mask, &mtu,
                &window, &irtt)
            != 11)
            break;
        if (!has_prefix(iface, if_name) || gw == 0)
            continue;
        vesk_inet_ipv4_route_info* e = append_entry<vesk_inet_ipv4_route_info>(list);
        if (e == nullptr)
            break;
        e->metric = metric;
        // The table holds the address in network order read as a host word: lowest byte first.
        snprintf(e->gateway, sizeof(e->gateway), "%d.%d.%d.%d", static_cast<int>(gw & 0xFF),
            static_cast<int>((gw >> 8) & 0xFF), static_cast<int>((gw >> 16) & 0xFF),
            static_cast<int>((gw >> 24) & 0xFF));
    }
    return list;
}

vesk_inet_ipv6_route_info_list* parse_ipv6_routes(FILE* fp, const char* if_name)
{
    vesk_inet_ipv6_route_info_list* list = nullptr;
    char line[k_route_line_max];
    while (fgets(line, sizeof(line), fp) != nullptr) {
        char dst[33], next_hop[33];
        char device[k_route_line_max]; // as long as the line: %s cannot overrun it
        unsigned dst_len = 0, src_len = 0, metric = 0, refcnt = 0, use = 0, flags = 0;
        if (sscanf(line, "%32s%x%*s%x%32s%x%x%x%x%s\n", dst, &dst_len, &src_len, next_hop, &metric, &refcnt, &use,
                &flags, device)
            != 9)
            break;
        if (strcmp(device, if_name) != 0 || strcmp(dst, k_ipv6_zero_dst) == 0)
            continue;
        vesk_inet_ipv6_route_info* e = append_entry<vesk_inet_ipv6_route_info>(list);
        if (e == nullptr)
            break;
        e->metric = static_cast<int32_t>(metric);
        // 32 hex digits -> "xxxx:xxxx:...:xxxx" (39 characters); a short field gives fewer groups.
        const size_t digits = strlen(dst);
        size_t out = 0;
        for (size_t i = 0; i < digits && out < sizeof(e->destination) - 1; ++i) {
            if (i > 0 && i % 4 == 0)
                e->destination[out++] = ':';
            e->destination[out++] = dst[i];
        }
        e->destination[out] = '\0';
    }
    return list;
}

vesk_inet_ipv4_dns_info_list* parse_ipv4_dns(FILE* fp)
{
    return parse_dns<vesk_inet_ipv4_dns_info_list, vesk_inet_ipv4_dns_info>(fp, '.');
}

vesk_inet_ipv6_dns_info_list* parse_ipv6_dns(FILE* fp)
{
    return parse_dns<vesk_inet_ipv6_dns_info_list, vesk_inet_ipv6_dns_info>(fp, ':');
}

// parse(fp), then fp closed; NULL when the file could not be opened (fp NULL).
template <class Parse> auto read_list(FILE* fp, Parse parse) -> decltype(parse(fp))
{
    if (fp == nullptr)
        return nullptr;
    auto* list = parse(fp);
    fclose(fp);
    return list;
}

vesk_inet_ipv4_ip_info_list* ipv4_addresses(const char* if_name, bool exact)
{
    return address_list<vesk_inet_ipv4_ip_info_list, vesk_inet_ipv4_ip_info>(
        if_name, AF_INET,
        [](vesk_inet_ipv4_ip_info& e, const ifaddrs& ifa) {
            copy_text(e.if_name, sizeof(e.if_name), ifa.ifa_name, strlen(ifa.ifa_name));
            numeric_host(ifa.ifa_addr, e.ip, sizeof(e.ip));
            if (ifa.ifa_netmask != nullptr)
                numeric_host(ifa.ifa_netmask, e.netmask, sizeof(e.netmask));
        },
        exact);
}

vesk_inet_ipv6_ip_info_list* ipv6_addresses(const char* if_name, bool exact)
{
    return address_list<vesk_inet_ipv6_ip_info_list, vesk_inet_ipv6_ip_info>(
        if_name, AF_INET6,
        [](vesk_inet_ipv6_ip_info& e, const ifaddrs& ifa) {
            numeric_host(ifa.ifa_addr, e.ip, sizeof(e.ip));
            if (ifa.ifa_netmask != nullptr) {
                char mask[40];
                numeric_host(ifa.ifa_netmask, mask, sizeof(mask));
                e.prefix_len = vesk_utility_get_ipv6_prefixlen(mask);
            }
        },
        exact);
}

bool ipv4_default_route_listed(FILE* fp, const char* if_name, uint32_t gateway, int metric)
{
    char line[k_route_line_max];
    if (fgets(line, sizeof(line), fp) == nullptr) // column titles
        return false;
    while (fgets(line, sizeof(line), fp) != nullptr) {
        char iface[64];
        unsigned long dst = 0, gw = 0, mask = 0;
        unsigned flags = 0;
        int refcnt = 0, use = 0, m = 0, mtu = 0, window = 0, irtt = 0;
        if (sscanf(line, "%63s%lx%lx%X%d%d%d%lx%d%d%d\n", iface, &dst, &gw, &flags, &refcnt, &use, &m, &mask, &mtu,
                &window, &irtt)
            != 11)
            return false;
        if (strcmp(iface, if_name) == 0 && dst == 0 && mask == 0 && gw == gateway && m == metric)
            return true;
    }
    return false;
}

char* resolver_path(char* out, size_t size, const char* fmt, const char* if_name)
{
    // The firmware has always opened these names with a trailing line feed, and the files on
    // the boxes are named that way; a file without it is not read.
    char fixed[256];
    const int n = snprintf(fixed, sizeof(fixed) - 1, fmt, if_name);
    if (n >= 0 && static_cast<size_t>(n) < sizeof(fixed) - 1)
        strcat(fixed, "\n");
    return vesk_rooted_path(out, size, fixed);
}

} // namespace vesk_utility

namespace vesk_soft
{

using namespace vesk_utility;

VESK_BOOL vesk_utility_is_net_dev_exist(const char* if_name)
{
    VESK_NET_REQUIRE(if_name);
    FILE* fp = fopen(k_proc_net_dev, "r");
    if (fp == nullptr) {
        VESK_ERR_FN("open /proc/ned/dev fail\n");
        VESK_ASSERT(0);
    }
    const bool found = net_dev_listed(fp, if_name);
    fclose(fp);
    return found ? 1 : 0;
}

VESK_BOOL vesk_utility_is_net_dev_up(const char* if_name)
{
    VESK_NET_REQUIRE(if_name);
    return (interface_flags(if_name) & IFF_UP) ? 1 : 0;
}

VESK_BOOL vesk_utility_is_slave_net_dev(const char* if_name)
{
    VESK_NET_REQUIRE(if_name);
    return (interface_flags(if_name) & IFF_SLAVE) ? 1 : 0;
}

unsigned vesk_utility_get_ipv6_prefixlen(const char* netmask)
{
    VESK_NET_REQUIRE(netmask);
    unsigned group[8] = {0};
    sscanf(netmask, "%x:%x:%x:%x:%x:%x:%x:%x", &group[0], &group[1], &group[2], &group[3], &group[4], &group[5],
        &group[6], &group[7]);
    unsigned len = 0;
    for (unsigned g : group) {
        g &= 0xFFFF;
        if (g == 0xFFFF) {
            len += 16;
            continue;
        }
        for (unsigned bit = 0x8000; bit != 0 && (g & bit); bit >>= 1)
            len++;
        break;
    }
    return len;
}

int vesk_utility_get_local_mac(const char* if_name, unsigned char* mac, unsigned size)
{
    if (if_name == nullptr || mac == nullptr || size < k_mac_size)
        return -1;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return -1;
    ifreq req;
    memset(&req, 0, sizeof(req));
    copy_text(req.ifr_name, IFNAMSIZ, if_name, strlen(if_name));
    const int rc = ioctl(fd, SIOCGIFHWADDR, &req);
    close(fd);
    if (rc != 0)
        return -1;
    memcpy(mac, req.ifr_hwaddr.sa_data, k_mac_size);
    return 0;
}

vesk_inet_ipv4_ip_info_list* vesk_utility_get_ipv4_ipconfig(const char* if_name)
{
    VESK_NET_REQUIRE(if_name);
    return ipv4_addresses(if_name, false);
}

vesk_inet_ipv6_ip_info_list* vesk_utility_get_ipv6_ipconfig(const char* if_name)
{
    VESK_NET_REQUIRE(if_name);
    return ipv6_addresses(if_name, false);
}

vesk_inet_ipv4_route_info_list* vesk_utility_get_ipv4_route_config(const char* if_name)
{
    if (if_name == nullptr)
        return nullptr;
    return read_list(open_proc(k_proc_net_route), [if_name](FILE* fp) { return parse_ipv4_routes(fp, if_name); });
}

vesk_inet_ipv6_route_info_list* vesk_utility_get_ipv6_route_config(const char* if_name)
{
    if (if_name == nullptr)
        return nullptr;
    return read_list(open_proc(k_proc_net_ipv6_route), [if_name](FILE* fp) { return parse_ipv6_routes(fp, if_name); });
}

vesk_inet_ipv4_dns_info_list* vesk_utility_get_ipv4_dns_config(const char* if_name)
{
    if (if_name == nullptr)
        return nullptr;
    char path[512];
    return read_list(fopen(resolver_path(path, sizeof(path), k_path_resolv_reserve_fmt, if_name), "r"), parse_ipv4_dns);
}

vesk_inet_ipv6_dns_info_list* vesk_utility_get_ipv6_dns_config(const char* if_name)
{
    if (if_name == nullptr)
        return nullptr;
    char path[512];
    return read_list(fopen(resolver_path(path, sizeof(path), k_path_resolv_etc_fmt, if_name), "r"), parse_ipv6_dns);
}

vesk_if_config_struct* vesk_utility_get_if_config(const char* if_name)
{
    VESK_NET_REQUIRE(if_name);
    if (!vesk_utility_is_net_dev_exist(if_name)) {
        VESK_ERR_FN("getifaddrs if_name = %s is note exist\n", if_name);
        return nullptr;
    }
    unsigned char mac[k_mac_size];
    if (vesk_utility_get_local_mac(if_name, mac, sizeof(mac)) != 0) {
        VESK_ERR_FN("%s get_local_mac fail \n", if_name);
        return nullptr;
    }
    vesk_if_config_struct* config = net_alloc<vesk_if_config_struct>();
    if (config == nullptr)
        return nullptr;
    config->up = vesk_utility_is_net_dev_up(if_name);
    config->slave = vesk_utility_is_slave_net_dev(if_name);
    // For an interface that is down the address queries refuse (and log it); the record is
    // still returned with the other lists.
    config->ipv4_ip = vesk_utility_get_ipv4_ipconfig(if_name);
    config->ipv4_route = vesk_utility_get_ipv4_route_config(if_name);
    config->ipv4_dns = vesk_utility_get_ipv4_dns_config(if_name);
    config->ipv6_ip = vesk_utility_get_ipv6_ipconfig(if_name);
    config->ipv6_route = vesk_utility_get_ipv6_route_config(if_name);
    config->ipv6_dns = vesk_utility_get_ipv6_dns_config(if_name);
    return config;
}

void vesk_utility_relase_ipv4_ipconfig(vesk_inet_ipv4_ip_info_list* list)
{
    VESK_NET_REQUIRE(list);
    release_list(list, __func__);
}

void vesk_utility_relase_ipv6_ipconfig(vesk_inet_ipv6_ip_info_list* list)
{
    VESK_NET_REQUIRE(list);
    release_list(list, __func__);
}

void vesk_utility_relase_ipv4_route_config(vesk_inet_ipv4_route_info_list* list)
{
    VESK_NET_REQUIRE(list);
    release_list(list, __func__);
}

void vesk_utility_relase_ipv6_route_config(vesk_inet_ipv6_route_info_list* list)
{
    VESK_NET_REQUIRE(list);
    release_list(list, __func__);
}

void vesk_utility_relase_ipv4_dns_config(vesk_inet_ipv4_dns_info_list* list)
{
    VESK_NET_REQUIRE(list);
    release_list(list, __func__);
}

void vesk_utility_relase_ipv6_dns_config(vesk_inet_ipv6_dns_info_list* list)
{
    VESK_NET_REQUIRE(list);
    release_list(list, __func__);
}

void vesk_utility_relase_if_config(vesk_if_config_struct* config)
{
    VESK_NET_REQUIRE(config);
    release_list(config->ipv4_ip, __func__);
    release_list(config->ipv4_route, __func__);
    release_list(config->ipv4_dns, __func__);
    release_list(config->ipv6_ip, __func__);
    release_list(config->ipv6_route, __func__);
    release_list(config->ipv6_dns, __func__);
    vesk_free(k_release_file, __func__, config);
}

} // namespace vesk_soft
