// The block manager, driven by rotate_pass with chosen times; the block writer; statistics and
// queries; the logo table; reading through the reader object and the position note.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "av_test_blocks.h"
#include "api/vesk_utility_resource.h"
#include "av/vesk_utility_av_logo.h"
#include "av/vesk_utility_av_query.h"
#include "core/vesk_utility_fault.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;
using vesk_test::consumer;
using vesk_test::feed;
using vesk_test::frame_head;
using vesk_test::intact;
using vesk_test::k_ipc;
using vesk_test::list_ids;

namespace
{

class AvReadTest : public testing::TestWithParam<bool>
{
};

INSTANTIATE_TEST_SUITE_P(Api, AvReadTest, testing::Values(false, true),
    [](const testing::TestParamInfo<bool>& p) { return p.param ? "Note" : "Reader"; });

vesk_IPC_stream_block_head* make_block(uint32_t type, const vesk_av_time& rcv, uint32_t data = 1024)
{
    const uint32_t size = sizeof(vesk_IPC_stream_block_head) + data;
    auto* b = static_cast<vesk_IPC_stream_block_head*>(vesk_malloc(VESK_USER_AV_CACHE, vesk_test::k_av_purpose, size, 8));
    memset(b, 0, sizeof(*b));
    b->block_size = size;
    b->data_base = reinterpret_cast<uint8_t*>(b + 1);
    b->block_type = type;
    b->block_state = 1;
    b->rcv_time = rcv;
    return b;
}

std::vector<vesk_IPC_stream_block_head*> blocks_of(vesk_utility_av_mng& mng, uint32_t ipc, uint32_t type)
{
    std::vector<vesk_IPC_stream_block_head*> v;
    for (vesk_av_block* b = mng.chn_blocks(ipc).lists[type].head; b != nullptr; b = b->next)
        v.push_back(b->block);
    return v;
}

} // namespace

TEST(AvMngTest, PushChainsBlocksAndRefusesBadOnesUntouched)
{
    vesk_utility_av_mng mng;
    EXPECT_EQ(k_av_pool_size, mng.pool_free_count());
    const vesk_av_time now = av_now();
    const uint32_t before = vesk_mem_av_total();
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        ASSERT_EQ(VESK_OK, mng.push_av_block(31, make_block(t, now, 100)));
    vesk_IPC_stream_block_head* second = make_block(1, now, 200);
    ASSERT_EQ(VESK_OK, mng.push_av_block(31, second));
    EXPECT_EQ(before + 5 * sizeof(vesk_IPC_stream_block_head) + 600, vesk_mem_av_total());
    vesk_IPC_stream_block_head* foreign = make_block(4, now, 100);
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.push_av_block(31, foreign));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.push_av_block(k_av_chn_num, second));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.push_av_block(0, nullptr));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.set_chn_connect_status(k_av_chn_num, 1));
    });
    vesk_free(__FILE__, __func__, foreign);
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        EXPECT_EQ(t == 1 ? "9527,9528" : "9527", list_ids(mng, 31, t));
}

TEST(AvMngTest, RotationKeepsWhatUsersWantUntilPressureOrAgeAndNeverWhatIsHeld)
{
    enum budget { none, most, full }; // the total is about 89 % of `most`, all of `full`
    struct row {
        const char* what;
        int user; // 0: none, 1: has not read the block, 2: has read it
        bool held, receiving;
        budget cache;
        int64_t age_ms;
        bool stays;
    };
    const row rows[] = {
        {"nobody wants it, young", 0, false, false, none, 199, true},
        {"nobody wants it", 0, false, false, none, 200, false},
        {"its user has read it", 2, false, false, none, 1000, false},
        {"its user wants it", 1, false, false, none, 14999, true},
        {"the one-tick age limit", 1, false, false, none, 15000, false},
        {"past the one tick", 1, false, false, none, 15001, true},
        {"young, budget reached", 1, false, false, full, 1000, false},
        {"young, 80 % of the budget", 1, false, false, most, 14000, true},
        {"old, 80 % of the budget", 1, false, false, most, 16000, false},
        {"referenced", 0, true, false, full, 30500, true},
        {"still receiving", 0, false, true, full, 19000, true},
    };
    for (const row& c : rows) {
        SCOPED_TRACE(c.what);
        vesk_utility_av_mng mng;
        const vesk_av_time t0 = av_now();
        if (c.user != 0) {
            ASSERT_EQ(0, mng.malloc_magic_ofset(4, 0, 2, 0x77));
        }
        vesk_IPC_stream_block_head* b = make_block(2, t0, 4096);
        b->receiving = c.receiving ? 1 : 0;
        b->block_state = c.receiving ? 0 : 1;
        mng.push_av_block(4, b);
        pthread_mutex_lock(&mng.chn_blocks(4).lock);
        mng.chn_blocks(4).lists[2].head->ref_cnt = c.held ? 1 : 0;
        if (c.user == 2)
            mng.chn_blocks(4).lists[2].head->pending_str_usr &= ~1u;
        pthread_mutex_unlock(&mng.chn_blocks(4).lock);
        const uint32_t total = vesk_mem_av_total();
        mng.set_av_max_cache(c.cache == none ? 0xFFFFFFFF : c.cache == full ? total : total + total / 8);
        vesk_test::capture_stdout([&] { mng.rotate_pass(at(t0, c.age_ms)); });
        EXPECT_EQ(c.stays ? "9527" : "", list_ids(mng, 4, 2));
    }
}

