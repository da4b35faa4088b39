// vesk_tool_json - the JSON value tree: parser, printer and node operations. Strings keep their
// byte length and are printed verbatim (no escaping); printing goes into the caller's buffer
// after checking that the whole value fits, with the length function as the caller's guide.
#include "store/json/vesk_utility_json_tree.h"

#include <cctype>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_pool.h"
#include "core/vesk_utility_ground.h"

namespace vesk_utility
{

namespace
{

constexpr const char* k_free_file = "toolfonts/vesk_tool_json";
constexpr const char* k_free_func = "vesk_tool_JSON_free";

// Where the last parse of this thread stopped. Nothing in the layer reads it; per thread so
// that parses of independent documents do not race on it.
thread_local const char* s_ep = nullptr;

// ---- Memory --------------------------------------------------------------------------------

vesk_tool_JSON* new_item()
{
    void* p = vesk_malloc(k_json_usr_id, k_json_purpose, sizeof(vesk_tool_JSON), vesk_obj_align<vesk_tool_JSON>());
    if (p != nullptr)
        memset(p, 0, sizeof(vesk_tool_JSON));
    return static_cast<vesk_tool_JSON*>(p);
}

void json_free(const void* p)
{
    vesk_free(k_free_file, k_free_func, p);
}

// A copy of s from the string pool (the heap before the pools exist); *len gets its length.
char* json_strdup(const char* s, int32_t* len)
{
    utility_string_pool* pool = vesk_ground::instance()->string_pool_if_built();
    if (pool != nullptr) {
        unsigned n = 0;
        char* copy = pool->strdup(k_json_usr_id, k_json_purpose, s, UINT_MAX, &n);
        if (copy != nullptr && len != nullptr)
            *len = static_cast<int32_t>(n);
        return copy;
    }
    const size_t n = strlen(s);
    char* copy = static_cast<char*>(vesk_malloc(k_json_usr_id, k_json_purpose, static_cast<unsigned>(n + 1), 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, s, n + 1);
    if (len != nullptr)
        *len = static_cast<int32_t>(n);
    return copy;
}

// ASCII case-insensitive strcmp; an absent s1 equals only an absent s2.
int json_strcasecmp(const char* s1, const char* s2)
{
    if (s1 == nullptr)
        return s1 == s2 ? 0 : 1;
    if (s2 == nullptr)
        return 1;
    for (; tolower(static_cast<unsigned char>(*s1)) == tolower(static_cast<unsigned char>(*s2)); ++s1, ++s2) {
        if (*s1 == '\0')
            return 0;
    }
    return tolower(static_cast<unsigned char>(*s1)) - tolower(static_cast<unsigned char>(*s2));
}

// ---- Parser --------------------------------------------------------------------------------
//
// Every step reads at most up to the text's NUL; inside a string, up to its closing quote.
// Containers recurse, up to k_json_max_depth levels.

const char* skip(const char* in)
{
    while (in != nullptr && *in != '\0' && static_cast<unsigned char>(*in) <= 32)
        in++;
    return in;
}

// The value sscanf(p, "%4x", &v) stores, without the C library's pass over the whole rest of
// the text, and never reading at or past `end`: leading white space, then at most four
// characters of sign, "0x" prefix and hex digits. 0 when nothing converts.
unsigned hex_code(const char* p, const char* end)
{
    while (p < end && isspace(static_cast<unsigned char>(*p)))
        p++;
    int width = 4;
    bool negative = false;
    if (p < end && (*p == '+' || *p == '-')) {
        negative = *p == '-';
        p++;
        width--;
    }
    unsigned v = 0;
    bool any = false;
    if (width > 0 && p < end && *p == '0') {
        // "0x" is a prefix only when it fits the field; the 0 alone converts.
        any = true;
        p++;
        width--;
        if (width > 0 && p < end && (*p == 'x' || *p == 'X')) {
            p++;
            width--;
        }
    }
    for (; width > 0 && p < end && isxdigit(static_cast<unsigned char>(*p)); p++, width--) {
        const int c = static_cast<unsigned char>(*p);
        v = v * 16 + static_cast<unsigned>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
        any = true;
    }
    if (!any)
        return 0;
    return negative ? 0u - v : v;
}

// Steps over at most n bytes, stopping at `end`.
const char* advance(const char* p, int n, const char* end)
{
    while (n-- > 0 && p < end)
        p++;
    return p;
}

const char* parse_value(vesk_tool_JSON* item, const char* value, int depth);

const char* parse_number(vesk_tool_JSON* item, const char* num)
{
    double n = 0, sign = 1;
    int scale = 0;
    long long subscale = 0;
    int signsubscale = 1;

    if (*num == '-') {
        sign = -1;
        num++;
    }
    if (*num == '0') {
        num++;
    } else if (*num >= '1' && *num <= '9') {
        do
            n = (n * 10.0) + (*num++ - '0');
        while (*num >= '0' && *num <= '9');
    }
    if (*num == '.' && num[1] >= '0' && num[1] <= '9') {
        num++;
        do {
            n = (n * 10.0) + (*num++ - '0');
            scale--;
        } while (*num >= '0' && *num <= '9');
    }
    if ((*num & ~0x20) == 'E') {
        num++;
        if (*num == '+') {
            num++;
        } else if (*num == '-') {
            signsubscale = -1;
            num++;
        }
        // Capped: past 10^9 the power is 0 or infinite anyway, and the sum must not overflow.
        while (*num >= '0' && *num <= '9') {
            if (subscale < 1000000000)
                subscale = (subscale * 10) + (*num - '0');
            num++;
        }
    }
    n = sign * n * pow(10.0, static_cast<double>(scale + subscale * signsubscale));
    item->valuedouble = n;
    item->valueint = vesk_tool_JSON_to_int(n);
    item->type = VESK_TOOL_JSON_NUMBER;
    return num;
}

// Writes code point uc as UTF-8 (1 to 4 bytes); returns the bytes written.
int utf8_len(unsigned uc)
{
    return uc < 0x80 ? 1 : uc < 0x800 ? 2 : uc < 0x10000 ? 3 : 4;
}

int put_utf8(char* out, unsigned uc)
{
    static const unsigned char k_first_byte_mark[5] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
    const int len = utf8_len(uc);
    char* p = out + len;
    switch (len) {
    case 4:
        *--p = static_cast<char>((uc | 0x80) & 0xBF);
        uc >>= 6;
        [[fallthrough]];
    case 3:
        *--p = static_cast<char>((uc | 0x80) & 0xBF);
        uc >>= 6;
        [[fallthrough]];
    case 2:
        *--p = static_cast<char>((uc | 0x80) & 0xBF);
        uc >>= 6;
        [[fallthrough]];
    case 1:
        *--p = static_cast<char>((uc | k_first_byte_mark[len]) & 0xFF);
        break;
    }
    return len;
}

const char* parse_string(vesk_tool_JSON* item, const char* str)
{
    if (*str != '\"') {
        s_ep = str;
        return nullptr;
    }
    // Room: every byte up to the closing quote (or the NUL), an escape counting once for its
    // two bytes. Decoding never reads past that end, so an escape cut short by the closing
    // quote ends there instead of running into the rest of the document.
    const char* end = str + 1;
    unsigned len = 0;
    while (*end != '\"' && *end != '\0') {
        len++;
        if (*end++ == '\\' && *end != '\0')
            end++;
    }
    char* out = static_cast<char*>(vesk_malloc(k_json_usr_id, k_json_purpose, len + 1, 1));
    if (out == nullptr)
        return nullptr;
    char* const out_end = out + len;

    const char* ptr = str + 1;
    char* ptr2 = out;
    while (ptr < end) {
        if (*ptr != '\\') {
            *ptr2++ = *ptr++;
            continue;
        }
        ptr++;
        if (ptr == end)
            break; // a backslash just before the end of the text
        switch (*ptr) {
        case 'b':
            *ptr2++ = '\b';
            break;
        case 'f':
            *ptr2++ = '\f';
            break;
        case 'n':
            *ptr2++ = '\n';
            break;
        case 'r':
            *ptr2++ = '\r';
            break;
        case 't':
            *ptr2++ = '\t';
            break;
        case 'u': {
            // Leaves ptr on the last byte of the escape; the step below goes past it.
            unsigned uc = hex_code(ptr + 1, end);
            ptr = advance(ptr, 4, end);
            if ((uc >= 0xDC00 && uc <= 0xDFFF) || uc == 0)
                break; // a lone low surrogate or a NUL: dropped
            if (uc >= 0xD800 && uc <= 0xDBFF) {
                if (end - ptr < 3 || ptr[1] != '\\' || ptr[2] != 'u')
                    break; // high surrogate without its second half: dropped
                const unsigned uc2 = hex_code(ptr + 3, end);
                ptr = advance(ptr, 6, end);
                if (uc2 < 0xDC00 || uc2 > 0xDFFF)
                    break; // second half not a low surrogate: both dropped
                uc = 0x10000 + (((uc & 0x3FF) << 10) | (uc2 & 0x3FF));
            }
            // Only a signed scan ("\u-1") can want more bytes than its escape spans.
            if (utf8_len(uc) <= out_end - ptr2)
                ptr2 += put_utf8(ptr2, uc);
            break;
        }
        default:
            *ptr2++ = *ptr; // quote, backslash, slash and unknown escapes stand for themselves
            break;
        }
        if (ptr < end)
            ptr++;
    }
    *ptr2 = '\0';
    ptr = end;
    if (*ptr == '\"')
        ptr++;
    item->valuestring = out;
    item->valuestring_len = static_cast<int32_t>(ptr2 - out);
    item->type = VESK_TOOL_JSON_STRING;
    return ptr;
}

// The children of a container, from its opening bracket to `close`: parse_one reads one child
// into a fresh node and returns the text after it with its whitespace skipped.
template <char close, const char* (*parse_one)(vesk_tool_JSON*, const char*, int)>
const char* parse_children(vesk_tool_JSON* item, const char* value, int depth)
{
    value = skip(value + 1);
    if (*value == close)
        return value + 1;

    vesk_tool_JSON* child = new_item();
    item->child = child;
    if (child == nullptr)
        return nullptr;
    value = parse_one(child, value, depth);
    if (value == nullptr)
        return nullptr;
    while (*value == ',') {
        vesk_tool_JSON* new_child = new_item();
        if (new_child == nullptr)
            return nullptr;
        child->next = new_child;
        new_child->prev = child;
        child = new_child;
        value = parse_one(child, value + 1, depth);
        if (value == nullptr)
            return nullptr;
    }
    if (*value == close)
        return value + 1;
    s_ep = value;
    return nullptr;
}

// One array element into child.
const char* parse_element(vesk_tool_JSON* child, const char* value, int depth)
{
    return skip(parse_value(child, skip(value), depth));
}

// One "key": value member into child.
const char* parse_member(vesk_tool_JSON* child, const char* value, int depth)
{
    value = skip(parse_string(child, skip(value)));
    if (value == nullptr)
        return nullptr;
    child->string = child->valuestring;
    child->valuestring = nullptr;
    child->valuestring_len = 0;
    if (*value != ':') {
        s_ep = value;
        return nullptr;
    }
    return skip(parse_value(child, skip(value + 1), depth));
}

const char* parse_array(vesk_tool_JSON* item, const char* value, int depth)
{
    item->type = VESK_TOOL_JSON_ARRAY;
    return parse_children<']', parse_element>(item, value, depth);
}

const char* parse_object(vesk_tool_JSON* item, const char* value, int depth)
{
    item->type = VESK_TOOL_JSON_OBJECT;
    return parse_children<'}', parse_member>(item, value, depth);
}

const char* parse_value(vesk_tool_JSON* item, const char* value, int depth)
{
    if (value == nullptr)
        return nullptr;
    if (strncmp(value, "null", 4) == 0) {
        item->type = VESK_TOOL_JSON_NULL;
        return value + 4;
    }
    if (strncmp(value, "false", 5) == 0) {
        item->type = VESK_TOOL_JSON_FALSE;
        return value + 5;
    }
    if (strncmp(value, "true", 4) == 0) {
        item->type = VESK_TOOL_JSON_TRUE;
        item->valueint = 1;
        return value + 4;
    }
    if (*value == '\"')
        return parse_string(item, value);
    if (*value == '-' || (*value >= '0' && *value <= '9'))
        return parse_number(item, value);
    if ((*value == '[' || *value == '{') && depth >= k_json_max_depth) {
        s_ep = value;
        return nullptr;
    }
    if (*value == '[')
        return parse_array(item, value, depth + 1);
    if (*value == '{')
        return parse_object(item, value, depth + 1);
    s_ep = value;
    return nullptr;
}

// ---- Length and printer --------------------------------------------------------------------
//
// json_len() and the export_*() functions follow the same layout byte for byte; the fuzz
// target checks that what is printed is exactly what was measured.

// What snprintf("%d") writes, without the formatter: most numbers of a configuration are
// integers, and every number is formatted twice (measured, then printed).
int format_int(int32_t v, char* str)
{
    char tmp[12];
    uint32_t u = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
    int n = 0;
    do {
        tmp[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    int len = 0;
    if (v < 0)
        str[len++] = '-';
    while (n > 0)
        str[len++] = tmp[--n];
    str[len] = '\0';
    return len;
}

int format_number(const vesk_tool_JSON* item, char (&str)[64])
{
    const double d = item->valuedouble;
    if (fabs(static_cast<double>(item->valueint) - d) <= DBL_EPSILON && d <= INT_MAX && d >= INT_MIN)
        return format_int(item->valueint, str);  // the "%d" case (21 characters of room)
    if (fabs(floor(d) - d) <= DBL_EPSILON && fabs(d) < 1.0e60)
        return snprintf(str, sizeof(str), "%.0f", d);
    if (fabs(d) < 1.0e-6 || fabs(d) > 1.0e9)
        return snprintf(str, sizeof(str), "%e", d);
    return snprintf(str, sizeof(str), "%f", d);
}

int key_len(const vesk_tool_JSON* item)
{
    return item->string != nullptr ? static_cast<int>(strlen(item->string)) : 0;
}

int string_len(const vesk_tool_JSON* item)
{
    return item->valuestring != nullptr ? item->valuestring_len + 2 : 0;
}

int json_len(const vesk_tool_JSON* item, int depth, bool fmt)
{
    switch (item->type & 0xFF) {
    case VESK_TOOL_JSON_FALSE:
        return 5;
    case VESK_TOOL_JSON_TRUE:
    case VESK_TOOL_JSON_NULL:
        return 4;
    case VESK_TOOL_JSON_NUMBER: {
        char str[64];
        return format_number(item, str);
    }
    case VESK_TOOL_JSON_STRING:
        return string_len(item);
    case VESK_TOOL_JSON_ARRAY: {
        const vesk_tool_JSON* child = item->child;
        if (child == nullptr)
            return 2;
        int len = 2;
        for (; child != nullptr; child = child->next) {
            len += json_len(child, depth + 1, fmt);
            if (child->next != nullptr)
                len += fmt ? 2 : 1;
        }
        return len;
    }
    case VESK_TOOL_JSON_OBJECT: {
        const vesk_tool_JSON* child = item->child;
        if (child == nullptr)
            return fmt ? 3 + (depth > 0 ? depth - 1 : 0) : 2;
        int len = fmt ? 2 + depth + 1 : 2; // { and newline; closing tabs and }
        for (; child != nullptr; child = child->next) {
            len += key_len(child) + 3 + json_len(child, depth + 1, fmt); // "key":value
            if (fmt)
                len += depth + 1 + 2; // tabs, tab after the colon, newline
            if (child->next != nullptr)
                len++;
        }
        return len;
    }
    default:
        return 0;
    }
}

// Every export_* writes its value and a NUL and returns the characters written before the
// NUL, or 0 when the buffer was refused (logged). `checked` says that an enclosing container
// has already found room for the whole of this value: the container's own check covers every
// nested one (each nested value is followed at least by its container's closing bracket), so
// the nested checks are skipped and printing stays linear in the size of the tree.
int export_value(const vesk_tool_JSON* item, int depth, bool fmt, char* out, int out_buf_size, bool checked);

int export_literal(const char* text, int len, char* out, int out_buf_size)
{
    if (out_buf_size <= len) {
        VESK_ERR_FN("out_buf_size = %d\n", out_buf_size);
        return 0;
    }
    memcpy(out, text, static_cast<size_t>(len) + 1);
    return len;
}

int export_number(const vesk_tool_JSON* item, char* out, int out_buf_size)
{
    char str[64];
    const int len = format_number(item, str);
    if (out_buf_size <= len) {
        VESK_ERR_FN("out_buf_size = %d\n", out_buf_size);
        return 0;
    }
    memcpy(out, str, static_cast<size_t>(len) + 1);
    return len;
}

int export_string(const vesk_tool_JSON* item, char* out, int out_buf_size)
{
    if (item->valuestring == nullptr) {
        out[0] = '\0';
        return 0;
    }
    // One byte stricter than the two quotes and the NUL need: kept as callers know it.
    if (item->valuestring_len + 3 >= out_buf_size) {
        VESK_ERR_FN("item->valuestring_len = %d, out_buf_size = %d\n", item->valuestring_len, out_buf_size);
        return 0;
    }
    out[0] = '\"';
    memcpy(out + 1, item->valuestring, static_cast<size_t>(item->valuestring_len));
    out[item->valuestring_len + 1] = '\"';
    out[item->valuestring_len + 2] = '\0';
    return item->valuestring_len + 2;
}

int export_array(const vesk_tool_JSON* item, int depth, bool fmt, char* out, int out_buf_size, bool checked)
{
    const vesk_tool_JSON* child = item->child;
    if (child == nullptr)
        return export_literal("[]", 2, out, out_buf_size);
    if (!checked) {
        const int need_len = json_len(item, depth, fmt) + 1;
        if (out_buf_size < need_len) {
            VESK_ERR_FN("out_buf_size = %d, need_len = %d\n", out_buf_size, need_len);
            return 0;
        }
    }
    int n = 0;
    out[n++] = '[';
    for (; child != nullptr; child = child->next) {
        const int w = export_value(child, depth + 1, fmt, out + n, out_buf_size - n, true);
        if (w == 0 && json_len(child, depth + 1, fmt) != 0)
            return 0;
        n += w;
        if (child->next != nullptr) {
            out[n++] = ',';
            if (fmt)
                out[n++] = ' ';
        }
    }
    out[n++] = ']';
    out[n] = '\0';
    return n;
}

int export_object(const vesk_tool_JSON* item, int depth, bool fmt, char* out, int out_buf_size, bool checked)
{
    if (!checked) {
        const int need_len = json_len(item, depth, fmt) + 1;
        if (out_buf_size < need_len) {
            VESK_ERR_FN("need_len = %d, out_buf_size = %d\n", need_len, out_buf_size);
            return 0;
        }
    }
    int n = 0;
    const vesk_tool_JSON* child = item->child;
    out[n++] = '{';
    if (child == nullptr) {
        if (fmt) {
            out[n++] = '\n';
            for (int i = 0; i < depth - 1; i++)
                out[n++] = '\t';
        }
        out[n++] = '}';
        out[n] = '\0';
        return n;
    }
    if (fmt)
        out[n++] = '\n';
    for (; child != nullptr; child = child->next) {
        if (fmt) {
            memset(out + n, '\t', static_cast<size_t>(depth + 1));
            n += depth + 1;
        }
        const int klen = key_len(child);
        out[n++] = '\"';
        if (klen > 0)
            memcpy(out + n, child->string, static_cast<size_t>(klen));
        n += klen;
        out[n++] = '\"';
        out[n++] = ':';
        if (fmt)
            out[n++] = '\t';
        const int w = export_value(child, depth + 1, fmt, out + n, out_buf_size - n, true);
        if (w == 0 && json_len(child, depth + 1, fmt) != 0)
            return 0;
        n += w;
        if (child->next != nullptr)
            out[n++] = ',';
        if (fmt)
            out[n++] = '\n';
    }
    if (fmt) {
        memset(out + n, '\t', static_cast<size_t>(depth));
        n += depth;
    }
    out[n++] = '}';
    out[n] = '\0';
    return n;
}

int export_value(const vesk_tool_JSON* item, int depth, bool fmt, char* out, int out_buf_size, bool checked)
{
    if (out_buf_size <= 0) {
        VESK_ERR_FN("out_buf_size = %d\n", out_buf_size);
        return 0;
    }
    switch (item->type & 0xFF) {
    case VESK_TOOL_JSON_FALSE:
        return export_literal("false", 5, out, out_buf_size);
    case VESK_TOOL_JSON_TRUE:
        return export_literal("true", 4, out, out_buf_size);
    case VESK_TOOL_JSON_NULL:
        return export_literal("null", 4, out, out_buf_size);
    case VESK_TOOL_JSON_NUMBER:
        return export_number(item, out, out_buf_size);
    case VESK_TOOL_JSON_STRING:
        return export_string(item, out, out_buf_size);
    case VESK_TOOL_JSON_ARRAY:
        return export_array(item, depth, fmt, out, out_buf_size, checked);
    case VESK_TOOL_JSON_OBJECT:
        return export_object(item, depth, fmt, out, out_buf_size, checked);
    default:
        out[0] = '\0';
        return 0;
    }
}

// ---- List surgery --------------------------------------------------------------------------

void suffix_object(vesk_tool_JSON* prev, vesk_tool_JSON* item)
{
    prev->next = item;
    item->prev = prev;
}

void replace_child(vesk_tool_JSON* parent, vesk_tool_JSON* old_item, vesk_tool_JSON* newitem)
{
    newitem->next = old_item->next;
    newitem->prev = old_item->prev;
    if (newitem->next != nullptr)
        newitem->next->prev = newitem;
    if (old_item == parent->child)
        parent->child = newitem;
    else
        newitem->prev->next = newitem;
    old_item->next = nullptr;
    old_item->prev = nullptr;
    vesk_tool_JSON_delete(old_item);
}

} // namespace

// ---- Public operations ---------------------------------------------------------------------

int32_t vesk_tool_JSON_to_int(double d)
{
    if (std::isnan(d))
        return 0;
    if (d >= 2147483647.0)
        return INT32_MAX;
    if (d <= -2147483648.0)
        return INT32_MIN;
    return static_cast<int32_t>(d);
}

vesk_tool_JSON* vesk_tool_JSON_parse_with_opts(
    const char* value, const char** return_parse_end, int require_null_terminated)
{
    s_ep = nullptr;
    if (value == nullptr)
        return nullptr;
    vesk_tool_JSON* c = new_item();
    if (c == nullptr)
        return nullptr;
    const char* end = parse_value(c, skip(value), 0);
    if (end == nullptr) {
        vesk_tool_JSON_delete(c);
        return nullptr;
    }
    if (require_null_terminated) {
        end = skip(end);
        if (*end != '\0') {
            vesk_tool_JSON_delete(c);
            s_ep = end;
            return nullptr;
        }
    }
    if (return_parse_end != nullptr)
        *return_parse_end = end;
    return c;
}

vesk_tool_JSON* vesk_tool_JSON_parse(const char* value)
{
    return vesk_tool_JSON_parse_with_opts(value, nullptr, 0);
}

const char* vesk_tool_JSON_get_error_ptr()
{
    return s_ep;
}

void vesk_tool_JSON_delete(vesk_tool_JSON* c)
{
    while (c != nullptr) {
        vesk_tool_JSON* next = c->next;
        if (!(c->type & VESK_TOOL_JSON_IS_REFERENCE)) {
            if (c->child != nullptr)
                vesk_tool_JSON_delete(c->child);
            if (c->valuestring != nullptr)
                json_free(c->valuestring);
        }
        if (c->string != nullptr)
            json_free(c->string);
        json_free(c);
        c = next;
    }
}

int vesk_tool_JSON_get_print_size(const vesk_tool_JSON* item, int fmt)
{
    if (item == nullptr)
        return 0;
    return json_len(item, 0, fmt != 0) + 1;
}

int vesk_tool_JSON_export(const vesk_tool_JSON* item, int fmt, char* out, int out_buf_size)
{
    if (item == nullptr || out == nullptr)
        return 0;
    return export_value(item, 0, fmt != 0, out, out_buf_size, false) + 1;
}

int vesk_tool_JSON_get_array_size(const vesk_tool_JSON* array)
{
    if (array == nullptr)
        return 0;
    int i = 0;
    for (const vesk_tool_JSON* c = array->child; c != nullptr; c = c->next)
        i++;
    return i;
}

vesk_tool_JSON* vesk_tool_JSON_get_array_item(const vesk_tool_JSON* array, int item)
{
    if (array == nullptr)
        return nullptr;
    vesk_tool_JSON* c = array->child;
    while (c != nullptr && item > 0) {
        item--;
        c = c->next;
    }
    return c;
}

vesk_tool_JSON* vesk_tool_JSON_get_object_item(const vesk_tool_JSON* object, const char* key)
{
    if (object == nullptr)
        return nullptr;
    vesk_tool_JSON* c = object->child;
    while (c != nullptr && json_strcasecmp(c->string, key) != 0)
        c = c->next;
    return c;
}

void vesk_tool_JSON_add_item_to_array(vesk_tool_JSON* array, vesk_tool_JSON* item)
{
    if (array == nullptr || item == nullptr)
        return;
    vesk_tool_JSON* c = array->child;
    if (c == nullptr) {
        array->child = item;
        return;
    }
    while (c->next != nullptr)
        c = c->next;
    suffix_object(c, item);
}

void vesk_tool_JSON_add_item_to_object(vesk_tool_JSON* object, const char* key, vesk_tool_JSON* item)
{
    if (object == nullptr || item == nullptr)
        return;
    if (item->string != nullptr)
        json_free(item->string);
    item->string = key != nullptr ? json_strdup(key, nullptr) : nullptr;
    vesk_tool_JSON_add_item_to_array(object, item);
}

vesk_tool_JSON* vesk_tool_JSON_detach_item_from_array(vesk_tool_JSON* array, int which)
{
    if (array == nullptr)
        return nullptr;
    vesk_tool_JSON* c = array->child;
    while (c != nullptr && which > 0) {
        c = c->next;
        which--;
    }
    if (c == nullptr)
        return nullptr;
    if (c->prev != nullptr)
        c->prev->next = c->next;
    if (c->next != nullptr)
        c->next->prev = c->prev;
    if (c == array->child)
        array->child = c->next;
    c->prev = nullptr;
    c->next = nullptr;
    return c;
}

void vesk_tool_JSON_delete_item_from_array(vesk_tool_JSON* array, int which)
{
    vesk_tool_JSON_delete(vesk_tool_JSON_detach_item_from_array(array, which));
}

vesk_tool_JSON* vesk_tool_JSON_detach_item_from_object(vesk_tool_JSON* object, const char* key)
{
    if (object == nullptr)
        return nullptr;
    int i = 0;
    vesk_tool_JSON* c = object->child;
    while (c != nullptr && json_strcasecmp(c->string, key) != 0) {
        i++;
        c = c->next;
    }
    if (c != nullptr)
        return vesk_tool_JSON_detach_item_from_array(object, i);
    return nullptr;
}

void vesk_tool_JSON_delete_item_from_object(vesk_tool_JSON* object, const char* key)
{
    vesk_tool_JSON_delete(vesk_tool_JSON_detach_item_from_object(object, key));
}

void vesk_tool_JSON_replace_item_in_array(vesk_tool_JSON* array, int which, vesk_tool_JSON* newitem)
{
    if (array == nullptr || newitem == nullptr)
        return;
    vesk_tool_JSON* c = array->child;
    while (c != nullptr && which > 0) {
        c = c->next;
        which--;
    }
    if (c == nullptr)
        return;
    replace_child(array, c, newitem);
}

void vesk_tool_JSON_replace_item_in_object(vesk_tool_JSON* object, const char* key, vesk_tool_JSON* newitem)
{
    if (object == nullptr || newitem == nullptr)
        return;
    vesk_tool_JSON* c = object->child;
    while (c != nullptr && json_strcasecmp(c->string, key) != 0)
        c = c->next;
    if (c == nullptr)
        return;
    if (newitem->string != nullptr)
        json_free(newitem->string);
    newitem->string = key != nullptr ? json_strdup(key, nullptr) : nullptr;
    replace_child(object, c, newitem);
}

vesk_tool_JSON* vesk_tool_JSON_create_null()
{
    vesk_tool_JSON* item = new_item();
    if (item != nullptr)
        item->type = VESK_TOOL_JSON_NULL;
    return item;
}

vesk_tool_JSON* vesk_tool_JSON_create_bool(int b)
{
    vesk_tool_JSON* item = new_item();
    if (item != nullptr) {
        item->type = b ? VESK_TOOL_JSON_TRUE : VESK_TOOL_JSON_FALSE;
        item->valueint = b ? 1 : 0;
    }
    return item;
}

vesk_tool_JSON* vesk_tool_JSON_create_number(double num)
{
    vesk_tool_JSON* item = new_item();
    if (item != nullptr) {
        item->type = VESK_TOOL_JSON_NUMBER;
        item->valuedouble = num;
        item->valueint = vesk_tool_JSON_to_int(num);
    }
    return item;
}

vesk_tool_JSON* vesk_tool_JSON_create_string(const char* text)
{
    if (text == nullptr)
        return nullptr;
    vesk_tool_JSON* item = new_item();
    if (item == nullptr)
        return nullptr;
    item->type = VESK_TOOL_JSON_STRING;
    item->valuestring = json_strdup(text, &item->valuestring_len);
    if (item->valuestring == nullptr) {
        json_free(item);
        return nullptr;
    }
    return item;
}

vesk_tool_JSON* vesk_tool_JSON_create_array()
{
    vesk_tool_JSON* item = new_item();
    if (item != nullptr)
        item->type = VESK_TOOL_JSON_ARRAY;
    return item;
}

vesk_tool_JSON* vesk_tool_JSON_create_object()
{
    vesk_tool_JSON* item = new_item();
    if (item != nullptr)
        item->type = VESK_TOOL_JSON_OBJECT;
    return item;
}

bool vesk_tool_JSON_set_string(vesk_tool_JSON* item, const char* text)
{
    int32_t len = 0;
    char* copy = json_strdup(text, &len);
    if (copy == nullptr)
        return false;
    if (item->valuestring != nullptr && !(item->type & VESK_TOOL_JSON_IS_REFERENCE))
        json_free(item->valuestring);
    item->valuestring = copy;
    item->valuestring_len = len;
    return true;
}

void vesk_tool_JSON_clear_value(vesk_tool_JSON* item)
{
    if (!(item->type & VESK_TOOL_JSON_IS_REFERENCE)) {
        vesk_tool_JSON_delete(item->child);
        json_free(item->valuestring);
    }
    item->child = nullptr;
    item->valuestring = nullptr;
    item->valuestring_len = 0;
    item->type &= ~VESK_TOOL_JSON_IS_REFERENCE;
}

void vesk_tool_JSON_measure(const vesk_tool_JSON* item, unsigned& nodes, unsigned& bytes)
{
    if (item == nullptr)
        return;
    nodes++;
    bytes += sizeof(vesk_tool_JSON);
    if (item->valuestring != nullptr)
        bytes += static_cast<unsigned>(item->valuestring_len) + 1;
    if (item->string != nullptr)
        bytes += static_cast<unsigned>(strlen(item->string)) + 1;
    for (const vesk_tool_JSON* c = item->child; c != nullptr; c = c->next)
        vesk_tool_JSON_measure(c, nodes, bytes);
}

} // namespace vesk_utility
