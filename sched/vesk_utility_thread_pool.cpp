// vesk_utility_thread_pool - create/enter/exit/retrieve of registered threads, and the
// diagnostics of the registry: the per-thread CPU view (two samples of /proc five seconds
// apart) and the list of records checked against the threads that really exist.
#include "sched/vesk_utility_thread_pool.h"

#include <dirent.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/vesk_utility_guard.h"
#include "vesk_utility_core.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "utility_thread_pool";
constexpr const char* k_anonymous = "anonymous";
constexpr int k_lock_fail_max = 10;
constexpr char k_view_separator[] = " -----------------------------------------------------------------------------\n";

std::atomic<bool> s_fail_record_alloc { false };

vesk_thread_record* new_record()
{
    if (s_fail_record_alloc.load(std::memory_order_relaxed))
        return nullptr;
    void* p = vesk_malloc(VESK_USER_UTILITY, k_purpose_thread_record, sizeof(vesk_thread_record), vesk_obj_align<vesk_thread_record>());
    if (p != nullptr)
        memset(p, 0, sizeof(vesk_thread_record));
    return static_cast<vesk_thread_record*>(p);
}

void copy_name(char (&dst)[k_thread_name_size], const char* name)
{
    snprintf(dst, sizeof(dst), "%s", name != nullptr ? name : k_anonymous);
}

// Reads at most k_proc_read_max bytes of a small /proc file into buf (NUL-terminated).
bool read_head(const char* path, char (&buf)[k_proc_read_max + 1])
{
    FILE* fp = fopen(path, "r");
    if (fp == nullptr)
        return false;
    const size_t n = fread(buf, 1, k_proc_read_max, fp);
    buf[n] = '\0';
    fclose(fp);
    return true;
}

} // namespace

void thread_pool_fail_record_alloc(bool fail)
{
    s_fail_record_alloc.store(fail, std::memory_order_relaxed);
}

// ---- /proc parsers ---------------------------------------------------------------------

bool parse_system_stat(const char* text, uint64_t* total)
{
    unsigned long long c[7];
    if (sscanf(text, "cpu %llu %llu %llu %llu %llu %llu %llu", &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6]) != 7)
        return false;
    *total = 0;
    for (unsigned long long v : c)
        *total += v;
    return true;
}

bool parse_pid_stat(const char* text, vesk_cpu_sample* entry)
{
    int blanks = 0;
    const char* p = text;
    for (; *p != '\0'; p++) {
        if (*p == ' ' && ++blanks == 13)
            break;
    }
    if (blanks < 13)
        return false;
    unsigned long long utime = 0, stime = 0;
    if (sscanf(p, " %llu %llu", &utime, &stime) != 2)
        return false;
    entry->utime = utime;
    entry->stime = stime;
    entry->stat_read = 1;
    return true;
}

bool scanf_system_stat(const char* path, uint64_t* total)
{
    char buf[k_proc_read_max + 1];
    if (!read_head(path, buf)) {
        VESK_ERR_FN("Can not open");
        return false;
    }
    return parse_system_stat(buf, total);
}

bool scanf_pid_stat(const char* path, vesk_cpu_sample* entry)
{
    char buf[k_proc_read_max + 1];
    if (!read_head(path, buf)) {
        VESK_ERR_FN("Can not open %s\n", path);
        return false;
    }
    return parse_pid_stat(buf, entry);
}

// ---- The pool ----------------------------------------------------------------------------

utility_thread_pool::utility_thread_pool()
{
    pthread_mutex_init(&m_lock, nullptr);
}

utility_thread_pool::~utility_thread_pool()
{
    VESK_ASSERT(0);
}

vesk_thread_record* utility_thread_pool::find_node(unsigned long thread_hand)
{
    for (vesk_thread_record* n = m_head; n != nullptr; n = n->next) {
        if (pthread_equal(n->thread_hand, thread_hand))
            return n;
    }
    return nullptr;
}

vesk_thread_record* utility_thread_pool::find_thr_pid(int32_t pid)
{
    for (vesk_thread_record* n = m_head; n != nullptr; n = n->next) {
        if (n->pid == pid)
            return n;
    }
    return nullptr;
}

