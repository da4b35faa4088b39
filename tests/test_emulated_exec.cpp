// Death tests of the target build, run under qemu-user on a build machine.
//
// A threadsafe death test re-executes the test program with execv(argv[0], ...). Under qemu-user
// that exec goes straight to the host kernel, which cannot run an ARM program unless a binfmt
// handler is registered (it is not in containers, nor by Debian's qemu-user package). When the
// kernel refuses with ENOEXEC, the program is run again through the emulator that CTest used,
// with the same arguments and environment, so the child inherits the death-test pipe as usual.
// On the board itself the first exec succeeds and nothing changes.
//
// Only compiled into the target's test programs: it replaces the C library's execv for the
// whole program, and gtest's static library is its one caller.
#include <errno.h>
#include <unistd.h>

#include "vesk_test_emulator.h"

extern "C" int execv(const char* path, char* const argv[]) noexcept
{
    execve(path, argv, environ);
    if (errno != ENOEXEC)
        return -1;

    // No allocation here: gtest calls this in a cloned child that must not touch the heap.
    static const char* const emulator[] = { VESK_TEST_EMULATOR_ARGV };
    constexpr int k_emulator_args = sizeof(emulator) / sizeof(emulator[0]);
    constexpr int k_max_args = 256;
    const char* args[k_max_args];
    int n = 0;
    for (; n < k_emulator_args; n++)
        args[n] = emulator[n];
    args[n++] = path;
    for (int i = 1; argv[i] != nullptr; i++) {
        if (n == k_max_args - 1) {
            errno = E2BIG;
            return -1;
        }
        args[n++] = argv[i];
    }
    args[n] = nullptr;
    return execve(emulator[0], const_cast<char* const*>(args), environ);
}
