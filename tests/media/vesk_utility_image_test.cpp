// Image conversions against ffmpeg (explicit matrix and range), crop and scale, odd sizes, and
// the JPEG codec both ways against ffmpeg's encoder and decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "media_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace media_test;

namespace
{

constexpr uint32_t W = 64, H = 48;

// 8 x 8 blocks of colours whose R, G and B (so U and V) all differ; subsampling never mixes two.
bytes pattern_rgb24(uint32_t w = W, uint32_t h = H)
{
    const uint8_t colours[][3] = {{255, 0, 0}, {0, 0, 255}, {0, 255, 0}, {255, 255, 0}, {0, 255, 255}, {255, 0, 255},
        {255, 255, 255}, {0, 0, 0}, {200, 100, 30}, {30, 100, 200}, {128, 128, 128}, {90, 200, 120}};
    bytes out(w * h * 3);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            memcpy(&out[(y * w + x) * 3], colours[(x / 8 + 3 * (y / 8)) % 12], 3);
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
const struct {
    uint32_t format;
    const char* name;
} k_yuv[] = {{VESK_PIX_I420, "yuv420p"}, {VESK_PIX_NV12, "nv12"}, {VESK_PIX_NV21, "nv21"}};

} // namespace

TEST(ImageTest, ConversionsAgreeWithFfmpegWithinTwo)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    const bytes rgb = pattern_rgb24();
    size_t at = 0;
    for (const auto& m : k_matrices)
        for (const auto& f : k_yuv) {
            const std::string tag = m.name + "/" + m.range + "/" + f.name;
            const bytes ours = convert(VESK_PIX_RGB24, rgb, f.format, m.m);
            const bytes theirs = ffmpeg_raw(rgb, "rgb24", f.name, "scale=flags=area:out_color_matrix=" + m.name + ":out_range=" + m.range);
            EXPECT_LE(max_diff(ours, theirs, &at), 2) << tag << " to YUV, byte " << at;
            // Back from ffmpeg's YUV into BGRA.
            const bytes back = convert(f.format, theirs, VESK_PIX_ARGB8888, m.m);
            const bytes ref = ffmpeg_raw(theirs, f.name, "bgra",
                "scale=flags=neighbor+accurate_rnd+full_chroma_int:in_color_matrix=" + m.name + ":in_range=" + m.range);
            EXPECT_LE(max_diff(back, ref, &at), 2) << tag << " to BGRA, byte " << at;
        }
    // Packed formats both ways. ffmpeg dithers down to 16 bits, so there ours is judged within a
    // step of the depth; gray is full-range BT.601 luma, as ffmpeg's.
    const struct {
        uint32_t format;
        const char* name;
        int tolerance;
    } packed[] = {{VESK_PIX_BGR24, "bgr24", 0}, {VESK_PIX_ARGB8888, "bgra", 0}, {VESK_PIX_RGB565, "rgb565le", 7},
        {VESK_PIX_ARGB1555, "rgb555le", 7}, {VESK_PIX_GRAY8, "gray", -1}};
    for (const auto& p : packed) {
        const bytes ours = convert(VESK_PIX_RGB24, rgb, p.format, VESK_MATRIX_BT601);
        const bytes theirs = ffmpeg_raw(rgb, "rgb24", p.name, "");
        if (p.tolerance >= 0)
            EXPECT_LE(max_diff(ffmpeg_raw(ours, p.name, "rgb24", ""), rgb), p.tolerance) << p.name;
        else
            EXPECT_LE(max_diff(ours, theirs), 1) << p.name;
        EXPECT_LE(max_diff(convert(p.format, theirs, VESK_PIX_RGB24, VESK_MATRIX_BT601), ffmpeg_raw(theirs, p.name, "rgb24", "")), 1)
            << p.name << " read back";
    }
}

