// vesk_utility_fault - the counting slow path of vesk_sys_malloc, taken only while a test
// has armed a failure.
#include "core/vesk_utility_fault.h"

#include <pthread.h>

namespace vesk_utility
{

std::atomic<bool> g_fault_armed { false };

namespace
{

// Written by vesk_fault_arm before g_fault_armed is released. Atomics, because the layer's
// own threads may be in the slow path while a test re-arms.
std::atomic<unsigned> s_target { 0 };
std::atomic<bool> s_persistent { false };
std::atomic<bool> s_any_thread { false };
std::atomic<pthread_t> s_thread {};
std::atomic<unsigned> s_calls { 0 };
std::atomic<unsigned> s_failures { 0 };

} // namespace

bool vesk_fault_take()
{
    // The acquire pairs with the release in vesk_fault_arm, so the settings above are seen.
    if (!g_fault_armed.load(std::memory_order_acquire))
        return false;
    if (!s_any_thread.load(std::memory_order_relaxed)
        && !pthread_equal(pthread_self(), s_thread.load(std::memory_order_relaxed)))
        return false;
    const unsigned k = s_calls.fetch_add(1, std::memory_order_relaxed) + 1;
    const unsigned target = s_target.load(std::memory_order_relaxed);
    if (target != 0 && (k == target || (s_persistent.load(std::memory_order_relaxed) && k > target))) {
        s_failures.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    return false;
}

void* vesk_sys_malloc_slow(size_t size)
{
    return vesk_fault_take() ? nullptr : malloc(size);
}

void vesk_fault_arm(unsigned n, vesk_fault_scope scope, bool persistent)
{
    g_fault_armed.store(false, std::memory_order_relaxed);
    s_target.store(n, std::memory_order_relaxed);
    s_persistent.store(persistent, std::memory_order_relaxed);
    s_any_thread.store(scope == vesk_fault_scope::any_thread, std::memory_order_relaxed);
    s_thread.store(pthread_self(), std::memory_order_relaxed);
    s_calls.store(0, std::memory_order_relaxed);
    s_failures.store(0, std::memory_order_relaxed);
    g_fault_armed.store(true, std::memory_order_release);
}

void vesk_fault_disarm()
{
    g_fault_armed.store(false, std::memory_order_release);
}

unsigned vesk_fault_calls()
{
    return s_calls.load(std::memory_order_relaxed);
}

unsigned vesk_fault_failures()
{
    return s_failures.load(std::memory_order_relaxed);
}

} // namespace vesk_utility
