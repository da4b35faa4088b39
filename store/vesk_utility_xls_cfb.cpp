// vesk_utility_xls_cfb - compound files: reading one stream out of a file that may be
// hostile (every sector number is checked against the file, every chain against its length),
// and writing a single-stream file without holding the stream in memory.
#include "store/vesk_utility_xls_cfb.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/vesk_utility_bytes.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

// Header (sector -1, 512 bytes at offset 0), little-endian:
//   0 signature | 24 minor u16 | 26 major u16 (3: 512-byte sectors, 4: 4096) | 28 0xFFFE |
//   30 sector shift u16 | 32 mini sector shift u16 (6) | 40 directory sectors u32 (v4) |
//   44 FAT sectors u32 | 48 first directory sector | 52 transaction | 56 mini cutoff (4096) |
//   60 first mini FAT sector | 64 mini FAT sectors | 68 first DIFAT sector |
//   72 DIFAT sectors | 76 the first 109 FAT sector numbers.
// Sector n starts at (n + 1) << shift. Directory entries are 128 bytes: 0 name (UTF-16,
// 64 bytes) | 64 name bytes u16 | 66 type (1 storage, 2 stream, 5 root) | 67 colour |
// 68 left | 72 right | 76 child | 116 first sector | 120 size u64.
constexpr uint8_t k_signature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
constexpr uint32_t k_header_fat_slots = 109;
constexpr uint32_t k_mini_cutoff = 4096;
constexpr uint32_t k_mini_shift = 6;
constexpr uint32_t k_end_of_chain = 0xFFFFFFFEu;
constexpr uint32_t k_free = 0xFFFFFFFFu;
constexpr uint32_t k_fat_sector = 0xFFFFFFFDu;
constexpr uint32_t k_difat_sector = 0xFFFFFFFCu;
constexpr uint32_t k_no_stream = 0xFFFFFFFFu;
constexpr uint32_t k_dir_entry = 128;

// Whether a directory entry's UTF-16 name equals the ASCII name, without case.
bool name_is(const uint8_t* entry, const char* name)
{
    const uint16_t bytes = le16(entry + 64);
    const size_t len = strlen(name);
    if (bytes != 2 * (len + 1) || bytes > 64)
        return false;
    for (size_t i = 0; i < len; i++) {
        const uint16_t c = le16(entry + 2 * i);
        auto lower = [](unsigned x) { return (x >= 'A' && x <= 'Z') ? x + 32 : x; };
        if (c > 0x7F || lower(c) != lower(static_cast<unsigned char>(name[i])))
            return false;
    }
    return true;
}

}  // namespace

cfb_reader::cfb_reader(xls_tally* tally)
    : m_fat(k_purpose_xls_read, tally), m_sectors(k_purpose_xls_read, tally), m_mini_host(k_purpose_xls_read, tally)
{
}

bool cfb_reader::read_file(uint64_t off, void* buf, uint32_t len) const
{
    return off <= m_file_size && len <= m_file_size - off && m_read(m_ctx, off, buf, len) == static_cast<int64_t>(len);
}

VESK_ERR cfb_reader::walk_chain(const xls_array<uint32_t>& fat, uint32_t start, uint32_t count,
                                xls_array<uint32_t>& out)
{
    out.truncate(0);
    if (!out.reserve(count))
        return VESK_ERR_NO_RESOURCE;
    uint32_t cur = start;
    // At most `count` steps, so a chain that loops ends here.
    for (uint32_t i = 0; i < count; i++) {
        if (cur >= fat.size())
            return VESK_ERR_OPERATE_FAIL;
        out.push(cur);
        cur = fat[cur];
    }
    return VESK_OK;
}

