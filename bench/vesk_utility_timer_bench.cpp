// Dispatch lateness of periodic timer tasks (10, 100 and 1000 ms intervals; 50 and 400 tasks)
// against a baseline of one thread that sleeps with clock_nanosleep until the earliest due task
// of the same set; and the CPU the idle service costs per second against one thread waking
// every 100 ms (the longest sleep of an idle service thread), with the floor of eight such threads.
//
// Lateness is the start of a run minus its due time (the end of the previous run plus the
// interval, as both schedulers compute it); negative when a task started early. Counters: p50
// and p99 in microseconds. The reported time (what the ratio table compares) is the mean
// absolute lateness for dispatch, and the CPU seconds used per second for idle.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

int64_t mono_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct periodic_task {
    int64_t next_due_ns = 0; // 0 until the first run
    int64_t interval_ns = 0;
    std::vector<int64_t> late_ns; // one entry per run after the first
};

unsigned run_seconds(unsigned interval_ms)
{
    return interval_ms >= 1000 ? 5 : (interval_ms >= 100 ? 3 : 2);
}

void report(benchmark::State& state, std::vector<periodic_task>& tasks)
{
    std::vector<int64_t> all;
    for (periodic_task& t : tasks)
        all.insert(all.end(), t.late_ns.begin(), t.late_ns.end());
    if (all.empty()) {
        state.SkipWithError("no runs");
        return;
    }
    double abs_sum = 0;
    for (int64_t v : all)
        abs_sum += std::fabs(static_cast<double>(v));
    std::sort(all.begin(), all.end());
    state.SetIterationTime(abs_sum / all.size() / 1e9);
    state.counters["p50_us"] = all[all.size() / 2] / 1000.0;
    state.counters["p99_us"] = all[all.size() * 99 / 100] / 1000.0;
    state.counters["runs"] = static_cast<double>(all.size());
}

// ---- The timer service ---------------------------------------------------------------------

vesk_timer_ret_code lateness_cb(void* param, unsigned int*, vesk_timer_task_type*)
{
    periodic_task* t = static_cast<periodic_task*>(param);
    const int64_t now = mono_ns();
    if (t->next_due_ns != 0)
        t->late_ns.push_back(now - t->next_due_ns);
    t->next_due_ns = mono_ns() + t->interval_ns;
    return VESK_TIMER_RET_CONTINUE;
}

void vesk_dispatch(benchmark::State& state)
{
    const unsigned interval_ms = static_cast<unsigned>(state.range(0));
    const int count = static_cast<int>(state.range(1));
    for (auto _ : state) {
        std::vector<periodic_task> tasks(count);
        const unsigned secs = run_seconds(interval_ms);
        for (int i = 0; i < count; i++) {
            tasks[i].interval_ns = static_cast<int64_t>(interval_ms) * 1000000;
            tasks[i].late_ns.reserve(2 * secs * 1000 / interval_ms + 4);
            // Phases spread over one interval, as independent modules would register.
            vesk_utility_c_regist_timer(
                0x40, lateness_cb, 0x40, interval_ms, &tasks[i], VESK_TIMER_TASK_COMMON, interval_ms * i / count);
        }
        std::this_thread::sleep_for(std::chrono::seconds(secs));
        for (int i = 0; i < count; i++)
            vesk_utility_c_unregist_timer(lateness_cb, &tasks[i], 1, VESK_TIMER_TASK_COMMON);
        report(state, tasks);
    }
}

// ---- Baseline: one thread, clock_nanosleep to the earliest due task -------------------------

void baseline_dispatch(benchmark::State& state)
{
    const unsigned interval_ms = static_cast<unsigned>(state.range(0));
    const int count = static_cast<int>(state.range(1));
    for (auto _ : state) {
        std::vector<periodic_task> tasks(count);
        const unsigned secs = run_seconds(interval_ms);
        using entry = std::pair<int64_t, int>; // due, task
        std::priority_queue<entry, std::vector<entry>, std::greater<entry>> heap;
        const int64_t start = mono_ns();
        for (int i = 0; i < count; i++) {
            tasks[i].interval_ns = static_cast<int64_t>(interval_ms) * 1000000;
            tasks[i].late_ns.reserve(2 * secs * 1000 / interval_ms + 4);
            heap.push({start + tasks[i].interval_ns * i / count, i});
        }
        std::thread worker([&] {
            const int64_t end = start + static_cast<int64_t>(secs) * 1000000000;
            while (!heap.empty() && heap.top().first < end) {
                const entry e = heap.top();
                heap.pop();
                const timespec due
                    = {static_cast<time_t>(e.first / 1000000000), static_cast<long>(e.first % 1000000000)};
                while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) != 0) { }
                periodic_task& t = tasks[e.second];
                const int64_t now = mono_ns();
                if (t.next_due_ns != 0)
                    t.late_ns.push_back(now - t.next_due_ns);
                t.next_due_ns = mono_ns() + t.interval_ns;
                heap.push({t.next_due_ns, e.second});
            }
        });
        worker.join();
        report(state, tasks);
    }
}

