// A file system image on a loop device, mounted under the test's private root for the life of
// the object: made with mkfs, attached with losetup, and always unmounted and detached again,
// even when the test fails. Used by the block operator tests and benchmark.
#ifndef VESK_TEST_LOOP_FS_H
#define VESK_TEST_LOOP_FS_H

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace vesk_test
{

class loop_fs
{
public:
    // An image of `mb` megabytes (sparse) of type "ext4" or "xfs" under `dir`, mounted at a
    // name unique to this process. NULL, with the reason in why_not, when the machine cannot
    // (not root, no loop devices, no mkfs, no kernel support).
    static std::unique_ptr<loop_fs> make(
        const std::string& dir, const char* fs_type, unsigned mb, std::string& why_not);
    ~loop_fs();
    loop_fs(const loop_fs&) = delete;
    loop_fs& operator=(const loop_fs&) = delete;

    // Unmounts and mounts again, so that what is read next comes from the disk.
    bool remount();
    const std::string& mnt() const { return m_mnt; }
    const std::string& dev() const { return m_dev; }

private:
    loop_fs() = default;
    std::string m_img, m_mnt, m_dev, m_type;
    bool m_mounted = false;
};

// One extent of `filefrag -v`, in bytes.
struct frag_extent {
    int64_t logic, phy, len;
};
// The extents filefrag reports for path, physically adjacent ones merged as the block operator
// merges them. Empty when filefrag fails.
std::vector<frag_extent> filefrag_extents(const std::string& path, int* raw_count = nullptr);

// ---- Implementation -----------------------------------------------------------------------

inline bool run_quiet(const std::string& cmd)
{
    return system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

namespace loop_fs_detail
{
inline std::string run_output(const std::string& cmd)
{
    std::string out;
    FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r");
    if (p == nullptr)
        return out;
    char buf[512];
    while (fgets(buf, sizeof(buf), p) != nullptr)
        out += buf;
    pclose(p);
    return out;
}
} // namespace loop_fs_detail

inline std::unique_ptr<loop_fs> loop_fs::make(
    const std::string& dir, const char* fs_type, unsigned mb, std::string& why_not)
{
    if (geteuid() != 0) {
        why_not = "needs root to attach loop devices and mount";
        return nullptr;
    }
    if (access("/dev/loop-control", F_OK) != 0) {
        why_not = "no /dev/loop-control: loop devices are not available here";
        return nullptr;
    }
    const std::string mkfs = std::string("mkfs.") + fs_type;
    if (!run_quiet("command -v " + mkfs) || !run_quiet("command -v losetup")) {
        why_not = mkfs + " or losetup is not installed";
        return nullptr;
    }
    std::unique_ptr<loop_fs> fs(new loop_fs());
    const std::string tag = std::string(fs_type) + "_" + std::to_string(getpid());
    fs->m_img = dir + "/img_" + tag + ".img";
    fs->m_mnt = dir + "/mnt_" + tag;
    fs->m_type = fs_type;
    FILE* f = fopen(fs->m_img.c_str(), "w");
    if (f == nullptr || ftruncate(fileno(f), static_cast<off_t>(mb) << 20) != 0) {
        if (f != nullptr)
            fclose(f);
        why_not = "cannot create the image " + fs->m_img;
        return nullptr;
    }
    fclose(f);
    bool made;
    if (fs->m_type == "xfs") {
        // Images under 300 MB are refused unless mkfs is told it is making a test file system.
        made = run_quiet("TEST_DIR=1 TEST_DEV=1 QA_CHECK_FS=1 mkfs.xfs -q -f " + fs->m_img);
    } else {
        made = run_quiet("mkfs.ext4 -q -F -b 4096 " + fs->m_img);
    }
    if (!made) {
        why_not = mkfs + " failed on " + fs->m_img;
        return nullptr;
    }
    std::string dev = loop_fs_detail::run_output("losetup -f --show " + fs->m_img);
    while (!dev.empty() && (dev.back() == '\n' || dev.back() == ' '))
        dev.pop_back();
    if (dev.empty()) {
        why_not = "losetup could not attach " + fs->m_img;
        return nullptr;
    }
    fs->m_dev = dev;
    mkdir(fs->m_mnt.c_str(), 0755);
    if (!run_quiet("mount -t " + fs->m_type + " " + fs->m_dev + " " + fs->m_mnt)) {
        why_not = "mount -t " + fs->m_type + " failed (no kernel support?)";
        return nullptr; // the destructor detaches the device
    }
    fs->m_mounted = true;
    return fs;
}

inline bool loop_fs::remount()
{
    if (m_mounted && !run_quiet("umount " + m_mnt))
        return false;
    m_mounted = false;
    if (!run_quiet("mount -t " + m_type + " " + m_dev + " " + m_mnt))
        return false;
    m_mounted = true;
    return true;
}

inline loop_fs::~loop_fs()
{
    if (m_mounted) {
        for (int i = 0; i < 20 && !run_quiet("umount " + m_mnt); i++)
            usleep(100000);
        run_quiet("umount -l " + m_mnt);
    }
    if (!m_dev.empty())
        run_quiet("losetup -d " + m_dev);
    rmdir(m_mnt.c_str());
    unlink(m_img.c_str());
}

inline std::vector<frag_extent> filefrag_extents(const std::string& path, int* raw_count)
{
    std::vector<frag_extent> out;
    const std::string text = loop_fs_detail::run_output("filefrag -v " + path);
    std::smatch m;
    int64_t block = 0;
    if (std::regex_search(text, m, std::regex("blocks of (\\d+) bytes")))
        block = std::stoll(m[1]);
    if (block == 0)
        return out;
    const std::regex row("^\\s*\\d+:\\s+(\\d+)\\.\\.\\s*(\\d+):\\s+(\\d+)\\.\\.\\s*(\\d+):\\s+(\\d+):");
    int count = 0;
    const std::regex lines("[^\n]+");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), lines); it != std::sregex_iterator(); ++it) {
        const std::string line = it->str();
        if (!std::regex_search(line, m, row))
            continue;
        count++;
        const frag_extent e {std::stoll(m[1]) * block, std::stoll(m[3]) * block, std::stoll(m[5]) * block};
        if (!out.empty() && out.back().phy + out.back().len == e.phy && out.back().logic + out.back().len == e.logic)
            out.back().len += e.len;
        else
            out.push_back(e);
    }
    if (raw_count != nullptr)
        *raw_count = count;
    return out;
}

} // namespace vesk_test

#endif // VESK_TEST_LOOP_FS_H
