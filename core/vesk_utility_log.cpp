// vesk_utility_log - coloured printf logging and the fatal assertion block. Uses only stdio,
// so it is safe inside the allocator and the lock code.
#include "core/vesk_utility_log.h"

#include <time.h>

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

void vlog(vesk_log_level level, const char* cls, const char* func, int line, const char* fmt, va_list ap)
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
    vprintf(fmt, ap);
    if (!plain)
        fputs(k_reset, stdout);
    fflush(stdout);
    funlockfile(stdout);
}

void log_line(vesk_log_level level, const char* cls, const char* func, int line, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vlog(level, cls, func, line, fmt, ap);
    va_end(ap);
}

// FNV-1a over the formatted text. A text longer than the buffer is compared by its head.
uint64_t text_hash(const char* fmt, va_list ap)
{
    char text[512];
    const int n = vsnprintf(text, sizeof(text), fmt, ap);
    uint64_t h = 14695981039346656037ull;
    for (int i = 0; i < n && i < static_cast<int>(sizeof(text)) - 1; i++)
        h = (h ^ static_cast<unsigned char>(text[i])) * 1099511628211ull;
    return h;
}

void vlog_repeat(int64_t now_ms, vesk_log_site& site, vesk_log_level level, const char* cls, const char* func,
    int line, const char* fmt, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    const uint64_t hash = text_hash(fmt, copy);
    va_end(copy);
    // Lock order: the site, then stdout (inside vlog).
    pthread_mutex_lock(&site.lock);
    if (site.used && hash == site.hash && now_ms - site.last_ms <= k_log_repeat_window_ms) {
        site.count++;
        site.last_ms = now_ms;
        if (now_ms - site.run_ms >= k_log_repeat_summary_ms) {
            log_line(level, cls, func, line, "last message repeated %u times\n", site.count);
            site.count = 0;
            site.run_ms = now_ms;
        }
        pthread_mutex_unlock(&site.lock);
        return;
    }
    if (site.used && site.count != 0)
        log_line(level, cls, func, line, "last message repeated %u times\n", site.count);
    vlog(level, cls, func, line, fmt, ap);
    site.used = true;
    site.hash = hash;
    site.count = 0;
    site.last_ms = now_ms;
    site.run_ms = now_ms;
    pthread_mutex_unlock(&site.lock);
}

}  // namespace

void vesk_log(vesk_log_level level, const char* cls, const char* func, int line, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vlog(level, cls, func, line, fmt, ap);
    va_end(ap);
}

void vesk_log_repeat(vesk_log_site& site, vesk_log_level level, const char* cls, const char* func, int line,
    const char* fmt, ...)
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    va_list ap;
    va_start(ap, fmt);
    vlog_repeat(static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000, site, level, cls, func, line, fmt, ap);
    va_end(ap);
}

void vesk_log_repeat_at(int64_t now_ms, vesk_log_site& site, vesk_log_level level, const char* cls, const char* func,
    int line, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vlog_repeat(now_ms, site, level, cls, func, line, fmt, ap);
    va_end(ap);
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
