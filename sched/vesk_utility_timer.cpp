// vesk_utility_timer - the timer service: owns the task node pool, the common and real-time
// task sets, the delete marks, the 0x88 slot and the service threads with their check thread.
// Its diagnose tables live in vesk_utility_timer_diag.cpp.
#include "sched/vesk_utility_timer.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_service.h"
#include "sched/vesk_utility_thread_pool.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_utility_timer";
constexpr const char* k_timer_thread_name = "UTL_comm_timer";
constexpr const char* k_check_thread_name = "UTL_timer_check";

// The process's service, for the allocator's waker (which has no argument).
std::atomic<vesk_utility_timer*> s_timer {nullptr};

struct mono_time {
    uint32_t sec;
    uint32_t nsec;
};

mono_time mono_now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return {static_cast<uint32_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec)};
}

mono_time mono_add_ms(mono_time t, uint32_t ms)
{
    uint64_t nsec = t.nsec + static_cast<uint64_t>(ms % 1000) * 1000000u;
    t.sec += ms / 1000 + static_cast<uint32_t>(nsec / 1000000000u);
    t.nsec = static_cast<uint32_t>(nsec % 1000000000u);
    return t;
}

// Signed microseconds from `now` until (sec, nsec); negative once it has passed.
int64_t us_until(uint32_t sec, uint32_t nsec, mono_time now)
{
    return (static_cast<int64_t>(sec) - now.sec) * 1000000 + (static_cast<int64_t>(nsec) - now.nsec) / 1000;
}

void set_due(vesk_timer_task_node* node, mono_time t)
{
    node->due_sec = t.sec;
    node->due_nsec = t.nsec;
}

void lock(pthread_mutex_t* m)
{
    pthread_mutex_lock(m);
}

void unlock(pthread_mutex_t* m)
{
    pthread_mutex_unlock(m);
}

void init_queue(vesk_timer_queue* que, uint32_t sorted, uint32_t type)
{
    pthread_mutex_init(&que->lock, nullptr);
    que->que_head = nullptr;
    que->que_tail = nullptr;
    que->sorted = sorted;
    que->type = type;
}

utility_thread_pool* thread_pool()
{
    return vesk_service<utility_thread_pool>::find();
}

} // namespace

uint64_t timer_now_ms()
{
    const mono_time t = mono_now();
    return static_cast<uint64_t>(t.sec) * 1000 + t.nsec / 1000000;
}

void timer_rotate_waker()
{
    vesk_utility_timer* t = s_timer.load(std::memory_order_acquire);
    if (t != nullptr)
        t->pull_rotate_forward();
}

// ---- Construction -------------------------------------------------------------------------

vesk_utility_timer::vesk_utility_timer()
{
    init_queue(&m_comm_set.wait, 1, VESK_TIMER_TASK_COMMON);
    init_queue(&m_comm_set.run, 0, VESK_TIMER_TASK_COMMON);
    init_queue(&m_rt_set.wait, 1, VESK_TIMER_TASK_REAL_TIME);
    init_queue(&m_rt_set.run, 0, VESK_TIMER_TASK_REAL_TIME);
    init_queue(&m_del_que, 0, 2);
    init_queue(&m_free_que, 0, 2);
    pthread_mutex_init(&m_slot_lock, nullptr);
    pthread_mutex_init(&m_limited_lock, nullptr);
    pthread_mutex_init(&m_wd_lock, nullptr);
    pthread_mutex_init(&m_thr_lock, nullptr);

    vesk_timer_task_node* task_node = static_cast<vesk_timer_task_node*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_timer,
        m_task_node_pool_num * sizeof(vesk_timer_task_node), vesk_obj_align<vesk_timer_task_node>()));
    VESK_ASSERT(task_node != NULL);
    memset(static_cast<void*>(task_node), 0, m_task_node_pool_num * sizeof(vesk_timer_task_node));
    m_node_first = task_node;
    m_node_last = task_node + m_task_node_pool_num - 1;
    for (uint32_t i = 0; i < m_task_node_pool_num; i++)
        que_append(&m_free_que, &task_node[i]);
    m_node_total = m_task_node_pool_num;
    s_timer.store(this, std::memory_order_release);

    m_limited_max = k_timer_limited_start_limit;
    adj_comm_thr_num(k_timer_base_comm_threads, 0);
    adj_real_time_thr_num(k_timer_base_rt_threads);

    const vesk_thread_creat_ctl ctl = {VESK_THREAD_WORK_REAL_TIME, 0, timer_check_thread, this, 1, k_timer_check_stack};
    unsigned long hand = 0;
    if (creat_thread(thread_pool(), &ctl, k_check_thread_name, &hand) != VESK_OK)
        VESK_LOG_ERR(k_cls, "creat %s fail!\n", k_check_thread_name);
}

