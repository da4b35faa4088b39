// vesk_utility_http - one-shot HTTP calls: a URL operator made for the call and deleted after
// it, so each call opens (and closes) its own connection.
#include "net/vesk_utility_http.h"

#include "core/vesk_utility_log.h"
#include "net/vesk_utility_url_operate.h"

namespace vesk_utility
{

using namespace vesk_soft;

VESK_ERR vesk_http_call(const char* url, const char* content_type, const void* body, unsigned body_len, char* answer,
                        unsigned size, unsigned* len, int* http_code, unsigned timeout_ms)
{
    if (len != nullptr)
        *len = 0;
    if (http_code != nullptr)
        *http_code = 0;
    vesk_url_realize* op = vesk_url_realize::create();
    if (op == nullptr)
        return VESK_ERR_NO_RESOURCE;
    if (timeout_ms != 0) {
        // The connect time-out never exceeds the whole call's.
        const unsigned connect_ms = timeout_ms < 10000 ? timeout_ms : 10000;
        op->set_timeout(connect_ms, timeout_ms);
    }
    const VESK_ERR err = op->request(url, content_type, body, body_len, answer, size, len);
    if (http_code != nullptr)
        *http_code = op->get_http_code();
    if (err != VESK_OK)
        VESK_ERR_FN("%s: %s\n", url, op->get_last_error());
    delete op;
    return err;
}

} // namespace vesk_utility
