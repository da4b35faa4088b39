// vesk_utility_mem_account - the accounted heap (guarded blocks on one live list), the A/V
// cache budget, and the routing front doors vesk_malloc / vesk_realloc / vesk_free.
#include "core/vesk_utility_mem_account.h"

#include <cstdlib>
#include <cstring>

#include "core/vesk_utility_fault.h"
#include "core/vesk_utility_guard.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_layout.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_pool.h"
#include "core/vesk_utility_ground.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

constexpr const char* k_cls = "vesk_utility_res_manage";

vesk_mem_head* head_at(uintptr_t addr)
{
    return reinterpret_cast<vesk_mem_head*>(addr);
}

// ---- A/V cache budget -------------------------------------------------------------------
// Until the A/V cache sets its limits, rotation starts at the cache's default budget and
// allocation stops 8 MiB above it.
std::mutex s_av_lock;
uint32_t s_av_start_rotate_size = 0x2800000;   // GUARDED_BY(s_av_lock)
uint32_t s_av_forbid_malloc_size = 0x3000000;  // GUARDED_BY(s_av_lock)
uint32_t s_av_total_cache_size = 0;            // GUARDED_BY(s_av_lock)
uint32_t s_av_refuse_cnt = 0;                  // GUARDED_BY(s_av_lock); wraps at 1000
void (*s_rotate_waker)() = nullptr;            // GUARDED_BY(s_av_lock)

constexpr uint32_t k_av_refuse_period = 1000;

// The largest request the little-memory pool serves.
constexpr unsigned k_little_block_max = 4096;

}  // namespace

// ---- Live list ---------------------------------------------------------------------------

vesk_mem_account::vesk_mem_account()
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&m_lock, &attr);
    pthread_mutexattr_destroy(&attr);
}

void* vesk_mem_account::proc_vesk_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size,
                                         unsigned align)
{
    // Summed in 64 bits: on the target the sum wraps size_t, on a 64-bit host it would not fit
    // need_size; either way the trailer would land outside the block.
    const uint64_t need_wide = uint64_t{size} + k_mem_head_size + k_mem_tail_size + (align >= 2 ? align - 1 : 0);
    if (need_wide > UINT32_MAX || need_wide > SIZE_MAX) {
        VESK_LOG_ERR(k_cls, "caller_id = 0x%x, purpose = 0x%x, size = %u, align = %u, too large!\n", usr_id, purpose,
                     size, align);
        return nullptr;
    }
    const size_t need_size = static_cast<size_t>(need_wide);
    char* src_memory = static_cast<char*>(vesk_sys_malloc(need_size));
    if (src_memory == nullptr) {
        VESK_LOG_ERR(k_cls, "caller_id = 0x%x, purpose = 0x%x, malloc %zu fail!\n", usr_id, purpose, need_size);
        return nullptr;
    }
    uintptr_t user = reinterpret_cast<uintptr_t>(src_memory) + k_mem_head_size;
    if (align >= 2)
        user = (user + align - 1) / align * align;
    char* align_memory = reinterpret_cast<char*>(user);

    vesk_mem_head* h = mem_head_of(align_memory);
    memset(h, 0, sizeof(*h));
    h->magic = k_mem_head_magic;
    h->src_memory = reinterpret_cast<uintptr_t>(src_memory);
    h->need_size = static_cast<uint32_t>(need_size);
    h->malloc_size = size;
    h->caller_id = usr_id;
    h->purpose = purpose;
    h->malloc_size2 = size;
    h->xor_chk = mem_head_xor(purpose, usr_id, size, h->need_size, h->src_memory);
    memcpy(align_memory + size, &k_mem_tail_magic, k_mem_tail_size);

    const uintptr_t self = reinterpret_cast<uintptr_t>(h);
    {
        mutex_guard guard(m_lock);
        h->pre = m_tail;
        if (m_tail != 0)
            head_at(m_tail)->next = self;
        else
            m_head = self;
        m_tail = self;
        m_total += size;
        m_count++;
    }
    VESK_ASSERT(((VESK_CHAR*)align_memory + size) <= ((VESK_CHAR*)src_memory + need_size));
    return align_memory;
}

