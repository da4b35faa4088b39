// vesk_utility_file_sys - the system calls of the file operators, gathered in one table so
// that tests can make a call fail (an EIO at open, a full disk at write) on an ordinary file.
#ifndef VESK_UTILITY_FILE_SYS_H
#define VESK_UTILITY_FILE_SYS_H

#include <sys/types.h>

namespace vesk_utility
{

struct vesk_file_sys_calls {
    int (*open)(const char* path, int flags, mode_t mode);
    ssize_t (*pread)(int fd, void* buf, size_t count, off64_t offset);
    ssize_t (*pwrite)(int fd, const void* buf, size_t count, off64_t offset);
    ssize_t (*write)(int fd, const void* buf, size_t count);
};

// The table in use; tests replace an entry and put back vesk_file_sys_default() after.
vesk_file_sys_calls& vesk_file_sys();
const vesk_file_sys_calls& vesk_file_sys_default();

} // namespace vesk_utility

#endif // VESK_UTILITY_FILE_SYS_H
