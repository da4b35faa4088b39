// vesk_utility_xls_check - the check a workbook file passes before the reading library sees
// it: the compound file and the record stream are walked with every size bounded by the
// file, and the claims that make a parser allocate (string count, sheets' used areas) are
// compared with what the file can hold and with the caller's cell budget.
#ifndef VESK_UTILITY_XLS_CHECK_H
#define VESK_UTILITY_XLS_CHECK_H

#include <cstdint>

#include "store/vesk_utility_xls_cfb.h"

namespace vesk_utility {

struct xls_check_result {
    uint32_t sheets = 0;       // sheet entries in the workbook globals
    uint64_t cells = 0;        // sum over sheets of rows x columns of their used areas
    const char* why = "";      // reason of a refusal, for the log
};

// VESK_OK, or: VESK_ERR_OPERATE_FAIL (malformed), VESK_ERR_NOT_SUPPORT (encrypted, or not
// BIFF5/BIFF8), VESK_ERR_NO_RESOURCE (claims beyond max_cells or beyond the file's bytes).
// Memory: the reader's sector tables only, in proportion to the file size.
VESK_ERR xls_check(cfb_read_fn read, void* ctx, uint64_t file_size, uint32_t max_cells, xls_tally* tally,
                   xls_check_result* result);

}  // namespace vesk_utility

#endif  // VESK_UTILITY_XLS_CHECK_H
