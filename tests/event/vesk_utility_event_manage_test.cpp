// The event manager of the process's own instance. Each test removes the timer's check task and
// runs the checks itself, so that countdowns are counted in checks, never in seconds.
#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "event/vesk_utility_event_manage.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

using records = std::vector<vesk_event_detail_info>;

vesk_utility_event_manage* manager()
{
    return vesk_utility_res_manage::instance()->get_event_manage();
}

void run_check(vesk_utility_event_manage* m = manager())
{
    unsigned next = 0;
    vesk_timer_task_type type = VESK_TIMER_TASK_COMMON;
    EXPECT_EQ(vesk_utility_event_manage::event_check_thread(m, &next, &type), VESK_TIMER_RET_CONTINUE);
    EXPECT_EQ(next, 1000u);
}

vesk_event_info event(uint32_t main, uint32_t sub, uint32_t index, uint32_t local = 1)
{
    vesk_event_info d {};
    d.main_type = main, d.sub_type = sub, d.index = index, d.local = local;
    snprintf(d.text, sizeof(d.text), "event %u/%u/%u", main, sub, index);
    return d;
}

vesk_event_id id_of(const vesk_event_info& d, uint8_t wildcard = VESK_EVENT_ID_EXACT)
{
    return {d.main_type, d.local, d.sub_type, d.index, wildcard, {}};
}

void set_state(const vesk_event_info& e, VESK_BOOL on)
{
    EXPECT_EQ(vesk_utility_set_event_state(&e, on), VESK_OK) << e.text << " " << on;
}

// What a batch of records says: "+" started or "-" ended, and main/sub/index, for each.
std::string said(const records& rs)
{
    std::string s;
    for (const vesk_event_detail_info& r : rs)
        s += (r.is_trigger ? "+" : "-") + std::to_string(r.detail.main_type) + "/" + std::to_string(r.detail.sub_type)
            + "/" + std::to_string(r.detail.index) + " ";
    return s;
}

// Records what it is told, in order, then calls its hook, if any, with no lock held.
class recorder : public vesk_event_oberver
{
public:
    void on_event(const vesk_event_detail_info* r, unsigned) const override
    {
        {
            std::lock_guard<std::mutex> g(m_mutex);
            m_records.push_back(*r);
        }
        if (hook)
            hook(*r);
    }
    records take() const
    {
        std::lock_guard<std::mutex> g(m_mutex);
        return std::exchange(m_records, {});
    }

    std::function<void(const vesk_event_detail_info&)> hook;

private:
    mutable std::mutex m_mutex;
    mutable records m_records;
};

class EventTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(vesk_utility_c_unregist_timer(
                      vesk_utility_event_manage::event_check_thread, manager(), 1, VESK_TIMER_TASK_COMMON),
            VESK_OK);
        ASSERT_EQ(vesk_utility_register_event_oberver(0x42, &m_seen), VESK_OK);
    }
    void TearDown() override
    {
        EXPECT_EQ(vesk_utility_unregister_event_oberver(0x42, &m_seen), VESK_OK);
        vesk_utility_set_event_push_state(1);
        vesk_utility_set_event_valid_time(6);
    }
    // What one check tells the observer (the records stay in m_got).
    std::string told()
    {
        run_check();
        return said(m_got = m_seen.take());
    }
    // Checks until the observer is told something; the number of checks run, or -1.
    int checks_until_told(int limit)
    {
        for (int i = 1; i <= limit; i++) {
            if (!told().empty())
                return i;
        }
        return -1;
    }
    recorder m_seen;
    records m_got;
};

