// SQLite helpers on real files, checked with plain SQL; damaged databases told from failures.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;
using vesk_test::capture_stdout;

namespace
{

std::string db_path(const char* name)
{
    return vesk_test::private_root() + "/" + name;
}

// A fresh database with table cam(id, name, bitrate, big, data) and rows id 1..rows.
sqlite3* make_db(const char* name, int rows = 2)
{
    unlink(db_path(name).c_str());
    sqlite3* db = nullptr;
    EXPECT_EQ(vesk_utility_open_database(db_path(name).c_str(), &db), VESK_OK);
    std::string sql = "CREATE TABLE cam(id INTEGER, name TEXT, bitrate INTEGER, big INTEGER, data BLOB); BEGIN;";
    for (int i = 1; i <= rows; i++)
        sql += " INSERT INTO cam VALUES(" + std::to_string(i) + ", 'cam" + std::to_string(1000 + i).substr(1)
            + "', 0, 0, NULL);";
    EXPECT_EQ(vesk_utility_exec_sql_command(db, (sql + " COMMIT;").c_str(), nullptr, nullptr, nullptr), VESK_OK);
    return db;
}

// The single value of `sql` as text, read with plain SQLite (the oracle for writes).
std::string scalar(sqlite3* db, const char* sql)
{
    sqlite3_stmt* st = nullptr;
    std::string out = "<none>";
    if (sqlite3_prepare_v2(db, sql, -1, &st, nullptr) == SQLITE_OK && sqlite3_step(st) == SQLITE_ROW) {
        const unsigned char* t = sqlite3_column_text(st, 0);
        out = t != nullptr ? reinterpret_cast<const char*>(t) : "<null>";
    }
    sqlite3_finalize(st);
    return out;
}

void overwrite(const std::string& path, long offset, int byte, size_t len)
{
    FILE* f = fopen(path.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fseek(f, offset, SEEK_SET), 0);
    for (size_t i = 0; i < len; i++)
        fputc(byte, f);
    fclose(f);
}

} // namespace

TEST(SqliteFuncTest, OpenCloseAndTableQueries)
{
    sqlite3* db = nullptr;
    capture_stdout([&] {
        EXPECT_EQ(vesk_utility_open_database(nullptr, &db), VESK_ERR_INVALID_PARAM);
        EXPECT_EQ(vesk_utility_open_database("/proc/no/such/dir/x.db", &db), VESK_ERR_OPERATE_FAIL);
    });
    EXPECT_EQ(db, nullptr);
    EXPECT_EQ(vesk_utility_close_database(nullptr), VESK_OK);

    db = make_db("tables.db");
    EXPECT_TRUE(vesk_utility_table_exists(db, "main", "cam"));
    EXPECT_FALSE(vesk_utility_table_exists(db, "main", "ca"));
    EXPECT_FALSE(vesk_utility_table_exists(db, "main", "nosuch"));
    capture_stdout([&] { EXPECT_FALSE(vesk_utility_table_exists(db, "main", nullptr)); });
    int num = -1;
    EXPECT_EQ(vesk_utility_get_table_column_num(db, "cam", &num), VESK_OK);
    EXPECT_EQ(num, 5);
    EXPECT_EQ(vesk_utility_get_table_column_num(db, "nosuch", &num), VESK_OK);
    EXPECT_EQ(num, 0);
    EXPECT_EQ(vesk_utility_get_table_column_num(nullptr, "cam", &num), VESK_ERR_OPERATE_FAIL);

    int rows = 0, cols = 0;
    char** table = nullptr;
    EXPECT_EQ(
        vesk_utility_exec_sql_command(db, "SELECT id, name FROM cam ORDER BY id;", &rows, &cols, &table), VESK_OK);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(std::to_string(rows) + "x" + std::to_string(cols) + " " + table[0] + " " + table[3], "2x2 id cam001");
    EXPECT_EQ(vesk_utility_free_inquiry_result(table), VESK_OK);
    EXPECT_EQ(vesk_utility_exec_sql_command(nullptr, "SELECT 1;", nullptr, nullptr, nullptr), VESK_ERR_INVALID_PARAM);
    capture_stdout([&] {
        EXPECT_EQ(
            vesk_utility_exec_sql_command(db, "SELEC nonsense", nullptr, nullptr, nullptr), VESK_ERR_OPERATE_FAIL);
    });
    EXPECT_EQ(vesk_utility_check_sql_corrupt_by_alias(db, "x"), 0);
    EXPECT_EQ(vesk_utility_recover_database(db, "x"), 0);
    EXPECT_EQ(vesk_utility_close_database(db), VESK_OK);
}

