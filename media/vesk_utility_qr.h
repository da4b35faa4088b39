// vesk_utility_qr - QR-code bitmaps over libqrcodegen, for the pairing code on the display.
#ifndef VESK_UTILITY_QR_INTERNAL_H
#define VESK_UTILITY_QR_INTERNAL_H

#include "vesk_utility_picture.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

// `text` is UTF-8 (the caller converts other sets first).
VESK_ERR qr_encode(const uint8_t* text, uint32_t len, const vesk_soft::vesk_qr_param& param, uint8_t* out,
    uint32_t out_size, uint32_t* side, uint32_t* version);
VESK_ERR qr_save_bmp(const uint8_t* text, uint32_t len, const vesk_soft::vesk_qr_param& param, const char* path);

} // namespace vesk_utility

#endif // VESK_UTILITY_QR_INTERNAL_H
