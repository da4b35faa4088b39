// vesk_utility_image - pixel-format conversions over libyuv, shared by the JPEG codec, the BMP
// operator and the QR writer; and the accounted scratch buffer they all use.
#ifndef VESK_UTILITY_IMAGE_INTERNAL_H
#define VESK_UTILITY_IMAGE_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "vesk_utility_picture.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;
using vesk_soft::vesk_color_matrix;
using vesk_soft::vesk_image;

// The largest side any picture function accepts; keeps every byte count below 2^31.
constexpr uint32_t k_image_max_side = 16384;

// An accounted block freed on scope exit; data() is NULL when the allocation failed.
class vesk_scratch
{
public:
    explicit vesk_scratch(size_t size);
    ~vesk_scratch();
    vesk_scratch(const vesk_scratch&) = delete;
    vesk_scratch& operator=(const vesk_scratch&) = delete;
    uint8_t* data() const { return m_p; }

private:
    uint8_t* m_p = nullptr;
};

bool image_is_yuv(uint32_t format);
// Bytes of one row of plane 0 of a packed format (0 for YUV and unknown formats).
uint32_t image_row_bytes(uint32_t format, uint32_t width);
// Known format, sides 1..k_image_max_side, the planes it uses non-NULL with strides that hold
// a row.
bool image_valid(const vesk_image& img);
// Rows [y, y + rows) of img as an image of their own; y even for YUV.
vesk_image image_rows(const vesk_image& img, uint32_t y, uint32_t rows);
VESK_ERR image_convert(const vesk_image& src, const vesk_soft::vesk_real_rect* crop, const vesk_image& dst,
    vesk_color_matrix matrix);

} // namespace vesk_utility

#endif // VESK_UTILITY_IMAGE_INTERNAL_H
