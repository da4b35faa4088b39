// JSON tree and operators; every test ends with the JSON bytes of heap and pools at their baseline.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_pool.h"
#include "store/json/vesk_utility_json_tree.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::capture_stdout;
using V2 = vesk_json_operate_V2;

namespace
{

constexpr size_t npos = std::string::npos;

// Live pool nodes with the JSON purpose and their sizes, from the pools' node dumps.
uint64_t json_pool_bytes()
{
    vesk_ground* res = vesk_ground::instance();
    std::istringstream lines(capture_stdout([&] {
        res->get_little_mem_pool()->diagnose(1, printf);
        res->get_string_pool()->diagnose(1, printf);
    }));
    uint64_t bytes = 0;
    for (std::string line; std::getline(lines, line);) {
        unsigned usr = 0, purpose = 0;
        int ci = 0, ni = 0, size = 0;
        void* mem = nullptr;
        if (sscanf(line.c_str(), "%d %d 0x%x 0x%x %p %d", &ci, &ni, &usr, &purpose, &mem, &size) == 6
            && purpose == k_json_purpose)
            bytes += static_cast<uint64_t>(size) + 1;
    }
    return bytes;
}

class json_memory_test : public testing::Test
{
protected:
    void SetUp() override
    {
        m_pool = json_pool_bytes();
        m_heap = vesk_ground::instance()->mem_account().total_size();
    }
    void TearDown() override
    {
        EXPECT_EQ(json_pool_bytes(), m_pool) << "JSON nodes or texts left in the pools";
        EXPECT_EQ(vesk_ground::instance()->mem_account().total_size(), m_heap)
            << "accounted heap not back at its baseline";
    }

private:
    uint64_t m_pool = 0;
    uint32_t m_heap = 0;
};

using JsonTreeTest = json_memory_test;

// Prints into a buffer of exactly the announced size (one more for a string at the root).
std::string print(const vesk_tool_JSON* item, int fmt)
{
    const int size = vesk_tool_JSON_get_print_size(item, fmt);
    const int room = size + ((item->type & 0xFF) == VESK_TOOL_JSON_STRING ? 1 : 0);
    std::vector<char> buf(static_cast<size_t>(room) + 8, '#');
    buf.back() = '\0';
    const int written = vesk_tool_JSON_export(item, fmt, buf.data(), room);
    EXPECT_EQ(written, size);
    EXPECT_EQ(strlen(buf.data()), static_cast<size_t>(size - 1));
    EXPECT_EQ(buf[static_cast<size_t>(room)], '#') << "wrote past the buffer";
    return std::string(buf.data());
}

std::string print_and_delete(vesk_tool_JSON* item, int fmt = 0)
{
    EXPECT_NE(item, nullptr);
    const std::string out = item != nullptr ? print(item, fmt) : "<no node>";
    vesk_tool_JSON_delete(item);
    return out;
}

std::string reprint(const char* text, int fmt = 0)
{
    return print_and_delete(vesk_tool_JSON_parse(text), fmt);
}

// A node's member by value: nodes are packed, and gtest must not bind a reference to a member.
template <class T> T field(T value)
{
    return value;
}

// Where a failing parse stopped, as an offset into its text.
long fail_offset(const char* text)
{
    vesk_tool_JSON* root = vesk_tool_JSON_parse_with_opts(text, nullptr, 1);
    EXPECT_EQ(root, nullptr) << text;
    vesk_tool_JSON_delete(root);
    const char* ep = vesk_tool_JSON_get_error_ptr();
    return ep != nullptr ? ep - text : -1;
}

std::string parsed_string(const std::string& text)
{
    vesk_tool_JSON* s = vesk_tool_JSON_parse(text.c_str());
    if (s == nullptr || s->type != VESK_TOOL_JSON_STRING) {
        vesk_tool_JSON_delete(s);
        return "<not a string>";
    }
    std::string out(s->valuestring, static_cast<size_t>(s->valuestring_len));
    EXPECT_EQ(strlen(s->valuestring), static_cast<size_t>(s->valuestring_len));
    vesk_tool_JSON_delete(s);
    return out;
}

class JsonOperatorTest : public json_memory_test
{
protected:
    void TearDown() override
    {
        EXPECT_TRUE(m_v2 == nullptr || vesk_utility_delete_json_operate_V2(m_v2, __FILE__, __func__) == VESK_OK);
        EXPECT_TRUE(m_v1 == nullptr || vesk_utility_delete_json_operate(m_v1, __FILE__, __func__) == VESK_OK);
        json_memory_test::TearDown();
    }
    V2* v2(const char* text = nullptr)
    {
        m_v2 = vesk_utility_new_json_operate_V2(text, 0x55, "v2_test");
        EXPECT_NE(m_v2, nullptr);
        return m_v2;
    }
    vesk_json_operate* v1(const char* text = nullptr)
    {
        m_v1 = vesk_utility_new_json_operate(text, 0x56, "v1_test");
        EXPECT_NE(m_v1, nullptr);
        return m_v1;
    }
    V2* m_v2 = nullptr;
    vesk_json_operate* m_v1 = nullptr;
};

// The export of a document; its announced size counts the NUL.
std::string content(V2* j)
{
    const int size = j->getContentSize();
    std::vector<char> buf(static_cast<size_t>(size) + 1);
    EXPECT_EQ(j->exportContent(buf.data(), static_cast<unsigned>(buf.size())), size);
    EXPECT_EQ(strlen(buf.data()) + 1, static_cast<size_t>(size));
    return buf.data();
}

std::string compact(vesk_json_operate* j)
{
    const int size = j->get_print_copy_unformate_size();
    std::vector<char> buf(static_cast<size_t>(size) + 1);
    EXPECT_EQ(j->print_copy_unformate(buf.data(), static_cast<int>(buf.size())), size);
    return buf.data();
}

// A read's return code and what it left in its output (read after the call that fills it).
using rc_num = std::pair<VESK_ERR, double>;
using rc_str = std::pair<VESK_ERR, std::string>;
template <class T> std::enable_if_t<std::is_arithmetic<T>::value, rc_num> rc_and(VESK_ERR rc, const T& out)
{
    return {rc, static_cast<double>(out)};
}
rc_str rc_and(VESK_ERR rc, const char* const& out)
{
    return {rc, out != nullptr ? out : "<null>"};
}

// A V2 read's return code and the value it left in an output that started at `init`.
template <class T> rc_num got(V2* j, VESK_ERR (V2::*read)(const char*, T*, ...), const char* path, double init = 0)
{
    T v = static_cast<T>(init);
    const VESK_ERR rc = (j->*read)(path, &v);
    return rc_and(rc, v);
}

} // namespace

