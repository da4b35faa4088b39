// vesk_utility_pool - the string pool and the little memory pools: best-fit nodes carved from
// the tail of free nodes, coalesced on free, chunks returned to the accounted heap once empty,
// and the diagnosis of every bad free before the process is stopped.
#include "core/vesk_utility_pool.h"

#include <cstdlib>
#include <cstring>

#include "core/vesk_utility_guard.h"
#include "core/vesk_utility_fault.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_pool_index.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

typedef utility_string_pool_mem_node pool_node;

constexpr unsigned k_max_dump_users = 64;

VESK_CHAR* data_of(const utility_pool_chunk* chunk, const pool_node* node)
{
    return chunk->chunk_addr + node->mem_ofset;
}

// Address just past a node's data area, where the next header starts when they touch.
VESK_CHAR* end_of(const pool_node* node)
{
    return reinterpret_cast<VESK_CHAR*>(const_cast<pool_node*>(node)) + k_pool_node_head_size + node->mem_size;
}

uint32_t read_u32(const VESK_CHAR* p)
{
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}

int kb(uint32_t bytes)
{
    return static_cast<int>(bytes >> 10);
}

vesk_mem_account& heap()
{
    return vesk_ground::instance()->mem_account();
}

} // namespace

// ---- Shared machinery ------------------------------------------------------------------------

utility_pool_base::utility_pool_base(const pool_rules& rules)
    : m_chunk_size(rules.chunk_size)
    , m_purpose(rules.purpose)
    , m_cls(rules.cls)
    , m_whole_slack(rules.whole_slack)
    , m_little(rules.little)
{
    // Held for a few list operations only: spin briefly rather than sleep in the kernel.
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&m_lock, &attr);
    pthread_mutexattr_destroy(&attr);
}

uint32_t utility_pool_base::total_mem_size()
{
    mutex_guard guard(m_lock);
    return m_total_mem_size;
}

uint32_t utility_pool_base::chunk_count()
{
    mutex_guard guard(m_lock);
    uint32_t n = 0;
    for (utility_pool_chunk* c = m_chunk_head; c != nullptr; c = c->next)
        n++;
    return n;
}

bool utility_pool_base::index_room()
{
    if (m_index_count < m_index_cap)
        return true;
    const uint32_t cap = m_index_cap == 0 ? 4 : m_index_cap * 2;
    // One block holds both arrays.
    pool_fit_index** grown = static_cast<pool_fit_index**>(vesk_sys_malloc(sizeof(pool_fit_index*) * cap * 2));
    if (grown == nullptr)
        return false;
    if (m_index_count != 0) {
        memcpy(grown, m_index, sizeof(pool_fit_index*) * m_index_count);
        memcpy(grown + cap, m_by_addr, sizeof(pool_fit_index*) * m_index_count);
    }
    free(m_index);
    m_index = grown;
    m_by_addr = grown + cap;
    m_index_cap = cap;
    return true;
}

bool utility_pool_base::may_own(const void* ptr) const
{
    const uintptr_t p = reinterpret_cast<uintptr_t>(ptr);
    return m_lo.load(std::memory_order_relaxed) <= p && p <= m_hi.load(std::memory_order_relaxed);
}

void utility_pool_base::update_bounds()
{
    uintptr_t lo = UINTPTR_MAX;
    uintptr_t hi = 0;
    for (uint32_t i = 0; i < m_index_count; i++) {
        const utility_pool_chunk* c = m_index[i]->chunk();
        const uintptr_t begin = reinterpret_cast<uintptr_t>(c->chunk_addr);
        lo = begin < lo ? begin : lo;
        hi = begin + c->area_size > hi ? begin + c->area_size : hi;
    }
    m_lo.store(lo, std::memory_order_relaxed);
    m_hi.store(hi, std::memory_order_relaxed);
}

