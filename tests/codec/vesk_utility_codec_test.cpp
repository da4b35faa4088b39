#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <sstream>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

using bytes = std::vector<unsigned char>;

// Standard output of a shell command (binary safe); the test fails unless it exits with 0.
std::string run(const std::string& cmd)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    char buf[65536];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0;)
        out.append(buf, n);
    EXPECT_TRUE(p != nullptr && pclose(p) == 0) << cmd;
    return out;
}

void write_file(const std::string& path, const void* data, size_t len)
{
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_TRUE(f != nullptr && (len == 0 || fwrite(data, 1, len, f) == len) && fclose(f) == 0) << path;
}

std::string python(const std::string& code, const std::string& args)
{
    const std::string script = vesk_test::private_root() + "/oracle.py";
    write_file(script, code.data(), code.size());
    return run("/usr/bin/python3 -W ignore " + script + " " + args);
}

std::string to_hex(const void* data, size_t len)
{
    static const char k_digits[] = "0123456789abcdef";
    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::string s;
    for (size_t i = 0; i < len; i++)
        s += {k_digits[p[i] >> 4], k_digits[p[i] & 0xF]};
    return s;
}

bytes random_bytes(std::mt19937& rng, size_t len)
{
    bytes v(len);
    for (auto& b : v)
        b = static_cast<unsigned char>(rng() >> 24);
    return v;
}

std::string encode64(const bytes& data, uint32_t flags)
{
    std::string out(vesk_utility_base64_encode_size(static_cast<uint32_t>(data.size()), flags), 'X');
    uint32_t n = 0;
    EXPECT_EQ(vesk_utility_base64_encode(data.data(), static_cast<uint32_t>(data.size()), &out[0],
                  static_cast<uint32_t>(out.size()), &n, flags), VESK_OK);
    EXPECT_EQ(n + 1, out.size()) << "encode_size is exact";
    EXPECT_EQ(out[n], '\0');
    return out.substr(0, n);
}

VESK_ERR decode64(const std::string& text, bytes& out, uint32_t flags)
{
    out.assign(text.size(), 0);
    uint32_t n = 0;
    const VESK_ERR ret = vesk_utility_base64_decode(text.data(), static_cast<uint32_t>(text.size()), out.data(),
        static_cast<uint32_t>(out.size()), &n, flags);
    out.resize(n);
    return ret;
}

} // namespace

TEST(Base64Test, RfcVectorsAndRandomBuffersMatchBase64Tools)
{
    const std::string dir = vesk_test::private_root() + "/b64";
    run("mkdir -p " + dir);
    std::vector<bytes> bufs;
    for (const char* s : {"", "f", "fo", "foo", "foob", "fooba", "foobar"})
        bufs.emplace_back(s, s + strlen(s));
    std::mt19937 rng(0xC0FFEE);
    while (bufs.size() < 10000)
        bufs.push_back(random_bytes(rng, rng() % 301));
    for (size_t i = 0; i < bufs.size(); i++)
        write_file(dir + "/" + std::to_string(100000 + i), bufs[i].data(), bufs[i].size());
    // The '.' keeps an empty encoding on its line.
    std::istringstream std_out(run("cd " + dir + " && for f in *; do base64 -w0 $f; echo .; done"));
    std::istringstream url_out(run("cd " + dir + " && for f in *; do basenc --base64url -w0 $f; echo .; done"));
    std::string want, url;
    size_t i = 0;
    for (bytes back; std::getline(std_out, want) && std::getline(url_out, url); i++) {
        ASSERT_LT(i, bufs.size());
        want.pop_back();
        url.pop_back();
        const std::string unpadded = url.substr(0, url.find('='));
        ASSERT_EQ(encode64(bufs[i], 0), want) << "buffer " << i;
        ASSERT_EQ(encode64(bufs[i], VESK_BASE64_URL), url) << "buffer " << i;
        ASSERT_EQ(encode64(bufs[i], VESK_BASE64_URL | VESK_BASE64_NO_PAD), unpadded) << "buffer " << i;
        ASSERT_EQ(decode64(want, back, 0), VESK_OK) << "buffer " << i;
        ASSERT_EQ(back, bufs[i]) << "buffer " << i;
        ASSERT_EQ(decode64(unpadded, back, VESK_BASE64_URL), VESK_OK) << "buffer " << i;
        ASSERT_EQ(back, bufs[i]) << "buffer " << i;
    }
    EXPECT_EQ(i, bufs.size());
    run("rm -rf " + dir);
}

