// WAV operator: round trips through sox and ffmpeg in every format (both directions,
// byte-exact samples), hand-built files with chunks in odd places and sizes left by a writer
// that died, seeking, and the refusals.
#include <gtest/gtest.h>

#include <cstring>

#include "media_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace media_test;

namespace
{

// Deterministic sample bytes.
bytes sample_bytes(size_t n, uint32_t seed)
{
    bytes b(n);
    for (uint8_t& v : b) {
        seed = seed * 1103515245u + 12345u;
        v = uint8_t(seed >> 16);
    }
    return b;
}

struct operate {
    vesk_wav_operate* op = vesk_utility_new_wav_operate(0x61, "wav test");
    ~operate() { EXPECT_EQ(vesk_utility_delete_wav_operate(op, __FILE__, __func__), VESK_OK); }
};

// Every sample of a file read through the operator.
bytes read_samples(const std::string& path, vesk_wav_format* fmt)
{
    operate o;
    bytes out, buf(4000);
    EXPECT_EQ(o.op->open_read(path.c_str()), VESK_OK) << path;
    EXPECT_EQ(o.op->get_format(fmt), VESK_OK) << path;
    const size_t frame = fmt->channels * fmt->bits_per_sample / 8;
    for (uint32_t got = 0; o.op->read_samples(buf.data(), 1000, &got) == VESK_OK && got > 0;)
        out.insert(out.end(), buf.begin(), buf.begin() + got * frame);
    return out;
}

// Building blocks of hand-made files; odd chunks are padded to even.
bytes chunk(const char* id, const bytes& body, uint32_t size_field)
{
    return concat({bytes(id, id + 4), le({size_field}, 4), body, bytes(body.size() & 1)});
}
bytes fmt_body(uint16_t tag, uint16_t ch, uint32_t rate, uint16_t bits, uint16_t align)
{
    return concat({le({tag, ch}, 2), le({rate, rate * align}, 4), le({align, bits}, 2)});
}
// A RIFF size of -1 is the true one.
bytes riff(const bytes& chunks, int64_t size_field = -1)
{
    const uint32_t size = size_field >= 0 ? uint32_t(size_field) : uint32_t(4 + chunks.size());
    return concat({{'R', 'I', 'F', 'F'}, le({size}, 4), {'W', 'A', 'V', 'E'}, chunks});
}

} // namespace

TEST(WavTest, RoundTripsThroughSoxAndFfmpegInEveryFormat)
{
    if (!have("sox") || !have("ffmpeg"))
        GTEST_SKIP() << "sox or ffmpeg is missing";
    const struct {
        const char* ff; // ffmpeg's raw format and codec suffix
        uint16_t tag, bits;
        const char* sox; // sox's encoding of raw samples
    } cases[] = {{"u8", VESK_WAV_FORMAT_PCM, 8, "-e unsigned-integer -b 8"}, {"s16le", VESK_WAV_FORMAT_PCM, 16, "-e signed-integer -b 16"},
        {"alaw", VESK_WAV_FORMAT_ALAW, 8, "-e a-law -b 8"}, {"mulaw", VESK_WAV_FORMAT_MULAW, 8, "-e u-law -b 8"}};
    const uint32_t frames = 8001; // odd: 8-bit mono data needs its pad byte
    const std::string ours = scratch("ours.wav"), raw = scratch("raw.bin"), back = scratch("back.bin");
    const std::string sox_wav = scratch("sox.wav"), ff_wav = scratch("ff.wav");
    for (const auto& c : cases) {
        for (uint16_t ch = 1; ch <= 2; ch++) {
            SCOPED_TRACE(std::string(c.ff) + " x" + std::to_string(ch));
            const bytes samples = sample_bytes(frames * ch * c.bits / 8, 7u * ch + c.tag);
            const std::string raw_args = " -r 8000 -c " + std::to_string(ch) + " " + c.sox + " ";
            // sox decodes and re-encodes: mu-law's negative zero (0x7F) comes back as 0xFF.
            bytes via_sox = samples;
            for (uint8_t& b : via_sox)
                b = (c.tag == VESK_WAV_FORMAT_MULAW && b == 0x7F) ? 0xFF : b;

            // Ours, written in two calls, read by both tools back to the same raw bytes.
            {
                operate o;
                const vesk_wav_format fmt = {c.tag, ch, 8000, c.bits};
                ASSERT_EQ(o.op->open_write(ours.c_str(), &fmt), VESK_OK);
                ASSERT_EQ(o.op->write_samples(samples.data(), frames / 2), VESK_OK);
                ASSERT_EQ(o.op->write_samples(samples.data() + (frames / 2) * ch * c.bits / 8, frames - frames / 2), VESK_OK);
            }
            EXPECT_EQ(read_all(ours).size() % 2, 0u);
            ASSERT_TRUE(sox(ours + " -t raw" + raw_args + back));
            EXPECT_TRUE(read_all(back) == via_sox) << "sox read";
            ASSERT_TRUE(ffmpeg("-i " + ours + " -c:a copy -f " + c.ff + " " + back));
            EXPECT_TRUE(read_all(back) == samples) << "ffmpeg read";

            // The tools' files (ffmpeg adds a LIST chunk before the data), read by us.
            ASSERT_TRUE(write_all(raw, samples));
            ASSERT_TRUE(sox("-t raw" + raw_args + raw + " -t wav" + raw_args + sox_wav));
            ASSERT_TRUE(ffmpeg("-f " + std::string(c.ff) + " -ar 8000 -ac " + std::to_string(ch) + " -i " + raw + " -c:a copy " + ff_wav));
            for (const std::string& path : {sox_wav, ff_wav}) {
                vesk_wav_format got = {};
                EXPECT_TRUE(read_samples(path, &got) == (path == sox_wav ? via_sox : samples)) << path;
                EXPECT_TRUE(got.format_tag == c.tag && got.channels == ch && got.sample_rate == 8000 && got.bits_per_sample == c.bits);
            }
        }
    }
}