VESK_ERR cfb_reader::load_fat()
{
    uint8_t h[512];
    if (!read_file(0, h, sizeof(h)) || memcmp(h, k_signature, 8) != 0 || le16(h + 28) != 0xFFFE)
        return VESK_ERR_OPERATE_FAIL;
    const uint16_t major = le16(h + 26);
    m_sector_shift = le16(h + 30);
    if (!((major == 3 && m_sector_shift == 9) || (major == 4 && m_sector_shift == 12)) ||
        le16(h + 32) != k_mini_shift || le32(h + 56) != k_mini_cutoff)
        return VESK_ERR_OPERATE_FAIL;
    const uint32_t sector = 1u << m_sector_shift;
    // The header fills sector -1 (512 bytes of it in version 3, a whole sector in 4).
    if (m_file_size <= sector || (m_file_size >> m_sector_shift) > 0xFFFFFFF0u)
        return VESK_ERR_OPERATE_FAIL;
    m_file_sectors = static_cast<uint32_t>((m_file_size - sector + sector - 1) >> m_sector_shift);
    const uint32_t fat_sectors = le32(h + 44);
    const uint32_t difat_sectors = le32(h + 72);
    if (fat_sectors == 0 || fat_sectors > m_file_sectors || difat_sectors > m_file_sectors)
        return VESK_ERR_OPERATE_FAIL;

    const uint32_t per_sector = sector / 4;
    if (!m_fat.resize_zero(fat_sectors * per_sector))
        return VESK_ERR_NO_RESOURCE;
    xls_array<uint8_t> buf(k_purpose_xls_read, nullptr);
    if (!buf.resize_zero(sector))
        return VESK_ERR_NO_RESOURCE;
    uint32_t loaded = 0;
    auto load_one = [&](uint32_t fat_sector) {
        if (fat_sector >= m_file_sectors ||
            !read_file(static_cast<uint64_t>(fat_sector + 1) << m_sector_shift, buf.data(), sector))
            return false;
        for (uint32_t i = 0; i < per_sector; i++)
            m_fat[loaded * per_sector + i] = le32(buf.data() + 4 * i);
        loaded++;
        return true;
    };
    for (uint32_t i = 0; i < k_header_fat_slots && loaded < fat_sectors; i++)
        if (!load_one(le32(h + 76 + 4 * i)))
            return VESK_ERR_OPERATE_FAIL;
    // The DIFAT chain: each sector lists per_sector - 1 FAT sectors and then the next one.
    uint32_t next = le32(h + 68);
    xls_array<uint8_t> difat(k_purpose_xls_read, nullptr);
    if (loaded < fat_sectors && !difat.resize_zero(sector))
        return VESK_ERR_NO_RESOURCE;
    for (uint32_t d = 0; d < difat_sectors && loaded < fat_sectors; d++) {
        if (next >= m_file_sectors ||
            !read_file(static_cast<uint64_t>(next + 1) << m_sector_shift, difat.data(), sector))
            return VESK_ERR_OPERATE_FAIL;
        for (uint32_t i = 0; i + 1 < per_sector && loaded < fat_sectors; i++)
            if (!load_one(le32(difat.data() + 4 * i)))
                return VESK_ERR_OPERATE_FAIL;
        next = le32(difat.data() + 4 * (per_sector - 1));
    }
    if (loaded < fat_sectors)
        return VESK_ERR_OPERATE_FAIL;
    // Entries naming sectors beyond the file are cut off here, so that every chain walked
    // over the FAT stays inside the file.
    if (m_fat.size() > m_file_sectors)
        m_fat.truncate(m_file_sectors);
    return VESK_OK;
}

