// vesk_utility_json.h - JSON documents for the firmware's modules: an operator addressed by
// chains of member names (vesk_json_operate) and one addressed by key-path texts such as
// "chn[%d].osd.title" (vesk_json_operate_V2).
#ifndef VESK_UTILITY_JSON_H
#define VESK_UTILITY_JSON_H

#include <cstdint>

#include "vesk_utility_types.h"

namespace vesk_soft
{

// A JSON document addressed by member names, outermost first.
//
// Thread safety: every operation runs entirely under the object's own named lock, so one
// object may be shared between threads. The addresses returned by the *_addr operations point
// into the document and stay valid only until that member is next changed.
//
// Documents: a failed load() leaves no document, and every later operation then does nothing
// (reads VESK_ERR_FAIL, sizes 0) until a load() succeeds. Strings are stored and printed
// verbatim: nothing is escaped on output.
//
// Keys forms take one to four member names; the adds create missing outer members as empty
// objects and then APPEND the target member without looking for an existing one: adding a key
// twice leaves two members, and reads find the first (older). Keys are compared ignoring ASCII
// case.
//
// Levels forms take five (member name or NULL, array index or negative) pairs walked in turn;
// a pair (NULL, negative) ends the walk. Writing creates missing members as empty objects and
// turns an indexed node into an array padded with empty objects up to the index; the addressed
// node is then overwritten in place.
//
// Reads: VESK_OK, or VESK_ERR_FAIL when there is no document, the member is missing or of
// another type. Integer reads accept true (1), false (0) and numbers (integer part).
class vesk_json_operate
{
public:
    // Replaces the document by the parse of text: VESK_OK, or VESK_ERR_FAIL (no document).
    virtual VESK_ERR load(const char* text) = 0;
    // Formatted (tabs, newlines) and compact prints. Return the characters written plus 1; 1
    // when buf_size is too small (nothing written, logged); 0 without a document.
    virtual int print_copy(char* buf, int buf_size) = 0;
    virtual int print_copy_unformate(char* buf, int buf_size) = 0;
    // The buffer size the prints need (length plus the NUL); 0 without a document.
    virtual int get_print_copy_size() = 0;
    virtual int get_print_copy_unformate_size() = 0;

    virtual VESK_ERR add_item_int(const char* key, int value) = 0;
    virtual VESK_ERR add_item_int(const char* key1, const char* key2, int value) = 0;
    virtual VESK_ERR add_item_int(const char* key1, const char* key2, const char* key3, int value) = 0;
    virtual VESK_ERR add_item_int(const char* key1, const char* key2, const char* key3, const char* key4, int value)
        = 0;
    virtual VESK_ERR add_item_double(const char* key, double value) = 0;
    virtual VESK_ERR add_item_double(const char* key1, const char* key2, double value) = 0;
    virtual VESK_ERR add_item_string(const char* key, const char* value) = 0;
    virtual VESK_ERR add_item_string(const char* key1, const char* key2, const char* value) = 0;
    virtual VESK_ERR add_item_string(const char* key1, const char* key2, const char* key3, const char* value) = 0;
    virtual VESK_ERR add_item_string(
        const char* key1, const char* key2, const char* key3, const char* key4, const char* value)
        = 0;

    // Deletes the first member of that name; outer keys are only looked up.
    virtual VESK_ERR delete_item(const char* key) = 0;
    virtual VESK_ERR delete_item(const char* key1, const char* key2) = 0;
    virtual VESK_ERR delete_item(const char* key1, const char* key2, const char* key3) = 0;
    virtual VESK_ERR delete_item(const char* key1, const char* key2, const char* key3, const char* key4) = 0;

    // The integer part of a number (through 64 bits, low 32 kept), 1 for true, 0 for false.
    virtual VESK_ERR try_get_item_int(const char* key, int& value) = 0;
    virtual VESK_ERR try_get_item_int(const char* key1, const char* key2, int& value) = 0;
    virtual VESK_ERR try_get_item_int(const char* key1, const char* key2, const char* key3, int& value) = 0;
    virtual VESK_ERR try_get_item_int(
        const char* key1, const char* key2, const char* key3, const char* key4, int& value)
        = 0;
    virtual VESK_ERR try_get_item_double(const char* key, double& value) = 0;
    virtual VESK_ERR try_get_item_double(const char* key1, const char* key2, double& value) = 0;

