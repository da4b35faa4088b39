// Leak check over long create/delete cycles of every handle kind and allocation class: after
// each cycle the accounted totals, the registry lists and pool, the note trees and the
// process's open descriptors are back at their baseline. In the checked build LeakSanitizer
// adds its own report at exit.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_ground.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

struct leak_probe_iface {
    virtual ~leak_probe_iface() { }
};

std::atomic<int> s_leak_probes {0};

struct leak_probe final : leak_probe_iface {
    leak_probe() { s_leak_probes++; }
    ~leak_probe() override { s_leak_probes--; }
    std::string m_payload = std::string(256, 'x'); // heap of its own: a lost object shows in LSan
};

int open_descriptors()
{
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr)
        return -1;
    while (readdir(d) != nullptr)
        n++;
    closedir(d);
    return n;
}

struct snapshot {
    uint32_t total, blocks, av_total, malloc_note_size, new_note_size;
    unsigned free_pool;
    std::vector<unsigned> lists;
    int fds;
    auto tie() const
    {
        return std::tie(total, blocks, av_total, malloc_note_size, new_note_size, free_pool, lists, fds);
    }
    bool operator==(const snapshot& o) const { return tie() == o.tie(); }
};

snapshot take_snapshot()
{
    vesk_ground* r = vesk_ground::instance();
    snapshot s {r->mem_account().total_size(), r->mem_account().live_blocks(), vesk_mem_av_total(),
        r->malloc_note().malloc_size(), r->new_note().malloc_size(), r->registry().free_pool_nodes(), {},
        open_descriptors()};
    for (int l = 0; l < VESK_LIST_COUNT; l++)
        s.lists.push_back(r->registry().list_size(static_cast<vesk_handle_list>(l)));
    return s;
}

// One round of everything the layer can hand out, all alive at once (more handles than the
// registry's pool holds, so heap nodes are taken too), then all returned in mixed order.
void one_cycle(int round)
{
    std::vector<int> sockets, fds;
    std::vector<FILE*> streams;
    std::vector<leak_probe_iface*> objects;
    std::vector<void*> blocks;
    for (int i = 0; i < 200; i++) {
        const int s = vesk_utility_open_socket(0x71, "leak sock", AF_UNIX, SOCK_DGRAM, 0);
        ASSERT_GE(s, 0);
        sockets.push_back(s);
        const int fd = vesk_utility_open(0x72, "leak fd", "/dev/null", O_RDONLY, 0);
        ASSERT_GE(fd, 0);
        fds.push_back(fd);
        FILE* fp = vesk_utility_fopen(0x73, "leak stream", "/dev/null", "r");
        ASSERT_NE(fp, nullptr);
        streams.push_back(fp);
    }
    for (int i = 0; i < 600; i++) {
        leak_probe_iface* o
            = VESK_REGISTER_NEW(VESK_LIST_BMP, static_cast<leak_probe_iface*>(new leak_probe), 0x74, "leak obj");
        ASSERT_NE(o, nullptr);
        objects.push_back(o);
    }
    // Every size class the allocator routes differently: small (little-memory pool once it
    // exists), just over the pool limit, strongly aligned, SQLite's id, A/V budget blocks, large.
    const unsigned sizes[] = {1, 16, 100, 4096, 4097, 65536, 1u << 20};
    const unsigned aligns[] = {1, 4, 8, 64};
    for (unsigned size : sizes)
        for (unsigned align : aligns) {
            blocks.push_back(vesk_utility_malloc(0x75, 0x7501, size, align));
            blocks.push_back(vesk_utility_malloc(VESK_USER_SQLITE, 0x1600, size, align));
        }
    blocks.push_back(vesk_utility_malloc(VESK_USER_AV_CACHE, 0x91111, 8192, 1));
    blocks.push_back(vesk_utility_malloc(VESK_USER_AV_CACHE, 0x91110, 8192, 1));
    blocks.push_back(vesk_utility_calloc(0x75, 0x7502, 33, 7));
    blocks.push_back(vesk_utility_strdup(0x75, 0x7503, "leak check string", 100));
    void* grown = vesk_utility_malloc(0x75, 0x7504, 10, 1);
    grown = vesk_utility_realloc(0x75, 0x7504, grown, 9000, __FILE__, __func__, 1);
    blocks.push_back(vesk_utility_realloc(0x75, 0x7504, grown, 50, __FILE__, __func__, 1));
    for (void* b : blocks)
        ASSERT_NE(b, nullptr);
    // Balanced notes on a fixed purpose.
    vesk_utility_note_malloc(0x76, 0x7600, 10);
    vesk_utility_note_new(0x76, 0x7600, 10);
    vesk_utility_note_new("leak_probe");
    vesk_utility_note_delete("leak_probe");
    vesk_utility_note_delete(__FILE__, __func__, 0x76, 0x7600, 10);
    vesk_utility_note_free(__FILE__, __func__, 0x76, 0x7600, 10);
    for (size_t i = 0; i < blocks.size(); i++)
        EXPECT_EQ(vesk_utility_free(__FILE__, __func__, blocks[(i * 7 + round) % blocks.size()]), VESK_OK);
    for (size_t i = objects.size(); i-- > 0;)
        EXPECT_EQ(VESK_DELETE_REGISTERED(VESK_LIST_BMP, objects[i], __FILE__, __func__), VESK_OK);
    for (size_t i = 0; i < sockets.size(); i++) {
        EXPECT_EQ(vesk_utility_close_socket(__FILE__, __func__, sockets[i]), VESK_OK);
        EXPECT_EQ(vesk_utility_close(__FILE__, __func__, fds[fds.size() - 1 - i]), VESK_OK);
        EXPECT_EQ(vesk_utility_fclose(__FILE__, __func__, streams[i]), VESK_OK);
    }
}

} // namespace

