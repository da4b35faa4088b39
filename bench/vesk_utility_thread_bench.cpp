// Whole life of a short registered thread (create, enter, exit, retrieve) against a bare
// pthread_create + pthread_join of the same routine, and the per-thread registry overhead
// with 64 other records on the list.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

void* bare_routine(void* arg)
{
    benchmark::DoNotOptimize(arg);
    return nullptr;
}

void* registered_routine(void* arg)
{
    const unsigned long self = pthread_self();
    vesk_utility_enter_thread(self, "bench_short");
    benchmark::DoNotOptimize(arg);
    vesk_utility_exit_thread(self);
    return nullptr;
}

void baseline_thread_life(benchmark::State& state)
{
    for (auto _ : state) {
        pthread_t h;
        pthread_create(&h, nullptr, bare_routine, nullptr);
        pthread_join(h, nullptr);
    }
}

void vesk_thread_life(benchmark::State& state)
{
    const vesk_thread_creat_ctl ctl = { VESK_THREAD_WORK_COMMON, 0, registered_routine, nullptr, 0, 0 };
    for (auto _ : state) {
        unsigned long h = 0;
        vesk_utility_creat_thread(&ctl, "bench", &h);
        vesk_utility_retrieve_thread(h);
    }
}

// Threads parked on a barrier-like flag, registered so that lookups walk a longer list.
struct parked {
    std::vector<unsigned long> handles;
    volatile bool release = false;
};

void* parked_routine(void* arg)
{
    const unsigned long self = pthread_self();
    vesk_utility_enter_thread(self, "bench_parked");
    while (!static_cast<parked*>(arg)->release)
        vesk_utility_sleep_ms(5);
    vesk_utility_exit_thread(self);
    return nullptr;
}

void vesk_thread_life_64_registered(benchmark::State& state)
{
    parked p;
    const vesk_thread_creat_ctl park = { VESK_THREAD_WORK_COMMON, 0, parked_routine, &p, 0, 0 };
    for (int i = 0; i < 64; i++) {
        unsigned long h = 0;
        vesk_utility_creat_thread(&park, "parked", &h);
        p.handles.push_back(h);
    }
    const vesk_thread_creat_ctl ctl = { VESK_THREAD_WORK_COMMON, 0, registered_routine, nullptr, 0, 0 };
    for (auto _ : state) {
        unsigned long h = 0;
        vesk_utility_creat_thread(&ctl, "bench", &h);
        vesk_utility_retrieve_thread(h);
    }
    p.release = true;
    for (unsigned long h : p.handles)
        vesk_utility_retrieve_thread(h);
}

// Same 64 sleeping threads, unregistered, so that only the registry differs.
void* bare_parked_routine(void* arg)
{
    while (!static_cast<parked*>(arg)->release)
        vesk_utility_sleep_ms(5);
    return nullptr;
}

void baseline_thread_life_64_registered(benchmark::State& state)
{
    parked p;
    std::vector<pthread_t> handles(64);
    for (pthread_t& h : handles)
        pthread_create(&h, nullptr, bare_parked_routine, &p);
    for (auto _ : state) {
        pthread_t h;
        pthread_create(&h, nullptr, bare_routine, nullptr);
        pthread_join(h, nullptr);
    }
    p.release = true;
    for (pthread_t h : handles)
        pthread_join(h, nullptr);
}

} // namespace

BENCHMARK(baseline_thread_life)->UseRealTime();
BENCHMARK(vesk_thread_life)->UseRealTime();
BENCHMARK(baseline_thread_life_64_registered)->UseRealTime();
BENCHMARK(vesk_thread_life_64_registered)->UseRealTime();
