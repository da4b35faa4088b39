// vesk_utility_watch_dog - the software watchdog: the dogs of the modules, the once-a-second
// check that runs as a timer task, and the reboot sequence with its cause record.
#ifndef VESK_UTILITY_WATCH_DOG_INTERNAL_H
#define VESK_UTILITY_WATCH_DOG_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "vesk_utility.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;
using vesk_soft::vesk_watch_dog_purpose;

constexpr vesk_soft::vesk_timer_purpose k_timer_watch_dog_purpose = 0x8E;
constexpr unsigned k_watch_dog_check_ms = 1000;
constexpr unsigned k_watch_dog_reboot_grace_ms = 5000; // from the reboot function to "reboot"
constexpr int k_watch_dog_reboot_src = 3; // the watchdog as the source of a reboot

// One dog, a node of the manager's list:
//   | handle | purpose | timeout | counter | pre | next |
//   0        4         8         12        16    20      24 bytes on the 32-bit target
// On a 64-bit host handle and the links are 8 bytes: 0, 8, 12, 16, 24, 32; 40 bytes.
struct vesk_watch_dog_node {
    unsigned long handle;
    vesk_watch_dog_purpose purpose;
    uint32_t timeout; // one-second checks allowed without a feed
    uint32_t counter; // checks since the last feed
    vesk_watch_dog_node* pre;
    vesk_watch_dog_node* next;
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(offsetof(vesk_watch_dog_node, counter) == 12, "counter at 12 on the target");
static_assert(sizeof(vesk_watch_dog_node) == 24, "a dog node is 24 bytes on the target");
#else
static_assert(offsetof(vesk_watch_dog_node, counter) == 16, "counter at 16 on a 64-bit host");
static_assert(sizeof(vesk_watch_dog_node) == 40, "a dog node is 40 bytes on a 64-bit host");
#endif

// Thread safety: the exported calls come from any thread, the check from a timer thread.
// m_lock ("watch dog lock") guards the list and m_next_handle; nothing else is taken under
// it except printing. m_reboot_func is a single word, read and written atomically.
class vesk_utility_watch_dog_manage final
{
public:
    // with_task false: no timer task; the owner drives the check (tests call the callback).
    explicit vesk_utility_watch_dog_manage(bool with_task = true);
    ~vesk_utility_watch_dog_manage();
    vesk_utility_watch_dog_manage(const vesk_utility_watch_dog_manage&) = delete;
    vesk_utility_watch_dog_manage& operator=(const vesk_utility_watch_dog_manage&) = delete;

    VESK_ERR regist_dog(vesk_watch_dog_purpose purpose, unsigned timeout_s, unsigned long* dog_hand);
    VESK_ERR fetch_dog(unsigned long dog_hand);
    VESK_ERR unregist_dog(unsigned long dog_hand);
    void regist_reboot_func(VESK_ERR (*func)());

    // One check: the timer callback's body.
    vesk_soft::vesk_timer_ret_code check(unsigned* next_ms);

    // The delay between the reboot function and the command reboot; tests shorten it.
    void set_reboot_grace_ms(unsigned ms) { m_reboot_grace_ms = ms; }

private:
    // Counts every dog up; true and the last dead dog's handle when one is dead.
    bool check_need_reset(unsigned long* dead);
    // Copies the node of a handle; false when it is gone.
    bool get_watch_dog_node(unsigned long dog_hand, vesk_watch_dog_node* out);
    vesk_watch_dog_node* find(unsigned long dog_hand); // REQUIRES: m_lock held
    void dog_reboot();
    void write_cause(const vesk_watch_dog_node& dog);

    vesk_watch_dog_node* m_head = nullptr;
    vesk_watch_dog_node* m_tail = nullptr;
    vesk_soft::vesk_lock* m_lock;
    unsigned long m_next_handle = 0;
    VESK_ERR (*m_reboot_func)() = nullptr;
    bool m_with_task;
    unsigned m_reboot_grace_ms = k_watch_dog_reboot_grace_ms;
};

// The check task; a NULL parameter is fatal.
vesk_soft::vesk_timer_ret_code vesk_utl_watch_dog_thread(
    void* param, unsigned* next_ms, vesk_soft::vesk_timer_task_type* type);

} // namespace vesk_utility

#endif // VESK_UTILITY_WATCH_DOG_INTERNAL_H
