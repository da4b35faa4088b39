// vesk_utility_json - the JSON operator addressed by chains of member names (keys forms) and by
// (name, index) levels, each operation entirely under the document's named lock; also the
// accounted heap of both operators and their lines in the resource manager's JSON dump.
#include <cstdio>
#include <cstring>
#include <utility>

#include "core/vesk_utility_guard.h"
#include "store/vesk_utility_json_impl.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr const char* k_cls = "vesk_tool_json";
constexpr const char* k_src = "doc/vesk_utility_json";

bool keys_valid(const char* const* keys, int n)
{
    for (int i = 0; i < n; i++) {
        if (keys[i] == nullptr)
            return false;
    }
    return true;
}

// 1 for true, 0 for false, the integer part of a number through 64 bits (low 32 kept).
bool read_int(const vesk_tool_JSON* item, int& value)
{
    if (item == nullptr)
        return false;
    switch (item->type) {
    case VESK_TOOL_JSON_TRUE:
        value = 1;
        return true;
    case VESK_TOOL_JSON_FALSE:
        value = 0;
        return true;
    case VESK_TOOL_JSON_NUMBER: {
        const double d = item->valuedouble;
        const int64_t v = d >= 9223372036854775807.0 ? INT64_MAX
            : d <= -9223372036854775808.0            ? INT64_MIN
            : d == d                                 ? static_cast<int64_t>(d)
                                                     : 0;
        value = static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
        return true;
    }
    default:
        return false;
    }
}

bool is_string(const vesk_tool_JSON* item)
{
    return item != nullptr && item->type == VESK_TOOL_JSON_STRING && item->valuestring != nullptr;
}

VESK_ERR copy_text(const vesk_tool_JSON* item, char* buf, int buf_size)
{
    if (!is_string(item) || buf == nullptr || buf_size <= 0)
        return VESK_ERR_FAIL;
    snprintf(buf, static_cast<size_t>(buf_size), "%s", item->valuestring);
    return VESK_OK;
}

// The stored text itself and its length, or NULL (len untouched) when item is no string.
const char* text_addr(const vesk_tool_JSON* item, int& len)
{
    if (!is_string(item))
        return nullptr;
    len = item->valuestring_len;
    return item->valuestring;
}

// Appends empty objects until `array` has idx + 1 elements; the element at idx, or NULL
// (logged) when that would pad more than k_json_max_pad or memory is short.
vesk_tool_JSON* pad_to(vesk_tool_JSON* array, int idx)
{
    const int size = vesk_tool_JSON_get_array_size(array);
    if (idx < size)
        return vesk_tool_JSON_get_array_item(array, idx);
    if (static_cast<uint32_t>(idx - size) >= k_json_max_pad) {
        VESK_LOG_ERR(k_cls, "array_size = %d, idx = %d, too far!\n", size, idx);
        return nullptr;
    }
    vesk_tool_JSON* last = nullptr;
    for (int n = size; n <= idx; n++) {
        last = vesk_tool_JSON_create_object();
        if (last == nullptr)
            return nullptr;
        vesk_tool_JSON_add_item_to_array(array, last);
    }
    return last;
}

} // namespace

// ---- Heap of both operators ------------------------------------------------------------------

void* vesk_json_heap::operator new(std::size_t size) noexcept
{
    return vesk_malloc(k_json_usr_id, k_json_purpose, static_cast<unsigned>(size), 8);
}

void vesk_json_heap::operator delete(void* p) noexcept
{
    vesk_free(k_src, "vesk_json_heap", p);
}

// ---- Document of both operators -------------------------------------------------------------

bool vesk_json_document::open(const char* lock_name, const char* text)
{
    m_lock = vesk_utility_new_lock(VESK_USER_UTILITY, lock_name);
    if (text != nullptr)
        m_root = vesk_tool_JSON_parse(text);
    if (m_root == nullptr)
        m_root = vesk_tool_JSON_create_object();
    return m_lock != nullptr && m_root != nullptr;
}

void vesk_json_document::close(const char* file, const char* func)
{
    vesk_tool_JSON_delete(m_root);
    if (m_lock != nullptr)
        vesk_utility_delete_lock(m_lock, file, func);
}

