// vesk_utility_ground - the state every service of the layer stands on: the memory accounting
// and its counters, the handle registry, the pools, and the two ground services (the diagnose
// agent and the system-command client). Created on first use (double-checked), never
// destroyed. What is built at initialisation (the pools, the two services) is installed here
// by the resource manager, which composes the layer from above.
#ifndef VESK_UTILITY_GROUND_H
#define VESK_UTILITY_GROUND_H

#include <cstdint>

#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_mem_note.h"
#include "core/vesk_utility_registry.h"
#include "vesk_utility_types.h"

namespace vesk_utility {

class vesk_diagnose_agent;
class vesk_utility_system_client;
class utility_string_pool;
class utility_little_mem_pool;

// The role given to vesk_utility_init; 0 until initialisation has finished.
uint32_t vesk_ops_type();
// Published once, last, by vesk_utility_init.
void vesk_set_ops_type(uint32_t ops);

class vesk_ground final {
public:
    static vesk_ground* instance();

    vesk_mem_account& mem_account() { return m_mem_account; }
    vesk_note_tree& malloc_note() { return m_malloc_note; }
    vesk_note_tree& new_note() { return m_new_note; }
    vesk_class_note& class_note() { return m_class_note; }
    vesk_handle_registry& registry() { return m_registry; }

    // Published one by one: from each store on, small blocks and strings are routed into that
    // pool. Before, allocations (SQLite, the node pool) use the heap.
    void install_av_reader_pool(utility_little_mem_pool* pool) { __atomic_store_n(&m_av_reader_pool, pool, __ATOMIC_RELEASE); }
    void install_little_mem_pool(utility_little_mem_pool* pool) { __atomic_store_n(&m_little_mem_pool, pool, __ATOMIC_RELEASE); }
    void install_string_pool(utility_string_pool* pool) { __atomic_store_n(&m_string_pool, pool, __ATOMIC_RELEASE); }
    void install_services(vesk_diagnose_agent* diagnose, vesk_utility_system_client* system_client)
    {
        m_diagnose = diagnose;
        m_system_client = system_client;
    }

    // The pools as the allocator's routing sees them: NULL until installed.
    utility_string_pool* string_pool_if_built() const { return __atomic_load_n(&m_string_pool, __ATOMIC_ACQUIRE); }
    utility_little_mem_pool* little_mem_pool_if_built() const { return __atomic_load_n(&m_little_mem_pool, __ATOMIC_ACQUIRE); }
    utility_little_mem_pool* av_reader_pool_if_built() const { return __atomic_load_n(&m_av_reader_pool, __ATOMIC_ACQUIRE); }

    // Each get_ accessor ends the process with an assertion when its part does not exist.
    utility_string_pool* get_string_pool();
    utility_little_mem_pool* get_little_mem_pool();
    utility_little_mem_pool* get_av_reader_pool();
    vesk_diagnose_agent* get_diagnose();
    vesk_utility_system_client* get_system_client();
    // The client or NULL, without the assertion: the watchdog and the exported command
    // functions report a missing client instead of ending the process.
    vesk_utility_system_client* find_system_client() { return m_system_client; }

private:
    vesk_ground() = default;
    ~vesk_ground() = default;

    vesk_mem_account m_mem_account;
    vesk_note_tree m_malloc_note{"malloc/free num:"};
    vesk_note_tree m_new_note{"new/delete num:"};
    vesk_class_note m_class_note;
    vesk_handle_registry m_registry;

    utility_string_pool* m_string_pool = nullptr;
    utility_little_mem_pool* m_little_mem_pool = nullptr;
    utility_little_mem_pool* m_av_reader_pool = nullptr;
    vesk_diagnose_agent* m_diagnose = nullptr;
    vesk_utility_system_client* m_system_client = nullptr;
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_GROUND_H