TEST(ImageTest, CropScaleAndOddSizes)
{
    const bytes rgb = pattern_rgb24();
    // A crop across four blocks, into BGR24: each pixel is the source's, bytes swapped.
    const vesk_real_rect crop = {4, 6, 16, 10}, even = {8, 16, 24, 16}, block = {16, 8, 8, 8};
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

    // A block blown up four times stays its colour (magenta; a neighbour leaking in moves G).
    const bytes big = convert(VESK_PIX_RGB24, rgb, VESK_PIX_ARGB8888, VESK_MATRIX_BT601, W, H, &block, 32, 32);
    const uint8_t magenta[4] = {255, 0, 255, 255};
    for (size_t i = 0; i < big.size(); ++i)
        ASSERT_NEAR(big[i], magenta[i % 4], 2) << i;
    // Halved, each block keeps its colour inside it, against the same YUV unscaled.
    for (const auto& f : k_yuv) {
        const bytes yuv = convert(VESK_PIX_RGB24, rgb, f.format, VESK_MATRIX_BT601_FULL);
        const bytes full = convert(f.format, yuv, VESK_PIX_RGB24, VESK_MATRIX_BT601_FULL);
        const bytes small = convert(f.format, yuv, VESK_PIX_RGB24, VESK_MATRIX_BT601_FULL, W, H, nullptr, W / 2, H / 2);
        for (uint32_t y = 1; y < H / 2; y += 4)
            for (uint32_t x = 1; x < W / 2; x += 4)
                for (int c = 0; c < 3; ++c)
                    EXPECT_NEAR(small[(y * W / 2 + x) * 3 + c], full[(2 * y * W + 2 * x) * 3 + c], 2) << f.name << " " << x << "," << y;
    }

    // An odd-sized picture converts like the same pixels inside one a pixel larger whose last
    // column and row repeat their neighbours: the lone last samples stay in their row.
    for (const auto& m : k_matrices)
        for (const auto& f : k_yuv) {
            const bytes odd = convert(VESK_PIX_RGB24, pattern_rgb24(37, 23), f.format, m.m, 37, 23);
            const bytes even = convert(VESK_PIX_RGB24, pattern_rgb24(38, 24), f.format, m.m, 38, 24);
            bytes want;
            for (uint32_t y = 0; y < 23; ++y)
                want.insert(want.end(), even.begin() + y * 38, even.begin() + y * 38 + 37);
            want.insert(want.end(), even.begin() + 38 * 24, even.end()); // chroma: 19 x 12 both
            EXPECT_EQ(odd, want) << m.name << "/" << m.range << "/" << f.name;
        }
}

TEST(JpegTest, OurEncodeDecodedByFfmpegAndTheirsByUs)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    constexpr uint32_t w = 320, h = 240;
    const std::string rgb_raw = scratch("testsrc.rgb"), yuv_raw = scratch("testsrc.yuv");
    for (const std::string& f : {std::string("rgb24 ") + rgb_raw, std::string("yuvj420p ") + yuv_raw})
        ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc2=size=320x240 -frames:v 1 -f rawvideo -pix_fmt " + f));
    const bytes rgb = read_all(rgb_raw), yuv = read_all(yuv_raw);
    // Ours at quality 90, from packed RGB and from full-range I420 planes, read by ffmpeg.
    const struct {
        uint32_t format;
        const bytes* pixels;
        const char* ff;
    } sources[] = {{VESK_PIX_RGB24, &rgb, "rgb24"}, {VESK_PIX_I420, &yuv, "yuvj420p"}};
    for (const auto& s : sources) {
        bytes in = *s.pixels, jpeg(200000);
        const vesk_image img = wrap(s.format, w, h, in);
        uint32_t len = 0;
        ASSERT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, jpeg.data(), uint32_t(jpeg.size()), &len), VESK_OK);
        jpeg.resize(len);
        ASSERT_TRUE(write_all(scratch("ours.jpg"), jpeg));
        ASSERT_TRUE(ffmpeg("-i " + scratch("ours.jpg") + " -pix_fmt " + s.ff + " -f rawvideo " + scratch("ours_dec.raw")));
        EXPECT_GE(psnr(read_all(scratch("ours_dec.raw")), *s.pixels), 38.0) << s.ff;
        // A buffer one byte short of the result is refused, not overrun; an exact one is enough.
        bytes room(len + 1, 0xA5);
        uint32_t got = 0;
        EXPECT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, room.data(), len - 1, &got), VESK_ERR_NO_RESOURCE);
        EXPECT_EQ(room[len - 1], 0xA5);
        ASSERT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, room.data(), len, &got), VESK_OK);
        EXPECT_TRUE(got == len && std::equal(jpeg.begin(), jpeg.end(), room.begin()) && room[len] == 0xA5) << s.ff;
        for (uint32_t quality : {0u, 101u})
            EXPECT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, quality, room.data(), len, &got), VESK_ERR_INVALID_PARAM);
    }

    // ffmpeg's JPEG decoded by us against ffmpeg's own decode, in RGB and as planes.
    ASSERT_TRUE(ffmpeg("-f rawvideo -pix_fmt rgb24 -s 320x240 -i " + rgb_raw + " -pix_fmt yuvj420p -q:v 3 " + scratch("theirs.jpg")));
    const bytes jpeg = read_all(scratch("theirs.jpg"));
    vesk_jpeg_info info = {};
    ASSERT_EQ(vesk_utility_jpeg_get_info(jpeg.data(), uint32_t(jpeg.size()), &info), VESK_OK);
    EXPECT_TRUE(info.width == w && info.height == h && info.subsamp == 2 && info.channels == 3);
    // In RGB TurboJPEG interpolates chroma, ffmpeg replicates it: against ffmpeg's nearest (bicubic
    // full-chroma) conversion the bound is lower.
    const std::string rgb_conv = " -vf scale=flags=bicubic+full_chroma_int+accurate_rnd";
    const struct {
        uint32_t format;
        std::string ff;
        double min_db;
    } outs[] = {{VESK_PIX_I420, "yuvj420p", 45}, {VESK_PIX_NV12, "nv12 -vf scale=out_range=pc", 45},
        {VESK_PIX_RGB24, "rgb24" + rgb_conv, 38}, {VESK_PIX_BGR24, "bgr24" + rgb_conv, 38}};
    for (const auto& o : outs) {
        bytes ours;
        vesk_image dst = wrap(o.format, w, h, ours);
        ASSERT_EQ(vesk_utility_jpeg_decode(jpeg.data(), uint32_t(jpeg.size()), 1, w * h, &dst), VESK_OK) << o.ff;
        ASSERT_TRUE(ffmpeg("-i " + scratch("theirs.jpg") + " -pix_fmt " + o.ff + " -f rawvideo " + scratch("theirs_dec.raw")));
        EXPECT_GE(psnr(ours, read_all(scratch("theirs_dec.raw"))), o.min_db) << o.ff;
    }
}

