// vesk_proxy_server - runs the shell commands of a process that must not fork itself. Listens
// on the role's command socket, joins each command's 140-byte requests by magic, runs it with
// /bin/sh -c in a child and answers with the magic once the child has ended.
//
// One thread: a poll loop over the listening socket, the connections and a self-pipe that
// carries SIGCHLD, SIGTERM and SIGINT. Commands run concurrently, so a long command never
// delays another connection's answers. Nothing a client does can stall the loop: answers are
// sent without blocking (a client that does not read them is dropped), connections and
// running children are bounded, and running out of descriptors sheds clients. --record-only FILE appends each command to FILE and
// answers at once without running it (tests, and dry runs on a bench board).
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "core/vesk_utility_cmd_joiner.h"
#include "core/vesk_utility_cmd_wire.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_paths.h"

using namespace vesk_utility;

namespace
{

constexpr const char* k_cls = "vesk_proxy_server";
constexpr int k_backlog = 16;
// Bounds on what one client, or many, can make the server hold: connections, and children
// running at once (a flood of requests waits in the clients' sockets instead of forking).
constexpr size_t k_max_conns = 64;
constexpr size_t k_max_children = 32;
// How long accepting pauses when even the spare descriptor cannot be had.
constexpr int k_accept_pause_ms = 100;

int s_signal_pipe[2] = {-1, -1};

void on_signal(int sig)
{
    const int saved = errno;
    const unsigned char c = static_cast<unsigned char>(sig);
    (void)!write(s_signal_pipe[1], &c, 1);
    errno = saved;
}

long long monotonic_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct connection {
    int fd;
    unsigned long id; // never reused, so a late child cannot answer a newer connection
    vesk_cmd_joiner joiner;
    // Set by the handlers instead of removing the connection, which the handler's callers
    // still hold; dead connections are closed and removed after the poll pass (sweep).
    bool dead = false;
};

struct child {
    pid_t pid;
    unsigned long conn_id;
    uint32_t magic;
    std::string command;
};

class proxy_server
{
public:
    proxy_server(std::string path, std::string record)
        : m_path(std::move(path))
        , m_record(std::move(record))
    {
    }
    int run();

private:
    bool listen_socket();
    void accept_one();
    void shed_one();
    void read_from(connection& c);
    void launch(connection& c);
    void answer(unsigned long conn_id, uint32_t magic);
    void reap();
    void mark_dead(connection& c, const char* why);
    void sweep();
    connection* by_id(unsigned long id);

    std::string m_path;
    std::string m_record;
    int m_listen_fd = -1;
    // Kept open so that, out of descriptors, one can be freed to accept and close a client.
    int m_spare_fd = -1;
    long long m_accept_paused_until = 0;
    unsigned long m_next_id = 1;
    std::vector<connection> m_conns;
    std::vector<child> m_children;
};

bool proxy_server::listen_socket()
{
    sockaddr_un addr {};
    if (m_path.size() >= sizeof(addr.sun_path)) {
        VESK_LOG_ERR(k_cls, "socket path too long: %s\n", m_path.c_str());
        return false;
    }
    m_listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_listen_fd < 0)
        return false;
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, m_path.c_str(), m_path.size() + 1);
    unlink(m_path.c_str());
    // Created with mode 0600 from the start: no window in which another user could connect.
    const mode_t old = umask(077);
    const int r = bind(m_listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    umask(old);
    if (r != 0 || chmod(m_path.c_str(), 0600) != 0 || listen(m_listen_fd, k_backlog) != 0) {
        VESK_LOG_ERR(k_cls, "listen on %s fail, %s\n", m_path.c_str(), strerror(errno));
        return false;
    }
    m_spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return true;
}

void proxy_server::accept_one()
{
    const int fd = accept4(m_listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE)
            shed_one();
        return;
    }
    ucred cred {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != getuid()) {
        VESK_LOG_ERR(
            k_cls, "refuse peer pid %d uid %d: not our user\n", static_cast<int>(cred.pid), static_cast<int>(cred.uid));
        close(fd);
        return;
    }
    if (m_conns.size() >= k_max_conns) {
        VESK_LOG_ERR(k_cls, "refuse peer pid %d: %zu connections already\n", static_cast<int>(cred.pid), m_conns.size());
        close(fd);
        return;
    }
    connection c;
    c.fd = fd;
    c.id = m_next_id++;
    m_conns.push_back(std::move(c));
}

