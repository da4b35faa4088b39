// vesk_utility_xls_mem - the accounted arrays of the spreadsheet services, with a tally of
// their live and peak bytes so that a workbook's cost can be reported.
#ifndef VESK_UTILITY_XLS_MEM_H
#define VESK_UTILITY_XLS_MEM_H

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "core/vesk_utility_mem_account.h"
#include "vesk_utility_types.h"

namespace vesk_utility {

struct xls_tally {
    uint64_t live = 0;
    uint64_t peak = 0;
};

// A growable array of trivially copyable T in accounted memory. Growth doubles, so appends
// cost O(1) amortised; failure leaves the array as it was.
template <class T>
class xls_array {
    static_assert(std::is_trivially_copyable<T>::value, "moved with memcpy");

public:
    xls_array(vesk_soft::vesk_memmory_purpose purpose, xls_tally* tally) : m_purpose(purpose), m_tally(tally) { }
    xls_array(const xls_array&) = delete;
    xls_array& operator=(const xls_array&) = delete;
    ~xls_array() { reset(); }

    // Room for at least n elements; false when the memory cannot be had or n is absurd.
    bool reserve(uint32_t n)
    {
        if (n <= m_cap)
            return true;
        uint64_t cap = m_cap < 16 ? 16 : static_cast<uint64_t>(m_cap) * 2;
        if (cap < n)
            cap = n;
        if (cap * sizeof(T) > 0x7FFFFFFFu)
            return false;
        void* p = vesk_malloc(vesk_soft::VESK_USER_UTILITY, m_purpose, static_cast<unsigned>(cap * sizeof(T)),
                              alignof(T) < alignof(void*) ? alignof(T) : alignof(void*));
        if (p == nullptr)
            return false;
        if (m_size > 0)
            memcpy(p, m_data, m_size * sizeof(T));
        account(cap * sizeof(T));
        release();
        m_data = static_cast<T*>(p);
        m_cap = static_cast<uint32_t>(cap);
        return true;
    }
    bool push(const T& v)
    {
        if (m_size == m_cap && !reserve(m_size + 1))
            return false;
        m_data[m_size++] = v;
        return true;
    }
    // Appends n elements; false (nothing appended) on failure.
    bool append(const T* v, uint32_t n)
    {
        if (static_cast<uint64_t>(m_size) + n > 0x7FFFFFFFu || !reserve(m_size + n))
            return false;
        memcpy(m_data + m_size, v, n * sizeof(T));
        m_size += n;
        return true;
    }
    // n elements, value-initialised.
    bool resize_zero(uint32_t n)
    {
        if (!reserve(n))
            return false;
        if (n > m_size)
            memset(static_cast<void*>(m_data + m_size), 0, (n - m_size) * sizeof(T));
        m_size = n;
        return true;
    }
    void truncate(uint32_t n)
    {
        if (n < m_size)
            m_size = n;
    }
    void reset()
    {
        release();
        m_data = nullptr;
        m_size = m_cap = 0;
    }
    T* data() { return m_data; }
    const T* data() const { return m_data; }
    uint32_t size() const { return m_size; }
    T& operator[](uint32_t i) { return m_data[i]; }
    const T& operator[](uint32_t i) const { return m_data[i]; }

private:
    void account(uint64_t bytes)
    {
        if (m_tally != nullptr) {
            m_tally->live += bytes;
            if (m_tally->live > m_tally->peak)
                m_tally->peak = m_tally->live;
        }
    }
    void release()
    {
        if (m_data == nullptr)
            return;
        if (m_tally != nullptr)
            m_tally->live -= static_cast<uint64_t>(m_cap) * sizeof(T);
        vesk_free(__FILE__, __func__, m_data);
    }

    vesk_soft::vesk_memmory_purpose m_purpose;
    xls_tally* m_tally;
    T* m_data = nullptr;
    uint32_t m_size = 0;
    uint32_t m_cap = 0;
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_XLS_MEM_H
