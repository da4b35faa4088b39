// Reading through both APIs (reader object, position note): start point, order, joined split
// frames, resync after losses, held frames under rotation; then the rest of each API.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "av_test_blocks.h"
#include "core/vesk_utility_fault.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;
using vesk_test::consumer;
using vesk_test::feed;
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

} // namespace

TEST_P(AvReadTest, StartsAtTheNewestKeyFrameAndReadsInOrderAcrossBlocks)
{
    vesk_utility_av_mng mng;
    feed in(mng, 1024); // about 6 frames per block
    for (uint32_t n = 0; n < 40; n++)
        in.put(n, n % 25 == 0 ? VESK_FRAME_TYPE_I : 2);
    consumer c(mng, GetParam());
    EXPECT_EQ(25u, c.next());
    uint32_t interval = 0; // a reader's wait: 0 while the next frame is there, then the frame interval
    for (uint32_t n = 26; n < 40; n++) {
        ASSERT_EQ(n, c.next(VESK_AV_STREAM_MAIN, &interval));
        EXPECT_EQ(n == 39 && !c.by_note ? 33u : 0u, interval) << n;
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
        EXPECT_EQ(5000u, next);
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

// The exported frame calls: stream selectors, parameter checks and releasing several notes.
TEST(AvNoteTest, ExportedCallsMapStreamsAndReleaseSeveralNotes)
{
    constexpr uint32_t ch = 29; // nothing else in this process feeds it
    // One large block each, still receiving until closed, so rotation keeps everything.
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
    EXPECT_EQ(VESK_OK, vesk_utility_ivs_rel_frame_multy(notes, 1));
    EXPECT_EQ(VESK_OK, vesk_utility_rel_frame(&notes[0]));
    for (vesk_av_block_writer& one : w)
        vesk_utility_av_writer_close(&one);
}
