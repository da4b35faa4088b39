// Toolnet: echo against socat over UDP, TCP and multicast both ways, handle reuse, the dumps,
// and 10,000 open/close cycles that leave nothing behind.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_log.h"
#include "net/vesk_utility_toolnet.h"
#include "net_test_support.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_net_test::bg_process;
using vesk_test::read_file;
using vesk_test::wait_for;

namespace
{

std::string s_dir;

// Random bytes, also written to the file `name` in the test's directory; its path.
std::string random_file(const std::string& name, size_t n, unsigned seed, std::string* bytes)
{
    std::mt19937 rng(seed);
    bytes->assign(n, '\0');
    for (char& c : *bytes)
        c = static_cast<char>(rng());
    std::ofstream(s_dir + "/" + name, std::ios::binary) << *bytes;
    return s_dir + "/" + name;
}

unsigned short free_port(int type)
{
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    socklen_t len = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

vesk_toolnet* toolnet()
{
    return vesk_utility_res_manage::instance()->get_toolnet();
}

// What a socket received, collected from the event thread; with `echo`, sent back (for UDP to
// echo_ip:echo_port when set, else to the sender).
struct inbox {
    std::mutex lock;
    std::string data;
    std::atomic<int> closes {0}, close_err {-1}, echo_fail {0};
    bool echo = false;
    std::string echo_ip;
    unsigned short echo_port = 0;

    std::string text()
    {
        std::lock_guard<std::mutex> g(lock);
        return data;
    }
    size_t size() { return text().size(); }
};

void on_recv(vesk_toolnet_handle h, const void* data, unsigned len, const sockaddr* from, unsigned from_len, void* arg)
{
    inbox* in = static_cast<inbox*>(arg);
    {
        std::lock_guard<std::mutex> g(in->lock);
        in->data.append(static_cast<const char*>(data), len);
    }
    if (!in->echo)
        return;
    VESK_ERR ret;
    if (from == nullptr)
        ret = vesk_utility_toolnet_send(h, data, len, 0, nullptr);
    else if (!in->echo_ip.empty())
        ret = vesk_utility_toolnet_send_to(h, data, len, in->echo_ip.c_str(), in->echo_port);
    else
        ret = vesk_utility_toolnet_send_to_addr(h, data, len, from, from_len);
    in->echo_fail += ret != VESK_OK ? 1 : 0;
}

void on_close(vesk_toolnet_handle, int err, void* arg)
{
    inbox* in = static_cast<inbox*>(arg);
    in->close_err = err;
    in->closes++;
}

vesk_toolnet_handle open_udp(inbox* in, const char* group = nullptr, unsigned short port = 0)
{
    const vesk_toolnet_udp_param p {0x77, "t_udp", group != nullptr ? "0.0.0.0" : "127.0.0.1", port, group,
        group != nullptr ? "127.0.0.1" : nullptr, in != nullptr ? on_recv : nullptr, in};
    vesk_toolnet_handle h = 0;
    EXPECT_EQ(vesk_utility_toolnet_open_udp(&p, &h), VESK_OK);
    return h;
}

vesk_toolnet_handle listen_tcp(inbox* in)
{
    const vesk_toolnet_listen_param p {0x77, "t_listen", "127.0.0.1", 0, 0, nullptr, on_recv, on_close, in};
    vesk_toolnet_handle h = 0;
    EXPECT_EQ(vesk_utility_toolnet_listen_tcp(&p, &h), VESK_OK);
    return h;
}

vesk_toolnet_handle connect_tcp(inbox* in, unsigned short port, VESK_ERR expect = VESK_OK)
{
    const vesk_toolnet_connect_param p {0x77, "t_conn", "127.0.0.1", port, 0, on_recv, on_close, in};
    vesk_toolnet_handle h = 0;
    VESK_ERR ret = VESK_ERR_FAIL;
    // A socat just started may not listen yet: retried until it does.
    wait_for([&] { return (ret = vesk_utility_toolnet_connect_tcp(&p, &h)) == VESK_OK || expect != VESK_OK; });
    EXPECT_EQ(ret, expect);
    return h;
}

unsigned short port_of(vesk_toolnet_handle h)
{
    unsigned short port = 0;
    EXPECT_EQ(vesk_utility_toolnet_local_port(h, &port), VESK_OK);
    return port;
}

class ToolnetTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        s_dir = vesk_test::private_root();
        ASSERT_EQ(vesk_utiltiy_net_start(), VESK_OK);
        ASSERT_EQ(vesk_utiltiy_net_start(), VESK_OK); // once; later calls do nothing
        system("ip link set lo up >/dev/null 2>&1"); // a namespace of another test may be current
        m_fds = vesk_test::open_descriptors();
        m_nodes = socket_nodes();
    }
    // Every test leaves no socket, registry node or descriptor behind.
    void TearDown() override
    {
        EXPECT_TRUE(wait_for([&] {
            return toolnet()->open_count(VESK_TOOLNET_UDP) + toolnet()->open_count(VESK_TOOLNET_TCP_LISTEN)
                + toolnet()->open_count(VESK_TOOLNET_TCP_CONN)
                == 0;
        }));
        EXPECT_EQ(socket_nodes(), m_nodes);
        EXPECT_EQ(vesk_test::open_descriptors(), m_fds);
    }
    static unsigned socket_nodes() { return vesk_ground::instance()->registry().list_size(VESK_LIST_SOCKET); }
    int m_fds = 0;
    unsigned m_nodes = 0;
};

} // namespace

