// Handle registry, descriptor wrappers and the new/delete pattern, and the leak soak: after
// long create/delete cycles of every handle kind and allocation class (also from several
// threads) the accounted totals, the registry lists and pool, the note trees and the process's
// open descriptors are back at their baseline. In the checked build LeakSanitizer adds its own
// report at exit.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_pool.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using testing::HasSubstr;

namespace
{

bool fd_is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

// An object kind as the layer's services make them: abstract interface, one implementation.
struct probe_iface {
    virtual ~probe_iface() { }
};

std::atomic<int> s_live_probes {0};

struct probe_impl final : probe_iface {
    probe_impl() { s_live_probes++; }
    ~probe_impl() override { s_live_probes--; }
    std::string m_payload = std::string(256, 'x'); // heap of its own: a lost object shows in LSan
};

probe_iface* new_probe(vesk_user_id usr_id, const char* name)
{
    return VESK_REGISTER_NEW(VESK_LIST_MD5, static_cast<probe_iface*>(new probe_impl), usr_id, name);
}

VESK_ERR delete_probe(probe_iface* p, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_MD5, p, file, func);
}

} // namespace

// More handles than the registry's node pool holds: the leak soak.
TEST(RegistryTest, ListsAreSeparateAndAHandleIsDeletedOnce)
{
    vesk_handle_registry reg;
    reg.init_node_pool();
    for (uintptr_t h = 1; h <= 3; h++)
        ASSERT_EQ(reg.save_node(VESK_LIST_URL, h, 0x13, "node"), VESK_OK);
    EXPECT_EQ(reg.list_size(VESK_LIST_URL), 3u);
    EXPECT_EQ(reg.is_valid(VESK_LIST_URL, 2), 1);
    EXPECT_EQ(reg.is_valid(VESK_LIST_MD5, 2), 0);
    for (uintptr_t h : {2, 1, 3})
        ASSERT_EQ(reg.delete_node(VESK_LIST_URL, h), VESK_OK);
    EXPECT_EQ(reg.is_valid(VESK_LIST_URL, 2), 0);
    EXPECT_EQ(reg.delete_node(VESK_LIST_URL, 2), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(reg.list_size(VESK_LIST_URL), 0u);
}

TEST(RegistryTest, DumpShowsNamesCutTo31CharactersInCreationOrder)
{
    vesk_handle_registry reg;
    reg.init_node_pool();
    ASSERT_EQ(reg.save_node(VESK_LIST_WAV, 10, 0x21, "abcdefghijklmnopqrstuvwxyz01234"), VESK_OK); // 31
    ASSERT_EQ(reg.save_node(VESK_LIST_WAV, 11, 0x22, "abcdefghijklmnopqrstuvwxyz0123456789ABCD"), VESK_OK); // 40
    ASSERT_EQ(reg.save_node(VESK_LIST_WAV, 12, 0x23, nullptr), VESK_OK);
    const std::string out
        = vesk_test::capture_stdout([&] { reg.dump_list(VESK_LIST_WAV, "wav fd", vesk_print_stdout, 0); });
    EXPECT_EQ(out,
        "-------------- wav fd ------------------!\n"
        "usr_id = 0x21, name = 'abcdefghijklmnopqrstuvwxyz01234'\n"
        "usr_id = 0x22, name = 'abcdefghijklmnopqrstuvwxyz01234'\n"
        "usr_id = 0x23, name = ''\n"
        "wav fd, total num = 3!\n\n");
}

// Opening and closing in bulk is the leak soak's; here, what each kind is known as.
TEST(RegistryTest, DescriptorsAreRecordedByKindAndUnknownOnesClosedSilently)
{
    const int sock = vesk_utility_open_socket(0x31, "rtsp", AF_UNIX, SOCK_STREAM, 0);
    const int fd = vesk_utility_open(0x32, "index", "/dev/null", O_RDONLY, 0);
    FILE* fp = vesk_utility_fopen(0x33, "cfg", "/dev/null", "r");
    ASSERT_TRUE(sock >= 0 && fd >= 0 && fp != nullptr);
    EXPECT_TRUE(vesk_utility_is_valid_socket(sock) && !vesk_utility_is_valid_open_fd(sock));
    EXPECT_TRUE(vesk_utility_is_valid_open_fd(fd) && vesk_utility_is_valid_fopen_fd(fp));
    EXPECT_EQ(vesk_utility_close_socket(__FILE__, __func__, sock), VESK_OK);
    EXPECT_EQ(vesk_utility_close(__FILE__, __func__, fd), VESK_OK);
    EXPECT_EQ(vesk_utility_fclose(__FILE__, __func__, fp), VESK_OK);
    EXPECT_FALSE(vesk_utility_is_valid_socket(sock) || vesk_utility_is_valid_open_fd(fd));
    EXPECT_FALSE(vesk_utility_is_valid_fopen_fd(fp));
    EXPECT_FALSE(fd_is_open(sock) || fd_is_open(fd));

    // A descriptor never registered: closed all the same, and nothing is printed.
    const int raw = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(raw, 0);
    std::string out
        = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_close_socket(__FILE__, __func__, raw), VESK_OK); });
    EXPECT_EQ(out, "");
    EXPECT_FALSE(fd_is_open(raw));
    out = vesk_test::capture_stdout(
        [] { EXPECT_EQ(vesk_utility_open(0x32, "x", "/nonexistent/dir/file", O_RDONLY, 0644), -1); });
    EXPECT_THAT(out, HasSubstr("]:open /nonexistent/dir/file, flags = 0x0, mode = 0x1a4 fail!\n"));
}

