// The A/V reader against a private manager fed by the block writer: start point, order across
// blocks, joined split frames, resync after losses, rotation around readers, block reading,
// remapping and the fatal misuses.
#include <gtest/gtest.h>

#include <functional>

#include "av_test_blocks.h"
#include "test_support.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;
using vesk_test::feed;
using vesk_test::intact;
using vesk_test::list_ids;
using vesk_test::read_one;

namespace
{

constexpr uint32_t k_ipc = 3;

vesk_av_reader* new_reader(vesk_utility_av_mng& mng, vesk_av_reader_usr_type usr = VESK_AV_READER_STREAM_USER)
{
    vesk_av_reader* r = mng.new_av_reader(VESK_AV_READER_FREE_RUN, usr, 0x77);
    r->set_chn(k_ipc);
    return r;
}

} // namespace

TEST(AvReaderTest, StartsAtNewestKeyFrameAndReadsInOrderAcrossBlocks)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024); // about 6 frames per block
    for (uint32_t n = 0; n < 40; n++)
        in.put(n, n % 25 == 0 ? VESK_FRAME_TYPE_I : 2);
    vesk_av_reader* r = new_reader(mng);
    uint32_t interval = 0;
    EXPECT_EQ(25u, read_one(r, VESK_AV_STREAM_MAIN, &interval));
    EXPECT_EQ(0u, interval) << "free run: the next frame is there";
    for (uint32_t n = 26; n < 40; n++)
        ASSERT_EQ(n, read_one(r, VESK_AV_STREAM_MAIN, &interval));
    EXPECT_EQ(33u, interval) << "nothing newer: the last frame interval";
    EXPECT_EQ(~0u, read_one(r));
    for (uint32_t n = 40; n < 60; n++)
        in.put(n, n == 50 ? VESK_FRAME_TYPE_I : n == 55 ? VESK_FRAME_TYPE_KEY2 : 2);
    for (uint32_t n = 40; n < 60; n++)
        ASSERT_EQ(n, read_one(r));

    vesk_av_reader* late = new_reader(mng);
    EXPECT_EQ(55u, read_one(late)) << "the second key type is newer than the I frame";
    vesk_av_reader* audio = new_reader(mng);
    EXPECT_EQ(~0u, read_one(audio, VESK_AV_STREAM_AUDIO));
    EXPECT_TRUE(r->is_free());
    for (vesk_av_reader* x : {r, late, audio})
        EXPECT_EQ(VESK_OK, mng.delete_av_reader(x, __FILE__, __func__));
}

TEST(AvReaderTest, FrameSplitOverThreeBlocksArrivesAsOneCopy)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024);
    in.put(1, VESK_FRAME_TYPE_I, 2500);
    in.put(2, 2, 50);
    ASSERT_EQ("9527,9528,9529", list_ids(mng, k_ipc, 0));
    vesk_av_reader* r = new_reader(mng);
    _tagVeskFrameHeader *f = nullptr, *again = nullptr;
    uint32_t next = 0;
    ASSERT_EQ(VESK_OK, r->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next));
    EXPECT_EQ(1u, f->uiFrameNo);
    EXPECT_EQ(2500u, f->uiLength);
    EXPECT_TRUE(intact(f));
    EXPECT_EQ(0u, next);
    ASSERT_EQ(VESK_OK, r->get_frame(VESK_AV_STREAM_MAIN, &again, 0, &next));
    EXPECT_EQ(f, again) << "asked again before it is put: the same copy, one interval later";
    EXPECT_EQ(40u, next);
    EXPECT_FALSE(r->is_free()) << "the copy counts";
    EXPECT_EQ(VESK_OK, r->put_frame(VESK_AV_STREAM_MAIN, f));
    EXPECT_TRUE(r->is_free());
    EXPECT_EQ(2u, read_one(r));
    mng.delete_av_reader(r, __FILE__, __func__);
}

