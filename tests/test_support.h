// Shared helpers of the test executables: the private root and standard-output capture.
#ifndef VESK_TEST_SUPPORT_H
#define VESK_TEST_SUPPORT_H

#include <functional>
#include <string>
#include <vector>

namespace vesk_test
{

// Sets VESK_UTILITY_ROOT to a fresh tree, unless already set (the preinit children share it).
void make_private_root();
// Removes the tree when this process created it.
void remove_private_root();
std::string private_root();

// What fn printed to standard output, less the background messages below.
std::string capture_stdout(const std::function<void()>& fn);

// Printed every 100 ms by the process's own command client while no proxy server runs.
constexpr const char* k_unconnected_client = "m_connect_fd fail!";
// text without those messages (and the count of their repeats that closes a run).
std::string without_background_messages(const std::string& text);

// Death tests read standard error: a dying statement runs after this, inside the child.
void stdout_to_stderr();

// text without the layer's coloured log messages, which other threads may print meanwhile.
std::string without_log_messages(const std::string& text);

int count_of(const std::string& text, const std::string& needle);

// Descriptors the process has open (the listing's own included), or -1.
int open_descriptors();

// Keeps objects whose destructor is fatal (pools) reachable until exit, so the leak checker
// counts them as live. Test bodies only (one thread).
template <class T> T* never_destroyed(T* object)
{
    static std::vector<T*>* const kept = new std::vector<T*>();
    kept->push_back(object);
    return object;
}

} // namespace vesk_test

// EXPECT_EXIT for the layer's fatal paths: exit code 255 and the regex over what it printed.
#define VESK_EXPECT_FATAL(statement, regex)                                                                            \
    EXPECT_EXIT({ ::vesk_test::stdout_to_stderr(); statement; }, ::testing::ExitedWithCode(255), regex)

// The exit status of a sanitizer's report (ASan 1, TSan 66); 0 in the plain build.
#if defined(__SANITIZE_ADDRESS__)
#define VESK_TEST_SANITIZER_EXIT 1
#elif defined(__SANITIZE_THREAD__)
#define VESK_TEST_SANITIZER_EXIT 66
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VESK_TEST_SANITIZER_EXIT 1
#elif __has_feature(thread_sanitizer)
#define VESK_TEST_SANITIZER_EXIT 66
#endif
#endif
#ifndef VESK_TEST_SANITIZER_EXIT
#define VESK_TEST_SANITIZER_EXIT 0
#endif

// A fault that ASan and TSan intercept before the layer's own check runs (which reads a block
// already freed): a checked build expects the sanitizer's report, the plain build (which CI
// runs as well) the layer's.
#if VESK_TEST_SANITIZER_EXIT != 0
#define VESK_EXPECT_FATAL_OR_SANITIZER(statement, regex, sanitizer_regex)                                              \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(VESK_TEST_SANITIZER_EXIT), sanitizer_regex)
#else
#define VESK_EXPECT_FATAL_OR_SANITIZER(statement, regex, sanitizer_regex) VESK_EXPECT_FATAL(statement, regex)
#endif

#endif // VESK_TEST_SUPPORT_H
