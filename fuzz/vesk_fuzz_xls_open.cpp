// Fuzz target of opening a spreadsheet: the input is a whole .xls file as a USB stick may
// bring it. It goes through the bounds check and, when accepted, through the reading
// library, and every cell is then read; nothing may read out of bounds or allocate beyond
// what the check allowed (libFuzzer's -rss_limit_mb catches the latter).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "store/vesk_utility_xls_operate.h"

using namespace vesk_soft;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // An in-memory file: the reading library takes a path.
    static const int fd = memfd_create("xls_open", 0);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    vesk_utility::vesk_xls_realize x;
    if (x.open_read(path, 1u << 20, 1u << 16) != VESK_OK)
        return 0;
    uint32_t sheets = 0;
    if (x.get_sheet_count(&sheets) != VESK_OK)
        abort();
    char text[512];
    for (uint32_t s = 0; s < sheets; s++) {
        uint32_t rows = 0, cols = 0;
        x.get_sheet_name(s, text, sizeof(text));
        if (x.get_dimensions(s, &rows, &cols) != VESK_OK)
            continue;
        for (uint32_t r = 0; r < rows; r++) {
            for (uint32_t c = 0; c < cols; c++) {
                vesk_xls_cell_type t;
                double v;
                x.get_cell(s, r, c, &t, &v, text, sizeof(text));
            }
        }
    }
    return 0;
}
