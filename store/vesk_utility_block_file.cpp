// vesk_utility_block_file - the block file operator: the file system is asked once, at open,
// where a preallocated recording file lies on the disk (FIEMAP on ext4, GETBMAPX on XFS); reads
// and writes then go to the raw device at those offsets, bypassing the file system for data.
#include "store/vesk_utility_block_file.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#if __has_include(<xfs/xfs.h>)
#include <xfs/xfs.h>
#else
// The kernel's XFS_IOC_GETBMAPX interface, for targets whose sysroot lacks the XFS headers.
struct getbmapx {
    int64_t bmv_offset;
    int64_t bmv_block;
    int64_t bmv_length;
    int32_t bmv_count;
    int32_t bmv_entries;
    int32_t bmv_iflags;
    int32_t bmv_oflags;
    int32_t bmv_unused1;
    int32_t bmv_unused2;
};
#define BMV_OF_DELALLOC 0x2
#define XFS_IOC_GETBMAPX _IOWR('X', 56, struct getbmapx)
#endif
static_assert(sizeof(struct getbmapx) == 48, "getbmapx is 48 bytes on every ABI");

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

const char* const k_cls = "block_file_ops";
constexpr const char* k_mount_table = "/proc/mounts"; // never prefixed
constexpr int64_t k_cache_align = 4096;
constexpr int64_t k_xfs_unit = 512; // GETBMAPX positions and lengths are in 512-byte blocks

// Undoes the octal escapes of the mount table ("\040" for a blank) in place.
void unescape(char* s)
{
    char* out = s;
    for (char* in = s; *in != '\0'; in++) {
        if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' && in[3] >= '0'
            && in[3] <= '7') {
            *out++ = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
            in += 3;
        } else {
            *out++ = *in;
        }
    }
    *out = '\0';
}

bool mount_covers(const char* mnt, const char* path, size_t& len)
{
    len = strlen(mnt);
    if (strcmp(mnt, "/") == 0) {
        len = 1;
        return path[0] == '/';
    }
    return strncmp(mnt, path, len) == 0 && (path[len] == '/' || path[len] == '\0');
}

bool copy_name(char*& dst, const char* src)
{
    const size_t len = strlen(src);
    dst = static_cast<char*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_file_name, static_cast<unsigned>(len + 1), 1));
    if (dst == nullptr)
        return false;
    memcpy(dst, src, len + 1);
    return true;
}

} // namespace

bool vesk_find_mount(FILE* table, const char* path, char* dev, size_t dev_size, char* fs_type, size_t type_size)
{
    if (table == nullptr || path == nullptr)
        return false;
    char line[1024];
    size_t best = 0;
    bool found = false;
    while (fgets(line, sizeof(line), table) != nullptr) {
        char* save = nullptr;
        char* f_dev = strtok_r(line, " \t\n", &save);
        char* f_mnt = strtok_r(nullptr, " \t\n", &save);
        char* f_type = strtok_r(nullptr, " \t\n", &save);
        if (f_dev == nullptr || f_mnt == nullptr || f_type == nullptr)
            continue;
        unescape(f_dev);
        unescape(f_mnt);
        size_t len = 0;
        if (!mount_covers(f_mnt, path, len) || len < best)
            continue;
        // A device path cut short could name another device: refuse rather than truncate.
        if (strlen(f_dev) > k_mount_name_max || strlen(f_type) > k_mount_name_max || strlen(f_dev) >= dev_size
            || strlen(f_type) >= type_size) {
            found = false;
            best = len;
            continue;
        }
        best = len;
        found = true;
        strcpy(dev, f_dev);
        strcpy(fs_type, f_type);
    }
    return found;
}

block_file_ops::~block_file_ops()
{
    close();
    if (m_cache != nullptr)
        vesk_free(__FILE__, __func__, m_cache);
}

int block_file_ops::device_flags(int open_model, int cache_mode)
{
    int flags;
    if (open_model == VESK_BLOCK_READ)
        flags = O_RDONLY | O_LARGEFILE;
    else if (open_model == VESK_BLOCK_WRITE)
        flags = O_WRONLY | O_LARGEFILE;
    else
        return -1;
    if (cache_mode >= 1 && cache_mode <= 3)
        flags |= O_DSYNC;
    else if (cache_mode == 4)
        flags |= O_DIRECT;
    return flags;
}

