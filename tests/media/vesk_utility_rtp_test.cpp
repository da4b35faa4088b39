// RTP depacketising: single units, FU-A joining, the frame header rewrite, the early return
// of payload type 98, rejected parameters, input that lies about its own lengths, and a real
// x264 clip packetised by ffmpeg that must decode to the same pictures once joined.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

using bytes = std::vector<uint8_t>;

// One RTP packet: fixed header (V=2, `cc` CSRCs of 0x11 bytes), then `ext` as the raw
// extension area when given, then the payload.
bytes rtp_packet(uint8_t pt, const bytes& payload, uint16_t seq = 1, int cc = 0, const bytes* ext = nullptr)
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
void interleave(bytes& out, const bytes& packet, uint8_t channel = 0)
{
    out.insert(
        out.end(), {'$', channel, static_cast<uint8_t>(packet.size() >> 8), static_cast<uint8_t>(packet.size())});
    out.insert(out.end(), packet.begin(), packet.end());
}

bytes frame_header_bytes(const _tagVeskFrameHeader& h)
{
    return bytes(reinterpret_cast<const uint8_t*>(&h), reinterpret_cast<const uint8_t*>(&h + 1));
}

bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string run(const std::string& cmd)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    for (int c; p != nullptr && (c = fgetc(p)) != EOF;)
        out += static_cast<char>(c);
    EXPECT_TRUE(p != nullptr && pclose(p) == 0) << cmd;
    return out;
}

// The picture checksums of a stream, without the comment lines (which name the input).
std::string frame_md5s(const std::string& path)
{
    return run("ffmpeg -v error -i " + path + " -f framemd5 - | grep -v '^#'");
}

uint32_t be32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// Splits the muxer's byte stream into RTP packets, dropping its RTCP sender reports. A packet
// ends where the next one begins: an RTP header with the next sequence number and the same
// SSRC, or an RTCP packet of that SSRC (eight bytes that compressed data does not repeat).
std::vector<bytes> split_rtp(const bytes& s)
{
    std::vector<bytes> packets;
    uint32_t ssrc = 0;
    size_t at = 0;
    while (at + 12 <= s.size()) {
        const uint8_t* p = s.data() + at;
        if (p[1] >= 200 && p[1] <= 204) { // RTCP
            ssrc = be32(p + 4);
            at += (size_t((p[2] << 8) | p[3]) + 1) * 4;
            continue;
        }
        ssrc = be32(p + 8);
        const uint16_t next_seq = static_cast<uint16_t>(((p[2] << 8) | p[3]) + 1);
        size_t end = s.size();
        for (size_t q = at + 13; q + 12 <= s.size(); ++q) {
            const uint8_t* c = s.data() + q;
            const bool rtp_next = c[2] == (next_seq >> 8) && c[3] == (next_seq & 0xFF) && be32(c + 8) == ssrc;
            if (c[0] == 0x80 && (rtp_next || (c[1] >= 200 && c[1] <= 204 && be32(c + 4) == ssrc))) {
                end = q;
                break;
            }
        }
        packets.emplace_back(s.begin() + at, s.begin() + end);
        at = end;
    }
    return packets;
}

class RtpFfmpegTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (system("ffmpeg -hide_banner -encoders 2>/dev/null | grep -q libx264") != 0)
            GTEST_SKIP() << "ffmpeg with libx264 is not available here (e.g. under qemu)";
        char tmpl[] = "/tmp/vesk_rtp.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_dir = tmpl;
    }
    void TearDown() override
    {
        if (!m_dir.empty())
            run("rm -rf " + m_dir);
    }
    std::string m_dir;
};

constexpr uint8_t k_pt = 96;
const bytes k_start = {0, 0, 0, 1};
const _tagVeskFrameHeader k_header = {VESK_FRAME_STARTCODE, VESK_FRAME_TYPE_I, 77, 1700000000, 0x5EED, 0xFFFFFFFF, 1920,
    1080, 16, {0xA1, 0xA2, 0xA3}, 90000};