TEST(LeakTest, LongCreateDeleteCyclesReturnEverythingToBaseline)
{
    // The first round creates the note-tree nodes, which live on by design.
    one_cycle(0);
    const snapshot base = take_snapshot();
    EXPECT_EQ(s_leak_probes.load(), 0);
    for (int round = 1; round <= 20; round++) {
        one_cycle(round);
        if (HasFatalFailure())
            return;
        ASSERT_TRUE(take_snapshot() == base) << "after round " << round;
    }
    EXPECT_EQ(s_leak_probes.load(), 0);
}

// Invariant: the live-block list, the registry lists and the note trees are each changed
// under their own mutex, so threads that allocate, register and note at the same time leave
// every count exactly where it started once they all have returned what they took.
TEST(LeakTest, ConcurrentCyclesFromManyThreadsReturnToBaseline)
{
    one_cycle(0); // creates the note nodes used below
    const snapshot base = take_snapshot();
    std::vector<std::thread> threads;
    std::atomic<int> failures {0};
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 300; i++) {
                void* a = vesk_utility_malloc(0x77, 0x7700 + t, 24 + i, 1);
                void* b = vesk_utility_malloc(0x77, 0x7710 + t, 5000, 16);
                leak_probe_iface* o = VESK_REGISTER_NEW(
                    VESK_LIST_BMP, static_cast<leak_probe_iface*>(new leak_probe), 0x77, "threaded");
                vesk_utility_note_malloc(0x76, 0x7600, 1);
                if (a == nullptr || b == nullptr || o == nullptr)
                    failures++;
                vesk_utility_note_free(__FILE__, __func__, 0x76, 0x7600, 1);
                if (VESK_DELETE_REGISTERED(VESK_LIST_BMP, o, __FILE__, __func__) != VESK_OK)
                    failures++;
                vesk_utility_free(__FILE__, __func__, b);
                vesk_utility_free(__FILE__, __func__, a);
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_TRUE(take_snapshot() == base);
}
