#include <gtest/gtest.h>
#include <iconv.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "store/vesk_utility_xls_operate.h"
#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

using bytes = std::vector<uint8_t>;

std::string tmp(const std::string& name)
{
    return vesk_test::private_root() + "/" + name;
}

bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const bytes& b)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

std::string run(const std::string& cmd)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    for (int c; p != nullptr && (c = fgetc(p)) != EOF;)
        out += static_cast<char>(c);
    EXPECT_TRUE(p != nullptr && pclose(p) == 0) << cmd;
    return out;
}

bool have_python_module(const char* m)
{
    return system(("/usr/bin/python3 -c 'import " + std::string(m) + "' 2>/dev/null").c_str()) == 0;
}

std::string python(const std::string& code, const std::string& args)
{
    std::ofstream(tmp("oracle.py")) << code;
    return run("/usr/bin/python3 " + tmp("oracle.py") + " " + args);
}

// "S name rows cols" per sheet and "C row col N|T value" per cell, as xlrd and our reader see it.
const char* k_xlrd_dump =
    "import sys, xlrd\n"
    "b = xlrd.open_workbook(sys.argv[1])\n"
    "o = []\n"
    "for s in b.sheets():\n"
    "    o.append('S\\t%s\\t%d\\t%d' % (s.name, s.nrows, s.ncols))\n"
    "    for r in range(s.nrows):\n"
    "        for c in range(s.ncols):\n"
    "            t = s.cell_type(r, c); v = s.cell_value(r, c)\n"
    "            if t == xlrd.XL_CELL_NUMBER: o.append('C\\t%d\\t%d\\tN\\t%.17g' % (r, c, v))\n"
    "            elif t == xlrd.XL_CELL_TEXT: o.append('C\\t%d\\t%d\\tT\\t%s' % (r, c, v))\n"
    "sys.stdout.buffer.write(('\\n'.join(o) + '\\n').encode('utf-8'))\n";

std::string number_text(double v)
{
    char b[40];
    snprintf(b, sizeof(b), "%.17g", v);
    return b;
}

std::string our_dump(const std::string& path)
{
    vesk_xls_operate* op = vesk_utility_new_xls_operate(0x65, "xls dump");
    std::string o;
    EXPECT_EQ(op->open_read(path.c_str(), 0, 0), VESK_OK);
    uint32_t sheets = 0;
    EXPECT_EQ(op->get_sheet_count(&sheets), VESK_OK);
    std::vector<char> text(200000);
    for (uint32_t s = 0; s < sheets; s++) {
        char name[128];
        uint32_t rows = 0, cols = 0;
        EXPECT_EQ(op->get_sheet_name(s, name, sizeof(name)), VESK_OK);
        EXPECT_EQ(op->get_dimensions(s, &rows, &cols), VESK_OK);
        o += "S\t" + std::string(name) + "\t" + std::to_string(rows) + "\t" + std::to_string(cols) + "\n";
        for (uint32_t r = 0; r < rows; r++) {
            for (uint32_t c = 0; c < cols; c++) {
                vesk_xls_cell_type t;
                double v = 0;
                EXPECT_EQ(op->get_cell(s, r, c, &t, &v, text.data(), static_cast<uint32_t>(text.size())), VESK_OK);
                const std::string at = "C\t" + std::to_string(r) + "\t" + std::to_string(c);
                if (t == VESK_XLS_CELL_NUMBER)
                    o += at + "\tN\t" + number_text(v) + "\n";
                else if (t == VESK_XLS_CELL_TEXT)
                    o += at + "\tT\t" + text.data() + "\n";
            }
        }
    }
    EXPECT_EQ(vesk_utility_delete_xls_operate(op, __FILE__, __func__), VESK_OK);
    return o;
}