VESK_ERR vesk_json_document::reload(const char* text)
{
    vesk_tool_JSON_delete(m_root);
    m_root = text != nullptr ? vesk_tool_JSON_parse(text) : nullptr;
    return m_root != nullptr ? VESK_OK : VESK_ERR_FAIL;
}

bool vesk_json_document::measure_tree(const char* file, const char* func, unsigned& nodes, unsigned& bytes)
{
    if (m_lock->trylock(file, func, 0) != VESK_OK)
        return false;
    vesk_tool_JSON_measure(m_root, nodes, bytes);
    m_lock->unlock(file, func);
    return true;
}

// ---- Object ----------------------------------------------------------------------------------

vesk_tool_json* vesk_tool_json::create(const char* text)
{
    return make(new vesk_tool_json(), "vesk_tool_json", text);
}

vesk_tool_json::~vesk_tool_json()
{
    close(k_src, __func__);
}

VESK_ERR vesk_tool_json::load(const char* text)
{
    named_guard guard(m_lock, k_src, __func__);
    return reload(text);
}

int vesk_tool_json::print_copy(char* buf, int buf_size)
{
    named_guard guard(m_lock, k_src, __func__);
    return vesk_tool_JSON_export(m_root, 1, buf, buf_size);
}

int vesk_tool_json::print_copy_unformate(char* buf, int buf_size)
{
    named_guard guard(m_lock, k_src, __func__);
    return vesk_tool_JSON_export(m_root, 0, buf, buf_size);
}

int vesk_tool_json::get_print_copy_size()
{
    named_guard guard(m_lock, k_src, __func__);
    return vesk_tool_JSON_get_print_size(m_root, 1);
}

int vesk_tool_json::get_print_copy_unformate_size()
{
    named_guard guard(m_lock, k_src, __func__);
    return vesk_tool_JSON_get_print_size(m_root, 0);
}

bool vesk_tool_json::measure(unsigned& nodes, unsigned& bytes)
{
    return measure_tree(k_src, __func__, nodes, bytes);
}

// ---- Keys forms ------------------------------------------------------------------------------
// A chain is one to four member names, outermost first, the last naming the target. Each walk
// goes at most four members deep: O(sum of the children of the members on the way). The walks
// below run with the document's lock held (see locked_chain).

