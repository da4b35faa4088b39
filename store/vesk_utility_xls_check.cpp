// vesk_utility_xls_check - bounds a workbook's claims before it is parsed. The record walk is
// linear in the stream (at most one step per 4 bytes); besides one record head it keeps only
// the string table's segment list and the sheets' positions.
#include "store/vesk_utility_xls_check.h"

#include <algorithm>

#include "core/vesk_utility_bytes.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility {

using namespace vesk_soft;

namespace {

// Record header: type u16, length u16; BIFF8 caps the length at 8224 bytes.
constexpr uint32_t k_max_record = 8224;
constexpr uint16_t k_bof = 0x0809;
constexpr uint16_t k_eof = 0x000A;
constexpr uint16_t k_filepass = 0x002F;
constexpr uint16_t k_sst = 0x00FC;
constexpr uint16_t k_continue = 0x003C;
constexpr uint16_t k_dimensions = 0x0200;
constexpr uint16_t k_boundsheet = 0x0085;
constexpr uint16_t k_labelsst = 0x00FD;
constexpr uint16_t k_format = 0x041E;
constexpr uint16_t k_font = 0x0031;
constexpr uint16_t k_label = 0x0204;
constexpr uint16_t k_rk = 0x027E;
constexpr uint16_t k_number = 0x0203;
constexpr uint16_t k_blank = 0x0201;
constexpr uint16_t k_boolerr = 0x0205;
constexpr uint16_t k_biff8 = 0x0600;
constexpr uint16_t k_biff5 = 0x0500;
// The smallest string of the string table: character count u16 and flags u8.
constexpr uint64_t k_min_sst_string = 3;

// The string table's payload: the SST record's after its two counts, then each CONTINUE's.
struct sst_segment {
    uint32_t off;  // stream offset
    uint32_t len;
};

// Walks the strings of the table. The reading library misreads a string whose characters run
// through more than one CONTINUE (it loses its place after the first), so such a table is
// refused rather than read wrong. O(strings + segments).
VESK_ERR walk_sst(const cfb_reader& cfb, const xls_array<sst_segment>& segs, uint64_t declared, const char** why)
{
    uint64_t strings = 0;
    // The reading library copies a string by its own counts, past the record when they lie.
    auto past_end = [&]() {
        *why = "a shared string runs past the string table";
        return VESK_ERR_OPERATE_FAIL;
    };
    uint32_t k = 0, at = 0;  // segment, offset inside it
    // Reads n bytes (a field may straddle segments in files that break the rules).
    auto take = [&](uint8_t* out, uint32_t n) {
        for (uint32_t i = 0; i < n; i++) {
            while (k < segs.size() && at >= segs[k].len) {
                k++;
                at = 0;
            }
            if (k >= segs.size() || !cfb.read(segs[k].off + at, out + i, 1))
                return false;
            at++;
        }
        return true;
    };
    auto skip = [&](uint64_t n) {
        while (n > 0) {
            if (k >= segs.size())
                return false;
            const uint32_t here = segs[k].len - at;
            if (n < here) {
                at += static_cast<uint32_t>(n);
                return true;
            }
            n -= here;
            k++;
            at = 0;
        }
        return true;
    };
    for (;;) {
        while (k < segs.size() && at >= segs[k].len) {
            k++;
            at = 0;
        }
        if (k >= segs.size()) {
            if (strings != declared) {
                *why = "the string table holds another number of strings than it declares";
                return VESK_ERR_OPERATE_FAIL;
            }
            return VESK_OK;
        }
        strings++;
        uint8_t h[7];
        if (!take(h, 3))
            return past_end();
        uint32_t chars = le16(h);
        uint8_t flags = h[2];
        uint32_t runs = 0, ext = 0;
        if ((flags & 0x08) != 0) {
            if (!take(h + 3, 2))
                return past_end();
            runs = le16(h + 3);
        }
        if ((flags & 0x04) != 0) {
            if (!take(h + 3, 4))
                return past_end();
            ext = le32(h + 3);
        }
        uint32_t continued = 0;
        while (chars > 0) {
            if (k >= segs.size())
                return past_end();
            const uint32_t per = (flags & 0x01) != 0 ? 2 : 1;
            const uint32_t fit = (segs[k].len - at) / per;
            if (fit == 0) {
                // The characters go on in the next CONTINUE, behind a fresh flags byte.
                k++;
                at = 0;
                if (++continued > 1) {
                    *why = "a shared string runs through more than two records, which the reader misreads";
                    return VESK_ERR_NOT_SUPPORT;
                }
                if (!take(&flags, 1))
                    return past_end();
                continue;
            }
            const uint32_t n = fit < chars ? fit : chars;
            at += n * per;
            chars -= n;
        }
        if (!skip(4ull * runs + ext))
            return past_end();
    }
}

// Whether the string whose character count starts at body[at] fits the record: BIFF8 counts
// (1 or 2 bytes, `wide_count`) are followed by a flags byte that says 1 or 2 bytes a character;
// BIFF5 strings are bytes. The reading library copies by the count alone.
bool string_fits(const uint8_t* body, uint32_t len, uint32_t at, bool wide_count, bool biff8)
{
    const uint32_t count_bytes = wide_count ? 2 : 1;
    const uint32_t head = count_bytes + (biff8 ? 1 : 0);
    if (at + head > len)
        return false;
    const uint32_t chars = wide_count ? le16(body + at) : body[at];
    const uint32_t per = biff8 && (body[at + count_bytes] & 0x01) != 0 ? 2 : 1;
    return static_cast<uint64_t>(at) + head + static_cast<uint64_t>(chars) * per <= len;
}

}  // namespace

