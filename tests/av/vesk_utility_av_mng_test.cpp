// The block manager: push, the descriptor pool, the rotation rule (age, users, references,
// pressure, snap users' key-frame group), user bits, the reader registry and the dump; rotation
// is driven by rotate_pass with chosen times on the tests' own managers.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>

#include "av_test_blocks.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::at;
using vesk_test::list_ids;
using vesk_test::make_block;

namespace
{

std::string s_printed;
int record_print(const char* fmt, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    s_printed += buf;
    return 0;
}

} // namespace

TEST(AvMngTest, PushChainsBlocksAndRefusesBadBlocksUntouched)
{
    vesk_utility_av_mng mng;
    const vesk_av_time now = av_now();
    const uint32_t before = vesk_mem_av_total();
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        ASSERT_EQ(VESK_OK, mng.push_av_block(31, make_block(t, now, 100)));
    vesk_IPC_stream_block_head* second = make_block(1, now, 200);
    ASSERT_EQ(VESK_OK, mng.push_av_block(31, second));
    EXPECT_EQ("9527,9528", list_ids(mng, 31, 1));
    EXPECT_EQ(before + 5 * sizeof(vesk_IPC_stream_block_head) + 600, vesk_mem_av_total());

    // Only the type word exists: anything read past it would be caught by the sanitizers.
    const size_t type_end = offsetof(vesk_IPC_stream_block_head, block_type) + sizeof(uint32_t);
    auto* stub = static_cast<uint8_t*>(malloc(type_end));
    memset(stub, 0xFF, type_end);
    reinterpret_cast<vesk_IPC_stream_block_head*>(stub)->block_type = 4;
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.push_av_block(31, reinterpret_cast<vesk_IPC_stream_block_head*>(stub)));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.push_av_block(32, second));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.push_av_block(0, nullptr));
    });
    free(stub);
    for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
        EXPECT_EQ(t == 1 ? "9527,9528" : "9527", list_ids(mng, 31, t));
}

TEST(AvMngTest, PoolOverflowStillAcceptsAndRotationReturnsEverything)
{
    const uint32_t av_base = vesk_mem_av_total();
    const uint32_t base = vesk_ground::instance()->mem_account().total_size();
    {
        vesk_utility_av_mng mng;
        const vesk_av_time t0 = av_now();
        EXPECT_EQ(k_av_pool_size, mng.pool_free_count());
        std::string out = vesk_test::capture_stdout([&] {
            for (uint32_t i = 0; i <= k_av_pool_size; i++)
                ASSERT_EQ(VESK_OK, mng.push_av_block(i % 32, make_block(i % 4, t0, 64)));
        });
        EXPECT_EQ(1, vesk_test::count_of(out, "av_block not enough!!")) << "only the last push overflows";
        EXPECT_EQ(0u, mng.pool_free_count());

        // Nobody reads: everything goes on the first pass after 200 ms.
        mng.rotate_pass(at(t0, 199));
        EXPECT_EQ(0u, mng.pool_free_count());
        mng.rotate_pass(at(t0, 200));
        EXPECT_EQ(k_av_pool_size, mng.pool_free_count()) << "the overflow descriptor is freed, not pooled";
        for (uint32_t ipc = 0; ipc < 32; ipc++)
            for (uint32_t t = 0; t < 4; t++)
                ASSERT_EQ("", list_ids(mng, ipc, t));
        EXPECT_EQ(av_base, vesk_mem_av_total());
    }
    EXPECT_EQ(base, vesk_ground::instance()->mem_account().total_size());
}

// One block on a list whose stream user (if any) still wants it, or has read it.
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

TEST(AvMngTest, SnapUsersKeepOnlyTheNewestKeyFrameGroup)
{
    vesk_utility_av_mng mng;
    const vesk_av_time t0 = av_now();
    ASSERT_EQ(0, mng.malloc_magic_ofset(1, 1, 0, 0x55));
    ASSERT_EQ(0, mng.malloc_magic_ofset(1, 1, 2, 0x55));
    // 9527 key | 9528 | 9529 key, its last frame continues | 9530 continuation only |
    // 9531 continuation, then frames of its own | 9532 | 9533 unrelated lead tag
    vesk_IPC_stream_block_head* b[7];
    for (int i = 0; i < 7; i++) {
        b[i] = make_block(0, t0, 256, i == 0 || i == 2);
        b[i]->trail_tag = 100 + i;
        b[i]->node_num = 3;
    }
    b[2]->last_key_idx = 2;
    b[3]->lead_tag = 102;
    b[3]->node_num = 0;
    b[4]->lead_tag = 103;
    b[4]->node_num = 1;
    b[5]->lead_tag = 104; // would match, but 9531 already started a frame
    for (auto* blk : b)
        mng.push_av_block(1, blk);
    for (int i = 0; i < 3; i++)
        mng.push_av_block(1, make_block(2, t0, 256, true));
    mng.rotate_pass(at(t0, 1000));
    EXPECT_EQ("9529,9530,9531", list_ids(mng, 1, 0));
    EXPECT_EQ("", list_ids(mng, 1, 2)) << "audio has no protected group";

    // A newer key block moves the group; a key frame that ends in its block takes nothing else.
    vesk_IPC_stream_block_head* k = make_block(0, t0, 256, true);
    k->node_num = 2;
    k->trail_tag = 7;
    mng.push_av_block(1, k);
    vesk_IPC_stream_block_head* after = make_block(0, t0, 256);
    after->lead_tag = 7;
    mng.push_av_block(1, after);
    mng.rotate_pass(at(t0, 1000));
    EXPECT_EQ("9534", list_ids(mng, 1, 0));
}

