// vesk_diag - the console of the diagnostics socket: lists a process's diagnose clients,
// shows a client's help and runs its numbered commands, one-shot or at an interactive prompt.
//
//   vesk_diag [--socket PATH | --proxy] [--timeout SEC] [--charset SET | --raw]
//             [list | help N | run N PARA]
//
// The agent's texts are GB2312 (the Chinese titles and menus); they are shown converted to
// --charset (UTF-8 unless told), or byte for byte with --raw.
//
// Without --socket it connects to the main application's socket under $VESK_UTILITY_ROOT
// (--proxy: the proxy server's). The agent polls once a second, so answers start within
// about a second; a process started less than 30 s ago has not begun polling yet. An agent
// that sends nothing for --timeout seconds (default 60) is given up. Ctrl-C ends a running
// command by closing the connection.
#include <iconv.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "core/vesk_utility_diag_wire.h"
#include "core/vesk_utility_paths.h"

using namespace vesk_utility;

namespace {

volatile sig_atomic_t s_interrupted = 0;
int s_fd = -1;

void on_sigint(int)
{
    s_interrupted = 1;
    // Closing the connection makes the agent's next print fail, which ends an endless command.
    if (s_fd >= 0)
        shutdown(s_fd, SHUT_RDWR);
}

enum class result { ok, retry, interrupted, failed };

// The agent's GB2312 text, written to standard output in the terminal's character set. A
// character split between two answers is held until its second byte arrives; bytes that are
// not GB2312 show as '?'.
class text_out {
public:
    // charset NULL: bytes pass through unchanged.
    bool open(const char* charset)
    {
        if (charset == nullptr)
            return true;
        m_cd = iconv_open(charset, "GB2312");
        if (m_cd == reinterpret_cast<iconv_t>(-1)) {
            fprintf(stderr, "vesk_diag: cannot convert GB2312 to %s: %s\n", charset, strerror(errno));
            return false;
        }
        return true;
    }
    ~text_out()
    {
        if (m_cd != reinterpret_cast<iconv_t>(-1))
            iconv_close(m_cd);
    }

    void write(const char* text, size_t len)
    {
        if (m_cd == reinterpret_cast<iconv_t>(-1)) {
            fwrite(text, 1, len, stdout);
            fflush(stdout);
            return;
        }
        m_pending.append(text, len);
        char* in = &m_pending[0];
        size_t in_left = m_pending.size();
        while (in_left > 0) {
            char buf[4096];
            char* out = buf;
            size_t out_left = sizeof(buf);
            const size_t r = iconv(m_cd, &in, &in_left, &out, &out_left);
            fwrite(buf, 1, static_cast<size_t>(out - buf), stdout);
            if (r != static_cast<size_t>(-1) || errno == E2BIG)
                continue;
            if (errno != EILSEQ)
                break;  // EINVAL: the first byte of a character; the rest comes later
            fputc('?', stdout);
            in++;
            in_left--;
        }
        m_pending.erase(0, m_pending.size() - in_left);
        fflush(stdout);
    }

    // End of an answer: a dangling first byte will get no second one.
    void finish()
    {
        for (size_t i = 0; i < m_pending.size(); i++)
            fputc('?', stdout);
        m_pending.clear();
        fflush(stdout);
    }

private:
    iconv_t m_cd = reinterpret_cast<iconv_t>(-1);
    std::string m_pending;
};

text_out s_text;

class console {
public:
    console(std::string path, int timeout_s) : m_path(std::move(path)), m_timeout_s(timeout_s) {}
    ~console() { disconnect(); }

    bool connect_agent()
    {
        disconnect();
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0) {
            fprintf(stderr, "vesk_diag: socket: %s\n", strerror(errno));
            return false;
        }
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", m_path.c_str());
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            fprintf(stderr, "vesk_diag: cannot connect to %s: %s\n", m_path.c_str(), strerror(errno));
            close(fd);
            return false;
        }
        timeval tv = {m_timeout_s, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        s_fd = fd;
        return true;
    }

    // Sends one request and prints its answer up to the finish message. A connection the
    // agent dropped (idle time-out) is re-opened once and the request sent again.
    bool request(uint32_t cmd, const std::vector<int32_t>& args)
    {
        for (int attempt = 0; attempt < 2; attempt++) {
            if (s_fd < 0 && !connect_agent())
                return false;
            const result r = exchange(cmd, args, attempt == 0);
            if (r == result::ok)
                return true;
            if (r != result::retry)
                return r == result::interrupted;
            disconnect();
        }
        fprintf(stderr, "vesk_diag: the agent closed the connection\n");
        return false;
    }