VESK_ERR cfb_reader::open_stream(cfb_read_fn read, void* ctx, uint64_t file_size, const char* const* names,
                                 unsigned name_count)
{
    m_read = read;
    m_ctx = ctx;
    m_file_size = file_size;
    m_size = 0;
    m_mini = false;
    VESK_ERR err = load_fat();
    if (err != VESK_OK)
        return err;
    uint8_t h[512];
    if (!read_file(0, h, sizeof(h)))
        return VESK_ERR_OPERATE_FAIL;
    const uint32_t sector = 1u << m_sector_shift;

    // The directory: its chain ends at the end-of-chain mark; each sector is visited once.
    uint8_t entry[k_dir_entry] = {};
    uint8_t root[k_dir_entry] = {};
    bool found = false, have_root = false;
    uint32_t cur = le32(h + 48);
    // Every entry is checked, not only up to the one sought: the reading library walks them
    // all and trusts each name's length.
    uint8_t sought[k_dir_entry] = {};
    for (uint32_t steps = 0; cur != k_end_of_chain; steps++) {
        if (cur >= m_fat.size() || steps >= m_file_sectors)
            return VESK_ERR_OPERATE_FAIL;
        for (uint32_t e = 0; e < sector / k_dir_entry; e++) {
            if (!read_file((static_cast<uint64_t>(cur + 1) << m_sector_shift) + e * k_dir_entry, entry, k_dir_entry))
                return VESK_ERR_OPERATE_FAIL;
            const uint16_t name_bytes = le16(entry + 64);
            if (name_bytes > 64 || (name_bytes & 1) != 0 || entry[66] > 5)
                return VESK_ERR_OPERATE_FAIL;
            if (!have_root) {
                if (entry[66] != 5)
                    return VESK_ERR_OPERATE_FAIL;
                memcpy(root, entry, k_dir_entry);
                have_root = true;
                continue;
            }
            for (unsigned n = 0; n < name_count && !found; n++) {
                found = entry[66] == 2 && name_is(entry, names[n]);
                if (found)
                    memcpy(sought, entry, k_dir_entry);
            }
        }
        cur = m_fat[cur];
    }
    memcpy(entry, sought, k_dir_entry);
    if (!found)
        return VESK_ERR_OPERATE_FAIL;
    const uint32_t start = le32(entry + 116);
    const uint32_t size = le32(entry + 120);
    if ((m_sector_shift == 12 && le32(entry + 124) != 0) || size > m_file_size)
        return VESK_ERR_OPERATE_FAIL;
    m_size = size;
    if (size == 0)
        return VESK_OK;
    if (size >= k_mini_cutoff)
        return walk_chain(m_fat, start, (size + sector - 1) >> m_sector_shift, m_sectors);

    // A small stream lives in 64-byte sectors of the mini stream, which is the root entry's
    // own stream; the mini FAT is an ordinary chain.
    m_mini = true;
    const uint32_t host_size = le32(root + 120);
    if (host_size > m_file_size || host_size < size)
        return VESK_ERR_OPERATE_FAIL;
    err = walk_chain(m_fat, le32(root + 116), (host_size + sector - 1) >> m_sector_shift, m_mini_host);
    if (err != VESK_OK)
        return err;
    const uint32_t minifat_sectors = le32(h + 64);
    if (minifat_sectors == 0 || minifat_sectors > m_file_sectors)
        return VESK_ERR_OPERATE_FAIL;
    xls_array<uint32_t> chain(k_purpose_xls_read, nullptr);
    err = walk_chain(m_fat, le32(h + 60), minifat_sectors, chain);
    if (err != VESK_OK)
        return err;
    xls_array<uint32_t> minifat(k_purpose_xls_read, nullptr);
    if (!minifat.resize_zero(minifat_sectors * (sector / 4)))
        return VESK_ERR_NO_RESOURCE;
    for (uint32_t i = 0; i < chain.size(); i++)
        if (!read_file(static_cast<uint64_t>(chain[i] + 1) << m_sector_shift, minifat.data() + i * (sector / 4),
                       sector))
            return VESK_ERR_OPERATE_FAIL;
    for (uint32_t i = 0; i < minifat.size(); i++)
        minifat[i] = le32(reinterpret_cast<const uint8_t*>(minifat.data() + i));
    // Mini sectors beyond the container are cut off, as for the FAT.
    if (minifat.size() > (host_size >> k_mini_shift))
        minifat.truncate(host_size >> k_mini_shift);
    return walk_chain(minifat, start, (size + 63) >> k_mini_shift, m_sectors);
}

bool cfb_reader::read(uint32_t off, void* buf, uint32_t len) const
{
    if (off > m_size || len > m_size - off)
        return false;
    uint8_t* out = static_cast<uint8_t*>(buf);
    const uint32_t shift = m_mini ? k_mini_shift : m_sector_shift;
    while (len > 0) {
        const uint32_t index = off >> shift;
        const uint32_t within = off & ((1u << shift) - 1);
        uint32_t n = (1u << shift) - within;
        if (n > len)
            n = len;
        uint64_t file_off;
        if (m_mini) {
            const uint64_t host_off = (static_cast<uint64_t>(m_sectors[index]) << k_mini_shift) + within;
            const uint64_t host_index = host_off >> m_sector_shift;
            if (host_index >= m_mini_host.size())
                return false;
            file_off = (static_cast<uint64_t>(m_mini_host[static_cast<uint32_t>(host_index)] + 1) << m_sector_shift) +
                       (host_off & ((1u << m_sector_shift) - 1));
        } else {
            file_off = (static_cast<uint64_t>(m_sectors[index] + 1) << m_sector_shift) + within;
        }
        if (!read_file(file_off, out, n))
            return false;
        out += n;
        off += n;
        len -= n;
    }
    return true;
}

// ---- writer ---------------------------------------------------------------------------------
// Layout of a written file (512-byte sectors): header | stream sectors 0..S-1 | directory
// sector S | FAT sectors | DIFAT sectors (only past 109 FAT sectors).

bool cfb_writer::flush()
{
    const uint8_t* p = m_buf;
    uint32_t left = m_fill;
    while (left > 0 && !m_failed) {
        const ssize_t n = ::write(m_fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            m_failed = true;
            break;
        }
        p += n;
        left -= static_cast<uint32_t>(n);
    }
    m_fill = 0;
    return !m_failed;
}

bool cfb_writer::begin()
{
    m_stream = 0;
    m_fill = 512;
    m_failed = false;
    memset(m_buf, 0, 512);  // the header's place, written by finish()
    return true;
}

bool cfb_writer::write(const void* data, uint32_t len)
{
    const uint8_t* p = static_cast<const uint8_t*>(data);
    m_stream += len;
    while (len > 0 && !m_failed) {
        uint32_t n = sizeof(m_buf) - m_fill;
        if (n > len)
            n = len;
        memcpy(m_buf + m_fill, p, n);
        m_fill += n;
        p += n;
        len -= n;
        if (m_fill == sizeof(m_buf))
            flush();
    }
    return !m_failed;
}

