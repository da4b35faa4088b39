// vesk_utility_file_operate - the binary file operator: one descriptor, positioned reads and
// writes, a read cache in the accounted heap; and the text operator's lines on top of it.
// Writes are never held in the process, so a crash loses nothing that write() accepted.
#include "store/vesk_utility_file_operate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "store/vesk_utility_file_sys.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{
const char* const k_bin = "binary_file_ops";
const char* const k_txt = "txt_file_ops";
} // namespace

binary_file_ops::~binary_file_ops()
{
    close();
    if (m_cache != nullptr)
        vesk_free(__FILE__, __func__, m_cache);
}

bool binary_file_ops::can_read() const
{
    return m_fd >= 0 && (m_open_model == VESK_FILE_READ || m_open_model == VESK_FILE_READ_WRITE);
}

bool binary_file_ops::can_write() const
{
    return m_fd >= 0 && m_open_model != VESK_FILE_READ;
}

VESK_ERR binary_file_ops::open(const char* path, int cache_mode, int open_model)
{
    if (path == nullptr) {
        VESK_LOG_ERR(k_bin, "fname is null!");
        return VESK_ERR_INVALID_PARAM;
    }
    if (m_fd >= 0) {
        VESK_LOG_ERR(k_bin, "%s: already open, fd = %d\n", path, m_fd);
        return VESK_ERR_OPERATE_FAIL;
    }
    int flags = O_LARGEFILE | O_CLOEXEC;
    switch (open_model) {
    case VESK_FILE_READ:
        flags |= O_RDONLY;
        break;
    case VESK_FILE_READ_WRITE:
        flags |= O_RDWR;
        break;
    case VESK_FILE_APPEND:
        flags |= O_WRONLY | O_CREAT | O_APPEND;
        break;
    case VESK_FILE_CREATE:
        flags |= O_WRONLY | O_CREAT | O_TRUNC;
        break;
    case VESK_FILE_WRITE:
        flags |= O_WRONLY | O_CREAT;
        break;
    default:
        VESK_LOG_ERR(k_bin, "mode = %d not support!\n", open_model);
        return VESK_ERR_INVALID_PARAM;
    }
    if (open_model != VESK_FILE_READ && cache_mode >= 1 && cache_mode <= 3)
        flags |= O_DSYNC;

    const int fd = vesk_file_sys().open(path, flags, 0644);
    if (fd < 0) {
        const int err = errno;
        VESK_LOG_ERR(k_bin, "open %s, flags = 0x%x fail, Error %d %s\n", path, flags, err, strerror(err));
        return err == EIO ? VESK_ERR_IO : VESK_ERR_OPERATE_FAIL;
    }
    m_fd = fd;
    m_open_model = open_model;
    m_cache_mode = cache_mode;
    m_pos = 0;
    drop_cache();
    if (open_model == VESK_FILE_APPEND)
        m_pos = get_file_size();
    return VESK_OK;
}

