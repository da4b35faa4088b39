// Fuzz target of the JPEG reader: header info, then a decode capped at 4 megapixels into a
// buffer of exactly the scaled size, in a format the decoder writes directly and in one it
// converts into. A refusal is fine; a read or write out of bounds is not.
#include <cstdint>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0 || size > (1u << 20))
        return 0;
    std::vector<uint8_t> jpeg(data, data + size);
    vesk_jpeg_info info;
    if (vesk_utility_jpeg_get_info(jpeg.data(), uint32_t(size), &info) != VESK_OK)
        return 0;
    const uint64_t cap = 1u << 22;
    if (uint64_t(info.width) * info.height > cap)
        return 0;
    const uint32_t denom = 1u << (size % 4); // 1, 2, 4 or 8, from the input
    const uint32_t w = (info.width + denom - 1) / denom, h = (info.height + denom - 1) / denom;
    for (uint32_t format : {uint32_t(VESK_PIX_BGR24), uint32_t(VESK_PIX_NV21)}) {
        std::vector<uint8_t> out(vesk_utility_image_size(format, w, h));
        vesk_image img;
        if (vesk_utility_image_wrap(&img, format, w, h, out.data(), uint32_t(out.size())) == VESK_OK)
            vesk_utility_jpeg_decode(jpeg.data(), uint32_t(size), denom, cap, &img);
    }
    return 0;
}
