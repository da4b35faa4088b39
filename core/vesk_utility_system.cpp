// vesk_utility_system - the system-command client (requests to the proxy server, the answer
// table, the receive task) and the process helpers built on vfork and /bin/sh.
#include "core/vesk_utility_system.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <cstring>
#include <ctime>

#include "core/vesk_utility_cmd_wire.h"
#include "core/vesk_utility_guard.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_lock.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_pool.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_ground.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_utility_system_client";
constexpr int k_rcvbuf = 4096;
constexpr int k_sndbuf = 16384;
// The send lock is held while connecting and sending, and the receive task takes it too:
// a proxy that cannot take the connection (backlog full) or the request within these bounds
// counts as absent instead of stalling both.
constexpr timeval k_connect_timeout {1, 0};
constexpr timeval k_send_timeout {5, 0};

vesk_lock* new_named_lock(const char* name)
{
    return VESK_REGISTER_NEW(
        VESK_LIST_COMMON_LOCK, static_cast<vesk_lock*>(new vesk_lock_realize(name)), VESK_USER_UTILITY, name);
}

bool write_all(int fd, const void* data, size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = send(fd, p, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

std::atomic<uint32_t> s_popen_counter {0};

// The output files of vesk_popen are numbered pid * k_popen_per_pid + a per-process counter,
// so that two processes never pick the same name; a name taken anyway is skipped.
constexpr unsigned long long k_popen_per_pid = 100000;
constexpr unsigned k_popen_name_tries = 100;

// The streams vesk_popen handed out, each with the number of the file it created: pclose
// removes exactly that name, never whatever the descriptor resolves to. Walks are O(open
// streams), a handful.
struct popen_file {
    FILE* fp;
    unsigned long long number;
    popen_file* next;
};
std::mutex s_popen_lock;
popen_file* s_popen_files = nullptr; // GUARDED_BY(s_popen_lock)

void popen_name(char* path, size_t size, unsigned long long number)
{
    snprintf(path, size, "/tmp/vesk_popen_outfile_%llu.txt", number);
}

// Creates a new output file (never through a link, never an existing one) and returns its
// read-write descriptor, or -1 with errno set.
int create_popen_file(char* path, size_t size, unsigned long long* number)
{
    const unsigned long long base = static_cast<unsigned long long>(getpid()) * k_popen_per_pid;
    for (unsigned tries = 0; tries < k_popen_name_tries; tries++) {
        const unsigned long long n = base + (++s_popen_counter) % k_popen_per_pid;
        popen_name(path, size, n);
        const int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) {
            *number = n;
            return fd;
        }
        if (errno != EEXIST)
            return -1;
    }
    return -1;
}

} // namespace

// ---- The client --------------------------------------------------------------------------

vesk_utility_system_client::vesk_utility_system_client(const char* server_path)
    : m_send_lock(new_named_lock("utility_system_send_lock"))
    , m_rec_lock(new_named_lock("utility_system_rec_lock"))
{
    VESK_ASSERT(m_send_lock != NULL && m_rec_lock != NULL);
    // An accounted block of its own rather than a string-pool copy: one path for the life of
    // the process does not justify opening a pool chunk at start-up.
    const size_t len = strnlen(server_path, sizeof(sockaddr_un::sun_path) - 1);
    m_server_path = static_cast<char*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_cmd_path, len + 1, 1));
    VESK_ASSERT(m_server_path != NULL);
    memcpy(m_server_path, server_path, len);
    m_server_path[len] = '\0';
    named_guard guard(m_send_lock, __FILE__, "vesk_utility_system_client");
    connect_socket();
}