TEST(Base64Test, DecodingIsStrict)
{
    // Bad padding or length, '=' inside, white space, non-zero trailing bits, the other alphabet.
    const VESK_ERR ok = VESK_OK, bad = VESK_ERR_OPERATE_FAIL;
    const std::tuple<const char*, uint32_t, VESK_ERR> cases[] = {{"Zm9vYg==", 0, ok}, {"Zm9vYg", 0, ok},
        {"Zm9vYmE=", 0, ok}, {"Zm9v", 0, ok}, {"", 0, ok}, {"Zm9vYg=", 0, bad}, {"Zm9vY===", 0, bad},
        {"Zm9v====", 0, bad}, {"Zm9vY", 0, bad}, {"Zm=vYg==", 0, bad}, {"Zm9v\nYg==", 0, bad}, {"Zm9v Yg==", 0, bad},
        {"Zm9vYh==", 0, bad}, {"Zm9vYmF=", 0, bad}, {"=", 0, bad}, {"+/+/", 0, ok}, {"+/+/", VESK_BASE64_URL, bad},
        {"-_-_", VESK_BASE64_URL, ok}, {"-_-_", 0, bad}, {"Zm9v\x80g==", 0, bad}};
    for (const auto& c : cases) {
        bytes out;
        EXPECT_EQ(decode64(std::get<0>(c), out, std::get<1>(c)), std::get<2>(c)) << std::get<0>(c);
    }
}

// 1,000 cases over modes, key sizes and paddings, drawn twice from one seed: openssl, then us.
TEST(Des3Test, RandomCasesMatchOpensslBothWays)
{
    std::string script, cipher;
    for (int pass = 0; pass < 2; pass++) {
        std::mt19937 rng(0x3DE5);
        size_t at = 0;
        for (int i = 0; i < 1000; i++) {
            const vesk_3des_mode mode = (i & 2) != 0 ? VESK_3DES_CBC : VESK_3DES_ECB;
            const vesk_3des_pad pad = static_cast<vesk_3des_pad>((i / 4) % 3);
            const bytes key = random_bytes(rng, (i & 1) != 0 ? 24 : 16), iv = random_bytes(rng, 8);
            const size_t len = rng() % 70;
            const bytes plain = random_bytes(rng, pad == VESK_3DES_PAD_NONE ? len - len % 8 : len);
            bytes fed = plain, out(80), back(80);
            fed.resize(pad == VESK_3DES_PAD_ZERO ? (len + 7) / 8 * 8 : plain.size(), 0);
            const std::string file = vesk_test::private_root() + "/des3_" + std::to_string(i);
            if (pass == 0) {
                write_file(file, fed.data(), fed.size());
                script += std::string("openssl enc -des-ede") + (key.size() == 24 ? "3" : "") +
                    (mode == VESK_3DES_CBC ? "-cbc -iv " + to_hex(iv.data(), 8) : "") +
                    (pad == VESK_3DES_PAD_PKCS7 ? "" : " -nopad") + " -K " + to_hex(key.data(), key.size()) +
                    " -in " + file + "; echo .\n";
                continue;
            }
            const size_t want_len = pad == VESK_3DES_PAD_PKCS7 ? len / 8 * 8 + 8 : fed.size();
            ASSERT_LE(at + want_len + 2, cipher.size());
            const bytes want(cipher.begin() + at, cipher.begin() + at + want_len);
            at += want_len + 2; // the cipher text, then ".\n"
            uint32_t n = 0, m = 0;
            const uint32_t klen = static_cast<uint32_t>(key.size());
            ASSERT_EQ(vesk_utility_3des_encrypt(key.data(), klen, mode, pad, iv.data(), plain.data(),
                          static_cast<uint32_t>(plain.size()), out.data(), 80, &n), VESK_OK) << "case " << i;
            out.resize(n);
            ASSERT_EQ(out, want) << "case " << i << " mode " << mode << " pad " << pad << " key " << klen;
            ASSERT_EQ(vesk_utility_3des_decrypt(key.data(), klen, mode, pad, iv.data(), want.data(),
                          static_cast<uint32_t>(want.size()), back.data(), 80, &m), VESK_OK) << "case " << i;
            back.resize(m);
            ASSERT_EQ(back, fed) << "case " << i;
        }
        if (pass == 0) {
            write_file(vesk_test::private_root() + "/enc.sh", script.data(), script.size());
            cipher = run("sh -e " + vesk_test::private_root() + "/enc.sh");
        } else {
            EXPECT_EQ(at, cipher.size());
        }
    }
}

