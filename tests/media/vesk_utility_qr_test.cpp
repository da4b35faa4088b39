// QR codes read back by zbarimg: every level and version, long text, text that arrives as
// GB2312; the bitmap's size and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "media_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace media_test;

namespace
{

std::vector<std::string> zbarimg(const std::string& files)
{
    return lines_of("zbarimg -q --raw " + files + " 2>/dev/null");
}

} // namespace

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
