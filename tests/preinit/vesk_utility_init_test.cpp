// The layer before vesk_utility_init, and the start-up roles. Each role test runs in a child
// process of its own, since initialisation happens once per process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_pool.h"
#include "core/vesk_utility_registry.h"
#include "core/vesk_utility_ground.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

class probe final
{
public:
    virtual ~probe() { }
};

VESK_ERR delete_probe(probe* p, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_MD5, p, file, func);
}

} // namespace

TEST(PreInitTest, WrappersRefuseWorkUntilInitialised)
{
    ASSERT_EQ(vesk_ops_type(), 0u);
    std::string out = vesk_test::capture_stdout([] {
        EXPECT_EQ(vesk_utility_malloc(0x40, 1, 16, 1), nullptr);
        EXPECT_EQ(vesk_utility_calloc(0x40, 1, 4, 4), nullptr);
        EXPECT_EQ(vesk_utility_strdup(0x40, 1, "x", 1), nullptr);
        EXPECT_EQ(vesk_utility_av_reader_malloc(0x40, 1, 16), nullptr);
        EXPECT_EQ(vesk_utility_free(__FILE__, __func__, nullptr), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_note_malloc(0x40, 1, 1), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_note_new("cls"), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_open_socket(0x40, "s", AF_UNIX, SOCK_STREAM, 0), -1);
        EXPECT_EQ(vesk_utility_open(0x40, "f", "/dev/null", O_RDONLY, 0), -1);
        EXPECT_EQ(vesk_utility_fopen(0x40, "f", "/dev/null", "r"), nullptr);
        EXPECT_FALSE(vesk_utility_is_valid_socket(0));
        EXPECT_EQ(vesk_utility_close(__FILE__, __func__, -1), VESK_ERR_NOT_INIT);
    });
    EXPECT_EQ(vesk_test::count_of(out, "not init\e[m"), 12) << out;
    EXPECT_NE(out.find("\e[0;32;31m[UTL] ERROR! vesk_utility_malloc["), std::string::npos) << out;

    // The A/V wrappers name themselves.
    const std::pair<const char*, std::function<bool()>> av[] = {
        {"vesk_utility_push_av_block", [] { return vesk_utility_push_av_block(0, nullptr) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_new_av_reader", [] { return !vesk_utility_new_av_reader(VESK_AV_READER_FREE_RUN, {}, 0); }},
        {"vesk_utility_first_get_frame", [] { return vesk_utility_first_get_frame(0, {}, 0, 0) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_ivs_rel_frame_multy", [] { return vesk_utility_ivs_rel_frame_multy(0, 0) != VESK_OK; }},
        {"vesk_utility_av_writer_close", [] { return vesk_utility_av_writer_close(nullptr) == VESK_ERR_NOT_INIT; }}};
    for (const auto& c : av) {
        out = vesk_test::capture_stdout([&] { EXPECT_TRUE(c.second()) << c.first; });
        EXPECT_NE(out.find(std::string("[UTL] ERROR! ") + c.first + "["), std::string::npos) << out;
        EXPECT_NE(out.find("]:Utility Module Not Init"), std::string::npos) << out;
    }

    out = vesk_test::capture_stdout([] { EXPECT_EQ(delete_probe(nullptr, "app.cpp", "quit"), VESK_ERR_NOT_INIT); });
    EXPECT_NE(out.find("app.cpp quit not init, s_ops_type = 0x0 not support\n"), std::string::npos) << out;

    // The helpers need no initialisation.
    unsigned wr = 0;
    char pool[4];
    EXPECT_EQ(vesk_utility_add_circle_data(pool, 4, wr, 0, "ab", 2), VESK_OK);
    EXPECT_EQ(vesk_utility_max(1, 2), 2);
}

TEST(PreInitTest, MainRoleInitialisesOnceEvenFromManyThreads)
{
    EXPECT_EXIT(
        {
            std::vector<std::thread> threads;
            std::vector<VESK_ERR> results(8, 1);
            for (int i = 0; i < 8; i++)
                threads.emplace_back([&results, i] { results[i] = vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP); });
            for (std::thread& t : threads)
                t.join();
            bool ok = vesk_ops_type() == 1;
            for (VESK_ERR r : results)
                ok = ok && r == VESK_OK;
            // Built once: one registry node pool (purpose 0x3001) is accounted, not two; one node
            // records the event manager's observer lock.
            vesk_ground* res = vesk_ground::instance();
            const std::string dump
                = vesk_test::capture_stdout([&] { res->mem_account().dump_by_module(vesk_print_stdout); });
            const unsigned pool_kb = 1120 * sizeof(vesk_registry_node) / 1024;
            ok = ok
                && dump.find("\tpurpose = 0x3001, total malloc = " + std::to_string(pool_kb) + "KB!\n")
                    != std::string::npos
                && res->registry().free_pool_nodes() == 1120 - 4  // named locks of the event observers, the command client (2) and the watchdog
                && res->get_string_pool()->total_mem_size() == 0;
            // A later call with another role changes nothing.
            ok = ok && vesk_utility_init(VESK_UTILITY_OPS_PROXY_SERVER) == VESK_OK && vesk_ops_type() == 1;
            exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(PreInitDeathTest, ProxyRoleStopsWhereTheAgentNeedsTheTimer)
{
    // The proxy server builds no timer; its two empty diagnose slots (timer, event manager)
    // are registered in order, the second refused as a repeat; then the agent's start asks for
    // the timer and the process ends before the role is set.
    VESK_EXPECT_FATAL(vesk_utility_init(VESK_UTILITY_OPS_PROXY_SERVER),
        "WARNING! vesk_diagnose_agent::regist_diag\\[[0-9]+\\]:repeat, why\\?.*"
        "\e\\[0;32;31mASSERT!\n >File name: api/vesk_utility_resource.cpp\n >Function: get_timer\n"
        " >Line No: [0-9]+\n >Condition: m_timer != NULL\n");
}

TEST(PreInitDeathTest, UnknownRoleIsFatalInConstruction)
{
    VESK_EXPECT_FATAL(vesk_utility_init(static_cast<vesk_utility_ops_type>(3)),
        "\e\\[0;32;31mASSERT!\n >File name: api/vesk_utility_resource.cpp\n >Function: construct_res\n >Line "
        "No: [0-9]+\n >Condition: 0\n");
}