TEST(AvMngTest, SwitchIvrChSwapsWithinBoundsAndTheUserMasksFollow)
{
    vesk_utility_av_mng mng;
    EXPECT_EQ(VESK_OK, mng.switch_ivr_ch(31, 0));
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.switch_ivr_ch(32, 0));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, mng.switch_ivr_ch(0, 32));
        EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_switch_av_ivr_ch(32, 0));
    });
    EXPECT_EQ(VESK_OK, mng.switch_ivr_ch(5, 5));
    for (uint32_t i = 1; i < 31; i++)
        ASSERT_EQ(i, mng.ipc_of(i));
    EXPECT_EQ(0u, mng.ipc_of(31));
    EXPECT_EQ(31u, mng.ipc_of(0));

    // ipc 0 now belongs to ivr 31: its user keeps ipc 0's block.
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
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(-1, mng.malloc_magic_ofset(2, 0, 1, 0x200));
        EXPECT_EQ(-1, mng.malloc_magic_ofset(2, 0, 4, 0x200));
        mng.release_magic_ofset(2, 1, 1, 0); // never taken: logged, nothing else
    });
    mng.release_magic_ofset(2, 0, 1, 5);
    EXPECT_EQ(5, mng.malloc_magic_ofset(2, 0, 1, 0x300)) << "the lowest free bit";
    EXPECT_EQ(0, mng.malloc_magic_ofset(2, 1, 1, 0x300)) << "snap users have their own table";

    // k_av_reader_max readers, then the registry is full until one is deleted.
    vesk_av_reader* readers[k_av_reader_max];
    for (auto& r : readers) {
        r = mng.new_av_reader(VESK_AV_READER_REAL_TIME, VESK_AV_READER_STREAM_USER, 0x42);
        ASSERT_NE(nullptr, r);
    }
    vesk_test::capture_stdout(
        [&] { EXPECT_EQ(nullptr, mng.new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_SNAP_USER, 1)); });

    // A reader's user bits go back with it.
    auto* r0 = static_cast<vesk_av_reader_v1*>(readers[0]);
    ASSERT_EQ(VESK_OK, r0->set_chn(3));
    EXPECT_EQ(0, r0->usr_magic(0));
    EXPECT_EQ(0, r0->usr_magic(3));
    EXPECT_EQ(1, mng.malloc_magic_ofset(3, 0, 0, 0x1)) << "bit 0 is the reader's";
    EXPECT_EQ(VESK_OK, mng.delete_av_reader(r0, __FILE__, __func__));
    EXPECT_EQ(0, mng.malloc_magic_ofset(3, 0, 3, 0x1)) << "released by the delete";
    EXPECT_EQ(k_av_reader_max - 1, mng.reader_count());
    EXPECT_NE(nullptr, mng.new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 2));
    vesk_test::capture_stdout([&] { EXPECT_EQ(VESK_OK, mng.delete_av_reader(nullptr, "f", "g")); });
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
            _tagVeskFrameHeader h = vesk_test::frame_head(0, 2, 4);
            vesk_utility_av_writer_put(&w, &h, "abcd");
            vesk_av_reader* r = vesk_utility_new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 1);
            r->set_chn(9);
            vesk_IPC_stream_block_head* held = nullptr;
            r->get_block(VESK_AV_STREAM_AUDIO, &held, 1);
            vesk_utility_delete_av_reader(r, "rec.cpp", "stop");
        },
        "rec.cpp stop AV Reader Reference Resouce Not Empty, Can't Delete");
    // A second delete finds the reader unregistered and reports it without reading it.
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
    ASSERT_EQ(VESK_OK, vesk_utility_push_av_block(6, make_block(0, av_now(), 2048, true)));
    bool gone = false;
    for (int i = 0; i < 600 && !gone; i++) {
        gone = list_ids(*mng, 6, 0).empty();
        if (!gone)
            vesk_utility_sleep_ms(50);
    }
    EXPECT_TRUE(gone) << "rotation did not run within 30 s";

    vesk_utility_av_mng own;
    own.push_av_block(2, make_block(0, av_now(), 2048, true));
    own.set_chn_connect_status(2, 1);
    pthread_mutex_lock(&own.chn_blocks(2).lock);
    own.chn_blocks(2).lists[0].stat.info.last_frame.ucCodec = 16;
    own.chn_blocks(2).lists[0].stat.info.last_frame.usWidth = 1920;
    own.chn_blocks(2).lists[0].stat.info.last_frame.usHeight = 1080;
    pthread_mutex_unlock(&own.chn_blocks(2).lock);
    s_printed.clear();
    own.diagnose(1, record_print);
    EXPECT_NE(std::string::npos, s_printed.find("Chn2 Stream Block Detail Info:\n"));
    EXPECT_NE(std::string::npos, s_printed.find("\tVideoStream(Main) Occupy [1]Blocks, Consume "));
    EXPECT_NE(std::string::npos, s_printed.find("[H265 1920X1080]"));
    EXPECT_NE(std::string::npos, s_printed.find("\tSmartStream Occupy [0]Blocks, Consume 0.00[KB]"));
    EXPECT_EQ(32, vesk_test::count_of(s_printed, "Stream Block Detail Info"));
    own.diagnose(2, record_print);
    EXPECT_TRUE(own.debug_print());
    own.diagnose(3, record_print);
    EXPECT_FALSE(own.debug_print());
    s_printed.clear();
    own.diagnose(7, record_print);
    EXPECT_EQ("Wrong Param\n", s_printed);
}
