// vesk_utility_json_v2 - the key-path JSON operator: the path grammar (a small state machine),
// the walk that finds or creates the parent of a path's leaf, and the typed reads and writes,
// each entirely under the document's named lock.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "core/vesk_utility_guard.h"
#include "store/vesk_utility_json_impl.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_tool_json_V2";
constexpr const char* k_src = "doc/vesk_utility_json_v2";

// The element at an unsigned index, O(index).
vesk_tool_JSON* element_at(const vesk_tool_JSON* array, uint32_t idx)
{
    vesk_tool_JSON* c = array->child;
    while (c != nullptr && idx > 0) {
        c = c->next;
        idx--;
    }
    return c;
}

vesk_tool_JSON* new_container(int32_t key_type)
{
    return key_type == 1 ? vesk_tool_JSON_create_object() : vesk_tool_JSON_create_array();
}

} // namespace

// ---- Path grammar --------------------------------------------------------------------------

int vesk_json_path_args::next()
{
    if (m_ap != nullptr)
        return va_arg(*m_ap, int);
    return m_used < m_count ? m_ints[m_used++] : 0;
}

// States: 0 in a member name, 1 after '.', 2 after '[', 3 in an index, 4 after ']'.
bool proc_parse_exec(const char* key_pos, char* copy, vesk_json_path_args& args,
    vesk_json_key_result (&result)[k_json_path_max], int& key_num)
{
    key_num = 0;
    strcpy(copy, key_pos);
    if (!isalpha(static_cast<unsigned char>(copy[0]))) {
        VESK_ERR_FN("'%s', parse fail\n", key_pos);
        return false;
    }
    result[0] = {copy, 0, 0};
    key_num = 1;
    int state = 0;
    for (int i = 1; copy[i] != '\0'; i++) {
        if (key_num >= k_json_path_max) {
            VESK_ERR_FN("key_num = %d, result_dim = %d, over flow!\n", key_num, k_json_path_max);
            return false;
        }
        const char c = copy[i];
        vesk_json_key_result& cur = result[key_num - 1];
        switch (state) {
        case 0:
            if (c == '.') {
                copy[i] = '\0';
                cur.key_type = 1;
                state = 1;
            } else if (c == '[') {
                copy[i] = '\0';
                cur.key_type = 2;
                state = 2;
            }
            continue;
        case 1:
            if (isalpha(static_cast<unsigned char>(c))) {
                result[key_num++] = {copy + i, 0, 0};
                state = 0;
                continue;
            }
            break;
        case 2:
            if (c >= '0' && c <= '9') {
                result[key_num++] = {nullptr, static_cast<uint32_t>(c - '0'), 0};
                state = 3;
                continue;
            }
            if (c == '%' && copy[i + 1] == 'd' && copy[i + 2] == ']') {
                result[key_num++] = {nullptr, static_cast<uint32_t>(args.next()), 0};
                i += 2;
                state = 4;
                continue;
            }
            break;
        case 3:
            if (c >= '0' && c <= '9') {
                cur.array_idx = cur.array_idx * 10 + static_cast<uint32_t>(c - '0');
                continue;
            }
            if (c == ']') {
                state = 4;
                continue;
            }
            break;
        case 4:
            if (c == '.') {
                cur.key_type = 1;
                state = 1;
                continue;
            }
            if (c == '[') {
                cur.key_type = 2;
                state = 2;
                continue;
            }
            break;
        }
        VESK_ERR_FN("tmp_key_pos[%d] = '%c', parse fail\n", i, c);
        return false;
    }
    if (state != 0 && state != 4) {
        VESK_ERR_FN("'%s', parse last_cmd_state = %d, fail\n", key_pos, state);
        return false;
    }
    return true;
}

// ---- Object ----------------------------------------------------------------------------------

vesk_tool_json_V2* vesk_tool_json_V2::create(const char* text)
{
    return make(new vesk_tool_json_V2(), "vesk_tool_json_V2", text);
}

