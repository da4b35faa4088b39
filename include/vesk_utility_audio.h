// vesk_utility_audio.h - audio of the recorder: G.711 companding of 16-bit PCM, and the WAV
// operator that reads and writes two-way-talk clips and alarm sounds.
//
// WAV operator contract
//   One operator holds at most one open file, either for reading or for writing; open_* on an
//   operator that holds a file fails with VESK_ERR_OPERATE_FAIL (close it first).
//   Formats: PCM 8-bit (unsigned) and 16-bit (signed little-endian), A-law and mu-law (8-bit);
//   mono or stereo; the extensible format tag is accepted on reading. Others:
//   VESK_ERR_NOT_SUPPORT.
//   Positions and counts are in frames (one sample of every channel); sample bytes are moved
//   exactly as the file stores them (interleaved, little-endian).
//   Reading accepts chunks in any order, odd-sized chunks followed by their pad byte, and the
//   sizes 0 or 0xFFFFFFFF that a writer leaves when it dies before closing: the data then run
//   to the end of the file (as do data sizes that claim more than the file holds).
//   Writing puts a header with provisional sizes first; close() writes the real ones (and the
//   pad byte of an odd data size). A file whose writer never closed stays readable as above.
//   An operator is not thread-safe: one thread uses it at a time, or the caller locks.
//   Failures: VESK_ERR_INVALID_PARAM (NULL or out-of-range argument), VESK_ERR_OPERATE_FAIL
//   (no file, wrong mode, malformed file, seek past the end, I/O error).
#ifndef VESK_UTILITY_AUDIO_H
#define VESK_UTILITY_AUDIO_H

#include "vesk_utility_types.h"

namespace vesk_soft
{

// G.711 over buffers of `count` samples. A-law keeps 13 bits of each sample, mu-law 14.
// VESK_ERR_INVALID_PARAM when count > 0 and a pointer is NULL. No initialisation needed.
VESK_API VESK_ERR vesk_utility_g711_alaw_encode(const int16_t* pcm, uint32_t count, uint8_t* out);
VESK_API VESK_ERR vesk_utility_g711_alaw_decode(const uint8_t* in, uint32_t count, int16_t* pcm);
VESK_API VESK_ERR vesk_utility_g711_ulaw_encode(const int16_t* pcm, uint32_t count, uint8_t* out);
VESK_API VESK_ERR vesk_utility_g711_ulaw_decode(const uint8_t* in, uint32_t count, int16_t* pcm);

// Format tags of the WAV "fmt " chunk.
enum vesk_wav_format_tag : uint16_t {
    VESK_WAV_FORMAT_PCM = 1,
    VESK_WAV_FORMAT_ALAW = 6,
    VESK_WAV_FORMAT_MULAW = 7,
};

struct vesk_wav_format {
    uint16_t format_tag;       // vesk_wav_format_tag (an extensible file reports its sub-format)
    uint16_t channels;         // 1 or 2
    uint32_t sample_rate;      // frames per second, > 0
    uint16_t bits_per_sample;  // 8 or 16 for PCM, 8 for A-law and mu-law
};

class vesk_wav_operate
{
public:
    vesk_wav_operate() = default;
    vesk_wav_operate(const vesk_wav_operate&) = delete;
    vesk_wav_operate& operator=(const vesk_wav_operate&) = delete;

    // Opens and parses a file; the read position is frame 0.
    virtual VESK_ERR open_read(const char* path) = 0;
    // Format of the open file (either mode).
    virtual VESK_ERR get_format(vesk_wav_format* fmt) = 0;
    // Reading: file offset of the first sample byte, and the number of whole frames.
    virtual VESK_ERR get_data_pos(uint32_t* offset, uint32_t* frames) = 0;
    // Reads up to `frames` frames into buf (frames x channels x bytes per sample); *got is the
    // number read, 0 at the end.
    virtual VESK_ERR read_samples(void* buf, uint32_t frames, uint32_t* got) = 0;
    // Moves the read position to frame `frame` (<= the frame count).
    virtual VESK_ERR seek_sample(uint32_t frame) = 0;

    // Creates (truncates) path and writes a header for fmt.
    virtual VESK_ERR open_write(const char* path, const vesk_wav_format* fmt) = 0;
    // Appends frames; a RIFF file holds at most 4 GiB, beyond which this fails.
    virtual VESK_ERR write_samples(const void* buf, uint32_t frames) = 0;

    // Writing: patches the sizes and flushes; both modes: closes the file. VESK_OK when
    // nothing is open.
    virtual VESK_ERR close() = 0;
    virtual ~vesk_wav_operate() { }
};

// A new operator without a file, recorded on the "wav fd" list. NULL before initialisation.
VESK_API vesk_wav_operate* vesk_utility_new_wav_operate(vesk_user_id usr_id, const char* name);
// Closes (as close()) and destroys an operator from the call above; an unknown one is fatal.
VESK_API VESK_ERR vesk_utility_delete_wav_operate(vesk_wav_operate* op, const char* file, const char* func);

} // namespace vesk_soft

#endif // VESK_UTILITY_AUDIO_H
