// vesk_utility_av_reader - a consumer's cursor into the block cache: hands out the frames (or
// whole blocks) of one recorder channel's streams in order, holds references so that rotation
// cannot free what it handed out, clears its user bit on blocks it has finished with, resyncs
// on a key frame after a loss, and in real-time mode paces its caller.
#ifndef VESK_UTILITY_AV_READER_H
#define VESK_UTILITY_AV_READER_H

#include <cstdint>

#include "vesk_utility_av.h"
#include "av/vesk_utility_av_walk.h"

namespace vesk_utility
{

class vesk_utility_av_mng;
struct vesk_av_block;
struct vesk_av_stream_list;

// Thread safety: one reader is used by one thread at a time. Every look at a list, a
// descriptor or a block head happens under the channel lock of the IPC index the stream's
// history belongs to; user bits are taken under the manager's global mutex (outside it).
// Invariants: m_reader_info.ref_cnt = (in-place frames held) + (blocks held); each held frame
// or block has raised its descriptor's ref_cnt by one, so rotation keeps it.
class vesk_av_reader_v1 final : public vesk_soft::vesk_av_reader
{
public:
    vesk_av_reader_v1(vesk_utility_av_mng* mng, uint32_t max_chn, vesk_soft::vesk_av_reader_work_mode mode,
        vesk_soft::vesk_av_reader_usr_type usr_type, vesk_soft::vesk_av_reader_purpose purpose);
    // Gives back every user bit. REQUIRES: is_free() (fatal otherwise).
    ~vesk_av_reader_v1() override;

    vesk_soft::VESK_ERR set_chn(uint32_t chn) override;
    vesk_soft::VESK_ERR get_chn(uint32_t* chn) override;
    vesk_soft::VESK_ERR release_usr_magic(vesk_soft::vesk_av_stream_type str_type) override;
    vesk_soft::VESK_ERR set_work_mode(vesk_soft::vesk_av_reader_work_mode mode) override;
    vesk_soft::VESK_ERR reset_history(vesk_soft::vesk_av_stream_type str_type) override;
    vesk_soft::VESK_ERR get_frame(vesk_soft::vesk_av_stream_type str_type, vesk_soft::_tagVeskFrameHeader** frame,
        uint32_t flag, uint32_t* next_interval) override;
    vesk_soft::VESK_ERR put_frame(
        vesk_soft::vesk_av_stream_type str_type, vesk_soft::_tagVeskFrameHeader* frame) override;
    vesk_soft::VESK_ERR get_block(vesk_soft::vesk_av_stream_type str_type,
        vesk_soft::vesk_IPC_stream_block_head** block, vesk_soft::VESK_BOOL force) override;
    vesk_soft::VESK_ERR put_block(
        vesk_soft::vesk_av_stream_type str_type, vesk_soft::vesk_IPC_stream_block_head* block) override;
    bool is_free() override { return m_reader_info.ref_cnt + m_reader_info.extra_ref_cnt == 0; }

    // This reader's user bit of a stream, taking one from the manager on first use (-1 when
    // the channel is not set or the manager has none left).
    int32_t usr_magic(uint32_t str_type);

private:
    using fetch_out = av_fetch_out;

    // Pacing state of a stream (real-time mode).
    struct pace_info {
        uint32_t last_interval; // ms handed out last time, 0: none yet
        uint32_t call_cnt; // successful fetches in the period
        uint32_t fail_cnt; // failed fetches after a success in the period
        int32_t min_remain;
        int32_t max_remain;
        int32_t min_remain_th;
        vesk_soft::vesk_av_time period_start;
        vesk_soft::vesk_av_time send_time; // last successful fetch, sec 0: none
    };

