// vesk_utility_g711 - G.711 companding: a segment (exponent) and four mantissa bits per byte,
// A-law with even bits inverted, mu-law with every bit inverted. Decoding goes through two
// 256-entry tables built once; encoding computes the segment from the highest set bit.
#include "codec/vesk_utility_g711.h"

namespace vesk_utility {

namespace {

constexpr int k_ulaw_bias = 0x84;  // added before the segment search so segment 0 is linear
constexpr int k_ulaw_clip = 8159;  // largest 14-bit magnitude that stays below the top code

// Segment of magnitude v: segments double in width, the first covers [0, 2^first_bits - 1];
// 8 or more when v lies beyond the last one. One count-leading-zeros, no loop.
inline int segment_of(int v, int first_bits)
{
    const int bits = 32 - __builtin_clz(static_cast<unsigned>(v) | 1u);
    return bits > first_bits ? bits - first_bits : 0;
}

int16_t alaw_decode_one(uint8_t code)
{
    const int a = code ^ 0x55;
    int t = (a & 0x0F) << 4;
    const int seg = (a & 0x70) >> 4;
    if (seg == 0)
        t += 8;
    else
        t = (t + 0x108) << (seg - 1);
    return static_cast<int16_t>((a & 0x80) ? t : -t);
}

int16_t ulaw_decode_one(uint8_t code)
{
    const int u = ~code & 0xFF;
    int t = ((u & 0x0F) << 3) + k_ulaw_bias;
    t <<= (u & 0x70) >> 4;
    return static_cast<int16_t>((u & 0x80) ? (k_ulaw_bias - t) : (t - k_ulaw_bias));
}

struct decode_tables {
    int16_t alaw[256];
    int16_t ulaw[256];
    decode_tables()
    {
        for (int i = 0; i < 256; i++) {
            alaw[i] = alaw_decode_one(static_cast<uint8_t>(i));
            ulaw[i] = ulaw_decode_one(static_cast<uint8_t>(i));
        }
    }
};

const decode_tables& tables()
{
    static const decode_tables s_tables;
    return s_tables;
}

}  // namespace

uint8_t g711_alaw_from_linear(int16_t pcm)
{
    int v = pcm >> 3;  // 13 significant bits
    int mask;
    if (v >= 0) {
        mask = 0xD5;
    } else {
        mask = 0x55;
        v = -v - 1;
    }
    const int seg = segment_of(v, 5);
    if (seg >= 8)
        return static_cast<uint8_t>(0x7F ^ mask);
    int a = seg << 4;
    a |= (seg < 2) ? ((v >> 1) & 0x0F) : ((v >> seg) & 0x0F);
    return static_cast<uint8_t>(a ^ mask);
}

uint8_t g711_ulaw_from_linear(int16_t pcm)
{
    int v = pcm >> 2;  // 14 significant bits
    int mask;
    if (v < 0) {
        v = -v;
        mask = 0x7F;
    } else {
        mask = 0xFF;
    }
    if (v > k_ulaw_clip)
        v = k_ulaw_clip;
    v += k_ulaw_bias >> 2;
    const int seg = segment_of(v, 6);
    if (seg >= 8)
        return static_cast<uint8_t>(0x7F ^ mask);
    return static_cast<uint8_t>(((seg << 4) | ((v >> (seg + 1)) & 0x0F)) ^ mask);
}

int16_t g711_alaw_to_linear(uint8_t code)
{
    return tables().alaw[code];
}

int16_t g711_ulaw_to_linear(uint8_t code)
{
    return tables().ulaw[code];
}

void g711_alaw_encode(const int16_t* in, uint32_t count, uint8_t* out)
{
    for (uint32_t i = 0; i < count; i++)
        out[i] = g711_alaw_from_linear(in[i]);
}

void g711_ulaw_encode(const int16_t* in, uint32_t count, uint8_t* out)
{
    for (uint32_t i = 0; i < count; i++)
        out[i] = g711_ulaw_from_linear(in[i]);
}

void g711_alaw_decode(const uint8_t* in, uint32_t count, int16_t* out)
{
    const int16_t* t = tables().alaw;
    for (uint32_t i = 0; i < count; i++)
        out[i] = t[in[i]];
}

void g711_ulaw_decode(const uint8_t* in, uint32_t count, int16_t* out)
{
    const int16_t* t = tables().ulaw;
    for (uint32_t i = 0; i < count; i++)
        out[i] = t[in[i]];
}

}  // namespace vesk_utility