TEST(Des3Test, BadPkcs7PadsAreRefusedAndInPlaceUseWorks)
{
    const uint8_t key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, iv0[8] = {};
    const VESK_ERR bad = VESK_ERR_OPERATE_FAIL;
    const std::tuple<bytes, VESK_ERR, uint32_t> cases[] = {{{'a', 'b', 'c', 'd', 'e', 3, 3, 3}, VESK_OK, 5},
        {{8, 8, 8, 8, 8, 8, 8, 8}, VESK_OK, 0}, {{'a', 'b', 'c', 'd', 'e', 'f', 'g', 0}, bad, 0},
        {{9, 9, 9, 9, 9, 9, 9, 9}, bad, 0}, {{'a', 'b', 'c', 'd', 'e', 2, 3, 3}, bad, 0},
        {{7, 8, 8, 8, 8, 8, 8, 8}, bad, 0}};
    for (const auto& c : cases)
        for (vesk_3des_mode mode : {VESK_3DES_ECB, VESK_3DES_CBC}) {
            // Encrypted unpadded and decrypted as PKCS#7, both in place.
            const std::string last = to_hex(std::get<0>(c).data(), 8);
            uint8_t buf[16] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
            memcpy(buf + 8, std::get<0>(c).data(), 8);
            uint32_t n = 99;
            ASSERT_EQ(vesk_utility_3des_encrypt(key, 16, mode, VESK_3DES_PAD_NONE, iv0, buf, 16, buf, 16, &n), VESK_OK);
            EXPECT_EQ(vesk_utility_3des_decrypt(key, 16, mode, VESK_3DES_PAD_PKCS7, iv0, buf, 16, buf, 16, &n),
                std::get<1>(c)) << last;
            const uint32_t kept = std::get<1>(c) == VESK_OK ? 8 + std::get<2>(c) : 0;
            EXPECT_EQ(to_hex(buf, n), (to_hex("xxxxxxxx", 8) + last).substr(0, 2 * kept)) << last;
        }
}

