// vesk_utility_av_stat - per-stream statistics kept by the rotation tick (bit rate, frame rate,
// newest frame header, disconnection), their queries, and the caller-side bit-rate meter.
#include <time.h>

#include <cstring>

#include "av/vesk_utility_av_mng.h"
#include "core/vesk_utility_log.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{
constexpr const char* k_cls = "vesk_utility_av_mng";
} // namespace

void vesk_utility_av_mng::proc_update_stat(vesk_av_stream_list& list, const vesk_av_time& now)
{
    vesk_av_stat& st = list.stat;
    if (list.tail != nullptr) {
        const vesk_IPC_stream_block_head* b = list.tail->block;
        st.info.codec = b->codec;
        st.info.width = b->width;
        st.info.height = b->height;
        st.info.newest_time = b->rcv_time;
        if (b->node_num != 0 && b->frame_index != nullptr) {
            const uint8_t* node = reinterpret_cast<const uint8_t*>(b->frame_index[b->node_num - 1]);
            memcpy(&st.info.last_frame, node + sizeof(vesk_av_frame_node), sizeof(_tagVeskFrameHeader));
        }
    }
    // O(blk_cnt) per tick; only blocks from the newest counted one on add anything.
    for (vesk_av_block* blk = list.head; blk != nullptr; blk = blk->next) {
        if (blk->blk_id < list.counted_id)
            continue;
        const vesk_IPC_stream_block_head* b = blk->block;
        if (blk->blk_id != list.counted_id) {
            st.period_frames += b->node_num;
            st.period_bytes += b->payload_bytes;
            st.last_frames = b->node_num;
            st.last_bytes = b->payload_bytes;
            list.seen_time = now;
            list.counted_id = blk->blk_id;
        } else if (b->node_num > st.last_frames) {
            st.period_frames += b->node_num - st.last_frames;
            st.period_bytes += b->payload_bytes - st.last_bytes;
            st.last_frames = b->node_num;
            st.last_bytes = b->payload_bytes;
            list.seen_time = now;
        }
    }
    if (av_diff_ms(now, list.seen_time) <= k_av_disconnect_ms) {
        st.info.disconnected = 0;
    } else {
        // Cleared on every tick, since step one copied the stale tail block again.
        memset(&st.info, 0, sizeof(st.info));
        st.info.disconnected = 1;
    }
    const int64_t elapsed = av_diff_ms(now, st.period_start);
    if (elapsed > k_av_stat_period_ms) {
        if (st.info.disconnected == 0) {
            st.info.kbps = static_cast<float>(st.period_bytes) * 8.0f / static_cast<float>(elapsed);
            st.info.fps = static_cast<float>(st.period_frames) * 1000.0f / static_cast<float>(elapsed);
        }
        st.period_frames = 0;
        st.period_bytes = 0;
        st.period_start = now;
    }
}

VESK_ERR vesk_utility_av_mng::get_stream_stat_info(uint32_t ivr_ch, uint32_t str_type, vesk_stream_stat_info* info)
{
    if (ivr_ch > k_av_chn_num - 1 || info == nullptr) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (str_type >= k_av_str_num) {
        memset(info, 0, sizeof(*info));
        VESK_LOG_ERR(k_cls, "Invalid Stream Type:%#x\n", str_type);
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_av_chn_blocks& chn = m_chn_blocks[ipc_of(ivr_ch)];
    pthread_mutex_lock(&chn.lock);
    *info = chn.lists[str_type].stat.info;
    pthread_mutex_unlock(&chn.lock);
    return VESK_OK;
}

VESK_ERR vesk_utility_av_mng::get_last_frame_info(uint32_t ivr_ch, uint32_t str_type, _tagVeskFrameHeader& header)
{
    if (ivr_ch >= k_av_chn_num) {
        VESK_LOG_ERR(k_cls, "Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (str_type >= k_av_str_num) {
        VESK_LOG_ERR(k_cls, "Invalid Stream Type:%#x\n", str_type);
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_av_chn_blocks& chn = m_chn_blocks[ipc_of(ivr_ch)];
    pthread_mutex_lock(&chn.lock);
    // A disconnected stream's statistics are cleared, the header with them.
    header = chn.lists[str_type].stat.info.last_frame;
    pthread_mutex_unlock(&chn.lock);
    return VESK_OK;
}

} // namespace vesk_utility

namespace vesk_soft
{

using namespace vesk_utility;

VESK_ERR vesk_utility_update_real_bps_info(
    const char* name, vesk_bps_real_info* info, const _tagVeskFrameHeader* header)
{
    if (info == nullptr || header == nullptr) {
        VESK_ERR_FN("%s Invalid Param", name != nullptr ? name : "");
        return VESK_ERR_INVALID_PARAM;
    }
    info->width = header->usWidth;
    info->height = header->usHeight;
    info->codec = header->ucCodec;
    info->period_frames++;
    info->period_bytes += header->uiLength;
    const uint32_t t = header->uiTimeSec;
    if (info->period_start == 0)
        info->period_start = t;
    const int64_t span = static_cast<int64_t>(t) - static_cast<int64_t>(info->period_start);
    if (span > 29) {
        const uint32_t s = static_cast<uint32_t>(span);
        const uint32_t fps = info->period_frames / s;
        info->fps = static_cast<uint8_t>(fps);
        info->fps_tenths = static_cast<uint8_t>(10 * (info->period_frames - s * fps) / s);
        info->kbps = static_cast<uint32_t>(static_cast<uint64_t>(info->period_bytes) * 8 / (s * 1024ull));
        info->period_frames = 0;
        info->period_bytes = 0;
        info->period_start = t;
        info->result_time = static_cast<uint32_t>(time(nullptr));
    } else if (span < 0) {
        // The timestamps went back (camera clock set): start over.
        info->fps = 0;
        info->fps_tenths = 0;
        info->kbps = 0;
        info->period_frames = 0;
        info->period_bytes = 0;
        info->period_start = t;
    }
    return VESK_OK;
}

VESK_ERR vesk_utility_dump_real_bps(const char* name, const vesk_bps_real_info* info)
{
    if (info == nullptr) {
        VESK_ERR_FN("Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    VESK_DBG_FN("%s codec = %u, %ux%u, %u.%ufps, %ukbps, at %u\n", name != nullptr ? name : "", info->codec,
        info->width, info->height, info->fps, info->fps_tenths, info->kbps, info->result_time);
    return VESK_OK;
}

vesk_av_stream_type vesk_utility_av_convert_type(vesk_enc_str_type enc_type)
{
    switch (enc_type) {
    case VESK_ENC_STR_MAIN:
        return VESK_AV_STREAM_MAIN;
    case VESK_ENC_STR_SUB:
    case VESK_ENC_STR_THIRD:
        return VESK_AV_STREAM_SUB;
    case VESK_ENC_STR_AUDIO:
        return VESK_AV_STREAM_AUDIO;
    case VESK_ENC_STR_SMART:
        return VESK_AV_STREAM_SMART;
    default:
        return VESK_AV_STREAM_NUM;
    }
}

} // namespace vesk_soft
