// vesk_utility_av_query - the newest I frame and the current resolution of a cached video
// stream, read straight from the blocks so that they follow the stream frame by frame (the
// statistics lag by up to a rotation tick).
#include "av/vesk_utility_av_query.h"

#include "core/vesk_utility_log.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_utility_av_mng";

const _tagVeskFrameHeader* header_of(const vesk_IPC_stream_block_head* b, uint32_t idx)
{
    const uint8_t* node = reinterpret_cast<const uint8_t*>(b->frame_index[idx]);
    return reinterpret_cast<const _tagVeskFrameHeader*>(node + sizeof(vesk_av_frame_node));
}

// The stream's list with its channel lock taken (*lock, to be unlocked by the caller: the
// channel may be remapped meanwhile), or NULL (nothing locked) when the camera is not
// connected or has gone silent.
vesk_av_stream_list* lock_live_list(vesk_utility_av_mng* mng, uint32_t ivr_ch, uint32_t str_type, pthread_mutex_t** lock)
{
    vesk_av_chn_blocks& chn = mng->chn_blocks(mng->ipc_of(ivr_ch));
    *lock = &chn.lock;
    if (__atomic_load_n(&chn.connect_status, __ATOMIC_RELAXED) == 0)
        return nullptr;
    pthread_mutex_lock(&chn.lock);
    vesk_av_stream_list& list = chn.lists[str_type];
    if (list.stat.info.disconnected != 0) {
        pthread_mutex_unlock(&chn.lock);
        return nullptr;
    }
    return &list;
}

bool video_args_ok(uint32_t ivr_ch, uint32_t str_type, const char* func)
{
    if (ivr_ch < k_av_chn_num && (str_type == VESK_AV_STREAM_MAIN || str_type == VESK_AV_STREAM_SUB))
        return true;
    vesk_log(vesk_log_level::error, k_cls, func, __LINE__, "Invalid Param: ivr_ch = %u, str_type = %u\n", ivr_ch,
        str_type);
    return false;
}

} // namespace

VESK_ERR av_get_last_valid_I_time(
    vesk_utility_av_mng* mng, uint32_t ivr_ch, uint32_t str_type, vesk_av_time* key_time, uint32_t* frame_sec)
{
    if (!video_args_ok(ivr_ch, str_type, __func__))
        return VESK_ERR_INVALID_PARAM;
    pthread_mutex_t* lock = nullptr;
    vesk_av_stream_list* list = lock_live_list(mng, ivr_ch, str_type, &lock);
    if (list == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = VESK_ERR_OPERATE_FAIL;
    for (const vesk_av_block* blk = list->tail; blk != nullptr; blk = blk->prev) {
        const vesk_IPC_stream_block_head* b = blk->block;
        if (b->key_flag != 0 && b->last_key_idx < b->node_num) {
            *key_time = b->key_time;
            *frame_sec = header_of(b, b->last_key_idx)->uiTimeSec;
            ret = VESK_OK;
            break;
        }
    }
    pthread_mutex_unlock(lock);
    return ret;
}

VESK_ERR av_get_video_resolution(
    vesk_utility_av_mng* mng, uint32_t ivr_ch, uint32_t str_type, uint32_t* width, uint32_t* height)
{
    if (!video_args_ok(ivr_ch, str_type, __func__))
        return VESK_ERR_INVALID_PARAM;
    pthread_mutex_t* lock = nullptr;
    vesk_av_stream_list* list = lock_live_list(mng, ivr_ch, str_type, &lock);
    if (list == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    VESK_ERR ret = VESK_ERR_OPERATE_FAIL;
    // The newest block may hold no frame start yet (just opened, or only the continuation of
    // the previous block's last frame): the newest header is then one block back.
    for (const vesk_av_block* blk = list->tail; blk != nullptr; blk = blk->prev) {
        const vesk_IPC_stream_block_head* b = blk->block;
        if (b->node_num != 0) {
            const _tagVeskFrameHeader* h = header_of(b, b->node_num - 1);
            *width = h->usWidth;
            *height = h->usHeight;
            ret = VESK_OK;
            break;
        }
    }
    pthread_mutex_unlock(lock);
    return ret;
}

} // namespace vesk_utility
