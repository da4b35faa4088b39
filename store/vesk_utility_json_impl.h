// vesk_utility_json_impl - the two JSON document operators (vesk_tool_json, addressed by chains
// of member names, and vesk_tool_json_V2, addressed by key paths) over the tree of
// store/json/, each guarding its document with its own named lock.
#ifndef VESK_UTILITY_JSON_IMPL_H
#define VESK_UTILITY_JSON_IMPL_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "store/json/vesk_utility_json_tree.h"
#include "vesk_utility.h"
#include "core/vesk_utility_registry.h"

namespace vesk_utility
{

using vesk_soft::VESK_ERR;

// An array is never padded by more than this many elements in one write: a stray index (a
// negative %d argument reads as 4 billion) must not eat the memory of the box.
constexpr uint32_t k_json_max_pad = 1024;

// Objects and their locks are accounted like the trees.
struct vesk_json_heap {
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* p) noexcept;
};

// ---- Key paths -------------------------------------------------------------------------------

constexpr int k_json_path_max = 32;

// One step of a parsed path. key_type: what the node of this step must be when it has to be
// created: 1 an object (a member step follows), 2 an array (an index step follows), 0 last.
struct vesk_json_key_result {
    char* key_name; // member name (points into the path's copy), or NULL for an index step
    uint32_t array_idx; // index of an index step
    int32_t key_type;
};

// Where the "%d" indexes come from: the operation's variable arguments, or (tests, fuzzing) an
// array, whose missing entries read as 0.
class vesk_json_path_args
{
public:
    explicit vesk_json_path_args(va_list* ap)
        : m_ap(ap)
    {
    }
    vesk_json_path_args(const int* ints, int count)
        : m_ints(ints)
        , m_count(count)
    {
    }
    int next();

private:
    va_list* m_ap = nullptr;
    const int* m_ints = nullptr;
    int m_count = 0;
    int m_used = 0;
};

// Parses key_pos into result[0..key_num). `copy` receives the path cut at its separators and
// must hold strlen(key_pos) + 1 bytes; the names point into it. False (logged under
// proc_parse_exec) when the path breaks the grammar or has more than 32 steps.
bool proc_parse_exec(const char* key_pos, char* copy, vesk_json_path_args& args,
    vesk_json_key_result (&result)[k_json_path_max], int& key_num);

// ---- The operators ---------------------------------------------------------------------------

// The tree and the named lock that guards it, as both operators keep them.
// Invariant: m_lock is never NULL; m_root is NULL only after a failed load. Every public
// operation holds m_lock for its whole run (the tree has no lock of its own).
class vesk_json_document : public vesk_json_heap
{
protected:
    vesk_json_document() = default;
    ~vesk_json_document() = default;

    // Gives the new operator json its lock, named lock_name, and its tree: the parsed text, or
    // an empty object when there is no text or it does not parse. NULL (json deleted) when
    // json or either of the two could not be made.
    template <class T> static T* make(T* json, const char* lock_name, const char* text)
    {
        if (json != nullptr && !json->open(lock_name, text)) {
            delete json;
            return nullptr;
        }
        return json;
    }
    // Deletes the tree, then the lock; file and func name the caller to the lock's release.
    void close(const char* file, const char* func);
    // Replaces the tree by the parse of text (no tree when it does not parse).
    // REQUIRES: m_lock held.
    VESK_ERR reload(const char* text);
    // Nodes and bytes of the tree, the lock tried without waiting in the name of file and
    // func; false when it is busy.
    bool measure_tree(const char* file, const char* func, unsigned& nodes, unsigned& bytes);

    vesk_tool_JSON* m_root = nullptr;
    vesk_soft::vesk_lock* m_lock = nullptr;

private:
    bool open(const char* lock_name, const char* text);
};

class vesk_tool_json final : public vesk_soft::vesk_json_operate, public vesk_json_document
{
public:
    // NULL when memory is short.
    static vesk_tool_json* create(const char* text);
    ~vesk_tool_json() override;

    VESK_ERR load(const char* text) override;
    int print_copy(char* buf, int buf_size) override;
    int print_copy_unformate(char* buf, int buf_size) override;
    int get_print_copy_size() override;
    int get_print_copy_unformate_size() override;

