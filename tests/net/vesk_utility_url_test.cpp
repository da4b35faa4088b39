// URL transfers against a Python HTTP server and a pyftpdlib FTP server on 127.0.0.1, started by
// the suite; contents are compared with sha256sum.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "net_test_support.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using vesk_net_test::bg_process;
using vesk_net_test::capture;
using vesk_net_test::sh;

namespace
{

constexpr unsigned k_big = 50u << 20;

std::string sha256_of(const std::string& path)
{
    return capture("sha256sum " + path).substr(0, 64);
}

class url_test : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = vesk_test::private_root() + "/url";
        s_srv = s_dir + "/srv";
        ASSERT_EQ(sh("mkdir -p " + s_srv + " && cd " + s_dir + " && head -c " + std::to_string(k_big)
                      + " /dev/urandom >srv/big.bin && (head -c 100000 /dev/urandom >srv/small.bin)"),
            0);
        const std::string py = "exec /usr/bin/python3 " + std::string(VESK_NET_TEST_DATA) + "/url_test_server.py ";
        s_peers[0].reset(new bg_process(py + s_srv, &s_http));
        s_peers[1].reset(new bg_process(py + s_srv + " ftp", &s_ftp));
        ASSERT_TRUE(s_http != 0 && s_ftp != 0);
    }
    static void TearDownTestSuite()
    {
        for (auto& p : s_peers)
            p.reset();
    }
    void SetUp() override
    {
        m_op = vesk_utility_new_url_operate(0x55, "url test");
        ASSERT_NE(m_op, nullptr);
    }
    void TearDown() override { EXPECT_EQ(vesk_utility_delete_url_operate(m_op, __FILE__, __func__), VESK_OK); }

    static std::string http(const std::string& path) { return "http://127.0.0.1:" + std::to_string(s_http) + path; }
    static std::string ftp(const std::string& path) { return "ftp://127.0.0.1:" + std::to_string(s_ftp) + path; }

    static std::string s_dir, s_srv;
    static int s_http, s_ftp;
    static std::unique_ptr<bg_process> s_peers[2];
    vesk_url_operate* m_op = nullptr;
};
std::string url_test::s_dir, url_test::s_srv;
int url_test::s_http, url_test::s_ftp;
std::unique_ptr<bg_process> url_test::s_peers[2];

} // namespace

TEST_F(url_test, LargeFilesRoundTripByteExactOverHttpAndFtp)
{
    const std::string big = s_srv + "/big.bin", back = s_dir + "/back.bin";
    const std::string want = sha256_of(big);
    ASSERT_EQ(want.size(), 64u);
    const struct {
        std::string url, stored;
        vesk_url_method method;
    } uploads[] = {{http("/files/put.bin"), "put.bin", VESK_URL_PUT}, {http("/files/post.bin"), "post.bin", VESK_URL_POST},
                   {ftp("/new/dir/ftp.bin"), "new/dir/ftp.bin", VESK_URL_PUT}};  // FTP directories created
    m_op->set_user("test", "secret");
    for (const auto& u : uploads) {
        ASSERT_EQ(m_op->upload_file(u.url.c_str(), big.c_str(), u.method), VESK_OK) << u.url << m_op->get_last_error();
        EXPECT_EQ(sha256_of(s_srv + "/" + u.stored), want) << u.url;
    }
    EXPECT_EQ(capture("cat " + s_srv + "/post.bin.type"), "application/octet-stream");
    EXPECT_EQ(m_op->get_http_code(), 226);  // FTP: transfer complete
    // Back again: plain, chunked, through redirects, over FTP.
    for (const std::string& url : {http("/files/big.bin"), http("/chunked/big.bin"),
                                   http("/redirect/3/files/big.bin"), ftp("/new/dir/ftp.bin")}) {
        unlink(back.c_str());
        ASSERT_EQ(m_op->download_file(url.c_str(), back.c_str(), nullptr), VESK_OK) << url << m_op->get_last_error();
        EXPECT_EQ(sha256_of(back), want) << url;
    }
    EXPECT_EQ(sh("! ls " + s_dir + " | grep -q back.bin."), 0) << "a temporary file was left";
}

