// vesk_utility_xls_operate - spreadsheets. Reading is FreeXL's (which allocates on the
// general heap, outside the accounting), after our own check has bounded what the file
// makes it allocate; writing is ours, in accounted memory, saved through a temporary file.
#include "store/vesk_utility_xls_operate.h"

#include <fcntl.h>
#include <freexl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "codec/vesk_utility_charset.h"
#include "core/vesk_utility_bytes.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_purposes.h"
#include "store/vesk_utility_xls_check.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

constexpr const char* k_cls = "vesk_xls_realize";

bool copy_out(const char* s, char* buf, uint32_t size)
{
    const size_t len = strlen(s);
    if (len >= size)
        return false;
    memcpy(buf, s, len + 1);
    return true;
}

}  // namespace

vesk_xls_realize::vesk_xls_realize() : m_book(&m_tally), m_conv(k_purpose_xls_write, &m_tally) { }

vesk_xls_realize::~vesk_xls_realize()
{
    close();
}

VESK_ERR vesk_xls_realize::close()
{
    if (m_reader != nullptr)
        freexl_close(m_reader);
    m_reader = nullptr;
    m_sheets = 0;
    m_active = 0xFFFFFFFFu;
    m_writing = false;
    m_book.clear();
    m_conv.reset();
    return VESK_OK;
}

VESK_ERR vesk_xls_realize::open_read(const char* path, uint32_t max_file_bytes, uint32_t max_cells)
{
    if (path == nullptr)
        return VESK_ERR_INVALID_PARAM;
    close();
    if (max_file_bytes == 0)
        max_file_bytes = VESK_XLS_DEFAULT_MAX_FILE_BYTES;
    if (max_cells == 0)
        max_cells = VESK_XLS_DEFAULT_MAX_CELLS;
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        VESK_LOG_ERR(k_cls, "open %s fail, errno = %d\n", path, errno);
        if (fd >= 0)
            ::close(fd);
        return VESK_ERR_OPERATE_FAIL;
    }
    if (static_cast<uint64_t>(st.st_size) > max_file_bytes) {
        VESK_LOG_ERR(k_cls, "%s: %lld bytes, above the cap of %u\n", path, static_cast<long long>(st.st_size),
                     max_file_bytes);
        ::close(fd);
        return VESK_ERR_NO_RESOURCE;
    }
    xls_check_result check;
    const VESK_ERR err = xls_check(fd_read_at, &fd, static_cast<uint64_t>(st.st_size), max_cells, &m_tally, &check);
    ::close(fd);
    if (err != VESK_OK) {
        VESK_LOG_ERR(k_cls, "%s refused: %s\n", path, check.why);
        return err;
    }
    // FreeXL reads the file again by name: one that is replaced in between is checked by
    // nobody, so callers open files that only they write.
    const void* handle = nullptr;
    unsigned int sheets = 0;
    const int rc = freexl_open(path, &handle);
    if (rc != FREEXL_OK || freexl_get_info(handle, FREEXL_BIFF_SHEET_COUNT, &sheets) != FREEXL_OK) {
        VESK_LOG_ERR(k_cls, "%s: the reader fails (%d)\n", path, rc);
        if (handle != nullptr)
            freexl_close(handle);
        return VESK_ERR_OPERATE_FAIL;
    }
    m_reader = handle;
    m_sheets = sheets;
    return VESK_OK;
}

