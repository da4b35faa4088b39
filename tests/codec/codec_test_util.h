// Helpers of the codec tests: running an oracle tool and moving bytes through files and hex.
#ifndef VESK_CODEC_TEST_UTIL_H
#define VESK_CODEC_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace vesk_codec_test
{

// Standard output of a shell command; the test fails when it does not exit with 0.
inline std::string run(const std::string& cmd)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    char buf[65536];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0;)
        out.append(buf, n);
    EXPECT_TRUE(p != nullptr && pclose(p) == 0) << cmd;
    return out;
}

inline void write_file(const std::string& path, const void* data, size_t len)
{
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_TRUE(f != nullptr && (len == 0 || fwrite(data, 1, len, f) == len) && fclose(f) == 0) << path;
}

inline std::string to_hex(const void* data, size_t len)
{
    static const char k_digits[] = "0123456789abcdef";
    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::string s;
    for (size_t i = 0; i < len; i++) {
        s += k_digits[p[i] >> 4];
        s += k_digits[p[i] & 0xF];
    }
    return s;
}

// Deterministic bytes (xorshift), so that a failing case can be reproduced.
inline std::vector<unsigned char> random_bytes(uint32_t& state, size_t len)
{
    std::vector<unsigned char> v(len);
    for (auto& b : v) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        b = static_cast<unsigned char>(state >> 24);
    }
    return v;
}

} // namespace vesk_codec_test

#endif // VESK_CODEC_TEST_UTIL_H
