// Accounted malloc+free against glibc malloc+free, single thread and two threads.
#include <benchmark/benchmark.h>

#include <cstdlib>

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

}  // namespace

BENCHMARK(baseline_malloc_free)->Arg(16)->Arg(256)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_malloc_free)->Arg(16)->Arg(256)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
