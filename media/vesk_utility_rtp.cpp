// vesk_utility_rtp - RTP depacketising of H.264: interleaved RTSP-over-TCP packets in, an
// Annex B byte stream out, optionally behind the layer's frame header. Packetising and H.265
// are accepted entry points that do nothing in this system.
#include <cstring>

#include "core/vesk_utility_log.h"
#include "vesk_utility_media.h"

namespace vesk_soft
{

namespace
{

// Interleaved framing of one packet:
//   0 '$' | 1 channel | 2 length L (big-endian u16) | 4 RTP packet (L bytes)
constexpr uint8_t k_interleave_magic = '$';
constexpr int k_interleave_size = 4;

// RTP fixed header: 0 V|P|X|CC | 1 M|PT | 2 sequence | 4 timestamp | 8 SSRC | 12 CSRC[CC]...
constexpr int k_rtp_fixed_size = 12;
constexpr uint8_t k_rtp_x_bit = 0x10;
constexpr uint8_t k_rtp_cc_mask = 0x0F;
constexpr uint8_t k_rtp_pt_mask = 0x7F;
// Payload type that ends the conversion at once (see vesk_utility_RTPtoH264_InputData).
constexpr uint8_t k_rtp_pt_stop = 98;
// The extension length is read from these fixed offsets, also when CSRCs move the real
// extension header further back; senders of this system never mix the two.
constexpr int k_rtp_ext_len_hi = 14;
constexpr int k_rtp_ext_len_lo = 15;

constexpr uint8_t k_nal_type_mask = 0x1F;
constexpr uint8_t k_nal_fu_a = 28;
constexpr uint8_t k_nal_nri_f_mask = 0xE0;
constexpr uint8_t k_fu_start_bit = 0x80;

constexpr uint8_t k_start_code[4] = {0, 0, 0, 1};
constexpr int k_frame_header_size = sizeof(_tagVeskFrameHeader);
constexpr int k_frame_header_length_at = 20;
constexpr int k_frame_header_codec_at = 28;
constexpr uint8_t k_codec_h264 = 8;

// The depacketiser's messages carry the platform prefix of the media code, not the layer's
// "[UTL]"; the text goes through the one printing module all the same.
#define VESK_RTP_ERR(fmt, ...)                                                                                         \
    ::vesk_utility::vesk_print_stdout(                                                                                 \
        "\e[0;32;31m[PLAT] ERROR! %s[%d]:" fmt "\e[m", "vesk_RTPtoH264_InputData", __LINE__, ##__VA_ARGS__)

// Length of the RTP header of one packet of `size` bytes, or -1 when the header, with its
// CSRCs and extension, runs past the packet. A header that exactly fills it is valid: the
// packet carries an empty payload.
inline int rtp_header_size(const uint8_t* rtp, int size)
{
    if (size < k_rtp_fixed_size)
        return -1;
    int header = k_rtp_fixed_size + 4 * (rtp[0] & k_rtp_cc_mask);
    if (rtp[0] & k_rtp_x_bit) {
        if (size <= k_rtp_ext_len_lo)
            return -1;
        // Kept as the receivers of this system have always computed it: an OR, which equals
        // (length + 1) * 4 whenever the high byte is 0.
        header += (rtp[k_rtp_ext_len_hi] * 256) | ((rtp[k_rtp_ext_len_lo] + 1) * 4);
    }
    return header <= size ? header : -1;
}

} // namespace

VESK_ERR vesk_utility_RTPtoH264_InputData(_tagVesk_rtp_h264_param* param)
{
    if (param == nullptr) {
        VESK_RTP_ERR("pParam == NULL");
        return VESK_ERR_INVALID_PARAM;
    }
    const uint8_t* in = param->pInData;
    uint8_t* out = param->pOutData;
    const int in_size = param->nInDataSize;
    if (in == nullptr || in_size <= 0 || out == nullptr || param->nOutSize < in_size) {
        VESK_RTP_ERR("pInData %p, nInDataSize %d, pOutData %p, nOutSize %d\n", static_cast<void*>(param->pInData),
            param->nInDataSize, static_cast<void*>(param->pOutData), param->nOutSize);
        return VESK_ERR_INVALID_PARAM;
    }

    // Optional frame header: kept aside (the output may overlap the input) and written last.
    _tagVeskFrameHeader header;
    bool has_header = false;
    int pos = 0;
    if (in[0] != k_interleave_magic && in_size >= k_frame_header_size) {
        memcpy(&header, in, sizeof(header));
        if (header.uiStartId == VESK_FRAME_STARTCODE) {
            has_header = true;
            pos = k_frame_header_size;
        }
    }
    if (pos >= in_size || in[pos] != k_interleave_magic)
        return VESK_ERR_INVALID_PARAM;

    // Invariant: out_pos <= pos. Every packet consumes L + 4 input bytes and writes at most
    // L - 12 + 4 of them, so the output stays within nOutSize >= nInDataSize and, in place,
    // never overtakes the input still to be read.
    int out_pos = pos;
    while (pos + k_interleave_size <= in_size && in[pos] == k_interleave_magic) {
        const int len = (in[pos + 2] << 8) | in[pos + 3];
        if (pos + k_interleave_size + len > in_size)
            break; // truncated last packet
        const uint8_t* rtp = in + pos + k_interleave_size;
        if (len >= 2 && (rtp[1] & k_rtp_pt_mask) == k_rtp_pt_stop)
            return VESK_OK;
        const int rtp_header = rtp_header_size(rtp, len);
        if (rtp_header < 0)
            break; // header runs past the packet: treated like a truncated packet
        const uint8_t* payload = rtp + rtp_header;
        const int payload_size = len - rtp_header;
        // An empty payload is an empty single unit: a bare start code.
        const uint8_t nal = payload_size > 0 ? payload[0] : 0;
        if ((nal & k_nal_type_mask) == k_nal_fu_a) {
            // An FU-A packet without its FU header has no start bit and no body: it adds nothing.
            if (payload_size >= 2) {
                const uint8_t fu = payload[1];
                if (fu & k_fu_start_bit) {
                    memcpy(out + out_pos, k_start_code, sizeof(k_start_code));
                    out[out_pos + 4] = static_cast<uint8_t>((nal & k_nal_nri_f_mask) | (fu & k_nal_type_mask));
                    out_pos += 5;
                }
                memmove(out + out_pos, payload + 2, payload_size - 2);
                out_pos += payload_size - 2;
            }
        } else {
            memcpy(out + out_pos, k_start_code, sizeof(k_start_code));
            memmove(out + out_pos + 4, payload, payload_size);
            out_pos += 4 + payload_size;
        }
        pos += k_interleave_size + len;
    }

    if (!has_header) {
        param->nOutSize = out_pos;
        return VESK_OK;
    }
    const uint32_t written = static_cast<uint32_t>(out_pos - k_frame_header_size);
    uint8_t* raw = reinterpret_cast<uint8_t*>(&header);
    memcpy(raw + k_frame_header_length_at, &written, sizeof(written));
    raw[k_frame_header_codec_at] = k_codec_h264;
    memcpy(out, &header, sizeof(header));
    param->nOutSize = out_pos;
    return VESK_OK;
}

VESK_ERR vesk_utility_H264toRTP_InputData(_tagVesk_h264_rtp_param*)
{
    return VESK_OK;
}

VESK_ERR vesk_utility_H265toRTP_InputData(_tagVesk_h264_rtp_param*)
{
    return VESK_OK;
}

VESK_ERR vesk_utility_RTPtoH265_InputData(_tagVesk_rtp_h264_param*)
{
    return VESK_OK;
}

} // namespace vesk_soft
