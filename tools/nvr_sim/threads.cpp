// nvr_sim threads and time: every thread of the simulator is created, named and reaped through
// the library's thread registry, so the console's CPU view lists it.
#include <pthread.h>
#include <time.h>

#include <cstdio>
#include <cstring>

#include "nvr_sim.h"

using namespace vesk_soft;

namespace nvr_sim
{

namespace
{

struct thread_start {
    char name[16];
    void (*fn)(void*);
    void* arg;
};

void* thread_main(void* p)
{
    thread_start* st = static_cast<thread_start*>(p);
    // The registry's handle is the thread's pthread_t, known here before the creator has it.
    vesk_utility_enter_thread(static_cast<unsigned long>(pthread_self()), st->name);
    st->fn(st->arg);
    vesk_utility_exit_thread(static_cast<unsigned long>(pthread_self()));
    delete st;
    return nullptr;
}

} // namespace

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void sleep_unless(const std::atomic<bool>& flag, unsigned ms)
{
    const int64_t end = now_ms() + ms;
    for (;;) {
        const int64_t left = end - now_ms();
        if (left <= 0 || flag.load(std::memory_order_relaxed))
            return;
        vesk_utility_sleep_ms(static_cast<unsigned>(left < 50 ? left : 50));
    }
}

unsigned long start_thread(const char* name, void (*fn)(void*), void* arg)
{
    thread_start* st = new thread_start;
    snprintf(st->name, sizeof(st->name), "%s", name);
    st->fn = fn;
    st->arg = arg;
    vesk_thread_creat_ctl ctl = {};
    ctl.work_type = VESK_THREAD_WORK_COMMON;
    ctl.thread_func = thread_main;
    ctl.thread_arg = st;
    unsigned long hand = 0;
    if (vesk_utility_creat_thread(&ctl, st->name, &hand) != VESK_OK) {
        fprintf(stderr, "nvr_sim: cannot start thread %s\n", st->name);
        delete st;
        return 0;
    }
    return hand;
}

void join_thread(unsigned long hand)
{
    if (hand != 0)
        vesk_utility_retrieve_thread(hand);
}

} // namespace nvr_sim
