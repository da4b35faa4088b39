// Network configuration: the parsers fed with fixtures of the kernel's tables and resolver
// files, the prefix-length rule, the fatal NULL arguments, and the queries against the kernel in
// a network namespace of the test's own (eth1, eth10 up, eth2 down, with addresses, an alias and
// routes), compared with what `ip -j` reports there. Those need root, iproute2 and cJSON.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "net/vesk_utility_net_config.h"
#include "core/vesk_utility_paths.h"
#include "api/vesk_utility_resource.h"

#if defined(VESK_HAVE_CJSON)
#include <cjson/cJSON.h>
#endif

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

using strings = std::vector<std::string>;
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

const char* k_ipv6_route_table
    = "20010db8000100000000000000000000 40 00000000000000000000000000000000 00 00000000000000000000000000000000 "
      "00000100 00000002 00000000 00000001     eth1\n"
      "20010db8009800000000000000000000 30 00000000000000000000000000000000 00 20010db8001000000000000000000001 "
      "00000400 00000001 00000000 00000003    eth10\n"
      "20010db8009900000000000000000000 30 00000000000000000000000000000000 00 20010db8000100000000000000000001 "
      "00000021 00000001 00000000 00000003     eth1\n"
      "00000000000000000000000000000000 00 00000000000000000000000000000000 00 20010db8000100000000000000000001 "
      "00000400 00000001 00000000 00000003     eth1\n"
      "ff000000000000000000000000000000 08 00000000000000000000000000000000 00 00000000000000000000000000000000 "
      "00000100 00000001 00000000 00000001     eth1\n"
      "short line\n"
      "fe800000000000000000000000000000 40 00000000000000000000000000000000 00 00000000000000000000000000000000 "
      "00000100 00000001 00000000 00000001     eth1\n";

std::string text(const vesk_inet_ipv4_route_info* e)
{
    return std::to_string(e->metric) + " " + e->gateway;
}
std::string text(const vesk_inet_ipv6_route_info* e)
{
    return std::to_string(e->metric) + " " + e->destination;
}
#if defined(VESK_HAVE_CJSON) // the address lists are compared with `ip` only
std::string text(const vesk_inet_ipv4_ip_info* e)
{
    return std::string(e->if_name) + " " + e->ip + " " + e->netmask;
}
std::string text(const vesk_inet_ipv6_ip_info* e)
{
    return std::string(e->ip) + "/" + std::to_string(e->prefix_len);
}
#endif
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

uint32_t accounted_total()
{
    return vesk_ground::instance()->mem_account().total_size();
}

} // namespace

TEST(NetConfigTest, DevListMatchesSubstringsBelowItsTwoHeaderLines)
{
    const char* dev
        = "Inter-|   Receive                                                |  Transmit\n"
          " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls\n"
          "    lo:       0       0    0    0    0     0          0         0        0       0    0    0\n"
          " eth10:      90       1    0    0    0     0          0         0      200       2    0    0\n";
    EXPECT_TRUE(net_dev_listed(text_file(dev).get(), "eth1")); // inside "eth10"
    EXPECT_TRUE(net_dev_listed(text_file(dev).get(), "th10")); // any substring
    EXPECT_FALSE(net_dev_listed(text_file(dev).get(), "face")); // only in a header line
    EXPECT_FALSE(net_dev_listed(text_file(dev).get(), "eth2"));
    EXPECT_FALSE(net_dev_listed(text_file("one line\n").get(), "one"));
}

