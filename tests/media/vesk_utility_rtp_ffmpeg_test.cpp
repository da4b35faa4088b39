// The depacketiser against a real encoder: ffmpeg's RTP muxer packetises an x264 clip into a
// file (no sockets), the library joins each frame's interleaved packets, and the joined Annex B
// stream must decode to the same pictures (framemd5) as the clip.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "rtp_test_packets.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using vesk_test::bytes;

namespace
{

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
    std::istringstream all(run("ffmpeg -v error -i " + path + " -f framemd5 -"));
    std::string line, md5s;
    while (std::getline(all, line))
        md5s += !line.empty() && line[0] != '#' ? line + "\n" : "";
    return md5s;
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

} // namespace

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
        bytes in = frames % 2 == 1 ? vesk_test::frame_header_bytes(h) : bytes {};
        const size_t body = in.size();
        for (size_t i = first; i <= last; ++i)
            vesk_test::interleave(in, packets[i]);
        bytes out(in.size());
        _tagVesk_rtp_h264_param p
            = {in.data(), static_cast<int32_t>(in.size()), out.data(), static_cast<int32_t>(out.size())};
        ASSERT_EQ(vesk_utility_RTPtoH264_InputData(&p), VESK_OK);
        ASSERT_GT(p.nOutSize, static_cast<int>(body));
        h.uiLength = static_cast<uint32_t>(p.nOutSize) - 36;
        h.ucCodec = 8;
        EXPECT_EQ(bytes(out.begin(), out.begin() + static_cast<long>(body)),
            body == 0 ? bytes {} : vesk_test::frame_header_bytes(h))
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