// Block-boundary sizes and 1 MiB in every form; a 100 MiB image through the file form only.
TEST(Md5Test, BufferFileAndCounterEqualMd5sum)
{
    std::mt19937 rng(0x1234567);
    vesk_md5_cnt* cnt = vesk_utility_new_md5_cnt(0x41, "md5 test");
    ASSERT_NE(cnt, nullptr);
    uint8_t digest[16];
    char hex[33];
    for (size_t size : {0, 1, 55, 56, 63, 64, 65, 1 << 20, 100 << 20}) {
        const std::string path = vesk_test::private_root() + "/md5_" + std::to_string(size);
        const bytes data = random_bytes(rng, size >> 20 < 100 ? size : 0);
        write_file(path, data.data(), data.size());
        if (data.size() != size)
            run("head -c " + std::to_string(size) + " /dev/urandom > " + path);
        const std::string want = run("md5sum " + path + " | cut -c1-32 | tr -d '\\n'");
        ASSERT_EQ(vesk_utility_md5_file(path.c_str(), digest), VESK_OK);
        EXPECT_EQ(to_hex(digest, 16), want) << size;
        unlink(path.c_str());
        if (data.size() != size)
            continue;
        ASSERT_EQ(vesk_utility_md5_buf(data.data(), static_cast<uint32_t>(size), digest), VESK_OK);
        EXPECT_EQ(to_hex(digest, 16), want) << size;
        // Uneven pieces across the 64-byte blocks; final_hex resets for the next size.
        for (size_t off = 0, piece = 1; off < size; off += piece, piece = piece * 3 % 97 + 1)
            ASSERT_EQ(cnt->update(&data[off], static_cast<uint32_t>(std::min(piece, size - off))), VESK_OK);
        ASSERT_EQ(cnt->final_hex(hex), VESK_OK);
        EXPECT_EQ(std::string(hex), want) << size;
    }
    EXPECT_EQ(vesk_utility_delete_md5_cnt(cnt, __FILE__, __func__), VESK_OK);
}

// Every two-byte code in GB2312 and GBK, decoded and encoded back, as Python's codecs do it.
TEST(CharsetTest, EveryTwoByteCodeDecodesAndEncodesAsPythonCodecs)
{
    const char k_table[] = R"PY(
import sys
for c in (bytes([a, b]) for a in range(0x81, 0xFF) for b in range(0x40, 0xFF) if b != 0x7F):
    try:
        u = c.decode(sys.argv[1])
        print(c.hex(), u.encode('utf-8').hex(), u.encode(sys.argv[1]).hex())
    except UnicodeError:
        print(c.hex(), '-', '-')
)PY";
    using convert = VESK_ERR (*)(const char*, uint32_t, char*, uint32_t, uint32_t*);
    const std::tuple<const char*, convert, convert> sets[] = {
        {"gb2312", vesk_utility_gb2312_to_utf8, vesk_utility_utf8_to_gb2312},
        {"gbk", vesk_utility_gbk_to_utf8, vesk_utility_utf8_to_gbk}};
    for (const auto& set : sets) {
        std::istringstream table(python(k_table, std::get<0>(set)));
        std::string code_hex, utf8_hex, back_hex;
        int codes = 0;
        for (; table >> code_hex >> utf8_hex >> back_hex; codes++) {
            const unsigned long v = std::stoul(code_hex, nullptr, 16);
            const char code[2] = {static_cast<char>(v >> 8), static_cast<char>(v)};
            char utf8[16], back[16];
            uint32_t n = 99;
            const VESK_ERR ret = std::get<1>(set)(code, 2, utf8, sizeof(utf8), &n);
            EXPECT_EQ(ret, utf8_hex == "-" ? VESK_ERR_OPERATE_FAIL : VESK_OK) << std::get<0>(set) << " " << code_hex;
            if (ret != VESK_OK) {
                EXPECT_EQ(n, 0u);
                continue;
            }
            EXPECT_EQ(to_hex(utf8, n) + (utf8[n] == '\0' ? "" : "<no NUL>"), utf8_hex) << code_hex;
            ASSERT_EQ(std::get<2>(set)(utf8, n, back, sizeof(back), &n), VESK_OK) << code_hex;
            EXPECT_EQ(to_hex(back, n), back_hex) << code_hex;
        }
        EXPECT_EQ(codes, 126 * 190) << std::get<0>(set);
    }
}

