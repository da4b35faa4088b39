// nvr_sim's box: the private root that stands in for the board's file system (logo frames,
// resolver files, the close_dog marker) and the proxy server process beside the simulator.
// Both happen before the library is initialised, while the process has no other thread.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nvr_sim.h"

namespace nvr_sim
{

namespace
{

bool make_dirs(const std::string& path)
{
    std::string cur;
    size_t at = 0;
    while (at != std::string::npos) {
        at = path.find('/', at + 1);
        cur = path.substr(0, at);
        if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) {
            fprintf(stderr, "nvr_sim: mkdir %s: %s\n", cur.c_str(), strerror(errno));
            return false;
        }
    }
    return true;
}

bool write_file(const std::string& path, const void* data, size_t len)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        fprintf(stderr, "nvr_sim: %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    const bool ok = fwrite(data, 1, len, f) == len;
    return fclose(f) == 0 && ok;
}

// A logo file as vesk_make_logo writes it: 16-byte header (width u16 at 4, height u16 at 6,
// payload length u32 at 8, little-endian), then WIDTH*HEIGHT/64 filler bytes.
bool write_logo(const std::string& path, uint16_t w, uint16_t h)
{
    std::vector<uint8_t> file(16 + w * h / 64 + 1);
    const uint32_t len = static_cast<uint32_t>(file.size() - 16);
    memcpy(file.data(), "NVR1", 4);
    file[4] = static_cast<uint8_t>(w);
    file[5] = static_cast<uint8_t>(w >> 8);
    file[6] = static_cast<uint8_t>(h);
    file[7] = static_cast<uint8_t>(h >> 8);
    for (int i = 0; i < 4; i++)
        file[8 + i] = static_cast<uint8_t>(len >> (8 * i));
    for (size_t i = 16; i < file.size(); i++)
        file[i] = static_cast<uint8_t>(i * 31 + 7);
    return write_file(path, file.data(), file.size());
}

std::string self_dir()
{
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0)
        return ".";
    buf[n] = '\0';
    std::string p(buf);
    const size_t slash = p.rfind('/');
    return slash == std::string::npos ? "." : p.substr(0, slash);
}

} // namespace

bool prepare_root(options& opt)
{
    if (opt.root.empty()) {
        const char* env = getenv("VESK_UTILITY_ROOT");
        if (env != nullptr && env[0] != '\0') {
            opt.root = env;
        } else {
            char tmpl[] = "/tmp/nvr_sim.XXXXXX";
            if (mkdtemp(tmpl) == nullptr) {
                fprintf(stderr, "nvr_sim: mkdtemp: %s\n", strerror(errno));
                return false;
            }
            opt.root = tmpl;
        }
    }
    const std::string& r = opt.root;
    for (const char* d : {"/usr/lib", "/config", "/reserve", "/etc", "/mnt/mtd/res/platform", "/mnt/mtd/app"}) {
        if (!make_dirs(r + d))
            return false;
    }
    // The camera-not-connected and no-video logos are what readers hand out for a camera that
    // dropped out; the others complete the board's set. Small logos are sub-stream sized.
    const char* const k_platform[]
        = {"novideo", "no_rec_file", "lock_ops", "company", "not_support", "svac", "not_connect_camera"};
    bool ok = true;
    for (const char* n : k_platform) {
        ok = ok && write_logo(r + "/mnt/mtd/res/platform/" + n + ".nvr", 704, 576);
        ok = ok && write_logo(r + "/mnt/mtd/res/platform/" + n + "_mid.nvr", 1920, 1080);
    }
    ok = ok && write_logo(r + "/mnt/mtd/res/platform/not_support_video_type.nvr", 704, 576);
    ok = ok && write_logo(r + "/mnt/mtd/app/noauthority.nvr", 704, 576);
    ok = ok && write_logo(r + "/mnt/mtd/app/noauthority_big.nvr", 1920, 1080);
    ok = ok && write_logo(r + "/mnt/mtd/app/gui_unmatch.nvr", 704, 576);
    const char resolv[] = "nameserver 192.168.1.1\nnameserver 8.8.8.8\n";
    ok = ok && write_file(r + "/reserve/resolv_eth0.conf", resolv, sizeof(resolv) - 1);
    ok = ok && write_file(r + "/etc/resolv_eth0.conf", resolv, sizeof(resolv) - 1);
    // Consumer watchdogs stay armed, but a dead one must not make the proxy run "reboot" on
    // the developer's machine: the marker keeps the watchdog to reporting.
    ok = ok && write_file(r + "/config/close_dog", "", 0);
    if (!ok)
        return false;
    if (!opt.out_dir.empty() && !make_dirs(opt.out_dir))
        return false;
    setenv("VESK_UTILITY_ROOT", r.c_str(), 1);
    return true;
}

int start_proxy_server(const options& opt)
{
    const std::string bin = opt.proxy_server.empty() ? self_dir() + "/vesk_proxy_server" : opt.proxy_server;
    if (access(bin.c_str(), X_OK) != 0) {
        fprintf(stderr, "nvr_sim: no proxy server at %s; commands will run in-process\n", bin.c_str());
        return 0;
    }
    const std::string sock = opt.root + "/usr/lib/libmodel.socket";
    unlink(sock.c_str());
    const pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "nvr_sim: fork: %s\n", strerror(errno));
        return 0;
    }
    if (pid == 0) {
        // Its own process group: Ctrl-C at the terminal stops the simulator, which then stops
        // the server after its own shutdown.
        setpgid(0, 0);
        execl(bin.c_str(), bin.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 100; i++) {
        if (access(sock.c_str(), F_OK) == 0)
            return pid;
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            fprintf(stderr, "nvr_sim: the proxy server exited at start (status %d)\n", status);
            return 0;
        }
        usleep(50 * 1000);
    }
    fprintf(stderr, "nvr_sim: the proxy server did not open %s\n", sock.c_str());
    return pid;
}

void stop_proxy_server(int pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
}

} // namespace nvr_sim