TEST(ToolnetStartTest, NothingOpensBeforeTheStart)
{
    if (toolnet()->started())
        GTEST_SKIP() << "started by an earlier test of this process";
    vesk_toolnet_udp_param p {};
    vesk_toolnet_handle h = 1;
    EXPECT_EQ(vesk_utility_toolnet_open_udp(&p, &h), VESK_ERR_NOT_INIT);
    EXPECT_EQ(h, 0u);
}

TEST_F(ToolnetTest, UdpAndMulticastEchoAgainstSocatBothWays)
{
    // Toolnet echoes a whole 60000-byte datagram that socat sends.
    inbox echo;
    echo.echo = true;
    const vesk_toolnet_handle server = open_udp(&echo);
    EXPECT_EQ(server >> 16, VESK_TOOLNET_UDP);
    std::string payload;
    const std::string file = random_file("udp.in", 60000, 1, &payload);
    bg_process peer("socat -b 65536 -t 60 - UDP4:127.0.0.1:" + std::to_string(port_of(server)) + " < " + file
        + " > " + s_dir + "/udp.out");
    ASSERT_TRUE(wait_for([&] { return read_file(s_dir + "/udp.out").size() >= payload.size(); }));
    EXPECT_EQ(read_file(s_dir + "/udp.out"), payload);
    EXPECT_EQ(echo.echo_fail.load(), 0);
    EXPECT_EQ(vesk_utility_toolnet_close(server), VESK_OK);
    EXPECT_EQ(vesk_utility_toolnet_close(server), VESK_ERR_INVALID_PARAM);

    // Toolnet sends to a socat echo server by address text and receives the answers.
    inbox answers;
    const unsigned short port = free_port(SOCK_DGRAM);
    bg_process socat("socat -b 65536 UDP4-RECVFROM:" + std::to_string(port) + ",fork PIPE");
    const vesk_toolnet_handle client = open_udp(&answers);
    ASSERT_TRUE(wait_for([&] {
        vesk_utility_toolnet_send_to(client, "probe", 5, "127.0.0.1", port);
        return wait_for([&] { return answers.size() > 0; }, 100);
    }));
    random_file("udp.big", 50000, 7, &payload);
    ASSERT_EQ(vesk_utility_toolnet_send_to(client, payload.data(), payload.size(), "127.0.0.1", port), VESK_OK);
    EXPECT_TRUE(wait_for([&] { return answers.text().find(payload) != std::string::npos; }));
    EXPECT_EQ(vesk_utility_toolnet_send_to(client, "x", 1, "localhost", port), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_toolnet_close(client), VESK_OK);

    // A group that is not multicast is refused before any socket exists.
    vesk_toolnet_udp_param p {};
    p.multicast_group = "10.1.2.3";
    vesk_toolnet_handle bad = 0;
    EXPECT_EQ(vesk_utility_toolnet_open_udp(&p, &bad), VESK_ERR_INVALID_PARAM);
#if !defined(VESK_TEST_EMULATED) // qemu-user does not translate IP_MULTICAST_IF
    // socat sends to the group Toolnet joined; Toolnet echoes to the group's other port, where a
    // socat member listens. The sender repeats until the member has heard an echo.
    const unsigned short group_port = free_port(SOCK_DGRAM), back = free_port(SOCK_DGRAM);
    inbox in;
    in.echo = true;
    in.echo_ip = "239.255.71.7";
    in.echo_port = back;
    const vesk_toolnet_handle h = open_udp(&in, "239.255.71.7", group_port);
    bg_process member("socat -u UDP4-RECV:" + std::to_string(back)
        + ",reuseaddr,ip-add-membership=239.255.71.7:127.0.0.1 - > " + s_dir + "/mc.out");
    bg_process sender("while :; do echo multicast-hello | socat -u - UDP4-DATAGRAM:239.255.71.7:"
        + std::to_string(group_port) + ",ip-multicast-if=127.0.0.1; sleep 0.1; done");
    ASSERT_TRUE(wait_for([&] { return read_file(s_dir + "/mc.out").size() >= 16; }));
    EXPECT_EQ(read_file(s_dir + "/mc.out").substr(0, 16), "multicast-hello\n");
    EXPECT_EQ(in.text().substr(0, 16), "multicast-hello\n");
    EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_OK);
