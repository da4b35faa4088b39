// vesk_utility_bytes - little-endian field access and whole-buffer descriptor I/O, shared by the
// file formats the layer reads and writes (BMP, WAV, the spreadsheet container and its records).
#ifndef VESK_UTILITY_BYTES_H
#define VESK_UTILITY_BYTES_H

#include <cstddef>
#include <cstdint>

namespace vesk_utility
{

inline uint16_t le16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t le32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}

inline void put_le16(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void put_le32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// Reads up to len bytes at off from the descriptor that ctx points to (an int), retrying
// interrupted and short reads. Returns the bytes read (fewer only at end of file) or -1.
// The signature is that of the format parsers' read callbacks.
int64_t fd_read_at(void* ctx, uint64_t off, void* buf, uint32_t len);

// Writes all len bytes at the descriptor's position, retrying interrupted and short writes.
bool fd_write_all(int fd, const void* buf, size_t len);

}  // namespace vesk_utility

#endif