vesk_tool_json_V2::~vesk_tool_json_V2()
{
    close(k_src, __func__);
}

vesk_tool_json_V2::fetched::~fetched()
{
    vesk_free(k_src, "fetched", heap_copy);
}

VESK_ERR vesk_tool_json_V2::loadData(const char* text)
{
    named_guard guard(m_lock, k_src, __func__);
    return reload(text);
}

VESK_ERR vesk_tool_json_V2::clearData()
{
    named_guard guard(m_lock, k_src, __func__);
    vesk_tool_JSON_delete(m_root);
    m_root = vesk_tool_JSON_create_object();
    return m_root != nullptr ? VESK_OK : VESK_ERR_NO_RESOURCE;
}

bool vesk_tool_json_V2::proc_fetch_parent(const char* key_pos, vesk_json_path_args& args, bool create, fetched& f)
{
    const size_t need = strlen(key_pos) + 1;
    char* copy = f.path_copy;
    if (need > sizeof(f.path_copy)) {
        f.heap_copy = static_cast<char*>(vesk_malloc(k_json_usr_id, k_json_purpose, static_cast<unsigned>(need), 1));
        if (f.heap_copy == nullptr)
            return false;
        copy = f.heap_copy;
    }
    vesk_json_key_result key_result[k_json_path_max];
    int key_num = 0;
    if (!proc_parse_exec(key_pos, copy, args, key_result, key_num))
        return false;

    vesk_tool_JSON* parent = m_root;
    for (int i = 0; i < key_num - 1; i++) {
        const vesk_json_key_result& step = key_result[i];
        vesk_tool_JSON* son = nullptr;
        if (parent->type == VESK_TOOL_JSON_OBJECT) {
            VESK_ASSERT(key_result[i].key_name != NULL);
            son = vesk_tool_JSON_get_object_item(parent, step.key_name);
            if (son == nullptr && create) {
                if (step.key_type != 1 && step.key_type != 2) {
                    VESK_LOG_ERR(k_cls, "key_%d, key_type = %d why?\n", i, step.key_type);
                    VESK_ASSERT(0);
                }
                son = new_container(step.key_type);
                vesk_tool_JSON_add_item_to_object(parent, step.key_name, son);
            }
        } else if (parent->type == VESK_TOOL_JSON_ARRAY) {
            son = element_at(parent, step.array_idx);
            if (son == nullptr && create) {
                const uint32_t size = static_cast<uint32_t>(vesk_tool_JSON_get_array_size(parent));
                if (step.array_idx - size >= k_json_max_pad) {
                    VESK_LOG_ERR(k_cls, "'%s', array_size = %u, call_%u, too far!\n", key_pos, size, step.array_idx);
                    return false;
                }
                if (step.array_idx > size)
                    VESK_LOG_WARN(k_cls, "'%s', %s[*]--array_size = %d, call_%d !!!!!!\n", key_pos,
                        parent->string != nullptr ? parent->string : "", static_cast<int>(size),
                        static_cast<int>(step.array_idx));
                for (uint32_t n = size; n <= step.array_idx; n++) {
                    son = new_container(step.key_type);
                    if (son == nullptr)
                        break;
                    vesk_tool_JSON_add_item_to_array(parent, son);
                }
            }
        } else {
            VESK_LOG_ERR(k_cls, "parent->type = %d why??\n", parent->type);
            VESK_ASSERT(0);
        }
        if (son == nullptr) {
            VESK_LOG_ERR(k_cls, "key_%d, parent == NULL why?\n", i);
            return false;
        }
        // Every node a path passes through, the leaf's parent included, must be a container:
        // a path through a scalar is the caller's programming error.
        if (son->type != VESK_TOOL_JSON_OBJECT && son->type != VESK_TOOL_JSON_ARRAY) {
            VESK_LOG_ERR(k_cls, "parent->type = %d why??\n", son->type);
            VESK_ASSERT(0);
        }
        parent = son;
    }
    f.parent = parent;
    f.leaf = key_result[key_num - 1];
    if (f.leaf.key_name != nullptr) {
        snprintf(f.leaf_name, sizeof(f.leaf_name), "%s", f.leaf.key_name);
        f.leaf.key_name = f.leaf_name;
    }
    return true;
}

