// vesk_utility_toolnet - Toolnet: UDP sockets, TCP listeners and TCP connections in fixed
// tables, one event thread (epoll, level-triggered, asleep while nothing arrives) that
// receives into one buffer from the little memory pool and calls back, senders on their own
// threads, and closes from any thread, a handle's own callback included.
#include "net/vesk_utility_toolnet.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_pool.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_service.h"
#include "sched/vesk_utility_thread_pool.h"

using namespace vesk_soft;

namespace vesk_utility
{

namespace
{

constexpr const char* k_cls = "vesk_toolnet";
constexpr uint8_t k_free = 0;
constexpr uint8_t k_open = 1;
constexpr uint8_t k_closing = 2;
// An entry's `running`: idle, inside a callback, or inside a callback with a close that the
// event thread completes when the callback returns (closed from its own callback, or ended by
// the peer). Any other close is completed by the thread that called it, which waits for the
// callback and the senders to leave.
constexpr uint8_t k_idle = 0;
constexpr uint8_t k_running = 1;
constexpr uint8_t k_running_close = 2;
constexpr unsigned k_table_sizes[k_toolnet_kinds] = {VESK_TOOLNET_UDP_MAX, VESK_TOOLNET_LISTEN_MAX, VESK_TOOLNET_CONN_MAX};
constexpr int k_default_backlog = 16;
constexpr unsigned k_accept_burst = 16;
constexpr unsigned k_event_stack = 524288;

inline uint32_t kind_of(vesk_toolnet_handle h)
{
    return h >> 16;
}
inline uint32_t index_of(vesk_toolnet_handle h)
{
    return h & 0xFFFF;
}
inline vesk_toolnet_handle make_handle(uint32_t kind, uint32_t index)
{
    return kind << 16 | index;
}
inline uint64_t event_key(vesk_toolnet_handle h, uint32_t gen)
{
    return static_cast<uint64_t>(gen) << 32 | h;
}

// NULL or "" is any IPv4 address.
bool make_addr(const char* ip, unsigned short port, sockaddr_storage* ss, socklen_t* len)
{
    memset(ss, 0, sizeof(*ss));
    sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(ss);
    sockaddr_in6* v6 = reinterpret_cast<sockaddr_in6*>(ss);
    if (ip == nullptr || ip[0] == '\0' || inet_pton(AF_INET, ip, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        *len = sizeof(*v4);
        return true;
    }
    if (inet_pton(AF_INET6, ip, &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        *len = sizeof(*v6);
        return true;
    }
    return false;
}

void addr_text(const sockaddr_storage& ss, char* out, size_t size)
{
    char host[INET6_ADDRSTRLEN] = "?";
    unsigned port = 0;
    if (ss.ss_family == AF_INET) {
        const sockaddr_in& a = reinterpret_cast<const sockaddr_in&>(ss);
        inet_ntop(AF_INET, &a.sin_addr, host, sizeof(host));
        port = ntohs(a.sin_port);
    } else if (ss.ss_family == AF_INET6) {
        const sockaddr_in6& a = reinterpret_cast<const sockaddr_in6&>(ss);
        inet_ntop(AF_INET6, &a.sin6_addr, host, sizeof(host));
        port = ntohs(a.sin6_port);
    }
    snprintf(out, size, ss.ss_family == AF_INET6 ? "[%s]:%u" : "%s:%u", host, port);
}

void sock_text(int fd, bool peer, char* out, size_t size)
{
    sockaddr_storage ss {};
    socklen_t len = sizeof(ss);
    if ((peer ? getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) : getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len)) != 0)
        ss.ss_family = AF_UNSPEC;
    addr_text(ss, out, size);
}

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is writable or the deadline passes; false on time-out or error.
bool wait_writable(int fd, int64_t deadline)
{
    for (;;) {
        const int64_t left = deadline - now_ms();
        if (left <= 0)
            return false;
        pollfd p {fd, POLLOUT, 0};
        const int n = poll(&p, 1, static_cast<int>(left));
        if (n > 0)
            return (p.revents & (POLLERR | POLLNVAL)) == 0;
        if (n < 0 && errno != EINTR)
            return false;
    }
}

// Counters the event thread writes and the console reads without the lock.
template <class T, class V> inline void count_add(T& field, V v)
{
    __atomic_fetch_add(&field, static_cast<T>(v), __ATOMIC_RELAXED);
}
template <class T> inline T count_get(const T& field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
inline uint8_t state_of(const vesk_toolnet_entry* e)
{
    return __atomic_load_n(&e->state, __ATOMIC_ACQUIRE);
}
inline void set_state(vesk_toolnet_entry* e, uint8_t s)
{
    __atomic_store_n(&e->state, s, __ATOMIC_RELEASE);
}

class lock_guard
{
public:
    explicit lock_guard(pthread_mutex_t* m)
        : m_m(m)
    {
        pthread_mutex_lock(m_m);
    }
    ~lock_guard() { pthread_mutex_unlock(m_m); }
    lock_guard(const lock_guard&) = delete;
    lock_guard& operator=(const lock_guard&) = delete;

private:
    pthread_mutex_t* m_m;
};

} // namespace

vesk_toolnet::vesk_toolnet()
{
    pthread_mutex_init(&m_lock, nullptr);
    pthread_mutex_init(&m_start_lock, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_cond, &attr);
    pthread_condattr_destroy(&attr);
}

VESK_ERR vesk_toolnet::start()
{
    lock_guard start_guard(&m_start_lock);
    if (started())
        return VESK_OK;
    vesk_ground* ground = vesk_ground::instance();
    if (m_tables[0].entries == nullptr) {
        for (unsigned k = 0; k < k_toolnet_kinds; k++) {
            const unsigned size = k_table_sizes[k];
            void* mem = vesk_malloc(VESK_USER_UTILITY, k_purpose_toolnet, size * sizeof(vesk_toolnet_entry),
                vesk_obj_align<vesk_toolnet_entry>());
            if (mem == nullptr)
                return VESK_ERR_OPERATE_FAIL;
            memset(mem, 0, size * sizeof(vesk_toolnet_entry));
            table& t = m_tables[k];
            t.entries = static_cast<vesk_toolnet_entry*>(mem);
            t.size = size;
            for (unsigned i = 0; i < size; i++) {
                t.entries[i].fd = -1;
                t.entries[i].next_free = static_cast<uint16_t>(i + 1 < size ? i + 2 : 0);
            }
            t.free_head = 1;
            t.free_tail = static_cast<uint16_t>(size);
        }
    }
    if (m_recv_buf == nullptr) {
        m_recv_buf = static_cast<unsigned char*>(
            ground->get_little_mem_pool()->malloc(VESK_USER_UTILITY, k_purpose_toolnet_buffer, k_toolnet_recv_size));
        if (m_recv_buf == nullptr)
            return VESK_ERR_OPERATE_FAIL;
    }
    if (m_epoll_fd < 0) {
        m_epoll_fd = epoll_create1(EPOLL_CLOEXEC);
        if (m_epoll_fd < 0) {
            VESK_LOG_ERR(k_cls, "epoll_create1 fail, %s\n", strerror(errno));
            return VESK_ERR_OPERATE_FAIL;
        }
    }
    const vesk_thread_creat_ctl ctl = {VESK_THREAD_WORK_COMMON, 0, event_thread, this, 1, k_event_stack};
    unsigned long hand = 0;
    if (creat_thread(vesk_service<utility_thread_pool>::find(), &ctl, "UTL_toolnet", &hand) != VESK_OK) {
        VESK_LOG_ERR(k_cls, "creat event thread fail\n");
        return VESK_ERR_OPERATE_FAIL;
    }
    m_started.store(true, std::memory_order_release);
    return VESK_OK;
}

void* vesk_toolnet::event_thread(void* arg)
{
    vesk_toolnet* self = static_cast<vesk_toolnet*>(arg);
    __atomic_store_n(&self->m_thread, static_cast<unsigned long>(pthread_self()), __ATOMIC_RELEASE);
    enter_thread(vesk_service<utility_thread_pool>::find(), pthread_self(), "toolnet_event");
    self->event_loop(); // never returns: the library is never shut down
    return nullptr;
}

bool vesk_toolnet::on_event_thread() const
{
    return pthread_equal(pthread_self(), static_cast<pthread_t>(__atomic_load_n(&m_thread, __ATOMIC_ACQUIRE))) != 0;
}

void vesk_toolnet::event_loop()
{
    epoll_event events[k_toolnet_events];
    for (;;) {
        const int n = epoll_wait(m_epoll_fd, events, k_toolnet_events, -1);
        if (n < 0) {
            if (errno != EINTR)
                VESK_LOG_ERR(k_cls, "epoll_wait fail, %s\n", strerror(errno));
            continue;
        }
        for (int i = 0; i < n; i++)
            dispatch(events[i].data.u64, events[i].events);
    }
}

// ---- Tables (m_lock held) ------------------------------------------------------------------

vesk_toolnet_entry* vesk_toolnet::lookup(vesk_toolnet_handle h)
{
    const uint32_t kind = kind_of(h);
    const uint32_t index = index_of(h);
    if (kind < 1 || kind > k_toolnet_kinds || m_tables[kind - 1].entries == nullptr)
        return nullptr;
    const table& t = m_tables[kind - 1];
    if (index < 1 || index > t.size)
        return nullptr;
    vesk_toolnet_entry* e = &t.entries[index - 1];
    return e->state == k_free ? nullptr : e;
}

vesk_toolnet_entry* vesk_toolnet::alloc(
    uint32_t kind, int fd, vesk_user_id usr_id, const char* name, vesk_toolnet_handle* h)
{
    table& t = m_tables[kind - 1];
    if (t.free_head == 0)
        return nullptr;
    const uint16_t index = t.free_head;
    vesk_toolnet_entry* e = &t.entries[index - 1];
    t.free_head = e->next_free;
    if (t.free_head == 0)
        t.free_tail = 0;
    const uint32_t gen = e->gen + 1;
    memset(static_cast<void*>(e), 0, sizeof(*e));
    e->gen = gen;
    e->fd = fd;
    e->usr_id = usr_id;
    snprintf(e->name, sizeof(e->name), "%s", name != nullptr ? name : "anonymous");
    set_state(e, k_open);
    *h = make_handle(kind, index);
    return e;
}

VESK_ERR vesk_toolnet::adopt(
    uint32_t kind, int fd, vesk_user_id usr_id, const char* name, vesk_toolnet_entry** out, vesk_toolnet_handle* h)
{
    vesk_toolnet_entry* e = alloc(kind, fd, usr_id, name, h);
    if (e == nullptr) {
        VESK_LOG_ERR(k_cls, "kind %u table full (%u)\n", kind, k_table_sizes[kind - 1]);
        return VESK_ERR_NO_RESOURCE;
    }
    if (vesk_ground::instance()->registry().save_node(VESK_LIST_SOCKET, static_cast<uintptr_t>(fd), usr_id, name)
        != VESK_OK) {
        e->fd = -1; // the caller still owns fd and closes it
        set_state(e, k_closing);
        finish_close(*h, e);
        return VESK_ERR_NO_RESOURCE;
    }
    *out = e;
    return VESK_OK;
}

void vesk_toolnet::begin_close(vesk_toolnet_entry* e)
{
    set_state(e, k_closing);
    epoll_ctl(m_epoll_fd, EPOLL_CTL_DEL, e->fd, nullptr);
    // Wakes a sender waiting for room, so that the close need not wait out its time-out.
    shutdown(e->fd, SHUT_RDWR);
}

void vesk_toolnet::finish_close(vesk_toolnet_handle h, vesk_toolnet_entry* e)
{
    if (e->fd >= 0) {
        vesk_ground::instance()->registry().delete_node(VESK_LIST_SOCKET, static_cast<uintptr_t>(e->fd));
        ::close(e->fd);
    }
    e->fd = -1;
    e->running = k_idle;
    set_state(e, k_free);
    // Freed indexes go to the tail: reused last.
    table& t = m_tables[kind_of(h) - 1];
    const uint16_t index = static_cast<uint16_t>(index_of(h));
    e->next_free = 0;
    if (t.free_tail != 0)
        t.entries[t.free_tail - 1].next_free = index;
    else
        t.free_head = index;
    t.free_tail = index;
    pthread_cond_broadcast(&m_cond);
}

unsigned vesk_toolnet::open_count(uint32_t kind)
{
    lock_guard guard(&m_lock);
    if (kind < 1 || kind > k_toolnet_kinds)
        return 0;
    const table& t = m_tables[kind - 1];
    unsigned n = 0;
    for (unsigned i = 0; i < t.size; i++)
        n += t.entries[i].state != k_free ? 1 : 0;
    return n;
}

// ---- Opening -------------------------------------------------------------------------------

VESK_ERR vesk_toolnet::open_udp(const vesk_toolnet_udp_param& p, vesk_toolnet_handle* handle)
{
    if (!started())
        return VESK_ERR_NOT_INIT;
    sockaddr_storage local;
    socklen_t local_len = 0;
    if (!make_addr(p.local_ip, p.local_port, &local, &local_len))
        return VESK_ERR_INVALID_PARAM;
    in_addr group4 {}, if4 {};
    in6_addr group6 {};
    const bool v6 = local.ss_family == AF_INET6;
    if (p.multicast_group != nullptr) {
        const bool ok = v6 ? inet_pton(AF_INET6, p.multicast_group, &group6) == 1 && IN6_IS_ADDR_MULTICAST(&group6)
                           : inet_pton(AF_INET, p.multicast_group, &group4) == 1 && IN_MULTICAST(ntohl(group4.s_addr));
        if (!ok)
            return VESK_ERR_INVALID_PARAM;
    }
    if (p.multicast_if != nullptr && (v6 || inet_pton(AF_INET, p.multicast_if, &if4) != 1))
        return VESK_ERR_INVALID_PARAM;

    const int fd = socket(local.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        VESK_LOG_ERR(k_cls, "socket fail, %s\n", strerror(errno));
        return VESK_ERR_OPERATE_FAIL;
    }
    const int one = 1;
    bool ok = true;
    if (p.multicast_group != nullptr) // several receivers of one group share its port
        ok = setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) == 0;
    ok = ok && bind(fd, reinterpret_cast<sockaddr*>(&local), local_len) == 0;
    if (ok && p.multicast_if != nullptr)
        ok = setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &if4, sizeof(if4)) == 0;
    if (ok && p.multicast_group != nullptr) {
        if (v6) {
            ipv6_mreq mreq {};
            mreq.ipv6mr_multiaddr = group6;
            ok = setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &mreq, sizeof(mreq)) == 0;
        } else {
            ip_mreq mreq {};
            mreq.imr_multiaddr = group4;
            mreq.imr_interface = if4;
            ok = setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq)) == 0;
        }
    }
    if (!ok) {
        VESK_LOG_ERR(k_cls, "udp %s port %u: %s\n", p.local_ip != nullptr ? p.local_ip : "", p.local_port, strerror(errno));
        ::close(fd);
        return VESK_ERR_OPERATE_FAIL;
    }
    lock_guard guard(&m_lock);
    vesk_toolnet_entry* e = nullptr;
    const VESK_ERR ret = adopt(VESK_TOOLNET_UDP, fd, p.usr_id, p.name, &e, handle);
    if (ret != VESK_OK) {
        ::close(fd);
        return ret;
    }
    e->on_recv = p.on_recv;
    e->arg = p.arg;
    // A socket nobody reads from is left out of epoll: what arrives is dropped by the kernel.
    if (p.on_recv != nullptr) {
        epoll_event ev {};
        ev.events = EPOLLIN;
        ev.data.u64 = event_key(*handle, e->gen);
        epoll_ctl(m_epoll_fd, EPOLL_CTL_ADD, fd, &ev);
    }
    return VESK_OK;
}