vesk_mem_head* vesk_mem_account::check_block(const char* fn, const char* file, const char* func, const void* p)
{
    if (reinterpret_cast<uintptr_t>(p) <= k_mem_head_size) {
        vesk_log(vesk_log_level::error, k_cls, fn, __LINE__, "'%s %s' mem %p is invalid\n", file, func, p);
        return nullptr;
    }
    vesk_mem_head* h = mem_head_of(p);
    if (h->magic != k_mem_head_magic) {
        vesk_log(vesk_log_level::error, k_cls, fn, __LINE__, "'%s %s' mem %p, head->magic = 0x%x, err!\n", file,
                 func, p, h->magic);
        return nullptr;
    }
    if (!mem_head_xor_ok(h)) {
        vesk_log(vesk_log_level::error, k_cls, fn, __LINE__, "'%s %s' source %p, align = %p, mem_head = %p, xor err\n",
                 file, func, reinterpret_cast<void*>(h->src_memory), p, static_cast<void*>(h));
        vesk_log(vesk_log_level::error, k_cls, fn, __LINE__,
                 "src_mem_size = %zu, caller_id = 0x%x, purpose = 0x%x, malloc_size = %zu, pre = %p, next = %p, "
                 "xor = 0x%lx!\n",
                 static_cast<size_t>(h->need_size), h->caller_id, h->purpose, static_cast<size_t>(h->malloc_size2),
                 reinterpret_cast<void*>(h->pre), reinterpret_cast<void*>(h->next), h->xor_chk);
        return nullptr;
    }
    // The first size copy is outside the check word; never follow it beyond the raw block.
    uint32_t magic_1 = 0;
    const uintptr_t tail = reinterpret_cast<uintptr_t>(p) + h->malloc_size;
    if (tail + k_mem_tail_size <= h->src_memory + h->need_size)
        memcpy(&magic_1, reinterpret_cast<const void*>(tail), sizeof(magic_1));
    if (magic_1 != k_mem_tail_magic) {
        vesk_log(vesk_log_level::error, k_cls, fn, __LINE__,
                 "%s, %s user_id = 0x%x, purpose = 0x%x, memory = %p, malloc_size = %d magic_1 = 0x%x why?\n", file,
                 func, h->caller_id, h->purpose, p, static_cast<int>(h->malloc_size), magic_1);
        return nullptr;
    }
    return h;
}

void vesk_mem_account::proc_vesk_free(const char* file, const char* func, const void* p)
{
    vesk_mem_head* h = check_block(__func__, file, func, p);
    if (h == nullptr)
        VESK_ASSERT(0);

    const uint32_t size = h->malloc_size2;
    const uint32_t usr_id = h->caller_id;
    const uint32_t purpose = h->purpose;
    void* src_memory = reinterpret_cast<void*>(h->src_memory);
    {
        mutex_guard guard(m_lock);
        if (h->pre != 0)
            head_at(h->pre)->next = h->next;
        else
            m_head = h->next;
        if (h->next != 0)
            head_at(h->next)->pre = h->pre;
        else
            m_tail = h->pre;
        m_total -= size;
        m_count--;
    }
    memset(h, 0, sizeof(*h));
    free(src_memory);

    if (is_av_budget_block(usr_id, purpose)) {
        std::lock_guard<std::mutex> guard(s_av_lock);
        s_av_total_cache_size -= size;
    }
}

VESK_ERR vesk_mem_account::vesk_get_mem_size(const char* file, const char* func, const void* p, unsigned& size)
{
    vesk_mem_head* h = check_block(__func__, file, func, p);
    if (h == nullptr)
        return VESK_ERR_INVALID_PARAM;
    size = h->malloc_size2;
    return VESK_OK;
}

uint32_t vesk_mem_account::total_size()
{
    mutex_guard guard(m_lock);
    return m_total;
}

uint32_t vesk_mem_account::total_of(vesk_user_id usr_id, vesk_memmory_purpose purpose)
{
    mutex_guard guard(m_lock);
    uint32_t total = 0;
    for (uintptr_t a = m_head; a != 0; a = head_at(a)->next) {
        const vesk_mem_head* h = head_at(a);
        if (h->caller_id == usr_id && h->purpose == purpose)
            total += h->malloc_size2;
    }
    return total;
}

uint32_t vesk_mem_account::live_blocks()
{
    mutex_guard guard(m_lock);
    return m_count;
}

// ---- Dumps -------------------------------------------------------------------------------

void vesk_mem_account::dump_total(print_fn print)
{
    if (pthread_mutex_trylock(&m_lock) != 0) {
        print("sorry trylock m_mem_info_list fail!\n");
        return;
    }
    const uint32_t size = m_total;
    pthread_mutex_unlock(&m_lock);
    if (size >= (1u << 20))
        print("NVR2.0 model_layer total malloc size = %d.%dMB\n", size >> 20, (100 * (size & 0xFFFFF)) >> 20);
    else if (size >= 1024)
        print("NVR2.0 model_layer total malloc size = %dKB\n", size >> 10);
    else
        print("NVR2.0 model_layer total malloc size = %dB\n", size);
}

