// Allocation failure on every C allocation of the paths that allocate: each failure must take
// its own documented way out (NULL, VESK_ERR_NO_RESOURCE, the logged message) and leave the
// accounting, the registry lists and the counters exactly as they were.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fault_walk.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_fault.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_layout.h"
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

// The accounted heap's totals, compared whole.
struct heap_state {
    uint32_t total;
    uint32_t blocks;
    uint32_t av_total;
    bool operator==(const heap_state& o) const
    {
        return total == o.total && blocks == o.blocks && av_total == o.av_total;
    }
};

heap_state heap()
{
    return {res()->mem_account().total_size(), res()->mem_account().live_blocks(), vesk_mem_av_total()};
}

std::ostream& operator<<(std::ostream& os, const heap_state& h)
{
    return os << "{total " << h.total << ", blocks " << h.blocks << ", av " << h.av_total << "}";
}

std::string malloc_fail_msg(unsigned usr, unsigned purpose, size_t need)
{
    char buf[128];
    snprintf(buf, sizeof(buf), "caller_id = 0x%x, purpose = 0x%x, malloc %zu fail!\n", usr, purpose, need);
    return buf;
}

size_t need_size(unsigned size, unsigned align = 1)
{
    return size + k_mem_head_size + k_mem_tail_size + (align >= 2 ? align - 1 : 0);
}

} // namespace

TEST(FaultHookTest, FailsExactlyTheArmedAllocationOnTheArmingThreadOnly)
{
    const heap_state base = heap();
    void* a = nullptr;
    void* b = nullptr;
    void* c = nullptr;
    void* other = nullptr;
    const std::string out = vesk_test::capture_stdout([&] {
        vesk_fault_arm(2);
        a = vesk_malloc(0x60, 0x6001, 10, 8);
        b = vesk_malloc(0x60, 0x6001, 10, 8);
        // Another thread is not counted while the hook is armed for this one.
        std::thread([&] { other = vesk_malloc(0x60, 0x6002, 10, 8); }).join();
        c = vesk_malloc(0x60, 0x6001, 10, 8);
        vesk_fault_disarm();
    });
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(b, nullptr);
    EXPECT_NE(other, nullptr);
    EXPECT_NE(c, nullptr);
    EXPECT_EQ(vesk_fault_calls(), 3u);
    EXPECT_EQ(vesk_fault_failures(), 1u);
    EXPECT_EQ(vesk_test::count_of(out, malloc_fail_msg(0x60, 0x6001, need_size(10, 8))), 1) << out;
    for (void* p : {a, c, other})
        vesk_free(__FILE__, __func__, p);

    // Persistent: the armed allocation and every later one, from any thread.
    void* d = nullptr;
    void* e = nullptr;
    vesk_test::capture_stdout([&] {
        vesk_fault_arm(1, vesk_fault_scope::any_thread, true);
        d = vesk_malloc(0x60, 0x6001, 10, 8);
        std::thread([&] { e = vesk_malloc(0x60, 0x6002, 10, 8); }).join();
        vesk_fault_disarm();
    });
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(e, nullptr);
    EXPECT_EQ(vesk_fault_failures(), 2u);
    EXPECT_EQ(heap(), base);
}

