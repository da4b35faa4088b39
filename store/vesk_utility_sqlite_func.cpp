// vesk_utility_sqlite_func - the SQLite helpers: statements printed into fixed buffers and run
// through sqlite3_get_table, blobs through prepare/bind/step, and the one classification that
// tells a damaged database from an ordinary failure. No state lives here between calls.
#include <sqlite3.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/vesk_utility_log.h"
#include "vesk_utility_sqlite.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr int k_open_flags = 0x8006; // READWRITE | CREATE | NOMUTEX
static_assert(k_open_flags == (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX),
    "open flags are READWRITE | CREATE | NOMUTEX");

constexpr size_t k_table_test_len = 256;
constexpr size_t k_short_sql_len = 128; // column count, damage test
constexpr size_t k_value_sql_len = 1024;

// Prints a statement into a fixed buffer. A statement that does not fit is refused with a
// message rather than cut: a cut WHERE clause can still parse and then hit other rows.
__attribute__((format(printf, 4, 5))) bool print_sql(const char* fn, char* sql, size_t size, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(sql, size, fmt, ap);
    va_end(ap);
    if (n >= 0 && static_cast<size_t>(n) < size)
        return true;
    vesk_log(vesk_log_level::error, nullptr, fn, __LINE__, "statement of %d bytes exceeds its %zu-byte buffer, not run!\n",
        n, size);
    sql[0] = '\0';
    return false;
}

// Wider than the corruption codes alone on purpose: an I/O error, a file that cannot be
// opened or a schema that keeps changing all mean the recorder should rebuild the database.
bool is_damage_code(int code)
{
    switch (code) {
    case SQLITE_INTERNAL:
    case SQLITE_IOERR:
    case SQLITE_CORRUPT:
    case SQLITE_CANTOPEN:
    case SQLITE_SCHEMA:
    case SQLITE_FORMAT:
    case SQLITE_NOTADB:
        return true;
    default:
        return false;
    }
}

enum class value_kind { text, i32, u32, i64, u64, blob, unknown };

value_kind kind_of(const char* format)
{
    struct entry {
        const char* text;
        value_kind kind;
    };
    static const entry s_formats[] = {
        {"%s", value_kind::text},
        {"%S", value_kind::text},
        {"%d", value_kind::i32},
        {"%ld", value_kind::i32},
        {"%u", value_kind::u32},
        {"%lu", value_kind::u32},
        {"%lld", value_kind::i64},
        {"%llu", value_kind::u64},
        {"%B", value_kind::blob},
        {"%b", value_kind::blob},
    };
    for (const entry& e : s_formats) {
        if (strcmp(format, e.text) == 0)
            return e.kind;
    }
    return value_kind::unknown;
}

unsigned size_needed(value_kind kind)
{
    switch (kind) {
    case value_kind::i32:
    case value_kind::u32:
        return 4;
    case value_kind::i64:
    case value_kind::u64:
        return 8;
    default:
        return 0;
    }
}

// sqlite3_get_table with the shared failure report, logged under `fn`. On failure the
// message and any partial table are released and *table is NULL.
int get_table(const char* fn, sqlite3* db, const char* sql, char*** table, int* rows, int* cols)
{
    char* err = nullptr;
    *table = nullptr;
    *rows = 0;
    *cols = 0;
    const int code = sqlite3_get_table(db, sql, table, rows, cols, &err);
    if (code != SQLITE_OK) {
        vesk_log(vesk_log_level::error, nullptr, fn, __LINE__, "sqlite3_exec %s failed, error code 0x%x, %s\n", sql,
            code, err != nullptr ? err : "");
        sqlite3_free(err);
        sqlite3_free_table(*table);
        *table = nullptr;
        *rows = 0;
        *cols = 0;
    }
    return code;
}

VESK_ERR failure_of(const char* fn, int code)
{
    if (is_damage_code(code)) {
        vesk_log(vesk_log_level::error, nullptr, fn, __LINE__, "Database disk image is malformed!");
        return VESK_ERR_DB_CORRUPT;
    }
    return VESK_ERR_OPERATE_FAIL;
}

} // namespace

