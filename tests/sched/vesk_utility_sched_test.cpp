// The timer service with its real threads (the process's own instance), the watchdog that runs
// on it, and the thread registry. Waits are for conditions with generous deadlines; a check that
// something did NOT happen during a pause cannot fail on a correct service however slow.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "proxy_server_process.h"
#include "sched/vesk_utility_thread_pool.h"
#include "sched/vesk_utility_timer.h"
#include "sched/vesk_utility_watch_dog.h"
#include "test_support.h"
#include "core/vesk_utility_diagnose.h"
#include "core/vesk_utility_ground.h"
#include "core/vesk_utility_log.h"
#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using namespace vesk_test;

namespace vesk_utility
{

// Reads the service's lists and thread slots under their own locks.
class timer_probe
{
public:
    static vesk_utility_timer* timer() { return vesk_utility_res_manage::instance()->get_timer(); }

    // Nodes of a list with this callback and parameter.
    static int count(vesk_timer_queue* que, vesk_timer_callback func, void* param)
    {
        int n = 0;
        pthread_mutex_lock(&que->lock);
        for (vesk_timer_task_node* p = que->que_head; p != nullptr; p = p->next)
            n += (p->func == func && p->param == param) ? 1 : 0;
        pthread_mutex_unlock(&que->lock);
        return n;
    }
    static int waiting(vesk_timer_callback f, void* p, bool rt = false)
    {
        return count(rt ? &timer()->m_rt_set.wait : &timer()->m_comm_set.wait, f, p);
    }
    static int running(vesk_timer_callback f, void* p, bool rt = false)
    {
        return count(rt ? &timer()->m_rt_set.run : &timer()->m_comm_set.run, f, p);
    }
    static void insert_sorted(vesk_timer_queue* q, vesk_timer_task_node* n)
    {
        vesk_utility_timer::que_insert_sorted(q, n);
    }
};

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

void pause_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// A task whose every run is scripted by the test: what it returns and what it leaves in
// *next_ms; it records what it was given.
struct scripted {
    std::atomic<int> runs {0};
    std::atomic<unsigned> seen_next_ms {0};
    std::atomic<int> seen_type {-1};
    std::atomic<int> ret {VESK_TIMER_RET_CONTINUE};
    std::atomic<unsigned> set_next_ms {0}; // 0: leave *next_ms alone
    char thread_name[16] = {};
};

vesk_timer_ret_code scripted_cb(void* param, unsigned int* next_ms, vesk_timer_task_type* type)
{
    scripted* s = static_cast<scripted*>(param);
    s->seen_next_ms = *next_ms;
    s->seen_type = *type;
    prctl(PR_GET_NAME, s->thread_name, 0, 0, 0);
    if (s->set_next_ms != 0)
        *next_ms = s->set_next_ms;
    const vesk_timer_ret_code r = static_cast<vesk_timer_ret_code>(s->ret.load());
    s->runs++;
    return r;
}

// A task that holds its thread until released.
struct blocker {
    std::atomic<int> entered {0};
    std::atomic<bool> release {false};
    std::atomic<int> finished {0};
    int ret = VESK_TIMER_RET_DELETE;
};

vesk_timer_ret_code blocker_cb(void* param, unsigned int* next_ms, vesk_timer_task_type*)
{
    blocker* b = static_cast<blocker*>(param);
    b->entered++;
    while (!b->release)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    b->finished++;
    *next_ms = 10;
    return static_cast<vesk_timer_ret_code>(b->ret);
}

std::atomic<int> s_quick_runs {0};
vesk_timer_ret_code quick_once_cb(void*, unsigned int*, vesk_timer_task_type*)
{
    s_quick_runs++;
    return VESK_TIMER_RET_DELETE;
}

VESK_ERR regist(uint32_t user, vesk_timer_callback f, uint32_t purpose, unsigned ms, void* p, unsigned first_ms = 0,
    vesk_timer_task_type type = VESK_TIMER_TASK_COMMON)
{
    return vesk_utility_c_regist_timer(user, f, purpose, ms, p, type, first_ms);
}

std::atomic<int> s_reboots {0};

VESK_ERR count_reboot()
{
    s_reboots++;
    return VESK_OK;
}

// One check, as the timer would run it: what it returns and prints. Going on, it asks for 1000 ms.
vesk_timer_ret_code check(vesk_utility_watch_dog_manage& dogs, std::string* out = nullptr)
{
    unsigned next = 0;
    vesk_timer_task_type type = VESK_TIMER_TASK_COMMON;
    vesk_timer_ret_code ret = VESK_TIMER_RET_CONTINUE;
    const std::string said
        = capture_stdout([&] { ret = vesk_utility::vesk_utl_watch_dog_thread(&dogs, &next, &type); });
    EXPECT_TRUE(ret != VESK_TIMER_RET_CONTINUE || next == 1000u) << next;
    if (out != nullptr)
        *out = said;
    return ret;
}

// A local "reboot" that only leaves a mark, first on PATH; returns the mark's path.
std::string guard_reboot_command()
{
    const std::string bin = private_root() + "/bin";
    mkdir(bin.c_str(), 0755);
    const std::string mark = private_root() + "/local_reboot_ran";
    std::ofstream(bin + "/reboot") << "#!/bin/sh\ntouch " << mark << "\n";
    chmod((bin + "/reboot").c_str(), 0755);
    setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
    return mark;
}

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

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...)
{
    char line[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(line, sizeof(line), f, ap);
    va_end(ap);
    return line;
}

// What a diagnose command prints.
std::string diagnosed(utility_thread_pool& pool, int para)
{
    return without_log_messages(capture_stdout([&] { pool.diagnose(para, vesk_print_stdout); }));
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

TEST(TimerTest, CallbackDecidesContinueSuspendAndDeleteOnItsThreadGroup)
{
    scripted rt;
    rt.ret = VESK_TIMER_RET_DELETE;
    ASSERT_EQ(regist(0x42, scripted_cb, 0x1, 10, &rt, 0, VESK_TIMER_TASK_REAL_TIME), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return rt.runs == 1; }));
    EXPECT_EQ(rt.seen_type, VESK_TIMER_TASK_REAL_TIME);
    EXPECT_STREQ(rt.thread_name, "timer_realtime");
    EXPECT_TRUE(wait_for([&] { return timer_probe::running(scripted_cb, &rt, true) == 0; }));

    scripted s;
    s.set_next_ms = 10;
    ASSERT_EQ(regist(0x42, scripted_cb, 0x1234, 50, &s), VESK_OK);
    // The first run sees the registered interval; later runs the one the callback left.
    ASSERT_TRUE(wait_for([&] { return s.runs >= 1; }));
    EXPECT_EQ(s.seen_type, VESK_TIMER_TASK_COMMON);
    EXPECT_STREQ(s.thread_name, "timer_common");
    ASSERT_TRUE(wait_for([&] { return s.runs >= 3; }));
    EXPECT_EQ(s.seen_next_ms, 10u);

    s.ret = VESK_TIMER_RET_SUSPEND;
    const int before = s.runs;
    ASSERT_TRUE(wait_for([&] { return s.runs > before && timer_probe::waiting(scripted_cb, &s) == 1; }));
    const int suspended_at = s.runs;
    // Registering it again refills the node but does not wake it.
    ASSERT_EQ(regist(0x42, scripted_cb, 0x1234, 50, &s), VESK_OK);
    pause_ms(300);
    EXPECT_EQ(s.runs, suspended_at) << "a suspended task ran without a wake-up";

    // Wake-up with delay 0 runs it at once; DELETE then frees it and a later wake-up finds nothing.
    s.ret = VESK_TIMER_RET_DELETE;
    EXPECT_EQ(vesk_utility_c_timer_wakeup(scripted_cb, &s, 0, VESK_TIMER_TASK_ALL), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return s.runs == suspended_at + 1; }));
    ASSERT_TRUE(wait_for([&] { return timer_probe::running(scripted_cb, &s) == 0; }));
    EXPECT_EQ(timer_probe::waiting(scripted_cb, &s), 0);
    EXPECT_EQ(vesk_utility_c_timer_wakeup(scripted_cb, &s, 0, VESK_TIMER_TASK_COMMON), VESK_OK);
    pause_ms(300);
    EXPECT_EQ(s.runs, suspended_at + 1);
}

