// Shared helpers of the test executables.
#include "test_support.h"

#include <dirent.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace vesk_test
{

namespace
{

std::string s_root;
bool s_owner = false;

} // namespace

void make_private_root()
{
    const char* env = getenv("VESK_UTILITY_ROOT");
    if (env != nullptr && env[0] != '\0') {
        s_root = env;
        return;
    }
    char tmpl[] = "/tmp/vesk_test.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        exit(2);
    }
    s_root = tmpl;
    s_owner = true;
    for (const char* dir : { "/usr", "/usr/lib", "/config", "/reserve", "/etc", "/mnt", "/mnt/mtd", "/mnt/mtd/res",
             "/mnt/mtd/res/platform", "/mnt/mtd/app" })
        mkdir((s_root + dir).c_str(), 0755);
    setenv("VESK_UTILITY_ROOT", s_root.c_str(), 1);
}

void remove_private_root()
{
    if (s_owner && !s_root.empty())
        nftw(s_root.c_str(), [](const char* path, const struct stat*, int, FTW*) { return remove(path); }, 16,
            FTW_DEPTH | FTW_PHYS);
}

std::string private_root()
{
    return s_root;
}

std::string capture_stdout(const std::function<void()>& fn)
{
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return without_background_messages(testing::internal::GetCapturedStdout());
}

void stdout_to_stderr()
{
    fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

namespace
{

// text without the layer's coloured log messages ("\e[...m[UTL] ...\e[m") for which drop holds.
template <class Drop> std::string filter_log_messages(const std::string& text, Drop drop)
{
    std::string out;
    size_t at = 0;
    for (;;) {
        const size_t start = text.find("\e[", at);
        const size_t tag = start == std::string::npos ? start : text.find("m[UTL] ", start);
        const size_t end = tag == std::string::npos ? tag : text.find("\e[m", tag);
        if (start == std::string::npos || tag == std::string::npos || tag > start + 12 || end == std::string::npos) {
            out.append(text, at, std::string::npos);
            return out;
        }
        out.append(text, at, start - at);
        if (!drop(text.substr(start, end + 3 - start)))
            out.append(text, start, end + 3 - start);
        at = end + 3;
    }
}

} // namespace

std::string without_log_messages(const std::string& text)
{
    return filter_log_messages(text, [](const std::string&) { return true; });
}

std::string without_background_messages(const std::string& text)
{
    return filter_log_messages(text, [](const std::string& message) {
        return message.find(k_unconnected_client) != std::string::npos
            || (message.find("::rec_answer_msg[") != std::string::npos
                && message.find("last message repeated") != std::string::npos);
    });
}

int open_descriptors()
{
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr)
        return -1;
    while (readdir(d) != nullptr)
        n++;
    closedir(d);
    return n;
}

int count_of(const std::string& text, const std::string& needle)
{
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        n++;
    return n;
}

} // namespace vesk_test
