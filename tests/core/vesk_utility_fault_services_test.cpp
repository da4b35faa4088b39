// Allocation failure on the services' main paths: JSON parsing, timer registration past the
// node pool, event raising and pushing A/V blocks. Each failure takes its own way out and
// leaves the accounting as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "store/json/vesk_utility_json_tree.h"
#include "fault_walk.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using testing::HasSubstr;
using vesk_test::fault_run;
using vesk_test::walk_alloc_failures;

namespace
{

uint32_t heap_total()
{
    return vesk_ground::instance()->mem_account().total_size();
}

} // namespace

TEST(FaultServicesTest, JsonParseGivesNullAndKeepsNoPartOfTheTree)
{
    const char* text = "{\"chn\":[{\"name\":\"front door\",\"fps\":25,\"osd\":{\"x\":16,\"y\":32}},"
                       "{\"name\":\"yard\",\"fps\":12.5,\"record\":true}],\"users\":[\"admin\",\"guest\"]}";
    const uint32_t base = heap_total();
    vesk_tool_JSON* root = nullptr;
    const unsigned allocs = walk_alloc_failures([&] { root = vesk_tool_JSON_parse(text); },
        [&](const fault_run& run) {
            if (run.failed) {
                EXPECT_EQ(root, nullptr) << run.out;
            } else {
                ASSERT_NE(root, nullptr);
                vesk_tool_JSON_delete(root);
            }
            EXPECT_EQ(heap_total(), base);
        });
    EXPECT_GE(allocs, 20u); // every node and every string is an allocation
}

namespace
{

vesk_timer_ret_code never_runs(void*, unsigned int*, vesk_timer_task_type*)
{
    return VESK_TIMER_RET_DELETE;
}

} // namespace

TEST(FaultServicesTest, TimerRegistrationPastThePoolFailsCleanly)
{
    // Fill the 428-node pool with tasks that are not due for an hour; the first extra node
    // announces itself with the overflow warning.
    static char params[600];
    unsigned used = 0;
    for (; used < sizeof(params); used++) {
        const std::string out = vesk_test::capture_stdout([&] {
            ASSERT_EQ(vesk_utility_c_regist_timer(
                          0x77, never_runs, 0x7701, 1000, &params[used], VESK_TIMER_TASK_COMMON, 3600000),
                VESK_OK);
        });
        if (out.find("overflow!") != std::string::npos)
            break;
    }
    ASSERT_LT(used, sizeof(params)) << "the pool never overflowed";
    const uint32_t base = heap_total();
    VESK_ERR err = VESK_OK;
    char extra = 0;
    const unsigned allocs = walk_alloc_failures(
        [&] {
            err = vesk_utility_c_regist_timer(0x77, never_runs, 0x7701, 1000, &extra, VESK_TIMER_TASK_COMMON, 3600000);
        },
        [&](const fault_run& run) {
            if (run.failed) {
                EXPECT_EQ(err, VESK_ERR_OPERATE_FAIL);
                EXPECT_THAT(run.out, HasSubstr("proc_malloc_task_node fail!"));
                EXPECT_EQ(heap_total(), base);
            } else {
                EXPECT_EQ(err, VESK_OK);
            }
        });
    EXPECT_EQ(allocs, 1u);
    EXPECT_EQ(vesk_utility_c_unregist_timer(never_runs, &extra, 0, VESK_TIMER_TASK_COMMON), VESK_OK);
    for (unsigned i = 0; i <= used; i++)
        EXPECT_EQ(vesk_utility_c_unregist_timer(never_runs, &params[i], 0, VESK_TIMER_TASK_COMMON), VESK_OK);
}

TEST(FaultServicesTest, RaisingAnEventNeverAllocates)
{
    // Event records come from the manager's fixed pools: a heap that fails cannot lose an
    // alarm.
    vesk_event_info motion {};
    motion.main_type = VESK_EVENT_CHANNEL_EVENT;
    motion.sub_type = VESK_EVENT_SUB_MOTION;
    motion.index = 5;
    motion.local = 1;
    VESK_ERR err = VESK_ERR_FAIL;
    const unsigned allocs = walk_alloc_failures([&] { err = vesk_utility_set_event_state(&motion, 1); },
        [&](const fault_run& run) {
            EXPECT_FALSE(run.failed);
            EXPECT_EQ(err, VESK_OK);
        });
    EXPECT_EQ(allocs, 0u);
    EXPECT_EQ(vesk_utility_set_event_state(&motion, 0), VESK_OK);
}

TEST(FaultServicesTest, PushWhoseBlockCannotBeHadLosesOnlyThatFrame)
{
    vesk_av_block_writer w {};
    ASSERT_EQ(vesk_utility_av_writer_init(&w, 30, VESK_AV_STREAM_SUB, 0x9110D, 16384, 16), VESK_OK);
    std::vector<char> payload(3000, 'v');
    _tagVeskFrameHeader h {};
    h.uiStartId = VESK_FRAME_STARTCODE;
    h.uiFrameType = 1;
    h.uiLength = static_cast<uint32_t>(payload.size());
    uint32_t frame_no = 1;
    // The cache is built on first use, and it cannot run without its descriptor pool (that
    // failure is fatal by design): build it before the walk.
    h.uiFrameNo = frame_no;
    ASSERT_EQ(vesk_utility_av_writer_put(&w, &h, payload.data()), VESK_OK);
    ASSERT_EQ(vesk_utility_av_writer_close(&w), VESK_OK);
    VESK_ERR err = VESK_OK;
    const unsigned allocs = walk_alloc_failures(
        [&] {
            h.uiFrameNo = ++frame_no;
            err = vesk_utility_av_writer_put(&w, &h, payload.data());
            if (err == VESK_OK)
                vesk_utility_av_writer_close(&w); // the next run needs a new block again
        },
        [&](const fault_run& run) {
            if (run.failed) {
                EXPECT_EQ(err, VESK_ERR_NO_RESOURCE) << run.out;
            } else {
                EXPECT_EQ(err, VESK_OK);
            }
        });
    EXPECT_EQ(allocs, 1u); // one block per frame here
    // The cache was told nothing of the failed block: what it holds is the clean run's block.
    _tagVeskFrameHeader last {};
    ASSERT_EQ(vesk_utility_get_last_frame_head(30, VESK_AV_STREAM_SUB, last), VESK_OK);
}
