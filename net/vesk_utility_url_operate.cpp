// vesk_utility_url_operate - HTTP(S)/FTP transfers over one libcurl easy handle per operator:
// options kept between transfers, uploads from files and buffers, downloads that never leave
// a half file under the final name, bounded buffers, and cancel from another thread.
#include "net/vesk_utility_url_operate.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/vesk_utility_bytes.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"
#include "codec/vesk_utility_md5.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr vesk_memmory_purpose k_purpose_curl = 0x130400;
constexpr long k_max_redirects = 5;
constexpr const char* k_protocols = "http,https,ftp,ftps";

// libcurl's allocator: its blocks carry the protocol libraries' id, so the dumps show them
// apart from the layer's own. Sizes above 4 GiB cannot occur on the board. Pointer alignment
// lets the small ones (option strings, list nodes) share the little-memory pool on the board,
// where 64-bit fields need only word alignment.
void* curl_malloc(size_t size)
{
    return vesk_malloc(VESK_USER_PROTOCOL_LIBS, k_purpose_curl, static_cast<unsigned>(size), alignof(void*));
}

void curl_free(void* p)
{
    vesk_free("", "", p);
}

void* curl_realloc(void* p, size_t size)
{
    return vesk_realloc(VESK_USER_PROTOCOL_LIBS, k_purpose_curl, p, static_cast<unsigned>(size), "", "",
                        alignof(void*));
}

char* curl_strdup(const char* s)
{
    const size_t n = strlen(s) + 1;
    char* p = static_cast<char*>(curl_malloc(n));
    if (p != nullptr)
        memcpy(p, s, n);
    return p;
}

void* curl_calloc(size_t count, size_t size)
{
    if (size != 0 && count > UINT_MAX / size)
        return nullptr;
    void* p = curl_malloc(count * size);
    if (p != nullptr)
        memset(p, 0, count * size);
    return p;
}

// Copies s into a fixed field; false (and the field unchanged) when it does not fit.
template <size_t N> bool copy_field(char (&field)[N], const char* s)
{
    const size_t n = s != nullptr ? strlen(s) : 0;
    if (n >= N)
        return false;
    if (n != 0)
        memcpy(field, s, n);
    field[n] = '\0';
    return true;
}

// Releases a curl_slist at scope end (the header list must outlive curl_easy_perform).
struct header_list {
    curl_slist* list = nullptr;
    ~header_list() { curl_slist_free_all(list); }
    bool add(const char* h)
    {
        curl_slist* l = curl_slist_append(list, h);
        if (l == nullptr)
            return false;
        list = l;
        return true;
    }
};

} // namespace

int vesk_url_install_allocator()
{
    return curl_global_init_mem(CURL_GLOBAL_ALL, curl_malloc, curl_free, curl_realloc, curl_strdup, curl_calloc);
}

// ---- Life ---------------------------------------------------------------------------------

void* vesk_url_realize::operator new(std::size_t size) noexcept
{
    return vesk_malloc(VESK_USER_UTILITY, k_purpose_url_operator, static_cast<unsigned>(size), alignof(void*));
}

void vesk_url_realize::operator delete(void* p) noexcept
{
    vesk_free(__FILE__, __func__, p);
}

vesk_url_realize* vesk_url_realize::create()
{
    vesk_url_realize* op = new vesk_url_realize();
    if (op == nullptr)
        return nullptr;
    op->m_curl = curl_easy_init();
    if (op->m_curl == nullptr) {
        VESK_ERR_FN("curl_easy_init fail!\n");
        delete op;
        return nullptr;
    }
    return op;
}

vesk_url_realize::~vesk_url_realize()
{
    if (m_curl != nullptr)
        curl_easy_cleanup(m_curl);
}

// ---- Options ------------------------------------------------------------------------------

VESK_ERR vesk_url_realize::set_timeout(unsigned connect_ms, unsigned total_ms)
{
    if (connect_ms == 0 || total_ms == 0)
        return VESK_ERR_INVALID_PARAM;
    m_connect_ms = connect_ms;
    m_total_ms = total_ms;
    return VESK_OK;
}

