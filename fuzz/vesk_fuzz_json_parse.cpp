// Fuzz target of the JSON tree: any text is parsed; a tree is printed compact and formatted
// into buffers of exactly the announced size, which must be written in full and no further.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "store/json/vesk_utility_json_tree.h"

using namespace vesk_utility;

namespace {

void check_print(const vesk_tool_JSON* root, int fmt)
{
    const int size = vesk_tool_JSON_get_print_size(root, fmt);
    if (size <= 0)
        abort();
    // A string at the root asks for one byte more than it writes.
    const int room = size + ((root->type & 0xFF) == VESK_TOOL_JSON_STRING ? 1 : 0);
    // Exactly `room` bytes on the heap: AddressSanitizer catches a write past them.
    std::vector<char> buf(static_cast<size_t>(room));
    if (vesk_tool_JSON_export(root, fmt, buf.data(), room) != size)
        abort();
    if (strlen(buf.data()) != static_cast<size_t>(size - 1))
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The parser takes a NUL-terminated text; an embedded NUL simply ends it.
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    const char* end = nullptr;
    vesk_tool_JSON* root = vesk_tool_JSON_parse_with_opts(text.data(), &end, 0);
    if (root == nullptr)
        return 0;
    if (end < text.data() || end > text.data() + size)
        abort();
    check_print(root, 0);
    check_print(root, 1);
    vesk_tool_JSON_delete(root);
    return 0;
}
