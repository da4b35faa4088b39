// vesk_utility_ground - the ground state's creation and the accessors that refuse a missing
// part.
#include "core/vesk_utility_ground.h"

#include <atomic>
#include <mutex>

#include "core/vesk_utility_log.h"

namespace vesk_utility {

namespace {
std::atomic<vesk_ground*> s_ground{nullptr};
std::mutex s_ground_lock;
// Written once, last, under the init lock; read without a lock by every wrapper.
std::atomic<uint32_t> s_ops_type{0};
}  // namespace

uint32_t vesk_ops_type()
{
    return s_ops_type.load(std::memory_order_acquire);
}

void vesk_set_ops_type(uint32_t ops)
{
    s_ops_type.store(ops, std::memory_order_release);
}

vesk_ground* vesk_ground::instance()
{
    vesk_ground* p = s_ground.load(std::memory_order_acquire);
    if (p != nullptr)
        return p;
    std::lock_guard<std::mutex> guard(s_ground_lock);
    p = s_ground.load(std::memory_order_relaxed);
    if (p == nullptr) {
        // Plain new: the accounting lives inside this object, so it cannot account for it.
        p = new vesk_ground();
        s_ground.store(p, std::memory_order_release);
    }
    return p;
}

utility_string_pool* vesk_ground::get_string_pool()
{
    VESK_ASSERT(m_string_pool != NULL);
    return m_string_pool;
}

utility_little_mem_pool* vesk_ground::get_little_mem_pool()
{
    VESK_ASSERT(m_little_mem_pool != NULL);
    return m_little_mem_pool;
}

utility_little_mem_pool* vesk_ground::get_av_reader_pool()
{
    VESK_ASSERT(m_av_reader_pool != NULL);
    return m_av_reader_pool;
}

vesk_diagnose_agent* vesk_ground::get_diagnose()
{
    VESK_ASSERT(m_diagnose != NULL);
    return m_diagnose;
}

vesk_utility_system_client* vesk_ground::get_system_client()
{
    VESK_ASSERT(m_system_client != NULL);
    return m_system_client;
}

}  // namespace vesk_utility
