// vesk_utility_timer.h - the timer service: periodic and one-shot callbacks of every module,
// run on a small set of service threads of the main application (role 1).
//
// Contract
//   A task is the pair (callback, parameter); user id and purpose only label it in the
//   diagnostics. Each time the callback runs it decides what happens next:
//     VESK_TIMER_RET_CONTINUE  run again after *next_ms milliseconds
//     VESK_TIMER_RET_SUSPEND   keep the task but do not run it until vesk_utility_c_timer_wakeup
//     VESK_TIMER_RET_DELETE    the task is finished; the service forgets it
//   (any other value counts as CONTINUE). On entry *next_ms holds the task's current interval;
//   the value left there is the delay until the next run and becomes the new interval. A
//   CONTINUE with *next_ms == 0 runs the task again at once on the same thread, with a warning
//   each time. *task_type tells the callback which kind of thread runs it; writing it has no
//   effect.
//
//   Common tasks run on a group of common threads (five at start), which grows by temporary
//   threads while tasks fall behind and shrinks again after ten idle seconds; real-time tasks
//   run on a fixed group of real-time threads (two at start). A callback may block only as
//   long as the tasks behind it can wait. Callbacks run with no service lock held, so they may
//   register, wake and unregister tasks, their own included - except an unregistration with
//   `wait` of their own task, which never returns.
//
//   Threads sleep at most 100 ms, so a task made due by registration or wake-up starts within
//   about 100 ms; a task may start up to 5 ms before it is due.
//
//   Every function is safe to call from any thread. Outside the main application role (before
//   vesk_utility_init, or in the proxy server) each one logs "not init, or not support,
//   s_ops_type = 0x..." and returns VESK_ERR_NOT_INIT.
#ifndef VESK_UTILITY_TIMER_H
#define VESK_UTILITY_TIMER_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

enum vesk_timer_ret_code {
    VESK_TIMER_RET_CONTINUE = 0,
    VESK_TIMER_RET_SUSPEND = 1,
    VESK_TIMER_RET_DELETE = 2,
};

enum vesk_timer_task_type {
    VESK_TIMER_TASK_COMMON = 0,
    VESK_TIMER_TASK_REAL_TIME = 1,
    VESK_TIMER_TASK_ALL = 2, // unregistration and wake-up only: search both groups
};

// Caller-chosen label of a task. Two values are special: 0x88 (the A/V cache rotation) has a
// slot of its own that the allocator can pull forward, and at most (common threads + temporary
// slots) / 2 tasks of 0x21000 run at once.
typedef uint32_t vesk_timer_purpose;
constexpr vesk_timer_purpose VESK_TIMER_PURPOSE_ROTATE = 0x88;
constexpr vesk_timer_purpose VESK_TIMER_PURPOSE_LIMITED = 0x21000;

typedef vesk_timer_ret_code (*vesk_timer_callback)(void* param, unsigned int* next_ms, vesk_timer_task_type* task_type);

// Queues func(param, ...) to run first after first_ms, then every interval_ms unless the
// callback says otherwise. A task already waiting is re-armed with the new values (logged
// "already exist!"); a task running at this moment is left as it is (VESK_OK). A task_type
// other than COMMON and REAL_TIME is queued as common without that search.
// VESK_ERR_INVALID_PARAM for a NULL func; VESK_ERR_OPERATE_FAIL when no node can be had.
VESK_API VESK_ERR vesk_utility_c_regist_timer(vesk_user_id user_id, vesk_timer_callback func,
    vesk_timer_purpose purpose, unsigned int interval_ms, void* param, vesk_timer_task_type task_type,
    unsigned int first_ms);
// Installs the one fetch-watchdog callback, run by the check thread at least interval_ms apart
// (task_type NULL; *next_ms may change the interval). A second call replaces the first; NULL
// removes it. VESK_OK.
VESK_API VESK_ERR vesk_utility_c_regist_fetch_wd_timer(vesk_timer_callback func, unsigned int interval_ms, void* param);
// Removes the task (func, param) of the given group(s). A task running now is freed when its
// callback returns; with `wait` set the call returns only after that (it polls every 40 ms and
// logs its progress every 2 s). A task not found is still caught for the next second in case
// it was moving between lists. VESK_OK; VESK_ERR_INVALID_PARAM for a NULL func;
// VESK_ERR_OPERATE_FAIL when no node can be had for the mark.
VESK_API VESK_ERR vesk_utility_c_unregist_timer(
    vesk_timer_callback func, void* param, VESK_BOOL wait, vesk_timer_task_type task_type);
// Makes a waiting task (typically a suspended one) due after delay_ms (0: now) and clears its
// suspension. A task that is running at this moment is not affected. VESK_OK;
// VESK_ERR_INVALID_PARAM for a NULL func.
VESK_API VESK_ERR vesk_utility_c_timer_wakeup(
    vesk_timer_callback func, void* param, unsigned int delay_ms, vesk_timer_task_type task_type);
// Raises the common group to num threads and provides temp_num slots for temporary threads.
// Once only: a second call after one that added threads or slots ends the process. The number
// of 0x21000 tasks allowed to run at once becomes (num + temp_num) / 2. VESK_OK.
VESK_API VESK_ERR vesk_utility_adj_comm_thr_num(unsigned int num, unsigned int temp_num);
// Raises the real-time group to num threads (never lowers it). Only one raise after start-up;
// a second one that would add threads ends the process. VESK_OK.
VESK_API VESK_ERR vesk_utility_adj_real_time_thr_num(unsigned int num);

} // namespace vesk_soft

#endif // VESK_UTILITY_TIMER_H