// File offsets of the records of `type` in a workbook of ours (its stream follows the header).
std::vector<size_t> records_of(const bytes& file, uint16_t type)
{
    std::vector<size_t> at;
    for (size_t p = 512; p + 4 <= file.size();) {
        const uint16_t t = static_cast<uint16_t>(file[p] | (file[p + 1] << 8));
        const uint16_t len = static_cast<uint16_t>(file[p + 2] | (file[p + 3] << 8));
        if (t == 0 && len == 0)
            break;  // padding after the last sheet
        if (t == type)
            at.push_back(p);
        p += 4 + len;
    }
    return at;
}

#if VESK_TEST_SANITIZER_EXIT == 0 && !defined(VESK_TEST_EMULATED)
// Opens path with the address space capped 48 MiB above its current size.
VESK_ERR open_under_address_cap(const std::string& path)
{
    long pages = 0;
    if (FILE* f = fopen("/proc/self/statm", "r")) {
        if (fscanf(f, "%ld", &pages) != 1)
            pages = 0;
        fclose(f);
    }
    const rlim_t cap = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (48u << 20);
    const struct rlimit lim = {cap, cap};
    setrlimit(RLIMIT_AS, &lim);
    vesk_utility::vesk_xls_realize x;
    return x.open_read(path.c_str(), 0, 0);
}
#endif

// Strings are decoded through iconv, which has no converters under qemu-user (the board has).
bool have_iconv()
{
    const iconv_t cd = iconv_open("UTF-8", "GB2312");
    if (cd == reinterpret_cast<iconv_t>(-1))
        return false;
    iconv_close(cd);
    return true;
}
#define VESK_NEEDS_ICONV()                                                                                           \
    if (!have_iconv())                                                                                                \
    GTEST_SKIP() << "no character-set converters for this C library (a target build under qemu)"

const char k_gb_event[] = "\xca\xc2\xbc\xfe";   // "事件" in GB2312
const char k_gb_empty[] = "\xbf\xd5";           // "空"

} // namespace