TEST(AvMngTest, SwitchIvrChSwapsWithinBoundsAndTheUserMasksFollow)
{
    vesk_utility_av_mng mng;
    EXPECT_EQ(VESK_OK, mng.switch_ivr_ch(31, 0));
    EXPECT_EQ(VESK_OK, mng.switch_ivr_ch(5, 5));
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.switch_ivr_ch(32, 0));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.switch_ivr_ch(0, 32));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_switch_av_ivr_ch(32, 0));
    });
    for (uint32_t i = 0; i < 32; i++)
        ASSERT_EQ(i == 0 ? 31 : i == 31 ? 0 : i, mng.ipc_of(i));

    // ipc 0 now belongs to ivr 31, whose user keeps its block.
    ASSERT_EQ(0, mng.malloc_magic_ofset(31, 0, 3, 0x9));
    const vesk_av_time t0 = av_now();
    mng.push_av_block(0, make_block(3, t0));
    mng.push_av_block(31, make_block(3, t0));
    mng.rotate_pass(at(t0, 1000));
    EXPECT_EQ("9527", list_ids(mng, 0, 3));
    EXPECT_EQ("", list_ids(mng, 31, 3));
}

TEST(AvMngTest, UserBitsAndReaderRegistryAreBounded)
{
    vesk_utility_av_mng mng;
    for (int i = 0; i < 32; i++)
        ASSERT_EQ(i, mng.malloc_magic_ofset(2, 0, 1, 0x100 + i));
    vesk_av_reader* readers[k_av_reader_max];
    for (auto& r : readers)
        ASSERT_NE(nullptr, r = mng.new_av_reader(VESK_AV_READER_REAL_TIME, VESK_AV_READER_STREAM_USER, 0x42));
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(-1, mng.malloc_magic_ofset(2, 0, 1, 0x200));
        EXPECT_EQ(-1, mng.malloc_magic_ofset(2, 0, 4, 0x200));
        mng.release_magic_ofset(2, 1, 1, 0); // never taken: logged, nothing else
        EXPECT_EQ(nullptr, mng.new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_SNAP_USER, 1));
        EXPECT_EQ(VESK_OK, mng.delete_av_reader(nullptr, "f", "g"));
    });
    EXPECT_EQ(0, mng.malloc_magic_ofset(2, 1, 1, 0x300)) << "snap users have their own table";

    auto* r0 = static_cast<vesk_av_reader_v1*>(readers[0]);
    ASSERT_EQ(VESK_OK, r0->set_chn(3));
    EXPECT_EQ(0, r0->usr_magic(0));
    EXPECT_EQ(0, r0->usr_magic(3));
    EXPECT_EQ(1, mng.malloc_magic_ofset(3, 0, 0, 0x1)) << "bit 0 is the reader's";
    EXPECT_EQ(VESK_OK, mng.delete_av_reader(r0, __FILE__, __func__));
    EXPECT_EQ(0, mng.malloc_magic_ofset(3, 0, 3, 0x1)) << "released by the delete";
    EXPECT_NE(nullptr, mng.new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 2));
}

