// Pictures: image conversions against ffmpeg (explicit matrix and range), crop, scale and odd
// sizes; the JPEG codec both ways against ffmpeg; the BMP operator byte-exact with ffmpeg at every
// depth, a top-down file against PIL and damaged files; QR codes read back by zbarimg.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "media_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace media_test;

namespace
{

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
const struct {
    uint32_t format;
    const char* name;
} k_yuv[] = {{VESK_PIX_I420, "yuv420p"}, {VESK_PIX_NV12, "nv12"}, {VESK_PIX_NV21, "nv21"}};

// The operator's picture as raw bytes of `format`.
bytes pixels_of(vesk_bmp_operate* op, uint32_t format = VESK_PIX_ARGB8888)
{
    bytes out;
    vesk_image img = wrap(format, BW, BH, out);
    EXPECT_EQ(op->read_pixels(&img), VESK_OK);
    return out;
}

bytes ffmpeg_bgra(const std::string& bmp)
{
    EXPECT_TRUE(ffmpeg("-i " + bmp + " -pix_fmt bgra -f rawvideo " + bmp + ".raw")) << bmp;
    return read_all(bmp + ".raw");
}

struct operate {
    vesk_bmp_operate* op = vesk_utility_new_bmp_operate(0x23, "bmp test");
    ~operate() { vesk_utility_delete_bmp_operate(op, __FILE__, __func__); }
};

std::vector<std::string> zbarimg(const std::string& files)
{
    return lines_of("zbarimg -q --raw " + files + " 2>/dev/null");
}

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

