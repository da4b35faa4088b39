// vesk_utility_xls_biff - writes BIFF8 workbooks. Cells and distinct strings are kept in
// accounted arrays; save makes two passes over them, the first only counting bytes so that
// the sheet directory at the front can carry each sheet's stream offset, the second writing.
#include "store/vesk_utility_xls_biff.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/vesk_utility_purposes.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

// Record types, and the length limit of one record's data.
constexpr uint16_t k_bof = 0x0809;
constexpr uint16_t k_eof = 0x000A;
constexpr uint16_t k_codepage = 0x0042;
constexpr uint16_t k_datemode = 0x0022;
constexpr uint16_t k_window1 = 0x003D;
constexpr uint16_t k_font = 0x0031;
constexpr uint16_t k_xf = 0x00E0;
constexpr uint16_t k_style = 0x0293;
constexpr uint16_t k_boundsheet = 0x0085;
constexpr uint16_t k_sst = 0x00FC;
constexpr uint16_t k_continue = 0x003C;
constexpr uint16_t k_extsst = 0x00FF;
constexpr uint16_t k_dimensions = 0x0200;
constexpr uint16_t k_window2 = 0x023E;
constexpr uint16_t k_labelsst = 0x00FD;
constexpr uint16_t k_number = 0x0203;
constexpr uint32_t k_max_record = 8224;

constexpr uint32_t k_type_text = 1;
constexpr uint32_t k_type_number = 2;
constexpr uint32_t k_seq_mask = 0x3FFFFFFFu;
constexpr uint16_t k_cell_xf = 15;  // the first cell format, after the 15 style formats

// Decodes one UTF-8 character at s[i] (advancing i); -1 when malformed (overlong forms,
// surrogates and values above U+10FFFF included).
int32_t next_utf8(const uint8_t* s, uint32_t len, uint32_t& i)
{
    const uint8_t c = s[i];
    if (c < 0x80) {
        i++;
        return c;
    }
    uint32_t n;
    int32_t cp, min;
    if ((c & 0xE0) == 0xC0) {
        n = 1, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        n = 2, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        n = 3, cp = c & 0x07, min = 0x10000;
    } else {
        return -1;
    }
    if (len - i <= n)
        return -1;
    for (uint32_t k = 1; k <= n; k++) {
        if ((s[i + k] & 0xC0) != 0x80)
            return -1;
        cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return -1;
    i += n + 1;
    return cp;
}

// UTF-16 length of valid UTF-8, and whether any character needs more than 8 bits.
bool measure_utf8(const char* s, uint32_t len, uint32_t* units, bool* wide)
{
    const uint8_t* p = reinterpret_cast<const uint8_t*>(s);
    uint32_t u = 0;
    bool w = false;
    for (uint32_t i = 0; i < len;) {
        const int32_t cp = next_utf8(p, len, i);
        if (cp < 0)
            return false;
        u += cp >= 0x10000 ? 2 : 1;
        w = w || cp > 0xFF;
    }
    *units = u;
    *wide = w;
    return true;
}

uint32_t hash_bytes(const char* s, uint32_t len)
{
    uint32_t h = 2166136261u;
    for (uint32_t i = 0; i < len; i++)
        h = (h ^ static_cast<uint8_t>(s[i])) * 16777619u;
    return h;
}

}  // namespace

xls_book::xls_book(xls_tally* tally)
    : m_tally(tally), m_chars(k_purpose_xls_write, tally), m_strings(k_purpose_xls_write, tally),
      m_buckets(k_purpose_xls_write, tally), m_cells(k_purpose_xls_write, tally),
      m_sheets(k_purpose_xls_write, tally), m_rec(k_purpose_xls_write, tally)
{
}

void xls_book::clear()
{
    m_chars.reset();
    m_strings.reset();
    m_buckets.reset();
    m_cells.reset();
    m_sheets.reset();
    m_rec.reset();
    m_seq = 0;
    m_sorted = true;
}

