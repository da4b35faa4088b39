// Media: pictures, WAV and RTP against ffmpeg (and PIL, zbarimg), the analytics grid against GEOS.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <set>

#include "test_support.h"
#include "vesk_utility.h"

#ifdef VESK_HAVE_GEOS
#include <geos_c.h>
#endif

using namespace vesk_soft;

namespace
{

using bytes = std::vector<uint8_t>;

inline std::string scratch(const std::string& name)
{
    return vesk_test::private_root() + "/" + name;
}

inline bytes read_all(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bytes concat(std::initializer_list<bytes> parts)
{
    bytes all;
    for (const bytes& b : parts)
        all.insert(all.end(), b.begin(), b.end());
    return all;
}

// Little-endian fields of `width` bytes each.
inline bytes le(std::initializer_list<uint32_t> values, int width)
{
    bytes b;
    for (uint32_t v : values)
        for (int i = 0; i < width; i++)
            b.push_back(uint8_t(v >> (8 * i)));
    return b;
}

inline bool write_all(const std::string& path, const bytes& data)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return bool(out.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size())).flush());
}

inline bool sh(const std::string& cmd)
{
    return system(("(" + cmd + ") >/dev/null 2>&1").c_str()) == 0;
}

inline bool have(const char* tool)
{
    return sh(std::string("command -v ") + tool);
}

// ffmpeg quiet and overwriting; a command's output as lines.
inline bool ffmpeg(const std::string& args)
{
    return sh("ffmpeg -nostdin -v error -y " + args);
}

inline std::vector<std::string> lines_of(const std::string& cmd)
{
    std::vector<std::string> out;
    char line[4096];
    FILE* p = popen(cmd.c_str(), "r");
    while (p != nullptr && fgets(line, sizeof(line), p) != nullptr)
        out.emplace_back(line, strcspn(line, "\n"));
    if (p != nullptr)
        pclose(p);
    return out;
}

// PSNR in dB of two equally long byte arrays (peak 255); 99 when identical, -1 if sizes differ.
inline double psnr(const bytes& a, const bytes& b)
{
    if (a.size() != b.size() || a.empty())
        return -1;
    double se = 0;
    for (size_t i = 0; i < a.size(); ++i)
        se += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * a.size() / se);
}

// Largest absolute difference of two equally long arrays; -1 if sizes differ.
inline int max_diff(const bytes& a, const bytes& b)
{
    int worst = a.size() == b.size() ? 0 : -1;
    for (size_t i = 0; worst >= 0 && i < a.size(); ++i)
        worst = std::max(worst, std::abs(int(a[i]) - int(b[i])));
    return worst;
}

constexpr uint32_t W = 64, H = 48;  // conversions
constexpr uint32_t BW = 37, BH = 23; // bitmaps: odd sizes, every row padded
const uint32_t k_colours[] = {0xFFFF0000, 0xFF0000FF, 0xFF00FF00, 0xFFFFFF00, 0xFF00FFFF, 0xFFFF00FF, 0xFFFFFFFF,
    0xFF000000, 0xFFC8641E, 0xFF1E64C8, 0xFF808080, 0xFF5AC878};

// 8 x 8 blocks of colours whose R, G and B (so U and V) all differ; subsampling never mixes two.
uint32_t index_at(uint32_t x, uint32_t y)
{
    return (x / 8 + 3 * (y / 8)) % 12;
}

bytes pattern_rgb24(uint32_t w = W, uint32_t h = H)
{
    bytes out;
    for (uint32_t i = 0; i < w * h * 3; ++i)
        out.push_back(uint8_t(k_colours[index_at(i / 3 % w, i / 3 / w)] >> (16 - 8 * (i % 3))));
    return out;
}

vesk_image wrap(uint32_t format, uint32_t w, uint32_t h, bytes& buf)
{
    buf.resize(vesk_utility_image_size(format, w, h));
    vesk_image img;
    EXPECT_EQ(vesk_utility_image_wrap(&img, format, w, h, buf.data(), uint32_t(buf.size())), VESK_OK);
    return img;
}

// `in` (w x h of `from`), cropped to `crop` if given, converted into ow x oh (0: w x h) of `to`.
bytes convert(uint32_t from, bytes in, uint32_t to, vesk_color_matrix m, uint32_t w = W, uint32_t h = H,
    const vesk_real_rect* crop = nullptr, uint32_t ow = 0, uint32_t oh = 0, VESK_ERR want = VESK_OK)
{
    bytes out;
    const vesk_image src = wrap(from, w, h, in);
    vesk_image dst = wrap(to, ow != 0 ? ow : w, oh != 0 ? oh : h, out);
    EXPECT_EQ(vesk_utility_image_convert(&src, crop, &dst, m), want) << from << "->" << to;
    return out;
}

// ffmpeg's raw conversion of `in` (format `from`) into `to` through the given filter.
bytes ffmpeg_raw(const bytes& in, const char* from, const char* to, const std::string& filter)
{
    const std::string src = scratch("ff_in.raw"), dst = scratch("ff_out.raw");
    EXPECT_TRUE(write_all(src, in));
    EXPECT_TRUE(ffmpeg("-f rawvideo -pix_fmt " + std::string(from) + " -s 64x48 -i " + src
        + (filter.empty() ? "" : " -vf " + filter) + " -pix_fmt " + to + " -f rawvideo " + dst));
    return read_all(dst);
}

const struct {
    vesk_color_matrix m;
    std::string name, range;
} k_matrices[] = {{VESK_MATRIX_BT601, "bt601", "tv"}, {VESK_MATRIX_BT601_FULL, "bt601", "pc"}, {VESK_MATRIX_BT709, "bt709", "tv"}};
const std::pair<uint32_t, const char*> k_yuv[] = {{VESK_PIX_I420, "yuv420p"}, {VESK_PIX_NV12, "nv12"}, {VESK_PIX_NV21, "nv21"}};

bytes pixels_of(vesk_bmp_operate* op, uint32_t format = VESK_PIX_ARGB8888)
{
    bytes out;
    vesk_image img = wrap(format, BW, BH, out);
    EXPECT_EQ(op->read_pixels(&img), VESK_OK);
    return out;
}

struct bmp_op {
    vesk_bmp_operate* op = vesk_utility_new_bmp_operate(0x23, "bmp test");
    ~bmp_op() { vesk_utility_delete_bmp_operate(op, __FILE__, __func__); }
};

constexpr uint8_t k_pt = 96;
const bytes k_start = {0, 0, 0, 1};
const _tagVeskFrameHeader k_header = {VESK_FRAME_STARTCODE, VESK_FRAME_TYPE_I, 77, 1700000000, 0x5EED, 0xFFFFFFFF, 1920,
    1080, 16, {0xA1, 0xA2, 0xA3}, 90000};

// An RTP packet: V=2 header, `cc` CSRCs of 0x11 bytes, `ext` as the raw extension area, payload.
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
result depack(bytes in, int extra = 0)
{
    bytes out(in.size() + size_t(std::max(extra, 0)), 0xCC);
    _tagVesk_rtp_h264_param p = {in.data(), int32_t(in.size()), out.data(), int32_t(in.size()) + extra};
    const VESK_ERR err = vesk_utility_RTPtoH264_InputData(&p);
    if (err == VESK_OK && p.nOutSize >= 0 && size_t(p.nOutSize) <= out.size())
        out.resize(size_t(p.nOutSize));
    return {err, p.nOutSize, out};
}

