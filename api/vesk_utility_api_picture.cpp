// vesk_utility_api_picture - the exported picture functions: argument checks, then the image
// converter, the JPEG codec, the BMP operator (recorded on the "bmp fd" list) and the QR writer.
#include "vesk_utility.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"
#include "media/vesk_utility_bmp_operate.h"
#include "media/vesk_utility_image.h"
#include "media/vesk_utility_jpeg.h"
#include "media/vesk_utility_qr.h"

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

namespace vesk_soft
{

using namespace vesk_utility;

namespace
{

// The text as UTF-8: as it is, or converted from GB2312 into `buf` (room for 3 bytes per
// 2, the most a GB2312 text can grow).
VESK_ERR qr_text(const char* text, uint32_t len, uint32_t charset, char* buf, uint32_t size, const uint8_t** utf8,
    uint32_t* utf8_len)
{
    if (charset == VESK_QR_TEXT_UTF8) {
        *utf8 = reinterpret_cast<const uint8_t*>(text);
        *utf8_len = len;
        return VESK_OK;
    }
    if (charset != VESK_QR_TEXT_GB2312)
        return VESK_ERR_INVALID_PARAM;
    const VESK_ERR err = vesk_utility_gb2312_to_utf8(text, len, buf, size, utf8_len);
    if (err != VESK_OK) {
        VESK_ERR_FN("QR text is not valid GB2312 (0x%x)\n", err);
        return err == VESK_ERR_NOT_SUPPORT ? err : VESK_ERR_INVALID_PARAM;
    }
    *utf8 = reinterpret_cast<const uint8_t*>(buf);
    return VESK_OK;
}

// A QR code holds at most 2953 bytes, so longer GB2312 text could never fit anyway.
constexpr uint32_t k_qr_text_max = 2953;

} // namespace

VESK_ERR vesk_utility_qr_encode(const char* text, uint32_t len, const vesk_qr_param* param, uint8_t* out,
    uint32_t out_size, uint32_t* side, uint32_t* version)
{
    if (text == nullptr || param == nullptr || out == nullptr || len == 0 || len > k_qr_text_max) {
        VESK_ERR_FN("text, param or out NULL, or text length %u\n", len);
        return VESK_ERR_INVALID_PARAM;
    }
    // Converted text lives in accounted scratch: threads of the recorder have small stacks.
    constexpr uint32_t size = k_qr_text_max * 3 / 2 + 2;
    vesk_scratch buf(param->charset == VESK_QR_TEXT_GB2312 ? size : 0);
    if (param->charset == VESK_QR_TEXT_GB2312 && buf.data() == nullptr)
        return VESK_ERR_NO_RESOURCE;
    const uint8_t* utf8 = nullptr;
    uint32_t utf8_len = 0;
    const VESK_ERR err = qr_text(text, len, param->charset, reinterpret_cast<char*>(buf.data()), size, &utf8, &utf8_len);
    if (err != VESK_OK)
        return err;
    return qr_encode(utf8, utf8_len, *param, out, out_size, side, version);
}

VESK_ERR vesk_utility_qr_save_bmp(const char* text, uint32_t len, const vesk_qr_param* param, const char* path)
{
    if (text == nullptr || param == nullptr || path == nullptr || len == 0 || len > k_qr_text_max) {
        VESK_ERR_FN("text, param or path NULL, or text length %u\n", len);
        return VESK_ERR_INVALID_PARAM;
    }
    // Converted text lives in accounted scratch: threads of the recorder have small stacks.
    constexpr uint32_t size = k_qr_text_max * 3 / 2 + 2;
    vesk_scratch buf(param->charset == VESK_QR_TEXT_GB2312 ? size : 0);
    if (param->charset == VESK_QR_TEXT_GB2312 && buf.data() == nullptr)
        return VESK_ERR_NO_RESOURCE;
    const uint8_t* utf8 = nullptr;
    uint32_t utf8_len = 0;
    const VESK_ERR err = qr_text(text, len, param->charset, reinterpret_cast<char*>(buf.data()), size, &utf8, &utf8_len);
    if (err != VESK_OK)
        return err;
    return qr_save_bmp(utf8, utf8_len, *param, path);
}

} // namespace vesk_soft