TEST_F(JsonTreeTest, NumbersParseByAccumulationAndPrintWithTheirThresholds)
{
    const std::pair<double, const char*> cases[] = {{3, "3"}, {3.5, "3.500000"}, {1e10, "10000000000"},
        {1.5e10, "15000000000"}, {0.0000001, "1.000000e-07"}, {5000000000.5, "5.000000e+09"},
        {-2147483648.0, "-2147483648"}, {1e60, "1.000000e+60"}, {-0.25, "-0.250000"}};
    for (const auto& c : cases)
        EXPECT_EQ(print_and_delete(vesk_tool_JSON_create_number(c.first)), c.second) << c.first;
    // A lone sign is -0, '.' without a digit ends the number, a huge exponent neither overflows nor hangs.
    const std::pair<const char*, const char*> texts[] = {{"-12.5e1", "-125"}, {"1E+2", "100"}, {"25e-1", "2.500000"},
        {"-", "0"}, {"1.", "1"}, {"1e999", "inf"}, {"1e-99999999999999999999", "0"}, {"5e9", "5000000000"}};
    for (const auto& t : texts)
        EXPECT_EQ(reprint(t.first), t.second) << t.first;
    vesk_tool_JSON* big = vesk_tool_JSON_parse("5e9");
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big->valueint, INT32_MAX);
    vesk_tool_JSON_delete(big);
    // Digits after a leading 0, and literals matched by their prefix, stop the value.
    const char* end = nullptr;
    EXPECT_EQ(print_and_delete(vesk_tool_JSON_parse_with_opts("0123", &end, 0)), "0");
    EXPECT_STREQ(end, "123");
    EXPECT_EQ(print_and_delete(vesk_tool_JSON_parse_with_opts("nullx", &end, 0)), "null");
    EXPECT_STREQ(end, "x");
    // Every byte up to 32 is white space.
    vesk_tool_JSON* t = vesk_tool_JSON_parse("\x01\x1f [\x02true\x20,\tfalse\n]\r");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(vesk_tool_JSON_get_array_item(t, 0)->valueint, 1);
    EXPECT_EQ(print(t, 0), "[true,false]");
    vesk_tool_JSON_delete(t);
    EXPECT_EQ(vesk_tool_JSON_get_error_ptr(), nullptr);
    EXPECT_EQ(vesk_tool_JSON_parse(""), nullptr);
    EXPECT_EQ(vesk_tool_JSON_parse(nullptr), nullptr);
}

TEST_F(JsonTreeTest, FailuresStopAtTheOffendingByteAndNestingIsBounded)
{
    std::string objects;
    for (int i = 0; i <= k_json_max_depth; i++)
        objects += "{\"k\":";
    // Each container closes only with its own bracket; nesting is bounded to spare the stack.
    const std::pair<std::string, long> cases[]
        = {{"[1, 2,]", 6}, {"[1 2]", 3}, {"{\"a\" 1}", 5}, {"{\"a\":1 \"b\":2}", 7}, {"{a:1}", 1}, {"{\"a\":}", 5},
            {"[1,2", 4}, {"@", 0}, {"[1}", 2}, {"{\"a\":1]", 6}, {"[0123]", 2}, {"nullx", 4}, {"  true false", 7},
            {std::string(200000, '['), k_json_max_depth}, {objects, 5L * k_json_max_depth}};
    for (const auto& c : cases)
        EXPECT_EQ(fail_offset(c.first.c_str()), c.second) << c.first.substr(0, 20);

    std::string ok(static_cast<size_t>(k_json_max_depth), '[');
    ok += std::string(static_cast<size_t>(k_json_max_depth), ']');
    EXPECT_EQ(reprint(ok.c_str(), 1), ok);
    EXPECT_EQ(reprint(" [ ] "), "[]");
    EXPECT_EQ(reprint("{\n}"), "{}");
}

