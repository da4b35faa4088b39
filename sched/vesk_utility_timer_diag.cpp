// vesk_utility_timer_diag - the timer service's console commands: the task tables (1) and the
// service-thread tables (2). Lists are copied under a try-lock and printed after it is
// released, so a slow console never holds up the service threads.
#include <time.h>

#include <cstdio>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_service.h"
#include "sched/vesk_utility_timer.h"
#include "sched/vesk_utility_toolnet_diag.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_separator = "------------------------------------------------------------------------\n";

// One task as the tables show it, copied under the list's lock.
struct task_row {
    uint32_t usr_id;
    uint32_t purpose;
    uint32_t interval;
    uint32_t suspended;
    uint32_t last_sec, last_nsec;
    uint32_t due_sec, due_nsec;
};

struct now_stamp {
    uint32_t sec, nsec;
};

now_stamp now_stamp_mono()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return {static_cast<uint32_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec)};
}

// Milliseconds from (sec, nsec) to now; negative when it lies ahead.
int ms_since(uint32_t sec, uint32_t nsec, now_stamp now)
{
    const int64_t us = (static_cast<int64_t>(now.sec) - sec) * 1000000 + (static_cast<int64_t>(now.nsec) - nsec) / 1000;
    return static_cast<int>(us / 1000);
}

// "%d.%d": seconds and milliseconds of the monotonic clock.
void format_time(char* buf, size_t size, uint32_t sec, uint32_t nsec)
{
    snprintf(buf, size, "%d.%d", static_cast<int>(sec), static_cast<int>(nsec / 1000000));
}

const char* k_task_titles[4] = {
    // GB2312: -----------------------常规任务: 等待执行的任务--------------------------
    "-----------------------\xB3\xA3\xB9\xE6\xC8\xCE\xCE\xF1: \xB5\xC8\xB4\xFD\xD6\xB4\xD0\xD0\xB5\xC4\xC8\xCE\xCE\xF1--------------------------\n",
    // GB2312: -----------------------常规任务: 正在执行的任务--------------------------
    "-----------------------\xB3\xA3\xB9\xE6\xC8\xCE\xCE\xF1: \xD5\xFD\xD4\xDA\xD6\xB4\xD0\xD0\xB5\xC4\xC8\xCE\xCE\xF1--------------------------\n",
    // GB2312: -----------------------实时任务: 等待执行的任务--------------------------
    "-----------------------\xCA\xB5\xCA\xB1\xC8\xCE\xCE\xF1: \xB5\xC8\xB4\xFD\xD6\xB4\xD0\xD0\xB5\xC4\xC8\xCE\xCE\xF1--------------------------\n",
    // GB2312: -----------------------实时任务: 正在执行的任务--------------------------
    "-----------------------\xCA\xB5\xCA\xB1\xC8\xCE\xCE\xF1: \xD5\xFD\xD4\xDA\xD6\xB4\xD0\xD0\xB5\xC4\xC8\xCE\xCE\xF1--------------------------\n",
};

} // namespace

VESK_ERR vesk_utility_timer::diagnose(int para, print_fn print)
{
    switch (para) {
    case 1:
        dump_tasks(print);
        break;
    case 2:
        dump_threads(print);
        break;
    case 3:
    case 4:
    case 5:
    case 6:
    case 7:
    case 8:
        // The UDP/TCP network tool's lists and debug switches, as its para - 2.
        if (vesk_toolnet_diag* net = vesk_service<vesk_toolnet_diag>::find())
            net->toolnet_diagnose(para - 2, print);
        else
            print("para = %d: the network tool does not exist in this process\n", para);
        break;
    default:
        print("para = %d not support!\n", para);
        break;
    }
    return VESK_OK;
}

void vesk_utility_timer::dump_tasks(print_fn print)
{
    vesk_timer_queue* const lists[4] = {&m_comm_set.wait, &m_comm_set.run, &m_rt_set.wait, &m_rt_set.run};
    for (int i = 0; i < 4; i++) {
        if (i > 0)
            print(k_separator);
        print("%s", k_task_titles[i]);
        dump_list(lists[i], i % 2 == 0, print);
    }
}