    // ffmpeg's JPEG decoded by us against ffmpeg's own decode, as planes and in RGB (where
    // TurboJPEG interpolates chroma and ffmpeg's nearest is its bicubic full-chroma conversion).
    const std::string theirs = scratch("theirs.jpg"), rgb_conv = " -vf scale=flags=bicubic+full_chroma_int+accurate_rnd";
    ASSERT_TRUE(ffmpeg("-f rawvideo -pix_fmt rgb24 -s 320x240 -i " + rgb_raw + " -pix_fmt yuvj420p -q:v 3 " + theirs));
    const bytes jpeg = read_all(theirs);
    vesk_jpeg_info info = {};
    ASSERT_EQ(vesk_utility_jpeg_get_info(jpeg.data(), uint32_t(jpeg.size()), &info), VESK_OK);
    EXPECT_TRUE(info.width == w && info.height == h && info.subsamp == 2 && info.channels == 3);
    const struct {
        uint32_t format;
        std::string ff;
        double min_db;
    } outs[] = {{VESK_PIX_I420, "yuvj420p", 45}, {VESK_PIX_NV12, "nv12 -vf scale=out_range=pc", 45},
        {VESK_PIX_RGB24, "rgb24" + rgb_conv, 38}, {VESK_PIX_BGR24, "bgr24" + rgb_conv, 38}};
    for (const auto& o : outs) {
        bytes decoded;
        vesk_image dst = wrap(o.format, w, h, decoded);
        ASSERT_EQ(vesk_utility_jpeg_decode(jpeg.data(), uint32_t(jpeg.size()), 1, w * h, &dst), VESK_OK) << o.ff;
        ASSERT_TRUE(ffmpeg("-i " + theirs + " -pix_fmt " + o.ff + " -f rawvideo " + theirs + ".raw"));
        EXPECT_GE(psnr(decoded, read_all(theirs + ".raw")), o.min_db) << o.ff;
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
    // Scaled decodes: sizes round up; pixels are close to the mean of their source block.
    for (uint32_t d : {2u, 4u, 8u}) {
        const uint32_t sw = (w + d - 1) / d, sh = (h + d - 1) / d;
        EXPECT_EQ(decode(jpeg, len, d, w * h, sw + 1, sh), VESK_ERR_INVALID_PARAM);
        ASSERT_EQ(decode(jpeg, len, d, w * h, sw, sh), VESK_OK) << d;
        bytes box, got;
        for (uint32_t y = 0; y < h / d; ++y)
            for (uint32_t x = 0; x < w / d * 3; ++x) {
                int sum = 0;
                for (uint32_t k = 0; k < d * d; ++k)
                    sum += src[((y * d + k / d) * w + x / 3 * d + k % d) * 3 + x % 3];
                box.push_back(uint8_t(sum / int(d * d)));
                got.push_back(out[y * sw * 3 + x]);
            }
        EXPECT_GE(psnr(got, box), 32.0) << d;
    }
    EXPECT_EQ(decode(jpeg, len, 3, w * h, w, h), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(decode(jpeg, len, 1, w * h - 1, w, h), VESK_ERR_NO_RESOURCE);
    EXPECT_EQ(decode(jpeg, len / 2, 1, w * h, w, h), VESK_ERR_OPERATE_FAIL); // cut short
    // A bomb: the frame header claims 60000 x 60000 (height, then width); refused from the header alone.
    bytes bomb(jpeg.begin(), jpeg.begin() + len);
    size_t sof = 2;
    while (sof + 9 < bomb.size() && !(bomb[sof] == 0xFF && bomb[sof + 1] == 0xC0))
        ++sof;
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
    // ffmpeg's files at 1, 8 (palette and gray), 16 (555 plain, 565 and 444 bit-fields), 24 and 32 bits.
    operate o;
    ASSERT_NE(o.op, nullptr);
    const std::pair<const char*, uint32_t> rows[] = {{"monob", 1}, {"pal8", 8}, {"gray", 8}, {"rgb555le", 16},
        {"rgb565le", 16}, {"rgb444le", 16}, {"bgr24", 24}, {"bgra", 32}};
    for (const auto& r : rows) {
        const std::string bmp = scratch(std::string("ff_") + r.first + ".bmp");
        ASSERT_TRUE(ffmpeg("-f rawvideo -pix_fmt rgb24 -s 37x23 -i " + src + " -pix_fmt " + r.first + " " + bmp));
        ASSERT_EQ(o.op->load_file(bmp.c_str()), VESK_OK) << r.first;
        uint32_t w = 0, h = 0, bits = 0;
        ASSERT_EQ(o.op->get_info(&w, &h, &bits), VESK_OK);
        EXPECT_TRUE(w == BW && h == BH && bits == r.second) << r.first << " " << bits;
        const bytes ours = pixels_of(o.op);
        bytes seen = ours;
        for (size_t i = 0; std::string(r.first) == "rgb444le" && i < seen.size(); ++i)
            seen[i] &= i % 4 == 3 ? 0xFF : 0xF0; // ffmpeg widens 4-bit fields by a shift, we repeat the bits
        size_t at = 0;
        EXPECT_EQ(max_diff(seen, ffmpeg_bgra(bmp), &at), 0) << r.first << " byte " << at;
        // The same file from memory gives the same picture.
        const bytes file = read_all(bmp);
        ASSERT_EQ(o.op->create(1, 1, 24), VESK_OK);
        ASSERT_EQ(o.op->load_memory(file.data(), uint32_t(file.size())), VESK_OK);
        EXPECT_EQ(pixels_of(o.op), ours) << r.first;
    }
    // Read into a YUV picture (converted in bands), as the image converter makes it.
    EXPECT_EQ(pixels_of(o.op, VESK_PIX_NV21), convert(VESK_PIX_ARGB8888, pixels_of(o.op), VESK_PIX_NV21, VESK_MATRIX_BT601, BW, BH));

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
        size_t at = 0;
        EXPECT_EQ(max_diff(ours, ffmpeg_bgra(bmp), &at), 0) << bits << " bits, byte " << at;
        ASSERT_EQ(o.op->load_file(bmp.c_str()), VESK_OK);
        EXPECT_EQ(pixels_of(o.op), ours) << bits;
    }
    // Pixel values: indices at 1-8 bits, colours above (16 bits keep the top 5 of each).
    ASSERT_EQ(o.op->create(3, 2, 16), VESK_OK);
    uint32_t v = 0;
    ASSERT_EQ(o.op->set_pixel(2, 1, 0xFF12F0A8), VESK_OK);
    ASSERT_EQ(o.op->get_pixel(2, 1, &v), VESK_OK);
    EXPECT_EQ(v, 0xFF10F7AD) << std::hex << v;
    ASSERT_EQ(o.op->create(3, 2, 4), VESK_OK);
    EXPECT_EQ(o.op->set_pixel(3, 0, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(o.op->set_pixel(0, 0, 16), VESK_ERR_INVALID_PARAM);
    ASSERT_EQ(o.op->set_pixel(1, 1, 9), VESK_OK);
    ASSERT_EQ(o.op->get_pixel(1, 1, &v), VESK_OK);
    EXPECT_EQ(v, 9u);
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
    operate o;
    ASSERT_EQ(o.op->load_file(path.c_str()), VESK_OK);
    bytes ours = pixels_of(o.op);
    for (size_t i = 0; i < ours.size(); i += 4)
        std::swap(ours[i], ours[i + 2]); // B, G, R, A -> R, G, B, A
    EXPECT_EQ(max_diff(ours, read_all(path + ".rgba")), 0);
    // Saved again, it keeps its alpha through a V4 header.
    ASSERT_EQ(o.op->save(path.c_str()), VESK_OK);
    const bytes before = pixels_of(o.op);
    ASSERT_EQ(o.op->load_file(path.c_str()), VESK_OK);
    EXPECT_EQ(pixels_of(o.op), before);
}

TEST(BmpOperateTest, DamagedAndUnsupportedFilesAreRefusedAndTheOldBitmapStays)
{
    operate o;
    ASSERT_EQ(o.op->create(BW, BH, 8), VESK_OK);
    ASSERT_EQ(o.op->set_palette(k_colours, 12), VESK_OK);
    for (uint32_t x = 0; x < BW; ++x)
        ASSERT_EQ(o.op->set_pixel(x, x % BH, x % 12), VESK_OK);
    const std::string path = scratch("damage.bmp");
    ASSERT_EQ(o.op->save(path.c_str()), VESK_OK);
    const bytes good = read_all(path), kept = pixels_of(o.op);
    // Every cut of the file short of its end is refused.
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
    // Bit fields that are not one run of bits.
    operate v4;
    ASSERT_EQ(v4.op->create(4, 4, 32), VESK_OK);
    ASSERT_EQ(v4.op->save(path.c_str()), VESK_OK);
    bytes f = read_all(path);
    f[54] = 0x0F, f[55] = 0xF0; // red mask 0x00FFF00F
    EXPECT_EQ(v4.op->load_memory(f.data(), uint32_t(f.size())), VESK_ERR_OPERATE_FAIL);
    uint32_t w = 0;
    ASSERT_EQ(v4.op->get_info(&w, nullptr, nullptr), VESK_OK);
    EXPECT_EQ(w, 4u);
}

TEST(QrTest, EveryLevelAndVersionAndLongTextReadBack)
{
    if (!have("zbarimg"))
        GTEST_SKIP() << "zbar-tools not installed";
    std::multiset<std::string> want;
    std::string files;
    auto save = [&](const std::string& text, const vesk_qr_param& p, const std::string& name) {
        const std::string path = scratch("qr_" + name + ".bmp");
        ASSERT_EQ(vesk_utility_qr_save_bmp(text.data(), uint32_t(text.size()), &p, path.c_str()), VESK_OK);
        want.insert(text);
        files += " " + path;
    };
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
            save(text, p, text);
        }
    }
    // 2000 printable bytes at level L need a symbol near the largest.
    std::string longtext;
    for (int i = 0; i < 2000; ++i)
        longtext.push_back(char('!' + (i * 7919) % 94));
    save(longtext, {VESK_QR_ECC_L, VESK_QR_TEXT_UTF8, 3, 4, 1}, "long");
    const std::vector<std::string> got = zbarimg(files);
    EXPECT_EQ(std::multiset<std::string>(got.begin(), got.end()), want);
}

TEST(QrTest, Gb2312TextReadsBackAsTheUtf8Original)
{
    if (!have("zbarimg") || !have("iconv"))
        GTEST_SKIP() << "zbar-tools or iconv not installed";
    // Chinese text made GB2312 by iconv, the oracle; the reader must print the UTF-8 original.
    const std::string utf8 = "设备序列号 NVR-2023 配对码：中文测试";
    ASSERT_TRUE(write_all(scratch("qr_utf8.txt"), bytes(utf8.begin(), utf8.end())));
    ASSERT_TRUE(sh("iconv -f UTF-8 -t GB2312 " + scratch("qr_utf8.txt") + " > " + scratch("qr_gb.txt")));
    const bytes gb = read_all(scratch("qr_gb.txt"));
    ASSERT_LT(gb.size(), utf8.size()); // really two bytes a character now
    // A C library without the GB2312 converter module (the target's under qemu) cannot take
    // GB2312 text at all; the UTF-8 half still runs.
    char probe[16];
    uint32_t probe_len = 0;
    const bool gb2312 = vesk_utility_gb2312_to_utf8("\xD6\xD0", 2, probe, sizeof(probe), &probe_len) != VESK_ERR_NOT_SUPPORT;
    for (uint32_t level = 0; level < 4; ++level) {
        const vesk_qr_param p = {level, VESK_QR_TEXT_GB2312, 4, 4, 1}, as_utf8 = {level, VESK_QR_TEXT_UTF8, 4, 4, 1};
        const std::string path = scratch("qr_gb_" + std::to_string(level) + ".bmp");
        ASSERT_EQ(vesk_utility_qr_save_bmp(utf8.data(), uint32_t(utf8.size()), &as_utf8, path.c_str()), VESK_OK);
        EXPECT_EQ(zbarimg(path), std::vector<std::string> {utf8}) << level;
        if (!gb2312)
            continue;
        ASSERT_EQ(vesk_utility_qr_save_bmp(reinterpret_cast<const char*>(gb.data()), uint32_t(gb.size()), &p, path.c_str()), VESK_OK);
        EXPECT_EQ(zbarimg(path), std::vector<std::string> {utf8}) << level;
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