TEST_F(JsonTreeTest, StringEscapesDecode)
{
    // Unpaired surrogates are dropped; \u digits read as "%4x" reads them; unterminated strings end.
    const std::pair<const char*, const char*> cases[] = {{"\"a\\bb\\fc\\nd\\re\\tf\"", "a\bb\fc\nd\re\tf"},
        {"\"\\\"\\\\\\/\\q\"", "\"\\/q"}, {"\"x\\u0000y\"", "xy"}, {"\"\\uD83D\\uDE00\"", "\xF0\x9F\x98\x80"},
        {"\"<\\uD83D>\"", "<>"}, {"\"<\\uD83D\\u0041>\"", "<>"}, {"\"<\\uDE00>\"", "<>"},
        {"\"\\u00e9\\u20AC\\u0041\"",
            "\xC3\xA9\xE2\x82\xAC"
            "A"},
        {"\"\\u41zz!\"", "A!"}, {"\"\\u+041!\"", "A!"},
        {"\"abc", "abc"}, {"\"abc\\", "abc"}, {"\"ab\\u00", "ab"}, {"\"\\uD83D\\uDE", ""}};
    for (const auto& c : cases)
        EXPECT_EQ(parsed_string(c.first), c.second) << c.first;
    // An escape cut short by the closing quote ends at the quote.
    EXPECT_EQ(reprint("[\"\\u\",\"next\"]"), "[\"\",\"next\"]");
}

TEST_F(JsonTreeTest, CompactAndFormattedLayoutsWriteStringsVerbatim)
{
    vesk_tool_JSON* obj = vesk_tool_JSON_create_object();
    vesk_tool_JSON_add_item_to_object(obj, "k\"ey", vesk_tool_JSON_create_string("a\"b"));
    vesk_tool_JSON_add_item_to_object(obj, "nl", vesk_tool_JSON_create_string("1\n2"));
    EXPECT_EQ(print(obj, 0), "{\"k\"ey\":\"a\"b\",\"nl\":\"1\n2\"}");
    EXPECT_EQ(vesk_tool_JSON_get_object_item(obj, "K\"EY")->valuestring_len, 3);
    vesk_tool_JSON_delete(obj);
    EXPECT_EQ(reprint("\"tab\\there\""), "\"tab\there\""); // decoded escapes come back decoded
    EXPECT_EQ(print_and_delete(vesk_tool_JSON_create_string("")), "\"\"");
    EXPECT_EQ(vesk_tool_JSON_create_string(nullptr), nullptr);

    EXPECT_EQ(reprint("{\"a\":[1,2],\"b\":\"x\"}"), "{\"a\":[1,2],\"b\":\"x\"}");
    EXPECT_EQ(reprint("{\"a\":[1,2],\"b\":\"x\"}", 1), "{\n\t\"a\":\t[1, 2],\n\t\"b\":\t\"x\"\n}");
    // An empty object closes one level further out.
    EXPECT_EQ(reprint("{\"o\":{\"p\":{},\"q\":{\"r\":{}}},\"e\":{},\"l\":[{\"s\":true},{}]}", 1),
        "{\n\t\"o\":\t{\n\t\t\"p\":\t{\n\t},\n\t\t\"q\":\t{\n\t\t\t\"r\":\t{\n\t\t}\n\t\t}\n\t},\n"
        "\t\"e\":\t{\n},\n\t\"l\":\t[{\n\t\t\t\"s\":\ttrue\n\t\t}, {\n\t}]\n}");
    EXPECT_EQ(reprint("{}", 1), "{\n}");
    EXPECT_EQ(reprint("[[],[[]],null]", 1), "[[], [[]], null]");
}

TEST_F(JsonTreeTest, BufferOfThePrintSizeFitsAndOneLessIsRefused)
{
    char buf[64];
    // A refused print returns 1 and writes nothing.
    const auto refused = [&](const vesk_tool_JSON* item, int fmt, int room) {
        memset(buf, '#', sizeof(buf));
        capture_stdout([&] { EXPECT_EQ(vesk_tool_JSON_export(item, fmt, buf, room), 1) << room; });
        EXPECT_EQ(buf[0], '#') << "a refused print wrote";
    };
    vesk_tool_JSON* root = vesk_tool_JSON_parse("{\"a\":[1,2],\"b\":\"x\"}");
    ASSERT_NE(root, nullptr);
    const vesk_tool_JSON* array = vesk_tool_JSON_get_object_item(root, "a");
    for (int fmt = 0; fmt <= 1; fmt++) {
        const int size = vesk_tool_JSON_get_print_size(root, fmt);
        const int asize = vesk_tool_JSON_get_print_size(array, fmt);
        refused(root, fmt, size - 1);
        refused(array, fmt, asize - 1);
        EXPECT_EQ(vesk_tool_JSON_export(root, fmt, buf, size), size);
        EXPECT_EQ(vesk_tool_JSON_export(array, fmt, buf, asize), asize);
    }
    vesk_tool_JSON_delete(root);
    // A string at the root needs one byte more than its print size.
    vesk_tool_JSON* s = vesk_tool_JSON_create_string("abcd");
    EXPECT_EQ(vesk_tool_JSON_get_print_size(s, 0), 7);
    refused(s, 0, 7);
    EXPECT_EQ(vesk_tool_JSON_export(s, 0, buf, 8), 7);
    EXPECT_STREQ(buf, "\"abcd\"");
    vesk_tool_JSON_delete(s);
    vesk_tool_JSON* f = vesk_tool_JSON_create_bool(0);
    refused(f, 0, 5);
    refused(f, 0, 0);
    EXPECT_EQ(vesk_tool_JSON_export(f, 0, buf, 6), 6);
    EXPECT_STREQ(buf, "false");
    vesk_tool_JSON_delete(f);
}

