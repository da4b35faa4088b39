// The frame API (position notes) against a private manager, and its exported wrappers.
#include <gtest/gtest.h>

#include "av_test_blocks.h"
#include "test_support.h"
#include "av/vesk_utility_av_note.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;
using vesk_test::feed;
using vesk_test::intact;
using vesk_test::list_ids;

namespace
{

constexpr uint32_t k_ipc = 3;

uint32_t ref_cnt_of(vesk_utility_av_mng& mng, uint32_t type, uint64_t id)
{
    vesk_av_chn_blocks& chn = mng.chn_blocks(k_ipc);
    pthread_mutex_lock(&chn.lock);
    uint32_t n = ~0u;
    for (vesk_av_block* b = chn.lists[type].head; b != nullptr; b = b->next)
        if (b->blk_id == id)
            n = b->ref_cnt;
    pthread_mutex_unlock(&chn.lock);
    return n;
}

// Gets, checks and releases one frame; its number, or ~0u when nothing came.
uint32_t next_of(vesk_av_note_reader& api, vesk_read_av_list_note& note, uint32_t type = VESK_AV_STREAM_MAIN)
{
    _tagVeskFrameHeader* f = nullptr;
    if (api.get_frame(k_ipc, type, &note, &f, false) != VESK_OK)
        return ~0u;
    EXPECT_TRUE(intact(f)) << "frame " << f->uiFrameNo;
    EXPECT_EQ(sizeof(*f) + f->uiLength, note.length);
    const uint32_t fno = f->uiFrameNo;
    EXPECT_EQ(VESK_OK, api.rel_frame(&note));
    return fno;
}

} // namespace

TEST(AvNoteTest, StartsAtNewestKeyFrameContinuesInOrderAndHoldsTheBlockWhileHeld)
{
    vesk_utility_av_mng mng;
    vesk_av_note_reader api(&mng);
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 40; n++)
        in.put(n, n % 25 == 0 ? VESK_FRAME_TYPE_I : 2);
    vesk_read_av_list_note note {};
    _tagVeskFrameHeader* f = nullptr;
    ASSERT_EQ(VESK_OK, api.get_frame(k_ipc, VESK_AV_STREAM_MAIN, &note, &f, false));
    EXPECT_EQ(25u, f->uiFrameNo);
    EXPECT_EQ(1u, ref_cnt_of(mng, 0, note.blk_id)) << "the frame is handed out in place";
    _tagVeskFrameHeader* again = nullptr;
    ASSERT_EQ(VESK_OK, api.get_frame(k_ipc, VESK_AV_STREAM_MAIN, &note, &again, false));
    EXPECT_EQ(f, again) << "asked again while held: the same frame";
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, api.get_frame(k_ipc, VESK_AV_STREAM_SUB, &note, &again, false));
    EXPECT_EQ(VESK_OK, api.rel_frame(&note));
    EXPECT_EQ(0u, ref_cnt_of(mng, 0, note.blk_id));
    EXPECT_EQ(VESK_OK, api.rel_frame(&note)) << "nothing held: nothing to do";
    EXPECT_EQ(0u, ref_cnt_of(mng, 0, note.blk_id));

    for (uint32_t n = 26; n < 40; n++)
        ASSERT_EQ(n, next_of(api, note));
    EXPECT_EQ(~0u, next_of(api, note)) << "nothing new yet";
    for (uint32_t n = 40; n < 60; n++)
        in.put(n, n == 50 ? VESK_FRAME_TYPE_I : n == 55 ? VESK_FRAME_TYPE_KEY2 : 2);
    for (uint32_t n = 40; n < 60; n++)
        ASSERT_EQ(n, next_of(api, note));
    EXPECT_EQ(0u, note.dropped);

    ASSERT_EQ(VESK_OK, api.get_frame(k_ipc, VESK_AV_STREAM_MAIN, &note, &f, true));
    EXPECT_EQ(55u, f->uiFrameNo) << "starting over: the newest key frame, of the second type here";
    EXPECT_EQ(VESK_OK, api.rel_frame(&note));

    feed audio(mng, 1024, VESK_AV_STREAM_AUDIO);
    for (uint32_t n = 0; n < 8; n++)
        audio.put(n, 2);
    EXPECT_EQ(7u, next_of(api, note, VESK_AV_STREAM_AUDIO)) << "another stream starts over, audio at the newest";
    EXPECT_EQ(VESK_AV_STREAM_AUDIO, note.str_type);
}