TEST_F(url_test, BuffersJsonAndOneShotCalls)
{
    std::vector<char> data(300000);
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i * 7 + i / 251);
    std::vector<char> got(data.size() + 64);
    for (unsigned len : {0u, 1u, 300000u}) {
        ASSERT_EQ(m_op->upload_buf(http("/files/buf.bin").c_str(), data.data(), len, VESK_URL_PUT), VESK_OK);
        EXPECT_EQ(m_op->get_http_code(), 201);
        unsigned n = 12345;
        ASSERT_EQ(m_op->download_buf(http("/chunked/buf.bin").c_str(), got.data(), len, &n), VESK_OK) << len;
        ASSERT_EQ(n, len);
        EXPECT_EQ(memcmp(got.data(), data.data(), len), 0) << len;
    }
    // A buffer one byte short: refused, whether the length is announced or not, and the
    // guard bytes behind the buffer stay untouched.
    for (const std::string& url : {http("/files/buf.bin"), http("/chunked/buf.bin")}) {
        memset(got.data(), 0x5A, got.size());
        unsigned n = 0;
        EXPECT_EQ(m_op->download_buf(url.c_str(), got.data(), 299999, &n), VESK_ERR_OPERATE_FAIL) << url;
        EXPECT_LE(n, 299999u);
        for (size_t i = 299999; i < got.size(); i++)
            ASSERT_EQ(got[i], 0x5A) << url << " wrote past the buffer at " << i;
    }
    char answer[256];
    unsigned len = 0;
    ASSERT_EQ(m_op->post_json(http("/json").c_str(), "{\"chn\": [1, 2], \"on\": true}", answer, sizeof(answer), &len),
              VESK_OK);
    EXPECT_STREQ(answer, "{\"type\": \"application/json\", \"echo\": {\"chn\": [1, 2], \"on\": true}}");
    // A refusal keeps its explanation.
    EXPECT_EQ(m_op->post_json(http("/json").c_str(), "{oops", answer, sizeof(answer), &len), VESK_ERR_FAIL);
    EXPECT_EQ(m_op->get_http_code(), 400);
    EXPECT_STREQ(answer, "{\"error\": \"not JSON\"}");
    // The one-shot calls: a GET, or a POST when there is a body.
    const struct {
        const char* path;
        const char* body;
        VESK_ERR err;
        int code;
        const char* answer;
    } shots[] = {{"/status/203", nullptr, VESK_OK, 203, "status 203"}, {"/status/404", nullptr, VESK_ERR_FAIL, 404, "status 404"},
        {"/echo", "line 1\n", VESK_OK, 200, "line 1\n"}, {"/files/small.bin", nullptr, VESK_ERR_OPERATE_FAIL, 200, ""}};
    for (const auto& c : shots) {
        int code = 0;
        const std::string url = http(c.path);
        EXPECT_EQ(c.body == nullptr ? vesk_utility_http_get(url.c_str(), answer, sizeof(answer), &len, &code, 5000)
                                    : vesk_utility_http_post(url.c_str(), "text/x-log", c.body, strlen(c.body), answer,
                                        sizeof(answer), &len, &code, 0),
            c.err)
            << c.path;
        EXPECT_EQ(code, c.code) << c.path;
        EXPECT_STREQ(answer, c.answer) << c.path;
    }
}

TEST_F(url_test, FailuresCarryTheirCodeAndText)
{
    const struct {
        std::string url;
        const char* user;
        const char* password;
        VESK_ERR err;
        int code;
    } cases[] = {
        {http("/status/404"), nullptr, nullptr, VESK_ERR_FAIL, 404},
        {http("/auth/files/small.bin"), nullptr, nullptr, VESK_ERR_FAIL, 401},
        {http("/auth/files/small.bin"), "test", "wrong", VESK_ERR_FAIL, 401},
        {http("/auth/files/small.bin"), "test", "secret", VESK_OK, 200},
        {http("/redirect/9/files/small.bin"), nullptr, nullptr, VESK_ERR_FAIL, 302},  // more than 5 hops
        {http("/reset"), nullptr, nullptr, VESK_ERR_FAIL, 0},
        {"http://127.0.0.1:1/", nullptr, nullptr, VESK_ERR_FAIL, 0},  // refused
        {ftp("/no/such.bin"), "test", "secret", VESK_ERR_FAIL, 550},
        {"file:///etc/passwd", nullptr, nullptr, VESK_ERR_FAIL, 0},  // not a transfer protocol of ours
    };
    static char buf[200000];
    for (const auto& c : cases) {
        m_op->set_user(c.user, c.password);
        unsigned n = 0;
        EXPECT_EQ(m_op->download_buf(c.url.c_str(), buf, sizeof(buf), &n), c.err) << c.url;
        EXPECT_EQ(m_op->get_http_code(), c.code) << c.url;
        EXPECT_EQ(m_op->get_last_error()[0] != '\0', c.err != VESK_OK) << c.url << ": " << m_op->get_last_error();
    }
    EXPECT_EQ(m_op->upload_file(http("/files/x").c_str(), "/no/such/file", VESK_URL_PUT), VESK_ERR_OPERATE_FAIL);

    // Arguments refused before any transfer: no URL, buffer or file, an unknown method, a
    // limit of zero, a field longer than its room.
    const std::string url = http("/files/small.bin"), long_name(300, 'u');
    unsigned n = 0;
    const VESK_ERR refused[] = {m_op->set_timeout(0, 1000), m_op->set_timeout(1000, 0), m_op->set_low_speed(0, 5),
        m_op->set_low_speed(5, 0), m_op->set_user(long_name.c_str(), ""), m_op->set_proxy(long_name.c_str()),
        m_op->download_buf("", buf, sizeof(buf), &n), m_op->download_buf(url.c_str(), nullptr, 8, &n),
        m_op->download_file(url.c_str(), "", nullptr), m_op->upload_buf(url.c_str(), nullptr, 1, VESK_URL_PUT),
        m_op->upload_file(url.c_str(), "/etc/hostname", static_cast<vesk_url_method>(7)),
        m_op->post_json(url.c_str(), nullptr, buf, sizeof(buf), &n)};
    for (size_t i = 0; i < sizeof(refused) / sizeof(refused[0]); i++)
        EXPECT_EQ(refused[i], VESK_ERR_INVALID_PARAM) << "row " << i;
}