TEST(SqliteFuncDeathTest, TypedWritesLandInTheMatchingRowsOnlyAndAnUnknownFormatIsFatal)
{
    sqlite3* db = make_db("set.db");
    const int32_t i32 = -5;
    const uint32_t u32 = 4000000000u;
    const int64_t i64 = (int64_t(1) << 40) + 5;
    const uint64_t u64 = 0x7FFFFFFFFFFFFFFFull;
    struct row {
        const char *where, *column, *fmt;
        const void* value;
        unsigned size;
        const char* stored;
    } rows[] = {{"id = 1", "name", "%s", "front door", 0, "front door"}, {"id = 1", "bitrate", "%d", &i32, 4, "-5"},
        {"id = 1", "bitrate", "%lu", &u32, 4, "4000000000"}, {"id = 2", "big", "%lld", &i64, 8, "1099511627781"},
        {"id = 1", "big", "%llu", &u64, 8, "9223372036854775807"}};
    for (const row& r : rows) {
        EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "cam", r.where, r.column, r.fmt, r.value, r.size), VESK_OK);
        const std::string sql = std::string("SELECT ") + r.column + " FROM cam WHERE " + r.where;
        EXPECT_EQ(scalar(db, sql.c_str()), r.stored) << r.fmt;
    }
    EXPECT_EQ(scalar(db, "SELECT name || bitrate || big FROM cam WHERE id = 2"), "cam00201099511627781");
    // Sizes too small for the format are refused before anything runs.
    const int64_t other = 77;
    EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "cam", "id = 1", "bitrate", "%d", &other, 2), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "cam", "id = 1", "big", "%llu", &other, 4), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "cam", "id = 1", nullptr, "%d", &i32, 4), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(
        scalar(db, "SELECT name || bitrate || big FROM cam WHERE id = 1"), "front door40000000009223372036854775807");
    // A single quote in a text value breaks the statement: an ordinary failure, not damage.
    capture_stdout([&] {
        EXPECT_EQ(
            vesk_utility_exec_sql_set_value(db, "cam", "id = 2", "name", "%S", "o'clock", 0), VESK_ERR_OPERATE_FAIL);
    });
    EXPECT_EQ(scalar(db, "SELECT name FROM cam WHERE id = 2"), "cam002");
    VESK_EXPECT_FATAL(
        vesk_utility_exec_sql_set_value(db, "cam", "id = 1", "bitrate", "%x", &i32, 4), "Function: sql_set_value");
    EXPECT_EQ(vesk_utility_close_database(db), VESK_OK);
}

TEST(SqliteFuncTest, ReadsCopyTheColumnHeadingWhileBlobsRoundTrip)
{
    sqlite3* db = make_db("get.db");
    const int32_t v = 1234;
    ASSERT_EQ(vesk_utility_exec_sql_set_value(db, "cam", "id = 1", "bitrate", "%d", &v, 4), VESK_OK);
    char text[5];
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 1", "bitrate", "%s", text, sizeof(text)), VESK_OK);
    EXPECT_STREQ(text, "bitr"); // the heading "bitrate", cut to the buffer
    unsigned char word[4];
    unsigned char wide[8];
    memset(wide, 0xEE, sizeof(wide));
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 2", "name", "%llu", wide, 8), VESK_OK);
    EXPECT_EQ(memcmp(wide, "name\0\0\0\0", 8), 0);
    unsigned char untouched[4] = {1, 2, 3, 4};
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 1", "bitrate", "%x", untouched, 4), VESK_OK);
    EXPECT_EQ(memcmp(untouched, "\1\2\3\4", 4), 0);
    // No matching row, or a buffer too small: an ordinary failure.
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 9", "bitrate", "%d", word, 4), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 1", "big", "%lld", wide, 4), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(
        vesk_utility_exec_sql_get_value(db, "cam", "id = 1", "bitrate", "%d", nullptr, 4), VESK_ERR_INVALID_PARAM);
    // Blobs go through bound parameters, zero bytes and quotes included.
    unsigned char blob[300], back[300] = {};
    for (size_t i = 0; i < sizeof(blob); i++)
        blob[i] = static_cast<unsigned char>(i * 7);
    EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "cam", "id = 2", "data", "%B", blob, sizeof(blob)), VESK_OK);
    EXPECT_EQ(scalar(db, "SELECT length(data) FROM cam WHERE id = 2"), "300");
    EXPECT_EQ(scalar(db, "SELECT typeof(data) FROM cam WHERE id = 1"), "null");
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 2", "data", "%b", back, sizeof(back)), VESK_OK);
    EXPECT_EQ(memcmp(back, blob, sizeof(blob)), 0);
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 2", "data", "%B", back, 299), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 1", "data", "%B", back, 300), VESK_ERR_INVALID_PARAM);
    capture_stdout([&] {
        EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", "id = 7", "data", "%B", back, 300), VESK_ERR_OPERATE_FAIL);
    });
    // The step of a blob write is not examined.
    EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "nosuch", "id = 2", "data", "%B", blob, 10), VESK_OK);
    EXPECT_EQ(vesk_utility_close_database(db), VESK_OK);
}

