// vesk_utility_log - coloured printf logging and the fatal assertion block. Uses only stdio,
// so it is safe inside the allocator and the lock code.
#include "core/vesk_utility_log.h"

#include <cstdio>
#include <cstdlib>

namespace vesk_utility {

namespace {

constexpr const char* k_reset = "\e[m";

struct level_style {
    const char* colour;
    const char* tag;
};

level_style style_of(vesk_log_level level)
{
    switch (level) {
    case vesk_log_level::error:
        return {"\e[0;32;31m", "ERROR"};
    case vesk_log_level::warning:
        return {"\e[1;33m", "WARNING"};
    case vesk_log_level::debug:
    default:
        return {"\e[0;32;32m", "DEBUG"};
    }
}

}  // namespace

void vesk_log(vesk_log_level level, const char* cls, const char* func, int line, const char* fmt, ...)
{
    const level_style s = style_of(level);
    const bool plain = level == vesk_log_level::plain;
    // flockfile keeps one message whole when several threads report at once.
    flockfile(stdout);
    if (plain && cls != nullptr)
        printf("[UTL] %s::%s[%d]:", cls, func, line);
    else if (plain)
        printf("[UTL] %s[%d]:", func, line);
    else if (cls != nullptr)
        printf("%s[UTL] %s! %s::%s[%d]:", s.colour, s.tag, cls, func, line);
    else
        printf("%s[UTL] %s! %s[%d]:", s.colour, s.tag, func, line);
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    if (!plain)
        fputs(k_reset, stdout);
    fflush(stdout);
    funlockfile(stdout);
}

int vesk_print_stdout(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vprintf(fmt, ap);
    va_end(ap);
    fflush(stdout);
    return n < 0 ? -1 : 0;
}

void vesk_assert_fail(const char* file, const char* func, int line, const char* cond)
{
    flockfile(stdout);
    printf("\e[0;32;31mASSERT!\n >File name: %s\n >Function: %s\n >Line No: %d\n >Condition: %s\n%s", file, func,
           line, cond, k_reset);
    fflush(stdout);
    funlockfile(stdout);
    exit(-1);
}

}  // namespace vesk_utility