    // One stream's history, from reset to reset.
    struct vesk_ref_info {
        // Held by get_block, or by get_frame for an in-place frame: one stream reads either
        // frames or blocks at a time.
        vesk_av_block* curr_ref_blk;
        vesk_soft::_tagVeskFrameHeader* curr_ref_frame; // handed out, not yet put
        bool frame_is_copy; // curr_ref_frame is a joined copy (extra_ref_cnt)
        uint32_t frame_interval; // of curr_ref_frame, for a repeated get
        uint64_t last_blk_id; // 0: no history
        int32_t last_idx; // -1: before the block's first frame
        uint32_t last_fno;
        bool has_fno; // last_fno is valid
        vesk_soft::_tagVeskFrameHeader last_head;
        vesk_soft::vesk_av_time get_time; // last block handed out
        vesk_soft::vesk_av_time put_time; // last block put
        vesk_soft::vesk_av_time bit_time; // last user bit release
        vesk_soft::vesk_av_time call_time; // last get_frame
        pace_info pace;
    };

    void release_all_magic();
    void clear_history(uint32_t str_type, bool keep_put_times);
    // REQUIRES: the stream holds neither block nor frame (fatal otherwise).
    void proc_reset_history(uint32_t str_type, bool keep_put_times = false);
    // Resets the history when the channel was remapped since it was written.
    void reset_if_remapped(uint32_t str_type, uint32_t ipc, bool keep_put_times);
    // Clears this reader's bit on blk (snap mask for snap users unless stream_mask_only).
    // REQUIRES: the channel lock. No bit: nothing.
    void clear_bit(uint32_t str_type, vesk_av_block* blk, bool stream_mask_only = false);
    // The logo to show instead of video (camera not connected, no video), if one is loaded.
    // REQUIRES: the channel lock of ipc.
    bool logo_frame(uint32_t str_type, uint32_t ipc, vesk_soft::_tagVeskFrameHeader** frame);
    // Selection and fetch; on FETCH_OK blk/idx name the frame. REQUIRES: the channel lock.
    uint32_t proc_get_frame(
        uint32_t str_type, vesk_av_stream_list& list, uint32_t flag, vesk_av_block*& blk, int32_t& idx, fetch_out& out);
    // Moves (blk, idx) to the next key frame at or after it, clearing the bit on passed
    // blocks; false (nothing moved) when none is cached yet.
    bool proc_skip_to_key(uint32_t str_type, vesk_av_block*& blk, int32_t& idx);
    // The wait to tell the caller; out is NULL after a failed fetch. REQUIRES: the channel lock.
    uint32_t next_interval_of(uint32_t str_type, const fetch_out* out, const vesk_av_block* b, int32_t idx,
        const vesk_soft::vesk_av_time& now, const vesk_soft::vesk_av_time& last_call);
    void pace_period(uint32_t str_type, const vesk_soft::vesk_av_time& now);
    vesk_soft::VESK_ERR proc_get_block(uint32_t str_type, uint32_t ipc, vesk_av_stream_list& list,
        vesk_soft::vesk_IPC_stream_block_head** block, bool force);
    // The IPC index a held reference was taken from (where it must be released).
    uint32_t held_ipc(uint32_t str_type);

    vesk_utility_av_mng* m_mng;
    uint32_t m_max_chn;
    uint32_t m_ivr_ch = 0xFFFFFFFF; // not set
    int32_t m_usr_magic_ofset[vesk_soft::VESK_AV_STREAM_NUM] = {-1, -1, -1, -1};
    uint32_t m_last_ipc_idx[vesk_soft::VESK_AV_STREAM_NUM];
    struct {
        uint32_t ref_cnt = 0; // blocks and frames held from the cache
        uint32_t extra_ref_cnt = 0; // frame copies made by the reader
    } m_reader_info;
    vesk_ref_info m_ref_info[vesk_soft::VESK_AV_STREAM_NUM];
    vesk_soft::vesk_av_reader_work_mode m_work_mode;
    vesk_soft::vesk_av_reader_usr_type m_usr_type;
    vesk_soft::vesk_av_reader_purpose m_purpose;
    // Set by pacing per stream: reset consumed by the next get_frame; skip makes the next frame
    // count only if it is a key frame.
    bool m_force_reset[vesk_soft::VESK_AV_STREAM_NUM] = {};
    bool m_force_skip[vesk_soft::VESK_AV_STREAM_NUM] = {};
};

} // namespace vesk_utility

#endif // VESK_UTILITY_AV_READER_H