TEST(XlsTest, LargeWorkbookReadsIdenticallyInXlrdXls2csvAndOurReader)
{
    if (!have_python_module("xlrd"))
        GTEST_SKIP() << "python3-xlrd is missing";
    VESK_NEEDS_ICONV();
    const std::string path = tmp("big.xls");
    vesk_xls_operate* op = vesk_utility_new_xls_operate(0x65, "xls big");
    ASSERT_NE(op, nullptr);
    ASSERT_EQ(op->create(), VESK_OK);
    uint32_t s0 = 9, s1 = 9, s2 = 9;
    ASSERT_EQ(op->add_sheet("Events", VESK_XLS_UTF8, &s0), VESK_OK);
    ASSERT_EQ(op->add_sheet("中文表", VESK_XLS_UTF8, &s1), VESK_OK);
    ASSERT_EQ(op->add_sheet(k_gb_empty, VESK_XLS_GB2312, &s2), VESK_OK);
    ASSERT_EQ(s2, 2u);
    // Expected views, built beside the writes.
    std::string dump = "S\tEvents\t10000\t10\n";
    std::string csv;
    char buf[96];
    for (uint32_t r = 0; r < 10000; r++) {
        for (uint32_t c = 0; c < 10; c++) {
            const std::string at = "C\t" + std::to_string(r) + "\t" + std::to_string(c);
            std::string shown;
            if (c % 2 == 0) {
                const double v = r * 0.25 + c - 700;
                ASSERT_EQ(op->set_number(s0, r, c, v), VESK_OK);
                dump += at + "\tN\t" + number_text(v) + "\n";
                snprintf(buf, sizeof(buf), "%g", v);
                shown = buf;
            } else if (c % 4 == 1) {
                snprintf(buf, sizeof(buf), "%s %u-%u", k_gb_event, r, c);
                ASSERT_EQ(op->set_text(s0, r, c, buf, VESK_XLS_GB2312), VESK_OK);
                shown = "事件 " + std::to_string(r) + "-" + std::to_string(c);
            } else {
                shown = "记录 " + std::to_string(r % 500) + " café";  // repeats share one string
                ASSERT_EQ(op->set_text(s0, r, c, shown.c_str(), VESK_XLS_UTF8), VESK_OK);
            }
            if (c % 2 != 0)
                dump += at + "\tT\t" + shown + "\n";
            csv += (c ? "," : "") + ("\"" + shown + "\"");
        }
        csv += "\n";
    }
    // Strings that cross record boundaries mid-way, in both encodings, and a surrogate pair.
    std::string wide, latin;
    for (int i = 0; i < 5000; i++)
        wide += "长";
    for (int i = 0; i < 9000; i++)
        latin += "é";
    ASSERT_EQ(op->set_text(s1, 0, 0, wide.c_str(), VESK_XLS_UTF8), VESK_OK);
    ASSERT_EQ(op->set_text(s1, 1, 1, latin.c_str(), VESK_XLS_UTF8), VESK_OK);
    ASSERT_EQ(op->set_text(s1, 1, 0, "Камера Ω", VESK_XLS_UTF8), VESK_OK); // 16 bits, not 8, per character
    ASSERT_EQ(op->set_text(s1, 2, 0, "表情 \xf0\x9f\x98\x80", VESK_XLS_UTF8), VESK_OK);
    ASSERT_EQ(op->set_number(s1, 2, 1, -1.5e300), VESK_OK);
    dump += "S\t中文表\t3\t2\nC\t0\t0\tT\t" + wide + "\nC\t1\t0\tT\tКамера Ω\nC\t1\t1\tT\t" + latin +
            "\nC\t2\t0\tT\t表情 \xf0\x9f\x98\x80\nC\t2\t1\tN\t" + number_text(-1.5e300) + "\nS\t空\t0\t0\n";
    ASSERT_EQ(op->save(path.c_str()), VESK_OK);
    ASSERT_EQ(vesk_utility_delete_xls_operate(op, __FILE__, __func__), VESK_OK);

    EXPECT_EQ(python(k_xlrd_dump, path), dump);
    EXPECT_EQ(our_dump(path), dump);
    if (system("xls2csv -V >/dev/null 2>&1; command -v xls2csv >/dev/null") == 0) {
        const std::string got = run("xls2csv -d utf-8 " + path);
        const size_t ff = got.find('\f');
        ASSERT_NE(ff, std::string::npos);
        EXPECT_TRUE(got.substr(0, ff) == csv) << "first sheet differs in xls2csv";
    }
}

TEST(XlsTest, XlwtWorkbooksReadAsXlrdReadsThem)
{
    if (!have_python_module("xlwt") || !have_python_module("xlrd"))
        GTEST_SKIP() << "python3-xlwt or python3-xlrd is missing";
    VESK_NEEDS_ICONV();
    const std::string path = tmp("xlwt.xls");
    python("import sys, xlwt\n"
                             "b = xlwt.Workbook(encoding='utf-8')\n"
                             "a = b.add_sheet('Alarms')\n"
                             "for r in range(300):\n"
                             "    a.write(r, 0, r * 1.5)\n"
                             "    a.write(r, 2, '告警 %d' % r)\n"
                             "    a.write(r, 5, 'x' * (r % 40))\n"
                             "a.write(400, 7, 'last')\n"
                             "u = b.add_sheet('用户')\n"
                             "u.write(0, 0, '长' * 3000)\n"
                             "u.write(1, 1, -42)\n"
                             "b.add_sheet('empty')\n"
                             "b.save(sys.argv[1])\n", path);
    const std::string want = python(k_xlrd_dump, path);
    ASSERT_NE(want.find("告警 299"), std::string::npos);
    EXPECT_EQ(our_dump(path), want);
    // A string whose characters run through two CONTINUE records is refused, not misread.
    const std::string longer = tmp("xlwt_long.xls");
    python("import sys, xlwt\n"
                              "b = xlwt.Workbook(encoding='utf-8')\n"
                              "s = b.add_sheet('s')\n"
                              "for r in range(300): s.write(r, 1, '告警 %d' % r); s.write(r, 2, 'x' * (r % 40))\n"
                              "s.write(300, 0, '长' * 6000)\n"
                              "b.save(sys.argv[1])\n", longer);
    std::string chars;
    for (int i = 0; i < 6000; i++)
        chars += "长";
    ASSERT_NE(python(k_xlrd_dump, longer).find("\tT\t" + chars + "\n"), std::string::npos);
    vesk_utility::vesk_xls_realize x;
    EXPECT_EQ(x.open_read(longer.c_str(), 0, 0), VESK_ERR_NOT_SUPPORT);
}

