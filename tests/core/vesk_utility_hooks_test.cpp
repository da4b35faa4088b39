// The protocol libraries' allocator hooks: this executable stands in for the firmware's builds
// of those libraries, whose entries replace the layer's weak no-ops, and records what
// vesk_utility_init (run by the test main) handed them.
#include <gtest/gtest.h>

#include <vector>

#include "core/vesk_utility_hooks.h"
#include "core/vesk_utility_mem_account.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

struct hook_call {
    const char* library;
    const vesk_malloc_funcs* record;
    vesk_malloc_funcs seen; // the record's contents at the time of the call
};

std::vector<hook_call>& calls()
{
    static std::vector<hook_call> v;
    return v;
}

} // namespace

extern "C" {
void register_libcurl_malloc_funcs(vesk_malloc_funcs* funcs) { calls().push_back({"libcurl", funcs, *funcs}); }
void register_libfcgi_malloc_funcs(vesk_malloc_funcs* funcs) { calls().push_back({"libfcgi", funcs, *funcs}); }
void register_polarssl_malloc_funcs(vesk_malloc_funcs* funcs) { calls().push_back({"polarssl", funcs, *funcs}); }
void register_zlib_malloc_funcs(vesk_malloc_funcs* funcs) { calls().push_back({"zlib", funcs, *funcs}); }
}

TEST(AllocatorHookTest, ProtocolLibrariesAreHookedOnceInOrderWithOneReusedRecord)
{
    const struct {
        const char* library;
        vesk_memmory_purpose purpose;
    } want[] = {{"libcurl", 0x130400}, {"libfcgi", 0x130401}, {"polarssl", 0x130405}, {"zlib", 0x130403}};
    ASSERT_EQ(calls().size(), 4u);
    for (size_t i = 0; i < 4; i++) {
        const hook_call& c = calls()[i];
        EXPECT_STREQ(c.library, want[i].library);
        EXPECT_EQ(c.record, calls()[0].record) << "one record, reused";
        EXPECT_EQ(c.seen.usr_id, 0x83u) << c.library;
        EXPECT_EQ(c.seen.purpose, want[i].purpose) << c.library;
        // The accounted allocator: a heap block (past the little-memory pool) has its size on record.
        void* p = c.seen.malloc_fn(c.seen.usr_id, c.seen.purpose, 5000, 1);
        unsigned size = 0;
        EXPECT_EQ(vesk_utility::vesk_get_mem_size(__FILE__, __func__, p, size), VESK_OK);
        EXPECT_EQ(size, 5000u);
        p = c.seen.realloc_fn(c.seen.usr_id, c.seen.purpose, p, 9000, __FILE__, __func__, 1);
        EXPECT_EQ(c.seen.free_fn(__FILE__, __func__, p), VESK_OK);
        EXPECT_EQ(c.seen.free_fn(__FILE__, __func__, c.seen.calloc_fn(c.seen.usr_id, c.seen.purpose, 2, 3)), VESK_OK);
    }
    // A second init hooks nothing again.
    EXPECT_EQ(vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP), VESK_OK);
    EXPECT_EQ(calls().size(), 4u);
}
