// The watchdog: dogs and handles, the check driven directly (one call is one second), and the
// reboot sequence against a proxy server that only records what it is asked to run. Nothing
// is rebooted: "reboot" on PATH is a stand-in that would leave a mark if it ever ran here.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "proxy_server_process.h"
#include "sched/vesk_utility_watch_dog.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using namespace vesk_test;
using vesk_utility::vesk_utility_watch_dog_manage;

namespace
{

std::atomic<int> s_reboots {0};

VESK_ERR count_reboot()
{
    s_reboots++;
    return VESK_OK;
}

// One check, as the timer would run it.
vesk_timer_ret_code check(vesk_utility_watch_dog_manage& dogs, unsigned* next_ms)
{
    vesk_timer_task_type type = VESK_TIMER_TASK_COMMON;
    *next_ms = 0;
    return vesk_utility::vesk_utl_watch_dog_thread(&dogs, next_ms, &type);
}

// A local "reboot" that only leaves a mark, first on PATH: should the command ever fall back
// to this process, nothing is rebooted and the test sees it.
std::string guard_reboot_command()
{
    const std::string bin = private_root() + "/bin";
    mkdir(bin.c_str(), 0755);
    const std::string mark = private_root() + "/local_reboot_ran";
    FILE* fp = fopen((bin + "/reboot").c_str(), "w");
    fprintf(fp, "#!/bin/sh\ntouch %s\n", mark.c_str());
    fclose(fp);
    chmod((bin + "/reboot").c_str(), 0755);
    setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
    return mark;
}

std::string close_dog_marker()
{
    return private_root() + "/config//close_dog";
}

} // namespace

TEST(WatchDogTest, RegistrationResetsAndHandlesAreNeverReused)
{
    vesk_utility_watch_dog_manage dogs(false);
    unsigned long a = 99, b = 99, c = 99, again = 99;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(5, 1, &a));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(6, 100, &b));
    EXPECT_EQ(0ul, a);
    EXPECT_EQ(1ul, b);

    unsigned next = 0;
    std::string out = capture_stdout([&] { EXPECT_EQ(VESK_TIMER_RET_CONTINUE, check(dogs, &next)); });
    EXPECT_EQ(1000u, next);
    EXPECT_EQ(std::string::npos, out.find("Is Dead"));
    // Re-registration (same handle) and feeding set the counter back to 0: 1 > 1 is not dead.
    ASSERT_EQ(VESK_OK, dogs.regist_dog(5, 1, &again));
    EXPECT_EQ(a, again);
    out = capture_stdout([&] { check(dogs, &next); });
    EXPECT_EQ(std::string::npos, out.find("Is Dead"));
    ASSERT_EQ(VESK_OK, dogs.fetch_dog(a));
    out = capture_stdout([&] { check(dogs, &next); });
    EXPECT_EQ(std::string::npos, out.find("Is Dead"));

    EXPECT_EQ(VESK_OK, dogs.unregist_dog(b));
    EXPECT_EQ(VESK_OK, dogs.unregist_dog(b)); // unknown now: ignored
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, dogs.fetch_dog(b));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(7, 100, &c));
    EXPECT_EQ(2ul, c);
}

TEST(WatchDogTest, DeadDogWithCloseMarkerIsReportedEverySecondWithoutReboot)
{
    const std::string mark = guard_reboot_command();
    std::ofstream(close_dog_marker()).close();
    ASSERT_EQ(0, access(close_dog_marker().c_str(), F_OK));
    vesk_utility_watch_dog_manage dogs(false);
    dogs.regist_reboot_func(count_reboot);
    s_reboots = 0;
    unsigned long live = 0, dead = 0;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x40, 100, &live));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x41, 0, &dead));
    for (int second = 0; second < 2; second++) {
        unsigned next = 0;
        vesk_timer_ret_code ret = VESK_TIMER_RET_DELETE;
        const std::string out = capture_stdout([&] { ret = check(dogs, &next); });
        EXPECT_EQ(VESK_TIMER_RET_CONTINUE, ret);
        EXPECT_EQ(1000u, next);
        EXPECT_EQ(1, count_of(out, "System Need Reset Beacuse hand 0x1 purpose_id=0x41 Is Dead~!\n")) << out;
        EXPECT_NE(std::string::npos, out.find("common lock")); // the held-lock dump
        EXPECT_EQ(std::string::npos, out.find("call dog_reboot"));
    }
    EXPECT_EQ(0, s_reboots.load());
    EXPECT_NE(0, access(mark.c_str(), F_OK));
    unlink(close_dog_marker().c_str());
}

