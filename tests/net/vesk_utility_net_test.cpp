// Network configuration and its changes: parsers on fixtures, and as root in a network namespace
// of the test's own, queries and changes (run by a real proxy server) checked against `ip -j`.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_paths.h"
#include "net/vesk_utility_net_change.h"
#include "net/vesk_utility_net_config.h"
#include "net_test_support.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_utility;
using namespace vesk_net_test;
using vesk_test::read_file;

namespace
{

using file_ptr = std::unique_ptr<FILE, int (*)(FILE*)>;

// A FILE* over a fixture text that outlives the stream.
file_ptr text_file(const char* text)
{
    return file_ptr(fmemopen(const_cast<char*>(text), strlen(text), "r"), fclose);
}

const char* k_route_table = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
                            "eth1\t00000000\tFE33A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                            "eth10\t00000A0A\t00000000\t0001\t0\t0\t0\t0000FFFF\t0\t0\t0\n"
                            "eth1\t000010AC\t0133A8C0\t0003\t0\t0\t7\t0000FFFF\t0\t0\t0\n"
                            "eth10\t000011AC\t01000A0A\t0003\t0\t0\t0\t0000FFFF\t0\t0\t0\n"
                            "eth2\t000012AC\t01140A0A\t0003\t0\t0\t5\t0000FFFF\t0\t0\t0\n"
                            "eth1\t0033A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                            "eth1\tgarbage\n"
                            "eth1\t000013AC\t0233A8C0\t0003\t0\t0\t9\t0000FFFF\t0\t0\t0\n";

inline std::string text(const vesk_inet_ipv4_route_info* e)
{
    return std::to_string(e->metric) + " " + e->gateway;
}
inline std::string text(const vesk_inet_ipv6_route_info* e)
{
    return std::to_string(e->metric) + " " + e->destination;
}
inline std::string text(const vesk_inet_ipv4_ip_info* e)
{
    return std::string(e->if_name) + " " + e->ip + " " + e->netmask;
}
inline std::string text(const vesk_inet_ipv6_ip_info* e)
{
    return std::string(e->ip) + "/" + std::to_string(e->prefix_len);
}
template <class Dns> std::string text(const Dns* e)
{
    return e->server;
}

// The entries of a list, after checking its links both ways and its count.
template <class List> strings walk(const List* list)
{
    strings out;
    if (list == nullptr)
        return out;
    EXPECT_EQ(list->first->prev, nullptr);
    decltype(list->first) prev = nullptr;
    for (auto* e = list->first; e != nullptr; prev = e, e = e->next) {
        EXPECT_EQ(e->prev, prev);
        out.push_back(text(e));
    }
    EXPECT_EQ(prev, list->last);
    EXPECT_EQ(out.size(), list->num);
    return out;
}

// One list of ours as sorted texts, released again.
template <class List> strings ours(List* list, void (*release)(List*))
{
    const strings out = walk(list);
    if (list != nullptr)
        release(list);
    return sorted(out);
}
#define OURS(what, arg) ours(vesk_utility_get_##what(arg), vesk_utility_relase_##what)

strings s_commands;

// Commands go to s_commands, never to a shell, while this lives.
struct recording_runner {
    recording_runner()
    {
        s_commands.clear();
        net_change_set_runner([](const char* cmd) { return s_commands.push_back(cmd), 0; });
    }
    ~recording_runner() { net_change_set_runner(nullptr); }
};

} // namespace

TEST(NetConfigTest, DevListMatchesSubstringsBelowItsTwoHeaderLines)
{
    const char* dev
        = "Inter-|   Receive                                                |  Transmit\n"
          " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls\n"
          "    lo:       0       0    0    0    0     0          0         0        0       0    0    0\n"
          " eth10:      90       1    0    0    0     0          0         0      200       2    0    0\n";
    const std::pair<const char*, bool> rows[] = {{"eth1", true}, {"th10", true}, {"face", false}, {"eth2", false}};
    for (const auto& row : rows)
        EXPECT_EQ(net_dev_listed(text_file(dev).get(), row.first), row.second) << row.first;
    EXPECT_FALSE(net_dev_listed(text_file("one line\n").get(), "one"));
}

