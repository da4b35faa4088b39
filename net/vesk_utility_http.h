// vesk_utility_http - the small HTTP client: one-shot GET and POST calls, each on a URL
// operator of its own, so that there is one HTTP engine in the layer.
#ifndef VESK_UTILITY_HTTP_H
#define VESK_UTILITY_HTTP_H

#include "vesk_utility.h"

namespace vesk_utility
{

// A GET (body NULL) or a POST of body_len bytes of body; see vesk_utility_http_get/_post.
// REQUIRES: the layer is initialised (libcurl's allocator installed), url and answer not
// NULL, size nonzero.
vesk_soft::VESK_ERR vesk_http_call(const char* url, const char* content_type, const void* body, unsigned body_len,
                                   char* answer, unsigned size, unsigned* len, int* http_code, unsigned timeout_ms);

} // namespace vesk_utility

#endif // VESK_UTILITY_HTTP_H
