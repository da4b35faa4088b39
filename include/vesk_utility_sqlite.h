// vesk_utility_sqlite.h - thin helpers over SQLite: open and close a database, run a statement
// into a result table, test for a table, count its columns, write or read one column of the
// rows matching a condition, and tell a damaged database from an ordinary failure.
#ifndef VESK_UTILITY_SQLITE_H
#define VESK_UTILITY_SQLITE_H

#include "vesk_utility_types.h"

struct sqlite3;

namespace vesk_soft
{

// No state is kept between calls; the caller owns the handle. Databases are opened without
// SQLite's own mutexes, so a handle shared between threads must be serialised by its owner.
//
// Statements are built as text into fixed buffers (256 characters for the table test, 128 for
// the column count and damage test, 1024 for writes and reads); a longer statement is cut and
// run as cut. Values are printed into the statement text without escaping: a text value
// holding a single quote makes the statement fail (VESK_ERR_OPERATE_FAIL). Only blobs are
// bound as parameters.
//
// "Damaged" below means SQLite answered one of SQLITE_INTERNAL, SQLITE_IOERR, SQLITE_CORRUPT,
// SQLITE_CANTOPEN, SQLITE_SCHEMA, SQLITE_FORMAT or SQLITE_NOTADB; such failures return
// VESK_ERR_DB_CORRUPT, every other failure VESK_ERR_OPERATE_FAIL.

// Opens (creating if missing) `fname` read-write. VESK_ERR_INVALID_PARAM without a name,
// VESK_ERR_OPERATE_FAIL when SQLite refuses; *db is NULL on failure.
VESK_API VESK_ERR vesk_utility_open_database(const char* fname, sqlite3** db);
// NULL is success. VESK_ERR_OPERATE_FAIL when SQLite refuses (statements still open).
VESK_API VESK_ERR vesk_utility_close_database(sqlite3* db);

// Runs `sql` and hands back its result table (row 0 holds the column names). Every output
// may be NULL; without `result` the table is released at once, otherwise the caller releases
// it with vesk_utility_free_inquiry_result.
VESK_API VESK_ERR vesk_utility_exec_sql_command(sqlite3* db, const char* sql, int* row, int* column, char*** result);
VESK_API VESK_ERR vesk_utility_free_inquiry_result(char** result);

// The helpers below print their statements into fixed buffers (256 bytes for the table test,
// 128 for the column count and damage test, 1024 for set and get). A statement that does not
// fit is never run, so that a cut condition cannot select other rows: set, get and the column
// count return VESK_ERR_INVALID_PARAM, the table test false and the damage test 0, with an
// error line.
//
// True exactly when `schema` (e.g. "main") holds a table named `table`.
VESK_API VESK_BOOL vesk_utility_table_exists(sqlite3* db, const char* schema, const char* table);
// Number of columns of `table` (0 for a table that does not exist).
VESK_API VESK_ERR vesk_utility_get_table_column_num(sqlite3* db, const char* table, int* num);

// Value formats of set and get, compared as exact texts:
//   "%s" "%S"     NUL-terminated text            (size unused)
//   "%d" "%ld"    32-bit signed                  (size >= 4)
//   "%u" "%lu"    32-bit unsigned                (size >= 4)
//   "%lld"        64-bit signed                  (size >= 8)
//   "%llu"        64-bit unsigned                (size >= 8)
//   "%B" "%b"     blob of `size` bytes
//
// Sets `column` to the value in every row of `table` matching `condition` (an SQL
// expression). A size too small for the format is VESK_ERR_INVALID_PARAM and nothing runs.
// A blob write returns VESK_OK whatever the statement does (even on a missing table). Any
// other format ends the process: it can only be a programming error.
VESK_API VESK_ERR vesk_utility_exec_sql_set_value(sqlite3* db, const char* table, const char* condition,
    const char* column, const char* format, const void* value, unsigned size);
// Reads `column` of the rows of `table` matching `condition` into `buf` of `size` bytes.
//  - Blob formats copy the value of the first matching row; a missing blob, or one longer than
//    `size`, is VESK_ERR_INVALID_PARAM; no matching row is VESK_ERR_OPERATE_FAIL.
//  - Every other format takes the FIRST ENTRY OF THE RESULT TABLE, which is the heading of the
//    column (its name), not a data row, and does not convert it: text formats copy it cut to
//    `size`, the 32-bit formats copy its first 4 bytes and the 64-bit formats its first 8
//    (bytes past the name's NUL are zero). Deployed callers depend on this. After such a copy
//    the result table is not released: it stays in SQLite's accounted heap (user 0x22).
//    A format outside the list returns VESK_OK and leaves `buf` untouched. No matching row,
//    or a buffer too small for the format, fails (damage or VESK_ERR_OPERATE_FAIL).
VESK_API VESK_ERR vesk_utility_exec_sql_get_value(sqlite3* db, const char* table, const char* condition,
    const char* column, const char* format, void* buf, unsigned size);

// 1 when reading every row of `table` shows a damaged database (and for a NULL handle), 0
// otherwise, including ordinary failures such as a missing table.
VESK_API int vesk_utility_check_sql_corrupt(sqlite3* db, const char* table);
// Placeholders kept for callers: do nothing and return 0.
VESK_API int vesk_utility_check_sql_corrupt_by_alias(sqlite3* db, const char* alias);
VESK_API int vesk_utility_recover_database(sqlite3* db, const char* fname);

} // namespace vesk_soft

#endif // VESK_UTILITY_SQLITE_H