VESK_ERR open_database(const char* fname, sqlite3** db)
{
    if (fname == nullptr) {
        VESK_ERR_FN("fname is null!");
        return VESK_ERR_INVALID_PARAM;
    }
    sqlite3* handle = nullptr;
    const int code = sqlite3_open_v2(fname, &handle, k_open_flags, nullptr);
    if (code != SQLITE_OK || handle == nullptr) {
        VESK_ERR_FN("Open database failed,error code 0x%x\n", code);
        sqlite3_close(handle); // SQLite hands out a handle even on failure
        *db = nullptr;
        return VESK_ERR_OPERATE_FAIL;
    }
    *db = handle;
    return VESK_OK;
}

VESK_ERR close_database(sqlite3* db)
{
    if (db == nullptr)
        return VESK_OK;
    if (sqlite3_close(db) != SQLITE_OK) {
        VESK_ERR_FN("close database failed");
        return VESK_ERR_OPERATE_FAIL;
    }
    return VESK_OK;
}

VESK_ERR exec_sql_command(sqlite3* db, const char* sql, int* row, int* column, char*** result)
{
    if (db == nullptr || sql == nullptr)
        return VESK_ERR_INVALID_PARAM;
    char** table = nullptr;
    int rows = 0;
    int cols = 0;
    const int code = get_table(__func__, db, sql, &table, &rows, &cols);
    if (code != SQLITE_OK)
        return failure_of(__func__, code);
    if (row != nullptr)
        *row = rows;
    if (column != nullptr)
        *column = cols;
    if (result != nullptr)
        *result = table;
    else
        sqlite3_free_table(table);
    return VESK_OK;
}

// A statement too long for its buffer is not run and counts as no such table.
VESK_BOOL check_table_exists(sqlite3* db, const char* schema, const char* table)
{
    if (db == nullptr || table == nullptr || schema == nullptr) {
        VESK_ERR_FN("database not open");
        return 0;
    }
    char sql[k_table_test_len];
    if (!print_sql(__func__, sql, sizeof(sql), "select name from %s.sqlite_master where type='table' and name='%s'",
            schema, table))
        return 0;
    char** result = nullptr;
    int rows = 0;
    int cols = 0;
    if (get_table(__func__, db, sql, &result, &rows, &cols) != SQLITE_OK)
        return 0;
    sqlite3_free_table(result);
    return rows == 1 ? 1 : 0;
}

// A table name too long for the statement buffer is VESK_ERR_INVALID_PARAM, nothing run.
VESK_ERR get_table_column_num(sqlite3* db, const char* table, int* num)
{
    if (db == nullptr || table == nullptr) {
        VESK_ERR_FN("database not open");
        return VESK_ERR_OPERATE_FAIL;
    }
    char sql[k_short_sql_len];
    if (!print_sql(__func__, sql, sizeof(sql), "pragma table_info(%s);", table))
        return VESK_ERR_INVALID_PARAM;
    char** result = nullptr;
    int rows = 0;
    int cols = 0;
    if (get_table(__func__, db, sql, &result, &rows, &cols) != SQLITE_OK)
        return VESK_ERR_OPERATE_FAIL;
    sqlite3_free_table(result);
    *num = rows;
    return VESK_OK;
}

// A table name too long for the statement buffer is not read: 0, as for an ordinary failure.
int check_sql_corrupt(sqlite3* db, const char* table)
{
    if (db == nullptr)
        return 1;
    char sql[k_short_sql_len];
    if (!print_sql(__func__, sql, sizeof(sql), "SELECT * FROM %s ", table != nullptr ? table : ""))
        return 0;
    char** result = nullptr;
    char* err = nullptr;
    int rows = 0;
    int cols = 0;
    const int code = sqlite3_get_table(db, sql, &result, &rows, &cols, &err);
    sqlite3_free(err);
    sqlite3_free_table(result);
    if (code == SQLITE_OK) {
        VESK_DBG_FN("sql %s success!\n", table);
        return 0;
    }
    if (is_damage_code(code)) {
        VESK_ERR_FN("Database [%s] disk image is malformed!\n", table);
        return 1;
    }
    return 0;
}

