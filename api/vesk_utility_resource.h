// vesk_utility_resource - the resource manager: the process-wide singleton that owns every
// service of the layer, the memory accounting and the handle registry. Created on first use,
// never destroyed.
#ifndef VESK_UTILITY_RESOURCE_H
#define VESK_UTILITY_RESOURCE_H

#include <atomic>

#include "vesk_utility_mem_account.h"
#include "vesk_utility_mem_note.h"
#include "vesk_utility_registry.h"
#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::vesk_utility_ops_type;

// Services, built by the issues that bring them; their slots stay NULL until then.
class vesk_diagnose_agent;
class vesk_utility_system_client;
class vesk_utility_timer;
class vesk_utility_event_manage;
class vesk_utility_watch_dog_manage;
class utility_thread_pool;
class utility_string_pool;
class utility_little_mem_pool;

// The role given to vesk_utility_init; 0 until initialisation has finished.
uint32_t vesk_ops_type();

class vesk_utility_res_manage final : public vesk_soft::vesk_diagnose_client {
public:
    // The singleton, created on first use (double-checked under its own mutex).
    static vesk_utility_res_manage* instance();

    // Builds every service of the role, in the fixed order. An unknown role is fatal.
    void construct_res(vesk_utility_ops_type ops);

    // Each accessor ends the process with an assertion when its service does not exist.
    utility_thread_pool* get_thread_pool();
    // The thread pool or NULL, without the assertion: thread operations carry on unregistered
    // (with a warning) when the pool is not there yet.
    utility_thread_pool* find_thread_pool() { return m_thread_pool; }
    utility_string_pool* get_string_pool();
    utility_little_mem_pool* get_little_mem_pool();
    utility_little_mem_pool* get_av_reader_pool();
    vesk_diagnose_agent* get_diagnose();
    vesk_utility_system_client* get_system_client();
    // The client or NULL, without the assertion: the watchdog and the exported command
    // functions report a missing client instead of ending the process.
    vesk_utility_system_client* find_system_client() { return m_system_client; }
    vesk_utility_timer* get_timer();
    vesk_utility_watch_dog_manage* get_watch_dog_manage();
    vesk_utility_event_manage* get_event_manage();

    // The pools as the allocator's routing sees them: NULL until construct_res has built them,
    // so that allocations made before initialisation (SQLite, the node pool) use the heap.
    utility_string_pool* string_pool_if_built() const { return __atomic_load_n(&m_string_pool, __ATOMIC_ACQUIRE); }
    utility_little_mem_pool* little_mem_pool_if_built() const
    {
        return __atomic_load_n(&m_little_mem_pool, __ATOMIC_ACQUIRE);
    }
    utility_little_mem_pool* av_reader_pool_if_built() const
    {
        return __atomic_load_n(&m_av_reader_pool, __ATOMIC_ACQUIRE);
    }

    vesk_mem_account& mem_account() { return m_mem_account; }
    vesk_note_tree& malloc_note() { return m_malloc_note; }
    vesk_note_tree& new_note() { return m_new_note; }
    vesk_class_note& class_note() { return m_class_note; }
    vesk_handle_registry& registry() { return m_registry; }

    // 0 physical-memory detail; 1 total; 2 by module; 3 all locks; 4 handles; 5 endless
    // summary every 15 s until the console goes away; 6 note and class counters; 7 held
    // locks; 8 JSON handles; 9 physical-memory summary.
    vesk_soft::VESK_ERR diagnose(int para, vesk_soft::print_fn print) override;

private:
    vesk_utility_res_manage() = default;
    ~vesk_utility_res_manage() override;

    void regist_diag_clients(vesk_utility_ops_type ops);
    void dump_handles(vesk_soft::print_fn print);
    void dump_counters(vesk_soft::print_fn print);

    vesk_diagnose_agent* m_diagnose = nullptr;
    vesk_utility_system_client* m_system_client = nullptr;
    vesk_utility_timer* m_timer = nullptr;                    // NULL for the proxy server
    vesk_utility_event_manage* m_event_manage = nullptr;      // NULL for the proxy server
    vesk_utility_watch_dog_manage* m_watch_dog_manage = nullptr;  // NULL for the proxy server
    utility_thread_pool* m_thread_pool = nullptr;
    utility_string_pool* m_string_pool = nullptr;
    utility_little_mem_pool* m_little_mem_pool = nullptr;
    utility_little_mem_pool* m_av_reader_pool = nullptr;

    vesk_mem_account m_mem_account;
    vesk_note_tree m_malloc_note{"malloc/free num:"};
    vesk_note_tree m_new_note{"new/delete num:"};
    vesk_class_note m_class_note;

    vesk_handle_registry m_registry;
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_RESOURCE_H
