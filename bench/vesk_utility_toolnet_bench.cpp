// Toolnet against blocking sockets: UDP round trips over loopback (an echo on Toolnet's event
// thread against an echo thread blocked in recvfrom), TCP throughput (a Toolnet connection
// into a Toolnet listener against a blocking sender and a blocking reader thread), and the
// event thread's CPU use and wake-ups while 64 sockets sit idle.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

constexpr unsigned k_chunk = 65536;
constexpr unsigned k_datagram = 200; // a typical control message

sockaddr_in loopback(unsigned short port)
{
    sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    return a;
}

unsigned short port_of(int fd)
{
    sockaddr_in a {};
    socklen_t len = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

int bound_udp()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = loopback(0);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    return fd;
}

void start()
{
    static bool s_started = vesk_utiltiy_net_start() == VESK_OK;
    if (!s_started)
        abort();
}

// ---- UDP round trips -------------------------------------------------------------------

void round_trips(benchmark::State& state, unsigned short echo_port)
{
    const int client = bound_udp();
    const sockaddr_in to = loopback(echo_port);
    char buf[k_datagram] = {};
    for (auto _ : state) {
        sendto(client, buf, sizeof(buf), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        recv(client, buf, sizeof(buf), 0);
    }
    state.SetItemsProcessed(state.iterations());
    close(client);
}

void baseline_udp_round_trip(benchmark::State& state)
{
    const int echo = bound_udp();
    std::thread t([echo] {
        char buf[k_datagram];
        sockaddr_in from {};
        for (;;) {
            socklen_t len = sizeof(from);
            const ssize_t n = recvfrom(echo, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len);
            if (n <= 0)
                return;
            sendto(echo, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), len);
        }
    });
    round_trips(state, port_of(echo));
    shutdown(echo, SHUT_RDWR);
    t.join();
    close(echo);
}

void echo_back(vesk_toolnet_handle h, const void* data, unsigned len, const sockaddr* from, unsigned from_len, void*)
{
    vesk_utility_toolnet_send_to_addr(h, data, len, from, from_len);
}

void vesk_udp_round_trip(benchmark::State& state)
{
    start();
    vesk_toolnet_udp_param p {};
    p.name = "bench_echo";
    p.local_ip = "127.0.0.1";
    p.on_recv = echo_back;
    vesk_toolnet_handle h = 0;
    unsigned short port = 0;
    if (vesk_utility_toolnet_open_udp(&p, &h) != VESK_OK || vesk_utility_toolnet_local_port(h, &port) != VESK_OK) {
        state.SkipWithError("open_udp");
        return;
    }
    round_trips(state, port);
    vesk_utility_toolnet_close(h);
}

// ---- TCP throughput ----------------------------------------------------------------------

std::atomic<uint64_t> s_received {0};

void count_bytes(vesk_toolnet_handle, const void*, unsigned len, const sockaddr*, unsigned, void*)
{
    s_received.fetch_add(len, std::memory_order_relaxed);
}

