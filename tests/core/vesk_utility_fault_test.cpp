// Allocation failure on every C allocation of the paths that allocate: each failure must take
// its own way out (NULL, VESK_ERR_NO_RESOURCE, a logged message) and leave the accounting, the
// registry lists and the counters exactly as they were.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "fault_walk.h"
#include "store/json/vesk_utility_json_tree.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_fault.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_ground.h"

using namespace vesk_soft;
using namespace vesk_utility;
using testing::HasSubstr;
using vesk_test::fault_run;
using vesk_test::walk_alloc_failures;

namespace
{

vesk_ground* res()
{
    return vesk_ground::instance();
}

// The accounted heap's totals (bytes, blocks, A/V bytes), compared whole.
std::tuple<uint32_t, uint32_t, uint32_t> heap()
{
    return std::make_tuple(res()->mem_account().total_size(), res()->mem_account().live_blocks(), vesk_mem_av_total());
}

} // namespace

TEST(FaultHookTest, FailsExactlyTheArmedAllocationOnTheArmingThreadOnly)
{
    const auto base = heap();
    void* p[4] = {};
    const std::string out = vesk_test::capture_stdout([&] {
        vesk_fault_arm(2);
        p[0] = vesk_malloc(0x60, 0x6001, 10, 8);
        p[1] = vesk_malloc(0x60, 0x6001, 10, 8);
        // Another thread is not counted while the hook is armed for this one.
        std::thread([&] { p[2] = vesk_malloc(0x60, 0x6002, 10, 8); }).join();
        p[3] = vesk_malloc(0x60, 0x6001, 10, 8);
        vesk_fault_disarm();
    });
    EXPECT_TRUE(p[0] != nullptr && p[1] == nullptr && p[2] != nullptr && p[3] != nullptr);
    EXPECT_EQ(vesk_fault_calls(), 3u);
    EXPECT_EQ(vesk_fault_failures(), 1u);
    EXPECT_EQ(vesk_test::count_of(out, "caller_id = 0x60, purpose = 0x6001, malloc "), 1) << out;
    for (int i : {0, 2, 3})
        vesk_free(__FILE__, __func__, p[i]);

    // Persistent: the armed allocation and every later one, from any thread.
    vesk_test::capture_stdout([&] {
        vesk_fault_arm(1, vesk_fault_scope::any_thread, true);
        p[0] = vesk_malloc(0x60, 0x6001, 10, 8);
        std::thread([&] { p[1] = vesk_malloc(0x60, 0x6002, 10, 8); }).join();
        vesk_fault_disarm();
    });
    EXPECT_TRUE(p[0] == nullptr && p[1] == nullptr);
    EXPECT_EQ(vesk_fault_failures(), 2u);
    EXPECT_EQ(heap(), base);
}

