// Triple DES against openssl enc: the SP 800-67 example and 1,000 random (key, iv, length)
// cases over ECB and CBC, two and three keys, each padding; then pad checks, in-place use and
// bounded output.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "codec_test_util.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_codec_test;

namespace
{

std::vector<unsigned char> read_file(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

const uint8_t k_iv0[8] = {};

} // namespace

TEST(Des3Test, Sp80067ExampleMatchesTheStandardAndOpenssl)
{
    const uint8_t key[24] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD,
        0xEF, 0x01, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x01, 0x23};
    const char plain[] = "The qufck brown fox jump"; // sic
    uint8_t out[24];
    uint32_t n = 0;
    ASSERT_EQ(vesk_utility_3des_encrypt(key, 24, VESK_3DES_ECB, VESK_3DES_PAD_NONE, nullptr, plain, 24, out, 24, &n),
        VESK_OK);
    ASSERT_EQ(n, 24u);
    EXPECT_EQ(to_hex(out, 24), "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900");
    EXPECT_EQ(to_hex(out, 24),
        run("printf '%s' '" + std::string(plain) + "' | openssl enc -des-ede3 -nopad -K " + to_hex(key, 24) +
            " | od -An -tx1 -v | tr -d ' \\n'"));
}

TEST(Des3Test, RandomCasesMatchOpensslBothWays)
{
    struct kase {
        std::vector<unsigned char> key, iv, plain, fed; // fed: what openssl encrypts
        vesk_3des_mode mode;
        vesk_3des_pad pad;
    };
    const std::string dir = vesk_test::private_root() + "/des3";
    run("mkdir -p " + dir);
    uint32_t seed = 0x3DE5;
    std::vector<kase> cases;
    std::string script;
    for (int i = 0; i < 1000; i++) {
        kase c;
        const bool three = (i & 1) != 0;
        c.mode = (i & 2) != 0 ? VESK_3DES_CBC : VESK_3DES_ECB;
        c.pad = static_cast<vesk_3des_pad>((i / 4) % 3);
        c.key = random_bytes(seed, three ? 24 : 16);
        c.iv = random_bytes(seed, 8);
        size_t len = random_bytes(seed, 1)[0] % 70;
        if (c.pad == VESK_3DES_PAD_NONE)
            len -= len % 8;
        c.plain = random_bytes(seed, len);
        c.fed = c.plain;
        if (c.pad == VESK_3DES_PAD_ZERO)
            c.fed.resize((len + 7) / 8 * 8, 0);
        write_file(dir + "/p" + std::to_string(i), c.fed.data(), c.fed.size());
        const std::string cipher = std::string(three ? "des-ede3" : "des-ede") +
            (c.mode == VESK_3DES_CBC ? "-cbc -iv " + to_hex(c.iv.data(), 8) : "");
        script += "openssl enc -" + cipher + (c.pad == VESK_3DES_PAD_PKCS7 ? "" : " -nopad") + " -K " +
            to_hex(c.key.data(), c.key.size()) + " -in p" + std::to_string(i) + " -out c" + std::to_string(i) +
            "\n";
        cases.push_back(c);
    }
    write_file(dir + "/enc.sh", script.data(), script.size());
    run("cd " + dir + " && sh -e enc.sh");
    for (size_t i = 0; i < cases.size(); i++) {
        const kase& c = cases[i];
        const std::vector<unsigned char> want = read_file(dir + "/c" + std::to_string(i));
        std::vector<unsigned char> out(80), back(80);
        uint32_t n = 0, m = 0;
        const uint32_t klen = static_cast<uint32_t>(c.key.size());
        ASSERT_EQ(vesk_utility_3des_encrypt(c.key.data(), klen, c.mode, c.pad, c.iv.data(), c.plain.data(),
                      static_cast<uint32_t>(c.plain.size()), out.data(), 80, &n), VESK_OK) << "case " << i;
        out.resize(n);
        ASSERT_EQ(out, want) << "case " << i << " mode " << c.mode << " pad " << c.pad << " key " << klen;
        ASSERT_EQ(vesk_utility_3des_decrypt(c.key.data(), klen, c.mode, c.pad, c.iv.data(), want.data(),
                      static_cast<uint32_t>(want.size()), back.data(), 80, &m), VESK_OK) << "case " << i;
        back.resize(m);
        ASSERT_EQ(back, c.pad == VESK_3DES_PAD_ZERO ? c.fed : c.plain) << "case " << i;
    }
    run("rm -rf " + dir);
}

