// Handle registry, descriptor wrappers and the new/delete pattern.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
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

vesk_mem_account& account()
{
    return vesk_ground::instance()->mem_account();
}

bool fd_is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

} // namespace

TEST(RegistryTest, PoolOverflowNodesAreAllocatedAndFreedNotPooled)
{
    vesk_handle_registry reg;
    reg.init_node_pool();
    EXPECT_EQ(reg.free_pool_nodes(), 1120u);
    for (uintptr_t h = 1; h <= 1120; h++)
        ASSERT_EQ(reg.save_node(VESK_LIST_URL, h, 0x13, "pooled"), VESK_OK);
    EXPECT_EQ(reg.free_pool_nodes(), 0u);

    // The 1121st node is allocated; released, it is freed, not pooled.
    const uint32_t before = account().total_size();
    const uint32_t little_before = vesk_ground::instance()->get_little_mem_pool()->total_mem_size();
    ASSERT_EQ(reg.save_node(VESK_LIST_URL, 1121, 0x13, "extra"), VESK_OK);
    EXPECT_EQ(reg.list_size(VESK_LIST_URL), 1121u);
    EXPECT_EQ(reg.is_valid(VESK_LIST_URL, 1121), 1);
    EXPECT_EQ(reg.is_valid(VESK_LIST_MD5, 1121), 0); // lists are separate

    ASSERT_EQ(reg.delete_node(VESK_LIST_URL, 1121), VESK_OK);
    EXPECT_EQ(account().total_size(), before);
    EXPECT_EQ(vesk_ground::instance()->get_little_mem_pool()->total_mem_size(), little_before);
    EXPECT_EQ(reg.free_pool_nodes(), 0u);
    // A pool node goes back to the free list.
    ASSERT_EQ(reg.delete_node(VESK_LIST_URL, 600), VESK_OK);
    EXPECT_EQ(reg.free_pool_nodes(), 1u);
    EXPECT_EQ(reg.is_valid(VESK_LIST_URL, 600), 0);
    EXPECT_EQ(reg.delete_node(VESK_LIST_URL, 600), VESK_ERR_OPERATE_FAIL);
    for (uintptr_t h = 1; h <= 1120; h++)
        ASSERT_EQ(reg.delete_node(VESK_LIST_URL, h), h == 600 ? VESK_ERR_OPERATE_FAIL : VESK_OK);
    EXPECT_EQ(reg.free_pool_nodes(), 1120u);
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

TEST(RegistryTest, DescriptorsAreRecordedAndUnknownOnesClosedSilently)
{
    const int sock = vesk_utility_open_socket(0x31, "rtsp", AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(sock, 0);
    EXPECT_TRUE(vesk_utility_is_valid_socket(sock));
    EXPECT_FALSE(vesk_utility_is_valid_open_fd(sock));
    EXPECT_EQ(vesk_utility_close_socket(__FILE__, __func__, sock), VESK_OK);
    EXPECT_FALSE(vesk_utility_is_valid_socket(sock));
    EXPECT_FALSE(fd_is_open(sock));

    const int fd = vesk_utility_open(0x32, "index", "/dev/null", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(vesk_utility_is_valid_open_fd(fd));
    std::string out
        = vesk_test::capture_stdout([] { vesk_utility_res_manage::instance()->diagnose(4, vesk_print_stdout); });
    EXPECT_THAT(out,
        HasSubstr(
            "-------------- open fd ------------------!\nusr_id = 0x32, name = 'index'\nopen fd, total num = 1!\n"));
    EXPECT_EQ(vesk_utility_close(__FILE__, __func__, fd), VESK_OK);
    EXPECT_FALSE(fd_is_open(fd));

    // A descriptor never registered: closed all the same, and nothing is printed.
    const int raw = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(raw, 0);
    out = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_close_socket(__FILE__, __func__, raw), VESK_OK); });
    EXPECT_EQ(out, "");
    EXPECT_FALSE(fd_is_open(raw));

    FILE* fp = vesk_utility_fopen(0x33, "cfg", "/dev/null", "r");
    ASSERT_NE(fp, nullptr);
    EXPECT_TRUE(vesk_utility_is_valid_fopen_fd(fp));
    EXPECT_EQ(vesk_utility_fclose(__FILE__, __func__, fp), VESK_OK);
    EXPECT_FALSE(vesk_utility_is_valid_fopen_fd(fp));

    out = vesk_test::capture_stdout(
        [] { EXPECT_EQ(vesk_utility_open(0x32, "x", "/nonexistent/dir/file", O_RDONLY, 0644), -1); });
    EXPECT_THAT(out, HasSubstr("]:open /nonexistent/dir/file, flags = 0x0, mode = 0x1a4 fail!\n"));
}

namespace
{

// An object kind as the layer's services make them: abstract interface, one implementation.
struct probe_iface {
    virtual ~probe_iface() { }
};

int s_destroyed = 0;

struct probe_impl final : probe_iface {
    ~probe_impl() override { s_destroyed++; }
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

TEST(HandlePatternTest, NewRegistersAndDeleteDestroys)
{
    vesk_handle_registry& reg = vesk_ground::instance()->registry();
    s_destroyed = 0;
    probe_iface* p = new_probe(0x41, "md5 of upgrade image");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reg.is_valid(VESK_LIST_MD5, reinterpret_cast<uintptr_t>(p)), 1);
    EXPECT_EQ(delete_probe(p, "upgrade.cpp", "check"), VESK_OK);
    EXPECT_EQ(s_destroyed, 1);
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
