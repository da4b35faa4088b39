// vesk_utility_av_mng - creation of the block manager, the descriptor pool, push, the rotation
// rule that frees blocks, the user-bit tables, the reader registry and the diagnose dump.
#include "av/vesk_utility_av_mng.h"

#include <time.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

#include "av/vesk_utility_av_reader.h"
#include "core/vesk_utility_diagnose.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"
#include "core/vesk_utility_ground.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_utility_av_mng";
// GB2312: 诊断 块数据管理
constexpr const char* k_av_title = "\xD5\xEF\xB6\xCF \xBF\xE9\xCA\xFD\xBE\xDD\xB9\xDC\xC0\xED";
// GB2312: 1.查看通道块使用信息
constexpr const char* k_av_help = "1.\xB2\xE9\xBF\xB4\xCD\xA8\xB5\xC0\xBF\xE9\xCA\xB9\xD3\xC3\xD0\xC5\xCF\xA2\n"
                                  // GB2312: 2.开启调试打印
                                  "2.\xBF\xAA\xC6\xF4\xB5\xF7\xCA\xD4\xB4\xF2\xD3\xA1\n"
                                  // GB2312: 3.关闭调试打印
                                  "3.\xB9\xD8\xB1\xD5\xB5\xF7\xCA\xD4\xB4\xF2\xD3\xA1\n";
constexpr const char* k_str_labels[k_av_str_num]
    = {"VideoStream(Main)", "VideoStream(Sub)", "AudioStream", "SmartStream"};

// The library mutex of the cache (lock order 1).
std::mutex s_av_lock;
std::atomic<vesk_utility_av_mng*> s_av_mng {nullptr};

bool is_video(uint32_t str_type)
{
    return str_type == VESK_AV_STREAM_MAIN || str_type == VESK_AV_STREAM_SUB;
}

bool is_receiving(const vesk_IPC_stream_block_head* b)
{
    return b->receiving != 0;
}

} // namespace

vesk_av_time av_now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return vesk_av_time {static_cast<uint32_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec)};
}

int64_t av_diff_ms(const vesk_av_time& a, const vesk_av_time& b)
{
    return (static_cast<int64_t>(a.sec) - static_cast<int64_t>(b.sec)) * 1000
        + (static_cast<int64_t>(a.nsec) - static_cast<int64_t>(b.nsec)) / 1000000;
}

// ---- Creation ----------------------------------------------------------------------------

vesk_utility_av_mng* vesk_utility_av_mng::instance()
{
    vesk_utility_av_mng* p = s_av_mng.load(std::memory_order_acquire);
    if (p != nullptr)
        return p;
    std::lock_guard<std::mutex> guard(s_av_lock);
    p = s_av_mng.load(std::memory_order_relaxed);
    if (p == nullptr) {
        void* mem = vesk_malloc(VESK_USER_UTILITY, k_purpose_av_manager, sizeof(vesk_utility_av_mng),
            vesk_obj_align<vesk_utility_av_mng>());
        VESK_ASSERT(mem != NULL);
        p = new (mem) vesk_utility_av_mng(true);
        // The 0x88 slot: the allocator's wakeup_rotate pulls this task forward under pressure.
        vesk_utility_c_regist_timer(VESK_USER_UTILITY, rotate_block, VESK_TIMER_PURPOSE_ROTATE, k_av_rotate_regist_ms,
            p, VESK_TIMER_TASK_COMMON, k_av_rotate_first_ms);
        s_av_mng.store(p, std::memory_order_release);
    }
    return p;
}

