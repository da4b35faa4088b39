// vesk_utility_g711 - G.711 A-law and mu-law companding of 16-bit linear PCM, the audio of the
// cameras' two-way talk and alarm sounds. Pure functions over caller buffers; no state.
#ifndef VESK_UTILITY_G711_H
#define VESK_UTILITY_G711_H

#include <cstdint>

namespace vesk_utility {

// A-law keeps the top 13 bits of a sample, mu-law the top 14 (the rest is discarded, so
// encoding a decoded byte gives that byte back, but not the other way round).
uint8_t g711_alaw_from_linear(int16_t pcm);
int16_t g711_alaw_to_linear(uint8_t code);
uint8_t g711_ulaw_from_linear(int16_t pcm);
int16_t g711_ulaw_to_linear(uint8_t code);

void g711_alaw_encode(const int16_t* in, uint32_t count, uint8_t* out);
void g711_alaw_decode(const uint8_t* in, uint32_t count, int16_t* out);
void g711_ulaw_encode(const int16_t* in, uint32_t count, uint8_t* out);
void g711_ulaw_decode(const uint8_t* in, uint32_t count, int16_t* out);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_G711_H