vesk_utility_timer::~vesk_utility_timer()
{
    VESK_ASSERT(0);
}

// ---- Nodes and lists ----------------------------------------------------------------------

vesk_timer_task_node* vesk_utility_timer::take_node()
{
    lock(&m_free_que.lock);
    vesk_timer_task_node* node = m_free_que.que_head;
    if (node != nullptr)
        que_unlink(&m_free_que, node);
    unlock(&m_free_que.lock);
    if (node == nullptr) {
        VESK_LOG_WARN(k_cls, "m_task_node_pool_num = %d overflow!\n", m_task_node_pool_num);
        node = static_cast<vesk_timer_task_node*>(vesk_malloc(
            VESK_USER_UTILITY, k_purpose_timer, sizeof(vesk_timer_task_node), vesk_obj_align<vesk_timer_task_node>()));
        if (node == nullptr)
            return nullptr;
        m_node_total.fetch_add(1, std::memory_order_relaxed);
    }
    memset(static_cast<void*>(node), 0, sizeof(*node));
    return node;
}

// Overflow nodes are kept too: a burst that needed them is likely to come back.
void vesk_utility_timer::free_node(vesk_timer_task_node* node)
{
    lock(&m_free_que.lock);
    que_append(&m_free_que, node);
    unlock(&m_free_que.lock);
}

void vesk_utility_timer::que_append(vesk_timer_queue* que, vesk_timer_task_node* node)
{
    node->next = nullptr;
    node->pre = que->que_tail;
    if (que->que_tail != nullptr)
        que->que_tail->next = node;
    else
        que->que_head = node;
    que->que_tail = node;
}

void vesk_utility_timer::que_unlink(vesk_timer_queue* que, vesk_timer_task_node* node)
{
    if (node->pre != nullptr)
        node->pre->next = node->next;
    else
        que->que_head = node->next;
    if (node->next != nullptr)
        node->next->pre = node->pre;
    else
        que->que_tail = node->pre;
    node->pre = nullptr;
    node->next = nullptr;
}

// Suspended tasks wait at the tail in arrival order; the others are ordered by due time, equal
// times keeping arrival order. O(queue length).
void vesk_utility_timer::que_insert_sorted(vesk_timer_queue* que, vesk_timer_task_node* node)
{
    if (!que->sorted || node->suspended) {
        que_append(que, node);
        return;
    }
    vesk_timer_task_node* p = que->que_head;
    while (p != nullptr && !p->suspended
        && (p->due_sec < node->due_sec || (p->due_sec == node->due_sec && p->due_nsec <= node->due_nsec)))
        p = p->next;
    if (p == nullptr) {
        que_append(que, node);
        return;
    }
    node->next = p;
    node->pre = p->pre;
    if (p->pre != nullptr)
        p->pre->next = node;
    else
        que->que_head = node;
    p->pre = node;
}

vesk_timer_task_node* vesk_utility_timer::que_find(vesk_timer_queue* que, vesk_timer_callback func, void* param)
{
    for (vesk_timer_task_node* n = que->que_head; n != nullptr; n = n->next) {
        if (n->func == func && n->param == param)
            return n;
    }
    return nullptr;
}

// ---- Delete marks -------------------------------------------------------------------------
// A mark says "free (func, param) when it next passes between lists". Marks are keyed by the
// pair: removal takes every mark of the pair, so concurrent unregistrations all see it go.

bool vesk_utility_timer::has_del_mark(vesk_timer_callback func, void* param)
{
    lock(&m_del_que.lock);
    const bool found = que_find(&m_del_que, func, param) != nullptr;
    unlock(&m_del_que.lock);
    return found;
}

bool vesk_utility_timer::remove_del_mark(vesk_timer_callback func, void* param)
{
    bool found = false;
    lock(&m_del_que.lock);
    for (vesk_timer_task_node* n = m_del_que.que_head; n != nullptr;) {
        vesk_timer_task_node* next = n->next;
        if (n->func == func && n->param == param) {
            que_unlink(&m_del_que, n);
            free_node(n);
            found = true;
        }
        n = next;
    }
    unlock(&m_del_que.lock);
    return found;
}

void vesk_utility_timer::purge_del_marks()
{
    lock(&m_del_que.lock);
    if (m_del_que.que_head != nullptr) {
        const mono_time now = mono_now();
        for (vesk_timer_task_node* n = m_del_que.que_head; n != nullptr;) {
            vesk_timer_task_node* next = n->next;
            if (!n->suspended && -us_until(n->last_sec, n->last_nsec, now) > static_cast<int64_t>(n->interval) * 1000) {
                que_unlink(&m_del_que, n);
                free_node(n);
            }
            n = next;
        }
    }
    unlock(&m_del_que.lock);
}