    VESK_ERR add_item_int(const char* key, int value) override;
    VESK_ERR add_item_int(const char* key1, const char* key2, int value) override;
    VESK_ERR add_item_int(const char* key1, const char* key2, const char* key3, int value) override;
    VESK_ERR add_item_int(const char* key1, const char* key2, const char* key3, const char* key4, int value) override;
    VESK_ERR add_item_double(const char* key, double value) override;
    VESK_ERR add_item_double(const char* key1, const char* key2, double value) override;
    VESK_ERR add_item_string(const char* key, const char* value) override;
    VESK_ERR add_item_string(const char* key1, const char* key2, const char* value) override;
    VESK_ERR add_item_string(const char* key1, const char* key2, const char* key3, const char* value) override;
    VESK_ERR add_item_string(
        const char* key1, const char* key2, const char* key3, const char* key4, const char* value) override;

    VESK_ERR delete_item(const char* key) override;
    VESK_ERR delete_item(const char* key1, const char* key2) override;
    VESK_ERR delete_item(const char* key1, const char* key2, const char* key3) override;
    VESK_ERR delete_item(const char* key1, const char* key2, const char* key3, const char* key4) override;

    VESK_ERR try_get_item_int(const char* key, int& value) override;
    VESK_ERR try_get_item_int(const char* key1, const char* key2, int& value) override;
    VESK_ERR try_get_item_int(const char* key1, const char* key2, const char* key3, int& value) override;
    VESK_ERR try_get_item_int(
        const char* key1, const char* key2, const char* key3, const char* key4, int& value) override;
    VESK_ERR try_get_item_double(const char* key, double& value) override;
    VESK_ERR try_get_item_double(const char* key1, const char* key2, double& value) override;

    VESK_ERR get_item_string_copy(const char* key, char* buf, int buf_size) override;
    VESK_ERR get_item_string_copy(const char* key1, const char* key2, char* buf, int buf_size) override;
    VESK_ERR get_item_string_copy(
        const char* key1, const char* key2, const char* key3, char* buf, int buf_size) override;
    VESK_ERR get_item_string_copy(
        const char* key1, const char* key2, const char* key3, const char* key4, char* buf, int buf_size) override;
    const char* get_item_string_addr(const char* key, int& len) override;

    int get_item_arrysize(const char* key) override;
    int get_item_arrysize(const char* key1, const char* key2) override;
    int get_item_arrysize(const char* key1, const char* key2, const char* key3) override;
    int get_item_arrysize(const char* key1, const char* key2, const char* key3, const char* key4) override;

    VESK_ERR get_item_arry_item_int(const char* array_key, int idx, const char* key, int& value) override;
    VESK_ERR get_item_arry_item_int(
        const char* key1, const char* array_key, int idx, const char* key, int& value) override;
    VESK_ERR add_item_arry_item_int(const char* array_key, int idx, const char* key, int value) override;
    VESK_ERR add_item_arry_item_int(
        const char* key1, const char* array_key, int idx, const char* key, int value) override;
    VESK_ERR get_item_arry_item_string(const char* array_key, int idx, const char* key, const char*& value) override;
    VESK_ERR get_item_arry_item_string(
        const char* key1, const char* array_key, int idx, const char* key, const char*& value) override;
    VESK_ERR get_item_arry_item_string_copy(
        const char* array_key, int idx, const char* key, char* buf, int buf_size) override;
    VESK_ERR get_item_arry_item_string_copy(
        const char* key1, const char* array_key, int idx, const char* key, char* buf, int buf_size) override;
    VESK_ERR add_item_arry_item_string(const char* array_key, int idx, const char* key, const char* value) override;

    VESK_ERR add_item_int(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5, int value) override;
    VESK_ERR try_get_item_int(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5, int& value) override;
    VESK_ERR add_item_str(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5, const char* value) override;
    const char* get_item_str_addr(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5, int& len) override;
    VESK_ERR get_item_str_copy(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5, char* buf, int buf_size) override;
    int get_item_arrysize(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5) override;

    // Nodes and bytes of the document, for the diagnose dump; false when the lock is busy.
    bool measure(unsigned& nodes, unsigned& bytes);

    struct level {
        const char* key;
        int idx;
    };

private:
    vesk_tool_json() = default;

    // Runs walk(m_root, keys, number of keys, args...) under m_lock, held in the name of func.
    template <class Walk, class... Args>
    auto locked_chain(const char* func, std::initializer_list<const char*> keys, Walk walk, Args&&... args);
    vesk_tool_JSON* walk_levels(const level (&lv)[5], bool create);
};