void vesk_utility_system_client::connect_socket()
{
    if (m_connect_fd >= 0)
        return;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 1) {
        if (fd == 0)
            close(fd);
        VESK_LOG_ERR(k_cls, "socket fail, errno = %d\n", errno);
        return;
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &k_rcvbuf, sizeof(k_rcvbuf));
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &k_sndbuf, sizeof(k_sndbuf));
    // A blocking unix connect waits for room in the server's backlog at most the send time-out.
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &k_connect_timeout, sizeof(k_connect_timeout));
    sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, m_server_path, sizeof(addr.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        VESK_LOG_ERR(k_cls, "bind %s fail!\n", m_server_path);
        close(fd);
        return;
    }
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &k_send_timeout, sizeof(k_send_timeout));
    m_connect_fd = fd;
}

void vesk_utility_system_client::disconnect()
{
    if (m_connect_fd >= 0)
        close(m_connect_fd);
    m_connect_fd = -1;
}

int vesk_utility_system_client::send_msg_kqz_system(const char* cmd, uint32_t* magic)
{
    named_guard guard(m_send_lock, __FILE__, "send_msg_kqz_system");
    connect_socket();
    if (m_connect_fd < 0)
        return -1;
    const size_t len = strlen(cmd);
    size_t done = 0;
    // An empty command is still one request, so that it is answered like any other.
    do {
        vesk_cmd_request req;
        memset(&req, 0, sizeof(req));
        const size_t piece = len - done < k_cmd_piece_max ? len - done : k_cmd_piece_max;
        req.token = k_cmd_token;
        req.magic = m_magic;
        memcpy(req.text, cmd + done, piece);
        done += piece;
        req.more = done < len ? 1 : 0;
        if (!write_all(m_connect_fd, &req, sizeof(req))) {
            VESK_LOG_ERR(k_cls, "write %s, size = %d fail!\n", req.text, static_cast<int>(sizeof(req)));
            disconnect();
            return -1;
        }
    } while (done < len);
    *magic = m_magic++;
    return 0;
}

void vesk_utility_system_client::push_answer(uint32_t magic)
{
    named_guard guard(m_rec_lock, __FILE__, "push_answer");
    for (answer_slot& slot : m_answers) {
        if (slot.used == 0) {
            slot.magic = magic;
            slot.used = 1;
            return;
        }
    }
    VESK_LOG_ERR(k_cls, "answer_magic = 0x%x push fail!\n", magic);
}

int vesk_utility_system_client::answer_is_ok(uint32_t magic)
{
    named_guard guard(m_rec_lock, __FILE__, "answer_is_ok");
    for (answer_slot& slot : m_answers) {
        if (slot.used != 0 && slot.magic == magic) {
            slot.used = 0;
            return 1;
        }
    }
    return 0;
}

void vesk_utility_system_client::rec_answer_msg()
{
    named_guard guard(m_send_lock, __FILE__, "rec_answer_msg");
    if (m_connect_fd < 0) {
        VESK_LOG_ERR_REPEAT(k_cls, "m_connect_fd fail!\n");
        return;
    }
    fd_set set;
    FD_ZERO(&set);
    FD_SET(m_connect_fd, &set);
    timeval tv {0, 0};
    if (select(m_connect_fd + 1, &set, nullptr, nullptr, &tv) <= 0)
        return;
    for (bool first = true;; first = false) {
        int avail = 0;
        if (ioctl(m_connect_fd, FIONREAD, &avail) != 0)
            return;
        if (avail == 0 && first) {
            VESK_LOG_ERR(k_cls, " select ok, force read! *********");
            vesk_cmd_answer probe;
            const ssize_t n = recv(m_connect_fd, &probe, sizeof(probe), MSG_DONTWAIT | MSG_PEEK);
            // Readable with nothing to read: the proxy went away. Reconnect at the next send
            // instead of waking up for the closed peer every step.
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
                disconnect();
            return;
        }
        if (avail < static_cast<int>(sizeof(vesk_cmd_answer)))
            return;
        vesk_cmd_answer answer;
        if (recv(m_connect_fd, &answer, sizeof(answer), MSG_DONTWAIT) != static_cast<ssize_t>(sizeof(answer)))
            return;
        if (answer.token != k_cmd_token) {
            VESK_LOG_ERR(k_cls, "answer.token = 0x%x\n", answer.token);
            continue;
        }
        push_answer(answer.magic);
    }
}

