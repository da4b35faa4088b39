// Fuzz target of the WAV chunk walk: the input is a whole file as a camera, a USB stick or a
// crashed writer may leave it. Reads outside the input must be refused by the walk itself;
// an accepted layout must lie inside the input and describe a format the operator handles.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "media/vesk_utility_wav_operate.h"

using namespace vesk_utility;

namespace
{

struct source {
    const uint8_t* data;
    size_t size;
};

int64_t read_at(void* ctx, uint64_t off, void* buf, uint32_t len)
{
    const source* s = static_cast<const source*>(ctx);
    if (off >= s->size)
        return 0;
    const size_t n = (s->size - off) < len ? static_cast<size_t>(s->size - off) : len;
    memcpy(buf, s->data + off, n);
    return static_cast<int64_t>(n);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    source s = {data, size};
    wav_layout l;
    if (wav_parse(read_at, &s, size, &l) != vesk_soft::VESK_OK)
        return 0;
    if (l.block_align == 0 || l.data_offset > size || l.data_bytes > size - l.data_offset ||
        l.data_bytes % l.block_align != 0 || l.fmt.channels < 1 || l.fmt.channels > 2 ||
        l.block_align != l.fmt.channels * l.fmt.bits_per_sample / 8)
        abort();
    return 0;
}
