// Sequential throughput of the block operator (device writes with O_DSYNC, cache mode 1, and
// O_DIRECT, cache mode 4; device reads) against plain buffered write()+fdatasync and read() of
// the same preallocated file on the same ext4 loop image. Needs root and loop devices;
// without them every benchmark skips with the reason.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "../tests/store/loop_fs.h"
#include "vesk_utility.h"
#include "store/vesk_utility_block_file.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

constexpr size_t k_file_size = 16u << 20;
constexpr size_t k_io_size = 512u << 10; // one recording block per call

struct bench_disk {
    std::unique_ptr<vesk_test::loop_fs> fs;
    std::string why_not;
    std::string file;
    std::string dir;
    void* buf = nullptr;

    bench_disk()
    {
        char tmpl[] = "/tmp/vesk_file_bench.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            why_not = "mkdtemp failed";
            return;
        }
        dir = tmpl;
        fs = vesk_test::loop_fs::make(tmpl, "ext4", 64, why_not);
        if (fs == nullptr)
            return;
        file = fs->mnt() + "/rec.dat";
        if (posix_memalign(&buf, 4096, k_io_size) != 0) {
            why_not = "no memory";
            fs.reset();
            return;
        }
        memset(buf, 0x5A, k_io_size);
        // Preallocated by writing, as the recorder does.
        const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        bool ok = fd >= 0 && posix_fallocate(fd, 0, k_file_size) == 0;
        for (size_t off = 0; ok && off < k_file_size; off += k_io_size)
            ok = pwrite(fd, buf, k_io_size, static_cast<off_t>(off)) == static_cast<ssize_t>(k_io_size);
        ok = ok && fsync(fd) == 0;
        if (fd >= 0)
            close(fd);
        if (!ok) {
            why_not = "could not preallocate " + file;
            fs.reset();
        }
    }
    ~bench_disk()
    {
        free(buf);
        fs.reset(); // unmounted and detached before the folder goes
        if (!dir.empty())
            rmdir(dir.c_str());
    }
};

bench_disk& disk()
{
    static bench_disk s_disk;
    return s_disk;
}

bool ready(benchmark::State& state)
{
    if (disk().fs == nullptr) {
        state.SkipWithError(("needs root and loop devices: " + disk().why_not).c_str());
        return false;
    }
    return true;
}

void finish(benchmark::State& state)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(k_file_size));
}

void block_write(benchmark::State& state, int cache_mode)
{
    if (!ready(state))
        return;
    block_file_ops ops;
    for (auto _ : state) {
        if (ops.open(disk().file.c_str(), 0, VESK_BLOCK_WRITE, cache_mode) != VESK_OK) {
            state.SkipWithError("block open failed");
            return;
        }
        for (size_t off = 0; off < k_file_size; off += k_io_size)
            benchmark::DoNotOptimize(ops.write(disk().buf, k_io_size));
        ops.close();
    }
    finish(state);
}

void block_read(benchmark::State& state, int cache_mode)
{
    if (!ready(state))
        return;
    block_file_ops ops;
    for (auto _ : state) {
        if (ops.open(disk().file.c_str(), k_file_size, VESK_BLOCK_READ, cache_mode) != VESK_OK) {
            state.SkipWithError("block open failed");
            return;
        }
        size_t done = 0;
        while (done < k_file_size) {
            const int n = ops.read(disk().buf, k_io_size, k_io_size);
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        ops.close();
    }
    finish(state);
}

// Plain buffered writes through the file system, made durable once per pass.
void plain_write(benchmark::State& state)
{
    if (!ready(state))
        return;
    for (auto _ : state) {
        const int fd = open(disk().file.c_str(), O_WRONLY);
        for (size_t off = 0; off < k_file_size; off += k_io_size)
            benchmark::DoNotOptimize(write(fd, disk().buf, k_io_size));
        fdatasync(fd);
        close(fd);
    }
    finish(state);
}

// Plain buffered reads; the file's pages are dropped first so that each pass reads the disk.
void plain_read(benchmark::State& state)
{
    if (!ready(state))
        return;
    for (auto _ : state) {
        const int fd = open(disk().file.c_str(), O_RDONLY);
        posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        while (read(fd, disk().buf, k_io_size) > 0) { }
        close(fd);
    }
    finish(state);
}

} // namespace

BENCHMARK_CAPTURE(block_write, , 1)->Name("vesk_write_dsync")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(plain_write)->Name("baseline_write_dsync")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(block_write, , 4)->Name("vesk_write_direct")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(plain_write)->Name("baseline_write_direct")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(block_read, , 1)->Name("vesk_read_dsync")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(plain_read)->Name("baseline_read_dsync")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(block_read, , 4)->Name("vesk_read_direct")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(plain_read)->Name("baseline_read_direct")->Unit(benchmark::kMillisecond)->UseRealTime();