class vesk_tool_json_V2 final : public vesk_soft::vesk_json_operate_V2, public vesk_json_document
{
public:
    // NULL when memory is short.
    static vesk_tool_json_V2* create(const char* text);
    ~vesk_tool_json_V2() override;

    VESK_ERR loadData(const char* text) override;
    VESK_ERR clearData() override;

    void execSetS8Int(const char* key_pos, int value, ...) override;
    void execSetS16Int(const char* key_pos, int value, ...) override;
    void execSetInt(const char* key_pos, int32_t value, ...) override;
    void execSetLong(const char* key_pos, long value, ...) override;
    void execSetLongLongInt(const char* key_pos, long long value, ...) override;
    void execSetDouble(const char* key_pos, double value, ...) override;
    void execSetStr(const char* key_pos, const char* value, ...) override;
    void execSetBool(const char* key_pos, vesk_soft::VESK_BOOL value, ...) override;

    VESK_ERR execTryGetS8Int(const char* key_pos, int8_t* value, ...) override;
    VESK_ERR execTryGetS16Int(const char* key_pos, int16_t* value, ...) override;
    VESK_ERR execTryGetInt(const char* key_pos, int32_t* value, ...) override;
    VESK_ERR execTryGetLong(const char* key_pos, long* value, ...) override;
    VESK_ERR execTryGetLongLongInt(const char* key_pos, long long* value, ...) override;
    VESK_ERR execTryGetDouble(const char* key_pos, double* value, ...) override;
    VESK_ERR execTryGetStr(const char* key_pos, char* data_buf, unsigned buf_size, ...) override;
    VESK_ERR execTryGetBool(const char* key_pos, vesk_soft::VESK_BOOL* value, ...) override;
    VESK_ERR execGetStr(const char* key_pos, char* data_buf, unsigned buf_size, ...) override;
    const char* execGetStr_addr(const char* key_pos, int* str_len, ...) override;
    int execGetArraysize(const char* key_pos, ...) override;
    void execDelete(const char* key_pos, ...) override;

    int getContentSize() override;
    int exportContent(char* buf, unsigned buf_size) override;

    bool measure(unsigned& nodes, unsigned& bytes);

    // The bodies behind the variadic entries (the lock is taken by the callers).
    enum class num_kind { s8, s16, s32, slong, s64, dbl, boolean };
    void set_node(const char* key_pos, vesk_json_path_args& args, vesk_tool_JSON* item);
    VESK_ERR get_number(const char* func, const char* key_pos, vesk_json_path_args& args, num_kind kind, void* out);
    VESK_ERR get_string(const char* func, const char* key_pos, vesk_json_path_args& args, char* buf, unsigned buf_size);
    const char* get_string_addr(const char* key_pos, vesk_json_path_args& args, int* str_len);
    int get_array_size(const char* key_pos, vesk_json_path_args& args);
    void delete_node(const char* key_pos, vesk_json_path_args& args);

private:
    vesk_tool_json_V2() = default;

    // The leaf (NULL when missing) and its parent of a parsed path; `create` makes what is
    // missing on the way. False when the path does not parse or its parent cannot be reached.
    struct fetched {
        vesk_tool_JSON* parent = nullptr;
        vesk_json_key_result leaf {};
        // The leaf's own copy of its name: at most 63 characters, a longer name addresses its
        // first 63.
        char leaf_name[64];
        char path_copy[128];
        char* heap_copy = nullptr;
        ~fetched();
    };
    bool proc_fetch_parent(const char* key_pos, vesk_json_path_args& args, bool create, fetched& f);
    vesk_tool_JSON* proc_fetch_son(const char* key_pos, const fetched& f);
    // The leaf a read addresses: VESK_ERR_INVALID_PARAM without a tree, VESK_ERR_OPERATE_FAIL
    // when the path does not parse or its parent or leaf is missing.
    VESK_ERR fetch_leaf(const char* key_pos, vesk_json_path_args& args, const vesk_tool_JSON*& son);
};

// Lists the JSON documents in dump modes 5 (vesk_tool_json) and 6 (vesk_tool_json_V2) of the
// resource manager: nodes and bytes per document. Called once by the resource manager.
void vesk_json_install_printers(vesk_handle_registry& registry);

} // namespace vesk_utility

#endif // VESK_UTILITY_JSON_IMPL_H
