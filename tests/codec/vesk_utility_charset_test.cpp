// Character sets: every two-byte GB2312 and GBK code against Python's codecs in both
// directions, invalid input with and without replacement, bounded output, the UTF-8 helpers
// and the per-thread converters.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>

#include "codec/vesk_utility_charset.h"
#include "codec_test_util.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_codec_test;

namespace
{

// For each two-byte code of the set: the code, its UTF-8 decoding and the encoding of that
// text back into the set, all in hex; "-" where Python refuses the code.
const char k_python_table[] = R"PY(
import sys
enc = sys.argv[1]
if enc == 'gb2312':
    leads, trails = range(0xA1, 0xF8), range(0xA1, 0xFF)
else:
    leads, trails = range(0x81, 0xFF), [t for t in range(0x40, 0xFF) if t != 0x7F]
for a in leads:
    for b in trails:
        c = bytes([a, b])
        try:
            u = c.decode(enc)
            print(c.hex(), u.encode('utf-8').hex(), u.encode(enc).hex())
        except UnicodeError:
            print(c.hex(), '-', '-')
)PY";

struct codes_case {
    const char* python_name;
    VESK_ERR (*to_utf8)(const char*, uint32_t, char*, uint32_t, uint32_t*);
    VESK_ERR (*from_utf8)(const char*, uint32_t, char*, uint32_t, uint32_t*);
};

} // namespace

TEST(CharsetTest, EveryTwoByteCodeDecodesAndEncodesAsPythonCodecs)
{
    const std::string script = vesk_test::private_root() + "/charset_table.py";
    write_file(script, k_python_table, strlen(k_python_table));
    const codes_case cases[] = {
        {"gb2312", vesk_utility_gb2312_to_utf8, vesk_utility_utf8_to_gb2312},
        {"gbk", vesk_utility_gbk_to_utf8, vesk_utility_utf8_to_gbk},
    };
    for (const codes_case& c : cases) {
        std::istringstream table(run("/usr/bin/python3 " + script + " " + c.python_name));
        std::string code_hex, utf8_hex, back_hex;
        int codes = 0;
        while (table >> code_hex >> utf8_hex >> back_hex) {
            codes++;
            const unsigned long v = std::stoul(code_hex, nullptr, 16);
            const char code[2] = {static_cast<char>(v >> 8), static_cast<char>(v)};
            char utf8[16], back[16];
            uint32_t n = 99;
            VESK_ERR ret = c.to_utf8(code, 2, utf8, sizeof(utf8), &n);
            if (utf8_hex == "-") {
                EXPECT_EQ(ret, VESK_ERR_OPERATE_FAIL) << c.python_name << " " << code_hex;
                EXPECT_EQ(n, 0u);
                continue;
            }
            ASSERT_EQ(ret, VESK_OK) << c.python_name << " " << code_hex;
            EXPECT_EQ(to_hex(utf8, n), utf8_hex) << c.python_name << " " << code_hex;
            EXPECT_EQ(utf8[n], '\0');
            ASSERT_EQ(c.from_utf8(utf8, n, back, sizeof(back), &n), VESK_OK) << c.python_name << " " << code_hex;
            EXPECT_EQ(to_hex(back, n), back_hex) << c.python_name << " " << code_hex;
        }
        EXPECT_EQ(codes, c.python_name[2] == '2' ? 87 * 94 : 126 * 190) << c.python_name;
    }
}

