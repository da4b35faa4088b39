// Little-memory pool malloc+free and string-pool strdup+free against glibc malloc+free and
// strdup+free, at typical sizes, single thread and two threads.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "vesk_bench_working_set.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

// A running process always holds blocks in its pools. Without one resident node the pool
// would hand its only chunk back to the heap on every free, which is not the steady state.
void keep_pools_resident()
{
    static void* s_block = vesk_utility_malloc(0x40, 0x4002, 16, 4);
    static char* s_string = vesk_utility_strdup(0x40, 0x4003, "resident", 16);
    benchmark::DoNotOptimize(s_block);
    benchmark::DoNotOptimize(s_string);
}

void baseline_little_malloc_free(benchmark::State& state)
{
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = malloc(size);
        benchmark::DoNotOptimize(p);
        static_cast<char*>(p)[0] = 1;
        free(p);
    }
}

void vesk_little_malloc_free(benchmark::State& state)
{
    keep_pools_resident();
    const unsigned size = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        void* p = vesk_utility_malloc(0x40, 0x4001, size, 4);
        benchmark::DoNotOptimize(p);
        static_cast<char*>(p)[0] = 1;
        vesk_utility_free(__FILE__, __func__, p);
    }
}

// A string of range(0) bytes including its NUL.
void baseline_strdup_free(benchmark::State& state)
{
    const std::string text(static_cast<size_t>(state.range(0)) - 1, 'x');
    for (auto _ : state) {
        char* p = strdup(text.c_str());
        benchmark::DoNotOptimize(p);
        free(p);
    }
}

void vesk_strdup_free(benchmark::State& state)
{
    keep_pools_resident();
    const std::string text(static_cast<size_t>(state.range(0)) - 1, 'x');
    for (auto _ : state) {
        char* p = vesk_utility_strdup(0x40, 0x4004, text.c_str(), 4096);
        benchmark::DoNotOptimize(p);
        vesk_utility_free(__FILE__, __func__, p);
    }
}

// A working set of live blocks: each step frees a random one and allocates one of random size.
void baseline_little_working_set(benchmark::State& state)
{
    vesk_bench::run_working_set(state, [](uint32_t size) { return malloc(size); }, [](void* p) { free(p); });
}

void vesk_little_working_set(benchmark::State& state)
{
    keep_pools_resident();
    vesk_bench::run_working_set(
        state, [](uint32_t size) { return vesk_utility_malloc(0x40, 0x4007, size, 4); },
        [](void* p) { vesk_utility_free(__FILE__, __func__, p); });
}

void floor_little_working_set(benchmark::State& state)
{
    vesk_bench::run_floor_working_set(state);
}

// The same with strings of 16 to range(0) bytes including the NUL.
const char* pattern_text()
{
    static const std::string s_text(4096, 's');
    return s_text.c_str();
}

void baseline_strdup_working_set(benchmark::State& state)
{
    const char* text = pattern_text();
    vesk_bench::run_working_set(
        state, [text](uint32_t size) { return static_cast<void*>(strndup(text, size - 1)); },
        [](void* p) { free(p); });
}

void vesk_strdup_working_set(benchmark::State& state)
{
    keep_pools_resident();
    const char* text = pattern_text();
    vesk_bench::run_working_set(
        state, [text](uint32_t size) { return static_cast<void*>(vesk_utility_strdup(0x40, 0x4008, text, size - 1)); },
        [](void* p) { vesk_utility_free(__FILE__, __func__, p); });
}

} // namespace

BENCHMARK(baseline_little_malloc_free)->Arg(16)->Arg(64)->Arg(256)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_little_malloc_free)->Arg(16)->Arg(64)->Arg(256)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(baseline_strdup_free)->Arg(16)->Arg(64)->Arg(256)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_strdup_free)->Arg(16)->Arg(64)->Arg(256)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(baseline_little_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_little_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(floor_little_working_set)->Arg(512)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(baseline_strdup_working_set)->Arg(512)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(vesk_strdup_working_set)->Arg(512)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();