TEST(AvReaderTest, GapsAndBrokenContinuationsResyncOnTheNextKeyFrameAndLogTheDrop)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 5; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    vesk_av_reader* r = new_reader(mng);
    for (uint32_t n = 0; n < 5; n++)
        ASSERT_EQ(n, read_one(r));
    in.put(7, 2);
    in.put(8, 2);
    EXPECT_EQ(~0u, read_one(r)) << "no key frame to resync on yet";
    in.put(9, VESK_FRAME_TYPE_KEY2);
    in.put(10, 2);
    uint32_t got = 0;
    std::string out = vesk_test::capture_stdout([&] { got = read_one(r); });
    EXPECT_EQ(9u, got);
    EXPECT_NE(std::string::npos, out.find("ch_3 last_ref_blk[9527_4/")) << out;
    EXPECT_NE(std::string::npos, out.find("Fno[9] type_0x12, drop 5 frames!")) << out;
    EXPECT_EQ(10u, read_one(r));

    // A continuation whose tag no longer matches: the piece was lost, the frame goes.
    in.put(11, 2, 2000);
    mng.chn_blocks(k_ipc).lists[0].tail->block->lead_tag ^= 0x5A; // the last of its three pieces
    in.put(12, 2);
    in.put(13, VESK_FRAME_TYPE_I);
    out = vesk_test::capture_stdout([&] { got = read_one(r); });
    EXPECT_EQ(13u, got);
    EXPECT_NE(std::string::npos, out.find("Block drop")) << out;
    EXPECT_NE(std::string::npos, out.find("ch_3 jump [9528_3] to [9530_0]")) << out;

    // A new reader whose newest key frame is broken drops it once, not on every call.
    in.put(14, VESK_FRAME_TYPE_I, 2000);
    mng.chn_blocks(k_ipc).lists[0].tail->block->lead_tag ^= 0x5A;
    in.put(15, 2);
    vesk_av_reader* fresh = new_reader(mng);
    out = vesk_test::capture_stdout([&] {
        for (int call = 0; call < 3; call++)
            EXPECT_EQ(~0u, read_one(fresh)) << call;
    });
    EXPECT_EQ(1, vesk_test::count_of(out, "Block drop")) << out;
    EXPECT_EQ(1, vesk_test::count_of(out, "jump [")) << out;
    for (vesk_av_reader* x : {r, fresh})
        mng.delete_av_reader(x, __FILE__, __func__);
}

TEST(AvReaderTest, HeldBlocksStayAndGoOnceReleased)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 20; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    av_writer_close(&mng, &in.w);
    vesk_av_reader* r = new_reader(mng);
    _tagVeskFrameHeader* f = nullptr;
    uint32_t next = 0;
    ASSERT_EQ(VESK_OK, r->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next));
    mng.set_av_max_cache(1); // every unreferenced block is under pressure
    const vesk_av_time later = at(av_now(), 20000);
    mng.rotate_pass(later);
    EXPECT_EQ("9527", list_ids(mng, k_ipc, 0)) << "only the held block stays";
    EXPECT_TRUE(intact(f));
    EXPECT_EQ(VESK_OK, r->put_frame(VESK_AV_STREAM_MAIN, f));
    mng.rotate_pass(later);
    EXPECT_EQ("", list_ids(mng, k_ipc, 0));
    in.put(30, VESK_FRAME_TYPE_I);
    EXPECT_EQ(30u, read_one(r)) << "resumes after the rotated-out blocks";
    mng.delete_av_reader(r, __FILE__, __func__);
}

TEST(AvReaderTest, FinishedBlocksLoseTheReadersBitSoTheyGoWithoutPressure)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024);
    vesk_av_reader* r = new_reader(mng);
    vesk_av_reader* snap = new_reader(mng, VESK_AV_READER_SNAP_USER);
    EXPECT_EQ(~0u, read_one(r)); // takes the user bit
    EXPECT_EQ(~0u, read_one(snap));
    for (uint32_t n = 0; n < 20; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    const vesk_av_time later = at(av_now(), 1000);
    mng.rotate_pass(later);
    EXPECT_EQ("9527,9528,9529,9530", list_ids(mng, k_ipc, 0)) << "the stream user has not read them";
    for (uint32_t n = 0; n < 20; n++)
        ASSERT_EQ(n, read_one(r));
    mng.rotate_pass(later);
    EXPECT_EQ("9527,9530", list_ids(mng, k_ipc, 0)) << "the snap user keeps the newest key block; 9530 is open";
    mng.delete_av_reader(r, __FILE__, __func__);
    mng.delete_av_reader(snap, __FILE__, __func__);
}