bytes sample_bytes(size_t n, uint32_t seed)
{
    bytes b(n);
    for (uint8_t& v : b) {
        seed = seed * 1103515245u + 12345u;
        v = uint8_t(seed >> 16);
    }
    return b;
}

struct wav_op {
    vesk_wav_operate* op = vesk_utility_new_wav_operate(0x61, "wav test");
    ~wav_op() { EXPECT_EQ(vesk_utility_delete_wav_operate(op, __FILE__, __func__), VESK_OK); }
};

bytes read_samples(const std::string& path, vesk_wav_format* fmt)
{
    wav_op o;
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


using pts = std::vector<vesk_real_point>;

VESK_BOOL cross(vesk_real_point from, vesk_real_point to, const pts& wire, vesk_cross_dir dir = VESK_CROSS_ANY)
{
    return vesk_utility_is_cross_line(&from, &to, wire.data(), unsigned(wire.size()), dir);
}

#ifdef VESK_HAVE_GEOS
// A line string, or a polygon (closed by repeating the first point).
GEOSGeometry* geos_of(GEOSContextHandle_t h, const pts& p, bool ring)
{
    GEOSCoordSequence* seq = GEOSCoordSeq_create_r(h, unsigned(p.size() + ring), 2);
    for (size_t i = 0; i < p.size() + ring; ++i)
        GEOSCoordSeq_setXY_r(h, seq, unsigned(i), p[i % p.size()].x, p[i % p.size()].y);
    return ring ? GEOSGeom_createPolygon_r(h, GEOSGeom_createLinearRing_r(h, seq), nullptr, 0)
                : GEOSGeom_createLineString_r(h, seq);
}

bool collinear(vesk_real_point a, vesk_real_point b, vesk_real_point p)
{
    return (int64_t(b.x) - a.x) * (int64_t(p.y) - a.y) == (int64_t(b.y) - a.y) * (int64_t(p.x) - a.x);
}
#endif
} // namespace

TEST(ImageTest, ConversionsAgreeWithFfmpegWithinTwo)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    const bytes rgb = pattern_rgb24();
    for (const auto& m : k_matrices)
        for (const auto& f : k_yuv) {
            const std::string tag = m.name + "/" + m.range + "/" + f.second;
            const bytes ours = convert(VESK_PIX_RGB24, rgb, f.first, m.m);
            const bytes theirs = ffmpeg_raw(rgb, "rgb24", f.second, "scale=flags=area:out_color_matrix=" + m.name + ":out_range=" + m.range);
            EXPECT_LE(max_diff(ours, theirs), 2) << tag << " to YUV";
            const bytes back = convert(f.first, theirs, VESK_PIX_ARGB8888, m.m);
            const bytes ref = ffmpeg_raw(theirs, f.second, "bgra",
                "scale=flags=neighbor+accurate_rnd+full_chroma_int:in_color_matrix=" + m.name + ":in_range=" + m.range);
            EXPECT_LE(max_diff(back, ref), 2) << tag << " to BGRA";
        }
}

TEST(ImageTest, CropScaleAndOddSizes)
{
    const bytes rgb = pattern_rgb24();
    const vesk_real_rect crop = {4, 6, 16, 10}, even = {8, 16, 24, 16};
    const bytes swapped = convert(VESK_PIX_RGB24, rgb, VESK_PIX_BGR24, VESK_MATRIX_BT601, W, H, &crop, 16, 10);
    int wrong = 0;
    for (uint32_t i = 0; i < 16 * 10 * 3; ++i)
        wrong += swapped[i] != rgb[((i / 48 + 6) * W + i / 3 % 16 + 4) * 3 + 2 - i % 3];
    EXPECT_EQ(wrong, 0);
    // YUV crops move the chroma with the luma; odd or empty YUV crops are refused.
    const bytes nv21 = convert(VESK_PIX_RGB24, rgb, VESK_PIX_NV21, VESK_MATRIX_BT709);
    const bytes whole = convert(VESK_PIX_NV21, nv21, VESK_PIX_RGB24, VESK_MATRIX_BT709);
    const bytes cropped = convert(VESK_PIX_NV21, nv21, VESK_PIX_RGB24, VESK_MATRIX_BT709, W, H, &even, 24, 16);
    for (uint32_t y = 0; y < 16; ++y)
        EXPECT_EQ(memcmp(&cropped[y * 72], &whole[((y + 16) * W + 8) * 3], 72), 0) << y;
    for (const vesk_real_rect bad : {vesk_real_rect {1, 0, 8, 8}, {0, 3, 8, 8}, {60, 0, 8, 8}, {0, 0, 0, 8}})
        convert(VESK_PIX_NV21, nv21, VESK_PIX_RGB24, VESK_MATRIX_BT709, W, H, &bad, 8, 8, VESK_ERR_INVALID_PARAM);
    // An odd-sized picture converts like the same pixels inside one a pixel larger: the lone last
    // samples stay in their row.
    for (const auto& m : k_matrices)
        for (const auto& f : k_yuv) {
            const bytes odd = convert(VESK_PIX_RGB24, pattern_rgb24(37, 23), f.first, m.m, 37, 23);
            const bytes even = convert(VESK_PIX_RGB24, pattern_rgb24(38, 24), f.first, m.m, 38, 24);
            bytes want;
            for (uint32_t y = 0; y < 23; ++y)
                want.insert(want.end(), even.begin() + y * 38, even.begin() + y * 38 + 37);
            want.insert(want.end(), even.begin() + 38 * 24, even.end()); // chroma: 19 x 12 both
            EXPECT_EQ(odd, want) << m.name << "/" << m.range << "/" << f.second;
        }
}