// Out of descriptors, the pending client would keep the listening socket readable and the
// loop spinning: free the spare descriptor, accept the client and close it at once. Without
// a spare, accepting pauses for a moment instead.
void proxy_server::shed_one()
{
    if (m_spare_fd >= 0)
        close(m_spare_fd);
    const int fd = accept4(m_listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
        close(fd);
    m_spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    VESK_LOG_ERR(k_cls, "out of descriptors: %s\n", fd >= 0 ? "a client closed unserved" : "accepting paused");
    if (fd < 0 || m_spare_fd < 0)
        m_accept_paused_until = monotonic_ms() + k_accept_pause_ms;
}

connection* proxy_server::by_id(unsigned long id)
{
    for (connection& c : m_conns)
        if (c.id == id && !c.dead)
            return &c;
    return nullptr;
}

void proxy_server::mark_dead(connection& c, const char* why)
{
    if (!c.dead && why != nullptr)
        VESK_LOG_ERR(k_cls, "close connection %lu: %s\n", c.id, why);
    c.dead = true;
}

void proxy_server::sweep()
{
    size_t kept = 0;
    for (size_t i = 0; i < m_conns.size(); i++) {
        if (m_conns[i].dead) {
            close(m_conns[i].fd);
            continue;
        }
        if (kept != i)
            m_conns[kept] = std::move(m_conns[i]);
        kept++;
    }
    m_conns.resize(kept);
}

// Reads at most one request's worth per recv, so that it can stop at the children's bound
// with the rest left in the client's socket.
void proxy_server::read_from(connection& c)
{
    char buf[sizeof(vesk_cmd_request)];
    while (!c.dead && m_children.size() < k_max_children) {
        const ssize_t n = recv(c.fd, buf, sizeof(buf), 0);
        if (n == 0) {
            mark_dead(c, nullptr);
            return;
        }
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                mark_dead(c, strerror(errno));
            return;
        }
        for (size_t at = 0; at < static_cast<size_t>(n) && !c.dead;) {
            size_t used = 0;
            const vesk_cmd_joiner::step s = c.joiner.feed(buf + at, static_cast<size_t>(n) - at, &used);
            at += used;
            const vesk_cmd_request& r = c.joiner.request();
            switch (s) {
            case vesk_cmd_joiner::step::need_more:
                break;
            case vesk_cmd_joiner::step::command:
                launch(c);
                break;
            case vesk_cmd_joiner::step::bad_token:
                VESK_LOG_ERR(k_cls, "connection %lu: token 0x%x\n", c.id, r.token);
                mark_dead(c, nullptr);
                break;
            case vesk_cmd_joiner::step::unterminated:
                VESK_LOG_ERR(k_cls, "connection %lu: unterminated text, magic 0x%x\n", c.id, r.magic);
                mark_dead(c, nullptr);
                break;
            case vesk_cmd_joiner::step::foreign_magic:
                VESK_LOG_ERR(k_cls, "connection %lu: magic 0x%x inside command 0x%x\n", c.id, r.magic,
                    c.joiner.magic());
                mark_dead(c, nullptr);
                break;
            case vesk_cmd_joiner::step::too_long:
                VESK_LOG_ERR(k_cls, "connection %lu: command 0x%x too long\n", c.id, r.magic);
                mark_dead(c, nullptr);
                break;
            }
        }
    }
}

void proxy_server::launch(connection& c)
{
    const uint32_t magic = c.joiner.magic();
    const std::string& command = c.joiner.command();
    if (!m_record.empty()) {
        FILE* fp = fopen(m_record.c_str(), "a");
        if (fp != nullptr) {
            fprintf(fp, "%s\n", command.c_str());
            fclose(fp);
        }
        VESK_LOG_PLAIN(k_cls, "magic 0x%x recorded: %s\n", magic, command.c_str());
        answer(c.id, magic);
        return;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        // Answered all the same: the waiter must not hang for a command that cannot start.
        VESK_LOG_ERR(k_cls, "fork fail for magic 0x%x: %s\n", magic, strerror(errno));
        answer(c.id, magic);
        return;
    }
    if (pid == 0) {
        signal(SIGCHLD, SIG_DFL);
        signal(SIGTERM, SIG_DFL);
        signal(SIGINT, SIG_DFL);
        signal(SIGPIPE, SIG_DFL);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    m_children.push_back(child {pid, c.id, magic, command});
}

// Never removes the connection (its handlers may be on the stack): a failed send marks it.
void proxy_server::answer(unsigned long conn_id, uint32_t magic)
{
    connection* c = by_id(conn_id);
    if (c == nullptr) {
        VESK_LOG_WARN(k_cls, "magic 0x%x: its client has gone, answer dropped\n", magic);
        return;
    }
    const vesk_cmd_answer a {k_cmd_token, magic};
    // 8 bytes into a socket the client drains every 100 ms; a full buffer means a client that
    // does not read its answers, and waiting for it would stall every other client.
    const ssize_t n = send(c->fd, &a, sizeof(a), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n != static_cast<ssize_t>(sizeof(a)))
        mark_dead(*c, n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? "client does not read its answers"
                                                                          : "answer not written");
}

void proxy_server::reap()
{
    for (;;) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid <= 0)
            return;
        for (size_t i = 0; i < m_children.size(); i++) {
            if (m_children[i].pid != pid)
                continue;
            const child done = m_children[i];
            m_children.erase(m_children.begin() + static_cast<long>(i));
            const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            VESK_LOG_PLAIN(k_cls, "magic 0x%x exit %d: %s\n", done.magic, code, done.command.c_str());
            answer(done.conn_id, done.magic);
            break;
        }
    }
}

