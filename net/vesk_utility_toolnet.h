// vesk_utility_toolnet - Toolnet, the UDP/TCP connection framework: fixed tables of sockets
// behind handles kind << 16 | index, one epoll-driven event thread that receives and calls
// back, senders on their callers' threads, and close from anywhere.
#ifndef VESK_UTILITY_TOOLNET_H
#define VESK_UTILITY_TOOLNET_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "sched/vesk_utility_toolnet_diag.h"
#include "vesk_utility_net.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;
using vesk_soft::vesk_toolnet_handle;

constexpr unsigned k_toolnet_kinds = 3;
constexpr unsigned k_toolnet_recv_size = 65536; // a whole UDP datagram always fits
constexpr unsigned k_toolnet_udp_burst = 16; // datagrams read per wake-up of one socket
constexpr unsigned k_toolnet_events = 32; // epoll events per wait
constexpr unsigned k_toolnet_default_timeout_ms = 5000;
constexpr unsigned k_toolnet_udp_send_wait_ms = 1000;

// One socket of a table: 80 bytes on the target, 208 entries (16,640 bytes) in all.
struct vesk_toolnet_entry {
    int fd;
    uint32_t gen; // grows at every allocation: stale epoll events are recognised by it
    uint8_t state; // k_free, k_open, k_closing
    uint8_t running; // the event thread is inside a callback of this entry (see the source)
    uint8_t sending; // a TCP sender owns the stream
    uint8_t reserved;
    uint16_t busy; // senders inside a system call on fd
    uint16_t next_free; // free list link (index + 1, 0 ends)
    vesk_soft::vesk_user_id usr_id;
    char name[16];
    vesk_soft::vesk_toolnet_recv_cb on_recv;
    vesk_soft::vesk_toolnet_close_cb on_close;
    vesk_soft::vesk_toolnet_accept_cb on_accept; // listeners
    void* arg;
    vesk_toolnet_handle parent; // connections: the listener that accepted it, 0 for a connect
    uint32_t rx_count; // datagrams or reads
    uint32_t tx_count; // datagrams or sends
    uint64_t rx_bytes;
    uint64_t tx_bytes;
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(vesk_toolnet_entry) == 80, "a Toolnet entry is 80 bytes on the target");
#endif

// Thread safety: m_lock guards the tables, free lists and every entry field but the counters
// the event thread alone writes (rx_*). Callbacks run without it. The event thread never
// waits for a callback; close() from another thread waits (on m_cond) until the entry's
// callback has returned and no sender is inside a system call on it, so the descriptor is
// closed exactly once and never under a running receive or send. Lock order: m_lock, then the
// handle registry's list lock.
class vesk_toolnet final : public vesk_toolnet_diag
{
public:
    vesk_toolnet();
    vesk_toolnet(const vesk_toolnet&) = delete;
    vesk_toolnet& operator=(const vesk_toolnet&) = delete;

    // Tables, receive buffer, epoll descriptor and event thread, once; later calls VESK_OK.
    VESK_ERR start();
    bool started() const { return m_started.load(std::memory_order_acquire); }

    VESK_ERR open_udp(const vesk_soft::vesk_toolnet_udp_param& p, vesk_toolnet_handle* handle);
    VESK_ERR send_to(vesk_toolnet_handle h, const void* data, unsigned len, const sockaddr* to, unsigned to_len);
    VESK_ERR listen_tcp(const vesk_soft::vesk_toolnet_listen_param& p, vesk_toolnet_handle* handle);
    VESK_ERR connect_tcp(const vesk_soft::vesk_toolnet_connect_param& p, vesk_toolnet_handle* handle);
    VESK_ERR send(vesk_toolnet_handle h, const void* data, unsigned len, unsigned timeout_ms, unsigned* sent);
    VESK_ERR close(vesk_toolnet_handle h);
    VESK_ERR local_port(vesk_toolnet_handle h, unsigned short* port);

    VESK_ERR toolnet_diagnose(int para, vesk_soft::print_fn print) override;

    // Open entries of a kind (tests, diagnostics).
    unsigned open_count(uint32_t kind);

private:
    static void* event_thread(void* arg);
    void event_loop();
    void dispatch(uint64_t key, uint32_t events);
    void on_udp(vesk_toolnet_handle h, int fd);
    void on_accept(vesk_toolnet_handle h, int fd);
    void on_conn(vesk_toolnet_handle h, int fd);

    // REQUIRES: m_lock held for all below.
    vesk_toolnet_entry* lookup(vesk_toolnet_handle h);
    vesk_toolnet_entry* alloc(uint32_t kind, int fd, vesk_soft::vesk_user_id usr_id, const char* name,
        vesk_toolnet_handle* h);
    // Takes fd out of epoll, shuts it down (waking senders) and marks the entry closing.
    void begin_close(vesk_toolnet_entry* e);
    // Closes the descriptor and frees the index (to the tail of the free list).
    void finish_close(vesk_toolnet_handle h, vesk_toolnet_entry* e);
    // Registers fd in a new entry and with epoll; VESK_ERR_NO_RESOURCE when the table is full.
    VESK_ERR adopt(uint32_t kind, int fd, vesk_soft::vesk_user_id usr_id, const char* name,
        vesk_toolnet_entry** out, vesk_toolnet_handle* h);

    void dump_udp(vesk_soft::print_fn print);
    void dump_tcp(vesk_soft::print_fn print);
    bool on_event_thread() const;

    struct table {
        vesk_toolnet_entry* entries;
        unsigned size;
        uint16_t free_head; // index + 1, 0: none
        uint16_t free_tail;
    };

    pthread_mutex_t m_lock;
    pthread_cond_t m_cond;
    table m_tables[k_toolnet_kinds] = {};
    int m_epoll_fd = -1;
    unsigned char* m_recv_buf = nullptr; // the event thread's alone
    unsigned long m_thread = 0; // the event thread (pthread_t), atomic access
    std::atomic<bool> m_started{false};
    pthread_mutex_t m_start_lock;
    std::atomic<bool> m_udp_debug{false};
    std::atomic<bool> m_tcp_debug{false};
};

} // namespace vesk_utility

#endif // VESK_UTILITY_TOOLNET_H
