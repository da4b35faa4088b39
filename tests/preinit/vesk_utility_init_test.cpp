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
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_registry.h"
#include "core/vesk_utility_ground.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

vesk_timer_ret_code never_cb(void*, unsigned int*, vesk_timer_task_type*)
{
    return VESK_TIMER_RET_DELETE;
}

} // namespace

// Every entry that needs the layer refuses, and says so under its own name or its caller's;
// URL transfers in particular never reach libcurl, whose accounted allocator is not there yet.
TEST(PreInitTest, EntriesRefuseWorkUntilInitialisedAndSaySo)
{
    ASSERT_EQ(vesk_ops_type(), 0u);
    uint32_t w = 0, h = 0;
    vesk_av_time t {};
    char a[16];
    const std::pair<const char*, std::function<bool()>> rows[] = {
        {"vesk_utility_malloc[", [] { return !vesk_utility_malloc(0x40, 1, 16, 1); }},
        {"vesk_utility_calloc[", [] { return !vesk_utility_calloc(0x40, 1, 4, 4); }},
        {"vesk_utility_strdup[", [] { return !vesk_utility_strdup(0x40, 1, "x", 1); }},
        {"vesk_utility_av_reader_malloc[", [] { return !vesk_utility_av_reader_malloc(0x40, 1, 16); }},
        {"vesk_utility_free[", [] { return vesk_utility_free(__FILE__, __func__, nullptr) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_note_malloc[", [] { return vesk_utility_note_malloc(0x40, 1, 1) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_note_new[", [] { return vesk_utility_note_new("cls") == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_open_socket[", [] { return vesk_utility_open_socket(0x40, "s", AF_UNIX, SOCK_STREAM, 0) == -1; }},
        {"vesk_utility_open[", [] { return vesk_utility_open(0x40, "f", "/dev/null", O_RDONLY, 0) == -1; }},
        {"vesk_utility_fopen[", [] { return !vesk_utility_fopen(0x40, "f", "/dev/null", "r"); }},
        {"vesk_utility_is_valid_socket[", [] { return !vesk_utility_is_valid_socket(0); }},
        {"vesk_utility_close[", [] { return vesk_utility_close(__FILE__, __func__, -1) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_push_av_block[", [] { return vesk_utility_push_av_block(0, nullptr) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_new_av_reader[", [] { return !vesk_utility_new_av_reader(VESK_AV_READER_FREE_RUN, {}, 0); }},
        {"vesk_utility_first_get_frame[", [] { return vesk_utility_first_get_frame(0, {}, 0, 0) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_ivs_rel_frame_multy[", [] { return vesk_utility_ivs_rel_frame_multy(0, 0) != VESK_OK; }},
        {"vesk_utility_av_writer_close[", [] { return vesk_utility_av_writer_close(nullptr) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_get_video_resolution[",
            [&] { return vesk_utility_get_video_resolution(0, VESK_AV_STREAM_MAIN, &w, &h) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_get_last_valid_I_time[",
            [&] { return vesk_utility_get_last_valid_I_time(0, VESK_AV_STREAM_MAIN, &t, &w) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_new_md5_cnt[", [] { return !vesk_utility_new_md5_cnt(0x41, "early"); }},
        {"app.cpp quit", [] { return vesk_utility_delete_md5_cnt(nullptr, "app.cpp", "quit") == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_new_lock[", [] { return !vesk_utility_new_lock(0x41, "early"); }},
        {"vesk_utility_new_rw_lock[", [] { return !vesk_utility_new_rw_lock(0x41, "early"); }},
        {"vesk_utility_new_interuptable_sleep[", [] { return !vesk_utility_new_interuptable_sleep(0x41, "early"); }},
        // A pointer that was never registered is not even looked at.
        {"boot.cpp early_exit",
            [] { return vesk_utility_delete_lock(reinterpret_cast<vesk_lock*>(0x1000), "boot.cpp", "early_exit")
                     == VESK_ERR_NOT_INIT; }},
        {"boot.cpp early_exit", [] { return vesk_utility_delete_rw_lock(nullptr, "boot.cpp", "early_exit") == VESK_ERR_NOT_INIT; }},
        {"boot.cpp early_exit",
            [] { return vesk_utility_delete_interuptable_sleep(nullptr, "boot.cpp", "early_exit") == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_c_regist_timer[",
            [] { return vesk_utility_c_regist_timer(0x40, never_cb, 1, 10, nullptr, VESK_TIMER_TASK_COMMON, 0)
                     == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_c_regist_fetch_wd_timer[",
            [] { return vesk_utility_c_regist_fetch_wd_timer(never_cb, 10, nullptr) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_c_unregist_timer[",
            [] { return vesk_utility_c_unregist_timer(never_cb, nullptr, 1, VESK_TIMER_TASK_ALL) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_c_timer_wakeup[",
            [] { return vesk_utility_c_timer_wakeup(never_cb, nullptr, 0, VESK_TIMER_TASK_ALL) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_adj_comm_thr_num[", [] { return vesk_utility_adj_comm_thr_num(8, 2) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_adj_real_time_thr_num[", [] { return vesk_utility_adj_real_time_thr_num(3) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_new_url_operate[", [] { return !vesk_utility_new_url_operate(0x40, "u"); }},
        {"vesk_utility_http_get[",
            [&] { return vesk_utility_http_get("http://127.0.0.1:1/", a, sizeof(a), nullptr, nullptr, 0) == VESK_ERR_NOT_INIT; }},
        {"vesk_utility_http_post[",
            [&] { return vesk_utility_http_post("http://127.0.0.1:1/", nullptr, "x", 1, a, sizeof(a), nullptr, nullptr, 0)
                     == VESK_ERR_NOT_INIT; }},
    };
    for (const auto& row : rows) {
        bool refused = false;
        const std::string out = vesk_test::capture_stdout([&] { refused = row.second(); });
        EXPECT_TRUE(refused) << row.first;
        EXPECT_NE(out.find(row.first), std::string::npos) << row.first << ": " << out;
        EXPECT_TRUE(out.find("not init") != std::string::npos || out.find("Not Init") != std::string::npos) << out;
    }

    // The helpers need no initialisation.
    unsigned wr = 0;
    char pool[4];
    EXPECT_EQ(vesk_utility_add_circle_data(pool, 4, wr, 0, "ab", 2), VESK_OK);
    EXPECT_EQ(vesk_utility_max(1, 2), 2);
    uint32_t n = 0;
    EXPECT_EQ(vesk_utility_gb2312_to_utf8("\xD6\xD0", 2, a, sizeof(a), &n), VESK_OK);
    EXPECT_EQ(n, 3u);
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
            // Built once: one registry node pool (purpose 0x3001) is accounted, not two.
            const std::string dump = vesk_test::capture_stdout(
                [&] { vesk_ground::instance()->mem_account().dump_by_module(vesk_print_stdout); });
            const size_t pool_kb = k_registry_pool_nodes * sizeof(vesk_registry_node) / 1024;
            ok = ok && dump.find("\tpurpose = 0x3001, total malloc = " + std::to_string(pool_kb) + "KB!\n") != std::string::npos;
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