int proxy_server::run()
{
    if (!listen_socket())
        return 1;
    VESK_LOG_PLAIN(k_cls, "listening on %s%s\n", m_path.c_str(), m_record.empty() ? "" : " (record only)");
    bool running = true;
    std::vector<pollfd> fds;
    std::vector<size_t> polled; // m_conns index of fds[2 + k]
    while (running) {
        const long long pause_left = m_accept_paused_until - monotonic_ms();
        fds.clear();
        polled.clear();
        fds.push_back(pollfd {s_signal_pipe[0], POLLIN, 0});
        fds.push_back(pollfd {m_listen_fd, static_cast<short>(pause_left > 0 ? 0 : POLLIN), 0});
        // At the children's bound connections wait unread until a child ends (SIGCHLD wakes).
        if (m_children.size() < k_max_children) {
            for (size_t i = 0; i < m_conns.size(); i++) {
                fds.push_back(pollfd {m_conns[i].fd, POLLIN, 0});
                polled.push_back(i);
            }
        }
        if (poll(fds.data(), fds.size(), pause_left > 0 ? static_cast<int>(pause_left) : -1) < 0 && errno != EINTR)
            break;
        if (fds[0].revents != 0) {
            unsigned char sig[32];
            const ssize_t n = read(s_signal_pipe[0], sig, sizeof(sig));
            for (ssize_t i = 0; i < n; i++)
                if (sig[i] == SIGTERM || sig[i] == SIGINT)
                    running = false;
            reap();
        }
        // Handlers only mark connections dead; the vector changes only in sweep and accept.
        for (size_t k = 0; k < polled.size(); k++) {
            if (fds[2 + k].revents != 0)
                read_from(m_conns[polled[k]]);
        }
        sweep();
        if ((fds[1].revents & POLLIN) != 0)
            accept_one();
    }
    VESK_LOG_PLAIN(k_cls, "stop: %zu commands still running\n", m_children.size());
    for (const connection& c : m_conns)
        close(c.fd);
    close(m_listen_fd);
    unlink(m_path.c_str());
    return 0;
}

void usage()
{
    printf("usage: vesk_proxy_server [--role 1|2] [--socket PATH] [--record-only FILE]\n"
           "  --role 1      main application's socket (default), 2 the proxy role's\n"
           "  --socket      listen on PATH instead\n"
           "  --record-only append each command to FILE and answer without running it\n");
}

} // namespace

int main(int argc, char** argv)
{
    std::string path;
    std::string record;
    int role = 1;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        if (arg == "--socket" && i + 1 < argc) {
            path = argv[++i];
        } else if (arg == "--record-only" && i + 1 < argc) {
            record = argv[++i];
        } else if (arg == "--role" && i + 1 < argc) {
            role = atoi(argv[++i]);
        } else {
            usage();
            return arg == "--help" ? 0 : 2;
        }
    }
    if (path.empty()) {
        char rooted[sizeof(sockaddr_un::sun_path)];
        path = vesk_rooted_path(rooted, sizeof(rooted), role == 2 ? k_path_cmd_socket_proxy : k_path_cmd_socket_main);
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (pipe2(s_signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return 1;
    struct sigaction sa {
    };
    sa.sa_handler = on_signal;
    sa.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGCHLD, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    proxy_server server(path, record);
    return server.run();
}
