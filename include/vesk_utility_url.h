// vesk_utility_url.h - HTTP(S) and FTP transfers: the URL operator (uploads, downloads, JSON
// posts on one reusable connection) and two one-shot HTTP calls on the same engine.
//
// Contract
//   Thread safety: one thread at a time runs operations on an operator; cancel() alone may
//   come from any other thread. Different operators run in parallel freely.
//   Every transfer is bounded: a connect time-out, a total time-out and a low-speed limit are
//   always in force (defaults below); the process's signals are never used.
//   Proxies: none unless set_proxy() names one; the environment's proxy variables are ignored.
//   Redirects are followed (at most 5, HTTP(S) and FTP(S) only).
//   Results: VESK_OK; VESK_ERR_INVALID_PARAM for a NULL or empty argument where one is
//   needed; VESK_ERR_OPERATE_FAIL when an answer does not fit the caller's buffer, a local
//   file cannot be read or written or a digest does not match; VESK_ERR_NO_RESOURCE when
//   memory for the request runs out; VESK_ERR_FAIL for every transfer failure (no
//   connection, time-out, cancel, TLS, an HTTP code >= 400, an aborting progress callback).
//   After any transfer, get_http_code() and get_last_error() say what happened.
//   Memory: the operator is accounted to the layer (user 0x13); what the transfer library
//   allocates is accounted to user 0x83, purpose 0x130400, and is released when the operator
//   is deleted.
#ifndef VESK_UTILITY_URL_H
#define VESK_UTILITY_URL_H

#include "vesk_utility_types.h"

namespace vesk_soft
{

// Method of an HTTP upload; FTP URLs always store the file (STOR).
enum vesk_url_method : uint32_t {
    VESK_URL_PUT = 0,
    VESK_URL_POST = 1,  // the data are the raw body, "Content-Type: application/octet-stream"
};

// Called during a transfer, at least once a second even while nothing moves. Totals are 0
// while unknown. Returning nonzero aborts the transfer, which then fails with VESK_ERR_FAIL.
typedef int (*vesk_url_progress_fn)(void* arg, uint64_t down_total, uint64_t down_now, uint64_t up_total,
                                    uint64_t up_now);

class vesk_url_operate
{
public:
    vesk_url_operate() = default;
    vesk_url_operate(const vesk_url_operate&) = delete;
    vesk_url_operate& operator=(const vesk_url_operate&) = delete;

    // ---- Options, kept for every later transfer of this operator ----
    // Connect and total time-outs in milliseconds; both must be nonzero (defaults 10 s and
    // 600 s).
    virtual VESK_ERR set_timeout(unsigned connect_ms, unsigned total_ms) = 0;
    // Fails a transfer slower than bytes_per_s for `seconds` in a row (default 1 byte/s for
    // 30 s, i.e. a stalled peer). Both must be nonzero.
    virtual VESK_ERR set_low_speed(unsigned bytes_per_s, unsigned seconds) = 0;
    // Credentials for HTTP (basic or digest, as the server asks) and FTP; NULL user: none
    // (FTP then logs in anonymously).
    virtual VESK_ERR set_user(const char* user, const char* password) = 0;
    // TLS: ca_file NULL takes the system's certificate store. verify_peer 0 accepts any
    // certificate and host name (test benches only). Default: system store, verified.
    virtual VESK_ERR set_tls(const char* ca_file, VESK_BOOL verify_peer) = 0;
    // "http://host:port" and the like; NULL or "" for no proxy (the default).
    virtual VESK_ERR set_proxy(const char* proxy) = 0;
    // NULL fn: no callback.
    virtual VESK_ERR set_progress(vesk_url_progress_fn fn, void* arg) = 0;

    // ---- Transfers ----
    // Sends the file at path / the len bytes at data: an HTTP PUT or POST, or an FTP STOR
    // that creates missing directories of the URL's path. An upload of 0 bytes is allowed.
    virtual VESK_ERR upload_file(const char* url, const char* path, vesk_url_method method) = 0;
    virtual VESK_ERR upload_buf(const char* url, const void* data, unsigned len, vesk_url_method method) = 0;
    // Fetches url into path. The data go to a temporary file beside path, which is flushed
    // to the disk and renamed over path only when the transfer is complete; on any failure it
    // is removed, and a file already at path stays as it was. md5, when not NULL, is the
    // digest the file must have: a mismatch fails with VESK_ERR_OPERATE_FAIL.
    virtual VESK_ERR download_file(const char* url, const char* path, const uint8_t* md5) = 0;
    // Fetches url into buf; *len gets the byte count. An answer larger than size fails with
    // VESK_ERR_OPERATE_FAIL, and nothing is ever written past buf + size.
    virtual VESK_ERR download_buf(const char* url, void* buf, unsigned size, unsigned* len) = 0;
    // POSTs the NUL-terminated JSON text ("Content-Type: application/json") and reads the
    // answer into answer (NUL-terminated, so at most size - 1 bytes; *len their count, len
    // may be NULL). The answer is kept even when the code is >= 400 (which still returns
    // VESK_ERR_FAIL), since APIs explain their refusals in it.
    virtual VESK_ERR post_json(const char* url, const char* json, char* answer, unsigned size, unsigned* len) = 0;

    // Ends the transfer in progress on another thread, which returns VESK_ERR_FAIL within
    // about a second. VESK_ERR_OPERATE_FAIL when no transfer is in progress (nothing is kept
    // for a later one).
    virtual VESK_ERR cancel() = 0;
    // HTTP (or FTP) code of the last answer of the last transfer, 0 when none came.
    virtual int get_http_code() = 0;
    // Why the last transfer failed ("" after a success); valid until the next transfer.
    virtual const char* get_last_error() = 0;

    virtual ~vesk_url_operate() { }
};

// A new operator (with its connection handle), recorded on the "url fd" list with the
// caller's id and name. NULL before initialisation or when no handle can be had.
VESK_API vesk_url_operate* vesk_utility_new_url_operate(vesk_user_id usr_id, const char* name);
// Destroys an operator from the call above, closing its connections; an unknown one is fatal.
VESK_API VESK_ERR vesk_utility_delete_url_operate(vesk_url_operate* op, const char* file, const char* func);

// One-shot HTTP(S) calls with the operator's defaults (no proxy, system certificate store),
// a total time-out of timeout_ms (0: the default 600 s). The answer goes to answer as in
// post_json (NUL-terminated, kept for codes >= 400); http_code, when not NULL, gets the code.
VESK_API VESK_ERR vesk_utility_http_get(const char* url, char* answer, unsigned size, unsigned* len,
                                        int* http_code, unsigned timeout_ms);
// POSTs len bytes of body with the given content type (NULL: "application/octet-stream").
VESK_API VESK_ERR vesk_utility_http_post(const char* url, const char* content_type, const void* body,
                                         unsigned body_len, char* answer, unsigned size, unsigned* len,
                                         int* http_code, unsigned timeout_ms);

} // namespace vesk_soft

#endif // VESK_UTILITY_URL_H
