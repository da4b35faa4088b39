// The block writer's layout, the per-stream statistics of the rotation tick, the queries built
// on them, the caller-side meter and the logo table.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <vector>

#include "av_test_blocks.h"
#include "av/vesk_utility_av_logo.h"
#include "av/vesk_utility_av_query.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;
using vesk_test::frame_head;

namespace
{

std::vector<vesk_IPC_stream_block_head*> blocks_of(vesk_utility_av_mng& mng, uint32_t ipc, uint32_t type)
{
    std::vector<vesk_IPC_stream_block_head*> v;
    for (vesk_av_block* b = mng.chn_blocks(ipc).lists[type].head; b != nullptr; b = b->next)
        v.push_back(b->block);
    return v;
}

} // namespace

TEST(AvWriterTest, FramesAreIndexedAndABigFrameContinuesOverThreeBlocks)
{
    vesk_utility_av_mng mng;
    vesk_av_block_writer w;
    ASSERT_EQ(VESK_OK, vesk_utility_av_writer_init(&w, 3, VESK_AV_STREAM_MAIN, vesk_test::k_av_purpose, 512, 8));
    std::vector<uint8_t> big(1000);
    for (size_t i = 0; i < big.size(); i++)
        big[i] = static_cast<uint8_t>(i * 7);
    const _tagVeskFrameHeader p1 = frame_head(1, 2, 100); // its node and frame end word-aligned
    const _tagVeskFrameHeader i2 = frame_head(2, VESK_FRAME_TYPE_I, 1000);
    const _tagVeskFrameHeader p3 = frame_head(3, 2, 10);
    for (const _tagVeskFrameHeader* h : {&p1, &i2, &p3})
        ASSERT_EQ(VESK_OK, av_writer_put(&mng, &w, h, big.data()));

    const auto v = blocks_of(mng, 3, 0);
    ASSERT_EQ(3u, v.size());
    EXPECT_EQ(2u, v[0]->node_num);
    EXPECT_EQ(1u, v[0]->key_flag);
    EXPECT_EQ(1u, v[0]->last_key_idx);
    EXPECT_EQ(1100u, v[0]->payload_bytes);
    const vesk_av_frame_node* n = v[0]->frame_index[1];
    EXPECT_EQ(sizeof(vesk_av_frame_node) + sizeof(p1) + 100, n->offset) << "the next node follows at once";
    EXPECT_EQ(VESK_AV_NODE_MAGIC, n->magic);
    EXPECT_EQ(1036u, n->frame_len);

    // Join the pieces as a reader does: the tags chain, the continuation lengths add up.
    std::vector<uint8_t> joined(
        reinterpret_cast<const uint8_t*>(n + 1), reinterpret_cast<const uint8_t*>(n + 1) + n->stored_len);
    for (size_t i = 1; i < 3; i++) {
        EXPECT_EQ(v[i - 1]->trail_tag, v[i]->lead_tag);
        joined.insert(joined.end(), v[i]->data_base, v[i]->data_base + v[i]->cont_len);
    }
    EXPECT_EQ(0u, v[1]->node_num);
    ASSERT_EQ(1036u, joined.size());
    EXPECT_EQ(0, memcmp(joined.data(), &i2, sizeof(i2)));
    EXPECT_EQ(0, memcmp(joined.data() + sizeof(i2), big.data(), 1000));
    // The third block carries the rest, then the next frame, and is still being filled.
    EXPECT_EQ(1u, v[2]->node_num);
    EXPECT_EQ(1u, v[2]->receiving);
    ASSERT_EQ(VESK_OK, av_writer_close(&mng, &w));
    EXPECT_EQ(0u, v[2]->receiving);
    EXPECT_EQ(1u, v[2]->block_state);

    // A refused block loses the frame; the next block does not claim to continue anything.
    vesk_mem_set_av_limits(0, 0);
    const _tagVeskFrameHeader p4 = frame_head(4, 2, 10);
    EXPECT_EQ(VESK_ERR_NO_RESOURCE, av_writer_put(&mng, &w, &p4, big.data()));
    vesk_mem_set_av_limits(0x2800000, 0x3000000);
    EXPECT_EQ(VESK_OK, av_writer_put(&mng, &w, &p4, big.data()));
    EXPECT_EQ(0u, blocks_of(mng, 3, 0).back()->lead_tag);
    // A length whose frame (36 + length) does not fit in 32 bits is refused; nothing is written.
    vesk_test::capture_stdout([&] {
        for (uint32_t len : {0xFFFFFFDCu, 0xFFFFFFFFu}) {
            const _tagVeskFrameHeader huge = frame_head(5, 2, len);
            EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_writer_put(&mng, &w, &huge, big.data()));
        }
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_av_writer_init(&w, 3, VESK_AV_STREAM_MAIN, 0x91110, 512, 8));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_av_writer_init(&w, 32, VESK_AV_STREAM_MAIN, 0x9110C, 512, 8));
    });
    EXPECT_EQ(1u, blocks_of(mng, 3, 0).back()->node_num);
    EXPECT_EQ(4u, blocks_of(mng, 3, 0).size());
}

