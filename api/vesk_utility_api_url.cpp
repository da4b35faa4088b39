// vesk_utility_api_url - the exported wrappers of URL transfers: operators recorded on the
// "url fd" list, and the one-shot HTTP calls.
#include "net/vesk_utility_http.h"
#include "net/vesk_utility_url_operate.h"
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"

namespace vesk_soft
{

using namespace vesk_utility;

vesk_url_operate* vesk_utility_new_url_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(VESK_LIST_URL, static_cast<vesk_url_operate*>(vesk_url_realize::create()), usr_id,
                             name != nullptr ? name : "");
}

VESK_ERR vesk_utility_delete_url_operate(vesk_url_operate* op, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_URL, op, file, func);
}

VESK_ERR vesk_utility_http_get(const char* url, char* answer, unsigned size, unsigned* len, int* http_code,
                               unsigned timeout_ms)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (url == nullptr || answer == nullptr || size == 0) {
        VESK_ERR_FN("url = %p, answer = %p, size = %u\n", static_cast<const void*>(url), static_cast<void*>(answer),
                    size);
        return VESK_ERR_INVALID_PARAM;
    }
    return vesk_http_call(url, nullptr, nullptr, 0, answer, size, len, http_code, timeout_ms);
}

VESK_ERR vesk_utility_http_post(const char* url, const char* content_type, const void* body, unsigned body_len,
                                char* answer, unsigned size, unsigned* len, int* http_code, unsigned timeout_ms)
{
    VESK_REQUIRE_INIT(VESK_ERR_NOT_INIT);
    if (url == nullptr || answer == nullptr || size == 0 || (body == nullptr && body_len != 0)) {
        VESK_ERR_FN("url = %p, body = %p, answer = %p, size = %u\n", static_cast<const void*>(url), body,
                    static_cast<void*>(answer), size);
        return VESK_ERR_INVALID_PARAM;
    }
    return vesk_http_call(url, content_type, body != nullptr ? body : "", body_len, answer, size, len, http_code,
                          timeout_ms);
}

} // namespace vesk_soft