TEST(CharsetTest, InvalidInputFailsOrIsReplacedAsAsked)
{
    // "中" is D6 D0 in GB2312 and E4 B8 AD in UTF-8; 81 40 is GBK only; the last row is invalid UTF-8.
    const VESK_ERR bad = VESK_ERR_OPERATE_FAIL;
    const char *gb = "GB2312", *gbk = "GBK", *u8 = "UTF-8";
    const std::tuple<const char*, const char*, const char*, VESK_ERR, const char*> cases[] = {
        {gb, u8, "a\xD6\xD0z", VESK_OK, "a\xE4\xB8\xADz"}, {gb, u8, "a\xD6", bad, "a\xEF\xBF\xBD"},
        {gb, u8, "a\xD6\x20z", bad, "a\xEF\xBF\xBD z"}, {gb, u8, "\xFF\xD6\xD0", bad, "\xEF\xBF\xBD\xE4\xB8\xAD"},
        {u8, gb, "x\xE2\x82\xACy", bad, "x?y"}, {u8, gb, "\xC0\xAF\xE4\xB8\xAD", bad, "??\xD6\xD0"},
        {u8, gbk, "\xED\xA0\x80", bad, "???"}, {gbk, gb, "\x81\x40" "a", bad, "?a"}, {gb, gbk, "Y\xC3", bad, "Y?"},
        {u8, u8, "ok\x80", bad, "ok\xEF\xBF\xBD"}};
    for (const auto& c : cases) {
        char out[32];
        uint32_t n = 99;
        const char *from = std::get<0>(c), *to = std::get<1>(c), *in = std::get<2>(c), *replaced = std::get<4>(c);
        const uint32_t len = static_cast<uint32_t>(strlen(in));
        const std::string what = std::string(from) + "->" + to + " " + to_hex(in, len);
        EXPECT_EQ(vesk_utility_charset_convert(from, to, in, len, out, sizeof(out), &n, 0), std::get<3>(c)) << what;
        if (std::get<3>(c) != VESK_OK) {
            EXPECT_EQ(std::string(out) + std::to_string(n), "0") << what;
        }
        ASSERT_EQ(vesk_utility_charset_convert(from, to, in, len, out, sizeof(out), &n, 1), VESK_OK);
        EXPECT_EQ(to_hex(out, n), to_hex(replaced, strlen(replaced))) << what;
    }
}

TEST(CharsetTest, Utf8CheckAndTruncationRespectCharacters)
{
    const std::pair<const char*, int> checks[] = {{"", 1}, {"\xE4\xB8\xAD\xF0\x9F\x98\x80", 1}, {"\xF4\x8F\xBF\xBF", 1},
        {"\x80", 0}, {"\xC0\xAF", 0}, {"\xED\xA0\x80", 0}, {"\xF4\x90\x80\x80", 0}, {"\xE4\xB8", 0}};
    for (const auto& c : checks)
        EXPECT_EQ(vesk_utility_is_utf8(c.first, static_cast<uint32_t>(strlen(c.first))), c.second)
            << to_hex(c.first, strlen(c.first));
    EXPECT_EQ(vesk_utility_is_utf8(nullptr, 0), 1);
    EXPECT_EQ(vesk_utility_is_utf8(nullptr, 3), 0);
    // "a中文" is 1 + 3 + 3 bytes: a field drops whole characters only; not UTF-8 is cut bytewise.
    const std::tuple<const char*, uint32_t, size_t> cuts[] = {{"a\xE4\xB8\xAD\xE6\x96\x87", 1, 0},
        {"a\xE4\xB8\xAD\xE6\x96\x87", 2, 1}, {"a\xE4\xB8\xAD\xE6\x96\x87", 4, 1}, {"a\xE4\xB8\xAD\xE6\x96\x87", 5, 4},
        {"a\xE4\xB8\xAD\xE6\x96\x87", 7, 4}, {"a\xE4\xB8\xAD\xE6\x96\x87", 8, 7}, {"\xFF\xFF\xFF", 3, 2}};
    for (const auto& c : cuts) {
        char field[64];
        strcpy(field, std::get<0>(c));
        uint32_t n = 99;
        ASSERT_EQ(vesk_utility_utf8_truncate(field, std::get<1>(c), &n), VESK_OK);
        EXPECT_EQ(to_hex(field, strlen(field) + 1) + " " + std::to_string(n),
            to_hex(std::get<0>(c), std::get<2>(c)) + "00 " + std::to_string(std::get<2>(c))) << std::get<1>(c);
    }
}

