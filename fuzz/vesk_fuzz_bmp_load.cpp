// Fuzz target of the BMP loader: the input is a file from a user or the network. The copy
// handed in is sized exactly, so a read past it is caught by ASan; a bitmap that loads must
// also read back whole, in a packed and in a YUV format, and save.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "media/vesk_utility_bmp_operate.h"

using namespace vesk_soft;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > (1u << 20))
        return 0;
    std::vector<uint8_t> file(data, data + size);
    vesk_utility::vesk_bmp_realize bmp;
    if (bmp.load_memory(file.data(), uint32_t(size)) != VESK_OK)
        return 0;
    uint32_t w = 0, h = 0, bits = 0;
    if (bmp.get_info(&w, &h, &bits) != VESK_OK || w == 0 || h == 0)
        abort();
    if (uint64_t(w) * h > (1u << 22))
        return 0; // valid but large: reading it back teaches the fuzzer nothing new
    for (uint32_t format : {uint32_t(VESK_PIX_ARGB8888), uint32_t(VESK_PIX_NV12)}) {
        std::vector<uint8_t> out(vesk_utility_image_size(format, w, h));
        vesk_image img;
        if (vesk_utility_image_wrap(&img, format, w, h, out.data(), uint32_t(out.size())) != VESK_OK
            || bmp.read_pixels(&img) != VESK_OK)
            abort();
    }
    uint32_t v = 0;
    if (bmp.get_pixel(w - 1, h - 1, &v) != VESK_OK)
        abort();
    return 0;
}