VESK_ERR vesk_url_realize::set_low_speed(unsigned bytes_per_s, unsigned seconds)
{
    if (bytes_per_s == 0 || seconds == 0)
        return VESK_ERR_INVALID_PARAM;
    m_low_speed_bytes = bytes_per_s;
    m_low_speed_s = seconds;
    return VESK_OK;
}

VESK_ERR vesk_url_realize::set_user(const char* user, const char* password)
{
    if (user == nullptr) {
        m_has_user = false;
        m_user[0] = m_password[0] = '\0';
        return VESK_OK;
    }
    if (!copy_field(m_user, user) || !copy_field(m_password, password))
        return VESK_ERR_INVALID_PARAM;
    m_has_user = true;
    return VESK_OK;
}

VESK_ERR vesk_url_realize::set_tls(const char* ca_file, VESK_BOOL verify_peer)
{
    if (!copy_field(m_ca_file, ca_file))
        return VESK_ERR_INVALID_PARAM;
    m_verify_peer = verify_peer != 0;
    return VESK_OK;
}

VESK_ERR vesk_url_realize::set_proxy(const char* proxy)
{
    return copy_field(m_proxy, proxy) ? VESK_OK : VESK_ERR_INVALID_PARAM;
}

VESK_ERR vesk_url_realize::set_progress(vesk_url_progress_fn fn, void* arg)
{
    m_progress = fn;
    m_progress_arg = arg;
    return VESK_OK;
}

VESK_ERR vesk_url_realize::cancel()
{
    std::lock_guard<std::mutex> guard(m_state_lock);
    if (!m_busy)
        return VESK_ERR_OPERATE_FAIL;
    m_cancel.store(true, std::memory_order_relaxed);
    return VESK_OK;
}

int vesk_url_realize::get_http_code()
{
    return m_http_code;
}

const char* vesk_url_realize::get_last_error()
{
    return m_last_error;
}

void vesk_url_realize::set_error(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(m_last_error, sizeof(m_last_error), fmt, ap);
    va_end(ap);
}

// ---- The engine ---------------------------------------------------------------------------

bool vesk_url_realize::begin(const char* url, bool fail_on_http_error)
{
    CURL* c = m_curl;
    // A reset forgets the previous transfer's options but keeps open connections and the
    // DNS and TLS session caches, so a series of calls to one server reuses its connection.
    curl_easy_reset(c);
    m_http_code = 0;
    m_curl_error[0] = '\0';
    m_last_error[0] = '\0';
    m_sink = nullptr;
    CURLcode rc = curl_easy_setopt(c, CURLOPT_URL, url);
    // Signals would reach the whole process and are unsafe with threads; the resolver is
    // libcurl's threaded one, so name lookups stay bounded by the connect time-out anyway.
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, m_curl_error);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_connect_ms));
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(m_total_ms));
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(m_low_speed_bytes));
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, static_cast<long>(m_low_speed_s));
    // An empty proxy string overrides the environment's proxy variables.
    curl_easy_setopt(c, CURLOPT_PROXY, m_proxy);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, k_protocols);
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, k_protocols);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, k_max_redirects);
    curl_easy_setopt(c, CURLOPT_FAILONERROR, fail_on_http_error ? 1L : 0L);
    if (m_has_user) {
        curl_easy_setopt(c, CURLOPT_USERNAME, m_user);
        curl_easy_setopt(c, CURLOPT_PASSWORD, m_password);
        curl_easy_setopt(c, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC | CURLAUTH_DIGEST));
    }
    if (m_ca_file[0] != '\0')
        curl_easy_setopt(c, CURLOPT_CAINFO, m_ca_file);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, m_verify_peer ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, m_verify_peer ? 2L : 0L);
    curl_easy_setopt(c, CURLOPT_FTP_CREATE_MISSING_DIRS, static_cast<long>(CURLFTP_CREATE_DIR_RETRY));
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, on_write);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, this);
    if (rc != CURLE_OK) {
        set_error("bad url: %s", curl_easy_strerror(rc));
        return false;
    }
    std::lock_guard<std::mutex> guard(m_state_lock);
    m_busy = true;
    m_cancel.store(false, std::memory_order_relaxed);
    return true;
}