TEST(AvStatTest, RatesAfterAFullPeriodThenDisconnectedWithZeroedStatistics)
{
    vesk_utility_av_mng mng;
    const vesk_av_time t0 = av_now();
    vesk_test::feed in(mng, 64 * 1024, VESK_AV_STREAM_SUB, 0, 64);
    for (uint32_t i = 0; i < 100; i++)
        in.put(i, i % 25 == 0 ? 1 : 2, 1000);
    mng.switch_ivr_ch(0, 4); // the statistics follow the recorder channel
    const vesk_av_time p0 = mng.chn_blocks(0).lists[1].stat.period_start; // the first push
    vesk_stream_stat_info info;
    for (int64_t ms : {1000, 5000}) {
        mng.rotate_pass(at(t0, ms));
        ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(4, 1, &info));
        EXPECT_EQ(0u, info.disconnected);
        EXPECT_EQ(0.0f, info.fps) << "no complete period yet at " << ms;
    }
    EXPECT_EQ(99u, info.last_frame.uiFrameNo);
    EXPECT_EQ(704u, info.width);
    mng.rotate_pass(at(p0, 10000));
    ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(4, 1, &info));
    EXPECT_FLOAT_EQ(100 * 1000.0f / 10000, info.fps);
    EXPECT_FLOAT_EQ(100 * 1000 * 8.0f / 10000, info.kbps);
    _tagVeskFrameHeader last;
    ASSERT_EQ(VESK_OK, mng.get_last_frame_info(4, 1, last));
    EXPECT_EQ(VESK_FRAME_STARTCODE, last.uiStartId);

    // Nothing for 10 s: disconnected and all zeros.
    mng.rotate_pass(at(t0, 10000));
    EXPECT_EQ(VESK_OK, mng.get_stream_stat_info(4, 1, &info));
    EXPECT_EQ(0u, info.disconnected);
    mng.rotate_pass(at(t0, 10000 + 10001));
    ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(4, 1, &info));
    EXPECT_EQ(1u, info.disconnected);
    EXPECT_EQ(0.0f, info.kbps);
    EXPECT_EQ(0u, info.codec);
    ASSERT_EQ(VESK_OK, mng.get_last_frame_info(4, 1, last));
    const _tagVeskFrameHeader zero {};
    EXPECT_EQ(0, memcmp(&zero, &last, sizeof(last)));

    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_stream_stat_info(32, 1, &info));
        info.fps = 3;
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_stream_stat_info(1, 4, &info));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_last_frame_info(1, 4, last));
    });
    EXPECT_EQ(0.0f, info.fps);
}

