// vesk_utility_av_reader - a consumer's cursor into the block cache. This part holds what the
// manager relies on: the channel binding, the per-stream user bits and the reference counts
// that decide whether a reader may be deleted. Frame and block fetching come with the reader's
// own service and answer VESK_ERR_NOT_SUPPORT until then.
#ifndef VESK_UTILITY_AV_READER_H
#define VESK_UTILITY_AV_READER_H

#include <cstdint>

#include "vesk_utility_av.h"

namespace vesk_utility
{

class vesk_utility_av_mng;

class vesk_av_reader_v1 final : public vesk_soft::vesk_av_reader
{
public:
    vesk_av_reader_v1(vesk_utility_av_mng* mng, uint32_t max_chn, vesk_soft::vesk_av_reader_work_mode mode,
        vesk_soft::vesk_av_reader_usr_type usr_type, vesk_soft::vesk_av_reader_purpose purpose);
    // Gives back every user bit. REQUIRES: is_free() (the manager checks before deleting).
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
    // References held; the frame and block fetching raise and lower them.
    void add_ref() { m_reader_info.ref_cnt++; }
    void sub_ref();

private:
    void release_all_magic();

    vesk_utility_av_mng* m_mng;
    uint32_t m_max_chn;
    uint32_t m_ivr_ch = 0xFFFFFFFF; // not set
    int32_t m_usr_magic_ofset[vesk_soft::VESK_AV_STREAM_NUM] = {-1, -1, -1, -1};
    struct {
        uint32_t ref_cnt = 0; // blocks and frames held from the cache
        uint32_t extra_ref_cnt = 0; // frame copies made by the reader
    } m_reader_info;
    vesk_soft::vesk_av_reader_work_mode m_work_mode;
    vesk_soft::vesk_av_reader_usr_type m_usr_type;
    vesk_soft::vesk_av_reader_purpose m_purpose;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_AV_READER_H
