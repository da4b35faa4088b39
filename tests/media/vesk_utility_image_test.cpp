// Image conversions against ffmpeg (explicit matrix and range), crop and scale, and the JPEG
// codec both ways against ffmpeg's encoder and decoder.
#include <gtest/gtest.h>

#include <cstring>

#include "picture_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace picture_test;

namespace
{

constexpr uint32_t W = 64, H = 48;

// 8 x 8 blocks of colours in which R, G and B (and so U and V) all differ, aligned to the
// chroma grid so that subsampling never mixes two colours.
bytes pattern_rgb24()
{
    const uint8_t colours[][3] = {{255, 0, 0}, {0, 0, 255}, {0, 255, 0}, {255, 255, 0}, {0, 255, 255}, {255, 0, 255},
        {255, 255, 255}, {0, 0, 0}, {200, 100, 30}, {30, 100, 200}, {128, 128, 128}, {90, 200, 120}};
    bytes out(W * H * 3);
    for (uint32_t y = 0; y < H; ++y)
        for (uint32_t x = 0; x < W; ++x)
            memcpy(&out[(y * W + x) * 3], colours[(x / 8 + 3 * (y / 8)) % 12], 3);
    return out;
}

vesk_image wrap(uint32_t format, uint32_t w, uint32_t h, bytes& buf)
{
    buf.resize(vesk_utility_image_size(format, w, h));
    vesk_image img;
    EXPECT_EQ(vesk_utility_image_wrap(&img, format, w, h, buf.data(), uint32_t(buf.size())), VESK_OK);
    return img;
}

bytes convert(uint32_t from, bytes in, uint32_t to, vesk_color_matrix m, uint32_t w = W, uint32_t h = H)
{
    bytes out;
    const vesk_image src = wrap(from, w, h, in);
    vesk_image dst = wrap(to, w, h, out);
    EXPECT_EQ(vesk_utility_image_convert(&src, nullptr, &dst, m), VESK_OK) << from << "->" << to;
    return out;
}

// ffmpeg's raw conversion of `in` (format `from`) into `to` with the given YUV flavour.
bytes ffmpeg_raw(const bytes& in, const char* from, const char* to, const std::string& filter, uint32_t w = W,
    uint32_t h = H)
{
    const std::string src = scratch("ff_in.raw"), dst = scratch("ff_out.raw");
    EXPECT_TRUE(write_all(src, in));
    const std::string size = std::to_string(w) + "x" + std::to_string(h);
    EXPECT_TRUE(sh("ffmpeg -v error -y -f rawvideo -pix_fmt " + std::string(from) + " -s " + size + " -i " + src
        + (filter.empty() ? "" : " -vf " + filter) + " -pix_fmt " + to + " -f rawvideo " + dst));
    return read_all(dst);
}

struct matrix_row {
    vesk_color_matrix m;
    const char* name;
    const char* range;
};
const matrix_row k_matrices[] = {
    {VESK_MATRIX_BT601, "bt601", "tv"}, {VESK_MATRIX_BT601_FULL, "bt601", "pc"}, {VESK_MATRIX_BT709, "bt709", "tv"}};
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
    int cases = 0;
    for (const auto& m : k_matrices) {
        for (const auto& f : k_yuv) {
            const std::string tag = std::string(m.name) + "/" + m.range + "/" + f.name;
            const bytes ours = convert(VESK_PIX_RGB24, rgb, f.format, m.m);
            const bytes theirs = ffmpeg_raw(rgb, "rgb24", f.name,
                "scale=flags=area:out_color_matrix=" + std::string(m.name) + ":out_range=" + m.range);
            size_t at = 0;
            EXPECT_LE(max_diff(ours, theirs, &at), 2) << tag << " to YUV, byte " << at << ": " << int(ours[at]) << " vs " << int(theirs[at]);
            // Back from ffmpeg's YUV into every packed format.
            const bytes back = convert(f.format, theirs, VESK_PIX_ARGB8888, m.m);
            const bytes ref = ffmpeg_raw(theirs, f.name, "bgra",
                "scale=flags=neighbor+accurate_rnd+full_chroma_int:in_color_matrix=" + std::string(m.name) + ":in_range=" + m.range);
            EXPECT_LE(max_diff(back, ref, &at), 2) << tag << " to BGRA, byte " << at << ": " << int(back[at]) << " vs " << int(ref[at]);
            cases += 2;
        }
    }
    // Packed formats: ours read back by ffmpeg, and ffmpeg's read by us. ffmpeg dithers when
    // it reduces to 16 bits, so there the check is ours -> ffmpeg within a step of the depth.
    const struct {
        uint32_t format;
        const char* name;
        int tolerance; // ours -> ffmpeg -> rgb24 against the pattern
    } packed[] = {{VESK_PIX_BGR24, "bgr24", 0}, {VESK_PIX_ARGB8888, "bgra", 0}, {VESK_PIX_RGB565, "rgb565le", 7},
        {VESK_PIX_ARGB1555, "rgb555le", 7}, {VESK_PIX_GRAY8, "gray", -1}};
    for (const auto& p : packed) {
        const bytes ours = convert(VESK_PIX_RGB24, rgb, p.format, VESK_MATRIX_BT601);
        if (p.tolerance >= 0)
            EXPECT_LE(max_diff(ffmpeg_raw(ours, p.name, "rgb24", ""), rgb), p.tolerance) << p.name;
        else // gray: full-range BT.601 luma, as ffmpeg's
            EXPECT_LE(max_diff(ours, ffmpeg_raw(rgb, "rgb24", p.name, "")), 1) << p.name;
        const bytes theirs = ffmpeg_raw(rgb, "rgb24", p.name, "");
        EXPECT_LE(max_diff(convert(p.format, theirs, VESK_PIX_RGB24, VESK_MATRIX_BT601), ffmpeg_raw(theirs, p.name, "rgb24", "")), 1)
            << p.name << " read back";
        ++cases;
    }
    EXPECT_EQ(cases, 23);
}

