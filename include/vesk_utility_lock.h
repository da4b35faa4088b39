// vesk_utility_lock.h - named locks, read-write locks and interruptible sleeps. Each object
// knows its name and who holds it, so that the diagnostics can list held locks with their
// holders and a thread that re-locks its own lock is stopped with a "dead lock" report.
#ifndef VESK_UTILITY_LOCK_H
#define VESK_UTILITY_LOCK_H

#include "vesk_utility_types.h"

namespace vesk_soft
{

// A non-recursive mutex that records its holder.
//
// Thread safety: every operation may be called from any thread without external
// synchronisation. `file` and `func` name the caller (pass __FILE__ and __func__); they are
// copied, joined by one blank and cut to 63 characters.
//
// Fatal (message, then the ASSERT! block and exit status 255), because each can only be a
// programming error:
//  - lock() by the thread that already holds the lock ("dead lock");
//  - unlock() of a lock that is not held ("illegal unlock?");
//  - deleting a held lock.
// Any thread may unlock a held lock; the holder is not compared.
// When the underlying mutex could not be initialised every operation logs "init fail!" and
// returns VESK_ERR_LOCK_NOT_INIT.
class vesk_lock
{
public:
    // Waits until the lock is free and takes it. 0, or VESK_ERR_OPERATE_FAIL when the mutex
    // reports an error.
    virtual VESK_ERR lock(const char* file, const char* func) = 0;
    // Takes the lock only when it is free: 0, else VESK_ERR_LOCK_BUSY at once. `timeout_ms`
    // is accepted but never waited for, whatever its value. No dead-lock check: a holder
    // that tries its own lock gets VESK_ERR_LOCK_BUSY.
    virtual VESK_ERR trylock(const char* file, const char* func, unsigned timeout_ms) = 0;
    // Releases the lock. 0. REQUIRES: the lock is held (by any thread).
    virtual VESK_ERR unlock(const char* file, const char* func) = 0;
    // Writes "'name' is locked by 'file func', last time = N sec" or "'name' is idel" into
    // buf (cut to len - 1 characters) and returns the lock count, 1 held or 0 free.
    virtual int get_state(char* buf, unsigned len) = 0;
    // When held: the locked text of get_state and 1. When free: 0, buf untouched.
    virtual int get_locked_info(char* buf, unsigned len) = 0;
    virtual ~vesk_lock() { }

protected:
    vesk_lock() = default;
    vesk_lock(const vesk_lock&) = delete;
    vesk_lock& operator=(const vesk_lock&) = delete;
};

// A read-write lock. Where the C library offers it, a waiting writer keeps new readers out,
// so that a steady stream of readers cannot starve writers. Not recursive: a reader that
// asks again while a writer waits blocks for good.
//
// Thread safety: as vesk_lock. The hold count is readers plus the writer currently inside.
// Fatal (message, then exit status 255): rd_lock() or wr_lock() by the thread that holds the
// write lock, unlock() with nothing held, deleting a held lock (with the ASSERT! block).
// When the underlying lock could not be initialised every operation logs "init fail!" and
// returns VESK_ERR_LOCK_NOT_INIT.
class vesk_rw_lock
{
public:
    // Waits for and takes a read lock: 0. Readers record no holder.
    virtual VESK_ERR rd_lock() = 0;
    // Takes a read lock only when available at once: 0, else VESK_ERR_LOCK_BUSY.
    // `timeout_ms` is never waited for.
    virtual VESK_ERR rd_trylock(const char* file, const char* func, unsigned timeout_ms) = 0;
    // Waits for and takes the write lock, recording the caller as writer: 0.
    virtual VESK_ERR wr_lock(const char* file, const char* func) = 0;
    // As wr_lock, but VESK_ERR_LOCK_BUSY at once when the lock is not free.
    virtual VESK_ERR wr_trylock(const char* file, const char* func, unsigned timeout_ms) = 0;
    // Releases one hold (read or write). On success it returns VESK_ERR_LOCK_BUSY, not 0:
    // callers ignore the result. REQUIRES: the calling thread holds the lock.
    virtual VESK_ERR unlock(const char* file, const char* func) = 0;
    // "'name' is locked N times, wr_lock usr is 'file func', lock time = S sec", or
    // "name is idel"; returns the hold count.
    virtual int get_state(char* buf, unsigned len) = 0;
    // The locked text and 1 when the count is positive, else 0.
    virtual int get_locked_info(char* buf, unsigned len) = 0;
    virtual ~vesk_rw_lock() { }

protected:
    vesk_rw_lock() = default;
    vesk_rw_lock(const vesk_rw_lock&) = delete;
    vesk_rw_lock& operator=(const vesk_rw_lock&) = delete;
};

// A sleep that another thread can cut short.
//
// Thread safety: any thread may call either operation. There is no pending flag: a wakeup()
// while no thread sleeps is lost, and one wakeup() ends at most one sleep.
// REQUIRES: no thread sleeps on it when it is deleted.
class vesk_interuptable_sleep
{
public:
    // Sleeps up to `ms` on the monotonic clock (wall-clock changes do not matter). 0 when
    // woken (or on a rare spurious return) before the deadline, VESK_ERR_OPERATE_FAIL when
    // the time ran out.
    virtual VESK_ERR sleep(unsigned ms) = 0;
    // Ends one current sleep, if any: 0.
    virtual VESK_ERR wakeup() = 0;
    virtual ~vesk_interuptable_sleep() { }

protected:
    vesk_interuptable_sleep() = default;
    vesk_interuptable_sleep(const vesk_interuptable_sleep&) = delete;
    vesk_interuptable_sleep& operator=(const vesk_interuptable_sleep&) = delete;
};

// Create a named object recorded with the creator's id (diagnose commands 3 and 7 of the
// resource manager list them). The name is cut to 31 characters; NULL reads "anonymous".
// NULL before vesk_utility_init ("not init or not support") or when memory is short.
VESK_API vesk_lock* vesk_utility_new_lock(vesk_user_id usr_id, const char* name);
VESK_API vesk_rw_lock* vesk_utility_new_rw_lock(vesk_user_id usr_id, const char* name);
VESK_API vesk_interuptable_sleep* vesk_utility_new_interuptable_sleep(vesk_user_id usr_id, const char* name);

// Unregister and destroy. 0; VESK_ERR_NOT_INIT before init; VESK_ERR_INVALID_PARAM for
// NULL. An object that was not created by the matching new (or was already deleted) ends the
// process, naming `file` and `func`; so does deleting a held lock.
VESK_API VESK_ERR vesk_utility_delete_lock(vesk_lock* lock, const char* file, const char* func);
VESK_API VESK_ERR vesk_utility_delete_rw_lock(vesk_rw_lock* lock, const char* file, const char* func);
VESK_API VESK_ERR vesk_utility_delete_interuptable_sleep(
    vesk_interuptable_sleep* sleep, const char* file, const char* func);

} // namespace vesk_soft

#endif // VESK_UTILITY_LOCK_H
