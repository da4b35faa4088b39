// vesk_utility_event_manage - raising, refreshing and ending events, the once-a-second check
// that ends expired events and notifies observers outside the list lock, arming schedules,
// filters, the listing for the two users, and the manager's diagnose commands.
#include "event/vesk_utility_event_manage.h"

#include <time.h>

#include <cstring>
#include <new>

#include "core/vesk_utility_guard.h"
#include "sched/vesk_utility_timer.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_service.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_utility_event_manage";
constexpr vesk_timer_purpose k_check_purpose = 0x8B;
constexpr unsigned k_check_interval_ms = 1000;
constexpr unsigned k_check_first_ms = 30000;
constexpr uint32_t k_refresh_throttle_s = 3;

uint32_t now_s()
{
    return static_cast<uint32_t>(time(nullptr));
}

vesk_event_id key_of(const vesk_event_info& d)
{
    vesk_event_id k {};
    k.main_type = d.main_type;
    k.local = d.local;
    k.sub_type = d.sub_type;
    k.index = d.index;
    return k;
}

bool same_event(const vesk_event_id& a, const vesk_event_id& b)
{
    return a.main_type == b.main_type && a.local == b.local && a.sub_type == b.sub_type && a.index == b.index;
}

bool same_kind(const vesk_event_id& a, const vesk_event_id& b)
{
    return a.main_type == b.main_type && a.local == b.local && a.sub_type == b.sub_type;
}

// A stored schedule id: a wildcard keeps index 0 and wildcard byte 1.
vesk_event_id schedule_key(const vesk_event_id& id)
{
    vesk_event_id k = id;
    std::memset(k.reserved, 0, sizeof(k.reserved));
    if (k.wildcard != VESK_EVENT_ID_EXACT) {
        k.wildcard = VESK_EVENT_ID_ALL_INDEX;
        k.index = 0;
    }
    return k;
}

bool all_zero(const vesk_arming_shedule& s)
{
    static const vesk_arming_shedule s_zero {};
    return std::memcmp(&s, &s_zero, sizeof(s)) == 0;
}

template <class Node> void list_append(event_list<Node>& list, Node* node)
{
    node->next = nullptr;
    node->prev = list.tail;
    if (list.tail != nullptr)
        list.tail->next = node;
    else
        list.head = node;
    list.tail = node;
    list.count++;
}

template <class Node> void list_remove(event_list<Node>& list, Node* node)
{
    if (node->prev != nullptr)
        node->prev->next = node->next;
    else
        list.head = node->next;
    if (node->next != nullptr)
        node->next->prev = node->prev;
    else
        list.tail = node->prev;
    list.count--;
}

} // namespace

// ---- Node pool ---------------------------------------------------------------------------

event_node_pool::event_node_pool(uint32_t count, uint32_t node_size, vesk_memmory_purpose purpose)
    : m_count(count)
    , m_node_size(node_size)
{
    m_node_pool = static_cast<char*>(vesk_malloc(VESK_USER_UTILITY, purpose, count * node_size, alignof(void*)));
    VESK_ASSERT(m_node_pool != NULL);
    for (uint32_t i = count; i-- > 0;) {
        void* node = m_node_pool + static_cast<size_t>(i) * node_size;
        std::memcpy(node, &m_free, sizeof(m_free));
        m_free = node;
    }
}

event_node_pool::~event_node_pool()
{
    VESK_ASSERT(0);
}

void* event_node_pool::alloc()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    void* node = m_free;
    if (node == nullptr)
        return nullptr;
    std::memcpy(&m_free, node, sizeof(m_free));
    m_used++;
    std::memset(node, 0, m_node_size);
    return node;
}

void event_node_pool::free(void* node)
{
    VESK_ASSERT(node != NULL);
    std::lock_guard<std::mutex> guard(m_mutex);
    std::memcpy(node, &m_free, sizeof(m_free));
    m_free = node;
    m_used--;
}

// ---- Construction ------------------------------------------------------------------------

bool vesk_utility_event_manage::proc_is_valid_list_type(uint32_t type)
{
    return type == k_event_list_info || type == k_event_list_filter || type == k_event_list_schedule;
}

