// Byte codecs against their plain baselines: base64 encoding and decoding against a
// table-driven loop of one lookup per character, and character-set conversion with the
// per-thread cached converter against opening a converter for every call.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstring>
#include <string>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

const char k_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::vector<uint8_t> bytes(size_t n)
{
    std::vector<uint8_t> v(n);
    uint32_t x = 2463534242u;
    for (auto& b : v) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<uint8_t>(x);
    }
    return v;
}

// The reference: one table lookup per output character, padding at the end.
size_t reference_encode(const uint8_t* in, size_t len, char* out)
{
    char* o = out;
    size_t i = 0;
    for (; i + 3 <= len; i += 3) {
        *o++ = k_alphabet[in[i] >> 2];
        *o++ = k_alphabet[((in[i] & 3) << 4) | (in[i + 1] >> 4)];
        *o++ = k_alphabet[((in[i + 1] & 15) << 2) | (in[i + 2] >> 6)];
        *o++ = k_alphabet[in[i + 2] & 63];
    }
    if (i < len) {
        const uint8_t b1 = i + 1 < len ? in[i + 1] : 0;
        *o++ = k_alphabet[in[i] >> 2];
        *o++ = k_alphabet[((in[i] & 3) << 4) | (b1 >> 4)];
        *o++ = i + 1 < len ? k_alphabet[(b1 & 15) << 2] : '=';
        *o++ = '=';
    }
    *o = '\0';
    return static_cast<size_t>(o - out);
}

// The reference decoder: one lookup per character, rejecting what is not in the alphabet.
bool reference_decode(const char* in, size_t len, uint8_t* out, size_t* out_len)
{
    static int8_t table[256];
    if (table[0] == 0) {
        memset(table, -1, sizeof(table));
        for (int i = 0; i < 64; i++)
            table[static_cast<uint8_t>(k_alphabet[i])] = static_cast<int8_t>(i);
    }
    while (len > 0 && in[len - 1] == '=')
        len--;
    uint32_t acc = 0;
    int bits = 0;
    uint8_t* o = out;
    for (size_t i = 0; i < len; i++) {
        const int v = table[static_cast<uint8_t>(in[i])];
        if (v < 0)
            return false;
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            *o++ = static_cast<uint8_t>(acc >> bits);
        }
    }
    *out_len = static_cast<size_t>(o - out);
    return true;
}

void baseline_base64_encode(benchmark::State& state)
{
    const std::vector<uint8_t> in = bytes(static_cast<size_t>(state.range(0)));
    std::vector<char> out(in.size() / 3 * 4 + 8);
    for (auto _ : state)
        benchmark::DoNotOptimize(reference_encode(in.data(), in.size(), out.data()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void vesk_base64_encode(benchmark::State& state)
{
    const std::vector<uint8_t> in = bytes(static_cast<size_t>(state.range(0)));
    std::vector<char> out(in.size() / 3 * 4 + 8);
    uint32_t n = 0;
    for (auto _ : state) {
        vesk_utility_base64_encode(in.data(), static_cast<uint32_t>(in.size()), out.data(),
            static_cast<uint32_t>(out.size()), &n, 0);
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void baseline_base64_decode(benchmark::State& state)
{
    const std::vector<uint8_t> raw = bytes(static_cast<size_t>(state.range(0)));
    std::vector<char> text(raw.size() / 3 * 4 + 8);
    const size_t len = reference_encode(raw.data(), raw.size(), text.data());
    std::vector<uint8_t> out(raw.size() + 3);
    size_t n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(reference_decode(text.data(), len, out.data(), &n));
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

void vesk_base64_decode(benchmark::State& state)
{
    const std::vector<uint8_t> raw = bytes(static_cast<size_t>(state.range(0)));
    std::vector<char> text(raw.size() / 3 * 4 + 8);
    const size_t len = reference_encode(raw.data(), raw.size(), text.data());
    std::vector<uint8_t> out(raw.size() + 3);
    uint32_t n = 0;
    for (auto _ : state) {
        if (vesk_utility_base64_decode(text.data(), static_cast<uint32_t>(len), out.data(),
                static_cast<uint32_t>(out.size()), &n, 0) != VESK_OK) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

// GB2312 text of range(0) bytes: Chinese characters with some ASCII, as the console's titles.
std::string gb2312_text(size_t n)
{
    std::string s;
    while (s.size() + 4 <= n)
        s += (s.size() % 20 == 0) ? "id: " : "\xD5\xEF\xB6\xCF"; // 诊断
    return s;
}

void baseline_charset_convert(benchmark::State& state)
{
    const std::string in = gb2312_text(static_cast<size_t>(state.range(0)));
    std::vector<char> out(in.size() * 2 + 1);
    for (auto _ : state) {
        iconv_t cd = iconv_open("UTF-8", "GB2312");
        char* ip = const_cast<char*>(in.data());
        size_t il = in.size();
        char* op = out.data();
        size_t ol = out.size() - 1;
        iconv(cd, &ip, &il, &op, &ol);
        *op = '\0';
        iconv_close(cd);
        benchmark::DoNotOptimize(op);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void vesk_charset_convert(benchmark::State& state)
{
    const std::string in = gb2312_text(static_cast<size_t>(state.range(0)));
    std::vector<char> out(in.size() * 2 + 1);
    uint32_t n = 0;
    for (auto _ : state) {
        if (vesk_utility_gb2312_to_utf8(in.data(), static_cast<uint32_t>(in.size()), out.data(),
                static_cast<uint32_t>(out.size()), &n) != VESK_OK) {
            state.SkipWithError("conversion failed");
            break;
        }
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

} // namespace

BENCHMARK(baseline_base64_encode)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(vesk_base64_encode)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(baseline_base64_decode)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(vesk_base64_decode)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(baseline_charset_convert)->Arg(32)->Arg(4096);
BENCHMARK(vesk_charset_convert)->Arg(32)->Arg(4096);
