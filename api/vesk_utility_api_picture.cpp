// vesk_utility_api_picture - the exported picture functions: argument checks, then the image
// converter, the JPEG codec, the BMP operator (recorded on the "bmp fd" list) and the QR writer.
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "media/vesk_utility_bmp_operate.h"
#include "media/vesk_utility_image.h"
#include "media/vesk_utility_jpeg.h"

namespace vesk_soft
{

using namespace vesk_utility;

VESK_ERR vesk_utility_image_convert(const vesk_image* src, const vesk_real_rect* crop, vesk_image* dst, vesk_color_matrix matrix)
{
    if (src == nullptr || dst == nullptr) {
        VESK_ERR_FN("src or dst NULL\n");
        return VESK_ERR_INVALID_PARAM;
    }
    return image_convert(*src, crop, *dst, matrix);
}

VESK_ERR vesk_utility_jpeg_get_info(const uint8_t* jpeg, uint32_t size, vesk_jpeg_info* info)
{
    if (jpeg == nullptr || size == 0 || info == nullptr)
        return VESK_ERR_INVALID_PARAM;
    return jpeg_get_info(jpeg, size, *info);
}

VESK_ERR vesk_utility_jpeg_encode(const vesk_image* src, vesk_color_matrix matrix, uint32_t quality, uint8_t* out,
    uint32_t out_size, uint32_t* out_len)
{
    if (src == nullptr || out == nullptr || out_len == nullptr) {
        VESK_ERR_FN("src, out or out_len NULL\n");
        return VESK_ERR_INVALID_PARAM;
    }
    return jpeg_encode(*src, matrix, quality, out, out_size, *out_len);
}

VESK_ERR vesk_utility_jpeg_decode(const uint8_t* jpeg, uint32_t size, uint32_t denom, uint64_t max_pixels, vesk_image* dst)
{
    if (jpeg == nullptr || size == 0 || dst == nullptr)
        return VESK_ERR_INVALID_PARAM;
    return jpeg_decode(jpeg, size, denom, max_pixels, *dst);
}

} // namespace vesk_soft

namespace vesk_soft
{

using namespace vesk_utility;

vesk_bmp_operate* vesk_utility_new_bmp_operate(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(VESK_LIST_BMP, static_cast<vesk_bmp_operate*>(new (std::nothrow) vesk_bmp_realize()),
        usr_id, name != nullptr ? name : "");
}

VESK_ERR vesk_utility_delete_bmp_operate(vesk_bmp_operate* op, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_BMP, op, file, func);
}

} // namespace vesk_soft
