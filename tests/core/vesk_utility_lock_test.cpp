// Named locks, read-write locks and interruptible sleeps: holder bookkeeping, the fatal
// misuse reports, the never-waiting try operations, writer preference and the lock dumps.
#include <gmock/gmock.h>
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
using testing::HasSubstr;

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

// Whole-text match where "<N>" stands for a number of seconds.
bool matches_exactly(const std::string& text, const std::string& pattern)
{
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    const std::string re
        = std::regex_replace(std::regex_replace(pattern, special, R"(\$&)"), std::regex("<N>"), "[0-9]+");
    return std::regex_match(text, std::regex(re));
}

template <typename Pred> bool wait_until(Pred pred)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

template <typename Lock> std::string state_of(Lock* lk)
{
    char buf[256];
    lk->get_state(buf, sizeof(buf));
    return buf;
}

std::string locked_by(const std::string& name, const std::string& by)
{
    return "'" + name + "' is locked by '" + by + "', last time = <N> sec";
}

std::string rw_locked(const std::string& name, int times, const std::string& writer)
{
    return "'" + name + "' is locked " + std::to_string(times) + " times, wr_lock usr is '" + writer
        + "', lock time = <N> sec";
}

template <typename Lock> uintptr_t key(Lock* lk)
{
    return reinterpret_cast<uintptr_t>(lk);
}

// Holds a lock on another thread until released or 3 s have passed: a try operation that
// wrongly waited would then obtain the lock and report success instead of VESK_ERR_LOCK_BUSY.
class holder_thread
{
public:
    template <typename Take, typename Give> holder_thread(Take take, Give give)
    {
        m_thread = std::thread([this, take, give] {
            take();
            m_held.set_value();
            m_release.get_future().wait_for(std::chrono::seconds(3));
            give();
        });
        m_held.get_future().wait();
    }
    void release_and_join()
    {
        m_release.set_value();
        m_thread.join();
    }

private:
    std::promise<void> m_held, m_release;
    std::thread m_thread;
};

// Makes the primitives' initialisation fail while alive.
class failing_init
{
public:
    failing_init()
        : m_saved(s_lock_sys)
    {
        s_lock_sys.mutex_init = [](pthread_mutex_t*, const pthread_mutexattr_t*) { return EAGAIN; };
        s_lock_sys.rwlock_init = [](pthread_rwlock_t*, const pthread_rwlockattr_t*) { return EAGAIN; };
        s_lock_sys.condattr_init = [](pthread_condattr_t*) { return ENOMEM; };
    }
    ~failing_init() { s_lock_sys = m_saved; }

private:
    vesk_lock_sys m_saved;
};

vesk_lock* new_lock(const char* name)
{
    return vesk_utility_new_lock(0x41, name);
}

vesk_rw_lock* new_rw(const char* name)
{
    return vesk_utility_new_rw_lock(0x42, name);
}

} // namespace