// ---- Registration, unregistration, wake-up ------------------------------------------------

VESK_ERR vesk_utility_timer::regist_c_func(vesk_user_id usr_id, vesk_timer_callback func, vesk_timer_purpose purpose,
    uint32_t interval_ms, void* param, vesk_timer_task_type type, uint32_t first_ms)
{
    remove_del_mark(func, param);
    vesk_timer_task_node* node = nullptr;
    if (type == VESK_TIMER_TASK_COMMON || type == VESK_TIMER_TASK_REAL_TIME) {
        vesk_timer_task_set* set = set_of(type);
        lock(&set->wait.lock);
        lock(&set->run.lock);
        const bool running = que_find(&set->run, func, param) != nullptr;
        if (!running) {
            node = que_find(&set->wait, func, param);
            if (node != nullptr)
                que_unlink(&set->wait, node);
        }
        unlock(&set->run.lock);
        unlock(&set->wait.lock);
        if (running)
            return VESK_OK; // the run in progress requeues it
    }
    if (purpose == VESK_TIMER_PURPOSE_ROTATE) {
        // The slot task is in no queue: a re-registration finds it here.
        lock(&m_slot_lock);
        if (m_slot != nullptr && m_slot->func == func && m_slot->param == param) {
            node = m_slot;
            m_slot = nullptr;
        }
        unlock(&m_slot_lock);
    }
    if (node != nullptr) {
        // Only the labels, the callback and the due time are refilled: a suspended task stays
        // suspended until it is woken.
        VESK_LOG_DBG(k_cls, "user_id = 0x%x, purpose_id = 0x%x, already exist!\n", usr_id, purpose);
    } else {
        node = take_node();
        if (node == nullptr) {
            VESK_LOG_ERR(k_cls, "proc_malloc_task_node fail!");
            return VESK_ERR_OPERATE_FAIL;
        }
    }
    node->usr_id = usr_id;
    node->interval = interval_ms;
    node->purpose = purpose;
    node->param = param;
    node->func = func;
    set_due(node, mono_add_ms(mono_now(), first_ms));

    if (purpose == VESK_TIMER_PURPOSE_ROTATE) {
        put_in_slot(node);
    } else {
        vesk_timer_queue* que = type == VESK_TIMER_TASK_REAL_TIME ? &m_rt_set.wait : &m_comm_set.wait;
        lock(&que->lock);
        que_insert_sorted(que, node);
        unlock(&que->lock);
    }
    return VESK_OK;
}

// The slot holds one task. Another 0x88 task displaces the one there (there is one cache
// rotation per process; a second is a programming error worth a warning, not a leak).
void vesk_utility_timer::put_in_slot(vesk_timer_task_node* node)
{
    lock(&m_slot_lock);
    vesk_timer_task_node* old = m_slot;
    m_slot = node;
    unlock(&m_slot_lock);
    if (old != nullptr && old != node) {
        VESK_LOG_WARN(k_cls, "user_id = 0x%x, purpose_id = 0x%x replaced in the slot!\n", old->usr_id, old->purpose);
        free_node(old);
    }
}

VESK_ERR vesk_utility_timer::regist_fetch_wd(vesk_timer_callback func, uint32_t interval_ms, void* param)
{
    lock(&m_wd_lock);
    m_wd_func = func;
    m_wd_interval = interval_ms;
    m_wd_param = param;
    m_wd_ran = false;
    unlock(&m_wd_lock);
    return VESK_OK;
}

VESK_ERR vesk_utility_timer::unregist_in_set(
    vesk_timer_task_set* set, vesk_timer_callback func, void* param, VESK_BOOL wait, bool* done)
{
    lock(&set->wait.lock);
    lock(&set->run.lock);
    vesk_timer_task_node* node = que_find(&set->wait, func, param);
    if (node != nullptr) {
        que_unlink(&set->wait, node);
        unlock(&set->run.lock);
        unlock(&set->wait.lock);
        free_node(node);
        remove_del_mark(func, param);
        *done = true;
        return VESK_OK;
    }
    node = que_find(&set->run, func, param);
    const vesk_user_id usr_id = node != nullptr ? node->usr_id : 0;
    const vesk_timer_purpose purpose = node != nullptr ? node->purpose : 0;
    unlock(&set->run.lock);
    unlock(&set->wait.lock);

    if (node != nullptr) {
        // Running: the thread frees it, and drops the mark, when the callback returns.
        *done = true;
        if (!wait)
            return VESK_OK;
        for (int pass = 0; has_del_mark(func, param); pass++) {
            if (pass % 50 == 0) {
                if (set == &m_comm_set)
                    VESK_LOG_WARN(k_cls, "user_id = 0x%x, purpose_id = 0x%x, usr_para = %p wait_time = %dms!\n", usr_id,
                        purpose, param, pass * static_cast<int>(k_timer_unreg_poll_ms));
                else
                    VESK_LOG_WARN(k_cls, "wait_cnt = %d!\n", pass);
            }
            vesk_utility_sleep_ms(k_timer_unreg_poll_ms);
        }
        remove_del_mark(func, param);
        return VESK_OK;
    }
    // A thread may have met the mark and freed the task meanwhile.
    if (!has_del_mark(func, param))
        *done = true;
    return VESK_OK;
}