TEST(WavTest, HandMadeLayoutsAreReadAndMalformedOnesRefused)
{
    const bytes pcm = sample_bytes(40, 3); // 20 frames of 16-bit mono, or 10 of stereo
    const bytes ext = concat({fmt_body(0xFFFE, 1, 16000, 16, 2), le({22, 16}, 2), le({4}, 4), le({1}, 2),
        {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}});
    bytes ext_float = ext;
    ext_float[24] = 3; // IEEE float sub-format
    auto with_fmt = [](const bytes& fmt, const bytes& data, int64_t riff_size = -1) {
        return riff(concat({chunk("fmt ", fmt, uint32_t(fmt.size())), data}), riff_size);
    };
    const bytes fmt16 = fmt_body(1, 1, 16000, 16, 2), c_data = chunk("data", pcm, 40), c_odd = chunk("junk", {1, 2, 3}, 3);
    const struct {
        const char* name;
        bytes file;
        VESK_ERR want;
        uint32_t channels, frames; // when readable: frames of a prefix of pcm
    } cases[] = {
        {"plain", with_fmt(fmt16, c_data), VESK_OK, 1, 20},
        {"data before fmt, odd chunk between", riff(concat({c_data, c_odd, chunk("fmt ", fmt16, 16)})), VESK_OK, 1, 20},
        {"extensible", with_fmt(ext, c_data), VESK_OK, 1, 20},
        {"stereo", with_fmt(fmt_body(1, 2, 16000, 16, 4), c_data), VESK_OK, 2, 10},
        {"both sizes 0 (writer died)", with_fmt(fmt16, chunk("data", pcm, 0), 0), VESK_OK, 1, 20},
        {"both sizes unknown", with_fmt(fmt16, chunk("data", pcm, 0xFFFFFFFF), 0xFFFFFFFF), VESK_OK, 1, 20},
        {"data size beyond the file", with_fmt(fmt16, chunk("data", pcm, 4000)), VESK_OK, 1, 20},
        {"trailing half frame", with_fmt(fmt16, chunk("data", concat({pcm, {9}}), 41)), VESK_OK, 1, 20},
        {"empty data, chunk after", with_fmt(fmt16, concat({chunk("data", {}, 0), c_odd})), VESK_OK, 1, 0},
        {"no fmt", riff(concat({c_odd, c_data})), VESK_ERR_OPERATE_FAIL, 0, 0},
        {"no data", riff(chunk("fmt ", fmt16, 16)), VESK_ERR_OPERATE_FAIL, 0, 0},
        {"short fmt", with_fmt(bytes(fmt16.begin(), fmt16.begin() + 14), c_data), VESK_ERR_OPERATE_FAIL, 0, 0},
        {"block size wrong", with_fmt(fmt_body(1, 1, 16000, 16, 4), c_data), VESK_ERR_OPERATE_FAIL, 0, 0},
        {"block size of one channel in stereo", with_fmt(fmt_body(1, 2, 16000, 16, 2), c_data), VESK_ERR_OPERATE_FAIL, 0, 0},
        {"float", with_fmt(fmt_body(3, 1, 16000, 32, 4), c_data), VESK_ERR_NOT_SUPPORT, 0, 0},
        {"extensible float", with_fmt(ext_float, c_data), VESK_ERR_NOT_SUPPORT, 0, 0},
        {"three channels", with_fmt(fmt_body(1, 3, 16000, 16, 6), c_data), VESK_ERR_NOT_SUPPORT, 0, 0},
        {"not RIFF", chunk("fmt ", fmt16, 16), VESK_ERR_OPERATE_FAIL, 0, 0},
        {"cut inside the header", {'R', 'I', 'F', 'F', 0, 0}, VESK_ERR_OPERATE_FAIL, 0, 0},
    };
    const std::string path = scratch("hand.wav");
    operate o;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(write_all(path, c.file));
        ASSERT_EQ(o.op->open_read(path.c_str()), c.want);
        if (c.want != VESK_OK)
            continue;
        vesk_wav_format f = {};
        uint32_t offset = 0, frames = 0, got = 0;
        ASSERT_EQ(o.op->get_format(&f), VESK_OK);
        EXPECT_TRUE(f.format_tag == VESK_WAV_FORMAT_PCM && f.channels == c.channels && f.sample_rate == 16000);
        ASSERT_EQ(o.op->get_data_pos(&offset, &frames), VESK_OK);
        EXPECT_EQ(frames, c.frames);
        bytes buf(200);
        ASSERT_EQ(o.op->read_samples(buf.data(), 100, &got), VESK_OK);
        ASSERT_EQ(got, c.frames);
        EXPECT_EQ(0, memcmp(buf.data(), pcm.data(), got * 2 * c.channels));
        EXPECT_EQ(0, memcmp(c.file.data() + offset, pcm.data(), got * 2 * c.channels));
        EXPECT_EQ(o.op->close(), VESK_OK);
    }
}

