// vesk_utility_av_query - point queries on a cached video stream: the newest I frame still
// cached, and the resolution of the newest frame.
#ifndef VESK_UTILITY_AV_QUERY_H
#define VESK_UTILITY_AV_QUERY_H

#include <cstdint>

#include "av/vesk_utility_av_mng.h"

namespace vesk_utility
{

// Both: VESK_ERR_INVALID_PARAM (logged) for ivr_ch >= 32 or a stream other than main or sub;
// VESK_ERR_OPERATE_FAIL, silently (callers poll), while the channel is marked not connected,
// the statistics find the stream disconnected (no new data for 10 s) or nothing suitable is
// cached. Each walks the stream's blocks from the newest under the channel lock: O(blocks
// since the newest I frame) and O(1) respectively.
VESK_ERR av_get_last_valid_I_time(vesk_utility_av_mng* mng, uint32_t ivr_ch, uint32_t str_type,
    vesk_soft::vesk_av_time* key_time, uint32_t* frame_sec);
VESK_ERR av_get_video_resolution(
    vesk_utility_av_mng* mng, uint32_t ivr_ch, uint32_t str_type, uint32_t* width, uint32_t* height);

} // namespace vesk_utility

#endif // VESK_UTILITY_AV_QUERY_H
