// The block writer's layout, the per-stream statistics of the rotation tick, the caller-side
// meter and the logo table.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <vector>

#include "av_test_blocks.h"
#include "test_support.h"
#include "av/vesk_utility_av_logo.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;
using vesk_test::write_nvr;

namespace
{

_tagVeskFrameHeader frame_head(uint32_t no, uint32_t type, uint32_t len)
{
    _tagVeskFrameHeader h {};
    h.uiStartId = VESK_FRAME_STARTCODE;
    h.uiFrameType = type;
    h.uiFrameNo = no;
    h.uiLength = len;
    h.usWidth = 704;
    h.usHeight = 576;
    h.ucCodec = 8;
    h.uiTimeStamp = no * 3600;
    return h;
}

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
    const _tagVeskFrameHeader p1 = frame_head(1, 2, 100);
    const _tagVeskFrameHeader i2 = frame_head(2, VESK_FRAME_TYPE_I, 1000);
    ASSERT_EQ(VESK_OK, av_writer_put(&mng, &w, &p1, big.data()));
    ASSERT_EQ(VESK_OK, av_writer_put(&mng, &w, &i2, big.data()));
    const _tagVeskFrameHeader p3 = frame_head(3, 2, 10);
    ASSERT_EQ(VESK_OK, av_writer_put(&mng, &w, &p3, big.data()));

    const auto v = blocks_of(mng, 3, 0);
    ASSERT_EQ(3u, v.size());
    const vesk_IPC_stream_block_head* a = v[0];
    EXPECT_EQ(2u, a->node_num);
    EXPECT_EQ(1u, a->key_flag);
    EXPECT_EQ(1u, a->last_key_idx);
    EXPECT_EQ(1u, a->first_idx);
    EXPECT_EQ(1100u, a->payload_bytes);
    EXPECT_EQ(1u, a->block_state);
    EXPECT_EQ(0u, a->receiving);
    EXPECT_EQ(512u, a->data_end);
    EXPECT_EQ(8u, a->codec);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(a->frame_index[0]), a->data_base);
    const vesk_av_frame_node* n = a->frame_index[1];
    EXPECT_EQ(VESK_AV_NODE_MAGIC, n->magic);
    EXPECT_EQ(1036u, n->frame_len);
    EXPECT_EQ(2u, n->frame_no);

    // Join the pieces as a reader does: the tags chain, the continuation lengths add up.
    std::vector<uint8_t> joined(
        reinterpret_cast<const uint8_t*>(n + 1), reinterpret_cast<const uint8_t*>(n + 1) + n->stored_len);
    uint32_t tag = a->trail_tag;
    for (size_t i = 1; i < 3; i++) {
        EXPECT_EQ(tag, v[i]->lead_tag);
        joined.insert(joined.end(), v[i]->data_base, v[i]->data_base + v[i]->cont_len);
        tag = v[i]->trail_tag;
    }
    EXPECT_EQ(0u, v[1]->node_num);
    EXPECT_EQ(512u, v[1]->cont_len);
    EXPECT_EQ(1u, v[1]->block_state);
    ASSERT_EQ(1036u, joined.size());
    EXPECT_EQ(0, memcmp(joined.data(), &i2, 36));
    EXPECT_EQ(0, memcmp(joined.data() + 36, big.data(), 1000));
    // The third block carries the rest, then the next frame, and is still being filled.
    EXPECT_EQ(1u, v[2]->node_num);
    EXPECT_EQ(1036u - (512 - 184 - 48) - 512, v[2]->cont_len);
    EXPECT_EQ(1u, v[2]->receiving);
    EXPECT_EQ(v[2]->data_base + v[2]->cont_len, reinterpret_cast<uint8_t*>(v[2]->frame_index[0]));
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
    const uint32_t frames = blocks_of(mng, 3, 0).back()->node_num;
    for (uint32_t len : {0xFFFFFFDCu, 0xFFFFFFFFu}) {
        const _tagVeskFrameHeader huge = frame_head(5, 2, len);
        const std::string out = vesk_test::capture_stdout(
            [&] { EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_writer_put(&mng, &w, &huge, big.data())); });
        EXPECT_NE(out.find("frame too long!"), std::string::npos) << out;
    }
    EXPECT_EQ(frames, blocks_of(mng, 3, 0).back()->node_num);
    EXPECT_EQ(4u, blocks_of(mng, 3, 0).size());
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_av_writer_init(&w, 3, VESK_AV_STREAM_MAIN, 0x91110, 512, 8));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_av_writer_init(&w, 32, VESK_AV_STREAM_MAIN, 0x9110C, 512, 8));
}

