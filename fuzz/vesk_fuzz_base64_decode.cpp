// Fuzz target of the strict base64 decoder: the input is text from a peer. The first byte
// picks the alphabet and the output size, the rest is decoded into a buffer of exactly that
// size, so ASan catches any write past it. Strictness means one text per byte string: what
// decodes must encode back to the very same text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0 || size > 65536)
        return 0;
    const uint32_t flags = (data[0] & 1) != 0 ? VESK_BASE64_URL : 0;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const uint32_t len = static_cast<uint32_t>(text.size());
    // Either room for any result, or a short buffer (0-63 bytes) to test the bound.
    const uint32_t out_size = (data[0] & 2) != 0 ? len : (data[0] >> 2);
    std::vector<uint8_t> out(out_size);
    uint32_t n = 0xFFFFFFFF;
    const VESK_ERR err = vesk_utility_base64_decode(text.data(), len, out.data(), out_size, &n, flags);
    if (err != VESK_OK) {
        if (n != 0 || (err != VESK_ERR_OPERATE_FAIL && err != VESK_ERR_NO_RESOURCE))
            abort();
        return 0;
    }
    if (n > out_size || n > len / 4 * 3 + 2)
        abort();
    const bool padded = !text.empty() && text.back() == '=';
    const uint32_t enc_flags = flags | (padded ? 0 : VESK_BASE64_NO_PAD);
    std::vector<char> again(vesk_utility_base64_encode_size(n, enc_flags));
    uint32_t m = 0;
    if (vesk_utility_base64_encode(out.data(), n, again.data(), static_cast<uint32_t>(again.size()), &m, enc_flags) !=
        VESK_OK)
        abort();
    // Unpadded input whose length is a multiple of 4 encodes the same with or without padding.
    if (std::string(again.data(), m) != text)
        abort();
    return 0;
}
