// vesk_utility_cmd_wire - the messages between the system-command client and the proxy server
// that runs its shell commands. Shared by the library and tools/vesk_proxy_server.
#ifndef VESK_UTILITY_CMD_WIRE_H
#define VESK_UTILITY_CMD_WIRE_H

#include <cstddef>
#include <cstdint>

namespace vesk_utility
{

// Request, client -> proxy, 140 bytes, little-endian, identical on every ABI:
//   | token (4) | magic (4) | more (4) | text (128) |
//   0           4           8          12           140
// A command longer than 127 characters is cut into consecutive requests with the same magic;
// more is 1 while further pieces follow and 0 on the last one. text is NUL-terminated and
// zero-padded.
//
// Answer, proxy -> client, 8 bytes: | token (4) | magic (4) |, sent when the command of that
// magic has finished.
constexpr uint32_t k_cmd_token = 0x95279528;
constexpr unsigned k_cmd_text_size = 128;
constexpr unsigned k_cmd_piece_max = k_cmd_text_size - 1;

struct vesk_cmd_request {
    uint32_t token;
    uint32_t magic;
    uint32_t more;
    char text[k_cmd_text_size];
};

struct vesk_cmd_answer {
    uint32_t token;
    uint32_t magic;
};

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the wire is little-endian and copied as is");
static_assert(offsetof(vesk_cmd_request, magic) == 4, "request magic at 4");
static_assert(offsetof(vesk_cmd_request, more) == 8, "request more at 8");
static_assert(offsetof(vesk_cmd_request, text) == 12, "request text at 12");
static_assert(sizeof(vesk_cmd_request) == 140, "a request is 140 bytes");
static_assert(offsetof(vesk_cmd_answer, magic) == 4, "answer magic at 4");
static_assert(sizeof(vesk_cmd_answer) == 8, "an answer is 8 bytes");

} // namespace vesk_utility

#endif // VESK_UTILITY_CMD_WIRE_H