void utility_thread_pool::add_node_head(vesk_thread_record* node)
{
    node->pre = nullptr;
    node->next = m_head;
    if (m_head != nullptr)
        m_head->pre = node;
    m_head = node;
    // A node inserted twice links to itself: caught here rather than as a list that loops.
    VESK_ASSERT(node != node->pre);
    VESK_ASSERT(node != node->next);
    if (node->next != nullptr)
        VESK_ASSERT(node->next != node->pre);
}

void utility_thread_pool::delete_node(vesk_thread_record* node)
{
    if (node->pre != nullptr)
        node->pre->next = node->next;
    else
        m_head = node->next;
    if (node->next != nullptr)
        node->next->pre = node->pre;
    vesk_free(__FILE__, "delete_node", node);
}

VESK_ERR utility_thread_pool::save_thr_hand(
    unsigned long thread_hand, const vesk_thread_creat_ctl& ctl, const char* name)
{
    vesk_thread_record* node = find_node(thread_hand);
    if (node == nullptr) {
        node = new_record();
        if (node == nullptr) {
            VESK_LOG_ERR(k_cls, "malloc %zu fail!\n", sizeof(vesk_thread_record));
            return VESK_ERR_NO_RESOURCE;
        }
        node->thread_hand = thread_hand;
        node->state = VESK_THREAD_CREATED;
        add_node_head(node);
    }
    // An existing record keeps its state: its thread may already be running.
    node->work_type = ctl.work_type;
    node->priority = ctl.priority;
    copy_name(node->thread_name, name);
    node->stack_size = ctl.stack_size;
    node->auto_retrieve = ctl.auto_retrieve;
    return VESK_OK;
}

int utility_thread_pool::start_thread(
    const pthread_attr_t* attr, const vesk_thread_creat_ctl& ctl, const char* name, unsigned long* thread_hand)
{
    // Held across pthread_create: the new thread's enter (and, for a short routine, its exit)
    // waits for the record instead of racing it, so a detached thread that ends at once does
    // not leave a record behind.
    mutex_guard guard(m_lock);
    pthread_t h = 0;
    const int ret = pthread_create(&h, attr, ctl.thread_func, ctl.thread_arg);
    *thread_hand = h;
    if (ret == 0 && h != 0)
        save_thr_hand(h, ctl, name); // a failed allocation is logged; the thread runs unregistered
    return ret;
}

VESK_ERR utility_thread_pool::save_thr_pid(unsigned long thread_hand, int32_t pid, const char* name)
{
    mutex_guard guard(m_lock);
    vesk_thread_record* node = find_node(thread_hand);
    if (node == nullptr) {
        node = new_record();
        if (node == nullptr) {
            VESK_LOG_ERR(k_cls, "malloc %zu fail!\n", sizeof(vesk_thread_record));
            return VESK_ERR_NO_RESOURCE;
        }
        node->thread_hand = thread_hand;
        add_node_head(node);
    }
    node->pid = pid;
    node->state = VESK_THREAD_RUNNING;
    copy_name(node->function_name, name);
    return VESK_OK;
}

VESK_ERR utility_thread_pool::find_thr_hand(
    unsigned long thread_hand, uint32_t state, VESK_BOOL* auto_retrieve, char* name)
{
    mutex_guard guard(m_lock);
    vesk_thread_record* node = find_node(thread_hand);
    if (node == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    node->state = state;
    *auto_retrieve = node->auto_retrieve;
    if (name != nullptr)
        memcpy(name, node->thread_name, k_thread_name_size);
    return VESK_OK;
}

VESK_ERR utility_thread_pool::delete_thr_hand(unsigned long thread_hand)
{
    mutex_guard guard(m_lock);
    vesk_thread_record* node = find_node(thread_hand);
    if (node == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    delete_node(node);
    return VESK_OK;
}

// ---- CPU view ----------------------------------------------------------------------------

bool utility_thread_pool::proc_init_node()
{
    // One view at a time: the tables belong to the request that is sampling (the lock is
    // released between samples, so a second request could otherwise take them over).
    bool busy = false;
    if (!m_view_busy.compare_exchange_strong(busy, true, std::memory_order_acq_rel))
        return false;
    const unsigned bytes = k_cpu_table_capacity * sizeof(vesk_cpu_sample);
    m_prev = static_cast<vesk_cpu_sample*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_cpu_sample, bytes, vesk_obj_align<vesk_cpu_sample>()));
    m_cur = static_cast<vesk_cpu_sample*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_cpu_sample, bytes, vesk_obj_align<vesk_cpu_sample>()));
    if (m_prev == nullptr || m_cur == nullptr) {
        proc_free_node();
        m_view_busy.store(false, std::memory_order_release);
        return false;
    }
    m_capacity = k_cpu_table_capacity;
    m_prev_cnt = m_cur_cnt = 0;
    m_prev_total = m_cur_total = 0;
    m_prev_total_valid = m_cur_total_valid = 0;
    return true;
}

