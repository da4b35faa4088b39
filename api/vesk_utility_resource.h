// vesk_utility_resource - the resource manager: the process-wide singleton that builds every
// service of the layer in its fixed order on the ground state (vesk_ground), composes them
// (the timer tasks of the ground services, the hooks between floors) and installs each one in
// its slot. Created on first use, never destroyed.
#ifndef VESK_UTILITY_RESOURCE_H
#define VESK_UTILITY_RESOURCE_H

#include "core/vesk_utility_ground.h"
#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::vesk_utility_ops_type;

class vesk_utility_timer;
class vesk_utility_event_manage;
class vesk_utility_watch_dog_manage;
class utility_thread_pool;
class vesk_toolnet;

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
    vesk_utility_timer* get_timer();
    vesk_utility_watch_dog_manage* get_watch_dog_manage();
    vesk_utility_event_manage* get_event_manage();
    vesk_toolnet* get_toolnet();

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

    vesk_utility_timer* m_timer = nullptr;                    // NULL for the proxy server
    vesk_utility_event_manage* m_event_manage = nullptr;      // NULL for the proxy server
    vesk_utility_watch_dog_manage* m_watch_dog_manage = nullptr;  // NULL for the proxy server
    utility_thread_pool* m_thread_pool = nullptr;
    vesk_toolnet* m_toolnet = nullptr;
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_RESOURCE_H
