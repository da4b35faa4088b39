// vesk_tool_json - the JSON value tree under the JSON operators: a recursive-descent parser,
// a printer into the caller's buffer that never allocates nor escapes, the exact print length,
// and the node operations. Every byte it holds comes from the accounted heap (user 19,
// purpose 0x3019).
#ifndef VESK_TOOL_JSON_H
#define VESK_TOOL_JSON_H

#include <cstddef>
#include <cstdint>

namespace vesk_utility
{

// Type codes; the operators report them as numbers, so the order is fixed.
constexpr int VESK_TOOL_JSON_FALSE = 0;
constexpr int VESK_TOOL_JSON_TRUE = 1;
constexpr int VESK_TOOL_JSON_NULL = 2;
constexpr int VESK_TOOL_JSON_NUMBER = 3;
constexpr int VESK_TOOL_JSON_STRING = 4;
constexpr int VESK_TOOL_JSON_ARRAY = 5;
constexpr int VESK_TOOL_JSON_OBJECT = 6;
// Or-ed into `type`: the node owns neither its child list nor its valuestring.
constexpr int VESK_TOOL_JSON_IS_REFERENCE = 0x100;

constexpr uint32_t k_json_usr_id = 19;
constexpr uint32_t k_json_purpose = 0x3019;
// Containers nested deeper than this are refused by the parser, so that no text can exhaust
// a thread's stack (the recursion of parse, print and delete follows the nesting).
constexpr int k_json_max_depth = 256;

// One node; every type has every field. A fresh node is all zero: `false`, unlinked.
//
//   | next | prev | child | type (4) | valuestring | valuestring_len (4) | valueint (4) |
//   | valuedouble (8) | string |
//
// Packed to 4 bytes: nodes come from the little memory pool, whose grain is 4 bytes, and on
// the board this saves the 4 bytes of padding before valuedouble (40 bytes instead of 48).
#pragma pack(push, 4)
struct vesk_tool_JSON {
    vesk_tool_JSON* next; // next sibling, or NULL
    vesk_tool_JSON* prev; // previous sibling; NULL for the first child
    vesk_tool_JSON* child; // first child of an array or object
    int type; // VESK_TOOL_JSON_*, possibly with VESK_TOOL_JSON_IS_REFERENCE
    char* valuestring; // string value, NUL-terminated, owned
    int32_t valuestring_len; // bytes of valuestring without the NUL
    int32_t valueint; // number: valuedouble truncated towards zero; true: 1
    double valuedouble; // number value
    char* string; // key of an object member, owned; NULL otherwise
};
#pragma pack(pop)

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(vesk_tool_JSON) == 40, "JSON node is 40 bytes on the 32-bit target");
static_assert(offsetof(vesk_tool_JSON, type) == 12 && offsetof(vesk_tool_JSON, valuestring) == 16
        && offsetof(vesk_tool_JSON, valuestring_len) == 20 && offsetof(vesk_tool_JSON, valueint) == 24
        && offsetof(vesk_tool_JSON, valuedouble) == 28 && offsetof(vesk_tool_JSON, string) == 36,
    "JSON node offsets on the 32-bit target");
#else
static_assert(sizeof(vesk_tool_JSON) == 60, "JSON node is 60 bytes on a 64-bit host");
static_assert(offsetof(vesk_tool_JSON, type) == 24 && offsetof(vesk_tool_JSON, valuestring) == 28
        && offsetof(vesk_tool_JSON, valuestring_len) == 36 && offsetof(vesk_tool_JSON, valueint) == 40
        && offsetof(vesk_tool_JSON, valuedouble) == 44 && offsetof(vesk_tool_JSON, string) == 52,
    "JSON node offsets on a 64-bit host");
#endif

// ---- Parse, print, delete ------------------------------------------------------------------
//
// Not thread-safe: a tree is used by one thread at a time. The failure position is one
// module-wide pointer, reset by every parse.

// Parses one value. `return_parse_end` (optional) gets the end of the parsed text; with
// `require_null_terminated` only whitespace (bytes 1-32) may follow. NULL on failure, with
// nothing left allocated and the failure position set.
vesk_tool_JSON* vesk_tool_JSON_parse_with_opts(
    const char* value, const char** return_parse_end, int require_null_terminated);