void utility_thread_pool::proc_free_node()
{
    if (m_prev != nullptr)
        vesk_free(__FILE__, "proc_free_node", m_prev);
    if (m_cur != nullptr)
        vesk_free(__FILE__, "proc_free_node", m_cur);
    m_prev = m_cur = nullptr;
    m_capacity = m_prev_cnt = m_cur_cnt = 0;
    m_prev_total_valid = m_cur_total_valid = 0;
}

void utility_thread_pool::proc_load_pid(const char* proc_root, int pid)
{
    char path[128];
    snprintf(path, sizeof(path), "%s/%d/task", proc_root, pid);
    DIR* dir = opendir(path);
    if (dir == nullptr) {
        VESK_LOG_ERR(k_cls, "%s open fail!\n", path);
        return;
    }
    for (dirent* d = readdir(dir); d != nullptr && m_cur_cnt < m_capacity; d = readdir(dir)) {
        const int tid = atoi(d->d_name);
        if (tid == 0 || tid == pid)
            continue;
        vesk_cpu_sample& e = m_cur[m_cur_cnt++];
        e.pid = tid;
        e.record = find_thr_pid(tid);
        snprintf(path, sizeof(path), "%s/%d/task/%d/stat", proc_root, pid, tid);
        scanf_pid_stat(path, &e);
    }
    closedir(dir);
}

void utility_thread_pool::proc_sample(const char* proc_root, int pid)
{
    m_cur_cnt = 0;
    m_cur_total = 0;
    m_cur_total_valid = 0;
    memset(m_cur, 0, m_capacity * sizeof(vesk_cpu_sample));

    char path[128];
    snprintf(path, sizeof(path), "%s/stat", proc_root);
    if (scanf_system_stat(path, &m_cur_total))
        m_cur_total_valid = 1;

    m_cur[0].pid = pid; // entry 0 is the whole process
    m_cur_cnt = 1;
    proc_load_pid(proc_root, pid);
    snprintf(path, sizeof(path), "%s/%d/stat", proc_root, pid);
    scanf_pid_stat(path, &m_cur[0]);
}

void utility_thread_pool::proc_print(bool show_all, print_fn print)
{
    const uint64_t elapsed = (m_cur_total_valid && m_prev_total_valid) ? m_cur_total - m_prev_total : 0;

    // Indices of the kept entries, most ticks first; equal values keep sampling order and
    // idle ones go last. Insertion into a fixed array: O(threads^2) on a console request only.
    uint16_t order[k_cpu_table_capacity];
    uint32_t kept = 0;
    for (uint32_t i = 0; i < m_cur_cnt; i++) {
        vesk_cpu_sample& e = m_cur[i];
        if (!e.stat_read) {
            if (show_all)
                order[kept++] = static_cast<uint16_t>(i);
            continue;
        }
        // Compared by position only: a thread that ended shifts the ones after it to "-".
        if (i < m_prev_cnt && m_prev[i].pid == e.pid && m_prev[i].stat_read) {
            e.used = static_cast<uint32_t>((e.utime + e.stime) - (m_prev[i].utime + m_prev[i].stime));
            e.matched = 1;
        }
        if (e.used <= elapsed / 1000) {
            if (!show_all)
                continue;
            e.used = 0;
        }
        uint32_t at = kept;
        if (e.used != 0) {
            for (at = 0; at < kept && m_cur[order[at]].used >= e.used; at++) { }
            memmove(&order[at + 1], &order[at], (kept - at) * sizeof(order[0]));
        }
        order[at] = static_cast<uint16_t>(i);
        kept++;
    }

    print("%5s %6s %6s %6s %32s %32s\n", "PID", "%CPU", "prio", "type", "Thread", "Function");
    for (uint32_t k = 0; k < kept; k++) {
        const vesk_cpu_sample& e = m_cur[order[k]];
        const vesk_thread_record* r = e.record;
        if (elapsed == 0 || !e.matched) {
            if (r != nullptr)
                print("%5d %6s %6d %6d %32s %32s\n", e.pid, "-", r->priority, r->work_type, r->thread_name,
                    r->function_name);
            else
                print("%5d %6s %6s %6s %32s %32s\n", e.pid, "-", "-", "-", "-", "-");
            continue;
        }
        const int whole = static_cast<int>(100ull * e.used / elapsed);
        const int tenth = static_cast<int>((1000ull * e.used / elapsed) % 10);
        if (r != nullptr)
            print("%5d %4d.%1d %6d %6d %32s %32s\n", e.pid, whole, tenth, r->priority, r->work_type, r->thread_name,
                r->function_name);
        else
            print("%5d %4d.%1d %6s %6s %32s %32s\n", e.pid, whole, tenth, "-", "-", "-", "-");
    }

    // The current sample becomes the reference of the next one: swapped, not copied.
    vesk_cpu_sample* t = m_prev;
    m_prev = m_cur;
    m_cur = t;
    m_prev_cnt = m_cur_cnt;
    m_prev_total = m_cur_total;
    m_prev_total_valid = m_cur_total_valid;
    m_cur_cnt = 0;
    m_cur_total = 0;
    m_cur_total_valid = 0;
}

