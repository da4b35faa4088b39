// vesk_utility_fault - the one door through which the layer calls the C allocator
// (accounted heap blocks, and through them registry overflow nodes and SQLite's heap; note
// trees; class counters), and the test-only switch that makes the n-th allocation fail
// (requests served by the small-block pools count as allocations too).
//
// Cost when off: one relaxed load of a flag and one branch marked unlikely, then the direct
// call to malloc. A function pointer was the alternative; it was rejected because an
// indirect call through writable data can never be inlined away, needs the branch target
// predictor on every allocation, and leaves a code pointer in .data on a box that runs for
// months. The flag is only ever set by tests.
#ifndef VESK_UTILITY_FAULT_H
#define VESK_UTILITY_FAULT_H

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace vesk_utility
{

// True while a failure is armed; the slow path below does the counting.
extern std::atomic<bool> g_fault_armed;

void* vesk_sys_malloc_slow(size_t size);
// Counts one allocation while armed; true when it is the one to fail.
bool vesk_fault_take();

// Every C allocation of the layer goes through here (plain free() stays as it is).
inline void* vesk_sys_malloc(size_t size)
{
    if (__builtin_expect(g_fault_armed.load(std::memory_order_relaxed), 0))
        return vesk_sys_malloc_slow(size);
    return malloc(size);
}

// The pools hand out blocks without calling the C allocator; each request counts as one
// allocation all the same, and a failed one takes the pool's "no chunk to be had" way out.
inline bool vesk_fault_pool_hit()
{
    return __builtin_expect(g_fault_armed.load(std::memory_order_relaxed), 0) && vesk_fault_take();
}

enum class vesk_fault_scope {
    calling_thread, // only allocations made by the thread that armed count (the default:
                    // the layer's own threads keep running undisturbed during a walk)
    any_thread, // for paths that hand their allocation to another thread
};

// Makes the n-th (1-based) C allocation from now on fail: only that one, or with `persistent`
// that one and every later one. n = 0 only counts. Test-only; not for concurrent arming.
void vesk_fault_arm(unsigned n, vesk_fault_scope scope = vesk_fault_scope::calling_thread, bool persistent = false);
// Back to the fast path. Counters keep their values for inspection.
void vesk_fault_disarm();
// Allocations counted since the last arm (including the failed ones), and failures delivered.
unsigned vesk_fault_calls();
unsigned vesk_fault_failures();

} // namespace vesk_utility

#endif // VESK_UTILITY_FAULT_H
