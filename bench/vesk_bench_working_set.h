// The recorder's steady state: a working set of live blocks of mixed sizes in which each step
// frees a random block and allocates a new one of random size in its place. Every thread of a
// run keeps its own set. Shared by the memory and pool benchmarks.
#ifndef VESK_BENCH_WORKING_SET_H
#define VESK_BENCH_WORKING_SET_H

#include <benchmark/benchmark.h>

#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace vesk_bench {

constexpr size_t k_working_set_blocks = 1024;
constexpr uint32_t k_working_set_min = 16;

// Deterministic per thread, so every allocator sees the same sequence.
class xorshift {
public:
    explicit xorshift(uint32_t seed) : m_s(seed * 2654435761u + 1) {}
    uint32_t next()
    {
        m_s ^= m_s << 13;
        m_s ^= m_s >> 17;
        m_s ^= m_s << 5;
        return m_s;
    }

private:
    uint32_t m_s;
};

// alloc(size) and release(p) wrap the allocator under test; state.range(0) is the largest size.
template <class Alloc, class Release>
void run_working_set(benchmark::State& state, Alloc alloc, Release release)
{
    const uint32_t span = static_cast<uint32_t>(state.range(0)) - k_working_set_min + 1;
    xorshift rng(static_cast<uint32_t>(state.thread_index()) + 1);
    std::vector<void*> live(k_working_set_blocks);
    for (void*& p : live)
        p = alloc(k_working_set_min + rng.next() % span);
    for (auto _ : state) {
        const uint32_t r = rng.next();
        void*& slot = live[r % k_working_set_blocks];
        release(slot);
        // DoNotOptimize on a local: GCC 12 drops the store to the slot when its "+m,r"
        // operand is the vector element itself and the allocator is inlined.
        void* fresh = alloc(k_working_set_min + (r >> 10) % span);
        benchmark::DoNotOptimize(fresh);
        static_cast<char*>(fresh)[0] = 1;
        slot = fresh;
    }
    for (void* p : live)
        release(p);
}

// The floor of the pools under their fixed rules: every allocation and every free takes the
// pool's one mutex, shared by all threads, and does its work inside it. Here the work is
// glibc's, which no best-fit search with headers and coalescing undercuts.
inline void run_floor_working_set(benchmark::State& state)
{
    static pthread_mutex_t s_pool_mutex = [] {
        pthread_mutex_t m;
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&m, &attr);
        pthread_mutexattr_destroy(&attr);
        return m;
    }();
    run_working_set(
        state,
        [](uint32_t size) {
            pthread_mutex_lock(&s_pool_mutex);
            void* p = malloc(size);
            pthread_mutex_unlock(&s_pool_mutex);
            return p;
        },
        [](void* p) {
            pthread_mutex_lock(&s_pool_mutex);
            free(p);
            pthread_mutex_unlock(&s_pool_mutex);
        });
}

}  // namespace vesk_bench

#endif  // VESK_BENCH_WORKING_SET_H
