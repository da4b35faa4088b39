// vesk_utility_mem_note - counters of allocations made outside the accounted heap: two
// trees by caller and purpose ("malloc/free num:" and "new/delete num:") and live-object
// counters by class name.
#ifndef VESK_UTILITY_MEM_NOTE_H
#define VESK_UTILITY_MEM_NOTE_H

#include <cstdint>
#include <mutex>

#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::print_fn;
using vesk_soft::vesk_memmory_purpose;
using vesk_soft::vesk_user_id;

// Caller -> purpose -> {count, bytes}. Nodes are plain malloc memory (the tree counts for the
// heap, it must not count itself) and are only freed by the compaction that runs when the
// tree's own size passes 0x1FFFF. Thread safety: one mutex for the whole tree; the dump only
// tries it.
class vesk_note_tree {
public:
    explicit vesk_note_tree(const char* title) : m_title(title) {}
    // The resource manager's trees live as long as the process; a tree of shorter life (a
    // diagnostic or test instance) returns its nodes.
    ~vesk_note_tree();
    vesk_note_tree(const vesk_note_tree&) = delete;
    vesk_note_tree& operator=(const vesk_note_tree&) = delete;

    void add(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size);
    // A release never noted, or noted fewer times, is reported and ends the process.
    void sub(const char* file, const char* func, vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size);
    void dump(print_fn print);

    // Bytes held by the tree's nodes; count and bytes noted for one caller/purpose (false when
    // absent). For diagnostics and tests.
    uint32_t malloc_size();
    bool find(vesk_user_id usr_id, vesk_memmory_purpose purpose, uint32_t& cnt, uint32_t& size);

    struct purpose_node {
        uint32_t purpose;
        uint32_t note_cnt;
        uint32_t note_size;
        purpose_node* prev;
        purpose_node* next;
    };
    struct user_node {
        uint32_t usr_id;
        purpose_node* purposes;
        user_node* prev;
        user_node* next;
    };

private:
    void compact();  // REQUIRES: m_lock held

    const char* m_title;
    std::mutex m_lock;
    user_node* m_head = nullptr;  // GUARDED_BY(m_lock)
    uint32_t m_malloc_size = 0;   // GUARDED_BY(m_lock)
};

// Class name -> live count. Nodes are plain malloc memory, pushed at the head; searched by
// strcmp, O(classes) per call.
class vesk_class_note {
public:
    vesk_class_note() = default;
    ~vesk_class_note();
    vesk_class_note(const vesk_class_note&) = delete;
    vesk_class_note& operator=(const vesk_class_note&) = delete;

    void add_class_note(const char* name);
    // An unknown class or a count already at 0 is reported and ends the process.
    void sub_class_note(const char* name);
    void dump(print_fn print);
    int count_of(const char* name);  // -1 when unknown

    struct node;

private:
    std::mutex m_lock;
    node* m_head = nullptr;      // GUARDED_BY(m_lock)
    uint32_t m_malloc_size = 0;  // GUARDED_BY(m_lock)
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_MEM_NOTE_H