// Every 16-bit sample and every code byte against audioop.
TEST(G711Test, EveryInputMatchesAudioop)
{
    if (system("/usr/bin/python3 -W ignore -c 'import audioop' 2>/dev/null") != 0)
        GTEST_SKIP() << "Python's audioop is not available";
    std::vector<int16_t> pcm(65536), lin(512);
    for (int i = 0; i < 65536; i++)
        pcm[i] = static_cast<int16_t>(i - 32768);
    const std::string want = python("import array, audioop, sys\nd = array.array('h', range(-32768, 32768)).tobytes()\n"
                                    "c = bytes(range(256))\nsys.stdout.buffer.write(audioop.lin2alaw(d, 2) + "
                                    "audioop.lin2ulaw(d, 2) + audioop.alaw2lin(c, 2) + audioop.ulaw2lin(c, 2))\n", "");
    ASSERT_EQ(want.size(), 65536u * 2 + 512 * 2);
    std::string codes(2 * 65536 + 256, '\0');
    uint8_t* alaw = reinterpret_cast<uint8_t*>(&codes[0]);
    ASSERT_EQ(vesk_utility_g711_alaw_encode(pcm.data(), 65536, alaw), VESK_OK);
    ASSERT_EQ(vesk_utility_g711_ulaw_encode(pcm.data(), 65536, alaw + 65536), VESK_OK);
    EXPECT_TRUE(codes.substr(0, 2 * 65536) == want.substr(0, 2 * 65536)) << "an encoder differs from audioop";
    for (int i = 0; i < 256; i++)
        alaw[2 * 65536 + i] = static_cast<uint8_t>(i);
    ASSERT_EQ(vesk_utility_g711_alaw_decode(alaw + 2 * 65536, 256, lin.data()), VESK_OK);
    ASSERT_EQ(vesk_utility_g711_ulaw_decode(alaw + 2 * 65536, 256, lin.data() + 256), VESK_OK);
    EXPECT_EQ(0, memcmp(lin.data(), want.data() + 2 * 65536, 1024)) << "a decoder differs from audioop";
}

// Every encoder: a buffer short of the output (and a text's NUL) is refused, nothing written past.
TEST(CodecBoundsTest, NothingIsWrittenPastTheBuffer)
{
    std::mt19937 rng(77);
    const bytes key = random_bytes(rng, 24), iv = random_bytes(rng, 8);
    const uint8_t *k = key.data(), *v = iv.data();
    const vesk_3des_mode cbc = VESK_3DES_CBC;
    const vesk_3des_pad pkcs7 = VESK_3DES_PAD_PKCS7;
    uint8_t cipher[24];
    uint32_t n = 0;
    ASSERT_EQ(vesk_utility_3des_encrypt(k, 24, cbc, pkcs7, v, k, 21, cipher, 24, &n), VESK_OK);
    const auto call = [&](int c, char* o, uint32_t s, uint32_t* r) {
        switch (c) {
        case 0: return vesk_utility_base64_encode(k, 5, o, s, r, 0);
        case 1: return vesk_utility_base64_decode("AQIDBAU=", 8, o, s, r, 0);
        case 2: return vesk_utility_3des_encrypt(k, 24, cbc, pkcs7, v, k, 21, o, s, r);
        case 3: return vesk_utility_3des_decrypt(k, 24, cbc, pkcs7, v, cipher, 24, o, s, r);
        default: return vesk_utility_gb2312_to_utf8("\xD6\xD0\xCE\xC4", 4, o, s, r);
        }
    };
    for (int c = 0; c < 5; c++) {
        const uint32_t nul = c == 0 || c == 4 ? 1 : 0; // a text's NUL needs room too
        char want[64], buf[64];
        uint32_t len = 0;
        ASSERT_EQ(call(c, want, sizeof(want), &len), VESK_OK);
        for (uint32_t size = 1; size <= len + nul; size++) {
            memset(buf, 0x5A, sizeof(buf));
            const bool fits = size == len + nul;
            ASSERT_EQ(call(c, buf, size, &n), fits ? VESK_OK : VESK_ERR_NO_RESOURCE) << c << " " << size;
            EXPECT_EQ(std::string(buf, n), fits ? std::string(want, len) : "") << c << " " << size;
            for (uint32_t i = size; i < sizeof(buf); i++)
                ASSERT_EQ(buf[i], 0x5A) << "case " << c << " wrote byte " << i << " of " << size;
        }
    }
}

