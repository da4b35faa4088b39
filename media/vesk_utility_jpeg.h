// vesk_utility_jpeg - JPEG encoding, decoding and header reading over TurboJPEG.
#ifndef VESK_UTILITY_JPEG_INTERNAL_H
#define VESK_UTILITY_JPEG_INTERNAL_H

#include "vesk_utility_picture.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

VESK_ERR jpeg_get_info(const uint8_t* jpeg, uint32_t size, vesk_soft::vesk_jpeg_info& info);
VESK_ERR jpeg_encode(const vesk_soft::vesk_image& src, vesk_soft::vesk_color_matrix matrix, uint32_t quality,
    uint8_t* out, uint32_t out_size, uint32_t& out_len);
VESK_ERR jpeg_decode(
    const uint8_t* jpeg, uint32_t size, uint32_t denom, uint64_t max_pixels, const vesk_soft::vesk_image& dst);

} // namespace vesk_utility

#endif // VESK_UTILITY_JPEG_INTERNAL_H
