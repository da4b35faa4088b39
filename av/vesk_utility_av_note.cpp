// vesk_utility_av_note - the frame API over the cache's lists: selection from a caller-held
// position, references on in-place frames, joined copies, release.
#include "av/vesk_utility_av_note.h"

#include <cstring>

#include "av/vesk_utility_av_mng.h"
#include "av/vesk_utility_av_walk.h"
#include "core/vesk_utility_log.h"
#include "vesk_utility_memory.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_av_note_reader";
constexpr uint32_t k_held_none = 0;
constexpr uint32_t k_held_in_place = 1;
constexpr uint32_t k_held_copy = 2;

// Where reading resumes after the note's block: its next index, or after a rotation the first
// newer block with frames. False: wait. REQUIRES: the channel lock.
bool resume_point(vesk_av_stream_list& list, const vesk_read_av_list_note* note, vesk_av_block*& b, int32_t& i)
{
    b = av_find_blk(list, note->blk_id);
    if (b != nullptr) {
        i = static_cast<int32_t>(note->frame_idx) + 1; // frame_idx ~0u: before the first frame
        return true;
    }
    i = 0;
    return av_resume_after(list, note->blk_id, b, [](vesk_av_block*) {});
}

} // namespace

VESK_ERR vesk_av_note_reader::get_frame(
    uint32_t ivr_ch, uint32_t str_type, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame, bool first)
{
    if (ivr_ch >= k_av_chn_num || str_type >= k_av_str_num || note == nullptr || frame == nullptr) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (note->held != k_held_none) {
        if (first) {
            VESK_LOG_ERR(k_cls, "ch_%u StreamType:%#x note holds frame %p, release it first\n", note->ivr_ch,
                note->str_type, static_cast<void*>(note->frame));
            VESK_ASSERT(note->held == k_held_none);
        }
        if (note->ivr_ch != ivr_ch || note->str_type != str_type) {
            VESK_LOG_ERR(k_cls, "ch_%u StreamType:%#x asked of a note holding a frame of ch_%u StreamType:%#x\n",
                ivr_ch, str_type, note->ivr_ch, note->str_type);
            return VESK_ERR_INVALID_PARAM;
        }
        *frame = note->frame;
        return VESK_OK;
    }
    *frame = nullptr;
    const uint32_t ipc = m_mng->ipc_of(ivr_ch);
    if (first || note->ivr_ch != ivr_ch || note->str_type != str_type || note->ipc_idx != ipc) {
        memset(note, 0, sizeof(*note));
        note->ivr_ch = ivr_ch;
        note->str_type = str_type;
        note->ipc_idx = ipc;
    }

    vesk_av_chn_blocks& chn = m_mng->chn_blocks(ipc);
    vesk_av_stream_list& list = chn.lists[str_type];
    pthread_mutex_lock(&chn.lock);
    const bool has_fno = note->blk_id != 0;
    vesk_av_block* b = nullptr;
    int32_t i = 0;
    uint32_t ret = FETCH_WAIT;
    av_fetch_out out {};
    const bool found = has_fno ? resume_point(list, note, b, i) : av_start_point(str_type, list, b, i);
    for (uint32_t round = 0; found && round <= list.blk_cnt; round++) {
        ret = FETCH_WAIT;
        while (i >= static_cast<int32_t>(b->block->node_num)) {
            if (!av_blk_idle(b) || b->next == nullptr)
                break;
            b = b->next;
            i = 0;
        }
        if (i >= static_cast<int32_t>(b->block->node_num))
            break;
        // Video continues only with the very next frame number; anything else resumes at a
        // key frame, since dependent frames cannot be decoded without their predecessors.
        const vesk_av_frame_node* cand = av_node(b, static_cast<uint32_t>(i));
        if (has_fno && av_is_video(str_type) && cand->frame_no != note->frame_no + 1 && !av_is_key(cand->frame_type)
            && !av_next_key(b, i))
            break;
        ret = av_fetch_one_frame(k_cls, ivr_ch, str_type, b, static_cast<uint32_t>(i), out);
        if (ret != FETCH_DROP)
            break;
        // The frame's continuation was lost: go on after it, and keep that even if nothing
        // follows yet, so the next call does not drop the same frame again.
        b = out.next_blk;
        i = 0;
        note->blk_id = b->blk_id;
        note->frame_idx = ~0u;
    }
    if (ret == FETCH_OK) {
        const uint32_t fno = out.frame->uiFrameNo;
        if (has_fno && fno != note->frame_no + 1) {
            const uint32_t lost = fno > note->frame_no ? fno - note->frame_no - 1 : 0;
            VESK_LOG_WARN(k_cls, "ch_%u StreamType:%#x Fno[%u] to blk[%llu_%d] Fno[%u] type_0x%x, drop %u frames!\n",
                ivr_ch, str_type, note->frame_no, static_cast<unsigned long long>(b->blk_id), i, fno,
                out.frame->uiFrameType, lost);
            note->dropped += lost;
        }
        if (!out.copy)
            b->ref_cnt++;
        note->blk_id = b->blk_id;
        note->frame_idx = static_cast<uint32_t>(i);
        note->frame_no = fno;
        note->held = out.copy ? k_held_copy : k_held_in_place;
        note->frame = out.frame;
        note->length = sizeof(_tagVeskFrameHeader) + out.frame->uiLength;
    }
    pthread_mutex_unlock(&chn.lock);
    if (ret == FETCH_OK) {
        *frame = out.frame;
        return VESK_OK;
    }
    return ret == FETCH_NO_MEM ? VESK_ERR_NO_RESOURCE : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR vesk_av_note_reader::rel_frame(vesk_read_av_list_note* note)
{
    if (note == nullptr) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (note->held == k_held_copy) {
        vesk_utility_av_reader_free(__FILE__, __func__, note->frame);
    } else if (note->held == k_held_in_place) {
        VESK_ASSERT(note->ipc_idx < k_av_chn_num && note->str_type < k_av_str_num);
        vesk_av_chn_blocks& chn = m_mng->chn_blocks(note->ipc_idx);
        pthread_mutex_lock(&chn.lock);
        vesk_av_block* b = av_find_blk(chn.lists[note->str_type], note->blk_id);
        const bool match = b != nullptr && b->ref_cnt > 0 && note->frame_idx < b->block->node_num
            && reinterpret_cast<_tagVeskFrameHeader*>(av_node(b, note->frame_idx) + 1) == note->frame;
        if (!match) {
            VESK_LOG_ERR(k_cls, "ch_%u StreamType:%#x blk[%llu_%u] frame = %p Not Held\n", note->ivr_ch, note->str_type,
                static_cast<unsigned long long>(note->blk_id), note->frame_idx, static_cast<void*>(note->frame));
            VESK_ASSERT(match);
        }
        b->ref_cnt--;
        pthread_mutex_unlock(&chn.lock);
    } else if (note->held != k_held_none) {
        VESK_LOG_ERR(k_cls, "note held = %u?\n", note->held);
        VESK_ASSERT(note->held <= k_held_copy);
    }
    note->held = k_held_none;
    note->frame = nullptr;
    return VESK_OK;
}

} // namespace vesk_utility
