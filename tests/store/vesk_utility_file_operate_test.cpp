// File operators, failures through the system-call seam, the block operator's classification.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"
#include "store/vesk_utility_block_file.h"
#include "store/vesk_utility_file_operate.h"
#include "store/vesk_utility_file_sys.h"
#include "core/vesk_utility_registry.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

std::string file_path(const char* name)
{
    return vesk_test::private_root() + "/" + name;
}

std::vector<unsigned char> pattern(size_t n, unsigned seed)
{
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; i++)
        v[i] = static_cast<unsigned char>((i * 131 + seed) ^ (i >> 9));
    return v;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
}

// Puts the default system calls back whatever the test does.
struct sys_guard {
    ~sys_guard() { vesk_file_sys() = vesk_file_sys_default(); }
};
// Accepts 1000 bytes, then the disk is full.
ssize_t filling_pwrite(int fd, const void* buf, size_t count, off64_t offset)
{
    if (offset >= 1000) {
        errno = ENOSPC;
        return -1;
    }
    const size_t n = count < static_cast<size_t>(1000 - offset) ? count : static_cast<size_t>(1000 - offset);
    return pwrite64(fd, buf, n, offset);
}

} // namespace

TEST(BinaryFileOpsTest, CachedReadsSeeksAndAlignmentReturnTheFileBytes)
{
    const std::string path = file_path("bin_read.dat");
    const std::vector<unsigned char> data = pattern(200000, 3);
    binary_file_ops w;
    ASSERT_EQ(w.open(path.c_str(), VESK_FILE_CACHE_NORMAL, VESK_FILE_CREATE), VESK_OK);
    ASSERT_EQ(w.write(data.data(), 150000), 150000);
    ASSERT_EQ(w.write(data.data() + 150000, 50000), 50000);
    EXPECT_EQ(w.tell(), 200000);
    EXPECT_EQ(w.flush(), VESK_OK);
    EXPECT_EQ(w.close(), VESK_OK);

    for (unsigned cache : {0u, 4096u, 65536u}) {
        SCOPED_TRACE(cache);
        binary_file_ops r;
        r.set_rd_cache_size(cache);
        ASSERT_EQ(r.open(path.c_str(), VESK_FILE_CACHE_DIRECT, VESK_FILE_READ), VESK_OK);
        EXPECT_EQ(r.get_file_size(), 200000);
        std::vector<unsigned char> got(data.size());
        const unsigned steps[] = {1, 7, 1000, 4095, 4097, 70000, 13};
        for (size_t off = 0, i = 0, n = 0; off < got.size(); off += n, i++) {
            n = static_cast<size_t>(r.read(got.data() + off, steps[i % 7]));
            ASSERT_TRUE(n > 0 && n <= steps[i % 7]) << off;
        }
        EXPECT_EQ(got, data);
        EXPECT_EQ(r.read(got.data(), 1), 0); // end of file

        EXPECT_EQ(r.seek(-10, SEEK_END), VESK_OK);
        unsigned char tail[32];
        EXPECT_EQ(r.read(tail, sizeof(tail)), 10);
        EXPECT_EQ(memcmp(tail, data.data() + 199990, 10), 0);
        EXPECT_EQ(r.seek(12345, SEEK_SET), VESK_OK);
        EXPECT_EQ(r.seek(-345, SEEK_CUR), VESK_OK);
        EXPECT_EQ(r.tell(), 12000);
        EXPECT_EQ(r.align_fd_pos(4096), 12288);
        EXPECT_EQ(r.align_fd_pos(4096), 12288);
        EXPECT_EQ(r.align_fd_pos(3), -1);
        EXPECT_EQ(r.read(tail, 4), 4);
        EXPECT_EQ(memcmp(tail, data.data() + 12288, 4), 0);
        EXPECT_EQ(r.seek(-1, SEEK_SET), VESK_ERR_INVALID_PARAM);
        EXPECT_EQ(r.seek(0, 7), VESK_ERR_INVALID_PARAM);
        EXPECT_EQ(r.write(tail, 4), -1); // read model, whatever the size
        EXPECT_EQ(r.write(tail, 0), -1);
    }
}