TEST(SqliteFuncTest, DamagedDatabaseIsReportedAsCorrupt)
{
    sqlite3* db = make_db("header.db");
    EXPECT_EQ(vesk_utility_check_sql_corrupt(db, "cam"), 0);
    EXPECT_EQ(vesk_utility_check_sql_corrupt(db, "nosuch"), 0); // ordinary failure
    EXPECT_EQ(vesk_utility_check_sql_corrupt(nullptr, "cam"), 1);
    ASSERT_EQ(vesk_utility_close_database(db), VESK_OK);
    // The header overwritten (SQLITE_NOTADB), then the table's root page 2 (SQLITE_CORRUPT).
    overwrite(db_path("header.db"), 0, 'X', 16);
    db = make_db("page.db", 200);
    ASSERT_EQ(scalar(db, "PRAGMA page_size"), "4096");
    ASSERT_EQ(scalar(db, "SELECT rootpage FROM sqlite_master WHERE name = 'cam'"), "2");
    ASSERT_EQ(vesk_utility_close_database(db), VESK_OK);
    overwrite(db_path("page.db"), 4096, 0xA5, 4096);
    for (const char* name : {"header.db", "page.db"}) {
        SCOPED_TRACE(name);
        const bool header = name[0] == 'h';
        ASSERT_EQ(vesk_utility_open_database(db_path(name).c_str(), &db), VESK_OK);
        EXPECT_EQ(vesk_utility_table_exists(db, "main", "cam"), !header); // the schema page of page.db is intact
        int32_t v = 1;
        capture_stdout([&] {
            EXPECT_EQ(vesk_utility_exec_sql_command(db, "SELECT count(*) FROM cam;", nullptr, nullptr, nullptr),
                VESK_ERR_DB_CORRUPT);
            EXPECT_EQ(vesk_utility_check_sql_corrupt(db, "cam"), 1);
            EXPECT_EQ(
                vesk_utility_exec_sql_set_value(db, "cam", "id = 1", "bitrate", "%d", &v, 4), VESK_ERR_DB_CORRUPT);
            EXPECT_EQ(
                vesk_utility_exec_sql_get_value(db, "cam", "id = 1", "bitrate", "%d", &v, 4), VESK_ERR_DB_CORRUPT);
        });
        EXPECT_EQ(vesk_utility_close_database(db), VESK_OK);
    }
}

TEST(SqliteFuncTest, StatementsLongerThanTheirBufferAreNeverRun)
{
    sqlite3* db = make_db("long.db", 1);
    ASSERT_EQ(vesk_utility_exec_sql_command(
                  db, "INSERT INTO cam VALUES(1234567, 'far', 0, 0, NULL);", nullptr, nullptr, nullptr),
        VESK_OK);
    // Padded so that a statement cut at 1023 characters would end in "id = 1" and hit row 1.
    const std::string prefix = "UPDATE cam SET bitrate = 9 WHERE ";
    const std::string cond = std::string(1023 - prefix.size() - 6, ' ') + "id = 1234567";
    ASSERT_EQ((prefix + cond).substr(0, 1023).substr(1017), "id = 1");
    const int32_t nine = 9;
    const int64_t nine64 = 9;
    const struct {
        const char *column, *fmt;
        const void* value;
        unsigned size;
    } writes[] = {{"bitrate", "%d", &nine, 4}, {"bitrate", "%u", &nine, 4}, {"big", "%lld", &nine64, 8},
        {"big", "%llu", &nine64, 8}, {"name", "%s", "9", 0}, {"data", "%B", "9", 1}};
    for (const auto& w : writes)
        capture_stdout([&] {
            EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "cam", cond.c_str(), w.column, w.fmt, w.value, w.size),
                VESK_ERR_INVALID_PARAM) << w.fmt;
        });
    EXPECT_EQ(scalar(db, "SELECT group_concat(bitrate || big || name || ifnull(data, '-'), ',') FROM cam"),
        "00cam001-,00far-");
    // With less padding the statement (" ;" included) is 1023 characters: it runs, on the far row.
    const std::string fits = cond.substr(cond.size() - (1023 - prefix.size() - 2));
    EXPECT_EQ(vesk_utility_exec_sql_set_value(db, "cam", fits.c_str(), "bitrate", "%d", &nine, 4), VESK_OK);
    EXPECT_EQ(scalar(db, "SELECT group_concat(bitrate, ',') FROM cam"), "0,9");

    char buf[16] = "untouched";
    capture_stdout([&] {
        EXPECT_EQ(vesk_utility_exec_sql_get_value(db, "cam", cond.c_str(), "bitrate", "%B", buf, sizeof(buf)),
            VESK_ERR_INVALID_PARAM);
        int num = -1;
        EXPECT_EQ(vesk_utility_get_table_column_num(db, std::string(200, 'c').c_str(), &num), VESK_ERR_INVALID_PARAM);
        EXPECT_EQ(num, -1);
    });
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(vesk_utility_close_database(db), VESK_OK);
}
