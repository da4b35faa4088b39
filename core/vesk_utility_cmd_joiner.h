// vesk_utility_cmd_joiner - the proxy server's reading of one connection: 140-byte requests
// taken from a byte stream and joined by magic into whole commands. Kept apart from the
// server's sockets so that the parser can be driven directly (fuzzing).
#ifndef VESK_UTILITY_CMD_JOINER_H
#define VESK_UTILITY_CMD_JOINER_H

#include <cstring>
#include <string>

#include "core/vesk_utility_cmd_wire.h"

namespace vesk_utility
{

class vesk_cmd_joiner
{
public:
    // What one feed ended with. Every state but need_more and command means the stream is
    // malformed: the connection has to be closed, and the joiner is not fed again.
    enum class step { need_more, command, bad_token, unterminated, foreign_magic, too_long };

    // Commands longer than this are refused as malformed.
    static constexpr size_t k_max_command = 65536;

    // Takes bytes of data (at most n) up to the end of one request; *used gets how many.
    // command: command() and magic() hold a complete command until the next feed.
    step feed(const void* data, size_t n, size_t* used)
    {
        if (m_ready) {
            m_command.clear();
            m_ready = false;
        }
        const size_t take = n < sizeof(m_req) - m_have ? n : sizeof(m_req) - m_have;
        memcpy(reinterpret_cast<char*>(&m_req) + m_have, data, take);
        m_have += take;
        *used = take;
        if (m_have < sizeof(m_req))
            return step::need_more;
        m_have = 0;
        if (m_req.token != k_cmd_token)
            return step::bad_token;
        const void* nul = memchr(m_req.text, '\0', sizeof(m_req.text));
        if (nul == nullptr)
            return step::unterminated;
        if (m_joining && m_req.magic != m_magic)
            return step::foreign_magic;
        const size_t len = static_cast<size_t>(static_cast<const char*>(nul) - m_req.text);
        if (m_command.size() + len > k_max_command)
            return step::too_long;
        m_magic = m_req.magic;
        m_command.append(m_req.text, len);
        m_joining = m_req.more != 0;
        if (m_joining)
            return step::need_more;
        m_ready = true;
        return step::command;
    }

    const std::string& command() const { return m_command; }
    uint32_t magic() const { return m_magic; }
    // The request that ended the last feed, for messages.
    const vesk_cmd_request& request() const { return m_req; }

private:
    size_t m_have = 0; // bytes of m_req read so far
    vesk_cmd_request m_req {};
    std::string m_command; // pieces joined so far
    uint32_t m_magic = 0;
    bool m_joining = false;
    bool m_ready = false;
};

} // namespace vesk_utility

#endif // VESK_UTILITY_CMD_JOINER_H