TEST(JpegTest, OurEncodeDecodedByFfmpegAndTheirsByUs)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    constexpr uint32_t w = 320, h = 240;
    const std::string rgb_raw = scratch("testsrc.rgb"), yuv_raw = scratch("testsrc.yuv"), ours = scratch("ours.jpg");
    for (const std::string& f : {"rgb24 " + rgb_raw, "yuvj420p " + yuv_raw})
        ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc2=size=320x240 -frames:v 1 -f rawvideo -pix_fmt " + f));
    // Ours at quality 90, from packed RGB and from full-range I420 planes, read by ffmpeg.
    for (const auto& s : {std::make_pair(VESK_PIX_RGB24, rgb_raw), std::make_pair(VESK_PIX_I420, yuv_raw)}) {
        const char* ff = s.first == VESK_PIX_RGB24 ? "rgb24" : "yuvj420p";
        bytes pixels = read_all(s.second), jpeg(200000);
        const vesk_image img = wrap(s.first, w, h, pixels);
        uint32_t len = 0, got = 0;
        ASSERT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, jpeg.data(), uint32_t(jpeg.size()), &len), VESK_OK);
        jpeg.resize(len);
        ASSERT_TRUE(write_all(ours, jpeg));
        ASSERT_TRUE(ffmpeg("-i " + ours + " -pix_fmt " + ff + " -f rawvideo " + ours + ".raw"));
        EXPECT_GE(psnr(read_all(ours + ".raw"), pixels), 38.0) << ff;
        // A buffer one byte short of the result is refused, not overrun; an exact one is enough.
        bytes room(len + 1, 0xA5);
        EXPECT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, room.data(), len - 1, &got), VESK_ERR_NO_RESOURCE);
        EXPECT_EQ(room[len - 1], 0xA5);
        ASSERT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, room.data(), len, &got), VESK_OK);
        EXPECT_TRUE(got == len && std::equal(jpeg.begin(), jpeg.end(), room.begin()) && room[len] == 0xA5) << ff;
        for (uint32_t quality : {0u, 101u})
            EXPECT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, quality, room.data(), len, &got), VESK_ERR_INVALID_PARAM);
    }
    // ffmpeg's JPEG decoded by us against ffmpeg's decode (in RGB, its bicubic full-chroma one).
    const std::string theirs = scratch("theirs.jpg"), rgb_conv = " -vf scale=flags=bicubic+full_chroma_int+accurate_rnd";
    ASSERT_TRUE(ffmpeg("-f rawvideo -pix_fmt rgb24 -s 320x240 -i " + rgb_raw + " -pix_fmt yuvj420p -q:v 3 " + theirs));
    const bytes jpeg = read_all(theirs);
    vesk_jpeg_info info = {};
    ASSERT_EQ(vesk_utility_jpeg_get_info(jpeg.data(), uint32_t(jpeg.size()), &info), VESK_OK);
    EXPECT_TRUE(info.width == w && info.height == h && info.subsamp == 2 && info.channels == 3);
    const std::pair<uint32_t, std::string> outs[] = {{VESK_PIX_I420, "yuvj420p"}, {VESK_PIX_NV12, "nv12 -vf scale=out_range=pc"},
        {VESK_PIX_RGB24, "rgb24" + rgb_conv}, {VESK_PIX_BGR24, "bgr24" + rgb_conv}};
    for (const auto& o : outs) {
        bytes decoded;
        vesk_image dst = wrap(o.first, w, h, decoded);
        ASSERT_EQ(vesk_utility_jpeg_decode(jpeg.data(), uint32_t(jpeg.size()), 1, w * h, &dst), VESK_OK) << o.second;
        ASSERT_TRUE(ffmpeg("-i " + theirs + " -pix_fmt " + o.second + " -f rawvideo " + theirs + ".raw"));
        EXPECT_GE(psnr(decoded, read_all(theirs + ".raw")), o.second[0] == 'y' || o.second[0] == 'n' ? 45.0 : 38.0) << o.second;
    }
}

TEST(JpegTest, ScalingCapsAndDamage)
{
    constexpr uint32_t w = 200, h = 120;
    bytes src(w * h * 3), jpeg(100000), out;
    for (size_t i = 0; i < src.size(); ++i)
        src[i] = uint8_t((i / 3 % w) + (i / 3 / w) * (i % 3 + 1)); // smooth ramps per channel
    const vesk_image img = wrap(VESK_PIX_RGB24, w, h, src);
    uint32_t len = 0;
    ASSERT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601, 95, jpeg.data(), uint32_t(jpeg.size()), &len), VESK_OK);
    auto decode = [&](const bytes& data, uint32_t size, uint32_t denom, uint64_t max_pixels, uint32_t dw, uint32_t dh) {
        vesk_image dst = wrap(VESK_PIX_RGB24, dw, dh, out);
        return vesk_utility_jpeg_decode(data.data(), size, denom, max_pixels, &dst);
    };
    for (uint32_t d : {2u, 4u, 8u}) { // scaled sizes round up
        const uint32_t sw = (w + d - 1) / d, sh = (h + d - 1) / d;
        EXPECT_EQ(decode(jpeg, len, d, w * h, sw + 1, sh), VESK_ERR_INVALID_PARAM);
        EXPECT_EQ(decode(jpeg, len, d, w * h, sw, sh), VESK_OK) << d;
    }
    EXPECT_EQ(decode(jpeg, len, 3, w * h, w, h), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(decode(jpeg, len, 1, w * h - 1, w, h), VESK_ERR_NO_RESOURCE);
    EXPECT_EQ(decode(jpeg, len / 2, 1, w * h, w, h), VESK_ERR_OPERATE_FAIL); // cut short
    // A bomb: the frame header claims 60000 x 60000 (height, then width); refused from the header alone.
    bytes bomb(jpeg.begin(), jpeg.begin() + len);
    const uint8_t sof_marker[] = {0xFF, 0xC0};
    const size_t sof = size_t(std::search(bomb.begin(), bomb.end(), sof_marker, sof_marker + 2) - bomb.begin());
    ASSERT_LT(sof + 9, bomb.size());
    bomb[sof + 5] = bomb[sof + 7] = 0xEA, bomb[sof + 6] = bomb[sof + 8] = 0x60;
    vesk_jpeg_info info = {};
    ASSERT_EQ(vesk_utility_jpeg_get_info(bomb.data(), len, &info), VESK_OK);
    EXPECT_TRUE(info.width == 60000 && info.height == 60000);
    EXPECT_EQ(decode(bomb, len, 1, 4096u * 4096u, w, h), VESK_ERR_NO_RESOURCE);
    const uint8_t junk[] = "not a jpeg at all";
    EXPECT_EQ(vesk_utility_jpeg_get_info(junk, sizeof(junk), &info), VESK_ERR_OPERATE_FAIL);
}