struct result {
    VESK_ERR err;
    int out_size;
    bytes out; // the written bytes on success, else the whole buffer
};

// Runs the depacketiser with a capacity of in.size() + extra.
result convert(bytes in, int extra = 0)
{
    bytes out(in.size() + static_cast<size_t>(extra > 0 ? extra : 0), 0xCC);
    _tagVesk_rtp_h264_param p
        = {in.data(), static_cast<int32_t>(in.size()), out.data(), static_cast<int32_t>(in.size()) + extra};
    const VESK_ERR err = vesk_utility_RTPtoH264_InputData(&p);
    if (err == VESK_OK && p.nOutSize >= 0 && static_cast<size_t>(p.nOutSize) <= out.size())
        out.resize(static_cast<size_t>(p.nOutSize));
    return {err, p.nOutSize, out};
}

// Interleaves one packet per payload, with sequence numbers 1, 2, ...
bytes stream(std::initializer_list<bytes> payloads, bytes in = {})
{
    uint16_t seq = 1;
    for (const bytes& payload : payloads)
        interleave(in, rtp_packet(k_pt, payload, seq++));
    return in;
}

bytes join(std::initializer_list<bytes> parts)
{
    bytes all;
    for (const bytes& b : parts)
        all.insert(all.end(), b.begin(), b.end());
    return all;
}

} // namespace

TEST(RtpTest, SingleUnitsAndFuAFragmentsJoinBehindStartCodes)
{
    const bytes sps = {0x67, 0x42, 0x00, 0x1F, 0xE9}, slice = {0x65, 0x88, 0x84, 0x00, 0x33, 0xFF};
    bytes in;
    interleave(in, rtp_packet(k_pt, sps, 1));
    interleave(in, rtp_packet(k_pt | 0x80, slice, 2), 1); // marker bit, channel 1: both ignored
    result r = convert(in);
    ASSERT_EQ(r.err, VESK_OK);
    EXPECT_EQ(r.out_size, static_cast<int>(8 + sps.size() + slice.size()));
    EXPECT_EQ(r.out, join({k_start, sps, k_start, slice}));

    // The FU indicator gives F and NRI (0x60 here), the FU header S/E and the original type 5.
    in.clear();
    interleave(in, rtp_packet(k_pt, {0x7C, 0x85, 1, 2, 3}, 10));
    interleave(in, rtp_packet(k_pt, {0x7C, 0x05, 4, 5}, 11));
    interleave(in, rtp_packet(k_pt | 0x80, {0x7C, 0x45, 6}, 12));
    r = convert(in);
    ASSERT_EQ(r.err, VESK_OK);
    EXPECT_EQ(r.out, join({k_start, {0x65, 1, 2, 3, 4, 5, 6}}));
    // Without a start fragment the bodies are appended behind whatever came before: the end
    // bit and the order are not checked. A set F bit is kept.
    r = convert(stream({{0x41, 9}, {0x7C, 0x05, 4, 5}, {0xFC, 0x81, 7}}));
    ASSERT_EQ(r.err, VESK_OK);
    EXPECT_EQ(r.out, join({k_start, {0x41, 9, 4, 5}, k_start, {0xE1, 7}}));
}

