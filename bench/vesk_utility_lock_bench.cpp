// The named lock against a bare pthread mutex: uncontended lock+unlock, and two threads
// fighting over one lock with a one-increment critical section.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
long s_counter = 0;

// One lock for the whole run (the registry keeps it; the process ends with it held by nobody).
vesk_lock* shared_lock()
{
    static vesk_lock* s_lock = vesk_utility_new_lock(0x40, "bench");
    return s_lock;
}

void baseline_lock_unlock(benchmark::State& state)
{
    for (auto _ : state) {
        pthread_mutex_lock(&s_mutex);
        s_counter++;
        pthread_mutex_unlock(&s_mutex);
    }
}

void vesk_lock_unlock(benchmark::State& state)
{
    vesk_lock* lk = shared_lock();
    for (auto _ : state) {
        lk->lock(__FILE__, __func__);
        s_counter++;
        lk->unlock(__FILE__, __func__);
    }
}

void baseline_lock_contended(benchmark::State& state)
{
    for (auto _ : state) {
        pthread_mutex_lock(&s_mutex);
        s_counter++;
        pthread_mutex_unlock(&s_mutex);
    }
}

void vesk_lock_contended(benchmark::State& state)
{
    vesk_lock* lk = shared_lock();
    for (auto _ : state) {
        lk->lock(__FILE__, __func__);
        s_counter++;
        lk->unlock(__FILE__, __func__);
    }
}

pthread_rwlock_t s_rwlock = PTHREAD_RWLOCK_INITIALIZER;

vesk_rw_lock* shared_rw_lock()
{
    static vesk_rw_lock* s_lock = vesk_utility_new_rw_lock(0x40, "bench rw");
    return s_lock;
}

void baseline_rw_write_unlock(benchmark::State& state)
{
    for (auto _ : state) {
        pthread_rwlock_wrlock(&s_rwlock);
        s_counter++;
        pthread_rwlock_unlock(&s_rwlock);
    }
}

void vesk_rw_write_unlock(benchmark::State& state)
{
    vesk_rw_lock* lk = shared_rw_lock();
    for (auto _ : state) {
        lk->wr_lock(__FILE__, __func__);
        s_counter++;
        lk->unlock(__FILE__, __func__);
    }
}

void baseline_rw_read_unlock(benchmark::State& state)
{
    for (auto _ : state) {
        pthread_rwlock_rdlock(&s_rwlock);
        benchmark::DoNotOptimize(s_counter);
        pthread_rwlock_unlock(&s_rwlock);
    }
}

void vesk_rw_read_unlock(benchmark::State& state)
{
    vesk_rw_lock* lk = shared_rw_lock();
    for (auto _ : state) {
        lk->rd_lock();
        benchmark::DoNotOptimize(s_counter);
        lk->unlock(__FILE__, __func__);
    }
}

} // namespace

BENCHMARK(baseline_lock_unlock)->UseRealTime();
BENCHMARK(vesk_lock_unlock)->UseRealTime();
BENCHMARK(baseline_lock_contended)->Threads(2)->UseRealTime();
BENCHMARK(vesk_lock_contended)->Threads(2)->UseRealTime();
BENCHMARK(baseline_rw_write_unlock)->UseRealTime();
BENCHMARK(vesk_rw_write_unlock)->UseRealTime();
BENCHMARK(baseline_rw_read_unlock)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_rw_read_unlock)->Threads(1)->Threads(2)->UseRealTime();