TEST(CharsetTest, InvalidInputFailsOrIsReplacedAsAsked)
{
    struct {
        const char* from;
        const char* to;
        const char* in;
        VESK_ERR strict;
        const char* replaced; // output with replace_invalid
    } cases[] = {
        // "中" in GB2312 is D6 D0; in UTF-8 E4 B8 AD.
        {"GB2312", "UTF-8", "a\xD6\xD0z", VESK_OK, "a\xE4\xB8\xADz"},
        {"GB2312", "UTF-8", "a\xD6", VESK_ERR_OPERATE_FAIL, "a\xEF\xBF\xBD"},            // cut off
        {"GB2312", "UTF-8", "a\xD6\x20z", VESK_ERR_OPERATE_FAIL, "a\xEF\xBF\xBD z"},     // bad trail
        {"GB2312", "UTF-8", "\xFF\xD6\xD0", VESK_ERR_OPERATE_FAIL, "\xEF\xBF\xBD\xE4\xB8\xAD"},
        {"UTF-8", "GB2312", "x\xE2\x82\xACy", VESK_ERR_OPERATE_FAIL, "x?y"},            // euro sign: no code
        {"UTF-8", "GB2312", "\xC0\xAF\xE4\xB8\xAD", VESK_ERR_OPERATE_FAIL, "??\xD6\xD0"}, // overlong '/'
        {"UTF-8", "GBK", "\xED\xA0\x80", VESK_ERR_OPERATE_FAIL, "???"},                // a surrogate
        // GBK-only 0x8140 (U+4E02) is one refused character for GB2312, not two.
        {"GBK", "GB2312", "\x81\x40" "a", VESK_ERR_OPERATE_FAIL, "?a"},
        {"UTF-8", "UTF-8", "ok\x80", VESK_ERR_OPERATE_FAIL, "ok\xEF\xBF\xBD"},
        // Above U+10FFFF: glibc would pass it into UTF-8 unchanged (fuzzing).
        {"UTF-8", "UTF-8", "\xF5\xB8\xAD\xADz", VESK_ERR_OPERATE_FAIL,
            "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBDz"},
        // glibc's GB2312-to-GBK module takes a cut-off first byte before reporting it (fuzzing).
        {"GB2312", "GBK", "Y\xC3", VESK_ERR_OPERATE_FAIL, "Y?"},
    };
    for (const auto& c : cases) {
        char out[32];
        uint32_t n = 99;
        const uint32_t len = static_cast<uint32_t>(strlen(c.in));
        EXPECT_EQ(vesk_utility_charset_convert(c.from, c.to, c.in, len, out, sizeof(out), &n, 0), c.strict)
            << c.from << "->" << c.to << " " << to_hex(c.in, len);
        if (c.strict != VESK_OK) {
            EXPECT_EQ(n, 0u);
            EXPECT_STREQ(out, "");
        }
        ASSERT_EQ(vesk_utility_charset_convert(c.from, c.to, c.in, len, out, sizeof(out), &n, 1), VESK_OK);
        EXPECT_EQ(to_hex(out, n), to_hex(c.replaced, strlen(c.replaced))) << c.from << "->" << c.to << " "
                                                                         << to_hex(c.in, len);
    }
}

TEST(CharsetTest, OutputNeverPassesTheBufferAndArgumentsAreChecked)
{
    // "中文" in GB2312 becomes 6 UTF-8 bytes and the NUL: 7 bytes fit, 6 do not.
    const char gb[] = "\xD6\xD0\xCE\xC4";
    for (uint32_t size = 1; size <= 8; size++) {
        char buf[16];
        memset(buf, 0x5A, sizeof(buf));
        uint32_t n = 99;
        VESK_ERR ret = vesk_utility_gb2312_to_utf8(gb, 4, buf, size, &n);
        EXPECT_EQ(ret, size >= 7 ? VESK_OK : VESK_ERR_NO_RESOURCE) << size;
        EXPECT_EQ(n, size >= 7 ? 6u : 0u) << size;
        for (uint32_t i = size; i < sizeof(buf); i++)
            ASSERT_EQ(buf[i], 0x5A) << "byte " << i << " written with out_size " << size;
    }
    char out[8];
    uint32_t n;
    EXPECT_EQ(vesk_utility_gb2312_to_utf8(nullptr, 0, out, sizeof(out), nullptr), VESK_OK);
    EXPECT_EQ(vesk_utility_gb2312_to_utf8(nullptr, 1, out, sizeof(out), &n), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_gb2312_to_utf8("a", 1, nullptr, 8, &n), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_gb2312_to_utf8("a", 1, out, 0, &n), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_charset_convert(nullptr, "UTF-8", "a", 1, out, 8, &n, 0), VESK_ERR_INVALID_PARAM);
    // A set nobody has: not supported, and the log names it.
    std::string log = vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_charset_convert("NO-SUCH-SET", "UTF-8", "a", 1, out, 8, &n, 0), VESK_ERR_NOT_SUPPORT);
    });
    EXPECT_NE(log.find("no gconv module for NO-SUCH-SET"), std::string::npos) << log;
}