namespace
{

vesk_tool_JSON* find_keys(vesk_tool_JSON* root, const char* const* keys, int n)
{
    if (!keys_valid(keys, n))
        return nullptr;
    vesk_tool_JSON* node = root;
    for (int i = 0; i < n && node != nullptr; i++)
        node = vesk_tool_JSON_get_object_item(node, keys[i]);
    return node;
}

// Appends item as the last name of the chain, creating missing outer members as empty objects.
// Owns item: it is deleted when it cannot be placed.
VESK_ERR add_keys(vesk_tool_JSON* root, const char* const* keys, int n, vesk_tool_JSON* item)
{
    if (item == nullptr || root == nullptr || !keys_valid(keys, n)) {
        vesk_tool_JSON_delete(item);
        return VESK_ERR_FAIL;
    }
    vesk_tool_JSON* parent = root;
    for (int i = 0; i < n - 1 && parent != nullptr; i++) {
        vesk_tool_JSON* son = vesk_tool_JSON_get_object_item(parent, keys[i]);
        if (son == nullptr) {
            son = vesk_tool_JSON_create_object();
            vesk_tool_JSON_add_item_to_object(parent, keys[i], son);
        }
        parent = son;
    }
    // A member hung under a number or an array would never print: refuse instead.
    if (parent == nullptr || parent->type != VESK_TOOL_JSON_OBJECT) {
        VESK_LOG_ERR(
            k_cls, "'%s', parent type = %d, not an object!\n", keys[n - 1], parent != nullptr ? parent->type : -1);
        vesk_tool_JSON_delete(item);
        return VESK_ERR_FAIL;
    }
    vesk_tool_JSON_add_item_to_object(parent, keys[n - 1], item);
    return VESK_OK;
}

VESK_ERR add_number(vesk_tool_JSON* root, const char* const* keys, int n, double value)
{
    return add_keys(root, keys, n, vesk_tool_JSON_create_number(value));
}

VESK_ERR add_string(vesk_tool_JSON* root, const char* const* keys, int n, const char* value)
{
    return add_keys(root, keys, n, vesk_tool_JSON_create_string(value));
}

VESK_ERR delete_keys(vesk_tool_JSON* root, const char* const* keys, int n)
{
    vesk_tool_JSON* parent = find_keys(root, keys, n - 1);
    if (parent == nullptr || keys[n - 1] == nullptr)
        return VESK_ERR_FAIL;
    vesk_tool_JSON* item = vesk_tool_JSON_detach_item_from_object(parent, keys[n - 1]);
    if (item == nullptr)
        return VESK_ERR_FAIL;
    vesk_tool_JSON_delete(item);
    return VESK_OK;
}

VESK_ERR get_int_keys(vesk_tool_JSON* root, const char* const* keys, int n, int& value)
{
    return read_int(find_keys(root, keys, n), value) ? VESK_OK : VESK_ERR_FAIL;
}

VESK_ERR get_double_keys(vesk_tool_JSON* root, const char* const* keys, int n, double& value)
{
    const vesk_tool_JSON* item = find_keys(root, keys, n);
    if (item == nullptr)
        return VESK_ERR_FAIL;
    switch (item->type) {
    case VESK_TOOL_JSON_TRUE:
        value = 1.0;
        return VESK_OK;
    case VESK_TOOL_JSON_FALSE:
        value = 0.0;
        return VESK_OK;
    case VESK_TOOL_JSON_NUMBER:
        value = item->valuedouble;
        return VESK_OK;
    default:
        return VESK_ERR_FAIL;
    }
}

VESK_ERR copy_string_keys(vesk_tool_JSON* root, const char* const* keys, int n, char* buf, int buf_size)
{
    return copy_text(find_keys(root, keys, n), buf, buf_size);
}

const char* string_addr_keys(vesk_tool_JSON* root, const char* const* keys, int n, int& len)
{
    return text_addr(find_keys(root, keys, n), len);
}

int arrysize_keys(vesk_tool_JSON* root, const char* const* keys, int n)
{
    const vesk_tool_JSON* item = find_keys(root, keys, n);
    return item != nullptr ? vesk_tool_JSON_get_array_size(item) : 0;
}

// ---- Elements of array members: the chain names the array, idx its element, key a member.

const vesk_tool_JSON* arry_item_member(vesk_tool_JSON* root, const char* const* keys, int n, int idx, const char* key)
{
    const vesk_tool_JSON* array = find_keys(root, keys, n);
    if (array == nullptr || array->type != VESK_TOOL_JSON_ARRAY || idx < 0 || key == nullptr)
        return nullptr;
    return vesk_tool_JSON_get_object_item(vesk_tool_JSON_get_array_item(array, idx), key);
}

// Owns item, as add_keys does.
VESK_ERR add_arry_item(
    vesk_tool_JSON* root, const char* const* keys, int n, int idx, const char* key, vesk_tool_JSON* item)
{
    if (item == nullptr || root == nullptr || !keys_valid(keys, n) || idx < 0 || key == nullptr) {
        vesk_tool_JSON_delete(item);
        return VESK_ERR_FAIL;
    }
    vesk_tool_JSON* parent = root;
    for (int i = 0; i < n && parent != nullptr; i++) {
        vesk_tool_JSON* son = vesk_tool_JSON_get_object_item(parent, keys[i]);
        if (son == nullptr && parent->type == VESK_TOOL_JSON_OBJECT) {
            son = i == n - 1 ? vesk_tool_JSON_create_array() : vesk_tool_JSON_create_object();
            vesk_tool_JSON_add_item_to_object(parent, keys[i], son);
        }
        parent = son;
    }
    vesk_tool_JSON* element = nullptr;
    if (parent != nullptr && parent->type == VESK_TOOL_JSON_ARRAY)
        element = pad_to(parent, idx);
    if (element == nullptr || element->type != VESK_TOOL_JSON_OBJECT) {
        vesk_tool_JSON_delete(item);
        return VESK_ERR_FAIL;
    }
    vesk_tool_JSON_add_item_to_object(element, key, item);
    return VESK_OK;
}

VESK_ERR add_arry_number(vesk_tool_JSON* root, const char* const* keys, int n, int idx, const char* key, int value)
{
    return add_arry_item(root, keys, n, idx, key, vesk_tool_JSON_create_number(value));
}

VESK_ERR add_arry_string(
    vesk_tool_JSON* root, const char* const* keys, int n, int idx, const char* key, const char* value)
{
    return add_arry_item(root, keys, n, idx, key, vesk_tool_JSON_create_string(value));
}

VESK_ERR get_arry_int(vesk_tool_JSON* root, const char* const* keys, int n, int idx, const char* key, int& value)
{
    return read_int(arry_item_member(root, keys, n, idx, key), value) ? VESK_OK : VESK_ERR_FAIL;
}

VESK_ERR get_arry_string(
    vesk_tool_JSON* root, const char* const* keys, int n, int idx, const char* key, const char*& value)
{
    const vesk_tool_JSON* item = arry_item_member(root, keys, n, idx, key);
    if (!is_string(item))
        return VESK_ERR_FAIL;
    value = item->valuestring;
    return VESK_OK;
}

VESK_ERR copy_arry_string(
    vesk_tool_JSON* root, const char* const* keys, int n, int idx, const char* key, char* buf, int buf_size)
{
    return copy_text(arry_item_member(root, keys, n, idx, key), buf, buf_size);
}

} // namespace

