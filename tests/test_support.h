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

#endif // VESK_TEST_SUPPORT_H