TEST(TimerTest, SameTaskRegisteredTwiceStaysOneNode)
{
    scripted s;
    s.ret = VESK_TIMER_RET_DELETE;
    vesk_test::capture_stdout([&] {
        ASSERT_EQ(regist(0x42, scripted_cb, 0x77, 10, &s, 3600000), VESK_OK);
        // Re-armed with the new first delay: it runs now instead of in an hour.
        ASSERT_EQ(regist(0x42, scripted_cb, 0x77, 10, &s), VESK_OK);
        ASSERT_TRUE(wait_for([&] { return s.runs == 1; }));
    });
    pause_ms(200);
    EXPECT_EQ(s.runs, 1) << "a second node ran";
}

TEST(TimerTest, UnregisterWaitsForTheRunOnlyWhenAskedAndNoRunFollows)
{
    for (int wait : {1, 0}) {
        blocker b;
        b.ret = VESK_TIMER_RET_CONTINUE;
        ASSERT_EQ(regist(0x51, blocker_cb, 0x52, 10, &b), VESK_OK);
        ASSERT_TRUE(wait_for([&] { return b.entered == 1; }));
        std::atomic<bool> returned {false};
        int finished_at_return = -1;
        vesk_test::capture_stdout([&] {
            std::thread t([&] {
                EXPECT_EQ(vesk_utility_c_unregist_timer(blocker_cb, &b, wait, VESK_TIMER_TASK_ALL), VESK_OK);
                finished_at_return = b.finished;
                returned = true;
            });
            pause_ms(200);
            EXPECT_EQ(returned, wait == 0) << "wait " << wait;
            b.release = true;
            t.join();
        });
        EXPECT_EQ(finished_at_return, wait != 0 ? 1 : 0);
        EXPECT_TRUE(wait_for([&] { return timer_probe::running(blocker_cb, &b) == 0; }));
        pause_ms(200);
        EXPECT_EQ(b.entered, 1) << "ran again after unregistration, wait " << wait;
    }

    // A registration right after an unregistration of a task found nowhere still runs.
    scripted s;
    s.ret = VESK_TIMER_RET_DELETE;
    ASSERT_EQ(vesk_utility_c_unregist_timer(scripted_cb, &s, 0, VESK_TIMER_TASK_ALL), VESK_OK);
    ASSERT_EQ(regist(0x42, scripted_cb, 0x1, 10, &s), VESK_OK);
    EXPECT_TRUE(wait_for([&] { return s.runs == 1; }));
}

