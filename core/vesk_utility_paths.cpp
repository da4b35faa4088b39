// vesk_utility_paths - the VESK_UTILITY_ROOT prefix of the fixed paths.
#include "core/vesk_utility_paths.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vesk_utility {

namespace {

constexpr size_t k_root_max = 256;
char s_root[k_root_max];

bool read_root()
{
    const char* env = getenv("VESK_UTILITY_ROOT");
    if (env == nullptr)
        return true;
    snprintf(s_root, sizeof(s_root), "%s", env);
    // "/x/" + "/usr/lib/..." must not give "/x//usr"; the fixed paths carry the slash.
    size_t n = strlen(s_root);
    while (n > 0 && s_root[n - 1] == '/')
        s_root[--n] = '\0';
    return true;
}

}  // namespace

const char* vesk_root()
{
    static const bool s_read = read_root();  // thread-safe once
    (void)s_read;
    return s_root;
}

char* vesk_rooted_path(char* out, size_t size, const char* fixed)
{
    snprintf(out, size, "%s%s", vesk_root(), fixed);
    return out;
}

}  // namespace vesk_utility
