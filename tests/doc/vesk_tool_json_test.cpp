// Tests of the JSON tree: parser rules, printer formats and buffer checks, node operations.
#include "vesk_tool_json.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "json_test_memory.h"
#include "test_support.h"

using namespace vesk_utility;

namespace
{

class JsonTreeTest : public vesk_json_test::json_memory_test
{
};

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

std::string reprint(const char* text, int fmt = 0)
{
    vesk_tool_JSON* root = vesk_tool_JSON_parse(text);
    EXPECT_NE(root, nullptr) << text;
    if (root == nullptr)
        return "<parse failed>";
    std::string out = print(root, fmt);
    vesk_tool_JSON_delete(root);
    return out;
}

std::string number_text(double d)
{
    vesk_tool_JSON* n = vesk_tool_JSON_create_number(d);
    std::string out = print(n, 0);
    vesk_tool_JSON_delete(n);
    return out;
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

TEST_F(JsonTreeTest, NumbersPrintWithTheirThresholds)
{
    const std::pair<double, const char*> cases[] = {{3, "3"}, {3.5, "3.500000"}, {1e10, "10000000000"},
        {1.5e10, "15000000000"}, {0.0000001, "1.000000e-07"}, {5000000000.5, "5.000000e+09"},
        {-2147483648.0, "-2147483648"}, {1e60, "1.000000e+60"}, {-0.25, "-0.250000"}};
    for (const auto& c : cases)
        EXPECT_EQ(number_text(c.first), c.second) << c.first;

    // valueint saturates like the board's conversion; the printer then falls back to %.0f.
    vesk_tool_JSON* big = vesk_tool_JSON_parse("5e9");
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big->valueint, INT32_MAX);
    EXPECT_EQ(print(big, 0), "5000000000");
    vesk_tool_JSON_delete(big);
}

TEST_F(JsonTreeTest, NumbersParseByAccumulation)
{
    EXPECT_EQ(reprint("-12.5e1"), "-125");
    EXPECT_EQ(reprint("1E+2"), "100");
    EXPECT_EQ(reprint("25e-1"), "2.500000");
    EXPECT_EQ(reprint("-"), "0"); // a lone sign is -0
    EXPECT_EQ(reprint("1."), "1"); // '.' without a digit ends the number
    EXPECT_EQ(reprint("1e999"), "inf");
    const char* end = nullptr;
    vesk_tool_JSON* n = vesk_tool_JSON_parse_with_opts("0123", &end, 0);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(field(n->valuedouble), 0.0); // digits after a leading 0 stop the number
    EXPECT_STREQ(end, "123");
    vesk_tool_JSON_delete(n);
    EXPECT_EQ(fail_offset("[0123]"), 2);
    // A huge exponent must neither overflow nor hang.
    EXPECT_EQ(reprint("1e-99999999999999999999"), "0");
}

TEST_F(JsonTreeTest, LiteralsAreMatchedByPrefixAndWhitespaceIsEveryByteUpTo32)
{
    const char* end = nullptr;
    vesk_tool_JSON* n = vesk_tool_JSON_parse_with_opts("nullx", &end, 0);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->type, VESK_TOOL_JSON_NULL);
    EXPECT_STREQ(end, "x");
    vesk_tool_JSON_delete(n);
    EXPECT_EQ(fail_offset("nullx"), 4);
    EXPECT_EQ(fail_offset("  true false"), 7);

    vesk_tool_JSON* t = vesk_tool_JSON_parse("\x01\x1f [\x02true\x20,\tfalse\n]\r");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(vesk_tool_JSON_get_array_item(t, 0)->valueint, 1);
    EXPECT_EQ(print(t, 0), "[true,false]");
    vesk_tool_JSON_delete(t);
    EXPECT_EQ(vesk_tool_JSON_get_error_ptr(), nullptr);

    EXPECT_EQ(vesk_tool_JSON_parse(""), nullptr);
    EXPECT_EQ(vesk_tool_JSON_parse(nullptr), nullptr);
}

