// Note trees and class counters: counting, compaction, overflow, dumps and the fatal
// imbalances.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_note.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using testing::HasSubstr;

TEST(MemNoteTest, ExportedNotesCountPerCallerAndPurpose)
{
    vesk_note_tree& tree = vesk_ground::instance()->malloc_note();
    ASSERT_EQ(vesk_utility_note_malloc(0x51, 0x5101, 100), VESK_OK);
    ASSERT_EQ(vesk_utility_note_malloc(0x51, 0x5101, 50), VESK_OK);
    ASSERT_EQ(vesk_utility_note_malloc(0x51, 0x5102, 7), VESK_OK);
    uint32_t cnt = 0, size = 0;
    ASSERT_TRUE(tree.find(0x51, 0x5101, cnt, size));
    EXPECT_EQ(cnt, 2u);
    EXPECT_EQ(size, 150u);
    ASSERT_EQ(vesk_utility_note_free(__FILE__, __func__, 0x51, 0x5101, 100), VESK_OK);
    ASSERT_TRUE(tree.find(0x51, 0x5101, cnt, size));
    EXPECT_EQ(cnt, 1u);
    EXPECT_EQ(size, 50u);
    // The new/delete tree is separate.
    EXPECT_FALSE(vesk_ground::instance()->new_note().find(0x51, 0x5101, cnt, size));

    ASSERT_EQ(vesk_utility_note_new(0x52, 0x5201, 64), VESK_OK);
    const std::string out
        = vesk_test::capture_stdout([] { vesk_utility_res_manage::instance()->diagnose(6, vesk_print_stdout); });
    // Other tests of the process may have callers of their own in either tree.
    const size_t malloc_at = out.find(
        "------------------------------------- malloc/free num: ------------------------------------------\n");
    const size_t mine = out.find("caller = 0x51:\n"
                                 "     purpose = 0x5101, note_cnt = 1, note_size = 50!\n"
                                 "     purpose = 0x5102, note_cnt = 1, note_size = 7!\n");
    const size_t new_at = out.find(
        "------------------------------------- new/delete num: ------------------------------------------\n");
    const size_t mine_new = out.find("caller = 0x52:\n"
                                     "     purpose = 0x5201, note_cnt = 1, note_size = 64!\n");
    EXPECT_NE(malloc_at, std::string::npos) << out;
    EXPECT_LT(malloc_at, mine) << out;
    EXPECT_LT(mine, new_at) << out;
    EXPECT_LT(new_at, mine_new) << out;
}

TEST(MemNoteTest, CompactionDropsEmptyNodesAndOverflowDropsNotes)
{
    vesk_note_tree tree("malloc/free num:");
    const uint32_t user_bytes = sizeof(vesk_note_tree::user_node) + sizeof(vesk_note_tree::purpose_node);
    // Fill the tree past 0x1FFFF bytes with one purpose per caller, all balanced back to 0.
    uint32_t users = 0;
    while (tree.malloc_size() <= 0x1FFFF) {
        tree.add(0x10000 + users, 1, 8);
        tree.sub(__FILE__, __func__, 0x10000 + users, 1, 8);
        users++;
    }
    EXPECT_EQ(tree.malloc_size(), users * user_bytes);
    // The next note compacts first: every empty node goes, only the new one stays.
    std::string out = vesk_test::capture_stdout([&] { tree.add(0x7, 0x70, 5); });
    EXPECT_THAT(out, HasSubstr("list.malloc_size = " + std::to_string(users * user_bytes) + "!!!!!!!!!!!!!!!\n"));
    EXPECT_EQ(tree.malloc_size(), user_bytes);
    uint32_t cnt, size;
    EXPECT_FALSE(tree.find(0x10000, 1, cnt, size));
    ASSERT_TRUE(tree.find(0x7, 0x70, cnt, size));
    EXPECT_EQ(cnt, 1u);

    // Live notes cannot be compacted away: past the limit a note is dropped with a warning.
    vesk_note_tree full("new/delete num:");
    users = 0;
    while (full.malloc_size() <= 0x1FFFF)
        full.add(0x20000 + users++, 1, 8);
    const uint32_t before = full.malloc_size();
    out = vesk_test::capture_stdout([&] { full.add(0x5, 0x50, 1); });
    EXPECT_THAT(out, HasSubstr("over flow!!!\n"));
    EXPECT_FALSE(full.find(0x5, 0x50, cnt, size));
    EXPECT_EQ(full.malloc_size(), before);
}

TEST(MemNoteTest, ClassCountersCountAndDump)
{
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(vesk_utility_note_new("record_task"), VESK_OK);
    ASSERT_EQ(vesk_utility_note_new("live_view"), VESK_OK);
    ASSERT_EQ(vesk_utility_note_delete("record_task"), VESK_OK);
    vesk_class_note& cls = vesk_ground::instance()->class_note();
    EXPECT_EQ(cls.count_of("record_task"), 2);
    EXPECT_EQ(cls.count_of("live_view"), 1);
    EXPECT_EQ(cls.count_of("never"), -1);
    EXPECT_EQ(vesk_utility_note_new(nullptr), VESK_ERR_INVALID_PARAM);
    const std::string out = vesk_test::capture_stdout([&] { cls.dump(vesk_print_stdout); });
    // Newest class first.
    EXPECT_THAT(out,
        HasSubstr("class cnt ------------------------------------------\nlive_view: cnt = 1\nrecord_task: cnt = 2\n"));
}

TEST(MemNoteDeathTest, UnbalancedReleasesAreFatal)
{
    VESK_EXPECT_FATAL(vesk_utility_note_free("dec.cpp", "stop", 0x61, 0x6101, 10),
        "dec.cpp::stop user_node = 0x61, purpose_node = 0x6101, user_node = \\(nil\\), purpose_node = "
        "\\(nil\\), why\\?.*ASSERT!");
    VESK_EXPECT_FATAL(
        {
            vesk_utility_note_new(0x62, 0x6201, 10);
            vesk_utility_note_delete("dec.cpp", "a", 0x62, 0x6201, 10);
            vesk_utility_note_delete("dec.cpp", "b", 0x62, 0x6201, 10);
        },
        "dec.cpp::b user_node = 0x62, purpose_node = 0x6201, note_cnt = 0, why\\?");
    VESK_EXPECT_FATAL(vesk_utility_note_delete("ghost_class"), "ghost_class find node fail!");
    VESK_EXPECT_FATAL(
        {
            vesk_utility_note_new("short_lived");
            vesk_utility_note_delete("short_lived");
            vesk_utility_note_delete("short_lived");
        },
        "short_lived node->note_cnt = 0 why!.*Condition: 0");
}