VESK_ERR block_file_ops::open(const char* fname, int64_t file_size, int open_model, int cache_mode)
{
    if (fname == nullptr) {
        VESK_LOG_ERR(k_cls, "fname is null!");
        return VESK_ERR_INVALID_PARAM;
    }
    close();
    const int flags = device_flags(open_model, cache_mode);
    if (flags < 0) {
        VESK_LOG_ERR(k_cls, "mode = %d not support!\n", open_model);
        return VESK_ERR_OPERATE_FAIL;
    }

    // Classification: array and network storage and snapshots never get block access.
    uint32_t type = BLOCK_OPS_FILE;
    char dev[k_mount_name_max + 1] = "";
    char fs_type[k_mount_name_max + 1] = "";
    if (strstr(fname, "/raid") == nullptr && strstr(fname, "/nas") == nullptr && strstr(fname, "/ipsan") == nullptr) {
        char resolved[PATH_MAX];
        const char* abs = realpath(fname, resolved) != nullptr ? resolved : fname;
        FILE* table = fopen(k_mount_table, "re");
        const bool found = vesk_find_mount(table, abs, dev, sizeof(dev), fs_type, sizeof(fs_type));
        if (table != nullptr)
            fclose(table);
        if (!found)
            VESK_LOG_DBG(k_cls, "%s not find mount_dev!\n", fname);
        else if (strcmp(fs_type, "xfs") == 0 || strcmp(fs_type, "ext4") == 0)
            type = BLOCK_OPS_DEVICE;
    }
    if (strstr(fname, "vesk_pb_snap") != nullptr)
        type = BLOCK_OPS_FILE;

    if (type == BLOCK_OPS_FILE) {
        const VESK_ERR err
            = m_bin.open(fname, cache_mode, open_model == VESK_BLOCK_READ ? VESK_FILE_READ : VESK_FILE_WRITE);
        if (err != VESK_OK)
            return err;
        if (open_model == VESK_BLOCK_WRITE)
            m_bin.seek(file_size, SEEK_SET);
        if (!copy_name(m_file_name, fname)) {
            m_bin.close();
            return VESK_ERR_NO_RESOURCE;
        }
        m_ops_type = BLOCK_OPS_FILE;
        m_open_model = static_cast<uint32_t>(open_model);
        m_file_size = file_size;
        return VESK_OK;
    }

    if (!copy_name(m_file_name, fname) || !copy_name(m_dev_name, dev)) {
        release_names();
        return VESK_ERR_NO_RESOURCE;
    }
    const bool scanned = strcmp(fs_type, "xfs") == 0 ? proc_scan_file_info_xfs() : proc_scan_file_info_ext4();
    if (!scanned) {
        VESK_LOG_ERR(k_cls, "%s proc_scan_file_info fail!\n", fname);
        release_names();
        m_trunk_num = 0;
        m_ops_type = BLOCK_OPS_CLOSED;
        return VESK_ERR_INVALID_PARAM;
    }
    m_dev_flags = flags;
    m_open_model = static_cast<uint32_t>(open_model);
    m_fd_pos = open_model == VESK_BLOCK_READ ? 0 : file_size;
    m_file_size = file_size;
    m_cache_len = 0;
    m_ops_type = BLOCK_OPS_DEVICE;
    return VESK_OK;
}

bool block_file_ops::add_extent(int64_t logic, int64_t phy, int64_t len, const char* overflow_fmt, int entries)
{
    if (m_trunk_num > 0) {
        block_trunk& last = m_trunks[m_trunk_num - 1];
        // Only a run that continues the last one both on the device and in the file can be
        // merged; across a hole the logical offsets would shift.
        if (phy == last.phy_pos + last.len && logic == last.logic_pos + last.len) {
            last.len += len;
            return true;
        }
    }
    if (m_trunk_num >= k_max_trunks) {
        vesk_log(vesk_log_level::error, k_cls, "proc_scan_file_info", __LINE__, overflow_fmt, m_file_name, entries,
            m_trunk_num);
        return false;
    }
    m_trunks[m_trunk_num++] = block_trunk {logic, phy, len};
    return true;
}

