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

#include <sys/socket.h>

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


// ---- Changes -------------------------------------------------------------------------------
// Each change runs `ip` (the subset busybox also accepts) in the proxy server through the
// system-command client, so the calling process never forks, then reads the kernel's state
// back. Arguments are checked before any command is built: interface names are 1 to 15 of
// [A-Za-z0-9_.-] (not starting with '-'), addresses must parse with inet_pton and are passed
// on in canonical form; nothing a caller passes reaches the shell as syntax. Changes are
// serialised and block until done (at least one 100 ms answer period per command).
// Results: VESK_OK; VESK_ERR_NOT_INIT before vesk_utility_init; VESK_ERR_INVALID_PARAM when an
// argument fails its check (nothing was run); VESK_ERR_OPERATE_FAIL when the interface does
// not exist (nothing was run), a command could not be run, or the kernel does not show the
// change afterwards (the command's own exit status is never trusted).

// Interface up (1) or down (0); read back with vesk_utility_is_net_dev_up.
VESK_API VESK_ERR vesk_utility_set_net_dev_up(const char* if_name, VESK_BOOL up);
// MTU, 68 to 65535.
VESK_API VESK_ERR vesk_utility_set_net_dev_mtu(const char* if_name, unsigned mtu);
// Hardware address: size 6, unicast and not all zero; read back with vesk_utility_get_local_mac.
VESK_API VESK_ERR vesk_utility_set_net_dev_mac(const char* if_name, const unsigned char* mac, unsigned size);
// The interface's own IPv4 address (dotted ip, contiguous dotted netmask): the addresses
// under its own name are replaced by this one; aliases stay, except that the kernel drops the
// secondaries of a deleted primary's subnet (unless promote_secondaries is set).
VESK_API VESK_ERR vesk_utility_set_ipv4_ipconfig(const char* if_name, const char* ip, const char* netmask);
// An alias "<if>:<suffix>" (15 characters at most) with one address: an older address under
// the label is replaced. del removes every address under the label.
VESK_API VESK_ERR vesk_utility_add_ipv4_alias(const char* label, const char* ip, const char* netmask);
VESK_API VESK_ERR vesk_utility_del_ipv4_alias(const char* label);
// An IPv6 address (not :: nor multicast) with its prefix length, 1 to 128.
VESK_API VESK_ERR vesk_utility_add_ipv6_ipconfig(const char* if_name, const char* ip, unsigned prefix_len);
VESK_API VESK_ERR vesk_utility_del_ipv6_ipconfig(const char* if_name, const char* ip, unsigned prefix_len);
// A default route through gateway on if_name with metric (0 to 2^31 - 1).
VESK_API VESK_ERR vesk_utility_add_ipv4_gateway(const char* if_name, const char* gateway, unsigned metric);
VESK_API VESK_ERR vesk_utility_del_ipv4_gateway(const char* if_name, const char* gateway, unsigned metric);
// The interface's resolver file (the one the DNS queries read, its name ending in a line
// feed) becomes "nameserver <server>\n" per server, at most 8, written to a new file and
// renamed over the old one, so a reader never sees a part. count 0 leaves an empty file.
VESK_API VESK_ERR vesk_utility_set_ipv4_dns_config(const char* if_name, const char* const* servers, unsigned count);
VESK_API VESK_ERR vesk_utility_set_ipv6_dns_config(const char* if_name, const char* const* servers, unsigned count);

// ---- Toolnet: the UDP/TCP connection framework -------------------------------------------
// Contract
//   vesk_utiltiy_net_start() starts one event thread (registered with the thread registry,
//   epoll-driven, asleep while nothing arrives); further calls do nothing. Before it, every
//   other Toolnet call returns VESK_ERR_NOT_INIT.
//   A handle is kind << 16 | index: kind 1 a UDP socket, 2 a TCP listener, 3 a TCP
//   connection; 0 is never a handle. Fixed tables: 64 UDP sockets, 16 listeners, 128
//   connections (VESK_ERR_NO_RESOURCE beyond). A freed index is reused last, so a stale
//   handle rarely names a new socket; still, a handle must not be used after it is closed.
//   Callbacks run on the event thread, one at a time, with no Toolnet lock held: they may
//   send, open and close (their own handle too), but whatever they block on delays every
//   socket. `data` is valid only during the call (one shared 64 KiB receive buffer).
//   Every function may be called from any thread. Descriptors are on the handle registry's
//   socket list under the caller's id and name while open.
typedef uint32_t vesk_toolnet_handle;

constexpr uint32_t VESK_TOOLNET_UDP = 1;
constexpr uint32_t VESK_TOOLNET_TCP_LISTEN = 2;
constexpr uint32_t VESK_TOOLNET_TCP_CONN = 3;
constexpr unsigned VESK_TOOLNET_UDP_MAX = 64;
constexpr unsigned VESK_TOOLNET_LISTEN_MAX = 16;
constexpr unsigned VESK_TOOLNET_CONN_MAX = 128;

