// vesk_utility_event_manage - the event manager of the main application: active events with
// their countdowns, arming schedules, per-user filters and the observer table, each list in
// nodes from a fixed pool; a once-a-second timer task ends events and notifies observers.
#ifndef VESK_UTILITY_EVENT_MANAGE_H
#define VESK_UTILITY_EVENT_MANAGE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "core/vesk_utility_lock.h"
#include "sched/vesk_utility_timer.h"
#include "vesk_utility_event.h"
#include "vesk_utility_types.h"

namespace vesk_utility
{

using vesk_soft::print_fn;
using vesk_soft::VESK_BOOL;
using vesk_soft::VESK_ERR;

constexpr uint32_t VESK_EVENT_DEBUG_MAGIC = 0x12345678;

// List types, and the fixed names of their read-write locks.
constexpr uint32_t k_event_list_info = 1;
constexpr uint32_t k_event_list_filter = 2;
constexpr uint32_t k_event_list_schedule = 3;

constexpr uint32_t k_event_info_nodes = 160;
constexpr uint32_t k_event_schedule_nodes = 960;
constexpr uint32_t k_event_filter_nodes = 1600;
constexpr uint32_t k_event_filter_lists = 3; // one per vesk_event_user_id (0 all, 1 local, 2 remote)
constexpr uint32_t k_event_observer_slots = 20;
constexpr uint32_t k_event_notify_batch = 186;
constexpr uint32_t k_event_disk_countdown = 30; // main type 3, in checks

// Nodes. While a node is in its pool's free list, its first pointer-sized word holds the link
// to the next free node; everything else is undefined until the node is taken.
//
// Info node:     | record (176) | countdown | magic | notify_pending | checked_seq | next | prev |
// Schedule node: | id (20) | schedule (112) | magic | next | prev |
// Filter node:   | id (20) | id_filter | magic | next | prev |
// (countdown, magic, flags u32; next/prev pointers: 4 bytes on the board, 8 on 64-bit hosts.)
struct event_info_node {
    vesk_soft::vesk_event_detail_info record;
    uint32_t countdown; // checks left; 0 ends the event at the next check
    uint32_t magic;
    uint32_t notify_pending; // the start has not been told yet
    uint32_t checked_seq; // the check that last counted it down: a repeated pass skips it
    event_info_node* next;
    event_info_node* prev;
};

struct event_schedule_node {
    vesk_soft::vesk_event_id id; // with a wildcard: index 0, wildcard byte 1
    vesk_soft::vesk_arming_shedule schedule;
    uint32_t magic;
    event_schedule_node* next;
    event_schedule_node* prev;
};

struct event_filter_node {
    vesk_soft::vesk_event_id id; // a type filter keeps main and sub type only
    uint32_t id_filter; // 1 one event, 0 a type
    uint32_t magic;
    event_filter_node* next;
    event_filter_node* prev;
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(event_info_node) == 200 && offsetof(event_info_node, next) == 192, "32-bit info node");
static_assert(sizeof(event_schedule_node) == 144 && offsetof(event_schedule_node, next) == 136, "32-bit schedule node");
static_assert(sizeof(event_filter_node) == 36 && offsetof(event_filter_node, next) == 28, "32-bit filter node");
#else
static_assert(sizeof(event_info_node) == 208 && offsetof(event_info_node, next) == 192, "64-bit info node");
static_assert(sizeof(event_schedule_node) == 152 && offsetof(event_schedule_node, next) == 136, "64-bit schedule node");
static_assert(sizeof(event_filter_node) == 48 && offsetof(event_filter_node, next) == 32, "64-bit filter node");
#endif
static_assert(offsetof(event_info_node, countdown) == 176 && offsetof(event_info_node, magic) == 180,
    "info node fields after the record");

// A fixed set of equal nodes in one accounted block (user 0x13), threaded into a free list.
// alloc and free are O(1) under the pool's own mutex, which is taken under any list lock.
class event_node_pool
{
public:
    event_node_pool(uint32_t count, uint32_t node_size, vesk_soft::vesk_memmory_purpose purpose);
    ~event_node_pool();
    event_node_pool(const event_node_pool&) = delete;
    event_node_pool& operator=(const event_node_pool&) = delete;

    // A zeroed node, or NULL when all are taken.
    void* alloc();
    // REQUIRES: node came from alloc of this pool (NULL is fatal).
    void free(void* node);
    uint32_t used() const { return m_used.load(std::memory_order_relaxed); } // for the diagnostics
    uint32_t count() const { return m_count; }

private:
    std::mutex m_mutex;
    char* m_node_pool = nullptr;
    void* m_free = nullptr; // GUARDED_BY(m_mutex)
    uint32_t m_count;
    uint32_t m_node_size;
    std::atomic<uint32_t> m_used {0}; // written under m_mutex
};

// A doubly linked list of one node type with its read-write lock.
template <class Node> struct event_list {
    uint32_t list_type = 0;
    vesk_soft::vesk_rw_lock* lock = nullptr;
    Node* head = nullptr;
    Node* tail = nullptr;
    uint32_t count = 0;
};

struct event_oberver_slot {
    uint32_t in_use;
    uint32_t user_id;
    const vesk_soft::vesk_event_oberver* oberver;
};

class vesk_utility_event_manage final : public vesk_soft::vesk_diagnose_client
{
public:
    // Allocates the pools, the observer table and the notify batch (failures are fatal) and
    // registers the check task: every 1000 ms, first after 30 s. info_nodes bounds the active
    // events; only tests that need more than one batch of them change it.
    explicit vesk_utility_event_manage(uint32_t info_nodes = k_event_info_nodes);
    // The service lives as long as the process: destroying it is fatal.
    ~vesk_utility_event_manage() override;
    vesk_utility_event_manage(const vesk_utility_event_manage&) = delete;
    vesk_utility_event_manage& operator=(const vesk_utility_event_manage&) = delete;

