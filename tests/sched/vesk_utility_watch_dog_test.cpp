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

// One check, as the timer would run it: what it returns and prints. Going on, it asks for 1000 ms.
vesk_timer_ret_code check(vesk_utility_watch_dog_manage& dogs, std::string* out = nullptr)
{
    unsigned next = 0;
    vesk_timer_task_type type = VESK_TIMER_TASK_COMMON;
    vesk_timer_ret_code ret = VESK_TIMER_RET_CONTINUE;
    const std::string said
        = capture_stdout([&] { ret = vesk_utility::vesk_utl_watch_dog_thread(&dogs, &next, &type); });
    EXPECT_TRUE(ret != VESK_TIMER_RET_CONTINUE || next == 1000u) << next;
    if (out != nullptr)
        *out = said;
    return ret;
}

// A local "reboot" that only leaves a mark, first on PATH; returns the mark's path.
std::string guard_reboot_command()
{
    const std::string bin = private_root() + "/bin";
    mkdir(bin.c_str(), 0755);
    const std::string mark = private_root() + "/local_reboot_ran";
    std::ofstream(bin + "/reboot") << "#!/bin/sh\ntouch " << mark << "\n";
    chmod((bin + "/reboot").c_str(), 0755);
    setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
    return mark;
}

} // namespace

TEST(WatchDogTest, RegistrationResetsAndHandlesAreNeverReused)
{
    vesk_utility_watch_dog_manage dogs(false);
    unsigned long a = 99, b = 99, c = 99, again = 99;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(5, 1, &a));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(6, 100, &b));
    EXPECT_EQ(std::make_pair(0ul, 1ul), std::make_pair(a, b));
    // Re-registration (same handle) and feeding set the counter back to 0: a dog with timeout
    // 1 survives any number of checks one apart.
    const auto survives = [&] {
        std::string out;
        return check(dogs, &out) == VESK_TIMER_RET_CONTINUE && out.find("Is Dead") == std::string::npos;
    };
    EXPECT_TRUE(survives());
    ASSERT_EQ(VESK_OK, dogs.regist_dog(5, 1, &again));
    EXPECT_TRUE(survives());
    ASSERT_EQ(VESK_OK, dogs.fetch_dog(a));
    EXPECT_TRUE(survives());
    EXPECT_EQ(a, again);

    EXPECT_EQ(VESK_OK, dogs.unregist_dog(b));
    EXPECT_EQ(VESK_OK, dogs.unregist_dog(b)); // unknown now: ignored
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, dogs.fetch_dog(b));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(7, 100, &c));
    EXPECT_EQ(2ul, c);
}

TEST(WatchDogTest, DeadDogWithCloseMarkerIsReportedEverySecondWithoutReboot)
{
    const std::string mark = guard_reboot_command(), marker = private_root() + "/config//close_dog";
    std::ofstream(marker).close();
    vesk_utility_watch_dog_manage dogs(false);
    dogs.regist_reboot_func(count_reboot);
    s_reboots = 0;
    unsigned long live = 0, dead = 0;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x40, 100, &live));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x41, 0, &dead));
    for (int second = 0; second < 2; second++) {
        std::string out;
        EXPECT_EQ(VESK_TIMER_RET_CONTINUE, check(dogs, &out));
        EXPECT_EQ(1, count_of(out, "System Need Reset Beacuse hand 0x1 purpose_id=0x41 Is Dead~!\n")) << out;
        EXPECT_NE(std::string::npos, out.find("common lock")); // the held-lock dump
    }
    EXPECT_EQ(0, s_reboots.load());
    EXPECT_NE(0, access(mark.c_str(), F_OK));
    unlink(marker.c_str());
}

TEST(WatchDogTest, DeadDogRebootsThroughTheFunctionThenTheProxyWithACauseRecord)
{
    const std::string mark = guard_reboot_command(), record = private_root() + "/proxy_record.txt";
    proxy_server_process server(private_root() + "/usr/lib/libmodel.socket", "--record-only " + record);
    ASSERT_TRUE(server.ready());

    vesk_utility_watch_dog_manage dogs(false);
    dogs.set_reboot_grace_ms(100);
    unsigned long hand = 0;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x77, 0, &hand));
    // First without a reboot function: the command all the same.
    EXPECT_EQ(VESK_TIMER_RET_DELETE, check(dogs));
    EXPECT_EQ("reboot\n", read_file(record));

    // Timeout 3: three checks without a feed pass, the fourth calls the function, then the proxy.
    s_reboots = 0;
    dogs.regist_reboot_func(count_reboot);
    ASSERT_EQ(VESK_OK, dogs.unregist_dog(hand));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x78, 3, &hand));
    for (int second = 0; second < 3; second++)
        EXPECT_EQ(VESK_TIMER_RET_CONTINUE, check(dogs));
    EXPECT_EQ(0, s_reboots.load());
    EXPECT_EQ(VESK_TIMER_RET_DELETE, check(dogs));
    EXPECT_EQ(1, s_reboots.load());
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
    const std::string mark = guard_reboot_command(), record = private_root() + "/task_record.txt";
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