VESK_ERR vesk_utility_timer::unregist_c_func(
    vesk_timer_callback func, void* param, VESK_BOOL wait, vesk_timer_task_type type)
{
    vesk_timer_task_node* mark = take_node();
    if (mark == nullptr) {
        VESK_LOG_ERR(k_cls, "proc_malloc_task_node fail!");
        return VESK_ERR_OPERATE_FAIL;
    }
    mark->func = func;
    mark->param = param;
    mark->suspended = 1;
    lock(&m_del_que.lock);
    que_append(&m_del_que, mark);
    unlock(&m_del_que.lock);

    bool done = false;
    if (type == VESK_TIMER_TASK_COMMON || type == VESK_TIMER_TASK_ALL) {
        unregist_in_set(&m_comm_set, func, param, wait, &done);
        if (done)
            return VESK_OK;
    }
    if (type == VESK_TIMER_TASK_REAL_TIME || type == VESK_TIMER_TASK_ALL) {
        unregist_in_set(&m_rt_set, func, param, wait, &done);
        if (done)
            return VESK_OK;
    }
    // Found nowhere: the task may be passing between lists (or sit in the 0x88 slot, which
    // this does not reach). The mark catches it for a second, then the common threads drop it.
    lock(&m_del_que.lock);
    for (vesk_timer_task_node* n = m_del_que.que_head; n != nullptr; n = n->next) {
        if (n == mark && n->func == func && n->param == param) {
            const mono_time now = mono_now();
            n->last_sec = now.sec;
            n->last_nsec = now.nsec;
            n->interval = k_timer_mark_life_ms;
            n->suspended = 0;
            break;
        }
    }
    unlock(&m_del_que.lock);
    return VESK_OK;
}

bool vesk_utility_timer::wakeup_in(vesk_timer_queue* que, vesk_timer_callback func, void* param, uint32_t delay_ms)
{
    lock(&que->lock);
    vesk_timer_task_node* node = que_find(que, func, param);
    if (node != nullptr) {
        que_unlink(que, node);
        set_due(node, mono_add_ms(mono_now(), delay_ms));
        node->backoff = 0;
        node->suspended = 0;
        que_insert_sorted(que, node);
    }
    unlock(&que->lock);
    return node != nullptr;
}

VESK_ERR vesk_utility_timer::wakeup(vesk_timer_callback func, void* param, uint32_t delay_ms, vesk_timer_task_type type)
{
    if (type == VESK_TIMER_TASK_COMMON)
        wakeup_in(&m_comm_set.wait, func, param, delay_ms);
    else if (type == VESK_TIMER_TASK_REAL_TIME)
        wakeup_in(&m_rt_set.wait, func, param, delay_ms);
    else if (!wakeup_in(&m_comm_set.wait, func, param, delay_ms))
        wakeup_in(&m_rt_set.wait, func, param, delay_ms);
    return VESK_OK;
}

void vesk_utility_timer::pull_rotate_forward()
{
    lock(&m_slot_lock);
    if (m_slot != nullptr) {
        const mono_time now = mono_now();
        if (!m_slot_pulled
            || -us_until(m_slot_pull.sec, m_slot_pull.nsec, now)
                >= static_cast<int64_t>(k_timer_rotate_pull_ms) * 1000) {
            set_due(m_slot, now);
            m_slot_pull = {now.sec, now.nsec};
            m_slot_pulled = true;
        }
    }
    unlock(&m_slot_lock);
}

// ---- Fetching -----------------------------------------------------------------------------

