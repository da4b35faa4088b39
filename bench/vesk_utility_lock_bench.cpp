// The named lock against a bare pthread mutex: uncontended lock+unlock, and two threads
// fighting over one lock with a one-increment critical section; the read-write lock against a
// bare pthread_rwlock_t, with the floor that its hold count sets.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <ctime>

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

// The floor of a read-write lock that keeps what its dumps show: the writer-preferring rwlock,
// one shared hold count that every holder raises and lowers with a locked instruction, and the
// time of the hold, set when the count leaves 0 and cleared when it returns there.
pthread_rwlock_t* writer_preferring_rwlock()
{
    static pthread_rwlock_t s_lock = [] {
        pthread_rwlock_t lock;
        pthread_rwlockattr_t attr;
        pthread_rwlockattr_init(&attr);
        pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock, &attr);
        pthread_rwlockattr_destroy(&attr);
        return lock;
    }();
    return &s_lock;
}

std::atomic<int32_t> s_hold_cnt {0};
std::atomic<time_t> s_hold_time {0};

void floor_rw_read_unlock(benchmark::State& state)
{
    pthread_rwlock_t* lock = writer_preferring_rwlock();
    for (auto _ : state) {
        pthread_rwlock_rdlock(lock);
        if (s_hold_cnt.fetch_add(1, std::memory_order_relaxed) == 0)
            s_hold_time.store(time(nullptr), std::memory_order_relaxed);
        benchmark::DoNotOptimize(s_counter);
        if (s_hold_cnt.fetch_sub(1, std::memory_order_relaxed) == 1)
            s_hold_time.store(0, std::memory_order_relaxed);
        pthread_rwlock_unlock(lock);
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
BENCHMARK(floor_rw_read_unlock)->Threads(1)->Threads(2)->UseRealTime();