vesk_utility_av_mng::vesk_utility_av_mng(bool regist_diag)
{
    memset(m_chn_blocks, 0, sizeof(m_chn_blocks));
    pthread_mutex_init(&m_pool_lock, nullptr);
    m_av_block_pool = static_cast<vesk_av_block*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_av_descriptors,
        sizeof(vesk_av_block) * k_av_pool_size, vesk_obj_align<vesk_av_block>()));
    VESK_ASSERT(m_av_block_pool != NULL);
    memset(m_av_block_pool, 0, sizeof(vesk_av_block) * k_av_pool_size);
    for (uint32_t i = 0; i < k_av_pool_size; i++) {
        m_av_block_pool[i].prev = i > 0 ? &m_av_block_pool[i - 1] : nullptr;
        m_av_block_pool[i].next = i + 1 < k_av_pool_size ? &m_av_block_pool[i + 1] : nullptr;
    }
    m_pool_last = &m_av_block_pool[k_av_pool_size - 1];
    m_free_head = m_av_block_pool;
    proc_init(regist_diag);
}

// Only managers of tests and benchmarks end: the lists are emptied, the pool returned.
vesk_utility_av_mng::~vesk_utility_av_mng()
{
    for (auto& chn : m_chn_blocks) {
        for (auto& list : chn.lists) {
            vesk_av_block* blk = list.head;
            while (blk != nullptr) {
                vesk_av_block* next = blk->next;
                proc_free_av_block(blk);
                blk = next;
            }
        }
        pthread_mutex_destroy(&chn.lock);
    }
    for (vesk_av_reader_v1*& r : m_readers) {
        if (r != nullptr) {
            r->~vesk_av_reader_v1();
            vesk_free(__FILE__, __func__, r);
            r = nullptr;
        }
    }
    vesk_free(__FILE__, __func__, m_av_block_pool);
    pthread_mutex_destroy(&m_pool_lock);
}

void vesk_utility_av_mng::proc_init(bool regist_diag)
{
    for (uint32_t i = 0; i < k_av_chn_num; i++) {
        m_ivr_to_ipc_idx[i] = i;
        vesk_av_chn_blocks& chn = m_chn_blocks[i];
        chn.ipc_idx = i;
        pthread_mutex_init(&chn.lock, nullptr);
        for (uint32_t t = 0; t < k_av_str_num; t++) {
            chn.lists[t].str_type = t;
            chn.lists[t].next_blk_id = k_av_first_blk_id;
        }
    }
    if (!regist_diag)
        return;
    vesk_diagnose_agent* diagnose = vesk_ground::instance()->get_diagnose();
    VESK_ASSERT(diagnose != NULL);
    diagnose->regist_diag(this, k_av_title, k_av_help);
}

// ---- Settings ----------------------------------------------------------------------------

void vesk_utility_av_mng::set_av_max_cache(uint32_t bytes)
{
    VESK_LOG_DBG(k_cls, "m_max_cache_bytes = %uMB!!!!!!!!\n", bytes >> 20);
    __atomic_store_n(&m_max_cache_bytes, bytes, __ATOMIC_RELAXED);
}

VESK_ERR vesk_utility_av_mng::set_chn_connect_status(uint32_t ipc_idx, uint32_t status)
{
    if (ipc_idx >= k_av_chn_num) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    __atomic_store_n(&m_chn_blocks[ipc_idx].connect_status, status, __ATOMIC_RELAXED);
    return VESK_OK;
}

VESK_ERR vesk_utility_av_mng::switch_ivr_ch(uint32_t ivr_ch_a, uint32_t ivr_ch_b)
{
    if (ivr_ch_a >= k_av_chn_num || ivr_ch_b >= k_av_chn_num) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> guard(s_av_lock);
    const uint32_t a = m_ivr_to_ipc_idx[ivr_ch_a];
    __atomic_store_n(&m_ivr_to_ipc_idx[ivr_ch_a], m_ivr_to_ipc_idx[ivr_ch_b], __ATOMIC_RELAXED);
    __atomic_store_n(&m_ivr_to_ipc_idx[ivr_ch_b], a, __ATOMIC_RELAXED);
    return VESK_OK;
}

uint32_t vesk_utility_av_mng::ipc_of(uint32_t ivr_ch)
{
    return __atomic_load_n(&m_ivr_to_ipc_idx[ivr_ch], __ATOMIC_RELAXED);
}

// ---- Descriptors and push ----------------------------------------------------------------