TEST_F(JsonTreeTest, ContainersFailAtTheOffendingByte)
{
    const std::pair<const char*, long> cases[]
        = {{"[1, 2,]", 6}, {"[1 2]", 3}, {"{\"a\" 1}", 5}, {"{\"a\":1 \"b\":2}", 7}, {"{a:1}", 1}, {"{\"a\":}", 5},
            {"[1,2", 4}, {"@", 0}, {"[1}", 2}, {"{\"a\":1]", 6}}; // each container closes only with its own bracket
    for (const auto& c : cases)
        EXPECT_EQ(fail_offset(c.first), c.second) << c.first;

    for (const char* text : {" [ ] ", "{\n}"}) {
        vesk_tool_JSON* empty = vesk_tool_JSON_parse(text);
        ASSERT_NE(empty, nullptr);
        EXPECT_EQ(empty->type, text[1] == '[' ? VESK_TOOL_JSON_ARRAY : VESK_TOOL_JSON_OBJECT);
        EXPECT_EQ(field(empty->child), nullptr);
        vesk_tool_JSON_delete(empty);
    }
}

TEST_F(JsonTreeTest, NestingIsBoundedSoNoTextExhaustsTheStack)
{
    std::string ok(static_cast<size_t>(k_json_max_depth), '[');
    ok += std::string(static_cast<size_t>(k_json_max_depth), ']');
    vesk_tool_JSON* root = vesk_tool_JSON_parse(ok.c_str());
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(print(root, 1), ok);
    vesk_tool_JSON_delete(root);

    std::string deep(200000, '[');
    EXPECT_EQ(fail_offset(deep.c_str()), k_json_max_depth);
    std::string objects;
    for (int i = 0; i <= k_json_max_depth; i++)
        objects += "{\"k\":";
    EXPECT_EQ(fail_offset(objects.c_str()), 5L * k_json_max_depth);
}

TEST_F(JsonTreeTest, StringEscapesDecode)
{
    EXPECT_EQ(parsed_string("\"a\\bb\\fc\\nd\\re\\tf\""), "a\bb\fc\nd\re\tf");
    EXPECT_EQ(parsed_string("\"\\\"\\\\\\/\\q\""), "\"\\/q");
    EXPECT_EQ(parsed_string("\"x\\u0000y\""), "xy");
    EXPECT_EQ(parsed_string("\"\\uD83D\\uDE00\""), "\xF0\x9F\x98\x80");
    EXPECT_EQ(parsed_string("\"<\\uD83D>\""), "<>"); // high surrogate alone: dropped
    EXPECT_EQ(parsed_string("\"<\\uD83D\\u0041>\""), "<>"); // second half no low surrogate: both
    EXPECT_EQ(parsed_string("\"<\\uDE00>\""), "<>"); // lone low surrogate: dropped
    EXPECT_EQ(parsed_string("\"\\u00e9\\u20AC\\u0041\""),
        "\xC3\xA9\xE2\x82\xAC"
        "A");
    EXPECT_EQ(parsed_string("\"\\u41zz!\""), "A!"); // fewer digits: the 4 bytes are skipped
    // Unterminated strings end with the text, even inside an escape.
    EXPECT_EQ(parsed_string("\"abc"), "abc");
    EXPECT_EQ(parsed_string("\"abc\\"), "abc");
    EXPECT_EQ(parsed_string("\"ab\\u00"), "ab");
    EXPECT_EQ(parsed_string("\"\\uD83D\\uDE"), "");
    // An escape cut short by the closing quote ends at the quote.
    vesk_tool_JSON* arr = vesk_tool_JSON_parse("[\"\\u\",\"next\"]");
    ASSERT_NE(arr, nullptr);
    EXPECT_EQ(vesk_tool_JSON_get_array_size(arr), 2);
    EXPECT_STREQ(vesk_tool_JSON_get_array_item(arr, 1)->valuestring, "next");
    vesk_tool_JSON_delete(arr);
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
        std::string expect;
        if (uc != 0 && !(uc >= 0xD800 && uc <= 0xDFFF)) {
            char enc[4];
            int len = uc < 0x80 ? 1 : uc < 0x800 ? 2 : uc < 0x10000 ? 3 : 4;
            static const unsigned char mark[5] = {0, 0, 0xC0, 0xE0, 0xF0};
            unsigned v = uc;
            for (int i = len - 1; i > 0; i--, v >>= 6)
                enc[i] = static_cast<char>((v | 0x80) & 0xBF);
            enc[0] = static_cast<char>((v | mark[len]) & 0xFF);
            expect.assign(enc, static_cast<size_t>(len));
        }
        expect += std::string(x + 4, 2);
        ASSERT_EQ(parsed_string(std::string("\"\\u") + x + "\""), expect) << "'" << x << "'";
    }
}

