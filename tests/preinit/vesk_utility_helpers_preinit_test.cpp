// The small helpers before vesk_utility_init: the A/V queries and the MD5 counter refuse, the
// byte codecs and the clock work.
#include <gtest/gtest.h>

#include <cstring>

#include "core/vesk_utility_ground.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

TEST(PreInitHelpersTest, QueriesAndCountersRefuseWhileCodecsWork)
{
    ASSERT_EQ(vesk_utility::vesk_ops_type(), 0u);
    const std::string out = vesk_test::capture_stdout([] {
        uint32_t w = 0, h = 0;
        vesk_av_time t {};
        EXPECT_EQ(vesk_utility_get_video_resolution(0, VESK_AV_STREAM_MAIN, &w, &h), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_get_last_valid_I_time(0, VESK_AV_STREAM_MAIN, &t, &w), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_new_md5_cnt(0x41, "early"), nullptr);
        EXPECT_EQ(vesk_utility_delete_md5_cnt(nullptr, "app.cpp", "quit"), VESK_ERR_NOT_INIT);
    });
    EXPECT_EQ(vesk_test::count_of(out, "Utility Module Not Init"), 2) << out;
    EXPECT_NE(out.find("vesk_utility_new_md5_cnt["), std::string::npos) << out;
    EXPECT_NE(out.find("app.cpp quit not init"), std::string::npos) << out;
    char text[16];
    uint32_t n = 0;
    EXPECT_EQ(vesk_utility_gb2312_to_utf8("\xD6\xD0", 2, text, sizeof(text), &n), VESK_OK);
    EXPECT_EQ(n, 3u);
}
