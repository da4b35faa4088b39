// vesk_utility_diagnose - the diagnose agent: accepts one console at a time on a unix
// socket, reads complete requests without ever blocking its polling thread, and streams the
// output of a client's command back as text messages followed by a finish message.
#include "core/vesk_utility_diagnose.h"

#include <fcntl.h>
#include <poll.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/vesk_utility_diag_wire.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_ground.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

constexpr const char* k_cls = "vesk_diagnose_agent";
constexpr uint32_t k_idle_polls = 20;         // a silent console is dropped after this many polls
constexpr uint32_t k_max_payload = 4096;  // larger requests are not from our console
// Console output waits in a buffer of this size; the socket itself holds 32 KiB more.
constexpr uint32_t k_out_max = 65536;
// How long one request may wait in total for a full buffer to drain before the console is
// dropped as not keeping up: the bound on what a slow console costs the timer thread.
constexpr long long k_stall_budget_ms = 500;
// A request that stays incomplete this long is dropped with its console.
constexpr long long k_partial_ms = 1000;
// Polls come sooner while output waits or a request is half read.
constexpr unsigned k_busy_poll_ms = 50;
constexpr unsigned k_partial_poll_ms = 200;

long long monotonic_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The agent whose command runs on this thread; print() sends through it.
thread_local vesk_diagnose_agent* s_printing_agent = nullptr;

bool poll_readable(int fd, int& err)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv = {0, 0};
    const int n = select(fd + 1, &set, nullptr, nullptr, &tv);
    err = n < 0 ? errno : 0;
    return n > 0;
}

char* copy_text(const char* text)
{
    if (text == nullptr)
        return nullptr;
    const size_t n = strlen(text) + 1;
    char* copy = static_cast<char*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_diag_clients, static_cast<unsigned>(n), 1));
    if (copy == nullptr) {
        VESK_LOG_ERR(k_cls, "malloc %zu fail!\n", n);
        return nullptr;
    }
    memcpy(copy, text, n);
    return copy;
}

}  // namespace

