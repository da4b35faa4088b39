// Tests of the JSON tree: parser rules, printer formats and buffer checks, node operations.
#include "store/json/vesk_utility_json_tree.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "json_test_memory.h"
#include "test_support.h"

using namespace vesk_utility;

namespace
{

using JsonTreeTest = vesk_json_test::json_memory_test;

// Prints into a buffer of exactly the announced size (one more for a string at the root,
// which the printer asks for on purpose) and checks the length contract.
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

// Prints a node (see print) and deletes it.
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

// A node's member by value. Nodes are packed to 4 bytes, so on a 64-bit host their pointers
// and doubles may sit off their natural alignment; gtest's comparisons bind references to
// their operands, which must not point at such a member.
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

} // namespace

TEST_F(JsonTreeTest, NumbersParseByAccumulationAndPrintWithTheirThresholds)
{
    const std::pair<double, const char*> cases[] = {{3, "3"}, {3.5, "3.500000"}, {1e10, "10000000000"},
        {1.5e10, "15000000000"}, {0.0000001, "1.000000e-07"}, {5000000000.5, "5.000000e+09"},
        {-2147483648.0, "-2147483648"}, {1e60, "1.000000e+60"}, {-0.25, "-0.250000"}};
    for (const auto& c : cases)
        EXPECT_EQ(print_and_delete(vesk_tool_JSON_create_number(c.first)), c.second) << c.first;
    // A lone sign is -0, '.' without a digit ends the number, a huge exponent neither overflows
    // nor hangs; valueint saturates like the board's conversion, so the printer uses %.0f.
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
    // Each container closes only with its own bracket; nesting is bounded so that no text
    // exhausts the stack.
    const std::pair<std::string, long> cases[]
        = {{"[1, 2,]", 6}, {"[1 2]", 3}, {"{\"a\" 1}", 5}, {"{\"a\":1 \"b\":2}", 7}, {"{a:1}", 1}, {"{\"a\":}", 5},
            {"[1,2", 4}, {"@", 0}, {"[1}", 2}, {"{\"a\":1]", 6}, {"[0123]", 2}, {"nullx", 4}, {"  true false", 7},
            {std::string(200000, '['), k_json_max_depth}, {objects, 5L * k_json_max_depth}};
    for (const auto& c : cases)
        EXPECT_EQ(fail_offset(c.first.c_str()), c.second) << c.first.substr(0, 20);

    std::string ok(static_cast<size_t>(k_json_max_depth), '[');
    ok += std::string(static_cast<size_t>(k_json_max_depth), ']');
    EXPECT_EQ(reprint(ok.c_str(), 1), ok);
    for (const char* text : {" [ ] ", "{\n}"}) {
        vesk_tool_JSON* empty = vesk_tool_JSON_parse(text);
        ASSERT_NE(empty, nullptr);
        EXPECT_EQ(empty->type, text[1] == '[' ? VESK_TOOL_JSON_ARRAY : VESK_TOOL_JSON_OBJECT);
        EXPECT_EQ(field(empty->child), nullptr);
        vesk_tool_JSON_delete(empty);
    }
}

TEST_F(JsonTreeTest, StringEscapesDecode)
{
    // A lone or unpaired surrogate is dropped; fewer than 4 hex digits skip the 4 bytes anyway;
    // unterminated strings end with the text, even inside an escape.
    const std::pair<const char*, const char*> cases[] = {{"\"a\\bb\\fc\\nd\\re\\tf\"", "a\bb\fc\nd\re\tf"},
        {"\"\\\"\\\\\\/\\q\"", "\"\\/q"}, {"\"x\\u0000y\"", "xy"}, {"\"\\uD83D\\uDE00\"", "\xF0\x9F\x98\x80"},
        {"\"<\\uD83D>\"", "<>"}, {"\"<\\uD83D\\u0041>\"", "<>"}, {"\"<\\uDE00>\"", "<>"},
        {"\"\\u00e9\\u20AC\\u0041\"",
            "\xC3\xA9\xE2\x82\xAC"
            "A"},
        {"\"\\u41zz!\"", "A!"}, {"\"abc", "abc"}, {"\"abc\\", "abc"}, {"\"ab\\u00", "ab"}, {"\"\\uD83D\\uDE", ""}};
    for (const auto& c : cases)
        EXPECT_EQ(parsed_string(c.first), c.second) << c.first;
    // An escape cut short by the closing quote ends at the quote.
    EXPECT_EQ(reprint("[\"\\u\",\"next\"]"), "[\"\",\"next\"]");
}