TEST(AvReaderTest, InvalidCallsAndRemapResetTheRightWay)
{
    vesk_utility_av_mng mng;
    vesk_av_reader* r = mng.new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 1);
    _tagVeskFrameHeader* f = nullptr;
    uint32_t next = 0;
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, r->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next)) << "no channel yet";
    EXPECT_EQ(5000u, next);
    r->set_chn(k_ipc);
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, r->get_frame(VESK_AV_STREAM_NUM, &f, 0, &next));
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 3; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    EXPECT_EQ(0u, read_one(r));
    // Recorder channel 3 now shows camera 5: the history of camera 3 is dropped.
    ASSERT_EQ(VESK_OK, mng.switch_ivr_ch(k_ipc, 5));
    feed five(mng, 1024, VESK_AV_STREAM_MAIN, 5);
    five.put(900, VESK_FRAME_TYPE_I);
    EXPECT_EQ(900u, read_one(r));
    mng.delete_av_reader(r, __FILE__, __func__);
}

TEST(AvReaderTest, BlocksAreHandedOutWholeOnceFinalOrWhenForced)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024, VESK_AV_STREAM_AUDIO);
    for (uint32_t n = 0; n < 8; n++)
        in.put(n, 2);
    vesk_av_reader* r = new_reader(mng);
    vesk_IPC_stream_block_head *b = nullptr, *again = nullptr;
    ASSERT_EQ(VESK_OK, r->get_block(VESK_AV_STREAM_AUDIO, &b, 0));
    EXPECT_EQ(6u, b->node_num);
    EXPECT_EQ(VESK_OK, r->get_block(VESK_AV_STREAM_AUDIO, &again, 0));
    EXPECT_EQ(b, again);
    EXPECT_EQ(VESK_OK, r->put_block(VESK_AV_STREAM_AUDIO, b));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, r->get_block(VESK_AV_STREAM_AUDIO, &b, 0)) << "still receiving, young";
    ASSERT_EQ(VESK_OK, r->get_block(VESK_AV_STREAM_AUDIO, &b, 1));
    EXPECT_EQ(2u, b->node_num);
    EXPECT_EQ(VESK_OK, r->put_block(VESK_AV_STREAM_AUDIO, b));
    in.put(8, 2);
    ASSERT_EQ(VESK_OK, r->get_block(VESK_AV_STREAM_AUDIO, &b, 1));
    EXPECT_EQ(3u, b->node_num) << "a growing block is handed out again";
    EXPECT_EQ(VESK_OK, r->put_block(VESK_AV_STREAM_AUDIO, b));
    EXPECT_TRUE(r->is_free());
    mng.delete_av_reader(r, __FILE__, __func__);
}

TEST(AvReaderDeathTest, ReferenceMisuseIsFatal)
{
    using misuse = std::function<void(vesk_av_reader*, _tagVeskFrameHeader*)>;
    const std::pair<misuse, const char*> rows[] = {
        {[](vesk_av_reader* r, _tagVeskFrameHeader* f) { r->put_frame(VESK_AV_STREAM_MAIN, f + 1); }, "Not Match"},
        {[](vesk_av_reader* r, _tagVeskFrameHeader*) { r->reset_history(VESK_AV_STREAM_MAIN); },
            "StreamType:0 Reference Resouce Not Empty, Can't Reset"},
        {[](vesk_av_reader* r, _tagVeskFrameHeader*) { r->set_chn(4); }, "Can't Change Chn"},
        {[](vesk_av_reader* r, _tagVeskFrameHeader*) { r->put_block(VESK_AV_STREAM_MAIN, nullptr); },
            "Reference Block Not Match"},
    };
    for (const auto& row : rows) {
        VESK_EXPECT_FATAL(
            {
                vesk_utility_av_mng mng;
                feed in(mng, 1024);
                in.put(0, VESK_FRAME_TYPE_I);
                vesk_av_reader* r = new_reader(mng);
                _tagVeskFrameHeader* f = nullptr;
                uint32_t next = 0;
                r->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next);
                row.first(r, f);
            },
            row.second);
    }
}
