// vesk_utility_lock - the named lock, read-write lock and interruptible sleep behind the
// interfaces of vesk_utility_lock.h, and the per-node printers that list them in the
// resource manager's lock dumps.
#ifndef VESK_UTILITY_LOCK_INTERNAL_H
#define VESK_UTILITY_LOCK_INTERNAL_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <ctime>

// The public interfaces; core/ shares this header's file name, so reach them through the
// umbrella header, which resolves its own includes in include/.
#include "vesk_utility.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_registry.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

constexpr unsigned k_lock_name_size = 32; // 31 characters and the NUL
constexpr unsigned k_lock_holder_size = 64; // "file func", 63 characters and the NUL

// Accounting purposes of the objects themselves (user id VESK_USER_UTILITY).
constexpr vesk_soft::vesk_memmory_purpose k_purpose_lock = k_purpose_lock_obj;
constexpr vesk_soft::vesk_memmory_purpose k_purpose_rw_lock = k_purpose_rw_lock_obj;
constexpr vesk_soft::vesk_memmory_purpose k_purpose_sleep = k_purpose_sleep_obj;

// The calls that create the primitives, replaceable so that tests can make them fail.
// mutex_init is used for the named lock's own mutex only.
struct vesk_lock_sys {
    int (*mutex_init)(pthread_mutex_t*, const pthread_mutexattr_t*);
    int (*rwlock_init)(pthread_rwlock_t*, const pthread_rwlockattr_t*);
    int (*condattr_init)(pthread_condattr_t*);
};
extern vesk_lock_sys s_lock_sys;

// Lists the lock objects in dump modes 1 (all locks), 2 (all read-write locks), 3 (held
// locks) and 4 (held read-write locks). Called once by the resource manager.
void vesk_lock_install_printers(vesk_handle_registry& registry);

// Every held lock of the three lock lists with its holder and for how long (the console's
// held-lock dump, and the watchdog's report before a reboot).
void vesk_dump_held_locks(vesk_soft::print_fn print);

// Objects of this service live on the accounted heap, so a leaked lock shows up in the
// memory dumps as well as in the lock lists. A failed allocation makes `new` yield NULL.
template <vesk_soft::vesk_memmory_purpose Purpose> struct vesk_lock_heap {
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* p) noexcept;
};

// Invariants (the bookkeeping, written only by the holder while it holds m_mutex):
//  - free: m_lock_cnt 0, m_holder "no usr", m_holder_thread 0;
//  - held: m_lock_cnt 1, m_holder "file func", m_holder_thread the locking thread,
//    m_lock_time the time() of acquisition.
// The dead-lock test and the dumps read the bookkeeping without the mutex; m_holder[63] is
// never anything but NUL, so a torn read still ends inside the field.
class vesk_lock_realize final : public vesk_soft::vesk_lock, public vesk_lock_heap<k_purpose_lock>
{
public:
    explicit vesk_lock_realize(const char* name);
    ~vesk_lock_realize() override;

    VESK_ERR lock(const char* file, const char* func) override;
    VESK_ERR trylock(const char* file, const char* func, unsigned timeout_ms) override;
    VESK_ERR unlock(const char* file, const char* func) override;
    int get_state(char* buf, unsigned len) override;
    int get_locked_info(char* buf, unsigned len) override;

private:
    friend struct vesk_lock_test_peer;

    // Checks the books of a free lock and records the new holder. `op` names the operation
    // in the messages. REQUIRES: m_mutex just taken by this thread.
    void record(const char* op, const char* file, const char* func);
    void format_locked(char* buf, unsigned len);

    pthread_mutex_t m_mutex;
    int32_t m_init_flag;
    std::atomic<int32_t> m_lock_cnt { 0 };
    char m_name[k_lock_name_size];
    char m_holder[k_lock_holder_size];
    std::atomic<pthread_t> m_holder_thread { 0 };
    std::atomic<time_t> m_lock_time { 0 };
};

// m_cnt and m_lock_time are atomics, so that a lock and an unlock add one locked instruction
// (a reader's) or none (a writer's, which is alone inside) to those of the rwlock itself:
// m_lock_time is set by whoever takes the count from 0 to 1 and cleared by whoever takes it
// from 1 to 0 (cleared before the count drops and restored if another holder came in
// meanwhile, so it is never 0 for a hold that began earlier). m_cnt_mutex stays for the
// layout and is not taken. m_writer is written by the writer inside the lock and by the last
// unlocker, and read unlocked by the dumps.
class vesk_rw_lock_realize final : public vesk_soft::vesk_rw_lock, public vesk_lock_heap<k_purpose_rw_lock>
{
public:
    explicit vesk_rw_lock_realize(const char* name);
    ~vesk_rw_lock_realize() override;

    VESK_ERR rd_lock() override;
    VESK_ERR rd_trylock(const char* file, const char* func, unsigned timeout_ms) override;
    VESK_ERR wr_lock(const char* file, const char* func) override;
    VESK_ERR wr_trylock(const char* file, const char* func, unsigned timeout_ms) override;
    VESK_ERR unlock(const char* file, const char* func) override;
    int get_state(char* buf, unsigned len) override;
    int get_locked_info(char* buf, unsigned len) override;

private:
    void add_cnt(); // a reader's hold; a writer counts itself in wr_lock/wr_trylock
    void add_writer(const char* file, const char* func);
    int32_t get_cnt();

    pthread_rwlock_t m_rwlock;
    int32_t m_init_flag;
    std::atomic<int32_t> m_cnt { 0 };
    char m_name[k_lock_name_size];
    pthread_mutex_t m_cnt_mutex;
    char m_writer[k_lock_holder_size];
    std::atomic<time_t> m_lock_time { 0 };
};

// A condition variable on the monotonic clock with no predicate: a signal reaches only a
// thread already waiting.
// REQUIRES at destruction: no thread sleeps on it.
class interuptable_sleep final : public vesk_soft::vesk_interuptable_sleep, public vesk_lock_heap<k_purpose_sleep>
{
public:
    interuptable_sleep();
    ~interuptable_sleep() override;

    VESK_ERR sleep(unsigned ms) override;
    VESK_ERR wakeup() override;

private:
    pthread_mutex_t m_mutex;
    pthread_condattr_t m_cond_attr;
    pthread_cond_t m_cond;
    [[maybe_unused]] int32_t m_flag = 0; // kept for the layout; always 0
};

} // namespace vesk_utility

#endif // VESK_UTILITY_LOCK_INTERNAL_H