void block_file_ops::log_trunks()
{
    VESK_LOG_DBG(k_cls, "%s m_trunk_num = %d:\n", m_file_name, m_trunk_num);
    for (uint32_t i = 0; i < m_trunk_num; i++) {
        const double mb = 1024.0 * 1024.0;
        VESK_LOG_DBG(k_cls, "trunk[%u]: logic = %.3f MB, phy = %.3f MB, len = %.3f MB\n", i, m_trunks[i].logic_pos / mb,
            m_trunks[i].phy_pos / mb, m_trunks[i].len / mb);
    }
}

bool block_file_ops::proc_scan_file_info_ext4()
{
    const int fd = ::open(m_file_name, O_RDONLY | O_LARGEFILE | O_CLOEXEC);
    if (fd < 0) {
        VESK_LOG_ERR(k_cls, "open %s fail, Error %d, %s\n", m_file_name, errno, strerror(errno));
        return false;
    }
    const size_t bytes = sizeof(struct fiemap) + k_fiemap_extents * sizeof(struct fiemap_extent);
    struct fiemap* map = static_cast<struct fiemap*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_extent_scan, bytes, 8));
    if (map == nullptr) {
        ::close(fd);
        return false;
    }
    m_trunk_num = 0;
    bool ok = true;
    uint64_t start = 0;
    while (ok) {
        memset(map, 0, sizeof(*map));
        map->fm_start = start;
        map->fm_length = ~0ULL;
        // Written back first, so that the map is what is on the disk and no later writeback
        // of dirty pages lands on top of the data this operator writes.
        map->fm_flags = FIEMAP_FLAG_SYNC;
        map->fm_extent_count = k_fiemap_extents;
        if (ioctl(fd, FS_IOC_FIEMAP, map) < 0) {
            VESK_LOG_ERR(k_cls, "%s FIEMAP fail!. Error %d, %s\n", m_file_name, errno, strerror(errno));
            ok = false;
            break;
        }
        if (map->fm_mapped_extents == 0)
            break;
        for (uint32_t i = 0; i < map->fm_mapped_extents && ok; i++) {
            const struct fiemap_extent& fe = map->fm_extents[i];
            if ((fe.fe_flags & k_fiemap_refused) != 0) {
                VESK_LOG_ERR(k_cls, "%s fe_%d logical = %lld, flags = 0x%x\n", m_file_name, i,
                    static_cast<long long>(fe.fe_logical), fe.fe_flags);
                ok = false;
                break;
            }
            ok = add_extent(static_cast<int64_t>(fe.fe_logical), static_cast<int64_t>(fe.fe_physical),
                static_cast<int64_t>(fe.fe_length), "%s mapped_extents = %d, m_trunk_num = %d, overflow!\n",
                static_cast<int>(map->fm_mapped_extents));
        }
        const struct fiemap_extent& last = map->fm_extents[map->fm_mapped_extents - 1];
        start = last.fe_logical + last.fe_length;
    }
    vesk_free(__FILE__, __func__, map);
    ::close(fd);
    if (ok)
        log_trunks();
    return ok;
}

bool block_file_ops::proc_scan_file_info_xfs()
{
    const int fd = ::open(m_file_name, O_RDONLY | O_LARGEFILE | O_CLOEXEC);
    if (fd < 0) {
        VESK_LOG_ERR(k_cls, "open %s fail, Error %d, %s\n", m_file_name, errno, strerror(errno));
        return false;
    }
    struct getbmapx map[k_bmapx_records];
    memset(map, 0, sizeof(map));
    map[0].bmv_offset = 0;
    map[0].bmv_length = -1; // to the end of the file
    map[0].bmv_count = k_bmapx_records;
    // No BMV_IF_DELALLOC: XFS writes dirty data back first, so every extent has a place.
    if (ioctl(fd, XFS_IOC_GETBMAPX, map) < 0) {
        VESK_LOG_ERR(k_cls, "%s XFS_IOC_GETBMAPX fail\n", m_file_name);
        ::close(fd);
        return false;
    }
    struct stat64 st;
    const int64_t size = fstat64(fd, &st) == 0 ? st.st_size : 0;
    ::close(fd);

    m_trunk_num = 0;
    const int entries = map[0].bmv_entries;
    int64_t mapped_end = 0;
    for (int i = 1; i <= entries; i++) {
        const struct getbmapx& e = map[i];
        mapped_end = (e.bmv_offset + e.bmv_length) * k_xfs_unit;
        if (e.bmv_block == -1) // a hole has no place on the disk
            continue;
        if (e.bmv_block < 0 || (e.bmv_oflags & BMV_OF_DELALLOC) != 0) {
            VESK_LOG_ERR(k_cls, "%s fe_%d logical = %lld, flags = 0x%x\n", m_file_name, i - 1,
                static_cast<long long>(e.bmv_offset * k_xfs_unit), e.bmv_oflags);
            return false;
        }
        if (!add_extent(e.bmv_offset * k_xfs_unit, e.bmv_block * k_xfs_unit, e.bmv_length * k_xfs_unit,
                "%s bmv_entries = %d, m_trunk_num = %d, overflow!\n", entries))
            return false;
    }
    // A full answer that stops short of the end of the file left runs out. The file stays
    // usable with the runs that were mapped: reads and writes stop at the end of the last one,
    // as they do at the end of the extents.
    if (entries >= static_cast<int>(k_bmapx_records) - 1 && mapped_end < size)
        VESK_LOG_WARN(k_cls, "%s bmv_entries = %d, m_trunk_num = %d, mapped %lld of %lld bytes!\n", m_file_name,
            entries, m_trunk_num, static_cast<long long>(mapped_end), static_cast<long long>(size));
    log_trunks();
    return true;
}