TEST(FaultWalkTest, AccountedAllocationsReturnNullAndLeaveTheHeapAsItWas)
{
    // A string pool without a chunk ends the process when its chunk cannot be had (the pool's
    // own death test covers that); with one in place, a refused string is a NULL.
    char* warm = vesk_utility_strdup(0x62, 0x6203, "keeps the string pool's chunk", 64);
    const auto base = heap();
    // Small and large, aligned, SQLite's id, an A/V cache block whose budget must not count a
    // block that was never made; calloc's zeroes and strdup's copy (holds: "" zeroes, nullptr
    // anything).
    const struct {
        std::function<void*()> alloc;
        size_t size;
        const char* holds;
    } rows[] = {
        {[] { return vesk_utility_malloc(0x61, 0x6101, 16, 1); }, 16, nullptr},
        {[] { return vesk_utility_malloc(0x61, 0x6102, 4097, 8); }, 4097, nullptr},
        {[] { return vesk_utility_malloc(0x22, 0x1600, 100, 4); }, 100, nullptr},
        {[] { return vesk_utility_malloc(VESK_USER_AV_CACHE, 0x9110C, 2048, 1); }, 2048, nullptr},
        {[] { return vesk_utility_malloc(0x61, 0x6103, 1 << 20, 64); }, 1 << 20, nullptr},
        {[] { return vesk_utility_calloc(0x62, 0x6201, 10, 500); }, 5000, ""},
        {[] { return static_cast<void*>(vesk_utility_strdup(0x62, 0x6202, "camera 7 name", 64)); }, 14, "camera 7 name"},
    };
    for (const auto& row : rows) {
        void* q = nullptr;
        EXPECT_EQ(walk_alloc_failures([&] { q = row.alloc(); },
                      [&](const fault_run& run) {
                          ASSERT_EQ(q == nullptr, run.failed);
                          if (q != nullptr) {
                              char* c = static_cast<char*>(q);
                              if (row.holds == nullptr)
                                  memset(c, 0xA5, row.size);
                              const bool as_made = row.holds == nullptr
                                  || (row.holds[0] == '\0' ? std::all_of(c, c + row.size, [](char b) { return b == 0; })
                                                           : memcmp(c, row.holds, row.size) == 0);
                              EXPECT_TRUE(as_made);
                              EXPECT_EQ(vesk_utility_free(__FILE__, __func__, q), VESK_OK);
                          }
                          EXPECT_EQ(heap(), base);
                      }),
            1u);
    }

    // realloc: a failed growth returns NULL and leaves the old block whole and still owned.
    char* old = static_cast<char*>(vesk_utility_malloc(0x63, 0x6301, 64, 8)); // a heap block
    ASSERT_NE(old, nullptr);
    for (int i = 0; i < 64; i++)
        old[i] = static_cast<char>(i);
    const auto with_old = heap();
    char* grown = nullptr;
    EXPECT_EQ(
        walk_alloc_failures(
            [&] { grown = static_cast<char*>(vesk_utility_realloc(0x63, 0x6302, old, 5000, "rec.cpp", "grow", 1)); },
            [&](const fault_run& run) {
                if (run.failed) {
                    EXPECT_EQ(grown, nullptr);
                    EXPECT_EQ(heap(), with_old);
                    unsigned size = 0;
                    ASSERT_EQ(vesk_get_mem_size(__FILE__, __func__, old, size), VESK_OK);
                    EXPECT_EQ(size, 64u);
                    for (int i = 0; i < 64; i++)
                        ASSERT_EQ(old[i], static_cast<char>(i));
                } else {
                    ASSERT_NE(grown, nullptr);
                    for (int i = 0; i < 64; i++)
                        ASSERT_EQ(grown[i], static_cast<char>(i));
                    EXPECT_EQ(std::get<0>(heap()), std::get<0>(base) + 5000);
                    vesk_utility_free(__FILE__, __func__, grown);
                }
            }),
        1u);
    EXPECT_EQ(heap(), base);
    vesk_utility_free(__FILE__, __func__, warm);
}

namespace
{

std::atomic<int> s_live_probes {0};

// A handle object as the layer's factories make them.
class fault_probe
{
public:
    fault_probe() { s_live_probes++; }
    virtual ~fault_probe() { s_live_probes--; }
};

} // namespace

TEST(FaultWalkTest, HandleCreationThatCannotRegisterDestroysTheObject)
{
    // Use up the shared registry's pool so that the next node must come from the heap.
    vesk_handle_registry& reg = res()->registry();
    const unsigned pool_free = reg.free_pool_nodes();
    std::vector<uintptr_t> fillers;
    for (uintptr_t h = 0x1000; reg.free_pool_nodes() > 0; h++) {
        ASSERT_EQ(reg.save_node(VESK_LIST_URL, h, 0x13, "filler"), VESK_OK);
        fillers.push_back(h);
    }
    const auto base = heap();
    const unsigned listed = reg.list_size(VESK_LIST_XLS);
    fault_probe* obj = nullptr;
    EXPECT_EQ(walk_alloc_failures([&] { obj = VESK_REGISTER_NEW(VESK_LIST_XLS, new fault_probe, 0x65, "xls export"); },
                  [&](const fault_run& run) {
                      if (run.failed) {
                          EXPECT_EQ(obj, nullptr);
                          EXPECT_THAT(run.out, HasSubstr("save fail!"));
                          EXPECT_EQ(s_live_probes.load(), 0);
                          EXPECT_EQ(reg.list_size(VESK_LIST_XLS), listed);
                          EXPECT_EQ(heap(), base);
                      } else {
                          ASSERT_NE(obj, nullptr);
                          EXPECT_EQ(s_live_probes.load(), 1);
                          EXPECT_EQ(VESK_DELETE_REGISTERED(VESK_LIST_XLS, obj, __FILE__, __func__), VESK_OK);
                          EXPECT_EQ(s_live_probes.load(), 0);
                      }
                  }),
        1u);
    for (uintptr_t h : fillers)
        ASSERT_EQ(reg.delete_node(VESK_LIST_URL, h), VESK_OK);
    EXPECT_EQ(reg.free_pool_nodes(), pool_free); // every pool node went back to the pool
    EXPECT_EQ(reg.list_size(VESK_LIST_XLS), listed);
    EXPECT_EQ(heap(), base);
}

