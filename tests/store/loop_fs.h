// A file system image on a loop device, mounted for the life of the object (tests and benchmark).
#ifndef VESK_TEST_LOOP_FS_H
#define VESK_TEST_LOOP_FS_H

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace vesk_test
{

inline bool run_quiet(const std::string& cmd)
{
    return system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

inline std::string run_output(const std::string& cmd)
{
    std::string out;
    char buf[512];
    if (FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r")) {
        while (fgets(buf, sizeof(buf), p) != nullptr)
            out += buf;
        pclose(p);
    }
    return out;
}

class loop_fs
{
public:
    // A sparse `mb` MB "ext4" or "xfs" image under `dir`; NULL and the reason when impossible.
    static std::unique_ptr<loop_fs> make(const std::string& dir, const char* fs_type, unsigned mb, std::string& why_not)
    {
        std::unique_ptr<loop_fs> fs(new loop_fs()); // on failure its destructor undoes what was done
        const std::string type = fs_type, mkfs = "mkfs." + type, tag = type + "_" + std::to_string(getpid());
        const std::string img = fs->m_img = dir + "/img_" + tag + ".img";
        fs->m_mnt = dir + "/mnt_" + tag;
        fs->m_type = type;
        // Images under 300 MB are refused by mkfs.xfs unless it is told it makes a test file system.
        const std::string format
            = type == "xfs" ? "TEST_DIR=1 TEST_DEV=1 QA_CHECK_FS=1 mkfs.xfs -q -f " : "mkfs.ext4 -q -F -b 4096 ";
        if (geteuid() != 0)
            why_not = "needs root to attach loop devices and mount";
        else if (access("/dev/loop-control", F_OK) != 0)
            why_not = "no /dev/loop-control: loop devices are not available here";
        else if (!run_quiet("command -v " + mkfs) || !run_quiet("command -v losetup"))
            why_not = mkfs + " or losetup is not installed";
        else if (!std::ofstream(img) || truncate(img.c_str(), static_cast<off_t>(mb) << 20) != 0)
            why_not = "cannot create the image " + img;
        else if (!run_quiet(format + img))
            why_not = mkfs + " failed on " + img;
        else if (!(std::istringstream(run_output("losetup -f --show " + img)) >> fs->m_dev))
            why_not = "losetup could not attach " + img;
        else if (!run_quiet("mkdir -p " + fs->m_mnt + " && mount -t " + type + " " + fs->m_dev + " " + fs->m_mnt))
            why_not = "mount -t " + type + " failed (no kernel support?)";
        else
            fs->m_mounted = true;
        return fs->m_mounted ? std::move(fs) : nullptr;
    }
    ~loop_fs()
    {
        for (int i = 0; m_mounted && i < 20 && !run_quiet("umount " + m_mnt); i++)
            usleep(100000);
        if (m_mounted)
            run_quiet("umount -l " + m_mnt);
        if (!m_dev.empty())
            run_quiet("losetup -d " + m_dev);
        rmdir(m_mnt.c_str());
        unlink(m_img.c_str());
    }
    loop_fs(const loop_fs&) = delete;
    loop_fs& operator=(const loop_fs&) = delete;
    // So that what is read next comes from the disk.
    bool remount()
    {
        if (m_mounted && !run_quiet("umount " + m_mnt))
            return false;
        m_mounted = run_quiet("mount -t " + m_type + " " + m_dev + " " + m_mnt);
        return m_mounted;
    }
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

// filefrag's extents of path, adjacent ones merged as the block operator merges them.
inline std::vector<frag_extent> filefrag_extents(const std::string& path, int* raw_count = nullptr)
{
    std::vector<frag_extent> out;
    const std::string text = run_output("filefrag -v " + path);
    std::smatch m;
    if (!std::regex_search(text, m, std::regex("blocks of (\\d+) bytes")))
        return out;
    const int64_t block = std::stoll(m[1]);
    const std::regex row("^\\s*\\d+:\\s+(\\d+)\\.\\.\\s*(\\d+):\\s+(\\d+)\\.\\.\\s*(\\d+):\\s+(\\d+):");
    std::istringstream lines(text);
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
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
