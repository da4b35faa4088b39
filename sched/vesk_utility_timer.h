// vesk_utility_timer - the timer service: task queues sorted by due time, the common,
// temporary and real-time service threads that run them, and the check thread that grows and
// shrinks the common group and calls the fetch-watchdog callback.
#ifndef VESK_UTILITY_TIMER_INTERNAL_H
#define VESK_UTILITY_TIMER_INTERNAL_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

// The public declarations come through the umbrella header, which resolves its own includes
// in include/ (this file shares its name with the public timer header).
#include "vesk_utility.h"

namespace vesk_utility
{

using vesk_soft::print_fn;
using vesk_soft::VESK_BOOL;
using vesk_soft::VESK_ERR;
using vesk_soft::vesk_timer_callback;
using vesk_soft::vesk_timer_purpose;
using vesk_soft::vesk_timer_task_type;
using vesk_soft::vesk_user_id;

constexpr uint32_t k_timer_node_pool_num = 428; // preallocated task nodes
constexpr uint32_t k_timer_base_comm_threads = 5; // common threads made at start
constexpr uint32_t k_timer_base_rt_threads = 2; // real-time threads made at start
constexpr uint32_t k_timer_limited_start_limit = 2; // 0x21000 tasks at once, before any adjustment
constexpr uint32_t k_timer_max_sleep_ms = 100; // longest sleep of an idle service thread
constexpr uint32_t k_timer_early_us = 4999; // a task this close to due is taken now
constexpr uint32_t k_timer_comm_backoff_us = 10000; // per back-off step, common queue and slot
constexpr uint32_t k_timer_rt_backoff_us = 2000; // per back-off step, real-time queue
constexpr uint32_t k_timer_limited_retry_ms = 100; // a 0x21000 task over the limit waits this long
constexpr uint32_t k_timer_mark_life_ms = 1000; // a mark for a task found nowhere
constexpr uint32_t k_timer_unreg_poll_ms = 40; // unregistration with wait polls this often
constexpr uint32_t k_timer_check_ms = 100; // check period
constexpr uint32_t k_timer_check_hurry_ms = 40; // check period while more than 5 threads are needed
constexpr uint32_t k_timer_delay_ms = 100; // a task this far past due counts as delayed
constexpr uint32_t k_timer_max_start_per_check = 5; // temporary threads started by one check
constexpr uint32_t k_timer_shrink_ms = 10000; // surplus period before temporary threads retire
constexpr uint32_t k_timer_rotate_pull_ms = 200; // least gap between two pulls of the 0x88 slot
constexpr uint32_t k_timer_comm_stack = 2097152; // common and temporary threads
constexpr uint32_t k_timer_rt_stack = 1048576; // real-time threads
constexpr uint32_t k_timer_check_stack = 524288; // the check thread

// One task (or one delete mark), a node of exactly one list at a time.
//   | usr_id | purpose | param | func | interval | suspended | last_sec | last_nsec |
//   0        4         8       12     16         20          24         28
//   | due_sec | due_nsec | backoff | pre | next |
//   32        36         40        44    48     52 bytes on the 32-bit target
// On a 64-bit host param and func are 8 bytes (at 8 and 16), the 32-bit fields follow from 24
// and the links sit at 56 and 64: 72 bytes.
// A delete mark uses func and param as its key, `suspended` for "lives until removed" and,
// when that is clear, `last` as its birth and `interval` as its lifetime in ms.
struct vesk_timer_task_node {
    vesk_user_id usr_id;
    vesk_timer_purpose purpose;
    void* param;
    vesk_timer_callback func;
    uint32_t interval; // ms
    uint32_t suspended; // waits at the tail until woken
    uint32_t last_sec; // last start or end of a run (monotonic)
    uint32_t last_nsec;
    uint32_t due_sec; // monotonic
    uint32_t due_nsec;
    uint32_t backoff; // fetches that found this task not yet due
    vesk_timer_task_node* pre;
    vesk_timer_task_node* next;
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(offsetof(vesk_timer_task_node, interval) == 16, "interval at 16 on the target");
static_assert(offsetof(vesk_timer_task_node, pre) == 44, "links at 44 on the target");
static_assert(sizeof(vesk_timer_task_node) == 52, "a task node is 52 bytes on the target");
#else
static_assert(offsetof(vesk_timer_task_node, interval) == 24, "interval at 24 on a 64-bit host");
static_assert(offsetof(vesk_timer_task_node, pre) == 56, "links at 56 on a 64-bit host");
static_assert(sizeof(vesk_timer_task_node) == 72, "a task node is 72 bytes on a 64-bit host");
#endif

// A doubly linked list of task nodes under its own mutex: a wait queue (sorted by due time), a
// running list, the delete marks or the free list.
struct vesk_timer_queue {
    pthread_mutex_t lock;
    vesk_timer_task_node* que_head; // GUARDED_BY(lock)
    vesk_timer_task_node* que_tail; // GUARDED_BY(lock)
    uint32_t sorted; // 1: by due time, suspended tasks at the tail
    uint32_t type; // 0 common, 1 real-time, 2 marks / free list
};

// Wait queue and running list of one kind of task. Lock order: wait.lock, then run.lock; so a
// task is never between the two lists as far as registration and unregistration can see.
struct vesk_timer_task_set {
    vesk_timer_queue wait;
    vesk_timer_queue run;
};

enum vesk_timer_thread_state : uint32_t {
    VESK_TIMER_THR_NOT_STARTED = 0,
    VESK_TIMER_THR_SLEEPING = 1,
    VESK_TIMER_THR_FETCHING = 2,
    VESK_TIMER_THR_RUNNING = 3,
    VESK_TIMER_THR_RETURNED = 4,
    VESK_TIMER_THR_EXITED = 5,
};

class vesk_utility_timer;

// One service thread. Written by its own thread (the check thread writes state and exit_mark
// of a temporary slot it starts or retires); read without a lock by the check thread and the
// diagnostics, hence relaxed atomics of the same size as the plain fields.
//   | state | pid | exit_mark | usr_id | purpose | start_sec | start_nsec | duration_ms |
//   0       4     8           12       16        20          24           28
//   | sleep_ms | type | index | owner |
//   32         36     40      44    48 bytes on the target (owner at 48, 56 bytes on a 64-bit host)
struct vesk_timer_thread {
    std::atomic<uint32_t> state; // vesk_timer_thread_state
    std::atomic<int32_t> pid;
    std::atomic<uint32_t> exit_mark; // a temporary thread leaves when it next finds no task
    std::atomic<uint32_t> usr_id; // of the task being run or last run
    std::atomic<uint32_t> purpose;
    std::atomic<uint32_t> start_sec;
    std::atomic<uint32_t> start_nsec;
    std::atomic<int32_t> duration_ms; // of the last run, -1 while running
    std::atomic<uint32_t> sleep_ms; // last sleep
    uint32_t type; // 0 common, 1 real-time
    uint32_t index;
    vesk_utility_timer* owner;
};
static_assert(sizeof(std::atomic<uint32_t>) == 4, "atomic fields keep the record's layout");
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(offsetof(vesk_timer_thread, owner) == 44 && sizeof(vesk_timer_thread) == 48, "descriptor (target)");
#else
static_assert(offsetof(vesk_timer_thread, owner) == 48 && sizeof(vesk_timer_thread) == 56, "descriptor (host)");
#endif

class timer_probe;

// Thread safety: every public member may be called from any thread. Each list has its own
// mutex. Lock order, outermost first:
//   a set's wait.lock -> that set's run.lock -> m_del_que.lock -> m_free_que.lock
//   m_slot_lock -> m_free_que.lock;  m_thr_lock -> m_limited_lock
// m_limited_lock and m_wd_lock are taken alone otherwise. No two sets' locks are ever held
// together. Callbacks (tasks and the fetch watchdog) run with no lock of the service held. The
// rotate waker runs under the allocator's budget mutex and takes only m_slot_lock; the free
// list may call the allocator (for an overflow node), never with the budget in play.
class vesk_utility_timer final : public vesk_soft::vesk_diagnose_client
{
public:
    // Allocates the node pool and starts 5 common, 2 real-time threads and the check thread;
    // allocation failures are fatal.
    vesk_utility_timer();
    // The service lives as long as the process: destroying it is fatal.
    ~vesk_utility_timer() override;
    vesk_utility_timer(const vesk_utility_timer&) = delete;
    vesk_utility_timer& operator=(const vesk_utility_timer&) = delete;

