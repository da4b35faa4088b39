// vesk_utility_picture.h - pictures: one image record for raw pixels, conversions between the
// pixel formats of snapshots and the on-screen display, JPEG encoding and decoding, the BMP
// operator, and QR-code bitmaps.
//
// Contract
//   Every function writes into buffers the caller owns, given with their sizes; nothing is
//   handed out that the caller must free. Scratch buffers of the layer come from the accounted
//   heap (user 0x13) and are freed before return. The JPEG codec's own working memory comes
//   from the general heap, outside the accounting.
//   The free functions need no vesk_utility_init and are safe from any thread on distinct
//   images. A BMP operator is used by one thread at a time.
//   Failures: VESK_ERR_INVALID_PARAM (NULL, a size or format that does not fit),
//   VESK_ERR_NO_RESOURCE (a pixel cap exceeded, no memory), VESK_ERR_OPERATE_FAIL (data that
//   does not parse, an I/O failure), VESK_ERR_NOT_SUPPORT (a valid variant this layer does not
//   handle). On failure the destination's content is unspecified.
#ifndef VESK_UTILITY_PICTURE_H
#define VESK_UTILITY_PICTURE_H

#include <cstdint>

#include "vesk_utility_media.h"
#include "vesk_utility_types.h"

namespace vesk_soft
{

// Pixel formats, by their bytes in memory (16- and 32-bit words little-endian):
enum vesk_pixel_format : uint32_t {
    VESK_PIX_GRAY8 = 1,    // one byte of luminance, 0 black .. 255 white (full range)
    VESK_PIX_RGB24 = 2,    // R, G, B
    VESK_PIX_BGR24 = 3,    // B, G, R
    VESK_PIX_ARGB8888 = 4, // the word 0xAARRGGBB: bytes B, G, R, A
    VESK_PIX_RGB565 = 5,   // the word rrrrrggg gggbbbbb
    VESK_PIX_ARGB1555 = 6, // the word arrrrrgg gggbbbbb
    VESK_PIX_I420 = 7,     // planes Y, U, V; chroma halved both ways, rounded up
    VESK_PIX_NV12 = 8,     // planes Y, then U and V interleaved (U first)
    VESK_PIX_NV21 = 9,     // planes Y, then V and U interleaved (V first)
};

// How YUV relates to RGB. "Limited" puts luma in 16..235 and chroma in 16..240 (video);
// "full" uses 0..255 (JPEG).
enum vesk_color_matrix : uint32_t {
    VESK_MATRIX_BT601 = 0,      // BT.601, limited range (standard-definition video)
    VESK_MATRIX_BT601_FULL = 1, // BT.601, full range (JPEG)
    VESK_MATRIX_BT709 = 2,      // BT.709, limited range (high-definition video)
};

// A picture in caller memory. Planes used: one for the packed formats, three for I420, two
// for NV12/NV21; the others are ignored. stride[i] is the distance in bytes between rows of
// plane i; each row holds width pixels (chroma rows (width + 1) / 2 samples, or pairs).
struct vesk_image {
    uint32_t format; // vesk_pixel_format
    uint32_t width;
    uint32_t height;
    uint8_t* plane[3];
    uint32_t stride[3];
};

// Bytes of a tightly packed image (no row padding), or 0 for an unknown format, a zero side or
// a size past 2^31.
VESK_API uint32_t vesk_utility_image_size(uint32_t format, uint32_t width, uint32_t height);
// Fills *img to describe a tightly packed image in buf (planes one after another).
// VESK_ERR_INVALID_PARAM when size is below vesk_utility_image_size.
VESK_API VESK_ERR vesk_utility_image_wrap(
    vesk_image* img, uint32_t format, uint32_t width, uint32_t height, void* buf, uint32_t size);
// Converts the part `crop` of src (NULL: all of it) into dst, scaling (bilinear) when dst's size
// differs from the crop's. `matrix` says how src's or dst's YUV relates to RGB; between two
// YUV formats or two RGB formats it is unused (no range conversion takes place there). Alpha
// is 0xFF (or 1) wherever the source has none. GRAY8 counts with the RGB formats (luma by
// BT.601 weights); to or from YUV it is the luma plane, moved between the matrix's range and full. A crop must lie inside src; for a YUV src its x
// and y must be even. src and dst must not overlap.
VESK_API VESK_ERR vesk_utility_image_convert(
    const vesk_image* src, const vesk_real_rect* crop, vesk_image* dst, vesk_color_matrix matrix);

// ---- JPEG -----------------------------------------------------------------------------------
// Baseline JFIF; YUV inside a JPEG is full-range BT.601.
struct vesk_jpeg_info {
    uint32_t width;
    uint32_t height;
    uint32_t subsamp;  // chroma: 0 4:4:4, 1 4:2:2, 2 4:2:0, 3 gray, 4 4:4:0, 5 4:1:1
    uint32_t channels; // 1 gray, 3 colour, 4 CMYK
};
// Reads the header only: VESK_ERR_OPERATE_FAIL when it does not parse.
VESK_API VESK_ERR vesk_utility_jpeg_get_info(const uint8_t* jpeg, uint32_t size, vesk_jpeg_info* info);
// Encodes src (any format; `matrix` says what a YUV src means) at quality 1..100 into
// out[0..out_size) and stores the length in *out_len. An I420 src in VESK_MATRIX_BT601_FULL is
// compressed from its planes without conversion; any other is converted first.
// VESK_ERR_NO_RESOURCE when the JPEG does not fit out_size.
VESK_API VESK_ERR vesk_utility_jpeg_encode(const vesk_image* src, vesk_color_matrix matrix, uint32_t quality,
    uint8_t* out, uint32_t out_size, uint32_t* out_len);
// Decodes into dst, scaled down by `denom` (1, 2, 4 or 8): dst->width must be
// ceil(width / denom) and dst->height ceil(height / denom) of the JPEG's. Pictures with more
// than max_pixels pixels (before scaling) are refused with VESK_ERR_NO_RESOURCE before anything
// is allocated. A YUV dst is given full-range BT.601, as the JPEG holds it.
VESK_API VESK_ERR vesk_utility_jpeg_decode(
    const uint8_t* jpeg, uint32_t size, uint32_t denom, uint64_t max_pixels, vesk_image* dst);

// ---- BMP operator ------------------------------------------------------------------------------
// One bitmap in memory, kept in the packing of its file (1, 4, 8, 16, 24 or 32 bits a pixel),
// so it is saved back at the same depth. Loads uncompressed and bit-field bitmaps (OS/2 core,
// 40-byte and later headers), bottom-up and top-down; RLE is VESK_ERR_NOT_SUPPORT. Every size
// and offset read from a file is checked against the file before use; at most
// VESK_BMP_MAX_SIDE pixels a side. A pixel value is a palette index at 1, 4 and 8 bits and
// 0xAARRGGBB otherwise (alpha 0xFF where the bitmap has none; 16 bits keep only the top bits).
constexpr uint32_t VESK_BMP_MAX_SIDE = 16384;

class vesk_bmp_operate
{
public:
    vesk_bmp_operate() = default;
    vesk_bmp_operate(const vesk_bmp_operate&) = delete;
    vesk_bmp_operate& operator=(const vesk_bmp_operate&) = delete;

