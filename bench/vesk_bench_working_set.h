// The recorder's steady state: a working set of live blocks of mixed sizes in which each step
// frees a random block and allocates a new one of random size in its place. Every thread of a
// run keeps its own set. Shared by the memory and pool benchmarks.
#ifndef VESK_BENCH_WORKING_SET_H
#define VESK_BENCH_WORKING_SET_H

#include <benchmark/benchmark.h>

#include <cstdint>
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
        slot = alloc(k_working_set_min + (r >> 10) % span);
        benchmark::DoNotOptimize(slot);
        static_cast<char*>(slot)[0] = 1;
    }
    for (void* p : live)
        release(p);
}

}  // namespace vesk_bench

#endif  // VESK_BENCH_WORKING_SET_H