    // 1 all tasks; 2 all service threads; 3-8 the network tool's listen tasks and switches.
    VESK_ERR diagnose(int para, print_fn print) override;

    VESK_ERR regist_c_func(vesk_user_id usr_id, vesk_timer_callback func, vesk_timer_purpose purpose,
        uint32_t interval_ms, void* param, vesk_timer_task_type type, uint32_t first_ms);
    VESK_ERR regist_fetch_wd(vesk_timer_callback func, uint32_t interval_ms, void* param);
    VESK_ERR unregist_c_func(vesk_timer_callback func, void* param, VESK_BOOL wait, vesk_timer_task_type type);
    VESK_ERR wakeup(vesk_timer_callback func, void* param, uint32_t delay_ms, vesk_timer_task_type type);
    VESK_ERR adj_comm_thr_num(uint32_t num, uint32_t temp_num);
    VESK_ERR adj_real_time_thr_num(uint32_t num);

    // Makes the 0x88 slot task due now, unless it was pulled less than 200 ms ago. Called by
    // the allocator (under its budget mutex) when the A/V cache reaches its rotation threshold.
    void pull_rotate_forward();

    // True once the check thread has announced itself: start-up has printed all it prints.
    bool check_thread_entered() const { return m_check_entered.load(std::memory_order_acquire); }

private:
    friend class timer_probe;