template <class Node>
void vesk_utility_event_manage::proc_init_list(event_list<Node>& list, uint32_t type, const char* lock_name)
{
    list.list_type = type;
    VESK_ASSERT(proc_is_valid_list_type(list.list_type));
    list.lock = new vesk_rw_lock_realize(lock_name);
}

vesk_utility_event_manage::vesk_utility_event_manage(uint32_t info_nodes)
{
    m_valid_time[0].store(6);
    m_valid_time[1].store(8);
    proc_init_list(m_info_list, k_event_list_info, "UtilityInfoListRWLock");
    proc_init_list(m_schedule_list, k_event_list_schedule, "UtilityScheduleListRWLock");
    for (event_list<event_filter_node>& l : m_filter_list)
        proc_init_list(l, k_event_list_filter, "UtilityFilterListRWLock");

    m_oberver_lock = VESK_REGISTER_NEW(VESK_LIST_RW_LOCK,
        static_cast<vesk_rw_lock*>(new vesk_rw_lock_realize("UtilityEventOberverRWLock")), VESK_USER_UTILITY,
        "UtilityEventOberverRWLock");
    VESK_ASSERT(m_oberver_lock != NULL);
    m_oberver_manage.capacity = k_event_observer_slots;
    m_oberver_manage.current_user = 0;
    m_oberver_manage.oberver
        = static_cast<event_oberver_slot*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_event_observers,
            sizeof(event_oberver_slot) * k_event_observer_slots, vesk_obj_align<event_oberver_slot>()));
    VESK_ASSERT(m_oberver_manage.oberver != NULL);
    std::memset(m_oberver_manage.oberver, 0, sizeof(event_oberver_slot) * k_event_observer_slots);

    m_info_pool = new (std::nothrow) event_node_pool(info_nodes, sizeof(event_info_node), k_purpose_event_info);
    m_schedule_pool = new (std::nothrow)
        event_node_pool(k_event_schedule_nodes, sizeof(event_schedule_node), k_purpose_event_schedule);
    m_filter_pool
        = new (std::nothrow) event_node_pool(k_event_filter_nodes, sizeof(event_filter_node), k_purpose_event_filter);
    VESK_ASSERT(m_info_pool != NULL && m_schedule_pool != NULL && m_filter_pool != NULL);
    m_batch = static_cast<vesk_event_detail_info*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_event_manage,
        sizeof(vesk_event_detail_info) * k_event_notify_batch, vesk_obj_align<vesk_event_detail_info>()));
    VESK_ASSERT(m_batch != NULL);

    vesk_service<vesk_utility_timer>::get()->regist_c_func(VESK_USER_UTILITY, event_check_thread,
        k_check_purpose, k_check_interval_ms, this, VESK_TIMER_TASK_COMMON, k_check_first_ms);
}

vesk_utility_event_manage::~vesk_utility_event_manage()
{
    VESK_ASSERT(0);
}

void vesk_utility_event_manage::set_valid_time(uint32_t seconds)
{
    m_valid_time[0].store(seconds);
    m_valid_time[1].store(seconds);
}

// ---- Ids -------------------------------------------------------------------------------

bool vesk_utility_event_manage::is_valid_id(const vesk_event_id& id)
{
    // Type check: a concrete main and sub type.
    if (id.main_type < VESK_EVENT_CHANNEL_EVENT || id.main_type > VESK_EVENT_MAIN_MAX)
        return false;
    if (id.sub_type == VESK_EVENT_SUB_TYPE_UNKNOW || id.sub_type == VESK_EVENT_SUB_TYPE_ANY)
        return false;
    if (id.wildcard != VESK_EVENT_ID_EXACT)
        return true;
    switch (id.main_type) {
    case VESK_EVENT_CHANNEL_EVENT:
        return id.index < 32;
    case VESK_EVENT_DISK_EVENT:
    case VESK_EVENT_NET_EVENT:
        return id.index != 0;
    default:
        return id.local != 0 ? id.index < 16 : id.index < 32;
    }
}