VESK_ERR vesk_xls_realize::get_sheet_count(uint32_t* count)
{
    if (count == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (m_reader == nullptr && !m_writing)
        return VESK_ERR_OPERATE_FAIL;
    *count = m_reader != nullptr ? m_sheets : m_book.sheet_count();
    return VESK_OK;
}

VESK_ERR vesk_xls_realize::get_sheet_name(uint32_t sheet, char* buf, uint32_t size)
{
    if (buf == nullptr || size == 0)
        return VESK_ERR_INVALID_PARAM;
    const char* name = nullptr;
    if (m_reader == nullptr || sheet >= m_sheets)
        return VESK_ERR_OPERATE_FAIL;
    if (freexl_get_worksheet_name(m_reader, static_cast<unsigned short>(sheet), &name) != FREEXL_OK || name == nullptr)
        return VESK_ERR_OPERATE_FAIL;
    return copy_out(name, buf, size) ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR vesk_xls_realize::select(uint32_t sheet)
{
    if (m_reader == nullptr || sheet >= m_sheets)
        return VESK_ERR_OPERATE_FAIL;
    if (sheet == m_active)
        return VESK_OK;
    unsigned int rows = 0;
    unsigned short cols = 0;
    if (freexl_select_active_worksheet(m_reader, static_cast<unsigned short>(sheet)) != FREEXL_OK ||
        freexl_worksheet_dimensions(m_reader, &rows, &cols) != FREEXL_OK)
        return VESK_ERR_OPERATE_FAIL;
    m_active = sheet;
    m_rows = rows;
    m_cols = cols;
    return VESK_OK;
}

VESK_ERR vesk_xls_realize::get_dimensions(uint32_t sheet, uint32_t* rows, uint32_t* cols)
{
    if (rows == nullptr || cols == nullptr)
        return VESK_ERR_INVALID_PARAM;
    const VESK_ERR err = select(sheet);
    if (err != VESK_OK)
        return err;
    *rows = m_rows;
    *cols = m_cols;
    return VESK_OK;
}

VESK_ERR vesk_xls_realize::get_cell(uint32_t sheet, uint32_t row, uint32_t col, vesk_xls_cell_type* type,
                                    double* number, char* text, uint32_t text_size)
{
    if (type == nullptr || number == nullptr || text == nullptr || text_size == 0)
        return VESK_ERR_INVALID_PARAM;
    *type = VESK_XLS_CELL_EMPTY;
    *number = 0;
    text[0] = '\0';
    const VESK_ERR err = select(sheet);
    if (err != VESK_OK)
        return err;
    if (row >= m_rows || col >= m_cols)
        return VESK_OK;
    FreeXL_CellValue v;
    if (freexl_get_cell_value(m_reader, row, static_cast<unsigned short>(col), &v) != FREEXL_OK)
        return VESK_ERR_OPERATE_FAIL;
    switch (v.type) {
    case FREEXL_CELL_INT:
        *type = VESK_XLS_CELL_NUMBER;
        *number = v.value.int_value;
        return VESK_OK;
    case FREEXL_CELL_DOUBLE:
        *type = VESK_XLS_CELL_NUMBER;
        *number = v.value.double_value;
        return VESK_OK;
    case FREEXL_CELL_TEXT:
    case FREEXL_CELL_SST_TEXT:
    case FREEXL_CELL_DATE:
    case FREEXL_CELL_DATETIME:
    case FREEXL_CELL_TIME:
        *type = VESK_XLS_CELL_TEXT;
        return v.value.text_value != nullptr && copy_out(v.value.text_value, text, text_size) ? VESK_OK
                                                                                             : VESK_ERR_OPERATE_FAIL;
    default:
        return VESK_OK;
    }
}

VESK_ERR vesk_xls_realize::create()
{
    close();
    m_writing = true;
    return VESK_OK;
}

VESK_ERR vesk_xls_realize::as_utf8(const char* text, vesk_xls_charset charset, const char** out, uint32_t* len)
{
    const size_t n = strlen(text);
    if (n > 0x7FFFFFFF)
        return VESK_ERR_INVALID_PARAM;
    if (charset == VESK_XLS_UTF8) {
        *out = text;
        *len = static_cast<uint32_t>(n);
        return VESK_OK;
    }
    if (charset != VESK_XLS_GB2312)
        return VESK_ERR_INVALID_PARAM;
    // GB2312 takes two bytes per character and UTF-8 three: 1.5x, plus the terminator.
    if (!m_conv.resize_zero(static_cast<uint32_t>(n + n / 2 + 4)))
        return VESK_ERR_NO_RESOURCE;
    uint32_t got = 0;
    const VESK_ERR err =
        vesk_charset_convert("GB2312", "UTF-8", text, static_cast<uint32_t>(n), m_conv.data(), m_conv.size(), &got, false);
    if (err != VESK_OK)
        return err == VESK_ERR_OPERATE_FAIL ? VESK_ERR_INVALID_PARAM : err;
    *out = m_conv.data();
    *len = got;
    return VESK_OK;
}

VESK_ERR vesk_xls_realize::add_sheet(const char* name, vesk_xls_charset charset, uint32_t* sheet)
{
    if (name == nullptr || sheet == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (!m_writing)
        return VESK_ERR_OPERATE_FAIL;
    const char* s = nullptr;
    uint32_t len = 0;
    VESK_ERR err = as_utf8(name, charset, &s, &len);
    if (err == VESK_OK)
        err = m_book.add_sheet(s, len, sheet);
    if (err != VESK_OK)
        VESK_LOG_ERR(k_cls, "sheet name refused (0x%x): 1-31 characters, none of : \\ / ? * [ ], distinct\n", err);
    return err;
}

VESK_ERR vesk_xls_realize::set_text(uint32_t sheet, uint32_t row, uint32_t col, const char* text,
                                    vesk_xls_charset charset)
{
    if (text == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (!m_writing)
        return VESK_ERR_OPERATE_FAIL;
    const char* s = nullptr;
    uint32_t len = 0;
    VESK_ERR err = as_utf8(text, charset, &s, &len);
    if (err == VESK_OK)
        err = m_book.set_text(sheet, row, col, s, len);
    if (err == VESK_ERR_INVALID_PARAM)
        VESK_LOG_ERR(k_cls, "cell (%u, %u, %u) refused: rows < 65536, columns < 256, text of valid characters, "
                            "at most 32767\n", sheet, row, col);
    return err;
}

VESK_ERR vesk_xls_realize::set_number(uint32_t sheet, uint32_t row, uint32_t col, double value)
{
    if (!m_writing)
        return VESK_ERR_OPERATE_FAIL;
    const VESK_ERR err = m_book.set_number(sheet, row, col, value);
    if (err == VESK_ERR_INVALID_PARAM)
        VESK_LOG_ERR(k_cls, "cell (%u, %u, %u) refused: rows < 65536, columns < 256, a finite number\n", sheet, row,
                     col);
    return err;
}

VESK_ERR vesk_xls_realize::save(const char* path)
{
    if (path == nullptr)
        return VESK_ERR_INVALID_PARAM;
    if (!m_writing || m_book.sheet_count() == 0)
        return VESK_ERR_OPERATE_FAIL;
    char tmp[512];
    if (snprintf(tmp, sizeof(tmp), "%s.tmp", path) >= static_cast<int>(sizeof(tmp)))
        return VESK_ERR_INVALID_PARAM;
    const int fd = ::open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        VESK_LOG_ERR(k_cls, "open %s fail, errno = %d\n", tmp, errno);
        return VESK_ERR_OPERATE_FAIL;
    }
    cfb_writer out(fd);
    VESK_ERR err = out.begin() ? m_book.write(out) : VESK_ERR_OPERATE_FAIL;
    if (err == VESK_OK && (!out.finish() || fsync(fd) != 0))
        err = VESK_ERR_OPERATE_FAIL;
    if (::close(fd) != 0 && err == VESK_OK)
        err = VESK_ERR_OPERATE_FAIL;
    if (err == VESK_OK && rename(tmp, path) != 0)
        err = VESK_ERR_OPERATE_FAIL;
    if (err != VESK_OK) {
        VESK_LOG_ERR(k_cls, "save %s fail (0x%x), errno = %d\n", path, err, errno);
        unlink(tmp);
    }
    return err;
}

}  // namespace vesk_utility