TEST(AvStatTest, RatesAfterAFullPeriodThenDisconnectedWithZeroedStatistics)
{
    vesk_utility_av_mng mng;
    const vesk_av_time t0 = av_now();
    vesk_av_block_writer w;
    ASSERT_EQ(VESK_OK, vesk_utility_av_writer_init(&w, 0, VESK_AV_STREAM_SUB, 0x91111, 64 * 1024, 64));
    std::vector<uint8_t> payload(1000, 0x5A);
    for (uint32_t i = 0; i < 100; i++) {
        const _tagVeskFrameHeader h = frame_head(i, i % 25 == 0 ? 1 : 2, 1000);
        ASSERT_EQ(VESK_OK, av_writer_put(&mng, &w, &h, payload.data()));
    }
    mng.switch_ivr_ch(0, 4); // the statistics follow the recorder channel
    // The first period starts at the first push, not at the clock's origin.
    const vesk_av_time p0 = mng.chn_blocks(0).lists[1].stat.period_start;
    EXPECT_TRUE(av_diff_ms(p0, t0) >= 0 && av_diff_ms(av_now(), p0) >= 0);
    vesk_stream_stat_info info;
    for (int64_t ms : {1000, 5000}) {
        mng.rotate_pass(at(t0, ms));
        ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(4, 1, &info));
        EXPECT_EQ(0u, info.disconnected);
        EXPECT_EQ(0.0f, info.kbps) << "no complete period yet at " << ms;
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

    // Growth of the newest block counts; then nothing for 10 s: disconnected and all zeros.
    const _tagVeskFrameHeader more = frame_head(100, 2, 1000);
    ASSERT_EQ(VESK_OK, av_writer_put(&mng, &w, &more, payload.data()));
    mng.rotate_pass(at(t0, 12000));
    EXPECT_EQ(101u, mng.chn_blocks(0).lists[1].stat.period_frames + 100);
    mng.rotate_pass(at(t0, 22000));
    ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(4, 1, &info));
    EXPECT_EQ(1u, info.disconnected);
    EXPECT_EQ(0.0f, info.kbps);
    EXPECT_EQ(0u, info.codec);
    EXPECT_EQ(0u, info.last_frame.uiStartId);
    ASSERT_EQ(VESK_OK, mng.get_last_frame_info(4, 1, last));
    const _tagVeskFrameHeader zero {};
    EXPECT_EQ(0, memcmp(&zero, &last, sizeof(last)));
    av_writer_close(&mng, &w);

    const std::string out = vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_stream_stat_info(32, 1, &info));
        info.fps = 3;
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_stream_stat_info(1, 4, &info));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_last_frame_info(1, 4, last));
    });
    EXPECT_EQ(0.0f, info.fps);
    EXPECT_EQ(2, vesk_test::count_of(out, "Invalid Stream Type:0x4"));
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
    EXPECT_EQ(1030u, m.period_start);
    EXPECT_EQ(0u, m.period_frames);
    EXPECT_EQ(704u, m.width);
    h.uiTimeSec = 900;
    vesk_utility_update_real_bps_info("cam", &m, &h);
    EXPECT_EQ(0u, m.kbps) << "time went back";
    EXPECT_EQ(900u, m.period_start);
    EXPECT_EQ(VESK_AV_STREAM_SUB, vesk_utility_av_convert_type(VESK_ENC_STR_SUB));
    EXPECT_EQ(VESK_AV_STREAM_SMART, vesk_utility_av_convert_type(VESK_ENC_STR_SMART));
    EXPECT_EQ(VESK_AV_STREAM_NUM, vesk_utility_av_convert_type(VESK_ENC_STR_INVALID));
}

