// vesk_utility_av_reader - a consumer's cursor into the block cache: frame and block
// selection, references and user bits, joined copies of split frames, logo frames and pacing.
//
// Divisions: helpers; channel, user bits and history; get_frame/put_frame; pacing;
// get_block/put_block.
#include "av/vesk_utility_av_reader.h"

#include <cstring>

#include "av/vesk_utility_av_mng.h"
#include "av/vesk_utility_av_walk.h"
#include "core/vesk_utility_log.h"
#include "vesk_utility_memory.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_av_reader_v1";
constexpr uint32_t k_default_interval_ms = k_av_default_interval_ms;
constexpr uint32_t k_invalid_interval_ms = 5000;
constexpr int64_t k_block_hold_ms = 60000; // a receiving block is handed out after this long
constexpr int64_t k_pace_period_ms = 30000;
constexpr int32_t k_min_remain_th = 2;
constexpr int32_t k_max_remain_th = 15;
constexpr int32_t k_sleep_ofset_ms = 40;

} // namespace

// ---- Channel, user bits and history ----------------------------------------------------------

vesk_av_reader_v1::vesk_av_reader_v1(vesk_utility_av_mng* mng, uint32_t max_chn, vesk_av_reader_work_mode mode,
    vesk_av_reader_usr_type usr_type, vesk_av_reader_purpose purpose)
    : m_mng(mng)
    , m_max_chn(max_chn)
    , m_work_mode(mode)
    , m_usr_type(usr_type)
    , m_purpose(purpose)
{
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        clear_history(t, false);
}

vesk_av_reader_v1::~vesk_av_reader_v1()
{
    VESK_ASSERT(m_reader_info.ref_cnt + m_reader_info.extra_ref_cnt == 0);
    release_all_magic();
}

void vesk_av_reader_v1::release_all_magic()
{
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        release_usr_magic(static_cast<vesk_av_stream_type>(t));
}