// The \u digits are read as sscanf's "%4x" reads them (white space, sign, 0x prefix). The
// C library itself is the oracle, over every 6-byte text of a small alphabet.
TEST_F(JsonTreeTest, UnicodeDigitsAreReadAsScanfReadsThem)
{
    const char alphabet[] = {' ', '+', '-', '0', 'x', '1', 'f', 'g'};
    const int n = sizeof(alphabet);
    char x[7] = {};
    for (int code = 0; code < n * n * n * n * n * n; code++) {
        int c = code;
        for (int i = 0; i < 6; i++, c /= n)
            x[i] = alphabet[c % n];
        unsigned uc = 0;
        if (sscanf(x, "%4x", &uc) != 1)
            uc = 0;
        // UTF-8 of the code point, lead byte cut to 8 bits; none for 0 and for a lone surrogate.
        static const unsigned char mark[5] = {0, 0, 0xC0, 0xE0, 0xF0};
        const int len = uc < 0x80 ? 1 : uc < 0x800 ? 2 : uc < 0x10000 ? 3 : 4;
        std::string expect(uc == 0 || (uc >= 0xD800 && uc <= 0xDFFF) ? 0 : len, '\0');
        for (int i = static_cast<int>(expect.size()) - 1; i >= 0; i--, uc >>= 6)
            expect[static_cast<size_t>(i)] = static_cast<char>(i > 0 ? (uc & 0x3F) | 0x80 : (uc | mark[len]) & 0xFF);
        expect += std::string(x + 4, 2);
        ASSERT_EQ(parsed_string(std::string("\"\\u") + x + "\""), expect) << "'" << x << "'";
    }
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
    // A refused print returns 1, writes nothing and says how much room it had and needed.
    const auto refused = [&](const vesk_tool_JSON* item, int fmt, int room, const std::string& says) {
        memset(buf, '#', sizeof(buf));
        const std::string out
            = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_tool_JSON_export(item, fmt, buf, room), 1); });
        EXPECT_NE(out.find(says), std::string::npos) << out;
        EXPECT_EQ(buf[0], '#') << "a refused print wrote";
        return out;
    };
    vesk_tool_JSON* root = vesk_tool_JSON_parse("{\"a\":[1,2],\"b\":\"x\"}");
    ASSERT_NE(root, nullptr);
    const vesk_tool_JSON* array = vesk_tool_JSON_get_object_item(root, "a");
    for (int fmt = 0; fmt <= 1; fmt++) {
        const int size = vesk_tool_JSON_get_print_size(root, fmt);
        const int asize = vesk_tool_JSON_get_print_size(array, fmt);
        const std::string out = refused(
            root, fmt, size - 1, "need_len = " + std::to_string(size) + ", out_buf_size = " + std::to_string(size - 1));
        EXPECT_NE(out.find("export_object"), std::string::npos) << out;
        refused(array, fmt, asize - 1,
            "out_buf_size = " + std::to_string(asize - 1) + ", need_len = " + std::to_string(asize));
        EXPECT_EQ(vesk_tool_JSON_export(root, fmt, buf, size), size);
        EXPECT_EQ(vesk_tool_JSON_export(array, fmt, buf, asize), asize);
    }
    vesk_tool_JSON_delete(root);

    // A string at the root needs one byte more than its print size.
    vesk_tool_JSON* s = vesk_tool_JSON_create_string("abcd");
    EXPECT_EQ(vesk_tool_JSON_get_print_size(s, 0), 7);
    refused(s, 0, 7, "item->valuestring_len = 4, out_buf_size = 7");
    EXPECT_EQ(vesk_tool_JSON_export(s, 0, buf, 8), 7);
    EXPECT_STREQ(buf, "\"abcd\"");
    vesk_tool_JSON_delete(s);
    vesk_tool_JSON* f = vesk_tool_JSON_create_bool(0);
    refused(f, 0, 5, "out_buf_size = 5");
    refused(f, 0, 0, "out_buf_size = 0");
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
    vesk_tool_JSON_delete(root);

    list = vesk_tool_JSON_parse("[0,1,2,3,4]");
    ASSERT_NE(list, nullptr);
    vesk_tool_JSON* two = vesk_tool_JSON_detach_item_from_array(list, 2);
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(field(two->next), nullptr);
    EXPECT_EQ(field(two->prev), nullptr);
    vesk_tool_JSON_delete(two);
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