vesk_tool_JSON* vesk_tool_json_V2::proc_fetch_son(const char* key_pos, const fetched& f)
{
    if (f.parent->type == VESK_TOOL_JSON_OBJECT)
        return vesk_tool_JSON_get_object_item(f.parent, f.leaf.key_name);
    if (f.parent->type == VESK_TOOL_JSON_ARRAY)
        return element_at(f.parent, f.leaf.array_idx);
    VESK_LOG_ERR(k_cls, "'%s' , parent->type = %d err!\n", key_pos, f.parent->type);
    return nullptr;
}

// ---- Writes ----------------------------------------------------------------------------------

void vesk_tool_json_V2::set_node(const char* key_pos, vesk_json_path_args& args, vesk_tool_JSON* item)
{
    fetched f;
    if (item == nullptr || m_root == nullptr || !proc_fetch_parent(key_pos, args, true, f)) {
        vesk_tool_JSON_delete(item);
        return;
    }
    vesk_tool_JSON* parent = f.parent;
    if (parent->type == VESK_TOOL_JSON_OBJECT) {
        if (vesk_tool_JSON_get_object_item(parent, f.leaf.key_name) != nullptr)
            vesk_tool_JSON_replace_item_in_object(parent, f.leaf.key_name, item);
        else
            vesk_tool_JSON_add_item_to_object(parent, f.leaf.key_name, item);
        return;
    }
    if (parent->type == VESK_TOOL_JSON_ARRAY) {
        const uint32_t size = static_cast<uint32_t>(vesk_tool_JSON_get_array_size(parent));
        if (f.leaf.array_idx < size) {
            vesk_tool_JSON_replace_item_in_array(parent, static_cast<int>(f.leaf.array_idx), item);
            return;
        }
        if (f.leaf.array_idx - size >= k_json_max_pad) {
            VESK_LOG_ERR(k_cls, "'%s', array_size = %u, call_%u, too far!\n", key_pos, size, f.leaf.array_idx);
            vesk_tool_JSON_delete(item);
            return;
        }
        for (uint32_t n = size; n < f.leaf.array_idx; n++) {
            vesk_tool_JSON* pad = vesk_tool_JSON_create_null();
            if (pad == nullptr) {
                vesk_tool_JSON_delete(item);
                return;
            }
            vesk_tool_JSON_add_item_to_array(parent, pad);
        }
        vesk_tool_JSON_add_item_to_array(parent, item);
        return;
    }
    VESK_LOG_ERR(k_cls, "'%s' , parent->type = %d err!\n", key_pos, parent->type);
    vesk_tool_JSON_delete(item);
}

// Runs stmt under the document's lock, held in the name of the calling operation, with `args`
// reading the "%d" indexes from the variable arguments that follow `last`.
#define VESK_JSON_V2_LOCKED(last, stmt)                                                                                \
    do {                                                                                                               \
        va_list ap;                                                                                                    \
        va_start(ap, last);                                                                                            \
        vesk_json_path_args args(&ap);                                                                                 \
        {                                                                                                              \
            named_guard guard(m_lock, k_src, __func__);                                                                \
            stmt;                                                                                                      \
        }                                                                                                              \
        va_end(ap);                                                                                                    \
    } while (0)

// The node is made only when there is a tree to put it in.
#define VESK_JSON_V2_SET(key_pos, last, make)                                                                          \
    do {                                                                                                               \
        if ((key_pos) == nullptr) {                                                                                    \
            VESK_LOG_ERR(k_cls, "key_pos == NULL");                                                                    \
            return;                                                                                                    \
        }                                                                                                              \
        VESK_JSON_V2_LOCKED(last, if (m_root != nullptr) set_node(key_pos, args, make));                               \
    } while (0)