const block_trunk* block_file_ops::find_trunk(int64_t pos) const
{
    for (uint32_t i = 0; i < m_trunk_num; i++) { // O(32) at most
        const block_trunk& t = m_trunks[i];
        if (pos >= t.logic_pos && pos < t.logic_pos + t.len)
            return &t;
    }
    return nullptr;
}

bool block_file_ops::open_device()
{
    if (m_dev_fd >= 0)
        return true;
    m_dev_fd = ::open(m_dev_name, m_dev_flags | O_CLOEXEC);
    if (m_dev_fd < 0) {
        VESK_LOG_ERR(
            k_cls, "open %s, flags = 0x%x fail, Error %d %s\n", m_dev_name, m_dev_flags, errno, strerror(errno));
        return false;
    }
    return true;
}

void block_file_ops::close_device()
{
    if (m_dev_fd >= 0) {
        ::close(m_dev_fd);
        m_dev_fd = -1;
    }
}

int64_t block_file_ops::proc_read_data(int64_t pos, char* buf, int64_t want)
{
    int64_t need = m_file_size - pos < want ? m_file_size - pos : want;
    int64_t total = 0;
    if (need <= 0)
        return 0;
    if (!open_device())
        return -1;
    // The loop compares the running total with the shrinking remainder on purpose: a read
    // that spans several trunks may end before the wanted count.
    while (total < need) {
        const block_trunk* t = find_trunk(pos);
        if (t == nullptr) {
            if (total < need)
                VESK_LOG_ERR(k_cls, "%s fd_pos = %lld not find chunk\n", m_file_name, static_cast<long long>(pos));
            return total;
        }
        const int64_t seek_pos = t->phy_pos + (pos - t->logic_pos);
        if (lseek64(m_dev_fd, seek_pos, SEEK_SET) != seek_pos) {
            VESK_LOG_ERR(k_cls, "%s %s fd_pos = %lld, seek_pos = %lld Failed, Error %d %s\n", m_file_name, m_dev_name,
                static_cast<long long>(pos), static_cast<long long>(seek_pos), errno, strerror(errno));
            return -1;
        }
        const int64_t rest = t->logic_pos + t->len - pos;
        const int64_t rd_size = need < rest ? need : rest;
        ssize_t n;
        do {
            n = ::read(m_dev_fd, buf + total, static_cast<size_t>(rd_size));
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            pos += n;
            total += n;
            need -= n;
        } else if (n < 0) {
            VESK_LOG_ERR(k_cls, "%s %s fd_pos = %lld seek_pos = %lld read Failed, Error %d %s\n", m_file_name,
                m_dev_name, static_cast<long long>(pos), static_cast<long long>(seek_pos), errno, strerror(errno));
        }
        if (n < rd_size) {
            VESK_LOG_WARN(k_cls,
                "fd_pos = %lld, need_rd_size = %lld, m_file_size = %lld, total_rd_size = %lld, read "
                "complete\n",
                static_cast<long long>(pos), static_cast<long long>(need), static_cast<long long>(m_file_size),
                static_cast<long long>(total));
            return n < 0 && total == 0 ? -1 : total;
        }
    }
    return total;
}

