// vesk_utility_thread.h - the thread registry: creating, naming and reaping the threads of the
// layer and of its client modules, so that the diagnostics console can list every one of them
// with its scheduling parameters and its share of CPU time.
//
// Contract
//   One routine per thread, supplied by its creator; nothing is pooled or reused. The calling
//   order for one thread is:
//     1. vesk_utility_creat_thread    by the parent
//     2. vesk_utility_enter_thread    first statement of the routine (names the thread)
//     3. vesk_utility_exit_thread     last statement of the routine
//     4. vesk_utility_retrieve_thread by the parent, unless the thread was created with
//                                     auto_retrieve (such a thread is detached and its record
//                                     goes at step 3)
//   A thread not started by create may still call enter: it is then registered as running.
//   Every function is safe to call from any thread. Before vesk_utility_init each one logs
//   "not init" and returns VESK_ERR_NOT_INIT.
#ifndef VESK_UTILITY_THREAD_H
#define VESK_UTILITY_THREAD_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

constexpr uint32_t VESK_THREAD_WORK_COMMON = 1; // SCHED_OTHER
constexpr uint32_t VESK_THREAD_WORK_REAL_TIME = 2; // SCHED_RR (policy number 2)

// Filled by the caller of vesk_utility_creat_thread. Six 32-bit fields on the target:
//   | work_type | priority | thread_func | thread_arg | auto_retrieve | stack_size |
//   0           4          8             12           16              20          24
// (on a 64-bit host the two pointers take 8 bytes each: 0, 4, 8, 16, 24, 28; 32 bytes).
struct vesk_thread_creat_ctl {
    uint32_t work_type; // VESK_THREAD_WORK_COMMON or VESK_THREAD_WORK_REAL_TIME
    uint32_t priority; // sched_param.sched_priority, passed through unchanged
    void* (*thread_func)(void*); // the routine
    void* thread_arg; // its argument
    VESK_BOOL auto_retrieve; // non-zero: detached, never joined
    uint32_t stack_size; // bytes; 0 keeps the default, else at least 512 KiB is used
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(vesk_thread_creat_ctl) == 24, "six 32-bit fields on the 32-bit target");
static_assert(offsetof(vesk_thread_creat_ctl, stack_size) == 20, "stack_size is the sixth field");
#else
static_assert(sizeof(vesk_thread_creat_ctl) == 32, "pointer fields widen on a 64-bit host");
static_assert(offsetof(vesk_thread_creat_ctl, stack_size) == 28, "stack_size is the sixth field");
#endif

// Starts ctl->thread_func(ctl->thread_arg) in a new thread with the policy of work_type and the
// given priority, stores its handle in *thread_hand (zeroed first) and registers it under
// `name` (NULL: "anonymous"). VESK_ERR_NOT_SUPPORT for a work type other than 1 and 2 (nothing
// is created and *thread_hand is left alone); VESK_ERR_OPERATE_FAIL when the system refuses the
// thread (for instance a real-time policy without the privilege); VESK_ERR_INVALID_PARAM for a
// NULL ctl or thread_hand.
VESK_API VESK_ERR vesk_utility_creat_thread(
    const vesk_thread_creat_ctl* ctl, const char* name, unsigned long* thread_hand);
// Called by the new thread as its first act with its own handle: records its kernel id and
// gives it the kernel-visible `name` (the kernel keeps 15 characters). VESK_ERR_OPERATE_FAIL
// when the record cannot be made.
VESK_API VESK_ERR vesk_utility_enter_thread(unsigned long thread_hand, const char* name);
// Called by the thread as its last act. An auto-retrieve thread's record is removed here.
// VESK_ERR_OPERATE_FAIL for a handle the registry does not know.
VESK_API VESK_ERR vesk_utility_exit_thread(unsigned long thread_hand);
// Joins a thread created without auto_retrieve and removes its record. For an auto-retrieve
// thread it only removes the record (a detached thread cannot be joined) and says so.
// VESK_ERR_OPERATE_FAIL for a handle the registry does not know.
VESK_API VESK_ERR vesk_utility_retrieve_thread(unsigned long thread_hand);

} // namespace vesk_soft

#endif // VESK_UTILITY_THREAD_H
