// vesk_utility_diagnose - the diagnose agent: a unix-socket server through which a console
// lists the registered diagnose clients, reads their help and runs their numbered commands,
// whose printed output travels back over the socket. Polled once a second by a timer task.
#ifndef VESK_UTILITY_DIAGNOSE_H
#define VESK_UTILITY_DIAGNOSE_H

#include <sys/un.h>

#include <cstdint>
#include <mutex>

#include "vesk_utility_timer.h"
#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::print_fn;
using vesk_soft::vesk_diagnose_client;
using vesk_soft::VESK_ERR;

// Thread safety: regist_diag may be called from any thread; work() is called from one
// thread at a time (the timer task). m_lock guards the list head only: nodes are never
// removed while the agent lives, and a node's next, client and texts never change once it is
// published under the lock, so a command reads the head under the lock and walks the list
// without it. A client's diagnose() thus prints with no lock held, and a registration never
// waits for a console. The connection fields are touched only by work() and the print it
// drives, on that thread.
//
// A console never stalls that thread: output is sent without blocking, waiting in a 64 KiB
// buffer; a request may wait at most 500 ms in total for room, after which the console is
// dropped as not keeping up (as on any write error). A console that closes with half a
// request is dropped at the next poll, and a request left incomplete for a second too.
// The timer purpose of the agent's poll task.
constexpr vesk_soft::vesk_timer_purpose k_timer_diag_task_purpose = 137;

class vesk_diagnose_agent final {
public:
    // Listens (non-blocking, backlog 1, mode 0600) on `path`, unlinking a stale socket
    // first. Failures are logged; the agent then never accepts.
    explicit vesk_diagnose_agent(const char* path);
    ~vesk_diagnose_agent();
    vesk_diagnose_agent(const vesk_diagnose_agent&) = delete;
    vesk_diagnose_agent& operator=(const vesk_diagnose_agent&) = delete;

    // Pushes the client at the head of the list (index 0 is the newest) with private copies
    // of its title and help. A client already registered is refused with a warning.
    // Always VESK_OK.
    VESK_ERR regist_diag(vesk_diagnose_client* client, const char* purpose, const char* help);

    // One poll: send waiting output, accept a console, or read and answer one complete
    // request. Returns the delay until the next poll: k_poll_ms, or less while output waits
    // or a request is half read.
    unsigned work();

    // Whether a console is connected (tests and the fuzz target).
    bool has_console() const { return m_com_fd >= 0; }

    // How the resource manager schedules work() on the timer (utility_diagnose_thread): once a
    // second, the first time once start-up has settled.
    static constexpr unsigned k_poll_ms = 1000;
    static constexpr unsigned k_first_poll_ms = 30000;

    // Queues one text message for the console (cut to 511 characters + NUL). 0 while the
    // console takes its output; VESK_ERR_OPERATE_FAIL without a connection, after which a
    // failed write or a console that does not keep up leaves none.
    VESK_ERR send_text(const char* text);

    // The print_fn handed to clients: formats and sends through the agent whose command is
    // running on this thread.
    static int print(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

    struct client_node {
        vesk_diagnose_client* client;
        char* purpose;
        char* help;
        client_node* pre;
        client_node* next;
    };

private:
    void close_connection();
    // Sends what waits in m_out without blocking; false (console closed) on a write error.
    bool flush();
    // Appends a message to m_out and sends what it can; false when the console is gone.
    bool queue(const void* data, uint32_t len);
    void send_finish(uint32_t seq);
    void dispatch(uint32_t seq, uint32_t cmd, const int32_t* args, uint32_t nargs);
    static client_node* find(client_node* head, int32_t idx);

    std::mutex m_lock;
    uint32_t m_idle_cnt = 0;    // polls since the last complete request
    int m_com_fd = -1;          // the accepted console, -1 when none
    char* m_out = nullptr;      // output waiting for the console: [m_out_head, m_out_len)
    uint32_t m_out_head = 0;
    uint32_t m_out_len = 0;
    long long m_stall_deadline = 0;  // end of the running request's wait budget
    long long m_partial_since = 0;   // when a half request was first seen, 0 when none
    int m_listen_fd = -1;
    char m_path[sizeof(sockaddr_un::sun_path)] = {};
    client_node* m_head = nullptr;  // GUARDED_BY(m_lock)
};

// The agent's polling task: one work() step, then again after 1000 ms. userParam is the agent
// (fatal when NULL).
vesk_soft::vesk_timer_ret_code utility_diagnose_thread(void* userParam, unsigned int* next_ms,
                                                       vesk_soft::vesk_timer_task_type* task_type);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_DIAGNOSE_H