VESK_ERR vesk_toolnet::listen_tcp(const vesk_toolnet_listen_param& p, vesk_toolnet_handle* handle)
{
    if (!started())
        return VESK_ERR_NOT_INIT;
    sockaddr_storage local;
    socklen_t local_len = 0;
    if (!make_addr(p.local_ip, p.local_port, &local, &local_len))
        return VESK_ERR_INVALID_PARAM;
    const int fd = socket(local.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return VESK_ERR_OPERATE_FAIL;
    const int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0
        || bind(fd, reinterpret_cast<sockaddr*>(&local), local_len) != 0
        || listen(fd, p.backlog > 0 ? p.backlog : k_default_backlog) != 0) {
        VESK_LOG_ERR(k_cls, "listen %s port %u: %s\n", p.local_ip != nullptr ? p.local_ip : "", p.local_port,
            strerror(errno));
        ::close(fd);
        return VESK_ERR_OPERATE_FAIL;
    }
    lock_guard guard(&m_lock);
    vesk_toolnet_entry* e = nullptr;
    const VESK_ERR ret = adopt(VESK_TOOLNET_TCP_LISTEN, fd, p.usr_id, p.name, &e, handle);
    if (ret != VESK_OK) {
        ::close(fd);
        return ret;
    }
    e->on_accept = p.on_accept;
    e->on_recv = p.on_recv;
    e->on_close = p.on_close;
    e->arg = p.arg;
    epoll_event ev {};
    ev.events = EPOLLIN;
    ev.data.u64 = event_key(*handle, e->gen);
    epoll_ctl(m_epoll_fd, EPOLL_CTL_ADD, fd, &ev);
    return VESK_OK;
}

