// The command client against a real proxy server process (and against a bare listener where
// the exact requests matter), the fallback without a server, and the process helpers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/vesk_utility_system.h"
#include "proxy_server_process.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_test;
using testing::HasSubstr;
using vesk_utility::k_cmd_token;
using vesk_utility::vesk_cmd_request;

namespace
{

std::string main_socket()
{
    return private_root() + "/usr/lib/libmodel.socket";
}

// connect() on a fresh socket (SOCK_STREAM | flags) that gives up after 30 s; *rc its result.
int connect_bounded(const std::string& path, int flags, int* rc)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | flags, 0);
    const timeval bound {30, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof(bound));
    sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    *rc = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    return fd;
}

bool peer_closed(int fd)
{
    pollfd p {fd, POLLIN, 0};
    if (poll(&p, 1, 0) <= 0)
        return false;
    char c;
    return (p.revents & POLLHUP) != 0 || recv(fd, &c, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

// Whether the server at path runs a one-piece "true" and answers it.
bool served(const std::string& path, uint32_t magic)
{
    const int fd = connect_unix(path);
    const bool ok = fd >= 0 && send_request(fd, k_cmd_token, magic, "true", 4)
        && read_answer(fd) == static_cast<long long>(magic);
    if (fd >= 0)
        close(fd);
    return ok;
}

// The file behind a stream.
std::string file_of(FILE* fp)
{
    char link[64];
    char name[256] = {};
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fileno(fp));
    return readlink(link, name, sizeof(name) - 1) > 0 ? name : "";
}

} // namespace

TEST(SystemClientTest, LongCommandIsCutInto127CharacterPiecesUnderOneMagic)
{
    const std::string path = private_root() + "/wire.sock";
    const int listener = listen_unix(path);
    ASSERT_GE(listener, 0);
    // Lives on, like the process's own client (which is never destroyed).
    auto* client = never_destroyed(new vesk_utility::vesk_utility_system_client(path.c_str()));
    const int conn = accept(listener, nullptr, nullptr);
    ASSERT_GE(conn, 0);

    const std::string cmd(300, 'x');
    uint32_t magic = 0;
    ASSERT_EQ(0, client->send_msg_kqz_system(cmd.c_str(), &magic));
    const size_t lengths[] = {127, 127, 46};
    for (int i = 0; i < 3; i++) {
        vesk_cmd_request r;
        ASSERT_EQ(static_cast<ssize_t>(sizeof(r)), recv(conn, &r, sizeof(r), MSG_WAITALL));
        EXPECT_EQ(k_cmd_token, r.token);
        EXPECT_EQ(magic, r.magic);
        EXPECT_EQ(i < 2 ? 1u : 0u, r.more);
        EXPECT_EQ(lengths[i], strnlen(r.text, sizeof(r.text)));
    }
    uint32_t second = 0;
    ASSERT_EQ(0, client->send_msg_kqz_system("true", &second));
    EXPECT_NE(magic, second);

    // Answers in one write, collected by one receive step; each waiter finds its own, and one
    // without the token is no answer.
    const vesk_utility::vesk_cmd_answer answers[3] = {{k_cmd_token, 5}, {0x12345678, 6}, {k_cmd_token, 7}};
    ASSERT_EQ(static_cast<ssize_t>(sizeof(answers)), send(conn, answers, sizeof(answers), 0));
    ASSERT_TRUE(wait_for([&] {
        client->rec_answer_msg();
        return client->answer_is_ok(7) == 1;
    }));
    EXPECT_EQ(1, client->answer_is_ok(5));
    EXPECT_EQ(0, client->answer_is_ok(5));
    EXPECT_EQ(0, client->answer_is_ok(6));

    close(conn);
    close(listener);
}

// Invariant: a call returns only after its own command has finished, exactly once, even when
// commands started later finish first and their answers and pieces arrive in between.
TEST(SystemClientTest, ConcurrentThreePieceCallsEachReturnAfterTheirOwnCommand)
{
    proxy_server_process server(main_socket());
    ASSERT_TRUE(server.ready());
    constexpr int k_threads = 6;
    std::vector<std::thread> threads;
    std::vector<std::string> seen(k_threads);
    for (int i = 0; i < k_threads; i++) {
        threads.emplace_back([i, &seen] {
            const std::string file = private_root() + "/conc_" + std::to_string(i);
            std::string cmd = "sleep 0." + std::to_string(k_threads - i) + "; echo " + std::to_string(i) + " >> " + file
                + " # ";
            cmd.append(300 - cmd.size(), 'p');
            if (vesk_utility_system(cmd.c_str()) == VESK_OK)
                seen[i] = read_file(file);
        });
    }
    for (std::thread& t : threads)
        t.join();
    for (int i = 0; i < k_threads; i++)
        EXPECT_EQ(std::to_string(i) + "\n", seen[i]) << "thread " << i;
    EXPECT_TRUE(server.alive());
}