template <class Walk, class... Args>
auto vesk_tool_json::locked_chain(const char* func, std::initializer_list<const char*> keys, Walk walk, Args&&... args)
{
    named_guard guard(m_lock, k_src, func);
    return walk(m_root, keys.begin(), static_cast<int>(keys.size()), std::forward<Args>(args)...);
}

VESK_ERR vesk_tool_json::add_item_int(const char* key, int value)
{
    return locked_chain(__func__, {key}, add_number, value);
}

VESK_ERR vesk_tool_json::add_item_int(const char* key1, const char* key2, int value)
{
    return locked_chain(__func__, {key1, key2}, add_number, value);
}

VESK_ERR vesk_tool_json::add_item_int(const char* key1, const char* key2, const char* key3, int value)
{
    return locked_chain(__func__, {key1, key2, key3}, add_number, value);
}

VESK_ERR vesk_tool_json::add_item_int(const char* key1, const char* key2, const char* key3, const char* key4, int value)
{
    return locked_chain(__func__, {key1, key2, key3, key4}, add_number, value);
}

VESK_ERR vesk_tool_json::add_item_double(const char* key, double value)
{
    return locked_chain(__func__, {key}, add_number, value);
}

VESK_ERR vesk_tool_json::add_item_double(const char* key1, const char* key2, double value)
{
    return locked_chain(__func__, {key1, key2}, add_number, value);
}

VESK_ERR vesk_tool_json::add_item_string(const char* key, const char* value)
{
    return locked_chain(__func__, {key}, add_string, value);
}

VESK_ERR vesk_tool_json::add_item_string(const char* key1, const char* key2, const char* value)
{
    return locked_chain(__func__, {key1, key2}, add_string, value);
}

VESK_ERR vesk_tool_json::add_item_string(const char* key1, const char* key2, const char* key3, const char* value)
{
    return locked_chain(__func__, {key1, key2, key3}, add_string, value);
}

VESK_ERR vesk_tool_json::add_item_string(
    const char* key1, const char* key2, const char* key3, const char* key4, const char* value)
{
    return locked_chain(__func__, {key1, key2, key3, key4}, add_string, value);
}

VESK_ERR vesk_tool_json::delete_item(const char* key)
{
    return locked_chain(__func__, {key}, delete_keys);
}

VESK_ERR vesk_tool_json::delete_item(const char* key1, const char* key2)
{
    return locked_chain(__func__, {key1, key2}, delete_keys);
}