utility_pool_chunk* utility_pool_base::creat_chunk(bool must_succeed)
{
    VESK_CHAR* buf = nullptr;
    // Without room for its search structures a chunk is as unobtainable as without memory.
    if (index_room())
        buf = static_cast<VESK_CHAR*>(heap().proc_vesk_malloc(VESK_USER_UTILITY, m_purpose, m_chunk_size, 4));
    pool_fit_index* index = nullptr;
    if (buf != nullptr) {
        utility_pool_chunk* chunk = reinterpret_cast<utility_pool_chunk*>(buf);
        memset(buf, 0, k_pool_chunk_head_size + k_pool_node_head_size);
        chunk->chunk_addr = buf + k_pool_chunk_head_size;
        chunk->area_size = m_chunk_size - k_pool_chunk_head_size;
        index = pool_fit_index::create(chunk);
        if (index == nullptr) {
            heap().proc_vesk_free(__FILE__, __func__, buf);
            buf = nullptr;
        }
    }
    if (must_succeed)
        VESK_ASSERT(buf != NULL);
    if (buf == nullptr)
        return nullptr;
    utility_pool_chunk* chunk = reinterpret_cast<utility_pool_chunk*>(buf);
    pool_node* node = reinterpret_cast<pool_node*>(chunk->chunk_addr);
    node->mem_ofset = k_pool_node_head_size;
    node->mem_size = chunk->area_size - k_pool_node_head_size;
    chunk->empty_head = node;
    index->add_to_bins(node);
    index->add_to_directory(node);
    chunk->next = m_chunk_head;
    if (m_chunk_head != nullptr)
        m_chunk_head->prev = chunk;
    m_chunk_head = chunk;
    memmove(m_index + 1, m_index, sizeof(pool_fit_index*) * m_index_count);
    m_index[0] = index;
    uint32_t at = m_index_count;
    while (at > 0 && m_by_addr[at - 1]->chunk()->chunk_addr > chunk->chunk_addr) {
        m_by_addr[at] = m_by_addr[at - 1];
        at--;
    }
    m_by_addr[at] = index;
    m_index_count++;
    update_bounds();
    m_total_mem_size += m_chunk_size;
    return chunk;
}

VESK_CHAR* utility_pool_base::take_node(
    vesk_user_id usr_id, vesk_memmory_purpose purpose, uint32_t need, uint32_t usr_size)
{
    // First chunk with room wins; within it best fit, first in address order among equals.
    // The chunks' indexes find that node without walking the empty lists.
    pool_fit_index* index = nullptr;
    pool_node* best = nullptr;
    for (uint32_t i = 0; i < m_index_count && best == nullptr; i++) {
        index = m_index[i];
        best = index->best_fit(need);
    }
    if (best == nullptr)
        return nullptr;
    utility_pool_chunk* chunk = index->chunk();

    pool_node* node;
    if (best->mem_size <= need + k_pool_node_head_size + m_whole_slack) {
        index->drop_from_bins(best);
        index->drop_from_directory(best);
        if (best->prev != nullptr)
            best->prev->next = best->next;
        else
            chunk->empty_head = best->next;
        if (best->next != nullptr)
            best->next->prev = best->prev;
        node = best;
    } else {
        // Carve from the tail: the empty node keeps its header and its place in the list.
        const uint32_t rest = best->mem_size - need - k_pool_node_head_size;
        index->resize_in_bins(best, rest);
        node = reinterpret_cast<pool_node*>(data_of(chunk, best) + rest);
        node->mem_ofset = best->mem_ofset + rest + k_pool_node_head_size;
        node->mem_size = need;
    }
    // clang-format off
    VESK_ASSERT((VESK_CHAR *)node == (chunk->chunk_addr + node->mem_ofset - sizeof(utility_string_pool_mem_node)));
    // clang-format on
    node->magic_0 = k_pool_magic_0;
    node->usr_mem_size = usr_size;
    node->usr_id = usr_id;
    node->purpose = purpose;
    node->prev = nullptr;
    node->next = chunk->used_head;
    if (chunk->used_head != nullptr)
        chunk->used_head->prev = node;
    chunk->used_head = node;
    VESK_CHAR* data = data_of(chunk, node);
    memcpy(data + usr_size, &k_pool_magic_1, k_pool_magic_1_size);
    return data;
}