VESK_ERR binary_file_ops::close()
{
    if (m_fd < 0)
        return VESK_OK;
    const int rc = ::close(m_fd);
    m_fd = -1;
    m_open_model = 0;
    drop_cache();
    return rc == 0 ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

bool binary_file_ops::ensure_cache()
{
    if (m_cache != nullptr && m_cache_alloc == m_cache_size)
        return true;
    if (m_cache != nullptr)
        vesk_free(__FILE__, __func__, m_cache);
    m_cache_alloc = 0;
    drop_cache();
    m_cache = static_cast<char*>(vesk_malloc(VESK_USER_UTILITY, k_purpose_file_cache, m_cache_size, 1));
    if (m_cache == nullptr)
        return false;
    m_cache_alloc = m_cache_size;
    return true;
}

int64_t binary_file_ops::pread_full(void* buf, unsigned count, int64_t pos)
{
    unsigned done = 0;
    while (done < count) {
        const ssize_t n = vesk_file_sys().pread(m_fd, static_cast<char*>(buf) + done, count - done, pos + done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int err = errno;
            VESK_LOG_ERR(k_bin, "fd = %d, pos = %lld, read Failed, Error %d %s\n", m_fd,
                static_cast<long long>(pos + done), err, strerror(err));
            return done > 0 ? done : -1;
        }
        if (n == 0)
            break;
        done += static_cast<unsigned>(n);
    }
    return done;
}

void binary_file_ops::drop_pages(int64_t pos, int64_t len)
{
    if (m_cache_mode == VESK_FILE_CACHE_DIRECT && len > 0)
        posix_fadvise64(m_fd, pos, len, POSIX_FADV_DONTNEED);
}

int binary_file_ops::peek(const char** data)
{
    if (!can_read() || m_cache_size == 0 || !ensure_cache())
        return -1;
    if (m_cache_len == 0 || m_pos < m_cache_addr || m_pos >= m_cache_addr + m_cache_len) {
        const int64_t n = pread_full(m_cache, m_cache_alloc, m_pos);
        if (n <= 0)
            return static_cast<int>(n);
        drop_pages(m_pos, n);
        m_cache_addr = m_pos;
        m_cache_len = static_cast<unsigned>(n);
    }
    *data = m_cache + (m_pos - m_cache_addr);
    return static_cast<int>(m_cache_addr + m_cache_len - m_pos);
}

int binary_file_ops::read(void* buf, unsigned size)
{
    if (!can_read() || buf == nullptr) {
        VESK_LOG_ERR(k_bin, "fd = %d, m_open_model = %d, buf = %p: cannot read\n", m_fd, m_open_model, buf);
        return -1;
    }
    if (size > 0x7FFFFFFFu)
        size = 0x7FFFFFFFu;
    char* out = static_cast<char*>(buf);
    unsigned done = 0;
    while (done < size) {
        const unsigned left = size - done;
        if (m_cache_len > 0 && m_pos >= m_cache_addr && m_pos < m_cache_addr + m_cache_len) {
            const unsigned avail = static_cast<unsigned>(m_cache_addr + m_cache_len - m_pos);
            const unsigned n = left < avail ? left : avail;
            memcpy(out + done, m_cache + (m_pos - m_cache_addr), n);
            m_pos += n;
            done += n;
            continue;
        }
        // A request at least as large as the cache gains nothing from a copy through it.
        if (m_cache_size == 0 || left >= m_cache_size) {
            const int64_t n = pread_full(out + done, left, m_pos);
            if (n < 0)
                return done > 0 ? static_cast<int>(done) : -1;
            drop_pages(m_pos, n);
            m_pos += n;
            done += static_cast<unsigned>(n);
            break;
        }
        const char* data = nullptr;
        const int n = peek(&data);
        if (n < 0)
            return done > 0 ? static_cast<int>(done) : -1;
        if (n == 0)
            break;
    }
    return static_cast<int>(done);
}

int binary_file_ops::write(const void* buf, unsigned size)
{
    if (!can_write() || buf == nullptr) {
        VESK_LOG_ERR(k_bin, "fd = %d, m_open_model = %d, buf = %p: cannot write\n", m_fd, m_open_model, buf);
        return -1;
    }
    if (size > 0x7FFFFFFFu)
        size = 0x7FFFFFFFu;
    drop_cache();
    const char* in = static_cast<const char*>(buf);
    const bool append = m_open_model == VESK_FILE_APPEND;
    const int64_t start = m_pos;
    unsigned done = 0;
    while (done < size) {
        const ssize_t n = append ? vesk_file_sys().write(m_fd, in + done, size - done)
                                 : vesk_file_sys().pwrite(m_fd, in + done, size - done, m_pos);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int err = n < 0 ? errno : ENOSPC;
            VESK_LOG_ERR(k_bin, "fd = %d, pos = %lld, size = %u, written = %u, Write Failed, Error %d %s\n", m_fd,
                static_cast<long long>(m_pos), size, done, err, strerror(err));
            break;
        }
        done += static_cast<unsigned>(n);
        m_pos += n;
    }
    if (append) {
        const off64_t end = lseek64(m_fd, 0, SEEK_END);
        if (end >= 0)
            m_pos = end;
    }
    drop_pages(append ? m_pos - done : start, done);
    return done > 0 || size == 0 ? static_cast<int>(done) : -1;
}

VESK_ERR binary_file_ops::seek(int64_t offset, int origin)
{
    if (m_fd < 0)
        return VESK_ERR_OPERATE_FAIL;
    int64_t base = 0;
    switch (origin) {
    case SEEK_SET:
        break;
    case SEEK_CUR:
        base = m_pos;
        break;
    case SEEK_END:
        base = get_file_size();
        if (base < 0)
            return VESK_ERR_OPERATE_FAIL;
        break;
    default:
        VESK_LOG_ERR(k_bin, "mode = %d not support\n", origin);
        return VESK_ERR_INVALID_PARAM;
    }
    if (base + offset < 0)
        return VESK_ERR_INVALID_PARAM;
    m_pos = base + offset;
    return VESK_OK;
}

