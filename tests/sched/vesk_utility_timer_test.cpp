// The timer service with its real threads, in the process's own instance. Waits are for
// conditions with generous deadlines; nothing asserts a duration. Checks that something did NOT
// happen during a pause cannot fail on a correct service however slow the machine.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "proxy_server_process.h" // wait_for
#include "sched/vesk_utility_timer.h"
#include "test_support.h"
#include "core/vesk_utility_diagnose.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;
using vesk_test::wait_for;

namespace vesk_utility
{

// Reads the service's lists and thread slots under their own locks.
class timer_probe
{
public:
    static vesk_utility_timer* timer() { return vesk_utility_res_manage::instance()->get_timer(); }

    // Nodes of a list with this callback (any when null) and parameter (any when null).
    static int count(vesk_timer_queue* que, vesk_timer_callback func, void* param)
    {
        int n = 0;
        pthread_mutex_lock(&que->lock);
        for (vesk_timer_task_node* p = que->que_head; p != nullptr; p = p->next)
            n += ((func == nullptr || p->func == func) && (param == nullptr || p->param == param)) ? 1 : 0;
        pthread_mutex_unlock(&que->lock);
        return n;
    }
    static int waiting(vesk_timer_callback f, void* p = nullptr, bool rt = false)
    {
        return count(rt ? &timer()->m_rt_set.wait : &timer()->m_comm_set.wait, f, p);
    }
    static int running(vesk_timer_callback f, void* p = nullptr, bool rt = false)
    {
        return count(rt ? &timer()->m_rt_set.run : &timer()->m_comm_set.run, f, p);
    }
    static bool in_slot(vesk_timer_callback f, void* p)
    {
        pthread_mutex_lock(&timer()->m_slot_lock);
        const bool in = timer()->m_slot != nullptr && timer()->m_slot->func == f && timer()->m_slot->param == p;
        pthread_mutex_unlock(&timer()->m_slot_lock);
        return in;
    }
    static bool marked(vesk_timer_callback f, void* p) { return timer()->has_del_mark(f, p); }
    static uint32_t node_total() { return timer()->m_node_total; }
    static uint32_t free_nodes() { return static_cast<uint32_t>(count(&timer()->m_free_que, nullptr, nullptr)); }
    // States of the temporary slots (empty while there are none).
    static std::vector<uint32_t> temp_states()
    {
        std::vector<uint32_t> s;
        pthread_mutex_lock(&timer()->m_thr_lock);
        for (uint32_t i = 0; i < timer()->m_comm_thr_temp_num; i++)
            s.push_back(timer()->m_comm_thr_temp[i].state);
        pthread_mutex_unlock(&timer()->m_thr_lock);
        return s;
    }
    static void insert_sorted(vesk_timer_queue* q, vesk_timer_task_node* n)
    {
        vesk_utility_timer::que_insert_sorted(q, n);
    }
    static vesk_timer_task_node* fetch(vesk_timer_task_set* set, uint32_t* wait)
    {
        return timer()->fetch_que(set, k_timer_comm_backoff_us, wait);
    }
};

} // namespace vesk_utility

namespace
{

using clock_type = std::chrono::steady_clock;

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
    std::atomic<int>* concurrent = nullptr; // optional: running count
    std::atomic<int>* peak = nullptr;
    int ret = VESK_TIMER_RET_DELETE;
};

vesk_timer_ret_code blocker_cb(void* param, unsigned int* next_ms, vesk_timer_task_type*)
{
    blocker* b = static_cast<blocker*>(param);
    if (b->concurrent != nullptr) {
        const int now = ++*b->concurrent;
        int p = b->peak->load();
        while (now > p && !b->peak->compare_exchange_weak(p, now)) { }
    }
    b->entered++;
    while (!b->release)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (b->concurrent != nullptr)
        --*b->concurrent;
    b->finished++;
    *next_ms = 10;
    return static_cast<vesk_timer_ret_code>(b->ret);
}

// The sum of one counter over a group of blockers.
template <size_t N> int total(blocker (&group)[N], std::atomic<int> blocker::*counter)
{
    int n = 0;
    for (blocker& x : group)
        n += (x.*counter).load();
    return n;
}

