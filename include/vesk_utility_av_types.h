// vesk_utility_av_types.h - the per-frame header that precedes every encoded frame of the A/V
// cache and of the RTP depacketiser's output.
//
//   0 uiStartId | 4 uiFrameType | 8 uiFrameNo | 12 uiTimeSec | 16 uiReserved | 20 uiLength
//  24 usWidth | 26 usHeight | 28 ucCodec | 29 ucReserved[3] | 32 uiTimeStamp      (36 bytes)
//
// Little-endian, no addresses, so the layout is the same on the 32-bit target and on 64-bit
// hosts. The payload (uiLength bytes) follows the header directly.
#ifndef VESK_UTILITY_AV_TYPES_H
#define VESK_UTILITY_AV_TYPES_H

#include <cstddef>
#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

// Frame types that a reader may start from.
constexpr uint32_t VESK_FRAME_TYPE_I = 1;
constexpr uint32_t VESK_FRAME_TYPE_KEY2 = 18; // second key-frame type (small logo frames)

struct _tagVeskFrameHeader {
    uint32_t uiStartId; // always VESK_FRAME_STARTCODE
    uint32_t uiFrameType; // 1 I frame, 18 second key type, others dependent/audio/smart
    uint32_t uiFrameNo; // +1 per frame of one stream
    uint32_t uiTimeSec; // time of the frame in seconds
    uint32_t uiReserved; // carried (seed of the face-feature functions)
    uint32_t uiLength; // payload bytes after the header
    uint16_t usWidth;
    uint16_t usHeight;
    uint8_t ucCodec; // 1, 4, 8 H.264; 2 MJPEG; 16 H.265
    uint8_t ucReserved[3]; // carried
    uint32_t uiTimeStamp; // 1/90000 s
};

static_assert(sizeof(_tagVeskFrameHeader) == 36, "frame header is 36 bytes");
static_assert(offsetof(_tagVeskFrameHeader, uiFrameType) == 4 && offsetof(_tagVeskFrameHeader, uiFrameNo) == 8
        && offsetof(_tagVeskFrameHeader, uiTimeSec) == 12 && offsetof(_tagVeskFrameHeader, uiReserved) == 16
        && offsetof(_tagVeskFrameHeader, uiLength) == 20 && offsetof(_tagVeskFrameHeader, usWidth) == 24
        && offsetof(_tagVeskFrameHeader, usHeight) == 26 && offsetof(_tagVeskFrameHeader, ucCodec) == 28
        && offsetof(_tagVeskFrameHeader, uiTimeStamp) == 32,
    "frame header offsets");

} // namespace vesk_soft

#endif // VESK_UTILITY_AV_TYPES_H