#endif
}

TEST_F(ToolnetTest, TcpEchoesAgainstSocatBothWays)
{
    // socat sends 1 MiB through a Toolnet listener that echoes it; the peer's end reaches the
    // connection's close callback once, with 0.
    inbox echo;
    echo.echo = true;
    const vesk_toolnet_handle listener = listen_tcp(&echo);
    std::string payload;
    const std::string in = random_file("tcp.in", 1 << 20, 3, &payload);
    bg_process client("socat -b 65536 -t 60 - TCP4:127.0.0.1:" + std::to_string(port_of(listener)) + " < " + in
        + " > " + s_dir + "/tcp.out");
    EXPECT_EQ(client.wait(), 0);
    EXPECT_TRUE(read_file(s_dir + "/tcp.out") == payload);
    EXPECT_EQ(echo.echo_fail.load(), 0);
    EXPECT_TRUE(wait_for([&] { return echo.closes == 1; }));
    EXPECT_EQ(echo.close_err.load(), 0);

    // Toolnet sends 1 MiB to a socat echo server and gets it back; socat's end (it is killed)
    // reaches the close callback, after which the handle is freed.
    const unsigned short port = free_port(SOCK_STREAM);
    inbox answers;
    vesk_toolnet_handle conn = 0;
    {
        bg_process peer("socat TCP4-LISTEN:" + std::to_string(port) + ",reuseaddr PIPE");
        conn = connect_tcp(&answers, port);
        EXPECT_EQ(conn >> 16, VESK_TOOLNET_TCP_CONN);
        unsigned sent = 0;
        ASSERT_EQ(vesk_utility_toolnet_send(conn, payload.data(), payload.size(), 0, &sent), VESK_OK);
        EXPECT_EQ(sent, payload.size());
        ASSERT_TRUE(wait_for([&] { return answers.size() >= payload.size(); }));
        EXPECT_TRUE(answers.text() == payload) << answers.size();
        EXPECT_EQ(answers.closes.load(), 0);
    }
    ASSERT_TRUE(wait_for([&] { return answers.closes == 1; }));
    EXPECT_EQ(vesk_utility_toolnet_close(conn), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_toolnet_close(listener), VESK_OK);
    // Nothing listens there: refused, not hung, and no handle.
    EXPECT_EQ(connect_tcp(&answers, free_port(SOCK_STREAM), VESK_ERR_OPERATE_FAIL), 0u);
}