VESK_ERR vesk_tool_json::delete_item(const char* key1, const char* key2, const char* key3)
{
    return locked_chain(__func__, {key1, key2, key3}, delete_keys);
}

VESK_ERR vesk_tool_json::delete_item(const char* key1, const char* key2, const char* key3, const char* key4)
{
    return locked_chain(__func__, {key1, key2, key3, key4}, delete_keys);
}

VESK_ERR vesk_tool_json::try_get_item_int(const char* key, int& value)
{
    return locked_chain(__func__, {key}, get_int_keys, value);
}

VESK_ERR vesk_tool_json::try_get_item_int(const char* key1, const char* key2, int& value)
{
    return locked_chain(__func__, {key1, key2}, get_int_keys, value);
}

VESK_ERR vesk_tool_json::try_get_item_int(const char* key1, const char* key2, const char* key3, int& value)
{
    return locked_chain(__func__, {key1, key2, key3}, get_int_keys, value);
}

VESK_ERR vesk_tool_json::try_get_item_int(
    const char* key1, const char* key2, const char* key3, const char* key4, int& value)
{
    return locked_chain(__func__, {key1, key2, key3, key4}, get_int_keys, value);
}

VESK_ERR vesk_tool_json::try_get_item_double(const char* key, double& value)
{
    return locked_chain(__func__, {key}, get_double_keys, value);
}

VESK_ERR vesk_tool_json::try_get_item_double(const char* key1, const char* key2, double& value)
{
    return locked_chain(__func__, {key1, key2}, get_double_keys, value);
}

VESK_ERR vesk_tool_json::get_item_string_copy(const char* key, char* buf, int buf_size)
{
    return locked_chain(__func__, {key}, copy_string_keys, buf, buf_size);
}

VESK_ERR vesk_tool_json::get_item_string_copy(const char* key1, const char* key2, char* buf, int buf_size)
{
    return locked_chain(__func__, {key1, key2}, copy_string_keys, buf, buf_size);
}

VESK_ERR vesk_tool_json::get_item_string_copy(
    const char* key1, const char* key2, const char* key3, char* buf, int buf_size)
{
    return locked_chain(__func__, {key1, key2, key3}, copy_string_keys, buf, buf_size);
}

VESK_ERR vesk_tool_json::get_item_string_copy(
    const char* key1, const char* key2, const char* key3, const char* key4, char* buf, int buf_size)
{
    return locked_chain(__func__, {key1, key2, key3, key4}, copy_string_keys, buf, buf_size);
}

const char* vesk_tool_json::get_item_string_addr(const char* key, int& len)
{
    return locked_chain(__func__, {key}, string_addr_keys, len);
}

int vesk_tool_json::get_item_arrysize(const char* key)
{
    return locked_chain(__func__, {key}, arrysize_keys);
}

int vesk_tool_json::get_item_arrysize(const char* key1, const char* key2)
{
    return locked_chain(__func__, {key1, key2}, arrysize_keys);
}

int vesk_tool_json::get_item_arrysize(const char* key1, const char* key2, const char* key3)
{
    return locked_chain(__func__, {key1, key2, key3}, arrysize_keys);
}

int vesk_tool_json::get_item_arrysize(const char* key1, const char* key2, const char* key3, const char* key4)
{
    return locked_chain(__func__, {key1, key2, key3, key4}, arrysize_keys);
}

VESK_ERR vesk_tool_json::get_item_arry_item_int(const char* array_key, int idx, const char* key, int& value)
{
    return locked_chain(__func__, {array_key}, get_arry_int, idx, key, value);
}

VESK_ERR vesk_tool_json::get_item_arry_item_int(
    const char* key1, const char* array_key, int idx, const char* key, int& value)
{
    return locked_chain(__func__, {key1, array_key}, get_arry_int, idx, key, value);
}

VESK_ERR vesk_tool_json::add_item_arry_item_int(const char* array_key, int idx, const char* key, int value)
{
    return locked_chain(__func__, {array_key}, add_arry_number, idx, key, value);
}

VESK_ERR vesk_tool_json::add_item_arry_item_int(
    const char* key1, const char* array_key, int idx, const char* key, int value)
{
    return locked_chain(__func__, {key1, array_key}, add_arry_number, idx, key, value);
}

