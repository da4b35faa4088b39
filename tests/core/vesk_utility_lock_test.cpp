// Named locks, read-write locks and interruptible sleeps: holder bookkeeping, the fatal
// misuse reports, the never-waiting try operations and the lock dump.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "core/vesk_utility_lock.h"
#include "test_support.h"
#include "vesk_utility.h"
#include "core/vesk_utility_log.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace vesk_utility
{
// Reaches the books of a lock, to stage a breach no correct sequence of calls can produce.
struct vesk_lock_test_peer {
    static void set_lock_cnt(vesk_lock* lk, int32_t cnt) { static_cast<vesk_lock_realize*>(lk)->m_lock_cnt = cnt; }
};
} // namespace vesk_utility

namespace
{

constexpr const char* k_name_40 = "abcdefghijklmnopqrstuvwxyz0123456789ABCD";
constexpr const char* k_name_31 = "abcdefghijklmnopqrstuvwxyz01234";

// The state text with its seconds count, which depends on the clock, as "N".
template <typename Lock> std::string state_of(Lock* lk)
{
    char buf[256];
    lk->get_state(buf, sizeof(buf));
    return std::regex_replace(buf, std::regex("= [0-9]+ sec$"), "= N sec");
}

// Holds a lock on another thread until released or 3 s have passed: a try operation that
// wrongly waited would then obtain the lock and report success instead of VESK_ERR_LOCK_BUSY.
struct holder_thread {
    std::promise<void> held, release;
    std::thread thread;
    template <typename Take, typename Give> holder_thread(Take take, Give give)
    {
        thread = std::thread([this, take, give] {
            take();
            held.set_value();
            release.get_future().wait_for(std::chrono::seconds(3));
            give();
        });
        held.get_future().wait();
    }
    void release_and_join()
    {
        release.set_value();
        thread.join();
    }
};

// Makes the primitives' initialisation fail while alive.
struct failing_init {
    const vesk_lock_sys saved = s_lock_sys;
    failing_init()
    {
        s_lock_sys.mutex_init = [](pthread_mutex_t*, const pthread_mutexattr_t*) { return EAGAIN; };
        s_lock_sys.rwlock_init = [](pthread_rwlock_t*, const pthread_rwlockattr_t*) { return EAGAIN; };
        s_lock_sys.condattr_init = [](pthread_condattr_t*) { return ENOMEM; };
    }
    ~failing_init() { s_lock_sys = saved; }
};

vesk_lock* new_lock(const char* name)
{
    return vesk_utility_new_lock(0x41, name);
}

vesk_rw_lock* new_rw(const char* name)
{
    return vesk_utility_new_rw_lock(0x42, name);
}

char s_func_text[32]; // a caller's writable text, at one address for every call

} // namespace