void vesk_tool_json_V2::execSetS8Int(const char* key_pos, int value, ...)
{
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_number(static_cast<int8_t>(value)));
}

void vesk_tool_json_V2::execSetS16Int(const char* key_pos, int value, ...)
{
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_number(static_cast<int16_t>(value)));
}

void vesk_tool_json_V2::execSetInt(const char* key_pos, int32_t value, ...)
{
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_number(value));
}

void vesk_tool_json_V2::execSetLong(const char* key_pos, long value, ...)
{
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_number(static_cast<double>(value)));
}

void vesk_tool_json_V2::execSetLongLongInt(const char* key_pos, long long value, ...)
{
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_number(static_cast<double>(value)));
}

void vesk_tool_json_V2::execSetDouble(const char* key_pos, double value, ...)
{
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_number(value));
}

void vesk_tool_json_V2::execSetStr(const char* key_pos, const char* value, ...)
{
    if (value == nullptr) {
        VESK_LOG_ERR(k_cls, "'%s', value == NULL\n", key_pos != nullptr ? key_pos : "");
        return;
    }
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_string(value));
}

void vesk_tool_json_V2::execSetBool(const char* key_pos, VESK_BOOL value, ...)
{
    VESK_JSON_V2_SET(key_pos, value, vesk_tool_JSON_create_bool(value));
}

void vesk_tool_json_V2::delete_node(const char* key_pos, vesk_json_path_args& args)
{
    fetched f;
    if (m_root == nullptr || !proc_fetch_parent(key_pos, args, false, f))
        return;
    if (f.parent->type == VESK_TOOL_JSON_OBJECT) {
        vesk_tool_JSON_delete_item_from_object(f.parent, f.leaf.key_name);
    } else if (f.parent->type == VESK_TOOL_JSON_ARRAY) {
        if (f.leaf.array_idx <= INT32_MAX)
            vesk_tool_JSON_delete_item_from_array(f.parent, static_cast<int>(f.leaf.array_idx));
    } else {
        VESK_LOG_ERR(k_cls, "'%s' , parent->type = %d err!\n", key_pos, f.parent->type);
    }
}

void vesk_tool_json_V2::execDelete(const char* key_pos, ...)
{
    if (key_pos == nullptr) {
        VESK_LOG_ERR(k_cls, "key_pos == NULL");
        return;
    }
    VESK_JSON_V2_LOCKED(key_pos, delete_node(key_pos, args));
}

// ---- Reads -----------------------------------------------------------------------------------

VESK_ERR vesk_tool_json_V2::fetch_leaf(const char* key_pos, vesk_json_path_args& args, const vesk_tool_JSON*& son)
{
    if (m_root == nullptr)
        return VESK_ERR_INVALID_PARAM;
    fetched f;
    if (!proc_fetch_parent(key_pos, args, false, f))
        return VESK_ERR_OPERATE_FAIL;
    son = proc_fetch_son(key_pos, f);
    return son != nullptr ? VESK_OK : VESK_ERR_OPERATE_FAIL;
}

