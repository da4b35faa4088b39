// The newest cached I frame and the current resolution, fed through the block writer: frame by
// frame, across split frames, a change of resolution and both kinds of disconnection.
#include <gtest/gtest.h>

#include <vector>

#include "av_test_blocks.h"
#include "av/vesk_utility_av_query.h"
#include "test_support.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;

namespace
{

struct camera {
    vesk_utility_av_mng& mng;
    vesk_av_block_writer w;
    uint32_t fno = 0;
    camera(vesk_utility_av_mng& m, uint32_t ipc) : mng(m)
    {
        EXPECT_EQ(VESK_OK, vesk_utility_av_writer_init(&w, ipc, VESK_AV_STREAM_MAIN, vesk_test::k_av_purpose, 2048, 16));
        mng.set_chn_connect_status(ipc, 1);
    }
    void put(uint32_t type, uint16_t width, uint16_t height, uint32_t sec, uint32_t len = 200)
    {
        _tagVeskFrameHeader h {};
        h.uiStartId = VESK_FRAME_STARTCODE;
        h.uiFrameType = type;
        h.uiFrameNo = ++fno;
        h.uiTimeSec = sec;
        h.uiLength = len;
        h.usWidth = width;
        h.usHeight = height;
        std::vector<uint8_t> payload(len, 0x33);
        ASSERT_EQ(VESK_OK, av_writer_put(&mng, &w, &h, payload.data()));
    }
};

constexpr uint32_t k_p = 2; // a dependent frame

struct answers {
    VESK_ERR res_ret, key_ret;
    uint32_t width, height, key_sec;
    vesk_av_time key_time;
};

answers ask(vesk_utility_av_mng& mng, uint32_t ch)
{
    answers a {};
    a.res_ret = av_get_video_resolution(&mng, ch, VESK_AV_STREAM_MAIN, &a.width, &a.height);
    a.key_ret = av_get_last_valid_I_time(&mng, ch, VESK_AV_STREAM_MAIN, &a.key_time, &a.key_sec);
    return a;
}

} // namespace

TEST(AvQueryTest, FollowTheNewestFramesAcrossBlocksAndResolutionChanges)
{
    vesk_utility_av_mng mng;
    camera cam(mng, 5);
    answers a = ask(mng, 5);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, a.res_ret) << "nothing cached";
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, a.key_ret);

    cam.put(k_p, 1920, 1080, 100);
    a = ask(mng, 5);
    EXPECT_EQ(VESK_OK, a.res_ret);
    EXPECT_EQ(1920u, a.width);
    EXPECT_EQ(1080u, a.height);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, a.key_ret) << "no I frame yet";

    const vesk_av_time before = av_now();
    cam.put(VESK_FRAME_TYPE_I, 1920, 1080, 101);
    const vesk_av_time after = av_now();
    for (uint32_t s = 102; s < 120; s++) // several blocks of P frames after it
        cam.put(k_p, 1920, 1080, s);
    a = ask(mng, 5);
    ASSERT_EQ(VESK_OK, a.key_ret);
    EXPECT_EQ(101u, a.key_sec);
    EXPECT_GE(av_diff_ms(a.key_time, before), 0);
    EXPECT_GE(av_diff_ms(after, a.key_time), 0);
    EXPECT_GT(mng.chn_blocks(5).lists[0].blk_cnt, 2u);

    // The camera switches to 720p with a new I frame: both answers follow at once.
    cam.put(VESK_FRAME_TYPE_I, 1280, 720, 130);
    a = ask(mng, 5);
    EXPECT_EQ(1280u, a.width);
    EXPECT_EQ(720u, a.height);
    EXPECT_EQ(130u, a.key_sec);

    // An I frame larger than a block: the newest block holds only its continuation.
    cam.put(VESK_FRAME_TYPE_I, 704, 576, 140, 5000);
    const vesk_IPC_stream_block_head* tail = mng.chn_blocks(5).lists[0].tail->block;
    ASSERT_EQ(0u, tail->node_num);
    ASSERT_NE(0u, tail->cont_len);
    a = ask(mng, 5);
    EXPECT_EQ(VESK_OK, a.res_ret);
    EXPECT_EQ(704u, a.width);
    EXPECT_EQ(576u, a.height);
    EXPECT_EQ(140u, a.key_sec);

    // Other channels and streams are not this one; bad arguments are refused.
    uint32_t w, h;
    vesk_av_time t;
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, av_get_video_resolution(&mng, 6, VESK_AV_STREAM_MAIN, &w, &h));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, av_get_video_resolution(&mng, 5, VESK_AV_STREAM_SUB, &w, &h));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_video_resolution(&mng, 32, VESK_AV_STREAM_MAIN, &w, &h));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_video_resolution(&mng, 5, VESK_AV_STREAM_AUDIO, &w, &h));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_last_valid_I_time(&mng, 5, VESK_AV_STREAM_SMART, &t, &w));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_video_resolution(5, VESK_AV_STREAM_MAIN, nullptr, &h));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_last_valid_I_time(5, VESK_AV_STREAM_MAIN, &t, nullptr));
    vesk_utility_av_writer_close(&cam.w);
    mng.rotate_pass(at(av_now(), 60000));
}

TEST(AvQueryTest, DisconnectedCamerasAndSilentStreamsAnswerNothing)
{
    vesk_utility_av_mng mng;
    camera cam(mng, 7);
    cam.put(VESK_FRAME_TYPE_I, 1920, 1080, 10);
    cam.put(k_p, 1920, 1080, 10);
    EXPECT_EQ(VESK_OK, ask(mng, 7).res_ret);

    mng.set_chn_connect_status(7, 0);
    answers a = ask(mng, 7);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, a.res_ret);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, a.key_ret);
    mng.set_chn_connect_status(7, 1);
    EXPECT_EQ(VESK_OK, ask(mng, 7).key_ret);

    // Nothing new for more than 10 s: the statistics call the stream disconnected. The block
    // still receiving stays cached, so it is the silence that answers here.
    const vesk_av_time t0 = av_now();
    mng.rotate_pass(t0);
    mng.rotate_pass(at(t0, 11000));
    ASSERT_NE(nullptr, mng.chn_blocks(7).lists[0].tail);
    a = ask(mng, 7);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, a.res_ret);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, a.key_ret);
    // It speaks again.
    cam.put(k_p, 1920, 1080, 25);
    mng.rotate_pass(at(t0, 11200));
    a = ask(mng, 7);
    EXPECT_EQ(VESK_OK, a.res_ret);
    EXPECT_EQ(VESK_OK, a.key_ret);
    EXPECT_EQ(10u, a.key_sec);
    vesk_utility_av_writer_close(&cam.w);
    mng.rotate_pass(at(t0, 60000));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, ask(mng, 7).res_ret) << "everything rotated out";
}