VESK_ERR vesk_toolnet::connect_tcp(const vesk_toolnet_connect_param& p, vesk_toolnet_handle* handle)
{
    if (!started())
        return VESK_ERR_NOT_INIT;
    sockaddr_storage remote;
    socklen_t remote_len = 0;
    if (p.remote_ip == nullptr || p.remote_ip[0] == '\0' || p.remote_port == 0
        || !make_addr(p.remote_ip, p.remote_port, &remote, &remote_len))
        return VESK_ERR_INVALID_PARAM;
    const int fd = socket(remote.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return VESK_ERR_OPERATE_FAIL;
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&remote), remote_len) == 0;
    if (!ok && errno == EINPROGRESS) {
        const unsigned timeout = p.timeout_ms != 0 ? p.timeout_ms : k_toolnet_default_timeout_ms;
        int err = 0;
        socklen_t len = sizeof(err);
        ok = wait_writable(fd, now_ms() + timeout) && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0
            && err == 0;
        if (err != 0)
            errno = err;
        else if (!ok)
            errno = ETIMEDOUT;
    }
    if (!ok) {
        if (m_tcp_debug.load(std::memory_order_relaxed))
            VESK_LOG_DBG(k_cls, "connect %s:%u: %s\n", p.remote_ip, p.remote_port, strerror(errno));
        ::close(fd);
        return VESK_ERR_OPERATE_FAIL;
    }
    lock_guard guard(&m_lock);
    vesk_toolnet_entry* e = nullptr;
    const VESK_ERR ret = adopt(VESK_TOOLNET_TCP_CONN, fd, p.usr_id, p.name, &e, handle);
    if (ret != VESK_OK) {
        ::close(fd);
        return ret;
    }
    e->on_recv = p.on_recv;
    e->on_close = p.on_close;
    e->arg = p.arg;
    epoll_event ev {};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.u64 = event_key(*handle, e->gen);
    epoll_ctl(m_epoll_fd, EPOLL_CTL_ADD, fd, &ev);
    if (m_tcp_debug.load(std::memory_order_relaxed))
        VESK_LOG_DBG(k_cls, "tcp 0x%x connected to %s:%u\n", *handle, p.remote_ip, p.remote_port);
    return VESK_OK;
}