TEST(BmpOperateTest, ByteExactWithFfmpegBothWaysAtEveryDepth)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    const std::string src = scratch("bmp_pattern.rgb");
    ASSERT_TRUE(write_all(src, pattern_rgb24(BW, BH)));
    // ffmpeg's files at 1, 8 (palette and gray), 16 (555 plain, 565 bit-fields), 24 and 32 bits.
    bmp_op o;
    const std::pair<const char*, uint32_t> rows[] = {{"monob", 1}, {"pal8", 8}, {"gray", 8}, {"rgb555le", 16},
        {"rgb565le", 16}, {"bgr24", 24}, {"bgra", 32}};
    for (const auto& r : rows) {
        const std::string bmp = scratch(std::string("ff_") + r.first + ".bmp");
        ASSERT_TRUE(ffmpeg("-f rawvideo -pix_fmt rgb24 -s 37x23 -i " + src + " -pix_fmt " + r.first + " " + bmp));
        ASSERT_EQ(o.op->load_file(bmp.c_str()), VESK_OK) << r.first;
        uint32_t w = 0, h = 0, bits = 0;
        ASSERT_EQ(o.op->get_info(&w, &h, &bits), VESK_OK);
        EXPECT_TRUE(w == BW && h == BH && bits == r.second) << r.first << " " << bits;
        ASSERT_TRUE(ffmpeg("-i " + bmp + " -pix_fmt bgra -f rawvideo " + bmp + ".raw"));
        EXPECT_EQ(max_diff(pixels_of(o.op), read_all(bmp + ".raw")), 0) << r.first;
    }
    // Ours at every depth read by ffmpeg, and back through our own loader.
    for (uint32_t bits : {1u, 4u, 8u, 16u, 24u, 32u}) {
        ASSERT_EQ(o.op->create(BW, BH, bits), VESK_OK);
        if (bits == 4 || bits == 8) {
            ASSERT_EQ(o.op->set_palette(k_colours, 12), VESK_OK);
        }
        for (uint32_t y = 0; y < BH; ++y)
            for (uint32_t x = 0; x < BW; ++x) {
                const uint32_t v = bits == 1 ? (x + y) % 2 : bits <= 8 ? index_at(x, y) : k_colours[index_at(x, y)];
                ASSERT_EQ(o.op->set_pixel(x, y, v), VESK_OK);
            }
        const std::string bmp = scratch("ours_" + std::to_string(bits) + ".bmp");
        ASSERT_EQ(o.op->save(bmp.c_str()), VESK_OK);
        const bytes ours = pixels_of(o.op);
        ASSERT_TRUE(ffmpeg("-i " + bmp + " -pix_fmt bgra -f rawvideo " + bmp + ".raw"));
        EXPECT_EQ(max_diff(ours, read_all(bmp + ".raw")), 0) << bits << " bits";
        ASSERT_EQ(o.op->load_file(bmp.c_str()), VESK_OK);
        EXPECT_EQ(pixels_of(o.op), ours) << bits;
    }
    ASSERT_EQ(o.op->create(3, 2, 4), VESK_OK);
    EXPECT_EQ(o.op->set_pixel(3, 0, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(o.op->set_pixel(0, 0, 16), VESK_ERR_INVALID_PARAM);
}

TEST(BmpOperateTest, TopDownBitFieldFileAgreesWithPil)
{
    if (!sh("/usr/bin/python3 -c 'import PIL'"))
        GTEST_SKIP() << "python3-pil not installed";
    // A top-down 32-bit file with a V4 header, bit fields and alpha, written by hand.
    bytes pixels;
    for (uint32_t i = 0; i < BW * BH; ++i)
        pixels = concat({pixels, le({(k_colours[index_at(i % BW, i / BW)] & 0xFFFFFF) | (i * 7 & 0xFF) << 24}, 4)});
    const bytes f = concat({{'B', 'M'}, le({14 + 108 + BW * BH * 4, 0, 14 + 108, 108, BW, uint32_t(-int32_t(BH))}, 4),
        le({1, 32}, 2), le({3, 0, 0, 0, 0, 0, 0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000}, 4), bytes(108 - 56), pixels});
    const std::string path = scratch("topdown.bmp");
    ASSERT_TRUE(write_all(path, f));
    ASSERT_TRUE(sh("/usr/bin/python3 -c \"from PIL import Image; im = Image.open('" + path
        + "').convert('RGBA'); open('" + path + ".rgba', 'wb').write(im.tobytes())\""));
    bmp_op o;
    ASSERT_EQ(o.op->load_file(path.c_str()), VESK_OK);
    bytes ours = pixels_of(o.op);
    for (size_t i = 0; i < ours.size(); i += 4)
        std::swap(ours[i], ours[i + 2]); // B, G, R, A -> R, G, B, A
    EXPECT_EQ(max_diff(ours, read_all(path + ".rgba")), 0);
}

TEST(BmpOperateTest, DamagedAndUnsupportedFilesAreRefusedAndTheOldBitmapStays)
{
    bmp_op o;
    ASSERT_EQ(o.op->create(BW, BH, 8), VESK_OK);
    ASSERT_EQ(o.op->set_palette(k_colours, 12), VESK_OK);
    for (uint32_t x = 0; x < BW; ++x)
        ASSERT_EQ(o.op->set_pixel(x, x % BH, x % 12), VESK_OK);
    const std::string path = scratch("damage.bmp");
    ASSERT_EQ(o.op->save(path.c_str()), VESK_OK);
    const bytes good = read_all(path), kept = pixels_of(o.op);
    for (size_t len = 0; len < good.size(); ++len)
        ASSERT_NE(o.op->load_memory(good.data(), uint32_t(len)), VESK_OK) << len;
    const struct {
        size_t at;
        bytes patch;
        VESK_ERR want;
        size_t size; // 0: the whole file
    } rows[] = {
        {0, {'M', 'B'}, VESK_ERR_OPERATE_FAIL, 0},                // magic
        {30, {1}, VESK_ERR_NOT_SUPPORT, 0},                       // RLE8
        {30, {2}, VESK_ERR_NOT_SUPPORT, 0},                       // RLE4
        {28, {2}, VESK_ERR_NOT_SUPPORT, 0},                       // 2 bits a pixel
        {18, {0x01, 0x50, 0, 0}, VESK_ERR_NO_RESOURCE, 0},        // 20481 wide
        {18, {0, 0, 0, 0}, VESK_ERR_OPERATE_FAIL, 0},             // no width
        {22, {0, 0, 0, 0x80}, VESK_ERR_NO_RESOURCE, 0},           // height INT32_MIN
        {46, {0x01, 0x01, 0, 0}, VESK_ERR_OPERATE_FAIL, 0},       // 257 colours
        {10, {0xFF, 0xFF, 0xFF, 0x7F}, VESK_ERR_OPERATE_FAIL, 0}, // pixels past the end
        {10, {14, 0, 0, 0}, VESK_ERR_OPERATE_FAIL, 0},            // pixels over the palette
        {14, {200, 0, 0, 0}, VESK_ERR_OPERATE_FAIL, 0},           // header size
        {30, {1}, VESK_ERR_OPERATE_FAIL, 28}, // cut inside the info header: what follows is not read
    };
    for (const auto& r : rows) {
        bytes f = good;
        std::copy(r.patch.begin(), r.patch.end(), f.begin() + long(r.at));
        EXPECT_EQ(o.op->load_memory(f.data(), uint32_t(r.size != 0 ? r.size : f.size())), r.want) << &r - rows;
    }
    EXPECT_EQ(pixels_of(o.op), kept);
    EXPECT_EQ(o.op->load_file(scratch("missing.bmp").c_str()), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(o.op->load_file(vesk_test::private_root().c_str()), VESK_ERR_OPERATE_FAIL); // a folder
    bmp_op v4;
    ASSERT_EQ(v4.op->create(4, 4, 32), VESK_OK);
    ASSERT_EQ(v4.op->save(path.c_str()), VESK_OK);
    bytes f = read_all(path);
    f[54] = 0x0F, f[55] = 0xF0; // red mask 0x00FFF00F
    EXPECT_EQ(v4.op->load_memory(f.data(), uint32_t(f.size())), VESK_ERR_OPERATE_FAIL);
}

TEST(QrTest, EveryLevelVersionLongAndGb2312TextReadBack)
{
    if (!have("zbarimg") || !have("iconv"))
        GTEST_SKIP() << "zbar-tools or iconv not installed";
    std::multiset<std::string> want;
    std::string files;
    for (uint32_t level = 0; level < 4; ++level) {
        for (uint32_t v = 1; v <= 40; ++v) {
            // Short enough for version 1 at H (7 bytes), so the symbol is exactly version v.
            const std::string text = "v" + std::to_string(v) + "-" + "LMQH"[level];
            const vesk_qr_param p = {level, VESK_QR_TEXT_UTF8, v > 20 ? 2u : 3u, 4, v};
            uint32_t side = 0, version = 0;
            std::vector<uint8_t> bitmap(800 * 800);
            ASSERT_EQ(vesk_utility_qr_encode(text.data(), uint32_t(text.size()), &p, bitmap.data(), uint32_t(bitmap.size()), &side, &version),
                VESK_OK);
            EXPECT_TRUE(version == v && side == (17 + 4 * v + 8) * p.module_px) << text << ": " << version << ", " << side;
            const std::string path = scratch("qr_" + text + ".bmp");
            ASSERT_EQ(vesk_utility_qr_save_bmp(text.data(), uint32_t(text.size()), &p, path.c_str()), VESK_OK);
            want.insert(text);
            files += " " + path;
        }
    }
    const std::vector<std::string> got = lines_of("zbarimg -q --raw" + files + " 2>/dev/null");
    EXPECT_EQ(std::multiset<std::string>(got.begin(), got.end()), want);
    // Chinese text made GB2312 by iconv, the oracle; the reader must print the UTF-8 original.
    const std::string utf8 = "设备序列号 NVR-2023 配对码：中文测试";
    ASSERT_TRUE(write_all(scratch("qr_utf8.txt"), bytes(utf8.begin(), utf8.end())));
    ASSERT_TRUE(sh("iconv -f UTF-8 -t GB2312 " + scratch("qr_utf8.txt") + " > " + scratch("qr_gb.txt")));
    const bytes gb = read_all(scratch("qr_gb.txt"));
    ASSERT_LT(gb.size(), utf8.size()); // really two bytes a character now
    // A C library without the GB2312 converter (the target's under qemu) refuses GB2312 text.
    char probe[16];
    uint32_t probe_len = 0;
    const bool gb2312 = vesk_utility_gb2312_to_utf8("\xD6\xD0", 2, probe, sizeof(probe), &probe_len) != VESK_ERR_NOT_SUPPORT;
    for (uint32_t level = 0; gb2312 && level < 4; ++level) {
        const vesk_qr_param p = {level, VESK_QR_TEXT_GB2312, 4, 4, 1};
        const std::string path = scratch("qr_gb_" + std::to_string(level) + ".bmp");
        ASSERT_EQ(vesk_utility_qr_save_bmp(reinterpret_cast<const char*>(gb.data()), uint32_t(gb.size()), &p, path.c_str()), VESK_OK);
        EXPECT_EQ(lines_of("zbarimg -q --raw " + path + " 2>/dev/null"), std::vector<std::string> {utf8}) << level;
    }
    const vesk_qr_param p = {VESK_QR_ECC_M, VESK_QR_TEXT_GB2312, 4, 4, 1};
    const char broken[] = {'\xD6', 'A', '\xFF', '\xFF'};
    std::vector<uint8_t> out(100000);
    EXPECT_EQ(vesk_utility_qr_encode(broken, sizeof(broken), &p, out.data(), uint32_t(out.size()), nullptr, nullptr),
        gb2312 ? VESK_ERR_INVALID_PARAM : VESK_ERR_NOT_SUPPORT);
}

TEST(QrTest, BitmapSizeAndRefusals)
{
    // Module 3 pixels, quiet zone 2 modules: a version 1 symbol is 25 modules a side, all 0 or 255.
    const vesk_qr_param p = {VESK_QR_ECC_M, VESK_QR_TEXT_UTF8, 3, 2, 1};
    std::vector<uint8_t> out(200 * 200);
    uint32_t side = 0, version = 0;
    ASSERT_EQ(vesk_utility_qr_encode("12345", 5, &p, out.data(), uint32_t(out.size()), &side, &version), VESK_OK);
    ASSERT_TRUE(version == 1 && side == (21u + 4) * 3) << version << ", " << side;
    EXPECT_TRUE(std::all_of(out.begin(), out.begin() + side * side, [](uint8_t v) { return v == 0 || v == 255; }));
    EXPECT_EQ(vesk_utility_qr_encode("12345", 5, &p, out.data(), side * side - 1, &side, nullptr), VESK_ERR_NO_RESOURCE);
    // Too long for any symbol, or for level H though not for L; parameters out of range.
    const std::string text(2954, 'a');
    const vesk_qr_param h = {VESK_QR_ECC_H, VESK_QR_TEXT_UTF8, 1, 0, 1}, l = {VESK_QR_ECC_L, VESK_QR_TEXT_UTF8, 1, 0, 1};
    const struct {
        uint32_t size;
        vesk_qr_param p;
        VESK_ERR want;
    } rows[] = {{2954, l, VESK_ERR_INVALID_PARAM}, {1300, h, VESK_ERR_INVALID_PARAM}, {1300, l, VESK_OK},
        {1, {4, 0, 1, 4, 1}, VESK_ERR_INVALID_PARAM}, {1, {0, 2, 1, 4, 1}, VESK_ERR_INVALID_PARAM},
        {1, {0, 0, 0, 4, 1}, VESK_ERR_INVALID_PARAM}, {1, {0, 0, 65, 4, 1}, VESK_ERR_INVALID_PARAM},
        {1, {0, 0, 1, 17, 1}, VESK_ERR_INVALID_PARAM}, {1, {0, 0, 1, 4, 0}, VESK_ERR_INVALID_PARAM},
        {1, {0, 0, 1, 4, 41}, VESK_ERR_INVALID_PARAM}};
    for (const auto& r : rows)
        EXPECT_EQ(vesk_utility_qr_encode(text.data(), r.size, &r.p, out.data(), uint32_t(out.size()), nullptr, nullptr), r.want)
            << &r - rows;
}

TEST(RtpTest, UnitsFragmentsExtensionsFrameHeaderAndDamage)
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
        const result got = depack(concat({stream({{0x41, 1, 2}}), r.tail}));
        EXPECT_EQ(got.err, VESK_OK) << r.what;
        EXPECT_EQ(got.out, r.want) << r.what;
    }
    // Payload type 98 ends the call with the capacity as the size; what came before is written.
    const bytes stop = stream({{0x41, 5, 6}}, concat({stream({{0x41, 1, 2}}), framed(rtp_packet(98 | 0x80, {0x41, 3, 4}))}));
    const result stopped = depack(stop, 5);
    EXPECT_EQ(stopped.err, VESK_OK);
    EXPECT_EQ(stopped.out_size, int(stop.size()) + 5);
    EXPECT_EQ(bytes(stopped.out.begin(), stopped.out.begin() + 7), first);
    // A frame header is copied with its length and codec rewritten.
    const bytes in = stream({{0x65, 1, 2, 3}, {0x7C, 0x41, 4, 5}}, header_bytes(k_header));
    const result r = depack(in);
    ASSERT_EQ(r.err, VESK_OK);
    ASSERT_EQ(r.out_size, 36 + 8 + 2);
    _tagVeskFrameHeader want = k_header;
    want.uiLength = 10;
    want.ucCodec = 8;
    EXPECT_EQ(r.out, concat({header_bytes(want), k_start, {0x65, 1, 2, 3}, {4, 5}}));
    // Without the start code the input must begin with '$'; a lone header has no packet.
    bytes bad = in;
    bad[0] = 0x01;
    EXPECT_EQ(depack(bad).err, VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(depack(header_bytes(k_header)).err, VESK_ERR_INVALID_PARAM);
    bytes one = stream({{0x41, 1, 2}}), buf(64);
    EXPECT_EQ(vesk_utility_RTPtoH264_InputData(nullptr), VESK_ERR_INVALID_PARAM);
    // Capacity one byte short of the input is refused although 7 bytes would fit.
    EXPECT_EQ(depack(one, -1).err, VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(depack(one, 0).err, VESK_OK);
    for (_tagVesk_rtp_h264_param bad : {_tagVesk_rtp_h264_param {nullptr, 20, buf.data(), 64}, {one.data(), 0, buf.data(), 64},
             {one.data(), int32_t(one.size()), nullptr, 64}, {one.data(), -5, buf.data(), 64}})
        EXPECT_EQ(vesk_utility_RTPtoH264_InputData(&bad), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(depack({0x80, 0x60, 0, 1}).err, VESK_ERR_INVALID_PARAM); // not interleaved
}

TEST(RtpTest, FfmpegClipJoinedDecodesToTheSamePictures)
{
    if (!sh("ffmpeg -hide_banner -encoders | grep -q libx264"))
        GTEST_SKIP() << "ffmpeg with libx264 is not available here (e.g. under qemu)";
    const std::string clip = scratch("clip.h264"), params = scratch("params.h264"), rtp = scratch("clip.rtp"),
                      joined = scratch("joined.h264");
    // Packets of 400 bytes need FU-A; the parameter sets go apart, as a receiver takes them from
    // the session description (else the muxer aggregates them into STAP-A, not unpacked here).
    ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25 -t 1 -c:v libx264 -g 12 -bf 0 -pix_fmt yuv420p -f h264 " + clip));
    ASSERT_TRUE(ffmpeg("-i " + clip + " -c copy -bsf:v filter_units=pass_types=7-8 -f h264 " + params));
    ASSERT_TRUE(ffmpeg("-i " + clip + " -c copy -bsf:v filter_units=remove_types=7-8 -f rtp -packetsize 400 " + rtp));
    // Packets back to back: one ends where RTP with the next sequence number or RTCP, same SSRC, begins.
    const bytes s = read_all(rtp);
    auto be32 = [](const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; };
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
        ASSERT_NE(p[12] & 0x1F, 24) << "the muxer aggregated units; the oracle needs single units and FU-A";
        fu_a += (p[12] & 0x1F) == 28;
        at = end;
    }
    ASSERT_GT(fu_a, 20) << "the clip must exercise FU-A";
    bytes in = header_bytes(k_header);
    for (const bytes& p : packets)
        in = concat({in, framed(p)});
    const result r = depack(in);
    ASSERT_EQ(r.err, VESK_OK);
    _tagVeskFrameHeader h = k_header;
    h.uiLength = uint32_t(r.out.size()) - 36;
    h.ucCodec = 8;
    EXPECT_EQ(bytes(r.out.begin(), r.out.begin() + 36), header_bytes(h));
    ASSERT_TRUE(write_all(joined, concat({read_all(params), bytes(r.out.begin() + 36, r.out.end())})));
    const std::string md5s = " -f framemd5 - | grep -v '^#'"; // comments name the input
    const std::vector<std::string> want = lines_of("ffmpeg -v error -i " + clip + md5s);
    EXPECT_EQ(want.size(), 25u);
    EXPECT_EQ(lines_of("ffmpeg -v error -i " + joined + md5s), want);
}

TEST(WavTest, RoundTripsThroughFfmpegInEveryFormat)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is missing";
    const std::pair<std::string, uint16_t> cases[] = {
        {"u8", VESK_WAV_FORMAT_PCM}, {"s16le", VESK_WAV_FORMAT_PCM}, {"alaw", VESK_WAV_FORMAT_ALAW}, {"mulaw", VESK_WAV_FORMAT_MULAW}};
    const uint32_t frames = 8001; // odd: 8-bit mono data needs its pad byte
    const std::string ours = scratch("ours.wav"), raw = scratch("raw.bin"), theirs = scratch("ff.wav");
    for (const auto& c : cases) {
        for (uint16_t ch = 1; ch <= 2; ch++) {
            SCOPED_TRACE(c.first + " x" + std::to_string(ch));
            const uint16_t bits = c.first == "s16le" ? 16 : 8;
            const bytes samples = sample_bytes(frames * ch * bits / 8, 7u * ch + c.second);
            {
                wav_op o; // ours, written in two calls
                const vesk_wav_format fmt = {c.second, ch, 8000, bits};
                ASSERT_EQ(o.op->open_write(ours.c_str(), &fmt), VESK_OK);
                ASSERT_EQ(o.op->write_samples(samples.data(), frames / 2), VESK_OK);
                ASSERT_EQ(o.op->write_samples(samples.data() + (frames / 2) * ch * bits / 8, frames - frames / 2), VESK_OK);
            }
            EXPECT_EQ(read_all(ours).size() % 2, 0u);
            ASSERT_TRUE(ffmpeg("-i " + ours + " -c:a copy -f " + c.first + " " + raw));
            EXPECT_TRUE(read_all(raw) == samples) << "ffmpeg read";
            // ffmpeg's file (a LIST chunk before the data), read by us.
            ASSERT_TRUE(ffmpeg("-f " + c.first + " -ar 8000 -ac " + std::to_string(ch) + " -i " + raw + " -c:a copy " + theirs));
            vesk_wav_format got = {};
            EXPECT_TRUE(read_samples(theirs, &got) == samples);
            EXPECT_TRUE(got.format_tag == c.second && got.channels == ch && got.sample_rate == 8000 && got.bits_per_sample == bits);
        }
    }
}

TEST(WavTest, HandMadeLayoutsSeekingAndRefusals)
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
    wav_op o;
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
    // Seeking, states, a clip never closed and refused formats.
    const std::string copy = scratch("seek_copy.wav");
    const bytes samples = sample_bytes(4 * 300, 11); // 300 stereo 16-bit frames
    const vesk_wav_format fmt = {VESK_WAV_FORMAT_PCM, 2, 44100, 16};
    ASSERT_EQ(o.op->open_write(path.c_str(), &fmt), VESK_OK);
    ASSERT_EQ(o.op->write_samples(samples.data(), 300), VESK_OK);
    bytes buf(4 * 300);
    uint32_t got = 0;
    EXPECT_EQ(o.op->read_samples(buf.data(), 1, &got), VESK_ERR_OPERATE_FAIL); // writing
    EXPECT_EQ(o.op->seek_sample(0), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(o.op->open_read(path.c_str()), VESK_ERR_OPERATE_FAIL); // already open
    // A copy taken while the writer is open (sizes provisional, as after a power cut) holds every frame.
    ASSERT_TRUE(write_all(copy, read_all(path)));
    vesk_wav_format f = {};
    EXPECT_TRUE(read_samples(copy, &f) == samples);
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

TEST(CoordinateTest, ConversionsScaleAndValidityChecksBothEdges)
{
    // A full fraction is the edge itself, not the last pixel; division truncates.
    const struct {
        int w, h;
        vesk_abstract_point p;
        int x, y;
    } rows[] = {{1920, 1080, {5, 10, 3, 4}, 960, 810}, {704, 576, {7, 7, 2, 3}, 704, 384}, {100, 100, {1, 3, 1, 3}, 33, 33}};
    vesk_real_point real = {-1, -1};
    for (const auto& r : rows) {
        ASSERT_EQ(vesk_utility_abs_to_real_point(r.w, r.h, &r.p, &real), VESK_OK);
        EXPECT_TRUE(real.x == r.x && real.y == r.y) << r.w << ": " << real.x << "," << real.y;
    }
    real = {2000, 540};
    for (const vesk_abstract_point bad : {vesk_abstract_point {1, 0, 1, 2}, {1, 2, 1, 0}, {3, 2, 1, 2}, {1, 2, 5, 4}})
        EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, &bad, &real), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_abs_to_real_point(1920, 1080, nullptr, &real), VESK_ERR_INVALID_PARAM);
    // Rectangles refuse only zero full scales.
    vesk_real_rect px = {};
    const vesk_abstract_rect quarter = {1, 4, 1, 2, 1, 2, 1, 4};
    ASSERT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &quarter, &px), VESK_OK);
    EXPECT_TRUE(px.x == 480 && px.y == 540 && px.w == 960 && px.h == 270);
    for (int zero = 0; zero < 4; ++zero) {
        vesk_abstract_rect bad = {1, 2, 1, 2, 1, 2, 1, 2};
        (&bad.x_full)[2 * zero] = 0;
        EXPECT_EQ(vesk_utility_abs_to_real_rect(1920, 1080, &bad, &px), VESK_ERR_INVALID_PARAM) << zero;
    }
    // Validity: the sums are unsigned 32-bit products, unreduced, and may wrap: the first wrapping
    // row passes the edge yet reads "valid", the second lies inside yet its denominator wrapped small.
    const struct {
        vesk_abstract_rect r;
        int valid;
    } valid_rows[] = {{{1, 2, 0, 1, 1, 2, 1, 1}, 1}, {{1, 2, 0, 1, 2, 3, 1, 1}, 0}, {{1, 3, 1, 4, 2, 3, 3, 4}, 1},
        {{0, 1, 1, 4, 1, 1, 4, 5}, 0}, {{0, 1, 0, 0, 0, 1, 0, 1}, 0}, {{0, 1, 0, 1, 0, 1, 2, 1}, 0},
        {{3, 2, 0, 1, 2, 1, 1, 1}, 0}, {{65536, 131072, 0, 1, 131072, 131073, 1, 1}, 1},
        {{0, 65536, 0, 1, 65534, 65537, 1, 1}, 0}};
    for (const auto& row : valid_rows)
        EXPECT_EQ(vesk_utility_is_valid_abs(&row.r), row.valid) << &row - valid_rows;
    EXPECT_EQ(vesk_utility_is_valid_abs(nullptr), 0);
}