TEST_F(ToolnetTest, HandlesAreReusedLastTablesAreBoundedAndListed)
{
    // 64 UDP sockets fill the table; the 65th is refused. A freed index comes back only after
    // every other free one was used.
    std::vector<vesk_toolnet_handle> all;
    for (unsigned i = 0; i < VESK_TOOLNET_UDP_MAX; i++)
        all.push_back(open_udp(nullptr));
    for (vesk_toolnet_handle h : all)
        EXPECT_TRUE(h >> 16 == VESK_TOOLNET_UDP && (h & 0xFFFF) != 0) << std::hex << h;
    vesk_toolnet_udp_param p {};
    vesk_toolnet_handle extra = 0;
    vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_toolnet_open_udp(&p, &extra), VESK_ERR_NO_RESOURCE); });
    EXPECT_EQ(vesk_utility_toolnet_close(all[10]), VESK_OK);
    EXPECT_EQ(vesk_utility_toolnet_close(all[20]), VESK_OK);
    all[10] = open_udp(nullptr); // the only free ones, in the order they were freed
    EXPECT_EQ(all[10] & 0xFFFF, 11u);
    all[20] = open_udp(nullptr);
    EXPECT_EQ(all[20] & 0xFFFF, 21u);

    // The dump lists every open socket with its handle and name.
    const std::string udp = vesk_test::capture_stdout([] { toolnet()->toolnet_diagnose(1, vesk_print_stdout); });
    char row[64];
    snprintf(row, sizeof(row), "21    0x%-8x", all[20]);
    EXPECT_NE(udp.find(row), std::string::npos) << udp;
    EXPECT_EQ(vesk_test::count_of(udp, "t_udp"), 64) << udp;

    for (vesk_toolnet_handle h : all)
        EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_OK);
    const vesk_toolnet_handle again = open_udp(nullptr);
    EXPECT_NE(again, all[20]); // the last freed is not the next given
    EXPECT_EQ(vesk_utility_toolnet_close(again), VESK_OK);
    // Handles of no socket, of the wrong kind, or never valid.
    for (vesk_toolnet_handle h : {0u, 0x10000u, 0x40001u, 0x1FFFFu, all[0], all[0] + 0x10000u})
        EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_ERR_INVALID_PARAM) << std::hex << h;
    EXPECT_EQ(vesk_utility_toolnet_send(all[0] | 0x20000u, "x", 1, 0, nullptr), VESK_ERR_INVALID_PARAM);
}

TEST_F(ToolnetTest, TenThousandOpenCloseCyclesLeaveNothingBehind)
{
    // UDP sockets that are written to while they close, and TCP connections that one side
    // closes while the other's end is being delivered. TearDown checks the registry and the
    // descriptor table.
    inbox udp_in, conn_in, listen_in;
    const vesk_toolnet_handle listener = listen_tcp(&listen_in);
    for (int i = 0; i < 10000; i++) {
        const vesk_toolnet_handle h = open_udp(&udp_in);
        vesk_utility_toolnet_send_to(h, "c", 1, "127.0.0.1", port_of(h));
        ASSERT_EQ(vesk_utility_toolnet_close(h), VESK_OK) << i;
        if (i % 10 == 0) {
            const vesk_toolnet_handle c = connect_tcp(&conn_in, port_of(listener));
            ASSERT_EQ(vesk_utility_toolnet_send(c, "x", 1, 0, nullptr), VESK_OK);
            ASSERT_EQ(vesk_utility_toolnet_close(c), VESK_OK);
        }
    }
    EXPECT_TRUE(wait_for([&] { return listen_in.closes == 1000; })) << listen_in.closes;
    EXPECT_EQ(conn_in.closes.load(), 0);
    EXPECT_EQ(vesk_utility_toolnet_close(listener), VESK_OK);
}