uint32_t vesk_utility_event_manage::countdown_for(const vesk_event_info& detail) const
{
    if (detail.main_type == VESK_EVENT_DISK_EVENT)
        return k_event_disk_countdown;
    return detail.local != 0 ? m_valid_time[0].load() : m_valid_time[1].load();
}

// ---- Raising and ending ----------------------------------------------------------------

// O(active events), at most 160.
event_info_node* vesk_utility_event_manage::find_info(const vesk_event_id& key)
{
    for (event_info_node* n = m_info_list.head; n != nullptr; n = n->next) {
        VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
        if (same_event(key_of(n->record.detail), key))
            return n;
    }
    return nullptr;
}

VESK_ERR vesk_utility_event_manage::set_event_state(const vesk_event_info& detail, VESK_BOOL trigger)
{
    const vesk_event_id key = key_of(detail);
    if (!is_valid_id(key)) {
        VESK_LOG_ERR(k_cls, "invalid event, main type %u sub type %u index %u local %u\n", key.main_type, key.sub_type,
            key.index, key.local);
        return VESK_ERR_INVALID_PARAM;
    }
    const uint32_t now = now_s();
    rw_guard guard(m_info_list.lock, rw_guard::write, __FILE__, __func__);
    event_info_node* node = find_info(key);
    if (node == nullptr) {
        if (trigger == 0)
            return VESK_OK;
        node = static_cast<event_info_node*>(m_info_pool->alloc());
        if (node == nullptr) {
            VESK_LOG_ERR(k_cls, "no info node left, %u events active\n", m_info_list.count);
            return VESK_ERR_NO_RESOURCE;
        }
        node->record.detail = detail;
        node->record.is_trigger = 1;
        node->record.start_time = node->record.last_time = node->record.end_time = now;
        node->countdown = countdown_for(detail);
        node->notify_pending = 1;
        node->magic = VESK_EVENT_DEBUG_MAGIC;
        list_append(m_info_list, node);
        return VESK_OK;
    }
    if (trigger == 0) {
        node->countdown = 0;
        return VESK_OK;
    }
    VESK_ASSERT(node->record.is_trigger);
    node->record.detail = detail;
    const uint32_t last = node->record.last_time;
    switch (detail.sub_type) {
    case VESK_EVENT_SUB_LINE_CROSSING:
    case VESK_EVENT_SUB_INTRUSION:
    case VESK_EVENT_SUB_REGION_ENTRANCE:
        if (last > now || now - last >= k_refresh_throttle_s)
            node->record.last_time = now;
        break;
    default:
        node->record.last_time = now;
        break;
    }
    node->countdown = countdown_for(detail);
    return VESK_OK;
}

VESK_ERR vesk_utility_event_manage::get_event_state(const vesk_event_id& id, VESK_BOOL& active, long& start, long& last)
{
    active = 0;
    start = last = 0;
    if (!is_valid_id(id))
        return VESK_ERR_INVALID_PARAM;
    rw_guard guard(m_info_list.lock, rw_guard::read, __FILE__, __func__);
    for (event_info_node* n = m_info_list.head; n != nullptr; n = n->next) {
        VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
        const vesk_event_id k = key_of(n->record.detail);
        if (id.wildcard != VESK_EVENT_ID_EXACT ? same_kind(k, id) : same_event(k, id)) {
            active = 1;
            start = static_cast<long>(n->record.start_time);
            last = static_cast<long>(n->record.last_time);
            break;
        }
    }
    return VESK_OK;
}

VESK_ERR vesk_utility_event_manage::get_event_state(const vesk_event_type& type, VESK_BOOL& active)
{
    active = 0;
    rw_guard guard(m_info_list.lock, rw_guard::read, __FILE__, __func__);
    for (event_info_node* n = m_info_list.head; n != nullptr; n = n->next) {
        VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
        const vesk_event_info& d = n->record.detail;
        if ((type.main_type == VESK_EVENT_MAIN_ANY || type.main_type == d.main_type)
            && (type.sub_type == VESK_EVENT_SUB_TYPE_ANY || type.sub_type == d.sub_type)) {
            active = 1;
            break;
        }
    }
    return VESK_OK;
}

// ---- Check -----------------------------------------------------------------------------