VESK_ERR vesk_url_realize::perform(vesk_url_sink* sink)
{
    vesk_url_sink discard;
    m_sink = sink != nullptr ? sink : &discard;
    const CURLcode rc = curl_easy_perform(m_curl);
    m_sink = nullptr;
    bool cancelled;
    {
        std::lock_guard<std::mutex> guard(m_state_lock);
        m_busy = false;
        cancelled = m_cancel.load(std::memory_order_relaxed);
    }
    long code = 0;
    curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &code);
    m_http_code = static_cast<int>(code);
    if (rc == CURLE_OK && code < 400)
        return VESK_OK;
    if (sink != nullptr && (sink->overflow || rc == CURLE_FILESIZE_EXCEEDED)) {
        set_error("answer larger than the buffer (%zu bytes)", sink->size);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (sink != nullptr && sink->error != 0) {
        set_error("local write failed: %s", strerror(sink->error));
        return VESK_ERR_OPERATE_FAIL;
    }
    if (cancelled)
        set_error("cancelled");
    else if (m_last_error[0] != '\0')
        return VESK_ERR_FAIL;  // the progress callback has said why
    else if (rc == CURLE_OK || rc == CURLE_HTTP_RETURNED_ERROR)
        set_error("HTTP %ld", code);
    else
        set_error("%s%s%s", curl_easy_strerror(rc), m_curl_error[0] != '\0' ? ": " : "", m_curl_error);
    return VESK_ERR_FAIL;
}

size_t vesk_url_realize::on_write(char* data, size_t size, size_t count, void* arg)
{
    vesk_url_realize* self = static_cast<vesk_url_realize*>(arg);
    vesk_url_sink* sink = self->m_sink;
    const size_t n = size * count;
    if (self->m_cancel.load(std::memory_order_relaxed))
        return 0;
    if (sink->fd >= 0) {
        if (!fd_write_all(sink->fd, data, n)) {
            sink->error = errno != 0 ? errno : EIO;
            return 0;
        }
        // Only the final answer's body reaches here (not redirect bodies), so the digest
        // covers exactly the file's bytes, without reading the file back from the flash.
        if (sink->md5 != nullptr)
            sink->md5->update(data, static_cast<uint32_t>(n));
    } else if (sink->buf != nullptr) {
        if (n > sink->size - sink->len) {
            sink->overflow = true;
            return 0;
        }
        memcpy(sink->buf + sink->len, data, n);
    }
    // A sink without storage (an upload's answer) consumes and drops.
    sink->len += n;
    return n;
}

size_t vesk_url_realize::on_read(char* data, size_t size, size_t count, void* arg)
{
    vesk_url_realize* self = static_cast<vesk_url_realize*>(arg);
    vesk_url_source* src = self->m_source;
    if (self->m_cancel.load(std::memory_order_relaxed))
        return CURL_READFUNC_ABORT;
    const uint64_t left = src->len - src->pos;
    size_t n = size * count;
    if (n > left)
        n = static_cast<size_t>(left);
    if (n == 0)
        return 0;
    if (src->data != nullptr) {
        memcpy(data, src->data + src->pos, n);
    } else {
        ssize_t got;
        do
            got = pread(src->fd, data, n, static_cast<off_t>(src->pos));
        while (got < 0 && errno == EINTR);
        // The file shrank under the upload or cannot be read: the body would be short.
        if (got <= 0) {
            src->error = got < 0 ? errno : EIO;
            return CURL_READFUNC_ABORT;
        }
        n = static_cast<size_t>(got);
    }
    src->pos += n;
    return n;
}

int vesk_url_realize::on_seek(void* arg, int64_t offset, int origin)
{
    vesk_url_source* src = static_cast<vesk_url_realize*>(arg)->m_source;
    // libcurl rewinds an upload to resend it after a redirect or an authentication round.
    if (origin != SEEK_SET || offset < 0 || static_cast<uint64_t>(offset) > src->len)
        return CURL_SEEKFUNC_CANTSEEK;
    src->pos = static_cast<uint64_t>(offset);
    return CURL_SEEKFUNC_OK;
}