TEST(NetConfigTest, RouteTablesTakeGatewaysOfPrefixMatchedIpv4AndExactIpv6Devices)
{
    // IPv4: eth10's gateway route is kept for eth1 (prefix match), eth2's is not, connected
    // networks (gateway 0) never are, and the line after the malformed one is not read.
    const uint32_t before = accounted_total();
    vesk_inet_ipv4_route_info_list* v4 = parse_ipv4_routes(text_file(k_route_table).get(), "eth1");
    ASSERT_NE(v4, nullptr);
    EXPECT_EQ(walk(v4), (strings {"100 192.168.51.254", "7 192.168.51.1", "0 10.10.0.1"}));
    vesk_utility_relase_ipv4_route_config(v4);
    EXPECT_EQ(accounted_total(), before);
    v4 = parse_ipv4_routes(text_file(k_route_table).get(), "eth10");
    EXPECT_EQ(walk(v4), (strings {"0 10.10.0.1"}));
    vesk_utility_relase_ipv4_route_config(v4);
    EXPECT_EQ(parse_ipv4_routes(text_file(k_route_table).get(), "eth3"), nullptr);
    EXPECT_EQ(parse_ipv4_routes(text_file("").get(), "eth1"), nullptr);

    // IPv6: the exact device, non-zero destinations, until a malformed line.
    vesk_inet_ipv6_route_info_list* v6 = parse_ipv6_routes(text_file(k_ipv6_route_table).get(), "eth1");
    ASSERT_NE(v6, nullptr);
    EXPECT_EQ(walk(v6),
        (strings {"256 2001:0db8:0001:0000:0000:0000:0000:0000", "33 2001:0db8:0099:0000:0000:0000:0000:0000",
            "256 ff00:0000:0000:0000:0000:0000:0000:0000"}));
    vesk_utility_relase_ipv6_route_config(v6);
    v6 = parse_ipv6_routes(text_file(k_ipv6_route_table).get(), "eth10");
    EXPECT_EQ(walk(v6), (strings {"1024 2001:0db8:0098:0000:0000:0000:0000:0000"}));
    vesk_utility_relase_ipv6_route_config(v6);
    EXPECT_EQ(parse_ipv6_routes(text_file(k_ipv6_route_table).get(), "eth"), nullptr);
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

    const uint32_t before = accounted_total();
    vesk_inet_ipv4_dns_info_list* v4 = vesk_utility_get_ipv4_dns_config("eth7");
    vesk_inet_ipv6_dns_info_list* v6 = vesk_utility_get_ipv6_dns_config("eth7");
    ASSERT_TRUE(v4 != nullptr && v6 != nullptr);
    EXPECT_EQ(walk(v4), (strings {"9.9.9.9 is comm", "192.168.1.1", "123.123.123.123"}));
    EXPECT_EQ(walk(v6), (strings {"2001:4860:4860::8888", "2001:0db8:0000:0000:0000:ff00:0042:8329"}));
    vesk_utility_relase_ipv4_dns_config(v4);
    vesk_utility_relase_ipv6_dns_config(v6);
    EXPECT_EQ(accounted_total(), before);

    EXPECT_EQ(vesk_utility_get_ipv4_dns_config("eth8"), nullptr);
    EXPECT_EQ(vesk_utility_get_ipv6_dns_config("eth8"), nullptr);
    EXPECT_EQ(vesk_utility_get_ipv4_dns_config("eth9"), nullptr);
    EXPECT_EQ(vesk_utility_get_ipv4_dns_config(nullptr), nullptr);
    char path[512];
    EXPECT_EQ(std::string(resolver_path(path, sizeof(path), k_path_resolv_etc_fmt, "bond0")),
        root + "/etc/resolv_bond0.conf\n");
}

TEST(NetConfigTest, Ipv6PrefixLengthCountsLeadingOnesUpToTheFirstZero)
{
    const std::pair<const char*, unsigned> rows[]
        = {{"ffff:ffff:ffff:ffff::", 64}, {"ffff:ff00::", 24}, {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 128},
            {"::", 0}, {"ffff:fffe::", 31}, {"ffff:ff7f:ffff::", 24}, {"8000::", 1}};
    for (const auto& row : rows)
        EXPECT_EQ(vesk_utility_get_ipv6_prefixlen(row.first), row.second) << row.first;
}