void vesk_utility_timer::dump_list(vesk_timer_queue* que, bool waiting, print_fn print)
{
    // Room for every node there is: a list never holds more.
    const uint32_t capacity = m_node_total.load(std::memory_order_relaxed);
    task_row* rows = static_cast<task_row*>(
        vesk_malloc(VESK_USER_UTILITY, k_purpose_diag_scratch, capacity * sizeof(task_row), vesk_obj_align<task_row>()));
    if (rows == nullptr) {
        print("malloc %u rows fail!\n", capacity);
        return;
    }
    // A try-lock: the console never waits for the service.
    if (pthread_mutex_trylock(&que->lock) != 0) {
        print("sorry, try lock fail!\n");
        vesk_free(__FILE__, __func__, rows);
        return;
    }
    uint32_t n = 0;
    for (vesk_timer_task_node* p = que->que_head; p != nullptr && n < capacity; p = p->next, n++)
        rows[n]
            = {p->usr_id, p->purpose, p->interval, p->suspended, p->last_sec, p->last_nsec, p->due_sec, p->due_nsec};
    pthread_mutex_unlock(&que->lock);

    if (n == 0) {
        print("have no task\n");
        vesk_free(__FILE__, __func__, rows);
        return;
    }
    if (waiting)
        // GB2312: 编号 | 用户ID | 任务目的 | 上次调用时间 | 当前时间
        print("%-6s%-12s%-12s%-18s%-12s%-14s%-14s\n", "\xB1\xE0\xBA\xC5", "\xD3\xC3\xBB\xA7ID", "\xC8\xCE\xCE\xF1\xC4\xBF\xB5\xC4", "\xC9\xCF\xB4\xCE\xB5\xF7\xD3\xC3\xCA\xB1\xBC\xE4", "\xB5\xB1\xC7\xB0\xCA\xB1\xBC\xE4",
            // GB2312: 定时间隔(ms) | 超时时间(ms)
            "\xB6\xA8\xCA\xB1\xBC\xE4\xB8\xF4(ms)", "\xB3\xAC\xCA\xB1\xCA\xB1\xBC\xE4(ms)");
    else
        // GB2312: 编号 | 用户ID | 任务目的 | 调用时间 | 当前时间
        print("%-6s%-12s%-12s%-18s%-12s%-14s%-14s\n", "\xB1\xE0\xBA\xC5", "\xD3\xC3\xBB\xA7ID", "\xC8\xCE\xCE\xF1\xC4\xBF\xB5\xC4", "\xB5\xF7\xD3\xC3\xCA\xB1\xBC\xE4", "\xB5\xB1\xC7\xB0\xCA\xB1\xBC\xE4",
            // GB2312: 定时间隔(ms) | 已耗时(ms)
            "\xB6\xA8\xCA\xB1\xBC\xE4\xB8\xF4(ms)", "\xD2\xD1\xBA\xC4\xCA\xB1(ms)");
    const now_stamp now = now_stamp_mono();
    char last[24];
    char cur[24];
    format_time(cur, sizeof(cur), now.sec, now.nsec);
    for (uint32_t i = 0; i < n; i++) {
        const task_row& r = rows[i];
        format_time(last, sizeof(last), r.last_sec, r.last_nsec);
        if (waiting) {
            char state[32];
            const int late = ms_since(r.due_sec, r.due_nsec, now);
            if (r.suspended)
                // GB2312: 暂停执行
                snprintf(state, sizeof(state), "\xD4\xDD\xCD\xA3\xD6\xB4\xD0\xD0");
            else if (late >= 0)
                // GB2312: 超时%d
                snprintf(state, sizeof(state), "\xB3\xAC\xCA\xB1%d", late);
            else
                // GB2312: 还差%d
                snprintf(state, sizeof(state), "\xBB\xB9\xB2\xEE%d", -late);
            print("%-6d0x%-10x0x%-10x%-18s%-12s%-14d%-14s\n", static_cast<int>(i + 1), r.usr_id, r.purpose, last, cur,
                static_cast<int>(r.interval), state);
        } else {
            print("%-6d0x%-10x0x%-10x%-18s%-12s%-14d%-14d\n", static_cast<int>(i + 1), r.usr_id, r.purpose, last, cur,
                static_cast<int>(r.interval), ms_since(r.last_sec, r.last_nsec, now));
        }
    }
    vesk_free(__FILE__, __func__, rows);
}