VESK_ERR xls_book::intern(const char* s, uint32_t len, uint32_t* index)
{
    uint32_t units = 0;
    bool wide = false;
    if (!measure_utf8(s, len, &units, &wide) || units > k_xls_max_text_units)
        return VESK_ERR_INVALID_PARAM;
    // Buckets double when strings outnumber them, so chains stay short: O(1) expected.
    if (m_strings.size() >= m_buckets.size()) {
        const uint32_t n = m_buckets.size() == 0 ? 1024 : m_buckets.size() * 2;
        xls_array<uint32_t> fresh(k_purpose_xls_write, m_tally);
        if (!fresh.resize_zero(n) || !m_strings.reserve(m_strings.size() + 1))
            return VESK_ERR_NO_RESOURCE;
        for (uint32_t b = 0; b < n; b++)
            fresh[b] = k_none;
        for (uint32_t i = 0; i < m_strings.size(); i++) {
            const uint32_t b = hash_bytes(m_chars.data() + m_strings[i].off, m_strings[i].len) & (n - 1);
            m_strings[i].next = fresh[b];
            fresh[b] = i;
        }
        m_buckets.reset();
        if (!m_buckets.append(fresh.data(), n))
            return VESK_ERR_NO_RESOURCE;
    }
    const uint32_t b = hash_bytes(s, len) & (m_buckets.size() - 1);
    for (uint32_t i = m_buckets[b]; i != k_none; i = m_strings[i].next) {
        if (m_strings[i].len == len && memcmp(m_chars.data() + m_strings[i].off, s, len) == 0) {
            *index = i;
            return VESK_OK;
        }
    }
    const text_ref t = {m_chars.size(), len, m_buckets[b], static_cast<uint16_t>(units), static_cast<uint16_t>(wide ? 1 : 0)};
    if (!m_strings.reserve(m_strings.size() + 1) || !m_chars.append(s, len))
        return VESK_ERR_NO_RESOURCE;
    m_strings.push(t);
    m_buckets[b] = m_strings.size() - 1;
    *index = m_strings.size() - 1;
    return VESK_OK;
}

VESK_ERR xls_book::add_sheet(const char* name, uint32_t len, uint32_t* index)
{
    if (m_sheets.size() >= k_xls_max_sheets || len == 0)
        return VESK_ERR_INVALID_PARAM;
    for (uint32_t i = 0; i < len; i++)
        if (strchr(":\\/?*[]", name[i]) != nullptr || name[i] == '\0')
            return VESK_ERR_INVALID_PARAM;
    if (name[0] == '\'' || name[len - 1] == '\'')
        return VESK_ERR_INVALID_PARAM;
    uint32_t units = 0;
    bool wide = false;
    if (!measure_utf8(name, len, &units, &wide) || units > k_xls_max_name_units)
        return VESK_ERR_INVALID_PARAM;
    // Spreadsheet programs compare sheet names without case.
    for (uint32_t s = 0; s < m_sheets.size(); s++) {
        const text_ref& t = m_strings[m_sheets[s].name];
        if (t.len != len)
            continue;
        bool same = true;
        for (uint32_t i = 0; i < len && same; i++) {
            auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; };
            same = lower(m_chars[t.off + i]) == lower(name[i]);
        }
        if (same)
            return VESK_ERR_INVALID_PARAM;
    }
    uint32_t str = 0;
    VESK_ERR err = intern(name, len, &str);
    if (err != VESK_OK)
        return err;
    if (!m_sheets.push(sheet_ref{str, 0}))
        return VESK_ERR_NO_RESOURCE;
    *index = m_sheets.size() - 1;
    return VESK_OK;
}

VESK_ERR xls_book::put_cell(uint32_t sheet, uint32_t row, uint32_t col, uint32_t type, uint32_t lo, uint32_t hi)
{
    if (m_seq > k_seq_mask)
        return VESK_ERR_NO_RESOURCE;
    const cell c = {(sheet << 24) | (row << 8) | col, (type << 30) | m_seq, lo, hi};
    const uint32_t n = m_cells.size();
    if (n > 0 && m_cells[n - 1].key == c.key) {
        m_cells[n - 1] = c;  // the common overwrite costs nothing at save
    } else {
        if (!m_cells.push(c))
            return VESK_ERR_NO_RESOURCE;
        if (n > 0 && m_cells[n - 1].key > c.key)
            m_sorted = false;
    }
    m_seq++;
    return VESK_OK;
}

