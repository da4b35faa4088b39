// Shared helpers of the test executables: the private root and standard-output capture.
#ifndef VESK_TEST_SUPPORT_H
#define VESK_TEST_SUPPORT_H

#include <functional>
#include <string>

namespace vesk_test
{

// Sets VESK_UTILITY_ROOT to a fresh directory tree (with the fixed folders the layer uses)
// unless it is already set, as in a death-test child, which shares its parent's root.
void make_private_root();
// Removes the tree when this process created it.
void remove_private_root();
std::string private_root();

// Runs fn with standard output captured and returns what it printed.
std::string capture_stdout(const std::function<void()>& fn);

// The layer prints to standard output, death tests read standard error: a dying statement
// runs after this, inside the child.
void stdout_to_stderr();

// Number of non-overlapping occurrences of needle in text.
int count_of(const std::string& text, const std::string& needle);

} // namespace vesk_test

// EXPECT_EXIT for the layer's fatal paths: exit code 255 and the regex over what it printed.
#define VESK_EXPECT_FATAL(statement, regex)                                                                            \
    EXPECT_EXIT(                                                                                                       \
        {                                                                                                              \
            ::vesk_test::stdout_to_stderr();                                                                           \
            statement;                                                                                                 \
        },                                                                                                             \
        ::testing::ExitedWithCode(255), regex)

// 1 in the AddressSanitizer build.
#if defined(__SANITIZE_ADDRESS__)
#define VESK_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VESK_TEST_ASAN 1
#endif
#endif
#ifndef VESK_TEST_ASAN
#define VESK_TEST_ASAN 0
#endif

// A deliberate fault that AddressSanitizer intercepts before the layer's own check runs (the
// check reads the header of a block that is already freed): the plain build expects the
// layer's fatal report, the checked build expects ASan's report and its exit status 1. The
// layer's check itself is covered by the plain build, which CI runs as well.
#if VESK_TEST_ASAN
#define VESK_EXPECT_FATAL_OR_ASAN(statement, regex, asan_regex)                                                        \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(1), asan_regex)
#else
#define VESK_EXPECT_FATAL_OR_ASAN(statement, regex, asan_regex) VESK_EXPECT_FATAL(statement, regex)
#endif

#endif // VESK_TEST_SUPPORT_H