bool block_file_ops::ensure_cache()
{
    if (m_cache != nullptr)
        return true;
    m_cache = static_cast<char*>(
        vesk_malloc(VESK_USER_UTILITY, k_purpose_file_cache, static_cast<unsigned>(m_cache_size), k_cache_align));
    m_cache_len = 0;
    return m_cache != nullptr;
}

int block_file_ops::read(void* buf, unsigned buf_size, unsigned want)
{
    const unsigned count = buf_size < want ? buf_size : want;
    if (m_ops_type == BLOCK_OPS_FILE)
        return m_bin.read(buf, count);
    if (m_ops_type != BLOCK_OPS_DEVICE) {
        VESK_LOG_ERR(k_cls, "m_ops_type = %d not support\n", m_ops_type);
        return -1;
    }
    if (m_open_model != VESK_BLOCK_READ || buf == nullptr) {
        VESK_LOG_ERR(k_cls, "m_ops_type = %d, m_open_model = %d\n", m_ops_type, m_open_model);
        return -1;
    }
    char* out = static_cast<char*>(buf);
    if (m_cache_size == 0) {
        const int64_t n = proc_read_data(m_fd_pos, out, count);
        if (n > 0)
            m_fd_pos += n;
        return static_cast<int>(n);
    }
    unsigned done = 0;
    while (done < count) {
        const uint64_t pos = static_cast<uint64_t>(m_fd_pos);
        if (m_cache_len > 0 && pos >= m_cache_addr && pos < m_cache_addr + m_cache_len) {
            const uint64_t avail = m_cache_addr + m_cache_len - pos;
            const unsigned n = count - done < avail ? count - done : static_cast<unsigned>(avail);
            memcpy(out + done, m_cache + (pos - m_cache_addr), n);
            m_fd_pos += n;
            done += n;
            continue;
        }
        const unsigned left = count - done;
        if (left >= m_cache_size) {
            const int64_t n = proc_read_data(m_fd_pos, out + done, left);
            if (n < 0)
                return done > 0 ? static_cast<int>(done) : -1;
            m_fd_pos += n;
            done += static_cast<unsigned>(n);
            break;
        }
        if (!ensure_cache())
            return done > 0 ? static_cast<int>(done) : -1;
        // Start on a 4096 boundary for O_DIRECT, but never before the trunk that holds the
        // position (trunk starts are file-system-block aligned).
        int64_t addr = m_fd_pos & ~(k_cache_align - 1);
        const block_trunk* t = find_trunk(m_fd_pos);
        if (t != nullptr && addr < t->logic_pos)
            addr = t->logic_pos;
        const int64_t n = proc_read_data(addr, m_cache, static_cast<int64_t>(m_cache_size));
        if (n < 0)
            return done > 0 ? static_cast<int>(done) : -1;
        m_cache_addr = static_cast<uint64_t>(addr);
        m_cache_len = static_cast<uint64_t>(n);
        if (addr + n <= m_fd_pos)
            break;
    }
    return static_cast<int>(done);
}

