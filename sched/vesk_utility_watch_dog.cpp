// vesk_utility_watch_dog - the dogs of the modules and the check that counts them up once a
// second; a dead dog prints the held locks, then (unless /config//close_dog exists) reboots
// the system through the registered function and, failing that, the "reboot" command.
#include "sched/vesk_utility_watch_dog.h"

#include <unistd.h>

#include <ctime>

#include "core/vesk_utility_guard.h"
#include "core/vesk_utility_lock.h"
#include "core/vesk_utility_system.h"
#include "store/vesk_utility_xml.h"
#include "sched/vesk_utility_timer.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_paths.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_service.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_utility_watch_dog_manage";

} // namespace

vesk_utility_watch_dog_manage::vesk_utility_watch_dog_manage(bool with_task)
    : m_with_task(with_task)
{
    m_lock = VESK_REGISTER_NEW(VESK_LIST_COMMON_LOCK, static_cast<vesk_lock*>(new vesk_lock_realize("watch dog lock")),
        VESK_USER_UTILITY, "watch dog lock");
    VESK_ASSERT(m_lock != NULL);
    if (m_with_task)
        vesk_service<vesk_utility_timer>::get()->regist_c_func(VESK_USER_UTILITY, vesk_utl_watch_dog_thread,
            k_timer_watch_dog_purpose, k_watch_dog_check_ms, this, VESK_TIMER_TASK_COMMON, 0);
}

// Only a manager without a task is ever destroyed (the process-wide one lives forever).
vesk_utility_watch_dog_manage::~vesk_utility_watch_dog_manage()
{
    VESK_ASSERT(!m_with_task);
    while (m_head != nullptr) {
        vesk_watch_dog_node* next = m_head->next;
        vesk_free(__FILE__, "delete_dog_node", m_head);
        m_head = next;
    }
    VESK_DELETE_REGISTERED(VESK_LIST_COMMON_LOCK, m_lock, __FILE__, __func__);
}

// O(n) in the number of dogs, as every lookup below: a box has a few dozen at most.
vesk_watch_dog_node* vesk_utility_watch_dog_manage::find(unsigned long dog_hand)
{
    for (vesk_watch_dog_node* node = m_head; node != nullptr; node = node->next)
        if (node->handle == dog_hand)
            return node;
    return nullptr;
}

VESK_ERR vesk_utility_watch_dog_manage::regist_dog(
    vesk_watch_dog_purpose purpose, unsigned timeout_s, unsigned long* dog_hand)
{
    named_guard guard(m_lock, __FILE__, "regist_dog");
    for (vesk_watch_dog_node* node = m_head; node != nullptr; node = node->next) {
        if (node->purpose == purpose) {
            node->counter = 0;
            node->timeout = timeout_s;
            *dog_hand = node->handle;
            return VESK_OK;
        }
    }
    auto* node = static_cast<vesk_watch_dog_node*>(vesk_malloc(
        VESK_USER_UTILITY, k_purpose_watch_dog, sizeof(vesk_watch_dog_node), vesk_obj_align<vesk_watch_dog_node>()));
    if (node == nullptr)
        vesk_assert_fail(__FILE__, "regist_dog", __LINE__, "node != NULL");
    node->handle = m_next_handle++;
    node->purpose = purpose;
    node->timeout = timeout_s;
    node->counter = 0;
    node->pre = m_tail;
    node->next = nullptr;
    if (m_tail != nullptr)
        m_tail->next = node;
    else
        m_head = node;
    m_tail = node;
    *dog_hand = node->handle;
    return VESK_OK;
}

