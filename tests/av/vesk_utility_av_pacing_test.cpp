// Real-time pacing of the A/V reader: the wait per backlog row with its forced skips and reset,
// the threshold's rise after failures, and the unpaced waits. Frames are 1901 ms apart unless
// told, which keeps the sleep correction (only within 40 ms of the last wait) out of the results.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "av_test_blocks.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::capture_stdout;
using vesk_test::count_of;
using vesk_test::read_one;

namespace
{

constexpr uint32_t k_ipc = 6;
constexpr uint32_t k_nothing = ~0u;

// Numbered frames of 40 bytes; 16 fit a block's index.
struct camera : vesk_test::feed {
    uint32_t fno = 0;
    camera(vesk_utility_av_mng& m, vesk_av_stream_type type) : feed(m, 4096, type, k_ipc, 16) {}
    void put(uint32_t type, uint32_t step_ms = 1901) { feed::put(fno++, type, 40, step_ms); }
};

vesk_av_reader* new_reader(vesk_utility_av_mng& mng, vesk_av_reader_work_mode mode)
{
    vesk_av_reader* r = mng.new_av_reader(mode, VESK_AV_READER_STREAM_USER, 0x31);
    EXPECT_EQ(VESK_OK, r->set_chn(k_ipc));
    return r;
}

} // namespace

// With the threshold at 2, frame 1 is read paced with `remain` frames behind it; a forced skip
// or reset shows in the frame the following call hands out.
TEST(AvPacingTest, BacklogRowsSetTheWaitAndForceSkipsAndTheReset)
{
    struct row {
        vesk_av_stream_type type;
        int remain;
        uint32_t key; // frame number of a type-18 frame, 0: none; an I frame follows 20 later
        uint32_t interval;
        uint32_t next;
    };
    const row rows[] = {
        {VESK_AV_STREAM_MAIN, 1, 0, 1996, 2}, // < th: + 1/20
        {VESK_AV_STREAM_MAIN, 2, 0, 1901, 2}, // = th
        {VESK_AV_STREAM_MAIN, 3, 0, 1664, 2}, // > th: - 1/8
        {VESK_AV_STREAM_MAIN, 12, 0, 1664, 2},
        {VESK_AV_STREAM_MAIN, 13, 0, 1426, 2}, // > th + 10: - 1/4
        {VESK_AV_STREAM_MAIN, 22, 3, 1426, 2},
        {VESK_AV_STREAM_MAIN, 23, 3, 1426, 3}, // > th + 20, key 2 ahead: skip 1
        {VESK_AV_STREAM_SUB, 32, 4, 1426, 2}, // key 3 ahead is not 2 ahead
        {VESK_AV_STREAM_SUB, 33, 4, 1268, 4}, // > th + 30: - 1/3, skip 2
        {VESK_AV_STREAM_MAIN, 42, 4, 1268, 4},
        {VESK_AV_STREAM_MAIN, 43, 4, 1268, 2}, // > th + 40 wants exactly 4 ahead
        {VESK_AV_STREAM_MAIN, 43, 5, 1268, 5},
        {VESK_AV_STREAM_MAIN, 53, 5, 951, 5}, // > th + 50: - 1/2, skip to the next key frame
        {VESK_AV_STREAM_MAIN, 62, 11, 951, 11},
        {VESK_AV_STREAM_MAIN, 63, 11, 1901, 31}, // > th + 60: reset to the newest key frame
    };
    for (const row& c : rows) {
        SCOPED_TRACE("remain " + std::to_string(c.remain) + " key " + std::to_string(c.key));
        vesk_utility_av_mng mng;
        camera cam(mng, c.type);
        cam.put(VESK_FRAME_TYPE_I);
        vesk_av_reader* r = new_reader(mng, VESK_AV_READER_FREE_RUN);
        ASSERT_EQ(0u, read_one(r, c.type));
        while (static_cast<int>(cam.fno) < c.remain + 2) {
            const uint32_t n = cam.fno;
            cam.put(c.key != 0 && n == c.key ? VESK_FRAME_TYPE_KEY2 : c.key != 0 && n == c.key + 20 ? VESK_FRAME_TYPE_I : 2);
        }
        ASSERT_EQ(VESK_OK, r->set_work_mode(VESK_AV_READER_REAL_TIME)); // fresh pacing state
        uint32_t interval = 0;
        capture_stdout([&] {
            EXPECT_EQ(1u, read_one(r, c.type, &interval));
            EXPECT_EQ(c.next, read_one(r, c.type));
        });
        EXPECT_EQ(c.interval, interval);
        EXPECT_TRUE(r->is_free());
        EXPECT_EQ(VESK_OK, mng.delete_av_reader(r, __FILE__, __func__));
    }
}