VESK_ERR vesk_av_reader_v1::set_chn(uint32_t chn)
{
    if (chn >= m_max_chn) {
        VESK_LOG_ERR(k_cls, "Chn:%u Invalid, Max:%u\n", chn, m_max_chn);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (chn == m_ivr_ch)
        return VESK_OK;
    if (!is_free()) {
        VESK_LOG_ERR(k_cls, "AV Reader Reference Resouce Not Empty, Can't Change Chn");
        VESK_ASSERT(0);
    }
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        clear_history(t, false);
    release_all_magic();
    m_ivr_ch = chn;
    return VESK_OK;
}

VESK_ERR vesk_av_reader_v1::get_chn(uint32_t* chn)
{
    if (chn == nullptr) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    *chn = m_ivr_ch;
    return VESK_OK;
}

VESK_ERR vesk_av_reader_v1::release_usr_magic(vesk_av_stream_type str_type)
{
    if (str_type >= VESK_AV_STREAM_NUM) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (m_usr_magic_ofset[str_type] >= 0) {
        m_mng->release_magic_ofset(m_ivr_ch, m_usr_type, str_type, m_usr_magic_ofset[str_type]);
        m_usr_magic_ofset[str_type] = -1;
        m_ref_info[str_type].bit_time = av_now();
    }
    return VESK_OK;
}

int32_t vesk_av_reader_v1::usr_magic(uint32_t str_type)
{
    if (str_type >= VESK_AV_STREAM_NUM || m_ivr_ch >= m_max_chn)
        return -1;
    if (m_usr_magic_ofset[str_type] < 0)
        m_usr_magic_ofset[str_type] = m_mng->malloc_magic_ofset(m_ivr_ch, m_usr_type, str_type, m_purpose);
    return m_usr_magic_ofset[str_type];
}

void vesk_av_reader_v1::clear_bit(uint32_t str_type, vesk_av_block* blk, bool stream_mask_only)
{
    const int32_t bit = m_usr_magic_ofset[str_type];
    if (bit < 0)
        return;
    if (m_usr_type != VESK_AV_READER_STREAM_USER && !stream_mask_only)
        blk->pending_snap_usr &= ~(1u << bit);
    else
        blk->pending_str_usr &= ~(1u << bit);
}

VESK_ERR vesk_av_reader_v1::set_work_mode(vesk_av_reader_work_mode mode)
{
    if (mode == m_work_mode)
        return VESK_OK;
    m_work_mode = mode;
    for (vesk_ref_info& r : m_ref_info) {
        memset(&r.pace, 0, sizeof(r.pace));
        r.pace.min_remain_th = k_min_remain_th;
    }
    return VESK_OK;
}

void vesk_av_reader_v1::clear_history(uint32_t str_type, bool keep_put_times)
{
    vesk_ref_info& r = m_ref_info[str_type];
    const vesk_av_time put_time = r.put_time;
    const vesk_av_time bit_time = r.bit_time;
    memset(&r, 0, sizeof(r));
    r.last_idx = -1;
    r.pace.min_remain_th = k_min_remain_th;
    if (keep_put_times) {
        r.put_time = put_time;
        r.bit_time = bit_time;
    }
    m_last_ipc_idx[str_type] = 0xFFFFFFFF;
    m_force_skip[str_type] = false;
}

void vesk_av_reader_v1::proc_reset_history(uint32_t str_type, bool keep_put_times)
{
    const vesk_ref_info& r = m_ref_info[str_type];
    if (r.curr_ref_blk != nullptr || r.curr_ref_frame != nullptr) {
        VESK_LOG_ERR(k_cls, "AV Reader StreamType:%#x Reference Resouce Not Empty, Can't Reset\n", str_type);
        VESK_ASSERT(0);
    }
    clear_history(str_type, keep_put_times);
}

VESK_ERR vesk_av_reader_v1::reset_history(vesk_av_stream_type str_type)
{
    if (str_type >= VESK_AV_STREAM_NUM) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    proc_reset_history(str_type);
    return VESK_OK;
}

void vesk_av_reader_v1::reset_if_remapped(uint32_t str_type, uint32_t ipc, bool keep_put_times)
{
    if (m_ref_info[str_type].last_blk_id != 0 && m_last_ipc_idx[str_type] != ipc)
        proc_reset_history(str_type, keep_put_times);
}

// A held reference lives in the list of the IPC index it was taken from, whatever the map
// says now: release it there. A remap in between is logged, not fatal, since another module
// may switch channels at any moment.
uint32_t vesk_av_reader_v1::held_ipc(uint32_t str_type)
{
    const uint32_t last = m_last_ipc_idx[str_type];
    VESK_ASSERT(last < k_av_chn_num && m_mng->chn_blocks(last).ipc_idx == last);
    const uint32_t cur = m_mng->ipc_of(m_ivr_ch);
    if (cur != last)
        VESK_LOG_WARN(k_cls, "StreamType:%#x ivr_ch_%d, last_ipc_idx = %d, cur_ipc_idx = %d why?\n", str_type, m_ivr_ch,
            last, cur);
    return last;
}

// ---- Frames ----------------------------------------------------------------------------------

bool vesk_av_reader_v1::logo_frame(uint32_t str_type, uint32_t ipc, _tagVeskFrameHeader** frame)
{
    vesk_av_chn_blocks& chn = m_mng->chn_blocks(ipc);
    vesk_logo_type type;
    if (__atomic_load_n(&chn.connect_status, __ATOMIC_RELAXED) == 0)
        type = VESK_LOGO_NOT_CONNECT_CAMERA;
    else if (chn.lists[str_type].stat.info.disconnected != 0)
        type = VESK_LOGO_NO_VIDEO;
    else
        return false;
    uint32_t len = 0;
    // Without logo files the cache is read as it is: it simply has nothing new.
    return vesk_utility_get_logo_frame(type, str_type == VESK_AV_STREAM_MAIN ? 1 : 0, frame, &len) == VESK_OK;
}

bool vesk_av_reader_v1::proc_skip_to_key(uint32_t str_type, vesk_av_block*& blk, int32_t& idx)
{
    vesk_av_block* const from = blk;
    if (!av_next_key(blk, idx))
        return false;
    // The passed blocks are done with for this reader.
    for (vesk_av_block* p = from; p != blk; p = p->next)
        clear_bit(str_type, p);
    return true;
}

// Steps 1-5 of the selection. On FETCH_OK blk/idx name the frame handed out. O(blk_cnt).
uint32_t vesk_av_reader_v1::proc_get_frame(
    uint32_t str_type, vesk_av_stream_list& list, uint32_t flag, vesk_av_block*& blk, int32_t& idx, fetch_out& out)
{
    vesk_ref_info& r = m_ref_info[str_type];
    vesk_av_block* b = nullptr;
    int32_t i = 0;
    bool from_start = false;
    if (r.last_blk_id == 0) {
        // Start point: the newest key frame (video) or the newest frame (other streams).
        if (!av_start_point(str_type, list, b, i))
            return FETCH_WAIT;
        from_start = true;
    } else {
        b = av_find_blk(list, r.last_blk_id);
        if (b == nullptr) {
            // Rotated out: blocks up to it are done with; resume at the first newer frame.
            if (!av_resume_after(list, r.last_blk_id, b, [&](vesk_av_block* x) { clear_bit(str_type, x); }))
                return FETCH_WAIT;
            i = 0;
        } else {
            i = r.last_idx + 1;
        }
    }

    for (uint32_t round = 0;; round++) {
        // Step 3: past the block's frames, move on once it is complete.
        while (i >= static_cast<int32_t>(b->block->node_num)) {
            if (!av_blk_idle(b))
                return FETCH_WAIT;
            clear_bit(str_type, b);
            if (b->next == nullptr)
                return FETCH_WAIT;
            b = b->next;
            i = 0;
        }
        // Step 4: a video reader takes only the very next frame number or a key frame.
        if (av_is_video(str_type)) {
            const vesk_av_frame_node* cand = av_node(b, static_cast<uint32_t>(i));
            const bool in_order = r.has_fno && cand->frame_no == r.last_fno + 1 && !m_force_skip[str_type];
            if (!in_order && !av_is_key(cand->frame_type)) {
                vesk_av_block* k = b;
                int32_t j = i;
                if (!proc_skip_to_key(str_type, k, j))
                    return FETCH_WAIT;
                const vesk_av_frame_node* key = av_node(k, static_cast<uint32_t>(j));
                if (!m_force_skip[str_type] && flag == 0) {
                    vesk_av_block* last = r.last_blk_id != 0 ? av_find_blk(list, r.last_blk_id) : nullptr;
                    if (last != nullptr)
                        VESK_LOG_WARN(k_cls,
                            "ch_%d last_ref_blk[%llu_%u/%u], jump to blk[%llu_%u] Fno[%u] type_0x%x, drop %u "
                            "frames!\n",
                            m_ivr_ch, static_cast<unsigned long long>(last->blk_id), r.last_idx, last->block->node_num,
                            static_cast<unsigned long long>(k->blk_id), j, key->frame_no, key->frame_type,
                            key->frame_no - r.last_fno);
                    else
                        VESK_LOG_WARN(k_cls,
                            "ch_%d last_ref_blk = NULL, jump to blk[%llu_%u] Fno[%u] type_0x%x, drop %u frames!\n",
                            m_ivr_ch, static_cast<unsigned long long>(k->blk_id), j, key->frame_no, key->frame_type,
                            key->frame_no - r.last_fno);
                }
                b = k;
                i = j;
            }
        }
        // Step 5.
        const uint32_t ret = av_fetch_one_frame(k_cls, m_ivr_ch, str_type, b, static_cast<uint32_t>(i), out);
        if (ret == FETCH_OK) {
            blk = b;
            idx = i;
            return ret;
        }
        if (ret != FETCH_DROP || round > list.blk_cnt) {
            if (from_start && ret != FETCH_WAIT)
                VESK_LOG_WARN(k_cls, "%s",
                    av_node(b, static_cast<uint32_t>(i))->frame_type == VESK_FRAME_TYPE_I ? "fetch I fail!"
                                                                                          : "fetch VI fail!");
            return ret;
        }
        VESK_LOG_WARN(k_cls, "ch_%d jump [%llu_%u] to [%llu_%u]\n", m_ivr_ch,
            static_cast<unsigned long long>(b->blk_id), i, static_cast<unsigned long long>(out.next_blk->blk_id), 0);
        for (vesk_av_block* p = b; p != out.next_blk; p = p->next)
            clear_bit(str_type, p);
        b = out.next_blk;
        i = 0;
        r.last_blk_id = b->blk_id;
        r.last_idx = -1;
        from_start = false;
    }
}

VESK_ERR vesk_av_reader_v1::get_frame(
    vesk_av_stream_type str_type, _tagVeskFrameHeader** frame, uint32_t flag, uint32_t* next_interval)
{
    if (str_type >= VESK_AV_STREAM_NUM || frame == nullptr || next_interval == nullptr || m_ivr_ch >= m_max_chn) {
        VESK_LOG_ERR(k_cls, "Invalid Param, m_ivr_ch not set!");
        if (next_interval != nullptr)
            *next_interval = k_invalid_interval_ms;
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_ref_info& r = m_ref_info[str_type];
    if (r.curr_ref_frame != nullptr) {
        *frame = r.curr_ref_frame;
        *next_interval = k_default_interval_ms;
        return VESK_OK;
    }
    *frame = nullptr;
    if (r.curr_ref_blk != nullptr) {
        VESK_LOG_ERR(k_cls, "StreamType:%#x holds a block, put it first\n", str_type);
        *next_interval = k_invalid_interval_ms;
        return VESK_ERR_OPERATE_FAIL;
    }
    const uint32_t ipc = m_mng->ipc_of(m_ivr_ch);
    if (m_force_reset[str_type]) {
        m_force_reset[str_type] = false;
        proc_reset_history(str_type);
    }
    reset_if_remapped(str_type, ipc, false);
    usr_magic(str_type);
    const vesk_av_time now = av_now();
    const vesk_av_time last_call = r.call_time;
    r.call_time = now;

    vesk_av_chn_blocks& chn = m_mng->chn_blocks(ipc);
    vesk_av_stream_list& list = chn.lists[str_type];
    pthread_mutex_lock(&chn.lock);
    _tagVeskFrameHeader* logo = nullptr;
    if (av_is_video(str_type) && logo_frame(str_type, ipc, &logo)) {
        pthread_mutex_unlock(&chn.lock);
        r.curr_ref_frame = logo;
        r.frame_is_copy = false;
        *frame = logo;
        *next_interval = k_default_interval_ms;
        return VESK_OK;
    }
    vesk_av_block* b = nullptr;
    int32_t i = -1;
    fetch_out out {};
    const uint32_t ret = proc_get_frame(str_type, list, flag, b, i, out);
    // A history moved past a dropped block belongs to this list even when nothing was handed
    // out: the next call resumes there instead of dropping the same block again.
    if (r.last_blk_id != 0)
        m_last_ipc_idx[str_type] = ipc;
    if (ret == FETCH_OK) {
        if (out.copy) {
            m_reader_info.extra_ref_cnt++;
        } else {
            b->ref_cnt++;
            m_reader_info.ref_cnt++;
            r.curr_ref_blk = b;
        }
        const uint32_t fno = out.frame->uiFrameNo;
        if (m_mng->debug_print() && str_type != VESK_AV_STREAM_SMART && r.has_fno && fno != r.last_fno + 1)
            VESK_LOG_WARN(k_cls,
                "ch_%d Last blk[%llu_%u] Fno[%u] type_0x%x, Cur blk[%llu_%u] Fno[%u] type_0x%x, drop %u frames!\n",
                m_ivr_ch, static_cast<unsigned long long>(r.last_blk_id), r.last_idx, r.last_fno,
                r.last_head.uiFrameType, static_cast<unsigned long long>(b->blk_id), i, fno, out.frame->uiFrameType,
                fno - r.last_fno);
        r.last_idx = i;
        r.last_head = *out.frame;
        r.curr_ref_frame = out.frame;
        r.frame_is_copy = out.copy;
        r.last_blk_id = b->blk_id;
        r.last_fno = fno;
        r.has_fno = true;
        m_last_ipc_idx[str_type] = ipc;
        m_force_skip[str_type] = false;
    }
    *next_interval = next_interval_of(str_type, ret == FETCH_OK ? &out : nullptr, b, i, now, last_call);
    pthread_mutex_unlock(&chn.lock);
    if (ret == FETCH_OK) {
        *frame = out.frame;
        return VESK_OK;
    }
    return ret == FETCH_NO_MEM ? VESK_ERR_NO_RESOURCE : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR vesk_av_reader_v1::put_frame(vesk_av_stream_type str_type, _tagVeskFrameHeader* frame)
{
    if (str_type >= VESK_AV_STREAM_NUM) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_ref_info* ref_info = &m_ref_info[str_type];
    if (frame == nullptr || frame != ref_info->curr_ref_frame) {
        VESK_LOG_ERR(k_cls, "ch_%d StreamType:%#x frame = %p, curr_ref_frame = %p Not Match\n", m_ivr_ch, str_type,
            static_cast<void*>(frame), static_cast<void*>(ref_info->curr_ref_frame));
        VESK_ASSERT(frame == ref_info->curr_ref_frame);
    }
    if (ref_info->frame_is_copy) {
        VESK_ASSERT(m_reader_info.extra_ref_cnt > 0);
        vesk_utility_av_reader_free(__FILE__, __func__, frame);
        m_reader_info.extra_ref_cnt--;
    } else if (ref_info->curr_ref_blk != nullptr) {
        vesk_av_chn_blocks& chn = m_mng->chn_blocks(held_ipc(str_type));
        pthread_mutex_lock(&chn.lock);
        VESK_ASSERT(ref_info->curr_ref_blk->ref_cnt > 0);
        ref_info->curr_ref_blk->ref_cnt--;
        pthread_mutex_unlock(&chn.lock);
        VESK_ASSERT(m_reader_info.ref_cnt > 0);
        m_reader_info.ref_cnt--;
        ref_info->curr_ref_blk = nullptr;
    } // else a logo frame: it holds nothing
    ref_info->curr_ref_frame = nullptr;
    ref_info->frame_is_copy = false;
    return VESK_OK;
}

// ---- Pacing ----------------------------------------------------------------------------------

// Frames cached after (b, idx), and the frame-number distance to the next key frame among
// them (0: none). O(remaining frames). REQUIRES: the channel lock.
static int32_t remain_after(const vesk_av_block* b, int32_t idx, uint32_t fno, uint32_t& key_ahead)
{
    int32_t remain = 0;
    key_ahead = 0;
    for (uint32_t j = static_cast<uint32_t>(idx + 1); b != nullptr; b = b->next, j = 0) {
        for (; j < b->block->node_num; j++) {
            remain++;
            const vesk_av_frame_node* n = b->block->frame_index[j];
            if (key_ahead == 0 && av_is_key(n->frame_type))
                key_ahead = n->frame_no - fno;
        }
    }
    return remain;
}

void vesk_av_reader_v1::pace_period(uint32_t str_type, const vesk_av_time& now)
{
    pace_info& p = m_ref_info[str_type].pace;
    if (p.period_start.sec == 0 && p.period_start.nsec == 0)
        p.period_start = now;
    if (av_diff_ms(now, p.period_start) < k_pace_period_ms && (p.call_cnt == 0 || p.fail_cnt == 0))
        return;
    const int32_t old = p.min_remain_th;
    if (p.call_cnt == 0)
        p.min_remain_th = k_min_remain_th;
    else if (p.fail_cnt != 0 && !(p.min_remain_th > k_max_remain_th || p.max_remain < p.min_remain_th))
        p.min_remain_th++;
    else if (p.fail_cnt == 0 && p.min_remain != 0 && p.min_remain_th > k_min_remain_th)
        p.min_remain_th--;
    if (p.min_remain_th != old)
        VESK_LOG_WARN(k_cls, "ch_%d, remain_%d, fail_%d, adj %d to %d\n", m_ivr_ch, p.min_remain, p.fail_cnt, old,
            p.min_remain_th);
    p.call_cnt = 0;
    p.fail_cnt = 0;
    p.min_remain = 0;
    p.max_remain = 0;
    p.period_start = now;
}

uint32_t vesk_av_reader_v1::next_interval_of(uint32_t str_type, const fetch_out* out, const vesk_av_block* b,
    int32_t idx, const vesk_av_time& now, const vesk_av_time& last_call)
{
    pace_info& p = m_ref_info[str_type].pace;
    if (m_work_mode != VESK_AV_READER_REAL_TIME || !av_is_video(str_type)) {
        if (out != nullptr && out->interval != 0) {
            p.last_interval = out->interval;
            return 0;
        }
        return p.last_interval != 0 ? p.last_interval : k_default_interval_ms;
    }
    if (out == nullptr) {
        if (p.call_cnt != 0)
            p.fail_cnt++;
        pace_period(str_type, now);
        return p.last_interval != 0 ? p.last_interval : k_default_interval_ms;
    }

    uint32_t key_ahead = 0;
    const int32_t remain = remain_after(b, idx, out->frame->uiFrameNo, key_ahead);
    const int32_t th = p.min_remain_th;
    int32_t interval = static_cast<int32_t>(out->interval != 0 ? out->interval : k_default_interval_ms);
    if (p.call_cnt == 0 || remain < p.min_remain)
        p.min_remain = remain;
    if (p.call_cnt == 0 || remain > p.max_remain)
        p.max_remain = remain;
    p.call_cnt++;
    const char* fmt_skip = "ch_%d, stream_type_%d remain = %d, min_remain_th = %d, force skip %d frame\n";
    if (remain > th + 60) {
        VESK_LOG_WARN(k_cls, "ch_%d, stream_type_%d remain = %d, min_remain_th = %d, force reset history\n", m_ivr_ch,
            str_type, remain, th);
        m_force_reset[str_type] = true;
    } else if (remain > th + 50) {
        VESK_LOG_WARN(k_cls, "ch_%d, stream_type_%d remain = %d, min_remain_th = %d, force skip next I\n", m_ivr_ch,
            str_type, remain, th);
        m_force_skip[str_type] = true;
        interval -= interval / 2;
    } else if (remain > th + 20) {
        // Skip the frames in front of a key frame that is just ahead.
        const uint32_t ahead = remain > th + 40 ? 4 : remain > th + 30 ? 3 : 2;
        if (key_ahead == ahead) {
            VESK_LOG_WARN(k_cls, fmt_skip, m_ivr_ch, str_type, remain, th, static_cast<int32_t>(ahead - 1));
            m_force_skip[str_type] = true;
        }
        interval -= interval / (ahead == 2 ? 4 : 3);
    } else if (remain > th + 10) {
        interval -= interval / 4;
    } else if (remain > th) {
        interval -= interval / 8;
    } else if (remain < th) {
        interval += interval / 20;
        if (interval == 0)
            interval = static_cast<int32_t>(p.last_interval) + 2;
    }
    pace_period(str_type, now);

    const bool debug = m_mng->debug_print();
    if (debug)
        VESK_LOG_WARN(k_cls, "ch_%d, stream_type_%d call_interval = %dms, send_ok_interval = %dms\n", m_ivr_ch,
            str_type, static_cast<int32_t>(av_diff_ms(now, last_call)),
            static_cast<int32_t>(av_diff_ms(now, p.send_time)));
    if (p.last_interval != 0 && (p.send_time.sec != 0 || p.send_time.nsec != 0)) {
        const int32_t real_sleep = static_cast<int32_t>(av_diff_ms(now, p.send_time));
        const int32_t ofset = real_sleep - static_cast<int32_t>(p.last_interval);
        const int32_t need = interval;
        if (ofset >= -k_sleep_ofset_ms && ofset <= k_sleep_ofset_ms)
            interval = interval > ofset ? interval - ofset : 0;
        if (debug)
            VESK_LOG_DBG(k_cls, "ch_%d need_sleep = %d real_sleep = %d ofset = %d, next_sleep = %dms\n", m_ivr_ch, need,
                real_sleep, ofset, interval);
    }
    if (interval == 0)
        interval = static_cast<int32_t>(p.last_interval != 0 ? p.last_interval : k_default_interval_ms);
    p.last_interval = static_cast<uint32_t>(interval);
    p.send_time = now;
    if (debug)
        VESK_LOG_WARN(
            k_cls, "ch_%d, stream_type_%d remain = %d, next_interval = %dms\n", m_ivr_ch, str_type, remain, interval);
    return p.last_interval;
}

// ---- Blocks ----------------------------------------------------------------------------------

VESK_ERR vesk_av_reader_v1::proc_get_block(
    uint32_t str_type, uint32_t ipc, vesk_av_stream_list& list, vesk_IPC_stream_block_head** block, bool force)
{
    vesk_ref_info& r = m_ref_info[str_type];
    vesk_av_block* b = nullptr;
    if (r.last_blk_id == 0) {
        b = list.head; // a new reader starts with the oldest cached block
    } else if (vesk_av_block* last = av_find_blk(list, r.last_blk_id)) {
        if (av_blk_idle(last) && last->block->commit_pos >= last->block->data_end) {
            clear_bit(str_type, last, true);
            b = last->next;
        } else {
            b = last; // handed out again while it grows
        }
    } else {
        for (vesk_av_block* x = list.head; x != nullptr; x = x->next) {
            if (x->blk_id > r.last_blk_id) {
                b = x;
                break;
            }
            clear_bit(str_type, x, true);
        }
    }
    if (b == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    // Only complete frames count, and a block holding nothing but the end of the previous
    // block's frame has nothing to read.
    const vesk_IPC_stream_block_head* h = b->block;
    if (h->commit_pos <= h->cont_len)
        return VESK_ERR_OPERATE_FAIL;
    const vesk_av_time now = av_now();
    if (!force && h->block_state != 1 && h->receiving != 0
        && (av_diff_ms(now, r.get_time) < k_block_hold_ms || av_diff_ms(now, h->rcv_time) < k_block_hold_ms))
        return VESK_ERR_OPERATE_FAIL;
    if (r.last_blk_id != 0 && b->blk_id != r.last_blk_id && b->blk_id != r.last_blk_id + 1)
        VESK_LOG_WARN(k_cls,
            "ch_%d StreamType_%d light_0x%x_%d reftime[%lu.%lu to %lu.%lu %dms], calltime[%lu.%lu to %lu.%lu %dms] "
            "pausetime[%dms] Last[%llu], Current[%llu] drop %llu blocks\n",
            m_ivr_ch, str_type, b->pending_str_usr, m_usr_magic_ofset[str_type],
            static_cast<unsigned long>(r.get_time.sec), static_cast<unsigned long>(r.get_time.nsec / 1000000),
            static_cast<unsigned long>(r.put_time.sec), static_cast<unsigned long>(r.put_time.nsec / 1000000),
            static_cast<int32_t>(av_diff_ms(r.put_time, r.get_time)), static_cast<unsigned long>(r.get_time.sec),
            static_cast<unsigned long>(r.get_time.nsec / 1000000), static_cast<unsigned long>(now.sec),
            static_cast<unsigned long>(now.nsec / 1000000), static_cast<int32_t>(av_diff_ms(now, r.get_time)),
            static_cast<int32_t>(av_diff_ms(now, r.bit_time)), static_cast<unsigned long long>(r.last_blk_id),
            static_cast<unsigned long long>(b->blk_id), static_cast<unsigned long long>(b->blk_id - 1 - r.last_blk_id));
    b->ref_cnt++;
    r.get_time = now;
    r.curr_ref_blk = b;
    r.last_blk_id = b->blk_id;
    m_last_ipc_idx[str_type] = ipc;
    m_reader_info.ref_cnt++;
    *block = b->block;
    return VESK_OK;
}

VESK_ERR vesk_av_reader_v1::get_block(vesk_av_stream_type str_type, vesk_IPC_stream_block_head** block, VESK_BOOL force)
{
    if (str_type >= VESK_AV_STREAM_NUM || block == nullptr || m_ivr_ch >= m_max_chn) {
        VESK_LOG_ERR(k_cls, "Invalid Param, m_ivr_ch not set!");
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_ref_info& r = m_ref_info[str_type];
    if (r.curr_ref_blk != nullptr && r.curr_ref_frame == nullptr) {
        VESK_LOG_WARN(k_cls, "AV Reader Get Block Repeat");
        *block = r.curr_ref_blk->block;
        return VESK_OK;
    }
    *block = nullptr;
    if (r.curr_ref_frame != nullptr) {
        VESK_LOG_ERR(k_cls, "StreamType:%#x holds a frame, put it first\n", str_type);
        return VESK_ERR_OPERATE_FAIL;
    }
    const uint32_t ipc = m_mng->ipc_of(m_ivr_ch);
    reset_if_remapped(str_type, ipc, true);
    usr_magic(str_type);
    vesk_av_chn_blocks& chn = m_mng->chn_blocks(ipc);
    pthread_mutex_lock(&chn.lock);
    const VESK_ERR ret = proc_get_block(str_type, ipc, chn.lists[str_type], block, force != 0);
    pthread_mutex_unlock(&chn.lock);
    return ret;
}

VESK_ERR vesk_av_reader_v1::put_block(vesk_av_stream_type str_type, vesk_IPC_stream_block_head* block)
{
    if (str_type >= VESK_AV_STREAM_NUM) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_ref_info* ref_info = &m_ref_info[str_type];
    if (ref_info->curr_ref_frame != nullptr || ref_info->curr_ref_blk == nullptr || block == nullptr
        || ref_info->curr_ref_blk->block != block) {
        VESK_LOG_ERR(k_cls, "StreamType:%#x Reference Block Not Match\n", str_type);
        VESK_ASSERT(0);
    }
    vesk_av_chn_blocks& chn = m_mng->chn_blocks(held_ipc(str_type));
    pthread_mutex_lock(&chn.lock);
    vesk_av_block* b = ref_info->curr_ref_blk;
    VESK_ASSERT(ref_info->curr_ref_blk->ref_cnt > 0);
    b->ref_cnt--;
    ref_info->put_time = av_now();
    if (av_blk_idle(b) && block->commit_pos >= block->data_end) {
        if (m_usr_magic_ofset[str_type] < 0) {
            VESK_LOG_WARN(k_cls, "StreamType:%#x ivr_ch_%d, blk[%llu] m_usr_magic_ofset = -1?\n", str_type, m_ivr_ch,
                static_cast<unsigned long long>(b->blk_id));
        } else {
            clear_bit(str_type, b, true);
            ref_info->bit_time = ref_info->put_time;
        }
    }
    pthread_mutex_unlock(&chn.lock);
    ref_info->curr_ref_blk = nullptr;
    VESK_ASSERT(m_reader_info.ref_cnt > 0);
    m_reader_info.ref_cnt--;
    return VESK_OK;
}

} // namespace vesk_utility