TEST(AvQueryTest, NewestIFrameAndResolutionFollowTheStreamUntilItGoesSilent)
{
    vesk_utility_av_mng mng;
    vesk_test::feed cam(mng, 2048, VESK_AV_STREAM_MAIN, 5, 16);
    uint32_t w = 0, h = 0, sec = 0;
    vesk_av_time key {};
    const auto res = [&] { return av_get_video_resolution(&mng, 5, VESK_AV_STREAM_MAIN, &w, &h); };
    const auto last_i = [&] { return av_get_last_valid_I_time(&mng, 5, VESK_AV_STREAM_MAIN, &key, &sec); };
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, res()) << "nothing cached";
    cam.put(1, 2, 200);
    EXPECT_EQ(VESK_OK, res());
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, last_i()) << "no I frame yet";

    // An I frame, then P frames over several blocks; the last I frame is larger than a block,
    // so the newest block holds only its continuation.
    struct row {
        uint16_t width, height;
        uint32_t sec, i_len, p_frames;
    };
    const vesk_av_time before = av_now();
    for (const row& r : {row {1920, 1080, 101, 200, 18}, row {1280, 720, 130, 200, 0}, row {704, 576, 140, 5000, 0}}) {
        cam.width = r.width;
        cam.height = r.height;
        cam.sec = r.sec;
        cam.put(r.sec, VESK_FRAME_TYPE_I, r.i_len);
        for (uint32_t n = 1; n <= r.p_frames; n++)
            cam.put(r.sec + n, 2, 200);
        ASSERT_EQ(VESK_OK, res());
        EXPECT_EQ(r.width, w);
        EXPECT_EQ(r.height, h);
        ASSERT_EQ(VESK_OK, last_i());
        EXPECT_EQ(r.sec, sec);
        EXPECT_TRUE(av_diff_ms(key, before) >= 0 && av_diff_ms(av_now(), key) >= 0);
    }
    ASSERT_EQ(0u, mng.chn_blocks(5).lists[0].tail->block->node_num);
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_OPERATE_FAIL, av_get_video_resolution(&mng, 6, VESK_AV_STREAM_MAIN, &w, &h));
        EXPECT_EQ(VESK_ERR_OPERATE_FAIL, av_get_video_resolution(&mng, 5, VESK_AV_STREAM_SUB, &w, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_video_resolution(&mng, 32, VESK_AV_STREAM_MAIN, &w, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_video_resolution(&mng, 5, VESK_AV_STREAM_AUDIO, &w, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_last_valid_I_time(&mng, 5, VESK_AV_STREAM_SMART, &key, &w));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_video_resolution(5, VESK_AV_STREAM_MAIN, nullptr, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_last_valid_I_time(5, VESK_AV_STREAM_MAIN, &key, nullptr));
    });

    // A camera marked disconnected, or silent for more than 10 s, answers nothing until it
    // speaks again; its still receiving block stays cached meanwhile.
    mng.set_chn_connect_status(5, 0);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, res());
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, last_i());
    mng.set_chn_connect_status(5, 1);
    const vesk_av_time t0 = av_now();
    mng.rotate_pass(t0);
    mng.rotate_pass(at(t0, 11000));
    ASSERT_NE(nullptr, mng.chn_blocks(5).lists[0].tail);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, res());
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, last_i());
    cam.sec = 150;
    cam.put(150, VESK_FRAME_TYPE_I, 200);
    mng.rotate_pass(at(t0, 11200));
    EXPECT_EQ(VESK_OK, res());
    ASSERT_EQ(VESK_OK, last_i());
    EXPECT_EQ(150u, sec);
}

TEST(AvStatTest, CallerMeterReportsAfterThirtySecondsOfFrameTime)
{
    vesk_bps_real_info m {};
    _tagVeskFrameHeader h = frame_head(0, 1, 2048);
    for (uint32_t i = 0; i <= 30 * 25; i++) {
        h.uiTimeSec = 1000 + i / 25;
        ASSERT_EQ(VESK_OK, vesk_utility_update_real_bps_info("cam", &m, &h));
        if (i < 30 * 25) {
            ASSERT_EQ(0u, m.kbps) << "frame " << i;
        }
    }
    // 751 frames over 30 s: 25.0 fps, 751 * 2048 * 8 / (30 * 1024) kbps.
    EXPECT_EQ(25u, m.fps);
    EXPECT_EQ(0u, m.fps_tenths);
    EXPECT_EQ(751u * 2048 * 8 / (30 * 1024), m.kbps);
    EXPECT_EQ(704u, m.width);
    h.uiTimeSec = 900;
    vesk_utility_update_real_bps_info("cam", &m, &h);
    EXPECT_EQ(0u, m.kbps) << "time went back";
    EXPECT_EQ(VESK_AV_STREAM_SUB, vesk_utility_av_convert_type(VESK_ENC_STR_SUB));
    EXPECT_EQ(VESK_AV_STREAM_SMART, vesk_utility_av_convert_type(VESK_ENC_STR_SMART));
    EXPECT_EQ(VESK_AV_STREAM_NUM, vesk_utility_av_convert_type(VESK_ENC_STR_INVALID));
}