vesk_timer_ret_code vesk_utility_event_manage::event_check_thread(
    void* userParam, unsigned* next_ms, vesk_timer_task_type* task_type)
{
    (void)task_type;
    VESK_ASSERT(userParam != NULL);
    static_cast<vesk_utility_event_manage*>(userParam)->check_event();
    if (next_ms != nullptr)
        *next_ms = k_check_interval_ms;
    return VESK_TIMER_RET_CONTINUE;
}

// One walk of the info list, O(active events). A node already counted down in this check
// (checked_seq == seq) is skipped, so that a repeated pass after a full batch neither counts
// it twice nor reports it twice.
bool vesk_utility_event_manage::collect(uint32_t seq, uint32_t& n)
{
    const uint32_t now = now_s();
    rw_guard guard(m_info_list.lock, rw_guard::write, __FILE__, __func__);
    event_info_node* next = nullptr;
    for (event_info_node* node = m_info_list.head; node != nullptr; node = next) {
        VESK_ASSERT(node->magic == VESK_EVENT_DEBUG_MAGIC);
        next = node->next;
        if (node->checked_seq == seq)
            continue;
        node->checked_seq = seq;
        if (node->countdown > 0) {
            node->countdown--;
            if (node->notify_pending) {
                node->notify_pending = 0;
                m_batch[n++] = node->record;
            }
        } else {
            node->record.is_trigger = 0;
            node->record.end_time = node->record.start_time > now ? node->record.start_time : now;
            m_batch[n++] = node->record;
            list_remove(m_info_list, node);
            node->magic = 0;
            m_info_pool->free(node);
        }
        if (n > k_event_notify_batch - 1) {
            VESK_LOG_WARN(k_cls, "Notify Count > Max Notify Count, Re-Malloc, %u > %u\n", n, k_event_notify_batch);
            return true;
        }
    }
    return false;
}

void vesk_utility_event_manage::check_event()
{
    std::lock_guard<std::mutex> check(m_check_mutex);
    // 0 is the sequence of fresh nodes: never use it for a check.
    if (++m_check_seq == 0)
        m_check_seq = 1;
    bool again;
    do {
        uint32_t n = 0;
        again = collect(m_check_seq, n);
        if (n == 0)
            continue;
        m_oberver_lock->rd_lock();
        for (uint32_t i = 0; i < n; i++)
            proc_notify(m_batch[i]);
        m_oberver_lock->unlock(__FILE__, __func__);
    } while (again);
}

// O(observer slots), 20.
void vesk_utility_event_manage::proc_notify(const vesk_event_detail_info& record)
{
    for (uint32_t i = 0; i < m_oberver_manage.capacity; i++) {
        event_oberver_slot* node = &m_oberver_manage.oberver[i];
        if (!node->in_use)
            continue;
        VESK_ASSERT(node->oberver != NULL);
        if (m_enable.load())
            node->oberver->on_event(&record, i);
    }
}

// ---- Observers -------------------------------------------------------------------------

VESK_ERR vesk_utility_event_manage::register_event_oberver(vesk_user_id user, const vesk_event_oberver* oberver)
{
    rw_guard guard(m_oberver_lock, rw_guard::write, __FILE__, __func__);
    int free_slot = -1;
    for (uint32_t i = 0; i < m_oberver_manage.capacity; i++) {
        const event_oberver_slot& s = m_oberver_manage.oberver[i];
        if (s.in_use && s.user_id == user && s.oberver == oberver)
            return VESK_OK;
        if (!s.in_use && free_slot < 0)
            free_slot = static_cast<int>(i);
    }
    VESK_ASSERT(free_slot >= 0);
    event_oberver_slot& s = m_oberver_manage.oberver[free_slot];
    s.in_use = 1;
    s.user_id = user;
    s.oberver = oberver;
    m_oberver_manage.current_user++;
    return VESK_OK;
}

