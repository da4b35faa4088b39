// Tests of the JSON operators: key-path grammar and walk, padding and in-place writes, typed
// reads with their return codes, the name-chain operator, registry wrappers and the dump.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "json_test_memory.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"
#include "store/vesk_utility_json_impl.h"

using namespace vesk_soft;
using vesk_test::capture_stdout;
using V2 = vesk_json_operate_V2;

namespace
{

constexpr size_t npos = std::string::npos;

class JsonOperatorTest : public vesk_json_test::json_memory_test
{
protected:
    void TearDown() override
    {
        EXPECT_TRUE(m_v2 == nullptr || vesk_utility_delete_json_operate_V2(m_v2, __FILE__, __func__) == VESK_OK);
        EXPECT_TRUE(m_v1 == nullptr || vesk_utility_delete_json_operate(m_v1, __FILE__, __func__) == VESK_OK);
        vesk_json_test::json_memory_test::TearDown();
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

// A read's return code and what it left in its output. The output is bound by reference, so it
// is read only after the call that fills it.
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

// Parses a path with the given "%d" arguments; the names and indexes of its steps, or the
// empty text when it is refused.
std::string steps(const char* path, std::vector<int> ints = {})
{
    using namespace vesk_utility;
    std::vector<char> copy(strlen(path) + 1);
    vesk_json_path_args args(ints.data(), static_cast<int>(ints.size()));
    vesk_json_key_result r[k_json_path_max];
    int n = 0;
    if (!proc_parse_exec(path, copy.data(), args, r, n))
        return "";
    std::string out;
    for (int i = 0; i < n; i++) {
        out += r[i].key_name != nullptr ? std::string(r[i].key_name) : "#" + std::to_string(r[i].array_idx);
        out += "/" + std::to_string(r[i].key_type) + " ";
    }
    return out;
}

} // namespace

TEST_F(JsonOperatorTest, PathGrammarStepsAndFailures)
{
    EXPECT_EQ(steps("a"), "a/0 ");
    EXPECT_EQ(steps("a.b[2].c"), "a/1 b/2 #2/1 c/0 ");
    EXPECT_EQ(steps("list[%d][%d]", {1, 4}), "list/2 #1/2 #4/0 ");
    EXPECT_EQ(steps("x_1-y[12][%d].Z9", {-1}), "x_1-y/2 #12/2 #4294967295/1 Z9/0 ");

    // 32 steps are the limit; the 33rd, or even one more letter on the 32nd, is refused.
    std::string path32 = "k0";
    for (int i = 1; i < 31; i++)
        path32 += ".k" + std::to_string(i);
    path32 += ".z";
    EXPECT_NE(steps(path32.c_str()), "");
    const char* over = "key_num = 32, result_dim = 32, over flow!";
    const std::pair<std::string, const char*> refusals[] = {{"a..b", "tmp_key_pos[2] = '.', parse fail"},
        {"a[x]", "tmp_key_pos[2] = 'x', parse fail"}, {"a[1", "'a[1', parse last_cmd_state = 3, fail"},
        {"1a", "'1a', parse fail"}, {"a.", "'a.', parse last_cmd_state = 1, fail"},
        {"a[1]b", "tmp_key_pos[4] = 'b', parse fail"}, {"a[%d", "tmp_key_pos[2] = '%', parse fail"},
        {"", "'', parse fail"}, {path32 + ".k32", over}, {path32 + "x", over}};
    for (const auto& r : refusals) {
        std::string out = capture_stdout([&] { EXPECT_EQ(steps(r.first.c_str()), "") << r.first; });
        EXPECT_NE(out.find("proc_parse_exec"), npos) << out;
        EXPECT_NE(out.find(r.second), npos) << r.first << ": " << out;
    }
}

TEST_F(JsonOperatorTest, SetCreatesPathsPadsArraysAndReplacesInPlace)
{
    V2* j = v2();
    std::string out = capture_stdout([&] { j->execSetInt("a.b[2].c", 5); });
    EXPECT_EQ(content(j), "{\"a\":{\"b\":[{},{},{\"c\":5}]}}");
    EXPECT_NE(out.find("WARNING! vesk_tool_json_V2::"), npos) << out;
    EXPECT_NE(out.find("'a.b[2].c', b[*]--array_size = 0, call_2 !!!!!!"), npos) << out;

    ASSERT_EQ(j->loadData("{\"list\":[]}"), VESK_OK);
    j->execSetInt("list[3]", 7);
    j->execSetInt("list[%d]", 8, 1); // inside the array: replaced in place
    j->execSetInt("grid[%d][%d]", 9, 1, 0);
    // A stray index far past the end is refused instead of padding millions of nodes.
    for (const auto& stray : {std::make_pair("list[%d]", -1), {"deep[%d].x", 5000}})
        EXPECT_NE(capture_stdout([&] { j->execSetInt(stray.first, 1, stray.second); }).find("too far"), npos);
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
    std::string out = capture_stdout([&] { EXPECT_EQ(got(j, &V2::execTryGetInt, "s", -99), rc_num(VESK_OK, -99)); });
    EXPECT_NE(out.find("vesk_tool_json_V2::execTryGetInt"), npos) << out;
    EXPECT_NE(out.find("'s', son->type = 4 err!"), npos) << out;
    EXPECT_EQ(got(j, &V2::execTryGetBool, "n", 5), rc_num(VESK_OK, 5));
    int32_t s32 = 0;
    capture_stdout([&] {
        for (const char* missing : {"missing", "arr[5]", "no.such.path", "bad..path"})
            EXPECT_EQ(j->execTryGetInt(missing, &s32), VESK_ERR_OPERATE_FAIL) << missing;
    });
    out = capture_stdout([&] { EXPECT_EQ(j->execTryGetInt(nullptr, &s32), VESK_ERR_INVALID_PARAM); });
    EXPECT_NE(out.find("key_pos == NULL"), npos) << out;

    char buf[8];
    EXPECT_EQ(rc_and(j->execGetStr("arr[1].k", buf, sizeof(buf)), buf), rc_str(VESK_OK, "v"));
    EXPECT_EQ(rc_and(j->execGetStr("s", buf, 3), buf), rc_str(VESK_OK, "te")); // cut to the buffer
    strcpy(buf, "old");
    capture_stdout([&] {
        EXPECT_EQ(rc_and(j->execTryGetStr("n", buf, sizeof(buf)), buf), rc_str(VESK_ERR_OPERATE_FAIL, "old"));
        EXPECT_EQ(rc_and(j->execGetStr("n", buf, sizeof(buf)), buf), rc_str(VESK_ERR_OPERATE_FAIL, "")); // emptied
    });
    out = capture_stdout([&] { EXPECT_EQ(j->execGetStr("s", buf, 0), VESK_ERR_INVALID_PARAM); });
    EXPECT_EQ(out, "(key_pos == NULL) || (data_buf == NULL) || (buf_size == 0)\n");

    int len = 0;
    const char* addr = j->execGetStr_addr("s", &len);
    EXPECT_EQ(std::string(addr != nullptr ? addr : "", static_cast<size_t>(len)), "text");
    out = capture_stdout([&] { EXPECT_EQ(j->execGetStr_addr("s", nullptr), nullptr); });
    EXPECT_NE(out.find("key_pos or str_len NULL"), npos) << out;
    capture_stdout([&] {
        EXPECT_EQ(j->execGetStr_addr("n", &len), nullptr);
        EXPECT_EQ(j->execGetArraysize("s"), 0);
        EXPECT_EQ(j->execGetArraysize("nothing"), 0);
    });
    EXPECT_EQ(j->execGetArraysize("arr"), 2);
    out = capture_stdout([&] { EXPECT_EQ(j->exportContent(buf, 0), 0); });
    EXPECT_EQ(out, "buf == NULL || buf_size == 0\n");
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
    EXPECT_EQ(one->add_item_arry_item_int("a", 0, "b", 1), VESK_ERR_FAIL);
    EXPECT_EQ(one->add_item_int("a", 0, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, 1), VESK_ERR_FAIL);
    EXPECT_EQ(one->add_item_str("a", -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, "s"), VESK_ERR_FAIL);
    EXPECT_EQ(
        (std::vector<int> {one->get_item_arrysize("a"), one->print_copy(buf, sizeof(buf)), one->get_print_copy_size(),
            one->get_item_arrysize("a", -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1)}),
        std::vector<int>(4, 0));
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

TEST_F(JsonOperatorTest, NameChainsAppendAndReadTheFirst)
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
    // A formatted print of the whole document.
    std::vector<char> all(static_cast<size_t>(j->get_print_copy_size()));
    EXPECT_EQ(j->print_copy(all.data(), static_cast<int>(all.size())), static_cast<int>(all.size()));
    EXPECT_EQ(std::string(all.data()).substr(0, 12), "{\n\t\"t\":\ttrue");
}

TEST_F(JsonOperatorTest, ArrayElementMembers)
{
    vesk_json_operate* j = v1("{\"dev\":{\"chn\":[{\"id\":0,\"name\":\"gate\"}]}}");
    EXPECT_EQ(j->add_item_arry_item_int("dev", "chn", 2, "id", 2), VESK_OK);
    EXPECT_EQ(j->add_item_arry_item_string("users", 0, "name", "admin"), VESK_OK);
    EXPECT_EQ(j->add_item_arry_item_int("users", 0, "level", 3), VESK_OK);
    EXPECT_EQ(j->add_item_arry_item_int("users", -1, "level", 3), VESK_ERR_FAIL);
    EXPECT_EQ(compact(j),
        "{\"dev\":{\"chn\":[{\"id\":0,\"name\":\"gate\"},{},{\"id\":2}]},"
        "\"users\":[{\"name\":\"admin\",\"level\":3}]}");
    int v = -1;
    EXPECT_EQ(rc_and(j->get_item_arry_item_int("dev", "chn", 2, "id", v), v), rc_num(VESK_OK, 2));
    EXPECT_EQ(rc_and(j->get_item_arry_item_int("users", 0, "LEVEL", v), v), rc_num(VESK_OK, 3));
    EXPECT_EQ(j->get_item_arry_item_int("users", 1, "level", v), VESK_ERR_FAIL);
    const char* name = nullptr;
    EXPECT_EQ(rc_and(j->get_item_arry_item_string("dev", "chn", 0, "name", name), name), rc_str(VESK_OK, "gate"));
    EXPECT_EQ(j->get_item_arry_item_string("users", 0, "level", name), VESK_ERR_FAIL);
    char buf[4];
    EXPECT_EQ(
        rc_and(j->get_item_arry_item_string_copy("users", 0, "name", buf, sizeof(buf)), buf), rc_str(VESK_OK, "adm"));
    EXPECT_EQ(rc_and(j->get_item_arry_item_string_copy("dev", "chn", 0, "name", buf, sizeof(buf)), buf),
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
    std::string out = capture_stdout([&] {
        EXPECT_EQ(j->try_get_item_int("sched", 0, nullptr, 1, nullptr, -1, nullptr, -1, nullptr, -1, v), VESK_ERR_FAIL);
    });
    EXPECT_NE(out.find("get type error "), npos) << out;
    out = capture_stdout([&] {
        EXPECT_EQ(
            j->try_get_item_int("sched", 3, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1, v), VESK_ERR_FAIL);
    });
    EXPECT_NE(out.find("get_json_object error "), npos) << out;

    int len = 0;
    EXPECT_NE(j->get_item_str_addr("sched", 0, nullptr, 1, nullptr, -1, nullptr, -1, nullptr, -1, len), nullptr);
    EXPECT_EQ(len, 2);
    char buf[2];
    EXPECT_EQ(rc_and(j->get_item_str_copy("sched", 0, nullptr, 1, nullptr, -1, nullptr, -1, nullptr, -1, buf, 2), buf),
        rc_str(VESK_OK, "y"));
    EXPECT_EQ(j->get_item_arrysize("sched", -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1), 3);
    EXPECT_EQ(j->get_item_arrysize("keep", -1, nullptr, -1, nullptr, -1, nullptr, -1, nullptr, -1), 0);
}

TEST_F(JsonOperatorTest, WrappersRegisterAndTheDumpMeasuresEachDocument)
{
    vesk_utility::vesk_handle_registry& reg = vesk_utility::vesk_ground::instance()->registry();
    const unsigned before1 = reg.list_size(vesk_utility::VESK_LIST_JSON);
    const unsigned before2 = reg.list_size(vesk_utility::VESK_LIST_JSON_V2);
    v1("{\"a\":\"bc\"}");
    v2("[1,2,3]");
    EXPECT_EQ(reg.list_size(vesk_utility::VESK_LIST_JSON), before1 + 1);
    EXPECT_EQ(reg.list_size(vesk_utility::VESK_LIST_JSON_V2), before2 + 1);

    vesk_json_test::sink().clear();
    vesk_utility::vesk_utility_res_manage::instance()->diagnose(8, vesk_json_test::sink_print);
    const std::string dump = vesk_json_test::sink();
    const unsigned node = sizeof(vesk_utility::vesk_tool_JSON);
    // {"a":"bc"}: two nodes, key "a" and text "bc" with their NULs.
    const std::string lines[]
        = {"usr_id = 0x56, name = 'v1_test', object num = 2, data size = " + std::to_string(2 * node + 5),
            "usr_id = 0x55, name = 'v2_test', object num = 4, data size = " + std::to_string(4 * node),
            "-------------- json_V2 fd ------------------!"};
    for (const std::string& line : lines)
        EXPECT_NE(dump.find(line), npos) << line << "\n" << dump;

    std::string out = capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_delete_json_operate(nullptr, "f.cpp", "fn"), VESK_ERR_INVALID_PARAM); });
    EXPECT_NE(out.find("f.cpp fn client == NULL!"), npos) << out;
}

// Each operation holds the document's lock for its whole run, so writers on distinct members
// never lose each other's work and readers never see a torn tree.
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