TEST(AvMngDeathTest, MisuseIsFatalWithTheExactCondition)
{
    VESK_EXPECT_FATAL(vesk_utility_av_mng::instance()->malloc_magic_ofset(32, 0, 0, 1),
        "Condition: ivr_ch < VESK_ARRAY_DIM\\(m_str_usr_magic\\)");
    VESK_EXPECT_FATAL(vesk_utility_av_mng::instance()->release_magic_ofset(32, 0, 0, 0),
        "Condition: ivr_ch < VESK_ARRAY_DIM\\(m_str_usr_magic\\)");
    unsigned next = 0;
    vesk_timer_task_type tt = VESK_TIMER_TASK_COMMON;
    VESK_EXPECT_FATAL(vesk_utility_av_mng::rotate_block(nullptr, &next, &tt), "Condition: user_param != NULL");
    VESK_EXPECT_FATAL(
        {
            vesk_av_block_writer w;
            vesk_utility_av_writer_init(&w, 9, VESK_AV_STREAM_AUDIO, 0x9110E, 1024, 8);
            _tagVeskFrameHeader h = frame_head(0, 2, 4);
            vesk_utility_av_writer_put(&w, &h, "abcd");
            vesk_av_reader* r = vesk_utility_new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 1);
            r->set_chn(9);
            vesk_IPC_stream_block_head* held = nullptr;
            r->get_block(VESK_AV_STREAM_AUDIO, &held, 1);
            vesk_utility_delete_av_reader(r, "rec.cpp", "stop");
        },
        "rec.cpp stop AV Reader Reference Resouce Not Empty, Can't Delete");
    VESK_EXPECT_FATAL(
        {
            vesk_av_reader* r = vesk_utility_new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 1);
            vesk_utility_delete_av_reader(r, "rec.cpp", "stop");
            vesk_utility_delete_av_reader(r, "rec.cpp", "again");
        },
        "rec.cpp, again delete invalid!\n[^\n]*ASSERT!.*Condition: 0\n");
}

TEST(AvMngTest, RotationTaskRunsAndDiagnoseDumpsTheLists)
{
    // The process's manager: its task frees an unwanted block without being called.
    ASSERT_EQ(VESK_OK, vesk_utility_set_av_max_cache(8 << 20, 12 << 20));
    vesk_utility_av_mng* mng = vesk_utility_av_mng::instance();
    EXPECT_EQ(8u << 20, mng->max_cache());
    ASSERT_EQ(VESK_OK, vesk_utility_push_av_block(6, make_block(0, av_now(), 2048)));
    for (int i = 0; i < 600 && !list_ids(*mng, 6, 0).empty(); i++)
        vesk_utility_sleep_ms(50);
    EXPECT_EQ("", list_ids(*mng, 6, 0)) << "rotation did not run within 30 s";

    vesk_utility_av_mng own;
    vesk_test::feed in(own, 4096, VESK_AV_STREAM_MAIN, 2);
    in.width = 1920;
    in.height = 1080;
    in.put(0, VESK_FRAME_TYPE_I);
    own.rotate_pass(av_now());
    std::string out = vesk_test::capture_stdout([&] { own.diagnose(1, printf); });
    EXPECT_NE(std::string::npos, out.find("Chn2 Stream Block Detail Info:\n"));
    EXPECT_NE(std::string::npos, out.find("\tVideoStream(Main) Occupy [1]Blocks, Consume "));
    EXPECT_NE(std::string::npos, out.find("[H264 1920X1080]"));
    EXPECT_EQ(32, vesk_test::count_of(out, "Stream Block Detail Info"));
}

TEST(AvWriterTest, FramesAreIndexedAndABigFrameContinuesOverThreeBlocks)
{
    vesk_utility_av_mng mng;
    vesk_av_block_writer w;
    ASSERT_EQ(VESK_OK, vesk_utility_av_writer_init(&w, 3, VESK_AV_STREAM_MAIN, vesk_test::k_av_purpose, 512, 8));
    const std::vector<uint8_t> big(1000);
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
    const vesk_av_frame_node* n = v[0]->frame_index[1];
    EXPECT_EQ(sizeof(vesk_av_frame_node) + sizeof(p1) + 100, n->offset) << "the next node follows at once";
    EXPECT_EQ(1u, v[2]->node_num) << "the rest of the I frame, then the next frame";
    ASSERT_EQ(VESK_OK, av_writer_close(&mng, &w));

    // A refused block loses the frame; the next block does not claim to continue anything.
    vesk_mem_set_av_limits(0, 0);
    EXPECT_EQ(VESK_ERR_NO_RESOURCE, av_writer_put(&mng, &w, &p3, big.data()));
    vesk_mem_set_av_limits(0x2800000, 0x3000000);
    EXPECT_EQ(VESK_OK, av_writer_put(&mng, &w, &p3, big.data()));
    EXPECT_EQ(0u, blocks_of(mng, 3, 0).back()->lead_tag);
    // The index holds max_frames frames; the next one opens a block.
    vesk_av_block_writer audio;
    ASSERT_EQ(VESK_OK, vesk_utility_av_writer_init(&audio, 3, VESK_AV_STREAM_AUDIO, vesk_test::k_av_purpose, 4096, 8));
    for (uint32_t i = 0; i < 9; i++)
        EXPECT_EQ(VESK_OK, av_writer_put(&mng, &audio, &p3, big.data()));
    EXPECT_EQ(8u, blocks_of(mng, 3, 2)[0]->node_num);
    // A length whose frame (36 + length) does not fit in 32 bits is refused; nothing is written.
    vesk_test::capture_stdout([&] {
        const _tagVeskFrameHeader huge = frame_head(5, 2, 0xFFFFFFDCu);
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_writer_put(&mng, &w, &huge, big.data()));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_av_writer_init(&w, 3, VESK_AV_STREAM_MAIN, 0x91110, 512, 8));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_av_writer_init(&w, 32, VESK_AV_STREAM_MAIN, 0x9110C, 512, 8));
    });
    EXPECT_EQ(1u, blocks_of(mng, 3, 0).back()->node_num);
    EXPECT_EQ(4u, blocks_of(mng, 3, 0).size());
}