VESK_ERR vesk_utility_event_manage::unregister_event_oberver(vesk_user_id user, const vesk_event_oberver* oberver)
{
    rw_guard guard(m_oberver_lock, rw_guard::write, __FILE__, __func__);
    for (uint32_t i = 0; i < m_oberver_manage.capacity; i++) {
        event_oberver_slot& s = m_oberver_manage.oberver[i];
        if (s.in_use && s.user_id == user && s.oberver == oberver) {
            VESK_ASSERT(m_oberver_manage.current_user > 0);
            s = event_oberver_slot {};
            m_oberver_manage.current_user--;
            return VESK_OK;
        }
    }
    VESK_LOG_ERR(k_cls, "UserID[%d] Hander[%p] Not Register, Can't Unregister!\n", static_cast<int>(user),
        static_cast<const void*>(oberver));
    return VESK_ERR_OPERATE_FAIL;
}

// ---- Arming schedules ------------------------------------------------------------------

// O(schedules), at most 960.
event_schedule_node* vesk_utility_event_manage::find_schedule(const vesk_event_id& id)
{
    const vesk_event_id key = schedule_key(id);
    for (event_schedule_node* n = m_schedule_list.head; n != nullptr; n = n->next) {
        VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
        if (same_kind(n->id, key) && n->id.wildcard == key.wildcard && (key.wildcard != 0 || n->id.index == key.index))
            return n;
    }
    return nullptr;
}

VESK_ERR vesk_utility_event_manage::set_event_arming(const vesk_event_id& id, const vesk_arming_shedule& schedule)
{
    if (!is_valid_id(id))
        return VESK_ERR_INVALID_PARAM;
    rw_guard guard(m_schedule_list.lock, rw_guard::write, __FILE__, __func__);
    if (id.wildcard != VESK_EVENT_ID_EXACT) {
        event_schedule_node* next = nullptr;
        for (event_schedule_node* n = m_schedule_list.head; n != nullptr; n = next) {
            VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
            next = n->next;
            if (!same_kind(n->id, id))
                continue;
            if (id.wildcard != VESK_EVENT_ID_ALL_INDEX && n->id.wildcard != VESK_EVENT_ID_ALL_INDEX)
                continue; // a default keeps the per-index schedules
            list_remove(m_schedule_list, n);
            n->magic = 0;
            m_schedule_pool->free(n);
        }
    }
    event_schedule_node* node = find_schedule(id);
    const bool zero = all_zero(schedule);
    if (node != nullptr) {
        if (zero) {
            list_remove(m_schedule_list, node);
            node->magic = 0;
            m_schedule_pool->free(node);
        } else {
            node->schedule = schedule;
        }
        return VESK_OK;
    }
    if (zero)
        return VESK_OK;
    node = static_cast<event_schedule_node*>(m_schedule_pool->alloc());
    if (node == nullptr) {
        VESK_LOG_ERR(k_cls, "no schedule node left, %u schedules\n", m_schedule_list.count);
        return VESK_ERR_NO_RESOURCE;
    }
    node->id = schedule_key(id);
    node->schedule = schedule;
    node->magic = VESK_EVENT_DEBUG_MAGIC;
    list_append(m_schedule_list, node);
    return VESK_OK;
}

VESK_ERR vesk_utility_event_manage::get_event_arming_schedule(const vesk_event_id& id, vesk_arming_shedule& out)
{
    out = vesk_arming_shedule {};
    if (!is_valid_id(id))
        return VESK_ERR_INVALID_PARAM;
    rw_guard guard(m_schedule_list.lock, rw_guard::read, __FILE__, __func__);
    const event_schedule_node* node = find_schedule(id);
    if (node == nullptr) {
        VESK_LOG_ERR(k_cls, "Event Can't Find Schedule Node, Why???\n");
        return VESK_ERR_OPERATE_FAIL;
    }
    out = node->schedule;
    return VESK_OK;
}

// An event without a schedule, exact or wildcard, is always armed.
bool vesk_utility_event_manage::is_armed(const vesk_event_id& key, int wday, int minute)
{
    const event_schedule_node* node = find_schedule(key);
    if (node == nullptr) {
        vesk_event_id wild = key;
        wild.wildcard = VESK_EVENT_ID_ALL_INDEX;
        node = find_schedule(wild);
    }
    if (node == nullptr)
        return true;
    for (const vesk_arming_segment& seg : node->schedule.day[wday])
        if (seg.start_minute < seg.end_minute && minute >= seg.start_minute && minute < seg.end_minute)
            return true;
    return false;
}

