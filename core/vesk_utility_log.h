// vesk_utility_log - the one place where the layer prints: coloured error, warning and debug
// lines, and the fatal assertion block that ends the process. It never allocates through the
// accounted allocator and takes no named lock, because both of those report through it.
#ifndef VESK_UTILITY_LOG_H
#define VESK_UTILITY_LOG_H

#include <cstdarg>

namespace vesk_utility {

// plain: no colour and no level tag, "[UTL] <cls>::<func>[<line>]:" (service notices such as
// a thread starting or retiring).
enum class vesk_log_level { error, warning, debug, plain };

// One message: colour, "[UTL] <LEVEL>! <cls>::<func>[<line>]:" (or "<func>[<line>]:" when
// cls is NULL), the formatted text, the colour reset. Written as one unit and flushed.
void vesk_log(vesk_log_level level, const char* cls, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
// Plain text to standard output, no prefix and no colour (diagnose output of the console-less
// exported dumps).
int vesk_print_stdout(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Prints the red assertion block and calls exit(-1).
[[noreturn]] void vesk_assert_fail(const char* file, const char* func, int line, const char* cond);

}  // namespace vesk_utility

#define VESK_LOG_ERR(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::error, cls, __func__, __LINE__, __VA_ARGS__)
#define VESK_LOG_WARN(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::warning, cls, __func__, __LINE__, __VA_ARGS__)
#define VESK_LOG_DBG(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::debug, cls, __func__, __LINE__, __VA_ARGS__)
#define VESK_LOG_PLAIN(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::plain, cls, __func__, __LINE__, __VA_ARGS__)
// Free-function forms: "[UTL] ERROR! <func>[<line>]:".
#define VESK_ERR_FN(...) VESK_LOG_ERR(nullptr, __VA_ARGS__)
#define VESK_WARN_FN(...) VESK_LOG_WARN(nullptr, __VA_ARGS__)
#define VESK_DBG_FN(...) VESK_LOG_DBG(nullptr, __VA_ARGS__)
#define VESK_PLAIN_FN(...) VESK_LOG_PLAIN(nullptr, __VA_ARGS__)

// Fatal check, active in every build: the condition text is printed as written.
#define VESK_ASSERT(cond)                                                        \
    do {                                                                         \
        if (!(cond)) ::vesk_utility::vesk_assert_fail(__FILE__, __func__, __LINE__, #cond); \
    } while (0)

#endif  // VESK_UTILITY_LOG_H