VESK_ERR vesk_tool_json_V2::get_number(
    const char* func, const char* key_pos, vesk_json_path_args& args, num_kind kind, void* out)
{
    const vesk_tool_JSON* son = nullptr;
    const VESK_ERR found = fetch_leaf(key_pos, args, son);
    if (found != VESK_OK)
        return found;
    const bool is_bool = son->type == VESK_TOOL_JSON_TRUE || son->type == VESK_TOOL_JSON_FALSE;
    const bool ok = kind == num_kind::boolean ? is_bool : son->type == VESK_TOOL_JSON_NUMBER;
    if (!ok) {
        // Deliberately a success: callers initialise the output and read on.
        vesk_log(vesk_log_level::error, k_cls, func, __LINE__, "'%s', son->type = %d err!\n", key_pos, son->type);
        return VESK_OK;
    }
    switch (kind) {
    case num_kind::s8:
        *static_cast<int8_t*>(out) = static_cast<int8_t>(son->valueint);
        break;
    case num_kind::s16:
        *static_cast<int16_t*>(out) = static_cast<int16_t>(son->valueint);
        break;
    case num_kind::s32:
        *static_cast<int32_t*>(out) = son->valueint;
        break;
    case num_kind::slong:
        *static_cast<long*>(out) = son->valueint;
        break;
    case num_kind::s64: {
        // The whole value, not the 32-bit valueint: 64-bit members are mostly times in ms.
        const double d = son->valuedouble;
        long long v = d >= 9223372036854775807.0 ? INT64_MAX
            : d <= -9223372036854775808.0        ? INT64_MIN
            : d == d                             ? static_cast<long long>(d)
                                                 : 0;
        *static_cast<long long*>(out) = v;
        break;
    }
    case num_kind::dbl:
        *static_cast<double*>(out) = son->valuedouble;
        break;
    case num_kind::boolean:
        *static_cast<VESK_BOOL*>(out) = son->type == VESK_TOOL_JSON_TRUE ? 1 : 0;
        break;
    }
    return VESK_OK;
}

#define VESK_JSON_V2_GET(key_pos, value, kind)                                                                         \
    do {                                                                                                               \
        if ((key_pos) == nullptr || (value) == nullptr) {                                                              \
            VESK_LOG_ERR(k_cls, (key_pos) == nullptr ? "key_pos == NULL" : "value == NULL");                           \
            return VESK_ERR_INVALID_PARAM;                                                                             \
        }                                                                                                              \
        VESK_ERR rc;                                                                                                   \
        VESK_JSON_V2_LOCKED(value, rc = get_number(__func__, key_pos, args, kind, value));                             \
        return rc;                                                                                                     \
    } while (0)

VESK_ERR vesk_tool_json_V2::execTryGetS8Int(const char* key_pos, int8_t* value, ...)
{
    VESK_JSON_V2_GET(key_pos, value, num_kind::s8);
}

VESK_ERR vesk_tool_json_V2::execTryGetS16Int(const char* key_pos, int16_t* value, ...)
{
    VESK_JSON_V2_GET(key_pos, value, num_kind::s16);
}

VESK_ERR vesk_tool_json_V2::execTryGetInt(const char* key_pos, int32_t* value, ...)
{
    VESK_JSON_V2_GET(key_pos, value, num_kind::s32);
}

VESK_ERR vesk_tool_json_V2::execTryGetLong(const char* key_pos, long* value, ...)
{
    VESK_JSON_V2_GET(key_pos, value, num_kind::slong);
}

VESK_ERR vesk_tool_json_V2::execTryGetLongLongInt(const char* key_pos, long long* value, ...)
{
    VESK_JSON_V2_GET(key_pos, value, num_kind::s64);
}

VESK_ERR vesk_tool_json_V2::execTryGetDouble(const char* key_pos, double* value, ...)
{
    VESK_JSON_V2_GET(key_pos, value, num_kind::dbl);
}

VESK_ERR vesk_tool_json_V2::execTryGetBool(const char* key_pos, VESK_BOOL* value, ...)
{
    VESK_JSON_V2_GET(key_pos, value, num_kind::boolean);
}

VESK_ERR vesk_tool_json_V2::get_string(
    const char* func, const char* key_pos, vesk_json_path_args& args, char* buf, unsigned buf_size)
{
    const vesk_tool_JSON* son = nullptr;
    const VESK_ERR found = fetch_leaf(key_pos, args, son);
    if (found != VESK_OK)
        return found;
    if (son->type != VESK_TOOL_JSON_STRING || son->valuestring == nullptr) {
        vesk_log(vesk_log_level::error, k_cls, func, __LINE__, "'%s', son->type = %d err!\n", key_pos, son->type);
        return VESK_ERR_OPERATE_FAIL;
    }
    snprintf(buf, buf_size, "%s", son->valuestring);
    return VESK_OK;
}

