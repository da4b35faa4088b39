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

// ---- Rule tests on the analytics grid ------------------------------------------------------
// Rules are tested on a grid of VESK_RULE_GRID x VESK_RULE_GRID points over the picture (y
// grows downwards); callers convert with vesk_utility_abs_to_real_point(VESK_RULE_GRID,
// VESK_RULE_GRID, ...). All arithmetic is exact integer arithmetic in 64 bits, so every answer
// is the same on the board and on a host. The tests accept coordinates strictly within
// +-VESK_RULE_COORD_LIMIT (a wider range could overflow the products); outside it they answer 0.
constexpr int32_t VESK_RULE_GRID = 1000;
constexpr int32_t VESK_RULE_COORD_LIMIT = 1 << 30;
// Smallest side, in grid units, that vesk_utility_roi_reduce leaves.
constexpr uint32_t VESK_ROI_MIN_SIZE = 8;

// Sides of a directed wire A -> B as seen on the screen: "right" is where the wire turns to
// when walking from A to B (for A = (0,0), B = (1,0) the right side is y > 0, below the wire).
enum vesk_cross_dir : int32_t {
    VESK_CROSS_ANY = 0,           // either way
    VESK_CROSS_LEFT_TO_RIGHT = 1, // from the left side to the right side
    VESK_CROSS_RIGHT_TO_LEFT = 2,
};

// 1 when the track from `from` to `to` crosses the wire, the polyline of `count` >= 2 points,
// in direction `dir` (for a polyline, the side of the segment crossed); else 0.
// Boundary rule: only a proper crossing counts. The two ends of the track lie strictly on
// opposite sides of the wire segment's line and the segment's ends strictly on opposite sides
// of the track. A track that merely touches the wire (an end on the wire, sliding along a
// segment, passing through an end of the wire, or touching a vertex where the wire turns back)
// does not cross. A track through an inner vertex crosses when the vertex's neighbours lie
// strictly on opposite sides of the track; its direction is judged against the chord between
// those neighbours. 0 for NULL, count < 2, or a point outside +-VESK_RULE_COORD_LIMIT.
VESK_API VESK_BOOL vesk_utility_is_cross_line(const vesk_real_point* from, const vesk_real_point* to,
    const vesk_real_point* wire, unsigned count, vesk_cross_dir dir);
// 1 when pt lies in the region, the closed polygon of `count` >= 3 points (the last joins the
// first), by the even-odd rule: a point inside a self-overlap twice counts as outside.
// Boundary rule: a point on an edge or a vertex is inside. 0 for NULL, count < 3, or a point
// outside +-VESK_RULE_COORD_LIMIT.
VESK_API VESK_BOOL vesk_utility_is_point_in_region(
    const vesk_real_point* pt, const vesk_real_point* region, unsigned count);

// Regions of interest. Each takes a rectangle valid for vesk_utility_is_valid_abs (else
// VESK_ERR_INVALID_PARAM and *roi untouched) and rewrites it on the grid, every full scale
// VESK_RULE_GRID (each edge rounded down to the grid), clamped so that it stays valid.
// Every side moves outwards by `step` grid units, stopping at the picture's edges.
VESK_API VESK_ERR vesk_utility_roi_enlarge(vesk_abstract_rect* roi, uint32_t step);
// Every side moves inwards by `step` grid units; a side shorter than 2 * step + VESK_ROI_MIN_SIZE
// shrinks to VESK_ROI_MIN_SIZE around its centre instead (a side already at most that size stays).
VESK_API VESK_ERR vesk_utility_roi_reduce(vesk_abstract_rect* roi, uint32_t step);
// Moves by (dx, dy) grid units, size kept; a move past an edge stops at that edge.
VESK_API VESK_ERR vesk_utility_roi_move(vesk_abstract_rect* roi, int32_t dx, int32_t dy);

// The rule rectangle `abs` drawn in one pane of a split screen: `window` is the pane's pixel
// rectangle on the display, the result is in display pixels (x = window.x + x * window.w /
// x_full, truncating; likewise y, w and h). VESK_ERR_INVALID_PARAM for NULL, a rectangle not
// valid for vesk_utility_is_valid_abs, or a pane with a negative origin or a side <= 0.
VESK_API VESK_ERR vesk_utility_abs_to_window_rect(
    const vesk_abstract_rect* abs, const vesk_real_rect* window, vesk_real_rect* out);

// The arrow drawn on a trip wire: a shaft from the wire's midpoint, perpendicular to it,
// `length` units long, pointing to the side a crossing in `dir` ends on, and a head of two
// wings, each a third of the length, at 45 degrees back from the tip (wing_a on b's side,
// wing_b on a's). Rounded to the nearest unit.
struct vesk_line_arrow {
    vesk_real_point tail; // the wire's midpoint
    vesk_real_point tip;
    vesk_real_point wing_a;
    vesk_real_point wing_b;
};
// VESK_ERR_INVALID_PARAM for NULL, a wire whose ends coincide or lie outside
// +-VESK_RULE_COORD_LIMIT, length 0 or above VESK_RULE_COORD_LIMIT, or dir VESK_CROSS_ANY
// (a two-way wire gets one arrow per direction).
VESK_API VESK_ERR vesk_utility_get_line_arrow(const vesk_real_point* a, const vesk_real_point* b,
    vesk_cross_dir dir, uint32_t length, vesk_line_arrow* arrow);

} // namespace vesk_soft

#endif // VESK_UTILITY_MEDIA_H
