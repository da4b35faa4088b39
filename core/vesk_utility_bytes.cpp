// vesk_utility_bytes - descriptor I/O that finishes what it starts.
#include "core/vesk_utility_bytes.h"

#include <cerrno>
#include <unistd.h>

namespace vesk_utility
{

int64_t fd_read_at(void* ctx, uint64_t off, void* buf, uint32_t len)
{
    const int fd = *static_cast<int*>(ctx);
    uint32_t done = 0;
    while (done < len) {
        const ssize_t n = pread(fd, static_cast<uint8_t*>(buf) + done, len - done, static_cast<off_t>(off + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        done += static_cast<uint32_t>(n);
    }
    return done;
}

bool fd_write_all(int fd, const void* buf, size_t len)
{
    const uint8_t* p = static_cast<const uint8_t*>(buf);
    while (len > 0) {
        const ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace vesk_utility
