// vesk_proxy_server - runs the shell commands of a process that must not fork itself. Listens
// on the role's command socket, joins each command's 140-byte requests by magic, runs it with
// /bin/sh -c in a child and answers with the magic once the child has ended.
//
// One thread: a poll loop over the listening socket, the connections and a self-pipe that
// carries SIGCHLD, SIGTERM and SIGINT. Commands run concurrently, so a long command never
// delays another connection's answers. --record-only FILE appends each command to FILE and
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
#include <string>
#include <vector>

#include "core/vesk_utility_cmd_wire.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_paths.h"

using namespace vesk_utility;

namespace
{

constexpr const char* k_cls = "vesk_proxy_server";
constexpr size_t k_max_command = 65536; // longer commands are refused as malformed
constexpr int k_backlog = 16;

int s_signal_pipe[2] = {-1, -1};

void on_signal(int sig)
{
    const int saved = errno;
    const unsigned char c = static_cast<unsigned char>(sig);
    (void)!write(s_signal_pipe[1], &c, 1);
    errno = saved;
}

struct connection {
    int fd;
    unsigned long id; // never reused, so a late child cannot answer a newer connection
    size_t have = 0; // bytes of the request being read
    vesk_cmd_request req {};
    std::string command; // pieces joined so far
    uint32_t magic = 0;
    bool joining = false;
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
    // false when the connection has to be closed
    bool read_from(connection& c);
    bool take_request(connection& c);
    void launch(connection& c);
    void answer(unsigned long conn_id, uint32_t magic);
    void reap();
    void drop(size_t index, const char* why);
    connection* by_id(unsigned long id);

    std::string m_path;
    std::string m_record;
    int m_listen_fd = -1;
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
    m_listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
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
    return true;
}

void proxy_server::accept_one()
{
    const int fd = accept4(m_listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
        return;
    ucred cred {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != getuid()) {
        VESK_LOG_ERR(
            k_cls, "refuse peer pid %d uid %d: not our user\n", static_cast<int>(cred.pid), static_cast<int>(cred.uid));
        close(fd);
        return;
    }
    connection c;
    c.fd = fd;
    c.id = m_next_id++;
    m_conns.push_back(std::move(c));
}

connection* proxy_server::by_id(unsigned long id)
{
    for (connection& c : m_conns)
        if (c.id == id)
            return &c;
    return nullptr;
}

void proxy_server::drop(size_t index, const char* why)
{
    if (why != nullptr)
        VESK_LOG_ERR(k_cls, "close connection %lu: %s\n", m_conns[index].id, why);
    close(m_conns[index].fd);
    m_conns.erase(m_conns.begin() + static_cast<long>(index));
}

bool proxy_server::take_request(connection& c)
{
    const vesk_cmd_request& r = c.req;
    if (r.token != k_cmd_token) {
        VESK_LOG_ERR(k_cls, "connection %lu: token 0x%x\n", c.id, r.token);
        return false;
    }
    const void* nul = memchr(r.text, '\0', sizeof(r.text));
    if (nul == nullptr) {
        VESK_LOG_ERR(k_cls, "connection %lu: unterminated text, magic 0x%x\n", c.id, r.magic);
        return false;
    }
    if (c.joining && r.magic != c.magic) {
        VESK_LOG_ERR(k_cls, "connection %lu: magic 0x%x inside command 0x%x\n", c.id, r.magic, c.magic);
        return false;
    }
    const size_t len = static_cast<const char*>(nul) - r.text;
    if (c.command.size() + len > k_max_command) {
        VESK_LOG_ERR(k_cls, "connection %lu: command 0x%x too long\n", c.id, r.magic);
        return false;
    }
    c.magic = r.magic;
    c.command.append(r.text, len);
    c.joining = r.more != 0;
    if (!c.joining) {
        launch(c);
        c.command.clear();
    }
    return true;
}

bool proxy_server::read_from(connection& c)
{
    for (;;) {
        char* dst = reinterpret_cast<char*>(&c.req) + c.have;
        const ssize_t n = recv(c.fd, dst, sizeof(c.req) - c.have, 0);
        if (n == 0)
            return false;
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        c.have += static_cast<size_t>(n);
        if (c.have < sizeof(c.req))
            continue;
        c.have = 0;
        if (!take_request(c))
            return false;
    }
}

void proxy_server::launch(connection& c)
{
    if (!m_record.empty()) {
        FILE* fp = fopen(m_record.c_str(), "a");
        if (fp != nullptr) {
            fprintf(fp, "%s\n", c.command.c_str());
            fclose(fp);
        }
        VESK_LOG_PLAIN(k_cls, "magic 0x%x recorded: %s\n", c.magic, c.command.c_str());
        answer(c.id, c.magic);
        return;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        // Answered all the same: the waiter must not hang for a command that cannot start.
        VESK_LOG_ERR(k_cls, "fork fail for magic 0x%x: %s\n", c.magic, strerror(errno));
        answer(c.id, c.magic);
        return;
    }
    if (pid == 0) {
        signal(SIGCHLD, SIG_DFL);
        signal(SIGTERM, SIG_DFL);
        signal(SIGINT, SIG_DFL);
        signal(SIGPIPE, SIG_DFL);
        execl("/bin/sh", "sh", "-c", c.command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    m_children.push_back(child {pid, c.id, c.magic, c.command});
}

void proxy_server::answer(unsigned long conn_id, uint32_t magic)
{
    connection* c = by_id(conn_id);
    if (c == nullptr) {
        VESK_LOG_WARN(k_cls, "magic 0x%x: its client has gone, answer dropped\n", magic);
        return;
    }
    const vesk_cmd_answer a {k_cmd_token, magic};
    // 8 bytes into a socket the client drains every 100 ms; a full buffer means a stuck client.
    if (send(c->fd, &a, sizeof(a), MSG_NOSIGNAL | MSG_DONTWAIT) != static_cast<ssize_t>(sizeof(a))) {
        for (size_t i = 0; i < m_conns.size(); i++)
            if (m_conns[i].id == conn_id)
                drop(i, "answer not written");
    }
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
    while (running) {
        fds.clear();
        fds.push_back(pollfd {s_signal_pipe[0], POLLIN, 0});
        fds.push_back(pollfd {m_listen_fd, POLLIN, 0});
        for (const connection& c : m_conns)
            fds.push_back(pollfd {c.fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
            break;
        if (fds[0].revents != 0) {
            unsigned char sig[32];
            const ssize_t n = read(s_signal_pipe[0], sig, sizeof(sig));
            for (ssize_t i = 0; i < n; i++)
                if (sig[i] == SIGTERM || sig[i] == SIGINT)
                    running = false;
            reap();
        }
        // Connections first, by id: accepting may grow the vector under the indexes.
        for (size_t k = 2; k < fds.size(); k++) {
            if (fds[k].revents == 0)
                continue;
            for (size_t i = 0; i < m_conns.size(); i++) {
                if (m_conns[i].fd != fds[k].fd)
                    continue;
                if (!read_from(m_conns[i]))
                    drop(i, nullptr);
                break;
            }
        }
        if (fds[1].revents != 0)
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
