// Thread registry: real threads through the exported calls, the CPU view over a fixture /proc
// tree and live, the record list check, and the fatal paths.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "proxy_server_process.h" // wait_for
#include "test_support.h"
#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"
#include "core/vesk_utility_ground.h"
#include "sched/vesk_utility_thread_pool.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::wait_for;

namespace vesk_utility
{

// Reaches the pool's private state; every access takes the pool lock as the pool itself does.
class thread_pool_probe
{
public:
    static bool record(utility_thread_pool& p, unsigned long h, vesk_thread_record& out)
    {
        held g(p);
        const vesk_thread_record* n = p.find_node(h);
        if (n != nullptr)
            out = *n;
        return n != nullptr;
    }
    static void save_hand(utility_thread_pool& p, unsigned long h, const vesk_thread_creat_ctl& ctl, const char* name)
    {
        held g(p);
        ASSERT_EQ(p.save_thr_hand(h, ctl, name), VESK_OK);
    }
    static void add_head(utility_thread_pool& p, vesk_thread_record* r) { p.add_node_head(r); }
    static pthread_mutex_t& lock(utility_thread_pool& p) { return p.m_lock; }
    static bool init_tables(utility_thread_pool& p) { return p.proc_init_node(); }
    static void free_tables(utility_thread_pool& p)
    {
        p.proc_free_node();
        p.m_view_busy = false;
    }
    // One sample of a fixture tree and its listing.
    static void sample_and_print(
        utility_thread_pool& p, const std::string& root, int pid, bool show_all, print_fn print)
    {
        held g(p);
        p.proc_sample(root.c_str(), pid);
        p.proc_print(show_all, print);
    }
private:
    struct held {
        explicit held(utility_thread_pool& p)
            : m(&p.m_lock)
        {
            pthread_mutex_lock(m);
        }
        ~held() { pthread_mutex_unlock(m); }
        pthread_mutex_t* m;
    };
};

} // namespace vesk_utility

namespace
{

using probe = vesk_utility::thread_pool_probe;

utility_thread_pool& live_pool()
{
    return *vesk_utility_res_manage::instance()->get_thread_pool();
}

// A pool of its own for a test; never destroyed (destruction is fatal by design).
utility_thread_pool& private_pool()
{
    return *vesk_test::never_destroyed(new utility_thread_pool());
}

uint32_t mem_total()
{
    return vesk_ground::instance()->mem_account().total_size();
}

std::string comm_of(int tid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string s;
    std::getline(in, s);
    return s;
}

int32_t own_tid()
{
    return static_cast<int32_t>(syscall(SYS_gettid));
}

std::string vfmt(const char* f, va_list ap)
{
    char line[512];
    vsnprintf(line, sizeof(line), f, ap);
    return line;
}

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...)
{
    va_list ap;
    va_start(ap, f);
    std::string s = vfmt(f, ap);
    va_end(ap);
    return s;
}

// The print function of the diagnostics, collecting into s_out.
std::string s_out;

int collect(const char* f, ...)
{
    va_list ap;
    va_start(ap, f);
    s_out += vfmt(f, ap);
    va_end(ap);
    return 0;
}

void reset_collect()
{
    s_out.clear();
}

// What one diagnose command prints.
const std::string& diagnosed(utility_thread_pool& pool, int para)
{
    reset_collect();
    pool.diagnose(para, collect);
    return s_out;
}

// The CPU view's header, and a row: the share in tenths of a percent and the record's columns,
// "-" where there is none (negative).
const std::string k_header = fmt("%5s %6s %6s %6s %32s %32s\n", "PID", "%CPU", "prio", "type", "Thread", "Function");
std::string cpu_row(int pid, int tenths, int prio = -1, int type = -1, const char* name = "-", const char* fn = "-")
{
    const auto col = [](int v, const std::string& s) { return v < 0 ? std::string("-") : s; };
    return fmt("%5d %6s %6s %6s %32s %32s\n", pid, col(tenths, fmt("%d.%d", tenths / 10, tenths % 10)).c_str(),
        col(prio, std::to_string(prio)).c_str(), col(type, std::to_string(type)).c_str(), name, fn);
}

// The record of a handle on one line; empty when there is none.
std::string record_of(utility_thread_pool& pool, unsigned long h)
{
    vesk_thread_record r;
    if (!probe::record(pool, h, r))
        return "";
    return fmt("pid %d, '%s' '%s', stack %u, type %u, prio %u, auto %d, state %u", r.pid, r.thread_name,
        r.function_name, r.stack_size, r.work_type, r.priority, r.auto_retrieve, r.state);
}