// Entered with m_lock held (taken by a try-lock); leaves it released. Runs until the console
// stops taking output or the registry stays busy for ten tries after a pause.
void utility_thread_pool::dump_cpu(bool show_all, print_fn print)
{
    if (!proc_init_node()) {
        print("proc_init_node fail!\n");
        pthread_mutex_unlock(&m_lock);
        return;
    }
    bool held = true;
    int lock_fail_cnt = 0; // over the whole request
    while (print(k_view_separator) == 0) {
        proc_sample("/proc", getpid());
        proc_print(show_all, print);
        pthread_mutex_unlock(&m_lock);
        held = false;
        vesk_utility_sleep_ms(m_pause_ms);
        for (;;) {
            if (pthread_mutex_trylock(&m_lock) == 0) {
                held = true;
                break;
            }
            lock_fail_cnt++;
            if (print("sorry, try lock fail, lock_fail_cnt = %d!\n", lock_fail_cnt) != 0
                || lock_fail_cnt >= k_lock_fail_max)
                break;
        }
        if (!held)
            break;
    }
    // The tables belong to this request alone (m_view_busy), so they are freed with or without
    // the lock.
    proc_free_node();
    m_view_busy.store(false, std::memory_order_release);
    if (held)
        pthread_mutex_unlock(&m_lock);
}

void utility_thread_pool::dump_list(const char* proc_root, int pid, print_fn print)
{
    print("%5s %6s %6s %12s %12s %16s, %6s, %32s %32s\n", "idx", "PID", "Stack", "Work_type", "Priority",
        "auto_retrieve", "state", "Thread", "Function");
    int idx = 0;
    for (const vesk_thread_record* n = m_head; n != nullptr; n = n->next, idx++) {
        const bool kilo = n->stack_size < 1048576;
        print("%5d %6d %5d%c %12d %12d %16d, %6d, %32s %32s\n", idx, n->pid,
            static_cast<int>(kilo ? n->stack_size / 1024 : n->stack_size / 1048576), kilo ? 'K' : 'M', n->work_type,
            n->priority, n->auto_retrieve, n->state, n->thread_name, n->function_name);
    }
    print("----------- check pool list --------------------\n");
    char path[128];
    struct stat st;
    for (const vesk_thread_record* n = m_head; n != nullptr; n = n->next) {
        snprintf(path, sizeof(path), "%s/%d/task/%d", proc_root, pid, n->pid);
        if (stat(path, &st) != 0)
            print("WARINNG!! PID = %d, type = %d, priority = %d, thread_name = '%s', function = '%s', not exist, "
                  "why??\n",
                n->pid, n->work_type, n->priority, n->thread_name, n->function_name);
    }
    print("----------- check pool list complete --------------------\n");
}

VESK_ERR utility_thread_pool::diagnose(int para, print_fn print)
{
    if (pthread_mutex_trylock(&m_lock) != 0) {
        print("sorry, try lock fail!\n");
        return VESK_OK;
    }
    switch (para) {
    case 0:
    case 1:
        dump_cpu(para == 0, print); // releases the lock
        return VESK_OK;
    case 2:
        dump_list("/proc", getpid(), print);
        break;
    default:
        print("para = 0x%x not support!\n", para);
        break;
    }
    pthread_mutex_unlock(&m_lock);
    return VESK_OK;
}

