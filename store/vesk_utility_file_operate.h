// vesk_utility_file_operate - the binary file operator (a descriptor behind a read cache)
// and the text operator built on it. The block operator falls back to the binary one.
#ifndef VESK_UTILITY_FILE_OPERATE_H
#define VESK_UTILITY_FILE_OPERATE_H

#include <cstdarg>
#include <cstdint>

#include "vesk_utility_file.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

constexpr unsigned k_bin_default_cache = 64 * 1024;
constexpr unsigned k_txt_default_cache = 4096;

// Invariants: m_fd >= 0 exactly while open; the cache, when m_cache_len > 0, holds the file's
// bytes [m_cache_addr, m_cache_addr + m_cache_len) as they were when read, and is dropped by
// every write and truncate.
class binary_file_ops final : public vesk_soft::vesk_binary_file_operate
{
public:
    binary_file_ops() = default;
    ~binary_file_ops() override;

    VESK_ERR open(const char* path, int cache_mode, int open_model) override;
    VESK_ERR close() override;
    int read(void* buf, unsigned size) override;
    int write(const void* buf, unsigned size) override;
    VESK_ERR seek(int64_t offset, int origin) override;
    int64_t tell() override { return m_pos; }
    int64_t get_file_size() override;
    VESK_ERR flush() override;
    VESK_ERR truncate(int64_t size) override;
    VESK_ERR set_rd_cache_size(unsigned size) override;
    int64_t align_fd_pos(unsigned align) override;

    // For the text operator: the cached bytes at the position (refilling when none are),
    // 0 at the end of the file, -1 on error; consume() moves past n of them.
    int peek(const char** data);
    void consume(unsigned n) { m_pos += n; }
    bool is_open() const { return m_fd >= 0; }

private:
    bool can_read() const;
    bool can_write() const;
    void drop_cache() { m_cache_len = 0; }
    bool ensure_cache();
    // Reads until count bytes, the end of the file or an error: the bytes read, or -1.
    int64_t pread_full(void* buf, unsigned count, int64_t pos);
    void drop_pages(int64_t pos, int64_t len);

    int m_fd = -1;
    int m_open_model = 0;
    int m_cache_mode = 0;
    int64_t m_pos = 0;
    char* m_cache = nullptr; // accounted, m_cache_alloc bytes
    unsigned m_cache_alloc = 0;
    unsigned m_cache_size = k_bin_default_cache; // capacity used at the next refill
    int64_t m_cache_addr = 0;
    unsigned m_cache_len = 0;
};

class txt_file_ops final : public vesk_soft::vesk_txt_file_operate
{
public:
    txt_file_ops();

    VESK_ERR open(const char* path, int open_model) override;
    VESK_ERR close() override { return m_bin.close(); }
    int read_line(char* buf, unsigned size) override;
    int write_line(const char* text) override;
    int write_fmt(const char* fmt, ...) override __attribute__((format(printf, 2, 3)));
    VESK_ERR seek(int64_t offset, int origin) override { return m_bin.seek(offset, origin); }
    int64_t tell() override { return m_bin.tell(); }
    int64_t get_file_size() override { return m_bin.get_file_size(); }
    VESK_ERR flush() override { return m_bin.flush(); }
    VESK_ERR truncate(int64_t size) override { return m_bin.truncate(size); }

private:
    binary_file_ops m_bin;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_FILE_OPERATE_H
