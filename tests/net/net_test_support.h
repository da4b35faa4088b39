// Oracles and peers shared by the network suites: shell commands and what they print,
// background processes (socat, the Python servers), and `ip -j` read back with cJSON.
#ifndef VESK_NET_TEST_SUPPORT_H
#define VESK_NET_TEST_SUPPORT_H

#include <signal.h>
#include <sys/wait.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "proxy_server_process.h"

#if defined(VESK_HAVE_CJSON)
#include <cjson/cJSON.h>
#endif

namespace vesk_net_test
{

using strings = std::vector<std::string>;

inline std::string capture(const std::string& cmd)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0;)
        out.append(buf, n);
    if (p != nullptr)
        pclose(p);
    return out;
}

inline int sh(const std::string& cmd)
{
    return system((cmd + " >/dev/null 2>&1").c_str());
}

inline strings sorted(strings v)
{
    std::sort(v.begin(), v.end());
    return v;
}

// A background `sh -c cmd` in a process group of its own, killed with it when this goes. With
// `port`, the first number the command prints is read into it (the servers print their port).
class bg_process
{
public:
    explicit bg_process(const std::string& cmd, int* port = nullptr)
    {
        int fds[2] = {-1, -1};
        if (port != nullptr && pipe(fds) != 0)
            return;
        m_pid = fork();
        if (m_pid == 0) {
            setpgid(0, 0);
            if (port != nullptr)
                dup2(fds[1], 1);
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        if (port == nullptr)
            return;
        close(fds[1]);
        FILE* f = fdopen(fds[0], "r");
        *port = 0;
        EXPECT_EQ(fscanf(f, "%d", port), 1) << cmd;
        fclose(f);
    }
    ~bg_process()
    {
        if (m_pid > 0) {
            kill(-m_pid, SIGKILL);
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    // Waits for the exit; its status, or -1.
    int wait()
    {
        int status = 0;
        for (int i = 0; i < vesk_test::k_deadline_ms / 10; i++, usleep(10000))
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
        return -1;
    }

private:
    pid_t m_pid = -1;
};

#if defined(VESK_HAVE_CJSON)

inline std::string str_of(const cJSON* obj, const char* key, const std::string& fallback = "")
{
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsString(v) ? v->valuestring : fallback;
}

inline int int_of(const cJSON* obj, const char* key)
{
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsNumber(v) ? v->valueint : 0;
}

// The texts that `row` makes of the array elements of `<ip> -j <args>`, sorted.
template <class Fn> strings ip_rows(const std::string& ip, const std::string& args, Fn row)
{
    cJSON* root = cJSON_Parse(capture(ip + " -j " + args + " 2>/dev/null").c_str());
    strings out;
    const cJSON* item;
    cJSON_ArrayForEach(item, root) row(item, out);
    cJSON_Delete(root);
    return sorted(out);
}

#endif

} // namespace vesk_net_test

#endif
