// Accounted malloc+free against glibc malloc+free, single thread and two threads: one block
// at a time (churn), and a working set of live blocks of mixed sizes through the front door
// (which routes these sizes to the little-memory pool) and through the accounted heap.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "vesk_bench_working_set.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace {

void baseline_malloc_free(benchmark::State& state)
{
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = malloc(size);
        benchmark::DoNotOptimize(p);
        static_cast<char*>(p)[0] = 1;
        free(p);
    }
}

void vesk_malloc_free(benchmark::State& state)
{
    const unsigned size = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        void* p = vesk_utility_malloc(0x40, 0x4001, size, 1);
        benchmark::DoNotOptimize(p);
        static_cast<char*>(p)[0] = 1;
        vesk_utility_free(__FILE__, __func__, p);
    }
}

void baseline_working_set(benchmark::State& state)
{
    vesk_bench::run_working_set(state, [](uint32_t size) { return malloc(size); }, [](void* p) { free(p); });
}

void vesk_working_set(benchmark::State& state)
{
    vesk_bench::run_working_set(
        state, [](uint32_t size) { return vesk_utility_malloc(0x40, 0x4005, size, 1); },
        [](void* p) { vesk_utility_free(__FILE__, __func__, p); });
}

void floor_working_set(benchmark::State& state)
{
    vesk_bench::run_floor_working_set(state);
}

void baseline_heap_working_set(benchmark::State& state)
{
    baseline_working_set(state);
}

// Alignment 8 keeps the blocks out of the pool: every one is a guarded heap block on the live list.
void vesk_heap_working_set(benchmark::State& state)
{
    vesk_bench::run_working_set(
        state, [](uint32_t size) { return vesk_utility_malloc(0x40, 0x4006, size, 8); },
        [](void* p) { vesk_utility_free(__FILE__, __func__, p); });
}

}  // namespace

BENCHMARK(baseline_malloc_free)->Arg(16)->Arg(256)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_malloc_free)->Arg(16)->Arg(256)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(baseline_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(floor_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(baseline_heap_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_heap_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