TEST_F(JsonTreeTest, LookupsIgnoreCaseAndEditsKeepTheListConsistent)
{
    vesk_tool_JSON* root = vesk_tool_JSON_parse("{\"name\":\"cam\",\"list\":[10,20,30]}");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(vesk_tool_JSON_get_object_item(root, "Name")->valuestring, "cam");
    EXPECT_EQ(vesk_tool_JSON_get_object_item(root, "nam"), nullptr);
    EXPECT_EQ(vesk_tool_JSON_get_object_item(root, nullptr), nullptr);
    vesk_tool_JSON* list = vesk_tool_JSON_get_object_item(root, "LIST");
    EXPECT_EQ(vesk_tool_JSON_get_array_size(list), 3);
    EXPECT_EQ(vesk_tool_JSON_get_array_item(list, -5)->valueint, 10); // indexes clamp at 0
    EXPECT_EQ(vesk_tool_JSON_get_array_item(list, 2)->valueint, 30);
    EXPECT_EQ(vesk_tool_JSON_get_array_item(list, 3), nullptr);
    EXPECT_EQ(vesk_tool_JSON_get_object_item(list, "x"), nullptr); // array members have no name
    vesk_tool_JSON_delete(root);

    list = vesk_tool_JSON_parse("[0,1,2,3,4]");
    ASSERT_NE(list, nullptr);
    vesk_tool_JSON_delete(vesk_tool_JSON_detach_item_from_array(list, 2));
    for (int idx : {0, 2, 7})
        vesk_tool_JSON_delete_item_from_array(list, idx);
    EXPECT_EQ(print(list, 0), "[1,3]");
    vesk_tool_JSON_replace_item_in_array(list, 0, vesk_tool_JSON_create_string("one"));
    vesk_tool_JSON_replace_item_in_array(list, 1, vesk_tool_JSON_create_null());
    vesk_tool_JSON* spare = vesk_tool_JSON_create_bool(7);
    EXPECT_EQ(spare->type, VESK_TOOL_JSON_TRUE);
    vesk_tool_JSON_replace_item_in_array(list, 2, spare); // past the end: nothing happens
    vesk_tool_JSON_add_item_to_array(list, spare);
    vesk_tool_JSON_add_item_to_array(list, nullptr);
    EXPECT_EQ(print(list, 0), "[\"one\",null,true]");
    EXPECT_EQ(field(list->child->prev), nullptr);
    EXPECT_EQ(field(list->child->next->next->prev), field(list->child->next));
    vesk_tool_JSON_delete(list);

    vesk_tool_JSON* obj = vesk_tool_JSON_parse("{\"a\":1,\"b\":2,\"c\":3}");
    ASSERT_NE(obj, nullptr);
    vesk_tool_JSON_add_item_to_object(obj, "a", vesk_tool_JSON_create_number(4)); // duplicates are kept
    vesk_tool_JSON_replace_item_in_object(obj, "B", vesk_tool_JSON_create_array());
    vesk_tool_JSON_delete_item_from_object(obj, "A");
    vesk_tool_JSON_delete_item_from_object(obj, "zz");
    EXPECT_EQ(print(obj, 0), "{\"B\":[],\"c\":3,\"a\":4}");
    vesk_tool_JSON* c = vesk_tool_JSON_detach_item_from_object(obj, "c");
    EXPECT_STREQ(c != nullptr ? c->string : "", "c");
    vesk_tool_JSON_delete(c);
    EXPECT_EQ(print(obj, 0), "{\"B\":[],\"a\":4}");
    vesk_tool_JSON_delete(obj);
}

TEST_F(JsonTreeTest, ConfigurationDocumentRoundTrips)
{
    // A device configuration's shapes: nesting, empty containers, escapes, exponents, literals.
    const char* text = "{\n\t\"device\": {\"model\": \"NVR-3208\", \"max_channels\": 32},\r\n"
                       "  \"channels\": [{\"chn\": 0, \"enable\": true, \"name\": \"\\u524d\\u95e8 Gate\",\n"
                       "    \"stream\": [{\"fps\": 25, \"gop\": 50}], \"osd\": {\"x\": 0.02, \"y\": -0.95}},\n"
                       "    {\"chn\": 1, \"stream\": [], \"osd\": {}, \"ptz\": {\"home\": null}}],\n"
                       "  \"disk\": {\"quota_gb\": [1024, 0.5e3, 1.5E+2, 2e-1], \"smart\": false}}";
    vesk_tool_JSON* first = vesk_tool_JSON_parse_with_opts(text, nullptr, 1);
    ASSERT_NE(first, nullptr);
    const std::string compact = print(first, 0);
    const std::string formatted = print(first, 1);
    vesk_tool_JSON_delete(first);
    // Printing what was printed, either way, changes nothing.
    EXPECT_EQ(reprint(compact.c_str(), 0), compact);
    EXPECT_EQ(reprint(formatted.c_str(), 0), compact);
    EXPECT_EQ(reprint(formatted.c_str(), 1), formatted);
    vesk_tool_JSON* users = vesk_tool_JSON_parse(
        "{\"last_login\":1718022093000,\"live\":4294967295,\"ratio\":0.3333333333,\"t\":\"\\u524d\\u95e8\"}");
    ASSERT_NE(users, nullptr);
    EXPECT_EQ(field(vesk_tool_JSON_get_object_item(users, "last_login")->valuedouble), 1718022093000.0);
    EXPECT_EQ(print(users, 0),
        "{\"last_login\":1718022093000,\"live\":4294967295,\"ratio\":0.333333,\"t\":\"\xE5\x89\x8D\xE9\x97\xA8\"}");
    vesk_tool_JSON_delete(users);
}