// The newest I frame and picture size as they change, rates once a period is complete, and
// nothing while the camera is disconnected or silent for more than 10 s.
TEST(AvStatTest, StatisticsAndQueriesFollowTheStreamUntilItGoesSilent)
{
    vesk_utility_av_mng mng;
    vesk_test::feed cam(mng, 8 * 1024, VESK_AV_STREAM_MAIN, 0, 16);
    mng.switch_ivr_ch(0, 5); // both follow the recorder channel
    uint32_t w = 0, h = 0, sec = 0, fno = 0, bytes = 0;
    vesk_av_time key {};
    vesk_stream_stat_info info;
    _tagVeskFrameHeader last;
    const auto res = [&] { return av_get_video_resolution(&mng, 5, VESK_AV_STREAM_MAIN, &w, &h); };
    const auto last_i = [&] { return av_get_last_valid_I_time(&mng, 5, VESK_AV_STREAM_MAIN, &key, &sec); };
    const auto put = [&](uint32_t type, uint32_t len) {
        cam.put(fno++, type, len);
        bytes += len;
    };
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, res()) << "nothing cached";
    put(2, 1000);
    EXPECT_EQ(VESK_OK, res());
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, last_i()) << "no I frame yet";

    struct row {
        uint16_t width, height;
        uint32_t sec, i_len, p_frames;
    };
    const vesk_av_time before = av_now();
    for (const row& r : {row {1920, 1080, 101, 1000, 40}, row {1280, 720, 130, 1000, 0}, row {704, 576, 140, 20000, 0}}) {
        cam.width = r.width;
        cam.height = r.height;
        cam.sec = r.sec;
        put(VESK_FRAME_TYPE_I, r.i_len);
        for (uint32_t n = 0; n < r.p_frames; n++)
            put(2, 1000);
        ASSERT_EQ(VESK_OK, res());
        EXPECT_EQ(r.width, w);
        EXPECT_EQ(r.height, h);
        ASSERT_EQ(VESK_OK, last_i());
        EXPECT_EQ(r.sec, sec);
        EXPECT_TRUE(av_diff_ms(key, before) >= 0 && av_diff_ms(av_now(), key) >= 0);
    }
    ASSERT_EQ(0u, mng.chn_blocks(0).lists[0].tail->block->node_num);
    put(2, 1000);

    const vesk_av_time p0 = mng.chn_blocks(0).lists[0].stat.period_start; // the first push
    mng.rotate_pass(at(p0, 5000));
    ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(5, 0, &info));
    EXPECT_EQ(0.0f, info.fps) << "no complete period yet";
    EXPECT_EQ(fno - 1, info.last_frame.uiFrameNo);
    mng.rotate_pass(at(p0, 10000));
    ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(5, 0, &info));
    EXPECT_FLOAT_EQ(fno * 1000.0f / 10000, info.fps);
    EXPECT_FLOAT_EQ(bytes * 8.0f / 10000, info.kbps);
    ASSERT_EQ(VESK_OK, mng.get_last_frame_info(5, 0, last));
    EXPECT_EQ(VESK_FRAME_STARTCODE, last.uiStartId);

    mng.set_chn_connect_status(0, 0);
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, res());
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, last_i());
    mng.set_chn_connect_status(0, 1);
    // Silent for 9 s is not yet disconnected; for more than 10 s, everything reads as zeros.
    put(2, 1000);
    const vesk_av_time t1 = av_now();
    mng.rotate_pass(t1);
    mng.rotate_pass(at(t1, 9000));
    ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(5, 0, &info));
    EXPECT_EQ(0u, info.disconnected);
    mng.rotate_pass(at(t1, 11000));
    ASSERT_EQ(VESK_OK, mng.get_stream_stat_info(5, 0, &info));
    EXPECT_EQ(1u, info.disconnected);
    EXPECT_EQ(0.0f, info.kbps);
    EXPECT_EQ(0u, info.codec);
    ASSERT_EQ(VESK_OK, mng.get_last_frame_info(5, 0, last));
    const _tagVeskFrameHeader zero {};
    EXPECT_EQ(0, memcmp(&zero, &last, sizeof(last)));
    ASSERT_NE(nullptr, mng.chn_blocks(0).lists[0].tail) << "the receiving block stays";
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, res());
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, last_i());

    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_stream_stat_info(32, 1, &info));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_stream_stat_info(1, 4, &info));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.get_last_frame_info(1, 4, last));
        EXPECT_EQ(VESK_ERR_OPERATE_FAIL, av_get_video_resolution(&mng, 6, VESK_AV_STREAM_MAIN, &w, &h));
        EXPECT_EQ(VESK_ERR_OPERATE_FAIL, av_get_video_resolution(&mng, 5, VESK_AV_STREAM_SUB, &w, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_video_resolution(&mng, 32, VESK_AV_STREAM_MAIN, &w, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_video_resolution(&mng, 5, VESK_AV_STREAM_AUDIO, &w, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, av_get_last_valid_I_time(&mng, 5, VESK_AV_STREAM_SMART, &key, &w));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_video_resolution(5, VESK_AV_STREAM_MAIN, nullptr, &h));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_last_valid_I_time(5, VESK_AV_STREAM_MAIN, &key, nullptr));
    });
}

