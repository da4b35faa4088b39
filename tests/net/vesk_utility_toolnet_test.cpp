// Toolnet: echo against socat over UDP, TCP and multicast in both directions, handles and
// their reuse, 10,000 open/close cycles that leave nothing behind, closes from a handle's own
// callback and from other threads while callbacks run, the debug switches, and the lists on
// the console through the timer's commands.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_log.h"
#include "net/vesk_utility_toolnet.h"
#include "proxy_server_process.h"
#include "sched/vesk_utility_timer.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::wait_for;

namespace
{

// A background `sh -c cmd`, killed (with its process group) when this goes.
class bg_process
{
public:
    explicit bg_process(const std::string& cmd)
    {
        m_pid = fork();
        if (m_pid == 0) {
            setpgid(0, 0);
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~bg_process()
    {
        if (m_pid > 0) {
            kill(-m_pid, SIGKILL);
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    // Waits for the exit; its status, or -1.
    int wait()
    {
        int status = 0;
        for (int i = 0; i < vesk_test::k_deadline_ms / 10; i++)
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            else
                usleep(10000);
        return -1;
    }

private:
    pid_t m_pid = -1;
};

std::string s_dir;

std::string file_path(const std::string& name)
{
    return s_dir + "/" + name;
}

std::string random_bytes(size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (char& c : s)
        c = static_cast<char>(rng());
    return s;
}

void write_file(const std::string& path, const std::string& data)
{
    std::ofstream(path, std::ios::binary) << data;
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

unsigned open_fds()
{
    unsigned n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr)
        n++;
    closedir(d);
    return n;
}

unsigned socket_nodes()
{
    return vesk_ground::instance()->registry().list_size(VESK_LIST_SOCKET);
}

vesk_toolnet* toolnet()
{
    return vesk_utility_res_manage::instance()->get_toolnet();
}

// What a socket received, collected from the event thread.
struct inbox {
    std::mutex lock;
    std::string data;
    int datagrams = 0;
    std::atomic<int> closes {0};
    std::atomic<int> close_err {-1};
    bool echo = false;
    std::atomic<int> echo_fail {0};
    std::string echo_ip; // UDP echo to this group/port instead of the sender
    unsigned short echo_port = 0;

    size_t size()
    {
        std::lock_guard<std::mutex> g(lock);
        return data.size();
    }
    std::string text()
    {
        std::lock_guard<std::mutex> g(lock);
        return data;
    }
};

void on_recv(vesk_toolnet_handle h, const void* data, unsigned len, const sockaddr* from, unsigned from_len, void* arg)
{
    inbox* in = static_cast<inbox*>(arg);
    {
        std::lock_guard<std::mutex> g(in->lock);
        in->data.append(static_cast<const char*>(data), len);
        in->datagrams++;
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

vesk_toolnet_handle open_udp(inbox* in, const char* group = nullptr, unsigned short port = 0, const char* name = "t_udp")
{
    vesk_toolnet_udp_param p {};
    p.usr_id = 0x77;
    p.name = name;
    p.local_ip = group != nullptr ? "0.0.0.0" : "127.0.0.1";
    p.local_port = port;
    p.multicast_group = group;
    p.multicast_if = group != nullptr ? "127.0.0.1" : nullptr;
    p.on_recv = in != nullptr ? on_recv : nullptr;
    p.arg = in;
    vesk_toolnet_handle h = 0;
    EXPECT_EQ(vesk_utility_toolnet_open_udp(&p, &h), VESK_OK);
    return h;
}

vesk_toolnet_handle listen_tcp(inbox* in, vesk_toolnet_accept_cb accept = nullptr)
{
    vesk_toolnet_listen_param p {};
    p.usr_id = 0x77;
    p.name = "t_listen";
    p.local_ip = "127.0.0.1";
    p.on_accept = accept;
    p.on_recv = on_recv;
    p.on_close = on_close;
    p.arg = in;
    vesk_toolnet_handle h = 0;
    EXPECT_EQ(vesk_utility_toolnet_listen_tcp(&p, &h), VESK_OK);
    return h;
}

vesk_toolnet_handle connect_tcp(inbox* in, unsigned short port, VESK_ERR expect = VESK_OK)
{
    vesk_toolnet_connect_param p {};
    p.usr_id = 0x77;
    p.name = "t_conn";
    p.remote_ip = "127.0.0.1";
    p.remote_port = port;
    p.on_recv = on_recv;
    p.on_close = on_close;
    p.arg = in;
    vesk_toolnet_handle h = 0;
    EXPECT_EQ(vesk_utility_toolnet_connect_tcp(&p, &h), expect);
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
        m_fds = open_fds();
        m_nodes = socket_nodes();
    }
    // Every test leaves no socket, registry node or descriptor behind.
    void TearDown() override
    {
        if (IsSkipped())
            return;
        EXPECT_TRUE(wait_for([&] {
            return toolnet()->open_count(VESK_TOOLNET_UDP) + toolnet()->open_count(VESK_TOOLNET_TCP_LISTEN)
                + toolnet()->open_count(VESK_TOOLNET_TCP_CONN)
                == 0;
        }));
        EXPECT_EQ(socket_nodes(), m_nodes);
        EXPECT_EQ(open_fds(), m_fds);
    }
    unsigned m_fds = 0, m_nodes = 0;
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
    const std::string out = vesk_test::capture_stdout([] { toolnet()->toolnet_diagnose(1, vesk_print_stdout); });
    EXPECT_NE(out.find("Toolnet not started"), std::string::npos) << out;
}

TEST_F(ToolnetTest, UdpEchoesAgainstSocatBothWays)
{
    // Toolnet echoes what socat sends, a whole 60000-byte datagram included.
    inbox echo;
    echo.echo = true;
    const vesk_toolnet_handle server = open_udp(&echo);
    EXPECT_EQ(server >> 16, VESK_TOOLNET_UDP);
    for (size_t size : {1u, 1472u, 60000u}) {
        const std::string payload = random_bytes(size, static_cast<unsigned>(size));
        write_file(file_path("udp.in"), payload);
        bg_process client("socat -b 65536 -t 60 - UDP4:127.0.0.1:" + std::to_string(port_of(server)) + " < "
            + file_path("udp.in") + " > " + file_path("udp.out"));
        ASSERT_TRUE(wait_for([&] { return vesk_test::read_file(file_path("udp.out")).size() >= size; })) << size;
        EXPECT_EQ(vesk_test::read_file(file_path("udp.out")), payload);
    }
    EXPECT_EQ(echo.echo_fail.load(), 0);
    EXPECT_EQ(vesk_utility_toolnet_close(server), VESK_OK);
    EXPECT_EQ(vesk_utility_toolnet_close(server), VESK_ERR_INVALID_PARAM);

    // Toolnet sends to a socat echo server by address text and receives the answers.
    inbox answers;
    const unsigned short port = free_port(SOCK_DGRAM);
    bg_process socat("socat -b 65536 UDP4-RECVFROM:" + std::to_string(port) + ",fork PIPE");
    const vesk_toolnet_handle client = open_udp(&answers);
    const std::string probe = "probe";
    ASSERT_TRUE(wait_for([&] {
        vesk_utility_toolnet_send_to(client, probe.data(), probe.size(), "127.0.0.1", port);
        return wait_for([&] { return answers.size() > 0; }, 100);
    }));
    const std::string big = random_bytes(50000, 7);
    answers.data.clear();
    ASSERT_EQ(vesk_utility_toolnet_send_to(client, big.data(), big.size(), "127.0.0.1", port), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return answers.size() >= big.size(); }));
    EXPECT_EQ(answers.text().substr(answers.size() - big.size()), big);
    EXPECT_EQ(vesk_utility_toolnet_send_to(client, "x", 1, "localhost", port), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_toolnet_close(client), VESK_OK);
}

TEST_F(ToolnetTest, MulticastEchoesAgainstSocat)
{
#if defined(VESK_TEST_EMULATED)
    GTEST_SKIP() << "qemu-user does not translate IP_MULTICAST_IF";
#endif
    // socat sends to the group Toolnet joined; Toolnet echoes to the group's next port, where a
    // socat member listens. The sender repeats until the member has heard an echo.
    const unsigned short port = free_port(SOCK_DGRAM), back = free_port(SOCK_DGRAM);
    inbox in;
    in.echo = true;
    in.echo_ip = "239.255.71.7";
    in.echo_port = back;
    const vesk_toolnet_handle h = open_udp(&in, "239.255.71.7", port, "t_mcast");
    bg_process member("socat -u UDP4-RECV:" + std::to_string(back) + ",reuseaddr,ip-add-membership=239.255.71.7:127.0.0.1 - > "
        + file_path("mc.out"));
    bg_process sender("while :; do echo multicast-hello | socat -u - UDP4-DATAGRAM:239.255.71.7:" + std::to_string(port)
        + ",ip-multicast-if=127.0.0.1; sleep 0.1; done");
    ASSERT_TRUE(wait_for([&] { return vesk_test::read_file(file_path("mc.out")).size() >= 16; }));
    EXPECT_EQ(vesk_test::read_file(file_path("mc.out")).substr(0, 16), "multicast-hello\n");
    EXPECT_EQ(in.text().substr(0, 16), "multicast-hello\n");
    // A group that is not multicast, or a family mix, is refused before any socket exists.
    vesk_toolnet_udp_param p {};
    p.multicast_group = "10.1.2.3";
    vesk_toolnet_handle bad = 0;
    EXPECT_EQ(vesk_utility_toolnet_open_udp(&p, &bad), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_OK);
}

TEST_F(ToolnetTest, TcpEchoesAgainstSocatBothWays)
{
    // socat sends 1 MiB through a Toolnet listener that echoes it; the peer's end reaches the
    // connection's close callback once, with 0.
    inbox echo;
    echo.echo = true;
    const vesk_toolnet_handle listener = listen_tcp(&echo);
    const std::string payload = random_bytes(1 << 20, 3);
    write_file(file_path("tcp.in"), payload);
    bg_process client("socat -b 65536 -t 60 - TCP4:127.0.0.1:" + std::to_string(port_of(listener)) + " < "
        + file_path("tcp.in") + " > " + file_path("tcp.out"));
    EXPECT_EQ(client.wait(), 0);
    EXPECT_TRUE(vesk_test::read_file(file_path("tcp.out")) == payload);
    EXPECT_EQ(echo.echo_fail.load(), 0);
    EXPECT_TRUE(wait_for([&] { return echo.closes == 1; }));
    EXPECT_EQ(echo.close_err.load(), 0);

    // Toolnet connects to socat twice: once to send it 1 MiB (socat stores it), once to be sent
    // 1 MiB (then socat ends the connection, which reaches the close callback).
    const unsigned short sink_port = free_port(SOCK_STREAM), source_port = free_port(SOCK_STREAM);
    bg_process sink("socat -u TCP4-LISTEN:" + std::to_string(sink_port) + ",reuseaddr OPEN:" + file_path("sink.bin")
        + ",creat,trunc");
    bg_process source("socat -u OPEN:" + file_path("tcp.in") + " TCP4-LISTEN:" + std::to_string(source_port) + ",reuseaddr");
    inbox answers, quiet;
    vesk_toolnet_connect_param p {};
    p.remote_ip = "127.0.0.1";
    p.on_recv = on_recv;
    p.on_close = on_close;
    p.arg = &quiet;
    p.remote_port = sink_port;
    vesk_toolnet_handle conn = 0;
    ASSERT_TRUE(wait_for([&] { return vesk_utility_toolnet_connect_tcp(&p, &conn) == VESK_OK; }));
    EXPECT_EQ(conn >> 16, VESK_TOOLNET_TCP_CONN);
    unsigned sent = 0;
    ASSERT_EQ(vesk_utility_toolnet_send(conn, payload.data(), payload.size(), 0, &sent), VESK_OK);
    EXPECT_EQ(sent, payload.size());
    EXPECT_EQ(vesk_utility_toolnet_close(conn), VESK_OK);
    EXPECT_EQ(sink.wait(), 0);
    EXPECT_TRUE(vesk_test::read_file(file_path("sink.bin")) == payload);
    EXPECT_EQ(quiet.closes.load(), 0); // our own close is no peer's end
    p.remote_port = source_port;
    p.arg = &answers;
    ASSERT_TRUE(wait_for([&] { return vesk_utility_toolnet_connect_tcp(&p, &conn) == VESK_OK; }));
    ASSERT_TRUE(wait_for([&] { return answers.closes == 1; }));
    EXPECT_EQ(answers.close_err.load(), 0);
    EXPECT_TRUE(answers.text() == payload) << answers.size();
    EXPECT_EQ(vesk_utility_toolnet_close(conn), VESK_ERR_INVALID_PARAM); // freed after its callback
    EXPECT_EQ(vesk_utility_toolnet_close(listener), VESK_OK);
    // Nothing listens there: refused, not hung, and no handle.
    EXPECT_EQ(connect_tcp(&answers, free_port(SOCK_STREAM), VESK_ERR_OPERATE_FAIL), 0u);
}

TEST_F(ToolnetTest, HandlesAreReusedLastAndTablesAreBounded)
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
    const vesk_toolnet_handle first = open_udp(nullptr), second = open_udp(nullptr);
    EXPECT_EQ(first, all[10]); // the only free ones, in the order they were freed
    EXPECT_EQ(second, all[20]);
    all[10] = first;
    all[20] = second;
    for (vesk_toolnet_handle h : all)
        EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_OK);
    const vesk_toolnet_handle again = open_udp(nullptr);
    EXPECT_NE(again, all[20]); // the last freed is not the next given
    EXPECT_EQ(vesk_utility_toolnet_close(again), VESK_OK);
    // Handles of no socket, of the wrong kind, or never valid.
    for (vesk_toolnet_handle h : {0u, 0x10000u, 0x40001u, 0x1FFFFu, all[0]})
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
    const unsigned short lport = port_of(listener);
    for (int i = 0; i < 10000; i++) {
        const vesk_toolnet_handle h = open_udp(&udp_in);
        vesk_utility_toolnet_send_to(h, "c", 1, "127.0.0.1", port_of(h));
        ASSERT_EQ(vesk_utility_toolnet_close(h), VESK_OK) << i;
        if (i % 10 == 0) {
            const vesk_toolnet_handle c = connect_tcp(&conn_in, lport);
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

struct self_closer {
    std::atomic<int> calls {0};
    std::atomic<VESK_ERR> ret {1};
    std::atomic<VESK_ERR> again {1};
};

void close_self(vesk_toolnet_handle h, const void*, unsigned, const sockaddr*, unsigned, void* arg)
{
    self_closer* s = static_cast<self_closer*>(arg);
    s->calls++;
    s->ret = vesk_utility_toolnet_close(h);
    s->again = vesk_utility_toolnet_close(h); // still ending: nothing more
}

struct slow_recv {
    std::atomic<bool> inside {false};
    std::atomic<bool> finished {false};
};

void recv_slowly(vesk_toolnet_handle, const void*, unsigned, const sockaddr*, unsigned, void* arg)
{
    slow_recv* s = static_cast<slow_recv*>(arg);
    s->inside = true;
    usleep(300000);
    s->finished = true;
}

VESK_BOOL refuse_odd(vesk_toolnet_handle, vesk_toolnet_handle conn, const sockaddr*, unsigned, void* arg, void** conn_arg)
{
    static std::atomic<int> n {0};
    *conn_arg = arg;
    return n++ % 2 == 0;
    (void)conn;
}

} // namespace

TEST_F(ToolnetTest, ClosesFromOwnCallbacksAndFromOtherThreads)
{
    // A UDP socket closes itself in its first callback: later datagrams find no handle.
    self_closer s;
    vesk_toolnet_udp_param p {};
    p.local_ip = "127.0.0.1";
    p.on_recv = close_self;
    p.arg = &s;
    vesk_toolnet_handle h = 0;
    ASSERT_EQ(vesk_utility_toolnet_open_udp(&p, &h), VESK_OK);
    const unsigned short port = port_of(h);
    inbox none;
    const vesk_toolnet_handle sender = open_udp(&none);
    for (int i = 0; i < 5; i++)
        vesk_utility_toolnet_send_to(sender, "abc", 3, "127.0.0.1", port);
    ASSERT_TRUE(wait_for([&] { return toolnet()->open_count(VESK_TOOLNET_UDP) == 1; }));
    EXPECT_EQ(s.calls.load(), 1);
    EXPECT_EQ(s.ret.load(), VESK_OK);
    EXPECT_EQ(s.again.load(), VESK_OK);

    // A TCP connection closing itself from its receive callback; the listener refuses every
    // second connection in its accept callback (the client then sees the end).
    self_closer conn_self;
    vesk_toolnet_listen_param lp {};
    lp.local_ip = "127.0.0.1";
    lp.on_accept = refuse_odd;
    lp.on_recv = close_self;
    lp.arg = &conn_self;
    vesk_toolnet_handle listener = 0;
    ASSERT_EQ(vesk_utility_toolnet_listen_tcp(&lp, &listener), VESK_OK);
    inbox c1_in, c2_in;
    const vesk_toolnet_handle c1 = connect_tcp(&c1_in, port_of(listener));
    const vesk_toolnet_handle c2 = connect_tcp(&c2_in, port_of(listener));
    vesk_utility_toolnet_send(c1, "1", 1, 0, nullptr);
    vesk_utility_toolnet_send(c2, "2", 1, 0, nullptr);
    // One was taken and closed itself on its byte, the other refused: both clients see the end.
    EXPECT_TRUE(wait_for([&] { return c1_in.closes == 1 && c2_in.closes == 1; }));
    EXPECT_EQ(conn_self.calls.load(), 1);
    EXPECT_EQ(conn_self.ret.load(), VESK_OK);

    // Closing from another thread while the callback runs returns after the callback.
    slow_recv slow;
    p.on_recv = recv_slowly;
    p.arg = &slow;
    ASSERT_EQ(vesk_utility_toolnet_open_udp(&p, &h), VESK_OK);
    vesk_utility_toolnet_send_to(sender, "x", 1, "127.0.0.1", port_of(h));
    ASSERT_TRUE(wait_for([&] { return slow.inside.load(); }));
    EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_OK);
    EXPECT_TRUE(slow.finished.load());

    // Many threads sending on one connection while another closes it: every send either
    // completes or fails, none hangs or writes into a reused descriptor.
    inbox echo_in, many_in;
    echo_in.echo = true;
    const vesk_toolnet_handle echo = listen_tcp(&echo_in);
    const vesk_toolnet_handle c = connect_tcp(&many_in, port_of(echo));
    std::vector<std::thread> senders;
    std::atomic<int> ok {0}, failed {0};
    const std::string chunk(4096, 'm');
    for (int t = 0; t < 4; t++)
        senders.emplace_back([&] {
            for (int i = 0; i < 200; i++)
                (vesk_utility_toolnet_send(c, chunk.data(), chunk.size(), 0, nullptr) == VESK_OK ? ok : failed)++;
        });
    usleep(2000);
    EXPECT_EQ(vesk_utility_toolnet_close(c), VESK_OK);
    for (std::thread& t : senders)
        t.join();
    EXPECT_EQ(ok + failed, 800);
    EXPECT_TRUE(wait_for([&] { return echo_in.closes == 1; }));
    for (vesk_toolnet_handle x : {sender, listener, echo})
        EXPECT_EQ(vesk_utility_toolnet_close(x), VESK_OK);
}

TEST_F(ToolnetTest, DebugSwitchesAndListsThroughTheTimer)
{
    inbox in;
    const vesk_toolnet_handle u = open_udp(&in, nullptr, 0, "t_diag_udp");
    const vesk_toolnet_handle l = listen_tcp(&in);
    vesk_utility_timer* timer = vesk_utility_res_manage::instance()->get_timer();
    std::string out = vesk_test::capture_stdout([&] {
        timer->diagnose(5, vesk_print_stdout); // UDP debug on
        vesk_utility_toolnet_send_to(u, "dbg", 3, "127.0.0.1", port_of(u));
        EXPECT_TRUE(wait_for([&] { return in.size() == 3; }));
        timer->diagnose(6, vesk_print_stdout); // off
        vesk_utility_toolnet_send_to(u, "quiet", 5, "127.0.0.1", port_of(u));
        EXPECT_TRUE(wait_for([&] { return in.size() == 8; }));
    });
    char line[80];
    snprintf(line, sizeof(line), "udp 0x%x: 3 bytes from 127.0.0.1:%u", u, port_of(u));
    EXPECT_EQ(vesk_test::count_of(out, line), 1) << out;
    EXPECT_EQ(vesk_test::count_of(out, "bytes from"), 1) << out;
    (void)l;
    EXPECT_EQ(vesk_utility_toolnet_close(u), VESK_OK);
    EXPECT_EQ(vesk_utility_toolnet_close(l), VESK_OK);
}

#if defined(VESK_DIAG_BIN)
TEST_F(ToolnetTest, ConsoleListsTheUdpAndTcpSocketsThroughTheTimer)
{
    // The agent is polled by its timer task, first 30 s after initialisation; the console's
    // deadline covers that many times over. The timer is client 4 on the console.
    inbox in;
    const vesk_toolnet_handle u = open_udp(&in, nullptr, 0, "t_console_udp");
    const vesk_toolnet_handle l = listen_tcp(&in);
    const vesk_toolnet_handle c = connect_tcp(&in, port_of(l));
    ASSERT_EQ(vesk_utility_toolnet_send_to(u, "12345", 5, "127.0.0.1", port_of(u)), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return in.size() == 5 && toolnet()->open_count(VESK_TOOLNET_TCP_CONN) == 2; }));
    const auto console = [&](const std::string& args) {
        const std::string cmd = "timeout 240 " + std::string(VESK_DIAG_BIN) + " --socket " + vesk_test::private_root()
            + "/usr/lib/libutility.socket " + args;
        FILE* p = popen(cmd.c_str(), "r");
        std::string out;
        for (int ch; p != nullptr && (ch = fgetc(p)) != EOF;)
            out += static_cast<char>(ch);
        EXPECT_EQ(p != nullptr ? pclose(p) : -1, 0) << out;
        return out;
    };
    char row[128];
    const std::string udp = console("run 4 3");
    snprintf(row, sizeof(row), "1     0x%-8x", u);
    EXPECT_NE(udp.find("Toolnet UDP监听任务"), std::string::npos) << udp;
    EXPECT_NE(udp.find(row), std::string::npos) << udp; // row 1 is the handle
    EXPECT_NE(udp.find("t_console_udp"), std::string::npos) << udp;
    snprintf(row, sizeof(row), "127.0.0.1:%-16u-", port_of(u));
    EXPECT_NE(udp.find(row), std::string::npos) << udp; // its local address, no peer
    EXPECT_NE(udp.find("total 1\n"), std::string::npos) << udp;
    const std::string tcp = console("run 4 4");
    EXPECT_NE(tcp.find("Toolnet TCP监听任务"), std::string::npos) << tcp;
    EXPECT_NE(tcp.find("Toolnet TCP连接"), std::string::npos) << tcp;
    snprintf(row, sizeof(row), "127.0.0.1:%u", port_of(l));
    EXPECT_EQ(vesk_test::count_of(tcp, row), 3) << tcp; // the listener, and both ends' addresses
    EXPECT_EQ(vesk_test::count_of(tcp, "total 1\n") + vesk_test::count_of(tcp, "total 2\n"), 2) << tcp;
    // The agent keeps the console's connection: the baseline moves by it, not by our four.
    m_fds = open_fds() - 4;
    for (vesk_toolnet_handle h : {c, l, u})
        EXPECT_EQ(vesk_utility_toolnet_close(h), VESK_OK);
    // The accepted end reports its peer's close into `in`: wait for it while `in` lives.
    EXPECT_TRUE(wait_for([&] { return in.closes == 1; }));
}
#endif
