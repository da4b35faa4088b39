// Builders of RTP packets in interleaved framing for the depacketiser tests.
#ifndef VESK_RTP_TEST_PACKETS_H
#define VESK_RTP_TEST_PACKETS_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "vesk_utility_av_types.h"

namespace vesk_test
{

using bytes = std::vector<uint8_t>;

// One RTP packet: fixed header (V=2, `cc` CSRCs of 0x11 bytes), then `ext` as the raw
// extension area when given, then the payload.
inline bytes rtp_packet(uint8_t pt, const bytes& payload, uint16_t seq = 1, int cc = 0, const bytes* ext = nullptr)
{
    bytes p = {static_cast<uint8_t>(0x80 | (ext != nullptr ? 0x10 : 0) | (cc & 0x0F)), pt,
        static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq), 0, 0, 0x0B, 0xB8, 0xDE, 0xAD, 0xBE, 0xEF};
    p.insert(p.end(), 4 * static_cast<size_t>(cc), 0x11);
    if (ext != nullptr)
        p.insert(p.end(), ext->begin(), ext->end());
    p.insert(p.end(), payload.begin(), payload.end());
    return p;
}

// '$', channel, big-endian length, packet.
inline void interleave(bytes& out, const bytes& packet, uint8_t channel = 0)
{
    out.push_back('$');
    out.push_back(channel);
    out.push_back(static_cast<uint8_t>(packet.size() >> 8));
    out.push_back(static_cast<uint8_t>(packet.size()));
    out.insert(out.end(), packet.begin(), packet.end());
}

inline bytes frame_header_bytes(const vesk_soft::_tagVeskFrameHeader& h)
{
    bytes b(sizeof(h));
    memcpy(b.data(), &h, sizeof(h));
    return b;
}

} // namespace vesk_test

#endif // VESK_RTP_TEST_PACKETS_H
