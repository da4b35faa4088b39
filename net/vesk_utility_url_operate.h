// vesk_utility_url_operate - the URL operator: one libcurl easy handle per operator, reused
// (with its open connections) by every transfer, and the engine of the one-shot HTTP calls.
#ifndef VESK_UTILITY_URL_OPERATE_H
#define VESK_UTILITY_URL_OPERATE_H

#include <atomic>
#include <cstddef>
#include <mutex>

#include "vesk_utility.h"

typedef void CURL;

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

// Installs the accounted allocator into libcurl (user 0x83, purpose 0x130400). REQUIRES: no
// curl_global_init has run in the process yet (libcurl keeps the allocator of the first
// global init). Returns libcurl's result code.
int vesk_url_install_allocator();

// Where a transfer's received bytes go, and where its sent bytes come from.
struct vesk_url_sink {
    int fd = -1;                             // a file, or
    char* buf = nullptr;                     // a buffer of `size` bytes
    size_t size = 0;
    size_t len = 0;                          // bytes received so far
    bool overflow = false;                   // the answer did not fit the buffer
    int error = 0;                           // errno of a failed write to fd
    vesk_soft::vesk_md5_cnt* md5 = nullptr;  // digest of what goes to fd, when one is checked
};
struct vesk_url_source {
    int fd = -1;                 // a file of `len` bytes, or
    const char* data = nullptr;  // a buffer of `len` bytes
    uint64_t len = 0;
    uint64_t pos = 0;            // bytes handed to libcurl so far
    int error = 0;               // errno of a failed read of fd
};

// Thread safety: m_state_lock guards m_busy and the setting of m_cancel, so a cancel() from
// another thread lands on the transfer in progress or on none; every other member belongs
// to the one thread that runs the operations.
class vesk_url_realize final : public vesk_soft::vesk_url_operate
{
public:
    // NULL when libcurl gives no handle (allocation failure).
    static vesk_url_realize* create();
    ~vesk_url_realize() override;

    VESK_ERR set_timeout(unsigned connect_ms, unsigned total_ms) override;
    VESK_ERR set_low_speed(unsigned bytes_per_s, unsigned seconds) override;
    VESK_ERR set_user(const char* user, const char* password) override;
    VESK_ERR set_tls(const char* ca_file, vesk_soft::VESK_BOOL verify_peer) override;
    VESK_ERR set_proxy(const char* proxy) override;
    VESK_ERR set_progress(vesk_soft::vesk_url_progress_fn fn, void* arg) override;
    VESK_ERR upload_file(const char* url, const char* path, vesk_soft::vesk_url_method method) override;
    VESK_ERR upload_buf(const char* url, const void* data, unsigned len, vesk_soft::vesk_url_method method) override;
    VESK_ERR download_file(const char* url, const char* path, const uint8_t* md5) override;
    VESK_ERR download_buf(const char* url, void* buf, unsigned size, unsigned* len) override;
    VESK_ERR post_json(const char* url, const char* json, char* answer, unsigned size, unsigned* len) override;
    VESK_ERR cancel() override;
    int get_http_code() override;
    const char* get_last_error() override;

    // A GET (body NULL) or a POST of body with content_type whose answer goes to answer
    // (NUL-terminated) even when the code is >= 400. The engine of vesk_utility_http_*.
    VESK_ERR request(const char* url, const char* content_type, const void* body, unsigned body_len, char* answer,
                     unsigned size, unsigned* len);

    // Accounted to the layer, so that a leaked operator shows in the memory dumps too.
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* p) noexcept;

private:
    vesk_url_realize() = default;

    // Resets the handle to this operator's options and marks a transfer in progress.
    bool begin(const char* url, bool fail_on_http_error);
    // Runs the prepared transfer and turns its outcome into a result; clears the mark.
    VESK_ERR perform(vesk_url_sink* sink);
    VESK_ERR upload(const char* url, vesk_url_source* src, vesk_soft::vesk_url_method method);
    VESK_ERR to_text(const char* url, const char* content_type, const void* body, unsigned body_len,
                     bool fail_on_http_error, char* answer, unsigned size, unsigned* len);
    void set_error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    static size_t on_write(char* data, size_t size, size_t count, void* arg);
    static size_t on_read(char* data, size_t size, size_t count, void* arg);
    static int on_seek(void* arg, int64_t offset, int origin);
    static int on_progress(void* arg, int64_t down_total, int64_t down_now, int64_t up_total, int64_t up_now);

    CURL* m_curl = nullptr;
    unsigned m_connect_ms = 10000;
    unsigned m_total_ms = 600000;
    unsigned m_low_speed_bytes = 1;
    unsigned m_low_speed_s = 30;
    bool m_verify_peer = true;
    char m_user[64] = "";
    char m_password[64] = "";
    bool m_has_user = false;
    char m_ca_file[256] = "";
    char m_proxy[256] = "";
    vesk_soft::vesk_url_progress_fn m_progress = nullptr;
    void* m_progress_arg = nullptr;

    int m_http_code = 0;
    char m_curl_error[256] = "";  // libcurl's detail of the last failure (CURLOPT_ERRORBUFFER)
    char m_last_error[320] = "";

    std::mutex m_state_lock;
    bool m_busy = false;                  // GUARDED_BY(m_state_lock)
    std::atomic<bool> m_cancel{false};    // set under m_state_lock, read by the callbacks
    vesk_url_sink* m_sink = nullptr;      // the running transfer's sink, for on_write
    vesk_url_source* m_source = nullptr;  // the running upload's data, for on_read and on_seek
};

} // namespace vesk_utility

#endif // VESK_UTILITY_URL_OPERATE_H