// ---- Filters ---------------------------------------------------------------------------

// O(filters of the list), at most 1600 in all lists.
bool vesk_utility_event_manage::is_filtered(const event_list<event_filter_node>& list, const vesk_event_id& key)
{
    for (const event_filter_node* f = list.head; f != nullptr; f = f->next) {
        VESK_ASSERT(f->magic == VESK_EVENT_DEBUG_MAGIC);
        if (f->id_filter) {
            // Disk and network events are the recorder's own: the local flag is not compared.
            if (f->id.main_type == key.main_type && f->id.sub_type == key.sub_type && f->id.index == key.index)
                return true;
        } else if ((f->id.main_type == VESK_EVENT_MAIN_ANY || f->id.main_type == key.main_type)
            && (f->id.sub_type == VESK_EVENT_SUB_TYPE_ANY || f->id.sub_type == key.sub_type)) {
            return true;
        }
    }
    return false;
}

VESK_ERR vesk_utility_event_manage::set_filter_node(
    vesk_event_user_id user, const vesk_event_id& key, uint32_t id_filter, VESK_BOOL enable)
{
    event_list<event_filter_node>& list = m_filter_list[user];
    rw_guard guard(list.lock, rw_guard::write, __FILE__, __func__);
    event_filter_node* found = nullptr;
    for (event_filter_node* f = list.head; f != nullptr; f = f->next) {
        VESK_ASSERT(f->magic == VESK_EVENT_DEBUG_MAGIC);
        const bool same_type = f->id.main_type == key.main_type && f->id.sub_type == key.sub_type;
        if (id_filter ? f->id_filter && same_type && f->id.index == key.index : same_type) {
            found = f;
            break;
        }
    }
    // A type filter stands alone in its list: it is added only to an empty list, and no id
    // filter shares its type. Breaking either is the caller's programming error.
    if (!id_filter && found != nullptr && found->id_filter)
        vesk_assert_fail(__FILE__, __func__, __LINE__, "!filter_node->id_filter");
    if (!id_filter && found == nullptr && enable && list.head != nullptr)
        vesk_assert_fail(__FILE__, __func__, __LINE__, "vesk_list_empty(filter_head)");
    if (!enable) {
        if (found != nullptr) {
            list_remove(list, found);
            found->magic = 0;
            m_filter_pool->free(found);
        }
        return VESK_OK;
    }
    if (found != nullptr)
        return VESK_OK;
    event_filter_node* node = static_cast<event_filter_node*>(m_filter_pool->alloc());
    if (node == nullptr) {
        VESK_LOG_ERR(k_cls, "no filter node left\n");
        return VESK_ERR_NO_RESOURCE;
    }
    node->id = key;
    node->id.local = 0;
    node->id.wildcard = 0;
    node->id_filter = id_filter;
    node->magic = VESK_EVENT_DEBUG_MAGIC;
    list_append(list, node);
    return VESK_OK;
}

VESK_ERR vesk_utility_event_manage::set_event_filter(vesk_event_user_id user, const vesk_event_id& id, VESK_BOOL enable)
{
    const vesk_event_id* event_type = &id;
    if (user >= k_event_filter_lists)
        return VESK_ERR_INVALID_PARAM;
    // Only disk and network events take id filters, and only for a concrete sub type.
    VESK_ASSERT((event_type->main_type == VESK_EVENT_DISK_EVENT) || (event_type->main_type == VESK_EVENT_NET_EVENT));
    VESK_ASSERT((event_type->sub_type != VESK_EVENT_SUB_TYPE_UNKNOW) && (event_type->sub_type != VESK_EVENT_SUB_TYPE_ANY));
    vesk_event_id key = id;
    key.wildcard = VESK_EVENT_ID_EXACT;
    if (!is_valid_id(key))
        return VESK_ERR_INVALID_PARAM;
    return set_filter_node(user, key, 1, enable);
}