vesk_timer_task_node* vesk_utility_timer::fetch_que(vesk_timer_task_set* set, uint32_t backoff_us, uint32_t* wait_ms)
{
    for (;;) {
        lock(&set->wait.lock);
        vesk_timer_task_node* head = set->wait.que_head;
        if (head == nullptr || (set->wait.sorted && head->suspended)) {
            unlock(&set->wait.lock);
            return nullptr;
        }
        const int64_t us = us_until(head->due_sec, head->due_nsec, mono_now());
        if (us > k_timer_early_us) {
            // Later fetchers are told to sleep a little longer each, so that the threads do not
            // all wake for the same task.
            *wait_ms = static_cast<uint32_t>((us + static_cast<int64_t>(backoff_us) * head->backoff) / 1000);
            head->backoff++;
            unlock(&set->wait.lock);
            return nullptr;
        }
        que_unlink(&set->wait, head);
        lock(&set->run.lock);
        const bool marked = remove_del_mark(head->func, head->param);
        if (!marked)
            que_append(&set->run, head);
        unlock(&set->run.lock);
        unlock(&set->wait.lock);
        if (!marked)
            return head;
        free_node(head);
    }
}

vesk_timer_task_node* vesk_utility_timer::fetch_slot(uint32_t* wait_ms)
{
    vesk_timer_task_node* node = nullptr;
    lock(&m_slot_lock);
    if (m_slot != nullptr) {
        const int64_t us = us_until(m_slot->due_sec, m_slot->due_nsec, mono_now());
        if (us <= k_timer_early_us) {
            node = m_slot;
            m_slot = nullptr;
            *wait_ms = 0;
        } else {
            *wait_ms
                = static_cast<uint32_t>((us + static_cast<int64_t>(k_timer_comm_backoff_us) * m_slot->backoff) / 1000);
            m_slot->backoff++;
        }
    }
    unlock(&m_slot_lock);
    return node;
}

vesk_timer_task_node* vesk_utility_timer::fetch_common(uint32_t* wait_ms)
{
    uint32_t slot_wait = 1000;
    vesk_timer_task_node* node = fetch_slot(&slot_wait);
    if (node != nullptr) {
        *wait_ms = 0;
        return node;
    }
    for (;;) {
        node = fetch_que(&m_comm_set, k_timer_comm_backoff_us, wait_ms);
        if (node == nullptr || node->purpose != VESK_TIMER_PURPOSE_LIMITED)
            break;
        lock(&m_limited_lock);
        const bool may_run = m_limited_running < m_limited_max;
        if (may_run)
            m_limited_running++;
        unlock(&m_limited_lock);
        if (may_run)
            break;
        // Over the limit: back to the queue for 100 ms; the loop ends at the first task not due.
        lock(&m_comm_set.wait.lock);
        lock(&m_comm_set.run.lock);
        que_unlink(&m_comm_set.run, node);
        set_due(node, mono_add_ms(mono_now(), k_timer_limited_retry_ms));
        node->backoff = 0;
        que_insert_sorted(&m_comm_set.wait, node);
        unlock(&m_comm_set.run.lock);
        unlock(&m_comm_set.wait.lock);
    }
    if (slot_wait < *wait_ms)
        *wait_ms = slot_wait;
    return node;
}

// ---- After a run --------------------------------------------------------------------------

void vesk_utility_timer::limited_done(const vesk_timer_task_node* node)
{
    if (node->purpose != VESK_TIMER_PURPOSE_LIMITED)
        return;
    lock(&m_limited_lock);
    m_limited_running--;
    unlock(&m_limited_lock);
}

void vesk_utility_timer::finish_deleted(vesk_timer_thread* thr, vesk_timer_task_node* node)
{
    const vesk_timer_callback func = node->func;
    void* const param = node->param;
    if (node->purpose != VESK_TIMER_PURPOSE_ROTATE) {
        limited_done(node);
        vesk_timer_queue* que = &set_of(thr->type)->run;
        lock(&que->lock);
        que_unlink(que, node);
        unlock(&que->lock);
    }
    free_node(node);
    remove_del_mark(func, param);
}

// A running node is on its set's running list, where registration, unregistration and the
// console read it: what changes is written under that list's lock. The slot task is on no list.
void vesk_utility_timer::stamp(vesk_timer_thread* thr, vesk_timer_task_node* node, uint32_t sec, uint32_t nsec,
    uint32_t interval, uint32_t suspended)
{
    const bool listed = node->purpose != VESK_TIMER_PURPOSE_ROTATE;
    vesk_timer_queue* que = &set_of(thr->type)->run;
    if (listed)
        lock(&que->lock);
    node->last_sec = sec;
    node->last_nsec = nsec;
    node->interval = interval;
    node->suspended = suspended;
    if (listed)
        unlock(&que->lock);
}