TEST(XlsTest, HostileAndOversizeFilesAreRefusedBeforeParsing)
{
    // A small workbook of ours, then copies with one claim or structure corrupted.
    const std::string good = tmp("small.xls");
    vesk_xls_operate* op = vesk_utility_new_xls_operate(0x65, "xls hostile");
    ASSERT_NE(op, nullptr);
    ASSERT_EQ(op->create(), VESK_OK);
    uint32_t s = 0;
    ASSERT_EQ(op->add_sheet("one", VESK_XLS_UTF8, &s), VESK_OK);
    ASSERT_EQ(op->set_text(s, 0, 0, "a", VESK_XLS_UTF8), VESK_OK);
    ASSERT_EQ(op->set_number(s, 1, 1, 2), VESK_OK);
    ASSERT_EQ(op->save(good.c_str()), VESK_OK);
    const bytes file = read_file(good);
    ASSERT_EQ(file.size(), 512u + 4096 + 512 + 512);  // header, padded stream, directory, FAT
    const size_t dims = records_of(file, 0x0200).at(0), sst = records_of(file, 0x00FC).at(0);
    const size_t bof = records_of(file, 0x0809).at(0), sheet = records_of(file, 0x0085).at(0);
    const size_t globals_end = records_of(file, 0x000A).at(0);

    auto patched = [&](size_t at, std::initializer_list<uint8_t> b) {
        bytes f = file;
        std::copy(b.begin(), b.end(), f.begin() + static_cast<long>(at));
        return f;
    };
    struct hostile_case {
        const char* name;
        bytes file;
        VESK_ERR want;
    };
    std::vector<uint8_t> garbage(6000);
    for (size_t i = 0; i < garbage.size(); i++)
        garbage[i] = static_cast<uint8_t>(i * 7 + 3);
    const std::vector<hostile_case> cases = {
        // DIMENSIONS: rows 65536 x 256 columns, 16.7 million cells.
        {"huge used area", patched(dims + 8, {0x00, 0x00, 0x01, 0x00, 0, 0, 0x00, 0x01}), VESK_ERR_NO_RESOURCE},
        {"rows beyond the format", patched(dims + 8, {0x01, 0x00, 0x01, 0x00}), VESK_ERR_OPERATE_FAIL},
        {"string count beyond the bytes", patched(sst + 8, {0xFF, 0xFF, 0xFF, 0x0F}), VESK_ERR_NO_RESOURCE},
        {"one string fewer declared", patched(sst + 8, {0x01}), VESK_ERR_OPERATE_FAIL},
        {"string past the table", patched(sst + 12, {0xFF, 0x7F}), VESK_ERR_OPERATE_FAIL},
        {"sheet name past its record", patched(sheet + 4 + 6, {0xF0}), VESK_ERR_OPERATE_FAIL},
        {"record longer than allowed", patched(dims + 2, {0xFF, 0x7F}), VESK_ERR_OPERATE_FAIL},
        {"sheet entry beside its sheet", patched(sheet + 4, {0x10}), VESK_ERR_OPERATE_FAIL},
        {"globals never closed", patched(globals_end, {0x99}), VESK_ERR_OPERATE_FAIL},
        {"second dimensions record", patched(records_of(file, 0x0203).at(0), {0x00, 0x02}), VESK_ERR_OPERATE_FAIL},
        {"cell record of the wrong size", patched(records_of(file, 0x00FD).at(0) + 2, {14}), VESK_ERR_OPERATE_FAIL},
        {"BIFF4", patched(bof + 4, {0x00, 0x04}), VESK_ERR_NOT_SUPPORT},
        {"FAT sector count huge", patched(44, {0xFF, 0xFF, 0xFF, 0x7F}), VESK_ERR_OPERATE_FAIL},
        {"FAT sector outside the file", patched(76, {0x00, 0x10, 0x00, 0x00}), VESK_ERR_OPERATE_FAIL},
        {"directory outside the file", patched(48, {0x00, 0x00, 0x01, 0x00}), VESK_ERR_OPERATE_FAIL},
        {"stream size beyond the file", patched(512 + 4096 + 128 + 120, {0, 0, 0, 0x10}), VESK_ERR_OPERATE_FAIL},
        {"directory name longer than its field", patched(512 + 4096 + 64, {0x06, 0x9D}), VESK_ERR_OPERATE_FAIL},
        {"cut short", bytes(file.begin(), file.begin() + 3000), VESK_ERR_OPERATE_FAIL},
        {"not a compound file", garbage, VESK_ERR_OPERATE_FAIL},
    };
    const std::string bad = tmp("hostile.xls");
    for (const hostile_case& c : cases) {
        SCOPED_TRACE(c.name);
        write_file(bad, c.file);
        EXPECT_EQ(op->open_read(bad.c_str(), 0, 0), c.want);
    }
    if (have_iconv()) {
        EXPECT_EQ(op->open_read(good.c_str(), 0, 0), VESK_OK);
    }
    EXPECT_EQ(op->open_read(good.c_str(), static_cast<uint32_t>(file.size() - 1), 0), VESK_ERR_NO_RESOURCE);
    EXPECT_EQ(op->open_read(good.c_str(), 0, 3), VESK_ERR_NO_RESOURCE);  // a 2 x 2 area is 4 cells
    EXPECT_EQ(op->open_read(tmp("missing.xls").c_str(), 0, 0), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(op->open_read(vesk_test::private_root().c_str(), 0, 0), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(vesk_utility_delete_xls_operate(op, __FILE__, __func__), VESK_OK);

#if VESK_TEST_SANITIZER_EXIT == 0 && !defined(VESK_TEST_EMULATED)
    // Under an address-space limit 48 MiB above the current size: the huge claim is refused
    // by the check (its own code), not by an allocation failing inside the parser.
    write_file(bad, cases[0].file);
    EXPECT_EXIT(_exit(open_under_address_cap(bad) == VESK_ERR_NO_RESOURCE ? 0 : 1), ::testing::ExitedWithCode(0), "");
#endif
}

TEST(XlsTest, FormatLimitsAreEnforcedWithClearErrors)
{
    vesk_xls_operate* op = vesk_utility_new_xls_operate(0x65, "xls limits");
    ASSERT_NE(op, nullptr);
    uint32_t s = 0;
    EXPECT_EQ(op->add_sheet("early", VESK_XLS_UTF8, &s), VESK_ERR_OPERATE_FAIL);  // no workbook yet
    EXPECT_EQ(op->set_number(0, 0, 0, 1), VESK_ERR_OPERATE_FAIL);
    ASSERT_EQ(op->create(), VESK_OK);
    EXPECT_EQ(op->save(tmp("none.xls").c_str()), VESK_ERR_OPERATE_FAIL);  // no sheet
    ASSERT_EQ(op->add_sheet("Sheet", VESK_XLS_UTF8, &s), VESK_OK);
    const std::string name31(31, 'n'), name32(32, 'n'), text32767(32767, 't'), text32768(32768, 't');
    const char* bad_names[] = {"", "a:b", "a/b", "a\\b", "a?b", "a*b", "[a", "a]", "'quoted'", "SHEET", name32.c_str(),
                               "\xff\xfe"};
    for (const char* n : bad_names)
        EXPECT_EQ(op->add_sheet(n, VESK_XLS_UTF8, &s), VESK_ERR_INVALID_PARAM) << n;
    EXPECT_EQ(op->add_sheet(name31.c_str(), VESK_XLS_UTF8, &s), VESK_OK);
    EXPECT_EQ(op->add_sheet("三十一个字符的名字也可以", VESK_XLS_UTF8, &s), VESK_OK);
    for (int i = 3; i < 256; i++)
        ASSERT_EQ(op->add_sheet(("s" + std::to_string(i)).c_str(), VESK_XLS_UTF8, &s), VESK_OK);
    EXPECT_EQ(op->add_sheet("s256", VESK_XLS_UTF8, &s), VESK_ERR_INVALID_PARAM);

    EXPECT_EQ(op->set_number(0, 65535, 255, 1), VESK_OK);
    EXPECT_EQ(op->set_number(0, 65536, 0, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(op->set_number(0, 0, 256, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(op->set_number(256, 0, 0, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(op->set_number(0, 0, 0, NAN), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(op->set_text(0, 0, 0, text32767.c_str(), VESK_XLS_UTF8), VESK_OK);
    EXPECT_EQ(op->set_text(0, 0, 0, text32768.c_str(), VESK_XLS_UTF8), VESK_ERR_INVALID_PARAM);
    const char* bad_utf8[] = {"\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "abc\xe4\xb8", "\x80"};
    for (const char* t : bad_utf8)
        EXPECT_EQ(op->set_text(0, 0, 0, t, VESK_XLS_UTF8), VESK_ERR_INVALID_PARAM);
    if (have_iconv()) {
        EXPECT_EQ(op->set_text(0, 0, 0, "\xca", VESK_XLS_GB2312), VESK_ERR_INVALID_PARAM);  // half a character
    }
    EXPECT_EQ(op->set_text(0, 0, 0, "x", static_cast<vesk_xls_charset>(7)), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(op->save(tmp("limits.xls").c_str()), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_xls_operate(op, __FILE__, __func__), VESK_OK);
}

TEST(XlsTest, AWorkbookPastSevenMegabytesNeedsTheFatIndexSectors)
{
    // An 8 MiB stream needs more FAT sectors than the header lists: DIFAT sectors, followed by both readers.
    const std::string path = tmp("difat.xls");
    vesk_xls_operate* op = vesk_utility_new_xls_operate(0x65, "xls difat");
    ASSERT_NE(op, nullptr);
    ASSERT_EQ(op->create(), VESK_OK);
    uint32_t s = 0;
    ASSERT_EQ(op->add_sheet("big", VESK_XLS_UTF8, &s), VESK_OK);
    for (uint32_t r = 0; r < 65536; r++)
        for (uint32_t c = 0; c < 7; c++)
            ASSERT_EQ(op->set_number(s, r, c, r * 7.0 + c), VESK_OK);
    ASSERT_EQ(op->save(path.c_str()), VESK_OK);
    const bytes file = read_file(path);
    ASSERT_GE(file.size(), 512u);
    EXPECT_GT(file[44] | (file[45] << 8), 109);  // FAT sectors
    EXPECT_EQ(file[72], 1);                      // DIFAT sectors
    if (have_iconv()) {
        ASSERT_EQ(op->open_read(path.c_str(), 16u << 20, 0), VESK_OK);
        vesk_xls_cell_type t;
        double v = 0;
        char text[8];
        for (uint32_t r : {0u, 40000u, 65535u}) {
            ASSERT_EQ(op->get_cell(0, r, 6, &t, &v, text, sizeof(text)), VESK_OK);
            EXPECT_EQ(t, VESK_XLS_CELL_NUMBER);
            EXPECT_EQ(v, r * 7.0 + 6) << r;
        }
    }
    EXPECT_EQ(vesk_utility_delete_xls_operate(op, __FILE__, __func__), VESK_OK);
    if (have_python_module("xlrd")) {
        EXPECT_EQ(python("import sys, xlrd\ns = xlrd.open_workbook(sys.argv[1]).sheet_by_index(0)\n"
                         "print(s.nrows, s.ncols, s.cell_value(65535, 6))\n", path), "65536 7 458751.0\n");
    }
}