TEST(BinaryFileOpsTest, OpenModesKeepAppendOrEmptyTheFile)
{
    const std::string path = file_path("bin_models.dat");
    unlink(path.c_str());
    binary_file_ops f;
    EXPECT_EQ(f.open(nullptr, 0, VESK_FILE_READ), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(f.open(path.c_str(), 0, 9), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(f.open(path.c_str(), 0, VESK_FILE_READ), VESK_ERR_OPERATE_FAIL); // missing
    EXPECT_EQ(f.read(nullptr, 0), -1); // not open

    ASSERT_EQ(f.open(path.c_str(), VESK_FILE_CACHE_DSYNC, VESK_FILE_WRITE), VESK_OK);
    EXPECT_EQ(f.open(path.c_str(), 0, VESK_FILE_WRITE), VESK_ERR_OPERATE_FAIL); // already open
    EXPECT_EQ(f.write("0123456789", 10), 10);
    f.close();
    ASSERT_EQ(f.open(path.c_str(), 0, VESK_FILE_WRITE), VESK_OK); // content kept, writes from 0
    EXPECT_EQ(f.write("ab", 2), 2);
    f.close();
    EXPECT_EQ(slurp(path), "ab23456789");
    ASSERT_EQ(f.open(path.c_str(), 0, VESK_FILE_APPEND), VESK_OK);
    EXPECT_EQ(f.tell(), 10);
    EXPECT_EQ(f.seek(0, SEEK_SET), VESK_OK);
    EXPECT_EQ(f.write("XY", 2), 2); // appends whatever the position
    EXPECT_EQ(f.tell(), 12);
    f.close();
    EXPECT_EQ(slurp(path), "ab23456789XY");
    // Read-write: a write through a cached region is seen by the next read.
    ASSERT_EQ(f.open(path.c_str(), 0, VESK_FILE_READ_WRITE), VESK_OK);
    char buf[16] = {};
    EXPECT_EQ(f.read(buf, 4), 4);
    EXPECT_EQ(f.seek(2, SEEK_SET), VESK_OK);
    EXPECT_EQ(f.write("--", 2), 2);
    EXPECT_EQ(f.seek(0, SEEK_SET), VESK_OK);
    EXPECT_EQ(f.read(buf, 6), 6);
    EXPECT_EQ(std::string(buf, 6), "ab--45");
    EXPECT_EQ(f.truncate(5), VESK_OK);
    EXPECT_EQ(f.get_file_size(), 5);
    EXPECT_EQ(f.seek(0, SEEK_SET), VESK_OK);
    EXPECT_EQ(f.read(buf, 16), 5);
    f.close();

    ASSERT_EQ(f.open(path.c_str(), 0, VESK_FILE_CREATE), VESK_OK);
    EXPECT_EQ(f.get_file_size(), 0);
    f.close();
}

TEST(BinaryFileOpsTest, SystemCallFailuresAreReported)
{
    sys_guard guard;
    const std::string path = file_path("bin_fail.dat");
    binary_file_ops f;
    vesk_file_sys().open = [](const char*, int, mode_t) { return errno = EIO, -1; };
    vesk_test::capture_stdout([&] { EXPECT_EQ(f.open(path.c_str(), 0, VESK_FILE_CREATE), VESK_ERR_IO); });
    vesk_file_sys().open = [](const char*, int, mode_t) { return errno = EACCES, -1; };
    EXPECT_EQ(f.open(path.c_str(), 0, VESK_FILE_CREATE), VESK_ERR_OPERATE_FAIL);
    vesk_file_sys() = vesk_file_sys_default();
    // The disk fills after 1000 bytes: a short count, then -1 when nothing fits.
    ASSERT_EQ(f.open(path.c_str(), 0, VESK_FILE_CREATE), VESK_OK);
    vesk_file_sys().pwrite = filling_pwrite;
    const std::vector<unsigned char> data = pattern(3000, 9);
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(f.write(data.data(), 3000), 1000);
        EXPECT_EQ(f.write(data.data(), 10), -1);
    });
    EXPECT_EQ(f.tell(), 1000);
    f.close();
    EXPECT_EQ(slurp(path), std::string(reinterpret_cast<const char*>(data.data()), 1000));
}