int vesk_utility_system_client::process_system(const char* cmd)
{
    uint32_t magic = 0;
    if (send_msg_kqz_system(cmd, &magic) != 0) {
        VESK_LOG_ERR(k_cls, "######### send cmd: %s fail! use standard system \n", cmd);
        (void)system(cmd);
        return 0;
    }
    for (unsigned tries = 1; tries <= k_cmd_wait_tries; tries++) {
        vesk_utility_sleep_ms(k_cmd_poll_ms);
        if (answer_is_ok(magic) != 0)
            return 0;
        if (tries % k_cmd_wait_log_every == 0)
            VESK_LOG_DBG(k_cls, "wait cmd_%s, magic_0x%x!\n", cmd, magic);
    }
    VESK_LOG_ERR(k_cls, "cmd_%s , magic_0x%x! wait time_out\n", cmd, magic);
    return -1;
}

vesk_timer_ret_code vesk_utility_system_thread(void* param, unsigned* next_ms, vesk_timer_task_type* type)
{
    (void)type;
    void* userParam = param;
    VESK_ASSERT(userParam != NULL);
    static_cast<vesk_utility_system_client*>(userParam)->rec_answer_msg();
    *next_ms = k_cmd_poll_ms;
    return VESK_TIMER_RET_CONTINUE;
}

// ---- Process helpers -----------------------------------------------------------------------