vesk_av_block* vesk_utility_av_mng::proc_malloc_av_block()
{
    pthread_mutex_lock(&m_pool_lock);
    vesk_av_block* av_blk = m_free_head;
    if (av_blk != nullptr) {
        m_free_head = av_blk->next;
        if (m_free_head != nullptr)
            m_free_head->prev = nullptr;
    }
    pthread_mutex_unlock(&m_pool_lock);
    if (av_blk == nullptr) {
        VESK_LOG_WARN(k_cls, "av_block not enough!!");
        av_blk = static_cast<vesk_av_block*>(vesk_malloc(
            VESK_USER_UTILITY, k_purpose_av_descriptors, sizeof(vesk_av_block), vesk_obj_align<vesk_av_block>()));
        VESK_ASSERT(av_blk != NULL);
    }
    memset(av_blk, 0, sizeof(*av_blk));
    return av_blk;
}

void vesk_utility_av_mng::proc_free_av_block(vesk_av_block* blk)
{
    vesk_free(__FILE__, __func__, blk->block);
    blk->block = nullptr;
    if (blk < m_av_block_pool || blk > m_pool_last) {
        vesk_free(__FILE__, __func__, blk);
        return;
    }
    pthread_mutex_lock(&m_pool_lock);
    blk->prev = nullptr;
    blk->next = m_free_head;
    if (m_free_head != nullptr)
        m_free_head->prev = blk;
    m_free_head = blk;
    pthread_mutex_unlock(&m_pool_lock);
}

uint32_t vesk_utility_av_mng::pool_free_count()
{
    uint32_t n = 0;
    pthread_mutex_lock(&m_pool_lock);
    for (vesk_av_block* b = m_free_head; b != nullptr; b = b->next)
        n++;
    pthread_mutex_unlock(&m_pool_lock);
    return n;
}