TEST(CharsetTest, Utf8CheckAndTruncationRespectCharacters)
{
    const struct {
        const char* s;
        bool utf8;
    } checks[] = {
        {"", true}, {"plain", true}, {"\xE4\xB8\xAD\xE6\x96\x87", true}, {"\xF0\x9F\x98\x80", true},
        {"\xF4\x8F\xBF\xBF", true}, {"\xC2\x80", true},
        {"\x80", false}, {"\xC0\xAF", false}, {"\xE0\x80\xAF", false}, {"\xED\xA0\x80", false},
        {"\xF4\x90\x80\x80", false}, {"\xE4\xB8", false}, {"\xD6\xD0", false}, {"\xFF", false},
    };
    for (const auto& c : checks)
        EXPECT_EQ(vesk_utility_is_utf8(c.s, static_cast<uint32_t>(strlen(c.s))), c.utf8 ? 1 : 0) << to_hex(c.s, strlen(c.s));
    EXPECT_EQ(vesk_utility_is_utf8(nullptr, 0), 1);
    EXPECT_EQ(vesk_utility_is_utf8(nullptr, 3), 0);

    // "a中文" is 1 + 3 + 3 bytes: a field drops whole characters only.
    const struct {
        uint32_t field;
        const char* kept;
    } cuts[] = {{1, ""}, {2, "a"}, {3, "a"}, {4, "a"}, {5, "a\xE4\xB8\xAD"}, {7, "a\xE4\xB8\xAD"},
                {8, "a\xE4\xB8\xAD\xE6\x96\x87"}, {64, "a\xE4\xB8\xAD\xE6\x96\x87"}};
    for (const auto& c : cuts) {
        char field[64] = "a\xE4\xB8\xAD\xE6\x96\x87";
        uint32_t n = 99;
        ASSERT_EQ(vesk_utility_utf8_truncate(field, c.field, &n), VESK_OK);
        EXPECT_STREQ(field, c.kept) << c.field;
        EXPECT_EQ(n, strlen(c.kept));
    }
    char bad[8] = "\xFF\xFF\xFF";  // not UTF-8: cut byte by byte
    uint32_t n;
    EXPECT_EQ(vesk_utility_utf8_truncate(bad, 3, &n), VESK_OK);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(vesk_utility_utf8_truncate(bad, 0, &n), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_utf8_truncate(nullptr, 4, &n), VESK_ERR_INVALID_PARAM);
}

// Invariant: converters are per thread, so threads converting in different directions at the
// same time each get exactly their own results, and a thread holds at most four open.
TEST(CharsetTest, ThreadsConvertConcurrentlyWithTheirOwnConverters)
{
    const char gb[] = "\xD6\xD0\xCE\xC4";          // 中文 in GB2312 (and GBK)
    const char utf8[] = "\xE4\xB8\xAD\xE6\x96\x87"; // 中文
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    const char* sets[] = {"GB2312", "GBK", "GB18030", "UTF-16LE", "UTF-8"};
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; i++) {
                char out[32], back[32];
                uint32_t n, m;
                const char* set = sets[(t + i) % 5];
                if (vesk_utility_charset_convert("UTF-8", set, utf8, 6, out, sizeof(out), &n, 0) != VESK_OK ||
                    vesk_utility_charset_convert(set, "UTF-8", out, n, back, sizeof(back), &m, 0) != VESK_OK ||
                    m != 6 || memcmp(back, utf8, 6) != 0 || (set[1] == 'B' && (n != 4 || memcmp(out, gb, 4) != 0)))
                    wrong++;
            }
            if (vesk_utility::vesk_charset_cached_converters() > 4)
                wrong += 1000;
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(wrong.load(), 0);
}