TEST(AvLogoTest, MissingLargeLogoFallsBackBadFilesStayEmptyAndReadersShowTheRightOne)
{
    const std::string root = vesk_test::private_root() + "/logos";
    const std::string dir = root + "/mnt/mtd/res/platform/";
    mkdir(root.c_str(), 0755);
    for (const char* d : {"/mnt", "/mnt/mtd", "/mnt/mtd/res", "/mnt/mtd/res/platform", "/mnt/mtd/app"})
        mkdir((root + d).c_str(), 0755);
    write_nvr(dir + "novideo.nvr", 352, 288, 500, 500);
    write_nvr(dir + "not_connect_camera_mid.nvr", 704, 576, 800, 800);
    write_nvr(dir + "not_connect_camera.nvr", 0, 288, 100, 100);
    write_nvr(dir + "company.nvr", 352, 288, 900, 400);
    vesk_logo_table table;
    const std::string out = vesk_test::capture_stdout([&] { table.load(root.c_str()); });
    EXPECT_EQ(16, vesk_test::count_of(out, "[Load Logo Frame] Open Failed "));
    EXPECT_NE(
        std::string::npos, out.find("not_connect_camera.nvr Vertify Logo Frame Width[0] Height[288] Not Invalid"));
    EXPECT_NE(std::string::npos, out.find("[Load Logo Frame] Read " + dir + "company.nvr Logo Frame Failed"));

    _tagVeskFrameHeader* f = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(VESK_OK, table.get(VESK_LOGO_NO_VIDEO, true, &f, &len));
    EXPECT_EQ(536u, len) << "the small logo stands in";
    EXPECT_EQ(VESK_FRAME_TYPE_KEY2, f->uiFrameType);
    EXPECT_EQ(352u, f->usWidth);
    EXPECT_EQ(500u, f->uiLength);
    EXPECT_EQ(8u, f->ucCodec);
    EXPECT_EQ(24u, f->ucReserved[0]);
    EXPECT_EQ(0x47u, f->ucReserved[1]);
    EXPECT_EQ(0x39u, f->ucReserved[2]);
    EXPECT_EQ(499 & 0xFF, reinterpret_cast<uint8_t*>(f + 1)[499]);
    ASSERT_EQ(VESK_OK, table.get(VESK_LOGO_NOT_CONNECT_CAMERA, false, &f, &len));
    EXPECT_EQ(VESK_FRAME_TYPE_I, f->uiFrameType) << "the rejected small row leaves the large one";
    EXPECT_EQ(836u, len);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, table.get(VESK_LOGO_COMPANY, false, &f, &len));
    EXPECT_EQ(nullptr, f);
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

TEST(AvLogoTest, LengthFieldBeyondTheFileOrTheMaximumSkipsTheRowBeforeAllocating)
{
    const std::string root = vesk_test::private_root() + "/lying_logos";
    for (const char* d : {"", "/mnt", "/mnt/mtd", "/mnt/mtd/res", "/mnt/mtd/res/platform", "/mnt/mtd/app"})
        mkdir((root + d).c_str(), 0755);
    const std::string dir = root + "/mnt/mtd/res/platform/";
    write_nvr(dir + "novideo.nvr", 352, 288, 0xFFFFFFC0u, 100); // wraps len + frame header
    write_nvr(dir + "lock_ops.nvr", 352, 288, 0xFFFFFFF0u, 100);
    write_nvr(dir + "svac.nvr", 352, 288, 101, 100); // one byte short
    write_nvr(dir + "company.nvr", 352, 288, k_logo_max_payload + 1, k_logo_max_payload + 1);
    write_nvr(dir + "no_rec_file.nvr", 352, 288, 300, 300);
    {
        vesk_logo_table table;
        const std::string out = vesk_test::capture_stdout([&] { table.load(root.c_str()); });
        for (const char* name : {"novideo.nvr", "lock_ops.nvr", "svac.nvr"})
            EXPECT_NE(std::string::npos, out.find("[Load Logo Frame] Read " + dir + name + " Logo Frame Failed")) << out;
        EXPECT_NE(std::string::npos,
            out.find("company.nvr Logo Frame Length " + std::to_string(k_logo_max_payload + 1) + " Over "));
        _tagVeskFrameHeader* f = nullptr;
        uint32_t len = 0;
        for (uint32_t type : {VESK_LOGO_NO_VIDEO, VESK_LOGO_LOCK_OPS, VESK_LOGO_SVAC, VESK_LOGO_COMPANY})
            EXPECT_EQ(VESK_ERR_OPERATE_FAIL, table.get(type, false, &f, &len)) << type;
        ASSERT_EQ(VESK_OK, table.get(VESK_LOGO_NO_REC_FILE, false, &f, &len));
        EXPECT_EQ(300u, f->uiLength);
        EXPECT_EQ(299 & 0xFF, reinterpret_cast<uint8_t*>(f + 1)[299]);
    }
}