TEST(TimerTest, TemporaryThreadsRunOverdueTasksWhileEveryCommonThreadIsHeld)
{
    ASSERT_EQ(vesk_utility_adj_comm_thr_num(5, 3), VESK_OK); // no new threads, three temporary slots
    // Five blockers hold the five common threads; eight quick tasks then fall behind, and only
    // temporary threads can run them.
    blocker b[5];
    for (blocker& x : b)
        ASSERT_EQ(regist(0x90, blocker_cb, 0x91, 10, &x), VESK_OK);
    for (blocker& x : b)
        ASSERT_TRUE(wait_for([&] { return x.entered == 1; }));
    std::vector<char> params(8);
    s_quick_runs = 0;
    vesk_test::capture_stdout([&] {
        for (char& p : params)
            ASSERT_EQ(regist(0x92, quick_once_cb, 0x93, 10, &p), VESK_OK);
        EXPECT_TRUE(wait_for([&] { return s_quick_runs == 8; }));
    });
    for (blocker& x : b)
        x.release = true;
    for (blocker& x : b)
        EXPECT_TRUE(wait_for([&] { return x.finished == 1; }));
}

TEST(TimerTest, SortedInsertionKeepsDueOrderArrivalOrderAndSuspendedAtTheTail)
{
    vesk_timer_queue q = {PTHREAD_MUTEX_INITIALIZER, nullptr, nullptr, 1, 0};
    // {second, nanosecond, suspended}, in arrival order.
    const uint32_t due[][3] = {{5, 0, 0}, {3, 0, 0}, {5, 0, 0}, {9, 0, 1}, {1, 0, 0}, {2, 0, 1}, {5, 700, 0},
        {5, 300, 0}, {3, 999999999, 0}};
    vesk_timer_task_node n[9] = {};
    for (uint32_t i = 0; i < 9; i++) {
        n[i].due_sec = due[i][0];
        n[i].due_nsec = due[i][1];
        n[i].suspended = due[i][2];
        n[i].usr_id = i;
        timer_probe::insert_sorted(&q, &n[i]);
    }
    std::vector<uint32_t> order;
    for (vesk_timer_task_node* p = q.que_head; p != nullptr; p = p->next)
        order.push_back(p->usr_id);
    // Due time first, equal ones in arrival order, then the suspended ones in arrival order.
    EXPECT_EQ(order, (std::vector<uint32_t> {4, 1, 8, 0, 2, 7, 6, 3, 5}));
    EXPECT_EQ(q.que_tail, &n[5]);
    EXPECT_EQ(q.que_head->pre, nullptr);
}