vesk_diagnose_agent::vesk_diagnose_agent(const char* path)
{
    snprintf(m_path, sizeof(m_path), "%s", path);
    m_listen_fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (m_listen_fd < 1) {
        VESK_LOG_ERR(k_cls, "listen_fd fail!");
        m_listen_fd = -1;
        return;
    }
    unlink(m_path);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", m_path);
    if (bind(m_listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        VESK_LOG_ERR(k_cls, "bind %s fail!\n", m_path);
        close(m_listen_fd);
        m_listen_fd = -1;
        unlink(m_path);
        return;
    }
    // Only the owner may connect: a console can read everything the process holds.
    chmod(m_path, 0600);
    fcntl(m_listen_fd, F_SETFL, fcntl(m_listen_fd, F_GETFL) | O_NONBLOCK);
    if (listen(m_listen_fd, 1) != 0) {
        VESK_LOG_ERR(k_cls, "listen %s fail!\n", m_path);
        close(m_listen_fd);
        m_listen_fd = -1;
        unlink(m_path);
    }
}

vesk_diagnose_agent::~vesk_diagnose_agent()
{
    close_connection();
    if (m_listen_fd >= 0) {
        close(m_listen_fd);
        unlink(m_path);
    }
    for (client_node* n = m_head; n != nullptr;) {
        client_node* next = n->next;
        vesk_free(__FILE__, __func__, n->purpose);
        vesk_free(__FILE__, __func__, n->help);
        vesk_free(__FILE__, __func__, n);
        n = next;
    }
}

VESK_ERR vesk_diagnose_agent::regist_diag(vesk_diagnose_client* client, const char* purpose, const char* help)
{
    std::lock_guard<std::mutex> guard(m_lock);
    for (client_node* n = m_head; n != nullptr; n = n->next) {
        if (n->client == client) {
            VESK_LOG_WARN(k_cls, "repeat, why?");
            return VESK_OK;
        }
    }
    client_node* node = static_cast<client_node*>(
        vesk_malloc(VESK_USER_UTILITY, k_purpose_diag_clients, sizeof(client_node), vesk_obj_align<client_node>()));
    if (node == nullptr) {
        VESK_LOG_ERR(k_cls, "malloc %zu fail!\n", sizeof(client_node));
        return VESK_OK;
    }
    node->client = client;
    node->purpose = copy_text(purpose);
    node->help = copy_text(help);
    node->pre = nullptr;
    node->next = m_head;
    if (m_head != nullptr)
        m_head->pre = node;
    m_head = node;
    VESK_ASSERT(node != node->pre);
    if (node->next != nullptr)  // a lone head has both links NULL
        VESK_ASSERT(node->next != node->pre);
    VESK_ASSERT(node != node->next);
    return VESK_OK;
}

void vesk_diagnose_agent::close_connection()
{
    if (m_com_fd >= 0)
        close(m_com_fd);
    m_com_fd = -1;
    vesk_free(__FILE__, __func__, m_out);
    m_out = nullptr;
    m_out_head = 0;
    m_out_len = 0;
    m_partial_since = 0;
}

bool vesk_diagnose_agent::flush()
{
    while (m_out_len > m_out_head) {
        const ssize_t n = send(m_com_fd, m_out + m_out_head, m_out_len - m_out_head, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            m_out_head += static_cast<uint32_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return true;
        VESK_LOG_WARN(k_cls, "write err[%d,%s], console dropped\n", errno, strerror(errno));
        close_connection();
        return false;
    }
    m_out_head = 0;
    m_out_len = 0;
    return true;
}

bool vesk_diagnose_agent::queue(const void* data, uint32_t len)
{
    if (m_com_fd == -1)
        return false;
    // Waits for room only within what is left of the request's stall budget.
    while (m_out_len - m_out_head + len > k_out_max) {
        const long long left = m_stall_deadline - monotonic_ms();
        pollfd p = {m_com_fd, POLLOUT, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) {
            VESK_LOG_WARN(k_cls, "console does not keep up, %u bytes waiting, dropped\n", m_out_len - m_out_head);
            close_connection();
            return false;
        }
        if (!flush())
            return false;
    }
    if (m_out_len + len > k_out_max) {
        memmove(m_out, m_out + m_out_head, m_out_len - m_out_head);
        m_out_len -= m_out_head;
        m_out_head = 0;
    }
    memcpy(m_out + m_out_len, data, len);
    m_out_len += len;
    return flush();
}

vesk_timer_ret_code utility_diagnose_thread(void* userParam, unsigned int* next_ms, vesk_timer_task_type* task_type)
{
    (void)task_type;
    VESK_ASSERT(userParam != NULL);
    *next_ms = static_cast<vesk_diagnose_agent*>(userParam)->work();
    return VESK_TIMER_RET_CONTINUE;
}

unsigned vesk_diagnose_agent::work()
{
    int err = 0;
    if (m_com_fd == -1) {
        if (m_listen_fd < 0)
            return k_poll_ms;
        const bool ready = poll_readable(m_listen_fd, err);
        if (err != 0) {
            VESK_LOG_ERR_REPEAT(k_cls, "select err = %d!\n", err);
            return k_poll_ms;
        }
        if (!ready)
            return k_poll_ms;
        const int fd = accept(m_listen_fd, nullptr, nullptr);
        if (fd < 0) {
            VESK_LOG_WARN_REPEAT(k_cls, "accept fail!");
            return k_poll_ms;
        }
        m_out = static_cast<char*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_diag_scratch, k_out_max, 1));
        if (m_out == nullptr) {
            VESK_LOG_ERR(k_cls, "malloc %u fail!\n", k_out_max);
            close(fd);
            return k_poll_ms;
        }
        VESK_LOG_WARN(k_cls, "accept ok!");
        m_com_fd = fd;
        m_idle_cnt = 0;
        // Output never blocks the polling thread: it waits in m_out instead (see queue).
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        // Keep-alive options are meaningful only for a TCP transport; failures are ignored.
        int on = 1, idle = 60, intvl = 15, cnt = 4, rcvbuf = 4096, sndbuf = 32768;
        setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
        setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle));
        setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &intvl, sizeof(intvl));
        setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &cnt, sizeof(cnt));
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof(sndbuf));
    }

    // Output left over from the last request goes first; the console is not idle meanwhile.
    if (m_out_len > m_out_head) {
        if (!flush())
            return k_poll_ms;
        if (m_out_len > m_out_head)
            return k_busy_poll_ms;
    }
    // A half request has its own time-out; the polls meanwhile come faster and are not idle.
    if (m_partial_since == 0 && ++m_idle_cnt >= k_idle_polls) {
        close_connection();
        return k_poll_ms;
    }
    pollfd p = {m_com_fd, POLLIN | POLLRDHUP, 0};
    const int polled = poll(&p, 1, 0);
    if (polled < 0) {
        err = errno;
        VESK_LOG_WARN(k_cls, "err[%d,%s]\n", err, strerror(err));
        close_connection();
        return k_poll_ms;
    }
    if (polled == 0 || p.revents == 0)
        return k_poll_ms;
    // The console closed or shut its sending side: what it left can never become a request.
    const bool hung_up = (p.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
    int avail = 0;
    if (ioctl(m_com_fd, FIONREAD, &avail) != 0 || avail == 0) {
        // Readable with nothing to read: the console closed its end.
        VESK_LOG_ERR(k_cls, "slelect ok buf FIONREAD fail!");
        close_connection();
        return k_poll_ms;
    }
    vesk_diag_msg_head head;
    ssize_t n = -1;
    if (avail >= static_cast<int>(sizeof(head))) {
        n = recv(m_com_fd, &head, sizeof(head), MSG_PEEK | MSG_DONTWAIT);
        // A payload no request can have is treated like a wrong magic: not our console.
        if (n != static_cast<ssize_t>(sizeof(head)) || head.magic != k_diag_magic || head.len > k_max_payload) {
            close_connection();
            return k_poll_ms;
        }
    }
    if (n < 0 || sizeof(head) + head.len > static_cast<size_t>(avail)) {
        const long long now = monotonic_ms();
        if (m_partial_since == 0)
            m_partial_since = now;
        if (hung_up || now - m_partial_since >= k_partial_ms) {
            VESK_LOG_WARN(k_cls, "socket_data_len = %d, request %s, dropped\n", avail,
                hung_up ? "cut by the console's close" : "incomplete for too long");
            close_connection();
            return k_poll_ms;
        }
        VESK_LOG_WARN(k_cls, "socket_data_len = %d need more!\n", avail);
        return k_partial_poll_ms;
    }
    m_partial_since = 0;
    n = recv(m_com_fd, &head, sizeof(head), 0);
    if (n != static_cast<ssize_t>(sizeof(head))) {
        VESK_LOG_WARN(k_cls, "rd_len = %d socket err!\n", static_cast<int>(n));
        close_connection();
        return k_poll_ms;
    }
    int32_t args[k_max_payload / sizeof(int32_t)] = {};
    if (head.len > 0) {
        n = recv(m_com_fd, args, head.len, 0);
        if (n != static_cast<ssize_t>(head.len)) {
            VESK_LOG_WARN(k_cls, "rd_len = %d msg_len = %d, err!\n", static_cast<int>(n), head.len);
            close_connection();
            return k_poll_ms;
        }
    }
    m_idle_cnt = 0;
    dispatch(head.seq, head.cmd, args, head.len / sizeof(int32_t));
    if (m_com_fd == -1)
        return k_poll_ms;
    return m_out_len > m_out_head ? k_busy_poll_ms : k_poll_ms;
}

