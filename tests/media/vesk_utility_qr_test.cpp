// QR codes: every level and version read back by zbarimg (and ZXingReader where installed),
// text that arrives as GB2312, and the bitmap's geometry and refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "picture_test_util.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace picture_test;

namespace
{

// The lines a reader prints for a list of files (zbarimg --raw: one line per symbol found).
std::vector<std::string> read_lines(const std::string& cmd)
{
    std::vector<std::string> out;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return out;
    char line[8192];
    while (fgets(line, sizeof(line), p) != nullptr) {
        std::string s(line);
        while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
            s.pop_back();
        out.push_back(s);
    }
    pclose(p);
    return out;
}

const char k_levels[] = "LMQH";

} // namespace

TEST(QrTest, EveryLevelAndVersionReadsBack)
{
    if (!have("zbarimg"))
        GTEST_SKIP() << "zbar-tools not installed";
    std::multiset<std::string> want;
    std::string files;
    std::vector<std::string> paths;
    int wrong_version = 0;
    for (uint32_t level = 0; level < 4; ++level) {
        for (uint32_t v = 1; v <= 40; ++v) {
            // Short enough for version 1 at H (7 bytes), so the symbol is exactly version v.
            const std::string text = "v" + std::to_string(v) + "-" + k_levels[level];
            const vesk_qr_param p = {level, VESK_QR_TEXT_UTF8, v > 20 ? 2u : 3u, 4, v};
            uint32_t side = 0, version = 0;
            std::vector<uint8_t> bitmap(800 * 800);
            ASSERT_EQ(vesk_utility_qr_encode(text.data(), uint32_t(text.size()), &p, bitmap.data(),
                          uint32_t(bitmap.size()), &side, &version),
                VESK_OK);
            wrong_version += version != v || side != (17 + 4 * v + 8) * p.module_px;
            const std::string path = scratch("qr_" + text + ".bmp");
            ASSERT_EQ(vesk_utility_qr_save_bmp(text.data(), uint32_t(text.size()), &p, path.c_str()), VESK_OK);
            want.insert(text);
            files += " " + path;
            paths.push_back(path);
        }
    }
    EXPECT_EQ(wrong_version, 0);
    const std::vector<std::string> got = read_lines("zbarimg -q --raw" + files + " 2>/dev/null");
    EXPECT_EQ(std::multiset<std::string>(got.begin(), got.end()), want);
    if (have("ZXingReader")) {
        // -ispure: the bitmaps are perfect codes; its searching mode misses version 40 drawn at
        // 2 pixels a module.
        int read = 0;
        for (const auto& path : paths) {
            const std::vector<std::string> z = read_lines("ZXingReader -ispure -format QRCode " + path + " 2>/dev/null");
            const std::string name = path.substr(path.rfind("qr_") + 3);
            const std::string text = name.substr(0, name.size() - 4);
            const bool ok = std::count(z.begin(), z.end(), "Text:       \"" + text + "\"") > 0;
            read += ok;
            if (!ok)
                printf("ZXingReader missed %s\n", text.c_str());
        }
        EXPECT_EQ(read, 160);
    }
}

TEST(QrTest, LongAndGb2312TextReadsBackAsTheOriginal)
{
    if (!have("zbarimg") || !have("iconv"))
        GTEST_SKIP() << "zbar-tools or iconv not installed";
    // 2000 printable bytes at level L need a symbol near the largest.
    std::string longtext;
    for (int i = 0; i < 2000; ++i)
        longtext.push_back(char('!' + (i * 7919) % 94));
    const vesk_qr_param big = {VESK_QR_ECC_L, VESK_QR_TEXT_UTF8, 3, 4, 1};
    const std::string lpath = scratch("qr_long.bmp");
    ASSERT_EQ(vesk_utility_qr_save_bmp(longtext.data(), uint32_t(longtext.size()), &big, lpath.c_str()), VESK_OK);
    EXPECT_EQ(read_lines("zbarimg -q --raw " + lpath), std::vector<std::string> {longtext});

    // Chinese text made GB2312 by iconv, the oracle; the reader must print the UTF-8 original.
    const std::string utf8 = "设备序列号 NVR-2023 配对码：中文测试";
    ASSERT_TRUE(write_all(scratch("qr_utf8.txt"), bytes(utf8.begin(), utf8.end())));
    ASSERT_TRUE(sh("iconv -f UTF-8 -t GB2312 " + scratch("qr_utf8.txt") + " > " + scratch("qr_gb.txt")));
    const bytes gb = read_all(scratch("qr_gb.txt"));
    ASSERT_LT(gb.size(), utf8.size()); // really two bytes a character now
    // A C library without the GB2312 converter module (the target's under qemu here) cannot
    // take GB2312 text at all; the UTF-8 half still runs.
    char probe[16];
    uint32_t probe_len = 0;
    const bool gb2312 = vesk_utility_gb2312_to_utf8("\xD6\xD0", 2, probe, sizeof(probe), &probe_len) != VESK_ERR_NOT_SUPPORT;
    if (!gb2312)
        printf("no GB2312 converter in this C library: GB2312 QR text not checked\n");
    for (uint32_t level = 0; level < 4; ++level) {
        const vesk_qr_param p = {level, VESK_QR_TEXT_GB2312, 4, 4, 1};
        const vesk_qr_param as_utf8 = {level, VESK_QR_TEXT_UTF8, 4, 4, 1};
        const std::string path = scratch("qr_gb_" + std::to_string(level) + ".bmp");
        ASSERT_EQ(vesk_utility_qr_save_bmp(utf8.data(), uint32_t(utf8.size()), &as_utf8, path.c_str()), VESK_OK);
        EXPECT_EQ(read_lines("zbarimg -q --raw " + path), std::vector<std::string> {utf8}) << k_levels[level];
        if (!gb2312)
            continue;
        ASSERT_EQ(vesk_utility_qr_save_bmp(reinterpret_cast<const char*>(gb.data()), uint32_t(gb.size()), &p, path.c_str()),
            VESK_OK);
        EXPECT_EQ(read_lines("zbarimg -q --raw " + path), std::vector<std::string> {utf8}) << k_levels[level];
    }
    const vesk_qr_param p = {VESK_QR_ECC_M, VESK_QR_TEXT_GB2312, 4, 4, 1};
    const char broken[] = {'\xD6', 'A', '\xFF', '\xFF'};
    std::vector<uint8_t> out(100000);
    EXPECT_EQ(vesk_utility_qr_encode(broken, sizeof(broken), &p, out.data(), uint32_t(out.size()), nullptr, nullptr),
        gb2312 ? VESK_ERR_INVALID_PARAM : VESK_ERR_NOT_SUPPORT);
}

