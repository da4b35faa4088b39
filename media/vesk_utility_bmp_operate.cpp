// vesk_utility_bmp_operate - BMP files for logos, on-screen graphics and QR codes. Files come
// from users and the network, so the loader trusts no field: every size, count and offset is
// checked against the bytes actually there before it is used, in 64-bit arithmetic.
//
// File layout (little-endian):
//   | file header 14: "BM", u32 file size, u32 reserved, u32 pixel offset |
//   | info header: u32 size (12 OS/2 core; 40 and up Windows), width, height, u16 planes,
//     u16 bits, u32 compression, u32 image size, s32 x/y pixels per metre, u32 colours used,
//     u32 important; from 52 bytes the r, g, b masks, from 56 the alpha mask |
//   | masks (3 or 4 u32) after a 40-byte header with bit-field compression |
//   | palette: colours-used entries (0: 2^bits) of B, G, R, 0 (B, G, R in OS/2 core) |
//   | rows at the pixel offset, each padded to 4 bytes, bottom row first unless height < 0 |
#include "media/vesk_utility_bmp_operate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/vesk_utility_bytes.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"
#include "media/vesk_utility_image.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

const char k_cls[] = "vesk_bmp_realize";

constexpr uint32_t k_file_header = 14;
constexpr uint32_t k_core_header = 12;
constexpr uint32_t k_info_header = 40;
constexpr uint32_t k_v4_header = 108;
constexpr uint32_t k_bi_rgb = 0, k_bi_rle8 = 1, k_bi_rle4 = 2, k_bi_bitfields = 3, k_bi_alphabitfields = 6;
// A loaded file may be at most this large: the biggest bitmap at 32 bits and its headers.
constexpr uint64_t k_max_file = uint64_t(VESK_BMP_MAX_SIDE) * VESK_BMP_MAX_SIDE * 4 + 4096;

inline uint64_t row_stride(uint64_t width, uint32_t bits)
{
    return (width * bits + 31) / 32 * 4;
}

// A mask must be one run of set bits; an empty mask is an absent channel.
bool make_channel(uint32_t mask, uint32_t bits, uint32_t& shift, uint32_t& width)
{
    shift = width = 0;
    if (mask == 0)
        return true;
    if (bits < 32 && (mask >> bits) != 0)
        return false;
    while (((mask >> shift) & 1) == 0)
        ++shift;
    while (shift + width < 32 && ((mask >> (shift + width)) & 1) != 0)
        ++width;
    return (uint64_t(mask) >> shift) == (uint64_t(1) << width) - 1;
}

// A channel value of `width` bits widened to 8 by repeating its bits, so full scale stays 255.
inline uint32_t widen(uint32_t v, uint32_t width)
{
    if (width == 0)
        return 0xFF;
    if (width >= 8)
        return (v >> (width - 8)) & 0xFF;
    uint32_t out = v, n = width;
    while (n < 8) {
        out = (out << width) | v;
        n += width;
    }
    return (out >> (n - 8)) & 0xFF;
}

} // namespace

// Everything a bitmap is, built aside and swapped in only when complete.
struct vesk_bmp_realize::state {
    uint8_t* pixels = nullptr;
    uint32_t width = 0, height = 0, bits = 0, stride = 0;
    uint32_t palette[256] = {};
    uint32_t palette_count = 0;
    channel ch[4] = {};
    ~state()
    {
        if (pixels != nullptr)
            vesk_free(__FILE__, __func__, pixels);
    }
};

vesk_bmp_realize::~vesk_bmp_realize()
{
    if (m_pixels != nullptr)
        vesk_free(__FILE__, __func__, m_pixels);
}

void vesk_bmp_realize::adopt(state& s)
{
    if (m_pixels != nullptr)
        vesk_free(__FILE__, __func__, m_pixels);
    m_pixels = s.pixels;
    s.pixels = nullptr;
    m_width = s.width;
    m_height = s.height;
    m_bits = s.bits;
    m_stride = s.stride;
    memcpy(m_palette, s.palette, sizeof(m_palette));
    m_palette_count = s.palette_count;
    memcpy(m_ch, s.ch, sizeof(m_ch));
}