bool cfb_writer::finish()
{
    // Zero padding past the last record: readers stop at the workbook's end records.
    uint64_t padded = m_stream < k_mini_cutoff ? k_mini_cutoff : (m_stream + 511) & ~511ull;
    static const uint8_t zeros[512] = {};
    while (m_stream < padded) {
        const uint32_t n = padded - m_stream > 512 ? 512 : static_cast<uint32_t>(padded - m_stream);
        write(zeros, n);
    }
    if (m_stream > 0xFFFFFE00ull)
        return false;
    const uint32_t stream_sectors = static_cast<uint32_t>(padded / 512);
    const uint32_t dir = stream_sectors;
    // The FAT covers every sector including its own and the DIFAT's: iterate to the fixpoint.
    uint32_t fat = 1, difat = 0;
    for (;;) {
        const uint32_t total = stream_sectors + 1 + fat + difat;
        const uint32_t need_fat = (total + 127) / 128;
        const uint32_t need_difat = need_fat > k_header_fat_slots ? (need_fat - k_header_fat_slots + 126) / 127 : 0;
        if (need_fat == fat && need_difat == difat)
            break;
        fat = need_fat;
        difat = need_difat;
    }
    const uint32_t first_fat = dir + 1, first_difat = first_fat + fat;

    // Directory: the root (no mini stream) with "Workbook" as its only child, two empty slots.
    uint8_t d[512] = {};
    auto entry = [&](uint8_t* e, const char* name, uint8_t type, uint32_t child, uint32_t start, uint32_t size) {
        size_t n = strlen(name);
        for (size_t i = 0; i < n; i++)
            put_le16(e + 2 * i, static_cast<uint8_t>(name[i]));
        put_le16(e + 64, static_cast<uint16_t>(2 * (n + 1)));
        e[66] = type;
        e[67] = 1;  // black
        put_le32(e + 68, k_no_stream);
        put_le32(e + 72, k_no_stream);
        put_le32(e + 76, child);
        put_le32(e + 116, start);
        put_le32(e + 120, size);
    };
    entry(d, "Root Entry", 5, 1, k_end_of_chain, 0);
    entry(d + 128, "Workbook", 2, k_no_stream, 0, static_cast<uint32_t>(padded));
    for (int i = 2; i < 4; i++) {
        put_le32(d + 128 * i + 68, k_no_stream);
        put_le32(d + 128 * i + 72, k_no_stream);
        put_le32(d + 128 * i + 76, k_no_stream);
    }
    write(d, 512);

    uint8_t s[512];
    for (uint32_t f = 0; f < fat; f++) {
        for (uint32_t i = 0; i < 128; i++) {
            const uint32_t n = f * 128 + i;
            uint32_t v = k_free;
            if (n + 1 < stream_sectors)
                v = n + 1;
            else if (n + 1 == stream_sectors || n == dir)
                v = k_end_of_chain;
            else if (n >= first_fat && n < first_difat)
                v = k_fat_sector;
            else if (n >= first_difat && n < first_difat + difat)
                v = k_difat_sector;
            put_le32(s + 4 * i, v);
        }
        write(s, 512);
    }
    // DIFAT sectors: FAT sector numbers past the header's 109, 127 per sector, then the link.
    for (uint32_t k = 0; k < difat; k++) {
        for (uint32_t i = 0; i < 127; i++) {
            const uint32_t idx = k_header_fat_slots + k * 127 + i;
            put_le32(s + 4 * i, idx < fat ? first_fat + idx : k_free);
        }
        put_le32(s + 508, k + 1 < difat ? first_difat + k + 1 : k_end_of_chain);
        write(s, 512);
    }
    if (!flush())
        return false;

    uint8_t h[512];
    memset(h, 0, sizeof(h));
    memcpy(h, k_signature, 8);
    put_le16(h + 24, 0x003E);
    put_le16(h + 26, 3);
    put_le16(h + 28, 0xFFFE);
    put_le16(h + 30, 9);
    put_le16(h + 32, k_mini_shift);
    put_le32(h + 44, fat);
    put_le32(h + 48, dir);
    put_le32(h + 56, k_mini_cutoff);
    put_le32(h + 60, k_end_of_chain);
    put_le32(h + 68, difat > 0 ? first_difat : k_end_of_chain);
    put_le32(h + 72, difat);
    for (uint32_t i = 0; i < k_header_fat_slots; i++)
        put_le32(h + 76 + 4 * i, i < fat ? first_fat + i : k_free);
    return pwrite(m_fd, h, sizeof(h), 0) == static_cast<ssize_t>(sizeof(h));
}

}  // namespace vesk_utility