TEST(NetConfigTest, RouteTableGivesTheGatewaysOfPrefixMatchedDevices)
{
    // eth10's gateway route is kept for eth1 (prefix match), eth2's is not, connected networks
    // (gateway 0) never are, and nothing after a malformed line is read.
    const auto v4 = [](const char* dev) {
        return ours(parse_ipv4_routes(text_file(k_route_table).get(), dev), vesk_utility_relase_ipv4_route_config);
    };
    EXPECT_EQ(v4("eth1"), sorted({"100 192.168.51.254", "7 192.168.51.1", "0 10.10.0.1"}));
    EXPECT_EQ(v4("eth10"), strings {"0 10.10.0.1"});
    EXPECT_EQ(v4("eth3"), strings {});
    EXPECT_EQ(parse_ipv4_routes(text_file("").get(), "eth1"), nullptr);
}

TEST(NetConfigTest, ResolverFilesAreTheOnesWhoseNamesEndInALineFeed)
{
    const std::string root = vesk_test::private_root();
    std::ofstream(root + "/reserve/resolv_eth7.conf\n")
        << "# nameserver 9.9.9.9 is commented, but the keyword is all that counts\n"
           "nameserver 192.168.1.1\nsearch example.com\nnameserver 2001:db8::53\n"
           "nameserver 123.123.123.123.99\nnameserver 10.0.0.53"; // no line feed: not taken
    std::ofstream(root + "/etc/resolv_eth7.conf\n") << "nameserver 1.1.1.1\nnameserver 2001:4860:4860::8888\n"
                                                       "nameserver 2001:0db8:0000:0000:0000:ff00:0042:8329:ffff\n";
    // Without the line feed the file is someone else's: eth8 has only that one.
    std::ofstream(root + "/reserve/resolv_eth8.conf") << "nameserver 8.8.8.8\n";
    std::ofstream(root + "/reserve/resolv_eth9.conf\n") << "search nowhere\n";

    EXPECT_EQ(OURS(ipv4_dns_config, "eth7"), sorted({"9.9.9.9 is comm", "192.168.1.1", "123.123.123.123"}));
    EXPECT_EQ(OURS(ipv6_dns_config, "eth7"), sorted({"2001:4860:4860::8888", "2001:0db8:0000:0000:0000:ff00:0042:8329"}));
    EXPECT_EQ(vesk_utility_get_ipv4_dns_config("eth8"), nullptr);
    EXPECT_EQ(vesk_utility_get_ipv6_dns_config("eth8"), nullptr);
    EXPECT_EQ(vesk_utility_get_ipv4_dns_config("eth9"), nullptr);
    EXPECT_EQ(vesk_utility_get_ipv4_dns_config(nullptr), nullptr);
}

TEST(NetConfigTest, Ipv6PrefixLengthAndQueriesOfWhatIsNotThere)
{
    const std::pair<const char*, unsigned> rows[] = {{"ffff:ffff:ffff:ffff::", 64},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 128}, {"::", 0}, {"ffff:fffe::", 31}, {"ffff:ff7f:ffff::", 24}};
    for (const auto& row : rows)
        EXPECT_EQ(vesk_utility_get_ipv6_prefixlen(row.first), row.second) << row.first;
    unsigned char mac[6];
    EXPECT_NE(vesk_utility_get_local_mac("vesk_none0", mac, sizeof(mac)), 0);
    EXPECT_NE(vesk_utility_get_local_mac("lo", mac, 5), 0);
    EXPECT_NE(vesk_utility_get_local_mac("lo", nullptr, 6), 0);
    EXPECT_EQ(vesk_utility_get_if_config("vesk_none0"), nullptr);
}