TEST(AvLogoTest, BadRowsStayEmptyMissingLargeLogosFallBackAndReadersShowTheRightOne)
{
    const std::string root = vesk_test::private_root() + "/logos";
    for (const char* d : {"", "/mnt", "/mnt/mtd", "/mnt/mtd/res", "/mnt/mtd/res/platform", "/mnt/mtd/app"})
        mkdir((root + d).c_str(), 0755);
    // File, width, declared and actual payload bytes; then what a type's row yields (0: none).
    struct row {
        const char* file;
        uint16_t width;
        uint32_t len, actual;
        uint32_t type;
        bool small;
        uint32_t yields;
    };
    const row rows[] = {
        {"novideo.nvr", 352, 500, 500, VESK_LOGO_NO_VIDEO, true, 500}, // stands in for the large one
        {"not_connect_camera_mid.nvr", 704, 800, 800, VESK_LOGO_NOT_CONNECT_CAMERA, false, 800},
        {"not_connect_camera.nvr", 0, 100, 100, 0, false, 0}, // no width: only the large row is left
        {"company.nvr", 352, 900, 400, VESK_LOGO_COMPANY, false, 0}, // shorter than it says
        {"lock_ops.nvr", 352, 0xFFFFFFC0u, 100, VESK_LOGO_LOCK_OPS, false, 0}, // wraps with the header
        {"no_rec_file.nvr", 352, 101, 100, VESK_LOGO_NO_REC_FILE, false, 0}, // one byte short
        {"not_support.nvr", 352, k_logo_max_payload + 1, k_logo_max_payload + 1, VESK_LOGO_NOT_SUPPORT, false, 0},
    };
    for (const row& r : rows)
        vesk_test::write_nvr(root + "/mnt/mtd/res/platform/" + r.file, r.width, r.len, r.actual);
    vesk_logo_table table;
    vesk_test::capture_stdout([&] { table.load(root.c_str()); });
    _tagVeskFrameHeader* f = nullptr;
    uint32_t len = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.file);
        if (r.type == 0)
            continue;
        ASSERT_EQ(r.yields != 0 ? VESK_OK : VESK_ERR_OPERATE_FAIL, table.get(r.type, r.small, &f, &len));
        if (r.yields != 0) {
            EXPECT_EQ(sizeof(*f) + r.yields, len);
            EXPECT_EQ(r.yields, f->uiLength);
            EXPECT_EQ((r.yields - 1) & 0xFF, reinterpret_cast<uint8_t*>(f + 1)[r.yields - 1]);
        }
    }
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, table.get(VESK_LOGO_NO_VIDEO, false, nullptr, &len));

    // A reader of a camera not connected gets that logo instead of frames.
    vesk_test::capture_stdout([&] { logo_table().load(root.c_str()); });
    vesk_utility_av_mng mng;
    vesk_test::consumer c(mng);
    ASSERT_EQ(VESK_OK, c.get(&f));
    EXPECT_EQ(800u, f->uiLength);
    EXPECT_EQ(VESK_OK, c.put(f));
    vesk_test::capture_stdout([] { load_logo_frame(); }); // the process's table back as init loaded it
}