VESK_ERR popen_ex(const char* cmd, const char* type, int* fd, int* pid)
{
    *fd = -1;
    *pid = -1;
    const bool reading = strcmp(type, "r") == 0;
    if (!reading && strcmp(type, "w") != 0) {
        VESK_ERR_FN("Type Must 'r' Or 'w' for popen_ex");
        return VESK_ERR_INVALID_PARAM;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        VESK_ERR_FN("Create Pipe Failed");
        return VESK_ERR_OPERATE_FAIL;
    }
    // The child's end: the write end of a reading pipe becomes its stdout.
    const int child_end = reading ? ends[1] : ends[0];
    const int parent_end = reading ? ends[0] : ends[1];
    const int target = reading ? STDOUT_FILENO : STDIN_FILENO;
    const pid_t child = vfork();
    if (child < 0) {
        VESK_ERR_FN("vfork Failed");
        close(ends[0]);
        close(ends[1]);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (child == 0) {
        // Only async-signal-safe calls between vfork and exec: the parent's memory is shared.
        // A process group of its own, so that close_ex ends the shell's children as well (a
        // leftover grandchild would keep the caller's descriptors open).
        setpgid(0, 0);
        if (child_end != target) {
            dup2(child_end, target); // dup2 clears close-on-exec on the new descriptor
        } else {
            fcntl(child_end, F_SETFD, 0);
        }
        execl("/bin/sh", "sh", "-c", cmd, static_cast<char*>(nullptr));
        _exit(127);
    }
    close(child_end);
    *fd = parent_end;
    *pid = child;
    return VESK_OK;
}

VESK_ERR close_ex(int fd, int pid)
{
    close(fd);
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGQUIT);
    sigaddset(&block, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    int status = 0;
    pid_t r;
    do {
        if (kill(-pid, SIGTERM) != 0)
            kill(pid, SIGTERM);
        r = waitpid(pid, &status, 0);
    } while (r < 0 && errno == EINTR);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return r < 0 ? VESK_ERR_OPERATE_FAIL : VESK_OK;
}

namespace
{

long long monotonic_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace

VESK_ERR execute_cmd(const char* cmd, unsigned timeout_ms, char* buf, unsigned buf_size)
{
    VESK_ASSERT((cmd != NULL) && (buf != NULL) && (buf_size != 0));
    memset(buf, 0, buf_size);
    int fd = -1;
    int pid = -1;
    if (popen_ex(cmd, "r", &fd, &pid) != VESK_OK) {
        VESK_ERR_FN("popen_ex function Failed");
        return VESK_ERR_OPERATE_FAIL;
    }
    // Reads until the command closes its output, the buffer is full or the time is up. The
    // last byte stays NUL.
    VESK_ERR ret = VESK_OK;
    const long long deadline = monotonic_ms() + timeout_ms;
    unsigned used = 0;
    while (used < buf_size - 1) {
        const long long left = deadline - monotonic_ms();
        if (left <= 0) {
            VESK_ERR_FN("select Function Timeout");
            ret = VESK_ERR_OPERATE_FAIL;
            break;
        }
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval tv {static_cast<time_t>(left / 1000), static_cast<suseconds_t>((left % 1000) * 1000)};
        const int r = select(fd + 1, &set, nullptr, nullptr, &tv);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0) {
            VESK_ERR_FN("select Function Error");
            ret = VESK_ERR_OPERATE_FAIL;
            break;
        }
        if (r == 0)
            continue; // the deadline check above reports it
        const ssize_t n = read(fd, buf + used, buf_size - 1 - used);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        used += static_cast<unsigned>(n);
    }
    if (used == buf_size - 1)
        VESK_WARN_FN(
            "CMD[%s] Output Info Size May Be Overflow, Store Buffer Size = %zu\n", cmd, static_cast<size_t>(buf_size));
    close_ex(fd, pid);
    return ret;
}

FILE* vesk_popen(vesk_utility_system_client* client, const char* cmd, const char* mode)
{
    char path[64];
    unsigned long long number = 0;
    const int fd = create_popen_file(path, sizeof(path), &number);
    if (fd < 0) {
        VESK_ERR_FN("create %s failed, %s\n", path, strerror(errno));
        return nullptr;
    }
    popen_file* node = static_cast<popen_file*>(
        vesk_malloc(VESK_USER_UTILITY, k_purpose_cmd_path, sizeof(popen_file), vesk_obj_align<popen_file>()));
    const size_t size = strlen(cmd) + strlen(path) + 4;
    char* full = static_cast<char*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_cmd_path, static_cast<unsigned>(size), 1));
    if (full == nullptr || node == nullptr) {
        vesk_free(__FILE__, __func__, full);
        vesk_free(__FILE__, __func__, node);
        close(fd);
        unlink(path);
        VESK_ERR_FN("operate fail!");
        return nullptr;
    }
    snprintf(full, size, "%s > %s", cmd, path);
    const int r = client->process_system(full);
    vesk_free(__FILE__, __func__, full);
    // Read through the descriptor of the file created above: what the command wrote to that
    // name, whatever happens to the name meanwhile.
    if (r == 0 && mode[0] == 'w')
        (void)!ftruncate(fd, 0);
    FILE* fp = r == 0 ? fdopen(fd, mode) : nullptr;
    if (fp == nullptr) {
        const int err = errno;
        close(fd);
        unlink(path);
        vesk_free(__FILE__, __func__, node);
        if (r != 0)
            VESK_ERR_FN("operate fail!");
        else
            VESK_ERR_FN("fopen %s failed, %s\n", path, strerror(err));
        return nullptr;
    }
    node->fp = fp;
    node->number = number;
    {
        std::lock_guard<std::mutex> guard(s_popen_lock);
        node->next = s_popen_files;
        s_popen_files = node;
    }
    return fp;
}

int vesk_pclose(FILE* fp)
{
    popen_file* found = nullptr;
    {
        std::lock_guard<std::mutex> guard(s_popen_lock);
        for (popen_file** at = &s_popen_files; *at != nullptr; at = &(*at)->next) {
            if ((*at)->fp == fp) {
                found = *at;
                *at = found->next;
                break;
            }
        }
    }
    fclose(fp);
    if (found == nullptr)
        return -1;
    char path[64];
    popen_name(path, sizeof(path), found->number);
    vesk_free(__FILE__, __func__, found);
    unlink(path);
    return 0;
}

} // namespace vesk_utility