TEST(CodecArgumentsTest, BadArgumentsAreRefused)
{
    char out[32] = "\xFF\xFF";
    uint8_t key[24] = {}, d[16];
    int16_t pcm = 0;
    uint32_t n;
    const VESK_ERR bad = VESK_ERR_INVALID_PARAM;
    EXPECT_EQ(vesk_utility_base64_decode(nullptr, 4, nullptr, 0, nullptr, 0), bad);
    EXPECT_EQ(vesk_utility_md5_buf("a", 1, nullptr), bad);
    EXPECT_EQ(vesk_utility_md5_file(nullptr, d), bad);
    EXPECT_EQ(vesk_utility_md5_file("/nonexistent/image.bin", d), VESK_ERR_OPERATE_FAIL);
    // 3DES argument errors; then a partial unpadded block and an empty PKCS#7 text fail otherwise.
    const std::tuple<const uint8_t*, uint32_t, int, int, uint32_t> des[] = {{key, 8, 0, 1, 8}, {key, 24, 1, 1, 8},
        {key, 24, 2, 1, 8}, {key, 24, 0, 3, 8}, {nullptr, 24, 0, 0, 8}, {key, 24, 0, 0, 7}, {key, 16, 0, 1, 0}};
    for (const auto& b : des)
        EXPECT_EQ(vesk_utility_3des_decrypt(std::get<0>(b), std::get<1>(b), static_cast<vesk_3des_mode>(std::get<2>(b)),
                      static_cast<vesk_3des_pad>(std::get<3>(b)), nullptr, d, std::get<4>(b), d, 16, &n),
            std::get<4>(b) != 8 ? VESK_ERR_OPERATE_FAIL : bad) << &b - des;
    EXPECT_EQ(vesk_utility_3des_encrypt(key, 24, VESK_3DES_ECB, VESK_3DES_PAD_NONE, nullptr, d, 7, d, 16, &n), bad);
    EXPECT_EQ(vesk_utility_gb2312_to_utf8(nullptr, 0, out, sizeof(out), nullptr), VESK_OK);
    EXPECT_EQ(vesk_utility_gb2312_to_utf8(nullptr, 1, out, sizeof(out), &n), bad);
    EXPECT_EQ(vesk_utility_gb2312_to_utf8("a", 1, out, 0, &n), bad);
    EXPECT_EQ(vesk_utility_charset_convert(nullptr, "UTF-8", "a", 1, out, 8, &n, 0), bad);
    EXPECT_EQ(vesk_utility_charset_convert("NO-SUCH-SET", "UTF-8", "a", 1, out, 8, &n, 0), VESK_ERR_NOT_SUPPORT);
    EXPECT_EQ(vesk_utility_utf8_truncate(nullptr, 4, &n), bad);
    EXPECT_EQ(vesk_utility_g711_ulaw_encode(&pcm, 1, nullptr), bad);
    EXPECT_EQ(vesk_utility_g711_ulaw_decode(d, 1, nullptr), bad);
    EXPECT_EQ(vesk_utility_g711_ulaw_decode(nullptr, 0, nullptr), VESK_OK);
}
