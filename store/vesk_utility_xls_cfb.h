// vesk_utility_xls_cfb - the compound file that wraps a workbook: a small FAT file system in
// one file. The writer streams one "Workbook" stream into a new file; the reader finds a
// stream in an existing file and reads it at logical offsets, with every sector number
// checked, without loading the file.
#ifndef VESK_UTILITY_XLS_CFB_H
#define VESK_UTILITY_XLS_CFB_H

#include <cstdint>

#include "store/vesk_utility_xls_mem.h"
#include "vesk_utility_types.h"

namespace vesk_utility {

using vesk_soft::VESK_ERR;

// Reads up to len bytes at off; returns the count (short at the end) or -1.
typedef int64_t (*cfb_read_fn)(void* ctx, uint64_t off, void* buf, uint32_t len);

// One stream of a compound file, opened by cfb_reader::open_stream.
// Memory: the FAT and a table of the stream's sectors (4 bytes per 512 bytes of file),
// accounted under purpose k_purpose_xls_read.
class cfb_reader {
public:
    explicit cfb_reader(xls_tally* tally);
    cfb_reader(const cfb_reader&) = delete;
    cfb_reader& operator=(const cfb_reader&) = delete;

    // Checks the header and the FAT of a file of file_size bytes and locates the first
    // stream whose name is one of names (ASCII, compared without case). VESK_ERR_OPERATE_FAIL
    // for anything malformed (sector numbers outside the file, chains that loop or end early,
    // sizes the chain cannot hold), VESK_ERR_NO_RESOURCE when memory fails.
    VESK_ERR open_stream(cfb_read_fn read, void* ctx, uint64_t file_size, const char* const* names,
                         unsigned name_count);
    uint32_t stream_size() const { return m_size; }
    // Reads len bytes at offset off of the stream; false when they are not all there.
    bool read(uint32_t off, void* buf, uint32_t len) const;

private:
    VESK_ERR load_fat();
    // Follows a chain from start through fat (entries) into out, expecting `count` sectors.
    VESK_ERR walk_chain(const xls_array<uint32_t>& fat, uint32_t start, uint32_t count, xls_array<uint32_t>& out);
    bool read_file(uint64_t off, void* buf, uint32_t len) const;

    cfb_read_fn m_read = nullptr;
    void* m_ctx = nullptr;
    uint64_t m_file_size = 0;
    uint32_t m_sector_shift = 9;
    uint32_t m_file_sectors = 0;
    uint32_t m_size = 0;
    bool m_mini = false;                 // the stream lives in the mini stream (64-byte sectors)
    xls_array<uint32_t> m_fat;
    xls_array<uint32_t> m_sectors;       // the stream's sectors (mini sectors when m_mini)
    xls_array<uint32_t> m_mini_host;     // the mini stream container's sectors
};

// Writes a compound file holding one stream named "Workbook" to fd, streamed: the header
// is written last, so a file cut short has no valid header and is never mistaken for a
// workbook. Uses a 4 KiB buffer inside the object and no other memory.
class cfb_writer {
public:
    explicit cfb_writer(int fd) : m_fd(fd) { }
    cfb_writer(const cfb_writer&) = delete;
    cfb_writer& operator=(const cfb_writer&) = delete;

    // Starts the file: reserves the header sector.
    bool begin();
    bool write(const void* data, uint32_t len);
    // Pads the stream to whole sectors (at least the 4096 bytes below which a stream would
    // go to the mini stream), then writes the directory, the FAT, the DIFAT and the header.
    bool finish();
    uint64_t stream_size() const { return m_stream; }

private:
    bool flush();

    int m_fd;
    uint64_t m_stream = 0;
    uint32_t m_fill = 0;
    bool m_failed = false;
    uint8_t m_buf[4096];
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_XLS_CFB_H
