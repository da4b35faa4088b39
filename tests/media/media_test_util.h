// Helpers of the media tests: scratch files, one runner per oracle tool, and picture metrics.
#ifndef VESK_MEDIA_TEST_UTIL_H
#define VESK_MEDIA_TEST_UTIL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "test_support.h"

namespace media_test
{

using bytes = std::vector<uint8_t>;

inline std::string scratch(const std::string& name)
{
    return vesk_test::private_root() + "/" + name;
}

inline bytes read_all(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bytes concat(std::initializer_list<bytes> parts)
{
    bytes all;
    for (const bytes& b : parts)
        all.insert(all.end(), b.begin(), b.end());
    return all;
}

// Little-endian fields of `width` bytes each.
inline bytes le(std::initializer_list<uint32_t> values, int width)
{
    bytes b;
    for (uint32_t v : values)
        for (int i = 0; i < width; i++)
            b.push_back(uint8_t(v >> (8 * i)));
    return b;
}

inline bool write_all(const std::string& path, const bytes& data)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return bool(out.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size())).flush());
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

// The oracles: ffmpeg and sox quiet and overwriting; a reader's output as lines.
inline bool ffmpeg(const std::string& args)
{
    return sh("ffmpeg -nostdin -v error -y " + args);
}

inline bool sox(const std::string& args)
{
    return sh("sox -V1 " + args);
}

inline std::vector<std::string> lines_of(const std::string& cmd)
{
    std::vector<std::string> out(1);
    FILE* p = popen(cmd.c_str(), "r");
    for (int c; p != nullptr && (c = fgetc(p)) != EOF;) {
        if (c == '\n')
            out.emplace_back();
        else
            out.back().push_back(char(c));
    }
    if (p != nullptr)
        pclose(p);
    if (out.back().empty())
        out.pop_back();
    return out;
}

// PSNR in dB of two equally long byte arrays (peak 255); 99 when identical, -1 if sizes differ.
inline double psnr(const bytes& a, const bytes& b)
{
    if (a.size() != b.size() || a.empty())
        return -1;
    double se = 0;
    for (size_t i = 0; i < a.size(); ++i)
        se += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * a.size() / se);
}

// Largest absolute difference of two equally long arrays, and where; -1 if sizes differ.
inline int max_diff(const bytes& a, const bytes& b, size_t* where = nullptr)
{
    int worst = a.size() == b.size() ? 0 : -1;
    for (size_t i = 0; worst >= 0 && i < a.size(); ++i) {
        const int d = std::abs(int(a[i]) - int(b[i]));
        if (d > worst && where != nullptr)
            *where = i;
        worst = std::max(worst, d);
    }
    return worst;
}

} // namespace media_test

#endif // VESK_MEDIA_TEST_UTIL_H