VESK_ERR xls_check(cfb_read_fn read, void* ctx, uint64_t file_size, uint32_t max_cells, xls_tally* tally,
                   xls_check_result* result)
{
    *result = xls_check_result();
    cfb_reader cfb(tally);
    static const char* const names[] = {"Workbook", "Book"};
    VESK_ERR err = cfb.open_stream(read, ctx, file_size, names, 2);
    if (err != VESK_OK) {
        result->why = "compound file malformed or without a workbook stream";
        return err;
    }
    const uint32_t size = cfb.stream_size();
    uint8_t h[4];
    uint8_t body[16];
    if (!cfb.read(0, h, 4) || le16(h) != k_bof || le16(h + 2) < 8 || !cfb.read(4, body, 2)) {
        result->why = "the workbook stream does not start with a BOF record";
        return VESK_ERR_OPERATE_FAIL;
    }
    const uint16_t version = le16(body);
    if (version != k_biff8 && version != k_biff5) {
        result->why = "not a BIFF5 or BIFF8 workbook";
        return VESK_ERR_NOT_SUPPORT;
    }
    const bool biff8 = version == k_biff8;

    uint64_t sst_unique = 0, sst_bytes = 0;
    bool in_sst = false;
    uint32_t depth = 0;  // open substreams (a chart may sit inside a sheet)
    bool dims_here = false;  // the current substream has had its dimensions record
    // Where the sheet entries say the sheets are, and where top-level substreams begin (in
    // stream order): the reading library leaks a sheet whose substream is not where its entry
    // says, or that never ends.
    xls_array<uint32_t> sheet_at(k_purpose_xls_read, tally), bof_at(k_purpose_xls_read, tally);
    xls_array<sst_segment> segs(k_purpose_xls_read, tally);
    for (uint32_t pos = 0; static_cast<uint64_t>(pos) + 4 <= size;) {
        if (!cfb.read(pos, h, 4)) {
            result->why = "unreadable record";
            return VESK_ERR_OPERATE_FAIL;
        }
        const uint16_t type = le16(h);
        const uint32_t len = le16(h + 2);
        uint32_t fixed = 0;
        if (len > k_max_record || static_cast<uint64_t>(pos) + 4 + len > size) {
            result->why = "record longer than the format allows or than the stream";
            return VESK_ERR_OPERATE_FAIL;
        }
        const uint32_t take = len < sizeof(body) ? len : sizeof(body);
        if (!cfb.read(pos + 4, body, take)) {
            result->why = "unreadable record";
            return VESK_ERR_OPERATE_FAIL;
        }
        if (type == k_continue && in_sst) {
            sst_bytes += len;
            if (!segs.push(sst_segment{pos + 4, len}))
                return VESK_ERR_NO_RESOURCE;
        } else {
            in_sst = false;
        }
        switch (type) {
        case k_bof:
            // A sheet opens only at the top: one inside an unclosed substream makes the reading
            // library replace the open sheet without freeing it.
            if (len < 4 || (depth > 0 && le16(body + 2) != 0x0020)) {
                result->why = "a sheet begins inside another substream";
                return VESK_ERR_OPERATE_FAIL;
            }
            if (depth == 0 && !bof_at.push(pos))
                return VESK_ERR_NO_RESOURCE;
            depth++;
            dims_here = false;
            break;
        case k_eof:
            if (depth > 0)
                depth--;
            break;
        case k_filepass:
            result->why = "encrypted workbook";
            return VESK_ERR_NOT_SUPPORT;
        case k_sst:
            if (len < 8) {
                result->why = "short string table";
                return VESK_ERR_OPERATE_FAIL;
            }
            in_sst = true;
            sst_unique += le32(body + 4);
            sst_bytes += len - 8;
            segs.truncate(0);
            if (!segs.push(sst_segment{pos + 12, len - 8}))
                return VESK_ERR_NO_RESOURCE;
            break;
        case k_boundsheet:
            if (len < 6 || !sheet_at.push(le32(body)))
                return len < 6 ? VESK_ERR_OPERATE_FAIL : VESK_ERR_NO_RESOURCE;
            result->sheets++;
            break;
        case k_dimensions: {
            if (len < (biff8 ? 14u : 10u)) {
                result->why = "short dimensions record";
                return VESK_ERR_OPERATE_FAIL;
            }
            // The reading library allocates a sheet's cells at each one, dropping the last.
            if (dims_here) {
                result->why = "a sheet with two dimensions records";
                return VESK_ERR_OPERATE_FAIL;
            }
            dims_here = true;
            const uint32_t rows = biff8 ? le32(body + 4) : le16(body + 2);
            const uint32_t cols = biff8 ? le16(body + 10) : le16(body + 6);
            if (rows > 65536 || cols > 256) {
                result->why = "used area beyond 65536 rows or 256 columns";
                return VESK_ERR_OPERATE_FAIL;
            }
            result->cells += static_cast<uint64_t>(rows) * cols;
            if (result->cells > max_cells) {
                result->why = "the sheets' used areas exceed the cell budget";
                return VESK_ERR_NO_RESOURCE;
            }
            break;
        }
        case k_labelsst:
        case k_rk:
            fixed = 10;
            break;
        case k_number:
            fixed = 14;
            break;
        case k_blank:
            fixed = 6;
            break;
        case k_boolerr:
            fixed = 8;
            break;
        default:
            break;
        }
        // Records with one string: its count must stay inside the record.
        bool fits = true;
        if (type == k_format)
            fits = string_fits(body, len, 2, biff8, biff8);
        else if (type == k_boundsheet)
            fits = string_fits(body, len, 6, false, biff8);
        else if (type == k_font)
            fits = string_fits(body, len, 14, false, biff8);
        else if (type == k_label)
            fits = string_fits(body, len, 6, true, biff8);
        if (!fits) {
            result->why = "a string longer than its record";
            return VESK_ERR_OPERATE_FAIL;
        }
        // Single-cell records have one size; the reading library leaks on any other.
        if (fixed != 0 && len != fixed) {
            result->why = "cell record of the wrong size";
            return VESK_ERR_OPERATE_FAIL;
        }
        pos += 4 + len;
    }
    if (sst_unique > sst_bytes / k_min_sst_string) {
        result->why = "the string table claims more strings than its bytes hold";
        return VESK_ERR_NO_RESOURCE;
    }
    err = segs.size() > 0 ? walk_sst(cfb, segs, sst_unique, &result->why) : VESK_OK;
    if (err != VESK_OK)
        return err;
    if (result->sheets == 0) {
        result->why = "no sheets";
        return VESK_ERR_OPERATE_FAIL;
    }
    if (depth != 0) {
        result->why = "a substream without its end record";
        return VESK_ERR_OPERATE_FAIL;
    }
    // O(sheets x log substreams).
    for (uint32_t i = 0; i < sheet_at.size(); i++) {
        if (!std::binary_search(bof_at.data() + 1, bof_at.data() + bof_at.size(), sheet_at[i])) {
            result->why = "sheet entry that does not point at a sheet";
            return VESK_ERR_OPERATE_FAIL;
        }
    }
    return VESK_OK;
}

}  // namespace vesk_utility