TEST_F(EventTest, RaisedEventStartsAtNextCheckAndEndsAfterItsValidTime)
{
    vesk_utility_set_event_valid_time(6); // the default, and what the relayed default becomes
    const vesk_event_info motion = event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 3);
    set_state(motion, 1);
    ASSERT_EQ(told(), "+2/1/3 ");
    EXPECT_STREQ(m_got[0].detail.text, "event 2/1/3");
    // Six checks count 6 down to 0; the seventh ends it.
    EXPECT_EQ(checks_until_told(20), 6);
    ASSERT_EQ(said(m_got), "-2/1/3 ");
    EXPECT_GE(m_got[0].end_time, m_got[0].start_time);
    VESK_BOOL active = 1;
    long start = -1, last = -1;
    const vesk_event_id motion_id = id_of(motion);
    EXPECT_EQ(vesk_utility_get_event_state(&motion_id, &active, &start, &last), VESK_OK);
    EXPECT_TRUE(active == 0 && start == 0) << active << " " << start;

    // Relayed by a camera: the second valid time (default 8); a disk event: always 30.
    vesk_utility_set_event_valid_time(8);
    set_state(event(VESK_EVENT_IO_EVENT, VESK_EVENT_SUB_ALARM_INPUT, 20, 0), 1);
    set_state(event(VESK_EVENT_DISK_EVENT, VESK_EVENT_SUB_DISK_FULL, 1), 1);
    EXPECT_EQ(told(), "+5/4/20 +3/5/1 ");
    EXPECT_EQ(checks_until_told(40), 8);
    EXPECT_EQ(said(m_got), "-5/4/20 ");
    EXPECT_EQ(checks_until_told(40), 30 - 8);
    EXPECT_EQ(said(m_got), "-3/5/1 ");
}

TEST_F(EventTest, RaisingAgainReloadsTheCountdownAndEndingWithTriggerZeroEndsAtTheNextCheck)
{
    const vesk_event_info motion = event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 5);
    set_state(motion, 1);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(told(), i == 0 ? "+2/1/5 " : "");
    vesk_event_info again = motion;
    strcpy(again.text, "refreshed");
    set_state(again, 1);
    // No second start; the full valid time counts again from here.
    EXPECT_EQ(checks_until_told(20), 7);
    ASSERT_EQ(said(m_got), "-2/1/5 ");
    EXPECT_STREQ(m_got[0].detail.text, "refreshed");

    // Ending an event that is not active does nothing; ending an active one ends it at once; one
    // started and ended before any check is told only as ended.
    set_state(motion, 0);
    EXPECT_EQ(told(), "");
    set_state(motion, 1);
    EXPECT_EQ(told(), "+2/1/5 ");
    set_state(motion, 0);
    EXPECT_EQ(told(), "-2/1/5 ");
    set_state(motion, 1);
    set_state(motion, 0);
    EXPECT_EQ(told(), "-2/1/5 ");
}

// Analytics events are refreshed many times a second: their last trigger time moves only once
// it is 3 s old, every other event's at each refresh. Only refreshes within one clock second
// are judged, so a stalled machine cannot fail it.
TEST_F(EventTest, AnalyticsRefreshMovesTheLastTriggerTimeEveryThreeSeconds)
{
    for (uint32_t sub : {VESK_EVENT_SUB_LINE_CROSSING, VESK_EVENT_SUB_MOTION}) {
        const vesk_event_info e = event(VESK_EVENT_CHANNEL_EVENT, sub, 9);
        const vesk_event_id id = id_of(e);
        set_state(e, 1);
        VESK_BOOL active = 0;
        long start = 0, last = 0, age = 0;
        ASSERT_EQ(vesk_utility_get_event_state(&id, &active, &start, &last), VESK_OK);
        for (int i = 0; i < 1000 && age < 3; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            const long now = time(nullptr);
            set_state(e, 1);
            ASSERT_EQ(vesk_utility_get_event_state(&id, &active, &start, &last), VESK_OK);
            if (now != time(nullptr))
                continue;
            age = now - start;
            EXPECT_EQ(last, sub == VESK_EVENT_SUB_MOTION || age >= 3 ? now : start) << "sub " << sub << " age " << age;
        }
        EXPECT_GE(age, 3);
        set_state(e, 0);
        told();
    }
}

