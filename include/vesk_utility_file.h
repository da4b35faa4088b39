// vesk_utility_file.h - file operators: a buffered binary file, a line-oriented text file, and
// the block file operator that moves recording data straight between a caller's buffer and
// the physical extents of a preallocated file on a local disk.
#ifndef VESK_UTILITY_FILE_H
#define VESK_UTILITY_FILE_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

// Open models of the binary and text operators.
enum vesk_file_open_model : int {
    VESK_FILE_READ = 1, // read only; the file must exist
    VESK_FILE_READ_WRITE = 2, // read and write; the file must exist
    VESK_FILE_APPEND = 3, // write at the end; created when missing
    VESK_FILE_CREATE = 4, // write; created, or emptied when it exists
    VESK_FILE_WRITE = 5, // write from position 0; created when missing, content kept
};

// Cache modes, shared with the block operator.
enum vesk_file_cache_mode : int {
    VESK_FILE_CACHE_NORMAL = 0, // through the page cache
    VESK_FILE_CACHE_DSYNC = 1, // 1 to 3: every write reaches the disk before it returns (O_DSYNC)
    VESK_FILE_CACHE_DIRECT = 4, // bypass: the binary operator drops the pages it moved from the
                                // page cache; the block operator opens the device with O_DIRECT
};

// A binary file behind a read cache.
//
// One object is used by one thread at a time; it has no lock. Positions are 64-bit. Reads
// are served from a read cache (64 KiB unless set otherwise, allocated at the first read and
// accounted to the layer) refilled by large reads; writes go to the kernel at once, so that
// nothing is lost in the process if it dies, and drop the read cache. Every call on an
// operator that is not open fails with VESK_ERR_OPERATE_FAIL (or -1).
class vesk_binary_file_operate
{
public:
    // Opens `path` with an open model above and a cache mode. VESK_ERR_INVALID_PARAM for a
    // NULL path or an unknown model, VESK_ERR_IO when the device reports an I/O error
    // (EIO), VESK_ERR_OPERATE_FAIL for every other failure (and when already open).
    virtual VESK_ERR open(const char* path, int cache_mode, int open_model) = 0;
    virtual VESK_ERR close() = 0;
    // Up to `size` bytes from the position: the count, 0 at the end of the file, -1 on error.
    virtual int read(void* buf, unsigned size) = 0;
    // Writes all of `size` bytes at the position (at the end in append model): the count, or
    // -1 when nothing could be written (a short count when the disk filled up part way).
    virtual int write(const void* buf, unsigned size) = 0;
    // origin: SEEK_SET, SEEK_CUR or SEEK_END. A position past the end is allowed (a later
    // write leaves a hole); a negative one is VESK_ERR_INVALID_PARAM.
    virtual VESK_ERR seek(int64_t offset, int origin) = 0;
    virtual int64_t tell() = 0;
    // Size of the file as the kernel knows it, -1 on error.
    virtual int64_t get_file_size() = 0;
    // fsync: data and metadata written so far are on the disk.
    virtual VESK_ERR flush() = 0;
    // Cuts or extends the file to `size`; the position is kept.
    virtual VESK_ERR truncate(int64_t size) = 0;
    // Capacity of the read cache, taking effect at the next refill; 0 reads straight into the
    // caller's buffer. May be called before open.
    virtual VESK_ERR set_rd_cache_size(unsigned size) = 0;
    // Moves the position up to the next multiple of `align` (a power of two), for records
    // that start on sector boundaries; returns the new position, -1 on error.
    virtual int64_t align_fd_pos(unsigned align) = 0;
    virtual ~vesk_binary_file_operate() { }

protected:
    vesk_binary_file_operate() = default;
    vesk_binary_file_operate(const vesk_binary_file_operate&) = delete;
    vesk_binary_file_operate& operator=(const vesk_binary_file_operate&) = delete;
};

// A text file read and written by lines ('\n'; a '\r' before it is dropped on reading).
// Same threading, models and results as the binary operator, which it is built on.
class vesk_txt_file_operate
{
public:
    virtual VESK_ERR open(const char* path, int open_model) = 0;
    virtual VESK_ERR close() = 0;
    // The next line without its end, NUL-terminated in buf (cut to size - 1 characters; the
    // rest of a longer line is skipped). Returns the full length of the line, so a result of
    // size or more tells the caller it was cut; -1 at the end of the file or on error.
    virtual int read_line(char* buf, unsigned size) = 0;
    // Writes text followed by '\n': the bytes written, or -1.
    virtual int write_line(const char* text) = 0;
    // printf into the file (at most 4095 characters): the bytes written, or -1.
    virtual int write_fmt(const char* fmt, ...) __attribute__((format(printf, 2, 3))) = 0;
    virtual VESK_ERR seek(int64_t offset, int origin) = 0;
    virtual int64_t tell() = 0;
    virtual int64_t get_file_size() = 0;
    virtual VESK_ERR flush() = 0;
    virtual VESK_ERR truncate(int64_t size) = 0;
    virtual ~vesk_txt_file_operate() { }

protected:
    vesk_txt_file_operate() = default;
    vesk_txt_file_operate(const vesk_txt_file_operate&) = delete;
    vesk_txt_file_operate& operator=(const vesk_txt_file_operate&) = delete;
};