TEST_F(JsonTreeTest, PrinterWritesStringsVerbatim)
{
    vesk_tool_JSON* obj = vesk_tool_JSON_create_object();
    vesk_tool_JSON_add_item_to_object(obj, "k\"ey", vesk_tool_JSON_create_string("a\"b"));
    vesk_tool_JSON_add_item_to_object(obj, "nl", vesk_tool_JSON_create_string("1\n2"));
    EXPECT_EQ(print(obj, 0), "{\"k\"ey\":\"a\"b\",\"nl\":\"1\n2\"}");
    EXPECT_EQ(vesk_tool_JSON_get_object_item(obj, "K\"EY")->valuestring_len, 3);
    vesk_tool_JSON_delete(obj);
    // Decoded escapes come back decoded.
    EXPECT_EQ(reprint("\"tab\\there\""), "\"tab\there\"");
}

TEST_F(JsonTreeTest, CompactAndFormattedLayouts)
{
    const char* text = "{\"a\":[1,2],\"b\":\"x\"}";
    vesk_tool_JSON* root = vesk_tool_JSON_parse(text);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(print(root, 0), text);
    EXPECT_EQ(print(root, 1), "{\n\t\"a\":\t[1, 2],\n\t\"b\":\t\"x\"\n}");
    vesk_tool_JSON_delete(root);

    EXPECT_EQ(reprint("{\"o\":{\"p\":{},\"q\":{\"r\":{}}},\"e\":{},\"l\":[{\"s\":true},{}]}", 1),
        "{\n"
        "\t\"o\":\t{\n"
        "\t\t\"p\":\t{\n"
        "\t},\n" // an empty object closes one level further out
        "\t\t\"q\":\t{\n"
        "\t\t\t\"r\":\t{\n"
        "\t\t}\n"
        "\t\t}\n"
        "\t},\n"
        "\t\"e\":\t{\n"
        "},\n"
        "\t\"l\":\t[{\n"
        "\t\t\t\"s\":\ttrue\n"
        "\t\t}, {\n"
        "\t}]\n"
        "}");
    EXPECT_EQ(reprint("{}", 1), "{\n}");
    EXPECT_EQ(reprint("[[],[[]],null]", 1), "[[], [[]], null]");
}

TEST_F(JsonTreeTest, BufferOfThePrintSizeFitsAndOneLessIsRefused)
{
    vesk_tool_JSON* root = vesk_tool_JSON_parse("{\"a\":[1,2],\"b\":\"x\"}");
    ASSERT_NE(root, nullptr);
    vesk_tool_JSON* array = vesk_tool_JSON_get_object_item(root, "a");
    for (int fmt = 0; fmt <= 1; fmt++) {
        const int size = vesk_tool_JSON_get_print_size(root, fmt);
        std::vector<char> buf(static_cast<size_t>(size), '#');
        std::string out
            = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_tool_JSON_export(root, fmt, buf.data(), size - 1), 1); });
        EXPECT_NE(out.find("export_object"), std::string::npos) << out;
        EXPECT_NE(out.find("need_len = " + std::to_string(size) + ", out_buf_size = " + std::to_string(size - 1)),
            std::string::npos)
            << out;
        EXPECT_EQ(buf[0], '#') << "a refused print wrote";
        EXPECT_EQ(vesk_tool_JSON_export(root, fmt, buf.data(), size), size);

        const int asize = vesk_tool_JSON_get_print_size(array, fmt);
        out = vesk_test::capture_stdout(
            [&] { EXPECT_EQ(vesk_tool_JSON_export(array, fmt, buf.data(), asize - 1), 1); });
        EXPECT_NE(out.find("out_buf_size = " + std::to_string(asize - 1) + ", need_len = " + std::to_string(asize)),
            std::string::npos)
            << out;
        EXPECT_EQ(vesk_tool_JSON_export(array, fmt, buf.data(), asize), asize);
    }
    vesk_tool_JSON_delete(root);

    // A string at the root needs one byte more than its print size.
    vesk_tool_JSON* s = vesk_tool_JSON_create_string("abcd");
    EXPECT_EQ(vesk_tool_JSON_get_print_size(s, 0), 7);
    char buf[16];
    std::string out = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_tool_JSON_export(s, 0, buf, 7), 1); });
    EXPECT_NE(out.find("item->valuestring_len = 4, out_buf_size = 7"), std::string::npos) << out;
    EXPECT_EQ(vesk_tool_JSON_export(s, 0, buf, 8), 7);
    EXPECT_STREQ(buf, "\"abcd\"");
    vesk_tool_JSON_delete(s);

    vesk_tool_JSON* f = vesk_tool_JSON_create_bool(0);
    for (int size : {5, 0}) {
        out = vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_tool_JSON_export(f, 0, buf, size), 1); });
        EXPECT_NE(out.find("out_buf_size = " + std::to_string(size)), std::string::npos) << out;
    }
    EXPECT_EQ(vesk_tool_JSON_export(f, 0, buf, 6), 6);
    EXPECT_STREQ(buf, "false");
    vesk_tool_JSON_delete(f);
}