// ---- The four operations -----------------------------------------------------------------

VESK_ERR creat_thread(
    utility_thread_pool* pool, const vesk_thread_creat_ctl* ctl, const char* name, unsigned long* thread_hand)
{
    if (pool == nullptr)
        VESK_WARN_FN("get thread_pool fail!");
    int policy;
    switch (ctl->work_type) {
    case VESK_THREAD_WORK_COMMON:
        policy = SCHED_OTHER;
        break;
    case VESK_THREAD_WORK_REAL_TIME:
        policy = SCHED_RR;
        break;
    default:
        VESK_ERR_FN("work_type_%d, not support!\n", ctl->work_type);
        return VESK_ERR_NOT_SUPPORT;
    }

    // The inherit-scheduler attribute keeps its default: with the C library's default of
    // inheriting, the new thread runs with its creator's policy and priority, and the values
    // set here are what the attributes carry. Their results are not checked for that reason.
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setschedpolicy(&attr, policy);
    sched_param param;
    pthread_attr_getschedparam(&attr, &param);
    param.sched_priority = static_cast<int>(ctl->priority);
    pthread_attr_setschedparam(&attr, &param);
    if (ctl->stack_size != 0)
        pthread_attr_setstacksize(&attr, ctl->stack_size > k_thread_min_stack ? ctl->stack_size : k_thread_min_stack);
    if (ctl->auto_retrieve)
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);

    *thread_hand = 0;
    int ret;
    if (pool != nullptr) {
        ret = pool->start_thread(&attr, *ctl, name, thread_hand);
    } else {
        pthread_t h = 0;
        ret = pthread_create(&h, &attr, ctl->thread_func, ctl->thread_arg);
        *thread_hand = h;
    }
    pthread_attr_destroy(&attr);
    if (ret != 0 || *thread_hand == 0) {
        VESK_ERR_FN("err no = %#x, *thread_hand = %ld\n", ret, static_cast<long>(*thread_hand));
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

VESK_ERR enter_thread(utility_thread_pool* pool, unsigned long thread_hand, const char* name)
{
    const int32_t pid = static_cast<int32_t>(syscall(SYS_gettid));
    prctl(PR_SET_NAME, name != nullptr ? name : k_anonymous);
    if (pool == nullptr) {
        VESK_WARN_FN("get thread_pool fail!");
        return VESK_OK;
    }
    if (pool->save_thr_pid(thread_hand, pid, name) != VESK_OK) {
        VESK_ERR_FN(
            "thread_hand = %lu, pid = %d, '%s' is invalid!\n", thread_hand, pid, name != nullptr ? name : k_anonymous);
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

VESK_ERR exit_thread(utility_thread_pool* pool, unsigned long thread_hand)
{
    if (pool == nullptr) {
        VESK_WARN_FN("get thread_pool fail!");
        return VESK_OK;
    }
    VESK_BOOL auto_retrieve = 0;
    if (pool->find_thr_hand(thread_hand, VESK_THREAD_EXITED, &auto_retrieve, nullptr) != VESK_OK) {
        VESK_ERR_FN("thread_hand = %lu, is invalid!\n", thread_hand);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (auto_retrieve)
        pool->delete_thr_hand(thread_hand);
    return VESK_OK;
}

VESK_ERR retrieve_thread(utility_thread_pool* pool, unsigned long thread_hand)
{
    if (pool == nullptr) {
        VESK_WARN_FN("get thread_pool fail!");
        pthread_join(thread_hand, nullptr);
        return VESK_OK;
    }
    VESK_BOOL auto_retrieve = 0;
    char name[k_thread_name_size];
    if (pool->find_thr_hand(thread_hand, VESK_THREAD_RETRIEVING, &auto_retrieve, name) != VESK_OK) {
        VESK_ERR_FN("thread_hand = %lu, is invalid!\n", thread_hand);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (auto_retrieve)
        VESK_ERR_FN("thread_hand = %lu, name = '%s', is auto retrieve, not need!\n", thread_hand, name);
    else
        pthread_join(thread_hand, nullptr); // outside the pool lock
    pool->delete_thr_hand(thread_hand);
    return VESK_OK;
}

} // namespace vesk_utility