TEST(RtpTest, FrameHeaderIsCopiedWithLengthAndCodecRewritten)
{
    const bytes in = stream({{0x65, 1, 2, 3}, {0x7C, 0x41, 4, 5}}, frame_header_bytes(k_header));
    const result r = convert(in);
    ASSERT_EQ(r.err, VESK_OK);
    ASSERT_EQ(r.out_size, 36 + 8 + 2);
    _tagVeskFrameHeader want = k_header;
    want.uiLength = 10;
    want.ucCodec = 8;
    EXPECT_EQ(bytes(r.out.begin(), r.out.begin() + 36), frame_header_bytes(want));
    EXPECT_EQ(bytes(r.out.begin() + 36, r.out.end()), join({k_start, {0x65, 1, 2, 3}, {4, 5}}));

    // 36 bytes that do not start with the start code are not a header, so the input must begin
    // with '$'; a header with nothing behind it has no packet to start with.
    bytes bad = in;
    bad[0] = 0x01;
    EXPECT_EQ(convert(bad).err, VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(convert(frame_header_bytes(k_header)).err, VESK_ERR_INVALID_PARAM);
}

TEST(RtpTest, PayloadType98EndsTheCallWithCapacityUnchanged)
{
    bytes in = stream({{0x41, 1, 2}});
    interleave(in, rtp_packet(98 | 0x80, {0x41, 3, 4}));
    in = stream({{0x41, 5, 6}}, in);
    const result r = convert(in, 5);
    EXPECT_EQ(r.err, VESK_OK);
    EXPECT_EQ(r.out_size, static_cast<int>(in.size()) + 5);
    // The packet before it was written all the same; only the size was not reported.
    EXPECT_EQ(bytes(r.out.begin(), r.out.begin() + 7), join({k_start, {0x41, 1, 2}}));
}

TEST(RtpTest, InvalidParametersAreRejectedAndLogged)
{
    std::string out = vesk_test::capture_stdout(
        [] { EXPECT_EQ(vesk_utility_RTPtoH264_InputData(nullptr), VESK_ERR_INVALID_PARAM); });
    EXPECT_NE(out.find("\e[0;32;31m[PLAT] ERROR! vesk_RTPtoH264_InputData["), std::string::npos) << out;
    EXPECT_NE(out.find("]:pParam == NULL"), std::string::npos) << out;

    bytes in = stream({{0x41, 1, 2}});
    // Capacity one byte short is refused although 7 bytes would fit.
    EXPECT_EQ(convert(in, -1).err, VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(convert(in, 0).err, VESK_OK);
    bytes buf(64);
    _tagVesk_rtp_h264_param p = {in.data(), 0, buf.data(), 64};
    out = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_RTPtoH264_InputData(&p), VESK_ERR_INVALID_PARAM); });
    EXPECT_NE(out.find("nInDataSize 0, pOutData "), std::string::npos) << out;
    EXPECT_NE(out.find(", nOutSize 64\n"), std::string::npos) << out;
    for (_tagVesk_rtp_h264_param bad : {_tagVesk_rtp_h264_param {nullptr, 20, buf.data(), 64},
             {in.data(), static_cast<int32_t>(in.size()), nullptr, 64}, {in.data(), -5, buf.data(), 64}})
        EXPECT_EQ(vesk_utility_RTPtoH264_InputData(&bad), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(convert({0x80, 0x60, 0, 1}).err, VESK_ERR_INVALID_PARAM); // not interleaved
}

