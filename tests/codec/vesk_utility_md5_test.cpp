// MD5 against md5sum: the block-boundary sizes, 1 MiB and a 100 MiB file, through the buffer,
// file and counter forms, and the counter's reset.
#include <gtest/gtest.h>

#include <cstring>

#include "codec_test_util.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_codec_test;

namespace
{

std::string md5sum_of(const std::string& path)
{
    return run("md5sum " + path + " | cut -c1-32 | tr -d '\\n'");
}

} // namespace

TEST(Md5Test, BufferFileAndCounterEqualMd5sum)
{
    uint32_t seed = 0x1234567;
    const size_t sizes[] = {0, 1, 55, 56, 63, 64, 65, 1 << 20};
    vesk_md5_cnt* cnt = vesk_utility_new_md5_cnt(0x41, "md5 test");
    ASSERT_NE(cnt, nullptr);
    for (size_t size : sizes) {
        const std::vector<unsigned char> data = random_bytes(seed, size);
        const std::string path = vesk_test::private_root() + "/md5_" + std::to_string(size);
        write_file(path, data.data(), data.size());
        const std::string want = md5sum_of(path);
        ASSERT_EQ(want.size(), 32u);

        uint8_t digest[16];
        ASSERT_EQ(vesk_utility_md5_buf(data.data(), static_cast<uint32_t>(size), digest), VESK_OK);
        EXPECT_EQ(to_hex(digest, 16), want) << size;
        ASSERT_EQ(vesk_utility_md5_file(path.c_str(), digest), VESK_OK);
        EXPECT_EQ(to_hex(digest, 16), want) << size;

        // Uneven pieces across the 64-byte blocks; final_hex resets for the next size.
        for (size_t off = 0, piece = 1; off < size; off += piece, piece = piece * 3 % 97 + 1)
            ASSERT_EQ(cnt->update(&data[off], static_cast<uint32_t>(std::min(piece, size - off))), VESK_OK);
        char hex[33];
        ASSERT_EQ(cnt->final_hex(hex), VESK_OK);
        EXPECT_EQ(std::string(hex), want) << size;
    }
    // reset drops what was added; final leaves the counter reset (the size-0 digest).
    uint8_t empty[16], d[16];
    ASSERT_EQ(vesk_utility_md5_buf("", 0, empty), VESK_OK);
    cnt->update("abc", 3);
    cnt->reset();
    ASSERT_EQ(cnt->final(d), VESK_OK);
    EXPECT_EQ(memcmp(d, empty, 16), 0);
    EXPECT_EQ(cnt->update(nullptr, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(cnt->final(nullptr), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_delete_md5_cnt(cnt, __FILE__, __func__), VESK_OK);
}

// An upgrade image: 100 MiB, streamed.
TEST(Md5Test, HundredMebibyteFileStreamsToMd5sum)
{
    const std::string path = vesk_test::private_root() + "/md5_100m";
    run("head -c 104857600 /dev/urandom > " + path);
    uint8_t digest[16];
    ASSERT_EQ(vesk_utility_md5_file(path.c_str(), digest), VESK_OK);
    EXPECT_EQ(to_hex(digest, 16), md5sum_of(path));
    unlink(path.c_str());
}

TEST(Md5Test, BadArgumentsAndMissingFilesAreRefused)
{
    uint8_t d[16];
    EXPECT_EQ(vesk_utility_md5_buf(nullptr, 1, d), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_md5_buf("a", 1, nullptr), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_md5_file(nullptr, d), VESK_ERR_INVALID_PARAM);
    std::string log = vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_md5_file("/nonexistent/image.bin", d), VESK_ERR_OPERATE_FAIL); });
    EXPECT_NE(log.find("No such file or directory"), std::string::npos) << log;
}
