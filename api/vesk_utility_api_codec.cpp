// vesk_utility_api_codec - the exported wrappers of the byte codecs: argument checks, then the
// codec. None needs the layer initialised except the MD5 counter handle.
#include <cstring>

#include "vesk_utility_codec.h"
#include "codec/vesk_utility_3des.h"
#include "codec/vesk_utility_base64.h"
#include "codec/vesk_utility_charset.h"
#include "codec/vesk_utility_md5.h"
#include "core/vesk_utility_handle.h"
#include "core/vesk_utility_log.h"

namespace vesk_soft
{

using namespace vesk_utility;

// ---- Character sets -------------------------------------------------------------------------

VESK_ERR vesk_utility_charset_convert(const char* from, const char* to, const char* in, uint32_t in_len, char* out,
    uint32_t out_size, uint32_t* out_len, VESK_BOOL replace_invalid)
{
    if (out_len != nullptr)
        *out_len = 0;
    if (from == nullptr || to == nullptr || (in == nullptr && in_len > 0) || out == nullptr || out_size == 0) {
        VESK_ERR_FN("invalid param: from = %p, to = %p, in = %p, in_len = %u, out = %p, out_size = %u\n",
            static_cast<const void*>(from), static_cast<const void*>(to), static_cast<const void*>(in), in_len,
            static_cast<void*>(out), out_size);
        return VESK_ERR_INVALID_PARAM;
    }
    return vesk_charset_convert(from, to, in, in_len, out, out_size, out_len, replace_invalid != 0);
}

VESK_ERR vesk_utility_gb2312_to_utf8(const char* in, uint32_t in_len, char* out, uint32_t out_size, uint32_t* out_len)
{
    return vesk_utility_charset_convert("GB2312", "UTF-8", in, in_len, out, out_size, out_len, 0);
}

VESK_ERR vesk_utility_utf8_to_gb2312(const char* in, uint32_t in_len, char* out, uint32_t out_size, uint32_t* out_len)
{
    return vesk_utility_charset_convert("UTF-8", "GB2312", in, in_len, out, out_size, out_len, 0);
}

VESK_ERR vesk_utility_gbk_to_utf8(const char* in, uint32_t in_len, char* out, uint32_t out_size, uint32_t* out_len)
{
    return vesk_utility_charset_convert("GBK", "UTF-8", in, in_len, out, out_size, out_len, 0);
}

VESK_ERR vesk_utility_utf8_to_gbk(const char* in, uint32_t in_len, char* out, uint32_t out_size, uint32_t* out_len)
{
    return vesk_utility_charset_convert("UTF-8", "GBK", in, in_len, out, out_size, out_len, 0);
}

VESK_BOOL vesk_utility_is_utf8(const char* in, uint32_t len)
{
    if (in == nullptr)
        return len == 0;
    return vesk_is_utf8(in, len) ? 1 : 0;
}

VESK_ERR vesk_utility_utf8_truncate(char* str, uint32_t field_size, uint32_t* out_len)
{
    if (out_len != nullptr)
        *out_len = 0;
    if (str == nullptr || field_size == 0) {
        VESK_ERR_FN("invalid param: str = %p, field_size = %u\n", static_cast<void*>(str), field_size);
        return VESK_ERR_INVALID_PARAM;
    }
    // Up to three bytes past the field: a character that crosses its end must be seen whole to
    // be recognised (and dropped) as one.
    const uint32_t len = static_cast<uint32_t>(strnlen(str, static_cast<size_t>(field_size) + 3));
    const uint32_t keep = vesk_utf8_fit(str, len, field_size - 1);
    str[keep] = '\0';
    if (out_len != nullptr)
        *out_len = keep;
    return VESK_OK;
}

// ---- Base64 ---------------------------------------------------------------------------------

uint32_t vesk_utility_base64_encode_size(uint32_t in_len, uint32_t flags)
{
    const uint64_t need = vesk_base64_encoded_len(in_len, flags) + 1;
    return need > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(need);
}

VESK_ERR vesk_utility_base64_encode(
    const void* in, uint32_t in_len, char* out, uint32_t out_size, uint32_t* out_len, uint32_t flags)
{
    if (out_len != nullptr)
        *out_len = 0;
    if ((in == nullptr && in_len > 0) || out == nullptr) {
        VESK_ERR_FN("invalid param: in = %p, in_len = %u, out = %p\n", in, in_len, static_cast<void*>(out));
        return VESK_ERR_INVALID_PARAM;
    }
    return vesk_base64_encode(in, in_len, out, out_size, out_len, flags);
}

VESK_ERR vesk_utility_base64_decode(
    const char* in, uint32_t in_len, void* out, uint32_t out_size, uint32_t* out_len, uint32_t flags)
{
    if (out_len != nullptr)
        *out_len = 0;
    if ((in == nullptr && in_len > 0) || (out == nullptr && out_size > 0)) {
        VESK_ERR_FN("invalid param: in = %p, in_len = %u, out = %p\n", static_cast<const void*>(in), in_len, out);
        return VESK_ERR_INVALID_PARAM;
    }
    return vesk_base64_decode(in, in_len, out, out_size, out_len, flags);
}

// ---- MD5 ------------------------------------------------------------------------------------

vesk_md5_cnt* vesk_utility_new_md5_cnt(vesk_user_id usr_id, const char* name)
{
    VESK_REQUIRE_INIT(nullptr);
    return VESK_REGISTER_NEW(VESK_LIST_MD5, static_cast<vesk_md5_cnt*>(new vesk_md5_realize), usr_id, name);
}

VESK_ERR vesk_utility_delete_md5_cnt(vesk_md5_cnt* cnt, const char* file, const char* func)
{
    return VESK_DELETE_REGISTERED(VESK_LIST_MD5, cnt, file, func);
}

VESK_ERR vesk_utility_md5_buf(const void* data, uint32_t len, uint8_t digest[16])
{
    if ((data == nullptr && len > 0) || digest == nullptr) {
        VESK_ERR_FN("invalid param: data = %p, len = %u, digest = %p\n", data, len, static_cast<void*>(digest));
        return VESK_ERR_INVALID_PARAM;
    }
    vesk_md5_buf(data, len, digest);
    return VESK_OK;
}

VESK_ERR vesk_utility_md5_file(const char* path, uint8_t digest[16])
{
    if (path == nullptr || digest == nullptr) {
        VESK_ERR_FN("invalid param: path = %p, digest = %p\n", static_cast<const void*>(path),
            static_cast<void*>(digest));
        return VESK_ERR_INVALID_PARAM;
    }
    return vesk_md5_file(path, digest);
}

// ---- Triple DES -----------------------------------------------------------------------------

namespace
{

bool des3_args_ok(const char* wrapper, const uint8_t* key, uint32_t key_len, vesk_3des_mode mode, vesk_3des_pad pad,
    const uint8_t* iv, const void* in, uint32_t in_len, const void* out)
{
    if (key != nullptr && (key_len == 16 || key_len == 24) && (mode == VESK_3DES_ECB || mode == VESK_3DES_CBC)
        && (pad == VESK_3DES_PAD_NONE || pad == VESK_3DES_PAD_PKCS7 || pad == VESK_3DES_PAD_ZERO)
        && (mode == VESK_3DES_ECB || iv != nullptr) && (in != nullptr || in_len == 0) && out != nullptr)
        return true;
    VESK_ERR_FN("%s: invalid param: key = %p, key_len = %u, mode = %u, pad = %u, iv = %p, in = %p, in_len = %u, "
                "out = %p\n",
        wrapper, static_cast<const void*>(key), key_len, static_cast<unsigned>(mode), static_cast<unsigned>(pad),
        static_cast<const void*>(iv), in, in_len, out);
    return false;
}

} // namespace

VESK_ERR vesk_utility_3des_encrypt(const uint8_t* key, uint32_t key_len, vesk_3des_mode mode, vesk_3des_pad pad,
    const uint8_t* iv, const void* in, uint32_t in_len, void* out, uint32_t out_size, uint32_t* out_len)
{
    if (out_len != nullptr)
        *out_len = 0;
    if (!des3_args_ok(__func__, key, key_len, mode, pad, iv, in, in_len, out))
        return VESK_ERR_INVALID_PARAM;
    return vesk_3des_encrypt(key, key_len, mode, pad, iv, static_cast<const uint8_t*>(in), in_len,
        static_cast<uint8_t*>(out), out_size, out_len);
}

VESK_ERR vesk_utility_3des_decrypt(const uint8_t* key, uint32_t key_len, vesk_3des_mode mode, vesk_3des_pad pad,
    const uint8_t* iv, const void* in, uint32_t in_len, void* out, uint32_t out_size, uint32_t* out_len)
{
    if (out_len != nullptr)
        *out_len = 0;
    if (!des3_args_ok(__func__, key, key_len, mode, pad, iv, in, in_len, out))
        return VESK_ERR_INVALID_PARAM;
    return vesk_3des_decrypt(key, key_len, mode, pad, iv, static_cast<const uint8_t*>(in), in_len,
        static_cast<uint8_t*>(out), out_size, out_len);
}

} // namespace vesk_soft