TEST(NetConfigDeathTest, NullArgumentsAndFailingFlagQueriesAreFatal)
{
    const auto fatal_in = [](const char* fn) {
        return std::string("ASSERT!\n >File name: net/vesk_utility_net_config.cpp\n >Function: ") + fn
            + "\n.*>Condition: 0\n";
    };
#define VESK_EXPECT_FATAL_ON_NULL(fn) VESK_EXPECT_FATAL(fn(nullptr), fatal_in(#fn))
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_is_net_dev_exist);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_is_net_dev_up);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_is_slave_net_dev);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_get_ipv6_prefixlen);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_get_ipv4_ipconfig);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_get_ipv6_ipconfig);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_get_if_config);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_relase_ipv4_ipconfig);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_relase_ipv6_ipconfig);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_relase_ipv4_route_config);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_relase_ipv6_route_config);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_relase_ipv4_dns_config);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_relase_ipv6_dns_config);
    VESK_EXPECT_FATAL_ON_NULL(vesk_utility_relase_if_config);
#undef VESK_EXPECT_FATAL_ON_NULL
    // SIOCGIFFLAGS on a name that is no interface: the box is not what the caller thinks.
    VESK_EXPECT_FATAL(vesk_utility_is_net_dev_up("vesk_none0"), fatal_in("interface_flags"));
}

