// vesk_utility_3des - triple DES (EDE, two or three keys) in ECB and CBC over nettle, with
// no, PKCS#7 or zero padding, for the devices that still speak it.
#ifndef VESK_UTILITY_3DES_H
#define VESK_UTILITY_3DES_H

#include <cstdint>

#include "vesk_utility_codec.h"

namespace vesk_utility {

using vesk_soft::VESK_ERR;

// The contracts of vesk_utility_3des_encrypt / _decrypt (include/vesk_utility_codec.h);
// arguments are already checked: key of 16 or 24 bytes, a known mode and padding, an iv in
// CBC mode.
VESK_ERR vesk_3des_encrypt(const uint8_t* key, uint32_t key_len, vesk_soft::vesk_3des_mode mode,
                           vesk_soft::vesk_3des_pad pad, const uint8_t* iv, const uint8_t* in, uint32_t in_len,
                           uint8_t* out, uint32_t out_size, uint32_t* out_len);
VESK_ERR vesk_3des_decrypt(const uint8_t* key, uint32_t key_len, vesk_soft::vesk_3des_mode mode,
                           vesk_soft::vesk_3des_pad pad, const uint8_t* iv, const uint8_t* in, uint32_t in_len,
                           uint8_t* out, uint32_t out_size, uint32_t* out_len);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_3DES_H
