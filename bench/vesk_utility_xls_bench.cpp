// Spreadsheet export against a plain CSV export of the same 10,000 x 10 cells (half numbers,
// half text, a third of the text distinct per row) through stdio: the cost of producing a
// real workbook, and its accounted peak, beside the cheapest text a spreadsheet can import.
// Also G.711 encoding against the cheapest 16-to-8-bit narrowing of the same samples.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "store/vesk_utility_xls_operate.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

constexpr uint32_t k_rows = 10000;
constexpr uint32_t k_cols = 10;

std::string scratch(const char* name)
{
    const char* dir = getenv("TMPDIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/" + name + "." + std::to_string(getpid());
}

void cell_text(char* buf, size_t size, uint32_t r, uint32_t c)
{
    if (c % 4 == 1)
        snprintf(buf, size, "事件 %u-%u", r, c);
    else
        snprintf(buf, size, "记录 %u", r % 500);
}

void baseline_xls_10000x10(benchmark::State& state)
{
    const std::string path = scratch("bench.csv");
    char buf[64];
    for (auto _ : state) {
        FILE* f = fopen(path.c_str(), "w");
        for (uint32_t r = 0; r < k_rows; r++) {
            for (uint32_t c = 0; c < k_cols; c++) {
                if (c % 2 == 0) {
                    fprintf(f, "%s%.17g", c ? "," : "", r * 0.25 + c);
                } else {
                    cell_text(buf, sizeof(buf), r, c);
                    fprintf(f, ",\"%s\"", buf);
                }
            }
            fputc('\n', f);
        }
        fsync(fileno(f));
        fclose(f);
    }
    unlink(path.c_str());
}

void vesk_xls_10000x10(benchmark::State& state)
{
    const std::string path = scratch("bench.xls");
    char buf[64];
    uint64_t peak = 0;
    for (auto _ : state) {
        vesk_utility::vesk_xls_realize x;
        uint32_t s = 0;
        if (x.create() != VESK_OK || x.add_sheet("Events", VESK_XLS_UTF8, &s) != VESK_OK) {
            state.SkipWithError("create failed");
            break;
        }
        for (uint32_t r = 0; r < k_rows; r++) {
            for (uint32_t c = 0; c < k_cols; c++) {
                if (c % 2 == 0) {
                    x.set_number(s, r, c, r * 0.25 + c);
                } else {
                    cell_text(buf, sizeof(buf), r, c);
                    x.set_text(s, r, c, buf, VESK_XLS_UTF8);
                }
            }
        }
        if (x.save(path.c_str()) != VESK_OK) {
            state.SkipWithError("save failed");
            break;
        }
        peak = x.peak_bytes();
    }
    state.counters["peak_accounted_bytes"] = static_cast<double>(peak);
    unlink(path.c_str());
}

std::vector<int16_t> samples()
{
    std::vector<int16_t> pcm(8000 * 20);  // 20 s of 8 kHz talk
    uint32_t seed = 1;
    for (int16_t& s : pcm) {
        seed = seed * 1103515245u + 12345u;
        s = static_cast<int16_t>(seed >> 16);
    }
    return pcm;
}

void baseline_g711_encode(benchmark::State& state)
{
    const std::vector<int16_t> pcm = samples();
    std::vector<uint8_t> out(pcm.size());
    for (auto _ : state) {
        for (size_t i = 0; i < pcm.size(); i++)
            out[i] = static_cast<uint8_t>(pcm[i] >> 8);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * pcm.size()));
}

void vesk_g711_encode(benchmark::State& state)
{
    const std::vector<int16_t> pcm = samples();
    std::vector<uint8_t> out(pcm.size());
    for (auto _ : state) {
        vesk_utility_g711_alaw_encode(pcm.data(), static_cast<uint32_t>(pcm.size()), out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * pcm.size()));
}

} // namespace

BENCHMARK(baseline_xls_10000x10)->Unit(benchmark::kMillisecond);
BENCHMARK(vesk_xls_10000x10)->Unit(benchmark::kMillisecond);
BENCHMARK(baseline_g711_encode)->Unit(benchmark::kMicrosecond);
BENCHMARK(vesk_g711_encode)->Unit(benchmark::kMicrosecond);