TEST(ImageTest, CropAndScale)
{
    const bytes rgb = pattern_rgb24();
    bytes in = rgb, out;
    const vesk_image src = wrap(VESK_PIX_RGB24, W, H, in);
    // A crop across four blocks, into BGR24: each pixel is the source's, bytes swapped.
    const vesk_real_rect crop = {4, 6, 16, 10};
    vesk_image dst = wrap(VESK_PIX_BGR24, 16, 10, out);
    ASSERT_EQ(vesk_utility_image_convert(&src, &crop, &dst, VESK_MATRIX_BT601), VESK_OK);
    int wrong = 0;
    for (uint32_t y = 0; y < 10; ++y)
        for (uint32_t x = 0; x < 16; ++x)
            for (int c = 0; c < 3; ++c)
                wrong += out[(y * 16 + x) * 3 + c] != rgb[((y + 6) * W + x + 4) * 3 + 2 - c];
    EXPECT_EQ(wrong, 0);

    // YUV crops move the chroma with the luma: cropping NV21 then converting equals converting
    // then cropping, within the conversion's rounding.
    const bytes nv21 = convert(VESK_PIX_RGB24, rgb, VESK_PIX_NV21, VESK_MATRIX_BT709);
    const bytes whole = convert(VESK_PIX_NV21, nv21, VESK_PIX_RGB24, VESK_MATRIX_BT709);
    bytes nv_in = nv21, cropped;
    const vesk_image nv = wrap(VESK_PIX_NV21, W, H, nv_in);
    const vesk_real_rect even = {8, 16, 24, 16};
    vesk_image c_rgb = wrap(VESK_PIX_RGB24, 24, 16, cropped);
    ASSERT_EQ(vesk_utility_image_convert(&nv, &even, &c_rgb, VESK_MATRIX_BT709), VESK_OK);
    wrong = 0;
    for (uint32_t y = 0; y < 16; ++y)
        wrong += memcmp(&cropped[y * 72], &whole[((y + 16) * W + 8) * 3], 72) != 0;
    EXPECT_EQ(wrong, 0);
    for (const vesk_real_rect bad : {vesk_real_rect {1, 0, 8, 8}, {0, 3, 8, 8}, {60, 0, 8, 8}, {0, 0, 0, 8}}) {
        vesk_image any = wrap(VESK_PIX_RGB24, uint32_t(bad.w ? bad.w : 8), 8, out);
        EXPECT_EQ(vesk_utility_image_convert(&nv, &bad, &any, VESK_MATRIX_BT709), VESK_ERR_INVALID_PARAM)
            << bad.x << "," << bad.y;
    }

    // Scaling: a block blown up four times stays its colour; halving the whole pattern keeps
    // each block's colour inside it (the pixels that do not touch a neighbour block).
    const vesk_real_rect block = {16, 8, 8, 8}; // colour index 2 + 3 = 5: magenta
    vesk_image big = wrap(VESK_PIX_ARGB8888, 32, 32, out);
    ASSERT_EQ(vesk_utility_image_convert(&src, &block, &big, VESK_MATRIX_BT601), VESK_OK);
    // (libyuv's filter may lose up to 2 to rounding; a neighbour block leaking in would move G.)
    const uint8_t magenta[4] = {255, 0, 255, 255};
    int off = 0;
    for (size_t i = 0; i < out.size(); ++i)
        off = std::max(off, std::abs(int(out[i]) - magenta[i % 4]));
    EXPECT_LE(off, 2);
    for (const auto& f : k_yuv) {
        // Against the same YUV converted at full size, so only the scaling is judged.
        const bytes yuv = convert(VESK_PIX_RGB24, rgb, f.format, VESK_MATRIX_BT601_FULL);
        const bytes full = convert(f.format, yuv, VESK_PIX_RGB24, VESK_MATRIX_BT601_FULL);
        bytes y_in = yuv, small;
        const vesk_image ys = wrap(f.format, W, H, y_in);
        vesk_image half = wrap(VESK_PIX_RGB24, W / 2, H / 2, small);
        ASSERT_EQ(vesk_utility_image_convert(&ys, nullptr, &half, VESK_MATRIX_BT601_FULL), VESK_OK);
        for (uint32_t y = 1; y < H / 2; y += 4)
            for (uint32_t x = 1; x < W / 2; x += 4)
                for (int c = 0; c < 3; ++c)
                    EXPECT_NEAR(small[(y * W / 2 + x) * 3 + c], full[((2 * y) * W + 2 * x) * 3 + c], 2)
                        << f.name << " " << x << "," << y;
    }
}