    void disconnect()
    {
        if (s_fd >= 0)
            close(s_fd);
        s_fd = -1;
    }

private:
    bool read_exact(void* buf, size_t len)
    {
        char* p = static_cast<char*>(buf);
        while (len > 0) {
            const ssize_t n = recv(s_fd, p, len, 0);
            if (n < 0 && errno == EINTR && !s_interrupted)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                fprintf(stderr, "vesk_diag: no answer from %s within %d s\n", m_path.c_str(), m_timeout_s);
                m_timed_out = true;
                return false;
            }
            if (n <= 0)
                return false;
            p += n;
            len -= static_cast<size_t>(n);
        }
        return true;
    }

    result exchange(uint32_t cmd, const std::vector<int32_t>& args, bool may_retry)
    {
        const uint32_t seq = ++m_seq;
        std::vector<char> msg(sizeof(vesk_diag_msg_head) + args.size() * sizeof(int32_t));
        const vesk_diag_msg_head head = {k_diag_magic, seq, cmd, static_cast<uint32_t>(args.size() * sizeof(int32_t))};
        memcpy(msg.data(), &head, sizeof(head));
        if (!args.empty())
            memcpy(msg.data() + sizeof(head), args.data(), args.size() * sizeof(int32_t));
        if (send(s_fd, msg.data(), msg.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(msg.size()))
            return may_retry ? result::retry : result::failed;
        bool got_text = false;
        for (;;) {
            vesk_diag_msg_head ans;
            if (!read_exact(&ans, sizeof(ans))) {
                if (s_interrupted)
                    return result::interrupted;
                if (m_timed_out)
                    return result::failed;
                // Nothing answered yet: the agent had dropped an idle connection.
                return (!got_text && may_retry) ? result::retry : result::failed;
            }
            if (ans.magic != k_diag_magic) {
                fprintf(stderr, "vesk_diag: malformed answer (magic 0x%x)\n", ans.magic);
                return result::failed;
            }
            if (ans.cmd == k_diag_ans_finish) {
                s_text.finish();
                if (ans.seq != seq) {
                    fprintf(stderr, "vesk_diag: finish for request %u, expected %u\n", ans.seq, seq);
                    return result::failed;
                }
                return result::ok;
            }
            if (ans.cmd != k_diag_ans_text || ans.len == 0 || ans.len > k_diag_text_max) {
                fprintf(stderr, "vesk_diag: malformed answer (cmd 0x%x, len %u)\n", ans.cmd, ans.len);
                return result::failed;
            }
            char text[k_diag_text_max + 1];
            if (!read_exact(text, ans.len))
                return s_interrupted ? result::interrupted : result::failed;
            text[ans.len] = '\0';
            s_text.write(text, strnlen(text, ans.len));
            got_text = true;
        }
    }

    std::string m_path;
    int m_timeout_s;
    bool m_timed_out = false;
    uint32_t m_seq = 0;
};

void usage()
{
    fprintf(stderr,
            "usage: vesk_diag [--socket PATH | --proxy] [--timeout SEC] [--charset SET | --raw]\n"
            "                 [list | help N | run N PARA]\n"
            "  --charset SET show the agent's GB2312 texts in SET (default UTF-8)\n"
            "  --raw         show them as the bytes the agent sent\n"
            "  list          list the diagnose clients of the process\n"
            "  help N        title and commands of client N\n"
            "  run N PARA    run command PARA of client N (Ctrl-C stops it)\n"
            "without a command: an interactive prompt (quit to leave)\n");
}

bool parse_int(const std::string& s, int32_t& out)
{
    char* end = nullptr;
    errno = 0;
    const long v = strtol(s.c_str(), &end, 0);
    if (s.empty() || *end != '\0' || errno != 0)
        return false;
    out = static_cast<int32_t>(v);
    return true;
}

// One command line (already split); returns false on a usage error or a failed request.
bool run_words(console& c, const std::vector<std::string>& w)
{
    int32_t idx = 0, para = 0;
    if (w.size() == 1 && w[0] == "list")
        return c.request(k_diag_cmd_list, {});
    if (w.size() == 2 && w[0] == "help" && parse_int(w[1], idx))
        return c.request(k_diag_cmd_help, {idx});
    if (w.size() == 3 && w[0] == "run" && parse_int(w[1], idx) && parse_int(w[2], para))
        return c.request(k_diag_cmd_run, {idx, para});
    usage();
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    char path[sizeof(sockaddr_un::sun_path)];
    vesk_rooted_path(path, sizeof(path), k_path_diag_socket_main);
    std::vector<std::string> words;
    int timeout_s = 60;
    const char* charset = "UTF-8";
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--socket" && i + 1 < argc) {
            snprintf(path, sizeof(path), "%s", argv[++i]);
        } else if (a == "--timeout" && i + 1 < argc) {
            timeout_s = atoi(argv[++i]);
            if (timeout_s <= 0) {
                usage();
                return 2;
            }
        } else if (a == "--charset" && i + 1 < argc) {
            charset = argv[++i];
        } else if (a == "--raw") {
            charset = nullptr;
        } else if (a == "--proxy") {
            vesk_rooted_path(path, sizeof(path), k_path_diag_socket_proxy);
        } else if (a == "-h" || a == "--help") {
            usage();
            return 0;
        } else {
            words.push_back(a);
        }
    }

    if (!s_text.open(charset))
        return 2;

    struct sigaction sa = {};
    sa.sa_handler = on_sigint;
    sigaction(SIGINT, &sa, nullptr);  // no SA_RESTART: a blocked read returns at once
    signal(SIGPIPE, SIG_IGN);

    console c(path, timeout_s);
    if (!words.empty()) {
        if (!c.connect_agent())
            return 1;
        return run_words(c, words) ? 0 : 1;
    }

    if (!c.connect_agent())
        return 1;
    printf("connected to %s; commands: list, help N, run N PARA, quit\n", path);
    std::string line;
    for (;;) {
        printf("vesk_diag> ");
        fflush(stdout);
        s_interrupted = 0;
        if (!std::getline(std::cin, line)) {
            if (s_interrupted) {  // Ctrl-C at the prompt: a fresh line
                std::cin.clear();
                printf("\n");
                continue;
            }
            break;
        }
        std::istringstream in(line);
        std::vector<std::string> w;
        for (std::string x; in >> x;)
            w.push_back(x);
        if (w.empty())
            continue;
        if (w[0] == "quit" || w[0] == "exit")
            break;
        run_words(c, w);
        if (s_interrupted) {
            printf("\n(interrupted)\n");
            c.disconnect();  // reconnects with the next command
        }
    }
    return 0;
}
