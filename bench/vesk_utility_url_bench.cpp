// Loopback HTTP downloads: the URL operator into a buffer against a bare libcurl easy handle
// doing the same transfer, both from one in-process keep-alive server (MB/s and ratio).
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

constexpr size_t k_body = 4u << 20;

// Answers every request on every connection with the same k_body bytes.
class loopback_server
{
public:
    loopback_server() : m_body(k_body, 'v')
    {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        listen(m_fd, 8);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
        m_url = "http://127.0.0.1:" + std::to_string(ntohs(a.sin_port)) + "/body";
        std::thread([this] {
            for (;;) {
                const int c = accept(m_fd, nullptr, nullptr);
                if (c >= 0)
                    std::thread(&loopback_server::serve, this, c).detach();
            }
        }).detach();
    }
    const std::string& url() const { return m_url; }

private:
    void serve(int c)
    {
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(k_body) + "\r\n\r\n";
        std::string req;
        char buf[4096];
        for (;;) {
            const ssize_t n = read(c, buf, sizeof(buf));
            if (n <= 0)
                break;
            req.append(buf, static_cast<size_t>(n));
            if (req.find("\r\n\r\n") == std::string::npos)
                continue;
            req.clear();
            if (!send_all(c, head.data(), head.size()) || !send_all(c, m_body.data(), m_body.size()))
                break;
        }
        close(c);
    }
    static bool send_all(int c, const char* p, size_t n)
    {
        while (n > 0) {
            const ssize_t w = write(c, p, n);
            if (w <= 0)
                return false;
            p += w;
            n -= static_cast<size_t>(w);
        }
        return true;
    }

    int m_fd = -1;
    std::string m_url;
    std::string m_body;
};

loopback_server& server()
{
    static loopback_server s;
    return s;
}

struct bare_sink {
    char* buf;
    size_t len;
};

size_t bare_write(char* data, size_t size, size_t count, void* arg)
{
    bare_sink* s = static_cast<bare_sink*>(arg);
    memcpy(s->buf + s->len, data, size * count);
    s->len += size * count;
    return size * count;
}

void baseline_url_download(benchmark::State& state)
{
    std::vector<char> buf(k_body);
    CURL* c = curl_easy_init();
    bare_sink sink{buf.data(), 0};
    curl_easy_setopt(c, CURLOPT_URL, server().url().c_str());
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, bare_write);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
    for (auto _ : state) {
        sink.len = 0;
        if (curl_easy_perform(c) != CURLE_OK || sink.len != k_body)
            state.SkipWithError("bare transfer failed");
    }
    curl_easy_cleanup(c);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * k_body));
}

void vesk_url_download(benchmark::State& state)
{
    std::vector<char> buf(k_body);
    vesk_url_operate* op = vesk_utility_new_url_operate(0x40, "bench");
    for (auto _ : state) {
        unsigned len = 0;
        if (op->download_buf(server().url().c_str(), buf.data(), k_body, &len) != VESK_OK || len != k_body)
            state.SkipWithError(op->get_last_error());
    }
    vesk_utility_delete_url_operate(op, __FILE__, __func__);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * k_body));
}

} // namespace

BENCHMARK(baseline_url_download)->UseRealTime();
BENCHMARK(vesk_url_download)->UseRealTime();
