// Base64 against base64/basenc: the RFC 4648 vectors and 10,000 random buffers in both
// alphabets, then strict decoding and bounded output.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "codec_test_util.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_codec_test;

namespace
{

std::string encode(const std::vector<unsigned char>& data, uint32_t flags)
{
    std::string out(vesk_utility_base64_encode_size(static_cast<uint32_t>(data.size()), flags), 'X');
    uint32_t n = 0;
    EXPECT_EQ(vesk_utility_base64_encode(data.data(), static_cast<uint32_t>(data.size()), &out[0],
                  static_cast<uint32_t>(out.size()), &n, flags), VESK_OK);
    EXPECT_EQ(out[n], '\0');
    EXPECT_EQ(n + 1, out.size()) << "encode_size is exact";
    out.resize(n);
    return out;
}

VESK_ERR decode(const std::string& text, std::vector<unsigned char>& out, uint32_t flags)
{
    out.assign(text.size(), 0);
    uint32_t n = 0;
    VESK_ERR ret = vesk_utility_base64_decode(text.data(), static_cast<uint32_t>(text.size()), out.data(),
        static_cast<uint32_t>(out.size()), &n, flags);
    out.resize(n);
    return ret;
}

std::string without_padding(std::string s)
{
    while (!s.empty() && s.back() == '=')
        s.pop_back();
    return s;
}

} // namespace

// Buffers of 0-300 bytes, the first seven the RFC 4648 test vectors "", "f", ... "foobar".
TEST(Base64Test, RfcVectorsAndRandomBuffersMatchBase64Tools)
{
    const std::string dir = vesk_test::private_root() + "/b64";
    run("mkdir -p " + dir);
    std::vector<std::vector<unsigned char>> bufs;
    const char* rfc[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
    for (const char* s : rfc)
        bufs.emplace_back(s, s + strlen(s));
    uint32_t seed = 0xC0FFEE;
    while (bufs.size() < 10000) {
        uint32_t len_seed = static_cast<uint32_t>(bufs.size()) * 2654435761u;
        bufs.push_back(random_bytes(seed, (len_seed >> 8) % 301));
    }
    for (size_t i = 0; i < bufs.size(); i++) {
        char name[32];
        snprintf(name, sizeof(name), "/%05zu", i);
        write_file(dir + name, bufs[i].data(), bufs[i].size());
    }
    std::istringstream std_out(run("cd " + dir + " && for f in *; do base64 -w0 $f; echo .; done"));
    std::istringstream url_out(run("cd " + dir + " && for f in *; do basenc --base64url -w0 $f; echo .; done"));
    std::string want_std, want_url;
    size_t i = 0;
    for (; std::getline(std_out, want_std) && std::getline(url_out, want_url); i++) {
        ASSERT_LT(i, bufs.size());
        want_std.pop_back(); // the '.' that keeps empty encodings on their line
        want_url.pop_back();
        ASSERT_EQ(encode(bufs[i], 0), want_std) << "buffer " << i;
        ASSERT_EQ(encode(bufs[i], VESK_BASE64_URL), want_url) << "buffer " << i;
        ASSERT_EQ(encode(bufs[i], VESK_BASE64_URL | VESK_BASE64_NO_PAD), without_padding(want_url)) << i;
        std::vector<unsigned char> back;
        ASSERT_EQ(decode(want_std, back, 0), VESK_OK) << "buffer " << i;
        ASSERT_EQ(back, bufs[i]) << "buffer " << i;
        ASSERT_EQ(decode(without_padding(want_url), back, VESK_BASE64_URL), VESK_OK) << "buffer " << i;
        ASSERT_EQ(back, bufs[i]) << "buffer " << i;
    }
    EXPECT_EQ(i, bufs.size());
    run("rm -rf " + dir);
}

TEST(Base64Test, DecodingIsStrict)
{
    const struct {
        const char* text;
        uint32_t flags;
        VESK_ERR want;
    } cases[] = {
        {"Zm9vYg==", 0, VESK_OK},   {"Zm9vYg", 0, VESK_OK},     {"Zm9vYmE=", 0, VESK_OK},
        {"Zm9vYg=", 0, VESK_ERR_OPERATE_FAIL},      // incomplete padding
        {"Zm9vY===", 0, VESK_ERR_OPERATE_FAIL},     // three pad characters
        {"Zm9v====", 0, VESK_ERR_OPERATE_FAIL},
        {"Zm9vY", 0, VESK_ERR_OPERATE_FAIL},        // a lone final character
        {"Zm=vYg==", 0, VESK_ERR_OPERATE_FAIL},     // '=' inside
        {"Zm9v\nYg==", 0, VESK_ERR_OPERATE_FAIL},   // line break
        {"Zm9v Yg==", 0, VESK_ERR_OPERATE_FAIL},
        {"Zm9vYh==", 0, VESK_ERR_OPERATE_FAIL},     // trailing bits not zero
        {"Zm9vYmF=", 0, VESK_ERR_OPERATE_FAIL},
        {"+/+/", 0, VESK_OK},       {"+/+/", VESK_BASE64_URL, VESK_ERR_OPERATE_FAIL},
        {"-_-_", VESK_BASE64_URL, VESK_OK},         {"-_-_", 0, VESK_ERR_OPERATE_FAIL},
        {"Zm9v\x80g==", 0, VESK_ERR_OPERATE_FAIL},  {"Zm9v", 0, VESK_OK},
        {"=", 0, VESK_ERR_OPERATE_FAIL},            {"", 0, VESK_OK},
    };
    for (const auto& c : cases) {
        std::vector<unsigned char> out;
        EXPECT_EQ(decode(c.text, out, c.flags), c.want) << c.text;
    }
}

TEST(Base64Test, NothingIsWrittenPastTheBuffer)
{
    const unsigned char data[5] = {1, 2, 3, 4, 5};
    const std::string text = "AQIDBAU="; // what the passing size below produces
    for (uint32_t size = 0; size <= 10; size++) {
        char buf[16];
        memset(buf, 0x5A, sizeof(buf));
        uint32_t n = 99;
        EXPECT_EQ(vesk_utility_base64_encode(data, 5, buf, size, &n, 0), size >= 9 ? VESK_OK : VESK_ERR_NO_RESOURCE);
        EXPECT_EQ(n, size >= 9 ? 8u : 0u);
        if (size >= 9) {
            EXPECT_EQ(std::string(buf), text);
        }
        for (uint32_t i = size; i < sizeof(buf); i++)
            ASSERT_EQ(buf[i], 0x5A) << "encode wrote byte " << i << " of a " << size << "-byte buffer";
        memset(buf, 0x5A, sizeof(buf));
        EXPECT_EQ(vesk_utility_base64_decode(text.data(), 8, buf, size, &n, 0),
            size >= 5 ? VESK_OK : VESK_ERR_NO_RESOURCE);
        for (uint32_t i = size; i < sizeof(buf); i++)
            ASSERT_EQ(buf[i], 0x5A) << "decode wrote byte " << i << " of a " << size << "-byte buffer";
    }
    EXPECT_EQ(vesk_utility_base64_decode(nullptr, 4, nullptr, 0, nullptr, 0), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_base64_encode_size(0xFFFFFFFFu, 0), 0xFFFFFFFFu); // no buffer can hold it
}