TEST(NetConfigTest, MacOfAMissingInterfaceOrAShortBufferFails)
{
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

#if defined(VESK_HAVE_CJSON)

namespace
{

int sh(const std::string& cmd)
{
    return system((cmd + " >/dev/null 2>&1").c_str());
}

strings sorted(strings v)
{
    std::sort(v.begin(), v.end());
    return v;
}

bool starts_with(const std::string& s, const std::string& prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

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

// One of our lists for an interface name, as sorted texts.
template <class List> strings ours(List* (*get)(const char*), void (*release)(List*), const char* name)
{
    List* list = get(name);
    const strings out = walk(list);
    if (list != nullptr)
        release(list);
    return sorted(out);
}
#define OURS(what, name) ours(vesk_utility_get_##what, vesk_utility_relase_##what, name)

std::string str_of(const cJSON* obj, const char* key, const std::string& fallback = "")
{
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsString(v) ? v->valuestring : fallback;
}

int int_of(const cJSON* obj, const char* key)
{
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsNumber(v) ? v->valueint : 0;
}

// The texts that `row` makes of the array elements of `ip -j <args>`, sorted.
template <class Fn> strings ip_rows(const std::string& args, Fn row)
{
    std::string json;
    FILE* p = popen(("ip -j " + args).c_str(), "r");
    for (int c; p != nullptr && (c = fgetc(p)) != EOF;)
        json += static_cast<char>(c);
    if (p != nullptr)
        pclose(p);
    cJSON* root = cJSON_Parse(json.c_str());
    strings out;
    const cJSON* item;
    cJSON_ArrayForEach(item, root) row(item, out);
    cJSON_Delete(root);
    return sorted(out);
}

// IPv4 addresses as getifaddrs names them (the label, which carries the alias), for every
// label that begins with `prefix`; IPv6 addresses of every link whose name does.
strings ip_addresses(const std::string& family, const std::string& prefix)
{
    return ip_rows("addr show", [&](const cJSON* link, strings& out) {
        const std::string ifname = str_of(link, "ifname");
        const cJSON* addr;
        cJSON_ArrayForEach(addr, cJSON_GetObjectItemCaseSensitive(link, "addr_info"))
        {
            const int len = int_of(addr, "prefixlen");
            const std::string label = str_of(addr, "label", ifname), local = str_of(addr, "local");
            const uint32_t mask = len == 0 || len > 32 ? 0 : 0xFFFFFFFFu << (32 - len);
            char netmask[16];
            snprintf(netmask, sizeof(netmask), "%u.%u.%u.%u", mask >> 24, (mask >> 16) & 0xFF, (mask >> 8) & 0xFF,
                mask & 0xFF);
            if (str_of(addr, "family") == "inet" && family == "inet" && starts_with(label, prefix))
                out.push_back(label + " " + local + " " + netmask);
            if (str_of(addr, "family") == "inet6" && family == "inet6" && starts_with(ifname, prefix))
                out.push_back(local + "/" + std::to_string(len));
        }
    });
}

strings ip_routes4(const std::string& prefix)
{
    return ip_rows("route show table main", [&](const cJSON* r, strings& out) {
        if (starts_with(str_of(r, "dev"), prefix) && !str_of(r, "gateway").empty())
            out.push_back(std::to_string(int_of(r, "metric")) + " " + str_of(r, "gateway"));
    });
}

// /proc/net/ipv6_route lists every table, the local one included.
strings ip_routes6(const std::string& device)
{
    return ip_rows("-6 route show table all", [&](const cJSON* r, strings& out) {
        const std::string dst = expanded6(str_of(r, "dst"));
        if (str_of(r, "dev") == device && dst != expanded6("::"))
            out.push_back(std::to_string(int_of(r, "metric")) + " " + dst);
    });
}

// Adds an interface for the test: a dummy when the kernel has the driver, else one end of a
// veth pair whose other end (`peer`, a name no query here matches) is up.
bool add_link(const std::string& name, const std::string& peer)
{
    if (sh("ip link add " + name + " type dummy") != 0
        && (sh("ip link add " + name + " type veth peer name " + peer) != 0
            || sh("ip link set " + peer + " addrgenmode none") != 0 || sh("ip link set " + peer + " up") != 0))
        return false;
    // No link-local addresses: they would appear asynchronously, between query and oracle.
    return sh("ip link set " + name + " addrgenmode none") == 0;
}

class NetKernelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root to create a network namespace";
        if (sh("ip -V") != 0)
            GTEST_SKIP() << "iproute2 (ip) is not installed";
        if (unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "unshare(CLONE_NEWNET) failed: " << strerror(errno);
        if (!add_link("eth1", "vpa") || !add_link("eth10", "vpb") || !add_link("eth2", "vpc"))
            GTEST_SKIP() << "neither dummy nor veth interfaces can be created here";
        for (const char* cmd : {"ip link set lo up", "ip link set eth1 up", "ip link set eth10 up",
                 "ip addr add 192.168.51.10/24 dev eth1", "ip addr add 192.168.52.10/24 dev eth1 label eth1:1",
                 "ip addr add 10.10.0.5/16 dev eth10", "ip addr add 10.20.0.5/24 dev eth2",
                 "ip addr add 2001:db8:1::10/64 dev eth1 nodad", "ip addr add 2001:db8:10::10/64 dev eth10 nodad",
                 "ip route add 172.16.0.0/16 via 192.168.51.1 dev eth1 metric 7",
                 "ip route add default via 192.168.51.254 dev eth1 metric 100",
                 "ip route add 172.17.0.0/16 via 10.10.0.1 dev eth10",
                 "ip -6 route add 2001:db8:99::/48 via 2001:db8:1::1 dev eth1 metric 33",
                 "ip -6 route add default via 2001:db8:1::1 dev eth1",
                 "ip -6 route add 2001:db8:98::/48 via 2001:db8:10::1 dev eth10"})
            ASSERT_EQ(sh(cmd), 0) << cmd;
    }
};

} // namespace

TEST_F(NetKernelTest, AddressListsAgreeWithIpAndMatchByPrefix)
{
    const strings v4 = OURS(ipv4_ipconfig, "eth1");
    EXPECT_EQ(v4, ip_addresses("inet", "eth1"));
    // eth1 also finds eth10 and its own alias.
    EXPECT_EQ(v4,
        sorted(
            {"eth1 192.168.51.10 255.255.255.0", "eth1:1 192.168.52.10 255.255.255.0", "eth10 10.10.0.5 255.255.0.0"}));
    EXPECT_EQ(OURS(ipv4_ipconfig, "eth10"), ip_addresses("inet", "eth10"));

    const strings v6 = OURS(ipv6_ipconfig, "eth1");
    EXPECT_EQ(v6, ip_addresses("inet6", "eth1"));
    EXPECT_EQ(v6, sorted({"2001:db8:1::10/64", "2001:db8:10::10/64"}));
    EXPECT_EQ(OURS(ipv6_ipconfig, "eth10"), ip_addresses("inet6", "eth10"));

    // eth2 exists but is down: no address lists, with the message of a missing interface.
    const std::string out = vesk_test::capture_stdout([] {
        EXPECT_EQ(vesk_utility_get_ipv4_ipconfig("eth2"), nullptr);
        EXPECT_EQ(vesk_utility_get_ipv6_ipconfig("eth2"), nullptr);
        EXPECT_EQ(vesk_utility_get_ipv4_ipconfig("eth3"), nullptr);
    });
    EXPECT_EQ(vesk_test::count_of(out, "getifaddrs if_name = eth2 is note exist\n"), 2) << out;
    EXPECT_EQ(vesk_test::count_of(out, "getifaddrs if_name = eth3 is note exist\n"), 1) << out;
}

TEST_F(NetKernelTest, RouteListsAgreeWithIpPrefixForIpv4ExactForIpv6)
{
    const strings v4 = OURS(ipv4_route_config, "eth1");
    EXPECT_EQ(v4, ip_routes4("eth1"));
    // Gateways only (no connected networks), eth10's included by the prefix.
    EXPECT_EQ(v4, sorted({"100 192.168.51.254", "7 192.168.51.1", "0 10.10.0.1"}));
    EXPECT_EQ(OURS(ipv4_route_config, "eth10"), sorted({"0 10.10.0.1"}));
    EXPECT_EQ(OURS(ipv4_route_config, "eth2"), strings {});

    const strings v6 = OURS(ipv6_route_config, "eth1");
    EXPECT_EQ(v6, ip_routes6("eth1"));
    EXPECT_NE(std::find(v6.begin(), v6.end(), "33 " + expanded6("2001:db8:99::")), v6.end());
    // Not eth10's route, and not the default route (destination zero).
    for (const std::string& r : v6)
        EXPECT_TRUE(r.find(expanded6("2001:db8:98::")) == r.npos && r.find(expanded6("::")) == r.npos) << r;
    EXPECT_EQ(OURS(ipv6_route_config, "eth10"), ip_routes6("eth10"));
    EXPECT_EQ(OURS(ipv6_route_config, "eth"), strings {});
}

TEST_F(NetKernelTest, FlagsMacExistenceAndTheInterfaceRecord)
{
    EXPECT_EQ(vesk_utility_is_net_dev_exist("eth1"), 1);
    EXPECT_EQ(vesk_utility_is_net_dev_exist("eth2"), 1);
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
        ip_rows("link show eth1", [](const cJSON* link, strings& out) { out.push_back(str_of(link, "address")); }));

    const std::string root = vesk_test::private_root();
    std::ofstream(root + "/reserve/resolv_eth2.conf\n") << "nameserver 10.20.0.53\n";
    std::ofstream(root + "/etc/resolv_eth1.conf\n") << "nameserver 2001:db8:1::53\n";

    // A down interface still gives a record; only its address lists are missing.
    vesk_if_config_struct* down = nullptr;
    vesk_test::capture_stdout([&] { down = vesk_utility_get_if_config("eth2"); });
    ASSERT_NE(down, nullptr);
    EXPECT_EQ(down->up, 0);
    EXPECT_EQ(down->slave, 0);
    EXPECT_TRUE(down->ipv4_ip == nullptr && down->ipv6_ip == nullptr && down->ipv4_route == nullptr);
    ASSERT_NE(down->ipv4_dns, nullptr);
    EXPECT_STREQ(down->ipv4_dns->first->server, "10.20.0.53");
    EXPECT_EQ(down->ipv6_dns, nullptr);
    EXPECT_EQ(down->reserved0[0] | down->reserved0[1] | down->reserved0[2] | down->reserved1 | down->reserved2, 0u);
    vesk_utility_relase_if_config(down);

    vesk_if_config_struct* up = vesk_utility_get_if_config("eth1");
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(up->up, 1);
    ASSERT_TRUE(up->ipv4_ip && up->ipv6_ip && up->ipv4_route && up->ipv6_route && up->ipv6_dns);
    EXPECT_EQ(up->ipv4_ip->num, 3u);
    EXPECT_EQ(up->ipv6_ip->num, 2u);
    EXPECT_EQ(up->ipv4_route->num, 3u);
    EXPECT_EQ(up->ipv6_route->num, ip_routes6("eth1").size());
    EXPECT_STREQ(up->ipv6_dns->first->server, "2001:db8:1::53");
    EXPECT_EQ(up->ipv4_dns, nullptr);
    vesk_utility_relase_if_config(up);

    // The slave flag needs a bonding master, which not every kernel offers.
    if (sh("ip link add bond0 type bond") == 0 && sh("ip link set eth2 master bond0") == 0)
        EXPECT_EQ(vesk_utility_is_slave_net_dev("eth2"), 1);
    else
        printf("note: no bonding driver here, the set slave flag is not exercised\n");
}

#else

TEST(NetKernelTest, SkippedWithoutCjson)
{
    GTEST_SKIP() << "built without cJSON: the `ip -j` oracle cannot be read";
}

#endif