TEST(AvNoteTest, SplitFrameIsOneCopyAndGapsResyncOnVideoOnly)
{
    vesk_utility_av_mng mng;
    vesk_av_note_reader api(&mng);
    feed in(mng, 1024);
    in.put(1, VESK_FRAME_TYPE_I, 2500); // over three blocks
    in.put(2, 2, 50);
    ASSERT_EQ("9527,9528,9529", list_ids(mng, k_ipc, 0));
    vesk_read_av_list_note note {};
    _tagVeskFrameHeader* f = nullptr;
    ASSERT_EQ(VESK_OK, api.get_frame(k_ipc, VESK_AV_STREAM_MAIN, &note, &f, false));
    EXPECT_EQ(2500u, f->uiLength);
    EXPECT_TRUE(intact(f));
    EXPECT_EQ(2u, note.held) << "a joined copy";
    EXPECT_EQ(0u, ref_cnt_of(mng, 0, 9527)) << "a copy holds nothing of the cache";
    EXPECT_EQ(VESK_OK, api.rel_frame(&note));
    EXPECT_EQ(2u, next_of(api, note));

    // Video: a gap waits for a key frame, then jumps to it and counts what was passed.
    in.put(5, 2);
    EXPECT_EQ(~0u, next_of(api, note));
    in.put(6, VESK_FRAME_TYPE_KEY2);
    uint32_t got = 0;
    const std::string out = vesk_test::capture_stdout([&] { got = next_of(api, note); });
    EXPECT_EQ(6u, got);
    EXPECT_NE(std::string::npos, out.find("ch_3 StreamType:0 Fno[2] to blk[")) << out;
    EXPECT_NE(std::string::npos, out.find("Fno[6] type_0x12, drop 3 frames!")) << out;
    EXPECT_EQ(3u, note.dropped);

    // Analytics frames stand alone: a gap is counted, nothing skipped.
    feed smart(mng, 1024, VESK_AV_STREAM_SMART);
    smart.put(1, 2);
    vesk_read_av_list_note ivs {};
    EXPECT_EQ(1u, next_of(api, ivs, VESK_AV_STREAM_SMART));
    smart.put(4, 2);
    EXPECT_EQ(4u, next_of(api, ivs, VESK_AV_STREAM_SMART));
    EXPECT_EQ(2u, ivs.dropped);
}

TEST(AvNoteTest, HeldBlockSurvivesRotationAndTheNoteResumesAfterRotatedOutBlocks)
{
    vesk_utility_av_mng mng;
    vesk_av_note_reader api(&mng);
    feed in(mng, 1024);
    for (uint32_t n = 0; n < 20; n++)
        in.put(n, n == 0 ? VESK_FRAME_TYPE_I : 2);
    av_writer_close(&mng, &in.w);
    vesk_read_av_list_note note {};
    _tagVeskFrameHeader* f = nullptr;
    ASSERT_EQ(VESK_OK, api.get_frame(k_ipc, VESK_AV_STREAM_MAIN, &note, &f, false));
    const vesk_av_time later = at(av_now(), 20000);
    mng.rotate_pass(later);
    EXPECT_EQ("9527", list_ids(mng, k_ipc, 0)) << "the note takes no user bit, but its held block stays";
    EXPECT_TRUE(intact(f));
    EXPECT_EQ(VESK_OK, api.rel_frame(&note));
    mng.rotate_pass(later);
    EXPECT_EQ("", list_ids(mng, k_ipc, 0));

    for (uint32_t n = 30; n < 34; n++)
        in.put(n, n == 32 ? VESK_FRAME_TYPE_I : 2);
    EXPECT_EQ(32u, next_of(api, note)) << "frames 1-31 are gone: on to the next key frame";
    EXPECT_EQ(31u, note.dropped);
    EXPECT_EQ(33u, next_of(api, note));
}