vesk_diagnose_agent::client_node* vesk_diagnose_agent::find(client_node* head, int32_t idx)
{
    int32_t i = 0;
    for (client_node* n = head; n != nullptr; n = n->next, i++)
        if (i == idx)
            return n;
    return nullptr;
}

void vesk_diagnose_agent::dispatch(uint32_t seq, uint32_t cmd, const int32_t* args, uint32_t nargs)
{
    if (cmd < k_diag_cmd_list || cmd > k_diag_cmd_run) {
        VESK_LOG_ERR(k_cls, "not support cmd 0x%x\n", cmd);
        return;
    }
    // A missing argument reads as index -1 / para 0: "not find" rather than a guess.
    const int32_t idx = nargs >= 1 ? args[0] : -1;
    const int32_t para = nargs >= 2 ? args[1] : 0;
    vesk_diagnose_agent* const outer = s_printing_agent;
    s_printing_agent = this;
    m_stall_deadline = monotonic_ms() + k_stall_budget_ms;
    // The lock is held only to read the head: registrations never wait for a console.
    client_node* head = nullptr;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        head = m_head;
    }
    {
        if (cmd == k_diag_cmd_list) {
            print("-------------------------------------------------------\n");
            int32_t i = 0;
            for (client_node* n = head; n != nullptr; n = n->next, i++) {
                if (n->purpose != nullptr)
                    print("client idx = %d  purpose = '%s'\n", i, n->purpose);
                else
                    print("client idx = %d purpose = 'unknow'\n", i);
            }
            print("-------------------------------------------------------\n");
        } else if (cmd == k_diag_cmd_help) {
            client_node* n = find(head, idx);
            if (n == nullptr) {
                print("sorry, client idx %d, not find!\n\n", idx);
            } else {
                if (n->purpose != nullptr)
                    print("purpose is '%s'\n", n->purpose);
                else
                    print("purpose is 'unknow'\n");
                if (n->help != nullptr)
                    print("help:\n%s\n", n->help);
                else
                    print("help: nothing\n");
            }
        } else {
            client_node* n = find(head, idx);
            if (n != nullptr && n->client != nullptr)
                n->client->diagnose(para, print);
        }
    }
    s_printing_agent = outer;
    send_finish(seq);
}