TEST(RtpTest, TruncatedOrLyingPacketsEndTheConversionButShortOnesDoNot)
{
    const bytes long_ext = {0xBE, 0xDE, 0x00, 0x40, 1, 2, 3, 4};
    bytes short_last = stream({{0x41, 3, 4, 5}});
    short_last.resize(short_last.size() - 2);
    bytes csrc_overrun, ext_overrun, no_ext_length;
    interleave(csrc_overrun, bytes {0x8F, k_pt, 0, 2, 0, 0, 0, 0, 1, 2, 3, 4, 0x41, 9});
    interleave(csrc_overrun, rtp_packet(k_pt, {0x41, 7})); // never reached
    interleave(ext_overrun, rtp_packet(k_pt, {0x41, 9, 9}, 3, 0, &long_ext));
    interleave(no_ext_length, bytes {0x90, k_pt, 0, 3, 0, 0, 0, 0, 1, 2, 3, 4, 0x41});
    const struct {
        const char* what;
        bytes tail;
    } cases[] = {
        {"last packet announces more bytes than there are", short_last},
        {"fifteen CSRCs announced in a 14-byte packet", csrc_overrun},
        {"extension length runs past the packet", ext_overrun},
        {"X bit with no room for the length field", no_ext_length},
        {"fewer than four bytes after the last packet", {'$', 0, 0}},
    };
    for (const auto& c : cases) {
        bytes in = stream({{0x41, 1, 2}});
        in.insert(in.end(), c.tail.begin(), c.tail.end());
        const result r = convert(in);
        EXPECT_EQ(r.err, VESK_OK) << c.what;
        EXPECT_EQ(r.out, join({k_start, {0x41, 1, 2}})) << c.what;
    }
    // Short but well-formed packets give what they hold, and the next packet is converted.
    const struct {
        const char* what;
        bytes payload, yields;
    } going_on[] = {
        {"header exactly fills the packet: an empty unit", {}, k_start},
        {"FU-A without its FU header adds nothing", {0x7C}, {}},
    };
    for (const auto& c : going_on) {
        const result r = convert(stream({{0x41, 1, 2}, c.payload, {0x41, 7}}));
        EXPECT_EQ(r.err, VESK_OK) << c.what;
        EXPECT_EQ(r.out, join({k_start, {0x41, 1, 2}, c.yields, k_start, {0x41, 7}})) << c.what;
    }
}

TEST(RtpTest, ExtensionLengthIsTheOrOfItsTwoBytes)
{
    // Length field 0x0100: the receivers of this system skip (1 * 256) | ((0 + 1) * 4) = 260
    // bytes of extension, not the (256 + 1) * 4 = 1028 that the field means.
    bytes ext(260, 0xEE);
    ext[0] = 0xBE, ext[1] = 0xDE, ext[2] = 0x01, ext[3] = 0x00;
    bytes in;
    interleave(in, rtp_packet(k_pt, {0x41, 0x9A, 0x02}, 1, 0, &ext));
    EXPECT_EQ(convert(in).out, join({k_start, {0x41, 0x9A, 0x02}}));
    // With a CSRC the length is still read at bytes 14 and 15 (inside the CSRC list): 0x1111
    // there means (0x11 * 256) | (0x12 * 4) = 0x1148 bytes, more than the packet holds.
    const bytes small_ext = {0xBE, 0xDE, 0x00, 0x00};
    in.clear();
    interleave(in, rtp_packet(k_pt, {0x41, 1}, 1, 0, &small_ext));
    interleave(in, rtp_packet(k_pt, {0x41, 2}, 2, 1, &small_ext));
    EXPECT_EQ(convert(in).out, join({k_start, {0x41, 1}}));
}

TEST(RtpTest, ConvertsInPlace)
{
    bytes in = stream({{0x67, 1, 2}, {0x5C, 0x85, 3, 4, 5}, {0x5C, 0x45, 6, 7}}, frame_header_bytes(k_header));
    const result copied = convert(in);
    ASSERT_EQ(copied.err, VESK_OK);
    _tagVesk_rtp_h264_param p
        = {in.data(), static_cast<int32_t>(in.size()), in.data(), static_cast<int32_t>(in.size())};
    ASSERT_EQ(vesk_utility_RTPtoH264_InputData(&p), VESK_OK);
    ASSERT_EQ(p.nOutSize, copied.out_size);
    EXPECT_EQ(bytes(in.begin(), in.begin() + p.nOutSize), copied.out);
}

TEST(RtpTest, OtherDirectionsAcceptAndTouchNothing)
{
    bytes in = {1, 2, 3}, out = {4, 5, 6};
    _tagVesk_h264_rtp_param hp = {in.data(), 3, out.data(), 3};
    _tagVesk_rtp_h264_param rp = {in.data(), 3, out.data(), 3};
    EXPECT_EQ(vesk_utility_H264toRTP_InputData(&hp), VESK_OK);
    EXPECT_EQ(vesk_utility_H265toRTP_InputData(&hp), VESK_OK);
    EXPECT_EQ(vesk_utility_RTPtoH265_InputData(&rp), VESK_OK);
    EXPECT_EQ(out, (bytes {4, 5, 6}));
    EXPECT_EQ(rp.nOutSize, 3);
}