// ---- Idle CPU ------------------------------------------------------------------------------

// On-CPU nanoseconds of one thread (first field of its schedstat).
int64_t thread_cpu_ns(const std::string& tid)
{
    const std::string path = "/proc/self/task/" + tid + "/schedstat";
    FILE* fp = fopen(path.c_str(), "r");
    if (fp == nullptr)
        return 0;
    long long ns = 0;
    if (fscanf(fp, "%lld", &ns) != 1)
        ns = 0;
    fclose(fp);
    return ns;
}

// Sum over the service's threads, recognised by their kernel names.
int64_t service_cpu_ns()
{
    int64_t sum = 0;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr)
        return 0;
    while (dirent* d = readdir(dir)) {
        if (d->d_name[0] == '.')
            continue;
        const std::string comm_path = std::string("/proc/self/task/") + d->d_name + "/comm";
        char comm[32] = {};
        FILE* fp = fopen(comm_path.c_str(), "r");
        if (fp == nullptr)
            continue;
        const bool ok = fgets(comm, sizeof(comm), fp) != nullptr;
        fclose(fp);
        if (ok && strncmp(comm, "timer_", 6) == 0)
            sum += thread_cpu_ns(d->d_name);
    }
    closedir(dir);
    return sum;
}

constexpr int k_idle_seconds = 3;

void vesk_idle_cpu(benchmark::State& state)
{
    for (auto _ : state) {
        const int64_t before = service_cpu_ns();
        std::this_thread::sleep_for(std::chrono::seconds(k_idle_seconds));
        const double per_sec = (service_cpu_ns() - before) / 1e9 / k_idle_seconds;
        state.SetIterationTime(per_sec);
        state.counters["cpu_us_per_s"] = per_sec * 1e6;
    }
}

// CPU per second of `threads` bare sleepers, each waking every 100 ms with nothing to do.
void run_sleepers(benchmark::State& state, int threads)
{
    for (auto _ : state) {
        std::atomic<int64_t> used {0};
        std::vector<std::thread> sleepers;
        for (int t = 0; t < threads; t++)
            sleepers.emplace_back([&used] {
                const std::string tid = std::to_string(syscall(SYS_gettid));
                const int64_t before = thread_cpu_ns(tid);
                int64_t due = mono_ns();
                for (int i = 0; i < k_idle_seconds * 10; i++) {
                    due += 100000000;
                    const timespec ts = {static_cast<time_t>(due / 1000000000), static_cast<long>(due % 1000000000)};
                    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) != 0) { }
                }
                used += thread_cpu_ns(tid) - before;
            });
        for (std::thread& t : sleepers)
            t.join();
        const double per_sec = used / 1e9 / k_idle_seconds;
        state.SetIterationTime(per_sec > 0 ? per_sec : 1e-9);
        state.counters["cpu_us_per_s"] = per_sec * 1e6;
    }
}

void baseline_idle_cpu(benchmark::State& state)
{
    run_sleepers(state, 1);
}

// The floor of the timer's rules: its eight threads (five common, two real-time, the check
// thread) each sleeping at most 100 ms, with nothing to do when they wake.
void floor_idle_cpu(benchmark::State& state)
{
    run_sleepers(state, 8);
}

void dispatch_args(benchmark::internal::Benchmark* b)
{
    for (int interval : {10, 100, 1000}) {
        for (int tasks : {50, 400})
            b->Args({interval, tasks});
    }
    b->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
}

} // namespace

BENCHMARK(baseline_dispatch)->Apply(dispatch_args);
BENCHMARK(vesk_dispatch)->Apply(dispatch_args);
BENCHMARK(baseline_idle_cpu)->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(vesk_idle_cpu)->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(floor_idle_cpu)->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
