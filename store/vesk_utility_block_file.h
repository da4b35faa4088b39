// vesk_utility_block_file - the block file operator: maps a preallocated recording file to
// its physical extents once at open, then reads and writes the raw disk device at those
// offsets. Files that cannot be mapped go through the binary file operator instead.
#ifndef VESK_UTILITY_BLOCK_FILE_H
#define VESK_UTILITY_BLOCK_FILE_H

#include <cstdint>
#include <cstdio>

#include "vesk_utility_file.h"
#include "store/vesk_utility_file_operate.h"

namespace vesk_utility
{

constexpr unsigned k_max_trunks = 32;
constexpr unsigned k_fiemap_extents = 8000; // extents asked for per FS_IOC_FIEMAP call
constexpr unsigned k_bmapx_records = 32; // XFS_IOC_GETBMAPX: the header and 31 extents
constexpr uint32_t k_fiemap_refused = 0x106; // UNKNOWN | DELALLOC | NOT_ALIGNED
constexpr size_t k_mount_name_max = 63; // device and file-system type, characters

enum block_ops_type : uint32_t {
    BLOCK_OPS_CLOSED = 0,
    BLOCK_OPS_FILE = 1, // every call goes to the binary operator
    BLOCK_OPS_DEVICE = 2, // data moves through the device at the trunks
};

// A run of the file that is contiguous on the device. All in bytes.
struct block_trunk {
    int64_t logic_pos;
    int64_t phy_pos;
    int64_t len;
};

// Looks up the mount holding `path` in a mount table in /proc/mounts format: the entry whose
// mount point is the longest prefix of path at a component boundary, the later one among
// equals (it hides the earlier). False when none matches or a name exceeds 63 characters.
bool vesk_find_mount(FILE* table, const char* path, char* dev, size_t dev_size, char* fs_type, size_t type_size);

// Invariants: m_trunk_num <= 32; trunks are in logical order and do not overlap; m_dev_fd is
// open only inside a write call or, for a read open, from the first read until close.
// Not thread-safe: one object is used by one thread at a time.
class block_file_ops final : public vesk_soft::vesk_block_file_operate
{
public:
    block_file_ops() = default;
    ~block_file_ops() override;

    VESK_ERR open(const char* fname, int64_t file_size, int open_model, int cache_mode) override;
    int read(void* buf, unsigned buf_size, unsigned want) override;
    int write(const void* buf, unsigned size) override;
    VESK_ERR seek(int64_t offset, int origin) override;
    int64_t get_file_size() override;
    int64_t get_fd_pos() override;
    VESK_ERR close() override;
    VESK_ERR set_rd_cache_size(unsigned size) override;

    // Inspection, for diagnostics and tests.
    uint32_t ops_type() const { return m_ops_type; }
    uint32_t trunk_num() const { return m_trunk_num; }
    const block_trunk& trunk(unsigned i) const { return m_trunks[i]; }
    const char* dev_name() const { return m_dev_name; }
    int dev_flags() const { return m_dev_flags; }
    bool dev_open() const { return m_dev_fd >= 0; }

    // The device open flags for an open model (1 read, 2 write) and cache mode; -1 for an
    // unknown model.
    static int device_flags(int open_model, int cache_mode);

private:
    bool proc_scan_file_info_ext4();
    bool proc_scan_file_info_xfs();
    // Adds one extent, merging it into the last trunk when it continues it on the device.
    bool add_extent(int64_t logic, int64_t phy, int64_t len, const char* overflow_fmt, int entries);
    void log_trunks();
    const block_trunk* find_trunk(int64_t pos) const;
    bool open_device();
    void close_device();
    int64_t proc_read_data(int64_t pos, char* buf, int64_t want);
    bool ensure_cache();
    void release_names();

    uint32_t m_ops_type = BLOCK_OPS_CLOSED;
    uint32_t m_open_model = 0;
    char* m_file_name = nullptr; // accounted copies (0x13, 0x3021)
    char* m_dev_name = nullptr;
    int m_dev_fd = -1;
    int m_dev_flags = 0;
    uint32_t m_trunk_num = 0;
    block_trunk m_trunks[k_max_trunks] = {};
    int64_t m_fd_pos = 0;
    int64_t m_file_size = 0;
    uint64_t m_cache_addr = 0;
    uint64_t m_cache_len = 0;
    uint64_t m_cache_size = 0;
    char* m_cache = nullptr; // 4096-aligned, m_cache_size bytes, allocated at first use
    binary_file_ops m_bin;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_BLOCK_FILE_H
