// vesk_utility_file_sys - the default system-call table of the file operators.
#include "store/vesk_utility_file_sys.h"

#include <fcntl.h>
#include <unistd.h>

namespace vesk_utility
{

namespace
{

int sys_open(const char* path, int flags, mode_t mode)
{
    return ::open(path, flags, mode);
}

ssize_t sys_pread(int fd, void* buf, size_t count, off64_t offset)
{
    return ::pread64(fd, buf, count, offset);
}

ssize_t sys_pwrite(int fd, const void* buf, size_t count, off64_t offset)
{
    return ::pwrite64(fd, buf, count, offset);
}

const vesk_file_sys_calls s_default = {sys_open, sys_pread, sys_pwrite, ::write};
vesk_file_sys_calls s_calls = s_default;

} // namespace

vesk_file_sys_calls& vesk_file_sys()
{
    return s_calls;
}

const vesk_file_sys_calls& vesk_file_sys_default()
{
    return s_default;
}

} // namespace vesk_utility