VESK_ERR vesk_bmp_realize::load_memory(const void* data, uint32_t size)
{
    if (data == nullptr)
        return VESK_ERR_INVALID_PARAM;
    const uint8_t* f = static_cast<const uint8_t*>(data);
    if (size < k_file_header + k_core_header || f[0] != 'B' || f[1] != 'M') {
        VESK_LOG_ERR(k_cls, "not a BMP (%u bytes)\n", size);
        return VESK_ERR_OPERATE_FAIL;
    }
    const uint32_t offset = le32(f + 10);
    const uint32_t info = le32(f + 14);
    if (info != k_core_header && (info < k_info_header || info > 124)) {
        VESK_LOG_ERR(k_cls, "info header of %u bytes\n", info);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (uint64_t(k_file_header) + info > size)
        return VESK_ERR_OPERATE_FAIL;
    const uint8_t* h = f + k_file_header;
    int64_t width, height;
    uint32_t bits, compression = k_bi_rgb, colours = 0;
    if (info == k_core_header) {
        width = le16(h + 4);
        height = le16(h + 6);
        bits = le16(h + 10);
    } else {
        width = int32_t(le32(h + 4));
        height = int32_t(le32(h + 8));
        bits = le16(h + 14);
        compression = le32(h + 16);
        colours = le32(h + 32);
    }
    if (compression == k_bi_rle8 || compression == k_bi_rle4) {
        VESK_LOG_ERR(k_cls, "RLE compression is not supported\n");
        return VESK_ERR_NOT_SUPPORT;
    }
    const bool fields = compression == k_bi_bitfields || compression == k_bi_alphabitfields;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
        return VESK_ERR_NOT_SUPPORT;
    if ((compression != k_bi_rgb && !fields) || (fields && bits != 16 && bits != 32)) {
        VESK_LOG_ERR(k_cls, "compression %u at %u bits is not supported\n", compression, bits);
        return VESK_ERR_NOT_SUPPORT;
    }
    const bool top_down = height < 0;
    if (top_down)
        height = -height;
    if (width <= 0 || height <= 0)
        return VESK_ERR_OPERATE_FAIL;
    if (width > VESK_BMP_MAX_SIDE || height > VESK_BMP_MAX_SIDE) {
        VESK_LOG_ERR(k_cls, "%lldx%lld is too large\n", static_cast<long long>(width), static_cast<long long>(height));
        return VESK_ERR_NO_RESOURCE;
    }

    state s;
    s.width = uint32_t(width);
    s.height = uint32_t(height);
    s.bits = bits;
    s.stride = uint32_t(row_stride(s.width, bits));
    uint64_t table = uint64_t(k_file_header) + info; // where masks or the palette start

    if (bits == 16 || bits == 32) {
        uint32_t masks[4] = {bits == 16 ? 0x7C00u : 0xFF0000u, bits == 16 ? 0x03E0u : 0xFF00u,
            bits == 16 ? 0x001Fu : 0xFFu, 0};
        if (fields) {
            const uint32_t count = compression == k_bi_alphabitfields ? 4 : 3;
            const uint8_t* m = nullptr;
            if (info == k_info_header) {
                if (table + 4 * count > size)
                    return VESK_ERR_OPERATE_FAIL;
                m = f + table;
                table += 4 * count;
            } else if (info >= k_info_header + 4 * count) {
                m = h + k_info_header;
            } else {
                return VESK_ERR_OPERATE_FAIL;
            }
            for (uint32_t i = 0; i < count; ++i)
                masks[i] = le32(m + 4 * i);
            if (count == 3 && info >= 56)
                masks[3] = le32(h + 52);
        }
        for (int i = 0; i < 4; ++i) {
            s.ch[i].mask = masks[i];
            if (!make_channel(masks[i], bits, s.ch[i].shift, s.ch[i].bits) || (i < 3 && masks[i] == 0)) {
                VESK_LOG_ERR(k_cls, "bad colour mask 0x%x\n", masks[i]);
                return VESK_ERR_OPERATE_FAIL;
            }
        }
    } else if (bits <= 8) {
        const uint32_t max = 1u << bits;
        if (colours > max)
            return VESK_ERR_OPERATE_FAIL;
        s.palette_count = colours != 0 ? colours : max;
        const uint32_t entry = info == k_core_header ? 3 : 4;
        if (table + uint64_t(entry) * s.palette_count > size)
            return VESK_ERR_OPERATE_FAIL;
        for (uint32_t i = 0; i < 256; ++i)
            s.palette[i] = 0xFF000000u;
        for (uint32_t i = 0; i < s.palette_count; ++i) {
            const uint8_t* e = f + table + size_t(entry) * i;
            s.palette[i] |= uint32_t(e[2]) << 16 | uint32_t(e[1]) << 8 | e[0];
        }
        table += uint64_t(entry) * s.palette_count;
    }
    // The pixels start after the tables and end inside the file.
    const uint64_t pixel_bytes = uint64_t(s.stride) * s.height;
    if (offset < table || uint64_t(offset) + pixel_bytes > size) {
        VESK_LOG_ERR(k_cls, "pixels at %u (+%llu) outside the %u-byte file\n", offset,
            static_cast<unsigned long long>(pixel_bytes), size);
        return VESK_ERR_OPERATE_FAIL;
    }
    s.pixels = static_cast<uint8_t*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_bmp_bitmap, unsigned(pixel_bytes), 4));
    if (s.pixels == nullptr)
        return VESK_ERR_NO_RESOURCE;
    for (uint32_t y = 0; y < s.height; ++y) {
        const uint32_t from = top_down ? y : s.height - 1 - y;
        memcpy(s.pixels + size_t(y) * s.stride, f + offset + size_t(from) * s.stride, s.stride);
    }
    adopt(s);
    return VESK_OK;
}