TEST(FaultWalkTest, AccountedAllocationsReturnNullAndLeaveTheHeapAsItWas)
{
    // A string pool without a chunk ends the process when its chunk cannot be had (the pool's
    // own death test covers that); with one in place, a refused string is a NULL.
    char* warm = vesk_utility_strdup(0x62, 0x6203, "keeps the string pool's chunk", 64);
    const heap_state base = heap();
    struct request {
        vesk_user_id usr;
        vesk_memmory_purpose purpose;
        unsigned size;
        unsigned align;
    };
    // Small and large, aligned, SQLite's id, and an A/V cache block whose budget must not count
    // a block that was never made.
    const request requests[] = {{0x61, 0x6101, 16, 1}, {0x61, 0x6102, 4097, 8}, {0x22, 0x1600, 100, 4},
        {VESK_USER_AV_CACHE, 0x9110C, 2048, 1}, {0x61, 0x6103, 1 << 20, 64}};
    for (const request& r : requests) {
        void* p = nullptr;
        const unsigned allocs = walk_alloc_failures([&] { p = vesk_utility_malloc(r.usr, r.purpose, r.size, r.align); },
            [&](const fault_run& run) {
                if (run.failed) {
                    EXPECT_EQ(p, nullptr);
                    // A pooled request fails silently; a heap one names its caller and size.
                    const bool pooled = r.size <= 4096 && r.align <= 4 && r.usr != VESK_USER_SQLITE
                        && !is_av_budget_block(r.usr, r.purpose);
                    EXPECT_EQ(
                        vesk_test::count_of(run.out, malloc_fail_msg(r.usr, r.purpose, need_size(r.size, r.align))),
                        pooled ? 0 : 1)
                        << run.out;
                } else {
                    ASSERT_NE(p, nullptr);
                    memset(p, 0xA5, r.size);
                    EXPECT_EQ(vesk_utility_free(__FILE__, __func__, p), VESK_OK);
                }
                EXPECT_EQ(heap(), base);
            });
        EXPECT_EQ(allocs, 1u);
    }

    // calloc and strdup: NULL and nothing counted, or the zeroed or copied block.
    const std::function<void*()> wrappers[] = {[] { return vesk_utility_calloc(0x62, 0x6201, 10, 500); },
        [] { return static_cast<void*>(vesk_utility_strdup(0x62, 0x6202, "camera 7 name", 64)); }};
    for (const std::function<void*()>& alloc : wrappers) {
        void* q = nullptr;
        EXPECT_EQ(walk_alloc_failures([&] { q = alloc(); },
                      [&](const fault_run& run) {
                          ASSERT_EQ(q == nullptr, run.failed);
                          EXPECT_TRUE(q == nullptr || memcmp(q, "camera 7 name", 14) == 0
                              || std::all_of(
                                  static_cast<char*>(q), static_cast<char*>(q) + 5000, [](char c) { return c == 0; }));
                          vesk_utility_free(__FILE__, __func__, q);
                          EXPECT_EQ(heap(), base);
                      }),
            1u);
    }

    // realloc: a failed growth returns NULL and leaves the old block whole and still owned.
    char* old = static_cast<char*>(vesk_utility_malloc(0x63, 0x6301, 64, 8)); // a heap block
    ASSERT_NE(old, nullptr);
    for (int i = 0; i < 64; i++)
        old[i] = static_cast<char>(i);
    const heap_state with_old = heap();
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
                    EXPECT_EQ(heap().total, base.total + 5000);
                    vesk_utility_free(__FILE__, __func__, grown);
                }
            }),
        1u);
    EXPECT_EQ(heap(), base);
    vesk_utility_free(__FILE__, __func__, warm);
}

TEST(FaultWalkTest, RegistryNodeBeyondThePoolGivesNoResourceAndKeepsTheList)
{
    vesk_handle_registry reg;
    reg.init_node_pool();
    for (uintptr_t h = 1; h <= k_registry_pool_nodes; h++)
        ASSERT_EQ(reg.save_node(VESK_LIST_WAV, h, 0x13, "pooled"), VESK_OK);
    const heap_state base = heap();
    VESK_ERR err = VESK_OK;
    EXPECT_EQ(walk_alloc_failures([&] { err = reg.save_node(VESK_LIST_WAV, 5000, 0x64, "overflow"); },
                  [&](const fault_run& run) {
                      if (run.failed) {
                          EXPECT_EQ(err, VESK_ERR_NO_RESOURCE);
                          EXPECT_THAT(run.out, HasSubstr("vesk_utility_res_manage::save_node["));
                          char msg[64];
                          snprintf(msg, sizeof(msg), "]:malloc %zu fail!\n", sizeof(vesk_registry_node));
                          EXPECT_THAT(run.out, HasSubstr(msg));
                          EXPECT_EQ(reg.list_size(VESK_LIST_WAV), k_registry_pool_nodes);
                          EXPECT_EQ(reg.is_valid(VESK_LIST_WAV, 5000), 0);
                          EXPECT_EQ(heap(), base);
                      } else {
                          EXPECT_EQ(err, VESK_OK);
                          EXPECT_EQ(reg.is_valid(VESK_LIST_WAV, 5000), 1);
                          EXPECT_EQ(reg.list_size(VESK_LIST_WAV), k_registry_pool_nodes + 1);
                      }
                  }),
        1u);
    // The list is still whole: every handle leaves, the heap node is freed, the pool refills.
    ASSERT_EQ(reg.delete_node(VESK_LIST_WAV, 5000), VESK_OK);
    for (uintptr_t h = 1; h <= k_registry_pool_nodes; h++)
        ASSERT_EQ(reg.delete_node(VESK_LIST_WAV, h), VESK_OK);
    EXPECT_EQ(reg.list_size(VESK_LIST_WAV), 0u);
    EXPECT_EQ(reg.free_pool_nodes(), k_registry_pool_nodes);
    EXPECT_EQ(heap(), base);
}