// A statement too long for its buffer is VESK_ERR_INVALID_PARAM and nothing runs, blobs
// included: cut, its condition could select other rows.
VESK_ERR sql_set_value(sqlite3* db, const char* table, const char* condition, const char* column, const char* format,
    const void* value, unsigned size)
{
    if (db == nullptr || column == nullptr || table == nullptr || condition == nullptr || value == nullptr
        || format == nullptr)
        return VESK_ERR_INVALID_PARAM;
    const value_kind kind = kind_of(format);
    if (kind == value_kind::unknown)
        VESK_ASSERT(0);
    if (size < size_needed(kind))
        return VESK_ERR_INVALID_PARAM;

    char sql[k_value_sql_len];
    if (kind == value_kind::blob) {
        if (!print_sql(__func__, sql, sizeof(sql), "UPDATE %s SET %s = ? WHERE %s ;", table, column, condition))
            return VESK_ERR_INVALID_PARAM;
        sqlite3_stmt* stmt = nullptr;
        // The step's result is not examined: a blob write reports success whatever happens.
        if (sqlite3_prepare(db, sql, -1, &stmt, nullptr) == SQLITE_OK && stmt != nullptr) {
            sqlite3_bind_blob(stmt, 1, value, static_cast<int>(size), SQLITE_STATIC);
            sqlite3_step(stmt);
        }
        sqlite3_finalize(stmt);
        return VESK_OK;
    }

    bool fits = false;
    switch (kind) {
    case value_kind::text:
        fits = print_sql(__func__, sql, sizeof(sql), "UPDATE %s SET %s = '%s' WHERE %s ;", table, column, static_cast<const char*>(value),
            condition);
        break;
    case value_kind::i32: {
        int32_t v;
        memcpy(&v, value, sizeof(v));
        fits = print_sql(__func__, sql, sizeof(sql), "UPDATE %s SET %s = %d WHERE %s ;", table, column, v, condition);
        break;
    }
    case value_kind::u32: {
        uint32_t v;
        memcpy(&v, value, sizeof(v));
        fits = print_sql(__func__, sql, sizeof(sql), "UPDATE %s SET %s = %u WHERE %s ;", table, column, v, condition);
        break;
    }
    case value_kind::i64: {
        long long v;
        memcpy(&v, value, sizeof(v));
        fits = print_sql(__func__, sql, sizeof(sql), "UPDATE %s SET %s = %lld WHERE %s ;", table, column, v, condition);
        break;
    }
    default: {
        unsigned long long v;
        memcpy(&v, value, sizeof(v));
        fits = print_sql(__func__, sql, sizeof(sql), "UPDATE %s SET %s = %llu WHERE %s ;", table, column, v, condition);
        break;
    }
    }
    if (!fits)
        return VESK_ERR_INVALID_PARAM;
    char** result = nullptr;
    int rows = 0;
    int cols = 0;
    const int code = get_table(__func__, db, sql, &result, &rows, &cols);
    if (code != SQLITE_OK)
        return failure_of(__func__, code);
    sqlite3_free_table(result);
    return VESK_OK;
}

namespace
{

VESK_ERR read_blob(sqlite3* db, const char* sql, void* buf, unsigned size)
{
    static const char* const k_fn = "sql_get_value";
    sqlite3_stmt* stmt = nullptr;
    int code = sqlite3_prepare(db, sql, -1, &stmt, nullptr);
    if (code == SQLITE_OK && stmt != nullptr)
        code = sqlite3_step(stmt);
    if (code != SQLITE_ROW) {
        vesk_log(vesk_log_level::warning, nullptr, k_fn, __LINE__, "%d\n", code);
        sqlite3_finalize(stmt);
        return VESK_ERR_OPERATE_FAIL;
    }
    const void* blob = sqlite3_column_blob(stmt, 0);
    const int bytes = sqlite3_column_bytes(stmt, 0);
    VESK_ERR err = VESK_ERR_INVALID_PARAM;
    if (blob != nullptr && bytes >= 0 && static_cast<unsigned>(bytes) <= size) {
        memcpy(buf, blob, static_cast<size_t>(bytes));
        err = VESK_OK;
    }
    sqlite3_finalize(stmt);
    return err;
}

// Copies the first `n` bytes of a result entry; bytes past its NUL are zero rather than
// whatever follows the string in SQLite's heap.
void copy_entry_bytes(void* buf, const char* entry, size_t n)
{
    memset(buf, 0, n);
    if (entry != nullptr)
        memcpy(buf, entry, strnlen(entry, n));
}

} // namespace