VESK_ERR vesk_utility_watch_dog_manage::fetch_dog(unsigned long dog_hand)
{
    named_guard guard(m_lock, __FILE__, "fetch_dog");
    vesk_watch_dog_node* node = find(dog_hand);
    if (node == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    node->counter = 0;
    return VESK_OK;
}

VESK_ERR vesk_utility_watch_dog_manage::unregist_dog(unsigned long dog_hand)
{
    vesk_watch_dog_node* node;
    {
        named_guard guard(m_lock, __FILE__, "unregist_dog");
        node = find(dog_hand);
        if (node == nullptr)
            return VESK_OK;
        (node->pre != nullptr ? node->pre->next : m_head) = node->next;
        (node->next != nullptr ? node->next->pre : m_tail) = node->pre;
    }
    vesk_free(__FILE__, "delete_dog_node", node);
    return VESK_OK;
}

void vesk_utility_watch_dog_manage::regist_reboot_func(VESK_ERR (*func)())
{
    __atomic_store_n(&m_reboot_func, func, __ATOMIC_RELEASE);
}

bool vesk_utility_watch_dog_manage::check_need_reset(unsigned long* dead)
{
    bool found = false;
    named_guard guard(m_lock, __FILE__, "check_need_reset");
    for (vesk_watch_dog_node* node = m_head; node != nullptr; node = node->next) {
        node->counter++;
        if (node->counter > node->timeout) {
            *dead = node->handle;
            found = true;
            vesk_print_stdout("%s[%d]:System Need Reset Beacuse hand %#lx purpose_id=%#x Is Dead~!\n",
                "check_need_reset", __LINE__, node->handle, node->purpose);
        }
    }
    return found;
}

bool vesk_utility_watch_dog_manage::get_watch_dog_node(unsigned long dog_hand, vesk_watch_dog_node* out)
{
    named_guard guard(m_lock, __FILE__, "get_watch_dog_node");
    const vesk_watch_dog_node* node = find(dog_hand);
    if (node == nullptr)
        return false;
    *out = *node;
    return true;
}

void vesk_utility_watch_dog_manage::dog_reboot()
{
    VESK_ERR (*func)() = __atomic_load_n(&m_reboot_func, __ATOMIC_ACQUIRE);
    if (func == nullptr) {
        VESK_LOG_WARN(k_cls, "m_reboot_func == NULL");
        return;
    }
    func();
}

void vesk_utility_watch_dog_manage::write_cause(const vesk_watch_dog_node& dog)
{
    const time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    char stamp[80]; // room for any int fields, to keep the compiler's bound check quiet
    snprintf(stamp, sizeof(stamp), "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    char path[256];
    vesk_rooted_path(path, sizeof(path), k_path_wdt_tag);
    vesk_xml_realize xml;
    // Each step fails only on a full heap; the reboot goes ahead with or without the record.
    if (xml.create("WDT_TAG") != VESK_OK || xml.add_element("", "info") != VESK_OK
        || xml.set_attr_int("info", "purpose", static_cast<int>(dog.purpose)) != VESK_OK
        || xml.set_attr_int("info", "threshold", static_cast<int>(dog.timeout)) != VESK_OK
        || xml.set_attr_int("info", "src", k_watch_dog_reboot_src) != VESK_OK
        || xml.set_attr("info", "time", stamp) != VESK_OK || xml.save(path) != VESK_OK)
        VESK_LOG_ERR(k_cls, "write %s fail!\n", path);
}

vesk_timer_ret_code vesk_utility_watch_dog_manage::check(unsigned* next_ms)
{
    unsigned long dead = 0;
    if (!check_need_reset(&dead)) {
        *next_ms = k_watch_dog_check_ms;
        return VESK_TIMER_RET_CONTINUE;
    }
    vesk_dump_held_locks(vesk_print_stdout);
    char marker[256];
    if (access(vesk_rooted_path(marker, sizeof(marker), k_path_close_dog), F_OK) == 0) {
        *next_ms = k_watch_dog_check_ms;
        return VESK_TIMER_RET_CONTINUE;
    }
    dog_reboot();
    vesk_print_stdout("%s[%d]:call dog_reboot!\n", "vesk_utl_watch_dog_thread", __LINE__);
    vesk_utility_sleep_ms(m_reboot_grace_ms);
    vesk_print_stdout("%s[%d]:why still alive? call system_reboot!\n", "vesk_utl_watch_dog_thread", __LINE__);
    vesk_utility_system_client* client = vesk_ground::instance()->find_system_client();
    if (client == nullptr) {
        vesk_print_stdout("get system fail!\n");
        return VESK_TIMER_RET_CONTINUE;
    }
    vesk_watch_dog_node dog;
    // A dog unregistered meanwhile still caused the reboot; its record is then left out.
    if (get_watch_dog_node(dead, &dog))
        write_cause(dog);
    if (client->process_system("reboot") != 0)
        vesk_print_stdout("operate fail!\n");
    return VESK_TIMER_RET_DELETE;
}

vesk_timer_ret_code vesk_utl_watch_dog_thread(void* param, unsigned* next_ms, vesk_timer_task_type* type)
{
    (void)type;
    void* userParam = param;
    VESK_ASSERT(userParam != NULL);
    return static_cast<vesk_utility_watch_dog_manage*>(userParam)->check(next_ms);
}

} // namespace vesk_utility