TEST_F(EventTest, ObserversAreToldOnlyWhilePushIsOnAndIdsAreValidated)
{
    const vesk_event_info net = event(VESK_EVENT_NET_EVENT, VESK_EVENT_SUB_NET_DISCONNECT, 1);
    ASSERT_EQ(vesk_utility_set_event_push_state(0), VESK_OK);
    set_state(net, 1);
    EXPECT_EQ(told(), "");
    uint32_t count = 9;
    EXPECT_EQ(vesk_utility_get_event_info(VESK_EVENT_USER_LOCAL, nullptr, 0, &count), VESK_OK);
    EXPECT_EQ(count, 0u);
    ASSERT_EQ(vesk_utility_set_event_push_state(1), VESK_OK);
    EXPECT_EQ(vesk_utility_get_event_info(VESK_EVENT_USER_LOCAL, nullptr, 0, &count), VESK_OK);
    EXPECT_EQ(count, 1u);

    const struct {
        vesk_event_info d;
        VESK_ERR want;
    } cases[] = {
        {event(1, VESK_EVENT_SUB_MOTION, 0), VESK_ERR_INVALID_PARAM},
        {event(0, VESK_EVENT_SUB_MOTION, 0), VESK_ERR_INVALID_PARAM},
        {event(7, VESK_EVENT_SUB_MOTION, 0), VESK_ERR_INVALID_PARAM},
        {event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_TYPE_ANY, 0), VESK_ERR_INVALID_PARAM},
        {event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 31), VESK_OK},
        {event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 32), VESK_ERR_INVALID_PARAM},
        {event(VESK_EVENT_DISK_EVENT, VESK_EVENT_SUB_DISK_ERROR, 0), VESK_ERR_INVALID_PARAM},
        {event(VESK_EVENT_NET_EVENT, VESK_EVENT_SUB_IP_CONFLICT, 0), VESK_ERR_INVALID_PARAM},
        {event(VESK_EVENT_IO_EVENT, VESK_EVENT_SUB_ALARM_INPUT, 16), VESK_ERR_INVALID_PARAM},
        {event(VESK_EVENT_IO_EVENT, VESK_EVENT_SUB_ALARM_INPUT, 16, 0), VESK_OK},
        {event(VESK_EVENT_IO_EVENT, VESK_EVENT_SUB_ALARM_INPUT, 32, 0), VESK_ERR_INVALID_PARAM},
        {event(VESK_EVENT_SYSTEM_EVENT, VESK_EVENT_SUB_RECORD_FAIL, 15), VESK_OK},
        {event(VESK_EVENT_SYSTEM_EVENT, VESK_EVENT_SUB_RECORD_FAIL, 16), VESK_ERR_INVALID_PARAM},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vesk_utility_set_event_state(&c.d, 1), c.want) << c.d.text << " local " << c.d.local;
        vesk_utility_set_event_state(&c.d, 0);
    }
    EXPECT_EQ(vesk_utility_set_event_valid_time(0), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_set_event_state(nullptr, 1), VESK_ERR_INVALID_PARAM);
    told(); // the ends of the accepted cases

    // A repeated registration is ignored; an unknown pair is refused.
    ASSERT_EQ(vesk_utility_register_event_oberver(0x42, &m_seen), VESK_OK);
    vesk_test::capture_stdout(
        [&] { EXPECT_EQ(vesk_utility_unregister_event_oberver(0x43, &m_seen), VESK_ERR_OPERATE_FAIL); });
    set_state(net, 0);
    EXPECT_EQ(told(), "-4/8/1 ") << "a repeated registration made a second slot";
}

// Until someone sets them, a manager keeps its two valid times apart: 6 checks for the
// recorder's own events, 8 for those a camera relays.
TEST_F(EventTest, FreshManagerCountsLocalAndRelayedEventsFromTheirOwnDefaults)
{
    // Checked only by run_check, telling its own recorder; both live as long as the process.
    vesk_utility_event_manage* fresh = vesk_test::never_destroyed(new vesk_utility_event_manage(32));
    recorder* seen = vesk_test::never_destroyed(new recorder());
    ASSERT_EQ(vesk_utility_c_unregist_timer(
                  vesk_utility_event_manage::event_check_thread, fresh, 1, VESK_TIMER_TASK_COMMON),
        VESK_OK);
    ASSERT_EQ(fresh->register_event_oberver(1, seen), VESK_OK);
    ASSERT_EQ(fresh->set_event_state(event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 1, 1), 1), VESK_OK);
    ASSERT_EQ(fresh->set_event_state(event(VESK_EVENT_IO_EVENT, VESK_EVENT_SUB_ALARM_INPUT, 2, 0), 1), VESK_OK);
    std::string told;
    for (int check = 1; check <= 12; check++) {
        run_check(fresh);
        const std::string s = said(seen->take());
        if (!s.empty())
            told += std::to_string(check) + ":" + s;
    }
    EXPECT_EQ(told, "1:+2/1/1 +5/4/2 7:-2/1/1 9:-5/4/2 ");
}