TEST_P(AvReadTest, StartsAtTheNewestKeyFrameAndReadsInOrderAcrossBlocks)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024); // about 6 frames per block
    for (uint32_t n = 0; n < 40; n++)
        in.put(n, n % 25 == 0 ? VESK_FRAME_TYPE_I : 2);
    consumer c(mng, GetParam());
    EXPECT_EQ(25u, c.next());
    for (uint32_t n = 26; n < 40; n++) { // no wait while the next frame is there
        ASSERT_EQ(n, c.next());
        EXPECT_EQ(n == 39 && !c.by_note ? 33u : 0u, c.interval) << n;
    }
    EXPECT_EQ(~0u, c.next()) << "nothing new yet";
    for (uint32_t n = 40; n < 60; n++)
        in.put(n, n == 50 ? VESK_FRAME_TYPE_I : n == 55 ? VESK_FRAME_TYPE_KEY2 : 2);
    for (uint32_t n = 40; n < 60; n++)
        ASSERT_EQ(n, c.next());

    consumer late(mng, GetParam());
    EXPECT_EQ(55u, late.next()) << "the second key type is newer than the I frame";
    feed audio(mng, 1024, VESK_AV_STREAM_AUDIO);
    for (uint32_t n = 0; n < 8; n++)
        audio.put(n, 2);
    EXPECT_EQ(7u, late.next(VESK_AV_STREAM_AUDIO)) << "audio starts at the newest frame";
}

TEST_P(AvReadTest, FrameSplitOverThreeBlocksArrivesAsOneCopyOrNoResource)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024);
    in.put(1, VESK_FRAME_TYPE_I, 2500);
    in.put(2, 2, 50);
    ASSERT_EQ("9527,9528,9529", list_ids(mng, k_ipc, 0));
    consumer c(mng, GetParam());
    _tagVeskFrameHeader *f = nullptr, *again = nullptr;
    vesk_test::capture_stdout([&] {
        vesk_fault_arm(1, vesk_fault_scope::calling_thread, true);
        EXPECT_EQ(VESK_ERR_NO_RESOURCE, c.get(&f)) << "no memory for the copy";
        vesk_fault_disarm();
    });
    ASSERT_EQ(VESK_OK, c.get(&f));
    EXPECT_EQ(1u, f->uiFrameNo);
    EXPECT_EQ(2500u, f->uiLength);
    EXPECT_TRUE(intact(f));
    ASSERT_EQ(VESK_OK, c.get(&again));
    EXPECT_EQ(f, again) << "asked again while held: the same copy";
    EXPECT_EQ(VESK_OK, c.put(f));
    EXPECT_EQ(2u, c.next());
}

TEST_P(AvReadTest, GapsAndBrokenContinuationsResyncOnTheNextKeyFrameOnVideoOnly)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 5; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    consumer c(mng, GetParam());
    for (uint32_t n = 0; n < 5; n++)
        ASSERT_EQ(n, c.next());
    in.put(7, 2);
    in.put(8, 2);
    EXPECT_EQ(~0u, c.next()) << "no key frame to resync on yet";
    in.put(9, VESK_FRAME_TYPE_KEY2);
    in.put(10, 2);
    vesk_test::capture_stdout([&] { EXPECT_EQ(9u, c.next()); });
    EXPECT_EQ(10u, c.next());
    if (c.by_note) {
        EXPECT_EQ(4u, c.note.dropped);
    }

    // A continuation whose tag no longer matches: the piece was lost, the frame goes.
    in.put(11, 2, 2000);
    mng.chn_blocks(k_ipc).lists[0].tail->block->lead_tag ^= 0x5A; // the last of its three pieces
    in.put(12, 2);
    in.put(13, VESK_FRAME_TYPE_I);
    vesk_test::capture_stdout([&] { EXPECT_EQ(13u, c.next()); });

    // Analytics frames stand alone: a gap is counted, nothing skipped.
    feed smart(mng, 1024, VESK_AV_STREAM_SMART);
    consumer ivs(mng, GetParam());
    smart.put(1, 2);
    EXPECT_EQ(1u, ivs.next(VESK_AV_STREAM_SMART));
    smart.put(4, 2);
    EXPECT_EQ(4u, ivs.next(VESK_AV_STREAM_SMART));
    if (ivs.by_note) {
        EXPECT_EQ(2u, ivs.note.dropped);
    }
}

