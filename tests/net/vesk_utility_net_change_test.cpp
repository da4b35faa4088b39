// Network changes: arguments that fail their checks never become a command (random ones
// included), a command whose effect the kernel does not show is reported, resolver files are
// replaced whole, and, as root in a private network namespace, every change made through a
// real proxy server started inside it is what `ip -j` sees afterwards, once with iproute2's
// `ip` and once with busybox's behind the same command strings.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/vesk_utility_paths.h"
#include "net/vesk_utility_net_change.h"
#include "proxy_server_process.h"
#include "test_support.h"
#include "vesk_utility.h"

#if defined(VESK_HAVE_CJSON)
#include <cjson/cJSON.h>
#endif

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

std::vector<std::string> s_commands;

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
        {"blank", vesk_utility_set_net_dev_up("lo up", 1)},
        {"substitution", vesk_utility_set_net_dev_up("$(reboot)", 1)},
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

TEST(NetChangeTest, RandomArgumentsNeverReachTheCommandAsSyntax)
{
    // Every argument a random pick from valid pieces, shell syntax and junk. Whatever gets
    // through the checks must come out as plain canonical text, so the last guard in front of
    // the proxy ("refused command") never has anything to refuse.
    recording_runner rec;
    const char* pieces[] = {"lo", "lo:1", "10.0.0.1", "255.255.0.0", "2001:db8::1", ";", "|", "&", "$(", "`", "'",
        "\"", " ", "\n", "\\", ">", "*", "..", "-", "0", "300", "::", "%", "lo:", "dev", "1.2.3.4.5", "\t", "#"};
    std::mt19937 rng(2024);
    const auto random_text = [&] {
        std::string s;
        for (int n = static_cast<int>(rng() % 3) + 1; n > 0; n--)
            s += pieces[rng() % (sizeof(pieces) / sizeof(pieces[0]))];
        return s;
    };
    int accepted = 0;
    const std::string out = vesk_test::capture_stdout([&] {
        for (int i = 0; i < 3000; i++) {
            const std::string a = random_text(), b = random_text(), c = random_text();
            const char* list[] = {b.c_str(), c.c_str()};
            const VESK_ERR rets[] = {vesk_utility_set_ipv4_ipconfig(a.c_str(), b.c_str(), c.c_str()),
                vesk_utility_add_ipv4_alias(a.c_str(), b.c_str(), c.c_str()),
                vesk_utility_add_ipv6_ipconfig(a.c_str(), b.c_str(), rng() % 140),
                vesk_utility_del_ipv4_gateway(a.c_str(), b.c_str(), rng()),
                vesk_utility_set_net_dev_up(a.c_str(), 1), vesk_utility_set_ipv6_dns_config("vesk_fuzz0", list, 2)};
            for (VESK_ERR r : rets)
                accepted += r != VESK_ERR_INVALID_PARAM ? 1 : 0;
        }
    });
    EXPECT_EQ(vesk_test::count_of(out, "refused command"), 0) << out.substr(0, 2000);
    EXPECT_GT(accepted, 0); // the valid pieces do get through, so the commands were exercised
    EXPECT_FALSE(s_commands.empty());
    for (const std::string& cmd : s_commands)
        EXPECT_EQ(cmd.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789 .:/"), std::string::npos) << cmd;
}

TEST(NetChangeTest, AChangeTheKernelDoesNotShowIsReported)
{
    // The recorder runs nothing: the readback finds lo unchanged.
    recording_runner rec;
    const unsigned char mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(vesk_utility_set_net_dev_mtu("lo", 1234), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_set_net_dev_mac("lo", mac, 6), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_add_ipv4_gateway("lo", "10.9.8.7", 5), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_add_ipv4_alias("lo:7", "10.9.8.6", "255.255.255.0"), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(s_commands,
        (std::vector<std::string> {"ip link set dev lo mtu 1234", "ip link set dev lo address 02:11:22:33:44:55",
            "ip route add default via 10.9.8.7 dev lo metric 5", "ip addr add 10.9.8.6/24 dev lo label lo:7"}));
    // Nothing to do: lo has no such gateway and no such alias, and the readback agrees.
    s_commands.clear();
    EXPECT_EQ(vesk_utility_del_ipv4_gateway("lo", "10.9.8.7", 5), VESK_OK);
    EXPECT_EQ(vesk_utility_del_ipv4_alias("lo:7"), VESK_OK);
    EXPECT_TRUE(s_commands.empty());
}

TEST(NetChangeTest, ResolverFilesAreReplacedWholeAndReadBack)
{
    const std::string root = vesk_test::private_root();
    const std::string v4_path = root + "/reserve/resolv_eth5.conf\n", v6_path = root + "/etc/resolv_eth5.conf\n";
    const char* v4[] = {"192.168.1.1", "010.0.0.53"}; // inet_pton refuses the leading zero
    EXPECT_EQ(vesk_utility_set_ipv4_dns_config("eth5", v4, 2), VESK_ERR_INVALID_PARAM);
    v4[1] = "10.0.0.53";
    ASSERT_EQ(vesk_utility_set_ipv4_dns_config("eth5", v4, 2), VESK_OK);
    EXPECT_EQ(vesk_test::read_file(v4_path), "nameserver 192.168.1.1\nnameserver 10.0.0.53\n");
    const char* v6[] = {"2001:0DB8:0000::0053", "fe80::1"};
    ASSERT_EQ(vesk_utility_set_ipv6_dns_config("eth5", v6, 2), VESK_OK);
    EXPECT_EQ(vesk_test::read_file(v6_path), "nameserver 2001:db8::53\nnameserver fe80::1\n");
    // A refused list leaves the file alone; an empty one empties it.
    const char* bad[] = {"2001:db8::1 rotate"};
    EXPECT_EQ(vesk_utility_set_ipv6_dns_config("eth5", bad, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_test::read_file(v6_path), "nameserver 2001:db8::53\nnameserver fe80::1\n");
    ASSERT_EQ(vesk_utility_set_ipv6_dns_config("eth5", nullptr, 0), VESK_OK);
    EXPECT_EQ(vesk_test::read_file(v6_path), "");
    EXPECT_NE(access((root + "/reserve/resolv_eth5.conf.tmp").c_str(), F_OK), 0); // no leftover
    // Without its directory the file cannot be written: reported, not faked.
    ASSERT_EQ(rename((root + "/etc").c_str(), (root + "/etc.away").c_str()), 0);
    EXPECT_EQ(vesk_utility_set_ipv6_dns_config("eth5", v6, 1), VESK_ERR_OPERATE_FAIL);
    ASSERT_EQ(rename((root + "/etc.away").c_str(), (root + "/etc").c_str()), 0);
}

TEST(NetChangeTest, ReadersOfAResolverFileNeverSeeAPart)
{
    // Invariant: while one thread rewrites the file between two server lists, every read of it
    // is one list or the other, whole.
    const std::string path = vesk_test::private_root() + "/reserve/resolv_eth6.conf\n";
    const char* a[] = {"10.1.1.1", "10.1.1.2", "10.1.1.3", "10.1.1.4", "10.1.1.5", "10.1.1.6", "10.1.1.7", "10.1.1.8"};
    const char* b[] = {"192.168.200.201"};
    ASSERT_EQ(vesk_utility_set_ipv4_dns_config("eth6", b, 1), VESK_OK);
    const std::string text_b = vesk_test::read_file(path);
    ASSERT_EQ(vesk_utility_set_ipv4_dns_config("eth6", a, 8), VESK_OK);
    const std::string text_a = vesk_test::read_file(path);
    std::atomic<bool> done {false};
    std::atomic<int> torn {0}, reads {0};
    std::thread reader([&] {
        while (!done) {
            const std::string t = vesk_test::read_file(path);
            torn += t != text_a && t != text_b ? 1 : 0;
            reads++;
        }
    });
    for (int i = 0; i < 200; i++)
        ASSERT_EQ(vesk_utility_set_ipv4_dns_config("eth6", i % 2 ? a : b, i % 2 ? 8 : 1), VESK_OK);
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

std::string capture(const std::string& cmd)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    for (int c; p != nullptr && (c = fgetc(p)) != EOF;)
        out += static_cast<char>(c);
    if (p != nullptr)
        pclose(p);
    return out;
}

int sh(const std::string& cmd)
{
    return system((cmd + " >/dev/null 2>&1").c_str());
}

// `ip -j <args>` parsed; the caller deletes it.
cJSON* ip_json(const std::string& args)
{
    return cJSON_Parse(capture(s_ip + " -j " + args).c_str());
}

const cJSON* item(const cJSON* obj, const char* key)
{
    return cJSON_GetObjectItemCaseSensitive(obj, key);
}

struct link_state {
    bool up = false;
    int mtu = 0;
    std::string mac;
    std::vector<std::string> inet; // "<label> <local>/<len>"
    std::vector<std::string> inet6; // "<local>/<len>", global scope only
};

link_state link_of(const std::string& dev)
{
    link_state s;
    cJSON* root = ip_json("addr show dev " + dev);
    const cJSON* link = cJSON_GetArrayItem(root, 0);
    const cJSON* flag;
    cJSON_ArrayForEach(flag, item(link, "flags")) s.up |= std::string(flag->valuestring) == "UP";
    s.mtu = item(link, "mtu") != nullptr ? item(link, "mtu")->valueint : 0;
    s.mac = item(link, "address") != nullptr ? item(link, "address")->valuestring : "";
    const cJSON* a;
    cJSON_ArrayForEach(a, item(link, "addr_info"))
    {
        const std::string family = item(a, "family")->valuestring, local = item(a, "local")->valuestring;
        const std::string len = std::to_string(item(a, "prefixlen")->valueint);
        if (family == "inet")
            s.inet.push_back(std::string(item(a, "label") ? item(a, "label")->valuestring : dev.c_str()) + " " + local
                + "/" + len);
        else if (std::string(item(a, "scope")->valuestring) == "global")
            s.inet6.push_back(local + "/" + len);
    }
    cJSON_Delete(root);
    return s;
}

std::vector<std::string> sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

// Default routes as "<gateway> <dev> <metric>".
std::vector<std::string> default_routes()
{
    std::vector<std::string> out;
    cJSON* root = ip_json("route show default");
    const cJSON* r;
    cJSON_ArrayForEach(r, root)
    {
        const cJSON* metric = item(r, "metric");
        out.push_back(std::string(item(r, "gateway")->valuestring) + " " + item(r, "dev")->valuestring + " "
            + std::to_string(metric != nullptr ? metric->valueint : 0));
    }
    cJSON_Delete(root);
    return out;
}

// Lines the proxy logged for commands run since `from` (its log's length then).
std::vector<std::string> commands_since(size_t from)
{
    std::vector<std::string> out;
    const std::string log = vesk_test::read_file(s_log).substr(from);
    size_t at = 0;
    while ((at = log.find(" exit ", at)) != std::string::npos) {
        const size_t end = log.find('\n', at);
        out.push_back(log.substr(at + 1, end - at - 1));
        at = end;
    }
    return out;
}

class NetChangeKernelTest : public ::testing::TestWithParam<const char*>
{
protected:
    static void SetUpTestSuite()
    {
        if (geteuid() != 0 || sh("command -v ip") != 0 || sh("command -v busybox") != 0 || sh("busybox ip link") != 0)
            return;
        s_ip = capture("command -v ip");
        s_ip.erase(s_ip.find_last_not_of("\n") + 1);
        // The namespace belongs to this (the main) thread, and to the proxy started from it.
        if (unshare(CLONE_NEWNET) != 0)
            return;
        if (sh(s_ip + " link add eth1 type veth peer name vpa") != 0 || sh(s_ip + " link set vpa up") != 0
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
        std::string busybox = capture("command -v busybox");
        busybox.erase(busybox.find_last_not_of("\n") + 1);
        use_ip(std::string(GetParam()) == "busybox" ? busybox : s_ip);
        sh(s_ip + " link set eth1 down");
        sh(s_ip + " addr flush dev eth1");
        sh(s_ip + " link set eth1 addrgenmode none");
    }
};

} // namespace

TEST_P(NetChangeKernelTest, ChangesRunInTheProxyAndTheKernelShowsThem)
{
    const size_t log_from = vesk_test::read_file(s_log).size();
    ASSERT_EQ(vesk_utility_set_net_dev_up("eth1", 1), VESK_OK);
    EXPECT_TRUE(link_of("eth1").up);
    ASSERT_EQ(vesk_utility_set_net_dev_mtu("eth1", 1400), VESK_OK);
    EXPECT_EQ(link_of("eth1").mtu, 1400);
    const unsigned char mac[6] = {0x02, 0xab, 0xcd, 0x00, 0x11, 0x22};
    ASSERT_EQ(vesk_utility_set_net_dev_mac("eth1", mac, 6), VESK_OK);
    EXPECT_EQ(link_of("eth1").mac, "02:ab:cd:00:11:22");

    // The own address is replaced; an alias in another subnet stays.
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.60.10", "255.255.255.0"), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv4_alias("eth1:1", "10.70.0.1", "255.255.0.0"), VESK_OK);
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.61.20", "255.255.252.0"), VESK_OK);
    EXPECT_EQ(sorted(link_of("eth1").inet), (std::vector<std::string> {"eth1 192.168.61.20/22", "eth1:1 10.70.0.1/16"}));
    ASSERT_EQ(vesk_utility_add_ipv4_alias("eth1:1", "10.71.0.1", "255.255.255.0"), VESK_OK); // replaced
    EXPECT_EQ(sorted(link_of("eth1").inet), (std::vector<std::string> {"eth1 192.168.61.20/22", "eth1:1 10.71.0.1/24"}));
    ASSERT_EQ(vesk_utility_del_ipv4_alias("eth1:1"), VESK_OK);
    EXPECT_EQ(link_of("eth1").inet, (std::vector<std::string> {"eth1 192.168.61.20/22"}));

    ASSERT_EQ(vesk_utility_add_ipv6_ipconfig("eth1", "2001:DB8:60::0010", 64), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv6_ipconfig("eth1", "2001:db8:61::10", 80), VESK_OK);
    EXPECT_EQ(link_of("eth1").inet6.size(), 2u);
    ASSERT_EQ(vesk_utility_del_ipv6_ipconfig("eth1", "2001:db8:60::10", 64), VESK_OK);
    EXPECT_EQ(link_of("eth1").inet6, (std::vector<std::string> {"2001:db8:61::10/80"}));

    ASSERT_EQ(vesk_utility_add_ipv4_gateway("eth1", "192.168.60.1", 30), VESK_OK);
    ASSERT_EQ(vesk_utility_add_ipv4_gateway("eth1", "192.168.61.1", 20), VESK_OK);
    EXPECT_EQ(sorted(default_routes()), (std::vector<std::string> {"192.168.60.1 eth1 30", "192.168.61.1 eth1 20"}));
    ASSERT_EQ(vesk_utility_del_ipv4_gateway("eth1", "192.168.61.1", 20), VESK_OK);
    EXPECT_EQ(default_routes(), (std::vector<std::string> {"192.168.60.1 eth1 30"}));
    // A gateway the subnet cannot reach: `ip` fails, and the readback says so.
    EXPECT_EQ(vesk_utility_add_ipv4_gateway("eth1", "172.31.0.1", 1), VESK_ERR_OPERATE_FAIL);

    ASSERT_EQ(vesk_utility_set_net_dev_up("eth1", 0), VESK_OK);
    EXPECT_FALSE(link_of("eth1").up);
    // A down interface still takes an address (it is read back without the up check).
    ASSERT_EQ(vesk_utility_set_ipv4_ipconfig("eth1", "192.168.62.30", "255.255.255.0"), VESK_OK);
    EXPECT_EQ(link_of("eth1").inet, (std::vector<std::string> {"eth1 192.168.62.30/24"}));

    // Every command went through the proxy (the namespace's), and all but the unreachable
    // gateway succeeded there.
    const std::vector<std::string> cmds = commands_since(log_from);
    ASSERT_EQ(cmds.size(), 20u);
    std::vector<std::string> failed;
    for (const std::string& c : cmds)
        if (c.compare(0, 7, "exit 0:") != 0)
            failed.push_back(c.substr(c.find(':') + 2));
    EXPECT_EQ(failed, (std::vector<std::string> {"ip route add default via 172.31.0.1 dev eth1 metric 1"}));
    // And the `ip` that ran them was the one asked for: each words its refusal its own way.
    const std::string log = vesk_test::read_file(s_log).substr(log_from);
    const bool busybox = std::string(GetParam()) == "busybox";
    EXPECT_EQ(log.find("ip: RTNETLINK answers") != std::string::npos, busybox) << log;
    EXPECT_EQ(log.find("Error: Nexthop has invalid gateway") != std::string::npos, !busybox) << log;
}

INSTANTIATE_TEST_SUITE_P(Ip, NetChangeKernelTest, ::testing::Values("iproute2", "busybox"));

#endif