// ---- Sending -------------------------------------------------------------------------------

VESK_ERR vesk_toolnet::send_to(vesk_toolnet_handle h, const void* data, unsigned len, const sockaddr* to, unsigned to_len)
{
    if (kind_of(h) != VESK_TOOLNET_UDP)
        return VESK_ERR_INVALID_PARAM;
    vesk_toolnet_entry* e;
    int fd;
    {
        lock_guard guard(&m_lock);
        e = lookup(h);
        if (e == nullptr || e->state != k_open)
            return VESK_ERR_INVALID_PARAM;
        e->busy++;
        fd = e->fd;
    }
    bool ok = false;
    const int64_t deadline = now_ms() + k_toolnet_udp_send_wait_ms;
    for (;;) {
        const ssize_t n = sendto(fd, data, len, MSG_NOSIGNAL | MSG_DONTWAIT, to, to_len);
        if (n == static_cast<ssize_t>(len)) {
            ok = true;
            break;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && wait_writable(fd, deadline))
            continue;
        break;
    }
    lock_guard guard(&m_lock);
    if (ok) {
        count_add(e->tx_count, 1);
        count_add(e->tx_bytes, len);
    }
    e->busy--;
    pthread_cond_broadcast(&m_cond);
    return ok ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR vesk_toolnet::send(vesk_toolnet_handle h, const void* data, unsigned len, unsigned timeout_ms, unsigned* sent)
{
    if (sent != nullptr)
        *sent = 0;
    if (kind_of(h) != VESK_TOOLNET_TCP_CONN)
        return VESK_ERR_INVALID_PARAM;
    vesk_toolnet_entry* e;
    int fd;
    {
        lock_guard guard(&m_lock);
        e = lookup(h);
        if (e == nullptr || e->state != k_open)
            return VESK_ERR_INVALID_PARAM;
        // One sender at a time owns the stream, so that buffers are never interleaved.
        const uint32_t gen = e->gen;
        while (e->sending && e->gen == gen && e->state == k_open)
            pthread_cond_wait(&m_cond, &m_lock);
        if (e->gen != gen || e->state != k_open)
            return VESK_ERR_OPERATE_FAIL;
        e->sending = 1;
        e->busy++;
        fd = e->fd;
    }
    const int64_t deadline = now_ms() + (timeout_ms != 0 ? timeout_ms : k_toolnet_default_timeout_ms);
    const char* p = static_cast<const char*>(data);
    unsigned done = 0;
    while (done < len) {
        const ssize_t n = ::send(fd, p + done, len - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<unsigned>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && wait_writable(fd, deadline))
            continue;
        break;
    }
    if (sent != nullptr)
        *sent = done;
    lock_guard guard(&m_lock);
    count_add(e->tx_count, 1);
    count_add(e->tx_bytes, done);
    e->sending = 0;
    e->busy--;
    pthread_cond_broadcast(&m_cond);
    return done == len ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

// ---- Closing -------------------------------------------------------------------------------

VESK_ERR vesk_toolnet::close(vesk_toolnet_handle h)
{
    lock_guard guard(&m_lock);
    vesk_toolnet_entry* e = lookup(h);
    if (e == nullptr)
        return VESK_ERR_INVALID_PARAM;
    const bool own_callback = on_event_thread() && e->running;
    if (e->state == k_closing) {
        // Ending already (its peer, or a close in progress): wait for the end, unless this is
        // the handle's own callback, which the end is waiting for.
        if (!own_callback) {
            const uint32_t gen = e->gen;
            while (e->gen == gen && e->state != k_free)
                pthread_cond_wait(&m_cond, &m_lock);
        }
        return VESK_OK;
    }
    begin_close(e);
    if (own_callback) {
        e->running = k_running_close;
        return VESK_OK;
    }
    while (e->running || e->busy)
        pthread_cond_wait(&m_cond, &m_lock);
    finish_close(h, e);
    return VESK_OK;
}

// ---- The event thread ----------------------------------------------------------------------

void vesk_toolnet::dispatch(uint64_t key, uint32_t events)
{
    (void)events; // level-triggered: the reads below find out what happened
    const vesk_toolnet_handle h = static_cast<vesk_toolnet_handle>(key);
    int fd;
    vesk_toolnet_entry* e;
    {
        lock_guard guard(&m_lock);
        e = lookup(h);
        if (e == nullptr || e->gen != static_cast<uint32_t>(key >> 32) || e->state != k_open)
            return; // closed since the wait returned
        e->running = k_running;
        fd = e->fd;
    }
    switch (kind_of(h)) {
    case VESK_TOOLNET_UDP:
        on_udp(h, fd);
        break;
    case VESK_TOOLNET_TCP_LISTEN:
        on_accept(h, fd);
        break;
    default:
        on_conn(h, fd);
        break;
    }
    lock_guard guard(&m_lock);
    const bool ours = e->running == k_running_close && e->state == k_closing;
    while (ours && e->busy)
        pthread_cond_wait(&m_cond, &m_lock);
    e->running = k_idle;
    if (ours)
        finish_close(h, e);
    pthread_cond_broadcast(&m_cond);
}

void vesk_toolnet::on_udp(vesk_toolnet_handle h, int fd)
{
    vesk_toolnet_entry* e = &m_tables[VESK_TOOLNET_UDP - 1].entries[index_of(h) - 1];
    for (unsigned i = 0; i < k_toolnet_udp_burst && state_of(e) == k_open; i++) {
        sockaddr_storage from;
        socklen_t from_len = sizeof(from);
        const ssize_t n
            = recvfrom(fd, m_recv_buf, k_toolnet_recv_size, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &from_len);
        if (n < 0)
            break;
        count_add(e->rx_count, 1);
        count_add(e->rx_bytes, n);
        if (m_udp_debug.load(std::memory_order_relaxed)) {
            char text[64];
            addr_text(from, text, sizeof(text));
            VESK_LOG_DBG(k_cls, "udp 0x%x: %d bytes from %s\n", h, static_cast<int>(n), text);
        }
        e->on_recv(h, m_recv_buf, static_cast<unsigned>(n), reinterpret_cast<sockaddr*>(&from), from_len, e->arg);
    }
}

void vesk_toolnet::on_accept(vesk_toolnet_handle h, int fd)
{
    vesk_toolnet_entry* l = &m_tables[VESK_TOOLNET_TCP_LISTEN - 1].entries[index_of(h) - 1];
    for (unsigned i = 0; i < k_accept_burst && state_of(l) == k_open; i++) {
        sockaddr_storage peer;
        socklen_t peer_len = sizeof(peer);
        const int cfd = accept4(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (cfd < 0)
            break;
        vesk_toolnet_handle ch = 0;
        vesk_toolnet_accept_cb accept_cb;
        void* arg;
        uint32_t gen;
        {
            lock_guard guard(&m_lock);
            vesk_toolnet_entry* c = nullptr;
            if (adopt(VESK_TOOLNET_TCP_CONN, cfd, l->usr_id, l->name, &c, &ch) != VESK_OK) {
                ::close(cfd);
                continue;
            }
            c->on_recv = l->on_recv;
            c->on_close = l->on_close;
            c->arg = l->arg;
            c->parent = h;
            gen = c->gen;
            accept_cb = l->on_accept;
            arg = l->arg;
            epoll_event ev {};
            ev.events = EPOLLIN | EPOLLRDHUP;
            ev.data.u64 = event_key(ch, gen);
            epoll_ctl(m_epoll_fd, EPOLL_CTL_ADD, cfd, &ev);
        }
        if (m_tcp_debug.load(std::memory_order_relaxed)) {
            char text[64];
            addr_text(peer, text, sizeof(text));
            VESK_LOG_DBG(k_cls, "tcp 0x%x accepted 0x%x from %s\n", h, ch, text);
        }
        if (accept_cb == nullptr)
            continue;
        void* conn_arg = arg;
        const VESK_BOOL take = accept_cb(h, ch, reinterpret_cast<sockaddr*>(&peer), peer_len, arg, &conn_arg);
        if (!take) {
            close(ch);
            continue;
        }
        lock_guard guard(&m_lock);
        vesk_toolnet_entry* c = lookup(ch);
        if (c != nullptr && c->gen == gen)
            c->arg = conn_arg;
    }
}

void vesk_toolnet::on_conn(vesk_toolnet_handle h, int fd)
{
    vesk_toolnet_entry* e = &m_tables[VESK_TOOLNET_TCP_CONN - 1].entries[index_of(h) - 1];
    const ssize_t n = recv(fd, m_recv_buf, k_toolnet_recv_size, MSG_DONTWAIT);
    if (n > 0) {
        count_add(e->rx_count, 1);
        count_add(e->rx_bytes, n);
        if (m_tcp_debug.load(std::memory_order_relaxed))
            VESK_LOG_DBG(k_cls, "tcp 0x%x: %d bytes\n", h, static_cast<int>(n));
        if (e->on_recv != nullptr)
            e->on_recv(h, m_recv_buf, static_cast<unsigned>(n), nullptr, 0, e->arg);
        return;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    const int err = n == 0 ? 0 : errno;
    vesk_toolnet_close_cb close_cb;
    void* arg;
    {
        lock_guard guard(&m_lock);
        if (e->state != k_open)
            return; // closed from its own receive callback meanwhile
        begin_close(e);
        e->running = k_running_close;
        close_cb = e->on_close;
        arg = e->arg;
    }
    if (m_tcp_debug.load(std::memory_order_relaxed))
        VESK_LOG_DBG(k_cls, "tcp 0x%x ended: %s\n", h, err == 0 ? "closed by peer" : strerror(err));
    if (close_cb != nullptr)
        close_cb(h, err, arg);
}

// ---- Diagnose ------------------------------------------------------------------------------

namespace
{

struct dump_row {
    vesk_toolnet_handle handle;
    vesk_toolnet_handle parent;
    int fd;
    vesk_user_id usr_id;
    char name[16];
    char local[56];
    char peer[56];
    uint32_t rx_count, tx_count;
    uint64_t rx_bytes, tx_bytes;
};

// Table titles in GB2312, the console's character set: Toolnet UDP监听任务, TCP监听任务, TCP连接.
constexpr const char* k_udp_title
    = "-----------------------Toolnet UDP\xBC\xE0\xCC\xFD\xC8\xCE\xCE\xF1--------------------------\n";
constexpr const char* k_listen_title
    = "-----------------------Toolnet TCP\xBC\xE0\xCC\xFD\xC8\xCE\xCE\xF1--------------------------\n";
constexpr const char* k_conn_title = "-----------------------Toolnet TCP\xC1\xAC\xBD\xD3--------------------------\n";

} // namespace

VESK_ERR vesk_toolnet::toolnet_diagnose(int para, print_fn print)
{
    switch (para) {
    case 1:
        dump_udp(print);
        break;
    case 2:
        dump_tcp(print);
        break;
    case 3:
    case 4:
        m_udp_debug.store(para == 3);
        print("Toolnet UDP debug %s\n", para == 3 ? "on" : "off");
        break;
    case 5:
    case 6:
        m_tcp_debug.store(para == 5);
        print("Toolnet TCP debug %s\n", para == 5 ? "on" : "off");
        break;
    default:
        print("para = %d not support!\n", para);
        break;
    }
    return VESK_OK;
}

namespace
{

// Copies the open entries of a table under the try-lock; printing happens after it. -1 when
// the lock is busy.
int snapshot(pthread_mutex_t* lock, vesk_toolnet_entry* entries, unsigned size, uint32_t kind, dump_row* rows)
{
    if (pthread_mutex_trylock(lock) != 0)
        return -1;
    int n = 0;
    for (unsigned i = 0; entries != nullptr && i < size; i++) {
        const vesk_toolnet_entry& e = entries[i];
        if (e.state != k_open)
            continue;
        dump_row& r = rows[n++];
        r.handle = make_handle(kind, i + 1);
        r.parent = e.parent;
        r.fd = e.fd;
        r.usr_id = e.usr_id;
        memcpy(r.name, e.name, sizeof(r.name));
        sock_text(e.fd, false, r.local, sizeof(r.local));
        if (kind == VESK_TOOLNET_TCP_CONN)
            sock_text(e.fd, true, r.peer, sizeof(r.peer));
        else
            snprintf(r.peer, sizeof(r.peer), "-");
        r.rx_count = count_get(e.rx_count);
        r.tx_count = count_get(e.tx_count);
        r.rx_bytes = count_get(e.rx_bytes);
        r.tx_bytes = count_get(e.tx_bytes);
    }
    pthread_mutex_unlock(lock);
    return n;
}

void print_rows(const char* title, const dump_row* rows, int n, bool tcp_conn, print_fn print)
{
    print("%s", title);
    if (n < 0) {
        print("sorry, try lock fail!\n");
        return;
    }
    if (n == 0) {
        print("have no task\n");
        return;
    }
    // Column titles in GB2312: 编号 句柄 fd 用户ID 名称 本地地址 对端地址 收次数 收字节 发次数 发字节
    print("%-6s%-10s%-6s%-12s%-16s%-26s%-26s%-10s%-14s%-10s%-14s\n", "\xB1\xE0\xBA\xC5", "\xBE\xE4\xB1\xFA", "fd",
        "\xD3\xC3\xBB\xA7ID", "\xC3\xFB\xB3\xC6", "\xB1\xBE\xB5\xD8\xB5\xD8\xD6\xB7",
        tcp_conn ? "\xB6\xD4\xB6\xCB\xB5\xD8\xD6\xB7" : "-", "\xCA\xD5\xB4\xCE\xCA\xFD",
        "\xCA\xD5\xD7\xD6\xBD\xDA", "\xB7\xA2\xB4\xCE\xCA\xFD", "\xB7\xA2\xD7\xD6\xBD\xDA");
    for (int i = 0; i < n; i++) {
        const dump_row& r = rows[i];
        print("%-6d0x%-8x%-6d0x%-10x%-16s%-26s%-26s%-10u%-14llu%-10u%-14llu\n", i + 1, r.handle, r.fd, r.usr_id,
            r.name, r.local, r.peer, r.rx_count, static_cast<unsigned long long>(r.rx_bytes), r.tx_count,
            static_cast<unsigned long long>(r.tx_bytes));
    }
    print("total %d\n", n);
}

} // namespace

void vesk_toolnet::dump_udp(print_fn print)
{
    if (!started()) {
        print("%sToolnet not started\n", k_udp_title);
        return;
    }
    dump_row rows[VESK_TOOLNET_UDP_MAX];
    const table& t = m_tables[VESK_TOOLNET_UDP - 1];
    print_rows(k_udp_title, rows, snapshot(&m_lock, t.entries, t.size, VESK_TOOLNET_UDP, rows), false, print);
}

void vesk_toolnet::dump_tcp(print_fn print)
{
    if (!started()) {
        print("%sToolnet not started\n", k_listen_title);
        return;
    }
    dump_row rows[VESK_TOOLNET_CONN_MAX];
    const table& l = m_tables[VESK_TOOLNET_TCP_LISTEN - 1];
    print_rows(k_listen_title, rows, snapshot(&m_lock, l.entries, l.size, VESK_TOOLNET_TCP_LISTEN, rows), false, print);
    const table& c = m_tables[VESK_TOOLNET_TCP_CONN - 1];
    print_rows(k_conn_title, rows, snapshot(&m_lock, c.entries, c.size, VESK_TOOLNET_TCP_CONN, rows), true, print);
}

VESK_ERR vesk_toolnet::local_port(vesk_toolnet_handle h, unsigned short* port)
{
    lock_guard guard(&m_lock);
    vesk_toolnet_entry* e = lookup(h);
    if (e == nullptr || e->state != k_open)
        return VESK_ERR_INVALID_PARAM;
    sockaddr_storage ss {};
    socklen_t len = sizeof(ss);
    if (getsockname(e->fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0)
        return VESK_ERR_OPERATE_FAIL;
    *port = ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(ss).sin6_port
                                           : reinterpret_cast<sockaddr_in&>(ss).sin_port);
    return VESK_OK;
}

} // namespace vesk_utility