TEST(WavTest, SeekingStatesAClipNeverClosedAndRefusedFormats)
{
    const std::string path = scratch("seek.wav"), copy = scratch("seek_copy.wav");
    const bytes samples = sample_bytes(4 * 300, 11); // 300 stereo 16-bit frames
    operate o;
    const vesk_wav_format fmt = {VESK_WAV_FORMAT_PCM, 2, 44100, 16};
    ASSERT_EQ(o.op->open_write(path.c_str(), &fmt), VESK_OK);
    ASSERT_EQ(o.op->write_samples(samples.data(), 300), VESK_OK);
    bytes buf(4 * 300);
    uint32_t got = 0;
    EXPECT_EQ(o.op->read_samples(buf.data(), 1, &got), VESK_ERR_OPERATE_FAIL); // writing
    EXPECT_EQ(o.op->seek_sample(0), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(o.op->open_read(path.c_str()), VESK_ERR_OPERATE_FAIL); // already open
    // A copy taken while the writer is open (its sizes provisional), as after a power cut:
    // every frame written so far is there, and ffmpeg agrees.
    ASSERT_TRUE(write_all(copy, read_all(path)));
    vesk_wav_format f = {};
    EXPECT_TRUE(read_samples(copy, &f) == samples);
    if (have("ffmpeg")) {
        ASSERT_TRUE(ffmpeg("-i " + copy + " -c:a copy -f s16le " + copy + ".raw"));
        EXPECT_TRUE(read_all(copy + ".raw") == samples);
    }
    ASSERT_EQ(o.op->close(), VESK_OK);

    ASSERT_EQ(o.op->open_read(path.c_str()), VESK_OK);
    EXPECT_EQ(o.op->write_samples(samples.data(), 1), VESK_ERR_OPERATE_FAIL); // reading
    for (uint32_t at : {299u, 0u, 150u, 17u, 300u}) {
        ASSERT_EQ(o.op->seek_sample(at), VESK_OK);
        ASSERT_EQ(o.op->read_samples(buf.data(), 20, &got), VESK_OK);
        ASSERT_EQ(got, std::min(20u, 300 - at));
        EXPECT_EQ(0, memcmp(buf.data(), samples.data() + at * 4, got * 4)) << at;
    }
    EXPECT_EQ(o.op->seek_sample(301), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(o.op->read_samples(nullptr, 1, &got), VESK_ERR_INVALID_PARAM);
    ASSERT_EQ(o.op->close(), VESK_OK);
    EXPECT_EQ(o.op->get_format(nullptr), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(o.op->get_format(&f), VESK_ERR_OPERATE_FAIL);
    const vesk_wav_format bad[] = {{VESK_WAV_FORMAT_ALAW, 1, 8000, 16}, {VESK_WAV_FORMAT_PCM, 1, 8000, 24},
        {VESK_WAV_FORMAT_PCM, 0, 8000, 16}, {VESK_WAV_FORMAT_PCM, 3, 8000, 16}, {VESK_WAV_FORMAT_PCM, 1, 0, 16}, {2, 1, 8000, 4}};
    for (const vesk_wav_format& b : bad)
        EXPECT_EQ(o.op->open_write(path.c_str(), &b), VESK_ERR_NOT_SUPPORT);
}