TEST_P(AvReadTest, HeldBlockSurvivesRotationAndReadingResumesAfterRotatedOutBlocks)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 20; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    av_writer_close(&mng, &in.w);
    consumer c(mng, GetParam());
    _tagVeskFrameHeader* f = nullptr;
    ASSERT_EQ(VESK_OK, c.get(&f));
    mng.set_av_max_cache(1); // every unreferenced block is under pressure
    const vesk_av_time later = at(av_now(), 20000);
    mng.rotate_pass(later);
    EXPECT_EQ("9527", list_ids(mng, k_ipc, 0)) << "only the held block stays";
    EXPECT_TRUE(intact(f));
    EXPECT_EQ(VESK_OK, c.put(f));
    mng.rotate_pass(later);
    EXPECT_EQ("", list_ids(mng, k_ipc, 0));

    for (uint32_t n = 30; n < 34; n++)
        in.put(n, n == 32 ? VESK_FRAME_TYPE_I : 2);
    vesk_test::capture_stdout([&] { EXPECT_EQ(32u, c.next()) << "frames 1-31 are gone: on to the key frame"; });
    if (c.by_note) {
        EXPECT_EQ(31u, c.note.dropped);
    }
    EXPECT_EQ(33u, c.next());
}

// A snap user keeps the newest key frame whole, here over three blocks, on either video stream.
TEST(AvReaderTest, FinishedBlocksLoseTheReadersBitSoTheyGoWithoutPressure)
{
    for (vesk_av_stream_type type : {VESK_AV_STREAM_MAIN, VESK_AV_STREAM_SUB}) {
        vesk_utility_av_mng mng;
        feed in(mng, 1024, type);
        consumer c(mng);
        consumer snap(mng, false, VESK_AV_READER_SNAP_USER);
        EXPECT_EQ(~0u, c.next(type)); // takes the user bit
        EXPECT_EQ(~0u, snap.next(type));
        in.put(0, VESK_FRAME_TYPE_I, 2500);
        for (uint32_t n = 1; n < 20; n++)
            in.put(n, 2);
        const vesk_av_time later = at(av_now(), 1000);
        mng.rotate_pass(later);
        EXPECT_EQ("9527,9528,9529,9530,9531,9532", list_ids(mng, k_ipc, type)) << "unread";
        for (uint32_t n = 0; n < 20; n++)
            ASSERT_EQ(n, c.next(type));
        mng.rotate_pass(later);
        EXPECT_EQ("9527,9528,9529,9532", list_ids(mng, k_ipc, type)) << "the key frame, and the open block";
    }
}

TEST(AvReaderTest, InvalidCallsAreRefusedAndARemapResetsTheHistory)
{
    vesk_utility_av_mng mng;
    vesk_av_reader* unset = mng.new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 1);
    _tagVeskFrameHeader* f = nullptr;
    uint32_t next = 0;
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 3; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    consumer c(mng);
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, unset->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next)) << "no channel yet";
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, c.r->get_frame(VESK_AV_STREAM_NUM, &f, 0, &next));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, c.r->reset_history(VESK_AV_STREAM_NUM));
        EXPECT_EQ(VESK_ERR_OPERATE_FAIL, c.r->set_chn(k_av_chn_num));
    });
    EXPECT_EQ(0u, c.next()) << "the channel stays";
    EXPECT_EQ(VESK_OK, mng.delete_av_reader(unset, __FILE__, __func__));
    // Recorder channel 3 now shows camera 5: the history of camera 3 is dropped.
    ASSERT_EQ(VESK_OK, mng.switch_ivr_ch(k_ipc, 5));
    feed five(mng, 1024, VESK_AV_STREAM_MAIN, 5);
    five.put(900, VESK_FRAME_TYPE_I);
    EXPECT_EQ(900u, c.next());
}

TEST(AvReaderTest, BlocksAreHandedOutWholeOnceFinalOrWhenForced)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024, VESK_AV_STREAM_AUDIO);
    for (uint32_t n = 0; n < 8; n++)
        in.put(n, 2);
    consumer c(mng);
    vesk_av_reader* r = c.r;
    vesk_IPC_stream_block_head* b = nullptr;
    ASSERT_EQ(VESK_OK, r->get_block(VESK_AV_STREAM_AUDIO, &b, 0));
    EXPECT_EQ(6u, b->node_num);
    EXPECT_EQ(VESK_OK, r->put_block(VESK_AV_STREAM_AUDIO, b));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, r->get_block(VESK_AV_STREAM_AUDIO, &b, 0)) << "still receiving, young";
    ASSERT_EQ(VESK_OK, r->get_block(VESK_AV_STREAM_AUDIO, &b, 1));
    EXPECT_EQ(2u, b->node_num);
    EXPECT_EQ(VESK_OK, r->put_block(VESK_AV_STREAM_AUDIO, b));
    EXPECT_TRUE(r->is_free());
}