TEST_F(JsonTreeTest, LookupsIgnoreCaseAndIndexesClamp)
{
    vesk_tool_JSON* root = vesk_tool_JSON_parse("{\"name\":\"cam\",\"list\":[10,20,30]}");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(vesk_tool_JSON_get_object_item(root, "Name")->valuestring, "cam");
    EXPECT_EQ(vesk_tool_JSON_get_object_item(root, "nam"), nullptr);
    EXPECT_EQ(vesk_tool_JSON_get_object_item(root, nullptr), nullptr);
    vesk_tool_JSON* list = vesk_tool_JSON_get_object_item(root, "LIST");
    EXPECT_EQ(vesk_tool_JSON_get_array_size(list), 3);
    EXPECT_EQ(vesk_tool_JSON_get_array_item(list, -5)->valueint, 10);
    EXPECT_EQ(vesk_tool_JSON_get_array_item(list, 2)->valueint, 30);
    EXPECT_EQ(vesk_tool_JSON_get_array_item(list, 3), nullptr);
    vesk_tool_JSON_delete(root);
}

TEST_F(JsonTreeTest, DetachDeleteAndReplaceKeepTheListConsistent)
{
    vesk_tool_JSON* list = vesk_tool_JSON_parse("[0,1,2,3,4]");
    ASSERT_NE(list, nullptr);
    vesk_tool_JSON* two = vesk_tool_JSON_detach_item_from_array(list, 2);
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(field(two->next), nullptr);
    EXPECT_EQ(field(two->prev), nullptr);
    vesk_tool_JSON_delete(two);
    vesk_tool_JSON_delete_item_from_array(list, 0);
    vesk_tool_JSON_delete_item_from_array(list, 2);
    vesk_tool_JSON_delete_item_from_array(list, 7);
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
    ASSERT_NE(c, nullptr);
    EXPECT_STREQ(c->string, "c");
    vesk_tool_JSON_delete(c);
    EXPECT_EQ(print(obj, 0), "{\"B\":[],\"a\":4}");
    vesk_tool_JSON_delete(obj);
}

TEST_F(JsonTreeTest, CreatedNodesAndReferences)
{
    vesk_tool_JSON* n = vesk_tool_JSON_create_number(-7.9);
    EXPECT_EQ(n->valueint, -7);
    EXPECT_EQ(n->type, VESK_TOOL_JSON_NUMBER);
    vesk_tool_JSON_delete(n);
    EXPECT_EQ(vesk_tool_JSON_create_string(nullptr), nullptr);
    vesk_tool_JSON* s = vesk_tool_JSON_create_string("");
    EXPECT_EQ(print(s, 0), "\"\"");
    vesk_tool_JSON_delete(s);

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
    DIR* dir = opendir(VESK_DOC_TEST_DATA);
    ASSERT_NE(dir, nullptr);
    int documents = 0;
    while (dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name.size() < 5 || name.substr(name.size() - 5) != ".json")
            continue;
        std::ifstream in(std::string(VESK_DOC_TEST_DATA) + "/" + name);
        std::stringstream text;
        text << in.rdbuf();
        SCOPED_TRACE(name);
        vesk_tool_JSON* first = vesk_tool_JSON_parse_with_opts(text.str().c_str(), nullptr, 1);
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
