// Network changes: arguments that fail their checks never become a command, a command whose effect the kernel does not show is reported, resolver files are
// replaced whole, and, as root in a private network namespace, every change made through a
// real proxy server started inside it is what `ip -j` sees afterwards, once with iproute2's
// `ip` and once with busybox's behind the same command strings.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "core/vesk_utility_paths.h"
#include "net/vesk_utility_net_change.h"
#include "net_test_support.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_utility;
using namespace vesk_net_test;
using vesk_test::read_file;

namespace
{

strings s_commands;

int record_command(const char* cmd)
{
    s_commands.push_back(cmd);
    return 0;
}

// Commands go to the recorder, never to a shell, while this lives.
struct recording_runner {
    recording_runner()
    {
        s_commands.clear();
        net_change_set_runner(record_command);
    }
    ~recording_runner() { net_change_set_runner(nullptr); }
};

} // namespace

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
        {"dot", vesk_utility_set_net_dev_mtu(".", 1500)},
        {"semicolon", vesk_utility_set_net_dev_up("lo;reboot", 1)},
        {"slash", vesk_utility_set_net_dev_mtu("lo/x", 1500)},
        {"mtu 67", vesk_utility_set_net_dev_mtu("lo", 67)},
        {"mtu 65536", vesk_utility_set_net_dev_mtu("lo", 65536)},
        {"multicast mac", vesk_utility_set_net_dev_mac("lo", mcast_mac, 6)},
        {"zero mac", vesk_utility_set_net_dev_mac("lo", zero_mac, 6)},
        {"short mac", vesk_utility_set_net_dev_mac("lo", mcast_mac + 1, 5)},
        {"ip with tail", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1 dev lo", "255.0.0.0")},
        {"ip octet 256", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.256", "255.0.0.0")},
        {"ip 0.0.0.0", vesk_utility_set_ipv4_ipconfig("lo", "0.0.0.0", "255.0.0.0")},
        {"ip multicast", vesk_utility_set_ipv4_ipconfig("lo", "224.0.0.1", "255.0.0.0")},
        {"mask with a hole", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1", "255.0.255.0")},
        {"mask zero", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1", "0.0.0.0")},
        {"mask NULL", vesk_utility_set_ipv4_ipconfig("lo", "10.0.0.1", nullptr)},
        {"alias without suffix", vesk_utility_add_ipv4_alias("lo:", "10.0.0.1", "255.0.0.0")},
        {"alias without colon", vesk_utility_add_ipv4_alias("lo", "10.0.0.1", "255.0.0.0")},
        {"alias too long", vesk_utility_add_ipv4_alias("lo:abcdefghijklm", "10.0.0.1", "255.0.0.0")},
        {"alias quote", vesk_utility_del_ipv4_alias("lo:'x'")},
        {"ipv6 prefix 0", vesk_utility_add_ipv6_ipconfig("lo", "2001:db8::1", 0)},
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

TEST(NetChangeTest, ResolverFilesAreReplacedWholeAndReadersNeverSeeAPart)
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

    // While one thread rewrites the file between two server lists, every read is one or the
    // other, whole.
    const char* a[] = {"10.1.1.1", "10.1.1.2", "10.1.1.3", "10.1.1.4", "10.1.1.5", "10.1.1.6", "10.1.1.7", "10.1.1.8"};
    ASSERT_EQ(vesk_utility_set_ipv4_dns_config("eth5", a, 8), VESK_OK);
    const std::string text_a = read_file(v4_path), text_b = "nameserver 192.168.1.1\nnameserver 10.0.0.53\n";
    std::atomic<bool> done {false};
    std::atomic<int> torn {0}, reads {0};
    std::thread reader([&] {
        for (; !done; reads++) {
            const std::string t = read_file(v4_path);
            torn += t != text_a && t != text_b ? 1 : 0;
        }
    });
    for (int i = 0; i < 200; i++)
        EXPECT_EQ(vesk_utility_set_ipv4_dns_config("eth5", i % 2 ? a : v4, i % 2 ? 8 : 2), VESK_OK);
    done = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0) << "of " << reads.load() << " reads";
}

#if defined(VESK_HAVE_CJSON) && defined(VESK_PROXY_SERVER_BIN)

namespace
{

std::string s_ip; // iproute2's ip, by its full path: the oracle
std::string s_shim; // the `ip` the proxy finds first on its PATH
std::string s_log; // the proxy's standard output
vesk_test::proxy_server_process* s_proxy = nullptr;

// What `ip` shows of a link: "up" when it is, then "<label> <local>/<len>" for IPv4 and
// "<local>/<len>" for global IPv6 addresses, or with `link`, "mtu N" and "mac M".
strings link_of(const std::string& dev, bool link = false)
{
    return ip_rows(s_ip, "addr show dev " + dev, [&](const cJSON* l, strings& out) {
        const cJSON* x;
        cJSON_ArrayForEach(x, cJSON_GetObjectItemCaseSensitive(l, "flags"))
        {
            if (std::string(x->valuestring) == "UP")
                out.push_back("up");
        }
        if (link)
            out.insert(out.end(), {"mtu " + std::to_string(int_of(l, "mtu")), "mac " + str_of(l, "address")});
        cJSON_ArrayForEach(x, cJSON_GetObjectItemCaseSensitive(l, "addr_info"))
        {
            const std::string local = str_of(x, "local") + "/" + std::to_string(int_of(x, "prefixlen"));
            if (!link && str_of(x, "family") == "inet")
                out.push_back(str_of(x, "label", dev) + " " + local);
            else if (!link && str_of(x, "scope") == "global")
                out.push_back(local);
        }
    });
}

// Default routes as "<gateway> <dev> <metric>".
strings default_routes()
{
    return ip_rows(s_ip, "route show default", [](const cJSON* r, strings& out) {
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

std::string which(const char* tool)
{
    std::string path = capture(std::string("command -v ") + tool);
    return path.erase(path.find_last_not_of("\n") + 1);
}

class NetChangeKernelTest : public ::testing::TestWithParam<const char*>
{
protected:
    static void SetUpTestSuite()
    {
        s_ip = which("ip");
        // The namespace belongs to this (the main) thread, and to the proxy started from it.
        if (geteuid() != 0 || s_ip.empty() || sh("busybox ip link") != 0 || unshare(CLONE_NEWNET) != 0
            || sh(s_ip + " link add eth1 type veth peer name vpa") != 0 || sh(s_ip + " link set vpa up") != 0
            || sh(s_ip + " link set lo up") != 0)
            return;
        const std::string root = vesk_test::private_root();
        s_shim = root + "/ipshim";
        s_log = root + "/proxy.log";
        mkdir(s_shim.c_str(), 0755);
        char sock[256];
        vesk_rooted_path(sock, sizeof(sock), k_path_cmd_socket_main);
        const std::string path = getenv("PATH");
        setenv("PATH", (s_shim + ":" + path).c_str(), 1);
        s_proxy = new vesk_test::proxy_server_process(sock, "> " + s_log + " 2>&1");
        setenv("PATH", path.c_str(), 1);
        // A connection left from an earlier proxy fails its first write (that command runs
        // here instead); from then on commands reach this one.
        use_ip(s_ip);
        for (int i = 0; i < 3 && commands_since(0).empty(); i++)
            vesk_utility_system("true");
    }
    static void TearDownTestSuite()
    {
        delete s_proxy;
        s_proxy = nullptr;
    }
    static void use_ip(const std::string& target)
    {
        unlink((s_shim + "/ip").c_str());
        ASSERT_EQ(symlink(target.c_str(), (s_shim + "/ip").c_str()), 0);
    }
    void SetUp() override
    {
        if (s_proxy == nullptr || !s_proxy->ready() || commands_since(0).empty())
            GTEST_SKIP() << "needs root, iproute2, busybox with its ip applet, veth and network namespaces";
        use_ip(std::string(GetParam()) == "busybox" ? which("busybox") : s_ip);
        for (const char* cmd : {" link set eth1 down", " addr flush dev eth1", " link set eth1 addrgenmode none"})
            sh(s_ip + cmd);
    }
};

} // namespace

TEST_P(NetChangeKernelTest, ChangesRunInTheProxyAndTheKernelShowsThem)
{
    const size_t log_from = read_file(s_log).size();
    const unsigned char mac[6] = {0x02, 0xab, 0xcd, 0x00, 0x11, 0x22};
    ASSERT_EQ(vesk_utility_set_net_dev_up("eth1", 1), VESK_OK);
    ASSERT_EQ(vesk_utility_set_net_dev_mtu("eth1", 1400), VESK_OK);
    ASSERT_EQ(vesk_utility_set_net_dev_mac("eth1", mac, 6), VESK_OK);
    EXPECT_EQ(link_of("eth1", true), (strings {"mac 02:ab:cd:00:11:22", "mtu 1400", "up"}));

    // The own address is replaced; an alias in another subnet stays; an alias is replaced.
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.60.10", "255.255.255.0"), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv4_alias("eth1:1", "10.70.0.1", "255.255.0.0"), VESK_OK);
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.61.20", "255.255.252.0"), VESK_OK);
    EXPECT_EQ(link_of("eth1"), (strings {"eth1 192.168.61.20/22", "eth1:1 10.70.0.1/16", "up"}));
    ASSERT_EQ(vesk_utility_add_ipv4_alias("eth1:1", "10.71.0.1", "255.255.255.0"), VESK_OK);
    EXPECT_EQ(link_of("eth1"), (strings {"eth1 192.168.61.20/22", "eth1:1 10.71.0.1/24", "up"}));
    ASSERT_EQ(vesk_utility_del_ipv4_alias("eth1:1"), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv6_ipconfig("eth1", "2001:DB8:60::0010", 64), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv6_ipconfig("eth1", "2001:db8:61::10", 80), VESK_OK);
    EXPECT_EQ(link_of("eth1"), (strings {"2001:db8:60::10/64", "2001:db8:61::10/80", "eth1 192.168.61.20/22", "up"}));
    ASSERT_EQ(vesk_utility_del_ipv6_ipconfig("eth1", "2001:db8:60::10", 64), VESK_OK);
    EXPECT_EQ(link_of("eth1"), (strings {"2001:db8:61::10/80", "eth1 192.168.61.20/22", "up"}));

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
    EXPECT_EQ(link_of("eth1"), strings {"eth1 192.168.62.30/24"}); // down, its IPv6 addresses gone

    // Every command went through the proxy (the namespace's), and all but the unreachable
    // gateway succeeded there, run by the `ip` asked for: each words its refusal its own way.
    const strings cmds = commands_since(log_from);
    ASSERT_EQ(cmds.size(), 20u);
    strings failed;
    for (const std::string& c : cmds)
        if (c.compare(0, 7, "exit 0:") != 0)
            failed.push_back(c.substr(c.find(':') + 2));
    EXPECT_EQ(failed, strings {"ip route add default via 172.31.0.1 dev eth1 metric 1"});
    const std::string log = read_file(s_log).substr(log_from);
    const bool busybox = std::string(GetParam()) == "busybox";
    EXPECT_EQ(log.find("ip: RTNETLINK answers") != std::string::npos, busybox) << log;
    EXPECT_EQ(log.find("Error: Nexthop has invalid gateway") != std::string::npos, !busybox) << log;
}

INSTANTIATE_TEST_SUITE_P(Ip, NetChangeKernelTest, ::testing::Values("iproute2", "busybox"));

#endif
