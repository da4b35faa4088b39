// Picture costs per 1080p frame against plain baselines: NV12 -> ARGB (BT.601 limited) through
// the converter against a straightforward C loop with the same integer arithmetic, and an
// I420 frame to a quality-80 JPEG through our encoder against the classic libjpeg API fed raw
// planes (the way firmware usually writes snapshots without TurboJPEG's wrapper).
#include <benchmark/benchmark.h>
#include <jpeglib.h>
#include <libyuv/cpu_id.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

constexpr uint32_t W = 1920, H = 1080;

// A frame with detail in luma and chroma, so the JPEG has work to do.
std::vector<uint8_t> make_yuv420()
{
    std::vector<uint8_t> f(W * H * 3 / 2);
    for (uint32_t y = 0; y < H; ++y)
        for (uint32_t x = 0; x < W; ++x)
            f[y * W + x] = uint8_t(16 + (x * 3 + y * 5 + (x * y) / 97) % 220);
    for (size_t i = W * H; i < f.size(); ++i)
        f[i] = uint8_t(64 + (i * 13) % 128);
    return f;
}

inline uint8_t clamp8(int v)
{
    return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
}

void baseline_nv12_to_argb(benchmark::State& state)
{
    const std::vector<uint8_t> nv12 = make_yuv420();
    std::vector<uint8_t> argb(W * H * 4);
    for (auto _ : state) {
        const uint8_t* uv0 = nv12.data() + W * H;
        for (uint32_t y = 0; y < H; ++y) {
            const uint8_t* yr = nv12.data() + y * W;
            const uint8_t* uv = uv0 + (y / 2) * W;
            uint8_t* out = argb.data() + y * W * 4;
            for (uint32_t x = 0; x < W; ++x) {
                const int c = 298 * (yr[x] - 16) + 128;
                const int u = uv[x & ~1u] - 128, v = uv[x | 1u] - 128;
                out[4 * x] = clamp8((c + 516 * u) >> 8);
                out[4 * x + 1] = clamp8((c - 100 * u - 208 * v) >> 8);
                out[4 * x + 2] = clamp8((c + 409 * v) >> 8);
                out[4 * x + 3] = 255;
            }
        }
        benchmark::DoNotOptimize(argb.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

void vesk_nv12_to_argb(benchmark::State& state)
{
    std::vector<uint8_t> nv12 = make_yuv420();
    std::vector<uint8_t> argb(W * H * 4);
    vesk_image src, dst;
    vesk_utility_image_wrap(&src, VESK_PIX_NV12, W, H, nv12.data(), uint32_t(nv12.size()));
    vesk_utility_image_wrap(&dst, VESK_PIX_ARGB8888, W, H, argb.data(), uint32_t(argb.size()));
    for (auto _ : state) {
        if (vesk_utility_image_convert(&src, nullptr, &dst, VESK_MATRIX_BT601) != VESK_OK) {
            state.SkipWithError("conversion failed");
            break;
        }
        benchmark::DoNotOptimize(argb.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

// The board's Debian libyuv carries no NEON rows, only its C ones: the same conversion with
// libyuv's SIMD masked off shows what is left of the gain there.
void baseline_nv12_to_argb_c_rows(benchmark::State& state)
{
    baseline_nv12_to_argb(state);
}

void vesk_nv12_to_argb_c_rows(benchmark::State& state)
{
    libyuv::MaskCpuFlags(1); // "initialised", no SIMD extension
    vesk_nv12_to_argb(state);
    libyuv::MaskCpuFlags(-1);
}

void baseline_i420_to_jpeg(benchmark::State& state)
{
    std::vector<uint8_t> yuv = make_yuv420();
    unsigned char* out = nullptr;
    unsigned long out_len = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        jpeg_compress_struct c;
        jpeg_error_mgr err;
        c.err = jpeg_std_error(&err);
        jpeg_create_compress(&c);
        jpeg_mem_dest(&c, &out, &out_len);
        c.image_width = W;
        c.image_height = H;
        c.input_components = 3;
        c.in_color_space = JCS_YCbCr;
        jpeg_set_defaults(&c);
        jpeg_set_quality(&c, 80, TRUE);
        c.raw_data_in = TRUE;
        c.comp_info[0].h_samp_factor = c.comp_info[0].v_samp_factor = 2;
        c.comp_info[1].h_samp_factor = c.comp_info[1].v_samp_factor = 1;
        c.comp_info[2].h_samp_factor = c.comp_info[2].v_samp_factor = 1;
        jpeg_start_compress(&c, TRUE);
        JSAMPROW rows_y[16], rows_u[8], rows_v[8];
        JSAMPARRAY planes[3] = {rows_y, rows_u, rows_v};
        while (c.next_scanline < H) {
            for (uint32_t i = 0; i < 16; ++i)
                rows_y[i] = yuv.data() + std::min(c.next_scanline + i, H - 1) * W;
            for (uint32_t i = 0; i < 8; ++i) {
                const uint32_t cy = std::min(c.next_scanline / 2 + i, H / 2 - 1);
                rows_u[i] = yuv.data() + W * H + cy * (W / 2);
                rows_v[i] = yuv.data() + W * H + W * H / 4 + cy * (W / 2);
            }
            jpeg_write_raw_data(&c, planes, 16);
        }
        jpeg_finish_compress(&c);
        jpeg_destroy_compress(&c);
        bytes = out_len;
    }
    free(out);
    state.counters["bytes"] = double(bytes);
    state.SetItemsProcessed(state.iterations());
}

void vesk_i420_to_jpeg(benchmark::State& state)
{
    std::vector<uint8_t> yuv = make_yuv420();
    std::vector<uint8_t> out(4 << 20);
    vesk_image src;
    vesk_utility_image_wrap(&src, VESK_PIX_I420, W, H, yuv.data(), uint32_t(yuv.size()));
    uint32_t len = 0;
    for (auto _ : state) {
        if (vesk_utility_jpeg_encode(&src, VESK_MATRIX_BT601_FULL, 80, out.data(), uint32_t(out.size()), &len)
            != VESK_OK) {
            state.SkipWithError("encode failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = double(len);
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(baseline_nv12_to_argb)->Unit(benchmark::kMillisecond);
BENCHMARK(vesk_nv12_to_argb)->Unit(benchmark::kMillisecond);
BENCHMARK(baseline_nv12_to_argb_c_rows)->Unit(benchmark::kMillisecond);
BENCHMARK(vesk_nv12_to_argb_c_rows)->Unit(benchmark::kMillisecond);
BENCHMARK(baseline_i420_to_jpeg)->Unit(benchmark::kMillisecond);
BENCHMARK(vesk_i420_to_jpeg)->Unit(benchmark::kMillisecond);
