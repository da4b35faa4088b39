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
// thread at a time (the timer task). m_lock guards the client list and is held for the
// whole of a list, help or run command, so a long command delays registrations. The
// connection fields are touched only by work() and the print it drives, on that thread.
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

    // One poll: accept a console, or read and answer one complete request.
    void work();

    // How the resource manager schedules work() on the timer (utility_diagnose_thread): once a
    // second, the first time once start-up has settled.
    static constexpr unsigned k_poll_ms = 1000;
    static constexpr unsigned k_first_poll_ms = 30000;

    // Sends one text message to the console (cut to 511 characters + NUL). 0 while the text
    // reaches the console; VESK_ERR_OPERATE_FAIL without a connection or after a failed write.
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
    void send_finish(uint32_t seq);
    void dispatch(uint32_t seq, uint32_t cmd, const int32_t* args, uint32_t nargs);
    client_node* find(int32_t idx);  // REQUIRES: m_lock held

    std::mutex m_lock;
    uint32_t m_idle_cnt = 0;    // polls since the last complete request
    uint32_t m_write_fail = 0;  // set by a short write, cleared by the next accept
    int m_com_fd = -1;          // the accepted console, -1 when none
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