VESK_ERR vesk_bmp_realize::load_file(const char* path)
{
    if (path == nullptr)
        return VESK_ERR_INVALID_PARAM;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        VESK_LOG_ERR(k_cls, "open %s fail, %s\n", path, strerror(errno));
        return VESK_ERR_OPERATE_FAIL;
    }
    struct stat st;
    VESK_ERR err = VESK_ERR_OPERATE_FAIL;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 && uint64_t(st.st_size) <= k_max_file) {
        const uint32_t size = uint32_t(st.st_size);
        vesk_scratch buf(size);
        size_t got = 0;
        while (buf.data() != nullptr && got < size) {
            const ssize_t n = read(fd, buf.data() + got, size - got);
            if (n <= 0)
                break;
            got += size_t(n);
        }
        if (buf.data() == nullptr)
            err = VESK_ERR_NO_RESOURCE;
        else if (got == size)
            err = load_memory(buf.data(), size);
    } else {
        VESK_LOG_ERR(k_cls, "%s is not a regular file of a bitmap's size\n", path);
    }
    close(fd);
    return err;
}

VESK_ERR vesk_bmp_realize::create(uint32_t width, uint32_t height, uint32_t bits)
{
    if (width == 0 || height == 0 || width > VESK_BMP_MAX_SIDE || height > VESK_BMP_MAX_SIDE)
        return VESK_ERR_INVALID_PARAM;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
        return VESK_ERR_INVALID_PARAM;
    state s;
    s.width = width;
    s.height = height;
    s.bits = bits;
    s.stride = uint32_t(row_stride(width, bits));
    const uint64_t bytes = uint64_t(s.stride) * height;
    s.pixels = static_cast<uint8_t*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_bmp_bitmap, unsigned(bytes), 4));
    if (s.pixels == nullptr)
        return VESK_ERR_NO_RESOURCE;
    memset(s.pixels, 0, bytes);
    if (bits <= 8) {
        s.palette_count = 1u << bits;
        for (uint32_t i = 0; i < 256; ++i) {
            const uint32_t g = i < s.palette_count ? i * 255 / (s.palette_count - 1) : 0;
            s.palette[i] = 0xFF000000u | g << 16 | g << 8 | g;
        }
    } else if (bits != 24) {
        const uint32_t masks[2][4] = {{0x7C00, 0x03E0, 0x001F, 0}, {0xFF0000, 0xFF00, 0xFF, 0xFF000000u}};
        for (int i = 0; i < 4; ++i) {
            s.ch[i].mask = masks[bits == 32][i];
            make_channel(s.ch[i].mask, bits, s.ch[i].shift, s.ch[i].bits);
        }
    }
    adopt(s);
    return VESK_OK;
}

