// Network-configuration parsers fed with fixtures of the kernel's tables and resolver files,
// the prefix-length rule, and the fatal NULL arguments.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "vesk_utility_net_config.h"
#include "vesk_utility_paths.h"
#include "vesk_utility_resource.h"

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
    return vesk_utility_res_manage::instance()->mem_account().total_size();
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
