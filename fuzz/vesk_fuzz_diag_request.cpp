// Fuzz target of the diagnose agent's request reading: any byte stream is written by a
// console over a real unix socket, which then shuts its sending side, and the agent is polled
// until it lets the console go. Every answer must be well framed, and the agent must always
// let go of a console whose stream has ended.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/vesk_utility_diag_wire.h"
#include "core/vesk_utility_diagnose.h"

using namespace vesk_utility;
using vesk_soft::VESK_OK;

namespace {

// Prints a number of lines that the command's parameter chooses.
class fuzz_client final : public vesk_diagnose_client {
public:
    VESK_ERR diagnose(int para, print_fn print) override
    {
        const int lines = (para & 0x3FF) == 0x3FF ? 400 : para & 0x3F;
        for (int i = 0; i < lines; i++)
            if (print("para %d line %d %s\n", para, i, i % 7 == 0 ? std::string(600, 'w').c_str() : "") != 0)
                break;
        return VESK_OK;
    }
};

std::string s_path;
vesk_diagnose_agent* s_agent = nullptr;
fuzz_client s_clients[2];

void set_up()
{
    s_path = "/tmp/vesk_fuzz_diag_" + std::to_string(getpid()) + ".sock";
    s_agent = new vesk_diagnose_agent(s_path.c_str());
    s_agent->regist_diag(&s_clients[0], "first", "0-63 lines");
    s_agent->regist_diag(&s_clients[1], nullptr, nullptr);
}

// Reads what the agent sent and checks its framing; the bytes of a message cut at the end of
// what has arrived stay in `pending`.
void check_answers(int fd, std::vector<uint8_t>& pending)
{
    uint8_t buf[65536];
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0)
            break;
        pending.insert(pending.end(), buf, buf + n);
    }
    size_t at = 0;
    while (pending.size() - at >= sizeof(vesk_diag_msg_head)) {
        vesk_diag_msg_head h;
        memcpy(&h, pending.data() + at, sizeof(h));
        if (h.magic != k_diag_magic)
            abort();
        if (h.cmd == k_diag_ans_finish) {
            if (h.len != 0)
                abort();
        } else if (h.cmd != k_diag_ans_text || h.seq != 0 || h.len == 0 || h.len > k_diag_text_max) {
            abort();
        }
        if (pending.size() - at - sizeof(h) < h.len)
            break;
        if (h.len > 0 && (pending[at + sizeof(h) + h.len - 1] != 0 ||
                          memchr(pending.data() + at + sizeof(h), 0, h.len - 1) != nullptr))
            abort();
        at += sizeof(h) + h.len;
    }
    pending.erase(pending.begin(), pending.begin() + static_cast<long>(at));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (s_agent == nullptr)
        set_up();
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", s_path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
        abort();
    s_agent->work();
    if (!s_agent->has_console())
        abort();
    // As much of the stream as the socket takes at once; the rest is never sent.
    if (size > 0)
        (void)send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    std::vector<uint8_t> pending;
    // Each poll answers at most one request: the stream holds fewer than size / 16 + 1.
    for (size_t polls = 0; s_agent->has_console(); polls++) {
        if (polls > size / 16 + 64)
            abort();
        s_agent->work();
        check_answers(fd, pending);
    }
    close(fd);
    return 0;
}