TEST(HandlePatternTest, NewRegistersAndDeleteDestroys)
{
    vesk_handle_registry& reg = vesk_ground::instance()->registry();
    probe_iface* p = new_probe(0x41, "md5 of upgrade image");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reg.is_valid(VESK_LIST_MD5, reinterpret_cast<uintptr_t>(p)), 1);
    EXPECT_EQ(delete_probe(p, "upgrade.cpp", "check"), VESK_OK);
    EXPECT_EQ(s_live_probes.load(), 0);
    EXPECT_EQ(reg.is_valid(VESK_LIST_MD5, reinterpret_cast<uintptr_t>(p)), 0);
    const std::string out = vesk_test::capture_stdout(
        [] { EXPECT_EQ(delete_probe(nullptr, "upgrade.cpp", "check"), VESK_ERR_INVALID_PARAM); });
    EXPECT_THAT(out, HasSubstr("upgrade.cpp check client == NULL!\n"));
}

TEST(HandlePatternDeathTest, DoubleDeleteNamesTheCaller)
{
    VESK_EXPECT_FATAL(
        {
            probe_iface* p = new_probe(0x41, "twice");
            delete_probe(p, "upgrade.cpp", "first");
            delete_probe(p, "upgrade.cpp", "second");
        },
        "upgrade.cpp, second delete invalid!\n.*>Function: delete_probe\n");
    // An object that was never created through the registry is refused the same way.
    VESK_EXPECT_FATAL(
        {
            probe_impl stray;
            delete_probe(&stray, "gui.cpp", "close");
        },
        "gui.cpp, close delete invalid!");
}

namespace
{

// The accounted totals and blocks, the A/V total, the note trees, the registry's free pool
// and lists, and the open descriptors.
std::vector<int64_t> take_snapshot()
{
    vesk_ground* r = vesk_ground::instance();
    std::vector<int64_t> s {r->mem_account().total_size(), r->mem_account().live_blocks(), vesk_mem_av_total(),
        r->malloc_note().malloc_size(), r->new_note().malloc_size(), r->registry().free_pool_nodes(),
        vesk_test::open_descriptors()};
    for (int l = 0; l < VESK_LIST_COUNT; l++)
        s.push_back(r->registry().list_size(static_cast<vesk_handle_list>(l)));
    return s;
}

// One round of everything the layer can hand out, all alive at once (more handles than the
// registry's pool holds, so heap nodes are taken too), then all returned in mixed order.
void one_cycle(int round)
{
    std::vector<int> sockets, fds;
    std::vector<FILE*> streams;
    std::vector<probe_iface*> objects;
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
        probe_iface* o
            = VESK_REGISTER_NEW(VESK_LIST_BMP, static_cast<probe_iface*>(new probe_impl), 0x74, "leak obj");
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
    const std::vector<int64_t> base = take_snapshot();
    EXPECT_EQ(s_live_probes.load(), 0);
    for (int round = 1; round <= 20; round++) {
        one_cycle(round);
        if (HasFatalFailure())
            return;
        ASSERT_EQ(take_snapshot(), base) << "after round " << round;
    }
    EXPECT_EQ(s_live_probes.load(), 0);
}

// Invariant: the live-block list, the registry lists and the note trees are each changed
// under their own mutex, so threads that allocate, register and note at the same time leave
// every count exactly where it started once they all have returned what they took.
TEST(LeakTest, ConcurrentCyclesFromManyThreadsReturnToBaseline)
{
    one_cycle(0); // creates the note nodes used below
    const std::vector<int64_t> base = take_snapshot();
    std::vector<std::thread> threads;
    std::atomic<int> failures {0};
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 300; i++) {
                void* a = vesk_utility_malloc(0x77, 0x7700 + t, 24 + i, 1);
                void* b = vesk_utility_malloc(0x77, 0x7710 + t, 5000, 16);
                probe_iface* o = VESK_REGISTER_NEW(
                    VESK_LIST_BMP, static_cast<probe_iface*>(new probe_impl), 0x77, "threaded");
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
    EXPECT_EQ(take_snapshot(), base);
}
