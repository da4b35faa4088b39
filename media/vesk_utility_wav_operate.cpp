// vesk_utility_wav_operate - WAV clips of the two-way talk and alarm sounds. Reading walks the
// RIFF chunks once and then reads samples straight from the file at computed offsets;
// writing streams samples behind a provisional header that close() completes. No buffers of
// its own: the caller's buffers go to the kernel directly.
#include "media/vesk_utility_wav_operate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/vesk_utility_bytes.h"
#include "core/vesk_utility_log.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

constexpr const char* k_cls = "vesk_wav_realize";

// Header as this operator writes it (little-endian):
//   PCM:   | "RIFF" size | "WAVE" | "fmt " 16 | fmt (16) | "data" size | samples...
//   G.711: | "RIFF" size | "WAVE" | "fmt " 18 | fmt (16) cbSize=0 | "fact" 4 frames |
//          | "data" size | samples...
// fmt: tag u16, channels u16, rate u32, byte rate u32, block align u16, bits u16.
constexpr uint32_t k_riff_size_at = 4;
constexpr uint32_t k_pcm_header = 44;
constexpr uint32_t k_pcm_data_size_at = 40;
constexpr uint32_t k_g711_header = 58;
constexpr uint32_t k_g711_fact_frames_at = 46;
constexpr uint32_t k_g711_data_size_at = 54;
// Sizes left in the header until close(): what a reader takes as "up to the end of the file".
constexpr uint32_t k_size_unknown = 0xFFFFFFFFu;

constexpr uint16_t k_tag_extensible = 0xFFFE;
// The sub-format GUID of an extensible fmt chunk is the format tag followed by these 14 bytes.
constexpr uint8_t k_guid_tail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                     0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

bool read_exact(wav_read_fn read, void* ctx, uint64_t off, void* buf, uint32_t len)
{
    return read(ctx, off, buf, len) == static_cast<int64_t>(len);
}

// Checks a format against what the operator handles; the bits decide the block size.
VESK_ERR check_format(const vesk_wav_format& f)
{
    if (f.channels < 1 || f.channels > 2 || f.sample_rate == 0)
        return VESK_ERR_NOT_SUPPORT;
    if (f.format_tag == VESK_WAV_FORMAT_PCM)
        return (f.bits_per_sample == 8 || f.bits_per_sample == 16) ? VESK_OK : VESK_ERR_NOT_SUPPORT;
    if (f.format_tag == VESK_WAV_FORMAT_ALAW || f.format_tag == VESK_WAV_FORMAT_MULAW)
        return f.bits_per_sample == 8 ? VESK_OK : VESK_ERR_NOT_SUPPORT;
    return VESK_ERR_NOT_SUPPORT;
}

// Parses the body of a fmt chunk (len bytes, len >= 16).
VESK_ERR parse_fmt(const uint8_t* b, uint32_t len, wav_layout* out)
{
    vesk_wav_format f;
    f.format_tag = le16(b);
    f.channels = le16(b + 2);
    f.sample_rate = le32(b + 4);
    const uint16_t align = le16(b + 12);
    f.bits_per_sample = le16(b + 14);
    if (f.format_tag == k_tag_extensible) {
        // cbSize (2), valid bits (2), channel mask (4), sub-format GUID (16).
        if (len < 40 || le16(b + 16) < 22)
            return VESK_ERR_OPERATE_FAIL;
        if (le16(b + 18) > f.bits_per_sample || memcmp(b + 26, k_guid_tail, sizeof(k_guid_tail)) != 0)
            return VESK_ERR_NOT_SUPPORT;
        f.format_tag = le16(b + 24);
    }
    const VESK_ERR err = check_format(f);
    if (err != VESK_OK)
        return err;
    if (align != f.channels * f.bits_per_sample / 8)
        return VESK_ERR_OPERATE_FAIL;
    out->fmt = f;
    out->block_align = align;
    return VESK_OK;
}