TEST_F(EventTest, ObserverMayRaiseAndEndEventsFromItsCallback)
{
    // It raises event 8 and ends event 7 from the callback: delivery runs with no list lock held.
    std::atomic<VESK_ERR> raised {VESK_ERR_FAIL}, ended {VESK_ERR_FAIL};
    recorder chain;
    chain.hook = [&](const vesk_event_detail_info& r) {
        if (r.is_trigger && r.detail.index == 7) {
            vesk_event_info next = r.detail;
            next.index = 8;
            raised = vesk_utility_set_event_state(&next, 1);
            ended = vesk_utility_set_event_state(&r.detail, 0);
        }
    };
    ASSERT_EQ(vesk_utility_register_event_oberver(0x44, &chain), VESK_OK);
    set_state(event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_TAMPER, 7), 1);
    // Detached, so that a dead-locked check fails the test instead of hanging it.
    std::packaged_task<void()> check([] { run_check(); });
    std::future<void> done = check.get_future();
    std::thread(std::move(check)).detach();
    ASSERT_EQ(done.wait_for(std::chrono::seconds(60)), std::future_status::ready) << "dead-locked in the callback";
    EXPECT_EQ(raised.load(), VESK_OK);
    EXPECT_EQ(ended.load(), VESK_OK);
    m_seen.take();
    EXPECT_EQ(told(), "-2/3/7 +2/3/8 ");
    EXPECT_EQ(vesk_utility_unregister_event_oberver(0x44, &chain), VESK_OK);
    set_state(event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_TAMPER, 8), 0);
    EXPECT_EQ(told(), "-2/3/8 ");
}

// A weekly schedule of one segment a day: whole days, or only a minute half a day from now.
vesk_arming_shedule weekly(bool whole_day)
{
    const time_t t = time(nullptr);
    struct tm lt;
    localtime_r(&t, &lt);
    const uint16_t away = static_cast<uint16_t>((lt.tm_hour * 60 + lt.tm_min + 720) % 1439);
    vesk_arming_shedule s {};
    for (auto& day : s.day)
        day[whole_day ? 0 : 2]
            = whole_day ? vesk_arming_segment {0, 1440} : vesk_arming_segment {away, uint16_t(away + 1)};
    return s;
}