// A record as creation leaves it, then the thread's enter unless function is null.
void add_record(utility_thread_pool& pool, unsigned long h, uint32_t type, uint32_t prio, const char* name, int pid,
    const char* function, uint32_t stack = 0, VESK_BOOL auto_retrieve = 0)
{
    vesk_thread_creat_ctl c {};
    c.work_type = type;
    c.priority = prio;
    c.stack_size = stack;
    c.auto_retrieve = auto_retrieve;
    probe::save_hand(pool, h, c, name);
    if (function != nullptr) {
        ASSERT_EQ(pool.save_thr_pid(h, pid, function), VESK_OK);
    }
}

// What a registered routine reports back to the test.
struct worker {
    std::atomic<unsigned long> hand {0};
    std::atomic<int32_t> tid {0};
    std::atomic<bool> go {false};
    std::atomic<bool> done {false};
    std::atomic<VESK_ERR> enter_ret {0xFFFFFFFF};
    std::atomic<VESK_ERR> exit_ret {0xFFFFFFFF};
    std::atomic<size_t> stack {0};
    std::atomic<int> policy {-1};
    const char* function = "vesk_worker_function_name";
};

void* routine(void* arg)
{
    worker* w = static_cast<worker*>(arg);
    const unsigned long self = pthread_self();
    w->enter_ret = vesk_utility_enter_thread(self, w->function);
    w->tid = own_tid();
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        size_t size = 0;
        pthread_attr_getstacksize(&attr, &size);
        w->stack = size;
        pthread_attr_destroy(&attr);
    }
    sched_param sp;
    int policy = 0;
    pthread_getschedparam(pthread_self(), &policy, &sp);
    w->policy = policy;
    w->hand = self;
    while (!w->go)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    w->exit_ret = vesk_utility_exit_thread(self);
    w->done = true;
    return nullptr;
}

vesk_thread_creat_ctl ctl_for(worker& w, uint32_t type, VESK_BOOL auto_retrieve = 0, uint32_t stack = 0)
{
    vesk_thread_creat_ctl c {};
    c.work_type = type;
    c.thread_func = routine;
    c.thread_arg = &w;
    c.auto_retrieve = auto_retrieve;
    c.stack_size = stack;
    return c;
}

// Creates the thread through the exported call and waits until its routine has entered.
unsigned long start(worker& w, const vesk_thread_creat_ctl& c, const char* name)
{
    unsigned long h = 0;
    EXPECT_EQ(vesk_utility_creat_thread(&c, name, &h), VESK_OK);
    EXPECT_TRUE(wait_for([&] { return w.hand != 0; }));
    return h;
}

// A per-task stat line with the given times in fields 14 and 15.
std::string stat_line(int tid, const char* name, unsigned utime, unsigned stime)
{
    return fmt("%d (%s) S 1 1 1 0 -1 4194368 10 0 0 0 %u %u 0 0 20 0 1 0 100 0 0\n", tid, name, utime, stime);
}

} // namespace

TEST(ThreadPoolTest, JoinableThreadIsNamedRegisteredAndRetrieved)
{
    const uint32_t mem_before = mem_total();
    worker w;
    vesk_thread_creat_ctl c = ctl_for(w, VESK_THREAD_WORK_REAL_TIME, 0, 4096);
    c.priority = 10;
    const unsigned long h = start(w, c, "recorder_io");
    ASSERT_NE(h, 0ul);
    EXPECT_EQ(w.enter_ret.load(), VESK_OK);
    EXPECT_EQ(w.hand.load(), h);
    // The kernel keeps the first 15 characters of the function name. A 4 KiB stack request gets
    // the 512 KiB floor (the C library may add a guard page); the record keeps it as asked. The
    // scheduling is inherited: the control record's real-time policy gives way to the creator's.
    EXPECT_EQ(comm_of(w.tid), "vesk_worker_fun");
    EXPECT_GE(w.stack.load(), 524288u);
    EXPECT_LT(w.stack.load(), 1048576u);
    EXPECT_EQ(w.policy.load(), SCHED_OTHER);
    EXPECT_EQ(record_of(live_pool(), h),
        fmt("pid %d, 'recorder_io' 'vesk_worker_function_name', stack 4096, type 2, prio 10, auto 0, state %u",
            w.tid.load(), VESK_THREAD_RUNNING));
    EXPECT_EQ(diagnosed(live_pool(), 2).find("WARINNG"), std::string::npos) << s_out; // found alive

    w.go = true;
    ASSERT_TRUE(wait_for([&] { return w.done.load(); }));
    EXPECT_EQ(w.exit_ret.load(), VESK_OK);
    EXPECT_NE(record_of(live_pool(), h).find(fmt("state %u", VESK_THREAD_EXITED)), std::string::npos); // kept
    EXPECT_EQ(vesk_utility_retrieve_thread(h), VESK_OK);
    EXPECT_EQ(record_of(live_pool(), h), "");
    EXPECT_EQ(mem_total(), mem_before);
    vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_retrieve_thread(h), VESK_ERR_OPERATE_FAIL); });
}