bool pwrite_u32(int fd, uint32_t at, uint32_t v)
{
    uint8_t b[4];
    put_le32(b, v);
    return pwrite(fd, b, 4, at) == 4;
}

}  // namespace

VESK_ERR wav_parse(wav_read_fn read, void* ctx, uint64_t file_size, wav_layout* out)
{
    uint8_t head[12];
    if (!read_exact(read, ctx, 0, head, sizeof(head)) || memcmp(head, "RIFF", 4) != 0 ||
        memcmp(head + 8, "WAVE", 4) != 0)
        return VESK_ERR_OPERATE_FAIL;
    const uint32_t riff_size = le32(head + 4);
    const bool riff_unknown = riff_size == 0 || riff_size == k_size_unknown;
    uint64_t end = 8 + static_cast<uint64_t>(riff_size);
    if (riff_unknown || end > file_size)
        end = file_size;

    bool have_fmt = false;
    bool have_data = false;
    wav_layout found{};
    // Every step advances by at least 8 bytes: O(file size / 8) chunk headers at worst.
    for (uint64_t pos = 12; pos + 8 <= end && !(have_fmt && have_data);) {
        uint8_t ch[8];
        if (!read_exact(read, ctx, pos, ch, sizeof(ch)))
            return VESK_ERR_OPERATE_FAIL;
        uint64_t size = le32(ch + 4);
        const uint64_t body = pos + 8;
        if (memcmp(ch, "fmt ", 4) == 0) {
            if (size < 16 || body + size > file_size)
                return VESK_ERR_OPERATE_FAIL;
            uint8_t fmt[40];
            const uint32_t take = size < sizeof(fmt) ? static_cast<uint32_t>(size) : sizeof(fmt);
            if (!read_exact(read, ctx, body, fmt, take))
                return VESK_ERR_OPERATE_FAIL;
            const VESK_ERR err = parse_fmt(fmt, take, &found);
            if (err != VESK_OK)
                return err;
            have_fmt = true;
        } else if (memcmp(ch, "data", 4) == 0) {
            // A writer that died leaves 0xFFFFFFFF, or 0 in both sizes: the data run to the end.
            if (size == k_size_unknown || (size == 0 && riff_unknown) || body + size > file_size)
                size = file_size - body;
            found.data_offset = body;
            found.data_bytes = size;
            have_data = true;
        }
        pos = body + size + (size & 1);
    }
    if (!have_fmt || !have_data)
        return VESK_ERR_OPERATE_FAIL;
    found.data_bytes -= found.data_bytes % found.block_align;
    *out = found;
    return VESK_OK;
}

vesk_wav_realize::~vesk_wav_realize()
{
    close();
}

VESK_ERR vesk_wav_realize::open_read(const char* path)
{
    if (path == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (m_mode != mode::none) {
        VESK_LOG_ERR(k_cls, "a file is already open\n");
        return VESK_ERR_OPERATE_FAIL;
    }
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        VESK_LOG_ERR(k_cls, "open %s fail, errno = %d\n", path, errno);
        return VESK_ERR_OPERATE_FAIL;
    }
    struct stat st;
    wav_layout layout{};
    int fd_ctx = fd;
    VESK_ERR err = fstat(fd, &st) == 0 ? wav_parse(fd_read_at, &fd_ctx, static_cast<uint64_t>(st.st_size), &layout)
                                       : VESK_ERR_OPERATE_FAIL;
    // Frames and the data offset are reported in 32 bits.
    if (err == VESK_OK && (layout.data_offset > UINT32_MAX || layout.data_bytes / layout.block_align > UINT32_MAX))
        err = VESK_ERR_NOT_SUPPORT;
    if (err != VESK_OK) {
        VESK_LOG_ERR(k_cls, "%s: not a WAV file this operator reads (0x%x)\n", path, err);
        ::close(fd);
        return err;
    }
    m_fd = fd;
    m_layout = layout;
    m_pos = 0;
    m_mode = mode::reading;
    return VESK_OK;
}