TEST(GeometryTest, CrossLinePointInRegionWindowRectsAndArrows)
{
    const int32_t m = VESK_RULE_COORD_LIMIT - 1;
    const pts wire = {{0, 500}, {1000, 500}}; // its right side is below (y > 500)
    const pts vee = {{0, 0}, {500, 500}, {1000, 0}}, zig = {{0, 400}, {500, 500}, {1000, 600}};
    const pts twice = {{0, 400}, {500, 500}, {500, 500}, {1000, 600}}, zz = {{0, 0}, {100, 1000}, {200, 0}};
    const pts huge = {{-m, m}, {m, -m}};
    const struct {
        vesk_real_point from, to;
        const pts* w;
        int any, l2r, r2l;
    } rows[] = {
        {{500, 100}, {500, 900}, &wire, 1, 1, 0}, // downwards: left to right
        {{500, 100}, {500, 500}, &wire, 0, 0, 0}, // ends on the wire: touches
        {{500, 500}, {500, 900}, &wire, 0, 0, 0}, // starts on it
        {{100, 500}, {900, 500}, &wire, 0, 0, 0}, // slides along it
        {{0, 100}, {0, 900}, &wire, 0, 0, 0},     // through the wire's end
        {{500, 500}, {500, 500}, &wire, 0, 0, 0}, // a standing track
        {{500, -VESK_RULE_COORD_LIMIT}, {500, 900}, &wire, 0, 0, 0}, // out of range
        {{100, 500}, {900, 500}, &vee, 0, 0, 0},  // touches the vertex where the wire turns back
        {{500, 900}, {500, 100}, &vee, 1, 0, 1},  // passes through that vertex into the vee
        {{500, 100}, {500, 900}, &zig, 1, 1, 0},  // through an inner vertex, counted
        {{500, 100}, {500, 900}, &twice, 1, 1, 0}, // a repeated vertex does not hide it
        {{0, 500}, {200, 500}, &zz, 1, 1, 1},     // crossed twice each way: either direction
        {{-m, -m}, {m, m}, &huge, 1, 1, 0},       // the largest coordinates do not overflow
    };
    for (const auto& r : rows) {
        EXPECT_EQ(cross(r.from, r.to, *r.w), r.any) << &r - rows;
        EXPECT_EQ(cross(r.from, r.to, *r.w, VESK_CROSS_LEFT_TO_RIGHT), r.l2r) << &r - rows;
        EXPECT_EQ(cross(r.from, r.to, *r.w, VESK_CROSS_RIGHT_TO_LEFT), r.r2l) << &r - rows;
    }
    const vesk_real_point p = {500, 100}, q = {500, 900};
    EXPECT_EQ(vesk_utility_is_cross_line(&p, &q, wire.data(), 1, VESK_CROSS_ANY), 0);
    EXPECT_EQ(vesk_utility_is_cross_line(nullptr, &q, wire.data(), 2, VESK_CROSS_ANY), 0);
    // Points in regions: even-odd, edges closed.
    const pts square = {{100, 100}, {900, 100}, {900, 900}, {100, 900}};
    const pts notch = {{0, 0}, {1000, 0}, {1000, 1000}, {500, 500}, {0, 1000}}; // concave
    const pts star = {{500, 0}, {800, 1000}, {0, 350}, {1000, 350}, {200, 1000}}; // self-crossing
    const struct {
        vesk_real_point p;
        const pts* region;
        int in;
    } in_rows[] = {
        {{500, 500}, &square, 1}, {{100, 500}, &square, 1}, {{900, 900}, &square, 1}, {{99, 500}, &square, 0},
        {{500, 99}, &square, 0}, {{500, 700}, &notch, 0}, {{500, 400}, &notch, 1}, {{300, 1000}, &notch, 0},
        {{500, 500}, &star, 0}, // the pentagon in the middle is covered twice: outside by even-odd
        {{500, 100}, &star, 1}, // a tip, covered once
        {{500, 350}, &star, 1}, // on an edge
    };
    for (const auto& r : in_rows)
        EXPECT_EQ(vesk_utility_is_point_in_region(&r.p, r.region->data(), unsigned(r.region->size())), r.in) << &r - in_rows;
    EXPECT_EQ(vesk_utility_is_point_in_region(&square[0], square.data(), 2), 0);
    EXPECT_EQ(vesk_utility_is_point_in_region(nullptr, square.data(), 4), 0);
    // The right half of the lower right pane of a 2 x 2 split of 1920 x 1080.
    const vesk_real_rect pane = {960, 540, 960, 540}, empty = {0, 0, 0, 100};
    const vesk_abstract_rect half = {1, 2, 0, 1, 1, 2, 1, 1}, over = {1, 2, 0, 1, 2, 3, 1, 1};
    vesk_real_rect out = {};
    ASSERT_EQ(vesk_utility_abs_to_window_rect(&half, &pane, &out), VESK_OK);
    EXPECT_TRUE(out.x == 1440 && out.y == 540 && out.w == 480 && out.h == 540);
    EXPECT_EQ(vesk_utility_abs_to_window_rect(&half, &empty, &out), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_abs_to_window_rect(&over, &pane, &out), VESK_ERR_INVALID_PARAM);
    // A wire to the right: left-to-right crossings end below it, so the arrow points down.
    const vesk_real_point a = {100, 500}, b = {700, 500}, c = {0, 0}, d = {300, 400};
    vesk_line_arrow arrow = {};
    ASSERT_EQ(vesk_utility_get_line_arrow(&a, &b, VESK_CROSS_LEFT_TO_RIGHT, 90, &arrow), VESK_OK);
    const vesk_line_arrow down = {{400, 500}, {400, 590}, {430, 560}, {370, 560}};
    EXPECT_EQ(memcmp(&arrow, &down, sizeof(arrow)), 0) << arrow.tip.x << "," << arrow.tip.y;
    EXPECT_EQ(vesk_utility_get_line_arrow(&c, &c, VESK_CROSS_LEFT_TO_RIGHT, 10, &arrow), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_get_line_arrow(&c, &d, VESK_CROSS_ANY, 10, &arrow), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_get_line_arrow(&c, &d, VESK_CROSS_LEFT_TO_RIGHT, 0, &arrow), VESK_ERR_INVALID_PARAM);
}