TEST(LockTest, StateNamesTheHolderAnyThreadMayUnlockAndTrylockNeverWaits)
{
    vesk_handle_registry& reg = vesk_ground::instance()->registry();
    const uint32_t before = vesk_ground::instance()->mem_account().total_size();
    vesk_lock* lk = new_lock("disk");
    vesk_rw_lock* rw = new_rw("disk rw");
    ASSERT_TRUE(lk != nullptr && rw != nullptr);
    EXPECT_EQ(reg.is_valid(VESK_LIST_COMMON_LOCK, reinterpret_cast<uintptr_t>(lk)), 1);
    char buf[128] = "untouched";
    EXPECT_EQ(lk->get_locked_info(buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(lk->get_state(buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "'disk' is idel");

    // Holder texts are copies, also when the caller reuses one writable buffer.
    char file_text[32];
    for (int i = 0; i < 2; i++) {
        snprintf(s_func_text, sizeof(s_func_text), "channel_%d", 10 + i);
        snprintf(file_text, sizeof(file_text), "file_%d.cpp", i);
        const std::string by = std::string(file_text) + " " + s_func_text;
        ASSERT_EQ(lk->lock(file_text, s_func_text), VESK_OK);
        EXPECT_EQ(lk->get_locked_info(buf, sizeof(buf)), 1);
        EXPECT_EQ(state_of(lk), "'disk' is locked by '" + by + "', last time = N sec");
        // The holder does not get the dead-lock report from trylock: it is simply busy.
        EXPECT_EQ(lk->trylock("rec.cpp", "again", 0), VESK_ERR_LOCK_BUSY);
        EXPECT_EQ(lk->unlock("a.cpp", "b"), VESK_OK);
        ASSERT_EQ(rw->wr_lock(file_text, s_func_text), VESK_OK);
        EXPECT_EQ(state_of(rw), "'disk rw' is locked 1 times, wr_lock usr is '" + by + "', lock time = N sec");
        rw->unlock("a.cpp", "b");
    }
    EXPECT_EQ(state_of(lk), "'disk' is idel");
    // Cut to the buffer; a caller text longer than the field is cut to 63 characters.
    const std::string long_file(80, 'f');
    ASSERT_EQ(lk->trylock(long_file.c_str(), "fn", 0), VESK_OK);
    EXPECT_EQ(lk->get_state(buf, 8), 1);
    EXPECT_STREQ(buf, "'disk' ");
    EXPECT_EQ(state_of(lk), "'disk' is locked by '" + long_file.substr(0, 63) + "', last time = N sec");
    // Any thread may unlock; that clears the holder thread, so relocking is no dead lock.
    VESK_ERR rc = VESK_ERR_FAIL;
    std::thread([&] { rc = lk->unlock("b.cpp", "consume"); }).join();
    EXPECT_EQ(rc, VESK_OK);
    EXPECT_EQ(lk->lock("a.cpp", "produce"), VESK_OK);
    EXPECT_EQ(lk->unlock("a.cpp", "produce"), VESK_OK);

    // Trylock never waits, whatever its timeout.
    holder_thread holder([&] { lk->lock("other.cpp", "hold"); }, [&] { lk->unlock("other.cpp", "hold"); });
    for (int timeout : {5000, 1999, 0})
        EXPECT_EQ(lk->trylock("t.cpp", "try", timeout), VESK_ERR_LOCK_BUSY) << timeout;
    EXPECT_EQ(state_of(lk), "'disk' is locked by 'other.cpp hold', last time = N sec");
    holder.release_and_join();
    EXPECT_EQ(lk->trylock("t.cpp", "try", 5000), VESK_OK); // free: taken at once
    EXPECT_EQ(lk->unlock("t.cpp", "try"), VESK_OK);

    vesk_lock* anon = new_lock(nullptr);
    EXPECT_EQ(state_of(anon), "'anonymous' is idel");
    for (vesk_lock* l : {anon, lk})
        EXPECT_EQ(vesk_utility_delete_lock(l, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_ground::instance()->mem_account().total_size(), before);
    EXPECT_EQ(reg.is_valid(VESK_LIST_COMMON_LOCK, reinterpret_cast<uintptr_t>(lk)), 0);
}

// Invariants under contention: one thread at a time holds a lock, by lock or trylock, and is
// named its holder; a writer is alone inside a read-write lock, readers share, never with it.
TEST(LockTest, MutualExclusionUnderContention)
{
    vesk_lock* lk = new_lock("shared");
    vesk_rw_lock* rw = new_rw("table");
    std::atomic<int> inside {0}, readers {0}, writers {0}, violations {0};
    long counter = 0, value = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            const std::string func = "worker_" + std::to_string(t);
            const std::string expected = "is locked by 'w.cpp " + func + "'";
            char buf[128];
            for (int i = 0; i < 2000; i++) {
                if (i % 2 == 0)
                    ASSERT_EQ(lk->lock("w.cpp", func.c_str()), VESK_OK);
                else
                    while (lk->trylock("w.cpp", func.c_str(), 0) != VESK_OK)
                        std::this_thread::yield();
                if (inside.fetch_add(1) != 0 || lk->get_locked_info(buf, sizeof(buf)) != 1
                    || strstr(buf, expected.c_str()) == nullptr)
                    violations++;
                counter++;
                inside.fetch_sub(1);
                ASSERT_EQ(lk->unlock("w.cpp", func.c_str()), VESK_OK);
            }
        });
        threads.emplace_back([&, t] {
            for (int i = 0; i < 1000; i++) {
                const bool writer = t % 2 == 0 && i % 4 == 0;
                if (writer)
                    rw->wr_lock("w.cpp", "update");
                else if (i % 2 == 0)
                    rw->rd_lock();
                else
                    while (rw->rd_trylock("r.cpp", "scan", 0) != VESK_OK)
                        std::this_thread::yield();
                std::atomic<int>& mine = writer ? writers : readers;
                mine++;
                if (writers.load() > (writer ? 1 : 0) || (writer && readers.load() != 0))
                    violations++;
                if (writer)
                    value++;
                mine--;
                rw->unlock("r.cpp", "scan");
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    EXPECT_EQ(counter, 8000);
    EXPECT_EQ(value, 500);
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
}

TEST(LockTest, FailedInitialisationRefusesEveryOperation)
{
    vesk_lock* lk;
    vesk_rw_lock* rw;
    {
        failing_init fail;
        lk = new_lock("cam 3 cfg");
        rw = new_rw("cam 3 idx");
    }
    ASSERT_TRUE(lk != nullptr && rw != nullptr);
    const std::string out = vesk_test::capture_stdout([&] {
        EXPECT_EQ(lk->lock("a.cpp", "f"), VESK_ERR_LOCK_NOT_INIT);
        EXPECT_EQ(lk->trylock("a.cpp", "f", 10), VESK_ERR_LOCK_NOT_INIT);
        EXPECT_EQ(lk->unlock("a.cpp", "f"), VESK_ERR_LOCK_NOT_INIT);
        EXPECT_EQ(rw->rd_lock(), VESK_ERR_LOCK_NOT_INIT);
        EXPECT_EQ(rw->rd_trylock("a.cpp", "f", 0), VESK_ERR_LOCK_NOT_INIT);
        EXPECT_EQ(rw->wr_lock("a.cpp", "f"), VESK_ERR_LOCK_NOT_INIT);
        EXPECT_EQ(rw->wr_trylock("a.cpp", "f", 0), VESK_ERR_LOCK_NOT_INIT);
        EXPECT_EQ(rw->unlock("a.cpp", "f"), VESK_ERR_LOCK_NOT_INIT);
    });
    EXPECT_EQ(vesk_test::count_of(out, "' init fail!\n"), 8) << out;
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
}

TEST(RwLockTest, UnlockReportsBusyReleasesReadersAndWriterAndTriesNeverWait)
{
    vesk_rw_lock* rw = new_rw("index");
    EXPECT_EQ(state_of(rw), "index is idel");
    ASSERT_EQ(rw->rd_lock(), VESK_OK);
    ASSERT_EQ(rw->rd_trylock("r.cpp", "second", 5000), VESK_OK); // readers share
    char buf[128];
    EXPECT_EQ(rw->get_locked_info(buf, sizeof(buf)), 1);
    EXPECT_EQ(state_of(rw), "'index' is locked 2 times, wr_lock usr is 'no usr', lock time = N sec");
    EXPECT_EQ(rw->wr_trylock("w.cpp", "write", 5000), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->unlock("r.cpp", "done"), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->unlock("r.cpp", "done"), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->get_state(buf, sizeof(buf)), 0);

    // Released: a writer gets in and is named until it leaves; a reader after it shows none.
    ASSERT_EQ(rw->wr_trylock("w.cpp", "write", 0), VESK_OK);
    EXPECT_EQ(state_of(rw), "'index' is locked 1 times, wr_lock usr is 'w.cpp write', lock time = N sec");
    EXPECT_EQ(rw->unlock("w.cpp", "write"), VESK_ERR_LOCK_BUSY);
    ASSERT_EQ(rw->rd_lock(), VESK_OK);
    EXPECT_EQ(state_of(rw), "'index' is locked 1 times, wr_lock usr is 'no usr', lock time = N sec");
    EXPECT_EQ(rw->unlock("r.cpp", "done"), VESK_ERR_LOCK_BUSY);

    // Try operations never wait, for another thread's writer or reader.
    holder_thread writer([&] { rw->wr_lock("other.cpp", "hold"); }, [&] { rw->unlock("other.cpp", "hold"); });
    EXPECT_EQ(rw->rd_trylock("t.cpp", "try", 5000), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->wr_trylock("t.cpp", "try", 5000), VESK_ERR_LOCK_BUSY);
    writer.release_and_join();
    holder_thread reader([&] { rw->rd_lock(); }, [&] { rw->unlock("other.cpp", "read"); });
    EXPECT_EQ(rw->wr_trylock("t.cpp", "try", 5000), VESK_ERR_LOCK_BUSY);
    reader.release_and_join();
    EXPECT_EQ(state_of(rw), "index is idel");
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
}

// Command 3 lists every lock, command 7 only the held ones.
TEST(LockDumpTest, ResourceManagerCommandsThreeAndSevenShowTheLocks)
{
    vesk_lock* lk = new_lock("osd");
    vesk_rw_lock* rw = vesk_utility_new_rw_lock(0x52, "chn cfg");
    vesk_interuptable_sleep* s = vesk_utility_new_interuptable_sleep(0x53, "ptz nap");
    ASSERT_TRUE(lk != nullptr && rw != nullptr && s != nullptr);
    ASSERT_EQ(rw->wr_lock("cfg.cpp", "save"), VESK_OK);
    for (int cmd : {3, 7}) {
        const std::string out = vesk_test::capture_stdout(
            [&] { vesk_utility_res_manage::instance()->diagnose(cmd, vesk_print_stdout); });
        for (const char* text : {"-------------- common lock ------------------!\n",
                 "usr_id = 0x52, 'chn cfg' is locked 1 times, wr_lock usr is 'cfg.cpp save', lock time = ",
                 "-------------- sleep lock ------------------!\nusr_id = 0x53, name = 'ptz nap'\n"})
            EXPECT_NE(out.find(text), std::string::npos) << text << out;
        EXPECT_EQ(out.find("usr_id = 0x41, 'osd' is idel\n") != std::string::npos, cmd == 3) << out;
    }
    rw->unlock("cfg.cpp", "save");
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_interuptable_sleep(s, __FILE__, __func__), VESK_OK);
}

TEST(LockDeathTest, MisuseOfLocksAndSleepsEndsTheProcess)
{
    // A 40-character name shows its first 31 characters.
    VESK_EXPECT_FATAL(
        {
            vesk_lock* lk = new_lock(k_name_40);
            lk->lock("rec.cpp", "first");
            lk->lock("rec.cpp", "second");
        },
        std::string("vesk_lock_realize::lock\\[[0-9]+\\]:'") + k_name_31
            + "', call by 'rec.cpp' 'second', .*dead lock, have locked by 'rec.cpp first'\n.*Condition: 0\n");
    VESK_EXPECT_FATAL(new_lock("free")->unlock("gui.cpp", "quit"),
        "'free' lock_cnt = 0, 'gui.cpp quit' illegal unlock\\?\n.*>Function: unlock\n");
    // Books that say held while nobody holds it.
    for (bool try_it : {false, true})
        VESK_EXPECT_FATAL(
            {
                vesk_lock* lk = new_lock("books");
                vesk_lock_test_peer::set_lock_cnt(lk, 1);
                try_it ? lk->trylock("a.cpp", "peek", 0) : lk->lock("a.cpp", "peek");
            },
            std::string(try_it ? "::trylock" : "::lock") + "\\[[0-9]+\\]:'books', call by 'a.cpp' 'peek', lock_cnt = 1\n");
    VESK_EXPECT_FATAL(
        {
            vesk_lock* lk = new_lock("held");
            lk->lock("rec.cpp", "run");
            vesk_utility_delete_lock(lk, "rec.cpp", "stop");
        },
        "'held' is locked, usr is 'rec.cpp run'\n.*>Function: ~vesk_lock_realize\n.*>Condition: m_lock_cnt == 0\n");

    // Read-write locks: re-entered from the writer, released while free, deleted while held.
    for (bool as_reader : {true, false})
        VESK_EXPECT_FATAL(
            {
                vesk_rw_lock* rw = new_rw(k_name_40);
                rw->wr_lock("w.cpp", "commit");
                as_reader ? rw->rd_lock() : rw->wr_lock("w.cpp", "again");
            },
            std::string(as_reader ? "::rd_lock" : "::wr_lock") + "\\[[0-9]+\\]:'" + k_name_31
                + "' is locked 1 times, wr_lock usr is 'w.cpp commit'\n");
    VESK_EXPECT_FATAL(new_rw("rw")->unlock("u.cpp", "release"),
        "vesk_rw_lock_realize::unlock\\[[0-9]+\\]:'rw' is locked 0 times, wr_lock usr is 'no usr' u.cpp release\n");
    VESK_EXPECT_FATAL(
        {
            vesk_rw_lock* rw = new_rw("rw");
            rw->rd_lock();
            rw->rd_lock();
            vesk_utility_delete_rw_lock(rw, "r.cpp", "stop");
        },
        "'rw' is locked 2 times, .*>Function: ~vesk_rw_lock_realize\n.*>Condition: get_cnt\\(\\) == 0\n");

    // Sleeps: a failed condition attribute, and a double delete.
    VESK_EXPECT_FATAL(
        {
            failing_init fail;
            vesk_utility_new_interuptable_sleep(0x43, "nap");
        },
        ">Function: interuptable_sleep\n >Line No: [0-9]+\n >Condition: 0\n");
    VESK_EXPECT_FATAL(
        {
            vesk_interuptable_sleep* s = vesk_utility_new_interuptable_sleep(0x43, "nap");
            vesk_utility_delete_interuptable_sleep(s, "ptz.cpp", "first");
            vesk_utility_delete_interuptable_sleep(s, "ptz.cpp", "second");
        },
        "ptz.cpp, second delete invalid!\n.*>Function: vesk_utility_delete_interuptable_sleep\n");
}
