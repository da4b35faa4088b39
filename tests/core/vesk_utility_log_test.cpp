// The one printing module: exact colours and prefixes, and the fixed-path prefix.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_paths.h"

using namespace vesk_utility;

TEST(LogTest, LevelsCarryTheirColourPrefixAndResetAndRepeatsAreCounted)
{
    const std::string out = vesk_test::capture_stdout([] {
        vesk_log(vesk_log_level::error, "vesk_cls", "work", 12, "x = %d\n", 5);
        vesk_log(vesk_log_level::warning, "vesk_cls", "work", 13, "careful");
        vesk_log(vesk_log_level::debug, nullptr, "free_fn", 14, "%s\n", "hello");
    });
    EXPECT_EQ(out,
        "\e[0;32;31m[UTL] ERROR! vesk_cls::work[12]:x = 5\n\e[m"
        "\e[1;33m[UTL] WARNING! vesk_cls::work[13]:careful\e[m"
        "\e[0;32;32m[UTL] DEBUG! free_fn[14]:hello\n\e[m");

    // One site on a driven clock: the same text within 10 s of the last is counted; the count
    // is printed every 60 s of a run, and when the text changes; after a gap the text prints.
    vesk_log_site site;
    const struct {
        int64_t ms;
        int fd;
        const char* printed;
    } steps[] = {{1000, 3, "fd 3 fail!\n"}, {1100, 3, ""}, {10000, 3, ""}, {19000, 3, ""}, {28000, 3, ""},
        {37000, 3, ""}, {46000, 3, ""}, {55000, 3, ""}, {61000, 3, "last message repeated 8 times\n"}, {62000, 3, ""},
        {63000, 4, "last message repeated 1 times\n|fd 4 fail!\n"}, {73001, 4, "fd 4 fail!\n"}, {73002, 4, ""}};
    for (const auto& step : steps) {
        const std::string got = vesk_test::capture_stdout([&] {
            vesk_log_repeat_at(step.ms, site, vesk_log_level::error, "cls", "poll", 7, "fd %d fail!\n", step.fd);
        });
        std::string want;
        for (std::string rest = step.printed; !rest.empty();) {
            const size_t bar = rest.find('|');
            want += "\e[0;32;31m[UTL] ERROR! cls::poll[7]:" + rest.substr(0, bar) + "\e[m";
            rest = bar == std::string::npos ? "" : rest.substr(bar + 1);
        }
        EXPECT_EQ(got, want) << "at " << step.ms;
    }
}

TEST(LogDeathTest, AssertionBlockIsRedAndExitsWithMinusOne)
{
    VESK_EXPECT_FATAL(VESK_ASSERT(1 + 1 == 3),
        "^\e\\[0;32;31mASSERT!\n >File name: tests/core/vesk_utility_log_test.cpp\n >Function: TestBody\n "
        ">Line No: [0-9]+\n >Condition: 1 \\+ 1 == 3\n");
}

TEST(PathsTest, FixedPathsMoveUnderThePrivateRoot)
{
    char path[256];
    const std::string root = vesk_test::private_root();
    ASSERT_FALSE(root.empty());
    EXPECT_STREQ(vesk_root(), root.c_str());
    EXPECT_EQ(std::string(vesk_rooted_path(path, sizeof(path), k_path_diag_socket_main)),
        root + "/usr/lib/libutility.socket");
    EXPECT_EQ(std::string(vesk_rooted_path(path, sizeof(path), k_path_close_dog)), root + "/config//close_dog");
    // Cut, never overrun.
    char small[8];
    vesk_rooted_path(small, sizeof(small), k_path_wdt_tag);
    EXPECT_EQ(strlen(small), 7u);
}