VESK_ERR vesk_tool_json::get_item_arry_item_string(const char* array_key, int idx, const char* key, const char*& value)
{
    return locked_chain(__func__, {array_key}, get_arry_string, idx, key, value);
}

VESK_ERR vesk_tool_json::get_item_arry_item_string(
    const char* key1, const char* array_key, int idx, const char* key, const char*& value)
{
    return locked_chain(__func__, {key1, array_key}, get_arry_string, idx, key, value);
}

VESK_ERR vesk_tool_json::get_item_arry_item_string_copy(
    const char* array_key, int idx, const char* key, char* buf, int buf_size)
{
    return locked_chain(__func__, {array_key}, copy_arry_string, idx, key, buf, buf_size);
}

VESK_ERR vesk_tool_json::get_item_arry_item_string_copy(
    const char* key1, const char* array_key, int idx, const char* key, char* buf, int buf_size)
{
    return locked_chain(__func__, {key1, array_key}, copy_arry_string, idx, key, buf, buf_size);
}

VESK_ERR vesk_tool_json::add_item_arry_item_string(const char* array_key, int idx, const char* key, const char* value)
{
    return locked_chain(__func__, {array_key}, add_arry_string, idx, key, value);
}

// ---- Levels forms ----------------------------------------------------------------------------

// The node the levels address, or NULL (always NULL without a tree). Writing creates members
// as empty objects and turns an indexed node into an array padded with empty objects; a member
// step into anything but an object, or an index step into an object that has members, fails
// rather than lose data.
vesk_tool_JSON* vesk_tool_json::walk_levels(const level (&lv)[5], bool create)
{
    vesk_tool_JSON* node = m_root;
    bool moved = false;
    for (const level& step : lv) {
        if (node == nullptr)
            return nullptr;
        if (step.key == nullptr && step.idx < 0)
            break;
        moved = true;
        if (step.key != nullptr) {
            if (node->type != VESK_TOOL_JSON_OBJECT)
                return nullptr;
            vesk_tool_JSON* son = vesk_tool_JSON_get_object_item(node, step.key);
            if (son == nullptr && create) {
                son = vesk_tool_JSON_create_object();
                vesk_tool_JSON_add_item_to_object(node, step.key, son);
            }
            node = son;
            if (node == nullptr)
                return nullptr;
        }
        if (step.idx < 0)
            continue;
        if (!create) {
            if (node->type != VESK_TOOL_JSON_ARRAY || step.idx >= vesk_tool_JSON_get_array_size(node))
                return nullptr;
            node = vesk_tool_JSON_get_array_item(node, step.idx);
            continue;
        }
        if (node->type != VESK_TOOL_JSON_ARRAY) {
            if (node->type == VESK_TOOL_JSON_OBJECT && node->child != nullptr)
                return nullptr;
            vesk_tool_JSON_clear_value(node);
            node->type = VESK_TOOL_JSON_ARRAY;
        }
        node = pad_to(node, step.idx);
    }
    return moved ? node : nullptr;
}

#define VESK_JSON_LEVELS const level lv[5] = {{key1, idx1}, {key2, idx2}, {key3, idx3}, {key4, idx4}, {key5, idx5}}

VESK_ERR vesk_tool_json::add_item_int(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
    int idx3, const char* key4, int idx4, const char* key5, int idx5, int value)
{
    VESK_JSON_LEVELS;
    named_guard guard(m_lock, k_src, __func__);
    vesk_tool_JSON* node = walk_levels(lv, true);
    if (node == nullptr)
        return VESK_ERR_FAIL;
    vesk_tool_JSON_clear_value(node);
    node->type = VESK_TOOL_JSON_NUMBER;
    node->valuedouble = value;
    node->valueint = value;
    return VESK_OK;
}

