// vesk_utility_xls.h - the spreadsheet operator: reads .xls workbooks (sheets, names,
// dimensions, cells) and writes BIFF8 .xls workbooks of text and number cells, the form in
// which the recorder exports logs, event lists and user tables.
//
// Contract
//   One operator holds either a workbook opened for reading or one being built for writing
//   (open_read / create); close() drops it, and either call first drops what was held.
//   Sheets, rows and columns are 0-based. Text comes out in UTF-8.
//   Reading: the file is checked before it is parsed, so that a hostile or oversize file is
//   refused before anything large is allocated: above max_file_bytes, or claiming more than
//   max_cells cells in the sheets' used areas (rows x columns, summed), or more strings than
//   its bytes can hold: VESK_ERR_NO_RESOURCE. Encrypted workbooks, formats before BIFF5, and
//   shared strings whose characters run through more than two records (over about 4,000
//   Chinese or 8,000 Latin characters; the reading library would return them garbled):
//   VESK_ERR_NOT_SUPPORT. Malformed: VESK_ERR_OPERATE_FAIL. Dates read as text.
//   Writing: cells are kept in memory (about 16 bytes each plus the distinct strings, all
//   accounted) until save(), which writes the whole workbook to a temporary file beside
//   path, flushes it and renames it over path. The format's limits are checked when a cell
//   or sheet is added: rows < 65536, columns < 256, sheet names of 1-31 characters without
//   : \ / ? * [ ] and distinct, text of at most 32767 characters: VESK_ERR_INVALID_PARAM.
//   A cell set twice keeps the last value.
//   An operator is not thread-safe: one thread uses it at a time, or the caller locks.
//   Reading goes through a library that allocates outside the layer's accounting.
#ifndef VESK_UTILITY_XLS_H
#define VESK_UTILITY_XLS_H

#include "vesk_utility_types.h"

namespace vesk_soft
{

enum vesk_xls_cell_type : uint32_t {
    VESK_XLS_CELL_EMPTY = 0,
    VESK_XLS_CELL_NUMBER = 1,
    VESK_XLS_CELL_TEXT = 2,
};

// Character set of the text handed to the writer.
enum vesk_xls_charset : uint32_t {
    VESK_XLS_UTF8 = 0,
    VESK_XLS_GB2312 = 1,
};

// Defaults of open_read's limits (when 0 is passed).
constexpr uint32_t VESK_XLS_DEFAULT_MAX_FILE_BYTES = 8u << 20;
constexpr uint32_t VESK_XLS_DEFAULT_MAX_CELLS = 1u << 20;

class vesk_xls_operate
{
public:
    vesk_xls_operate() = default;
    vesk_xls_operate(const vesk_xls_operate&) = delete;
    vesk_xls_operate& operator=(const vesk_xls_operate&) = delete;

    // ---- reading
    virtual VESK_ERR open_read(const char* path, uint32_t max_file_bytes, uint32_t max_cells) = 0;
    // Sheets of the workbook read, or of the one being written.
    virtual VESK_ERR get_sheet_count(uint32_t* count) = 0;
    // Sheet name in UTF-8 (NUL-terminated; VESK_ERR_OPERATE_FAIL when it does not fit).
    virtual VESK_ERR get_sheet_name(uint32_t sheet, char* buf, uint32_t size) = 0;
    // Rows and columns of the sheet's used area from A1 (0 x 0 for an empty sheet).
    virtual VESK_ERR get_dimensions(uint32_t sheet, uint32_t* rows, uint32_t* cols) = 0;
    // One cell: *type always; *number for a number; text (NUL-terminated UTF-8) for text, ""
    // otherwise (VESK_ERR_OPERATE_FAIL when it does not fit). Outside the used area: empty.
    virtual VESK_ERR get_cell(uint32_t sheet, uint32_t row, uint32_t col, vesk_xls_cell_type* type, double* number,
                              char* text, uint32_t text_size) = 0;

    // ---- writing
    // Starts an empty workbook.
    virtual VESK_ERR create() = 0;
    // Appends a sheet; *sheet is its index.
    virtual VESK_ERR add_sheet(const char* name, vesk_xls_charset charset, uint32_t* sheet) = 0;
    virtual VESK_ERR set_text(uint32_t sheet, uint32_t row, uint32_t col, const char* text,
                              vesk_xls_charset charset) = 0;
    virtual VESK_ERR set_number(uint32_t sheet, uint32_t row, uint32_t col, double value) = 0;
    // Writes the workbook (at least one sheet); it stays in memory for further changes.
    virtual VESK_ERR save(const char* path) = 0;

    virtual VESK_ERR close() = 0;
    virtual ~vesk_xls_operate() { }
};

// A new operator without a workbook, recorded on the "xls fd" list. NULL before
// initialisation.
VESK_API vesk_xls_operate* vesk_utility_new_xls_operate(vesk_user_id usr_id, const char* name);
// Closes and destroys an operator from the call above; an unknown one is fatal.
VESK_API VESK_ERR vesk_utility_delete_xls_operate(vesk_xls_operate* op, const char* file, const char* func);

} // namespace vesk_soft

#endif // VESK_UTILITY_XLS_H
