// vesk_utility_system.h - shell commands and child processes.
//
// Contract
//   The main application must not fork itself: vesk_utility_system and the FILE* popen hand
//   their commands to the proxy server (tools/vesk_proxy_server) over a local socket and wait
//   until it has run them. When the proxy cannot be reached the command runs in this process
//   through system(), with an error line. The pipe-based helpers (exe_cmd and the descriptor
//   popen) start their child here, with vfork and /bin/sh. Every function is safe to call from
//   any thread, in either role.
#ifndef VESK_UTILITY_SYSTEM_PUBLIC_H
#define VESK_UTILITY_SYSTEM_PUBLIC_H

#include <cstdio>

#include "vesk_utility_types.h"

namespace vesk_soft
{

// Runs cmd and returns once it has finished (up to 6000 s). The command's own exit status is
// not reported. VESK_ERR_NOT_INIT before initialisation; VESK_ERR_INVALID_PARAM for NULL;
// VESK_ERR_OPERATE_FAIL when no answer came in time.
VESK_API VESK_ERR vesk_utility_system(const char* cmd);
// Runs cmd and stores its standard output in buf, at most buf_size - 1 bytes and a NUL (a full
// buffer is warned about). Waits at most timeout_ms for the command to finish writing; the
// child is ended in every case. VESK_ERR_OPERATE_FAIL on time-out or a failed system call.
VESK_API VESK_ERR vesk_utility_exe_cmd(const char* cmd, unsigned timeout_ms, char* buf, unsigned buf_size);
// Starts `sh -c cmd` with a pipe: type "r" gives its stdout in *fd, "w" its stdin. *pid is the
// child. VESK_ERR_INVALID_PARAM for a missing argument or any other type.
VESK_API VESK_ERR vesk_utility_popen(const char* cmd, const char* type, int* fd, int* pid);
// Closes fd and ends the child (SIGTERM, whether or not it has finished), then reaps it.
VESK_API VESK_ERR vesk_utility_pclose(int fd, int pid);
// Runs cmd through the proxy with its output redirected to a file under /tmp and returns that
// file opened with mode: the stream reads the command's complete output. NULL on failure.
// The file (/tmp/vesk_popen_outfile_N.txt, N unique per process) is created new with mode
// 0600 before the command runs; an existing name or a planted link is never written through.
VESK_API FILE* vesk_utility_popen(const char* cmd, const char* mode);
// Closes a stream of the call above and removes exactly the file created for it. 0, or -1 for
// NULL or a stream that did not come from vesk_utility_popen (closed, nothing removed).
VESK_API int vesk_utility_pclose(FILE* fp);

} // namespace vesk_soft

#endif // VESK_UTILITY_SYSTEM_PUBLIC_H