TEST_F(RtpFfmpegTest, JoinedFramesDecodeToTheClipsPictures)
{
    const std::string clip = m_dir + "/clip.h264", params = m_dir + "/params.h264", rtp = m_dir + "/clip.rtp",
                      joined = m_dir + "/joined.h264";
    // One second of 320x240 at 25 fps, an I frame every 12: I and P frames, slices of a few
    // hundred bytes to several kB, so packets of 400 bytes need FU-A.
    run("ffmpeg -v error -y -f lavfi -i testsrc=size=320x240:rate=25 -t 1 -c:v libx264 -g 12 -bf 0 "
        "-pix_fmt yuv420p -f h264 "
        + clip);
    // A receiver takes the parameter sets from the session description; the muxer would
    // otherwise aggregate them into STAP-A packets, which this depacketiser does not unpack.
    run("ffmpeg -v error -y -i " + clip + " -c copy -bsf:v filter_units=pass_types=7-8 -f h264 " + params);
    run("ffmpeg -v error -y -i " + clip + " -c copy -bsf:v filter_units=remove_types=7-8 -f rtp -packetsize 400 " + rtp
        + " >/dev/null");

    const std::vector<bytes> packets = split_rtp(read_file(rtp));
    ASSERT_GT(packets.size(), 30u);
    int fu_a = 0;
    for (const bytes& p : packets) {
        ASSERT_GT(p.size(), 12u);
        ASSERT_LE(p.size(), 400u);
        const uint8_t nal_type = p[12] & 0x1F;
        ASSERT_NE(nal_type, 24) << "the muxer aggregated units; the oracle needs single units and FU-A";
        fu_a += nal_type == 28;
    }
    ASSERT_GT(fu_a, 20) << "the clip must exercise FU-A";

    // Frame by frame (one RTP timestamp each), every other frame behind a frame header.
    bytes annex_b = read_file(params);
    ASSERT_FALSE(annex_b.empty());
    int frames = 0;
    for (size_t first = 0, last = 0; first < packets.size(); first = ++last, frames++) {
        const uint32_t ts = be32(packets[first].data() + 4);
        while (last + 1 < packets.size() && be32(packets[last + 1].data() + 4) == ts)
            ++last;
        _tagVeskFrameHeader h = {VESK_FRAME_STARTCODE, 0, static_cast<uint32_t>(frames), 0, 0, 0, 0, 0, 0, {}, ts};
        bytes in = frames % 2 == 1 ? frame_header_bytes(h) : bytes {};
        const size_t body = in.size();
        for (size_t i = first; i <= last; ++i)
            interleave(in, packets[i]);
        bytes out(in.size());
        _tagVesk_rtp_h264_param p
            = {in.data(), static_cast<int32_t>(in.size()), out.data(), static_cast<int32_t>(out.size())};
        ASSERT_EQ(vesk_utility_RTPtoH264_InputData(&p), VESK_OK);
        ASSERT_GT(p.nOutSize, static_cast<int>(body));
        h.uiLength = static_cast<uint32_t>(p.nOutSize) - 36;
        h.ucCodec = 8;
        EXPECT_EQ(
            bytes(out.begin(), out.begin() + static_cast<long>(body)), body == 0 ? bytes {} : frame_header_bytes(h))
            << frames;
        annex_b.insert(annex_b.end(), out.begin() + static_cast<long>(body), out.begin() + p.nOutSize);
    }
    EXPECT_EQ(frames, 25);
    std::ofstream(joined, std::ios::binary)
        .write(reinterpret_cast<const char*>(annex_b.data()), static_cast<std::streamsize>(annex_b.size()));
    const std::string want = frame_md5s(clip);
    EXPECT_EQ(std::count(want.begin(), want.end(), '\n'), 25);
    EXPECT_EQ(frame_md5s(joined), want);
}