TEST(NetChangeTest, ArgumentsFailingTheirChecksBuildNoCommand)
{
    recording_runner rec;
    const unsigned char mcast_mac[6] = {0x01, 0, 0x5e, 0, 0, 1}, zero_mac[6] = {};
    const char* bad_dns[] = {"8.8.8.8", "8.8.8.8;reboot"};
    const char* v6_as_v4[] = {"2001:db8::1"};
    const struct {
        const char* what;
        VESK_ERR ret;
    } rows[] = {
        {"NULL name", vesk_utility_set_net_dev_up(nullptr, 1)},
        {"empty name", vesk_utility_set_net_dev_up("", 1)},
        {"16 characters", vesk_utility_set_net_dev_up("abcdefghijklmnop", 1)},
        {"leading dash", vesk_utility_set_net_dev_up("-lo", 1)},
        {"semicolon", vesk_utility_set_net_dev_up("lo;reboot", 1)},
        {"mtu 65536", vesk_utility_set_net_dev_mtu("lo", 65536)},
        {"multicast mac", vesk_utility_set_net_dev_mac("lo", mcast_mac, 6)},
        {"zero mac", vesk_utility_set_net_dev_mac("lo", zero_mac, 6)},
        {"short mac", vesk_utility_set_net_dev_mac("lo", mcast_mac + 1, 5)},
        {"ip with tail", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1 dev lo", "255.0.0.0")},
        {"ip 0.0.0.0", vesk_utility_set_ipv4_ipconfig("lo", "0.0.0.0", "255.0.0.0")},
        {"ip multicast", vesk_utility_set_ipv4_ipconfig("lo", "224.0.0.1", "255.0.0.0")},
        {"mask with a hole", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1", "255.0.255.0")},
        {"mask zero", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1", "0.0.0.0")},
        {"mask NULL", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1", nullptr)},
        {"alias without suffix", vesk_utility_add_ipv4_alias("lo:", "10.0.0.1", "255.0.0.0")},
        {"alias without colon", vesk_utility_add_ipv4_alias("lo", "10.0.0.1", "255.0.0.0")},
        {"alias quote", vesk_utility_del_ipv4_alias("lo:'x'")},
        {"ipv6 prefix 129", vesk_utility_add_ipv6_ipconfig("lo", "2001:db8::1", 129)},
        {"ipv6 multicast", vesk_utility_add_ipv6_ipconfig("lo", "ff02::1", 64)},
        {"ipv6 ::", vesk_utility_del_ipv6_ipconfig("lo", "::", 64)},
        {"ipv6 scoped", vesk_utility_add_ipv6_ipconfig("lo", "fe80::1%lo", 64)},
        {"gateway text", vesk_utility_add_ipv4_gateway("lo", "gw.example", 1)},
        {"metric above int", vesk_utility_add_ipv4_gateway("lo", "10.0.0.1", 0x80000000u)},
        {"dns with tail", vesk_utility_set_ipv4_dns_config("lo", bad_dns, 2)},
        {"dns wrong family", vesk_utility_set_ipv4_dns_config("lo", v6_as_v4, 1)},
        {"dns nine servers", vesk_utility_set_ipv4_dns_config("lo", bad_dns, 9)},
        {"dns NULL list", vesk_utility_set_ipv6_dns_config("lo", nullptr, 1)},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.ret, VESK_ERR_INVALID_PARAM) << row.what;
    // A well-formed name that is no interface: refused before any command too.
    EXPECT_EQ(vesk_utility_set_net_dev_mtu("vesk_none0", 1500), VESK_ERR_OPERATE_FAIL);
    EXPECT_TRUE(s_commands.empty()) << s_commands.front();
}

TEST(NetChangeTest, AChangeTheKernelDoesNotShowIsReported)
{
    // The recorder runs nothing: the readback finds lo unchanged (127.0.0.1 stays a /8).
    recording_runner rec;
    const unsigned char mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(vesk_utility_set_net_dev_mtu("lo", 1234), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_set_net_dev_mac("lo", mac, 6), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_add_ipv4_gateway("lo", "10.9.8.7", 5), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_add_ipv4_alias("lo:7", "10.9.8.6", "255.255.255.0"), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_set_ipv4_ipconfig("lo", "127.0.0.1", "255.255.0.0"), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(s_commands,
        (strings {"ip link set dev lo mtu 1234", "ip link set dev lo address 02:11:22:33:44:55",
            "ip route add default via 10.9.8.7 dev lo metric 5", "ip addr add 10.9.8.6/24 dev lo label lo:7",
            "ip addr del 127.0.0.1/8 dev lo", "ip addr add 127.0.0.1/16 dev lo"}));
    // Nothing to do: lo has no such gateway and no such alias, and the readback agrees.
    s_commands.clear();
    EXPECT_EQ(vesk_utility_del_ipv4_gateway("lo", "10.9.8.7", 5), VESK_OK);
    EXPECT_EQ(vesk_utility_del_ipv4_alias("lo:7"), VESK_OK);
    EXPECT_TRUE(s_commands.empty());
}

TEST(NetChangeTest, ResolverFilesAreReplacedWhole)
{
    const std::string root = vesk_test::private_root();
    const std::string v4_path = root + "/reserve/resolv_eth5.conf\n", v6_path = root + "/etc/resolv_eth5.conf\n";
    const char* v4[] = {"192.168.1.1", "010.0.0.53"}; // inet_pton refuses the leading zero
    EXPECT_EQ(vesk_utility_set_ipv4_dns_config("eth5", v4, 2), VESK_ERR_INVALID_PARAM);
    v4[1] = "10.0.0.53";
    ASSERT_EQ(vesk_utility_set_ipv4_dns_config("eth5", v4, 2), VESK_OK);
    EXPECT_EQ(read_file(v4_path), "nameserver 192.168.1.1\nnameserver 10.0.0.53\n");
    const char* v6[] = {"2001:0DB8:0000::0053", "fe80::1"};
    ASSERT_EQ(vesk_utility_set_ipv6_dns_config("eth5", v6, 2), VESK_OK);
    EXPECT_EQ(read_file(v6_path), "nameserver 2001:db8::53\nnameserver fe80::1\n");
    // A refused list leaves the file alone; an empty one empties it.
    const char* bad[] = {"2001:db8::1 rotate"};
    EXPECT_EQ(vesk_utility_set_ipv6_dns_config("eth5", bad, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(read_file(v6_path), "nameserver 2001:db8::53\nnameserver fe80::1\n");
    ASSERT_EQ(vesk_utility_set_ipv6_dns_config("eth5", nullptr, 0), VESK_OK);
    EXPECT_EQ(read_file(v6_path), "");
    EXPECT_NE(access((root + "/reserve/resolv_eth5.conf.tmp").c_str(), F_OK), 0); // no leftover
    // Without its directory the file cannot be written: reported, not faked.
    ASSERT_EQ(rename((root + "/etc").c_str(), (root + "/etc.away").c_str()), 0);
    EXPECT_EQ(vesk_utility_set_ipv6_dns_config("eth5", v6, 1), VESK_ERR_OPERATE_FAIL);
    ASSERT_EQ(rename((root + "/etc.away").c_str(), (root + "/etc").c_str()), 0);
}

#if defined(VESK_HAVE_CJSON)

namespace
{

// The route list's text of an IPv6 address: eight groups of four hex digits.
std::string expanded6(const std::string& text)
{
    in6_addr a {};
    inet_pton(AF_INET6, text == "default" ? "::" : text.substr(0, text.find('/')).c_str(), &a);
    char out[40];
    for (int i = 0; i < 8; i++)
        snprintf(out + 5 * i, 6, i < 7 ? "%02x%02x:" : "%02x%02x", a.s6_addr[2 * i], a.s6_addr[2 * i + 1]);
    return out;
}

// What `ip` says our lists should hold for `prefix`: IPv4 addresses by label (which carries the
// alias) with their netmask, IPv6 addresses by link name, gateway routes by prefix, IPv6 routes
// of the exact device from every table (as /proc/net/ipv6_route has them) but the default.
strings ip_says(const std::string& what, const std::string& prefix)
{
    const auto starts = [&](const std::string& s) { return s.compare(0, prefix.size(), prefix) == 0; };
    if (what == "route4")
        return ip_rows("ip", "route show table main", [&](const cJSON* r, strings& out) {
            if (starts(str_of(r, "dev")) && !str_of(r, "gateway").empty())
                out.push_back(std::to_string(int_of(r, "metric")) + " " + str_of(r, "gateway"));
        });
    if (what == "route6")
        return ip_rows("ip", "-6 route show table all", [&](const cJSON* r, strings& out) {
            const std::string dst = expanded6(str_of(r, "dst"));
            if (str_of(r, "dev") == prefix && dst != expanded6("::"))
                out.push_back(std::to_string(int_of(r, "metric")) + " " + dst);
        });
    return ip_rows("ip", "addr show", [&](const cJSON* link, strings& out) {
        const cJSON* a;
        cJSON_ArrayForEach(a, cJSON_GetObjectItemCaseSensitive(link, "addr_info"))
        {
            const int len = int_of(a, "prefixlen");
            const std::string label = str_of(a, "label", str_of(link, "ifname"));
            const uint32_t mask = len == 0 || len > 32 ? 0 : 0xFFFFFFFFu << (32 - len);
            char netmask[16];
            snprintf(netmask, sizeof(netmask), "%u.%u.%u.%u", mask >> 24, (mask >> 16) & 0xFF, (mask >> 8) & 0xFF,
                mask & 0xFF);
            if (str_of(a, "family") == "inet" && what == "inet" && starts(label))
                out.push_back(label + " " + str_of(a, "local") + " " + netmask);
            if (str_of(a, "family") == "inet6" && what == "inet6" && starts(str_of(link, "ifname")))
                out.push_back(str_of(a, "local") + "/" + std::to_string(len));
        }
    });
}

class NetKernelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0 || sh("ip -V") != 0)
            GTEST_SKIP() << "needs root and iproute2 to create a network namespace";
        if (unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "unshare(CLONE_NEWNET) failed: " << strerror(errno);
        // Each a veth end whose peer (a name no query matches) is up; no link-local addresses,
        // which would appear asynchronously between query and oracle.
        for (const char* cmd : {"ip link add eth1 type veth peer name vpa", "ip link add eth10 type veth peer name vpb",
                 "ip link add eth2 type veth peer name vpc", "ip link set lo up"})
            if (sh(cmd) != 0)
                GTEST_SKIP() << "veth interfaces cannot be created here";
        for (const char* cmd : {"ip link set eth1 addrgenmode none", "ip link set eth10 addrgenmode none",
                 "ip link set eth2 addrgenmode none", "ip link set vpa up", "ip link set vpb up", "ip link set vpc up",
                 "ip link set eth1 up", "ip link set eth10 up", "ip addr add 192.168.51.10/24 dev eth1",
                 "ip addr add 192.168.52.10/24 dev eth1 label eth1:1",
                 "ip addr add 10.10.0.5/16 dev eth10", "ip addr add 10.20.0.5/24 dev eth2",
                 "ip addr add 2001:db8:1::10/64 dev eth1 nodad", "ip addr add 2001:db8:10::10/64 dev eth10 nodad",
                 "ip route add 172.16.0.0/16 via 192.168.51.1 dev eth1 metric 7",
                 "ip route add default via 192.168.51.254 dev eth1 metric 100",
                 "ip route add 172.17.0.0/16 via 10.10.0.1 dev eth10",
                 "ip -6 route add 2001:db8:99::/48 via 2001:db8:1::1 dev eth1 metric 33",
                 "ip -6 route add default via 2001:db8:1::1 dev eth1",
                 "ip -6 route add 2001:db8:98::/48 via 2001:db8:10::1 dev eth10"})
            ASSERT_EQ(sh(cmd), 0) << cmd;
        // The local routes of the IPv6 addresses appear asynchronously.
        ASSERT_TRUE(vesk_test::wait_for([] {
            const std::string local = capture("ip -6 route show table local");
            return local.find("2001:db8:1::10 ") != local.npos && local.find("2001:db8:10::10 ") != local.npos;
        }));
    }
};

} // namespace

TEST_F(NetKernelTest, QueriesAgreeWithIpPrefixMatchedButIpv6Routes)
{
    const std::string root = vesk_test::private_root();
    std::ofstream(root + "/reserve/resolv_eth2.conf\n") << "nameserver 10.20.0.53\n";
    std::ofstream(root + "/etc/resolv_eth1.conf\n") << "nameserver 2001:db8:1::53\n";
    // eth1's record: its address lists also take eth10 and the alias, its IPv4 routes are the
    // gateways (no connected networks) eth10's included, its IPv6 routes the exact device's
    // but the default (destination zero).
    vesk_if_config_struct* up = vesk_utility_get_if_config("eth1");
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(up->up, 1);
    EXPECT_EQ(sorted(walk(up->ipv4_ip)), ip_says("inet", "eth1"));
    EXPECT_EQ(sorted(walk(up->ipv6_ip)), ip_says("inet6", "eth1"));
    EXPECT_EQ(sorted(walk(up->ipv4_route)), ip_says("route4", "eth1"));
    EXPECT_EQ(sorted(walk(up->ipv6_route)), ip_says("route6", "eth1"));
    EXPECT_EQ(walk(up->ipv6_dns), strings {"2001:db8:1::53"});
    EXPECT_EQ(up->ipv4_dns, nullptr);
    vesk_utility_relase_if_config(up);
    EXPECT_EQ(OURS(ipv4_ipconfig, "eth10"), ip_says("inet", "eth10"));
    EXPECT_EQ(OURS(ipv6_ipconfig, "eth10"), ip_says("inet6", "eth10"));
    EXPECT_EQ(OURS(ipv4_route_config, "eth10"), strings {"0 10.10.0.1"});
    EXPECT_EQ(OURS(ipv6_route_config, "eth10"), ip_says("route6", "eth10"));
    EXPECT_EQ(OURS(ipv6_route_config, "eth"), strings {});

    // A down interface still gives a record; only its address lists are missing.
    vesk_if_config_struct* down = nullptr;
    vesk_test::capture_stdout([&] {
        down = vesk_utility_get_if_config("eth2");
        EXPECT_EQ(vesk_utility_get_ipv4_ipconfig("eth3"), nullptr);
        EXPECT_EQ(vesk_utility_get_ipv6_ipconfig("eth3"), nullptr);
    });
    ASSERT_NE(down, nullptr);
    EXPECT_TRUE(down->up == 0 && down->slave == 0 && down->ipv6_dns == nullptr);
    EXPECT_TRUE(down->ipv4_ip == nullptr && down->ipv6_ip == nullptr && down->ipv4_route == nullptr);
    EXPECT_EQ(walk(down->ipv4_dns), strings {"10.20.0.53"});
    vesk_utility_relase_if_config(down);

    EXPECT_EQ(vesk_utility_is_net_dev_exist("th10"), 1); // a substring is enough
    EXPECT_EQ(vesk_utility_is_net_dev_exist("eth3"), 0);
    EXPECT_EQ(vesk_utility_is_net_dev_up("eth1"), 1);
    EXPECT_EQ(vesk_utility_is_net_dev_up("eth2"), 0);
    EXPECT_EQ(vesk_utility_is_slave_net_dev("eth1"), 0);
    unsigned char mac[6];
    ASSERT_EQ(vesk_utility_get_local_mac("eth1", mac, sizeof(mac)), 0);
    char text[18];
    snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    EXPECT_EQ(strings {text},
        ip_rows("ip", "link show eth1", [](const cJSON* link, strings& out) { out.push_back(str_of(link, "address")); }));
}

#if defined(VESK_PROXY_SERVER_BIN)

namespace
{

std::string s_log; // the proxy's standard output
vesk_test::proxy_server_process* s_proxy = nullptr;

// What `ip` shows of a link: "mtu N", "mac M", and "up" when it is.
strings link_of(const std::string& dev)
{
    return ip_rows("ip", "link show " + dev, [](const cJSON* l, strings& out) {
        out.insert(out.end(), {"mtu " + std::to_string(int_of(l, "mtu")), "mac " + str_of(l, "address")});
        const cJSON* f;
        cJSON_ArrayForEach(f, cJSON_GetObjectItemCaseSensitive(l, "flags"))
        {
            if (std::string(f->valuestring) == "UP")
                out.push_back("up");
        }
    });
}

// eth1's IPv4 and IPv6 addresses as `ip` shows them.
strings addrs()
{
    strings all = ip_says("inet", "eth1"), v6 = ip_says("inet6", "eth1");
    all.insert(all.end(), v6.begin(), v6.end());
    return sorted(all);
}

// Default routes as "<gateway> <dev> <metric>".
strings default_routes()
{
    return ip_rows("ip", "route show default", [](const cJSON* r, strings& out) {
        out.push_back(str_of(r, "gateway") + " " + str_of(r, "dev") + " " + std::to_string(int_of(r, "metric")));
    });
}

// Lines the proxy logged for commands run since `from` (its log's length then).
strings commands_since(size_t from)
{
    strings out;
    const std::string log = read_file(s_log).substr(from);
    for (size_t at = 0, end; (at = log.find(" exit ", at)) != std::string::npos; at = end) {
        end = log.find('\n', at);
        out.push_back(log.substr(at + 1, end - at - 1));
    }
    return out;
}

class NetChangeKernelTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // The namespace belongs to this (the main) thread, and to the proxy started from it.
        if (geteuid() != 0 || sh("ip -V") != 0 || unshare(CLONE_NEWNET) != 0
            || sh("ip link add eth1 type veth peer name vpa") != 0 || sh("ip link set vpa up") != 0
            || sh("ip link set lo up") != 0)
            return;
        s_log = vesk_test::private_root() + "/proxy.log";
        char sock[256];
        vesk_rooted_path(sock, sizeof(sock), k_path_cmd_socket_main);
        s_proxy = new vesk_test::proxy_server_process(sock, "> " + s_log + " 2>&1");
        // A connection left from an earlier proxy fails its first write (that command runs
        // here instead); from then on commands reach this one.
        for (int i = 0; i < 3 && commands_since(0).empty(); i++)
            vesk_utility_system("true");
    }
    static void TearDownTestSuite()
    {
        delete s_proxy;
        s_proxy = nullptr;
    }
    void SetUp() override
    {
        if (s_proxy == nullptr || !s_proxy->ready() || commands_since(0).empty())
            GTEST_SKIP() << "needs root, iproute2, veth and network namespaces";
        for (const char* cmd : {"ip link set eth1 down", "ip addr flush dev eth1", "ip link set eth1 addrgenmode none"})
            sh(cmd);
    }
};

} // namespace

TEST_F(NetChangeKernelTest, ChangesRunInTheProxyAndTheKernelShowsThem)
{
    const size_t log_from = read_file(s_log).size();
    const unsigned char mac[6] = {0x02, 0xab, 0xcd, 0x00, 0x11, 0x22};
    ASSERT_EQ(vesk_utility_set_net_dev_up("eth1", 1), VESK_OK);
    ASSERT_EQ(vesk_utility_set_net_dev_mtu("eth1", 1400), VESK_OK);
    ASSERT_EQ(vesk_utility_set_net_dev_mac("eth1", mac, 6), VESK_OK);
    EXPECT_EQ(link_of("eth1"), (strings {"mac 02:ab:cd:00:11:22", "mtu 1400", "up"}));

    // The own address is replaced; an alias in another subnet stays; an alias is replaced.
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.60.10", "255.255.255.0"), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv4_alias("eth1:1", "10.70.0.1", "255.255.0.0"), VESK_OK);
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.61.20", "255.255.252.0"), VESK_OK);
    EXPECT_EQ(addrs(), (strings {"eth1 192.168.61.20 255.255.252.0", "eth1:1 10.70.0.1 255.255.0.0"}));
    ASSERT_EQ(vesk_utility_add_ipv4_alias("eth1:1", "10.71.0.1", "255.255.255.0"), VESK_OK);
    EXPECT_EQ(addrs(), (strings {"eth1 192.168.61.20 255.255.252.0", "eth1:1 10.71.0.1 255.255.255.0"}));
    ASSERT_EQ(vesk_utility_del_ipv4_alias("eth1:1"), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv6_ipconfig("eth1", "2001:DB8:60::0010", 64), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv6_ipconfig("eth1", "2001:db8:61::10", 80), VESK_OK);
    EXPECT_EQ(addrs(), (strings {"2001:db8:60::10/64", "2001:db8:61::10/80", "eth1 192.168.61.20 255.255.252.0"}));
    ASSERT_EQ(vesk_utility_del_ipv6_ipconfig("eth1", "2001:db8:60::10", 64), VESK_OK);
    EXPECT_EQ(addrs(), (strings {"2001:db8:61::10/80", "eth1 192.168.61.20 255.255.252.0"}));

    ASSERT_EQ(vesk_utility_add_ipv4_gateway("eth1", "192.168.60.1", 30), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv4_gateway("eth1", "192.168.61.1", 20), VESK_OK);
    EXPECT_EQ(default_routes(), (strings {"192.168.60.1 eth1 30", "192.168.61.1 eth1 20"}));
    ASSERT_EQ(vesk_utility_del_ipv4_gateway("eth1", "192.168.61.1", 20), VESK_OK);
    EXPECT_EQ(default_routes(), (strings {"192.168.60.1 eth1 30"}));
    // A gateway the subnet cannot reach: `ip` fails, and the readback says so.
    EXPECT_EQ(vesk_utility_add_ipv4_gateway("eth1", "172.31.0.1", 1), VESK_ERR_OPERATE_FAIL);

    // A down interface still takes an address (it is read back without the up check).
    ASSERT_EQ(vesk_utility_set_net_dev_up("eth1", 0), VESK_OK);
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.62.30", "255.255.255.0"), VESK_OK);
    EXPECT_EQ(addrs(), strings {"eth1 192.168.62.30 255.255.255.0"}); // down, its IPv6 addresses gone

    // Every command went through the proxy (the namespace's); all but the unreachable gateway
    // succeeded there.
    const strings cmds = commands_since(log_from);
    ASSERT_FALSE(cmds.empty());
    strings failed;
    for (const std::string& c : cmds)
        if (c.compare(0, 7, "exit 0:") != 0)
            failed.push_back(c.substr(c.find(':') + 2));
    EXPECT_EQ(failed, strings {"ip route add default via 172.31.0.1 dev eth1 metric 1"});
}

#endif
#endif
