// vesk_utility_av_walk - the walks over one stream list that both ways of reading the cache
// share (readers and the position-record frame API): finding blocks, the start point, the next
// key frame, and fetching one frame in place or joined from the blocks it spans.
//
// Every function here REQUIRES the channel lock of the list it walks.
#ifndef VESK_UTILITY_AV_WALK_H
#define VESK_UTILITY_AV_WALK_H

#include <cstdint>

#include "av/vesk_utility_av_mng.h"

namespace vesk_utility
{

constexpr uint32_t k_av_default_interval_ms = 40;

inline bool av_is_key(uint32_t frame_type)
{
    return frame_type == vesk_soft::VESK_FRAME_TYPE_I || frame_type == vesk_soft::VESK_FRAME_TYPE_KEY2;
}

inline bool av_is_video(uint32_t str_type)
{
    return str_type == vesk_soft::VESK_AV_STREAM_MAIN || str_type == vesk_soft::VESK_AV_STREAM_SUB;
}

// No further frames will be indexed into it.
inline bool av_blk_idle(const vesk_av_block* b)
{
    return b->block->block_state == 1 || b->block->receiving == 0;
}

inline vesk_soft::vesk_av_frame_node* av_node(const vesk_av_block* b, uint32_t idx)
{
    return b->block->frame_index[idx];
}

// O(distance from the nearer end of the list).
vesk_av_block* av_find_blk(vesk_av_stream_list& list, uint64_t id);

// Where reading resumes once the block with `id` has rotated out: index 0 of the first newer
// block that has frames. Each older block still cached is handed to passed(block) on the way
// (a reader clears its user bit there). False: wait, nothing newer with frames is complete.
template <class Passed> bool av_resume_after(vesk_av_stream_list& list, uint64_t id, vesk_av_block*& blk, Passed passed)
{
    for (vesk_av_block* x = list.head; x != nullptr; x = x->next) {
        if (x->blk_id < id) {
            passed(x);
        } else if (x->block->node_num != 0) {
            blk = x;
            return true;
        } else if (!av_blk_idle(x)) {
            return false;
        }
    }
    return false;
}

// Where a reader without history starts: video at the newest key frame (the second key type
// when its time is later than the I frame's), other streams at the newest frame. False when
// there is none yet.
bool av_start_point(uint32_t str_type, vesk_av_stream_list& list, vesk_av_block*& blk, int32_t& idx);

// Moves (blk, idx) to the first key frame at or after it. False, nothing moved, when none is
// cached yet. The blocks from the old blk up to the new one are the ones passed over.
bool av_next_key(vesk_av_block*& blk, int32_t& idx);

// Result of fetching one frame: frame ready, wait, block drop, no memory, no block.
enum av_fetch_ret : uint32_t { FETCH_OK = 0, FETCH_WAIT = 1, FETCH_DROP = 2, FETCH_NO_MEM = 3, FETCH_NO_BLK = 4 };

struct av_fetch_out {
    vesk_soft::_tagVeskFrameHeader* frame;
    bool copy; // a joined copy (free with vesk_utility_av_reader_free), else a pointer into blk
    uint32_t interval; // ms to the next frame; 0 when it is not cached yet
    vesk_av_block* next_blk; // for FETCH_DROP: where reading resumes
};

// Fetches frame idx of blk. A frame that runs past its block's data end is joined from the
// continuations of the following blocks into one accounted copy; a continuation whose lead tag
// does not match is a block drop. log_cls and ivr_ch label the messages.
uint32_t av_fetch_one_frame(
    const char* log_cls, uint32_t ivr_ch, uint32_t str_type, vesk_av_block* blk, uint32_t idx, av_fetch_out& out);

} // namespace vesk_utility

#endif // VESK_UTILITY_AV_WALK_H
