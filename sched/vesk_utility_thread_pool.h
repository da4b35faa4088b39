// vesk_utility_thread_pool - the registry of every thread started through the layer: one record
// per thread (handle, kernel id, names, scheduling parameters, state), and the "top"-like CPU
// view of the diagnostics console built from /proc/stat and the per-thread stat files.
#ifndef VESK_UTILITY_THREAD_POOL_H
#define VESK_UTILITY_THREAD_POOL_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/vesk_utility_purposes.h"
#include "vesk_utility_thread.h"
#include "vesk_utility_types.h"

namespace vesk_utility
{

using vesk_soft::print_fn;
using vesk_soft::VESK_BOOL;
using vesk_soft::VESK_ERR;
using vesk_soft::vesk_thread_creat_ctl;

constexpr int k_thread_name_size = 32; // both names, NUL included
constexpr uint32_t k_thread_min_stack = 524288; // floor of a non-zero stack size
constexpr uint32_t k_purpose_thread_record = k_purpose_thread_records; // accounted purpose of a record
constexpr uint32_t k_purpose_cpu_sample = 0x3009; // accounted purpose of the sample tables
constexpr uint32_t k_cpu_table_capacity = 2048; // entries per sample table
constexpr unsigned k_proc_read_max = 128; // bytes read of each stat file
constexpr unsigned k_cpu_view_pause_ms = 5000; // between two samples of the CPU view

enum vesk_thread_state : uint32_t {
    VESK_THREAD_CREATED = 1, // by create
    VESK_THREAD_RUNNING = 2, // by enter
    VESK_THREAD_EXITED = 3, // by exit
    VESK_THREAD_RETRIEVING = 4, // by retrieve, just before the join
};

// One registered thread, a node of the pool's doubly linked list (zero-filled on allocation).
//   | thread_hand | pid | function_name[32] | thread_name[32] | stack_size | work_type |
//   0             4     8                   40                72           76
//   | priority | auto_retrieve | state | pre | next |
//   80         84              88      92    96     100 bytes on the 32-bit target
// On a 64-bit host thread_hand and the links are 8 bytes: 112 bytes, links at 96 and 104.
struct vesk_thread_record {
    unsigned long thread_hand; // pthread handle, the key of every lookup
    int32_t pid; // kernel thread id; 0 until enter
    char function_name[k_thread_name_size]; // given to enter (also the kernel name)
    char thread_name[k_thread_name_size]; // given to create
    uint32_t stack_size; // as asked, before the 512 KiB floor
    uint32_t work_type;
    uint32_t priority;
    VESK_BOOL auto_retrieve;
    uint32_t state; // vesk_thread_state
    vesk_thread_record* pre;
    vesk_thread_record* next;
};
static_assert(sizeof(pthread_t) == sizeof(unsigned long), "the handle is kept as unsigned long");
static_assert(offsetof(vesk_thread_record, function_name) == sizeof(unsigned long) + 4, "function name");
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(offsetof(vesk_thread_record, stack_size) == 72, "stack size at 72 on the target");
static_assert(offsetof(vesk_thread_record, pre) == 92, "links at 92 on the target");
static_assert(sizeof(vesk_thread_record) == 100, "a record is 100 bytes on the target");
#else
static_assert(offsetof(vesk_thread_record, stack_size) == 76, "stack size at 76 on a 64-bit host");
static_assert(offsetof(vesk_thread_record, pre) == 96, "links at 96 on a 64-bit host");
static_assert(sizeof(vesk_thread_record) == 112, "a record is 112 bytes on a 64-bit host");
#endif

// One thread of one CPU sample (the sample tables are arrays of these).
//   | pid | matched | stat_read | (pad) | utime (8) | stime (8) | used | record |
//   0     4         8           12      16          24          32     36     40 bytes (target)
// On a 64-bit host the record pointer sits at 40: 48 bytes. utime/stime are 8-aligned on both.
struct vesk_cpu_sample {
    int32_t pid;
    uint32_t matched; // the previous sample had the same pid at the same index
    uint32_t stat_read; // utime/stime were read
    uint64_t utime; // field 14 of the stat line, clock ticks
    uint64_t stime; // field 15
    uint32_t used; // ticks used since the previous sample
    vesk_thread_record* record; // the registered thread with this pid, or NULL
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(offsetof(vesk_cpu_sample, utime) == 16 && sizeof(vesk_cpu_sample) == 40, "sample entry (target)");
#else
static_assert(offsetof(vesk_cpu_sample, utime) == 16 && sizeof(vesk_cpu_sample) == 48, "sample entry (host)");
#endif

// Parsers of the stat files. The text forms take at most k_proc_read_max bytes of a file.
// "cpu %llu x7" of /proc/stat: the sum of the seven counters; false when the line is not there.
bool parse_system_stat(const char* text, uint64_t* total);
// Utime and stime after the 13th blank of a per-task stat line (a name with blanks shifts the
// columns, as the kernel's format does for any reader counting blanks); sets stat_read.
bool parse_pid_stat(const char* text, vesk_cpu_sample* entry);
// The same from a path; a file that does not open is logged and gives false.
bool scanf_system_stat(const char* path, uint64_t* total);
bool scanf_pid_stat(const char* path, vesk_cpu_sample* entry);

// Test seam: while set, record allocations fail as if the heap were exhausted.
void thread_pool_fail_record_alloc(bool fail);

class thread_pool_probe;

// Thread safety: every public member may be called from any thread. m_lock guards the record
// list and the sample tables; create, enter, exit and retrieve block on it, the diagnostics only
// try it, so a console request never stalls the threads it watches. Nothing is called out of
// this class with m_lock held except pthread_create, the accounted allocator and the logger.
class utility_thread_pool final : public vesk_soft::vesk_diagnose_client
{
public:
    utility_thread_pool();
    // The pool lives as long as the process: destroying it is a programming error (fatal).
    ~utility_thread_pool() override;
    utility_thread_pool(const utility_thread_pool&) = delete;
    utility_thread_pool& operator=(const utility_thread_pool&) = delete;

