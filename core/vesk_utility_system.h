// vesk_utility_system - the system-command client, which hands shell commands to the proxy
// server over a unix socket so that the large main process never forks, and the process
// helpers (pipe children, captured output, file-backed popen).
#ifndef VESK_UTILITY_SYSTEM_H
#define VESK_UTILITY_SYSTEM_H

#include <cstdint>
#include <cstdio>

#include "vesk_utility.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

constexpr uint32_t k_cmd_first_magic = 38183; // 0x9527; grows by one per command, wrapping
constexpr unsigned k_cmd_answer_slots = 64; // answers received but not yet collected
constexpr unsigned k_cmd_poll_ms = 100; // waiter's poll and receive task period
constexpr unsigned k_cmd_wait_tries = 60000; // 6000 s before a waiter gives up
constexpr unsigned k_cmd_wait_log_every = 100; // a debug line every 10 s of waiting
constexpr vesk_soft::vesk_timer_purpose k_timer_system_task_purpose = 141;
// The receive task's first run, 1 s after start.
constexpr unsigned k_first_receive_ms = 1000;

// Thread safety: every operation may be called from any thread.
// Lock order: m_send_lock, then m_rec_lock. m_send_lock guards m_connect_fd and m_magic (the
// receive step takes it too, so the descriptor cannot be closed and reused under its read);
// m_rec_lock guards m_answers.
class vesk_utility_system_client final
{
public:
    // Copies the path and tries a first connection (a missing proxy is not an error here).
    explicit vesk_utility_system_client(const char* server_path);
    vesk_utility_system_client(const vesk_utility_system_client&) = delete;
    vesk_utility_system_client& operator=(const vesk_utility_system_client&) = delete;

    // Runs cmd through the proxy and waits until it has finished: 0, or -1 when no answer came
    // within 6000 s. When the proxy cannot be reached the command runs here through system().
    int process_system(const char* cmd);

    // One receive step: collects the answers that have arrived, never blocking.
    void rec_answer_msg();

    // Sends cmd in 140-byte requests under one magic, returned in *magic. 0 or -1.
    int send_msg_kqz_system(const char* cmd, uint32_t* magic);
    // Stores an answer for its waiter; when all 64 slots are taken the answer is lost.
    void push_answer(uint32_t magic);
    // 1 (and the slot is freed) when the answer for magic has arrived, else 0.
    int answer_is_ok(uint32_t magic);

    const char* server_path() const { return m_server_path; }

private:
    struct answer_slot {
        uint32_t magic;
        uint32_t used;
    };

    // Connects within 1 s (a full backlog counts as no proxy); sends then give up after 5 s.
    void connect_socket(); // REQUIRES: m_send_lock held
    void disconnect(); // REQUIRES: m_send_lock held

    vesk_soft::vesk_lock* m_send_lock;
    vesk_soft::vesk_lock* m_rec_lock;
    int m_connect_fd = -1;
    uint32_t m_magic = k_cmd_first_magic;
    char* m_server_path;
    answer_slot m_answers[k_cmd_answer_slots] = {};
};

// The receive task: one step, then again after 100 ms. A NULL parameter is fatal.
vesk_soft::vesk_timer_ret_code vesk_utility_system_thread(
    void* param, unsigned* next_ms, vesk_soft::vesk_timer_task_type* type);

// Starts `sh -c cmd` with a pipe to its stdout (type "r") or from its stdin ("w"). *fd and
// *pid are -1 on failure. VESK_ERR_INVALID_PARAM for any other type, VESK_ERR_OPERATE_FAIL
// when pipe or vfork fail.
VESK_ERR popen_ex(const char* cmd, const char* type, int* fd, int* pid);
// Closes fd, sends SIGTERM to the child and its process group whether or not it has finished,
// and reaps it.
VESK_ERR close_ex(int fd, int pid);
// Runs cmd and keeps at most buf_size - 1 bytes of its output in buf (NUL-terminated),
// waiting at most timeout_ms for it to finish writing. VESK_ERR_OPERATE_FAIL on time-out or a
// system-call failure; the child is always ended.
VESK_ERR execute_cmd(const char* cmd, unsigned timeout_ms, char* buf, unsigned buf_size);
// Runs "cmd > /tmp/vesk_popen_outfile_N.txt" through the proxy, then opens that file. The
// file is created here first, O_CREAT | O_EXCL | O_NOFOLLOW with mode 0600, and the stream
// reads that very file: a name planted in /tmp (a link to a victim) is skipped, never written
// through. N is pid * 100000 + a counter, retried while the name exists, so that processes do
// not collide; the plain per-process counter from 1 would.
FILE* vesk_popen(vesk_utility_system_client* client, const char* cmd, const char* mode);
// Closes the stream and removes the file vesk_popen created for it, by the name it created,
// not by what /proc/self/fd resolves to (a link's target would be removed). -1, nothing
// removed, for a stream that vesk_popen did not return.
int vesk_pclose(FILE* fp);

} // namespace vesk_utility

#endif // VESK_UTILITY_SYSTEM_H