VESK_ERR xls_book::set_text(uint32_t sheet, uint32_t row, uint32_t col, const char* text, uint32_t len)
{
    if (sheet >= m_sheets.size() || row >= k_xls_max_rows || col >= k_xls_max_cols)
        return VESK_ERR_INVALID_PARAM;
    uint32_t str = 0;
    const VESK_ERR err = intern(text, len, &str);
    return err != VESK_OK ? err : put_cell(sheet, row, col, k_type_text, str, 0);
}

VESK_ERR xls_book::set_number(uint32_t sheet, uint32_t row, uint32_t col, double value)
{
    if (sheet >= m_sheets.size() || row >= k_xls_max_rows || col >= k_xls_max_cols || !std::isfinite(value))
        return VESK_ERR_INVALID_PARAM;
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    return put_cell(sheet, row, col, k_type_number, static_cast<uint32_t>(bits), static_cast<uint32_t>(bits >> 32));
}

// ---- record assembly ----------------------------------------------------------------------

void xls_book::rec_begin(uint16_t type)
{
    m_rec[0] = static_cast<uint8_t>(type);
    m_rec[1] = static_cast<uint8_t>(type >> 8);
    m_rec_len = 0;
}

uint32_t xls_book::rec_room() const
{
    return k_max_record - m_rec_len;
}

void xls_book::rec_put(const void* p, uint32_t n)
{
    memcpy(m_rec.data() + 4 + m_rec_len, p, n);
    m_rec_len += n;
}

void xls_book::rec_u16(uint16_t v)
{
    const uint8_t b[2] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)};
    rec_put(b, 2);
}

void xls_book::rec_u32(uint32_t v)
{
    rec_u16(static_cast<uint16_t>(v));
    rec_u16(static_cast<uint16_t>(v >> 16));
}

bool xls_book::rec_end(cfb_writer* out)
{
    m_rec[2] = static_cast<uint8_t>(m_rec_len);
    m_rec[3] = static_cast<uint8_t>(m_rec_len >> 8);
    m_pos += 4 + m_rec_len;
    return out == nullptr || out->write(m_rec.data(), 4 + m_rec_len);
}

void xls_book::rec_units(const text_ref& t, uint32_t n, uint32_t& cursor)
{
    const uint8_t* s = reinterpret_cast<const uint8_t*>(m_chars.data() + t.off);
    uint8_t* o = m_rec.data() + 4 + m_rec_len;
    uint32_t w = 0;
    while (w < n && cursor < t.len) {
        uint32_t next = cursor;
        const int32_t cp = next_utf8(s, t.len, next);
        if (!t.wide) {
            o[w++] = static_cast<uint8_t>(cp);
        } else if (cp < 0x10000) {
            o[2 * w] = static_cast<uint8_t>(cp);
            o[2 * w + 1] = static_cast<uint8_t>(cp >> 8);
            w++;
        } else {
            if (w + 2 > n)
                break;  // a surrogate pair is never split between records
            const uint32_t v = static_cast<uint32_t>(cp) - 0x10000;
            const uint16_t hi = static_cast<uint16_t>(0xD800 | (v >> 10)), lo = static_cast<uint16_t>(0xDC00 | (v & 0x3FF));
            o[2 * w] = static_cast<uint8_t>(hi);
            o[2 * w + 1] = static_cast<uint8_t>(hi >> 8);
            o[2 * w + 2] = static_cast<uint8_t>(lo);
            o[2 * w + 3] = static_cast<uint8_t>(lo >> 8);
            w += 2;
        }
        cursor = next;
    }
    m_rec_len += w * (t.wide ? 2 : 1);
}

// ---- the stream ---------------------------------------------------------------------------

