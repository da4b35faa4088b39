// Helpers of the picture tests: files in a scratch folder, oracle commands, and PSNR.
#ifndef VESK_PICTURE_TEST_UTIL_H
#define VESK_PICTURE_TEST_UTIL_H

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "test_support.h"

namespace picture_test
{

using bytes = std::vector<uint8_t>;

inline std::string scratch(const std::string& name)
{
    return vesk_test::private_root() + "/" + name;
}

inline bytes read_all(const std::string& path)
{
    bytes out;
    if (FILE* f = fopen(path.c_str(), "rb")) {
        uint8_t buf[65536];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
            out.insert(out.end(), buf, buf + n);
        fclose(f);
    }
    return out;
}

inline bool write_all(const std::string& path, const bytes& data)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    const bool ok = fwrite(data.data(), 1, data.size(), f) == data.size();
    return fclose(f) == 0 && ok;
}

// Runs a shell command quietly; true on exit status 0.
inline bool sh(const std::string& cmd)
{
    return system(("(" + cmd + ") >/dev/null 2>&1").c_str()) == 0;
}

inline bool have(const char* tool)
{
    return sh(std::string("command -v ") + tool);
}

// PSNR in dB of two equally long byte arrays (peak 255); 99 when identical.
inline double psnr(const bytes& a, const bytes& b)
{
    if (a.size() != b.size() || a.empty())
        return -1;
    double se = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double d = double(a[i]) - b[i];
        se += d * d;
    }
    if (se == 0)
        return 99;
    return 10 * std::log10(255.0 * 255.0 * a.size() / se);
}

// Largest absolute difference, and where (index), of two equally long arrays; -1 if sizes differ.
inline int max_diff(const bytes& a, const bytes& b, size_t* where = nullptr, uint8_t ignore_mask = 0)
{
    if (a.size() != b.size())
        return -1;
    int worst = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const int d = std::abs(int(a[i] & ~ignore_mask) - int(b[i] & ~ignore_mask));
        if (d > worst) {
            worst = d;
            if (where != nullptr)
                *where = i;
        }
    }
    return worst;
}

} // namespace picture_test

#endif // VESK_PICTURE_TEST_UTIL_H
