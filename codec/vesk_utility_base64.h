// vesk_utility_base64 - RFC 4648 base64 in the standard and the URL-safe alphabet, into the
// caller's buffers, with strict decoding.
#ifndef VESK_UTILITY_BASE64_H
#define VESK_UTILITY_BASE64_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::VESK_ERR;

// Characters an encoding of in_len bytes takes (no NUL); above UINT32_MAX for the largest
// inputs, which no buffer can hold.
uint64_t vesk_base64_encoded_len(uint32_t in_len, uint32_t flags);
// The contracts of vesk_utility_base64_encode / _decode (include/vesk_utility_codec.h); the
// pointers are already checked.
VESK_ERR vesk_base64_encode(const void* in, uint32_t in_len, char* out, uint32_t out_size, uint32_t* out_len,
                            uint32_t flags);
VESK_ERR vesk_base64_decode(const char* in, uint32_t in_len, void* out, uint32_t out_size, uint32_t* out_len,
                            uint32_t flags);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_BASE64_H