VESK_ERR vesk_utility_event_manage::set_event_filter(
    vesk_event_user_id user, const vesk_event_type& type, VESK_BOOL enable)
{
    if (user >= k_event_filter_lists)
        return VESK_ERR_INVALID_PARAM;
    if (type.main_type != VESK_EVENT_MAIN_ANY
        && (type.main_type < VESK_EVENT_CHANNEL_EVENT || type.main_type > VESK_EVENT_MAIN_MAX))
        return VESK_ERR_INVALID_PARAM;
    if (type.sub_type == VESK_EVENT_SUB_TYPE_UNKNOW)
        return VESK_ERR_INVALID_PARAM;
    vesk_event_id key {};
    key.main_type = type.main_type;
    key.sub_type = type.sub_type;
    return set_filter_node(user, key, 0, enable);
}

// ---- Listing ---------------------------------------------------------------------------

// O(events x (schedules + filters)) under read locks; the recorder's screen asks once a
// second at most.
VESK_ERR vesk_utility_event_manage::get_event_info(
    vesk_event_user_id user, vesk_event_detail_info* out, uint32_t capacity, uint32_t& count)
{
    if (user != VESK_EVENT_USER_LOCAL && user != VESK_EVENT_USER_REMOTE)
        return VESK_ERR_INVALID_PARAM;
    count = 0;
    if (!m_enable.load())
        return VESK_OK;
    const time_t t = time(nullptr);
    struct tm lt;
    localtime_r(&t, &lt);
    const int minute = lt.tm_hour * 60 + lt.tm_min;

    rw_guard info(m_info_list.lock, rw_guard::read, __FILE__, __func__);
    rw_guard schedule(m_schedule_list.lock, rw_guard::read, __FILE__, __func__);
    rw_guard all(m_filter_list[VESK_EVENT_USER_ALL].lock, rw_guard::read, __FILE__, __func__);
    rw_guard mine(m_filter_list[user].lock, rw_guard::read, __FILE__, __func__);
    uint32_t copied = 0;
    for (const event_info_node* n = m_info_list.head; n != nullptr; n = n->next) {
        VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
        const vesk_event_id key = key_of(n->record.detail);
        if (key.main_type == VESK_EVENT_CHANNEL_EVENT && key.sub_type != VESK_EVENT_SUB_CHANNEL_OFFLINE
            && !is_armed(key, lt.tm_wday, minute))
            continue;
        if (is_filtered(m_filter_list[VESK_EVENT_USER_ALL], key) || is_filtered(m_filter_list[user], key))
            continue;
        count++;
        if (copied < capacity)
            out[copied++] = n->record;
    }
    return VESK_OK;
}

// ---- Diagnose --------------------------------------------------------------------------

void vesk_utility_event_manage::dump_events(print_fn print)
{
    rw_guard guard(m_info_list.lock, rw_guard::read, __FILE__, __func__);
    print("active events: %u of %u\n", m_info_list.count, m_info_pool->count());
    print("%-4s %-5s %-5s %-5s %-5s %-7s %-10s %-10s %-9s %s\n", "no", "main", "sub", "index", "local", "trigger",
        "start", "last", "countdown", "text");
    unsigned i = 0;
    for (const event_info_node* n = m_info_list.head; n != nullptr; n = n->next, i++) {
        VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
        const vesk_event_detail_info& r = n->record;
        print("%-4u %-5u %-5u %-5u %-5u %-7u %-10u %-10u %-9u %.96s%s\n", i, r.detail.main_type, r.detail.sub_type,
            r.detail.index, r.detail.local, r.is_trigger, r.start_time, r.last_time, n->countdown, r.detail.text,
            n->notify_pending ? " (start not told)" : "");
    }
}

