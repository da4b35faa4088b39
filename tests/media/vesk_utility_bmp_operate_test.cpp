// The BMP operator: every depth byte-exact both ways against ffmpeg, a top-down bit-field
// file against PIL, and the loader's refusals of damaged or unsupported files.
#include <gtest/gtest.h>

#include <cstring>

#include "media/vesk_utility_bmp_operate.h"
#include "media_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace media_test;

namespace
{

constexpr uint32_t W = 37, H = 23; // odd sizes: every row is padded
const uint32_t k_colours[] = {0xFFFF0000, 0xFF0000FF, 0xFF00FF00, 0xFFFFFF00, 0xFF00FFFF, 0xFFFF00FF, 0xFFFFFFFF,
    0xFF000000, 0xFFC8641E, 0xFF1E64C8, 0xFF808080, 0xFF5AC878};

uint32_t index_at(uint32_t x, uint32_t y)
{
    return (x / 5 + 3 * (y / 4)) % 12;
}

// The operator's picture as raw bytes of `format`.
bytes pixels_of(vesk_bmp_operate* op, uint32_t format = VESK_PIX_ARGB8888)
{
    bytes out(vesk_utility_image_size(format, W, H));
    vesk_image img;
    EXPECT_EQ(vesk_utility_image_wrap(&img, format, W, H, out.data(), uint32_t(out.size())), VESK_OK);
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

} // namespace

TEST(BmpOperateTest, ByteExactWithFfmpegBothWaysAtEveryDepth)
{
    if (!have("ffmpeg"))
        GTEST_SKIP() << "ffmpeg not installed";
    bytes rgb;
    for (uint32_t i = 0; i < W * H * 3; ++i)
        rgb.push_back(uint8_t(k_colours[index_at(i / 3 % W, i / 3 / W)] >> (16 - 8 * (i % 3))));
    const std::string src = scratch("bmp_pattern.rgb");
    ASSERT_TRUE(write_all(src, rgb));
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
        EXPECT_TRUE(w == W && h == H && bits == r.second) << r.first << " " << bits;
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
    bytes argb = pixels_of(o.op), nv21(vesk_utility_image_size(VESK_PIX_NV21, W, H));
    vesk_image from, to;
    ASSERT_EQ(vesk_utility_image_wrap(&from, VESK_PIX_ARGB8888, W, H, argb.data(), uint32_t(argb.size())), VESK_OK);
    ASSERT_EQ(vesk_utility_image_wrap(&to, VESK_PIX_NV21, W, H, nv21.data(), uint32_t(nv21.size())), VESK_OK);
    ASSERT_EQ(vesk_utility_image_convert(&from, nullptr, &to, VESK_MATRIX_BT601), VESK_OK);
    EXPECT_EQ(pixels_of(o.op, VESK_PIX_NV21), nv21);

    // Ours at every depth read by ffmpeg, and back through our own loader.
    for (uint32_t bits : {1u, 4u, 8u, 16u, 24u, 32u}) {
        ASSERT_EQ(o.op->create(W, H, bits), VESK_OK);
        if (bits == 4 || bits == 8) {
            ASSERT_EQ(o.op->set_palette(k_colours, 12), VESK_OK);
        }
        for (uint32_t y = 0; y < H; ++y)
            for (uint32_t x = 0; x < W; ++x) {
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
    for (uint32_t i = 0; i < W * H; ++i)
        pixels = concat({pixels, le({(k_colours[index_at(i % W, i / W)] & 0xFFFFFF) | (i * 7 & 0xFF) << 24}, 4)});
    const bytes f = concat({{'B', 'M'}, le({14 + 108 + W * H * 4, 0, 14 + 108, 108, W, uint32_t(-int32_t(H))}, 4),
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
    ASSERT_EQ(o.op->create(W, H, 8), VESK_OK);
    ASSERT_EQ(o.op->set_palette(k_colours, 12), VESK_OK);
    for (uint32_t x = 0; x < W; ++x)
        ASSERT_EQ(o.op->set_pixel(x, x % H, x % 12), VESK_OK);
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
    vesk_utility::vesk_bmp_realize r;
    ASSERT_EQ(r.create(4, 4, 32), VESK_OK);
    const std::string v4 = scratch("v4.bmp");
    ASSERT_EQ(r.save(v4.c_str()), VESK_OK);
    bytes f = read_all(v4);
    f[54] = 0x0F, f[55] = 0xF0; // red mask 0x00FFF00F
    EXPECT_EQ(r.load_memory(f.data(), uint32_t(f.size())), VESK_ERR_OPERATE_FAIL);
    uint32_t w = 0;
    ASSERT_EQ(r.get_info(&w, nullptr, nullptr), VESK_OK);
    EXPECT_EQ(w, 4u);
}