TEST(ThreadPoolTest, AutoRetrieveRecordGoesAtExitAndRetrieveOnlyDropsIt)
{
    // Exit removes the record of a detached thread; retrieving it afterwards is an error.
    worker a;
    const unsigned long ha = start(a, ctl_for(a, VESK_THREAD_WORK_COMMON, 1), "detached_a");
    EXPECT_NE(record_of(live_pool(), ha).find("stack 0, type 1, prio 0, auto 1"), std::string::npos);
    a.go = true;
    ASSERT_TRUE(wait_for([&] { return a.done.load(); }));
    EXPECT_EQ(a.exit_ret.load(), VESK_OK);
    EXPECT_EQ(record_of(live_pool(), ha), "");
    vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_retrieve_thread(ha), VESK_ERR_OPERATE_FAIL); });

    // Retrieve of a detached thread still running: no join, the record goes, and the thread's
    // own exit then finds nothing.
    worker b;
    const unsigned long hb = start(b, ctl_for(b, VESK_THREAD_WORK_COMMON, 1), "detached_b");
    vesk_test::capture_stdout([&] {
        EXPECT_EQ(vesk_utility_retrieve_thread(hb), VESK_OK);
        EXPECT_FALSE(b.done.load()); // not joined: it is still waiting for go
        EXPECT_EQ(record_of(live_pool(), hb), "");
        b.go = true;
        ASSERT_TRUE(wait_for([&] { return b.done.load(); }));
    });
    EXPECT_EQ(b.exit_ret.load(), VESK_ERR_OPERATE_FAIL);
}

TEST(ThreadPoolTest, BadArgumentsCreateNothing)
{
    worker w;
    for (uint32_t type : {0u, 3u}) {
        const vesk_thread_creat_ctl c = ctl_for(w, type);
        unsigned long h = 0xABCDul;
        vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_creat_thread(&c, "bad", &h), VESK_ERR_NOT_SUPPORT); });
        EXPECT_EQ(h, 0xABCDul); // untouched
    }
    EXPECT_EQ(w.hand.load(), 0ul); // the routine never ran

    const vesk_thread_creat_ctl c = ctl_for(w, VESK_THREAD_WORK_COMMON);
    unsigned long h = 0;
    EXPECT_EQ(vesk_utility_creat_thread(nullptr, "x", &h), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_creat_thread(&c, "x", nullptr), VESK_ERR_INVALID_PARAM);
    vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_exit_thread(0x1234), VESK_ERR_OPERATE_FAIL); });
}