// One representative dump: the task table, its GB2312 titles, a row per kind of task.
TEST(TimerDiagTest, TaskTableHasItsTitlesAndRows)
{
    scripted suspended;
    suspended.ret = VESK_TIMER_RET_SUSPEND;
    ASSERT_EQ(regist(0x42, scripted_cb, 0x1234, 50, &suspended), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return timer_probe::waiting(scripted_cb, &suspended) == 1 && suspended.runs == 1; }));
    blocker running;
    ASSERT_EQ(regist(0x43, blocker_cb, 0x5678, 70, &running), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return running.entered == 1; }));
    scripted later;
    ASSERT_EQ(regist(0x44, scripted_cb, 0x9abc, 90, &later, 3600000, VESK_TIMER_TASK_REAL_TIME), VESK_OK);

    const auto dump = [](int para) {
        const std::string gb = vesk_test::without_log_messages(
            vesk_test::capture_stdout([&] { timer_probe::timer()->diagnose(para, vesk_print_stdout); }));
        std::string out(gb.size() * 2 + 1, '\0');
        uint32_t len = 0;
        EXPECT_EQ(vesk_utility_gb2312_to_utf8(gb.data(), static_cast<uint32_t>(gb.size()), &out[0],
                      static_cast<uint32_t>(out.size()), &len), VESK_OK);
        out.resize(len);
        return out;
    };
    // The tables are only try-locked: a service thread may hold a list at that moment, which
    // the dump reports instead of waiting; ask again.
    std::string tasks;
    ASSERT_TRUE(wait_for([&] { return (tasks = dump(1)).find("sorry, try lock fail!") == std::string::npos; }))
        << tasks;
    size_t at = 0;
    for (const char* title : {"常规任务: 等待执行的任务", "常规任务: 正在执行的任务", "实时任务: 等待执行的任务",
             "实时任务: 正在执行的任务--------------------------\nhave no task\n"})
        EXPECT_NE(at = tasks.find(title, at), std::string::npos) << title << " not in order in:\n" << tasks;
    const auto rows = [&](const std::string& row) {
        const std::regex re("\n" + row + " *\n");
        return std::distance(std::sregex_iterator(tasks.begin(), tasks.end(), re), std::sregex_iterator());
    };
    // Number, ids, last run and current time, interval, then the state: suspended, due in so
    // many ms; or, running, the time spent so far.
    EXPECT_EQ(rows("[0-9]+ +0x42 +0x1234 +[0-9.]+ +[0-9.]+ +50 +暂停执行"), 1) << tasks;
    EXPECT_EQ(rows("1 +0x44 +0x9abc +0\\.0 +[0-9.]+ +90 +还差[0-9]+"), 1) << tasks;
    EXPECT_EQ(rows("[0-9]+ +0x43 +0x5678 +[0-9.]+ +[0-9.]+ +70 +[0-9]+"), 1) << tasks;

    running.release = true;
    EXPECT_TRUE(wait_for([&] { return running.finished == 1; }));
}