// Received bytes: a whole datagram (from: its sender) or the next piece of a stream (from:
// NULL; pieces do not keep the sender's write boundaries).
typedef void (*vesk_toolnet_recv_cb)(vesk_toolnet_handle handle, const void* data, unsigned len,
    const struct sockaddr* from, unsigned from_len, void* arg);
// A connection ended by its peer (err 0) or by an error (err = errno). The handle is freed
// when this returns; closing it in here is allowed and does nothing more.
typedef void (*vesk_toolnet_close_cb)(vesk_toolnet_handle handle, int err, void* arg);
// A listener accepted conn from peer. *conn_arg starts as the listener's arg and becomes the
// argument of the connection's callbacks. Returning 0 refuses (closes) the connection.
typedef VESK_BOOL (*vesk_toolnet_accept_cb)(vesk_toolnet_handle listener, vesk_toolnet_handle conn,
    const struct sockaddr* peer, unsigned peer_len, void* arg, void** conn_arg);

// Addresses are numeric texts (IPv4 or IPv6, inet_pton); NULL or "" is any IPv4 address.
struct vesk_toolnet_udp_param {
    vesk_user_id usr_id;
    const char* name; // registry name (31 characters kept, 15 in the console lists)
    const char* local_ip;
    unsigned short local_port; // 0: chosen by the kernel
    const char* multicast_group; // NULL: none; else joined (IPv4: on the interface of multicast_if)
    const char* multicast_if; // IPv4 address of the interface for the join and the sends; NULL: any
    vesk_toolnet_recv_cb on_recv; // may be NULL (send only)
    void* arg;
};

struct vesk_toolnet_listen_param {
    vesk_user_id usr_id;
    const char* name;
    const char* local_ip;
    unsigned short local_port;
    int backlog; // <= 0: 16
    vesk_toolnet_accept_cb on_accept; // may be NULL: every connection is taken
    vesk_toolnet_recv_cb on_recv; // for the accepted connections
    vesk_toolnet_close_cb on_close;
    void* arg;
};

struct vesk_toolnet_connect_param {
    vesk_user_id usr_id;
    const char* name;
    const char* remote_ip;
    unsigned short remote_port;
    unsigned timeout_ms; // 0: 5000
    vesk_toolnet_recv_cb on_recv;
    vesk_toolnet_close_cb on_close;
    void* arg;
};

// Starts Toolnet. VESK_ERR_NOT_INIT before vesk_utility_init; VESK_ERR_OPERATE_FAIL when the
// event thread or its descriptors cannot be made (a later call tries again).
VESK_API VESK_ERR vesk_utiltiy_net_start();
// A bound UDP socket. VESK_ERR_INVALID_PARAM: bad address texts; VESK_ERR_OPERATE_FAIL: bind
// or join refused; VESK_ERR_NO_RESOURCE: table full.
VESK_API VESK_ERR vesk_utility_toolnet_open_udp(const vesk_toolnet_udp_param* param, vesk_toolnet_handle* handle);
// One datagram to ip:port, or to a socket address. VESK_ERR_OPERATE_FAIL when the kernel
// refuses it or has no room within 1 s.
VESK_API VESK_ERR vesk_utility_toolnet_send_to(
    vesk_toolnet_handle handle, const void* data, unsigned len, const char* ip, unsigned short port);
VESK_API VESK_ERR vesk_utility_toolnet_send_to_addr(
    vesk_toolnet_handle handle, const void* data, unsigned len, const struct sockaddr* to, unsigned to_len);
// A listening TCP socket; accepted connections get handles of kind 3.
VESK_API VESK_ERR vesk_utility_toolnet_listen_tcp(const vesk_toolnet_listen_param* param, vesk_toolnet_handle* handle);
// Connects and waits at most timeout_ms (blocking the caller). VESK_ERR_OPERATE_FAIL when
// refused or timed out.
VESK_API VESK_ERR vesk_utility_toolnet_connect_tcp(const vesk_toolnet_connect_param* param, vesk_toolnet_handle* handle);
// All len bytes on a connection, in order, waiting for room at most timeout_ms in all (0:
// 5000). Concurrent senders on one connection take turns, whole buffers each. On failure
// *sent (may be NULL) tells how many bytes went; VESK_ERR_OPERATE_FAIL.
VESK_API VESK_ERR vesk_utility_toolnet_send(
    vesk_toolnet_handle handle, const void* data, unsigned len, unsigned timeout_ms, unsigned* sent);
// Closes any handle. From another thread it returns when no callback of the handle runs any
// more and its descriptor is closed; from the handle's own callback the rest happens when the
// callback returns. A connection its peer is ending is waited for (VESK_OK); once its close
// callback has returned the handle is gone. Closing a listener leaves its connections open.
// VESK_ERR_INVALID_PARAM for a handle that is not open.
VESK_API VESK_ERR vesk_utility_toolnet_close(vesk_toolnet_handle handle);
// The local port of a socket (for port 0 binds).
VESK_API VESK_ERR vesk_utility_toolnet_local_port(vesk_toolnet_handle handle, unsigned short* port);

} // namespace vesk_soft

#endif // VESK_UTILITY_NET_H