vesk_tool_JSON* vesk_tool_JSON_parse(const char* value);
// Where the last parse stopped; NULL when it succeeded.
const char* vesk_tool_JSON_get_error_ptr();

// Deletes c, its subtree and every sibling after it. Detach a linked node first.
void vesk_tool_JSON_delete(vesk_tool_JSON* c);

// Characters the printer writes for item at depth 0, plus 1 for the NUL; 0 for NULL.
int vesk_tool_JSON_get_print_size(const vesk_tool_JSON* item, int fmt);
// Prints item into out; returns characters written plus 1 (1 when the buffer was refused,
// with an error logged; 0 for a NULL item or buffer). Never allocates, never writes past
// out_buf_size, always leaves a NUL-terminated text when it writes at all.
int vesk_tool_JSON_export(const vesk_tool_JSON* item, int fmt, char* out, int out_buf_size);

// ---- Navigation and editing ----------------------------------------------------------------
// Sizes and indexes are found by walking the child list: O(children).

int vesk_tool_JSON_get_array_size(const vesk_tool_JSON* array);
// Index-th child from 0 (a negative index gives the first child); NULL past the end.
vesk_tool_JSON* vesk_tool_JSON_get_array_item(const vesk_tool_JSON* array, int item);
// First child whose key equals `key` ignoring ASCII case.
vesk_tool_JSON* vesk_tool_JSON_get_object_item(const vesk_tool_JSON* object, const char* key);

void vesk_tool_JSON_add_item_to_array(vesk_tool_JSON* array, vesk_tool_JSON* item);
// Gives item a copy of `key` and appends it; duplicate keys are not looked for.
void vesk_tool_JSON_add_item_to_object(vesk_tool_JSON* object, const char* key, vesk_tool_JSON* item);

vesk_tool_JSON* vesk_tool_JSON_detach_item_from_array(vesk_tool_JSON* array, int which);
void vesk_tool_JSON_delete_item_from_array(vesk_tool_JSON* array, int which);
vesk_tool_JSON* vesk_tool_JSON_detach_item_from_object(vesk_tool_JSON* object, const char* key);
void vesk_tool_JSON_delete_item_from_object(vesk_tool_JSON* object, const char* key);

// Puts newitem in the place of the index-th child and deletes the old one; nothing happens
// past the end (newitem then stays the caller's).
void vesk_tool_JSON_replace_item_in_array(vesk_tool_JSON* array, int which, vesk_tool_JSON* newitem);
void vesk_tool_JSON_replace_item_in_object(vesk_tool_JSON* object, const char* key, vesk_tool_JSON* newitem);

vesk_tool_JSON* vesk_tool_JSON_create_null();
vesk_tool_JSON* vesk_tool_JSON_create_bool(int b);
vesk_tool_JSON* vesk_tool_JSON_create_number(double num);
// NULL for a NULL text or when memory is short.
vesk_tool_JSON* vesk_tool_JSON_create_string(const char* text);
vesk_tool_JSON* vesk_tool_JSON_create_array();
vesk_tool_JSON* vesk_tool_JSON_create_object();

// ---- Helpers shared with the operators -------------------------------------------------------

// The node's text replaced by a copy of `text` (the old one freed): false when memory is short,
// the node then unchanged.
bool vesk_tool_JSON_set_string(vesk_tool_JSON* item, const char* text);
// Frees the text and deletes the children: the node keeps its key, links and type.
void vesk_tool_JSON_clear_value(vesk_tool_JSON* item);
// The conversion of a double to valueint: truncation, saturated at the int32 bounds, NaN 0
// (what the board's floating-point unit does; in C++ an out-of-range cast is undefined).
int32_t vesk_tool_JSON_to_int(double d);
// Nodes and owned bytes (nodes, texts and keys) of a tree, siblings of the root excluded.
void vesk_tool_JSON_measure(const vesk_tool_JSON* item, unsigned& nodes, unsigned& bytes);

} // namespace vesk_utility

#endif // VESK_TOOL_JSON_H