TEST(SystemClientTest, WithoutAServerOrWithItsBacklogFullTheCommandRunsHere)
{
    const std::string out = private_root() + "/local.txt";
    VESK_ERR ret = VESK_ERR_FAIL;
    std::string log = capture_stdout([&] { ret = vesk_utility_system(("echo local > " + out).c_str()); });
    EXPECT_EQ(VESK_OK, ret);
    EXPECT_THAT(log, HasSubstr("fail! use standard system"));
    EXPECT_EQ("local\n", read_file(out));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_system(nullptr));

    // A listener that never accepts, its backlog filled by other connections.
    const std::string path = private_root() + "/full.sock";
    const int listener = listen_unix(path);
    ASSERT_GE(listener, 0);
    ASSERT_EQ(0, listen(listener, 0));
    std::vector<int> fillers;
    for (int rc = 0; rc == 0 && fillers.size() < 16;)
        fillers.push_back(connect_bounded(path, SOCK_NONBLOCK, &rc));
    log = capture_stdout([&] {
        auto* client = never_destroyed(new vesk_utility::vesk_utility_system_client(path.c_str()));
        EXPECT_EQ(0, client->process_system(("echo here > " + out).c_str()));
    });
    EXPECT_THAT(log, HasSubstr("fail! use standard system"));
    EXPECT_EQ("here\n", read_file(out));
    for (int fd : fillers)
        close(fd);
    close(listener);
}

TEST(SystemClientTest, FilePopenReadsEverythingNeverWritesThroughAPlantedLinkAndPcloseRemovesOnlyItsFile)
{
    proxy_server_process server(main_socket());
    ASSERT_TRUE(server.ready());
    const std::string victim = private_root() + "/victim.txt";
    { std::ofstream(victim) << "precious\n"; }
    // The name of a first stream tells the numbers this process takes next: plant links there.
    FILE* fp = vesk_utility_popen("seq 1 2000", "r");
    ASSERT_NE(nullptr, fp);
    std::string name = file_of(fp);
    unsigned long long n = 0;
    ASSERT_EQ(1, sscanf(name.c_str(), "/tmp/vesk_popen_outfile_%llu.txt", &n)) << name;
    int last = 0;
    int lines = 0;
    while (fscanf(fp, "%d", &last) == 1)
        lines++;
    EXPECT_EQ(2000, lines);
    EXPECT_EQ(2000, last);
    EXPECT_EQ(0, vesk_utility_pclose(fp));
    EXPECT_NE(0, access(name.c_str(), F_OK));
    std::vector<std::string> planted {"/tmp/vesk_popen_outfile_1.txt"};
    for (unsigned long long k = n + 1; k <= n + 5; k++)
        planted.push_back("/tmp/vesk_popen_outfile_" + std::to_string(k) + ".txt");
    for (const std::string& p : planted)
        (void)symlink(victim.c_str(), p.c_str());

    fp = vesk_utility_popen("echo x", "r");
    ASSERT_NE(nullptr, fp);
    struct stat st {};
    ASSERT_EQ(0, fstat(fileno(fp), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    char line[16] = {};
    ASSERT_NE(nullptr, fgets(line, sizeof(line), fp));
    EXPECT_STREQ("x\n", line);
    name = file_of(fp);
    EXPECT_EQ(0, vesk_utility_pclose(fp));
    EXPECT_NE(0, access(name.c_str(), F_OK));
    EXPECT_EQ("precious\n", read_file(victim));
    for (const std::string& p : planted) {
        struct stat ls {};
        EXPECT_EQ(0, lstat(p.c_str(), &ls)) << p;
        EXPECT_TRUE(S_ISLNK(ls.st_mode)) << p;
        unlink(p.c_str());
    }
    // A stream that did not come from the file popen is closed and nothing is removed.
    EXPECT_EQ(-1, vesk_utility_pclose(fopen(victim.c_str(), "r")));
    EXPECT_EQ("precious\n", read_file(victim));
    EXPECT_EQ(nullptr, vesk_utility_popen(nullptr, "r"));
}

TEST(ProcessHelperTest, ExeCmdCapturesWithinTheBufferAndTimesOutAndPopenTakesReadOrWrite)
{
    char buf[64];
    ASSERT_EQ(VESK_OK, vesk_utility_exe_cmd("echo hello; echo world", 30000, buf, sizeof(buf)));
    EXPECT_STREQ("hello\nworld\n", buf);

    // Never past buf_size, and still a string: the byte after the buffer keeps its guard.
    memset(buf, 'Z', sizeof(buf));
    std::string log
        = capture_stdout([&] { EXPECT_EQ(VESK_OK, vesk_utility_exe_cmd("yes 0123456789", 30000, buf, 8)); });
    EXPECT_STREQ("0123456", buf);
    EXPECT_EQ('Z', buf[8]);
    EXPECT_THAT(log, HasSubstr("Output Info Size May Be Overflow"));

    // A command that outlives its time is ended, and the call returns.
    VESK_ERR ret = VESK_OK;
    capture_stdout([&] { ret = vesk_utility_exe_cmd("sleep 600", 200, buf, sizeof(buf)); });
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, ret);

    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_exe_cmd("true", 10, buf, 0));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_exe_cmd(nullptr, 10, buf, sizeof(buf)));

    // The pipe popen accepts only "r" or "w".
    int fd = 0;
    int pid = 0;
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility::popen_ex("true", "rw", &fd, &pid));
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(-1, pid);
    capture_stdout([&] { ret = vesk_utility_popen("true", "", &fd, &pid); });
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, ret);
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_popen("true", "r", nullptr, &pid));
    ASSERT_EQ(VESK_OK, vesk_utility_popen("echo abc", "r", &fd, &pid));
    memset(buf, 0, sizeof(buf));
    ASSERT_TRUE(wait_for([&] { return read(fd, buf, sizeof(buf) - 1) > 0; }));
    EXPECT_STREQ("abc\n", buf);
    EXPECT_EQ(VESK_OK, vesk_utility_pclose(fd, pid));
    // Reaped: the pid is no child of ours any more.
    EXPECT_EQ(-1, waitpid(pid, nullptr, WNOHANG));
}