void vesk_utility_timer::requeue(vesk_timer_thread* thr, vesk_timer_task_node* node)
{
    if (node->purpose == VESK_TIMER_PURPOSE_ROTATE) {
        node->backoff = 0;
        set_due(node, mono_add_ms(mono_now(), node->interval));
        // Re-registered while it ran: the new node has the slot, this one goes.
        lock(&m_slot_lock);
        vesk_timer_task_node* taken = m_slot;
        if (taken == nullptr)
            m_slot = node;
        unlock(&m_slot_lock);
        if (taken != nullptr)
            free_node(node);
        return;
    }
    limited_done(node);
    vesk_timer_task_set* set = set_of(thr->type);
    vesk_timer_queue* que = &set->run;
    lock(&set->wait.lock);
    lock(&que->lock);
    VESK_ASSERT(que->que_head != NULL);
    node->backoff = 0;
    set_due(node, mono_add_ms(mono_now(), node->interval));
    que_unlink(que, node);
    const bool marked = remove_del_mark(node->func, node->param);
    if (!marked)
        que_insert_sorted(&set->wait, node);
    unlock(&que->lock);
    unlock(&set->wait.lock);
    if (marked)
        free_node(node);
}

// ---- Service threads ----------------------------------------------------------------------

void* vesk_utility_timer::timer_task_thread(void* param)
{
    VESK_ASSERT(param != NULL);
    vesk_timer_thread* thr = static_cast<vesk_timer_thread*>(param);
    vesk_utility_timer* self = thr->owner;
    const unsigned long hand = pthread_self();
    enter_thread(thread_pool(), hand, thr->type == 0 ? "timer_common" : "timer_realtime");
    thr->pid = static_cast<int32_t>(syscall(SYS_gettid));

    vesk_timer_task_node* node = nullptr;
    for (;;) {
        if (node == nullptr) {
            if (thr->type == 0)
                self->purge_del_marks();
            thr->state = VESK_TIMER_THR_FETCHING;
            uint32_t wait = k_timer_max_sleep_ms;
            node = thr->type == 0 ? self->fetch_common(&wait)
                                  : self->fetch_que(&self->m_rt_set, k_timer_rt_backoff_us, &wait);
            if (node == nullptr) {
                if (thr->exit_mark)
                    break;
                wait = wait < 1 ? 1 : (wait > k_timer_max_sleep_ms ? k_timer_max_sleep_ms : wait);
                thr->state = VESK_TIMER_THR_SLEEPING;
                thr->sleep_ms = wait;
                vesk_utility_sleep_ms(wait);
                continue;
            }
        }
        const mono_time start = mono_now();
        self->stamp(thr, node, start.sec, start.nsec, node->interval, node->suspended);
        thr->start_sec = start.sec;
        thr->start_nsec = start.nsec;
        thr->usr_id = node->usr_id;
        thr->purpose = node->purpose;
        thr->duration_ms = -1;
        thr->state = VESK_TIMER_THR_RUNNING;

        unsigned int interval = node->interval;
        vesk_timer_task_type type = thr->type == 0 ? VESK_TIMER_TASK_COMMON : VESK_TIMER_TASK_REAL_TIME;
        const vesk_timer_ret_code ret = node->func(node->param, &interval, &type);

        const mono_time end = mono_now();
        thr->duration_ms = static_cast<int32_t>(-us_until(start.sec, start.nsec, end) / 1000);
        thr->state = VESK_TIMER_THR_RETURNED;

        if (ret == VESK_TIMER_RET_DELETE) {
            self->finish_deleted(thr, node);
            node = nullptr;
            continue;
        }
        const uint32_t suspended = ret == VESK_TIMER_RET_SUSPEND ? 1 : node->suspended;
        self->stamp(thr, node, end.sec, end.nsec, interval, suspended);
        if (interval == 0 && !suspended) {
            VESK_LOG_WARN_REPEAT(nullptr, "user_id = 0x%x, purpose_id = 0x%x no sleep!\n", node->usr_id, node->purpose);
            // Run again at once; an unregistration meanwhile still ends it.
            if (self->has_del_mark(node->func, node->param)) {
                self->finish_deleted(thr, node);
                node = nullptr;
            }
            continue;
        }
        self->requeue(thr, node);
        node = nullptr;
    }
    VESK_PLAIN_FN("********* %s_thr_%d, have no task, exit! *********\n", thr->type == 0 ? "comm" : "real", thr->index);
    exit_thread(thread_pool(), hand);
    VESK_PLAIN_FN("exit pid = %d!\n", static_cast<int>(getpid()));
    thr->state = VESK_TIMER_THR_EXITED; // last touch: the check thread may reuse the slot now
    return nullptr;
}