namespace
{

class fault_probe_iface
{
public:
    virtual ~fault_probe_iface() { }
};

std::atomic<int> s_live_probes {0};

class fault_probe final : public fault_probe_iface
{
public:
    fault_probe() { s_live_probes++; }
    ~fault_probe() override { s_live_probes--; }
};

fault_probe_iface* new_fault_probe(vesk_user_id usr_id, const char* name)
{
    return VESK_REGISTER_NEW(VESK_LIST_XLS, static_cast<fault_probe_iface*>(new fault_probe), usr_id, name);
}

} // namespace

TEST(FaultWalkTest, HandleCreationThatCannotRegisterDestroysTheObject)
{
    // Use up the shared registry's pool so that the next node must come from the heap.
    vesk_handle_registry& reg = res()->registry();
    std::vector<uintptr_t> fillers;
    for (uintptr_t h = 0x1000; reg.free_pool_nodes() > 0; h++) {
        ASSERT_EQ(reg.save_node(VESK_LIST_URL, h, 0x13, "filler"), VESK_OK);
        fillers.push_back(h);
    }
    const heap_state base = heap();
    const unsigned listed = reg.list_size(VESK_LIST_XLS);
    fault_probe_iface* obj = nullptr;
    EXPECT_EQ(walk_alloc_failures([&] { obj = new_fault_probe(0x65, "xls export"); },
                  [&](const fault_run& run) {
                      if (run.failed) {
                          EXPECT_EQ(obj, nullptr);
                          EXPECT_THAT(run.out, HasSubstr("new_fault_probe["));
                          EXPECT_THAT(run.out, HasSubstr("]:save fail!"));
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
    EXPECT_EQ(reg.list_size(VESK_LIST_XLS), listed);
    EXPECT_EQ(heap(), base);
}

TEST(FaultWalkTest, NoteTreesDropTheNoteAndStayConsistent)
{
    vesk_note_tree* trees[] = {&res()->malloc_note(), &res()->new_note()};
    VESK_ERR(*add[])
    (vesk_user_id, vesk_memmory_purpose, unsigned) = {vesk_utility_note_malloc, vesk_utility_note_new};
    for (int t = 0; t < 2; t++) {
        vesk_note_tree& tree = *trees[t];
        const vesk_user_id usr = 0x66 + t;
        // A new caller costs two nodes (purpose, then caller); a further purpose one.
        for (vesk_memmory_purpose purpose : {0x6601u, 0x6602u}) {
            const uint32_t size_before = tree.malloc_size();
            const unsigned allocs = walk_alloc_failures([&] { EXPECT_EQ(add[t](usr, purpose, 40), VESK_OK); },
                [&](const fault_run& run) {
                    uint32_t cnt = 0, bytes = 0;
                    if (run.failed) {
                        EXPECT_THAT(run.out, HasSubstr("]:malloc fail!"));
                        EXPECT_FALSE(tree.find(usr, purpose, cnt, bytes));
                        EXPECT_EQ(tree.malloc_size(), size_before);
                    } else {
                        ASSERT_TRUE(tree.find(usr, purpose, cnt, bytes));
                        EXPECT_EQ(cnt, 1u);
                        EXPECT_EQ(bytes, 40u);
                    }
                });
            EXPECT_EQ(allocs, purpose == 0x6601u ? 2u : 1u);
        }
        // Counting an existing purpose allocates nothing and the tree balances.
        EXPECT_EQ(walk_alloc_failures([&] { add[t](usr, 0x6601, 8); }, [](const fault_run&) {}), 0u);
        uint32_t cnt = 0, bytes = 0;
        ASSERT_TRUE(tree.find(usr, 0x6601, cnt, bytes));
        EXPECT_EQ(cnt, 2u);
        EXPECT_EQ(bytes, 48u);
    }
    EXPECT_EQ(vesk_utility_note_free(__FILE__, __func__, 0x66, 0x6601, 40), VESK_OK);
    EXPECT_EQ(vesk_utility_note_delete(__FILE__, __func__, 0x67, 0x6602, 40), VESK_OK);
}

TEST(FaultWalkTest, ClassCounterDropsTheNewClassWithAWarning)
{
    vesk_class_note& classes = res()->class_note();
    EXPECT_EQ(walk_alloc_failures([] { EXPECT_EQ(vesk_utility_note_new("fault_probe_class"), VESK_OK); },
                  [&](const fault_run& run) {
                      if (run.failed) {
                          char msg[64];
                          snprintf(msg, sizeof(msg), "]:mallocsize = %zu fail!\n", 3 * sizeof(void*) + 8 + 18);
                          EXPECT_THAT(run.out, HasSubstr("[UTL] WARNING! vesk_utility_res_manage::add_class_note["));
                          EXPECT_THAT(run.out, HasSubstr(msg));
                          EXPECT_EQ(classes.count_of("fault_probe_class"), -1);
                      } else {
                          EXPECT_EQ(classes.count_of("fault_probe_class"), 1);
                      }
                  }),
        1u);
    EXPECT_EQ(vesk_utility_note_delete("fault_probe_class"), VESK_OK);
    EXPECT_EQ(classes.count_of("fault_probe_class"), 0);
}

TEST(FaultWalkTest, ByModuleDumpWithoutItsScratchTablePrintsOnlyTheFailure)
{
    void* held = vesk_utility_malloc(0x68, 0x6801, 3000, 8); // on the heap's live list
    ASSERT_NE(held, nullptr);
    const heap_state base = heap();
    EXPECT_EQ(walk_alloc_failures([] { vesk_utility_res_manage::instance()->diagnose(2, vesk_print_stdout); },
                  [&](const fault_run& run) {
                      if (run.failed) {
                          EXPECT_THAT(run.out, HasSubstr("caller_id = 0x13, purpose = 0x300b, malloc "));
                          EXPECT_EQ(run.out.find("total malloc"), std::string::npos) << run.out;
                      } else {
                          EXPECT_THAT(run.out, HasSubstr("caller = 0x68, total malloc = 2KB!\n"));
                      }
                      EXPECT_EQ(heap(), base);
                  }),
        1u);
    vesk_utility_free(__FILE__, __func__, held);
}

TEST(FaultWalkTest, SqliteSeesOutOfMemoryAndReleasesEverything)
{
    // SQLite builds its process-wide state on first use; that is not what is walked here.
    sqlite3* warm = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &warm), SQLITE_OK);
    sqlite3_close(warm);
    const heap_state base = heap();

    int rc_open = SQLITE_OK;
    int rc_exec = SQLITE_OK;
    std::string got;
    auto session = [&] {
        sqlite3* db = nullptr;
        got.clear();
        rc_exec = SQLITE_OK;
        rc_open = sqlite3_open(":memory:", &db);
        if (rc_open == SQLITE_OK) {
            rc_exec = sqlite3_exec(db,
                "CREATE TABLE rec(ch INTEGER, name TEXT);"
                "INSERT INTO rec VALUES(3, 'front door');"
                "INSERT INTO rec VALUES(4, 'yard');",
                nullptr, nullptr, nullptr);
            if (rc_exec == SQLITE_OK)
                rc_exec = sqlite3_exec(
                    db, "SELECT name FROM rec WHERE ch = 4;",
                    [](void* out, int, char** values, char**) {
                        *static_cast<std::string*>(out) = values[0];
                        return 0;
                    },
                    &got, nullptr);
        }
        sqlite3_close(db); // a handle comes back even from a failed open
    };
    unsigned failed_runs = 0;
    const unsigned allocs = walk_alloc_failures(session, [&](const fault_run& run) {
        if (run.failed) {
            failed_runs++;
            // Either the failure was reported, or SQLite had a way around it (a benign
            // failure, such as the lookaside buffer) and the answer is still right.
            if (rc_open == SQLITE_OK && rc_exec == SQLITE_OK)
                EXPECT_EQ(got, "yard");
            else
                EXPECT_TRUE(rc_open == SQLITE_NOMEM || rc_exec == SQLITE_NOMEM)
                    << "open " << rc_open << ", exec " << rc_exec;
        } else {
            EXPECT_EQ(rc_open, SQLITE_OK);
            EXPECT_EQ(rc_exec, SQLITE_OK);
            EXPECT_EQ(got, "yard");
        }
        EXPECT_EQ(heap(), base) << "after allocation " << run.n;
    });
    EXPECT_GT(allocs, 10u);
    EXPECT_EQ(failed_runs, allocs);
}