    // 0: CPU use of every thread, repeated every 5 s until the console goes away; 1: the same,
    // only threads above 0.1%; 2: the registered threads and a check that each still exists.
    VESK_ERR diagnose(int para, print_fn print) override;

    // pthread_create with `attr`, and registration of the new handle under `name` in the same
    // critical section, so that the thread's own enter and exit always find its record.
    // Returns pthread_create's result.
    int start_thread(
        const pthread_attr_t* attr, const vesk_thread_creat_ctl& ctl, const char* name, unsigned long* thread_hand);
    // Enter: sets the kernel id, the function name and the running state, making the record
    // when the thread was not created here. VESK_ERR_NO_RESOURCE when that allocation fails.
    VESK_ERR save_thr_pid(unsigned long thread_hand, int32_t pid, const char* name);
    // Sets `state` on the record of the handle and reads its auto-retrieve flag and thread name
    // (name may be NULL). VESK_ERR_OPERATE_FAIL when the handle is not registered.
    VESK_ERR find_thr_hand(unsigned long thread_hand, uint32_t state, VESK_BOOL* auto_retrieve, char* name);
    // Unlinks and frees the record of the handle; VESK_ERR_OPERATE_FAIL when there is none.
    VESK_ERR delete_thr_hand(unsigned long thread_hand);

private:
    friend class thread_pool_probe;

    // The record list. REQUIRES: m_lock held. Lookups walk the list: O(threads).
    vesk_thread_record* find_node(unsigned long thread_hand);
    vesk_thread_record* find_thr_pid(int32_t pid);
    void add_node_head(vesk_thread_record* node);
    void delete_node(vesk_thread_record* node);
    VESK_ERR save_thr_hand(unsigned long thread_hand, const vesk_thread_creat_ctl& ctl, const char* name);

    // The CPU view. proc_init_node/proc_free_node own the two sample tables for one console
    // request; proc_sample and proc_print REQUIRE m_lock held and the tables allocated.
    bool proc_init_node();
    void proc_free_node();
    void proc_sample(const char* proc_root, int pid);
    void proc_load_pid(const char* proc_root, int pid);
    void proc_print(bool show_all, print_fn print);
    void dump_cpu(bool show_all, print_fn print);
    void dump_list(const char* proc_root, int pid, print_fn print);

    pthread_mutex_t m_lock;
    vesk_thread_record* m_head = nullptr; // newest first
    uint32_t m_capacity = 0; // of each table; 0 while no CPU view runs
    uint32_t m_prev_cnt = 0;
    vesk_cpu_sample* m_prev = nullptr;
    uint32_t m_cur_cnt = 0;
    vesk_cpu_sample* m_cur = nullptr;
    uint64_t m_cur_total = 0; // sum of the "cpu" counters of /proc/stat
    uint32_t m_cur_total_valid = 0;
    uint64_t m_prev_total = 0;
    uint32_t m_prev_total_valid = 0;
    unsigned m_pause_ms = k_cpu_view_pause_ms; // tests shorten it
    std::atomic<bool> m_view_busy { false }; // a CPU view owns the sample tables
};

// The operations behind the exported wrappers, also called directly by the layer's own
// services, which start threads while the library is still initialising. A NULL pool logs
// "get thread_pool fail!" and does what can be done without the registry.
VESK_ERR creat_thread(
    utility_thread_pool* pool, const vesk_thread_creat_ctl* ctl, const char* name, unsigned long* thread_hand);
VESK_ERR enter_thread(utility_thread_pool* pool, unsigned long thread_hand, const char* name);
VESK_ERR exit_thread(utility_thread_pool* pool, unsigned long thread_hand);
VESK_ERR retrieve_thread(utility_thread_pool* pool, unsigned long thread_hand);

} // namespace vesk_utility

#endif // VESK_UTILITY_THREAD_POOL_H
