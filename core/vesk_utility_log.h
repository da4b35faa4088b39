// vesk_utility_log - the one place where the layer prints: coloured error, warning and debug
// lines, and the fatal assertion block that ends the process. It never allocates through the
// accounted allocator and takes no named lock, because both of those report through it.
#ifndef VESK_UTILITY_LOG_H
#define VESK_UTILITY_LOG_H

#include <pthread.h>

#include <cstdarg>
#include <cstdint>

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

// One call site's memory of the message it printed last, for messages that can repeat without
// end (a periodic task that meets the same fault on every pass). Lives in a static at the site.
struct vesk_log_site {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    bool used = false;
    uint64_t hash = 0; // of the formatted text
    uint32_t count = 0; // repeats counted, not printed, since the last line of the site
    int64_t last_ms = 0; // monotonic time of the last occurrence
    int64_t run_ms = 0; // when the run was last printed or summarised
};
constexpr int64_t k_log_repeat_window_ms = 10000;
constexpr int64_t k_log_repeat_summary_ms = 60000;

// vesk_log for a repeating site: a message identical to the site's last one within
// k_log_repeat_window_ms of it is counted instead of printed; "last message repeated %u times"
// (with the site's prefix) closes the run when the text changes, a gap ends it, or every
// k_log_repeat_summary_ms while it lasts.
void vesk_log_repeat(vesk_log_site& site, vesk_log_level level, const char* cls, const char* func, int line,
    const char* fmt, ...) __attribute__((format(printf, 6, 7)));
// The same at a given monotonic time (tests drive the clock).
void vesk_log_repeat_at(int64_t now_ms, vesk_log_site& site, vesk_log_level level, const char* cls, const char* func,
    int line, const char* fmt, ...) __attribute__((format(printf, 7, 8)));

}  // namespace vesk_utility

#define VESK_LOG_ERR(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::error, cls, __func__, __LINE__, __VA_ARGS__)
#define VESK_LOG_WARN(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::warning, cls, __func__, __LINE__, __VA_ARGS__)
#define VESK_LOG_DBG(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::debug, cls, __func__, __LINE__, __VA_ARGS__)
#define VESK_LOG_PLAIN(cls, ...) \
    ::vesk_utility::vesk_log(::vesk_utility::vesk_log_level::plain, cls, __func__, __LINE__, __VA_ARGS__)
// Repeating forms: one vesk_log_site per call site.
#define VESK_LOG_REPEAT(level, cls, ...)                                                                   \
    do {                                                                                                 \
        static ::vesk_utility::vesk_log_site s_log_site_;                                                \
        ::vesk_utility::vesk_log_repeat(s_log_site_, ::vesk_utility::vesk_log_level::level, cls, __func__, \
            __LINE__, __VA_ARGS__);                                                                      \
    } while (0)
#define VESK_LOG_ERR_REPEAT(cls, ...) VESK_LOG_REPEAT(error, cls, __VA_ARGS__)
#define VESK_LOG_WARN_REPEAT(cls, ...) VESK_LOG_REPEAT(warning, cls, __VA_ARGS__)
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