    // Copies a string member into buf, cut to buf_size - 1 characters.
    virtual VESK_ERR get_item_string_copy(const char* key, char* buf, int buf_size) = 0;
    virtual VESK_ERR get_item_string_copy(const char* key1, const char* key2, char* buf, int buf_size) = 0;
    virtual VESK_ERR get_item_string_copy(const char* key1, const char* key2, const char* key3, char* buf, int buf_size)
        = 0;
    virtual VESK_ERR get_item_string_copy(
        const char* key1, const char* key2, const char* key3, const char* key4, char* buf, int buf_size)
        = 0;
    // The stored text of a string member and its length in bytes; NULL when absent.
    virtual const char* get_item_string_addr(const char* key, int& len) = 0;

    // Number of children of the member (0 when absent).
    virtual int get_item_arrysize(const char* key) = 0;
    virtual int get_item_arrysize(const char* key1, const char* key2) = 0;
    virtual int get_item_arrysize(const char* key1, const char* key2, const char* key3) = 0;
    virtual int get_item_arrysize(const char* key1, const char* key2, const char* key3, const char* key4) = 0;

    // Members of the elements of an array member: the keys lead to the array, idx picks the
    // element, key names the member inside it. The adds pad the array with empty objects up to
    // idx and append the member to the element.
    virtual VESK_ERR get_item_arry_item_int(const char* array_key, int idx, const char* key, int& value) = 0;
    virtual VESK_ERR get_item_arry_item_int(
        const char* key1, const char* array_key, int idx, const char* key, int& value)
        = 0;
    virtual VESK_ERR add_item_arry_item_int(const char* array_key, int idx, const char* key, int value) = 0;
    virtual VESK_ERR add_item_arry_item_int(
        const char* key1, const char* array_key, int idx, const char* key, int value)
        = 0;
    virtual VESK_ERR get_item_arry_item_string(const char* array_key, int idx, const char* key, const char*& value) = 0;
    virtual VESK_ERR get_item_arry_item_string(
        const char* key1, const char* array_key, int idx, const char* key, const char*& value)
        = 0;
    virtual VESK_ERR get_item_arry_item_string_copy(
        const char* array_key, int idx, const char* key, char* buf, int buf_size)
        = 0;
    virtual VESK_ERR get_item_arry_item_string_copy(
        const char* key1, const char* array_key, int idx, const char* key, char* buf, int buf_size)
        = 0;
    virtual VESK_ERR add_item_arry_item_string(const char* array_key, int idx, const char* key, const char* value) = 0;

    // Levels forms. The adds make the addressed node exist and overwrite it: VESK_OK, or
    // VESK_ERR_FAIL when it could not be made (a member step into a non-object, an index step
    // into an object that has members, memory short). The integer read accepts numbers only.
    virtual VESK_ERR add_item_int(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5, int value)
        = 0;
    virtual VESK_ERR try_get_item_int(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
        int idx3, const char* key4, int idx4, const char* key5, int idx5, int& value)
        = 0;
    virtual VESK_ERR add_item_str(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5, const char* value)
        = 0;
    virtual const char* get_item_str_addr(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
        int idx3, const char* key4, int idx4, const char* key5, int idx5, int& len)
        = 0;
    virtual VESK_ERR get_item_str_copy(const char* key1, int idx1, const char* key2, int idx2, const char* key3,
        int idx3, const char* key4, int idx4, const char* key5, int idx5, char* buf, int buf_size)
        = 0;
    // Elements of the addressed array; 0 when it is absent or not an array.
    virtual int get_item_arrysize(const char* key1, int idx1, const char* key2, int idx2, const char* key3, int idx3,
        const char* key4, int idx4, const char* key5, int idx5)
        = 0;

    virtual ~vesk_json_operate() { }

protected:
    vesk_json_operate() = default;
    vesk_json_operate(const vesk_json_operate&) = delete;
    vesk_json_operate& operator=(const vesk_json_operate&) = delete;
};

// A JSON document addressed by key paths.
//
// Path grammar: a member name starts with a letter and runs to the next '.' or '['; '.' is
// followed by a member name; '[' by a decimal index or by "%d]", which takes the next int
// argument after the operation's own arguments (one per "%d", in order); ']' is followed by
// '.', '[' or the end. At most 32 steps. "a.b[2].c", "list[%d][%d]". A path that does not
// parse is logged and counts as not found.
//
// Writes (execSet*) create what is missing: members as empty objects or arrays according to
// the step that follows, arrays padded with empty objects or arrays up to the index; the final
// write into an array pads with nulls. An existing target is replaced in place, keeping its
// key and position. A path that runs through a scalar value ends the process: that is a
// programming error of the caller. Writing more than 1024 elements past the end of an array
// is refused (logged), so that a stray index cannot exhaust the memory.
//
// Reads: VESK_OK; VESK_ERR_INVALID_PARAM without a document or path; VESK_ERR_OPERATE_FAIL
// when not found. A number or bool read of a member of another type logs the type and returns
// VESK_OK WITHOUT writing the output: initialise it beforehand.
//
// Thread safety: as vesk_json_operate. A failed loadData() leaves no document (every
// operation does nothing) until loadData() or clearData() succeeds.
//
// Values narrower than int travel as int through the variable arguments: the 8- and 16-bit
// setters take an int and keep its low bits.
class vesk_json_operate_V2
{
public:
    virtual VESK_ERR loadData(const char* text) = 0;
    // An empty object as the document: VESK_OK, or VESK_ERR_NO_RESOURCE (no document).
    virtual VESK_ERR clearData() = 0;