VESK_ERR vesk_wav_realize::get_format(vesk_wav_format* fmt)
{
    if (fmt == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (m_mode == mode::none)
        return VESK_ERR_OPERATE_FAIL;
    *fmt = m_layout.fmt;
    return VESK_OK;
}

VESK_ERR vesk_wav_realize::get_data_pos(uint32_t* offset, uint32_t* frames)
{
    if (offset == nullptr || frames == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (m_mode != mode::reading)
        return VESK_ERR_OPERATE_FAIL;
    *offset = static_cast<uint32_t>(m_layout.data_offset);
    *frames = static_cast<uint32_t>(m_layout.data_bytes / m_layout.block_align);
    return VESK_OK;
}

VESK_ERR vesk_wav_realize::read_samples(void* buf, uint32_t frames, uint32_t* got)
{
    if (got == nullptr || (buf == nullptr && frames > 0))
        return VESK_ERR_INVALID_PARAM;
    *got = 0;
    if (m_mode != mode::reading)
        return VESK_ERR_OPERATE_FAIL;
    const uint32_t total = static_cast<uint32_t>(m_layout.data_bytes / m_layout.block_align);
    uint32_t want = total - m_pos;
    if (frames < want)
        want = frames;
    if (want == 0)
        return VESK_OK;
    const uint64_t bytes = static_cast<uint64_t>(want) * m_layout.block_align;
    if (bytes > UINT32_MAX)
        return VESK_ERR_INVALID_PARAM;
    int fd_ctx = m_fd;
    const int64_t n = fd_read_at(&fd_ctx, m_layout.data_offset + static_cast<uint64_t>(m_pos) * m_layout.block_align,
                                 buf, static_cast<uint32_t>(bytes));
    if (n < 0) {
        VESK_LOG_ERR(k_cls, "read fail, errno = %d\n", errno);
        return VESK_ERR_OPERATE_FAIL;
    }
    // A file that shrank under us yields what is left, in whole frames.
    *got = static_cast<uint32_t>(n / m_layout.block_align);
    m_pos += *got;
    return VESK_OK;
}

VESK_ERR vesk_wav_realize::seek_sample(uint32_t frame)
{
    if (m_mode != mode::reading)
        return VESK_ERR_OPERATE_FAIL;
    if (frame > m_layout.data_bytes / m_layout.block_align)
        return VESK_ERR_OPERATE_FAIL;
    m_pos = frame;
    return VESK_OK;
}

VESK_ERR vesk_wav_realize::open_write(const char* path, const vesk_wav_format* fmt)
{
    if (path == nullptr || fmt == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (m_mode != mode::none) {
        VESK_LOG_ERR(k_cls, "a file is already open\n");
        return VESK_ERR_OPERATE_FAIL;
    }
    if (check_format(*fmt) != VESK_OK) {
        VESK_LOG_ERR(k_cls, "format tag %u, %u channels, %u bits not supported\n", fmt->format_tag, fmt->channels,
                     fmt->bits_per_sample);
        return VESK_ERR_NOT_SUPPORT;
    }
    const uint16_t align = static_cast<uint16_t>(fmt->channels * fmt->bits_per_sample / 8);
    const bool pcm = fmt->format_tag == VESK_WAV_FORMAT_PCM;
    uint8_t h[k_g711_header] = {};
    memcpy(h, "RIFF", 4);
    put_le32(h + k_riff_size_at, k_size_unknown);
    memcpy(h + 8, "WAVEfmt ", 8);
    put_le32(h + 16, pcm ? 16 : 18);
    put_le16(h + 20, fmt->format_tag);
    put_le16(h + 22, fmt->channels);
    put_le32(h + 24, fmt->sample_rate);
    put_le32(h + 28, fmt->sample_rate * align);
    put_le16(h + 32, align);
    put_le16(h + 34, fmt->bits_per_sample);
    uint32_t header;
    if (pcm) {
        memcpy(h + 36, "data", 4);
        put_le32(h + k_pcm_data_size_at, k_size_unknown);
        header = k_pcm_header;
    } else {
        // Non-PCM formats carry a fact chunk with the frame count; cbSize (h[36..37]) is 0.
        memcpy(h + 38, "fact", 4);
        put_le32(h + 42, 4);
        put_le32(h + k_g711_fact_frames_at, 0);
        memcpy(h + 50, "data", 4);
        put_le32(h + k_g711_data_size_at, k_size_unknown);
        header = k_g711_header;
    }
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        VESK_LOG_ERR(k_cls, "open %s fail, errno = %d\n", path, errno);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (!fd_write_all(fd, h, header)) {
        VESK_LOG_ERR(k_cls, "write %s fail, errno = %d\n", path, errno);
        ::close(fd);
        return VESK_ERR_OPERATE_FAIL;
    }
    m_fd = fd;
    m_layout = wav_layout{};
    m_layout.fmt = *fmt;
    m_layout.block_align = align;
    m_layout.data_offset = header;
    m_header_bytes = header;
    m_written = 0;
    m_mode = mode::writing;
    return VESK_OK;
}

VESK_ERR vesk_wav_realize::write_samples(const void* buf, uint32_t frames)
{
    if (buf == nullptr && frames > 0)
        return VESK_ERR_INVALID_PARAM;
    if (m_mode != mode::writing)
        return VESK_ERR_OPERATE_FAIL;
    const uint64_t bytes = static_cast<uint64_t>(frames) * m_layout.block_align;
    // The RIFF size counts everything after its own field, including a pad byte.
    if (m_header_bytes - 8 + m_written + bytes + 1 > 0xFFFFFFFEu) {
        VESK_LOG_ERR(k_cls, "a WAV file holds at most 4 GiB\n");
        return VESK_ERR_OPERATE_FAIL;
    }
    if (!fd_write_all(m_fd, buf, static_cast<size_t>(bytes))) {
        VESK_LOG_ERR(k_cls, "write fail, errno = %d\n", errno);
        return VESK_ERR_OPERATE_FAIL;
    }
    m_written += bytes;
    return VESK_OK;
}

VESK_ERR vesk_wav_realize::patch_sizes()
{
    if ((m_written & 1) != 0) {
        const uint8_t pad = 0;
        if (!fd_write_all(m_fd, &pad, 1))
            return VESK_ERR_OPERATE_FAIL;
    }
    const uint32_t data = static_cast<uint32_t>(m_written);
    const uint32_t riff = m_header_bytes - 8 + data + (data & 1);
    const bool pcm = m_layout.fmt.format_tag == VESK_WAV_FORMAT_PCM;
    bool ok = pwrite_u32(m_fd, k_riff_size_at, riff);
    if (pcm) {
        ok = ok && pwrite_u32(m_fd, k_pcm_data_size_at, data);
    } else {
        ok = ok && pwrite_u32(m_fd, k_g711_data_size_at, data) &&
             pwrite_u32(m_fd, k_g711_fact_frames_at, data / m_layout.block_align);
    }
    return ok && fdatasync(m_fd) == 0 ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR vesk_wav_realize::close()
{
    if (m_mode == mode::none)
        return VESK_OK;
    VESK_ERR err = VESK_OK;
    if (m_mode == mode::writing && patch_sizes() != VESK_OK) {
        VESK_LOG_ERR(k_cls, "completing the header fail, errno = %d\n", errno);
        err = VESK_ERR_OPERATE_FAIL;
    }
    if (::close(m_fd) != 0 && err == VESK_OK && m_mode == mode::writing)
        err = VESK_ERR_OPERATE_FAIL;
    m_fd = -1;
    m_mode = mode::none;
    return err;
}

}  // namespace vesk_utility