TEST(FaultWalkTest, NoteTreeDropsTheNoteAndStaysConsistent)
{
    vesk_note_tree& tree = res()->malloc_note();
    // A new caller, then a further purpose of it.
    for (vesk_memmory_purpose purpose : {0x6601u, 0x6602u}) {
        const uint32_t size_before = tree.malloc_size();
        walk_alloc_failures([&] { EXPECT_EQ(vesk_utility_note_malloc(0x66, purpose, 40), VESK_OK); },
            [&](const fault_run& run) {
                uint32_t cnt = 0, bytes = 0;
                EXPECT_EQ(tree.find(0x66, purpose, cnt, bytes), !run.failed);
                EXPECT_TRUE(run.failed ? tree.malloc_size() == size_before : cnt == 1 && bytes == 40);
            });
    }
    // Counting an existing purpose allocates nothing.
    EXPECT_EQ(walk_alloc_failures([&] { vesk_utility_note_malloc(0x66, 0x6601, 8); }, [](const fault_run&) {}), 0u);
    uint32_t cnt = 0, bytes = 0;
    ASSERT_TRUE(tree.find(0x66, 0x6601, cnt, bytes));
    EXPECT_EQ(cnt, 2u);
    EXPECT_EQ(bytes, 48u);
    EXPECT_EQ(vesk_utility_note_free(__FILE__, __func__, 0x66, 0x6601, 40), VESK_OK);
}

TEST(FaultWalkTest, ClassCounterDropsTheNewClassWithAWarning)
{
    vesk_class_note& classes = res()->class_note();
    EXPECT_EQ(walk_alloc_failures([] { EXPECT_EQ(vesk_utility_note_new("fault_probe_class"), VESK_OK); },
                  [&](const fault_run& run) {
                      if (run.failed) {
                          EXPECT_THAT(run.out, HasSubstr("fail!"));
                          EXPECT_EQ(classes.count_of("fault_probe_class"), -1);
                      } else {
                          EXPECT_EQ(classes.count_of("fault_probe_class"), 1);
                      }
                  }),
        1u);
    EXPECT_EQ(vesk_utility_note_delete("fault_probe_class"), VESK_OK);
    EXPECT_EQ(classes.count_of("fault_probe_class"), 0);
}

TEST(FaultWalkTest, SqliteSeesOutOfMemoryAndReleasesEverything)
{
    // SQLite builds its process-wide state on first use; that is not what is walked here.
    sqlite3* warm = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &warm), SQLITE_OK);
    sqlite3_close(warm);
    const auto base = heap();

    int rc = SQLITE_OK;
    std::string got;
    auto session = [&] {
        sqlite3* db = nullptr;
        got.clear();
        rc = sqlite3_open(":memory:", &db);
        if (rc == SQLITE_OK)
            rc = sqlite3_exec(db,
                "CREATE TABLE rec(ch INTEGER, name TEXT);"
                "INSERT INTO rec VALUES(3, 'front door');"
                "INSERT INTO rec VALUES(4, 'yard');",
                nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK)
            rc = sqlite3_exec(
                db, "SELECT name FROM rec WHERE ch = 4;",
                [](void* out, int, char** values, char**) {
                    *static_cast<std::string*>(out) = values[0];
                    return 0;
                },
                &got, nullptr);
        sqlite3_close(db); // a handle comes back even from a failed open
    };
    const unsigned allocs = walk_alloc_failures(session, [&](const fault_run& run) {
        // A failure is reported, or SQLite had a way around it (a benign failure, such as the
        // lookaside buffer) and the answer is still right.
        if (rc == SQLITE_OK)
            EXPECT_EQ(got, "yard");
        else
            EXPECT_TRUE(run.failed && rc == SQLITE_NOMEM) << rc;
        EXPECT_EQ(heap(), base) << "after allocation " << run.n;
    });
    EXPECT_GT(allocs, 10u);
}

