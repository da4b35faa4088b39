// The depacketiser against a real encoder: an x264 clip is packetised by ffmpeg's own RTP
// muxer, every packet is put in interleaved framing as an RTSP-over-TCP receiver would get it,
// the library joins each frame's packets, and the joined Annex B stream must decode to the
// same pictures (framemd5) as the clip.
//
// ffmpeg writes the packets to a file, back to back, so no socket timing is involved; the
// boundaries are found again from the packets' own sequence numbers and SSRC.
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

bool have_ffmpeg()
{
    return system("ffmpeg -hide_banner -encoders 2>/dev/null | grep -q libx264") == 0
        && system("ffprobe -version >/dev/null 2>&1") == 0;
}

bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const bytes& data)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

std::string run(const std::string& cmd)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0)
        out.append(buf, n);
    EXPECT_EQ(pclose(p), 0) << cmd;
    return out;
}

// The picture checksums of a stream, without the comment lines (which name the input).
std::string frame_md5s(const std::string& path)
{
    std::istringstream all(run("ffmpeg -v error -i " + path + " -f framemd5 -"));
    std::string line, md5s;
    while (std::getline(all, line)) {
        if (!line.empty() && line[0] != '#')
            md5s += line + "\n";
    }
    return md5s;
}

uint32_t be32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

bool is_rtcp(const uint8_t* p)
{
    return p[1] >= 200 && p[1] <= 204;
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
        if (is_rtcp(p)) {
            const size_t len = (size_t((p[2] << 8) | p[3]) + 1) * 4;
            ssrc = be32(p + 4);
            at += len;
            continue;
        }
        ssrc = be32(p + 8);
        const uint16_t next_seq = static_cast<uint16_t>(((p[2] << 8) | p[3]) + 1);
        size_t end = s.size();
        for (size_t q = at + 13; q + 12 <= s.size(); ++q) {
            const uint8_t* c = s.data() + q;
            if (c[0] != 0x80)
                continue;
            const bool rtp_next = c[2] == (next_seq >> 8) && c[3] == (next_seq & 0xFF) && be32(c + 8) == ssrc;
            const bool rtcp_next = is_rtcp(c) && be32(c + 4) == ssrc;
            if (rtp_next || rtcp_next) {
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
        if (!have_ffmpeg())
            GTEST_SKIP() << "ffmpeg with libx264 and ffprobe are not available here (e.g. under qemu); "
                            "the real-encoder check is skipped";
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
    size_t first = 0;
    int frames = 0;
    while (first < packets.size()) {
        size_t last = first;
        while (last + 1 < packets.size() && be32(packets[last + 1].data() + 4) == be32(packets[first].data() + 4))
            ++last;
        const bool with_header = frames % 2 == 1;
        bytes in;
        if (with_header) {
            _tagVeskFrameHeader h = {};
            h.uiStartId = VESK_FRAME_STARTCODE;
            h.uiFrameNo = static_cast<uint32_t>(frames);
            h.uiTimeStamp = be32(packets[first].data() + 4);
            in = vesk_test::frame_header_bytes(h);
        }
        for (size_t i = first; i <= last; ++i)
            vesk_test::interleave(in, packets[i]);
        bytes out(in.size());
        _tagVesk_rtp_h264_param param
            = {in.data(), static_cast<int32_t>(in.size()), out.data(), static_cast<int32_t>(out.size())};
        ASSERT_EQ(vesk_utility_RTPtoH264_InputData(&param), VESK_OK);
        ASSERT_GT(param.nOutSize, with_header ? 36 : 0);
        size_t body = 0;
        if (with_header) {
            _tagVeskFrameHeader h;
            memcpy(&h, out.data(), sizeof(h));
            EXPECT_EQ(h.uiLength, static_cast<uint32_t>(param.nOutSize - 36));
            EXPECT_EQ(h.ucCodec, 8);
            EXPECT_EQ(h.uiFrameNo, static_cast<uint32_t>(frames));
            body = 36;
        }
        annex_b.insert(annex_b.end(), out.begin() + static_cast<long>(body), out.begin() + param.nOutSize);
        first = last + 1;
        frames++;
    }
    EXPECT_EQ(frames, 25);
    write_file(joined, annex_b);

    const std::string want = frame_md5s(clip);
    const std::string got = frame_md5s(joined);
    EXPECT_EQ(std::count(want.begin(), want.end(), '\n'), 25);
    EXPECT_EQ(got, want);
    EXPECT_EQ(run("ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames -of csv=p=0 "
                  + joined),
        "25\n");
}
