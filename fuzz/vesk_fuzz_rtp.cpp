// Fuzz target of the RTP depacketiser: the input is what a camera or a man in the middle may
// send over RTSP/TCP. Buffers are sized exactly, so any read past the input or write past
// the capacity is caught by ASan; the in-place conversion must give the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0 || size > 65536)
        return 0;
    const int32_t n = static_cast<int32_t>(size);
    std::vector<uint8_t> in(data, data + size);
    std::vector<uint8_t> out(size);
    _tagVesk_rtp_h264_param p = {in.data(), n, out.data(), n};
    const VESK_ERR err = vesk_utility_RTPtoH264_InputData(&p);
    if (err != VESK_OK)
        return 0;
    if (p.nOutSize < 0 || p.nOutSize > n)
        abort();
    if (memcmp(in.data(), data, size) != 0)
        abort(); // the input is const in spirit: an out-of-place call must not touch it

    // The same conversion in place.
    std::vector<uint8_t> same(data, data + size);
    _tagVesk_rtp_h264_param q = {same.data(), n, same.data(), n};
    if (vesk_utility_RTPtoH264_InputData(&q) != VESK_OK || q.nOutSize != p.nOutSize)
        abort();
    // Payload type 98 returns with nOutSize left at the capacity and nothing to compare; no
    // converted packet keeps its size, so any other result is shorter than the input.
    if (p.nOutSize == n)
        return 0;
    if (memcmp(same.data(), out.data(), static_cast<size_t>(p.nOutSize)) != 0)
        abort();
    return 0;
}