void vesk_utility_timer::dump_threads(print_fn print)
{
    struct group {
        vesk_timer_thread* thr;
        uint32_t num;
    };
    pthread_mutex_lock(&m_thr_lock);
    const group groups[5]
        = {{m_comm_thr, m_comm_thr_num}, {m_comm_thr_adj, m_comm_thr_adj_num}, {m_comm_thr_temp, m_comm_thr_temp_num},
            {m_real_time_thr, m_real_time_thr_num}, {m_real_time_thr_adj, m_real_time_thr_adj_num}};
    pthread_mutex_unlock(&m_thr_lock);

    struct table {
        const char* title;
        int first, last; // groups[first..last]
    };
    const table tables[3] = {
        // GB2312: -----------------------常规任务线程池--------------------------
        {"-----------------------\xB3\xA3\xB9\xE6\xC8\xCE\xCE\xF1\xCF\xDF\xB3\xCC\xB3\xD8--------------------------\n", 0, 1},
        // GB2312: -----------------------常规任务临时工线程池--------------------------
        {"-----------------------\xB3\xA3\xB9\xE6\xC8\xCE\xCE\xF1\xC1\xD9\xCA\xB1\xB9\xA4\xCF\xDF\xB3\xCC\xB3\xD8--------------------------\n", 2, 2},
        // GB2312: -----------------------实时任务线程池--------------------------
        {"-----------------------\xCA\xB5\xCA\xB1\xC8\xCE\xCE\xF1\xCF\xDF\xB3\xCC\xB3\xD8--------------------------\n", 3, 4},
    };
    const now_stamp now = now_stamp_mono();
    for (const table& t : tables) {
        print("%s", t.title);
        // GB2312: 编号 | 线程PID | 线程状态 | 任务状态信息
        print("%-6s%-12s%-14s%-80s\n", "\xB1\xE0\xBA\xC5", "\xCF\xDF\xB3\xCCPID", "\xCF\xDF\xB3\xCC\xD7\xB4\xCC\xAC", "\xC8\xCE\xCE\xF1\xD7\xB4\xCC\xAC\xD0\xC5\xCF\xA2");
        int row = 1;
        for (int g = t.first; g <= t.last; g++) {
            for (uint32_t i = 0; i < groups[g].num; i++, row++) {
                const vesk_timer_thread& d = groups[g].thr[i];
                const uint32_t state = d.state;
                const uint32_t sec = d.start_sec;
                const uint32_t nsec = d.start_nsec;
                char state_text[48];
                char detail[160];
                // GB2312: 上次任务: ID(0x%x、0x%x),执行时间(%d.%d),耗时(%dms),已过(%dms)
                snprintf(detail, sizeof(detail), "\xC9\xCF\xB4\xCE\xC8\xCE\xCE\xF1: ID(0x%x\xA1\xA2" "0x%x),\xD6\xB4\xD0\xD0\xCA\xB1\xBC\xE4(%d.%d),\xBA\xC4\xCA\xB1(%dms),\xD2\xD1\xB9\xFD(%dms)",
                    static_cast<unsigned>(d.usr_id), static_cast<unsigned>(d.purpose), static_cast<int>(sec),
                    static_cast<int>(nsec / 1000000), static_cast<int>(d.duration_ms), ms_since(sec, nsec, now));
                switch (state) {
                case VESK_TIMER_THR_NOT_STARTED:
                    // GB2312: 未创建
                    snprintf(state_text, sizeof(state_text), "\xCE\xB4\xB4\xB4\xBD\xA8");
                    break;
                case VESK_TIMER_THR_SLEEPING:
                    // GB2312: 睡眠(%dms)
                    snprintf(state_text, sizeof(state_text), "\xCB\xAF\xC3\xDF(%dms)", static_cast<int>(d.sleep_ms));
                    break;
                case VESK_TIMER_THR_FETCHING:
                    // GB2312: 等待任务
                    snprintf(state_text, sizeof(state_text), "\xB5\xC8\xB4\xFD\xC8\xCE\xCE\xF1");
                    break;
                case VESK_TIMER_THR_RUNNING:
                    // GB2312: 执行任务
                    snprintf(state_text, sizeof(state_text), "\xD6\xB4\xD0\xD0\xC8\xCE\xCE\xF1");
                    // GB2312: 当前任务: ID(0x%x、0x%x),执行时间(%d.%d),已耗时(%dms)
                    snprintf(detail, sizeof(detail), "\xB5\xB1\xC7\xB0\xC8\xCE\xCE\xF1: ID(0x%x\xA1\xA2" "0x%x),\xD6\xB4\xD0\xD0\xCA\xB1\xBC\xE4(%d.%d),\xD2\xD1\xBA\xC4\xCA\xB1(%dms)",
                        static_cast<unsigned>(d.usr_id), static_cast<unsigned>(d.purpose), static_cast<int>(sec),
                        static_cast<int>(nsec / 1000000), ms_since(sec, nsec, now));
                    break;
                case VESK_TIMER_THR_RETURNED:
                    // GB2312: 结束任务
                    snprintf(state_text, sizeof(state_text), "\xBD\xE1\xCA\xF8\xC8\xCE\xCE\xF1");
                    break;
                case VESK_TIMER_THR_EXITED:
                    // GB2312: 线程已退出
                    snprintf(state_text, sizeof(state_text), "\xCF\xDF\xB3\xCC\xD2\xD1\xCD\xCB\xB3\xF6");
                    break;
                default:
                    // GB2312: 未知(0x%x)
                    snprintf(state_text, sizeof(state_text), "\xCE\xB4\xD6\xAA(0x%x)", state);
                    snprintf(detail, sizeof(detail), "-");
                    break;
                }
                print("%-6d%-12d%-14s%-80s\n", row, static_cast<int>(d.pid), state_text, detail);
            }
        }
    }
}

} // namespace vesk_utility