// Each cycle leaves th frames behind the first read of a backlog, drains it, then finds nothing:
// a period with calls and a failure, so the threshold rises at once, up to 16.
TEST(AvPacingTest, FailuresAfterABacklogRaiseTheThresholdUpTo16AndSetWorkModeClearsIt)
{
    vesk_utility_av_mng mng;
    camera cam(mng, VESK_AV_STREAM_MAIN);
    cam.put(VESK_FRAME_TYPE_I);
    vesk_av_reader* r = new_reader(mng, VESK_AV_READER_REAL_TIME);
    ASSERT_EQ(0u, read_one(r));
    uint32_t expect_fno = 1;
    const auto cycle = [&](uint32_t backlog) {
        return capture_stdout([&] {
            for (uint32_t k = 0; k < backlog; k++)
                cam.put(2);
            for (uint32_t k = 0; k < backlog; k++)
                ASSERT_EQ(expect_fno++, read_one(r));
            uint32_t interval = 0;
            for (int k = 0; k < 3; k++) {
                ASSERT_EQ(k_nothing, read_one(r, VESK_AV_STREAM_MAIN, &interval));
                EXPECT_EQ(42u, interval) << "the last wait: 40 (no next frame) + 40/20";
            }
        });
    };
    const auto adj = [](int from) {
        return "ch_6, remain_0, fail_1, adj " + std::to_string(from) + " to " + std::to_string(from + 1) + "\n";
    };

    std::string out = cycle(2); // leaves 1 frame behind the first read: below th, so th stays
    EXPECT_EQ(0, count_of(out, ", adj ")) << out;
    for (int th = 2; th <= 15; th++) {
        if (th == 5) {
            ASSERT_EQ(VESK_OK, r->set_work_mode(VESK_AV_READER_REAL_TIME)); // unchanged: keeps th
        }
        out = cycle(th + 1);
        EXPECT_EQ(1, count_of(out, adj(th))) << out;
        EXPECT_EQ(1, count_of(out, ", adj ")) << out;
    }
    out = cycle(17);
    EXPECT_EQ(0, count_of(out, ", adj ")) << "above 15 it stays: " << out;

    ASSERT_EQ(VESK_OK, r->set_work_mode(VESK_AV_READER_FREE_RUN));
    ASSERT_EQ(VESK_OK, r->set_work_mode(VESK_AV_READER_REAL_TIME));
    out = cycle(3);
    EXPECT_EQ(1, count_of(out, adj(2))) << "a mode change restarts at 2: " << out;
    EXPECT_EQ(VESK_OK, mng.delete_av_reader(r, __FILE__, __func__));
}

// Outside real-time video the wait is 0 while a next frame is known, otherwise the last frame
// interval (40 ms before any, or for a timestamp step of 0 or above 1999 ms).
TEST(AvPacingTest, UnpacedStreamsWaitOnlyWhenNothingFollows)
{
    vesk_utility_av_mng mng;
    camera cam(mng, VESK_AV_STREAM_AUDIO);
    vesk_av_reader* r = new_reader(mng, VESK_AV_READER_REAL_TIME);
    struct step {
        std::vector<uint32_t> puts; // timestamp steps of the frames pushed first
        uint32_t fno;
        uint32_t interval;
    };
    const step steps[] = {
        {{}, k_nothing, 40}, {{10}, 0, 40}, // nothing follows and no interval is known yet
        {{10, 10}, 1, 0}, {{}, 2, 10}, {{}, k_nothing, 10}, {{2000, 10}, 3, 0},
        {{}, 4, 40}, // a step above 1999 ms counts as 40
        {{10, 0, 10}, 5, 0}, {{}, 6, 0}, {{}, 7, 40}, // a step of 0 counts as 40
    };
    for (const step& st : steps) {
        SCOPED_TRACE("frame " + std::to_string(st.fno));
        for (uint32_t ms : st.puts)
            cam.put(2, ms);
        uint32_t interval = 0;
        EXPECT_EQ(st.fno, read_one(r, VESK_AV_STREAM_AUDIO, &interval));
        EXPECT_EQ(st.interval, interval);
    }
    EXPECT_EQ(VESK_OK, mng.delete_av_reader(r, __FILE__, __func__));
}
