// vesk_utility_media.h - media helpers: RTP depacketising of H.264 received in the
// interleaved framing of RTSP over TCP, and the resolution-independent coordinates of
// video-analytics rules. None of these functions needs vesk_utility_init.
#ifndef VESK_UTILITY_MEDIA_H
#define VESK_UTILITY_MEDIA_H

#include <cstdint>

#include "vesk_utility_av_types.h"
#include "vesk_utility_types.h"

namespace vesk_soft
{

// ---- RTP -----------------------------------------------------------------------------------
// Input of the depacketiser: optionally a 36-byte _tagVeskFrameHeader (uiStartId ==
// VESK_FRAME_STARTCODE), then interleaved packets, each
//   '$' (0x24) | channel (1, ignored) | length L (2, big-endian) | L bytes of one RTP packet
struct _tagVesk_rtp_h264_param {
    unsigned char* pInData;
    int32_t nInDataSize;
    unsigned char* pOutData;
    int32_t nOutSize; // in: capacity of pOutData; out: bytes written, frame header included
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(_tagVesk_rtp_h264_param) == 16, "RTP parameters on the 32-bit target");
#else
static_assert(sizeof(_tagVesk_rtp_h264_param) == 32, "RTP parameters on a 64-bit host");
#endif

// Parameters of the packetising direction; no field is read in this system.
struct _tagVesk_h264_rtp_param {
    unsigned char* pInData;
    int32_t nInDataSize;
    unsigned char* pOutData;
    int32_t nOutSize;
};

// Joins the H.264 NAL units carried by the packets into an Annex B stream (00 00 00 01 before
// each unit). Single NAL units are copied whole; FU-A fragments are joined, the start
// fragment rebuilding the NAL header; STAP-A and others are copied as single units.
// With a frame header, the output starts with a copy of it whose uiLength is the Annex B size
// and whose ucCodec is 8.
// REQUIRES: nOutSize >= nInDataSize (the output never grows past the input, so no further
// bound is needed). pOutData may equal pInData: the conversion then runs in place.
// Returns VESK_ERR_INVALID_PARAM (logged) for NULL buffers, a non-positive input size, a
// capacity below the input size, or input that does not begin with '$' after the optional
// header. A packet of payload type 98 ends the call with VESK_OK at once and nOutSize left as
// the capacity. A truncated packet, or one whose RTP header runs past it, ends the conversion
// silently: what was converted before it is kept and counted in nOutSize.
VESK_API VESK_ERR vesk_utility_RTPtoH264_InputData(_tagVesk_rtp_h264_param* param);
// Accepted and ignored: packetising and H.265 are not done in this system.
VESK_API VESK_ERR vesk_utility_H264toRTP_InputData(_tagVesk_h264_rtp_param* param);
VESK_API VESK_ERR vesk_utility_H265toRTP_InputData(_tagVesk_h264_rtp_param* param);
VESK_API VESK_ERR vesk_utility_RTPtoH265_InputData(_tagVesk_rtp_h264_param* param);

// ---- Analytics coordinates ---------------------------------------------------------------------
// An abstract coordinate is a fraction of the picture: value / full scale. Rules keep their
// geometry this way and convert to pixels of a given resolution only when needed.
struct vesk_abstract_point {
    uint32_t x;
    uint32_t x_full;
    uint32_t y;
    uint32_t y_full;
};

// x, y, width and height, each with its own full scale.
struct vesk_abstract_rect {
    uint32_t x;
    uint32_t x_full;
    uint32_t y;
    uint32_t y_full;
    uint32_t w;
    uint32_t w_full;
    uint32_t h;
    uint32_t h_full;
};

struct vesk_real_point {
    int32_t x;
    int32_t y;
};

struct vesk_real_rect {
    int32_t x;
    int32_t y;
    int32_t w;
    int32_t h;
};

static_assert(sizeof(vesk_abstract_point) == 16 && sizeof(vesk_abstract_rect) == 32 && sizeof(vesk_real_point) == 8
        && sizeof(vesk_real_rect) == 16,
    "coordinate records are plain 32-bit words");

// NULL records: VESK_ERR_INVALID_PARAM (is_valid_abs: 0).
// x = x * width / x_full, y = y * height / y_full (unsigned 32-bit, truncating; the product
// may wrap). VESK_ERR_INVALID_PARAM when a full scale is 0 or a value exceeds its full scale.
VESK_API VESK_ERR vesk_utility_abs_to_real_point(
    unsigned width, unsigned height, const vesk_abstract_point* abs, vesk_real_point* real);
// Stores {x, width, y, height} as they are: no reduction, no range check. Always VESK_OK.
VESK_API VESK_ERR vesk_utility_real_to_abs_point(
    unsigned width, unsigned height, vesk_abstract_point* abs, const vesk_real_point* real);
// As for points, x and w against width, y and h against height. Only zero full scales are
// refused: a value above its full scale gives a coordinate outside the picture on purpose;
// vesk_utility_is_valid_abs is where rectangles are checked.
VESK_API VESK_ERR vesk_utility_abs_to_real_rect(
    unsigned width, unsigned height, const vesk_abstract_rect* abs, vesk_real_rect* real);
// Stores {x, width, y, height, w, width, h, height}. Always VESK_OK.
VESK_API VESK_ERR vesk_utility_real_to_abs_rect(
    unsigned width, unsigned height, vesk_abstract_rect* abs, const vesk_real_rect* real);
// 1 when every full scale is non-zero, every value is at most its full scale, and x + w and
// y + h (fraction sums, unsigned 32-bit, may wrap) stay within 1; else 0.
VESK_API VESK_BOOL vesk_utility_is_valid_abs(const vesk_abstract_rect* abs);

} // namespace vesk_soft

#endif // VESK_UTILITY_MEDIA_H