void vesk_utility_event_manage::dump_schedules(print_fn print)
{
    static const char* const s_days[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    rw_guard guard(m_schedule_list.lock, rw_guard::read, __FILE__, __func__);
    print("arming schedules: %u of %u\n", m_schedule_list.count, k_event_schedule_nodes);
    for (const event_schedule_node* n = m_schedule_list.head; n != nullptr; n = n->next) {
        VESK_ASSERT(n->magic == VESK_EVENT_DEBUG_MAGIC);
        if (n->id.wildcard)
            print("main %u sub %u local %u index *\n", n->id.main_type, n->id.sub_type, n->id.local);
        else
            print("main %u sub %u local %u index %u\n", n->id.main_type, n->id.sub_type, n->id.local, n->id.index);
        for (int d = 0; d < 7; d++) {
            print("    %s:", s_days[d]);
            for (const vesk_arming_segment& s : n->schedule.day[d])
                if (s.start_minute < s.end_minute)
                    print(" %02u:%02u-%02u:%02u", s.start_minute / 60u, s.start_minute % 60u, s.end_minute / 60u,
                        s.end_minute % 60u);
            print("\n");
        }
    }
}

void vesk_utility_event_manage::dump_filters(print_fn print)
{
    static const char* const s_users[k_event_filter_lists] = {"all users", "local", "remote"};
    for (uint32_t u = 0; u < k_event_filter_lists; u++) {
        rw_guard guard(m_filter_list[u].lock, rw_guard::read, __FILE__, __func__);
        print("filters of %s: %u\n", s_users[u], m_filter_list[u].count);
        for (const event_filter_node* f = m_filter_list[u].head; f != nullptr; f = f->next) {
            VESK_ASSERT(f->magic == VESK_EVENT_DEBUG_MAGIC);
            if (f->id_filter)
                print("    id   main %u sub %u index %u\n", f->id.main_type, f->id.sub_type, f->id.index);
            else
                print("    type main 0x%x sub 0x%x\n", f->id.main_type, f->id.sub_type);
        }
    }
}

void vesk_utility_event_manage::dump_observers(print_fn print)
{
    rw_guard guard(m_oberver_lock, rw_guard::read, __FILE__, __func__);
    print("observers: %u of %u\n", m_oberver_manage.current_user, m_oberver_manage.capacity);
    for (uint32_t i = 0; i < m_oberver_manage.capacity; i++) {
        const event_oberver_slot& s = m_oberver_manage.oberver[i];
        if (s.in_use)
            print("    slot %2u user 0x%x observer %p\n", i, s.user_id, static_cast<const void*>(s.oberver));
    }
}

VESK_ERR vesk_utility_event_manage::diagnose(int para, print_fn print)
{
    switch (para) {
    case 1:
        dump_events(print);
        break;
    case 2:
        dump_schedules(print);
        break;
    case 3:
        dump_filters(print);
        break;
    case 4:
        dump_observers(print);
        break;
    case 5:
        print("push state %d, valid time %u/%u s, disk events %u s\n", m_enable.load(), m_valid_time[0].load(),
            m_valid_time[1].load(), k_event_disk_countdown);
        print("nodes in use: info %u/%u, schedule %u/%u, filter %u/%u\n", m_info_pool->used(), m_info_pool->count(),
            m_schedule_pool->used(), m_schedule_pool->count(), m_filter_pool->used(), m_filter_pool->count());
        break;
    default:
        // GB2312: 1  打印活动事件
        print("1  \xB4\xF2\xD3\xA1\xBB\xEE\xB6\xAF\xCA\xC2\xBC\xFE\n"
              // GB2312: 2  打印布防时间表
              "2  \xB4\xF2\xD3\xA1\xB2\xBC\xB7\xC0\xCA\xB1\xBC\xE4\xB1\xED\n"
              // GB2312: 3  打印事件过滤
              "3  \xB4\xF2\xD3\xA1\xCA\xC2\xBC\xFE\xB9\xFD\xC2\xCB\n"
              // GB2312: 4  打印事件观察者
              "4  \xB4\xF2\xD3\xA1\xCA\xC2\xBC\xFE\xB9\xDB\xB2\xEC\xD5\xDF\n"
              // GB2312: 5  打印推送状态、有效时间和节点使用
              "5  \xB4\xF2\xD3\xA1\xCD\xC6\xCB\xCD\xD7\xB4\xCC\xAC\xA1\xA2\xD3\xD0\xD0\xA7\xCA\xB1\xBC\xE4\xBA\xCD\xBD\xDA\xB5\xE3\xCA\xB9\xD3\xC3\n");
        break;
    }
    return VESK_OK;
}

} // namespace vesk_utility
