// vesk_utility_xls_biff - the BIFF8 workbook writer: sheets of text and number cells kept in
// accounted memory, serialised as the record stream of a .xls file (globals with fonts,
// formats, the sheet directory and the shared string table, then one substream per sheet).
#ifndef VESK_UTILITY_XLS_BIFF_H
#define VESK_UTILITY_XLS_BIFF_H

#include <cstdint>

#include "store/vesk_utility_xls_cfb.h"
#include "store/vesk_utility_xls_mem.h"

namespace vesk_utility {

constexpr uint32_t k_xls_max_rows = 65536;
constexpr uint32_t k_xls_max_cols = 256;
constexpr uint32_t k_xls_max_sheets = 256;
constexpr uint32_t k_xls_max_name_units = 31;
constexpr uint32_t k_xls_max_text_units = 32767;

// Invariants: every stored string is valid UTF-8 whose UTF-16 length is recorded beside it;
// equal strings are stored once (the hash chains link them); every cell names an existing
// sheet and lies inside the format's limits.
class xls_book {
public:
    explicit xls_book(xls_tally* tally);
    xls_book(const xls_book&) = delete;
    xls_book& operator=(const xls_book&) = delete;

    // All take UTF-8. VESK_ERR_INVALID_PARAM for anything outside the format's limits or
    // text that is not UTF-8; VESK_ERR_NO_RESOURCE when memory fails (nothing changes).
    VESK_ERR add_sheet(const char* name, uint32_t len, uint32_t* index);
    VESK_ERR set_text(uint32_t sheet, uint32_t row, uint32_t col, const char* text, uint32_t len);
    VESK_ERR set_number(uint32_t sheet, uint32_t row, uint32_t col, double value);
    // Writes the record stream into out (which the caller has begun and will finish).
    // Sorts the cells and drops overwritten ones first. VESK_ERR_OPERATE_FAIL on a write
    // error, VESK_ERR_NO_RESOURCE when memory fails.
    VESK_ERR write(cfb_writer& out);
    void clear();
    uint32_t sheet_count() const { return m_sheets.size(); }

private:
    // key = sheet << 24 | row << 8 | col (the record order); tag = type << 30 | sequence.
    struct cell {
        uint32_t key;
        uint32_t tag;
        uint32_t lo;  // string index, or the low half of the number
        uint32_t hi;
    };
    struct text_ref {
        uint32_t off;    // in m_chars
        uint32_t len;    // UTF-8 bytes
        uint32_t next;   // next string of the same hash bucket, or k_none
        uint16_t units;  // UTF-16 length
        uint16_t wide;   // 1 when a character is above U+00FF
    };
    struct sheet_ref {
        uint32_t name;   // string index of the name
        uint32_t pos;    // stream offset of its BOF, known after the counting pass
    };
    static constexpr uint32_t k_none = 0xFFFFFFFFu;

    // Index of the string (added when new).
    VESK_ERR intern(const char* s, uint32_t len, uint32_t* index);
    VESK_ERR put_cell(uint32_t sheet, uint32_t row, uint32_t col, uint32_t type, uint32_t lo, uint32_t hi);
    // One pass over the workbook; out == NULL only counts positions.
    bool emit(cfb_writer* out);
    bool emit_sst(cfb_writer* out);
    bool emit_sheet(cfb_writer* out, uint32_t sheet, uint32_t& next_cell);
    // Record assembly in m_rec; the record goes out (or is counted) at rec_end.
    void rec_begin(uint16_t type);
    void rec_put(const void* p, uint32_t n);
    void rec_u8(uint8_t v) { rec_put(&v, 1); }
    void rec_u16(uint16_t v);
    void rec_u32(uint32_t v);
    bool rec_end(cfb_writer* out);
    uint32_t rec_room() const;
    // At most n UTF-16 code units of a stored string into the record, from the UTF-8 byte
    // offset cursor (advanced past what was written).
    void rec_units(const text_ref& t, uint32_t n, uint32_t& cursor);

    xls_tally* m_tally;
    xls_array<char> m_chars;
    xls_array<text_ref> m_strings;
    xls_array<uint32_t> m_buckets;
    xls_array<cell> m_cells;
    xls_array<sheet_ref> m_sheets;
    xls_array<uint8_t> m_rec;
    uint32_t m_rec_len = 0;
    uint64_t m_pos = 0;        // stream offset of the next record
    uint32_t m_seq = 0;
    uint32_t m_sst_refs = 0;   // text cells after dropping overwritten ones
    bool m_sorted = true;      // cells are in key order without duplicates
    // The string table's index for fast lookup: one entry per bucket of m_ext_step strings.
    uint32_t m_ext_step = 8;
    uint32_t m_ext_count = 0;
    uint32_t m_ext_pos[128];
    uint16_t m_ext_off[128];
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_XLS_BIFF_H
