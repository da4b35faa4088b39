// vesk_utility_xls_operate - the spreadsheet operator: reading through FreeXL after the
// file has passed the bounds check, writing through the BIFF8 writer and a compound file.
#ifndef VESK_UTILITY_XLS_OPERATE_H
#define VESK_UTILITY_XLS_OPERATE_H

#include "store/vesk_utility_xls_biff.h"
#include "vesk_utility.h"

namespace vesk_utility {

using vesk_soft::VESK_ERR;

class vesk_xls_realize final : public vesk_soft::vesk_xls_operate {
public:
    vesk_xls_realize();
    ~vesk_xls_realize() override;

    VESK_ERR open_read(const char* path, uint32_t max_file_bytes, uint32_t max_cells) override;
    VESK_ERR get_sheet_count(uint32_t* count) override;
    VESK_ERR get_sheet_name(uint32_t sheet, char* buf, uint32_t size) override;
    VESK_ERR get_dimensions(uint32_t sheet, uint32_t* rows, uint32_t* cols) override;
    VESK_ERR get_cell(uint32_t sheet, uint32_t row, uint32_t col, vesk_soft::vesk_xls_cell_type* type, double* number,
                      char* text, uint32_t text_size) override;
    VESK_ERR create() override;
    VESK_ERR add_sheet(const char* name, vesk_soft::vesk_xls_charset charset, uint32_t* sheet) override;
    VESK_ERR set_text(uint32_t sheet, uint32_t row, uint32_t col, const char* text,
                      vesk_soft::vesk_xls_charset charset) override;
    VESK_ERR set_number(uint32_t sheet, uint32_t row, uint32_t col, double value) override;
    VESK_ERR save(const char* path) override;
    VESK_ERR close() override;

    // Highest accounted bytes this operator's writer and checks have held at once.
    uint64_t peak_bytes() const { return m_tally.peak; }

private:
    VESK_ERR select(uint32_t sheet);
    // text in charset as UTF-8 in m_conv (or text itself); *len its length.
    VESK_ERR as_utf8(const char* text, vesk_soft::vesk_xls_charset charset, const char** out, uint32_t* len);

    xls_tally m_tally;
    const void* m_reader = nullptr;   // FreeXL handle while reading
    uint32_t m_sheets = 0;
    uint32_t m_active = 0xFFFFFFFFu;  // sheet FreeXL has selected
    uint32_t m_rows = 0;
    uint32_t m_cols = 0;
    bool m_writing = false;
    xls_book m_book;
    xls_array<char> m_conv;           // converted text of the last call
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_XLS_OPERATE_H