TEST(JpegTest, ScalingCapsAndDamage)
{
    constexpr uint32_t w = 200, h = 120;
    bytes src(vesk_utility_image_size(VESK_PIX_RGB24, w, h));
    for (size_t i = 0; i < src.size(); ++i)
        src[i] = uint8_t((i / 3 % w) + (i / 3 / w) * (i % 3 + 1)); // smooth ramps per channel
    const vesk_image img = wrap(VESK_PIX_RGB24, w, h, src);
    bytes jpeg(100000);
    uint32_t len = 0;
    ASSERT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601, 95, jpeg.data(), uint32_t(jpeg.size()), &len), VESK_OK);
    jpeg.resize(len);
    // Scaled decodes: sizes round up; pixels are close to the mean of their source block.
    for (uint32_t denom : {2u, 4u, 8u}) {
        const uint32_t sw = (w + denom - 1) / denom, sh = (h + denom - 1) / denom;
        bytes out, box, got;
        vesk_image dst = wrap(VESK_PIX_RGB24, sw, sh, out);
        ASSERT_EQ(vesk_utility_jpeg_decode(jpeg.data(), len, denom, w * h, &dst), VESK_OK) << denom;
        for (uint32_t y = 0; y < h / denom; ++y)
            for (uint32_t x = 0; x < w / denom * 3; ++x) {
                int sum = 0;
                for (uint32_t k = 0; k < denom * denom; ++k)
                    sum += src[((y * denom + k / denom) * w + x / 3 * denom + k % denom) * 3 + x % 3];
                box.push_back(uint8_t(sum / int(denom * denom)));
                got.push_back(out[y * sw * 3 + x]);
            }
        EXPECT_GE(psnr(got, box), 32.0) << denom;
        dst.width = sw + 1;
        EXPECT_EQ(vesk_utility_jpeg_decode(jpeg.data(), len, denom, w * h, &dst), VESK_ERR_INVALID_PARAM);
    }
    bytes out;
    vesk_image dst = wrap(VESK_PIX_RGB24, w, h, out);
    EXPECT_EQ(vesk_utility_jpeg_decode(jpeg.data(), len, 3, w * h, &dst), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_jpeg_decode(jpeg.data(), len, 1, w * h - 1, &dst), VESK_ERR_NO_RESOURCE);
    // A bomb: the frame header claims 60000 x 60000; refused from the header alone.
    bytes bomb = jpeg;
    size_t sof = 2;
    while (sof + 9 < bomb.size() && !(bomb[sof] == 0xFF && bomb[sof + 1] == 0xC0))
        ++sof;
    ASSERT_LT(sof + 9, bomb.size());
    const uint8_t big[4] = {0xEA, 0x60, 0xEA, 0x60}; // height, then width: 60000 each
    memcpy(&bomb[sof + 5], big, 4);
    vesk_jpeg_info info = {};
    ASSERT_EQ(vesk_utility_jpeg_get_info(bomb.data(), uint32_t(bomb.size()), &info), VESK_OK);
    EXPECT_TRUE(info.width == 60000 && info.height == 60000);
    EXPECT_EQ(vesk_utility_jpeg_decode(bomb.data(), uint32_t(bomb.size()), 1, 4096u * 4096u, &dst), VESK_ERR_NO_RESOURCE);
    // Cut short or not a JPEG at all.
    EXPECT_EQ(vesk_utility_jpeg_decode(jpeg.data(), len / 2, 1, w * h, &dst), VESK_ERR_OPERATE_FAIL);
    const uint8_t junk[] = "not a jpeg at all";
    EXPECT_EQ(vesk_utility_jpeg_get_info(junk, sizeof(junk), &info), VESK_ERR_OPERATE_FAIL);
}