    void set_push_state(VESK_BOOL enable) { m_enable.store(enable ? 1 : 0); }
    VESK_BOOL get_push_state() const { return m_enable.load(); }
    void set_valid_time(uint32_t seconds);

    VESK_ERR register_event_oberver(vesk_soft::vesk_user_id user, const vesk_soft::vesk_event_oberver* oberver);
    VESK_ERR unregister_event_oberver(vesk_soft::vesk_user_id user, const vesk_soft::vesk_event_oberver* oberver);

    VESK_ERR set_event_arming(const vesk_soft::vesk_event_id& id, const vesk_soft::vesk_arming_shedule& schedule);
    VESK_ERR get_event_arming_schedule(const vesk_soft::vesk_event_id& id, vesk_soft::vesk_arming_shedule& out);

    VESK_ERR set_event_state(const vesk_soft::vesk_event_info& detail, VESK_BOOL trigger);
    VESK_ERR get_event_state(const vesk_soft::vesk_event_id& id, VESK_BOOL& active, long& start, long& last);
    VESK_ERR get_event_state(const vesk_soft::vesk_event_type& type, VESK_BOOL& active);

    VESK_ERR set_event_filter(vesk_soft::vesk_event_user_id user, const vesk_soft::vesk_event_id& id, VESK_BOOL enable);
    VESK_ERR set_event_filter(
        vesk_soft::vesk_event_user_id user, const vesk_soft::vesk_event_type& type, VESK_BOOL enable);

    VESK_ERR get_event_info(
        vesk_soft::vesk_event_user_id user, vesk_soft::vesk_event_detail_info* out, uint32_t capacity, uint32_t& count);

    // The timer task; param is the manager (NULL is fatal). Runs check_event, then asks to run
    // again after 1000 ms.
    static vesk_soft::vesk_timer_ret_code event_check_thread(
        void* userParam, unsigned* next_ms, vesk_soft::vesk_timer_task_type* task_type);
    // One check: counts every active event down, collects starts and ends, delivers them.
    void check_event();

    // 1 active events; 2 arming schedules; 3 filters; 4 observers; 5 state and pool use;
    // anything else prints this menu.
    VESK_ERR diagnose(int para, print_fn print) override;

    static bool is_valid_id(const vesk_soft::vesk_event_id& id);

private:
    template <class Node> void proc_init_list(event_list<Node>& list, uint32_t type, const char* lock_name);
    static bool proc_is_valid_list_type(uint32_t type);

    event_info_node* find_info(const vesk_soft::vesk_event_id& key); // REQUIRES: info lock
    event_schedule_node* find_schedule(const vesk_soft::vesk_event_id& id); // REQUIRES: schedule lock
    bool is_armed(const vesk_soft::vesk_event_id& key, int wday, int minute); // REQUIRES: schedule lock
    static bool is_filtered(const event_list<event_filter_node>& list, const vesk_soft::vesk_event_id& key);
    uint32_t countdown_for(const vesk_soft::vesk_event_info& detail) const;
    // Walks the info list once; returns true when it stopped with a full batch.
    bool collect(uint32_t seq, uint32_t& n);
    void proc_notify(const vesk_soft::vesk_event_detail_info& record); // REQUIRES: observer lock
    VESK_ERR set_filter_node(
        vesk_soft::vesk_event_user_id user, const vesk_soft::vesk_event_id& key, uint32_t id_filter, VESK_BOOL enable);

    void dump_events(print_fn print);
    void dump_schedules(print_fn print);
    void dump_filters(print_fn print);
    void dump_observers(print_fn print);

    std::atomic<VESK_BOOL> m_enable {1};
    std::atomic<uint32_t> m_valid_time[2]; // [0] local sources, [1] relayed by cameras

    // Lock order: m_check_mutex, then info, schedule, filter[0], filter[1], filter[2] (each
    // list's rw lock), then a node pool's mutex. The observer lock is never held together
    // with a list lock.
    std::mutex m_check_mutex; // one check at a time; guards m_batch, m_check_seq
    event_list<event_info_node> m_info_list; // active events, in raising order
    event_list<event_schedule_node> m_schedule_list;
    event_list<event_filter_node> m_filter_list[k_event_filter_lists];
    vesk_soft::vesk_rw_lock* m_oberver_lock = nullptr; // "UtilityEventOberverRWLock"
    struct {
        uint32_t capacity;
        uint32_t current_user;
        event_oberver_slot* oberver;
    } m_oberver_manage {}; // GUARDED_BY(m_oberver_lock)

    event_node_pool* m_info_pool = nullptr;
    event_node_pool* m_schedule_pool = nullptr;
    event_node_pool* m_filter_pool = nullptr;

    vesk_soft::vesk_event_detail_info* m_batch = nullptr; // k_event_notify_batch records
    uint32_t m_check_seq = 0;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_EVENT_MANAGE_H
