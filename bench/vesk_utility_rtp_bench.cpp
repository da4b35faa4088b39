// RTP depacketising throughput against memcpy of the same input bytes: one frame of
// `range(0)` bytes of H.264 arriving as 1400-byte FU-A packets in interleaved framing (a
// camera on a standard MTU), behind a frame header, converted into a separate buffer.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

constexpr size_t k_rtp_payload = 1400;

std::vector<uint8_t> make_frame(size_t nal_size)
{
    std::vector<uint8_t> in(sizeof(_tagVeskFrameHeader), 0);
    const uint32_t start = VESK_FRAME_STARTCODE;
    memcpy(in.data(), &start, sizeof(start));
    uint16_t seq = 0;
    for (size_t done = 0; done < nal_size; seq++) {
        const size_t body = std::min(k_rtp_payload - 2, nal_size - done);
        const size_t len = 12 + 2 + body;
        const uint8_t fu = static_cast<uint8_t>((done == 0 ? 0x80 : 0) | (done + body == nal_size ? 0x40 : 0) | 5);
        const uint8_t head[] = {'$', 0, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len), 0x80, 96,
            static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq), 0, 0, 0, 1, 1, 2, 3, 4, 0x7C, fu};
        in.insert(in.end(), head, head + sizeof(head));
        for (size_t i = 0; i < body; ++i)
            in.push_back(static_cast<uint8_t>(done + i));
        done += body;
    }
    return in;
}

void baseline_rtp_frame(benchmark::State& state)
{
    const std::vector<uint8_t> in = make_frame(static_cast<size_t>(state.range(0)));
    std::vector<uint8_t> out(in.size());
    for (auto _ : state) {
        memcpy(out.data(), in.data(), in.size());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void vesk_rtp_frame(benchmark::State& state)
{
    std::vector<uint8_t> in = make_frame(static_cast<size_t>(state.range(0)));
    std::vector<uint8_t> out(in.size());
    for (auto _ : state) {
        _tagVesk_rtp_h264_param p
            = {in.data(), static_cast<int32_t>(in.size()), out.data(), static_cast<int32_t>(out.size())};
        if (vesk_utility_RTPtoH264_InputData(&p) != VESK_OK) {
            state.SkipWithError("conversion failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

} // namespace

// A P frame, an I frame of a 1080p main stream, and a large I frame.
BENCHMARK(baseline_rtp_frame)->Arg(8 << 10)->Arg(128 << 10)->Arg(512 << 10);
BENCHMARK(vesk_rtp_frame)->Arg(8 << 10)->Arg(128 << 10)->Arg(512 << 10);
