// vesk_utility_qr - QR-code bitmaps over libqrcodegen: the symbol is built in accounted
// scratch, then drawn into the caller's 8-bit bitmap (or a BMP file) with its quiet zone.
// ASCII text takes the encoder's most compact modes; other UTF-8 text goes as bytes behind an
// ECI that names UTF-8, so readers do not have to guess its character set.
#include "media/vesk_utility_qr.h"

#include <qrcodegen.h>

#include <cstring>

#include "core/vesk_utility_log.h"
#include "media/vesk_utility_bmp_operate.h"
#include "media/vesk_utility_image.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr long k_eci_utf8 = 26;
constexpr size_t k_buf = qrcodegen_BUFFER_LEN_MAX;

bool param_valid(const vesk_qr_param& p)
{
    return p.ecc <= VESK_QR_ECC_H && p.module_px >= 1 && p.module_px <= 64 && p.quiet <= 16 && p.min_version >= 1
        && p.min_version <= 40;
}

// The symbol into `qr` (k_buf bytes); `temp` is k_buf bytes more, and `seg` room for the
// byte segment. False when the text does not fit version 40 at this level.
bool build(const uint8_t* text, uint32_t len, const vesk_qr_param& p, uint8_t* qr, uint8_t* temp, uint8_t* seg)
{
    const qrcodegen_Ecc ecl = static_cast<qrcodegen_Ecc>(p.ecc); // same order: L, M, Q, H
    bool ascii = true;
    for (uint32_t i = 0; i < len && ascii; ++i)
        ascii = text[i] != 0 && text[i] < 0x80;
    if (ascii) {
        // encodeText wants a C string and chooses numeric, alphanumeric or byte mode.
        char* str = reinterpret_cast<char*>(seg);
        memcpy(str, text, len);
        str[len] = '\0';
        return qrcodegen_encodeText(
            str, temp, qr, ecl, int(p.min_version), qrcodegen_VERSION_MAX, qrcodegen_Mask_AUTO, false);
    }
    uint8_t eci_buf[8];
    const qrcodegen_Segment segs[2] = {qrcodegen_makeEci(k_eci_utf8, eci_buf), qrcodegen_makeBytes(text, len, seg)};
    return qrcodegen_encodeSegmentsAdvanced(segs, 2, ecl, int(p.min_version), qrcodegen_VERSION_MAX,
        qrcodegen_Mask_AUTO, false, temp, qr);
}

// Builds the symbol and reports its drawn side; `mem` holds qr, temp and segment buffers.
VESK_ERR symbol(const uint8_t* text, uint32_t len, const vesk_qr_param& p, vesk_scratch& mem, uint32_t& side, int& modules)
{
    if (!param_valid(p) || len == 0 || len >= k_buf)
        return VESK_ERR_INVALID_PARAM;
    if (mem.data() == nullptr)
        return VESK_ERR_NO_RESOURCE;
    uint8_t* qr = mem.data();
    if (!build(text, len, p, qr, qr + k_buf, qr + 2 * k_buf)) {
        VESK_ERR_FN("%u bytes do not fit a QR code at level %u\n", len, p.ecc);
        return VESK_ERR_INVALID_PARAM;
    }
    modules = qrcodegen_getSize(qr);
    side = (uint32_t(modules) + 2 * p.quiet) * p.module_px;
    return VESK_OK;
}

// Dark modules 0, light and the quiet zone 255; rows `stride` bytes apart.
void draw(const uint8_t* qr, int modules, const vesk_qr_param& p, uint32_t side, uint8_t* out, size_t stride)
{
    for (uint32_t y = 0; y < side; ++y) {
        uint8_t* row = out + y * stride;
        const int my = int(y / p.module_px) - int(p.quiet);
        for (uint32_t x = 0; x < side; ++x) {
            const int mx = int(x / p.module_px) - int(p.quiet);
            const bool dark = mx >= 0 && my >= 0 && mx < modules && my < modules && qrcodegen_getModule(qr, mx, my);
            row[x] = dark ? 0 : 255;
        }
    }
}

} // namespace

VESK_ERR qr_encode(const uint8_t* text, uint32_t len, const vesk_qr_param& param, uint8_t* out, uint32_t out_size,
    uint32_t* side, uint32_t* version)
{
    vesk_scratch mem(3 * k_buf + 16);
    uint32_t s = 0;
    int modules = 0;
    const VESK_ERR err = symbol(text, len, param, mem, s, modules);
    if (err != VESK_OK)
        return err;
    if (uint64_t(s) * s > out_size)
        return VESK_ERR_NO_RESOURCE;
    draw(mem.data(), modules, param, s, out, s);
    if (side != nullptr)
        *side = s;
    if (version != nullptr)
        *version = uint32_t(modules - 17) / 4;
    return VESK_OK;
}

VESK_ERR qr_save_bmp(const uint8_t* text, uint32_t len, const vesk_qr_param& param, const char* path)
{
    vesk_scratch mem(3 * k_buf + 16);
    uint32_t s = 0;
    int modules = 0;
    VESK_ERR err = symbol(text, len, param, mem, s, modules);
    if (err != VESK_OK)
        return err;
    // 8 bits: the gray ramp palette of a new bitmap maps index v to gray level v.
    vesk_bmp_realize bmp;
    err = bmp.create(s, s, 8);
    if (err != VESK_OK)
        return err == VESK_ERR_INVALID_PARAM ? VESK_ERR_NO_RESOURCE : err;
    draw(mem.data(), modules, param, s, bmp.row(0), bmp.stride());
    return bmp.save(path);
}

} // namespace vesk_utility
