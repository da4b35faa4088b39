// Shared helpers of the test executables.
#include "test_support.h"

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

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path);
}

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
        nftw(s_root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
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
    return testing::internal::GetCapturedStdout();
}

void stdout_to_stderr()
{
    fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

std::string without_log_messages(const std::string& text)
{
    std::string out;
    size_t at = 0;
    for (;;) {
        const size_t start = text.find("\e[", at);
        const size_t tag = start == std::string::npos ? start : text.find("m[UTL] ", start);
        if (start == std::string::npos || tag == std::string::npos || tag > start + 12) {
            out.append(text, at, std::string::npos);
            return out;
        }
        const size_t end = text.find("\e[m", tag);
        if (end == std::string::npos) {
            out.append(text, at, std::string::npos);
            return out;
        }
        out.append(text, at, start - at);
        at = end + 3;
    }
}

int count_of(const std::string& text, const std::string& needle)
{
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        n++;
    return n;
}

} // namespace vesk_test