// Names, indexes and "%d" arguments make a path of at most 32 steps; anything else is refused.
TEST_F(JsonOperatorTest, PathGrammarAndItsLimit)
{
    V2* j = v2();
    std::string path32 = "k0";
    for (int i = 1; i < 31; i++)
        path32 += ".k" + std::to_string(i);
    path32 += ".z";
    capture_stdout([&] {
        j->execSetInt("x_1-y[%d].Z9", 1, 0);
        j->execSetInt("list[%d][%d]", 2, 1, 0);
        j->execSetInt(path32.c_str(), 3);
    });
    int32_t v = 0;
    EXPECT_EQ(rc_and(j->execTryGetInt("X_1-Y[0].z9", &v), v), rc_num(VESK_OK, 1));
    EXPECT_EQ(rc_and(j->execTryGetInt("list[1][%d]", &v, 0), v), rc_num(VESK_OK, 2));
    EXPECT_EQ(got(j, &V2::execTryGetInt, path32.c_str()), rc_num(VESK_OK, 3));
    const std::string before = content(j);
    for (const std::string& bad : {std::string("a..b"), std::string("a[x]"), std::string("a[1"), std::string("1a"),
             std::string("a."), std::string("a[1]b"), std::string("a[%d"), std::string(""), path32 + ".k32",
             path32 + "x"})
        capture_stdout([&] {
            j->execSetInt(bad.c_str(), 4, 0);
            EXPECT_EQ(j->execTryGetInt(bad.c_str(), &v, 0), VESK_ERR_OPERATE_FAIL) << bad;
        });
    EXPECT_EQ(content(j), before);
}

TEST_F(JsonOperatorTest, SetCreatesPathsPadsArraysAndReplacesInPlace)
{
    V2* j = v2();
    capture_stdout([&] { j->execSetInt("a.b[2].c", 5); });
    EXPECT_EQ(content(j), "{\"a\":{\"b\":[{},{},{\"c\":5}]}}");

    ASSERT_EQ(j->loadData("{\"list\":[]}"), VESK_OK);
    j->execSetInt("list[3]", 7);
    j->execSetInt("list[%d]", 8, 1); // inside the array: replaced in place
    j->execSetInt("grid[%d][%d]", 9, 1, 0);
    // A stray index far past the end is refused instead of padding millions of nodes.
    capture_stdout([&] {
        j->execSetInt("list[%d]", 1, -1);
        j->execSetInt("deep[%d].x", 1, 5000);
    });
    EXPECT_EQ(content(j), "{\"list\":[null,8,null,7],\"grid\":[[],[9]],\"deep\":[]}");
    // A leaf name keeps its first 63 characters; names on the way stay whole.
    const std::string n63(63, 'n'), n70 = n63 + "_ignored";
    j->execSetInt((n70 + "." + n70).c_str(), 3);
    EXPECT_EQ(got(j, &V2::execTryGetInt, (n70 + "." + n63 + "_other").c_str()), rc_num(VESK_OK, 3));
    EXPECT_NE(content(j).find("\"" + n70 + "\":{\"" + n63 + "\":3}"), npos) << content(j);

    ASSERT_EQ(j->loadData("{\"a\":1,\"b\":\"x\",\"c\":{\"d\":[1,2]}}"), VESK_OK);
    j->execSetStr("b", "y");
    j->execSetDouble("c", 2.5);
    j->execSetBool("a", 42);
    j->execSetLongLongInt("t", 1718022093000LL);
    j->execSetS8Int("s8", 300);
    j->execSetS16Int("s16", 70000);
    j->execSetLong("l", -5L);
    j->execSetStr("B", nullptr); // refused, nothing changes
    j->execSetStr(nullptr, "v");
    EXPECT_EQ(
        content(j), "{\"a\":true,\"b\":\"y\",\"c\":2.500000,\"t\":1718022093000,\"s8\":44,\"s16\":4464,\"l\":-5}");
}

