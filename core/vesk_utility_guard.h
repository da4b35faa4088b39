// vesk_utility_guard - scope guards for the locks the layer's services keep: a plain mutex, a
// named lock and a read-write lock. The named forms record the caller's file and operation as
// the holder, which is what the lock dumps show while it is held.
#ifndef VESK_UTILITY_GUARD_H
#define VESK_UTILITY_GUARD_H

#include <pthread.h>

#include "vesk_utility.h"

namespace vesk_utility
{

class mutex_guard
{
public:
    explicit mutex_guard(pthread_mutex_t& mutex)
        : m_mutex(mutex)
    {
        pthread_mutex_lock(&m_mutex);
    }
    ~mutex_guard() { pthread_mutex_unlock(&m_mutex); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

class named_guard
{
public:
    named_guard(vesk_soft::vesk_lock* lock, const char* file, const char* func)
        : m_lock(lock)
        , m_file(file)
        , m_func(func)
    {
        m_lock->lock(m_file, m_func);
    }
    ~named_guard() { m_lock->unlock(m_file, m_func); }
    named_guard(const named_guard&) = delete;
    named_guard& operator=(const named_guard&) = delete;

private:
    vesk_soft::vesk_lock* m_lock;
    const char* m_file;
    const char* m_func;
};

// Readers record no holder; file and func name the writer.
class rw_guard
{
public:
    enum mode { read, write };
    rw_guard(vesk_soft::vesk_rw_lock* lock, mode how, const char* file, const char* func)
        : m_lock(lock)
        , m_file(file)
        , m_func(func)
    {
        if (how == write)
            m_lock->wr_lock(m_file, m_func);
        else
            m_lock->rd_lock();
    }
    ~rw_guard() { m_lock->unlock(m_file, m_func); }
    rw_guard(const rw_guard&) = delete;
    rw_guard& operator=(const rw_guard&) = delete;

private:
    vesk_soft::vesk_rw_lock* m_lock;
    const char* m_file;
    const char* m_func;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_GUARD_H