// Open models of the block operator.
enum vesk_block_open_model : int {
    VESK_BLOCK_READ = 1,
    VESK_BLOCK_WRITE = 2,
};

// Reads and writes a recording file at its physical extents on the disk device.
//
// open() asks the file system for the file's extents once (at most 32 runs of contiguous
// blocks, "trunks") and from then on every read and write goes to the raw device at those
// offsets, with no file-system call per read or write. On ext4 a file of more runs is
// refused; on XFS it opens with the first 31 runs (one map call) and a warning, and reads
// and writes end where they end. Files under "/raid", "/nas" or
// "/ipsan", files of a snapshot ("vesk_pb_snap" in the path) and files on a file system
// other than ext4 or XFS fall back to the binary operator.
//
// REQUIRES for block access:
//  - the file is preallocated by WRITING it (not fallocate: unwritten extents would still
//    read back as zeros through the file system) and synced before open;
//  - nothing else writes the file through the file system while the operator is open;
//  - in cache mode 4 (O_DIRECT) buffers, positions, counts and the data size are multiples
//    of the device's logical block size (512 is enough for most disks).
// Writes never go past the extents: a write that reaches the end of the last trunk stops
// there with a warning and returns the short count. The data size is the caller's: it is
// given at open, and writes raise it.
//
// One object is used by one thread at a time; it has no lock.
class vesk_block_file_operate
{
public:
    // `file_size`: the size of the valid data. A read open starts at 0, a write open at
    // file_size (writes continue the data). VESK_ERR_INVALID_PARAM for a NULL path or when
    // the extents cannot be mapped, VESK_ERR_OPERATE_FAIL for an unknown model; the fall-back
    // returns the binary operator's result.
    virtual VESK_ERR open(const char* fname, int64_t file_size, int open_model, int cache_mode) = 0;
    // Up to min(buf_size, want) bytes from the position, never past the data size: the count
    // (0 at the end or past every trunk), or -1.
    virtual int read(void* buf, unsigned buf_size, unsigned want) = 0;
    // The count written (short at the end of the last trunk), or -1 when nothing was written.
    // The device is closed again before it returns.
    virtual int write(const void* buf, unsigned size) = 0;
    // origin: SEEK_SET, SEEK_CUR, or SEEK_END (relative to the data size).
    virtual VESK_ERR seek(int64_t offset, int origin) = 0;
    virtual int64_t get_file_size() = 0;
    virtual int64_t get_fd_pos() = 0;
    virtual VESK_ERR close() = 0;
    // Read cache for block access (0, the default: reads go straight into the caller's
    // buffer). Rounded up to 4096 and aligned, so that small reads work in cache mode 4.
    virtual VESK_ERR set_rd_cache_size(unsigned size) = 0;
    virtual ~vesk_block_file_operate() { }

protected:
    vesk_block_file_operate() = default;
    vesk_block_file_operate(const vesk_block_file_operate&) = delete;
    vesk_block_file_operate& operator=(const vesk_block_file_operate&) = delete;
};

// Created and recorded with the caller's id and name (NULL before initialisation); deleted
// with the caller's file and function, which close the file. Deleting an operator that was
// not created here, or twice, ends the process.
VESK_API vesk_binary_file_operate* vesk_utility_new_binary_operate(vesk_user_id usr_id, const char* name);
VESK_API VESK_ERR vesk_utility_delete_binary_operate(vesk_binary_file_operate* ops, const char* file, const char* func);
VESK_API vesk_txt_file_operate* vesk_utility_new_txt_operate(vesk_user_id usr_id, const char* name);
VESK_API VESK_ERR vesk_utility_delete_txt_operate(vesk_txt_file_operate* ops, const char* file, const char* func);
VESK_API vesk_block_file_operate* vesk_utility_new_block_operate(vesk_user_id usr_id, const char* name);
VESK_API VESK_ERR vesk_utility_delete_block_operate(vesk_block_file_operate* ops, const char* file, const char* func);

} // namespace vesk_soft

#endif // VESK_UTILITY_FILE_H