TEST(AvNoteDeathTest, StartingOverOrReleasingWhatIsNotHeldIsFatal)
{
    const auto holding = [](vesk_utility_av_mng& mng, vesk_read_av_list_note& note) {
        feed in(mng, 1024);
        in.put(0, VESK_FRAME_TYPE_I);
        _tagVeskFrameHeader* f = nullptr;
        vesk_av_note_reader(&mng).get_frame(k_ipc, VESK_AV_STREAM_MAIN, &note, &f, false);
        return f;
    };
    VESK_EXPECT_FATAL(
        {
            vesk_utility_av_mng mng;
            vesk_read_av_list_note note {};
            _tagVeskFrameHeader* f = holding(mng, note);
            vesk_av_note_reader(&mng).get_frame(k_ipc, VESK_AV_STREAM_MAIN, &note, &f, true);
        },
        "release it first");
    VESK_EXPECT_FATAL(
        {
            vesk_utility_av_mng mng;
            vesk_read_av_list_note note {};
            holding(mng, note);
            vesk_read_av_list_note copy = note;
            vesk_av_note_reader(&mng).rel_frame(&note);
            vesk_av_note_reader(&mng).rel_frame(&copy);
        },
        "Not Held");
}

// The exported calls: stream selectors, parameter checks and releasing several notes at once.
TEST(AvNoteTest, ExportedCallsMapStreamsAndReleaseSeveralNotes)
{
    constexpr uint32_t ch = 29; // nothing else in this process feeds it
    // One large block each, still receiving until closed, so rotation keeps everything.
    vesk_av_block_writer w[3];
    const vesk_av_stream_type types[3] = {VESK_AV_STREAM_MAIN, VESK_AV_STREAM_SUB, VESK_AV_STREAM_SMART};
    for (uint32_t i = 0; i < 3; i++)
        ASSERT_EQ(VESK_OK, vesk_utility_av_writer_init(&w[i], ch, types[i], 0x9110C, 64 * 1024, 64));
    const uint8_t payload[64] = {};
    for (uint32_t n = 1; n <= 3; n++) {
        for (uint32_t i = 0; i < 3; i++) {
            _tagVeskFrameHeader h {};
            h.uiStartId = VESK_FRAME_STARTCODE;
            h.uiFrameType = n == 1 ? VESK_FRAME_TYPE_I : 2;
            h.uiFrameNo = 100 * i + n;
            h.uiLength = sizeof(payload);
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
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, vesk_utility_ivs_get_frame(ch + 1, &notes[3], &f[3]));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_frame(32, VESK_ENC_STR_MAIN, &notes[3], &f[3]));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_frame(ch, VESK_ENC_STR_INVALID, &notes[3], &f[3]));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_get_frame(ch, VESK_ENC_STR_MAIN, nullptr, &f[3]));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_rel_frame_multy(nullptr, 1));

    ASSERT_EQ(VESK_OK, vesk_utility_rel_frame_multy(notes, 4));
    for (const vesk_read_av_list_note& n : notes)
        EXPECT_EQ(0u, n.held);
    ASSERT_EQ(VESK_OK, vesk_utility_get_frame(ch, VESK_ENC_STR_MAIN, &notes[0], &f[0]));
    EXPECT_EQ(2u, f[0]->uiFrameNo) << "the position survives the release";
    EXPECT_EQ(VESK_OK, vesk_utility_ivs_rel_frame_multy(notes, 1));
    EXPECT_EQ(VESK_OK, vesk_utility_rel_frame(&notes[0]));
    for (vesk_av_block_writer& one : w)
        vesk_utility_av_writer_close(&one);
}
