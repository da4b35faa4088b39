// vesk_utility_bmp_operate - the BMP operator: a bitmap held in its file's own packing (top
// row first), loaded from untrusted files with every size and offset checked, and saved
// through a temporary file and a rename.
#ifndef VESK_UTILITY_BMP_OPERATE_INTERNAL_H
#define VESK_UTILITY_BMP_OPERATE_INTERNAL_H

#include "vesk_utility_picture.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

class vesk_bmp_realize final : public vesk_soft::vesk_bmp_operate
{
public:
    vesk_bmp_realize() = default;
    ~vesk_bmp_realize() override;

    VESK_ERR load_file(const char* path) override;
    VESK_ERR load_memory(const void* data, uint32_t size) override;
    VESK_ERR create(uint32_t width, uint32_t height, uint32_t bits) override;
    VESK_ERR get_info(uint32_t* width, uint32_t* height, uint32_t* bits) override;
    VESK_ERR set_palette(const uint32_t* argb, uint32_t count) override;
    VESK_ERR set_pixel(uint32_t x, uint32_t y, uint32_t value) override;
    VESK_ERR get_pixel(uint32_t x, uint32_t y, uint32_t* value) override;
    VESK_ERR read_pixels(vesk_soft::vesk_image* dst) override;
    VESK_ERR save(const char* path) override;

    // Row y in the file's packing (stride() bytes), for writers that fill whole rows.
    // REQUIRES: a bitmap, y < height.
    uint8_t* row(uint32_t y) const { return m_pixels + size_t(y) * m_stride; }
    uint32_t stride() const { return m_stride; }

private:
    // One channel of a bit-field pixel: where it sits and how wide it is (0: absent).
    struct channel {
        uint32_t mask, shift, bits;
    };

    // The decoded state of a bitmap; load and create build one and swap it in whole.
    struct state;
    void adopt(state& s);
    uint32_t to_argb(uint32_t x, uint32_t y) const;

    uint8_t* m_pixels = nullptr; // accounted; height rows of m_stride bytes, top row first
    uint32_t m_width = 0;
    uint32_t m_height = 0;
    uint32_t m_bits = 0;
    uint32_t m_stride = 0;
    uint32_t m_palette[256] = {}; // 0xAARRGGBB; entries past m_palette_count are opaque black
    uint32_t m_palette_count = 0;
    channel m_ch[4] = {}; // r, g, b, a (16 and 32 bits)
};

} // namespace vesk_utility

#endif // VESK_UTILITY_BMP_OPERATE_INTERNAL_H