// ---- JPEG ----------------------------------------------------------------------------------
namespace
{

bytes testsrc(const char* pix_fmt, uint32_t w, uint32_t h)
{
    const std::string path = scratch("testsrc.raw");
    EXPECT_TRUE(sh("ffmpeg -v error -y -f lavfi -i testsrc2=size=" + std::to_string(w) + "x" + std::to_string(h)
        + " -frames:v 1 -pix_fmt " + pix_fmt + " -f rawvideo " + path));
    return read_all(path);
}

} // namespace

TEST(JpegTest, OurEncodeDecodedByFfmpegAndTheirsByUs)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    constexpr uint32_t w = 320, h = 240;
    bytes rgb = testsrc("rgb24", w, h), yuv = testsrc("yuvj420p", w, h);
    // Ours at quality 90, from packed RGB and from full-range I420 planes, read by ffmpeg.
    const struct {
        uint32_t format;
        bytes* pixels;
    } sources[] = {{VESK_PIX_RGB24, &rgb}, {VESK_PIX_I420, &yuv}};
    for (const auto& s : sources) {
        bytes in = *s.pixels, jpeg(200000);
        const vesk_image img = wrap(s.format, w, h, in);
        uint32_t len = 0;
        ASSERT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, jpeg.data(), uint32_t(jpeg.size()), &len), VESK_OK);
        jpeg.resize(len);
        ASSERT_TRUE(write_all(scratch("ours.jpg"), jpeg));
        ASSERT_TRUE(sh("ffmpeg -v error -y -i " + scratch("ours.jpg") + " -pix_fmt " + (s.format == VESK_PIX_RGB24 ? "rgb24" : "yuvj420p")
            + " -f rawvideo " + scratch("ours_dec.raw")));
        const double db = psnr(read_all(scratch("ours_dec.raw")), *s.pixels);
        EXPECT_GE(db, 38.0) << s.format;
        printf("jpeg q90 encode (format %u): %u bytes, ffmpeg decode at %.1f dB\n", s.format, len, db);
        // Too small a buffer is refused, not overrun.
        uint8_t tiny[64];
        EXPECT_EQ(vesk_utility_jpeg_encode(&img, VESK_MATRIX_BT601_FULL, 90, tiny, sizeof(tiny), &len), VESK_ERR_NO_RESOURCE);
    }

    // ffmpeg's JPEG decoded by us against ffmpeg's own decode, in RGB and as planes.
    write_all(scratch("rgb.raw"), rgb);
    ASSERT_TRUE(sh("ffmpeg -v error -y -f rawvideo -pix_fmt rgb24 -s 320x240 -i " + scratch("rgb.raw") + " -pix_fmt yuvj420p -q:v 3 "
        + scratch("theirs.jpg")));
    const bytes jpeg = read_all(scratch("theirs.jpg"));
    vesk_jpeg_info info = {};
    ASSERT_EQ(vesk_utility_jpeg_get_info(jpeg.data(), uint32_t(jpeg.size()), &info), VESK_OK);
    EXPECT_TRUE(info.width == w && info.height == h && info.subsamp == 2 && info.channels == 3);
    // The decoders' planes agree closely. In RGB the two upsample chroma differently (TurboJPEG
    // interpolates, ffmpeg's default replicates), so the nearest ffmpeg gets is its bicubic
    // full-chroma conversion, and the bound is lower there.
    const char* rgb_conv = " -vf scale=flags=bicubic+full_chroma_int+accurate_rnd";
    const struct {
        uint32_t format;
        std::string ff;
        double min_db;
    } outs[] = {{VESK_PIX_I420, "yuvj420p", 45}, {VESK_PIX_NV12, "nv12 -vf scale=out_range=pc", 45},
        {VESK_PIX_RGB24, std::string("rgb24") + rgb_conv, 38}, {VESK_PIX_BGR24, std::string("bgr24") + rgb_conv, 38}};
    for (const auto& o : outs) {
        bytes ours;
        vesk_image dst = wrap(o.format, w, h, ours);
        ASSERT_EQ(vesk_utility_jpeg_decode(jpeg.data(), uint32_t(jpeg.size()), 1, w * h, &dst), VESK_OK) << o.ff;
        ASSERT_TRUE(sh("ffmpeg -v error -y -i " + scratch("theirs.jpg") + " -pix_fmt " + o.ff + " -f rawvideo "
            + scratch("theirs_dec.raw")));
        const double db = psnr(ours, read_all(scratch("theirs_dec.raw")));
        EXPECT_GE(db, o.min_db) << o.ff;
        printf("ffmpeg jpeg decoded to %s: %.1f dB from ffmpeg's decode\n", o.ff.c_str(), db);
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
    // Scaled decodes: sizes round up, and each pixel is close to the mean of its source block.
    for (uint32_t denom : {2u, 4u, 8u}) {
        const uint32_t sw = (w + denom - 1) / denom, sh = (h + denom - 1) / denom;
        bytes out;
        vesk_image dst = wrap(VESK_PIX_RGB24, sw, sh, out);
        ASSERT_EQ(vesk_utility_jpeg_decode(jpeg.data(), len, denom, w * h, &dst), VESK_OK) << denom;
        // TurboJPEG's scaled inverse transform is close to, not equal to, a box filter.
        bytes box, got;
        for (uint32_t y = 0; y < h / denom; ++y)
            for (uint32_t x = 0; x < w / denom; ++x)
                for (int c = 0; c < 3; ++c) {
                    int sum = 0;
                    for (uint32_t yy = 0; yy < denom; ++yy)
                        for (uint32_t xx = 0; xx < denom; ++xx)
                            sum += src[((y * denom + yy) * w + x * denom + xx) * 3 + c];
                    box.push_back(uint8_t(sum / int(denom * denom)));
                    got.push_back(out[(y * sw + x) * 3 + c]);
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