// A statement too long for its buffer is VESK_ERR_INVALID_PARAM and nothing runs.
VESK_ERR sql_get_value(sqlite3* db, const char* table, const char* condition, const char* column, const char* format,
    void* buf, unsigned size)
{
    if (db == nullptr || column == nullptr || table == nullptr || condition == nullptr || buf == nullptr
        || format == nullptr)
        return VESK_ERR_INVALID_PARAM;
    char sql[k_value_sql_len];
    if (!print_sql(__func__, sql, sizeof(sql), "SELECT %s FROM %s  WHERE %s ;", column, table, condition))
        return VESK_ERR_INVALID_PARAM;
    const value_kind kind = kind_of(format);
    if (kind == value_kind::blob)
        return read_blob(db, sql, buf, size);

    char** result = nullptr;
    int rows = 0;
    int cols = 0;
    const int code = get_table(__func__, db, sql, &result, &rows, &cols);
    if (rows >= 1 && cols >= 1 && size >= size_needed(kind)) {
        // Deliberately the heading entry (result[0]), unconverted; the table is kept.
        switch (kind) {
        case value_kind::text:
            snprintf(static_cast<char*>(buf), size, "%s", result[0]);
            break;
        case value_kind::i32:
        case value_kind::u32:
            copy_entry_bytes(buf, result[0], 4);
            break;
        case value_kind::i64:
        case value_kind::u64:
            copy_entry_bytes(buf, result[0], 8);
            break;
        default:
            break;
        }
        return VESK_OK;
    }
    sqlite3_free_table(result);
    return failure_of(__func__, code);
}

} // namespace vesk_utility

namespace vesk_soft
{

VESK_ERR vesk_utility_open_database(const char* fname, sqlite3** db)
{
    if (db == nullptr)
        return VESK_ERR_INVALID_PARAM;
    return vesk_utility::open_database(fname, db);
}

VESK_ERR vesk_utility_close_database(sqlite3* db)
{
    return vesk_utility::close_database(db);
}

VESK_ERR vesk_utility_exec_sql_command(sqlite3* db, const char* sql, int* row, int* column, char*** result)
{
    return vesk_utility::exec_sql_command(db, sql, row, column, result);
}

VESK_ERR vesk_utility_free_inquiry_result(char** result)
{
    sqlite3_free_table(result);
    return VESK_OK;
}

VESK_BOOL vesk_utility_table_exists(sqlite3* db, const char* schema, const char* table)
{
    return vesk_utility::check_table_exists(db, schema, table);
}

VESK_ERR vesk_utility_get_table_column_num(sqlite3* db, const char* table, int* num)
{
    if (num == nullptr)
        return VESK_ERR_INVALID_PARAM;
    return vesk_utility::get_table_column_num(db, table, num);
}

VESK_ERR vesk_utility_exec_sql_set_value(sqlite3* db, const char* table, const char* condition, const char* column,
    const char* format, const void* value, unsigned size)
{
    return vesk_utility::sql_set_value(db, table, condition, column, format, value, size);
}

VESK_ERR vesk_utility_exec_sql_get_value(sqlite3* db, const char* table, const char* condition, const char* column,
    const char* format, void* buf, unsigned size)
{
    return vesk_utility::sql_get_value(db, table, condition, column, format, buf, size);
}

int vesk_utility_check_sql_corrupt(sqlite3* db, const char* table)
{
    return vesk_utility::check_sql_corrupt(db, table);
}

int vesk_utility_check_sql_corrupt_by_alias(sqlite3*, const char*)
{
    return 0;
}

int vesk_utility_recover_database(sqlite3*, const char*)
{
    return 0;
}

} // namespace vesk_soft