bool vesk_utility_timer::start_thread(vesk_timer_thread* thr, uint32_t work_type, uint32_t stack)
{
    // Not 0 or 5 from here on, so a later check cannot start a second thread in this slot.
    const uint32_t before = thr->state;
    thr->state = VESK_TIMER_THR_FETCHING;
    const vesk_thread_creat_ctl ctl = {work_type, 0, timer_task_thread, thr, 1, stack};
    unsigned long hand = 0;
    if (creat_thread(thread_pool(), &ctl, k_timer_thread_name, &hand) != VESK_OK) {
        thr->state = before;
        return false;
    }
    return true;
}

vesk_timer_thread* vesk_utility_timer::new_threads(uint32_t count, uint32_t type, uint32_t first_index)
{
    vesk_timer_thread* thr = static_cast<vesk_timer_thread*>(
        vesk_malloc(VESK_USER_UTILITY, k_purpose_timer, count * sizeof(vesk_timer_thread), vesk_obj_align<vesk_timer_thread>()));
    if (thr == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < count; i++) {
        vesk_timer_thread* t = new (&thr[i]) vesk_timer_thread();
        t->state = VESK_TIMER_THR_NOT_STARTED;
        t->pid = 0;
        t->exit_mark = 0;
        t->usr_id = 0;
        t->purpose = 0;
        t->start_sec = 0;
        t->start_nsec = 0;
        t->duration_ms = 0;
        t->sleep_ms = 0;
        t->type = type;
        t->index = first_index + i;
        t->owner = this;
    }
    return thr;
}

VESK_ERR vesk_utility_timer::adj_comm_thr_num(uint32_t num, uint32_t temp_num)
{
    lock(&m_thr_lock);
    VESK_ASSERT(m_comm_thr_adj == NULL);
    VESK_ASSERT(m_comm_thr_temp == NULL);
    lock(&m_limited_lock);
    m_limited_max = (num + temp_num) / 2;
    unlock(&m_limited_lock);
    const uint32_t existing = m_comm_thr_num + m_comm_thr_adj_num;
    const uint32_t new_num = num > existing ? num - existing : 0;
    if (new_num == 0 && temp_num == 0) {
        unlock(&m_thr_lock);
        return VESK_OK;
    }
    if (temp_num > 0) {
        m_comm_thr_temp = new_threads(temp_num, 0, existing + new_num);
        VESK_ASSERT(m_comm_thr_temp != NULL);
        m_comm_thr_temp_num = temp_num;
    }
    vesk_timer_thread* thr_pool = nullptr;
    if (new_num > 0) {
        // Indexes start at new_num, not at existing: an added group overlaps the base group's
        // numbers, which is how the console has always shown them.
        thr_pool = new_threads(new_num, 0, new_num);
        VESK_ASSERT(thr_pool != NULL);
        if (m_comm_thr == nullptr) {
            m_comm_thr = thr_pool;
            m_comm_thr_num = new_num;
        } else {
            m_comm_thr_adj = thr_pool;
            m_comm_thr_adj_num = new_num;
        }
    }
    unlock(&m_thr_lock);
    for (uint32_t i = 0; i < new_num; i++) {
        if (!start_thread(&thr_pool[i], VESK_THREAD_WORK_COMMON, k_timer_comm_stack))
            VESK_LOG_ERR(k_cls, "creat comm_thr_%u fail!\n", thr_pool[i].index);
    }
    return VESK_OK;
}

VESK_ERR vesk_utility_timer::adj_real_time_thr_num(uint32_t num)
{
    lock(&m_thr_lock);
    const uint32_t existing = m_real_time_thr_num + m_real_time_thr_adj_num;
    if (num <= existing) {
        unlock(&m_thr_lock);
        return VESK_OK;
    }
    const uint32_t new_num = num - existing;
    vesk_timer_thread* thr_pool = new_threads(new_num, 1, existing);
    VESK_ASSERT(thr_pool != NULL);
    if (m_real_time_thr == nullptr) {
        m_real_time_thr = thr_pool;
        m_real_time_thr_num = new_num;
    } else {
        VESK_ASSERT(m_real_time_thr_adj == NULL);
        m_real_time_thr_adj = thr_pool;
        m_real_time_thr_adj_num = new_num;
    }
    unlock(&m_thr_lock);
    for (uint32_t i = 0; i < new_num; i++) {
        if (!start_thread(&thr_pool[i], VESK_THREAD_WORK_REAL_TIME, k_timer_rt_stack))
            VESK_LOG_ERR(k_cls, "creat real_thr_%u fail!\n", thr_pool[i].index);
    }
    return VESK_OK;
}

// ---- The check thread ---------------------------------------------------------------------

void* vesk_utility_timer::timer_check_thread(void* param)
{
    vesk_utility_timer* self = static_cast<vesk_utility_timer*>(param);
    enter_thread(thread_pool(), pthread_self(), "timer_check_thread");
    VESK_PLAIN_FN("thread enter !");
    self->m_check_entered.store(true, std::memory_order_release);
    for (;;)
        vesk_utility_sleep_ms(self->check());
    return nullptr;
}