int vesk_url_realize::on_progress(void* arg, int64_t down_total, int64_t down_now, int64_t up_total,
                                  int64_t up_now)
{
    vesk_url_realize* self = static_cast<vesk_url_realize*>(arg);
    if (self->m_cancel.load(std::memory_order_relaxed))
        return 1;
    if (self->m_progress != nullptr
        && self->m_progress(self->m_progress_arg, static_cast<uint64_t>(down_total), static_cast<uint64_t>(down_now),
                            static_cast<uint64_t>(up_total), static_cast<uint64_t>(up_now))
               != 0) {
        self->set_error("aborted by the progress callback");
        return 1;
    }
    return 0;
}

// ---- Transfers ----------------------------------------------------------------------------

VESK_ERR vesk_url_realize::upload(const char* url, vesk_url_source* src, vesk_url_method method)
{
    const bool post = method == VESK_URL_POST && strncasecmp(url, "ftp", 3) != 0;
    header_list headers;
    if (post && !headers.add("Content-Type: application/octet-stream"))
        return VESK_ERR_NO_RESOURCE;
    if (!begin(url, true))
        return VESK_ERR_FAIL;
    CURL* c = m_curl;
    m_source = src;
    curl_easy_setopt(c, CURLOPT_READFUNCTION, on_read);
    curl_easy_setopt(c, CURLOPT_READDATA, this);
    curl_easy_setopt(c, CURLOPT_SEEKFUNCTION, on_seek);
    curl_easy_setopt(c, CURLOPT_SEEKDATA, this);
    if (post) {
        curl_easy_setopt(c, CURLOPT_POST, 1L);
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(src->len));
        curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.list);
    } else {
        curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(c, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(src->len));
    }
    const VESK_ERR err = perform(nullptr);
    m_source = nullptr;
    if (src->error != 0) {
        set_error("local read failed: %s", strerror(src->error));
        return VESK_ERR_OPERATE_FAIL;
    }
    if (err == VESK_OK && src->pos != src->len) {
        set_error("sent %llu of %llu bytes", static_cast<unsigned long long>(src->pos),
                  static_cast<unsigned long long>(src->len));
        return VESK_ERR_FAIL;
    }
    return err;
}

VESK_ERR vesk_url_realize::upload_file(const char* url, const char* path, vesk_url_method method)
{
    if (url == nullptr || *url == '\0' || path == nullptr || *path == '\0'
        || (method != VESK_URL_PUT && method != VESK_URL_POST))
        return VESK_ERR_INVALID_PARAM;
    vesk_url_source src;
    src.fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (src.fd < 0 || fstat(src.fd, &st) != 0) {
        set_error("open %s: %s", path, strerror(errno));
        if (src.fd >= 0)
            close(src.fd);
        return VESK_ERR_OPERATE_FAIL;
    }
    src.len = static_cast<uint64_t>(st.st_size);
    const VESK_ERR err = upload(url, &src, method);
    close(src.fd);
    return err;
}

VESK_ERR vesk_url_realize::upload_buf(const char* url, const void* data, unsigned len, vesk_url_method method)
{
    if (url == nullptr || *url == '\0' || (data == nullptr && len != 0)
        || (method != VESK_URL_PUT && method != VESK_URL_POST))
        return VESK_ERR_INVALID_PARAM;
    vesk_url_source src;
    src.data = static_cast<const char*>(data);
    src.len = len;
    return upload(url, &src, method);
}