TEST(TxtFileOpsTest, LinesRoundTripAndLongLinesReportTheirLength)
{
    const std::string path = file_path("lines.txt");
    txt_file_ops w;
    ASSERT_EQ(w.open(path.c_str(), VESK_FILE_CREATE), VESK_OK);
    EXPECT_EQ(w.write_line("first"), 6);
    EXPECT_EQ(w.write_line(""), 1);
    EXPECT_EQ(w.write_fmt("ch%02d=%s\r\n", 7, "on"), 9);
    const std::string long_line(5000, 'x');
    EXPECT_EQ(w.write_line(long_line.c_str()), 5001);
    EXPECT_EQ(w.write_fmt("%s", "no end"), 6);
    w.close();

    txt_file_ops r;
    ASSERT_EQ(r.open(path.c_str(), VESK_FILE_READ), VESK_OK);
    // The '\r' is dropped; a long line is cut to the buffer and the rest of it skipped.
    char buf[16];
    const std::pair<int, std::string> lines[]
        = {{5, "first"}, {0, ""}, {7, "ch07=on"}, {5000, std::string(15, 'x')}, {6, "no end"}};
    for (const auto& line : lines) {
        EXPECT_EQ(r.read_line(buf, sizeof(buf)), line.first) << line.second;
        EXPECT_EQ(buf, line.second);
    }
    EXPECT_EQ(r.read_line(buf, sizeof(buf)), -1);
    EXPECT_EQ(r.write_line("x"), -1); // read model
    EXPECT_EQ(r.seek(0, SEEK_SET), VESK_OK);
    EXPECT_EQ(r.read_line(buf, 3), 5);
    EXPECT_STREQ(buf, "fi");
    r.close();
}