void vesk_utility_timer::check_fetch_wd()
{
    lock(&m_wd_lock);
    const vesk_timer_callback func = m_wd_func;
    void* const param = m_wd_param;
    unsigned int interval = m_wd_interval;
    const uint64_t now = timer_now_ms();
    const bool due = func != nullptr && (!m_wd_ran || now - m_wd_last_ms >= interval);
    if (due) {
        m_wd_ran = true;
        m_wd_last_ms = now;
    }
    unlock(&m_wd_lock);
    if (!due)
        return;
    func(param, &interval, nullptr);
    lock(&m_wd_lock);
    if (m_wd_func == func && m_wd_param == param)
        m_wd_interval = interval;
    unlock(&m_wd_lock);
}

uint32_t vesk_utility_timer::check()
{
    check_fetch_wd();
    uint32_t wait = k_timer_check_ms;

    // Thread states are read without a lock: a stale value costs one check period at most.
    lock(&m_thr_lock);
    vesk_timer_thread* const groups[2] = {m_comm_thr, m_comm_thr_adj};
    const uint32_t counts[2] = {m_comm_thr_num, m_comm_thr_adj_num};
    vesk_timer_thread* const temp = m_comm_thr_temp;
    const uint32_t temp_num = m_comm_thr_temp_num;
    unlock(&m_thr_lock);
    uint32_t idle = 0;
    for (int g = 0; g < 2; g++) {
        for (uint32_t i = 0; i < counts[g]; i++)
            idle += groups[g][i].state == VESK_TIMER_THR_SLEEPING ? 1 : 0;
    }

    // Leading tasks more than 100 ms late. O(delayed tasks).
    uint32_t delayed = 0;
    lock(&m_comm_set.wait.lock);
    const mono_time now = mono_now();
    for (vesk_timer_task_node* n = m_comm_set.wait.que_head; n != nullptr && !n->suspended; n = n->next) {
        if (us_until(n->due_sec, n->due_nsec, now) >= -static_cast<int64_t>(k_timer_delay_ms) * 1000)
            break;
        delayed++;
    }
    unlock(&m_comm_set.wait.lock);

    const uint64_t now_ms = timer_now_ms();
    if (delayed > idle) {
        uint32_t need = delayed - idle;
        if (need > k_timer_max_start_per_check) {
            need = k_timer_max_start_per_check;
            wait = k_timer_check_hurry_ms;
        }
        uint32_t started = 0;
        for (uint32_t i = 0; i < temp_num && started < need; i++) {
            const uint32_t st = temp[i].state;
            if (st != VESK_TIMER_THR_NOT_STARTED && st != VESK_TIMER_THR_EXITED)
                continue;
            temp[i].exit_mark = 0;
            if (start_thread(&temp[i], VESK_THREAD_WORK_COMMON, k_timer_comm_stack))
                started++;
        }
        if (started < need) {
            if (m_short_start_cnt % 100 == 0)
                VESK_LOG_WARN(k_cls, "******** need_creat_num = %d, creat_num = %d *******\n", need, started);
            m_short_start_cnt++;
        } else {
            m_short_start_cnt = 0;
        }
    } else if (delayed == idle) {
        if (idle != 0)
            VESK_LOG_WARN_REPEAT(k_cls, "******** task_delay_num = %d, offcial_idel_num = %d *******\n", delayed, idle);
        m_shrink_start_ms = 0;
    } else {
        const uint32_t surplus = idle - delayed;
        if (m_shrink_start_ms == 0) {
            m_shrink_start_ms = now_ms;
            m_shrink_min_surplus = surplus;
        } else if (surplus < m_shrink_min_surplus) {
            m_shrink_min_surplus = surplus;
        }
        if (now_ms - m_shrink_start_ms > k_timer_shrink_ms) {
            uint32_t retire = m_shrink_min_surplus;
            for (uint32_t i = 0; i < temp_num && retire > 0; i++) {
                const uint32_t st = temp[i].state;
                if (st == VESK_TIMER_THR_NOT_STARTED || st == VESK_TIMER_THR_EXITED || temp[i].exit_mark)
                    continue;
                temp[i].exit_mark = 1;
                retire--;
                VESK_LOG_PLAIN(k_cls, "******** idel_ms = %d, exit tmp thread_%d *******\n",
                    static_cast<int>(now_ms - m_shrink_start_ms), temp[i].index);
            }
            m_shrink_start_ms = 0;
        }
    }
    return wait;
}

} // namespace vesk_utility