TEST_F(JsonOperatorTest, ReadsFollowTheReturnCodeTable)
{
    V2* j = v2(
        "{\"n\":300,\"big\":5000000000,\"d\":-2.75,\"s\":\"text\",\"t\":true,\"f\":false,\"arr\":[1,{\"k\":\"v\"}]}");
    EXPECT_EQ(got(j, &V2::execTryGetS8Int, "n"), rc_num(VESK_OK, 44));
    EXPECT_EQ(got(j, &V2::execTryGetS16Int, "N"), rc_num(VESK_OK, 300));
    EXPECT_EQ(got(j, &V2::execTryGetLong, "n"), rc_num(VESK_OK, 300));
    EXPECT_EQ(got(j, &V2::execTryGetLongLongInt, "big"), rc_num(VESK_OK, 5000000000.0));
    EXPECT_EQ(got(j, &V2::execTryGetDouble, "d"), rc_num(VESK_OK, -2.75));
    EXPECT_EQ(got(j, &V2::execTryGetInt, "arr[0]"), rc_num(VESK_OK, 1));
    EXPECT_EQ(got(j, &V2::execTryGetBool, "f", 7), rc_num(VESK_OK, 0));
    EXPECT_EQ(got(j, &V2::execTryGetBool, "t"), rc_num(VESK_OK, 1));
    // Wrong type: logged, VESK_OK, output untouched (callers initialise it).
    int32_t s32 = 0;
    capture_stdout([&] {
        EXPECT_EQ(got(j, &V2::execTryGetInt, "s", -99), rc_num(VESK_OK, -99));
        EXPECT_EQ(got(j, &V2::execTryGetBool, "n", 5), rc_num(VESK_OK, 5));
        for (const char* missing : {"missing", "arr[5]", "no.such.path", "bad..path"})
            EXPECT_EQ(j->execTryGetInt(missing, &s32), VESK_ERR_OPERATE_FAIL) << missing;
        EXPECT_EQ(j->execTryGetInt(nullptr, &s32), VESK_ERR_INVALID_PARAM);
    });

    char buf[8];
    EXPECT_EQ(rc_and(j->execGetStr("arr[1].k", buf, sizeof(buf)), buf), rc_str(VESK_OK, "v"));
    EXPECT_EQ(rc_and(j->execGetStr("s", buf, 3), buf), rc_str(VESK_OK, "te")); // cut to the buffer
    strcpy(buf, "old");
    capture_stdout([&] {
        EXPECT_EQ(rc_and(j->execTryGetStr("n", buf, sizeof(buf)), buf), rc_str(VESK_ERR_OPERATE_FAIL, "old"));
        EXPECT_EQ(rc_and(j->execGetStr("n", buf, sizeof(buf)), buf), rc_str(VESK_ERR_OPERATE_FAIL, "")); // emptied
    });
    capture_stdout([&] { EXPECT_EQ(j->execGetStr("s", buf, 0), VESK_ERR_INVALID_PARAM); });

    int len = 0;
    const char* addr = j->execGetStr_addr("s", &len);
    EXPECT_EQ(std::string(addr != nullptr ? addr : "", static_cast<size_t>(len)), "text");
    capture_stdout([&] {
        EXPECT_EQ(j->execGetStr_addr("s", nullptr), nullptr);
        EXPECT_EQ(j->execGetStr_addr("n", &len), nullptr);
        EXPECT_EQ(j->execGetArraysize("s"), 0);
    });
    EXPECT_EQ(j->execGetArraysize("arr"), 2);
    capture_stdout([&] { EXPECT_EQ(j->exportContent(buf, 0), 0); });
}

TEST_F(JsonOperatorTest, DeleteAndDocumentLifecycle)
{
    V2* j = v2("{\"a\":[0,1,2],\"b\":{\"c\":1,\"d\":2}}");
    j->execDelete("a[%d]", 1);
    j->execDelete("b.C");
    capture_stdout([&] {
        j->execDelete("b.zz");
        j->execDelete("q.r");
    });
    EXPECT_EQ(content(j), "{\"a\":[0,2],\"b\":{\"d\":2}}");
    // A failed load leaves no document: every operation does nothing until a load or clear.
    EXPECT_EQ(j->loadData("{broken"), VESK_ERR_FAIL);
    EXPECT_EQ(got(j, &V2::execTryGetInt, "a", 3), rc_num(VESK_ERR_INVALID_PARAM, 3));
    char buf[16] = "keep";
    EXPECT_EQ(rc_and(j->execTryGetStr("a", buf, sizeof(buf)), buf), rc_str(VESK_ERR_INVALID_PARAM, "keep"));
    j->execSetInt("a", 1);
    EXPECT_EQ(j->execGetArraysize("a"), 0);
    EXPECT_EQ(j->getContentSize(), 0);
    EXPECT_EQ(j->exportContent(buf, sizeof(buf)), 0);
    EXPECT_EQ(j->clearData(), VESK_OK);
    EXPECT_EQ(content(j), "{}");
    // An initial text that does not parse gives an empty document.
    vesk_json_operate* one = v1("not json");
    EXPECT_EQ(compact(one), "{}");
    EXPECT_EQ(one->load("[1"), VESK_ERR_FAIL);
    int i = 0;
    EXPECT_EQ(one->try_get_item_int("a", i), VESK_ERR_FAIL);
    EXPECT_EQ(one->add_item_int("a", 1), VESK_ERR_FAIL);
    EXPECT_EQ(one->add_item_str("a", -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, "s"), VESK_ERR_FAIL);
    EXPECT_EQ(one->print_copy(buf, sizeof(buf)) + one->get_print_copy_size() + one->get_item_arrysize("a"), 0);
    EXPECT_EQ(one->load("{\"x\":1}"), VESK_OK);
}

using JsonOperatorDeathTest = JsonOperatorTest;