pool_fit_index* utility_pool_base::find_chunk(const void* ptr)
{
    // The last chunk that starts at or below ptr is the only one that can hold it.
    const VESK_CHAR* p = static_cast<const VESK_CHAR*>(ptr);
    uint32_t lo = 0;
    uint32_t hi = m_index_count;
    while (lo < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        if (m_by_addr[mid]->chunk()->chunk_addr <= p)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo > 0 && m_by_addr[lo - 1]->contains(ptr) ? m_by_addr[lo - 1] : nullptr;
}

// Every check of a node handed back by a caller. Returns only for a live node whose both
// magic words are intact; anything else is reported and ends the process.
pool_node* utility_pool_base::proc_find_used_node(
    const char* file, const char* func, utility_pool_chunk* chunk, const void* ptr)
{
    const VESK_CHAR* p = static_cast<const VESK_CHAR*>(ptr);
    const uint32_t ofset = static_cast<uint32_t>(p - chunk->chunk_addr);
    if (ofset < k_pool_node_head_size) {
        VESK_LOG_ERR(m_cls, "%s, %s memory = %p, chunk->chunk_addr = %p why?\n", file, func, ptr,
            static_cast<void*>(chunk->chunk_addr));
        VESK_ASSERT(ofset >= sizeof(utility_string_pool_mem_node));
    }
    pool_node* node = reinterpret_cast<pool_node*>(const_cast<VESK_CHAR*>(p) - k_pool_node_head_size);
    if (node->magic_0 != k_pool_magic_0 || node->mem_ofset != ofset) {
        VESK_LOG_ERR(m_cls, "%s, %s memory = %p, chunk_addr = %p mem_ofset = %d magic_0 = 0x%x why?\n", file, func, ptr,
            static_cast<void*>(chunk->chunk_addr), static_cast<int>(node->mem_ofset), node->magic_0);
        // The last used header before the pointer names who wrote over it, or whose data
        // the pointer lies in.
        for (uint32_t at = ofset - k_pool_magic_1_size + 1; at-- > 0;) {
            if (read_u32(chunk->chunk_addr + at) != k_pool_magic_0)
                continue;
            const pool_node* diag = reinterpret_cast<const pool_node*>(chunk->chunk_addr + at);
            if (at + k_pool_node_head_size <= chunk->area_size)
                VESK_LOG_ERR(m_cls, "front usr is 0x%x, purpose = 0x%x, ofset = %hd, size = %hd, diag_node = %p\n",
                    diag->usr_id, diag->purpose, static_cast<short>(diag->mem_ofset),
                    static_cast<short>(diag->mem_size), static_cast<const void*>(diag));
            break;
        }
        // clang-format off
        VESK_ASSERT((VESK_CHAR *)node == (chunk->chunk_addr + node->mem_ofset - sizeof(utility_string_pool_mem_node)));
        // clang-format on
        VESK_ASSERT(node->magic_0 == k_pool_magic_0);
    }
    // The trailer is read only where the node's own area can hold it.
    uint32_t magic_1 = 0;
    if (node->usr_mem_size <= node->mem_size && node->mem_size - node->usr_mem_size >= k_pool_magic_1_size
        && ofset + node->mem_size <= chunk->area_size)
        magic_1 = read_u32(p + node->usr_mem_size);
    if (magic_1 != k_pool_magic_1) {
        if (m_little)
            VESK_LOG_ERR(m_cls,
                "%s, %s user_id = 0x%x, purpose = 0x%x, memory = %p, chunk_addr = %p mem_ofset = %d "
                "mem_size = %u, usr_mem_size = %u magic_1 = 0x%x why?\n",
                file, func, node->usr_id, node->purpose, ptr, static_cast<void*>(chunk->chunk_addr),
                static_cast<int>(node->mem_ofset), node->mem_size, node->usr_mem_size, magic_1);
        else
            VESK_LOG_ERR(m_cls,
                "%s, %s user_id = 0x%x, purpose = 0x%x, memory = %p, chunk_addr = %p mem_ofset = %d "
                "magic_1 = 0x%x why?\n",
                file, func, node->usr_id, node->purpose, ptr, static_cast<void*>(chunk->chunk_addr),
                static_cast<int>(node->mem_ofset), magic_1);
        VESK_ASSERT(magic_1 == k_pool_magic_1);
    }
    return node;
}

void utility_pool_base::release_node(pool_fit_index* index, pool_node* node)
{
    utility_pool_chunk* chunk = index->chunk();
    if (node->prev != nullptr)
        node->prev->next = node->next;
    else
        chunk->used_head = node->next;
    if (node->next != nullptr)
        node->next->prev = node->prev;
    node->magic_0 = 0;

    // Address order keeps neighbours adjacent in the list.
    pool_node* before = index->empty_before(node);
    pool_node* after = before != nullptr ? before->next : chunk->empty_head;
    if (after != nullptr && end_of(node) == reinterpret_cast<VESK_CHAR*>(after)) {
        index->drop_from_bins(after);
        index->drop_from_directory(after);
        node->mem_size += k_pool_node_head_size + after->mem_size;
        after = after->next;
    }
    if (before != nullptr && end_of(before) == reinterpret_cast<VESK_CHAR*>(node)) {
        index->resize_in_bins(before, before->mem_size + k_pool_node_head_size + node->mem_size);
        before->next = after;
        if (after != nullptr)
            after->prev = before;
    } else {
        node->prev = before;
        node->next = after;
        if (before != nullptr)
            before->next = node;
        else
            chunk->empty_head = node;
        if (after != nullptr)
            after->prev = node;
        index->add_to_bins(node);
        index->add_to_directory(node);
    }

    if (chunk->used_head == nullptr) {
        if (chunk->prev != nullptr)
            chunk->prev->next = chunk->next;
        else
            m_chunk_head = chunk->next;
        if (chunk->next != nullptr)
            chunk->next->prev = chunk->prev;
        uint32_t i = 0;
        while (m_index[i] != index)
            i++;
        memmove(m_index + i, m_index + i + 1, sizeof(pool_fit_index*) * (m_index_count - i - 1));
        i = 0;
        while (m_by_addr[i] != index)
            i++;
        memmove(m_by_addr + i, m_by_addr + i + 1, sizeof(pool_fit_index*) * (m_index_count - i - 1));
        m_index_count--;
        pool_fit_index::destroy(index);
        update_bounds();
        m_total_mem_size -= k_pool_chunk_head_size + chunk->area_size;
        heap().proc_vesk_free(__FILE__, "try_free", chunk);
    }
}

VESK_ERR utility_pool_base::try_free(const char* file, const char* func, const void* ptr)
{
    if (!may_own(ptr))
        return VESK_ERR_INVALID_PARAM;
    mutex_guard guard(m_lock);
    pool_fit_index* index = find_chunk(ptr);
    if (index == nullptr)
        return VESK_ERR_INVALID_PARAM;
    release_node(index, proc_find_used_node(file, func, index->chunk(), ptr));
    return VESK_OK;
}

VESK_ERR utility_pool_base::get_mem_size(const char* file, const char* func, const void* ptr, unsigned& size)
{
    if (!may_own(ptr))
        return VESK_ERR_INVALID_PARAM;
    mutex_guard guard(m_lock);
    pool_fit_index* index = find_chunk(ptr);
    if (index == nullptr)
        return VESK_ERR_INVALID_PARAM;
    size = proc_find_used_node(file, func, index->chunk(), ptr)->usr_mem_size;
    return VESK_OK;
}

// ---- Dumps -----------------------------------------------------------------------------------
// They run with m_lock held (taken by try-lock) and allocate nothing.

namespace
{

struct chunk_figures {
    int used_nodes = 0;
    int empty_nodes = 0;
    uint32_t used_size = 0; // headers and data areas of used nodes
    uint32_t empty_size = 0; // headers and data areas of empty nodes
};

chunk_figures figures_of(const utility_pool_chunk* chunk)
{
    chunk_figures f;
    for (const pool_node* n = chunk->used_head; n != nullptr; n = n->next) {
        f.used_nodes++;
        f.used_size += k_pool_node_head_size + n->mem_size;
    }
    for (const pool_node* n = chunk->empty_head; n != nullptr; n = n->next) {
        f.empty_nodes++;
        f.empty_size += k_pool_node_head_size + n->mem_size;
    }
    return f;
}

void print_chunk(print_fn print, int index, const utility_pool_chunk* chunk)
{
    const chunk_figures f = figures_of(chunk);
    const uint32_t size = k_pool_chunk_head_size + chunk->area_size;
    print("chunk_%d: mem = %p, size = %d[%dKB], used/empty[node] = %d/%d, used/empty/total[size] = "
          "%d[%dKB]/%d[%dKB]/%d[%dKB]\n",
        index, static_cast<const void*>(chunk), static_cast<int>(size), kb(size), f.used_nodes, f.empty_nodes,
        static_cast<int>(f.used_size), kb(f.used_size), static_cast<int>(f.empty_size), kb(f.empty_size),
        static_cast<int>(chunk->area_size), kb(chunk->area_size));
}

} // namespace

void utility_pool_base::dump_nodes(print_fn print)
{
    if (m_little)
        print("%-6s%-6s%-12s%-12s%-12s%-12s%-12s\n", "chunk", "node", "usr_id", "purpose", "memory", "size", "state");
    else
        print("%-6s%-6s%-12s%-12s%-12s%-12s%-12s%-32s\n", "chunk", "node", "usr_id", "purpose", "memory", "size",
            "string", "");
    int ci = 0;
    for (const utility_pool_chunk* c = m_chunk_head; c != nullptr; c = c->next, ci++) {
        print_chunk(print, ci, c);
        // Physical order: each header follows the previous data area. The walk stops at the
        // first header that breaks the invariant rather than trusting its size.
        uint32_t ofset = k_pool_node_head_size;
        for (int ni = 0; ofset <= c->area_size; ni++) {
            const pool_node* n = reinterpret_cast<const pool_node*>(c->chunk_addr + ofset - k_pool_node_head_size);
            if (n->mem_ofset != ofset || n->mem_size > c->area_size - ofset)
                break;
            void* data = c->chunk_addr + ofset;
            if (n->magic_0 == k_pool_magic_0)
                print("%-6d%-6d0x%-10x0x%-10x%-12p%-12d%-12s\n", ci, ni, n->usr_id, n->purpose, data,
                    static_cast<int>(n->mem_size), m_little ? "used" : static_cast<const char*>(data));
            else
                print("%-6d%-6d%-12s%-12s%-12p%-12d%-12s\n", ci, ni, "-", "-", data, static_cast<int>(n->mem_size),
                    "empty");
            ofset += n->mem_size + k_pool_node_head_size;
        }
    }
}

void utility_pool_base::dump_summary(print_fn print)
{
    struct usr_row {
        uint32_t usr_id;
        uint32_t used_size; // what the callers asked for
        uint32_t node_size; // headers and data areas
    } rows[k_max_dump_users];
    unsigned users = 0;
    int ci = 0;
    for (const utility_pool_chunk* c = m_chunk_head; c != nullptr; c = c->next, ci++) {
        print_chunk(print, ci, c);
        for (const pool_node* n = c->used_head; n != nullptr; n = n->next) {
            unsigned u = 0;
            while (u < users && rows[u].usr_id != n->usr_id)
                u++;
            if (u == users) {
                if (users == k_max_dump_users)
                    continue; // the table is full: later callers go uncounted here
                rows[users++] = { n->usr_id, 0, 0 };
            }
            rows[u].used_size += n->usr_mem_size;
            rows[u].node_size += k_pool_node_head_size + n->mem_size;
        }
    }
    for (unsigned u = 0; u < users; u++)
        print("usr_%d: usr_id = 0x%x, used_size = %d[%dKB], node_size = %d[%dKB]:\n", static_cast<int>(u),
            rows[u].usr_id, static_cast<int>(rows[u].used_size), kb(rows[u].used_size),
            static_cast<int>(rows[u].node_size), kb(rows[u].node_size));
}

void utility_pool_base::dump_total(print_fn print)
{
    uint32_t usr_size = 0;
    uint32_t empty_size = 0;
    uint32_t chunk_size = 0;
    for (const utility_pool_chunk* c = m_chunk_head; c != nullptr; c = c->next) {
        chunk_size += k_pool_chunk_head_size + c->area_size;
        for (const pool_node* n = c->used_head; n != nullptr; n = n->next)
            usr_size += n->usr_mem_size;
        for (const pool_node* n = c->empty_head; n != nullptr; n = n->next)
            empty_size += n->mem_size;
    }
    const int total = static_cast<int>(m_total_mem_size);
    if (m_little)
        print("m_total_mem_size = %d[%dKB], total_usr_size = %d[%dKB], total_empty_size = %d[%dKB], %s\n", total,
            kb(m_total_mem_size), static_cast<int>(usr_size), kb(usr_size), static_cast<int>(empty_size),
            kb(empty_size), m_cls);
    else
        print("m_total_mem_size = %d[%dKB], total_usr_size = %d[%dKB], total_empty_size = %d[%dKB] %s\n", total,
            kb(m_total_mem_size), static_cast<int>(usr_size), kb(usr_size), static_cast<int>(empty_size),
            kb(empty_size), m_cls);
    if (chunk_size != m_total_mem_size)
        print(
            "m_total_mem_size != total_chunk_size = %d[%dKb] why?????\n", static_cast<int>(chunk_size), kb(chunk_size));
}

VESK_ERR utility_pool_base::diagnose(int para, print_fn print)
{
    if (para != 1 && para != 2) {
        print("para = 0x%x not support!\n", para);
        return VESK_ERR_NOT_SUPPORT;
    }
    if (pthread_mutex_trylock(&m_lock) != 0) {
        print("sorry, try lock fail!\n");
        return VESK_ERR_LOCK_BUSY;
    }
    // 1 is the detailed view (every node), 2 the brief one (chunks and users).
    if (para == 1)
        dump_nodes(print);
    else
        dump_summary(print);
    dump_total(print);
    pthread_mutex_unlock(&m_lock);
    return VESK_OK;
}

// ---- String pool -----------------------------------------------------------------------------

namespace
{

// A split must leave an empty node of more than 8 bytes, else the node is used whole.
constexpr uint32_t k_string_whole_slack = 8;
// The little pools use a node whole unless the rest could hold a 32-byte request.
constexpr uint32_t k_little_whole_slack = 32;

#if UINTPTR_MAX == 0xFFFFFFFFu
// With need = len + 4: a node of at most len + 44 (string) or need + 64 (little) is used whole.
static_assert(k_pool_node_head_size + k_string_whole_slack == 40, "string pool split threshold");
static_assert(k_pool_node_head_size + k_little_whole_slack == 64, "little pool split threshold");
#endif

} // namespace

utility_string_pool::utility_string_pool()
    : utility_pool_base(
        { "utility_string_pool", k_string_pool_chunk_size, k_purpose_string_pool, k_string_whole_slack, false })
{
}

utility_string_pool::~utility_string_pool()
{
    VESK_ASSERT(0);
}

VESK_CHAR* utility_string_pool::strdup(
    vesk_user_id usr_id, vesk_memmory_purpose purpose, const VESK_CHAR* str, unsigned max_len, unsigned* out_len)
{
    if (out_len != nullptr)
        *out_len = 0;
    if (str == nullptr)
        return nullptr;
    // len and need must not wrap (a 4 GiB string on a 64-bit host); the heap refuses the rest.
    const size_t found = strnlen(str, max_len);
    if (found >= UINT32_MAX - k_pool_magic_1_size) {
        VESK_LOG_ERR("utility_string_pool", "len = %zu, too large!\n", found);
        return nullptr;
    }
    const uint32_t chars = static_cast<uint32_t>(found);
    const uint32_t len = chars + 1;
    const uint32_t need = len + k_pool_magic_1_size;

    VESK_CHAR* data;
    if (need >= k_string_pool_big_need) {
        VESK_LOG_DBG("utility_string_pool", "need_malloc_len = %d, use big buf!\n", static_cast<int>(need));
        data = static_cast<VESK_CHAR*>(heap().proc_vesk_malloc(usr_id, purpose, len, 1));
        if (data == nullptr)
            return nullptr;
        memcpy(data, str, chars);
        data[chars] = '\0';
    } else {
        if (vesk_fault_pool_hit()) {
            VESK_LOG_ERR("utility_string_pool", "need_malloc_len = %d, creat big buf fail!\n", static_cast<int>(need));
            return nullptr;
        }
        // The copy is made under the lock so that a dump never prints a half-written string.
        mutex_guard guard(m_lock);
        data = take_node(usr_id, purpose, need, len);
        if (data == nullptr) {
            VESK_LOG_DBG("utility_string_pool", "need_malloc_len = %d, creat big buf!\n", static_cast<int>(need));
            if (creat_chunk(true) == nullptr) {
                VESK_LOG_ERR(
                    "utility_string_pool", "need_malloc_len = %d, creat big buf fail!\n", static_cast<int>(need));
                return nullptr;
            }
            data = take_node(usr_id, purpose, need, len);
            VESK_ASSERT(data != NULL);
        }
        memcpy(data, str, chars);
        data[chars] = '\0';
    }
    if (out_len != nullptr)
        *out_len = chars;
    return data;
}

// ---- Little memory pool ----------------------------------------------------------------------

utility_little_mem_pool::utility_little_mem_pool(uint32_t chunk_size, vesk_memmory_purpose purpose)
    : utility_pool_base({ "utility_little_mem_pool", (chunk_size + 15) & ~15u, purpose, k_little_whole_slack, true })
{
    VESK_ASSERT(m_chunk_size > k_pool_chunk_head_size + k_pool_node_head_size);
}

utility_little_mem_pool::~utility_little_mem_pool()
{
    VESK_ASSERT(0);
}

void* utility_little_mem_pool::malloc(vesk_user_id usr_id, vesk_memmory_purpose purpose, unsigned size)
{
    // What a fresh chunk's one empty node holds; anything as large goes to the heap.
    const uint32_t room = m_chunk_size - k_pool_chunk_head_size - k_pool_node_head_size;
    if (size >= room)
        return heap().proc_vesk_malloc(usr_id, purpose, size, 1);
    const uint32_t need = ((size + 3) & ~3u) + k_pool_magic_1_size;
    if (need >= room)
        return heap().proc_vesk_malloc(usr_id, purpose, size, 1);
    if (vesk_fault_pool_hit())
        return nullptr;

    mutex_guard guard(m_lock);
    VESK_CHAR* data = take_node(usr_id, purpose, need, size);
    if (data == nullptr && creat_chunk(false) != nullptr)
        data = take_node(usr_id, purpose, need, size);
    return data;
}

} // namespace vesk_utility
