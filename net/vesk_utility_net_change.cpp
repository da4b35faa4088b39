// vesk_utility_net_change - interface and route changes through `ip` commands run by the proxy
// server, each read back from the kernel; resolver files written by an atomic rename. The
// only text that reaches a command is what the checks rebuilt (canonical addresses, numbers,
// names of a plain character set), so nothing a caller passes can be shell syntax.
#include "net/vesk_utility_net_change.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_paths.h"
#include "core/vesk_utility_system.h"
#include "net/vesk_utility_net_config.h"

using namespace vesk_soft;

namespace vesk_utility
{

namespace
{

constexpr const char* k_proc_net_route = "/proc/net/route";

// One change at a time: a change reads the state, runs commands and reads back, and another
// change of the same interface in between would make either readback lie.
std::mutex s_change_lock;
std::atomic<int (*)(const char*)> s_runner{nullptr};

bool plain_name_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.'
        || c == '-';
}

// Runs one command through the proxy (or the test seam). The command is checked once more:
// a builder that let syntax through is a bug, refused here rather than run.
VESK_ERR run(const char* cmd)
{
    if (!net_cmd_plain(cmd)) {
        VESK_ERR_FN("refused command \"%s\"\n", cmd);
        return VESK_ERR_OPERATE_FAIL;
    }
    int (*runner)(const char*) = s_runner.load();
    if (runner != nullptr)
        return runner(cmd) == 0 ? VESK_OK : VESK_ERR_OPERATE_FAIL;
    vesk_utility_system_client* client = vesk_ground::instance()->find_system_client();
    if (client == nullptr || client->process_system(cmd) != 0) {
        VESK_ERR_FN("run \"%s\" fail\n", cmd);
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

template <class... Args> VESK_ERR run_fmt(const char* fmt, Args... args)
{
    char cmd[k_net_cmd_max];
    const int n = snprintf(cmd, sizeof(cmd), fmt, args...);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(cmd))
        return VESK_ERR_OPERATE_FAIL;
    return run(cmd);
}

// An interface that exists right now (exact name). Nothing is run for one that does not.
bool interface_exists(const char* if_name)
{
    if (if_nametoindex(if_name) != 0)
        return true;
    VESK_ERR_FN("%s: no such interface\n", if_name);
    return false;
}

VESK_ERR readback(bool ok, const char* what, const char* name)
{
    if (ok)
        return VESK_OK;
    VESK_ERR_FN("%s of %s: the kernel does not show the change\n", what, name);
    return VESK_ERR_OPERATE_FAIL;
}

int interface_mtu(const char* if_name)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    ifreq req;
    memset(&req, 0, sizeof(req));
    strncpy(req.ifr_name, if_name, IFNAMSIZ - 1);
    const int rc = ioctl(fd, SIOCGIFMTU, &req);
    close(fd);
    return rc == 0 ? req.ifr_mtu : -1;
}

// The IPv4 addresses whose getifaddrs name is exactly `label`, as "<ip>/<mask>" texts.
template <class Fn> void each_ipv4(const char* label, Fn fn)
{
    vesk_inet_ipv4_ip_info_list* list = ipv4_addresses(label, true);
    if (list == nullptr)
        return;
    for (const vesk_inet_ipv4_ip_info* e = list->first; e != nullptr; e = e->next)
        fn(*e);
    vesk_utility_relase_ipv4_ipconfig(list);
}

unsigned ipv4_count(const char* label)
{
    unsigned n = 0;
    each_ipv4(label, [&](const vesk_inet_ipv4_ip_info&) { n++; });
    return n;
}

bool ipv4_listed(const char* label, const char* ip, unsigned len)
{
    bool found = false;
    each_ipv4(label, [&](const vesk_inet_ipv4_ip_info& e) {
        unsigned l = 0;
        found |= strcmp(e.ip, ip) == 0 && net_ipv4_mask_len(e.netmask, &l) && l == len;
    });
    return found;
}

bool ipv6_listed(const char* if_name, const char* ip, unsigned len)
{
    vesk_inet_ipv6_ip_info_list* list = ipv6_addresses(if_name, true);
    if (list == nullptr)
        return false;
    bool found = false;
    for (const vesk_inet_ipv6_ip_info* e = list->first; e != nullptr; e = e->next) {
        char canonical[40];
        found |= net_ipv6_unicast(e->ip, canonical) && strcmp(canonical, ip) == 0 && e->prefix_len == len;
    }
    vesk_utility_relase_ipv6_ipconfig(list);
    return found;
}

bool default_route_listed(const char* if_name, const char* gateway, unsigned metric)
{
    in_addr gw {};
    inet_pton(AF_INET, gateway, &gw);
    FILE* fp = fopen(k_proc_net_route, "r");
    if (fp == nullptr)
        return false;
    const bool found = ipv4_default_route_listed(fp, if_name, gw.s_addr, static_cast<int>(metric));
    fclose(fp);
    return found;
}

// Writes all of text into a new file beside path and renames it over path, so that a reader
// sees the old file or the new one, never a part.
bool write_atomically(const char* path, const std::string& text)
{
    std::string tmp(path);
    if (!tmp.empty() && tmp.back() == '\n')
        tmp.pop_back();
    tmp += ".tmp";
    const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        VESK_ERR_FN("open %s fail, %s\n", tmp.c_str(), strerror(errno));
        return false;
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    const bool ok = done == text.size() && fsync(fd) == 0;
    close(fd);
    if (!ok || rename(tmp.c_str(), path) != 0) {
        VESK_ERR_FN("write %s fail, %s\n", tmp.c_str(), strerror(errno));
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

} // namespace

bool net_if_name_ok(const char* name)
{
    if (name == nullptr || name[0] == '\0' || name[0] == '-' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return false;
    size_t len = 0;
    for (; name[len] != '\0'; len++)
        if (len >= IFNAMSIZ - 1 || !plain_name_char(name[len]))
            return false;
    return true;
}

bool net_alias_label_ok(const char* label, char* if_name)
{
    if (label == nullptr)
        return false;
    const char* colon = strchr(label, ':');
    const size_t len = strnlen(label, IFNAMSIZ);
    if (colon == nullptr || len >= IFNAMSIZ || colon[1] == '\0')
        return false;
    for (const char* c = colon + 1; *c != '\0'; c++)
        if (!plain_name_char(*c))
            return false;
    char name[IFNAMSIZ];
    memcpy(name, label, static_cast<size_t>(colon - label));
    name[colon - label] = '\0';
    if (!net_if_name_ok(name))
        return false;
    memcpy(if_name, name, sizeof(name));
    return true;
}

bool net_ipv4_unicast(const char* text, char* out)
{
    in_addr a {};
    if (text == nullptr || inet_pton(AF_INET, text, &a) != 1)
        return false;
    const uint32_t host = ntohl(a.s_addr);
    if (host == 0 || host >= 0xE0000000u)
        return false;
    return inet_ntop(AF_INET, &a, out, INET_ADDRSTRLEN) != nullptr;
}

bool net_ipv4_mask_len(const char* mask, unsigned* len)
{
    in_addr a {};
    if (mask == nullptr || inet_pton(AF_INET, mask, &a) != 1)
        return false;
    const uint32_t m = ntohl(a.s_addr);
    // Contiguous: the inverted mask plus one is a power of two.
    if (m == 0 || ((~m + 1) & ~m) != 0)
        return false;
    *len = static_cast<unsigned>(__builtin_popcount(m));
    return true;
}

bool net_ipv6_unicast(const char* text, char* out)
{
    in6_addr a {};
    if (text == nullptr || inet_pton(AF_INET6, text, &a) != 1 || IN6_IS_ADDR_UNSPECIFIED(&a) || IN6_IS_ADDR_MULTICAST(&a))
        return false;
    char buf[INET6_ADDRSTRLEN];
    if (inet_ntop(AF_INET6, &a, buf, sizeof(buf)) == nullptr || strlen(buf) > 39)
        return false;
    memcpy(out, buf, strlen(buf) + 1);
    return true;
}

bool net_cmd_plain(const char* cmd)
{
    for (const char* c = cmd; *c != '\0'; c++)
        if (!plain_name_char(*c) && *c != ' ' && *c != ':' && *c != '/')
            return false;
    return true;
}

void net_change_set_runner(int (*runner)(const char* cmd))
{
    s_runner.store(runner);
}

VESK_ERR net_set_up(const char* if_name, bool up)
{
    if (!net_if_name_ok(if_name))
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = run_fmt("ip link set dev %s %s", if_name, up ? "up" : "down");
    if (ret == VESK_OK)
        ret = readback((vesk_utility_is_net_dev_up(if_name) != 0) == up, "up flag", if_name);
    return ret;
}

VESK_ERR net_set_mtu(const char* if_name, unsigned mtu)
{
    if (!net_if_name_ok(if_name) || mtu < k_net_mtu_min || mtu > k_net_mtu_max)
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = run_fmt("ip link set dev %s mtu %u", if_name, mtu);
    if (ret == VESK_OK)
        ret = readback(interface_mtu(if_name) == static_cast<int>(mtu), "mtu", if_name);
    return ret;
}

VESK_ERR net_set_mac(const char* if_name, const unsigned char* mac, unsigned size)
{
    // A unicast address that is not all zero: the kernel refuses the others for Ethernet.
    if (!net_if_name_ok(if_name) || mac == nullptr || size != 6 || (mac[0] & 1) != 0
        || (mac[0] | mac[1] | mac[2] | mac[3] | mac[4] | mac[5]) == 0)
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = run_fmt("ip link set dev %s address %02x:%02x:%02x:%02x:%02x:%02x", if_name, mac[0], mac[1],
        mac[2], mac[3], mac[4], mac[5]);
    if (ret == VESK_OK) {
        unsigned char now[6];
        ret = readback(vesk_utility_get_local_mac(if_name, now, sizeof(now)) == 0 && memcmp(now, mac, 6) == 0, "mac",
            if_name);
    }
    return ret;
}

VESK_ERR net_set_ipv4(const char* if_name, const char* ip, const char* netmask)
{
    char addr[INET_ADDRSTRLEN];
    unsigned len = 0;
    if (!net_if_name_ok(if_name) || !net_ipv4_unicast(ip, addr) || !net_ipv4_mask_len(netmask, &len))
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    // The interface's own addresses (not its aliases) give way to the new one. Deleted
    // first: a primary deleted after the new one was added to its subnet would take the new
    // one (a secondary) with it.
    VESK_ERR ret = VESK_OK;
    bool present = false;
    each_ipv4(if_name, [&](const vesk_inet_ipv4_ip_info& e) {
        unsigned l = 0;
        if (!net_ipv4_mask_len(e.netmask, &l))
            l = 32;
        char old[INET_ADDRSTRLEN];
        if (strcmp(e.ip, addr) == 0 && l == len)
            present = true;
        else if (ret == VESK_OK && net_ipv4_unicast(e.ip, old))
            ret = run_fmt("ip addr del %s/%u dev %s", old, l, if_name);
    });
    if (ret == VESK_OK && !present)
        ret = run_fmt("ip addr add %s/%u dev %s", addr, len, if_name);
    if (ret == VESK_OK)
        ret = readback(ipv4_listed(if_name, addr, len) && ipv4_count(if_name) == 1, "ipv4 address", if_name);
    return ret;
}

VESK_ERR net_add_ipv4_alias(const char* label, const char* ip, const char* netmask)
{
    char if_name[IFNAMSIZ];
    char addr[INET_ADDRSTRLEN];
    unsigned len = 0;
    if (!net_alias_label_ok(label, if_name) || !net_ipv4_unicast(ip, addr) || !net_ipv4_mask_len(netmask, &len))
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    // A label names one address: an older one under it goes first.
    VESK_ERR ret = VESK_OK;
    bool present = false;
    each_ipv4(label, [&](const vesk_inet_ipv4_ip_info& e) {
        unsigned l = 0;
        char old[INET_ADDRSTRLEN];
        if (!net_ipv4_mask_len(e.netmask, &l))
            l = 32;
        if (strcmp(e.ip, addr) == 0 && l == len)
            present = true;
        else if (ret == VESK_OK && net_ipv4_unicast(e.ip, old))
            ret = run_fmt("ip addr del %s/%u dev %s label %s", old, l, if_name, label);
    });
    if (ret == VESK_OK && !present)
        ret = run_fmt("ip addr add %s/%u dev %s label %s", addr, len, if_name, label);
    if (ret == VESK_OK)
        ret = readback(ipv4_listed(label, addr, len) && ipv4_count(label) == 1, "ipv4 alias", label);
    return ret;
}

VESK_ERR net_del_ipv4_alias(const char* label)
{
    char if_name[IFNAMSIZ];
    if (!net_alias_label_ok(label, if_name))
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = VESK_OK;
    each_ipv4(label, [&](const vesk_inet_ipv4_ip_info& e) {
        unsigned l = 0;
        char old[INET_ADDRSTRLEN];
        if (!net_ipv4_mask_len(e.netmask, &l))
            l = 32;
        if (ret == VESK_OK && net_ipv4_unicast(e.ip, old))
            ret = run_fmt("ip addr del %s/%u dev %s label %s", old, l, if_name, label);
    });
    if (ret == VESK_OK)
        ret = readback(ipv4_count(label) == 0, "ipv4 alias removal", label);
    return ret;
}

VESK_ERR net_change_ipv6(const char* if_name, const char* ip, unsigned prefix_len, bool add)
{
    char addr[40];
    if (!net_if_name_ok(if_name) || !net_ipv6_unicast(ip, addr) || prefix_len == 0 || prefix_len > 128)
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = VESK_OK;
    if (ipv6_listed(if_name, addr, prefix_len) != add)
        ret = run_fmt("ip addr %s %s/%u dev %s", add ? "add" : "del", addr, prefix_len, if_name);
    if (ret == VESK_OK)
        ret = readback(ipv6_listed(if_name, addr, prefix_len) == add, "ipv6 address", if_name);
    return ret;
}

VESK_ERR net_change_gateway(const char* if_name, const char* gateway, unsigned metric, bool add)
{
    char gw[INET_ADDRSTRLEN];
    if (!net_if_name_ok(if_name) || !net_ipv4_unicast(gateway, gw) || metric > static_cast<unsigned>(INT_MAX))
        return VESK_ERR_INVALID_PARAM;
    std::lock_guard<std::mutex> guard(s_change_lock);
    if (!interface_exists(if_name))
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = VESK_OK;
    if (default_route_listed(if_name, gw, metric) != add)
        ret = run_fmt("ip route %s default via %s dev %s metric %u", add ? "add" : "del", gw, if_name, metric);
    if (ret == VESK_OK)
        ret = readback(default_route_listed(if_name, gw, metric) == add, "default gateway", if_name);
    return ret;
}

VESK_ERR net_set_dns(const char* if_name, const char* const* servers, unsigned count, bool ipv6)
{
    if (!net_if_name_ok(if_name) || count > k_net_dns_max || (count > 0 && servers == nullptr))
        return VESK_ERR_INVALID_PARAM;
    std::string text;
    std::string expect[k_net_dns_max];
    for (unsigned i = 0; i < count; i++) {
        char addr[40];
        if (!(ipv6 ? net_ipv6_unicast(servers[i], addr) : net_ipv4_unicast(servers[i], addr)))
            return VESK_ERR_INVALID_PARAM;
        expect[i] = addr;
        text += std::string("nameserver ") + addr + "\n";
    }
    std::lock_guard<std::mutex> guard(s_change_lock);
    char path[512];
    resolver_path(path, sizeof(path), ipv6 ? k_path_resolv_etc_fmt : k_path_resolv_reserve_fmt, if_name);
    if (!write_atomically(path, text))
        return VESK_ERR_OPERATE_FAIL;
    // Read back through the queries: the same servers in the same order.
    unsigned seen = 0;
    bool same = true;
    const auto compare = [&](auto* list) {
        for (auto* e = list == nullptr ? nullptr : list->first; e != nullptr; e = e->next, seen++)
            same &= seen < count && expect[seen] == e->server;
    };
    if (ipv6) {
        vesk_inet_ipv6_dns_info_list* list = vesk_utility_get_ipv6_dns_config(if_name);
        compare(list);
        if (list != nullptr)
            vesk_utility_relase_ipv6_dns_config(list);
    } else {
        vesk_inet_ipv4_dns_info_list* list = vesk_utility_get_ipv4_dns_config(if_name);
        compare(list);
        if (list != nullptr)
            vesk_utility_relase_ipv4_dns_config(list);
    }
    return readback(same && seen == count, "dns servers", if_name);
}

} // namespace vesk_utility