// The string table: SST, then CONTINUE records when it outgrows one record. A string's
// character count and flags never end a record; a string whose characters run over starts
// the next CONTINUE with its flags byte again. EXTSST then indexes every m_ext_step-th string.
bool xls_book::emit_sst(cfb_writer* out)
{
    const uint32_t count = m_strings.size();
    m_ext_step = std::max<uint32_t>(8, (count + 127) / 128);
    m_ext_count = 0;
    rec_begin(k_sst);
    rec_u32(m_sst_refs);
    rec_u32(count);
    for (uint32_t i = 0; i < count; i++) {
        const text_ref& t = m_strings[i];
        const uint32_t per = t.wide ? 2 : 1;
        if (rec_room() < 3 + std::min<uint32_t>(t.units, 2) * per) {
            if (!rec_end(out))
                return false;
            rec_begin(k_continue);
        }
        if (i % m_ext_step == 0 && m_ext_count < 128) {
            m_ext_pos[m_ext_count] = static_cast<uint32_t>(m_pos + 4 + m_rec_len);
            m_ext_off[m_ext_count++] = static_cast<uint16_t>(4 + m_rec_len);
        }
        rec_u16(t.units);
        rec_u8(static_cast<uint8_t>(t.wide));
        uint32_t cursor = 0;
        for (uint32_t done = 0; done < t.units;) {
            const uint32_t before = m_rec_len;
            const uint32_t room = rec_room() / per;
            if (room > 0)
                rec_units(t, std::min(room, t.units - done), cursor);
            const uint32_t wrote = (m_rec_len - before) / per;
            if (wrote == 0) {
                if (!rec_end(out))
                    return false;
                rec_begin(k_continue);
                rec_u8(static_cast<uint8_t>(t.wide));
            }
            done += wrote;
        }
    }
    if (!rec_end(out))
        return false;
    rec_begin(k_extsst);
    rec_u16(static_cast<uint16_t>(m_ext_step));
    for (uint32_t b = 0; b < m_ext_count; b++) {
        rec_u32(m_ext_pos[b]);
        rec_u16(m_ext_off[b]);
        rec_u16(0);
    }
    return rec_end(out);
}

bool xls_book::emit_sheet(cfb_writer* out, uint32_t sheet, uint32_t& next_cell)
{
    uint32_t end = next_cell;
    uint32_t row_min = 0xFFFFFFFFu, row_max = 0, col_min = 0xFFFFFFFFu, col_max = 0;
    for (; end < m_cells.size() && (m_cells[end].key >> 24) == sheet; end++) {
        const uint32_t row = (m_cells[end].key >> 8) & 0xFFFF, col = m_cells[end].key & 0xFF;
        row_min = std::min(row_min, row);
        row_max = std::max(row_max, row);
        col_min = std::min(col_min, col);
        col_max = std::max(col_max, col);
    }
    m_sheets[sheet].pos = static_cast<uint32_t>(m_pos);
    rec_begin(k_bof);
    rec_u16(0x0600);  // BIFF8
    rec_u16(0x0010);  // worksheet
    rec_u16(0x0DBB);
    rec_u16(0x07CC);
    rec_u32(0);
    rec_u32(6);
    bool ok = rec_end(out);
    // Used area: first row, last row + 1, first column, last column + 1 (all 0 when empty).
    rec_begin(k_dimensions);
    const bool empty = end == next_cell;
    rec_u32(empty ? 0 : row_min);
    rec_u32(empty ? 0 : row_max + 1);
    rec_u16(static_cast<uint16_t>(empty ? 0 : col_min));
    rec_u16(static_cast<uint16_t>(empty ? 0 : col_max + 1));
    rec_u16(0);
    ok = ok && rec_end(out);
    rec_begin(k_window2);
    // Grid, headers, zeros, default header colour, outline; the first sheet selected and shown.
    rec_u16(static_cast<uint16_t>(0x00B6 | (sheet == 0 ? 0x0600 : 0)));
    rec_u16(0);
    rec_u16(0);
    rec_u16(0x40);
    rec_u16(0);
    rec_u16(0);
    rec_u16(0);
    rec_u32(0);
    ok = ok && rec_end(out);
    for (uint32_t i = next_cell; i < end && ok; i++) {
        const cell& c = m_cells[i];
        const bool text = (c.tag >> 30) == k_type_text;
        rec_begin(text ? k_labelsst : k_number);
        rec_u16(static_cast<uint16_t>(c.key >> 8));
        rec_u16(static_cast<uint16_t>(c.key & 0xFF));
        rec_u16(k_cell_xf);
        rec_u32(c.lo);
        if (!text)
            rec_u32(c.hi);
        ok = rec_end(out);
    }
    rec_begin(k_eof);
    next_cell = end;
    return ok && rec_end(out);
}

