// Fuzz target of the character-set conversion: the input is text from a camera, a file or a
// peer in any of the sets the firmware meets. The first byte picks the direction, replacement
// and the output size; the output buffer is exactly that size. Properties: nothing past the
// buffer, UTF-8 output is well-formed, GB2312/GBK text survives the trip through UTF-8
// unchanged, and the UTF-8 helpers stay inside their input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{
const char* const k_sets[] = {"GB2312", "GBK", "GB18030", "UTF-8", "UTF-16LE", "BIG5", "ISO-8859-1", "UTF-8"};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 65536)
        return 0;
    const char* from = k_sets[data[0] & 7];
    const char* to = k_sets[(data[0] >> 3) & 7];
    const bool replace = (data[0] & 0x40) != 0;
    const std::vector<char> in(data + 2, data + size);
    const uint32_t in_len = static_cast<uint32_t>(in.size());
    const uint32_t out_size = (data[0] & 0x80) != 0 ? in_len * 4 + 8 : data[1] + 1u;
    std::vector<char> out(out_size);
    uint32_t n = 0xFFFFFFFF;
    const VESK_ERR err =
        vesk_utility_charset_convert(from, to, in.data(), in_len, out.data(), out_size, &n, replace ? 1 : 0);
    if (err != VESK_OK) {
        if (n != 0 || out[0] != '\0')
            abort();
    } else {
        if (n >= out_size || out[n] != '\0')
            abort();
        if (strcmp(to, "UTF-8") == 0 && !vesk_utility_is_utf8(out.data(), n))
            abort();
        const bool gb = strcmp(from, "GB2312") == 0 || strcmp(from, "GBK") == 0;
        if (gb && strcmp(to, "UTF-8") == 0 && !replace) {
            std::vector<char> back(in_len + 1);
            uint32_t m = 0;
            if (vesk_utility_charset_convert("UTF-8", from, out.data(), n, back.data(), in_len + 1, &m, 0) != VESK_OK ||
                m != in_len || (in_len != 0 && memcmp(back.data(), in.data(), in_len) != 0))
                abort();
        }
    }
    // The UTF-8 helpers on the raw input: a fixed field of data[1] bytes.
    std::vector<char> field(in.begin(), in.end());
    field.push_back('\0');
    const uint32_t field_size = data[1] + 1u;
    const VESK_BOOL was_utf8 = vesk_utility_is_utf8(in.data(), in_len);
    uint32_t kept = 0;
    if (field_size <= field.size()) {
        if (vesk_utility_utf8_truncate(field.data(), field_size, &kept) != VESK_OK || kept >= field_size ||
            (was_utf8 && !vesk_utility_is_utf8(field.data(), kept)))
            abort();
    }
    return 0;
}