namespace {

constexpr int k_dump_callers = 64;
constexpr int k_dump_purposes = 64;

struct purpose_row {
    uint32_t purpose;
    uint32_t total;
    uint32_t used;  // live blocks
};

struct caller_row {
    uint32_t caller;
    uint32_t total;
    int purposes;
    purpose_row rows[k_dump_purposes];
};

}  // namespace

void vesk_mem_account::dump_by_module(print_fn print)
{
    // The table (about 50 KB) is taken before the list lock, since it is itself accounted.
    caller_row* table = static_cast<caller_row*>(
        proc_vesk_malloc(VESK_USER_UTILITY, k_purpose_diag_scratch, sizeof(caller_row) * k_dump_callers, 1));
    if (table == nullptr)
        return;
    int callers = 0;
    if (pthread_mutex_trylock(&m_lock) != 0) {
        print("sorry trylock m_mem_info_list fail!\n");
        proc_vesk_free(__FILE__, __func__, table);
        return;
    }
    // O(live blocks x callers x purposes) with the list locked; a diagnostic, not a hot path.
    for (uintptr_t a = m_head; a != 0; a = head_at(a)->next) {
        const vesk_mem_head* h = head_at(a);
        int c = 0;
        while (c < callers && table[c].caller != h->caller_id)
            c++;
        if (c == callers) {
            if (callers == k_dump_callers) {
                print("caller over flow!\n");
                break;
            }
            table[c].caller = h->caller_id;
            table[c].total = 0;
            table[c].purposes = 0;
            callers++;
        }
        caller_row& row = table[c];
        row.total += h->malloc_size2;
        int k = 0;
        while (k < row.purposes && row.rows[k].purpose != h->purpose)
            k++;
        if (k == row.purposes) {
            if (row.purposes == k_dump_purposes) {
                print("caller = 0x%x, purpose over flow!\n", h->caller_id);
                break;
            }
            row.rows[k] = {h->purpose, 0, 0};
            row.purposes++;
        }
        row.rows[k].total += h->malloc_size2;
        row.rows[k].used++;
    }
    pthread_mutex_unlock(&m_lock);

    for (int c = 0; c < callers; c++) {
        const caller_row& row = table[c];
        print("----------------------------------------------------------------\n");
        if (row.total >= (1u << 20))
            print("caller = 0x%x, total malloc = %d.%dMB!\n", row.caller, row.total >> 20,
                  (100 * (row.total & 0xFFFFF)) >> 20);
        else if (row.total >= 1024)
            print("caller = 0x%x, total malloc = %dKB!\n", row.caller, row.total >> 10);
        else
            print("caller = 0x%x, total malloc = %d!\n", row.caller, row.total);
        for (int k = 0; k < row.purposes; k++) {
            const purpose_row& pr = row.rows[k];
            if (pr.total >= (1u << 20))
                print("\tpurpose = 0x%x, total malloc = %d.%dMB!\n", pr.purpose, pr.total >> 20,
                      (100 * (pr.total & 0xFFFFF)) >> 20);
            else if (pr.total >= 1024)
                print("\tpurpose = 0x%x, total malloc = %dKB!\n", pr.purpose, pr.total >> 10);
            else
                print("\tpurpose = 0x%x, total malloc = %d!\n", pr.purpose, pr.total);
        }
    }
    proc_vesk_free(__FILE__, __func__, table);
}

// ---- A/V cache budget --------------------------------------------------------------------

bool is_av_budget_block(vesk_user_id usr_id, vesk_memmory_purpose purpose)
{
    // 0x91110 is deliberately outside the budget.
    return usr_id == VESK_USER_AV_CACHE &&
           ((purpose >= 0x9110C && purpose <= 0x9110F) || (purpose >= 0x91111 && purpose <= 0x91114));
}

void vesk_mem_set_av_limits(uint32_t start_rotate, uint32_t forbid_malloc)
{
    std::lock_guard<std::mutex> guard(s_av_lock);
    s_av_start_rotate_size = start_rotate;
    s_av_forbid_malloc_size = forbid_malloc;
    VESK_ASSERT(s_av_forbid_malloc_size >= s_av_start_rotate_size);
}

uint32_t vesk_mem_av_total()
{
    std::lock_guard<std::mutex> guard(s_av_lock);
    return s_av_total_cache_size;
}

void vesk_mem_set_rotate_waker(void (*waker)())
{
    std::lock_guard<std::mutex> guard(s_av_lock);
    s_rotate_waker = waker;
}