#define VESK_JSON_V2_GET_STR(key_pos, buf, buf_size, clear)                                                            \
    do {                                                                                                               \
        if ((key_pos) == nullptr || (buf) == nullptr || (buf_size) == 0) {                                             \
            vesk_print_stdout("(key_pos == NULL) || (data_buf == NULL) || (buf_size == 0)\n");                         \
            return VESK_ERR_INVALID_PARAM;                                                                             \
        }                                                                                                              \
        if (clear)                                                                                                     \
            (buf)[0] = '\0';                                                                                           \
        VESK_ERR rc;                                                                                                   \
        VESK_JSON_V2_LOCKED(buf_size, rc = get_string(__func__, key_pos, args, buf, buf_size));                        \
        return rc;                                                                                                     \
    } while (0)

VESK_ERR vesk_tool_json_V2::execTryGetStr(const char* key_pos, char* data_buf, unsigned buf_size, ...)
{
    VESK_JSON_V2_GET_STR(key_pos, data_buf, buf_size, false);
}

VESK_ERR vesk_tool_json_V2::execGetStr(const char* key_pos, char* data_buf, unsigned buf_size, ...)
{
    VESK_JSON_V2_GET_STR(key_pos, data_buf, buf_size, true);
}

const char* vesk_tool_json_V2::get_string_addr(const char* key_pos, vesk_json_path_args& args, int* str_len)
{
    const vesk_tool_JSON* son = nullptr;
    if (fetch_leaf(key_pos, args, son) != VESK_OK)
        return nullptr;
    if (son->type != VESK_TOOL_JSON_STRING || son->valuestring == nullptr) {
        VESK_LOG_ERR(k_cls, "'%s', son->type = %d err!\n", key_pos, son->type);
        return nullptr;
    }
    *str_len = son->valuestring_len;
    return son->valuestring;
}

const char* vesk_tool_json_V2::execGetStr_addr(const char* key_pos, int* str_len, ...)
{
    if (key_pos == nullptr || str_len == nullptr) {
        VESK_LOG_ERR(k_cls, "key_pos or str_len NULL");
        return nullptr;
    }
    const char* addr;
    VESK_JSON_V2_LOCKED(str_len, addr = get_string_addr(key_pos, args, str_len));
    return addr;
}

int vesk_tool_json_V2::get_array_size(const char* key_pos, vesk_json_path_args& args)
{
    const vesk_tool_JSON* son = nullptr;
    if (fetch_leaf(key_pos, args, son) != VESK_OK)
        return 0;
    if (son->type != VESK_TOOL_JSON_ARRAY) {
        VESK_LOG_ERR(k_cls, "'%s', son->type = %d err!\n", key_pos, son->type);
        return 0;
    }
    return vesk_tool_JSON_get_array_size(son);
}

int vesk_tool_json_V2::execGetArraysize(const char* key_pos, ...)
{
    if (key_pos == nullptr) {
        VESK_LOG_ERR(k_cls, "key_pos == NULL");
        return 0;
    }
    int size;
    VESK_JSON_V2_LOCKED(key_pos, size = get_array_size(key_pos, args));
    return size;
}

// ---- Whole document ----------------------------------------------------------------------------

int vesk_tool_json_V2::getContentSize()
{
    named_guard guard(m_lock, k_src, __func__);
    return vesk_tool_JSON_get_print_size(m_root, 0);
}

int vesk_tool_json_V2::exportContent(char* buf, unsigned buf_size)
{
    if (buf == nullptr || buf_size == 0) {
        vesk_print_stdout("buf == NULL || buf_size == 0\n");
        return 0;
    }
    named_guard guard(m_lock, k_src, __func__);
    const int size = buf_size > INT32_MAX ? INT32_MAX : static_cast<int>(buf_size);
    return vesk_tool_JSON_export(m_root, 0, buf, size);
}

bool vesk_tool_json_V2::measure(unsigned& nodes, unsigned& bytes)
{
    return measure_tree(k_src, __func__, nodes, bytes);
}

} // namespace vesk_utility