TEST(Des3Test, BadPkcs7PadsAreRefused)
{
    const uint8_t key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const struct {
        uint8_t last[8];
        VESK_ERR want;
        uint32_t len;
    } cases[] = {
        {{'a', 'b', 'c', 'd', 'e', 3, 3, 3}, VESK_OK, 5},
        {{8, 8, 8, 8, 8, 8, 8, 8}, VESK_OK, 0},
        {{'a', 'b', 'c', 'd', 'e', 'f', 'g', 0}, VESK_ERR_OPERATE_FAIL, 0},
        {{9, 9, 9, 9, 9, 9, 9, 9}, VESK_ERR_OPERATE_FAIL, 0},
        {{'a', 'b', 'c', 'd', 'e', 2, 3, 3}, VESK_ERR_OPERATE_FAIL, 0},
        {{7, 8, 8, 8, 8, 8, 8, 8}, VESK_ERR_OPERATE_FAIL, 0},
    };
    for (const auto& c : cases)
        for (vesk_3des_mode mode : {VESK_3DES_ECB, VESK_3DES_CBC}) {
            uint8_t buf[16] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
            memcpy(buf + 8, c.last, 8);
            uint32_t n = 99;
            ASSERT_EQ(vesk_utility_3des_encrypt(key, 16, mode, VESK_3DES_PAD_NONE, k_iv0, buf, 16, buf, 16, &n), VESK_OK);
            EXPECT_EQ(vesk_utility_3des_decrypt(key, 16, mode, VESK_3DES_PAD_PKCS7, k_iv0, buf, 16, buf, 16, &n), c.want)
                << to_hex(c.last, 8);
            EXPECT_EQ(n, c.want == VESK_OK ? 8 + c.len : 0u) << to_hex(c.last, 8);
        }
    uint8_t out[16];
    uint32_t n;
    EXPECT_EQ(vesk_utility_3des_decrypt(key, 16, VESK_3DES_ECB, VESK_3DES_PAD_PKCS7, nullptr, out, 0, out, 16, &n),
        VESK_ERR_OPERATE_FAIL); // a PKCS#7 text is never empty
}

TEST(Des3Test, InPlaceBoundedAndCheckedArguments)
{
    uint32_t seed = 77;
    const std::vector<unsigned char> key = random_bytes(seed, 24), iv = random_bytes(seed, 8);
    const std::vector<unsigned char> plain = random_bytes(seed, 21);
    // Separate buffers first, then the same buffer: identical results both ways.
    uint8_t sep[24], buf[32];
    uint32_t n = 0, m = 0;
    ASSERT_EQ(vesk_utility_3des_encrypt(key.data(), 24, VESK_3DES_CBC, VESK_3DES_PAD_PKCS7, iv.data(), plain.data(), 21,
                  sep, sizeof(sep), &n), VESK_OK);
    memcpy(buf, plain.data(), 21);
    ASSERT_EQ(vesk_utility_3des_encrypt(key.data(), 24, VESK_3DES_CBC, VESK_3DES_PAD_PKCS7, iv.data(), buf, 21, buf,
                  sizeof(buf), &m), VESK_OK);
    ASSERT_EQ(m, 24u);
    EXPECT_EQ(to_hex(buf, 24), to_hex(sep, 24));
    ASSERT_EQ(vesk_utility_3des_decrypt(key.data(), 24, VESK_3DES_CBC, VESK_3DES_PAD_PKCS7, iv.data(), buf, 24, buf,
                  sizeof(buf), &m), VESK_OK);
    EXPECT_EQ(to_hex(buf, m), to_hex(plain.data(), 21));

    // Encryption needs 24 bytes here and decryption 21: one less fails and writes nothing past.
    for (uint32_t size : {20u, 21u, 23u, 24u}) {
        uint8_t o[32];
        memset(o, 0x5A, sizeof(o));
        EXPECT_EQ(vesk_utility_3des_encrypt(key.data(), 24, VESK_3DES_CBC, VESK_3DES_PAD_PKCS7, iv.data(), plain.data(),
                      21, o, size, &n), size >= 24 ? VESK_OK : VESK_ERR_NO_RESOURCE) << size;
        for (uint32_t i = size; i < sizeof(o); i++)
            ASSERT_EQ(o[i], 0x5A) << size;
        EXPECT_EQ(vesk_utility_3des_decrypt(key.data(), 24, VESK_3DES_CBC, VESK_3DES_PAD_PKCS7, iv.data(), sep, 24, o,
                      size, &n), size >= 21 ? VESK_OK : VESK_ERR_NO_RESOURCE) << size;
        for (uint32_t i = size; i < sizeof(o); i++)
            ASSERT_EQ(o[i], 0x5A) << size;
    }
    // Refused: key size, CBC without iv, unknown mode or padding, unpadded partial block, no key.
    const uint8_t* k = key.data();
    const struct {
        const uint8_t* key;
        uint32_t key_len, mode, pad, len;
    } bad[] = {{k, 8, 0, 1, 8}, {k, 24, 1, 1, 8}, {k, 24, 2, 1, 8}, {k, 24, 0, 3, 8}, {k, 24, 0, 0, 7},
        {nullptr, 24, 0, 0, 8}};
    for (const auto& b : bad)
        EXPECT_EQ(vesk_utility_3des_decrypt(b.key, b.key_len, static_cast<vesk_3des_mode>(b.mode),
                      static_cast<vesk_3des_pad>(b.pad), nullptr, buf, b.len, buf, 32, &n),
            b.len == 7 ? VESK_ERR_OPERATE_FAIL : VESK_ERR_INVALID_PARAM)
            << b.key_len << " " << b.mode << " " << b.pad;
    EXPECT_EQ(vesk_utility_3des_encrypt(k, 24, VESK_3DES_ECB, VESK_3DES_PAD_NONE, nullptr, buf, 7, buf, 32, &n),
        VESK_ERR_INVALID_PARAM);
}