TEST(ProxyServerTest, RefusesAnotherUserAndSurvivesMalformedOrVanishingClients)
{
    // /tmp, not the private root: the other user must be able to reach the socket at all.
    const std::string path = "/tmp/vesk_proxy_peer_" + std::to_string(getpid()) + ".sock";
    proxy_server_process server(path);
    ASSERT_TRUE(server.ready());
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);

    if (getuid() == 0) {
        // Opened up on purpose, so that the peer check itself is what refuses the stranger.
        ASSERT_EQ(0, chmod(path.c_str(), 0666));
        const std::string marker = "/tmp/vesk_proxy_peer_" + std::to_string(getpid()) + ".ran";
        const std::string cmd = "touch " + marker;
        const pid_t child = fork();
        if (child == 0) {
            if (setgid(65534) != 0 || setuid(65534) != 0)
                _exit(10);
            const int fd = connect_unix(path);
            if (fd < 0)
                _exit(11);
            send_request(fd, k_cmd_token, 1, cmd.c_str(), cmd.size());
            _exit(read_answer(fd) == -1 ? 0 : 12); // closed without an answer
        }
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(0, WEXITSTATUS(status));
        EXPECT_NE(0, access(marker.c_str(), F_OK));
    } else {
        GTEST_LOG_(INFO) << "not root: the refusal of another user is not exercised";
    }

    // A wrong token, an unterminated text and a command over 64 KiB each close only their own
    // connection, unanswered.
    const std::string no_nul(vesk_utility::k_cmd_text_size, 'a');
    const std::string piece(127, '#');
    const std::function<bool(int)> malformed[] = {
        [](int fd) { return send_request(fd, 0x12345678, 2, "true", 4); },
        [&](int fd) { return send_request(fd, k_cmd_token, 3, no_nul.data(), no_nul.size()); },
        [&](int fd) {
            bool ok = send_request(fd, k_cmd_token, 3, "true ", 5, 1);
            for (size_t sent = 5; ok && sent <= 65536; sent += piece.size())
                ok = send_request(fd, k_cmd_token, 3, piece.c_str(), piece.size(), sent + piece.size() <= 65536);
            return ok;
        },
    };
    for (const auto& send_bad : malformed) {
        const int bad = connect_unix(path);
        ASSERT_GE(bad, 0);
        send_bad(bad); // the server may close before the last piece of the long one
        EXPECT_EQ(-1, read_answer(bad));
        close(bad);
    }

    // A client that leaves while its command runs: the command still completes.
    const std::string late = private_root() + "/late.txt";
    const std::string late_cmd = "sleep 0.3; echo late > " + late;
    int gone = connect_unix(path);
    ASSERT_GE(gone, 0);
    ASSERT_TRUE(send_request(gone, k_cmd_token, 4, late_cmd.c_str(), late_cmd.size()));
    close(gone);

    // Meanwhile a good client is served, its pieces joined in order.
    const int good = connect_unix(path);
    ASSERT_GE(good, 0);
    ASSERT_TRUE(send_request(good, k_cmd_token, 9, "ech", 3, 1));
    ASSERT_TRUE(send_request(good, k_cmd_token, 9, "o ok", 4, 0));
    EXPECT_EQ(9, read_answer(good));
    close(good);
    EXPECT_TRUE(wait_for([&] { return read_file(late) == "late\n"; }));
    EXPECT_TRUE(server.alive());
    EXPECT_EQ(0, server.stop()); // SIGTERM ends it cleanly
    EXPECT_NE(0, access(path.c_str(), F_OK));
}