namespace
{

// What close_self saw: it closes its handle twice in its first callback (the second finds it ending).
struct self_closer {
    std::atomic<int> calls {0};
    std::atomic<VESK_ERR> ret {1}, again {1};
};

void close_self(vesk_toolnet_handle h, const void*, unsigned, const sockaddr*, unsigned, void* arg)
{
    self_closer* s = static_cast<self_closer*>(arg);
    s->calls++;
    s->ret = vesk_utility_toolnet_close(h);
    s->again = vesk_utility_toolnet_close(h);
}

void recv_slowly(vesk_toolnet_handle, const void*, unsigned, const sockaddr*, unsigned, void* arg)
{
    static_cast<std::atomic<int>*>(arg)->store(1);
    usleep(300000);
    static_cast<std::atomic<int>*>(arg)->store(2);
}

} // namespace

// Closes from a handle's own callback, from another thread during one (it waits), and mid-send.
TEST_F(ToolnetTest, ClosesFromOwnCallbacksAndFromOtherThreads)
{
    self_closer s;
    vesk_toolnet_udp_param p {0, "t_self", "127.0.0.1", 0, nullptr, nullptr, close_self, &s};
    vesk_toolnet_handle h = 0;
    ASSERT_EQ(vesk_utility_toolnet_open_udp(&p, &h), VESK_OK);
    const vesk_toolnet_handle sender = open_udp(nullptr);
    const unsigned short port = port_of(h); // asked once: the first datagram closes h
    for (int i = 0; i < 5; i++)
        vesk_utility_toolnet_send_to(sender, "abc", 3, "127.0.0.1", port);
    ASSERT_TRUE(wait_for([&] { return toolnet()->open_count(VESK_TOOLNET_UDP) == 1 && s.again != 1; }));
    EXPECT_TRUE(s.calls == 1 && s.ret == VESK_OK && s.again == VESK_OK);

    std::atomic<int> slow {0};
    p.on_recv = recv_slowly;
    p.arg = &slow;
    ASSERT_EQ(vesk_utility_toolnet_open_udp(&p, &h), VESK_OK);
    vesk_utility_toolnet_send_to(sender, "x", 1, "127.0.0.1", port_of(h));
    ASSERT_TRUE(wait_for([&] { return slow == 1; }));
    EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_OK);
    EXPECT_EQ(slow.load(), 2);

    inbox echo_in, many_in;
    echo_in.echo = true;
    const vesk_toolnet_handle echo = listen_tcp(&echo_in);
    const vesk_toolnet_handle c = connect_tcp(&many_in, port_of(echo));
    std::vector<std::thread> senders;
    const std::string chunk(4096, 'm');
    for (int t = 0; t < 4; t++)
        senders.emplace_back([&] {
            for (int i = 0; i < 200; i++)
                vesk_utility_toolnet_send(c, chunk.data(), chunk.size(), 0, nullptr);
        });
    usleep(2000);
    EXPECT_EQ(vesk_utility_toolnet_close(c), VESK_OK);
    for (std::thread& t : senders)
        t.join();
    EXPECT_TRUE(wait_for([&] { return echo_in.closes == 1; }));
    EXPECT_EQ(vesk_utility_toolnet_close(sender), VESK_OK);
    EXPECT_EQ(vesk_utility_toolnet_close(echo), VESK_OK);
}