bool xls_book::emit(cfb_writer* out)
{
    m_pos = 0;
    rec_begin(k_bof);
    rec_u16(0x0600);
    rec_u16(0x0005);  // workbook globals
    rec_u16(0x0DBB);
    rec_u16(0x07CC);
    rec_u32(0);
    rec_u32(6);
    bool ok = rec_end(out);
    rec_begin(k_codepage);
    rec_u16(1200);  // UTF-16
    ok = ok && rec_end(out);
    rec_begin(k_datemode);
    rec_u16(0);
    ok = ok && rec_end(out);
    rec_begin(k_window1);
    for (uint16_t v : {0, 0, 0x4000, 0x2000, 0x0038, 0, 0, 1, 0x0258})
        rec_u16(v);
    ok = ok && rec_end(out);
    // Programs expect at least five fonts (index 4 is never used) and 15 style formats
    // before the first cell format.
    for (int f = 0; f < 5 && ok; f++) {
        rec_begin(k_font);
        for (uint16_t v : {200, 0, 0x7FFF, 400, 0})
            rec_u16(v);
        rec_u32(0);  // underline, family, character set, reserved
        rec_u8(5);
        rec_u8(0);
        rec_put("Arial", 5);
        ok = rec_end(out);
    }
    for (int x = 0; x < 16 && ok; x++) {
        rec_begin(k_xf);
        rec_u16(0);                                            // font
        rec_u16(0);                                            // number format: General
        rec_u16(x < 15 ? 0xFFF5 : 0x0001);                     // style (parent 0xFFF) or cell, locked
        rec_u8(0x20);                                          // bottom aligned
        rec_u8(0);
        rec_u8(0);
        rec_u8(x < 15 ? 0xF4 : 0);                             // attributes the style does not set
        rec_u32(0);                                            // borders
        rec_u32(0);
        rec_u16(0x20C0);                                       // pattern colours
        ok = rec_end(out);
    }
    rec_begin(k_style);
    rec_u16(0x8000);  // built-in style on format 0
    rec_u8(0);        // Normal
    rec_u8(0xFF);
    ok = ok && rec_end(out);
    for (uint32_t s = 0; s < m_sheets.size() && ok; s++) {
        const text_ref& t = m_strings[m_sheets[s].name];
        rec_begin(k_boundsheet);
        rec_u32(m_sheets[s].pos);
        rec_u8(0);  // visible
        rec_u8(0);  // worksheet
        rec_u8(static_cast<uint8_t>(t.units));
        rec_u8(static_cast<uint8_t>(t.wide));
        uint32_t cursor = 0;
        rec_units(t, t.units, cursor);
        ok = rec_end(out);
    }
    ok = ok && emit_sst(out);
    rec_begin(k_eof);
    ok = ok && rec_end(out);
    uint32_t next = 0;
    for (uint32_t s = 0; s < m_sheets.size() && ok; s++)
        ok = emit_sheet(out, s, next);
    return ok;
}

VESK_ERR xls_book::write(cfb_writer& out)
{
    if (m_rec.size() == 0 && !m_rec.resize_zero(4 + k_max_record))
        return VESK_ERR_NO_RESOURCE;
    if (!m_sorted) {
        // In place (no temporary memory): by position, then by the order of the calls.
        std::sort(m_cells.data(), m_cells.data() + m_cells.size(), [](const cell& a, const cell& b) {
            return a.key != b.key ? a.key < b.key : (a.tag & k_seq_mask) < (b.tag & k_seq_mask);
        });
        uint32_t kept = 0;
        for (uint32_t i = 0; i < m_cells.size(); i++) {
            if (kept > 0 && m_cells[kept - 1].key == m_cells[i].key)
                kept--;  // the later value of the same cell wins
            m_cells[kept++] = m_cells[i];
        }
        m_cells.truncate(kept);
        m_sorted = true;
    }
    m_sst_refs = 0;
    for (uint32_t i = 0; i < m_cells.size(); i++)
        m_sst_refs += (m_cells[i].tag >> 30) == k_type_text;
    // First pass counts, so that the sheet directory knows where each sheet starts.
    emit(nullptr);
    return emit(&out) ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

}  // namespace vesk_utility