TEST(AvLogoTest, BadRowsStayEmptyMissingLargeLogosFallBackAndReadersShowTheRightOne)
{
    const std::string root = vesk_test::private_root() + "/logos";
    for (const char* d : {"", "/mnt", "/mnt/mtd", "/mnt/mtd/res", "/mnt/mtd/res/platform", "/mnt/mtd/app"})
        mkdir((root + d).c_str(), 0755);
    const std::string dir = root + "/mnt/mtd/res/platform/";
    vesk_test::write_nvr(dir + "novideo.nvr", 352, 288, 500, 500);
    vesk_test::write_nvr(dir + "not_connect_camera_mid.nvr", 704, 576, 800, 800);
    vesk_test::write_nvr(dir + "not_connect_camera.nvr", 0, 288, 100, 100); // no width
    vesk_test::write_nvr(dir + "company.nvr", 352, 288, 900, 400); // shorter than it says
    vesk_test::write_nvr(dir + "lock_ops.nvr", 352, 288, 0xFFFFFFC0u, 100); // wraps with the header
    vesk_test::write_nvr(dir + "svac.nvr", 352, 288, 0xFFFFFFF0u, 100);
    vesk_test::write_nvr(dir + "no_rec_file.nvr", 352, 288, 101, 100); // one byte short
    vesk_test::write_nvr(dir + "not_support.nvr", 352, 288, k_logo_max_payload + 1, k_logo_max_payload + 1);
    vesk_logo_table table;
    vesk_test::capture_stdout([&] { table.load(root.c_str()); });

    struct row {
        uint32_t type;
        bool small;
        uint32_t length; // 0: none to be had
    };
    const row rows[] = {
        {VESK_LOGO_NO_VIDEO, true, 500}, // the small logo stands in for the missing large one
        {VESK_LOGO_NOT_CONNECT_CAMERA, false, 800}, // the rejected small row leaves the large one
        {VESK_LOGO_COMPANY, false, 0},
        {VESK_LOGO_LOCK_OPS, false, 0},
        {VESK_LOGO_SVAC, false, 0},
        {VESK_LOGO_NO_REC_FILE, false, 0},
        {VESK_LOGO_NOT_SUPPORT, false, 0},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.type);
        _tagVeskFrameHeader* f = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(r.length != 0 ? VESK_OK : VESK_ERR_OPERATE_FAIL, table.get(r.type, r.small, &f, &len));
        if (r.length == 0) {
            EXPECT_EQ(nullptr, f);
            continue;
        }
        EXPECT_EQ(sizeof(*f) + r.length, len);
        EXPECT_EQ(r.length, f->uiLength);
        EXPECT_EQ((r.length - 1) & 0xFF, reinterpret_cast<uint8_t*>(f + 1)[r.length - 1]);
    }
    _tagVeskFrameHeader* f = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, table.get(VESK_LOGO_NO_VIDEO, false, nullptr, &len));
    // The init-time table read the test root, which holds no logos.
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, vesk_utility_get_logo_frame(VESK_LOGO_NO_VIDEO, 1, &f, &len));

    // A reader of a camera not connected gets that logo; of one with no block for 11 s, no video.
    vesk_test::capture_stdout([&] { logo_table().load(root.c_str()); });
    vesk_utility_av_mng mng;
    vesk_av_reader* r = mng.new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 0x77);
    r->set_chn(3);
    uint32_t next = 0;
    ASSERT_EQ(VESK_OK, r->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next));
    EXPECT_EQ(800u, f->uiLength);
    EXPECT_TRUE(r->is_free()) << "a logo holds no block";
    EXPECT_EQ(VESK_OK, r->put_frame(VESK_AV_STREAM_MAIN, f));
    vesk_test::feed in(mng, 1024); // connects the camera
    in.put(0, VESK_FRAME_TYPE_I);
    EXPECT_EQ(0u, vesk_test::read_one(r));
    const vesk_av_time now = av_now();
    mng.rotate_pass(now);
    mng.rotate_pass(at(now, 11000));
    ASSERT_EQ(VESK_OK, r->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next));
    EXPECT_EQ(500u, f->uiLength);
    EXPECT_EQ(VESK_OK, r->put_frame(VESK_AV_STREAM_MAIN, f));
    mng.delete_av_reader(r, __FILE__, __func__);
    vesk_test::capture_stdout([] { load_logo_frame(); }); // the process's table back as init loaded it
}