// ---- Front doors -------------------------------------------------------------------------

void* vesk_malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size, unsigned align)
{
    vesk_mem_account& account = vesk_ground::instance()->mem_account();
    if (is_av_budget_block(usr_id, purpose)) {
        // The budget lock covers the whole allocation so that the total never overshoots.
        std::lock_guard<std::mutex> guard(s_av_lock);
        if (s_av_total_cache_size >= s_av_forbid_malloc_size) {
            if (s_av_refuse_cnt == 0)
                VESK_WARN_FN("s_av_start_rotate_size = %d, s_av_forbid_malloc_size = %d, s_av_total_cache_size = "
                             "%d, forbid malloc!\n",
                             s_av_start_rotate_size, s_av_forbid_malloc_size, s_av_total_cache_size);
            if (++s_av_refuse_cnt == k_av_refuse_period)
                s_av_refuse_cnt = 0;
            return nullptr;
        }
        s_av_refuse_cnt = 0;
        void* p = account.proc_vesk_malloc(usr_id, purpose, size, align);
        if (p != nullptr) {
            s_av_total_cache_size += size;
            if (s_av_total_cache_size >= s_av_start_rotate_size) {
                VESK_WARN_FN("s_av_start_rotate_size = %d, s_av_total_cache_size = %d, wakeup_rotate!\n",
                             s_av_start_rotate_size, s_av_total_cache_size);
                if (s_rotate_waker != nullptr)
                    s_rotate_waker();
            }
        }
        return p;
    }
    // Small blocks stay out of the system heap; SQLite's are excluded, since it sizes and
    // frees them through the heap's own size query.
    if (size <= k_little_block_max && align <= 4 && usr_id != VESK_USER_SQLITE) {
        utility_little_mem_pool* pool = vesk_ground::instance()->little_mem_pool_if_built();
        if (pool != nullptr)
            return pool->malloc(usr_id, purpose, size);
    }
    return account.proc_vesk_malloc(usr_id, purpose, size, align);
}

VESK_ERR vesk_get_mem_size(const char* file, const char* func, const void* p, unsigned& size)
{
    return vesk_ground::instance()->mem_account().vesk_get_mem_size(file, func, p, size);
}

VESK_ERR vesk_free(const char* file, const char* func, const void* p)
{
    if (p == nullptr)
        return VESK_OK;
    vesk_ground* res = vesk_ground::instance();
    utility_string_pool* strings = res->string_pool_if_built();
    if (strings != nullptr && strings->try_free(file, func, p) == VESK_OK)
        return VESK_OK;
    utility_little_mem_pool* little = res->little_mem_pool_if_built();
    if (little != nullptr && little->try_free(file, func, p) == VESK_OK)
        return VESK_OK;
    res->mem_account().proc_vesk_free(file, func, p);
    return VESK_OK;
}

namespace {

// The caller's size of any block the general free takes: pooled ones from their pool.
VESK_ERR block_size(const char* file, const char* func, const void* p, unsigned& size)
{
    vesk_ground* res = vesk_ground::instance();
    utility_little_mem_pool* little = res->little_mem_pool_if_built();
    if (little != nullptr && little->get_mem_size(file, func, p, size) == VESK_OK)
        return VESK_OK;
    utility_string_pool* strings = res->string_pool_if_built();
    if (strings != nullptr && strings->get_mem_size(file, func, p, size) == VESK_OK)
        return VESK_OK;
    return vesk_get_mem_size(file, func, p, size);
}

}  // namespace

void* vesk_realloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, void* p, unsigned size, const char* file,
                   const char* func, unsigned align)
{
    if (p == nullptr && size != 0)
        return vesk_malloc(usr_id, purpose, size, align);
    // (NULL, 0) falls through to the size lookup, which reports the NULL block.
    if (size == 0 && p != nullptr) {
        VESK_DBG_FN("caller_id = 0x%x, purpose = 0x%x, free old1\n", usr_id, purpose);
        vesk_free(file, func, p);
        return nullptr;
    }
    unsigned old_size = 0;
    if (block_size(file, func, p, old_size) != VESK_OK) {
        VESK_ERR_FN("caller_id = 0x%x, purpose = 0x%x, memory = %p, fetch size fail!\n", usr_id, purpose, p);
        vesk_free(file, func, p);
        return nullptr;
    }
    if (old_size == size)
        return p;
    void* q = vesk_malloc(usr_id, purpose, size, align);
    if (q == nullptr)
        return nullptr;
    memcpy(q, p, old_size < size ? old_size : size);
    vesk_free(file, func, p);
    return q;
}

}  // namespace vesk_utility
