// vesk_utility_charset - character-set conversion over the C library's iconv, with one open
// converter per thread and direction, and the UTF-8 checks that need no converter.
#ifndef VESK_UTILITY_CHARSET_H
#define VESK_UTILITY_CHARSET_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::VESK_ERR;

// The contract of vesk_utility_charset_convert (include/vesk_utility_codec.h); arguments are
// already checked (out_size >= 1).
VESK_ERR vesk_charset_convert(const char* from, const char* to, const char* in, uint32_t in_len, char* out,
                              uint32_t out_size, uint32_t* out_len, bool replace_invalid);

// Length (1-4) of the well-formed UTF-8 character at s, which has `avail` bytes; 0 when the
// bytes there are not one.
uint32_t vesk_utf8_char_len(const unsigned char* s, uint32_t avail);
bool vesk_is_utf8(const char* s, uint32_t len);
// Length of the longest prefix of s[0, len) of at most `max` bytes that ends on a character
// boundary (a byte that starts no well-formed character counts as one character).
uint32_t vesk_utf8_fit(const char* s, uint32_t len, uint32_t max);

// Converters this thread holds open (for tests).
unsigned vesk_charset_cached_converters();

}  // namespace vesk_utility

#endif  // VESK_UTILITY_CHARSET_H