VESK_ERR vesk_bmp_realize::get_info(uint32_t* width, uint32_t* height, uint32_t* bits)
{
    if (m_pixels == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    if (width != nullptr)
        *width = m_width;
    if (height != nullptr)
        *height = m_height;
    if (bits != nullptr)
        *bits = m_bits;
    return VESK_OK;
}

VESK_ERR vesk_bmp_realize::set_palette(const uint32_t* argb, uint32_t count)
{
    if (argb == nullptr || count == 0)
        return VESK_ERR_INVALID_PARAM;
    if (m_pixels == nullptr || m_bits > 8)
        return VESK_ERR_OPERATE_FAIL;
    if (count > (1u << m_bits))
        return VESK_ERR_INVALID_PARAM;
    memcpy(m_palette, argb, count * sizeof(uint32_t));
    if (count > m_palette_count)
        m_palette_count = count;
    return VESK_OK;
}

VESK_ERR vesk_bmp_realize::set_pixel(uint32_t x, uint32_t y, uint32_t value)
{
    if (m_pixels == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    if (x >= m_width || y >= m_height)
        return VESK_ERR_INVALID_PARAM;
    uint8_t* r = row(y);
    if (m_bits <= 8) {
        if (value >= m_palette_count)
            return VESK_ERR_INVALID_PARAM;
        const uint32_t per_byte = 8 / m_bits;
        const uint32_t shift = (per_byte - 1 - x % per_byte) * m_bits;
        const uint32_t mask = ((1u << m_bits) - 1) << shift;
        uint8_t& b = r[x / per_byte];
        b = uint8_t((b & ~mask) | (value << shift));
        return VESK_OK;
    }
    if (m_bits == 24) {
        r[3 * x] = uint8_t(value);
        r[3 * x + 1] = uint8_t(value >> 8);
        r[3 * x + 2] = uint8_t(value >> 16);
        return VESK_OK;
    }
    // Each 8-bit channel narrowed (or widened) to its field: r, g, b, a from bits 16, 8, 0, 24.
    uint32_t word = 0;
    const int from[4] = {16, 8, 0, 24};
    for (int i = 0; i < 4; ++i) {
        const channel& c = m_ch[i];
        if (c.bits == 0)
            continue;
        const uint32_t v8 = (value >> from[i]) & 0xFF;
        const uint32_t v = c.bits <= 8 ? v8 >> (8 - c.bits) : v8 << (c.bits - 8);
        word |= (v << c.shift) & c.mask;
    }
    if (m_bits == 16)
        put_le16(r + 2 * x, word);
    else
        put_le32(r + 4 * x, word);
    return VESK_OK;
}

uint32_t vesk_bmp_realize::to_argb(uint32_t x, uint32_t y) const
{
    const uint8_t* r = row(y);
    switch (m_bits) {
    case 1:
    case 4:
    case 8: {
        const uint32_t per_byte = 8 / m_bits;
        const uint32_t shift = (per_byte - 1 - x % per_byte) * m_bits;
        return m_palette[(r[x / per_byte] >> shift) & ((1u << m_bits) - 1)];
    }
    case 24:
        return 0xFF000000u | uint32_t(r[3 * x + 2]) << 16 | uint32_t(r[3 * x + 1]) << 8 | r[3 * x];
    default: {
        const uint32_t word = m_bits == 16 ? le16(r + 2 * x) : le32(r + 4 * x);
        uint32_t v[4];
        for (int i = 0; i < 4; ++i)
            v[i] = widen((word & m_ch[i].mask) >> m_ch[i].shift, m_ch[i].bits);
        return v[3] << 24 | v[0] << 16 | v[1] << 8 | v[2];
    }
    }
}

VESK_ERR vesk_bmp_realize::get_pixel(uint32_t x, uint32_t y, uint32_t* value)
{
    if (value == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (m_pixels == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    if (x >= m_width || y >= m_height)
        return VESK_ERR_INVALID_PARAM;
    if (m_bits <= 8) {
        const uint32_t per_byte = 8 / m_bits;
        const uint32_t shift = (per_byte - 1 - x % per_byte) * m_bits;
        *value = (row(y)[x / per_byte] >> shift) & ((1u << m_bits) - 1);
    } else {
        *value = to_argb(x, y);
    }
    return VESK_OK;
}

VESK_ERR vesk_bmp_realize::read_pixels(vesk_image* dst)
{
    if (dst == nullptr || !image_valid(*dst))
        return VESK_ERR_INVALID_PARAM;
    if (m_pixels == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    if (dst->width != m_width || dst->height != m_height)
        return VESK_ERR_INVALID_PARAM;
    // A band of ARGB rows at a time, so a large bitmap never needs a second full copy.
    constexpr uint32_t band = 16;
    const bool direct = dst->format == VESK_PIX_ARGB8888;
    vesk_scratch mem(direct ? 0 : size_t(m_width) * 4 * band);
    if (!direct && mem.data() == nullptr)
        return VESK_ERR_NO_RESOURCE;
    for (uint32_t y0 = 0; y0 < m_height; y0 += band) {
        const uint32_t rows = m_height - y0 < band ? m_height - y0 : band;
        vesk_image argb;
        if (direct) {
            argb = image_rows(*dst, y0, rows);
        } else {
            vesk_utility_image_wrap(&argb, VESK_PIX_ARGB8888, m_width, rows, mem.data(), m_width * 4 * band);
        }
        for (uint32_t y = 0; y < rows; ++y) {
            uint8_t* out = argb.plane[0] + size_t(y) * argb.stride[0];
            for (uint32_t x = 0; x < m_width; ++x)
                put_le32(out + 4 * x, to_argb(x, y0 + y));
        }
        if (!direct) {
            const VESK_ERR err = image_convert(argb, nullptr, image_rows(*dst, y0, rows), VESK_MATRIX_BT601);
            if (err != VESK_OK)
                return err;
        }
    }
    return VESK_OK;
}

VESK_ERR vesk_bmp_realize::save(const char* path)
{
    if (path == nullptr || *path == '\0')
        return VESK_ERR_INVALID_PARAM;
    if (m_pixels == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    // Default masks go out as plain RGB; any other (alpha included) in a V4 header's fields.
    const bool default_16 = m_bits == 16 && m_ch[0].mask == 0x7C00 && m_ch[1].mask == 0x03E0 && m_ch[2].mask == 0x1F
        && m_ch[3].mask == 0;
    const bool default_32 = m_bits == 32 && m_ch[0].mask == 0xFF0000 && m_ch[1].mask == 0xFF00 && m_ch[2].mask == 0xFF
        && m_ch[3].mask == 0;
    const bool fields = (m_bits == 16 && !default_16) || (m_bits == 32 && !default_32);
    const uint32_t info = fields ? k_v4_header : k_info_header;
    const uint32_t palette = m_bits <= 8 ? m_palette_count : 0;
    const uint32_t offset = k_file_header + info + 4 * palette;
    const uint32_t image = m_stride * m_height;
    uint8_t head[k_file_header + k_v4_header] = {};
    head[0] = 'B';
    head[1] = 'M';
    put_le32(head + 2, offset + image);
    put_le32(head + 10, offset);
    uint8_t* h = head + k_file_header;
    put_le32(h, info);
    put_le32(h + 4, m_width);
    put_le32(h + 8, m_height); // positive: bottom row first
    put_le16(h + 12, 1);
    put_le16(h + 14, m_bits);
    put_le32(h + 16, fields ? k_bi_bitfields : k_bi_rgb);
    put_le32(h + 20, image);
    put_le32(h + 24, 2835); // 72 dpi
    put_le32(h + 28, 2835);
    put_le32(h + 32, palette);
    if (fields) {
        for (int i = 0; i < 4; ++i)
            put_le32(h + 40 + 4 * i, m_ch[i].mask);
        put_le32(h + 56, 0x73524742); // 'sRGB'
    }

    char tmp[512];
    if (snprintf(tmp, sizeof(tmp), "%s.tmp", path) >= static_cast<int>(sizeof(tmp)))
        return VESK_ERR_INVALID_PARAM;
    FILE* fp = fopen(tmp, "wb");
    if (fp == nullptr) {
        VESK_LOG_ERR(k_cls, "fopen %s fail, %s\n", tmp, strerror(errno));
        return VESK_ERR_OPERATE_FAIL;
    }
    bool ok = fwrite(head, 1, k_file_header + info, fp) == k_file_header + info;
    for (uint32_t i = 0; ok && i < palette; ++i) {
        uint8_t e[4];
        put_le32(e, m_palette[i] & 0xFFFFFF); // B, G, R, 0
        ok = fwrite(e, 1, 4, fp) == 4;
    }
    for (uint32_t y = m_height; ok && y-- > 0;)
        ok = fwrite(row(y), 1, m_stride, fp) == m_stride;
    ok = ok && fflush(fp) == 0 && fsync(fileno(fp)) == 0;
    if (fclose(fp) != 0 || !ok || rename(tmp, path) != 0) {
        VESK_LOG_ERR(k_cls, "save %s fail, %s\n", path, strerror(errno));
        unlink(tmp);
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

} // namespace vesk_utility