    virtual void execSetS8Int(const char* key_pos, int value, ...) = 0;
    virtual void execSetS16Int(const char* key_pos, int value, ...) = 0;
    virtual void execSetInt(const char* key_pos, int32_t value, ...) = 0;
    virtual void execSetLong(const char* key_pos, long value, ...) = 0;
    virtual void execSetLongLongInt(const char* key_pos, long long value, ...) = 0;
    virtual void execSetDouble(const char* key_pos, double value, ...) = 0;
    virtual void execSetStr(const char* key_pos, const char* value, ...) = 0;
    // Any non-zero is true.
    virtual void execSetBool(const char* key_pos, VESK_BOOL value, ...) = 0;

    // Integer reads give the stored integer narrowed to the output's width; the 64-bit read
    // gives the whole stored value (up to 2^53 exactly).
    virtual VESK_ERR execTryGetS8Int(const char* key_pos, int8_t* value, ...) = 0;
    virtual VESK_ERR execTryGetS16Int(const char* key_pos, int16_t* value, ...) = 0;
    virtual VESK_ERR execTryGetInt(const char* key_pos, int32_t* value, ...) = 0;
    virtual VESK_ERR execTryGetLong(const char* key_pos, long* value, ...) = 0;
    virtual VESK_ERR execTryGetLongLongInt(const char* key_pos, long long* value, ...) = 0;
    virtual VESK_ERR execTryGetDouble(const char* key_pos, double* value, ...) = 0;
    // Copies a string member cut to buf_size - 1 characters; VESK_ERR_OPERATE_FAIL for another
    // type. execGetStr empties the buffer first.
    virtual VESK_ERR execTryGetStr(const char* key_pos, char* data_buf, unsigned buf_size, ...) = 0;
    virtual VESK_ERR execTryGetBool(const char* key_pos, VESK_BOOL* value, ...) = 0;
    virtual VESK_ERR execGetStr(const char* key_pos, char* data_buf, unsigned buf_size, ...) = 0;
    // The stored text and its length in bytes; NULL when missing or not a string.
    virtual const char* execGetStr_addr(const char* key_pos, int* str_len, ...) = 0;
    // Elements of an array member; 0 when missing or not an array.
    virtual int execGetArraysize(const char* key_pos, ...) = 0;
    virtual void execDelete(const char* key_pos, ...) = 0;

    // Compact print: the buffer size it needs (length plus NUL), and the print itself, which
    // returns the characters written plus 1 (1 when buf_size is too small; 0 without document).
    virtual int getContentSize() = 0;
    virtual int exportContent(char* buf, unsigned buf_size) = 0;

    virtual ~vesk_json_operate_V2() { }

protected:
    vesk_json_operate_V2() = default;
    vesk_json_operate_V2(const vesk_json_operate_V2&) = delete;
    vesk_json_operate_V2& operator=(const vesk_json_operate_V2&) = delete;
};

// New documents from an initial text (NULL, or a text that does not parse: an empty object),
// recorded with the creator's id and name (diagnose command 8 of the resource manager lists
// them with their sizes). NULL before vesk_utility_init or when memory is short.
VESK_API vesk_json_operate* vesk_utility_new_json_operate(const char* text, vesk_user_id usr_id, const char* name);
VESK_API vesk_json_operate_V2* vesk_utility_new_json_operate_V2(
    const char* text, vesk_user_id usr_id, const char* name);
// Unregister and destroy: 0; VESK_ERR_NOT_INIT before init; VESK_ERR_INVALID_PARAM for NULL.
// An object that was not made by the matching new (or was already deleted) ends the process.
VESK_API VESK_ERR vesk_utility_delete_json_operate(vesk_json_operate* json, const char* file, const char* func);
VESK_API VESK_ERR vesk_utility_delete_json_operate_V2(vesk_json_operate_V2* json, const char* file, const char* func);

} // namespace vesk_soft

#endif // VESK_UTILITY_JSON_H