VESK_ERR vesk_utility_av_mng::push_av_block(uint32_t ipc_idx, vesk_IPC_stream_block_head* block)
{
    if (ipc_idx >= k_av_chn_num || block == nullptr) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    // The type first: a block of a foreign layout is refused before anything else is read.
    const uint32_t type = block->block_type;
    if (type >= k_av_str_num) {
        VESK_LOG_ERR(k_cls, "Invalid Block Type:%#x\n", type);
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_av_chn_blocks& chn = m_chn_blocks[ipc_idx];
    pthread_mutex_lock(&chn.lock);
    proc_push_av_block(chn.lists[type], block);
    pthread_mutex_unlock(&chn.lock);
    return VESK_OK;
}

void vesk_utility_av_mng::proc_push_av_block(vesk_av_stream_list& blks, vesk_IPC_stream_block_head* block)
{
    vesk_av_block* av_blk = proc_malloc_av_block();
    av_blk->blk_id = blks.next_blk_id;
    av_blk->block = block;
    av_blk->pending_str_usr = 0xFFFFFFFF;
    av_blk->pending_snap_usr = 0xFFFFFFFF;
    // The first measuring period starts with the stream, so that the first rate covers a
    // whole period of it.
    if (blks.next_blk_id == k_av_first_blk_id)
        blks.stat.period_start = av_now();
    if (blks.head == nullptr) {
        VESK_ASSERT(blks.blk_cnt == 0);
        blks.head = av_blk;
    } else {
        blks.tail->next = av_blk;
        av_blk->prev = blks.tail;
    }
    blks.tail = av_blk;
    blks.blk_cnt++;
    blks.next_blk_id++;
    blks.total_bytes += block->block_size;
}

// ---- Rotation ----------------------------------------------------------------------------

vesk_timer_ret_code vesk_utility_av_mng::rotate_block(void* user_param, unsigned* next_ms, vesk_timer_task_type*)
{
    VESK_ASSERT(user_param != NULL);
    static_cast<vesk_utility_av_mng*>(user_param)->rotate_pass(av_now());
    *next_ms = k_av_rotate_ms;
    return VESK_TIMER_RET_CONTINUE;
}

void vesk_utility_av_mng::rotate_pass(const vesk_av_time& now)
{
    vesk_av_block* out[k_av_rotate_batch];
    for (uint32_t ipc = 0; ipc < k_av_chn_num; ipc++) {
        vesk_av_chn_blocks& chn = m_chn_blocks[ipc];
        for (vesk_av_stream_list& list : chn.lists) {
            // The scratch array is bounded (it lives on the timer thread's stack): a list with
            // more to free than it holds is walked again at once.
            bool first = true;
            uint32_t n = 0;
            do {
                pthread_mutex_lock(&chn.lock);
                if (first)
                    proc_update_stat(list, now);
                first = false;
                const uint32_t cap = list.blk_cnt < k_av_rotate_batch ? list.blk_cnt : k_av_rotate_batch;
                n = cap != 0 ? proc_rotate_blk(ipc, list, out, cap, now) : 0;
                pthread_mutex_unlock(&chn.lock);
                for (uint32_t i = 0; i < n; i++)
                    proc_free_av_block(out[i]);
            } while (n == k_av_rotate_batch);
        }
    }
}

void vesk_utility_av_mng::proc_get_magic_by_ipc_idx(uint32_t ipc_idx, uint32_t str_type, uint32_t& str_mask,
    uint32_t& snap_mask, uint32_t (*str_purpose)[k_av_usr_bits], uint32_t (*snap_purpose)[k_av_usr_bits])
{
    for (uint32_t ivr = 0; ivr < k_av_chn_num; ivr++) {
        if (ipc_of(ivr) != ipc_idx)
            continue;
        // Read without the library mutex: a bit taken during the pass only keeps a block one
        // tick longer or shorter, which the next tick settles.
        const vesk_av_usr_magic& m = m_str_usr_magic[ivr];
        str_mask = __atomic_load_n(&m.mask[0][str_type], __ATOMIC_RELAXED);
        snap_mask = __atomic_load_n(&m.mask[1][str_type], __ATOMIC_RELAXED);
        for (uint32_t i = 0; i < k_av_usr_bits; i++) {
            if (str_purpose != nullptr)
                (*str_purpose)[i] = __atomic_load_n(&m.purpose[0][str_type][i], __ATOMIC_RELAXED);
            if (snap_purpose != nullptr)
                (*snap_purpose)[i] = __atomic_load_n(&m.purpose[1][str_type][i], __ATOMIC_RELAXED);
        }
        return;
    }
    VESK_LOG_WARN(k_cls, "ipc_idx = %d not find ivr_ch!\n", ipc_idx);
    str_mask = 0xFFFFFFFF;
    snap_mask = 0xFFFFFFFF;
    if (str_purpose != nullptr)
        memset(*str_purpose, 0, sizeof(*str_purpose));
    if (snap_purpose != nullptr)
        memset(*snap_purpose, 0, sizeof(*snap_purpose));
}

uint32_t vesk_utility_av_mng::proc_rotate_blk(
    uint32_t ipc_idx, vesk_av_stream_list& list, vesk_av_block** out, uint32_t cap, const vesk_av_time& now)
{
    // The protected set: the newest key-frame group, which snap users keep. A frame that
    // continues past its block drags the continuation blocks in, up to the first that starts
    // a frame of its own.
    vesk_av_block* prot_first = nullptr;
    vesk_av_block* prot_last = nullptr;
    if (is_video(list.str_type)) {
        for (vesk_av_block* b = list.tail; b != nullptr; b = b->prev) {
            if (b->block->key_flag != 0) {
                prot_first = prot_last = b;
                break;
            }
        }
        if (prot_first != nullptr && prot_first->block->node_num != 0
            && prot_first->block->last_key_idx == prot_first->block->node_num - 1) {
            for (vesk_av_block* b = prot_first->next; b != nullptr; b = b->next) {
                if (b->block->lead_tag != b->prev->block->trail_tag)
                    break;
                prot_last = b;
                if (b->block->node_num != 0)
                    break;
            }
        }
    }

    uint32_t str_mask = 0;
    uint32_t snap_mask = 0;
    uint32_t str_purpose[k_av_usr_bits];
    uint32_t snap_purpose[k_av_usr_bits];
    proc_get_magic_by_ipc_idx(ipc_idx, list.str_type, str_mask, snap_mask, &str_purpose, &snap_purpose);
    const uint32_t max = __atomic_load_n(&m_max_cache_bytes, __ATOMIC_RELAXED);
    const uint32_t total = vesk_mem_av_total();

    uint32_t n = 0;
    bool in_prot = false;
    vesk_av_block* blk = list.head;
    while (blk != nullptr && n < cap) {
        vesk_av_block* next = blk->next;
        if (blk == prot_first)
            in_prot = true;
        const bool protected_blk = in_prot;
        if (blk == prot_last)
            in_prot = false;
        const vesk_IPC_stream_block_head* b = blk->block;
        const int64_t ttl64 = av_diff_ms(now, b->rcv_time);
        const int ttl_ms = static_cast<int>(ttl64);
        if (ttl64 <= 199) {
            blk = next;
            continue;
        }
        if (blk->ref_cnt != 0 && !is_receiving(b)) {
            if (ttl64 >= 30001 && (ttl64 / 1000) % 30 == 0) {
                VESK_LOG_WARN(k_cls,
                    "ipc_%d type_%d blk_id_%llu ttl_ms = %d ref_cnt = %d, is_full = %d, block_state = %d, "
                    "pos = [%d/%d]!\n",
                    ipc_idx, list.str_type, static_cast<unsigned long long>(blk->blk_id), ttl_ms, blk->ref_cnt,
                    b->is_full, b->block_state, b->commit_pos, b->data_end);
                for (uint32_t i = 0; i < k_av_usr_bits; i++) {
                    if ((str_mask & blk->pending_str_usr) & (1u << i))
                        VESK_LOG_WARN(k_cls, "\n Stream User purpose = 0x%x, Not Off\n", str_purpose[i]);
                }
                for (uint32_t i = 0; i < k_av_usr_bits; i++) {
                    if ((snap_mask & blk->pending_snap_usr) & (1u << i))
                        VESK_LOG_WARN(k_cls, "\n Snap User purpose = 0x%x, Not Off\n", snap_purpose[i]);
                }
            }
            blk = next;
            continue;
        }
        if (is_receiving(b)) {
            if (next != nullptr && (ttl64 / 1000 + 1) % 5 == 0)
                VESK_LOG_WARN(k_cls,
                    "ipc_%d %d %llu ttl_ms = %d is_full = %d, block_state = %d, pos = [%d/%d], next != "
                    "NULL!\n",
                    ipc_idx, list.str_type, static_cast<unsigned long long>(blk->blk_id), ttl_ms, b->is_full,
                    b->block_state, b->commit_pos, b->data_end);
            blk = next;
            continue;
        }
        // Unreferenced and complete. Pressure frees it whoever still wants it; exactly 15 s is
        // a one-tick age limit kept on purpose.
        bool evict = (ttl64 <= 14999 && total >= max) || ttl64 == 15000 || (ttl64 > 15000 && total >= (max / 5) * 4);
        if (!evict) {
            if ((str_mask & blk->pending_str_usr) != 0)
                evict = false;
            else if ((snap_mask & blk->pending_snap_usr) != 0 && protected_blk)
                evict = false;
            else
                evict = true;
        }
        if (evict) {
            list.blk_cnt--;
            list.total_bytes -= b->block_size;
            if (blk->prev != nullptr)
                blk->prev->next = blk->next;
            else
                list.head = blk->next;
            if (blk->next != nullptr)
                blk->next->prev = blk->prev;
            else
                list.tail = blk->prev;
            blk->prev = blk->next = nullptr;
            out[n++] = blk;
        }
        blk = next;
    }
    return n;
}

// ---- User bits ---------------------------------------------------------------------------

int32_t vesk_utility_av_mng::malloc_magic_ofset(uint32_t ivr_ch, uint32_t usr_type, uint32_t str_type, uint32_t purpose)
{
    VESK_ASSERT(ivr_ch < VESK_ARRAY_DIM(m_str_usr_magic));
    if (str_type >= k_av_str_num) {
        VESK_LOG_ERR(k_cls, "ivr_ch = %u, usr_type = %d, str_type = %d, purpose = 0x%x over flow!\n\n", ivr_ch,
            usr_type, str_type, purpose);
        return -1;
    }
    const uint32_t tbl = usr_type != 0 ? 1 : 0;
    std::lock_guard<std::mutex> guard(s_av_lock);
    vesk_av_usr_magic& m = m_str_usr_magic[ivr_ch];
    const uint32_t mask = m.mask[tbl][str_type];
    if (mask == 0xFFFFFFFF) {
        VESK_LOG_ERR(k_cls, "ivr_ch = %u, usr_type = %d, str_type = %d, magic = 0x%x over flow!\n\n", ivr_ch, usr_type,
            str_type, mask);
        return -1;
    }
    const int32_t bit = __builtin_ctz(~mask);
    __atomic_store_n(&m.purpose[tbl][str_type][bit], purpose, __ATOMIC_RELAXED);
    __atomic_store_n(&m.mask[tbl][str_type], mask | (1u << bit), __ATOMIC_RELAXED);
    return bit;
}

void vesk_utility_av_mng::release_magic_ofset(uint32_t ivr_ch, uint32_t usr_type, uint32_t str_type, int32_t ofset)
{
    VESK_ASSERT(ivr_ch < VESK_ARRAY_DIM(m_str_usr_magic));
    if (str_type >= k_av_str_num || ofset < 0 || ofset >= static_cast<int32_t>(k_av_usr_bits))
        return;
    const uint32_t tbl = usr_type != 0 ? 1 : 0;
    std::lock_guard<std::mutex> guard(s_av_lock);
    vesk_av_usr_magic& m = m_str_usr_magic[ivr_ch];
    const uint32_t mask = m.mask[tbl][str_type];
    if ((mask & (1u << ofset)) == 0) {
        VESK_LOG_ERR(k_cls, "ivr_ch = %u, usr_type = %d, str_type = %d, ofset = %d, magic = 0x%x not set!\n\n", ivr_ch,
            usr_type, str_type, ofset, mask);
        return;
    }
    __atomic_store_n(&m.mask[tbl][str_type], mask & ~(1u << ofset), __ATOMIC_RELAXED);
    __atomic_store_n(&m.purpose[tbl][str_type][ofset], 0u, __ATOMIC_RELAXED);
}

// ---- Readers -----------------------------------------------------------------------------

vesk_av_reader* vesk_utility_av_mng::new_av_reader(
    vesk_av_reader_work_mode mode, vesk_av_reader_usr_type usr_type, vesk_av_reader_purpose purpose)
{
    std::lock_guard<std::mutex> guard(s_av_lock);
    for (vesk_av_reader_v1*& slot : m_readers) {
        if (slot != nullptr)
            continue;
        void* mem = vesk_malloc(
            VESK_USER_UTILITY, k_purpose_av_readers, sizeof(vesk_av_reader_v1), vesk_obj_align<vesk_av_reader_v1>());
        if (mem == nullptr)
            return nullptr;
        slot = new (mem) vesk_av_reader_v1(this, k_av_chn_num, mode, usr_type, purpose);
        m_reader_cnt++;
        return slot;
    }
    VESK_LOG_ERR(k_cls, "AV Reader OverFlow, Max:%zu\n", static_cast<size_t>(k_av_reader_max));
    return nullptr;
}

VESK_ERR vesk_utility_av_mng::delete_av_reader(vesk_av_reader* reader, const char* file, const char* func)
{
    if (reader == nullptr) {
        VESK_LOG_WARN(k_cls, "Invalid Param");
        return VESK_OK;
    }
    // The caller's pointer is only compared, never cast down or read, until a slot vouches for
    // it: not ours (never made here, or deleted already), the object may be gone.
    vesk_av_reader_v1* r = nullptr;
    {
        std::lock_guard<std::mutex> guard(s_av_lock);
        for (vesk_av_reader_v1*& slot : m_readers) { // O(320)
            if (slot != nullptr && static_cast<vesk_av_reader*>(slot) == reader) {
                r = slot;
                slot = nullptr;
                m_reader_cnt--;
                break;
            }
        }
    }
    if (r == nullptr) {
        VESK_LOG_ERR(k_cls, "%s, %s delete invalid!\n", file != nullptr ? file : "", func != nullptr ? func : "");
        VESK_ASSERT(0);
    }
    if (!r->is_free()) {
        if (file != nullptr && func != nullptr)
            VESK_LOG_ERR(k_cls, "%s %s AV Reader Reference Resouce Not Empty, Can't Delete\n", file, func);
        else
            VESK_LOG_ERR(k_cls, "AV Reader Reference Resouce Not Empty, Can't Delete");
        VESK_ASSERT(0);
    }
    r->~vesk_av_reader_v1();
    vesk_free(__FILE__, __func__, r);
    return VESK_OK;
}

uint32_t vesk_utility_av_mng::reader_count()
{
    std::lock_guard<std::mutex> guard(s_av_lock);
    return m_reader_cnt;
}

// ---- Diagnose ----------------------------------------------------------------------------

VESK_ERR vesk_utility_av_mng::diagnose(int para, print_fn print)
{
    switch (para) {
    case 1:
        dump(print);
        break;
    case 2:
        __atomic_store_n(&m_debug_print, 1u, __ATOMIC_RELAXED);
        break;
    case 3:
        __atomic_store_n(&m_debug_print, 0u, __ATOMIC_RELAXED);
        break;
    default:
        print("Wrong Param\n");
        break;
    }
    return VESK_OK;
}

void vesk_utility_av_mng::dump(print_fn print)
{
    print("Current AV Reader Count:%u, total_cache = %uMB, max_cache = %uMB\n\n", reader_count(),
        vesk_mem_av_total() >> 20, __atomic_load_n(&m_max_cache_bytes, __ATOMIC_RELAXED) >> 20);
    double all_kb = 0;
    for (uint32_t ipc = 0; ipc < k_av_chn_num; ipc++) {
        vesk_av_chn_blocks& chn = m_chn_blocks[ipc];
        print("Chn%u Stream Block Detail Info:\n", ipc);
        double chn_kb = 0;
        for (uint32_t t = 0; t < k_av_str_num; t++) {
            // A snapshot under the lock; the console is written without it.
            pthread_mutex_lock(&chn.lock);
            const vesk_av_stream_list& list = chn.lists[t];
            const uint32_t cnt = list.blk_cnt;
            const uint32_t bytes = list.total_bytes;
            const vesk_stream_stat_info info = list.stat.info;
            pthread_mutex_unlock(&chn.lock);
            char label[64] = "";
            if (is_video(t) && cnt != 0) {
                const uint32_t c = info.last_frame.ucCodec;
                const char* name = (c == 1 || c == 4 || c == 8) ? "H264"
                    : c == 2                                    ? "MJPEG"
                    : c == 16                                   ? "H265"
                                                                : "Unknow";
                snprintf(label, sizeof(label), "[%s %uX%u]", name, info.last_frame.usWidth, info.last_frame.usHeight);
            }
            const double kb = bytes / 1024.0;
            chn_kb += kb;
            print("\t%s Occupy [%u]Blocks, Consume %0.2f[KB], Stream Disconnect:%s, [%0.2f]kbps, [%0.2f]fps, Gop "
                  "Interval:%u %s\n",
                k_str_labels[t], cnt, kb, info.disconnected != 0 ? "Yes" : "No", static_cast<double>(info.kbps),
                static_cast<double>(info.fps), info.codec, label);
        }
        print("\tChn%u Consume %0.2f[KB]\n\n", ipc, chn_kb);
        all_kb += chn_kb;
    }
    print("\nBlock Manage Consume %0.2fMB\n", all_kb / 1024.0);
}

} // namespace vesk_utility