TEST_F(JsonOperatorDeathTest, PathThroughAScalarAndASecondDeleteAreFatal)
{
    V2* j = v2("{\"a\":{\"b\":3}}");
    int32_t v = 0;
    VESK_EXPECT_FATAL(j->execSetInt("a.b.c", 1), "parent->type = 3 why\\?\\?");
    VESK_EXPECT_FATAL(j->execTryGetInt("a[0].c", &v), "key_result\\[i\\].key_name != NULL");
    V2* gone = vesk_utility_new_json_operate_V2(nullptr, 1, "death");
    ASSERT_EQ(vesk_utility_delete_json_operate_V2(gone, "caller.cpp", "twice"), VESK_OK);
    VESK_EXPECT_FATAL(
        vesk_utility_delete_json_operate_V2(gone, "caller.cpp", "twice"), "caller.cpp, twice delete invalid!");
}

TEST_F(JsonOperatorTest, NameChainsAppendReadTheFirstAndReachArrayElementMembers)
{
    vesk_json_operate* j = v1();
    EXPECT_EQ(j->add_item_int("k", 1), VESK_OK);
    EXPECT_EQ(j->add_item_int("k", 2), VESK_OK);
    int v = 0;
    EXPECT_EQ(rc_and(j->try_get_item_int("k", v), v), rc_num(VESK_OK, 1));
    EXPECT_EQ(j->add_item_string("net", "eth0", "ip", "mask", "255.0.0.0"), VESK_OK);
    EXPECT_EQ(j->add_item_double("net", "mtu", 1500), VESK_OK);
    EXPECT_EQ(j->add_item_int("net", "eth0", "ip", "prefix", 8), VESK_OK);
    EXPECT_EQ(j->add_item_string("k", "x", "refused"), VESK_ERR_FAIL); // k is a number
    EXPECT_EQ(j->add_item_string(nullptr, "x"), VESK_ERR_FAIL);
    EXPECT_EQ(
        compact(j), "{\"k\":1,\"k\":2,\"net\":{\"eth0\":{\"ip\":{\"mask\":\"255.0.0.0\",\"prefix\":8}},\"mtu\":1500}}");

    char buf[6];
    EXPECT_EQ(
        rc_and(j->get_item_string_copy("NET", "eth0", "ip", "mask", buf, sizeof(buf)), buf), rc_str(VESK_OK, "255.0"));
    EXPECT_EQ(j->get_item_string_copy("net", "mtu", buf, sizeof(buf)), VESK_ERR_FAIL);
    EXPECT_EQ(j->get_item_string_copy("net", "eth0", "ip", "mask", buf, 0), VESK_ERR_FAIL); // no room at all
    double d = 0;
    EXPECT_EQ(rc_and(j->try_get_item_double("net", "mtu", d), d), rc_num(VESK_OK, 1500));
    EXPECT_EQ(rc_and(j->try_get_item_int("net", "eth0", "ip", "prefix", v), v), rc_num(VESK_OK, 8));
    EXPECT_EQ(j->get_item_arrysize("net"), 2);
    EXPECT_EQ(j->get_item_arrysize("net", "eth0", "ip"), 2);
    EXPECT_EQ(j->get_item_arrysize("nothing"), 0);

    EXPECT_EQ(j->delete_item("k"), VESK_OK);
    EXPECT_EQ(j->delete_item("net", "eth0", "ip", "mask"), VESK_OK);
    EXPECT_EQ(j->delete_item("net", "zz"), VESK_ERR_FAIL);
    EXPECT_EQ(rc_and(j->try_get_item_int("k", v), v), rc_num(VESK_OK, 2));
    EXPECT_EQ(compact(j), "{\"k\":2,\"net\":{\"eth0\":{\"ip\":{\"prefix\":8}},\"mtu\":1500}}");
    // Reads convert: "big" goes through 64 bits and keeps the low 32.
    ASSERT_EQ(
        j->load(
            "{\"t\":true,\"f\":false,\"big\":4294967297,\"neg\":-3.9,\"s\":\"str\",\"n\":null,\"o\":{\"k\":\"v\"}}"),
        VESK_OK);
    for (const auto& c : {std::make_pair("t", 1), {"f", 0}, {"big", 1}, {"neg", -3}}) {
        v = 9;
        EXPECT_EQ(rc_and(j->try_get_item_int(c.first, v), v), rc_num(VESK_OK, c.second)) << c.first;
    }
    EXPECT_EQ(rc_and(j->try_get_item_double("t", d), d), rc_num(VESK_OK, 1));
    EXPECT_EQ(j->try_get_item_int("s", v), VESK_ERR_FAIL);
    EXPECT_EQ(j->try_get_item_double("n", d), VESK_ERR_FAIL);
    int len = 0;
    EXPECT_STREQ(j->get_item_string_addr("S", len), "str");
    EXPECT_EQ(len, 3);
    EXPECT_EQ(j->get_item_string_addr("o", len), nullptr);

    // Members of array elements.
    ASSERT_EQ(j->load("{\"dev\":{\"chn\":[{\"id\":0,\"name\":\"gate\"}]}}"), VESK_OK);
    EXPECT_EQ(j->add_item_arry_item_int("dev", "chn", 2, "id", 2), VESK_OK);
    EXPECT_EQ(j->add_item_arry_item_string("users", 0, "name", "admin"), VESK_OK);
    EXPECT_EQ(j->add_item_arry_item_int("users", 0, "level", 3), VESK_OK);
    EXPECT_EQ(j->add_item_arry_item_int("users", -1, "level", 3), VESK_ERR_FAIL);
    EXPECT_EQ(compact(j),
        "{\"dev\":{\"chn\":[{\"id\":0,\"name\":\"gate\"},{},{\"id\":2}]},"
        "\"users\":[{\"name\":\"admin\",\"level\":3}]}");
    v = -1;
    EXPECT_EQ(rc_and(j->get_item_arry_item_int("dev", "chn", 2, "id", v), v), rc_num(VESK_OK, 2));
    EXPECT_EQ(rc_and(j->get_item_arry_item_int("users", 0, "LEVEL", v), v), rc_num(VESK_OK, 3));
    EXPECT_EQ(j->get_item_arry_item_int("users", 1, "level", v), VESK_ERR_FAIL);
    const char* name = nullptr;
    EXPECT_EQ(rc_and(j->get_item_arry_item_string("dev", "chn", 0, "name", name), name), rc_str(VESK_OK, "gate"));
    EXPECT_EQ(j->get_item_arry_item_string("users", 0, "level", name), VESK_ERR_FAIL);
    char four[4];
    EXPECT_EQ(rc_and(j->get_item_arry_item_string_copy("users", 0, "name", four, sizeof(four)), four),
        rc_str(VESK_OK, "adm"));
    EXPECT_EQ(rc_and(j->get_item_arry_item_string_copy("dev", "chn", 0, "name", four, sizeof(four)), four),
        rc_str(VESK_OK, "gat"));
}