    // Task nodes. take_node fails only when the heap does: an empty free list allocates one
    // more node (with a warning), which joins the free list when released.
    vesk_timer_task_node* take_node();
    void free_node(vesk_timer_task_node* node);

    // Lists. REQUIRES: que->lock held. O(1) except where noted.
    static void que_append(vesk_timer_queue* que, vesk_timer_task_node* node);
    static void que_unlink(vesk_timer_queue* que, vesk_timer_task_node* node);
    static void que_insert_sorted(vesk_timer_queue* que, vesk_timer_task_node* node); // O(queue)
    static vesk_timer_task_node* que_find(vesk_timer_queue* que, vesk_timer_callback func, void* param); // O(list)

    // Delete marks (each takes m_del_que.lock). O(marks).
    bool has_del_mark(vesk_timer_callback func, void* param);
    bool remove_del_mark(vesk_timer_callback func, void* param); // true when one was there
    void purge_del_marks();

    vesk_timer_task_set* set_of(uint32_t type) { return type == 1 ? &m_rt_set : &m_comm_set; }
    void put_in_slot(vesk_timer_task_node* node);
    bool wakeup_in(vesk_timer_queue* que, vesk_timer_callback func, void* param, uint32_t delay_ms);
    VESK_ERR unregist_in_set(
        vesk_timer_task_set* set, vesk_timer_callback func, void* param, VESK_BOOL wait, bool* done);
    // Takes the due head of a wait queue onto its running list (freeing marked ones); NULL and
    // a suggested wait (*wait_ms) when none is due.
    vesk_timer_task_node* fetch_que(vesk_timer_task_set* set, uint32_t backoff_us, uint32_t* wait_ms);
    vesk_timer_task_node* fetch_slot(uint32_t* wait_ms);
    vesk_timer_task_node* fetch_common(uint32_t* wait_ms);
    // After a run: back to the wait queue (or the slot), or freed when marked or deleted.
    void requeue(vesk_timer_thread* thr, vesk_timer_task_node* node);
    void finish_deleted(vesk_timer_thread* thr, vesk_timer_task_node* node);
    void limited_done(const vesk_timer_task_node* node);
    // Start or end of a run: the node's times, interval and suspension, under its list's lock.
    void stamp(vesk_timer_thread* thr, vesk_timer_task_node* node, uint32_t sec, uint32_t nsec, uint32_t interval,
        uint32_t suspended);