TEST(GeometryTest, RoiEditsClampToThePictureAndStayValid)
{
    const uint32_t g = VESK_RULE_GRID;
    auto grid = [g](uint32_t x, uint32_t y, uint32_t w, uint32_t h) { return vesk_abstract_rect {x, g, y, g, w, g, h, g}; };
    auto edit = [](vesk_abstract_rect* roi, int op, int32_t a, int32_t b) {
        return op == 0 ? vesk_utility_roi_enlarge(roi, uint32_t(a))
            : op == 1  ? vesk_utility_roi_reduce(roi, uint32_t(a))
                       : vesk_utility_roi_move(roi, a, b);
    };
    const struct {
        int op; // 0 enlarge, 1 reduce, 2 move
        vesk_abstract_rect in;
        int32_t a, b;
        vesk_abstract_rect out;
    } rows[] = {
        {0, grid(100, 100, 200, 200), 50, 0, grid(50, 50, 300, 300)},
        {0, grid(20, 950, 100, 50), 50, 0, grid(0, 900, 170, 100)},     // stops at two edges
        {0, {1, 3, 1, 4, 1, 3, 1, 2}, 0, 0, grid(333, 250, 333, 500)},  // rewritten on the grid
        {1, grid(100, 100, 200, 200), 50, 0, grid(150, 150, 100, 100)},
        {1, grid(100, 100, 20, 9), 10, 0, grid(106, 100, 8, 8)},        // to the minimum, centred
        {1, grid(100, 100, 5, 500), 10, 0, grid(100, 110, 5, 480)},     // a short side stays
        {2, grid(100, 100, 200, 200), 30, -40, grid(130, 60, 200, 200)},
        {2, grid(100, 100, 200, 200), 5000, -5000, grid(800, 0, 200, 200)},
    };
    for (const auto& r : rows) {
        vesk_abstract_rect roi = r.in;
        ASSERT_EQ(edit(&roi, r.op, r.a, r.b), VESK_OK) << &r - rows;
        EXPECT_EQ(memcmp(&roi, &r.out, sizeof(roi)), 0) << &r - rows << ": " << roi.x << "," << roi.y << " " << roi.w << "x" << roi.h;
    }
    vesk_abstract_rect bad = {1, 2, 0, 1, 2, 3, 1, 1}; // passes the right edge
    const vesk_abstract_rect keep = bad;
    EXPECT_EQ(vesk_utility_roi_enlarge(&bad, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_roi_move(nullptr, 1, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(memcmp(&bad, &keep, sizeof(bad)), 0);
    // Random edit chains on random valid rectangles never leave a rectangle invalid.
    std::mt19937 rng(23);
    std::uniform_int_distribution<uint32_t> coord(0, 1000), op(0, 2), step(0, 1200);
    std::uniform_int_distribution<int32_t> delta(-1500, 1500);
    for (int i = 0; i < 20000; ++i) {
        const uint32_t x = coord(rng), y = coord(rng);
        vesk_abstract_rect roi = grid(x, y, coord(rng) % (1001 - x), coord(rng) % (1001 - y));
        for (int k = 0; k < 4; ++k) {
            const int o = int(op(rng));
            ASSERT_EQ(edit(&roi, o, o == 2 ? delta(rng) : int32_t(step(rng)), delta(rng)), VESK_OK);
            ASSERT_EQ(vesk_utility_is_valid_abs(&roi), 1) << roi.x << "," << roi.y << " " << roi.w << "x" << roi.h;
        }
    }
}

#ifdef VESK_HAVE_GEOS
// Random tracks against random wires (boundary cases, three points collinear, left to the tables
// above), and random points against random simple polygons (GEOS's closed containment is ours).
TEST(GeometryTest, AgreesWithGeosOnRandomCases)
{
    GEOSContextHandle_t h = GEOS_init_r();
    std::mt19937 rng(2023);
    std::uniform_int_distribution<int32_t> coord(0, 1000), nseg(1, 4), nvert(3, 6);
    int crossings = 0, compared = 0, inside = 0;
    for (int i = 0; i < 60000; ++i) {
        const vesk_real_point from = {coord(rng), coord(rng)}, to = {coord(rng), coord(rng)};
        pts wire(size_t(nseg(rng)) + 1), poly(size_t(nvert(rng)));
        for (auto* v : {&wire, &poly})
            for (auto& p : *v)
                p = {coord(rng), coord(rng)};
        bool boundary = from.x == to.x && from.y == to.y;
        for (size_t k = 0; k < wire.size(); ++k)
            boundary = boundary || collinear(from, to, wire[k])
                || (k + 1 < wire.size() && (collinear(wire[k], wire[k + 1], from) || collinear(wire[k], wire[k + 1], to)));
        GEOSGeometry *track = geos_of(h, {from, to}, false), *w = geos_of(h, wire, false), *g = geos_of(h, poly, true);
        GEOSGeometry* point = GEOSGeom_createPointFromXY_r(h, from.x, from.y);
        const int want = GEOSIntersects_r(h, track, w), in = GEOSIntersects_r(h, g, point), valid = GEOSisValid_r(h, g);
        for (GEOSGeometry* x : {track, w, g, point})
            GEOSGeom_destroy_r(h, x);
        if (valid) {
            ASSERT_EQ(vesk_utility_is_point_in_region(&from, poly.data(), unsigned(poly.size())), in) << i;
            inside += in;
            ++compared;
        }
        if (boundary)
            continue;
        ASSERT_EQ(cross(from, to, wire), want) << i;
        crossings += want;
        ++compared;
    }
    GEOS_finish_r(h);
    EXPECT_GT(compared, 50000);
    EXPECT_GT(crossings, 5000);
    EXPECT_GT(inside, 2000);
}
#endif