TEST_F(EventTest, SchedulesAndFiltersChangeWhatIsListed)
{
    const vesk_event_info motion = event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 3);
    const vesk_event_info offline = event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_CHANNEL_OFFLINE, 4);
    const vesk_event_info disk = event(VESK_EVENT_DISK_EVENT, VESK_EVENT_SUB_DISK_FULL, 2);
    const vesk_event_info raised[]
        = {motion, offline, disk, event(VESK_EVENT_NET_EVENT, VESK_EVENT_SUB_NET_DISCONNECT, 1)};
    for (const vesk_event_info& e : raised)
        set_state(e, 1);
    const auto listed = [](vesk_event_user_id user) {
        vesk_event_detail_info out[8];
        uint32_t count = 0;
        EXPECT_EQ(vesk_utility_get_event_info(user, out, 8, &count), VESK_OK);
        std::string s;
        for (uint32_t i = 0; i < count && i < 8; i++)
            s += std::to_string(out[i].detail.main_type) + "/" + std::to_string(out[i].detail.index) + " ";
        return s;
    };
    const std::string all = "2/3 2/4 3/2 4/1 ", no_motion = "2/4 3/2 4/1 ";
    EXPECT_EQ(listed(VESK_EVENT_USER_LOCAL), all);

    // Not armed now: the motion event is hidden, the offline state never is. A default wildcard
    // keeps the channel's own schedule, an all-index one replaces it, an all-zero one removes it.
    const vesk_arming_shedule off = weekly(false), on = weekly(true), none {};
    vesk_event_id wild = id_of(motion, VESK_EVENT_ID_DEFAULT_INDEX), every = id_of(motion, VESK_EVENT_ID_ALL_INDEX);
    every.index = 9; // ignored with a wildcard
    const struct {
        vesk_event_id id;
        const vesk_arming_shedule* schedule;
        const std::string& local;
    } arming[] = {{id_of(motion), &off, no_motion}, {id_of(offline), &off, no_motion}, {wild, &on, no_motion},
        {every, &off, no_motion}, {every, &on, all}, {every, &off, no_motion}, {every, &none, all}};
    for (const auto& row : arming) {
        ASSERT_EQ(vesk_utility_set_event_arming(&row.id, row.schedule), VESK_OK);
        EXPECT_EQ(listed(VESK_EVENT_USER_LOCAL), row.local) << &row - arming;
    }
    vesk_arming_shedule read {};
    EXPECT_EQ(vesk_utility_get_event_arming(&every, &read), VESK_ERR_OPERATE_FAIL);

    // Filters: one disk for the local user only, then every network event for both users.
    vesk_event_id disk_id = id_of(disk);
    ASSERT_EQ(vesk_utility_set_event_filter(VESK_EVENT_USER_LOCAL, &disk_id, 1), VESK_OK);
    EXPECT_EQ(listed(VESK_EVENT_USER_LOCAL), "2/3 2/4 4/1 ");
    EXPECT_EQ(listed(VESK_EVENT_USER_REMOTE), all);
    const vesk_event_type nets {VESK_EVENT_NET_EVENT, VESK_EVENT_SUB_TYPE_ANY};
    ASSERT_EQ(vesk_utility_set_event_filter(VESK_EVENT_USER_ALL, &nets, 1), VESK_OK);
    EXPECT_EQ(listed(VESK_EVENT_USER_LOCAL), "2/3 2/4 ");
    EXPECT_EQ(listed(VESK_EVENT_USER_REMOTE), "2/3 2/4 3/2 ");
    // The count goes past a small capacity; only what fits is copied.
    vesk_event_detail_info one[2];
    memset(one, 0xA5, sizeof(one));
    uint32_t count = 0;
    ASSERT_EQ(vesk_utility_get_event_info(VESK_EVENT_USER_REMOTE, one, 1, &count), VESK_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(one[0].detail.index, 3u);
    EXPECT_EQ(one[1].detail.main_type, 0xA5A5A5A5u) << "wrote past the capacity";
    ASSERT_EQ(vesk_utility_set_event_filter(VESK_EVENT_USER_ALL, &nets, 0), VESK_OK);
    ASSERT_EQ(vesk_utility_set_event_filter(VESK_EVENT_USER_LOCAL, &disk_id, 0), VESK_OK);
    EXPECT_EQ(listed(VESK_EVENT_USER_LOCAL), all);
    // Users are 0-2 for filters and 1-2 for listing.
    EXPECT_EQ(vesk_utility_set_event_filter(3, &nets, 1), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_get_event_info(VESK_EVENT_USER_ALL, one, 1, &count), VESK_ERR_INVALID_PARAM);

    // Nothing left behind for the next test.
    for (const vesk_event_id& id : {id_of(offline), wild})
        ASSERT_EQ(vesk_utility_set_event_arming(&id, &none), VESK_OK);
    for (const vesk_event_info& e : raised)
        set_state(e, 0);
    told();
}

TEST_F(EventTest, DiagnoseListsEventsSchedulesAndObservers)
{
    const vesk_event_info motion = event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 6);
    set_state(motion, 1);
    const vesk_arming_shedule on = weekly(true);
    const vesk_event_id motion_id = id_of(motion);
    ASSERT_EQ(vesk_utility_set_event_arming(&motion_id, &on), VESK_OK);
    const std::string gb2312 = vesk_test::capture_stdout([] {
        for (int para = 0; para <= 5; para++)
            manager()->diagnose(para, vesk_print_stdout);
    });
    // The menu is GB2312, as the console receives it.
    std::string out(gb2312.size() * 2 + 1, '\0');
    uint32_t out_len = 0;
    ASSERT_EQ(vesk_utility_gb2312_to_utf8(gb2312.data(), static_cast<uint32_t>(gb2312.size()), &out[0],
                  static_cast<uint32_t>(out.size()), &out_len), VESK_OK);
    out.resize(out_len);
    for (const char* want : {"1  打印活动事件\n", "active events: 1 of 160\n", "event 2/1/6 (start not told)\n",
             "main 2 sub 1 local 1 index 6\n    Sun: 00:00-24:00\n", "observers: 1 of 20\n    slot  0 user 0x42",
             "nodes in use: info 1/160, schedule 1/960, filter 0/1600\n"})
        EXPECT_NE(out.find(want), std::string::npos) << want << " in:\n" << out;
    const vesk_arming_shedule none {};
    ASSERT_EQ(vesk_utility_set_event_arming(&motion_id, &none), VESK_OK);
    set_state(motion, 0);
    told();
}