TEST(FaultWalkTest, JsonParseGivesNullAndKeepsNoPartOfTheTree)
{
    const char* text = "{\"chn\":[{\"name\":\"front door\",\"fps\":25,\"osd\":{\"x\":16,\"y\":32}},"
                       "{\"name\":\"yard\",\"fps\":12.5,\"record\":true}],\"users\":[\"admin\",\"guest\"]}";
    const auto base = heap();
    vesk_tool_JSON* root = nullptr;
    const unsigned allocs = walk_alloc_failures([&] { root = vesk_tool_JSON_parse(text); },
        [&](const fault_run& run) {
            EXPECT_EQ(root == nullptr, run.failed) << run.out;
            vesk_tool_JSON_delete(root);
            EXPECT_EQ(heap(), base);
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

TEST(FaultWalkTest, TimerRegistrationPastThePoolFailsCleanly)
{
    // Fill the node pool with tasks not due for an hour; the first node beyond it announces
    // itself with the overflow warning.
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
    const auto base = heap();
    VESK_ERR err = VESK_OK;
    char extra = 0;
    walk_alloc_failures(
        [&] {
            err = vesk_utility_c_regist_timer(0x77, never_runs, 0x7701, 1000, &extra, VESK_TIMER_TASK_COMMON, 3600000);
        },
        [&](const fault_run& run) {
            EXPECT_EQ(err, run.failed ? VESK_ERR_OPERATE_FAIL : VESK_OK);
            EXPECT_TRUE(!run.failed || heap() == base);
        });
    EXPECT_EQ(vesk_utility_c_unregist_timer(never_runs, &extra, 0, VESK_TIMER_TASK_COMMON), VESK_OK);
    for (unsigned i = 0; i <= used; i++)
        EXPECT_EQ(vesk_utility_c_unregist_timer(never_runs, &params[i], 0, VESK_TIMER_TASK_COMMON), VESK_OK);
}

TEST(FaultWalkTest, RaisingAnEventNeverAllocatesAndAFrameWithoutItsBlockIsTheOnlyLoss)
{
    // Event records come from the manager's fixed pools: a heap that fails cannot lose an alarm.
    vesk_event_info motion {};
    motion.main_type = VESK_EVENT_CHANNEL_EVENT;
    motion.sub_type = VESK_EVENT_SUB_MOTION;
    motion.index = 5;
    motion.local = 1;
    VESK_ERR err = VESK_ERR_FAIL;
    EXPECT_EQ(walk_alloc_failures([&] { err = vesk_utility_set_event_state(&motion, 1); },
                  [&](const fault_run& run) {
                      EXPECT_FALSE(run.failed);
                      EXPECT_EQ(err, VESK_OK);
                  }),
        0u);
    EXPECT_EQ(vesk_utility_set_event_state(&motion, 0), VESK_OK);

    // The cache is built on first use and cannot run without its descriptor pool (fatal by
    // design): build it before the walk. Each clean run closes its block, so that the next
    // run needs a new one.
    vesk_av_block_writer w {};
    ASSERT_EQ(vesk_utility_av_writer_init(&w, 30, VESK_AV_STREAM_SUB, 0x9110D, 16384, 16), VESK_OK);
    std::vector<char> payload(3000, 'v');
    _tagVeskFrameHeader h {};
    h.uiStartId = VESK_FRAME_STARTCODE;
    h.uiFrameType = 1;
    h.uiLength = static_cast<uint32_t>(payload.size());
    h.uiFrameNo = 1;
    ASSERT_EQ(vesk_utility_av_writer_put(&w, &h, payload.data()), VESK_OK);
    ASSERT_EQ(vesk_utility_av_writer_close(&w), VESK_OK);
    walk_alloc_failures(
        [&] {
            h.uiFrameNo++;
            err = vesk_utility_av_writer_put(&w, &h, payload.data());
            if (err == VESK_OK)
                vesk_utility_av_writer_close(&w);
        },
        [&](const fault_run& run) { EXPECT_EQ(err, run.failed ? VESK_ERR_NO_RESOURCE : VESK_OK) << run.out; });
    _tagVeskFrameHeader last {};
    EXPECT_EQ(vesk_utility_get_last_frame_head(30, VESK_AV_STREAM_SUB, last), VESK_OK);
}