int64_t binary_file_ops::get_file_size()
{
    struct stat64 st;
    if (m_fd < 0 || fstat64(m_fd, &st) != 0)
        return -1;
    return st.st_size;
}

VESK_ERR binary_file_ops::flush()
{
    if (m_fd < 0)
        return VESK_ERR_OPERATE_FAIL;
    return fsync(m_fd) == 0 ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR binary_file_ops::truncate(int64_t size)
{
    if (!can_write() || size < 0)
        return VESK_ERR_OPERATE_FAIL;
    drop_cache();
    if (ftruncate64(m_fd, size) != 0) {
        const int err = errno;
        VESK_LOG_ERR(k_bin, "fd = %d, size = %lld, truncate Failed, Error %d %s\n", m_fd, static_cast<long long>(size),
            err, strerror(err));
        return err == EIO ? VESK_ERR_IO : VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

VESK_ERR binary_file_ops::set_rd_cache_size(unsigned size)
{
    if (size != m_cache_size) {
        if (m_cache != nullptr)
            vesk_free(__FILE__, __func__, m_cache);
        m_cache = nullptr;
        m_cache_alloc = 0;
        m_cache_size = size;
        drop_cache();
    }
    return VESK_OK;
}

int64_t binary_file_ops::align_fd_pos(unsigned align)
{
    if (m_fd < 0 || align == 0 || (align & (align - 1)) != 0)
        return -1;
    m_pos = (m_pos + align - 1) & ~static_cast<int64_t>(align - 1);
    return m_pos;
}

// ---- Text ----------------------------------------------------------------------------------

txt_file_ops::txt_file_ops()
{
    m_bin.set_rd_cache_size(k_txt_default_cache);
}

VESK_ERR txt_file_ops::open(const char* path, int open_model)
{
    return m_bin.open(path, VESK_FILE_CACHE_NORMAL, open_model);
}

int txt_file_ops::read_line(char* buf, unsigned size)
{
    if (buf == nullptr || size == 0)
        return -1;
    unsigned stored = 0;
    unsigned len = 0;
    char last = 0;
    bool any = false;
    for (;;) {
        const char* data = nullptr;
        const int avail = m_bin.peek(&data);
        if (avail < 0 || (avail == 0 && !any)) {
            buf[0] = '\0';
            return -1;
        }
        if (avail == 0)
            break;
        any = true;
        const char* nl = static_cast<const char*>(memchr(data, '\n', static_cast<size_t>(avail)));
        const unsigned take = nl != nullptr ? static_cast<unsigned>(nl - data) : static_cast<unsigned>(avail);
        const unsigned room = size - 1 - stored;
        const unsigned copy = take < room ? take : room;
        memcpy(buf + stored, data, copy);
        stored += copy;
        len += take;
        if (take > 0)
            last = data[take - 1];
        m_bin.consume(take + (nl != nullptr ? 1 : 0));
        if (nl != nullptr)
            break;
    }
    if (last == '\r' && len > 0) {
        len--;
        if (stored > len)
            stored = len;
    }
    buf[stored] = '\0';
    return static_cast<int>(len);
}

int txt_file_ops::write_line(const char* text)
{
    if (text == nullptr)
        return -1;
    const size_t len = strlen(text);
    char line[512];
    if (len + 1 <= sizeof(line)) { // one write, so that a line is never split by a crash
        memcpy(line, text, len);
        line[len] = '\n';
        return m_bin.write(line, static_cast<unsigned>(len + 1));
    }
    const int a = m_bin.write(text, static_cast<unsigned>(len));
    if (a != static_cast<int>(len))
        return a;
    const int b = m_bin.write("\n", 1);
    return b == 1 ? a + 1 : a;
}

int txt_file_ops::write_fmt(const char* fmt, ...)
{
    if (fmt == nullptr)
        return -1;
    char text[4096];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    if (n < 0)
        return -1;
    if (n >= static_cast<int>(sizeof(text))) {
        VESK_LOG_WARN(k_txt, "%d characters cut to %zu\n", n, sizeof(text) - 1);
        n = sizeof(text) - 1;
    }
    return m_bin.write(text, static_cast<unsigned>(n));
}

} // namespace vesk_utility