// Invariant: whatever raising, ending and checking threads do while observers come and go,
// every check returns, a steady observer is never told twice in a row that an event started,
// and once every event is ended and checked, all were told as ended and no node is in use.
TEST_F(EventTest, RaisingEndingAndObserversFromManyThreads)
{
    std::atomic<bool> stop {false};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 3; t++) {
        threads.emplace_back([t, &stop] {
            for (uint32_t i = 0; !stop; i++)
                set_state(
                    event(VESK_EVENT_IO_EVENT, VESK_EVENT_SUB_ALARM_INPUT, t * 10 + i % 10, 0), (i / 10) % 2 == 0);
        });
    }
    threads.emplace_back([&stop] {
        std::vector<recorder> transient(4);
        while (!stop) {
            for (recorder& r : transient)
                EXPECT_EQ(vesk_utility_register_event_oberver(0x46, &r), VESK_OK);
            for (recorder& r : transient)
                EXPECT_EQ(vesk_utility_unregister_event_oberver(0x46, &r), VESK_OK);
        }
    });
    for (int i = 0; i < 200; i++)
        run_check();
    stop = true;
    for (std::thread& t : threads)
        t.join();
    for (uint32_t index = 0; index < 30; index++)
        set_state(event(VESK_EVENT_IO_EVENT, VESK_EVENT_SUB_ALARM_INPUT, index, 0), 0);
    run_check();
    // The fixture's observer stayed registered throughout.
    std::map<uint32_t, int> state;
    for (const vesk_event_detail_info& r : m_seen.take()) {
        EXPECT_FALSE(r.is_trigger && state[r.detail.index] == 1) << "started twice: " << r.detail.index;
        state[r.detail.index] = static_cast<int>(r.is_trigger);
    }
    for (const auto& s : state)
        EXPECT_EQ(s.second, 0) << "event " << s.first << " never told as ended";
    const std::string out = vesk_test::capture_stdout([] { manager()->diagnose(5, vesk_print_stdout); });
    EXPECT_NE(out.find("nodes in use: info 0/160"), std::string::npos) << out;
}

TEST(EventDeathTest, MisuseIsFatal)
{
    VESK_EXPECT_FATAL(
        vesk_utility_event_manage::event_check_thread(nullptr, nullptr, nullptr), "Condition: userParam != NULL");
    VESK_EXPECT_FATAL(event_node_pool(2, sizeof(event_filter_node), 0x3011).free(nullptr), "Condition: node != NULL");
    static recorder many[21]; // a 21st observer has no slot
    VESK_EXPECT_FATAL(
        {
            for (recorder& r : many)
                vesk_utility_register_event_oberver(0x47, &r);
        },
        "Condition: free_slot >= 0");
    // Filter rules: id filters only for disk and network events of a concrete sub type; a type
    // filter only into an empty list and never over an id filter of its type.
    const vesk_event_id motion = id_of(event(VESK_EVENT_CHANNEL_EVENT, VESK_EVENT_SUB_MOTION, 1));
    const vesk_event_id disk = id_of(event(VESK_EVENT_DISK_EVENT, VESK_EVENT_SUB_DISK_FULL, 2));
    vesk_event_id any_disk = disk;
    any_disk.sub_type = VESK_EVENT_SUB_TYPE_ANY;
    const vesk_event_type nets {VESK_EVENT_NET_EVENT, VESK_EVENT_SUB_TYPE_ANY}, full {disk.main_type, disk.sub_type};
    const auto user = VESK_EVENT_USER_LOCAL;
    VESK_EXPECT_FATAL(vesk_utility_set_event_filter(user, &motion, 1),
        "Condition: \\(event_type->main_type == VESK_EVENT_DISK_EVENT\\) \\|\\| "
        "\\(event_type->main_type == VESK_EVENT_NET_EVENT\\)\n");
    VESK_EXPECT_FATAL(vesk_utility_set_event_filter(user, &any_disk, 1),
        "Condition: \\(event_type->sub_type != VESK_EVENT_SUB_TYPE_UNKNOW\\) && "
        "\\(event_type->sub_type != VESK_EVENT_SUB_TYPE_ANY\\)\n");
    VESK_EXPECT_FATAL(vesk_utility_set_event_filter(user, &disk, 1); vesk_utility_set_event_filter(user, &nets, 1),
        "Condition: vesk_list_empty\\(filter_head\\)\n");
    VESK_EXPECT_FATAL(vesk_utility_set_event_filter(user, &disk, 1); vesk_utility_set_event_filter(user, &full, 0),
        "Condition: !filter_node->id_filter\n");
}

} // namespace
