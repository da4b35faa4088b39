// Death tests of the target build, run under qemu-user on a build machine. A threadsafe death
// test re-executes the program with execv(argv[0], ...); under qemu-user that exec reaches the
// host kernel, which refuses an ARM program (ENOEXEC) unless a binfmt handler is registered.
// Then the program runs again through CTest's emulator, with the same arguments, environment
// and inherited death-test pipe. On the board the first exec succeeds. Compiled into the
// target's test programs only: it replaces the C library's execv, whose one caller is gtest.
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