TEST_F(url_test, BrokenDownloadLeavesTheOldFileAlone)
{
    const std::string dir = s_dir + "/keep", path = dir + "/image.bin";
    ASSERT_EQ(sh("mkdir -p " + dir + " && (echo old >" + path + ")"), 0);
    uint8_t md5[16], bad[16];  // md5sum's digest, and one with a bit flipped
    const std::string hex = capture("md5sum " + s_srv + "/small.bin");
    for (int i = 0; i < 16; i++)
        bad[i] = md5[i] = static_cast<uint8_t>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
    bad[15] ^= 1;
    m_op->set_low_speed(100, 2);
    const struct {
        std::string url;
        const uint8_t* md5;
        VESK_ERR err;
    } cases[] = {{http("/short/big.bin"), nullptr, VESK_ERR_FAIL}, {http("/reset"), nullptr, VESK_ERR_FAIL},
                 {http("/status/404"), nullptr, VESK_ERR_FAIL}, {http("/stall"), nullptr, VESK_ERR_FAIL},
                 {http("/files/small.bin"), bad, VESK_ERR_OPERATE_FAIL}};
    for (const auto& c : cases) {
        EXPECT_EQ(m_op->download_file(c.url.c_str(), path.c_str(), c.md5), c.err) << c.url;
        EXPECT_EQ(capture("cat " + path), "old\n") << c.url;
        EXPECT_EQ(sh("test $(ls -A " + dir + " | wc -l) = 1"), 0) << c.url << ": a temporary file was left";
    }
    EXPECT_EQ(m_op->download_file(http("/chunked/small.bin").c_str(), path.c_str(), md5), VESK_OK)
        << m_op->get_last_error();
    EXPECT_EQ(sha256_of(path), sha256_of(s_srv + "/small.bin"));
}

TEST_F(url_test, StallCancelAndProgressAbortEndTransfers)
{
    static char buf[4096];
    unsigned n = 0;
    // A peer that stops sending trips the low-speed limit, long before the total time-out.
    m_op->set_timeout(10000, 300000);
    m_op->set_low_speed(100, 2);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(m_op->download_buf(http("/stall").c_str(), buf, sizeof(buf), &n), VESK_ERR_FAIL);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(120));
    // A cancel ends what only the 300 s limits would end.
    EXPECT_EQ(m_op->cancel(), VESK_ERR_OPERATE_FAIL) << "nothing to cancel";
    m_op->set_low_speed(1, 300);
    VESK_ERR err = VESK_OK;
    std::thread t([&] { err = m_op->download_buf(http("/stall").c_str(), buf, sizeof(buf), &n); });
    while (m_op->cancel() != VESK_OK)
        usleep(1000);
    t.join();
    EXPECT_EQ(err, VESK_ERR_FAIL);
    EXPECT_STREQ(m_op->get_last_error(), "cancelled");
    // The progress callback sees the transfer move and may stop it.
    uint64_t seen[2] = {0, 0};  // total, now
    m_op->set_progress([](void* arg, uint64_t total, uint64_t now, uint64_t, uint64_t) {
        static_cast<uint64_t*>(arg)[0] = total;
        return (static_cast<uint64_t*>(arg)[1] = now) > 0 ? 1 : 0;
    }, seen);
    static char big[1 << 20];
    EXPECT_EQ(m_op->download_buf(http("/files/small.bin").c_str(), big, sizeof(big), &n), VESK_ERR_FAIL);
    EXPECT_STREQ(m_op->get_last_error(), "aborted by the progress callback");
    EXPECT_EQ(seen[0], 100000u);
    EXPECT_GT(seen[1], 0u);
}
