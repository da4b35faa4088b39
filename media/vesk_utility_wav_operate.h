// vesk_utility_wav_operate - the WAV operator: parses the RIFF chunk walk of a clip for
// reading, and writes clips whose sizes are patched when they are closed.
#ifndef VESK_UTILITY_WAV_OPERATE_H
#define VESK_UTILITY_WAV_OPERATE_H

#include <cstdint>

#include "vesk_utility.h"

namespace vesk_utility {

using vesk_soft::VESK_ERR;

// Where the samples of a parsed file lie.
struct wav_layout {
    vesk_soft::vesk_wav_format fmt;
    uint16_t block_align;  // bytes per frame
    uint64_t data_offset;  // first sample byte
    uint64_t data_bytes;   // whole frames only
};

// Reads up to len bytes at offset off of the source; returns the count read (short at the
// end) or -1 on an I/O error.
typedef int64_t (*wav_read_fn)(void* ctx, uint64_t off, void* buf, uint32_t len);

// Walks the chunks of a RIFF/WAVE source of file_size bytes. VESK_OK with *out filled;
// VESK_ERR_OPERATE_FAIL for a malformed or truncated file (no fmt or data chunk, fmt too
// short, block size inconsistent with the format); VESK_ERR_NOT_SUPPORT for a well-formed file
// in a format this operator does not handle. Reads only chunk headers and the fmt chunk, so
// its cost does not depend on the amount of audio.
VESK_ERR wav_parse(wav_read_fn read, void* ctx, uint64_t file_size, wav_layout* out);

class vesk_wav_realize final : public vesk_soft::vesk_wav_operate {
public:
    vesk_wav_realize() = default;
    ~vesk_wav_realize() override;

    VESK_ERR open_read(const char* path) override;
    VESK_ERR get_format(vesk_soft::vesk_wav_format* fmt) override;
    VESK_ERR get_data_pos(uint32_t* offset, uint32_t* frames) override;
    VESK_ERR read_samples(void* buf, uint32_t frames, uint32_t* got) override;
    VESK_ERR seek_sample(uint32_t frame) override;
    VESK_ERR open_write(const char* path, const vesk_soft::vesk_wav_format* fmt) override;
    VESK_ERR write_samples(const void* buf, uint32_t frames) override;
    VESK_ERR close() override;

private:
    enum class mode { none, reading, writing };

    // Writes the sizes of a file being written at their places in the header.
    VESK_ERR patch_sizes();

    mode m_mode = mode::none;
    int m_fd = -1;
    wav_layout m_layout{};
    uint32_t m_pos = 0;            // reading: next frame
    uint32_t m_header_bytes = 0;   // writing: bytes before the first sample
    uint64_t m_written = 0;        // writing: sample bytes so far
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_WAV_OPERATE_H