VESK_ERR vesk_url_realize::download_file(const char* url, const char* path, const uint8_t* md5)
{
    if (url == nullptr || *url == '\0' || path == nullptr || *path == '\0')
        return VESK_ERR_INVALID_PARAM;
    char tmp[PATH_MAX];
    if (snprintf(tmp, sizeof(tmp), "%s.XXXXXX", path) >= static_cast<int>(sizeof(tmp)))
        return VESK_ERR_INVALID_PARAM;
    // The temporary file sits beside the final one, so the rename stays on one file system
    // and is atomic.
    vesk_url_sink sink;
    sink.fd = mkostemp(tmp, O_CLOEXEC);
    if (sink.fd < 0) {
        set_error("create %s: %s", tmp, strerror(errno));
        return VESK_ERR_OPERATE_FAIL;
    }
    fchmod(sink.fd, 0644);
    vesk_md5_realize digest;
    if (md5 != nullptr)
        sink.md5 = &digest;
    VESK_ERR err = begin(url, true) ? perform(&sink) : VESK_ERR_FAIL;
    if (err == VESK_OK && md5 != nullptr) {
        uint8_t got[16];
        digest.final(got);
        if (memcmp(got, md5, sizeof(got)) != 0) {
            char got_hex[33], want_hex[33];
            vesk_md5_hex(got, got_hex);
            vesk_md5_hex(md5, want_hex);
            set_error("MD5 %s, expected %s", got_hex, want_hex);
            err = VESK_ERR_OPERATE_FAIL;
        }
    }
    if (err == VESK_OK && fsync(sink.fd) != 0) {
        set_error("fsync %s: %s", tmp, strerror(errno));
        err = VESK_ERR_OPERATE_FAIL;
    }
    if (close(sink.fd) != 0 && err == VESK_OK) {
        set_error("close %s: %s", tmp, strerror(errno));
        err = VESK_ERR_OPERATE_FAIL;
    }
    if (err == VESK_OK && rename(tmp, path) != 0) {
        set_error("rename to %s: %s", path, strerror(errno));
        err = VESK_ERR_OPERATE_FAIL;
    }
    if (err != VESK_OK)
        unlink(tmp);
    return err;
}

VESK_ERR vesk_url_realize::download_buf(const char* url, void* buf, unsigned size, unsigned* len)
{
    if (url == nullptr || *url == '\0' || buf == nullptr || len == nullptr)
        return VESK_ERR_INVALID_PARAM;
    *len = 0;
    if (!begin(url, true))
        return VESK_ERR_FAIL;
    // A known oversize answer is refused before its body starts.
    curl_easy_setopt(m_curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(size));
    vesk_url_sink sink;
    sink.buf = static_cast<char*>(buf);
    sink.size = size;
    const VESK_ERR err = perform(&sink);
    *len = static_cast<unsigned>(sink.len);
    return err;
}

VESK_ERR vesk_url_realize::to_text(const char* url, const char* content_type, const void* body, unsigned body_len,
                                   bool fail_on_http_error, char* answer, unsigned size, unsigned* len)
{
    if (len != nullptr)
        *len = 0;
    if (url == nullptr || *url == '\0' || answer == nullptr || size == 0 || (body == nullptr && body_len != 0))
        return VESK_ERR_INVALID_PARAM;
    answer[0] = '\0';
    header_list headers;
    if (content_type != nullptr) {
        char line[128];
        snprintf(line, sizeof(line), "Content-Type: %s", content_type);
        if (!headers.add(line))
            return VESK_ERR_NO_RESOURCE;
    }
    if (!begin(url, fail_on_http_error))
        return VESK_ERR_FAIL;
    if (content_type != nullptr) {
        curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, headers.list);
        curl_easy_setopt(m_curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_len));
        curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, body != nullptr ? body : "");
    }
    curl_easy_setopt(m_curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(size - 1));
    vesk_url_sink sink;
    sink.buf = answer;
    sink.size = size - 1;  // room for the NUL
    const VESK_ERR err = perform(&sink);
    answer[sink.len] = '\0';
    if (len != nullptr)
        *len = static_cast<unsigned>(sink.len);
    return err;
}

VESK_ERR vesk_url_realize::post_json(const char* url, const char* json, char* answer, unsigned size, unsigned* len)
{
    if (json == nullptr)
        return VESK_ERR_INVALID_PARAM;
    return to_text(url, "application/json", json, static_cast<unsigned>(strlen(json)), false, answer, size, len);
}

VESK_ERR vesk_url_realize::request(const char* url, const char* content_type, const void* body, unsigned body_len,
                                   char* answer, unsigned size, unsigned* len)
{
    if (body != nullptr && content_type == nullptr)
        content_type = "application/octet-stream";
    return to_text(url, body != nullptr ? content_type : nullptr, body, body_len, false, answer, size, len);
}

} // namespace vesk_utility