TEST(TimerDeathTest, AdjustmentsAreOneTime)
{
    // A raise that adds threads, then any second adjustment.
    VESK_EXPECT_FATAL(
        {
            vesk_utility_adj_comm_thr_num(6, 0);
            vesk_utility_adj_comm_thr_num(7, 0);
        },
        ">Function: adj_comm_thr_num\n >Line No: [0-9]+\n >Condition: m_comm_thr_adj == NULL\n");
    VESK_EXPECT_FATAL(
        {
            vesk_utility_adj_comm_thr_num(5, 2);
            vesk_utility_adj_comm_thr_num(5, 0);
        },
        ">Condition: m_comm_thr_temp == NULL\n");
    // An adjustment that changes no thread count leaves the next one free...
    VESK_EXPECT_FATAL(
        {
            vesk_utility_adj_comm_thr_num(3, 0);
            vesk_utility_adj_comm_thr_num(6, 0);
            vesk_utility_adj_real_time_thr_num(2);
            vesk_utility_adj_real_time_thr_num(3);
            vesk_utility_adj_real_time_thr_num(3); // nothing to add: no effect
            vesk_utility_adj_real_time_thr_num(4);
        },
        // ...and the real-time group takes one raise after start-up.
        ">Function: adj_real_time_thr_num\n >Line No: [0-9]+\n >Condition: m_real_time_thr_adj == NULL\n");
    VESK_EXPECT_FATAL(timer_probe::timer()->~vesk_utility_timer(),
        ">Function: ~vesk_utility_timer\n >Line No: [0-9]+\n >Condition: 0\n");
    VESK_EXPECT_FATAL(utility_diagnose_thread(nullptr, nullptr, nullptr),
        ">Function: utility_diagnose_thread\n >Line No: [0-9]+\n >Condition: userParam != NULL\n");
}

// The watchdog: the check driven directly (one call is one second), and the reboot sequence
// against a proxy server that only records what it is asked to run. Nothing is rebooted:
// "reboot" on PATH is a stand-in that would leave a mark if it ever ran here.
TEST(WatchDogTest, RegistrationResetsAndHandlesAreNeverReused)
{
    vesk_utility_watch_dog_manage dogs(false);
    unsigned long a = 99, b = 99, c = 99, again = 99;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(5, 1, &a));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(6, 100, &b));
    EXPECT_EQ(std::make_pair(0ul, 1ul), std::make_pair(a, b));
    // Re-registration (same handle) and feeding set the counter back to 0: a dog with timeout
    // 1 survives any number of checks one apart.
    const auto survives = [&] {
        std::string out;
        return check(dogs, &out) == VESK_TIMER_RET_CONTINUE && out.find("Is Dead") == std::string::npos;
    };
    EXPECT_TRUE(survives());
    ASSERT_EQ(VESK_OK, dogs.regist_dog(5, 1, &again));
    EXPECT_TRUE(survives());
    ASSERT_EQ(VESK_OK, dogs.fetch_dog(a));
    EXPECT_TRUE(survives());
    EXPECT_EQ(a, again);

    EXPECT_EQ(VESK_OK, dogs.unregist_dog(b));
    EXPECT_EQ(VESK_OK, dogs.unregist_dog(b)); // unknown now: ignored
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, dogs.fetch_dog(b));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(7, 100, &c));
    EXPECT_EQ(2ul, c);
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, vesk_utility_regist_dog(1, 1, nullptr));
}

TEST(WatchDogTest, DeadDogWithCloseMarkerIsReportedEverySecondWithoutReboot)
{
    const std::string mark = guard_reboot_command(), marker = private_root() + "/config//close_dog";
    std::ofstream(marker).close();
    vesk_utility_watch_dog_manage dogs(false);
    dogs.regist_reboot_func(count_reboot);
    s_reboots = 0;
    unsigned long live = 0, dead = 0;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x40, 100, &live));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x41, 0, &dead));
    for (int second = 0; second < 2; second++) {
        std::string out;
        EXPECT_EQ(VESK_TIMER_RET_CONTINUE, check(dogs, &out));
        EXPECT_EQ(1, count_of(out, "System Need Reset Beacuse hand 0x1 purpose_id=0x41 Is Dead~!\n")) << out;
        EXPECT_NE(std::string::npos, out.find("common lock")); // the held-lock dump
    }
    EXPECT_EQ(0, s_reboots.load());
    EXPECT_NE(0, access(mark.c_str(), F_OK));
    unlink(marker.c_str());
}