    // Replace the bitmap with the one in the file or memory; on failure the old one stays.
    virtual VESK_ERR load_file(const char* path) = 0;
    virtual VESK_ERR load_memory(const void* data, uint32_t size) = 0;
    // Replaces the bitmap with a blank one (all zero). bits 1/4/8 get a gray ramp palette of
    // 2^bits entries; 16 bits are X1R5G5B5, 32 bits carry alpha.
    virtual VESK_ERR create(uint32_t width, uint32_t height, uint32_t bits) = 0;
    // VESK_ERR_OPERATE_FAIL before a bitmap is loaded or created.
    virtual VESK_ERR get_info(uint32_t* width, uint32_t* height, uint32_t* bits) = 0;
    // Replaces palette entries [0, count) (0xAARRGGBB); indexed bitmaps only.
    virtual VESK_ERR set_palette(const uint32_t* argb, uint32_t count) = 0;
    // (x, y) from the top left; VESK_ERR_INVALID_PARAM outside the bitmap or for an index past
    // the palette.
    virtual VESK_ERR set_pixel(uint32_t x, uint32_t y, uint32_t value) = 0;
    virtual VESK_ERR get_pixel(uint32_t x, uint32_t y, uint32_t* value) = 0;
    // The whole bitmap as colours into dst (any format, the bitmap's size; YUV as BT.601).
    virtual VESK_ERR read_pixels(vesk_image* dst) = 0;
    // Writes a temporary file beside path, flushes it and renames it over path.
    virtual VESK_ERR save(const char* path) = 0;
    virtual ~vesk_bmp_operate() { }
};

// A new operator without a bitmap, recorded on the "bmp fd" list with the caller's id and
// name. NULL before initialisation.
VESK_API vesk_bmp_operate* vesk_utility_new_bmp_operate(vesk_user_id usr_id, const char* name);
// Destroys an operator from the call above; an unknown one is fatal.
VESK_API VESK_ERR vesk_utility_delete_bmp_operate(vesk_bmp_operate* op, const char* file, const char* func);

// ---- QR codes ---------------------------------------------------------------------------------
enum vesk_qr_ecc : uint32_t {
    VESK_QR_ECC_L = 0, // about 7 % of the code may be lost
    VESK_QR_ECC_M = 1, // 15 %
    VESK_QR_ECC_Q = 2, // 25 %
    VESK_QR_ECC_H = 3, // 30 %
};
enum vesk_qr_charset : uint32_t {
    VESK_QR_TEXT_UTF8 = 0,
    VESK_QR_TEXT_GB2312 = 1, // converted to UTF-8 first
};
struct vesk_qr_param {
    uint32_t ecc;          // vesk_qr_ecc
    uint32_t charset;      // vesk_qr_charset
    uint32_t module_px;    // pixels a side of one module, 1..64
    uint32_t quiet;        // modules of white border on each side (4 is the standard's), 0..16
    uint32_t min_version;  // 1..40: the smallest symbol to use (a longer text picks a larger one)
};
// Encodes text[0..len) (bytes; no NUL needed) into an 8-bit bitmap, 0 for dark modules and
// 255 for light ones, rows `side` bytes apart, side = (modules + 2 * quiet) * module_px, and
// stores side in *side and the symbol's version in *version (either may be NULL).
// VESK_ERR_NO_RESOURCE when out_size is below side * side; VESK_ERR_INVALID_PARAM when the text
// does not fit version 40 at this level or is not valid in its charset.
VESK_API VESK_ERR vesk_utility_qr_encode(const char* text, uint32_t len, const vesk_qr_param* param, uint8_t* out,
    uint32_t out_size, uint32_t* side, uint32_t* version);
// The same code as an 8-bit gray BMP file at path (through the BMP operator's writer).
VESK_API VESK_ERR vesk_utility_qr_save_bmp(
    const char* text, uint32_t len, const vesk_qr_param* param, const char* path);

} // namespace vesk_soft

#endif // VESK_UTILITY_PICTURE_H
