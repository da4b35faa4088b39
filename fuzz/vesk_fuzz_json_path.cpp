// Fuzz target of the key-path grammar: any text goes through the path parser with indexes
// taken from the input's tail. An accepted path must rebuild into itself from its steps.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "store/vesk_utility_json_impl.h"

using namespace vesk_utility;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Layout: path bytes, then (after the first NUL, if any) the "%d" arguments, 4 bytes each.
    const uint8_t* nul = static_cast<const uint8_t*>(memchr(data, 0, size));
    const size_t path_len = nul != nullptr ? static_cast<size_t>(nul - data) : size;
    std::string path(reinterpret_cast<const char*>(data), path_len);
    std::vector<int> ints;
    for (size_t at = path_len + 1; at + 4 <= size; at += 4) {
        int v;
        memcpy(&v, data + at, 4);
        ints.push_back(v);
    }

    std::vector<char> copy(path.size() + 1);
    vesk_json_path_args args(ints.data(), static_cast<int>(ints.size()));
    vesk_json_key_result result[k_json_path_max];
    int key_num = -1;
    if (!proc_parse_exec(path.c_str(), copy.data(), args, result, key_num))
        return 0;

    if (key_num < 1 || key_num > k_json_path_max || result[key_num - 1].key_type != 0)
        abort();
    // Rebuild the path from its steps: names joined by '.', indexes in brackets ("%d" where
    // the text had one, its argument consumed in order).
    std::string rebuilt;
    size_t used = 0;
    for (int i = 0; i < key_num; i++) {
        const vesk_json_key_result& r = result[i];
        if (r.key_name != nullptr) {
            if (r.key_name[0] == '\0' || !isalpha(static_cast<unsigned char>(r.key_name[0])))
                abort();
            if (r.key_name < copy.data() || r.key_name >= copy.data() + copy.size())
                abort();
            if (i > 0)
                rebuilt += '.';
            rebuilt += r.key_name;
        } else {
            if (i == 0)
                abort();
            // Which spelling the text used at this point decides how to rebuild it.
            if (path.compare(rebuilt.size(), 3, "[%d") == 0) {
                const int expect = used < ints.size() ? ints[used] : 0;
                used++;
                if (r.array_idx != static_cast<uint32_t>(expect))
                    abort();
                rebuilt += "[%d]";
            } else {
                const size_t close = path.find(']', rebuilt.size());
                if (close == std::string::npos)
                    abort();
                const std::string digits = path.substr(rebuilt.size() + 1, close - rebuilt.size() - 1);
                uint32_t v = 0;
                for (char c : digits)
                    v = v * 10 + static_cast<uint32_t>(c - '0');
                if (v != r.array_idx)
                    abort();
                rebuilt += "[" + digits + "]";
            }
        }
        // key_type says what follows: 1 a member step, 2 an index step, 0 nothing.
        if (i + 1 < key_num) {
            const int want = result[i + 1].key_name != nullptr ? 1 : 2;
            if (r.key_type != want)
                abort();
        }
    }
    if (rebuilt != path)
        abort();
    return 0;
}