TEST(WatchDogTest, DeadDogRebootsThroughTheFunctionThenTheProxyWithACauseRecord)
{
    const std::string mark = guard_reboot_command();
    const std::string record = private_root() + "/proxy_record.txt";
    proxy_server_process server(private_root() + "/usr/lib/libmodel.socket", "--record-only " + record);
    ASSERT_TRUE(server.ready());

    vesk_utility_watch_dog_manage dogs(false);
    dogs.set_reboot_grace_ms(100);
    unsigned long hand = 0;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x77, 0, &hand));
    // First without a reboot function: a warning, then the command all the same.
    unsigned next = 0;
    vesk_timer_ret_code ret = VESK_TIMER_RET_CONTINUE;
    std::string out = capture_stdout([&] { ret = check(dogs, &next); });
    EXPECT_EQ(VESK_TIMER_RET_DELETE, ret);
    EXPECT_NE(std::string::npos, out.find("vesk_utility_watch_dog_manage::dog_reboot"));
    EXPECT_NE(std::string::npos, out.find("m_reboot_func == NULL"));
    EXPECT_NE(std::string::npos, out.find("vesk_utl_watch_dog_thread"));
    EXPECT_NE(std::string::npos, out.find("why still alive? call system_reboot!"));
    EXPECT_EQ("reboot\n", read_file(record));

    s_reboots = 0;
    dogs.regist_reboot_func(count_reboot);
    ASSERT_EQ(VESK_OK, dogs.unregist_dog(hand));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x78, 3, &hand));
    for (int second = 0; second < 3; second++)
        EXPECT_EQ(VESK_TIMER_RET_CONTINUE, check(dogs, &next));
    out = capture_stdout([&] { ret = check(dogs, &next); }); // the 4th check without a feed
    EXPECT_EQ(VESK_TIMER_RET_DELETE, ret);
    EXPECT_EQ(1, s_reboots.load());
    EXPECT_NE(std::string::npos, out.find("call dog_reboot!"));
    EXPECT_EQ("reboot\nreboot\n", read_file(record));
    EXPECT_NE(0, access(mark.c_str(), F_OK)) << "the command ran here instead of in the proxy";

    // The cause record names the last dead dog of the list (0x78).
    vesk_xml_operate* xml = vesk_utility_new_xml_operate(VESK_USER_UTILITY, "wdt test");
    ASSERT_NE(nullptr, xml);
    ASSERT_EQ(VESK_OK, xml->load((private_root() + "/reserve/wdt_tag.xml").c_str()));
    char text[64];
    ASSERT_EQ(VESK_OK, xml->get_root_name(text, sizeof(text)));
    EXPECT_STREQ("WDT_TAG", text);
    int v[3] = {-1, -1, -1};
    EXPECT_EQ(VESK_OK, xml->get_attr_int("info", "purpose", &v[0]));
    EXPECT_EQ(VESK_OK, xml->get_attr_int("info", "threshold", &v[1]));
    EXPECT_EQ(VESK_OK, xml->get_attr_int("info", "src", &v[2]));
    EXPECT_EQ(std::vector<int>({0x78, 3, 3}), std::vector<int>(v, v + 3));
    ASSERT_EQ(VESK_OK, xml->get_attr("info", "time", text, sizeof(text)));
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << text;
    EXPECT_EQ(VESK_OK, vesk_utility_delete_xml_operate(xml, __FILE__, __func__));
}

TEST(WatchDogTest, ProcessWatchdogRebootsFromItsTimerTask)
{
    const std::string mark = guard_reboot_command();
    const std::string record = private_root() + "/task_record.txt";
    proxy_server_process server(private_root() + "/usr/lib/libmodel.socket", "--record-only " + record);
    ASSERT_TRUE(server.ready());

    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_regist_dog(1, 1, nullptr));
    s_reboots = 0;
    vesk_utility_regist_reboot_func(count_reboot);
    unsigned long hand = 0;
    ASSERT_EQ(VESK_OK, vesk_utility_regist_dog(0x5151, 0, &hand));
    EXPECT_TRUE(wait_for([] { return s_reboots.load() > 0; }));
    // Five seconds after the function, the command goes to the proxy and the task ends.
    EXPECT_TRUE(wait_for([&] { return read_file(record) == "reboot\n"; }));
    EXPECT_EQ(1, s_reboots.load());
    EXPECT_NE(0, access(mark.c_str(), F_OK));
    EXPECT_EQ(VESK_OK, vesk_utility_fetch_dog(hand));
    EXPECT_EQ(VESK_OK, vesk_utility_unregist_dog(hand));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, vesk_utility_fetch_dog(hand));
}
