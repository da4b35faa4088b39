// URL transfers before initialisation: libcurl's accounted allocator is not installed yet, so
// nothing may reach libcurl.
#include <gtest/gtest.h>

#include "test_support.h"
#include "vesk_utility.h"

TEST(PreInitTest, UrlTransfersRefuseUntilInitialised)
{
    using namespace vesk_soft;
    char a[16];
    const std::string out = vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_new_url_operate(0x40, "u"), nullptr);
        EXPECT_EQ(vesk_utility_http_get("http://127.0.0.1:1/", a, sizeof(a), nullptr, nullptr, 0), VESK_ERR_NOT_INIT);
        EXPECT_EQ(vesk_utility_http_post("http://127.0.0.1:1/", nullptr, "x", 1, a, sizeof(a), nullptr, nullptr, 0),
                  VESK_ERR_NOT_INIT);
    });
    EXPECT_EQ(vesk_test::count_of(out, "not init\e[m"), 3) << out;
}