TEST(FileOperateApiDeathTest, OperatorsAreDeletedOnceAndASecondDeleteIsFatal)
{
    vesk_binary_file_operate* b = vesk_utility_new_binary_operate(0x41, "rec");
    vesk_txt_file_operate* t = vesk_utility_new_txt_operate(0x41, "cfg");
    vesk_block_file_operate* k = vesk_utility_new_block_operate(0x41, "blk");
    ASSERT_TRUE(b != nullptr && t != nullptr && k != nullptr);
    // Deleting an open operator closes its file.
    ASSERT_EQ(b->open(file_path("api.dat").c_str(), 0, VESK_FILE_CREATE), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_binary_operate(b, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_txt_operate(t, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_block_operate(k, "rec.cpp", "stop"), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_block_operate(nullptr, __FILE__, __func__), VESK_ERR_INVALID_PARAM);
    VESK_EXPECT_FATAL(vesk_utility_delete_block_operate(k, "rec.cpp", "stop"), "rec.cpp, stop delete invalid!");
}

TEST(BlockFileOpsTest, MountLookupTakesTheLongestCoveringMount)
{
    const std::string table = file_path("mounts.txt");
    FILE* f = fopen(table.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("/dev/root / ext4 rw 0 0\n"
          "proc /proc proc rw 0 0\n"
          "/dev/sda1 /mnt/disk1 xfs rw 0 0\n"
          "/dev/sdb1 /mnt/disk10 ext4 rw 0 0\n"
          "/dev/sdc1 /mnt/my\\040disk ext4 rw 0 0\n"
          "/dev/sdd1 /mnt/disk1 ext4 rw 0 0\n"
          "/dev/a-device-name-that-is-far-too-long-to-keep-in-sixty-three-chars /mnt/long ext4 rw 0 0\n",
        f);
    fclose(f);
    struct probe {
        const char* path;
        bool found;
        const char* dev;
        const char* type;
    };
    // The later of two mounts on one point hides the earlier; a name too long to keep is no match.
    const probe probes[] = {{"/mnt/disk1/rec/00001.dat", true, "/dev/sdd1", "ext4"},
        {"/mnt/disk10/00001.dat", true, "/dev/sdb1", "ext4"}, {"/mnt/disk1", true, "/dev/sdd1", "ext4"},
        {"/mnt/disk100/x", true, "/dev/root", "ext4"}, {"/mnt/my disk/x", true, "/dev/sdc1", "ext4"},
        {"/proc/self", true, "proc", "proc"}, {"/mnt/long/x", false, "", ""}, {"relative/x", false, "", ""}};
    for (const probe& p : probes) {
        FILE* t = fopen(table.c_str(), "r");
        char dev[64] = "", type[64] = "";
        EXPECT_EQ(vesk_find_mount(t, p.path, dev, sizeof(dev), type, sizeof(type)), p.found) << p.path;
        if (p.found) {
            EXPECT_EQ(std::string(dev) + " " + type, std::string(p.dev) + " " + p.type) << p.path;
        }
        fclose(t);
    }
}

TEST(BlockFileOpsTest, DeviceFlagsFollowTheModelAndCacheMode)
{
    // Cache modes 1 to 3 write through, 4 bypasses the page cache, others neither.
    const int by_mode[] = {0, O_DSYNC, O_DSYNC, O_DSYNC, O_DIRECT, 0};
    for (int mode = 0; mode <= 5; mode++) {
        EXPECT_EQ(block_file_ops::device_flags(1, mode), O_RDONLY | O_LARGEFILE | by_mode[mode]) << mode;
        EXPECT_EQ(block_file_ops::device_flags(2, mode), O_WRONLY | O_LARGEFILE | by_mode[mode]) << mode;
    }
    EXPECT_EQ(block_file_ops::device_flags(3, 0), -1);
}

TEST(BlockFileOpsTest, NetworkAndSnapshotFilesFallBackToTheBinaryOperator)
{
    mkdir(file_path("nas").c_str(), 0755);
    mkdir(file_path("vesk_pb_snap").c_str(), 0755);
    for (const char* name : {"nas/rec.dat", "vesk_pb_snap/rec.dat"}) {
        SCOPED_TRACE(name);
        const std::string path = file_path(name);
        const std::vector<unsigned char> data = pattern(10000, 5);
        block_file_ops w;
        ASSERT_EQ(w.open(path.c_str(), 0, VESK_BLOCK_WRITE, 0), VESK_OK);
        EXPECT_EQ(w.ops_type(), BLOCK_OPS_FILE);
        EXPECT_EQ(w.trunk_num(), 0u);
        EXPECT_EQ(w.write(data.data(), 6000), 6000);
        EXPECT_EQ(w.write(data.data() + 6000, 4000), 4000);
        EXPECT_EQ(w.get_fd_pos(), 10000);
        EXPECT_EQ(w.close(), VESK_OK);

        block_file_ops r;
        ASSERT_EQ(r.open(path.c_str(), 10000, VESK_BLOCK_READ, 0), VESK_OK);
        EXPECT_EQ(r.ops_type(), BLOCK_OPS_FILE);
        EXPECT_EQ(r.get_file_size(), 10000);
        std::vector<unsigned char> got(10000);
        EXPECT_EQ(r.seek(4000, SEEK_SET), VESK_OK);
        EXPECT_EQ(r.read(got.data() + 4000, 6000, 9000), 6000);
        EXPECT_EQ(r.seek(0, SEEK_SET), VESK_OK);
        EXPECT_EQ(r.read(got.data(), 10000, 4000), 4000);
        EXPECT_EQ(got, data);
        EXPECT_EQ(r.write(data.data(), 1), -1); // read model
    }
    block_file_ops idle;
    vesk_test::capture_stdout([&] {
        char b[4];
        EXPECT_EQ(idle.read(b, 4, 4), -1);
        EXPECT_EQ(idle.get_fd_pos(), -1);
        EXPECT_EQ(idle.seek(0, SEEK_SET), VESK_ERR_OPERATE_FAIL);
        EXPECT_EQ(idle.open(nullptr, 0, 1, 0), VESK_ERR_INVALID_PARAM);
        EXPECT_EQ(idle.open(file_path("nas/rec.dat").c_str(), 0, 3, 0), VESK_ERR_OPERATE_FAIL);
    });
}
