// Fuzz target of the proxy server's request reader: any byte stream is cut into requests and
// joined into commands. However the stream arrives in pieces, the reader must reach the same
// commands and the same verdict; a command never holds a NUL nor exceeds its bound.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/vesk_utility_cmd_joiner.h"

using namespace vesk_utility;

namespace {

struct outcome {
    std::vector<std::string> commands;
    std::vector<uint32_t> magics;
    int verdict = 0;  // the step that ended the stream, 0 when it ran out
};

// Feeds data in pieces whose sizes come from `sizes` (cycled); 0 means all at once.
outcome run(const uint8_t* data, size_t size, const uint8_t* sizes, size_t nsizes)
{
    outcome out;
    vesk_cmd_joiner joiner;
    size_t at = 0;
    for (size_t k = 0; at < size; k++) {
        size_t piece = nsizes == 0 ? size - at : 1 + sizes[k % nsizes] % 200;
        if (piece > size - at)
            piece = size - at;
        for (size_t done = 0; done < piece;) {
            size_t used = 0;
            const vesk_cmd_joiner::step s = joiner.feed(data + at + done, piece - done, &used);
            if (used == 0 || used > piece - done)
                abort();
            done += used;
            if (s == vesk_cmd_joiner::step::command) {
                const std::string& c = joiner.command();
                if (c.size() > vesk_cmd_joiner::k_max_command || memchr(c.data(), 0, c.size()) != nullptr)
                    abort();
                out.commands.push_back(c);
                out.magics.push_back(joiner.magic());
            } else if (s != vesk_cmd_joiner::step::need_more) {
                out.verdict = static_cast<int>(s);
                return out;
            }
        }
        at += piece;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The first 8 bytes choose the piece sizes of the second reading; the rest is the stream.
    if (size < 8)
        return 0;
    const outcome whole = run(data + 8, size - 8, nullptr, 0);
    const outcome pieces = run(data + 8, size - 8, data, 8);
    if (whole.commands != pieces.commands || whole.magics != pieces.magics || whole.verdict != pieces.verdict)
        abort();
    return 0;
}
