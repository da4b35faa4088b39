// The diagnose agent over a real unix socket, and the vesk_diag console against it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "proxy_server_process.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_diag_wire.h"
#include "core/vesk_utility_diagnose.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using testing::HasSubstr;
using vesk_test::wait_for;

namespace
{

// A client that prints what it is asked (600: one over-long line) and remembers it.
class echo_client final : public vesk_diagnose_client
{
public:
    VESK_ERR diagnose(int para, print_fn print) override
    {
        last_para = para;
        if (para == 600) {
            print("%s\n", std::string(600, 'x').c_str());
        } else {
            print("para = %d\n", para);
            print("second line\n");
        }
        return VESK_OK;
    }
    std::atomic<int> last_para {-1};
};

// A dump far larger than every buffer on the way; it holds still after 100 lines until told to
// go on, and records the line at which printing failed.
class dump_client final : public vesk_diagnose_client
{
public:
    VESK_ERR diagnose(int, print_fn print) override
    {
        for (int i = 0; i < 20000; i++) {
            if (i == 100) {
                in_middle = true;
                wait_for([&] { return go_on.load(); });
            }
            if (print("line %05d %s\n", i, std::string(100, 'd').c_str()) != 0) {
                failed_at = i;
                return VESK_OK;
            }
        }
        return VESK_OK;
    }
    std::atomic<bool> in_middle {false}, go_on {false};
    std::atomic<int> failed_at {-1};
};

struct answer {
    std::string text; // the messages' texts joined, each less its NUL
    int messages = 0;
    uint32_t finish_seq = 0;
    bool finished = false;
};

class DiagnoseTest : public testing::Test
{
protected:
    void SetUp() override
    {
        static int n = 0;
        m_path = vesk_test::private_root() + "/diag_" + std::to_string(n++) + ".sock";
        m_agent = new vesk_diagnose_agent(m_path.c_str());
    }
    void TearDown() override
    {
        m_run = false;
        if (m_pump.joinable())
            m_pump.join();
        if (m_fd >= 0)
            close(m_fd);
        delete m_agent;
    }
    // Polls the agent on a thread of its own until the test ends.
    void start_pump()
    {
        m_run = true;
        m_pump = std::thread([this] {
            while (m_run) {
                m_agent->work();
                usleep(2000);
            }
        });
    }
    void connect_console()
    {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = vesk_test::connect_unix(m_path);
        ASSERT_GE(m_fd, 0) << strerror(errno);
        timeval tv = {10, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    }
    void send_raw(const void* data, size_t len) { ASSERT_EQ(send(m_fd, data, len, MSG_NOSIGNAL), (ssize_t)len); }
    void send_request(uint32_t seq, uint32_t cmd, std::vector<int32_t> args = {}, uint32_t magic = k_diag_magic)
    {
        std::vector<char> msg(16 + args.size() * 4);
        const vesk_diag_msg_head h = {magic, seq, cmd, static_cast<uint32_t>(args.size() * 4)};
        memcpy(msg.data(), &h, 16);
        if (!args.empty())
            memcpy(msg.data() + 16, args.data(), args.size() * 4);
        send_raw(msg.data(), msg.size());
    }
    bool read_exact(void* buf, size_t len) { return recv(m_fd, buf, len, MSG_WAITALL) == static_cast<ssize_t>(len); }
    answer read_answer()
    {
        answer a;
        vesk_diag_msg_head h;
        while (read_exact(&h, 16)) {
            EXPECT_EQ(h.magic, k_diag_magic);
            if (h.cmd == k_diag_ans_finish) {
                EXPECT_EQ(h.len, 0u);
                a.finish_seq = h.seq;
                a.finished = true;
                break;
            }
            EXPECT_EQ(h.cmd, k_diag_ans_text);
            EXPECT_EQ(h.seq, 0u);
            std::string text(h.len, '\0');
            if (!read_exact(&text[0], h.len))
                break;
            EXPECT_EQ(text.back(), '\0'); // every text carries its NUL
            a.text.append(text, 0, h.len - 1);
            a.messages++;
        }
        return a;
    }
    // Polls the agent on this thread until the console has something to read (the agent
    // writes a whole answer within one poll), then reads the answer.
    answer exchange()
    {
        for (int i = 0; i < 10; i++) {
            m_agent->work();
            pollfd p = {m_fd, POLLIN, 0};
            if (poll(&p, 1, 0) > 0)
                return read_answer();
        }
        return answer();
    }
    // True when the peer closed (EOF, or a reset when our request was left unread).
    bool closed_by_agent()
    {
        pollfd p = {m_fd, POLLIN, 0};
        if (poll(&p, 1, 10000) <= 0)
            return false;
        char c;
        const ssize_t n = recv(m_fd, &c, 1, MSG_DONTWAIT);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }
    bool nothing_to_read()
    {
        char c;
        return recv(m_fd, &c, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
    }

    std::string m_path;
    vesk_diagnose_agent* m_agent = nullptr;
    std::thread m_pump;
    std::atomic<bool> m_run {false};
    int m_fd = -1;
};

// Runs the console with args: its exit status and everything it printed.
std::pair<int, std::string> console(const std::string& args)
{
    FILE* p = popen((std::string(VESK_DIAG_BIN) + " " + args + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0;)
        out.append(buf, n);
    const int status = p != nullptr ? pclose(p) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

} // namespace

TEST_F(DiagnoseTest, ListHelpAndRunRoundTrips)
{
    echo_client alpha, nameless;
    m_agent->regist_diag(&alpha, "alpha title", "1 first\n2 second");
    m_agent->regist_diag(&nameless, nullptr, nullptr);
    struct stat st;
    ASSERT_EQ(stat(m_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u); // only the owner may connect

    connect_console();
    send_request(11, k_diag_cmd_list);
    answer a = exchange();
    ASSERT_TRUE(a.finished);
    EXPECT_EQ(a.finish_seq, 11u);
    const std::string sep(55, '-');
    EXPECT_EQ(a.text,
        sep + "\nclient idx = 0 purpose = 'unknow'\n" + "client idx = 1  purpose = 'alpha title'\n" + sep + "\n");

    // help and run: each answer finished under its own sequence number.
    const struct {
        uint32_t cmd;
        std::vector<int32_t> args;
        const char* text;
    } rows[] = {
        {k_diag_cmd_help, {1}, "purpose is 'alpha title'\nhelp:\n1 first\n2 second\n"},
        {k_diag_cmd_help, {0}, "purpose is 'unknow'\nhelp: nothing\n"},
        {k_diag_cmd_help, {7}, "sorry, client idx 7, not find!\n\n"},
        {k_diag_cmd_run, {1, 42}, "para = 42\nsecond line\n"},
        {k_diag_cmd_run, {9, 1}, ""}, // a missing client prints nothing but still finishes
    };
    uint32_t seq = 12;
    for (const auto& row : rows) {
        send_request(seq, row.cmd, row.args);
        a = exchange();
        EXPECT_TRUE(a.finished) << row.text;
        EXPECT_EQ(a.finish_seq, seq++);
        EXPECT_EQ(a.text, row.text);
    }
    EXPECT_EQ(alpha.last_para, 42);
    EXPECT_EQ(nameless.last_para, -1);

    // A second registration of the same client is refused.
    const std::string out = vesk_test::capture_stdout([&] { m_agent->regist_diag(&alpha, "again", nullptr); });
    EXPECT_THAT(out, HasSubstr("repeat, why?"));
    send_request(seq, k_diag_cmd_list);
    EXPECT_EQ(vesk_test::count_of(exchange().text, "client idx"), 2);
}

TEST_F(DiagnoseTest, PartialRequestWaitsForItsLastByteAndLongLinesAreCut)
{
    echo_client c;
    m_agent->regist_diag(&c, "c", nullptr);
    connect_console();
    // A header announcing 100 payload bytes, with all but the last sent.
    std::vector<char> msg(16 + 100, 0);
    const vesk_diag_msg_head h = {k_diag_magic, 21, k_diag_cmd_run, 100};
    memcpy(msg.data(), &h, 16);
    const int32_t args[2] = {0, 600};
    memcpy(msg.data() + 16, args, 8);
    send_raw(msg.data(), msg.size() - 1);
    vesk_test::capture_stdout([&] {
        for (int i = 0; i < 3; i++)
            m_agent->work();
    });
    EXPECT_TRUE(m_agent->has_console());
    EXPECT_TRUE(nothing_to_read());
    send_raw(&msg.back(), 1);
    const answer a = exchange();
    ASSERT_TRUE(a.finished);
    EXPECT_EQ(a.finish_seq, 21u);
    EXPECT_EQ(a.messages, 1);
    EXPECT_EQ(a.text, std::string(511, 'x'));
}

TEST_F(DiagnoseTest, MisbehavingConsolesAreDropped)
{
    // An unknown command gets no finish; a wrong magic closes the connection.
    connect_console();
    std::string out = vesk_test::capture_stdout([&] {
        send_request(31, 4);
        send_request(32, k_diag_cmd_list);
        for (int i = 0; i < 3; i++)
            m_agent->work();
    });
    EXPECT_THAT(out, HasSubstr("not support cmd 0x4\n"));
    EXPECT_EQ(read_answer().finish_seq, 32u); // the first finish is the list's
    send_request(33, k_diag_cmd_list, {}, 0x12345678);
    m_agent->work();
    EXPECT_TRUE(closed_by_agent());

    // A silent console goes after twenty polls; without a console, printing fails.
    connect_console();
    for (int i = 0; i < 19; i++)
        m_agent->work(); // the first poll accepts
    EXPECT_TRUE(nothing_to_read());
    m_agent->work();
    EXPECT_TRUE(closed_by_agent());
    out = vesk_test::capture_stdout([&] { EXPECT_NE(m_agent->send_text("x"), VESK_OK); });
    EXPECT_THAT(out, HasSubstr("m_com_fd == -1"));

    // Half a request is dropped when the console closes, or after its time-out.
    const vesk_diag_msg_head h = {k_diag_magic, 61, k_diag_cmd_list, 0};
    connect_console();
    m_agent->work();
    send_raw(&h, 8);
    close(m_fd);
    m_fd = -1;
    vesk_test::capture_stdout([&] { m_agent->work(); });
    EXPECT_FALSE(m_agent->has_console());
    connect_console();
    m_agent->work();
    send_raw(&h, 12);
    vesk_test::capture_stdout([&] {
        EXPECT_TRUE(wait_for([&] {
            m_agent->work();
            return !m_agent->has_console();
        }));
    });
    EXPECT_TRUE(closed_by_agent());
}

TEST_F(DiagnoseTest, LongDumpStopsWhenTheConsoleLeavesOrStallsWhileRegistrationsGoOn)
{
    dump_client dump;
    m_agent->regist_diag(&dump, "dump", nullptr);
    start_pump();
    // A console that leaves after the first line: printing fails and the dump ends.
    dump.go_on = true;
    connect_console();
    send_request(41, k_diag_cmd_run, {0, 1});
    vesk_diag_msg_head h;
    ASSERT_TRUE(read_exact(&h, 16));
    EXPECT_EQ(h.cmd, k_diag_ans_text);
    close(m_fd);
    m_fd = -1;
    ASSERT_TRUE(wait_for([&] { return dump.failed_at.load() >= 0; }));

    // A console that never reads: while the dump prints, a registration must not wait for it
    // (it would wait for ever, since the dump goes on only once the registration is back).
    dump.go_on = false;
    dump.in_middle = false;
    dump.failed_at = -1;
    connect_console();
    send_request(51, k_diag_cmd_run, {0, 1});
    ASSERT_TRUE(wait_for([&] { return dump.in_middle.load(); }));
    echo_client late;
    EXPECT_EQ(m_agent->regist_diag(&late, "late", nullptr), VESK_OK);
    dump.go_on = true;
    ASSERT_TRUE(wait_for([&] { return dump.failed_at.load() >= 0; }));
    EXPECT_TRUE(wait_for([&] { return !m_agent->has_console(); }));
    // The slot is free again: the next console is served, and sees the late client.
    connect_console();
    send_request(52, k_diag_cmd_list);
    const answer a = read_answer();
    EXPECT_EQ(a.finish_seq, 52u);
    EXPECT_THAT(a.text, HasSubstr("client idx = 0  purpose = 'late'\n"));
}

TEST(DiagnoseStartupTest, ProcessAgentListsRegisteredClientsNewestFirstAndTheConsoleFailsClearly)
{
    echo_client mine;
    ASSERT_EQ(vesk_utility_regist_diag(&mine, "my module", "1 show state"), VESK_OK);
    EXPECT_EQ(vesk_utility_regist_diag(nullptr, "x", "y"), VESK_ERR_INVALID_PARAM);
    vesk_diagnose_agent* agent = vesk_ground::instance()->get_diagnose();
    std::atomic<bool> run {true};
    // The process agent is polled by its timer task (first run 30 s after start-up); waking
    // that task keeps the polls coming without a second thread calling work().
    std::thread pump([&] {
        while (run) {
            vesk_utility_c_timer_wakeup(utility_diagnose_thread, agent, 0, VESK_TIMER_TASK_COMMON);
            usleep(2000);
        }
    });
    const std::string path = vesk_test::private_root() + "/usr/lib/libutility.socket";
    const auto ask = [](const std::string& args) {
        const auto r = console(args);
        EXPECT_EQ(r.first, 0) << r.second;
        return r.second;
    };
    std::string out = ask("--socket " + path + " list");
    // The resource manager's place depends on the services built; find it by its title.
    const size_t title = out.find("purpose = '诊断 中间层记录的内存、句柄等'");
    ASSERT_NE(title, std::string::npos) << out;
    const size_t idx_at = out.rfind("client idx = ", title);
    const int res_idx = atoi(out.c_str() + idx_at + strlen("client idx = "));
    out += ask("--socket " + path + " run 0 3");
    out += ask("run " + std::to_string(res_idx) + " 6"); // default path under the root
    run = false;
    pump.join();

    // No socket, or an agent nothing polls (its connection queued but never served).
    auto r = console("--socket /nonexistent/x.sock list");
    EXPECT_EQ(r.first, 1);
    EXPECT_THAT(r.second, HasSubstr("cannot connect to /nonexistent/x.sock: No such file or directory"));
    const std::string idle_path = vesk_test::private_root() + "/idle.sock";
    vesk_diagnose_agent idle(idle_path.c_str());
    r = console("--timeout 1 --socket " + idle_path + " list");
    EXPECT_EQ(r.first, 1);
    EXPECT_THAT(r.second, HasSubstr("no answer from " + idle_path + " within 1 s"));
    // An agent that finishes another request than the one asked.
    const std::string odd_path = vesk_test::private_root() + "/odd.sock";
    const int listener = vesk_test::listen_unix(odd_path);
    ASSERT_GE(listener, 0);
    std::thread odd([listener] {
        const int fd = accept(listener, nullptr, nullptr);
        vesk_diag_msg_head h;
        if (recv(fd, &h, sizeof(h), MSG_WAITALL) == static_cast<ssize_t>(sizeof(h))) {
            h = {k_diag_magic, h.seq + 1, k_diag_ans_finish, 0};
            send(fd, &h, sizeof(h), MSG_NOSIGNAL);
        }
        close(fd);
    });
    r = console("--socket " + odd_path + " list");
    odd.join();
    close(listener);
    EXPECT_EQ(r.first, 1);
    EXPECT_THAT(r.second, HasSubstr("finish for request"));
    EXPECT_THAT(out, HasSubstr("client idx = 0  purpose = 'my module'\n"));
    EXPECT_THAT(out, HasSubstr("client idx = 1  purpose = '"));
    EXPECT_THAT(out, HasSubstr("para = 3\nsecond line\n"));
    EXPECT_THAT(out, HasSubstr("class cnt")); // the resource manager's command 6
    EXPECT_EQ(mine.last_para, 3);
}
