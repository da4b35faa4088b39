// RTP depacketising: single units, FU-A joining, extensions, the frame header rewrite, payload
// type 98, rejected parameters, input that lies about its own lengths, and a real x264 clip
// packetised by ffmpeg that must decode to the same pictures once joined.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "media_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace media_test;

namespace
{

constexpr uint8_t k_pt = 96;
const bytes k_start = {0, 0, 0, 1};
const _tagVeskFrameHeader k_header = {VESK_FRAME_STARTCODE, VESK_FRAME_TYPE_I, 77, 1700000000, 0x5EED, 0xFFFFFFFF, 1920,
    1080, 16, {0xA1, 0xA2, 0xA3}, 90000};

// One RTP packet: fixed header (V=2, `cc` CSRCs of 0x11 bytes), then `ext` as the raw
// extension area when given, then the payload.
bytes rtp_packet(uint8_t pt, const bytes& payload, uint16_t seq = 1, int cc = 0, const bytes& ext = {})
{
    const bytes fixed = {uint8_t(0x80 | (ext.empty() ? 0 : 0x10) | cc), pt, uint8_t(seq >> 8), uint8_t(seq), 0, 0, 0x0B,
        0xB8, 0xDE, 0xAD, 0xBE, 0xEF};
    return concat({fixed, bytes(4 * size_t(cc), 0x11), ext, payload});
}

// '$', channel, big-endian length, packet.
bytes framed(const bytes& packet, uint8_t channel = 0)
{
    return concat({{'$', channel, uint8_t(packet.size() >> 8), uint8_t(packet.size())}, packet});
}

bytes header_bytes(const _tagVeskFrameHeader& h)
{
    return bytes(reinterpret_cast<const uint8_t*>(&h), reinterpret_cast<const uint8_t*>(&h + 1));
}

// One interleaved packet per payload, with sequence numbers 1, 2, ...
bytes stream(std::initializer_list<bytes> payloads, bytes in = {})
{
    uint16_t seq = 1;
    for (const bytes& payload : payloads)
        in = concat({in, framed(rtp_packet(k_pt, payload, seq++))});
    return in;
}

struct result {
    VESK_ERR err;
    int out_size;
    bytes out; // the written bytes on success, else the whole buffer
};

// Runs the depacketiser with a capacity of in.size() + extra.
result convert(bytes in, int extra = 0)
{
    bytes out(in.size() + size_t(std::max(extra, 0)), 0xCC);
    _tagVesk_rtp_h264_param p = {in.data(), int32_t(in.size()), out.data(), int32_t(in.size()) + extra};
    const VESK_ERR err = vesk_utility_RTPtoH264_InputData(&p);
    if (err == VESK_OK && p.nOutSize >= 0 && size_t(p.nOutSize) <= out.size())
        out.resize(size_t(p.nOutSize));
    return {err, p.nOutSize, out};
}

uint32_t be32(const uint8_t* p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

} // namespace

TEST(RtpTest, UnitsFragmentsExtensionsAndDamagedPackets)
{
    const bytes one_short = stream({{0x41, 3, 4, 5}}), first = concat({k_start, {0x41, 1, 2}});
    const bytes fifteen_csrcs = {0x8F, k_pt, 0, 2, 0, 0, 0, 0, 1, 2, 3, 4, 0x41, 9}; // in 14 bytes
    // Each row follows a first packet holding {0x41, 1, 2}.
    const struct {
        const char* what;
        bytes tail, want;
    } rows[] = {
        {"a marked packet on channel 1", framed(rtp_packet(k_pt | 0x80, {0x65, 8}), 1), concat({first, k_start, {0x65, 8}})},
        {"FU-A start, middle, end: the NAL header rebuilt from F, NRI and the type",
            stream({{0x7C, 0x85, 1, 2}, {0x7C, 0x05, 3}, {0x7C, 0x45, 4}}), concat({first, k_start, {0x65, 1, 2, 3, 4}})},
        {"FU-A start with a set F bit", stream({{0xFC, 0x81, 7}}), concat({first, k_start, {0xE1, 7}})},
        {"an extension of one word", framed(rtp_packet(k_pt, {0x41, 8}, 3, 0, {0xBE, 0xDE, 0, 1, 7, 7, 7, 7})),
            concat({first, k_start, {0x41, 8}})},
        {"last packet one byte short", bytes(one_short.begin(), one_short.end() - 1), first},
        {"CSRCs run past the packet", concat({framed(fifteen_csrcs), stream({{0x41, 7}})}), first},
        {"extension runs past the packet", framed(rtp_packet(k_pt, {0x41, 9, 9}, 3, 0, {0xBE, 0xDE, 0, 0x40, 1, 2, 3, 4})), first},
        {"X bit with no room for the length field", framed({0x90, k_pt, 0, 3, 0, 0, 0, 0, 1, 2, 3, 4, 0x41}), first},
        {"fewer than four bytes after the last packet", {'$', 0, 0}, first},
    };
    for (const auto& r : rows) {
        const result got = convert(concat({stream({{0x41, 1, 2}}), r.tail}));
        EXPECT_EQ(got.err, VESK_OK) << r.what;
        EXPECT_EQ(got.out, r.want) << r.what;
    }

    // Payload type 98 ends the call with the capacity left as the size; what came before it
    // was written all the same.
    const bytes in = stream({{0x41, 5, 6}}, concat({stream({{0x41, 1, 2}}), framed(rtp_packet(98 | 0x80, {0x41, 3, 4}))}));
    const result r = convert(in, 5);
    EXPECT_EQ(r.err, VESK_OK);
    EXPECT_EQ(r.out_size, int(in.size()) + 5);
    EXPECT_EQ(bytes(r.out.begin(), r.out.begin() + 7), first);
}

TEST(RtpTest, FrameHeaderIsCopiedWithLengthAndCodecRewrittenAlsoInPlace)
{
    const bytes in = stream({{0x65, 1, 2, 3}, {0x7C, 0x41, 4, 5}}, header_bytes(k_header));
    const result r = convert(in);
    ASSERT_EQ(r.err, VESK_OK);
    ASSERT_EQ(r.out_size, 36 + 8 + 2);
    _tagVeskFrameHeader want = k_header;
    want.uiLength = 10;
    want.ucCodec = 8;
    EXPECT_EQ(r.out, concat({header_bytes(want), k_start, {0x65, 1, 2, 3}, {4, 5}}));
    // The output may be the input.
    bytes same = in;
    _tagVesk_rtp_h264_param p = {same.data(), int32_t(same.size()), same.data(), int32_t(same.size())};
    ASSERT_EQ(vesk_utility_RTPtoH264_InputData(&p), VESK_OK);
    EXPECT_EQ(bytes(same.begin(), same.begin() + p.nOutSize), r.out);

    // 36 bytes that do not start with the start code are not a header, so the input must begin
    // with '$'; a header with nothing behind it has no packet to start with.
    bytes bad = in;
    bad[0] = 0x01;
    EXPECT_EQ(convert(bad).err, VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(convert(header_bytes(k_header)).err, VESK_ERR_INVALID_PARAM);
}

TEST(RtpTest, InvalidParametersAreRejected)
{
    bytes in = stream({{0x41, 1, 2}}), buf(64);
    EXPECT_EQ(vesk_utility_RTPtoH264_InputData(nullptr), VESK_ERR_INVALID_PARAM);
    // Capacity one byte short of the input is refused although 7 bytes would fit.
    EXPECT_EQ(convert(in, -1).err, VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(convert(in, 0).err, VESK_OK);
    for (_tagVesk_rtp_h264_param bad : {_tagVesk_rtp_h264_param {nullptr, 20, buf.data(), 64}, {in.data(), 0, buf.data(), 64},
             {in.data(), int32_t(in.size()), nullptr, 64}, {in.data(), -5, buf.data(), 64}})
        EXPECT_EQ(vesk_utility_RTPtoH264_InputData(&bad), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(convert({0x80, 0x60, 0, 1}).err, VESK_ERR_INVALID_PARAM); // not interleaved
    // The other directions are accepted and touch nothing.
    _tagVesk_h264_rtp_param hp = {in.data(), 3, buf.data(), 3};
    _tagVesk_rtp_h264_param rp = {in.data(), 3, buf.data(), 3};
    EXPECT_TRUE(vesk_utility_H264toRTP_InputData(&hp) == VESK_OK && vesk_utility_H265toRTP_InputData(&hp) == VESK_OK);
    EXPECT_EQ(vesk_utility_RTPtoH265_InputData(&rp), VESK_OK);
    EXPECT_TRUE(rp.nOutSize == 3 && std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == 0; }));
}

TEST(RtpTest, FfmpegClipJoinedDecodesToTheSamePictures)
{
    if (!sh("ffmpeg -hide_banner -encoders | grep -q libx264"))
        GTEST_SKIP() << "ffmpeg with libx264 is not available here (e.g. under qemu)";
    const std::string clip = scratch("clip.h264"), params = scratch("params.h264"), rtp = scratch("clip.rtp"),
                      joined = scratch("joined.h264");
    // One second of 320x240 at 25 fps, an I frame every 12; packets of 400 bytes need FU-A. A
    // receiver takes the parameter sets from the session description; the muxer would otherwise
    // aggregate them into STAP-A packets, which this depacketiser does not unpack.
    ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25 -t 1 -c:v libx264 -g 12 -bf 0 -pix_fmt yuv420p -f h264 " + clip));
    ASSERT_TRUE(ffmpeg("-i " + clip + " -c copy -bsf:v filter_units=pass_types=7-8 -f h264 " + params));
    ASSERT_TRUE(ffmpeg("-i " + clip + " -c copy -bsf:v filter_units=remove_types=7-8 -f rtp -packetsize 400 " + rtp));

    // The muxer's file holds RTP packets and RTCP sender reports back to back. A packet ends
    // where the next begins: an RTP header with the next sequence number and the same SSRC, or
    // an RTCP packet of that SSRC (eight bytes that compressed data does not repeat).
    const bytes s = read_all(rtp);
    std::vector<bytes> packets;
    int fu_a = 0;
    for (size_t at = 0; at + 12 <= s.size();) {
        const uint8_t* p = s.data() + at;
        if (p[1] >= 200 && p[1] <= 204) { // RTCP
            at += (size_t(p[2] << 8 | p[3]) + 1) * 4;
            continue;
        }
        const uint32_t ssrc = be32(p + 8), next_seq = uint16_t((p[2] << 8 | p[3]) + 1);
        size_t end = at + 13;
        for (; end + 12 <= s.size(); ++end) {
            const uint8_t* c = s.data() + end;
            const bool rtp_next = uint32_t(c[2] << 8 | c[3]) == next_seq && be32(c + 8) == ssrc;
            if (c[0] == 0x80 && (rtp_next || (c[1] >= 200 && c[1] <= 204 && be32(c + 4) == ssrc)))
                break;
        }
        end = end + 12 <= s.size() ? end : s.size();
        packets.emplace_back(s.begin() + long(at), s.begin() + long(end));
        ASSERT_LE(end - at, 400u);
        ASSERT_NE(p[12] & 0x1F, 24) << "the muxer aggregated units; the oracle needs single units and FU-A";
        fu_a += (p[12] & 0x1F) == 28;
        at = end;
    }
    ASSERT_GT(fu_a, 20) << "the clip must exercise FU-A";

    // All of it in one call behind a frame header; the parameter sets go first.
    bytes in = header_bytes(k_header);
    for (const bytes& p : packets)
        in = concat({in, framed(p)});
    const result r = convert(in);
    ASSERT_EQ(r.err, VESK_OK);
    _tagVeskFrameHeader h = k_header;
    h.uiLength = uint32_t(r.out.size()) - 36;
    h.ucCodec = 8;
    EXPECT_EQ(bytes(r.out.begin(), r.out.begin() + 36), header_bytes(h));
    ASSERT_TRUE(write_all(joined, concat({read_all(params), bytes(r.out.begin() + 36, r.out.end())})));
    // The picture checksums, without the comment lines (which name the input).
    const std::string md5s = " -f framemd5 - | grep -v '^#'";
    const std::vector<std::string> want = lines_of("ffmpeg -v error -i " + clip + md5s);
    EXPECT_EQ(want.size(), 25u);
    EXPECT_EQ(lines_of("ffmpeg -v error -i " + joined + md5s), want);
}