TEST(WatchDogTest, DeadDogRebootsThroughTheFunctionThenTheProxyWithACauseRecord)
{
    const std::string mark = guard_reboot_command(), record = private_root() + "/proxy_record.txt";
    proxy_server_process server(private_root() + "/usr/lib/libmodel.socket", "--record-only " + record);
    ASSERT_TRUE(server.ready());

    vesk_utility_watch_dog_manage dogs(false);
    dogs.set_reboot_grace_ms(100);
    unsigned long hand = 0;
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x77, 0, &hand));
    // First without a reboot function: the command all the same.
    EXPECT_EQ(VESK_TIMER_RET_DELETE, check(dogs));
    EXPECT_EQ("reboot\n", read_file(record));

    // Timeout 3: three checks without a feed pass, the fourth calls the function, then the proxy.
    s_reboots = 0;
    dogs.regist_reboot_func(count_reboot);
    ASSERT_EQ(VESK_OK, dogs.unregist_dog(hand));
    ASSERT_EQ(VESK_OK, dogs.regist_dog(0x78, 3, &hand));
    for (int second = 0; second < 3; second++)
        EXPECT_EQ(VESK_TIMER_RET_CONTINUE, check(dogs));
    EXPECT_EQ(0, s_reboots.load());
    EXPECT_EQ(VESK_TIMER_RET_DELETE, check(dogs));
    EXPECT_EQ(1, s_reboots.load());
    EXPECT_EQ("reboot\nreboot\n", read_file(record));
    EXPECT_NE(0, access(mark.c_str(), F_OK)) << "the command ran here instead of in the proxy";

    // The cause record names the last dead dog of the list (0x78).
    vesk_xml_operate* xml = vesk_utility_new_xml_operate(VESK_USER_UTILITY, "wdt test");
    ASSERT_NE(nullptr, xml);
    ASSERT_EQ(VESK_OK, xml->load((private_root() + "/reserve/wdt_tag.xml").c_str()));
    char text[64];
    int v[3] = {-1, -1, -1};
    EXPECT_EQ(VESK_OK, xml->get_attr_int("info", "purpose", &v[0]));
    EXPECT_EQ(VESK_OK, xml->get_attr_int("info", "threshold", &v[1]));
    EXPECT_EQ(VESK_OK, xml->get_attr_int("info", "src", &v[2]));
    EXPECT_EQ(std::vector<int>({0x78, 3, 3}), std::vector<int>(v, v + 3));
    ASSERT_EQ(VESK_OK, xml->get_attr("info", "time", text, sizeof(text)));
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << text;
    EXPECT_EQ(VESK_OK, vesk_utility_delete_xml_operate(xml, __FILE__, __func__));
}

// The thread registry: real threads through the exported calls, the CPU view over a fixture
// /proc tree, the record list check, and the fatal paths.

TEST(ThreadPoolTest, JoinableThreadIsNamedRegisteredAndRetrieved)
{
    const uint32_t mem_before = vesk_ground::instance()->mem_account().total_size();
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
    EXPECT_EQ(diagnosed(live_pool(), 2).find("WARINNG"), std::string::npos); // found alive

    w.go = true;
    ASSERT_TRUE(wait_for([&] { return w.done.load(); }));
    EXPECT_EQ(w.exit_ret.load(), VESK_OK);
    EXPECT_NE(record_of(live_pool(), h).find(fmt("state %u", VESK_THREAD_EXITED)), std::string::npos); // kept
    EXPECT_EQ(vesk_utility_retrieve_thread(h), VESK_OK);
    EXPECT_EQ(record_of(live_pool(), h), "");
    EXPECT_EQ(vesk_ground::instance()->mem_account().total_size(), mem_before);
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
        return without_log_messages(
            capture_stdout([&] { probe::sample_and_print(pool, root, pid, show_all, vesk_print_stdout); }));
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
    probe::free_tables(pool);
}

TEST(ThreadPoolDiagnoseTest, RecordListFlagsThreadsThatDoNotExistAndNeverWaits)
{
    utility_thread_pool& pool = private_pool();
    add_record(pool, 0x7001, 1, 5, "never_entered", 0, nullptr, 4096);
    add_record(pool, 0x7002, 2, 40, "main_like", own_tid(), "the_test", 2 * 1048576, 1);
    const std::string out = diagnosed(pool, 2);
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