VESK_ERR vesk_diagnose_agent::send_text(const char* text)
{
    if (m_com_fd == -1) {
        VESK_LOG_ERR(k_cls, "m_com_fd == -1");
        return VESK_ERR_OPERATE_FAIL;
    }
    char buf[sizeof(vesk_diag_msg_head) + k_diag_text_max];
    const size_t len = strnlen(text, k_diag_text_max - 1);
    const vesk_diag_msg_head head = {k_diag_magic, 0, k_diag_ans_text, static_cast<uint32_t>(len + 1)};
    memcpy(buf, &head, sizeof(head));
    memcpy(buf + sizeof(head), text, len);
    buf[sizeof(head) + len] = '\0';
    return queue(buf, static_cast<uint32_t>(sizeof(head) + len + 1)) ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

void vesk_diagnose_agent::send_finish(uint32_t seq)
{
    if (m_com_fd == -1) {
        VESK_LOG_ERR(k_cls, "m_com_fd == -1");
        return;
    }
    const vesk_diag_msg_head head = {k_diag_magic, seq, k_diag_ans_finish, 0};
    queue(&head, sizeof(head));
}

int vesk_diagnose_agent::print(const char* fmt, ...)
{
    char text[k_diag_text_max];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    vesk_diagnose_agent* agent = s_printing_agent;
    if (agent == nullptr) {
        VESK_LOG_ERR(k_cls, "m_com_fd == -1");
        return static_cast<int>(VESK_ERR_OPERATE_FAIL);
    }
    return static_cast<int>(agent->send_text(text));
}

}  // namespace vesk_utility