TEST(ThreadPoolTest, RecordAllocationFailureIsSurfacedOnlyByEnter)
{
    worker w;
    unsigned long h = 0;
    thread_pool_fail_record_alloc(true);
    vesk_test::capture_stdout([&] { h = start(w, ctl_for(w, VESK_THREAD_WORK_COMMON), "starved"); });
    thread_pool_fail_record_alloc(false);
    EXPECT_EQ(w.enter_ret.load(), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(comm_of(w.tid), "vesk_worker_fun"); // named all the same
    EXPECT_EQ(record_of(live_pool(), h), "");
    w.go = true;
    vesk_test::capture_stdout([&] { EXPECT_EQ(vesk_utility_retrieve_thread(h), VESK_ERR_OPERATE_FAIL); });
    EXPECT_EQ(pthread_join(h, nullptr), 0); // unregistered, so the caller joins it itself
}

TEST(ThreadPoolCpuTest, StatParsersReadTheRightColumns)
{
    uint64_t total = 0;
    EXPECT_TRUE(parse_system_stat("cpu  10 20 30 40 50 60 70 80 90\ncpu0 1 2 3 4 5 6 7\n", &total));
    EXPECT_EQ(total, 280u); // the first seven counters only
    EXPECT_FALSE(parse_system_stat("intr 1 2 3\n", &total));

    // A blank in the name shifts the columns by one: cminflt (0) and utime are read.
    vesk_cpu_sample e {}, shifted {}, short_line {};
    EXPECT_TRUE(parse_pid_stat(stat_line(321, "worker", 1234, 56).c_str(), &e));
    EXPECT_TRUE(parse_pid_stat(stat_line(321, "my worker", 1234, 56).c_str(), &shifted));
    EXPECT_EQ(std::vector<uint64_t>({e.utime, e.stime, e.stat_read, shifted.utime, shifted.stime}),
        std::vector<uint64_t>({1234, 56, 1, 0, 1234}));
    EXPECT_FALSE(parse_pid_stat("321 (w) S 1 1 1", &short_line));
    EXPECT_EQ(short_line.stat_read, 0u);

    vesk_test::capture_stdout([&] {
        EXPECT_FALSE(scanf_system_stat("/nonexistent/stat", &total));
        EXPECT_FALSE(scanf_pid_stat("/nonexistent/1/stat", &e));
    });
}

TEST(ThreadPoolCpuTest, TwoSamplesOfAFixtureTreeGiveExactShares)
{
    // Process 100 with threads 101 (registered) and 102 (idle, not registered). The main
    // thread's own task entry (100) is skipped: entry 0 stands for the whole process.
    const std::string root = vesk_test::private_root() + "/proc_fixture";
    for (int tid : {100, 101, 102})
        std::filesystem::create_directories(root + "/100/task/" + std::to_string(tid));
    auto write_sample = [&](unsigned total_base, unsigned proc, unsigned t101, unsigned t102) {
        std::ofstream(root + "/stat") << fmt("cpu  %u 0 0 0 0 0 0 0 0 0\n", total_base);
        std::ofstream(root + "/100/stat") << stat_line(100, "nvr", proc, 0);
        std::ofstream(root + "/100/task/100/stat") << stat_line(100, "nvr", 1, 0);
        std::ofstream(root + "/100/task/101/stat") << stat_line(101, "rec", t101, 2);
        std::ofstream(root + "/100/task/102/stat") << stat_line(102, "idle", t102, 0);
    };
    utility_thread_pool& pool = private_pool();
    auto listing = [&](int pid, bool show_all) {
        reset_collect();
        probe::sample_and_print(pool, root, pid, show_all, collect);
        return s_out;
    };
    add_record(pool, 0x5001, 2, 30, "recorder", 101, "rec_loop");
    ASSERT_TRUE(probe::init_tables(pool));
    EXPECT_FALSE(probe::init_tables(pool)); // one view at a time

    // First sample: no reference yet, so nothing passes the 0.1% filter...
    write_sample(1000, 500, 100, 7);
    EXPECT_EQ(listing(100, false), k_header);
    // ...second: 200 ticks elapsed; the process used 50, thread 101 used 33, thread 102 none.
    write_sample(1200, 550, 133, 7);
    EXPECT_EQ(listing(100, false), k_header + cpu_row(100, 250) + cpu_row(101, 165, 30, 2, "recorder", "rec_loop"));
    // Show-all keeps the idle thread, with 0.0, at the end.
    write_sample(1400, 551, 134, 7);
    EXPECT_EQ(listing(100, true),
        k_header + cpu_row(100, 5) + cpu_row(101, 5, 30, 2, "recorder", "rec_loop") + cpu_row(102, 0));

    // A process without a task directory is logged and leaves only entry 0.
    std::string listed;
    vesk_test::capture_stdout([&] { listed = listing(999, true); });
    EXPECT_EQ(listed, k_header + cpu_row(999, -1));
    probe::free_tables(pool);
}

TEST(ThreadPoolDiagnoseTest, RecordListFlagsThreadsThatDoNotExistAndNeverWaits)
{
    utility_thread_pool& pool = private_pool();
    add_record(pool, 0x7001, 1, 5, "never_entered", 0, nullptr, 4096);
    add_record(pool, 0x7002, 2, 40, "main_like", own_tid(), "the_test", 2 * 1048576, 1);
    const std::string& out = diagnosed(pool, 2);
    EXPECT_EQ(vesk_test::count_of(out, "WARINNG"), 1) << out;
    EXPECT_NE(out.find("WARINNG!! PID = 0, type = 1, priority = 5, thread_name = 'never_entered', function = '', "
                       "not exist"), std::string::npos) << out;
    EXPECT_EQ(diagnosed(pool, 3), "para = 0x3 not support!\n");
    // A busy registry is never waited for.
    pthread_mutex_lock(&probe::lock(pool));
    EXPECT_EQ(diagnosed(pool, 2), "sorry, try lock fail!\n");
    pthread_mutex_unlock(&probe::lock(pool));
}

TEST(ThreadPoolDeathTest, DestroyingThePoolAndInsertingARecordTwiceAreFatal)
{
    VESK_EXPECT_FATAL(delete new utility_thread_pool(),
        "ASSERT!\n >File name: .*vesk_utility_thread_pool.cpp\n >Function: ~utility_thread_pool\n "
        ">Line No: [0-9]+\n >Condition: 0\n");
    VESK_EXPECT_FATAL(
        {
            utility_thread_pool& pool = private_pool();
            static vesk_thread_record rec {};
            probe::add_head(pool, &rec);
            probe::add_head(pool, &rec);
        },
        ">Function: add_node_head\n >Line No: [0-9]+\n >Condition: node != node->pre\n");
}