std::atomic<int> s_quick_runs {0};
vesk_timer_ret_code quick_once_cb(void*, unsigned int*, vesk_timer_task_type*)
{
    s_quick_runs++;
    return VESK_TIMER_RET_DELETE;
}

// Lines of `text` that contain `needle`.
std::vector<std::string> lines_with(const std::string& text, const std::string& needle)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.find(needle) != std::string::npos)
            out.push_back(line);
    }
    return out;
}

} // namespace

TEST(TimerTest, CallbackDecidesContinueSuspendAndDeleteOnItsThreadGroup)
{
    scripted rt;
    rt.ret = VESK_TIMER_RET_DELETE;
    ASSERT_EQ(vesk_utility_c_regist_timer(0x42, scripted_cb, 0x1, 10, &rt, VESK_TIMER_TASK_REAL_TIME, 0), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return rt.runs == 1; }));
    EXPECT_EQ(rt.seen_type, VESK_TIMER_TASK_REAL_TIME);
    EXPECT_STREQ(rt.thread_name, "timer_realtime");
    EXPECT_TRUE(wait_for([&] { return timer_probe::running(scripted_cb, &rt, true) == 0; }));

    scripted s;
    s.set_next_ms = 10;
    ASSERT_EQ(vesk_utility_c_regist_timer(0x42, scripted_cb, 0x1234, 50, &s, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
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
    ASSERT_EQ(vesk_utility_c_regist_timer(0x42, scripted_cb, 0x1234, 50, &s, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
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
    const std::string out = vesk_test::capture_stdout([&] {
        ASSERT_EQ(
            vesk_utility_c_regist_timer(0x42, scripted_cb, 0x77, 10, &s, VESK_TIMER_TASK_COMMON, 3600000), VESK_OK);
        // Re-armed with the new first delay: it runs now instead of in an hour.
        ASSERT_EQ(vesk_utility_c_regist_timer(0x42, scripted_cb, 0x77, 10, &s, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
        EXPECT_LE(timer_probe::waiting(scripted_cb, &s) + timer_probe::running(scripted_cb, &s), 1);
        ASSERT_TRUE(wait_for([&] { return s.runs == 1; }));
    });
    EXPECT_NE(out.find("[UTL] DEBUG! vesk_utility_timer::regist_c_func["), std::string::npos) << out;
    EXPECT_NE(out.find("user_id = 0x42, purpose_id = 0x77, already exist!\n"), std::string::npos) << out;
    pause_ms(200);
    EXPECT_EQ(s.runs, 1) << "a second node ran";

    // While the task runs, registering it again changes nothing: the run requeues it.
    blocker b;
    b.ret = VESK_TIMER_RET_CONTINUE;
    ASSERT_EQ(vesk_utility_c_regist_timer(0x42, blocker_cb, 0x78, 10, &b, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return b.entered == 1; }));
    EXPECT_EQ(vesk_utility_c_regist_timer(0x42, blocker_cb, 0x78, 10, &b, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(blocker_cb, &b), 0);
    EXPECT_EQ(timer_probe::running(blocker_cb, &b), 1);
    b.release = true;
    ASSERT_TRUE(wait_for([&] { return b.finished >= 1; }));
    EXPECT_EQ(vesk_utility_c_unregist_timer(blocker_cb, &b, 1, VESK_TIMER_TASK_COMMON), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(blocker_cb, &b) + timer_probe::running(blocker_cb, &b), 0);
}

TEST(TimerTest, UnregisterWithWaitReturnsOnlyAfterTheRunEnds)
{
    blocker b;
    b.ret = VESK_TIMER_RET_CONTINUE;
    ASSERT_EQ(vesk_utility_c_regist_timer(0x51, blocker_cb, 0x52, 10, &b, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return b.entered == 1; }));

    std::atomic<bool> returned {false};
    int finished_at_return = -1;
    std::string out = vesk_test::capture_stdout([&] {
        std::thread t([&] {
            EXPECT_EQ(vesk_utility_c_unregist_timer(blocker_cb, &b, 1, VESK_TIMER_TASK_ALL), VESK_OK);
            finished_at_return = b.finished;
            returned = true;
        });
        pause_ms(200);
        EXPECT_FALSE(returned) << "returned while the callback was still running";
        b.release = true;
        t.join();
    });
    EXPECT_EQ(finished_at_return, 1);
    EXPECT_NE(out.find("user_id = 0x51, purpose_id = 0x52, usr_para = "), std::string::npos) << out;
    EXPECT_NE(out.find(" wait_time = 0ms!\n"), std::string::npos) << out;
    EXPECT_EQ(timer_probe::waiting(blocker_cb, &b) + timer_probe::running(blocker_cb, &b), 0);
    EXPECT_FALSE(timer_probe::marked(blocker_cb, &b));
    pause_ms(200);
    EXPECT_EQ(b.entered, 1) << "ran again after unregistration";

    // Without wait it returns while the run goes on; the node goes when the callback returns.
    blocker c;
    c.ret = VESK_TIMER_RET_CONTINUE;
    ASSERT_EQ(vesk_utility_c_regist_timer(0x51, blocker_cb, 0x53, 10, &c, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return c.entered == 1; }));
    EXPECT_EQ(vesk_utility_c_unregist_timer(blocker_cb, &c, 0, VESK_TIMER_TASK_COMMON), VESK_OK);
    EXPECT_EQ(c.finished, 0);
    EXPECT_EQ(timer_probe::running(blocker_cb, &c), 1);
    c.release = true;
    ASSERT_TRUE(
        wait_for([&] { return timer_probe::running(blocker_cb, &c) == 0 && !timer_probe::marked(blocker_cb, &c); }));
    EXPECT_EQ(timer_probe::waiting(blocker_cb, &c), 0);
    pause_ms(200);
    EXPECT_EQ(c.entered, 1);
}

TEST(TimerTest, MarkForATaskFoundNowhereExpiresAndRegistrationClearsIt)
{
    scripted s;
    s.ret = VESK_TIMER_RET_DELETE;
    // Nothing to remove: the mark stays about a second in case the task was moving, then goes.
    ASSERT_EQ(vesk_utility_c_unregist_timer(scripted_cb, &s, 0, VESK_TIMER_TASK_ALL), VESK_OK);
    EXPECT_TRUE(timer_probe::marked(scripted_cb, &s));
    EXPECT_TRUE(wait_for([&] { return !timer_probe::marked(scripted_cb, &s); }));

    // A registration right after an unregistration is not eaten by the fresh mark.
    ASSERT_EQ(vesk_utility_c_unregist_timer(scripted_cb, &s, 0, VESK_TIMER_TASK_ALL), VESK_OK);
    ASSERT_EQ(vesk_utility_c_regist_timer(0x42, scripted_cb, 0x1, 10, &s, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    EXPECT_FALSE(timer_probe::marked(scripted_cb, &s));
    EXPECT_TRUE(wait_for([&] { return s.runs == 1; }));

    // Unregistering a waiting task frees it at once.
    ASSERT_EQ(vesk_utility_c_regist_timer(0x42, scripted_cb, 0x1, 10, &s, VESK_TIMER_TASK_REAL_TIME, 3600000), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(scripted_cb, &s, true), 1);
    ASSERT_EQ(vesk_utility_c_unregist_timer(scripted_cb, &s, 1, VESK_TIMER_TASK_REAL_TIME), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(scripted_cb, &s, true), 0);
    EXPECT_FALSE(timer_probe::marked(scripted_cb, &s));
}

TEST(TimerTest, TasksBeyondThePoolTakeOverflowNodesAndStillRun)
{
    constexpr int k_tasks = 430; // the pool has 428 nodes, two held by the agent's poll and the event check
    std::vector<char> params(k_tasks);
    s_quick_runs = 0;
    const std::string out = vesk_test::capture_stdout([&] {
        for (int i = 0; i < k_tasks; i++)
            ASSERT_EQ(
                vesk_utility_c_regist_timer(0x60, quick_once_cb, 0x61, 10, &params[i], VESK_TIMER_TASK_COMMON, 1000),
                VESK_OK);
        EXPECT_TRUE(wait_for([&] { return s_quick_runs == k_tasks; }));
    });
    EXPECT_GE(vesk_test::count_of(out, "m_task_node_pool_num = 428 overflow!\n"), 2) << out;
    EXPECT_GT(timer_probe::node_total(), 428u);
    // Every node, overflow ones included, is back on the free list but those of the layer's own
    // tasks: the agent's poll, the event check, the command client's receive step and the
    // watchdog's check.
    constexpr unsigned k_service_tasks = 4;
    EXPECT_TRUE(wait_for([&] { return timer_probe::free_nodes() == timer_probe::node_total() - k_service_tasks; }));
}

TEST(TimerTest, NoSleepTaskRunsBackToBackWithOneWarningPerRun)
{
    struct counter {
        std::atomic<int> runs {0};
    } c;
    const auto cb = [](void* param, unsigned int* next_ms, vesk_timer_task_type*) {
        counter* k = static_cast<counter*>(param);
        *next_ms = 0;
        return ++k->runs < 4 ? VESK_TIMER_RET_CONTINUE : VESK_TIMER_RET_DELETE;
    };
    const std::string out = vesk_test::capture_stdout([&] {
        ASSERT_EQ(vesk_utility_c_regist_timer(0x71, cb, 0x72, 10, &c, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
        ASSERT_TRUE(wait_for([&] { return c.runs == 4; }));
        ASSERT_TRUE(wait_for([&] { return timer_probe::running(cb, &c) == 0; }));
    });
    // The three identical warnings come within 10 s: the first is printed, the others counted.
    EXPECT_EQ(vesk_test::count_of(out, "[UTL] WARNING! timer_task_thread["), 1) << out;
    EXPECT_EQ(vesk_test::count_of(out, "user_id = 0x71, purpose_id = 0x72 no sleep!\n"), 1) << out;
}

TEST(TimerTest, LimitedPurposeRunsAtMostTwoAtOnceByDefault)
{
    std::atomic<int> concurrent {0};
    std::atomic<int> peak {0};
    blocker b[4];
    for (blocker& x : b) {
        x.concurrent = &concurrent;
        x.peak = &peak;
        ASSERT_EQ(vesk_utility_c_regist_timer(
                      0x80, blocker_cb, VESK_TIMER_PURPOSE_LIMITED, 10, &x, VESK_TIMER_TASK_COMMON, 0),
            VESK_OK);
    }
    ASSERT_TRUE(wait_for([&] { return concurrent == 2; }));
    pause_ms(400); // three idle threads fetch the other two meanwhile, and must put them back
    EXPECT_EQ(peak, 2);
    for (blocker& x : b)
        x.release = true;
    EXPECT_TRUE(wait_for([&] { return total(b, &blocker::finished) == 4; }));
    EXPECT_EQ(peak, 2);
}

TEST(TimerTest, RotationSlotIsPulledForwardByTheAllocatorAtMostEvery200ms)
{
    scripted s;
    s.set_next_ms = 3600000;
    ASSERT_EQ(vesk_utility_c_regist_timer(
                  0x13, scripted_cb, VESK_TIMER_PURPOSE_ROTATE, 600, &s, VESK_TIMER_TASK_COMMON, 3600000),
        VESK_OK);
    EXPECT_EQ(timer_probe::waiting(scripted_cb, &s), 0) << "the slot task is in no queue";
    EXPECT_TRUE(timer_probe::in_slot(scripted_cb, &s));
    const auto first_pull = clock_type::now();
    timer_rotate_waker();
    ASSERT_TRUE(wait_for([&] { return s.runs == 1; }));
    // A second pull within 200 ms of the first is ignored (checked only when the machine was
    // quick enough to make it in time).
    timer_rotate_waker();
    const auto second_pull = clock_type::now();
    if (second_pull - first_pull < std::chrono::milliseconds(150)) {
        pause_ms(400);
        EXPECT_EQ(s.runs, 1) << "pulled again within 200 ms";
    }
    std::this_thread::sleep_until(second_pull + std::chrono::milliseconds(250));
    ASSERT_TRUE(wait_for([&] { return timer_probe::in_slot(scripted_cb, &s); }));
    const int before = s.runs;

    // The allocator's path: an A/V cache block that reaches the rotation threshold.
    vesk_mem_set_av_limits(4096, 1 << 20);
    std::string out;
    void* block = nullptr;
    out = vesk_test::capture_stdout([&] { block = vesk_malloc(VESK_USER_AV_CACHE, 0x9110C, 8192, 1); });
    ASSERT_NE(block, nullptr);
    EXPECT_NE(out.find("wakeup_rotate!"), std::string::npos) << out;
    EXPECT_TRUE(wait_for([&] { return s.runs == before + 1; }));
    vesk_free(__FILE__, __func__, block);
}

TEST(TimerTest, FetchWatchdogRunsOnTheCheckThreadAndMayStretchItsInterval)
{
    struct wd {
        std::atomic<int> calls {0};
        std::atomic<bool> type_null {true};
    } w;
    const auto cb = [](void* param, unsigned int* next_ms, vesk_timer_task_type* type) {
        wd* x = static_cast<wd*>(param);
        if (type != nullptr)
            x->type_null = false;
        if (++x->calls == 3)
            *next_ms = 3600000;
        return VESK_TIMER_RET_CONTINUE;
    };
    ASSERT_EQ(vesk_utility_c_regist_fetch_wd_timer(cb, 20, &w), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return w.calls >= 3; }));
    pause_ms(400);
    EXPECT_EQ(w.calls, 3) << "the stretched interval was not kept";
    EXPECT_TRUE(w.type_null);
    EXPECT_EQ(vesk_utility_c_regist_fetch_wd_timer(nullptr, 0, nullptr), VESK_OK);
}

TEST(TimerTest, TemporaryThreadsStartForOverdueTasksAndRetireWhenIdle)
{
    ASSERT_EQ(vesk_utility_adj_comm_thr_num(5, 3), VESK_OK); // no new threads, three temporary slots
    EXPECT_EQ(timer_probe::temp_states(), std::vector<uint32_t>(3, VESK_TIMER_THR_NOT_STARTED));

    // Five blockers hold the five common threads; eight quick tasks then fall behind.
    blocker b[5];
    for (blocker& x : b)
        ASSERT_EQ(vesk_utility_c_regist_timer(0x90, blocker_cb, 0x91, 10, &x, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return total(b, &blocker::entered) == 5; }));
    std::vector<char> params(8);
    s_quick_runs = 0;
    std::string out = vesk_test::capture_stdout([&] {
        for (char& p : params)
            ASSERT_EQ(
                vesk_utility_c_regist_timer(0x92, quick_once_cb, 0x93, 10, &p, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
        // Only temporary threads can run them: every common thread is held.
        EXPECT_TRUE(wait_for([&] { return s_quick_runs == 8; }));
    });
    int started = 0;
    for (uint32_t st : timer_probe::temp_states())
        started += st != VESK_TIMER_THR_NOT_STARTED ? 1 : 0;
    EXPECT_GE(started, 1);
    // More wanted than the three slots give (how many the check saw overdue depends on when
    // it ran): said, with the number actually started.
    if (out.find("need_creat_num") != std::string::npos) {
        EXPECT_TRUE(std::regex_search(out, std::regex("need_creat_num = [1-5], creat_num = [0-3] \\*{7}\n"))) << out;
    }

    // Released, the common threads are idle again; after ten idle seconds the temporary
    // threads are told to leave and do.
    for (blocker& x : b)
        x.release = true;
    out = vesk_test::capture_stdout([&] {
        EXPECT_TRUE(wait_for(
            [&] {
                for (uint32_t st : timer_probe::temp_states()) {
                    if (st != VESK_TIMER_THR_NOT_STARTED && st != VESK_TIMER_THR_EXITED)
                        return false;
                }
                return true;
            },
            120000));
    });
    EXPECT_GE(vesk_test::count_of(out, "exit tmp thread_"), started) << out;
    EXPECT_NE(out.find("[UTL] vesk_utility_timer::check["), std::string::npos) << out;
    EXPECT_NE(out.find("_thr_"), std::string::npos) << out;
    EXPECT_NE(out.find(", have no task, exit! *********\n"), std::string::npos) << out;
}

TEST(TimerTest, SortedInsertionKeepsDueOrderArrivalOrderAndSuspendedAtTheTail)
{
    vesk_timer_queue q = {PTHREAD_MUTEX_INITIALIZER, nullptr, nullptr, 1, 0};
    vesk_timer_task_node n[6] = {};
    const uint32_t due[6] = {5, 3, 5, 9, 1, 2}; // n[5] is suspended
    for (int i = 0; i < 6; i++) {
        n[i].due_sec = due[i];
        n[i].usr_id = static_cast<uint32_t>(i);
    }
    n[5].suspended = 1;
    n[3].suspended = 1;
    for (int i = 0; i < 6; i++)
        timer_probe::insert_sorted(&q, &n[i]);
    std::vector<uint32_t> order;
    for (vesk_timer_task_node* p = q.que_head; p != nullptr; p = p->next)
        order.push_back(p->usr_id);
    // Due 1, 3, 5 (first arrival), 5 (second), then the suspended ones in arrival order.
    EXPECT_EQ(order, (std::vector<uint32_t> {4, 1, 0, 2, 3, 5}));
    EXPECT_EQ(q.que_tail, &n[5]);
    EXPECT_EQ(q.que_head->pre, nullptr);
}

TEST(TimerTest, FetchTakesDueHeadsAndBacksOffFromEarlyOnes)
{
    vesk_timer_task_set set
        = {{PTHREAD_MUTEX_INITIALIZER, nullptr, nullptr, 1, 0}, {PTHREAD_MUTEX_INITIALIZER, nullptr, nullptr, 0, 0}};
    vesk_timer_task_node far = {};
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    far.due_sec = static_cast<uint32_t>(now.tv_sec) + 1000;
    far.due_nsec = static_cast<uint32_t>(now.tv_nsec);
    far.func = scripted_cb;
    timer_probe::insert_sorted(&set.wait, &far);
    uint32_t wait1 = 100;
    EXPECT_EQ(timer_probe::fetch(&set, &wait1), nullptr);
    EXPECT_EQ(far.backoff, 1u);
    EXPECT_LE(wait1, 1000000u);
    EXPECT_GT(wait1, 900000u);
    uint32_t wait2 = 100;
    EXPECT_EQ(timer_probe::fetch(&set, &wait2), nullptr);
    EXPECT_EQ(far.backoff, 2u);

    // A head that is due moves to the running list; the far one stays behind it.
    vesk_timer_task_node due_now = {};
    due_now.due_sec = static_cast<uint32_t>(now.tv_sec);
    due_now.func = scripted_cb;
    timer_probe::insert_sorted(&set.wait, &due_now);
    uint32_t wait3 = 100;
    EXPECT_EQ(timer_probe::fetch(&set, &wait3), &due_now);
    EXPECT_EQ(set.run.que_head, &due_now);
    EXPECT_EQ(set.wait.que_head, &far);
    // A suspended head means everything waiting is suspended.
    far.suspended = 1;
    uint32_t wait4 = 100;
    EXPECT_EQ(timer_probe::fetch(&set, &wait4), nullptr);
    EXPECT_EQ(wait4, 100u);
}

TEST(TimerDiagTest, TaskAndThreadTablesHaveTheirTitlesHeadersAndRows)
{
    scripted suspended;
    suspended.ret = VESK_TIMER_RET_SUSPEND;
    ASSERT_EQ(
        vesk_utility_c_regist_timer(0x42, scripted_cb, 0x1234, 50, &suspended, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return timer_probe::waiting(scripted_cb, &suspended) == 1 && suspended.runs == 1; }));
    blocker running;
    ASSERT_EQ(vesk_utility_c_regist_timer(0x43, blocker_cb, 0x5678, 70, &running, VESK_TIMER_TASK_COMMON, 0), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return running.entered == 1; }));
    scripted later;
    ASSERT_EQ(vesk_utility_c_regist_timer(0x44, scripted_cb, 0x9abc, 90, &later, VESK_TIMER_TASK_REAL_TIME, 3600000),
        VESK_OK);

    vesk_utility_timer* t = timer_probe::timer();
    // The tables are GB2312, the console's character set; columns are padded in its bytes.
    const auto convert = [](const char* from, const char* to, const std::string& text) {
        std::string out(text.size() * 2 + 1, '\0');
        uint32_t len = 0;
        EXPECT_EQ(vesk_utility_charset_convert(from, to, text.data(), static_cast<uint32_t>(text.size()), &out[0],
                      static_cast<uint32_t>(out.size()), &len, 0), VESK_OK) << text;
        out.resize(len);
        return out;
    };
    const auto gb = [&](const char* utf8) { return convert("UTF-8", "GB2312", utf8); };
    const auto dump = [&](int para) {
        return convert("GB2312", "UTF-8", vesk_test::without_log_messages(
            vesk_test::capture_stdout([&] { t->diagnose(para, vesk_print_stdout); })));
    };
    // Each text in order, one after the other.
    const auto in_order = [](const std::string& out, const std::vector<std::string>& texts) {
        size_t at = 0;
        for (const std::string& text : texts) {
            if ((at = out.find(text, at)) == std::string::npos)
                return ::testing::AssertionFailure() << "'" << text << "' not in order in:\n" << out;
        }
        return ::testing::AssertionSuccess();
    };
    const auto title = [](const char* name) {
        return "-----------------------" + std::string(name) + "--------------------------\n";
    };
    const auto header = [&](const char* start, const char* last) {
        char h[256];
        snprintf(h, sizeof(h), "%-6s%-12s%-12s%-18s%-12s%-14s%-14s\n", gb("编号").c_str(), gb("用户ID").c_str(),
            gb("任务目的").c_str(), gb(start).c_str(), gb("当前时间").c_str(), gb("定时间隔(ms)").c_str(), gb(last).c_str());
        return convert("GB2312", "UTF-8", h);
    };
    // The tables are only try-locked: on a busy machine a service thread may hold a list at that
    // moment, which the dump reports instead of waiting; ask again.
    std::string tasks;
    ASSERT_TRUE(wait_for([&] { return (tasks = dump(1)).find("sorry, try lock fail!") == std::string::npos; }))
        << tasks;
    EXPECT_TRUE(in_order(tasks,
        {title("常规任务: 等待执行的任务"), header("上次调用时间", "超时时间(ms)"), title("常规任务: 正在执行的任务"),
            header("调用时间", "已耗时(ms)"), title("实时任务: 等待执行的任务"),
            title("实时任务: 正在执行的任务") + "have no task\n"}));
    const auto row_matches = [&](const std::string& needle, const std::string& pattern) {
        const std::vector<std::string> rows = lines_with(tasks, needle);
        return rows.size() == 1 && std::regex_match(rows[0], std::regex(pattern));
    };
    // Waiting: number, ids, last run and current time ("%d.%d"), interval, state; running: the
    // last column is the time spent so far.
    EXPECT_TRUE(
        row_matches("0x1234", "[0-9]+ +0x42        0x1234      [0-9]+\\.[0-9]+ +[0-9]+\\.[0-9]+ +50 +暂停执行 *"))
        << tasks;
    EXPECT_TRUE(row_matches("0x9abc", "1     0x44        0x9abc      0\\.0 +[0-9]+\\.[0-9]+ +90 +还差[0-9]+ *"))
        << tasks;
    EXPECT_TRUE(row_matches("0x5678", "[0-9]+ +0x43        0x5678      [0-9]+\\.[0-9]+ +[0-9]+\\.[0-9]+ +70 +[0-9]+ *"))
        << tasks;

    const std::string threads = dump(2);
    char gb_h[128];
    snprintf(gb_h, sizeof(gb_h), "%-6s%-12s%-14s%-80s\n", gb("编号").c_str(), gb("线程PID").c_str(),
        gb("线程状态").c_str(), gb("任务状态信息").c_str());
    const std::string h = convert("GB2312", "UTF-8", gb_h);
    EXPECT_TRUE(in_order(
        threads, {title("常规任务线程池") + h, title("常规任务临时工线程池") + h, title("实时任务线程池") + h}));
    // Five common rows and two real-time rows, the holder's showing its task.
    const std::regex row("[1-9] {5}[0-9]+ +(睡眠\\([0-9]+ms\\)|等待任务|执行任务|结束任务) +(上次|当前)任务: .*");
    int rows = 0;
    std::istringstream in(threads);
    for (std::string line; std::getline(in, line);)
        rows += std::regex_match(line, row) ? 1 : 0;
    EXPECT_EQ(rows, 7) << threads;
    EXPECT_EQ(lines_with(threads, "当前任务: ID(0x43、0x5678),执行时间(").size(), 1u) << threads;

    const std::string others = convert("GB2312", "UTF-8", vesk_test::capture_stdout([&] {
        t->diagnose(3, vesk_print_stdout);
        t->diagnose(9, vesk_print_stdout);
    }));
    EXPECT_NE(others.find("Toolnet UDP监听任务"), std::string::npos) << others; // the network tool's list 1
    EXPECT_NE(others.find("para = 9 not support!\n"), std::string::npos) << others;
    running.release = true;
    EXPECT_TRUE(wait_for([&] { return running.finished == 1; }));
}

// Start-up end to end: the agent in this very process is polled by its timer task, whose first
// run comes 30 s after initialisation, and answers the console binary.
TEST(TimerConsoleTest, AgentPolledByTheTimerAnswersTheConsole)
{
    const std::string path = vesk_test::private_root() + "/usr/lib/libutility.socket";
    const auto console = [&](const std::string& args) {
        // The deadline covers the 30 s until the first poll many times over.
        FILE* p = popen(("timeout 240 " + std::string(VESK_DIAG_BIN) + " --socket " + path + " " + args).c_str(), "r");
        std::string out;
        char buf[4096];
        size_t n;
        while (p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0)
            out.append(buf, n);
        EXPECT_EQ(p != nullptr ? pclose(p) : -1, 0) << out;
        return out;
    };
    const std::string list = console("list");
    // Registration order: thread pool, resource manager, timer, event manager, string pool,
    // little-memory pool, A/V-reader pool, each pushed at the head.
    const auto idx_of = [&](const std::string& title) {
        const size_t at = list.find("  purpose = '" + title + "'");
        if (at == std::string::npos)
            return -1;
        const size_t idx_at = list.rfind("client idx = ", at);
        return atoi(list.c_str() + idx_at + strlen("client idx = "));
    };
    const char* order[] = {"诊断 音视频读者跨块中转内存池", "诊断 常规小内存池", "诊断 字符串内存池", "诊断 事件管理",
        "诊断 定时器", "诊断 中间层记录的内存、句柄等", "诊断 线程池"};
    for (int i = 0; i < 7; i++)
        EXPECT_EQ(idx_of(order[i]), i) << order[i] << list;
    EXPECT_EQ(vesk_test::count_of(list, "client idx = "), 7) << list;
    // The console shows UTF-8 (above); on the wire the titles are GB2312, as iconv writes them.
    const std::string raw = console("--raw list");
    for (const char* title : order) {
        FILE* p = popen(("printf '%s' '" + std::string(title) + "' | iconv -f UTF-8 -t GB2312").c_str(), "r");
        char gb[128] = {};
        const size_t n = p != nullptr ? fread(gb, 1, sizeof(gb) - 1, p) : 0;
        ASSERT_TRUE(p != nullptr && pclose(p) == 0 && n > 0) << title;
        EXPECT_NE(raw.find("  purpose = '" + std::string(gb, n) + "'"), std::string::npos) << title << raw;
        EXPECT_EQ(raw.find(title), std::string::npos) << title;
    }
    const int timer_idx = 4;
    const std::string help = console("help " + std::to_string(timer_idx));
    EXPECT_NE(help.find("purpose is '诊断 定时器'\n"), std::string::npos) << help;
    EXPECT_NE(help.find("1  打印所有任务\n2  打印所有线程状态\n"), std::string::npos) << help;
    const std::string tasks = console("run " + std::to_string(timer_idx) + " 1");
    // The agent's own poll is running while it answers: user 0x13, purpose 137, 1000 ms.
    EXPECT_TRUE(std::regex_search(tasks, std::regex("\n1 +0x13 +0x89 +[0-9.]+ +[0-9.]+ +1000 +[0-9]+ *\n"))) << tasks;
}

TEST(TimerDeathTest, AdjustmentsAreOneTime)
{
    // A raise that adds threads, then any second adjustment.
    VESK_EXPECT_FATAL(
        {
            vesk_utility_adj_comm_thr_num(6, 0);
            vesk_utility_adj_comm_thr_num(7, 0);
        },
        "ASSERT!\n >File name: sched/vesk_utility_timer.cpp\n >Function: adj_comm_thr_num\n >Line No: [0-9]+\n"
        " >Condition: m_comm_thr_adj == NULL\n");
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