VESK_ERR vesk_tool_json::try_get_item_int(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
    int idx3, const char* key4, int idx4, const char* key5, int idx5, int& value)
{
    VESK_JSON_LEVELS;
    named_guard guard(m_lock, k_src, __func__);
    const vesk_tool_JSON* node = walk_levels(lv, false);
    if (node == nullptr) {
        VESK_LOG_ERR(k_cls, "get_json_object error \n");
        return VESK_ERR_FAIL;
    }
    if (node->type != VESK_TOOL_JSON_NUMBER) {
        VESK_LOG_ERR(k_cls, "get type error \n");
        return VESK_ERR_FAIL;
    }
    return read_int(node, value) ? VESK_OK : VESK_ERR_FAIL;
}

VESK_ERR vesk_tool_json::add_item_str(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
    int idx3, const char* key4, int idx4, const char* key5, int idx5, const char* value)
{
    VESK_JSON_LEVELS;
    if (value == nullptr)
        return VESK_ERR_FAIL;
    named_guard guard(m_lock, k_src, __func__);
    vesk_tool_JSON* node = walk_levels(lv, true);
    if (node == nullptr)
        return VESK_ERR_FAIL;
    if (node->type != VESK_TOOL_JSON_STRING) {
        vesk_tool_JSON_clear_value(node);
        node->type = VESK_TOOL_JSON_STRING;
    }
    if (!vesk_tool_JSON_set_string(node, value)) {
        // Memory short: the node must not stay a string without text.
        vesk_tool_JSON_clear_value(node);
        node->type = VESK_TOOL_JSON_NULL;
        return VESK_ERR_FAIL;
    }
    return VESK_OK;
}

const char* vesk_tool_json::get_item_str_addr(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
    int idx3, const char* key4, int idx4, const char* key5, int idx5, int& len)
{
    VESK_JSON_LEVELS;
    named_guard guard(m_lock, k_src, __func__);
    return text_addr(walk_levels(lv, false), len);
}

VESK_ERR vesk_tool_json::get_item_str_copy(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
    int idx3, const char* key4, int idx4, const char* key5, int idx5, char* buf, int buf_size)
{
    VESK_JSON_LEVELS;
    named_guard guard(m_lock, k_src, __func__);
    return copy_text(walk_levels(lv, false), buf, buf_size);
}

int vesk_tool_json::get_item_arrysize(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
    int idx3, const char* key4, int idx4, const char* key5, int idx5)
{
    VESK_JSON_LEVELS;
    named_guard guard(m_lock, k_src, __func__);
    const vesk_tool_JSON* node = walk_levels(lv, false);
    if (node == nullptr || node->type != VESK_TOOL_JSON_ARRAY)
        return 0;
    return vesk_tool_JSON_get_array_size(node);
}

// ---- Diagnose ----------------------------------------------------------------------------------

namespace
{

template <class T> void print_json_node(const vesk_registry_node& node, print_fn print)
{
    T* json = reinterpret_cast<T*>(node.handle);
    unsigned nodes = 0;
    unsigned bytes = 0;
    if (!json->measure(nodes, bytes)) {
        print("usr_id = 0x%x, name = '%s', busy\n", node.usr_id, node.name);
        return;
    }
    print("usr_id = 0x%x, name = '%s', object num = %u, data size = %u\n", node.usr_id, node.name, nodes, bytes);
}

// The registry holds the interface pointer; the cast back to the one implementation is exact.
void print_v1(const vesk_registry_node& node, print_fn print)
{
    vesk_registry_node impl = node;
    impl.handle
        = reinterpret_cast<uintptr_t>(static_cast<vesk_tool_json*>(reinterpret_cast<vesk_json_operate*>(node.handle)));
    print_json_node<vesk_tool_json>(impl, print);
}

void print_v2(const vesk_registry_node& node, print_fn print)
{
    vesk_registry_node impl = node;
    impl.handle = reinterpret_cast<uintptr_t>(
        static_cast<vesk_tool_json_V2*>(reinterpret_cast<vesk_json_operate_V2*>(node.handle)));
    print_json_node<vesk_tool_json_V2>(impl, print);
}

} // namespace

void vesk_json_install_printers(vesk_handle_registry& registry)
{
    registry.set_node_printer(5, print_v1);
    registry.set_node_printer(6, print_v2);
}

} // namespace vesk_utility
