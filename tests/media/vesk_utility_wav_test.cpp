// WAV operator: round trips through sox and ffmpeg in every format (both directions,
// byte-exact samples), hand-built files with chunks in odd places and sizes left by a writer
// that died, seeking, and the refusals.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "media/vesk_utility_wav_operate.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

using bytes = std::vector<uint8_t>;

bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const bytes& b)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

bool tool(const std::string& cmd)
{
    return system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

std::string tmp(const std::string& name)
{
    return vesk_test::private_root() + "/" + name;
}

struct wav_case {
    const char* name;
    uint16_t tag;
    uint16_t bits;
    const char* sox_enc;   // sox -e/-b for raw samples
    const char* ff_fmt;    // ffmpeg raw format and codec suffix
};

const wav_case k_cases[] = {
    {"u8", VESK_WAV_FORMAT_PCM, 8, "-e unsigned-integer -b 8", "u8"},
    {"s16le", VESK_WAV_FORMAT_PCM, 16, "-e signed-integer -b 16", "s16le"},
    {"alaw", VESK_WAV_FORMAT_ALAW, 8, "-e a-law -b 8", "alaw"},
    {"mulaw", VESK_WAV_FORMAT_MULAW, 8, "-e u-law -b 8", "mulaw"},
};

// Deterministic sample bytes for `frames` frames (an odd count, so 8-bit mono needs a pad).
bytes sample_bytes(size_t n, uint32_t seed)
{
    bytes b(n);
    for (size_t i = 0; i < n; i++) {
        seed = seed * 1103515245u + 12345u;
        b[i] = static_cast<uint8_t>(seed >> 16);
    }
    return b;
}

// Reads every sample of a file through the operator.
bytes read_all(const std::string& path, vesk_wav_format* fmt)
{
    vesk_wav_operate* op = vesk_utility_new_wav_operate(0x61, "wav read");
    EXPECT_NE(op, nullptr);
    bytes out;
    if (op->open_read(path.c_str()) == VESK_OK && op->get_format(fmt) == VESK_OK) {
        const size_t frame = fmt->channels * fmt->bits_per_sample / 8;
        bytes buf(frame * 1000);
        for (uint32_t got = 0; op->read_samples(buf.data(), 1000, &got) == VESK_OK && got > 0;)
            out.insert(out.end(), buf.begin(), buf.begin() + got * frame);
    } else {
        ADD_FAILURE() << "cannot read " << path;
    }
    EXPECT_EQ(vesk_utility_delete_wav_operate(op, __FILE__, __func__), VESK_OK);
    return out;
}

// Little-endian building blocks of hand-made files.
void put16(bytes& b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}
void put32(bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void chunk(bytes& b, const char* id, const bytes& body, uint32_t size_field)
{
    b.insert(b.end(), id, id + 4);
    put32(b, size_field);
    b.insert(b.end(), body.begin(), body.end());
    if (body.size() & 1)
        b.push_back(0);
}
bytes fmt_body(uint16_t tag, uint16_t ch, uint32_t rate, uint16_t bits, uint16_t align)
{
    bytes f;
    put16(f, tag);
    put16(f, ch);
    put32(f, rate);
    put32(f, rate * align);
    put16(f, align);
    put16(f, bits);
    return f;
}
bytes riff(const bytes& chunks, uint32_t size_field)
{
    bytes b = {'R', 'I', 'F', 'F'};
    put32(b, size_field);
    b.insert(b.end(), {'W', 'A', 'V', 'E'});
    b.insert(b.end(), chunks.begin(), chunks.end());
    return b;
}

} // namespace

TEST(WavTest, RoundTripsThroughSoxAndFfmpegInEveryFormat)
{
    if (!tool("sox --version") || !tool("ffmpeg -version"))
        GTEST_SKIP() << "sox or ffmpeg is missing";
    const uint32_t frames = 8001;  // odd: 8-bit mono data needs its pad byte
    for (const wav_case& c : k_cases) {
        for (uint16_t ch = 1; ch <= 2; ch++) {
            SCOPED_TRACE(std::string(c.name) + " x" + std::to_string(ch));
            const bytes samples = sample_bytes(frames * ch * c.bits / 8, 7u * ch + c.tag);
            const std::string ours = tmp("ours.wav"), raw = tmp("raw.bin"), back = tmp("back.bin");
            const std::string raw_args = " -r 8000 -c " + std::to_string(ch) + " " + c.sox_enc + " ";
            const std::string ff_in = " -f " + std::string(c.ff_fmt) + " -ar 8000 -ac " + std::to_string(ch);

            // Ours, read by both tools back to the same raw bytes.
            vesk_wav_operate* op = vesk_utility_new_wav_operate(0x61, "wav write");
            ASSERT_NE(op, nullptr);
            const vesk_wav_format fmt = {c.tag, ch, 8000, c.bits};
            ASSERT_EQ(op->open_write(ours.c_str(), &fmt), VESK_OK);
            const size_t half = (frames / 2) * ch * c.bits / 8;
            ASSERT_EQ(op->write_samples(samples.data(), frames / 2), VESK_OK);
            ASSERT_EQ(op->write_samples(samples.data() + half, frames - frames / 2), VESK_OK);
            ASSERT_EQ(vesk_utility_delete_wav_operate(op, __FILE__, __func__), VESK_OK);
            EXPECT_EQ(read_file(ours).size() % 2, 0u);
            // sox decodes and re-encodes: mu-law's negative zero (0x7F) comes back as 0xFF.
            bytes via_sox = samples;
            for (uint8_t& b : via_sox)
                b = (c.tag == VESK_WAV_FORMAT_MULAW && b == 0x7F) ? 0xFF : b;
            ASSERT_TRUE(tool("sox -V1 " + ours + " -t raw" + raw_args + back));
            EXPECT_TRUE(read_file(back) == via_sox) << "sox read";
            ASSERT_TRUE(tool("ffmpeg -v error -y -i " + ours + " -c:a copy -f " + c.ff_fmt + " " + back));
            EXPECT_TRUE(read_file(back) == samples) << "ffmpeg read";

            // The tools' files (ffmpeg adds a LIST chunk before the data), read by us.
            write_file(raw, samples);
            const std::string sox_wav = tmp("sox.wav"), ff_wav = tmp("ff.wav");
            ASSERT_TRUE(tool("sox -V1 -t raw" + raw_args + raw + " -t wav" + raw_args + sox_wav));
            ASSERT_TRUE(tool("ffmpeg -v error -y" + ff_in + " -i " + raw + " -c:a copy " + ff_wav));
            for (const std::string& path : {sox_wav, ff_wav}) {
                vesk_wav_format got = {};
                EXPECT_TRUE(read_all(path, &got) == (path == sox_wav ? via_sox : samples)) << path;
                EXPECT_EQ(got.format_tag, c.tag);
                EXPECT_EQ(got.channels, ch);
                EXPECT_EQ(got.sample_rate, 8000u);
                EXPECT_EQ(got.bits_per_sample, c.bits);
            }
        }
    }
}

TEST(WavTest, HandMadeLayoutsAreReadAndMalformedOnesRefused)
{
    const bytes pcm = sample_bytes(40, 3);  // 20 frames of 16-bit mono
    const bytes fmt16 = fmt_body(1, 1, 16000, 16, 2);
    bytes ext = fmt_body(0xFFFE, 1, 16000, 16, 2);
    put16(ext, 22);
    put16(ext, 16);
    put32(ext, 4);
    put16(ext, 1);
    ext.insert(ext.end(), {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71});
    bytes ext_float = ext;
    ext_float[24] = 3;  // IEEE float sub-format
    const bytes odd = {1, 2, 3};  // an odd-sized chunk, padded

    struct layout_case {
        const char* name;
        bytes file;
        VESK_ERR want;
        size_t frames;  // expected frames when readable (samples are a prefix of pcm)
    };
    auto body = [](std::initializer_list<bytes> parts) {
        bytes b;
        for (const bytes& p : parts)
            b.insert(b.end(), p.begin(), p.end());
        return b;
    };
    auto ck = [](const char* id, const bytes& b, uint32_t size) {
        bytes out;
        chunk(out, id, b, size);
        return out;
    };
    const bytes c_fmt = ck("fmt ", fmt16, 16), c_data = ck("data", pcm, 40), c_odd = ck("junk", odd, 3);
    const uint32_t n = 4 + 24 + 48 + 12;
    const std::vector<layout_case> cases = {
        {"plain", riff(body({c_fmt, c_data}), 4 + 24 + 48), VESK_OK, 20},
        {"data before fmt, odd chunk between", riff(body({c_data, c_odd, c_fmt}), n), VESK_OK, 20},
        {"extensible", riff(body({ck("fmt ", ext, 40), c_data}), 4 + 48 + 48), VESK_OK, 20},
        {"both sizes 0 (writer died)", riff(body({c_fmt, ck("data", pcm, 0)}), 0), VESK_OK, 20},
        {"both sizes unknown", riff(body({c_fmt, ck("data", pcm, 0xFFFFFFFF)}), 0xFFFFFFFF), VESK_OK, 20},
        {"data size beyond the file", riff(body({c_fmt, ck("data", pcm, 4000)}), 4 + 24 + 4008), VESK_OK, 20},
        {"trailing half frame", riff(body({c_fmt, ck("data", body({pcm, {9}}), 41)}), 4 + 24 + 50), VESK_OK, 20},
        {"empty data, chunk after", riff(body({c_fmt, ck("data", {}, 0), c_odd}), 4 + 24 + 8 + 12), VESK_OK, 0},
        {"no fmt", riff(body({c_odd, c_data}), 4 + 12 + 48), VESK_ERR_OPERATE_FAIL, 0},
        {"no data", riff(body({c_fmt}), 4 + 24), VESK_ERR_OPERATE_FAIL, 0},
        {"short fmt", riff(body({ck("fmt ", bytes(fmt16.begin(), fmt16.begin() + 14), 14), c_data}), 4 + 22 + 48),
            VESK_ERR_OPERATE_FAIL, 0},
        {"block size wrong", riff(body({ck("fmt ", fmt_body(1, 1, 16000, 16, 4), 16), c_data}), 4 + 24 + 48),
            VESK_ERR_OPERATE_FAIL, 0},
        {"float", riff(body({ck("fmt ", fmt_body(3, 1, 16000, 32, 4), 16), c_data}), 4 + 24 + 48),
            VESK_ERR_NOT_SUPPORT, 0},
        {"extensible float", riff(body({ck("fmt ", ext_float, 40), c_data}), 4 + 48 + 48), VESK_ERR_NOT_SUPPORT, 0},
        {"three channels", riff(body({ck("fmt ", fmt_body(1, 3, 16000, 16, 6), 16), c_data}), 4 + 24 + 48),
            VESK_ERR_NOT_SUPPORT, 0},
        {"not RIFF", bytes(c_fmt.begin(), c_fmt.end()), VESK_ERR_OPERATE_FAIL, 0},
        {"cut inside the header", bytes({'R', 'I', 'F', 'F', 0, 0}), VESK_ERR_OPERATE_FAIL, 0},
    };
    const std::string path = tmp("hand.wav");
    vesk_wav_operate* op = vesk_utility_new_wav_operate(0x61, "wav hand");
    ASSERT_NE(op, nullptr);
    for (const layout_case& c : cases) {
        SCOPED_TRACE(c.name);
        write_file(path, c.file);
        ASSERT_EQ(op->open_read(path.c_str()), c.want);
        if (c.want != VESK_OK)
            continue;
        vesk_wav_format f = {};
        uint32_t offset = 0, frames = 0, got = 0;
        ASSERT_EQ(op->get_format(&f), VESK_OK);
        EXPECT_EQ(f.format_tag, VESK_WAV_FORMAT_PCM);
        EXPECT_EQ(f.sample_rate, 16000u);
        ASSERT_EQ(op->get_data_pos(&offset, &frames), VESK_OK);
        EXPECT_EQ(frames, c.frames);
        bytes buf(200);
        ASSERT_EQ(op->read_samples(buf.data(), 100, &got), VESK_OK);
        ASSERT_EQ(got, c.frames);
        EXPECT_EQ(0, memcmp(buf.data(), pcm.data(), got * 2));
        EXPECT_EQ(0, memcmp(c.file.data() + offset, pcm.data(), got * 2));
        EXPECT_EQ(op->close(), VESK_OK);
    }
    EXPECT_EQ(vesk_utility_delete_wav_operate(op, __FILE__, __func__), VESK_OK);
}

TEST(WavTest, SeekingAndReadingAtTheEnd)
{
    const std::string path = tmp("seek.wav");
    const bytes samples = sample_bytes(4 * 300, 11);  // 300 stereo 16-bit frames
    vesk_wav_operate* op = vesk_utility_new_wav_operate(0x61, "wav seek");
    ASSERT_NE(op, nullptr);
    const vesk_wav_format fmt = {VESK_WAV_FORMAT_PCM, 2, 44100, 16};
    ASSERT_EQ(op->open_write(path.c_str(), &fmt), VESK_OK);
    ASSERT_EQ(op->write_samples(samples.data(), 300), VESK_OK);
    bytes buf(4 * 300);
    uint32_t got = 0;
    EXPECT_EQ(op->read_samples(buf.data(), 1, &got), VESK_ERR_OPERATE_FAIL);  // writing
    EXPECT_EQ(op->seek_sample(0), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(op->open_read(path.c_str()), VESK_ERR_OPERATE_FAIL);           // already open
    ASSERT_EQ(op->close(), VESK_OK);

    ASSERT_EQ(op->open_read(path.c_str()), VESK_OK);
    EXPECT_EQ(op->write_samples(samples.data(), 1), VESK_ERR_OPERATE_FAIL);  // reading
    for (uint32_t at : {299u, 0u, 150u, 17u}) {
        ASSERT_EQ(op->seek_sample(at), VESK_OK);
        ASSERT_EQ(op->read_samples(buf.data(), 20, &got), VESK_OK);
        ASSERT_EQ(got, std::min(20u, 300 - at));
        EXPECT_EQ(0, memcmp(buf.data(), samples.data() + at * 4, got * 4)) << at;
    }
    ASSERT_EQ(op->seek_sample(300), VESK_OK);
    ASSERT_EQ(op->read_samples(buf.data(), 20, &got), VESK_OK);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(op->seek_sample(301), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(op->read_samples(nullptr, 1, &got), VESK_ERR_INVALID_PARAM);
    ASSERT_EQ(op->close(), VESK_OK);
    EXPECT_EQ(op->get_format(nullptr), VESK_ERR_INVALID_PARAM);
    vesk_wav_format f = {};
    EXPECT_EQ(op->get_format(&f), VESK_ERR_OPERATE_FAIL);

    const vesk_wav_format bad[] = {{VESK_WAV_FORMAT_ALAW, 1, 8000, 16}, {VESK_WAV_FORMAT_PCM, 1, 8000, 24},
        {VESK_WAV_FORMAT_PCM, 0, 8000, 16}, {VESK_WAV_FORMAT_PCM, 1, 0, 16}, {2, 1, 8000, 4}};
    for (const vesk_wav_format& b : bad)
        EXPECT_EQ(op->open_write(path.c_str(), &b), VESK_ERR_NOT_SUPPORT);
    EXPECT_EQ(vesk_utility_delete_wav_operate(op, __FILE__, __func__), VESK_OK);
}

TEST(WavTest, AClipWhoseWriterNeverClosedIsReadWhole)
{
    // The writer is still open (its sizes provisional) when a copy of the file is read, as
    // after a power cut; every frame written so far is there, and ffmpeg agrees.
    const std::string path = tmp("live.wav"), copy = tmp("live_copy.wav");
    const bytes samples = sample_bytes(777, 5);
    vesk_wav_operate* w = vesk_utility_new_wav_operate(0x61, "wav live");
    ASSERT_NE(w, nullptr);
    const vesk_wav_format fmt = {VESK_WAV_FORMAT_MULAW, 1, 8000, 8};
    ASSERT_EQ(w->open_write(path.c_str(), &fmt), VESK_OK);
    ASSERT_EQ(w->write_samples(samples.data(), 777), VESK_OK);
    write_file(copy, read_file(path));
    vesk_wav_format got = {};
    EXPECT_TRUE(read_all(copy, &got) == samples);
    if (tool("ffmpeg -version")) {
        ASSERT_TRUE(tool("ffmpeg -v error -y -i " + copy + " -c:a copy -f mulaw " + tmp("live.raw")));
        EXPECT_TRUE(read_file(tmp("live.raw")) == samples);
    }
    EXPECT_EQ(vesk_utility_delete_wav_operate(w, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(read_file(path).size(), 58u + 778u);  // closed by the delete: header, data, pad
}