void baseline_tcp_throughput(benchmark::State& state)
{
    const int lfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(0);
    bind(lfd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    listen(lfd, 1);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    a = loopback(port_of(lfd));
    connect(client, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    const int server = accept(lfd, nullptr, nullptr);
    std::atomic<uint64_t> got {0};
    std::thread reader([&] {
        static char buf[k_chunk];
        ssize_t n;
        while ((n = recv(server, buf, sizeof(buf), 0)) > 0)
            got.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
    });
    static char chunk[k_chunk];
    uint64_t sent = 0;
    for (auto _ : state) {
        for (size_t done = 0; done < sizeof(chunk);)
            done += static_cast<size_t>(send(client, chunk + done, sizeof(chunk) - done, MSG_NOSIGNAL));
        sent += sizeof(chunk);
    }
    while (got.load() < sent)
        std::this_thread::yield();
    state.SetBytesProcessed(static_cast<int64_t>(sent));
    close(client);
    reader.join();
    close(server);
    close(lfd);
}

void vesk_tcp_throughput(benchmark::State& state)
{
    start();
    vesk_toolnet_listen_param lp {};
    lp.name = "bench_sink";
    lp.local_ip = "127.0.0.1";
    lp.on_recv = count_bytes;
    vesk_toolnet_handle l = 0, c = 0;
    unsigned short port = 0;
    vesk_toolnet_connect_param cp {};
    cp.name = "bench_src";
    cp.remote_ip = "127.0.0.1";
    if (vesk_utility_toolnet_listen_tcp(&lp, &l) != VESK_OK || vesk_utility_toolnet_local_port(l, &port) != VESK_OK
        || (cp.remote_port = port, vesk_utility_toolnet_connect_tcp(&cp, &c)) != VESK_OK) {
        state.SkipWithError("listen/connect");
        return;
    }
    s_received = 0;
    static char chunk[k_chunk];
    uint64_t sent = 0;
    for (auto _ : state) {
        vesk_utility_toolnet_send(c, chunk, sizeof(chunk), 0, nullptr);
        sent += sizeof(chunk);
    }
    while (s_received.load() < sent)
        std::this_thread::yield();
    state.SetBytesProcessed(static_cast<int64_t>(sent));
    vesk_utility_toolnet_close(c);
    vesk_utility_toolnet_close(l);
}

// ---- The idle event thread ---------------------------------------------------------------

// utime + stime (clock ticks) and voluntary context switches of the thread named `name`.
bool thread_usage(const char* name, long* ticks, long* switches)
{
    DIR* d = opendir("/proc/self/task");
    bool found = false;
    for (dirent* e; d != nullptr && !found && (e = readdir(d)) != nullptr;) {
        const std::string dir = std::string("/proc/self/task/") + e->d_name;
        char comm[32] = {};
        FILE* fp = fopen((dir + "/comm").c_str(), "r");
        if (fp == nullptr)
            continue;
        found = fgets(comm, sizeof(comm), fp) != nullptr && strncmp(comm, name, strlen(name)) == 0;
        fclose(fp);
        if (!found)
            continue;
        char line[1024] = {};
        fp = fopen((dir + "/stat").c_str(), "r");
        if (fp != nullptr && fgets(line, sizeof(line), fp) != nullptr) {
            unsigned long ut = 0, st = 0;
            const char* after = strrchr(line, ')');
            sscanf(after + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &ut, &st);
            *ticks = static_cast<long>(ut + st);
        }
        if (fp != nullptr)
            fclose(fp);
        fp = fopen((dir + "/status").c_str(), "r");
        while (fp != nullptr && fgets(line, sizeof(line), fp) != nullptr)
            sscanf(line, "voluntary_ctxt_switches: %ld", switches);
        if (fp != nullptr)
            fclose(fp);
    }
    if (d != nullptr)
        closedir(d);
    return found;
}

// Reported, not compared: CPU milliseconds and wake-ups of the event thread per idle second.
void toolnet_idle_64_sockets(benchmark::State& state)
{
    start();
    vesk_toolnet_handle h[VESK_TOOLNET_UDP_MAX];
    vesk_toolnet_udp_param p {};
    p.name = "bench_idle";
    p.local_ip = "127.0.0.1";
    p.on_recv = echo_back;
    for (vesk_toolnet_handle& x : h)
        vesk_utility_toolnet_open_udp(&p, &x);
    long t0 = 0, s0 = 0, t1 = 0, s1 = 0;
    thread_usage("toolnet_event", &t0, &s0);
    for (auto _ : state)
        sleep(2);
    thread_usage("toolnet_event", &t1, &s1);
    const double seconds = 2.0 * static_cast<double>(state.iterations());
    state.counters["cpu_ms_per_s"] = static_cast<double>(t1 - t0) * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK)) / seconds;
    state.counters["wakeups_per_s"] = static_cast<double>(s1 - s0) / seconds;
    for (vesk_toolnet_handle x : h)
        vesk_utility_toolnet_close(x);
}

} // namespace

BENCHMARK(baseline_udp_round_trip)->UseRealTime();
BENCHMARK(vesk_udp_round_trip)->UseRealTime();
BENCHMARK(baseline_tcp_throughput)->UseRealTime();
BENCHMARK(vesk_tcp_throughput)->UseRealTime();
BENCHMARK(toolnet_idle_64_sockets)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