TEST_F(JsonTreeTest, CreatedNodesAndReferences)
{
    vesk_tool_JSON* n = vesk_tool_JSON_create_number(-7.9);
    EXPECT_EQ(n->valueint, -7);
    EXPECT_EQ(print_and_delete(n), "-7.900000");
    EXPECT_EQ(vesk_tool_JSON_create_string(nullptr), nullptr);
    EXPECT_EQ(print_and_delete(vesk_tool_JSON_create_string("")), "\"\"");

    // A reference shares the child list and text of another node: deleting it frees neither.
    vesk_tool_JSON* owner = vesk_tool_JSON_parse("{\"k\":[1,2,3],\"s\":\"text\"}");
    ASSERT_NE(owner, nullptr);
    vesk_tool_JSON* ref = vesk_tool_JSON_create_object();
    ref->type |= VESK_TOOL_JSON_IS_REFERENCE;
    ref->child = owner->child;
    vesk_tool_JSON* sref = vesk_tool_JSON_create_null();
    sref->type = VESK_TOOL_JSON_STRING | VESK_TOOL_JSON_IS_REFERENCE;
    sref->valuestring = owner->child->next->valuestring;
    sref->valuestring_len = 4;
    ref->next = sref;
    vesk_tool_JSON_delete(ref);
    EXPECT_EQ(print(owner, 0), "{\"k\":[1,2,3],\"s\":\"text\"}");
    vesk_tool_JSON_delete(owner);
}

TEST_F(JsonTreeTest, ConfigurationDocumentsRoundTrip)
{
    DIR* dir = opendir(VESK_STORE_TEST_DATA);
    ASSERT_NE(dir, nullptr);
    int documents = 0;
    while (dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name.size() < 5 || name.substr(name.size() - 5) != ".json")
            continue;
        std::ifstream in(std::string(VESK_STORE_TEST_DATA) + "/" + name);
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(name);
        vesk_tool_JSON* first = vesk_tool_JSON_parse_with_opts(text.c_str(), nullptr, 1);
        ASSERT_NE(first, nullptr);
        const std::string compact = print(first, 0);
        const std::string formatted = print(first, 1);
        vesk_tool_JSON_delete(first);
        // Printing what was printed, either way, changes nothing.
        EXPECT_EQ(reprint(compact.c_str(), 0), compact);
        EXPECT_EQ(reprint(formatted.c_str(), 0), compact);
        EXPECT_EQ(reprint(formatted.c_str(), 1), formatted);
        documents++;
    }
    closedir(dir);
    EXPECT_GE(documents, 4);

    // Values survive: spot checks in the parsed tree.
    vesk_tool_JSON* users = vesk_tool_JSON_parse(
        "{\"last_login\":1718022093000,\"live\":4294967295,\"ratio\":0.3333333333,\"t\":\"\\u524d\\u95e8\"}");
    ASSERT_NE(users, nullptr);
    EXPECT_EQ(field(vesk_tool_JSON_get_object_item(users, "last_login")->valuedouble), 1718022093000.0);
    EXPECT_EQ(print(users, 0),
        "{\"last_login\":1718022093000,\"live\":4294967295,\"ratio\":0.333333,\"t\":\"\xE5\x89\x8D\xE9\x97\xA8\"}");
    vesk_tool_JSON_delete(users);
}