TEST(ProxyServerTest, FloodingClientThatNeverReadsIsDroppedAndTheServerGoesOn)
{
    // Recording answers from inside the request handler, running answers from the reaper.
    for (const std::string& extra : {"--record-only " + private_root() + "/flood.txt", std::string()}) {
        const std::string path = private_root() + "/flood.sock";
        proxy_server_process server(path, extra);
        ASSERT_TRUE(server.ready());
        const int fd = connect_unix(path);
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(send_request(fd, k_cmd_token, 1, "tr", 2, 1));
        ASSERT_TRUE(send_request(fd, k_cmd_token, 1, "ue", 2, 0));
        // Requests until the server gives up on this client (it never reads an answer).
        uint32_t magic = 2;
        const bool dropped = wait_for([&] {
            for (int i = 0; i < 64 && !peer_closed(fd); i++) {
                vesk_cmd_request r {};
                r.token = k_cmd_token;
                r.magic = magic;
                memcpy(r.text, "true", 4);
                if (send(fd, &r, sizeof(r), MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(sizeof(r)))
                    magic++;
            }
            return peer_closed(fd);
        });
        close(fd);
        EXPECT_TRUE(dropped) << extra;
        EXPECT_GE(magic, 100u) << "dropped before its answers could have filled the socket";
        EXPECT_TRUE(server.alive()) << extra;
        EXPECT_TRUE(served(path, 77)) << extra;
        EXPECT_EQ(0, server.stop());
    }
}

TEST(ProxyServerTest, OutOfDescriptorsShedsClientsWithoutSpinningAndRecovers)
{
    const std::string path = private_root() + "/emfile.sock";
    proxy_server_process server(path, "", "ulimit -n 32; ");
    ASSERT_TRUE(server.ready());
    std::vector<int> clients;
    for (int i = 0; i < 60; i++) {
        int rc = -1;
        clients.push_back(connect_bounded(path, 0, &rc)); // a connect left waiting fails here
        ASSERT_EQ(0, rc) << i << " " << strerror(errno);
    }
    // Every client is either kept or closed unserved; none stays pending in the backlog.
    EXPECT_TRUE(wait_for([&] {
        int shed = 0;
        for (int fd : clients)
            shed += peer_closed(fd) ? 1 : 0;
        return shed >= 60 - 32;
    }));
    // Idle with a full descriptor table: a spinning loop would burn about a second here
    // (utime + stime are fields 14 and 15 of the stat line).
    const auto cpu_ticks = [&] {
        const std::string stat = read_file("/proc/" + std::to_string(server.pid()) + "/stat");
        unsigned long ut = 0, st = 0;
        sscanf(stat.c_str() + stat.rfind(')') + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &ut, &st);
        return static_cast<long>(ut + st);
    };
    const long before = cpu_ticks();
    usleep(1000000);
    EXPECT_LT(cpu_ticks() - before, sysconf(_SC_CLK_TCK) / 2) << "ticks in one second";
    for (int fd : clients)
        close(fd);
    EXPECT_TRUE(wait_for([&] { return served(path, 78); }));
    EXPECT_TRUE(server.alive());
    EXPECT_EQ(0, server.stop());
}