TEST(LockTest, StateTextsFollowTheHolderAndTheObjectIsAccounted)
{
    vesk_mem_account& account = vesk_ground::instance()->mem_account();
    vesk_handle_registry& reg = vesk_ground::instance()->registry();
    const uint32_t before = account.total_size();
    vesk_lock* lk = new_lock("disk");
    ASSERT_NE(lk, nullptr);
    EXPECT_EQ(account.total_size(), before + sizeof(vesk_lock_realize));
    EXPECT_EQ(reg.is_valid(VESK_LIST_COMMON_LOCK, key(lk)), 1);

    char buf[128];
    EXPECT_EQ(lk->get_state(buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "'disk' is idel");
    strcpy(buf, "untouched");
    EXPECT_EQ(lk->get_locked_info(buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "untouched");

    ASSERT_EQ(lk->lock("rec.cpp", "write_index"), VESK_OK);
    EXPECT_EQ(lk->get_state(buf, sizeof(buf)), 1);
    EXPECT_TRUE(matches_exactly(buf, locked_by("disk", "rec.cpp write_index"))) << buf;
    EXPECT_EQ(lk->get_locked_info(buf, sizeof(buf)), 1);
    EXPECT_TRUE(matches_exactly(buf, locked_by("disk", "rec.cpp write_index"))) << buf;
    EXPECT_EQ(lk->get_state(buf, 8), 1); // cut to the buffer
    EXPECT_STREQ(buf, "'disk' ");
    // The holder does not get the dead-lock report from trylock: it is simply busy.
    EXPECT_EQ(lk->trylock("rec.cpp", "again", 0), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(lk->unlock("rec.cpp", "write_index"), VESK_OK);
    EXPECT_EQ(state_of(lk), "'disk' is idel");

    // A caller text longer than the field is cut to 63 characters.
    const std::string long_file(80, 'f');
    ASSERT_EQ(lk->trylock(long_file.c_str(), "fn", 0), VESK_OK);
    EXPECT_TRUE(matches_exactly(state_of(lk), locked_by("disk", long_file.substr(0, 63))));
    EXPECT_EQ(lk->unlock("rec.cpp", "fn"), VESK_OK);

    vesk_lock* anon = new_lock(nullptr);
    EXPECT_EQ(state_of(anon), "'anonymous' is idel");
    EXPECT_EQ(vesk_utility_delete_lock(anon, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(account.total_size(), before);
    EXPECT_EQ(reg.is_valid(VESK_LIST_COMMON_LOCK, key(lk)), 0);
}

namespace
{
char s_func_text[32]; // a caller's writable text, at one address for every call
}

// Holder texts are copies of what each acquisition passed, also when the caller reuses one
// writable buffer (global or on the stack) with new contents at the same address.
TEST(LockTest, HolderTextFollowsAReusedWritableBuffer)
{
    vesk_lock* lk = new_lock("reuse");
    vesk_rw_lock* rw = new_rw("reuse rw");
    char file_text[32];
    for (int i = 0; i < 3; i++) {
        snprintf(s_func_text, sizeof(s_func_text), "channel_%d", 10 + i);
        snprintf(file_text, sizeof(file_text), "file_%d.cpp", i);
        const std::string by = std::string(file_text) + " " + s_func_text;
        ASSERT_EQ(lk->lock(file_text, s_func_text), VESK_OK);
        EXPECT_TRUE(matches_exactly(state_of(lk), locked_by("reuse", by))) << state_of(lk);
        EXPECT_EQ(lk->unlock("a.cpp", "b"), VESK_OK);
        ASSERT_EQ(rw->wr_lock(file_text, s_func_text), VESK_OK);
        EXPECT_TRUE(matches_exactly(state_of(rw), rw_locked("reuse rw", 1, by))) << state_of(rw);
        rw->unlock("a.cpp", "b");
        // Literals, joined once and copied from then on, still alternate correctly.
        ASSERT_EQ(lk->lock("lit.cpp", i % 2 ? "odd" : "even"), VESK_OK);
        EXPECT_TRUE(matches_exactly(state_of(lk), locked_by("reuse", i % 2 ? "lit.cpp odd" : "lit.cpp even")));
        EXPECT_EQ(lk->unlock("a.cpp", "b"), VESK_OK);
    }
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
}

TEST(LockTest, AnyThreadMayUnlockAndTrylockNeverWaitsWhateverItsTimeout)
{
    vesk_lock* lk = new_lock("handover");
    ASSERT_EQ(lk->lock("a.cpp", "produce"), VESK_OK);
    std::string seen;
    VESK_ERR rc = VESK_ERR_FAIL;
    std::thread([&] {
        seen = state_of(lk);
        rc = lk->unlock("b.cpp", "consume");
    }).join();
    EXPECT_EQ(rc, VESK_OK);
    EXPECT_TRUE(matches_exactly(seen, locked_by("handover", "a.cpp produce"))) << seen;
    EXPECT_EQ(state_of(lk), "'handover' is idel");
    // The other thread's unlock cleared the holder thread: no dead-lock report.
    EXPECT_EQ(lk->lock("a.cpp", "produce"), VESK_OK);
    EXPECT_EQ(lk->unlock("a.cpp", "produce"), VESK_OK);

    holder_thread holder([&] { lk->lock("other.cpp", "hold"); }, [&] { lk->unlock("other.cpp", "hold"); });
    for (int timeout : {5000, 1999, 0})
        EXPECT_EQ(lk->trylock("t.cpp", "try", timeout), VESK_ERR_LOCK_BUSY) << timeout;
    EXPECT_TRUE(matches_exactly(state_of(lk), locked_by("handover", "other.cpp hold")));
    holder.release_and_join();
    EXPECT_EQ(lk->trylock("t.cpp", "try", 5000), VESK_OK); // free: taken at once
    EXPECT_TRUE(matches_exactly(state_of(lk), locked_by("handover", "t.cpp try")));
    EXPECT_EQ(lk->unlock("t.cpp", "try"), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
}

// Invariant: one thread at a time holds the lock, by lock or trylock, and is named its holder.
TEST(LockTest, MutualExclusionWithTheHolderRecordedForEveryAcquisition)
{
    vesk_lock* lk = new_lock("shared");
    constexpr int k_threads = 4, k_rounds = 2000;
    std::atomic<int> inside {0}, overlaps {0}, wrong_holder {0};
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < k_threads; t++) {
        threads.emplace_back([&, t] {
            const std::string func = "worker_" + std::to_string(t);
            const std::string expected = "is locked by 'w.cpp " + func + "'";
            char buf[128];
            for (int i = 0; i < k_rounds; i++) {
                if (i % 2 == 0)
                    ASSERT_EQ(lk->lock("w.cpp", func.c_str()), VESK_OK);
                else
                    while (lk->trylock("w.cpp", func.c_str(), 0) != VESK_OK)
                        std::this_thread::yield();
                if (inside.fetch_add(1) != 0)
                    overlaps++;
                if (lk->get_locked_info(buf, sizeof(buf)) != 1 || strstr(buf, expected.c_str()) == nullptr)
                    wrong_holder++;
                counter++;
                inside.fetch_sub(1);
                ASSERT_EQ(lk->unlock("w.cpp", func.c_str()), VESK_OK);
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    EXPECT_EQ(counter, static_cast<long>(k_threads) * k_rounds);
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(wrong_holder.load(), 0);
    EXPECT_EQ(state_of(lk), "'shared' is idel");
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
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
    std::string expect;
    const auto error_line = [&](const char* cls, const char* op, const char* name) {
        expect += std::string("\e[0;32;31m[UTL] ERROR! ") + cls + "::" + op + "[<N>]:'" + name + "' init fail!\n\e[m";
    };
    for (const char* op : {"lock", "trylock", "unlock"})
        error_line("vesk_lock_realize", op, "cam 3 cfg");
    for (const char* op : {"rd_lock", "rd_trylock", "wr_lock", "wr_trylock", "unlock"})
        error_line("vesk_rw_lock_realize", op, "cam 3 idx");
    EXPECT_TRUE(matches_exactly(out, expect)) << out;
    EXPECT_EQ(state_of(lk), "'cam 3 cfg' is idel");
    EXPECT_EQ(state_of(rw), "cam 3 idx is idel");
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
}

TEST(LockDeathTest, DeadLockIllegalUnlockBrokenBooksAndDeletingAHeldLockAreFatal)
{
    // The 40-character name shows its first 31 characters.
    VESK_EXPECT_FATAL(
        {
            vesk_lock* lk = new_lock(k_name_40);
            lk->lock("rec.cpp", "first");
            lk->lock("rec.cpp", "second");
        },
        std::string("\\[UTL\\] ERROR! vesk_lock_realize::lock\\[[0-9]+\\]:'") + k_name_31
            + "', call by 'rec.cpp' 'second', pid [0-9]+, [0-9]+ [0-9]+, dead lock, have locked by 'rec.cpp "
              "first'\n.*ASSERT!\n >File name: core/vesk_utility_lock.cpp\n >Function: lock\n >Line No: [0-9]+\n "
              ">Condition: 0\n");
    VESK_EXPECT_FATAL(new_lock(k_name_40)->unlock("gui.cpp", "quit"),
        std::string("vesk_lock_realize::unlock\\[[0-9]+\\]:'") + k_name_31
            + "' lock_cnt = 0, 'gui.cpp quit' illegal unlock\\?\n.*>Function: unlock\n.*>Condition: 0\n");
    // Released twice, from two threads: the second release is the illegal one.
    VESK_EXPECT_FATAL(
        {
            vesk_lock* lk = new_lock("twice");
            lk->lock("a.cpp", "take");
            std::thread([&] { lk->unlock("b.cpp", "give"); }).join();
            lk->unlock("a.cpp", "give_again");
        },
        "'twice' lock_cnt = 0, 'a.cpp give_again' illegal unlock\\?\n");
    // Books that say held while nobody holds it.
    VESK_EXPECT_FATAL(
        {
            vesk_lock* lk = new_lock("books");
            vesk_lock_test_peer::set_lock_cnt(lk, 1);
            lk->lock("a.cpp", "enter");
        },
        "vesk_lock_realize::lock\\[[0-9]+\\]:'books', call by 'a.cpp' 'enter', lock_cnt = 1\n.*"
        "vesk_lock_realize::lock\\[[0-9]+\\]:'books' is locked by 'no usr', last time = [0-9]+ sec \n.*"
        ">Function: lock\n.*>Condition: 0\n");
    VESK_EXPECT_FATAL(
        {
            vesk_lock* lk = new_lock("books");
            vesk_lock_test_peer::set_lock_cnt(lk, 1);
            lk->trylock("a.cpp", "peek", 0);
        },
        "vesk_lock_realize::trylock\\[[0-9]+\\]:'books', call by 'a.cpp' 'peek', lock_cnt = 1\n.*"
        ">Function: trylock\n.*>Condition: 0\n");
    VESK_EXPECT_FATAL(
        {
            vesk_lock* lk = new_lock(k_name_40);
            lk->lock("rec.cpp", "run");
            vesk_utility_delete_lock(lk, "rec.cpp", "stop");
        },
        std::string("vesk_lock_realize::~vesk_lock_realize\\[[0-9]+\\]:'") + k_name_31
            + "' is locked, usr is 'rec.cpp run'\n.*>Function: ~vesk_lock_realize\n.*>Condition: m_lock_cnt == 0\n");
}

TEST(RwLockTest, UnlockReportsBusyReleasesReadersAndWriterAndTriesNeverWait)
{
    vesk_rw_lock* rw = new_rw("index");
    EXPECT_EQ(state_of(rw), "index is idel");
    char buf[128] = "untouched";
    EXPECT_EQ(rw->get_locked_info(buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "untouched");

    ASSERT_EQ(rw->rd_lock(), VESK_OK);
    ASSERT_EQ(rw->rd_trylock("r.cpp", "second", 5000), VESK_OK); // readers share
    EXPECT_EQ(rw->get_state(buf, sizeof(buf)), 2);
    EXPECT_TRUE(matches_exactly(buf, rw_locked("index", 2, "no usr"))) << buf;
    EXPECT_EQ(rw->get_locked_info(buf, sizeof(buf)), 1);
    EXPECT_EQ(rw->wr_trylock("w.cpp", "write", 5000), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->unlock("r.cpp", "done"), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->unlock("r.cpp", "done"), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->get_state(buf, sizeof(buf)), 0);

    // Released: a writer gets in and is named until it leaves.
    ASSERT_EQ(rw->wr_trylock("w.cpp", "write", 0), VESK_OK);
    EXPECT_TRUE(matches_exactly(state_of(rw), rw_locked("index", 1, "w.cpp write")));
    VESK_ERR other = VESK_OK;
    std::thread([&] { other = rw->rd_trylock("r.cpp", "peek", 5000); }).join();
    EXPECT_EQ(other, VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(rw->unlock("w.cpp", "write"), VESK_ERR_LOCK_BUSY);
    EXPECT_EQ(state_of(rw), "index is idel");

    ASSERT_EQ(rw->wr_lock("w.cpp", "rebuild"), VESK_OK);
    EXPECT_TRUE(matches_exactly(state_of(rw), rw_locked("index", 1, "w.cpp rebuild")));
    EXPECT_EQ(rw->unlock("w.cpp", "rebuild"), VESK_ERR_LOCK_BUSY);
    // The writer's name went with it: a reader after it shows no writer.
    ASSERT_EQ(rw->rd_lock(), VESK_OK);
    EXPECT_TRUE(matches_exactly(state_of(rw), rw_locked("index", 1, "no usr")));
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

// Invariant: once a writer waits, no new reader gets in; the writer enters when the readers
// already inside leave.
TEST(RwLockTest, WaitingWriterKeepsNewReadersOut)
{
#if !defined(__GLIBC__)
    GTEST_SKIP() << "writer preference needs the GNU C library";
#endif
    vesk_rw_lock* rw = new_rw("pref");
    ASSERT_EQ(rw->rd_lock(), VESK_OK);
    std::atomic<bool> writer_in {false};
    std::string writer_saw;
    std::thread writer([&] {
        rw->wr_lock("w.cpp", "commit");
        writer_in = true;
        writer_saw = state_of(rw);
        rw->unlock("w.cpp", "commit");
    });
    // Until the writer queues up, probing readers get in (and leave); after, they are refused.
    EXPECT_TRUE(wait_until([&] {
        const bool refused = rw->rd_trylock("r.cpp", "probe", 0) != VESK_OK;
        if (!refused)
            rw->unlock("r.cpp", "probe");
        return refused;
    }));
    EXPECT_FALSE(writer_in.load());
    rw->unlock("r.cpp", "first");
    writer.join();
    EXPECT_TRUE(writer_in.load());
    EXPECT_TRUE(matches_exactly(writer_saw, rw_locked("pref", 1, "w.cpp commit"))) << writer_saw;
    EXPECT_EQ(state_of(rw), "pref is idel");
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
}

// Invariant: a writer is alone inside; readers share, never with a writer.
TEST(RwLockTest, WritersExcludeEveryoneReadersShare)
{
    vesk_rw_lock* rw = new_rw("table");
    constexpr int k_writer_rounds = 500, k_reader_rounds = 2000;
    std::atomic<int> readers_inside {0}, writers_inside {0}, violations {0};
    long value = 0;
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; w++) {
        threads.emplace_back([&] {
            for (int i = 0; i < k_writer_rounds; i++) {
                rw->wr_lock("w.cpp", "update");
                if (writers_inside.fetch_add(1) != 0 || readers_inside.load() != 0)
                    violations++;
                value++;
                writers_inside.fetch_sub(1);
                rw->unlock("w.cpp", "update");
            }
        });
        threads.emplace_back([&] {
            for (int i = 0; i < k_reader_rounds; i++) {
                if (i % 2 == 0)
                    rw->rd_lock();
                else
                    while (rw->rd_trylock("r.cpp", "scan", 0) != VESK_OK)
                        std::this_thread::yield();
                readers_inside.fetch_add(1);
                if (writers_inside.load() != 0)
                    violations++;
                readers_inside.fetch_sub(1);
                rw->unlock("r.cpp", "scan");
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(value, 2L * k_writer_rounds);
    EXPECT_EQ(state_of(rw), "table is idel");
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
}

TEST(RwLockDeathTest, ReenteringFromTheWriterUnlockingFreeOrDeletingHeldEndsTheProcess)
{
    VESK_EXPECT_FATAL(
        {
            vesk_rw_lock* rw = new_rw(k_name_40);
            rw->wr_lock("w.cpp", "commit");
            rw->rd_lock();
        },
        std::string("vesk_rw_lock_realize::rd_lock\\[[0-9]+\\]:'") + k_name_31
            + "' is locked 1 times, wr_lock usr is 'w.cpp commit'\n");
    VESK_EXPECT_FATAL(
        {
            vesk_rw_lock* rw = new_rw("rw");
            rw->wr_lock("w.cpp", "commit");
            rw->wr_lock("w.cpp", "again");
        },
        "vesk_rw_lock_realize::wr_lock\\[[0-9]+\\]:'rw' is locked 1 times, wr_lock usr is 'w.cpp commit'\n");
    VESK_EXPECT_FATAL(new_rw("rw")->unlock("u.cpp", "release"),
        "vesk_rw_lock_realize::unlock\\[[0-9]+\\]:'rw' is locked 0 times, wr_lock usr is 'no usr' u.cpp release\n");
    VESK_EXPECT_FATAL(
        {
            vesk_rw_lock* rw = new_rw("rw");
            rw->rd_lock();
            rw->rd_lock();
            vesk_utility_delete_rw_lock(rw, "r.cpp", "stop");
        },
        "vesk_rw_lock_realize::~vesk_rw_lock_realize\\[[0-9]+\\]:'rw' is locked 2 times, wr_lock usr is 'no "
        "usr'\n.*>Function: ~vesk_rw_lock_realize\n.*>Condition: get_cnt\\(\\) == 0\n");
}

TEST(SleepTest, TimesOutIsCutShortByWakeupAndLosesEarlyWakeups)
{
    vesk_interuptable_sleep* s = vesk_utility_new_interuptable_sleep(0x43, "nap");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->sleep(100), VESK_ERR_OPERATE_FAIL);
    EXPECT_EQ(s->wakeup(), VESK_OK); // nobody sleeps: lost, the next sleep runs out
    EXPECT_EQ(s->sleep(50), VESK_ERR_OPERATE_FAIL);
    // A minute's sleep ends with 0 once a wakeup reaches it (repeated: early ones are lost).
    std::atomic<bool> done {false};
    VESK_ERR result = VESK_ERR_FAIL;
    std::thread sleeper([&] {
        result = s->sleep(60000);
        done = true;
    });
    EXPECT_TRUE(wait_until([&] {
        s->wakeup();
        return done.load();
    }));
    sleeper.join();
    EXPECT_EQ(result, VESK_OK);
    EXPECT_EQ(vesk_utility_delete_interuptable_sleep(s, __FILE__, __func__), VESK_OK);
}

TEST(LockDumpTest, ModesListAllLocksOrOnlyTheHeldOnes)
{
    // A registry of its own, so that locks made by other services do not enter the text.
    vesk_handle_registry reg;
    reg.init_node_pool();
    vesk_lock_install_printers(reg);
    vesk_lock_realize held(k_name_40), idle("idle lock");
    vesk_rw_lock_realize index("index"), spare("spare");
    ASSERT_EQ(reg.save_node(VESK_LIST_COMMON_LOCK, key(&held), 0x41, k_name_40), VESK_OK);
    ASSERT_EQ(reg.save_node(VESK_LIST_COMMON_LOCK, key(&idle), 0x42, "idle lock"), VESK_OK);
    ASSERT_EQ(reg.save_node(VESK_LIST_RW_LOCK, key(&index), 0x43, "index"), VESK_OK);
    ASSERT_EQ(reg.save_node(VESK_LIST_RW_LOCK, key(&spare), 0x44, "spare"), VESK_OK);
    ASSERT_EQ(held.lock("rec.cpp", "flush"), VESK_OK);
    ASSERT_EQ(index.rd_lock(), VESK_OK);
    ASSERT_EQ(index.rd_lock(), VESK_OK);

    // Modes 1 and 2 list every lock, 3 and 4 only the held ones.
    for (int mode : {1, 3}) {
        const std::string out = vesk_test::capture_stdout([&] {
            reg.dump_list(VESK_LIST_COMMON_LOCK, "common lock", vesk_print_stdout, mode);
            reg.dump_list(VESK_LIST_RW_LOCK, "RW lock", vesk_print_stdout, mode + 1);
        });
        const bool all = mode == 1;
        EXPECT_TRUE(matches_exactly(out,
            "-------------- common lock ------------------!\nusr_id = 0x41, " + locked_by(k_name_31, "rec.cpp flush")
                + "\n" + (all ? "usr_id = 0x42, 'idle lock' is idel\n" : "") + "common lock, total num = 2!\n\n"
                + "-------------- RW lock ------------------!\nusr_id = 0x43, " + rw_locked("index", 2, "no usr") + "\n"
                + (all ? "usr_id = 0x44, spare is idel\n" : "") + "RW lock, total num = 2!\n\n"))
            << out;
    }
    held.unlock("rec.cpp", "flush");
    index.unlock("a", "b");
    index.unlock("a", "b");
    reg.delete_node(VESK_LIST_COMMON_LOCK, key(&held));
    reg.delete_node(VESK_LIST_COMMON_LOCK, key(&idle));
    reg.delete_node(VESK_LIST_RW_LOCK, key(&index));
    reg.delete_node(VESK_LIST_RW_LOCK, key(&spare));
}

TEST(LockDumpTest, ResourceManagerCommandsThreeAndSevenShowTheLocks)
{
    vesk_lock* lk = vesk_utility_new_lock(0x51, "osd");
    vesk_rw_lock* rw = vesk_utility_new_rw_lock(0x52, "chn cfg");
    vesk_interuptable_sleep* s = vesk_utility_new_interuptable_sleep(0x53, "ptz nap");
    ASSERT_TRUE(lk != nullptr && rw != nullptr && s != nullptr);
    ASSERT_EQ(rw->wr_lock("cfg.cpp", "save"), VESK_OK);
    vesk_utility_res_manage* res = vesk_utility_res_manage::instance();
    const std::string all = vesk_test::capture_stdout([&] { res->diagnose(3, vesk_print_stdout); });
    const std::string held = vesk_test::capture_stdout([&] { res->diagnose(7, vesk_print_stdout); });
    for (const std::string* out : {&all, &held})
        for (const char* text : {"-------------- common lock ------------------!\n",
                 "usr_id = 0x52, 'chn cfg' is locked 1 times, wr_lock usr is 'cfg.cpp save', lock time = ",
                 "-------------- sleep lock ------------------!\nusr_id = 0x53, name = 'ptz nap'\n"})
            EXPECT_NE(out->find(text), std::string::npos) << text << *out;
    EXPECT_THAT(all, HasSubstr("usr_id = 0x51, 'osd' is idel\n"));
    EXPECT_EQ(held.find("'osd'"), std::string::npos) << held;
    rw->unlock("cfg.cpp", "save");
    EXPECT_EQ(vesk_utility_delete_lock(lk, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_rw_lock(rw, __FILE__, __func__), VESK_OK);
    EXPECT_EQ(vesk_utility_delete_interuptable_sleep(s, __FILE__, __func__), VESK_OK);
}

TEST(SleepDeathTest, ConditionAttributeFailureAndDoubleDeleteAreFatal)
{
    VESK_EXPECT_FATAL(
        {
            failing_init fail;
            vesk_utility_new_interuptable_sleep(0x43, "nap");
        },
        "ASSERT!\n >File name: core/vesk_utility_lock.cpp\n >Function: interuptable_sleep\n >Line No: [0-9]+\n "
        ">Condition: 0\n");
    VESK_EXPECT_FATAL(
        {
            vesk_interuptable_sleep* s = vesk_utility_new_interuptable_sleep(0x43, "nap");
            vesk_utility_delete_interuptable_sleep(s, "ptz.cpp", "first");
            vesk_utility_delete_interuptable_sleep(s, "ptz.cpp", "second");
        },
        "ptz.cpp, second delete invalid!\n.*>Function: vesk_utility_delete_interuptable_sleep\n.*>Condition: 0\n");
}