    // Threads.
    static void* timer_task_thread(void* param);
    static void* timer_check_thread(void* param);
    bool start_thread(vesk_timer_thread* thr, uint32_t work_type, uint32_t stack);
    vesk_timer_thread* new_threads(uint32_t count, uint32_t type, uint32_t first_index);
    // One check; returns the wait until the next one (ms).
    uint32_t check();
    void check_fetch_wd();

    // Diagnostics (vesk_utility_timer_diag.cpp).
    void dump_tasks(print_fn print);
    void dump_list(vesk_timer_queue* que, bool waiting, print_fn print);
    void dump_threads(print_fn print);

    // Common threads: the base group made at start, the group one adjustment may add, and the
    // slots for temporary threads; then the real-time groups. Arrays and counts are published
    // under m_thr_lock and never shrink or move, so readers copy them under it and then use
    // the descriptors without it.
    pthread_mutex_t m_thr_lock;
    uint32_t m_comm_thr_num = 0;
    uint32_t m_comm_thr_adj_num = 0;
    uint32_t m_comm_thr_temp_num = 0;
    vesk_timer_thread* m_comm_thr = nullptr;
    vesk_timer_thread* m_comm_thr_adj = nullptr;
    vesk_timer_thread* m_comm_thr_temp = nullptr;
    vesk_timer_task_set m_comm_set;
    uint32_t m_real_time_thr_num = 0;
    uint32_t m_real_time_thr_adj_num = 0;
    vesk_timer_thread* m_real_time_thr = nullptr;
    vesk_timer_thread* m_real_time_thr_adj = nullptr;
    vesk_timer_task_set m_rt_set;
    vesk_timer_queue m_del_que; // delete marks, unsorted

    pthread_mutex_t m_slot_lock;
    vesk_timer_task_node* m_slot = nullptr; // GUARDED_BY(m_slot_lock): the 0x88 task when waiting
    struct {
        uint32_t sec, nsec;
    } m_slot_pull = {0, 0}; // GUARDED_BY(m_slot_lock): last pull by the allocator
    bool m_slot_pulled = false; // GUARDED_BY(m_slot_lock)

    uint32_t m_task_node_pool_num = k_timer_node_pool_num;
    vesk_timer_task_node* m_node_first = nullptr;
    vesk_timer_task_node* m_node_last = nullptr;
    vesk_timer_queue m_free_que;
    std::atomic<uint32_t> m_node_total {0}; // pool plus overflow nodes
    std::atomic<bool> m_check_entered {false};

    pthread_mutex_t m_limited_lock;
    uint32_t m_limited_running = 0; // GUARDED_BY(m_limited_lock)
    uint32_t m_limited_max = k_timer_limited_start_limit;

    pthread_mutex_t m_wd_lock;
    vesk_timer_callback m_wd_func = nullptr; // GUARDED_BY(m_wd_lock)
    uint32_t m_wd_interval = 0;
    void* m_wd_param = nullptr;
    uint64_t m_wd_last_ms = 0;
    bool m_wd_ran = false;

    // Shrink rule, touched only by the check thread.
    uint64_t m_shrink_start_ms = 0; // 0: no period running
    uint32_t m_shrink_min_surplus = 0;
    uint32_t m_short_start_cnt = 0; // checks that could not start every needed thread
};

// The callback the allocator calls when the A/V cache reaches its rotation threshold: pulls the
// process's 0x88 slot task forward when the timer exists.
void timer_rotate_waker();

// Milliseconds on the monotonic clock (for the service's own bookkeeping and its tests).
uint64_t timer_now_ms();

} // namespace vesk_utility

#endif // VESK_UTILITY_TIMER_INTERNAL_H
