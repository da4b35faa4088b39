// A real vesk_proxy_server process for the tests of the command client and the watchdog, and
// a raw client that speaks the wire format directly.
#ifndef VESK_TEST_PROXY_SERVER_PROCESS_H
#define VESK_TEST_PROXY_SERVER_PROCESS_H

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "core/vesk_utility_cmd_wire.h"

namespace vesk_test
{

constexpr int k_deadline_ms = 60000; // generous: qemu and sanitizers

// Polls cond every 10 ms until it holds or the deadline passes.
template <class F> bool wait_for(F cond, int deadline_ms = k_deadline_ms)
{
    for (int waited = 0; waited < deadline_ms; waited += 10) {
        if (cond())
            return true;
        usleep(10000);
    }
    return cond();
}

inline std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline int connect_unix(const std::string& path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A listening socket at path (a stale one is replaced), or -1.
inline int listen_unix(const std::string& path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 4) != 0)
        return -1;
    return fd;
}

// The magic of an 8-byte answer, or -1 (connection closed, or nothing before the deadline).
inline long long read_answer(int fd)
{
    vesk_utility::vesk_cmd_answer a;
    size_t have = 0;
    while (have < sizeof(a)) {
        pollfd p {fd, POLLIN, 0};
        if (poll(&p, 1, k_deadline_ms) <= 0)
            return -1;
        const ssize_t n = recv(fd, reinterpret_cast<char*>(&a) + have, sizeof(a) - have, 0);
        if (n <= 0)
            return -1;
        have += static_cast<size_t>(n);
    }
    return a.token == vesk_utility::k_cmd_token ? static_cast<long long>(a.magic) : -1;
}

inline bool send_request(int fd, uint32_t token, uint32_t magic, const char* text, size_t text_len, uint32_t more = 0)
{
    vesk_utility::vesk_cmd_request r {};
    r.token = token;
    r.magic = magic;
    r.more = more;
    memcpy(r.text, text, text_len < sizeof(r.text) ? text_len : sizeof(r.text));
    return send(fd, &r, sizeof(r), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(r));
}

// The server as a child process; stopped with SIGTERM when this object goes.
class proxy_server_process
{
public:
    // extra: further arguments ("--record-only FILE"); shell: commands run before it (a ulimit).
    // Waits until it accepts connections.
    explicit proxy_server_process(
        const std::string& socket_path, const std::string& extra = "", const std::string& shell = "")
        : m_path(socket_path)
    {
        const std::string cmd = shell + "exec " + VESK_PROXY_SERVER_BIN + " --socket " + socket_path + " " + extra;
        m_pid = fork();
        if (m_pid == 0) {
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        m_ready = wait_for([&] {
            const int fd = connect_unix(m_path);
            if (fd >= 0)
                close(fd);
            return fd >= 0;
        });
    }
    ~proxy_server_process() { stop(); }
    bool ready() const { return m_ready; }
    bool alive() const { return m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0; }
    // SIGTERM and reap; the exit status, or -1.
    int stop()
    {
        if (m_pid <= 0)
            return -1;
        kill(m_pid, SIGTERM);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    pid_t pid() const { return m_pid; }

private:
    std::string m_path;
    pid_t m_pid = -1;
    bool m_ready = false;
};

} // namespace vesk_test

#endif // VESK_TEST_PROXY_SERVER_PROCESS_H
