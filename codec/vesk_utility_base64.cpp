// vesk_utility_base64 - RFC 4648 base64. Encoding looks up two output characters per 12 input
// bits; decoding ORs four pre-shifted 24-bit values, one per input character, where a
// character outside the alphabet sets bit 24, so one compare per group finds every bad
// character. The tables (about 12 KiB per alphabet) are built at compile time into read-only
// data.
#include "codec/vesk_utility_base64.h"

#include <cstring>

#include "vesk_utility_codec.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

constexpr uint32_t k_bad = 1u << 24;

struct b64_tables {
    char pair[4096][2];    // 12 bits -> their two characters
    uint32_t dec[4][256];  // character -> its 6 bits at the group's position, or k_bad
};

constexpr b64_tables make_tables(const char (&alphabet)[65])
{
    b64_tables t{};
    for (int v = 0; v < 4096; v++) {
        t.pair[v][0] = alphabet[v >> 6];
        t.pair[v][1] = alphabet[v & 63];
    }
    for (int pos = 0; pos < 4; pos++)
        for (int c = 0; c < 256; c++)
            t.dec[pos][c] = k_bad;
    for (int i = 0; i < 64; i++) {
        const unsigned char c = static_cast<unsigned char>(alphabet[i]);
        for (int pos = 0; pos < 4; pos++)
            t.dec[pos][c] = static_cast<uint32_t>(i) << (18 - 6 * pos);
    }
    return t;
}

constexpr char k_std_alphabet[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char k_url_alphabet[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr b64_tables k_std = make_tables(k_std_alphabet);
constexpr b64_tables k_url = make_tables(k_url_alphabet);

const b64_tables& tables_of(uint32_t flags)
{
    return (flags & VESK_BASE64_URL) != 0 ? k_url : k_std;
}

}  // namespace

uint64_t vesk_base64_encoded_len(uint32_t in_len, uint32_t flags)
{
    const uint64_t full = static_cast<uint64_t>(in_len / 3) * 4;
    const uint32_t rest = in_len % 3;
    if (rest == 0)
        return full;
    return full + ((flags & VESK_BASE64_NO_PAD) != 0 ? rest + 1 : 4);
}

VESK_ERR vesk_base64_encode(const void* in, uint32_t in_len, char* out, uint32_t out_size, uint32_t* out_len,
                            uint32_t flags)
{
    if (out_len != nullptr)
        *out_len = 0;
    const uint64_t need = vesk_base64_encoded_len(in_len, flags);
    if (need + 1 > out_size) {
        if (out_size > 0)
            out[0] = '\0';
        return VESK_ERR_NO_RESOURCE;
    }
    const b64_tables& t = tables_of(flags);
    const unsigned char* p = static_cast<const unsigned char*>(in);
    const unsigned char* end3 = p + in_len / 3 * 3;
    char* o = out;
    for (; p < end3; p += 3, o += 4) {
        const uint32_t v = static_cast<uint32_t>(p[0]) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[2];
        memcpy(o, t.pair[v >> 12], 2);
        memcpy(o + 2, t.pair[v & 0xFFF], 2);
    }
    const uint32_t rest = in_len % 3;
    if (rest != 0) {
        const uint32_t v = static_cast<uint32_t>(p[0]) << 16 | (rest == 2 ? static_cast<uint32_t>(p[1]) << 8 : 0);
        memcpy(o, t.pair[v >> 12], 2);
        o += 2;
        if (rest == 2)
            *o++ = t.pair[v & 0xFFF][0];
        if ((flags & VESK_BASE64_NO_PAD) == 0) {
            *o++ = '=';
            if (rest == 1)
                *o++ = '=';
        }
    }
    *o = '\0';
    if (out_len != nullptr)
        *out_len = static_cast<uint32_t>(o - out);
    return VESK_OK;
}

VESK_ERR vesk_base64_decode(const char* in, uint32_t in_len, void* out, uint32_t out_size, uint32_t* out_len,
                            uint32_t flags)
{
    if (out_len != nullptr)
        *out_len = 0;
    // Padding: none at all, or exactly what completes the last group of four.
    uint32_t pad = 0;
    while (pad < in_len && pad < 3 && in[in_len - 1 - pad] == '=')
        pad++;
    if (pad > 2 || (pad > 0 && in_len % 4 != 0))
        return VESK_ERR_OPERATE_FAIL;
    const uint32_t data_len = in_len - pad;
    const uint32_t rest = data_len % 4;
    if (rest == 1)
        return VESK_ERR_OPERATE_FAIL;  // a lone character carries no whole byte
    const uint32_t need = data_len / 4 * 3 + (rest == 0 ? 0 : rest - 1);
    if (need > out_size)
        return VESK_ERR_NO_RESOURCE;

    const b64_tables& t = tables_of(flags);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(in);
    const unsigned char* end4 = p + data_len / 4 * 4;
    unsigned char* o = static_cast<unsigned char*>(out);
    for (; p < end4; p += 4, o += 3) {
        const uint32_t v = t.dec[0][p[0]] | t.dec[1][p[1]] | t.dec[2][p[2]] | t.dec[3][p[3]];
        if (v & k_bad)
            return VESK_ERR_OPERATE_FAIL;
        o[0] = static_cast<unsigned char>(v >> 16);
        o[1] = static_cast<unsigned char>(v >> 8);
        o[2] = static_cast<unsigned char>(v);
    }
    if (rest != 0) {
        uint32_t v = t.dec[0][p[0]] | t.dec[1][p[1]];
        if (rest == 3)
            v |= t.dec[2][p[2]];
        // The bits below the last whole byte must be zero: one encoding per byte string.
        const uint32_t unused = rest == 2 ? 0xFFFFu : 0xFFu;
        if ((v & k_bad) || (v & unused) != 0)
            return VESK_ERR_OPERATE_FAIL;
        *o++ = static_cast<unsigned char>(v >> 16);
        if (rest == 3)
            *o++ = static_cast<unsigned char>(v >> 8);
    }
    if (out_len != nullptr)
        *out_len = need;
    return VESK_OK;
}

}  // namespace vesk_utility