TEST(AvReaderDeathTest, ReferenceMisuseIsFatal)
{
    using misuse = std::function<void(consumer&, _tagVeskFrameHeader*)>;
    struct row {
        bool by_note;
        misuse fn;
        const char* message;
    };
    const row rows[] = {
        {false, [](consumer& c, _tagVeskFrameHeader* f) { c.r->put_frame(VESK_AV_STREAM_MAIN, f + 1); }, "Not Match"},
        {false, [](consumer& c, _tagVeskFrameHeader*) { c.r->reset_history(VESK_AV_STREAM_MAIN); },
            "StreamType:0 Reference Resouce Not Empty, Can't Reset"},
        {false, [](consumer& c, _tagVeskFrameHeader*) { c.r->set_chn(4); }, "Can't Change Chn"},
        {false, [](consumer& c, _tagVeskFrameHeader*) { c.r->put_block(VESK_AV_STREAM_MAIN, nullptr); },
            "Reference Block Not Match"},
        {true,
            [](consumer& c, _tagVeskFrameHeader* f) { c.api.get_frame(k_ipc, VESK_AV_STREAM_MAIN, &c.note, &f, true); },
            "release it first"},
        {true,
            [](consumer& c, _tagVeskFrameHeader*) {
                vesk_read_av_list_note copy = c.note;
                c.api.rel_frame(&c.note);
                c.api.rel_frame(&copy);
            },
            "Not Held"},
    };
    for (const row& one : rows) {
        VESK_EXPECT_FATAL(
            {
                vesk_utility_av_mng mng;
                feed in(mng, 1024);
                in.put(0, VESK_FRAME_TYPE_I);
                consumer c(mng, one.by_note);
                _tagVeskFrameHeader* f = nullptr;
                c.get(&f);
                one.fn(c, f);
            },
            one.message);
    }
}

TEST(AvNoteTest, ExportedCallsMapStreamsAndReleaseSeveralNotes)
{
    constexpr uint32_t ch = 29; // nothing else in this process feeds it
    // One large block each, receiving until closed: rotation keeps it.
    vesk_av_block_writer w[3];
    const vesk_av_stream_type types[3] = {VESK_AV_STREAM_MAIN, VESK_AV_STREAM_SUB, VESK_AV_STREAM_SMART};
    const uint8_t payload[64] = {};
    for (uint32_t i = 0; i < 3; i++) {
        ASSERT_EQ(VESK_OK, vesk_utility_av_writer_init(&w[i], ch, types[i], 0x9110C, 64 * 1024, 64));
        for (uint32_t n = 1; n <= 3; n++) {
            const _tagVeskFrameHeader h = vesk_test::frame_head(100 * i + n, n == 1 ? VESK_FRAME_TYPE_I : 2, 64);
            ASSERT_EQ(VESK_OK, vesk_utility_av_writer_put(&w[i], &h, payload));
        }
    }
    vesk_read_av_list_note notes[4] = {};
    _tagVeskFrameHeader* f[4] = {};
    ASSERT_EQ(VESK_OK, vesk_utility_first_get_frame(ch, VESK_ENC_STR_MAIN, &notes[0], &f[0]));
    ASSERT_EQ(VESK_OK, vesk_utility_get_frame(ch, VESK_ENC_STR_THIRD, &notes[1], &f[1]));
    ASSERT_EQ(VESK_OK, vesk_utility_ivs_first_get_frame(ch, &notes[2], &f[2]));
    EXPECT_EQ(1u, f[0]->uiFrameNo);
    EXPECT_EQ(101u, f[1]->uiFrameNo) << "the third stream is carried as the sub stream";
    EXPECT_EQ(203u, f[2]->uiFrameNo) << "analytics start at the newest frame";
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_OPERATE_FAIL, vesk_utility_ivs_get_frame(ch + 1, &notes[3], &f[3]));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_frame(32, VESK_ENC_STR_MAIN, &notes[3], &f[3]));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_frame(ch, VESK_ENC_STR_INVALID, &notes[3], &f[3]));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_frame(ch, VESK_ENC_STR_MAIN, nullptr, &f[3]));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_rel_frame_multy(nullptr, 1));
    });
    ASSERT_EQ(VESK_OK, vesk_utility_rel_frame_multy(notes, 4));
    ASSERT_EQ(VESK_OK, vesk_utility_get_frame(ch, VESK_ENC_STR_MAIN, &notes[0], &f[0]));
    EXPECT_EQ(2u, f[0]->uiFrameNo) << "the position survives the release";
    EXPECT_EQ(VESK_OK, vesk_utility_rel_frame(&notes[0]));
    for (vesk_av_block_writer& one : w)
        vesk_utility_av_writer_close(&one);
}