int block_file_ops::write(const void* buf, unsigned size)
{
    if (m_ops_type == BLOCK_OPS_FILE) {
        const int n = m_bin.write(buf, size);
        if (n > 0 && m_bin.tell() > m_file_size)
            m_file_size = m_bin.tell();
        return n;
    }
    if (m_ops_type != BLOCK_OPS_DEVICE || m_open_model != VESK_BLOCK_WRITE) {
        VESK_LOG_ERR(k_cls, "m_ops_type = %d, m_open_model = %d\n", m_ops_type, m_open_model);
        return -1;
    }
    // The disk may have been pulled or the file deleted since open: never write blind.
    if (access(m_file_name, F_OK) != 0 || access(m_dev_name, F_OK) != 0) {
        VESK_LOG_ERR(k_cls, "%s not exit, close it!\n", access(m_file_name, F_OK) != 0 ? m_file_name : m_dev_name);
        return -1;
    }
    if (buf == nullptr) {
        VESK_LOG_ERR(k_cls, "buf == NULL!");
        return -1;
    }
    if (!open_device())
        return -1;
    m_cache_len = 0;
    const char* in = static_cast<const char*>(buf);
    unsigned total = 0;
    bool failed = false;
    while (total < size) {
        const block_trunk* t = find_trunk(m_fd_pos);
        if (t == nullptr)
            break;
        const int64_t permit = t->logic_pos + t->len - m_fd_pos;
        const unsigned wr_size = size - total < permit ? size - total : static_cast<unsigned>(permit);
        const int64_t seek_pos = t->phy_pos + (m_fd_pos - t->logic_pos);
        ssize_t n = -1;
        if (lseek64(m_dev_fd, seek_pos, SEEK_SET) == seek_pos) {
            do {
                n = ::write(m_dev_fd, in + total, wr_size);
            } while (n < 0 && errno == EINTR);
        }
        if (n <= 0) {
            VESK_LOG_ERR(k_cls,
                "%s m_dev_fd = %d m_fd_pos = %lld, wr_size = %d, permit_wr_size = %lld, Write Failed, "
                "Error %d %s\n",
                m_file_name, m_dev_fd, static_cast<long long>(m_fd_pos), wr_size, static_cast<long long>(permit), errno,
                strerror(errno));
            failed = true;
            break;
        }
        total += static_cast<unsigned>(n);
        m_fd_pos += n;
        if (m_fd_pos > m_file_size)
            m_file_size = m_fd_pos;
    }
    if (!failed && total < size)
        VESK_LOG_WARN(k_cls, "%s m_fd_pos = %lld total_wr_size = %u, need_wr_size = %u\n", m_file_name,
            static_cast<long long>(m_fd_pos), total, size);
    close_device();
    return failed && total == 0 ? -1 : static_cast<int>(total);
}

VESK_ERR block_file_ops::seek(int64_t offset, int origin)
{
    if (m_ops_type == BLOCK_OPS_FILE)
        return m_bin.seek(offset, origin);
    if (m_ops_type != BLOCK_OPS_DEVICE) {
        VESK_LOG_ERR(k_cls, "m_ops_type = %d\n", m_ops_type);
        return VESK_ERR_OPERATE_FAIL;
    }
    int64_t base;
    switch (origin) {
    case SEEK_SET:
        base = 0;
        break;
    case SEEK_CUR:
        base = m_fd_pos;
        break;
    case SEEK_END:
        base = m_file_size;
        break;
    default:
        VESK_LOG_ERR(k_cls, "mode = %d not support\n", origin);
        return VESK_ERR_INVALID_PARAM;
    }
    if (base + offset < 0)
        return VESK_ERR_INVALID_PARAM;
    m_fd_pos = base + offset;
    return VESK_OK;
}

int64_t block_file_ops::get_file_size()
{
    if (m_ops_type == BLOCK_OPS_FILE)
        return m_bin.get_file_size();
    if (m_ops_type != BLOCK_OPS_DEVICE) {
        VESK_LOG_ERR(k_cls, "m_ops_type = %d\n", m_ops_type);
        return -1;
    }
    return m_file_size;
}

int64_t block_file_ops::get_fd_pos()
{
    if (m_ops_type == BLOCK_OPS_FILE)
        return m_bin.tell();
    if (m_ops_type != BLOCK_OPS_DEVICE) {
        VESK_LOG_ERR(k_cls, "m_ops_type = %d\n", m_ops_type);
        return -1;
    }
    return m_fd_pos;
}

void block_file_ops::release_names()
{
    if (m_file_name != nullptr)
        vesk_free(__FILE__, __func__, m_file_name);
    if (m_dev_name != nullptr)
        vesk_free(__FILE__, __func__, m_dev_name);
    m_file_name = nullptr;
    m_dev_name = nullptr;
}

VESK_ERR block_file_ops::close()
{
    close_device();
    m_bin.close();
    release_names();
    m_ops_type = BLOCK_OPS_CLOSED;
    m_open_model = 0;
    m_trunk_num = 0;
    m_fd_pos = 0;
    m_file_size = 0;
    m_cache_len = 0;
    return VESK_OK;
}

VESK_ERR block_file_ops::set_rd_cache_size(unsigned size)
{
    const uint64_t rounded
        = (static_cast<uint64_t>(size) + k_cache_align - 1) & ~static_cast<uint64_t>(k_cache_align - 1);
    if (rounded != m_cache_size) {
        if (m_cache != nullptr)
            vesk_free(__FILE__, __func__, m_cache);
        m_cache = nullptr;
        m_cache_size = rounded;
        m_cache_len = 0;
    }
    m_bin.set_rd_cache_size(size);
    return VESK_OK;
}

} // namespace vesk_utility