TEST(QrTest, BitmapGeometryAndRefusals)
{
    const vesk_qr_param p = {VESK_QR_ECC_M, VESK_QR_TEXT_UTF8, 3, 2, 1};
    std::vector<uint8_t> out(100 * 100);
    uint32_t side = 0, version = 0;
    ASSERT_EQ(vesk_utility_qr_encode("12345", 5, &p, out.data(), uint32_t(out.size()), &side, &version), VESK_OK);
    ASSERT_EQ(version, 1u);
    ASSERT_EQ(side, (21u + 4) * 3);
    // The quiet zone is light all round; the top-left finder has a dark ring, a light ring and
    // a dark 3 x 3 core, seen from its own corner at (quiet, quiet).
    auto at = [&](uint32_t mx, uint32_t my) { return out[(my * 3 + 1) * side + mx * 3 + 1]; };
    int dark_in_quiet = 0;
    for (uint32_t i = 0; i < 25; ++i)
        dark_in_quiet += at(i, 0) == 0 || at(i, 1) == 0 || at(0, i) == 0 || at(24, i) == 0 || at(i, 24) == 0;
    EXPECT_EQ(dark_in_quiet, 0);
    EXPECT_TRUE(at(2, 2) == 0 && at(8, 2) == 0 && at(3, 3) == 255 && at(4, 4) == 0 && at(6, 6) == 0 && at(9, 9) == 255);
    for (size_t i = 0; i < size_t(side) * side; ++i)
        ASSERT_TRUE(out[i] == 0 || out[i] == 255) << i;

    EXPECT_EQ(vesk_utility_qr_encode("12345", 5, &p, out.data(), side * side - 1, &side, nullptr), VESK_ERR_NO_RESOURCE);
    const std::string huge(2954, 'a');
    EXPECT_EQ(vesk_utility_qr_encode(huge.data(), uint32_t(huge.size()), &p, out.data(), uint32_t(out.size()), nullptr,
                  nullptr),
        VESK_ERR_INVALID_PARAM);
    const std::string too_much_for_h(1300, 'a'); // fits level L, not H
    const vesk_qr_param h = {VESK_QR_ECC_H, VESK_QR_TEXT_UTF8, 1, 0, 1};
    const vesk_qr_param l = {VESK_QR_ECC_L, VESK_QR_TEXT_UTF8, 1, 0, 1};
    std::vector<uint8_t> big(200 * 200);
    EXPECT_EQ(vesk_utility_qr_encode(too_much_for_h.data(), 1300, &h, big.data(), uint32_t(big.size()), nullptr, nullptr),
        VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_qr_encode(too_much_for_h.data(), 1300, &l, big.data(), uint32_t(big.size()), nullptr, nullptr),
        VESK_OK);
    for (const vesk_qr_param bad : {vesk_qr_param {4, 0, 1, 4, 1}, {0, 2, 1, 4, 1}, {0, 0, 0, 4, 1}, {0, 0, 65, 4, 1},
             {0, 0, 1, 17, 1}, {0, 0, 1, 4, 0}, {0, 0, 1, 4, 41}})
        EXPECT_EQ(vesk_utility_qr_encode("x", 1, &bad, out.data(), uint32_t(out.size()), nullptr, nullptr),
            VESK_ERR_INVALID_PARAM);
}
