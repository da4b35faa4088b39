// The timer service with its real threads, in the process's own instance. Waits are for
// conditions with generous deadlines; nothing asserts a duration. Checks that something did NOT
// happen during a pause cannot fail on a correct service however slow the machine.
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
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
    std::atomic<int>* concurrent = nullptr; // optional: running count and its peak
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

VESK_ERR regist(uint32_t user, vesk_timer_callback f, uint32_t purpose, unsigned ms, void* p, unsigned first_ms = 0,
    vesk_timer_task_type type = VESK_TIMER_TASK_COMMON)
{
    return vesk_utility_c_regist_timer(user, f, purpose, ms, p, type, first_ms);
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

    // While the task runs, registering it again changes nothing: the run requeues it.
    blocker b;
    b.ret = VESK_TIMER_RET_CONTINUE;
    ASSERT_EQ(regist(0x42, blocker_cb, 0x78, 10, &b), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return b.entered == 1; }));
    EXPECT_EQ(regist(0x42, blocker_cb, 0x78, 10, &b), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(blocker_cb, &b), 0);
    EXPECT_EQ(timer_probe::running(blocker_cb, &b), 1);
    b.release = true;
    ASSERT_TRUE(wait_for([&] { return b.finished >= 1; }));
    EXPECT_EQ(vesk_utility_c_unregist_timer(blocker_cb, &b, 1, VESK_TIMER_TASK_COMMON), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(blocker_cb, &b) + timer_probe::running(blocker_cb, &b), 0);
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
        // Without wait, the node goes when the callback returns.
        EXPECT_TRUE(wait_for([&] { return timer_probe::running(blocker_cb, &b) == 0; }));
        EXPECT_EQ(timer_probe::waiting(blocker_cb, &b), 0);
        pause_ms(200);
        EXPECT_EQ(b.entered, 1) << "ran again after unregistration, wait " << wait;
    }

    // A registration right after an unregistration of a task found nowhere still runs; a
    // waiting task is freed at once.
    scripted s;
    s.ret = VESK_TIMER_RET_DELETE;
    ASSERT_EQ(vesk_utility_c_unregist_timer(scripted_cb, &s, 0, VESK_TIMER_TASK_ALL), VESK_OK);
    ASSERT_EQ(regist(0x42, scripted_cb, 0x1, 10, &s), VESK_OK);
    EXPECT_TRUE(wait_for([&] { return s.runs == 1; }));
    ASSERT_EQ(regist(0x42, scripted_cb, 0x1, 10, &s, 3600000, VESK_TIMER_TASK_REAL_TIME), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(scripted_cb, &s, true), 1);
    ASSERT_EQ(vesk_utility_c_unregist_timer(scripted_cb, &s, 1, VESK_TIMER_TASK_REAL_TIME), VESK_OK);
    EXPECT_EQ(timer_probe::waiting(scripted_cb, &s, true), 0);
}

TEST(TimerTest, LimitedPurposeRunsAtMostTwoAtOnceByDefault)
{
    std::atomic<int> concurrent {0};
    std::atomic<int> peak {0};
    blocker b[4];
    for (blocker& x : b) {
        x.concurrent = &concurrent;
        x.peak = &peak;
        ASSERT_EQ(regist(0x80, blocker_cb, VESK_TIMER_PURPOSE_LIMITED, 10, &x), VESK_OK);
    }
    ASSERT_TRUE(wait_for([&] { return concurrent == 2; }));
    pause_ms(400); // three idle threads fetch the other two meanwhile, and must put them back
    EXPECT_EQ(peak, 2);
    for (blocker& x : b)
        x.release = true;
    EXPECT_TRUE(wait_for([&] { return total(b, &blocker::finished) == 4; }));
    EXPECT_EQ(peak, 2);
}

TEST(TimerTest, TemporaryThreadsRunOverdueTasksWhileEveryCommonThreadIsHeld)
{
    ASSERT_EQ(vesk_utility_adj_comm_thr_num(5, 3), VESK_OK); // no new threads, three temporary slots
    // Five blockers hold the five common threads; eight quick tasks then fall behind, and only
    // temporary threads can run them.
    blocker b[5];
    for (blocker& x : b)
        ASSERT_EQ(regist(0x90, blocker_cb, 0x91, 10, &x), VESK_OK);
    ASSERT_TRUE(wait_for([&] { return total(b, &blocker::entered) == 5; }));
    std::vector<char> params(8);
    s_quick_runs = 0;
    vesk_test::capture_stdout([&] {
        for (char& p : params)
            ASSERT_EQ(regist(0x92, quick_once_cb, 0x93, 10, &p), VESK_OK);
        EXPECT_TRUE(wait_for([&] { return s_quick_runs == 8; }));
    });
    for (blocker& x : b)
        x.release = true;
    EXPECT_TRUE(wait_for([&] { return total(b, &blocker::finished) == 5; }));
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

// One representative dump: the task table, GB2312 titles and a row per waiting, running and
// future task.
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
    const auto lines_matching = [](const std::string& text, const std::string& pattern) {
        int n = 0;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            n += std::regex_match(line, std::regex(pattern)) ? 1 : 0;
        return n;
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
    // Number, ids, last run and current time, interval, then the state: suspended, due in so
    // many ms; or, running, the time spent so far.
    EXPECT_EQ(lines_matching(tasks, "[0-9]+ +0x42 +0x1234 +[0-9.]+ +[0-9.]+ +50 +暂停执行 *"), 1) << tasks;
    EXPECT_EQ(lines_matching(tasks, "1 +0x44 +0x9abc +0\\.0 +[0-9.]+ +90 +还差[0-9]+ *"), 1) << tasks;
    EXPECT_EQ(lines_matching(tasks, "[0-9]+ +0x43 +0x5678 +[0-9.]+ +[0-9.]+ +70 +[0-9]+ *"), 1) << tasks;

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
