// vesk_utility_diag_wire - the diagnostics socket protocol, shared by the agent and the
// console. Every message is a 16-byte header, all fields unsigned 32-bit in host order
// (little-endian on the target), then `len` payload bytes:
//
//   | magic 0x13149527 | seq | cmd | len |  payload...
//
// Requests: cmd 1 list clients (no payload); 2 help of a client (int32 index); 3 run a
// client's command (int32 index, int32 para). Answers: any number of text messages
// (seq 0, cmd 0x80000000, len = text length + NUL, at most 512), then one finish message
// (the request's seq, cmd 0x80000001, len 0).
#ifndef VESK_UTILITY_DIAG_WIRE_H
#define VESK_UTILITY_DIAG_WIRE_H

#include <cstddef>
#include <cstdint>

namespace vesk_utility {

struct vesk_diag_msg_head {
    uint32_t magic;
    uint32_t seq;
    uint32_t cmd;
    uint32_t len;
};
static_assert(sizeof(vesk_diag_msg_head) == 16, "diagnostics header is 16 bytes on every ABI");
static_assert(offsetof(vesk_diag_msg_head, seq) == 4 && offsetof(vesk_diag_msg_head, cmd) == 8 &&
                  offsetof(vesk_diag_msg_head, len) == 12,
              "diagnostics header offsets");

constexpr uint32_t k_diag_magic = 0x13149527;
constexpr uint32_t k_diag_cmd_list = 1;
constexpr uint32_t k_diag_cmd_help = 2;
constexpr uint32_t k_diag_cmd_run = 3;
constexpr uint32_t k_diag_ans_text = 0x80000000;
constexpr uint32_t k_diag_ans_finish = 0x80000001;
constexpr size_t k_diag_text_max = 512;  // one text message, NUL included

}  // namespace vesk_utility

#endif  // VESK_UTILITY_DIAG_WIRE_H