TEST_F(JsonOperatorTest, LevelsOverwriteInPlaceAndPadWithObjects)
{
    vesk_json_operate* j = v1("{\"keep\":1}");
    for (int day : {5, 6})
        EXPECT_EQ(j->add_item_int("sched", 2, "day", -1, nullptr, -1, nullptr, -1, nullptr, -1, day), VESK_OK);
    for (const char* s : {"x", "yz"})
        EXPECT_EQ(j->add_item_str("sched", 0, nullptr, 1, nullptr, -1, nullptr, -1, nullptr, -1, s), VESK_OK);
    EXPECT_EQ(compact(j), "{\"keep\":1,\"sched\":[[{},\"yz\"],{},{\"day\":6}]}");
    // A member step into a non-object, an index into an object with members: refused.
    EXPECT_EQ(j->add_item_int("keep", -1, "x", -1, nullptr, -1, nullptr, -1, nullptr, -1, 1), VESK_ERR_FAIL);
    EXPECT_EQ(j->add_item_int(nullptr, 0, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, 1), VESK_ERR_FAIL);
    EXPECT_EQ(j->add_item_int(nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, 1), VESK_ERR_FAIL);

    int v = 0;
    EXPECT_EQ(rc_and(j->try_get_item_int("sched", 2, "day", -1, nullptr, -1, nullptr, -1, nullptr, -1, v), v),
        rc_num(VESK_OK, 6));
    capture_stdout([&] {
        EXPECT_EQ(j->try_get_item_int("sched", 0, nullptr, 1, nullptr, -1, nullptr, -1, nullptr, -1, v), VESK_ERR_FAIL);
        EXPECT_EQ(
            j->try_get_item_int("sched", 3, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, v), VESK_ERR_FAIL);
    });

    int len = 0;
    EXPECT_NE(j->get_item_str_addr("sched", 0, nullptr, 1, nullptr, -1, nullptr, -1, nullptr, -1, len), nullptr);
    EXPECT_EQ(len, 2);
    char buf[2];
    EXPECT_EQ(rc_and(j->get_item_str_copy("sched", 0, nullptr, 1, nullptr, -1, nullptr, -1, nullptr, -1, buf, 2), buf),
        rc_str(VESK_OK, "y"));
    EXPECT_EQ(j->get_item_arrysize("sched", -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1), 3);
    EXPECT_EQ(j->get_item_arrysize("keep", -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1), 0);
}

TEST_F(JsonOperatorTest, TheDumpListsAndMeasuresEachDocument)
{
    v1("{\"a\":\"bc\"}");
    v2("[1,2,3]");
    const std::string dump
        = capture_stdout([] { vesk_utility_res_manage::instance()->diagnose(8, printf); });
    for (const char* line : {"name = 'v1_test', object num = 2", "name = 'v2_test', object num = 4"})
        EXPECT_NE(dump.find(line), npos) << line << "\n" << dump;
    capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_delete_json_operate(nullptr, "f.cpp", "fn"), VESK_ERR_INVALID_PARAM); });
}

// Each operation holds the document's lock: no writer loses another's work, no reader sees a torn tree.
TEST_F(JsonOperatorTest, ConcurrentWritersAndReadersShareOneDocument)
{
    V2* j = v2();
    constexpr int k_threads = 4, k_rounds = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < k_threads; t++) {
        threads.emplace_back([j, t] {
            for (int i = 0; i < k_rounds; i++) {
                j->execSetInt("t%d", i, t); // "%d" is not an index here: a member named "t%d"
                j->execSetInt("w[%d].v", i, t);
                int32_t v = -1;
                j->execTryGetInt("w[%d].v", &v, t);
                std::vector<char> buf(static_cast<size_t>(j->getContentSize()) + 64);
                j->exportContent(buf.data(), static_cast<unsigned>(buf.size()));
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    for (int t = 0; t < k_threads; t++) {
        int32_t v = -1;
        EXPECT_EQ(rc_and(j->execTryGetInt("w[%d].v", &v, t), v), rc_num(VESK_OK, k_rounds - 1));
    }
    EXPECT_EQ(j->execGetArraysize("w"), k_threads);
}
