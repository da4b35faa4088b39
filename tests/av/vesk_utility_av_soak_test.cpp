// Soaks in real time: 32 cameras write main (25 fps), sub, audio and analytics streams.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "av_test_blocks.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

constexpr uint32_t k_cams = 32;
constexpr uint32_t k_readers_per_cam = 10; // 320: every registry slot
constexpr uint32_t k_tick_ms = 40;
constexpr int64_t k_cycle_ms = 6000;
constexpr int64_t k_tight_from_ms = 5000; // of each cycle
constexpr vesk_av_stream_type k_types[4]
    = {VESK_AV_STREAM_MAIN, VESK_AV_STREAM_SUB, VESK_AV_STREAM_AUDIO, VESK_AV_STREAM_SMART};
constexpr uint32_t k_block_bytes[4] = {32 * 1024, 8 * 1024, 4 * 1024, 4 * 1024};

// Stalls by reader index, into the cycle, in the generous part and across the tight second.
struct stall_plan {
    int64_t at_ms;
    uint32_t ms;
};
constexpr stall_plan k_stalls[10] = {{500, 3600}, {4600, 1000}, {}, {}, {}, {}, {600, 2400}, {}, {}, {4700, 1000}};

#if defined(VESK_TEST_EMULATED)
constexpr int k_reader_soak_ms = 8000, k_av_soak_ms = 5000;
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int k_reader_soak_ms = 20000, k_av_soak_ms = 5000;
#else
constexpr int k_reader_soak_ms = 20000, k_av_soak_ms = 20000;
#endif

bool is_key(uint32_t type)
{
    return type == VESK_FRAME_TYPE_I || type == VESK_FRAME_TYPE_KEY2;
}

uint32_t frame_len(uint32_t type, uint32_t str, uint32_t fno)
{
    if (str == VESK_AV_STREAM_AUDIO || str == VESK_AV_STREAM_SMART)
        return str == VESK_AV_STREAM_AUDIO ? 320 : 200;
    if (str == VESK_AV_STREAM_SUB)
        return is_key(type) ? 3000 + fno % 1000 : 200 + fno % 300;
    return is_key(type) ? 20000 + fno * 7919 % 30000 : 300 + fno * 131 % 2700;
}

uint8_t pattern(uint32_t cam, uint32_t str, uint32_t fno, uint32_t j)
{
    return static_cast<uint8_t>(fno * 131 + j * 7 + cam * 17 + str * 53);
}

bool intact(uint32_t cam, uint32_t str, const _tagVeskFrameHeader* f)
{
    if (f->uiStartId != VESK_FRAME_STARTCODE || f->uiLength != frame_len(f->uiFrameType, str, f->uiFrameNo))
        return false;
    const auto* p = reinterpret_cast<const uint8_t*>(f + 1);
    for (uint32_t j = 0; j < f->uiLength; j++)
        if (p[j] != pattern(cam, str, f->uiFrameNo, j))
            return false;
    return true;
}

// No key frame opens a block, so that every resume after rotated-out blocks is a logged skip.
bool opens_block(const vesk_av_block_writer& w)
{
    const vesk_IPC_stream_block_head* b = w.cur;
    return b == nullptr || b->node_num == 0 || b->node_num == w.max_frames
        || w.block_bytes - b->data_end < sizeof(vesk_av_frame_node) + sizeof(_tagVeskFrameHeader);
}

// Small stacks: 350 default ones would not fit a 32-bit address space.
pthread_t start_thread(std::function<void()>* fn)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 512 * 1024);
    pthread_t t;
    const auto run = [](void* arg) -> void* {
        (*static_cast<std::function<void()>*>(arg))();
        return nullptr;
    };
    EXPECT_EQ(0, pthread_create(&t, &attr, run, fn));
    pthread_attr_destroy(&attr);
    return t;
}

struct cameras {
    vesk_utility_av_mng& mng;
    std::atomic<bool> stop {false};
    std::atomic<uint32_t> refused {0};
    std::vector<std::function<void()>> bodies;
    std::vector<pthread_t> threads;
    explicit cameras(vesk_utility_av_mng& m) : mng(m)
    {
        bodies.reserve(k_cams);
        for (uint32_t cam = 0; cam < k_cams; cam++) {
            mng.set_chn_connect_status(cam, 1);
            bodies.emplace_back([this, cam] { run(cam); });
            threads.push_back(start_thread(&bodies.back()));
        }
    }
    ~cameras() { join(); }
    void join()
    {
        stop = true;
        for (pthread_t t : threads)
            pthread_join(t, nullptr);
        threads.clear();
    }
    void run(uint32_t cam)
    {
        vesk_av_block_writer w[4];
        uint32_t last_key[4] = {};
        std::vector<uint8_t> payload(64 * 1024);
        for (uint32_t s = 0; s < 4; s++)
            vesk_utility_av_writer_init(&w[s], cam, k_types[s], 0x9110C + s, k_block_bytes[s], 64);
        vesk_av_time due = av_now();
        for (uint32_t fno = 1; !stop.load(); fno++) {
            for (uint32_t s = 0; s < 4; s++) {
                uint32_t type = 2;
                if (s < 2 && (last_key[s] == 0 || fno - last_key[s] >= 25) && !opens_block(w[s])) {
                    type = VESK_FRAME_TYPE_I;
                    last_key[s] = fno;
                }
                if (s == VESK_AV_STREAM_SMART && fno % 5 != 1)
                    continue;
                _tagVeskFrameHeader h = vesk_test::frame_head(fno, type, frame_len(type, s, fno));
                h.uiTimeStamp = fno * k_tick_ms * 90;
                for (uint32_t j = 0; j < h.uiLength; j++)
                    payload[j] = pattern(cam, s, fno, j);
                refused += av_writer_put(&mng, &w[s], &h, payload.data()) != VESK_OK ? 1 : 0;
            }
            due = vesk_test::at(due, k_tick_ms);
            const int64_t wait = av_diff_ms(due, av_now());
            if (wait > 0)
                vesk_utility_sleep_ms(static_cast<uint32_t>(wait));
            else
                due = av_now();
        }
        for (vesk_av_block_writer& x : w)
            av_writer_close(&mng, &x);
    }
};

} // namespace

// 320 readers (some stalling) while the budget is tight one second in six: frame numbers increase,
// a video jump lands on a key frame and is logged, payloads are intact, every block comes back.
TEST(AvReaderSoakTest, ReadersStayInOrderWhileCamerasPushAndRotationEvicts)
{
    ASSERT_EQ(VESK_OK, vesk_utility_set_av_max_cache(0x2800000, 0x3000000));
    const uint32_t av_base = vesk_mem_av_total();
    vesk_utility_av_mng mng;
    cameras cams(mng);
    std::atomic<bool> stop {false};
    std::vector<std::function<void()>> bodies;
    bodies.reserve(k_cams * k_readers_per_cam + 1);
    std::vector<pthread_t> readers;
    for (bool all = false; !all; vesk_utility_sleep_ms(2)) {
        all = true;
        for (uint32_t cam = 0; cam < k_cams; cam++)
            for (vesk_av_stream_type t : k_types)
                all = all && !vesk_test::list_ids(mng, cam, t).empty();
    }

    const vesk_av_time start = av_now(); // of the budget cycles
    bodies.emplace_back([&] {
        for (bool tight = false; !stop.load(); vesk_utility_sleep_ms(20)) {
            const bool want = av_diff_ms(av_now(), start) % k_cycle_ms >= k_tight_from_ms;
            if (want != tight)
                mng.set_av_max_cache((tight = want) ? 256 * 1024 : 64u << 20);
            mng.rotate_pass(av_now());
        }
    });
    const pthread_t rotation = start_thread(&bodies.back());

    struct reader_result {
        uint64_t frames = 0;
        uint32_t video_jumps = 0;
        std::string fault;
    };
    std::vector<reader_result> results(k_cams * k_readers_per_cam);
    const std::string out = vesk_test::capture_stdout([&] {
        for (uint32_t i = 0; i < results.size(); i++) {
            bodies.emplace_back([&, i] {
                const uint32_t cam = i / k_readers_per_cam, k = i % k_readers_per_cam, s = k % 3;
                reader_result& res = results[i];
                const bool video = s != VESK_AV_STREAM_AUDIO;
                int64_t stalled_cycle = -1;
                vesk_av_reader* r = mng.new_av_reader(k % 2 == 0 ? VESK_AV_READER_REAL_TIME : VESK_AV_READER_FREE_RUN,
                    k / 3 == 1 ? VESK_AV_READER_SNAP_USER : VESK_AV_READER_STREAM_USER, 0x900 + k);
                if (r == nullptr || r->set_chn(cam) != VESK_OK) {
                    res.fault = "no reader";
                    return;
                }
                for (uint32_t last = 0; !stop.load();) {
                    _tagVeskFrameHeader* f = nullptr;
                    uint32_t next = 0;
                    if (r->get_frame(k_types[s], &f, 0, &next) == VESK_OK) { // flag 0: skips are logged
                        const uint32_t fno = f->uiFrameNo;
                        if (res.fault.empty() && !intact(cam, s, f))
                            res.fault = "frame " + std::to_string(fno) + " damaged";
                        if (last != 0 && fno != last + 1) {
                            if (res.fault.empty() && (fno <= last || (video && !is_key(f->uiFrameType))))
                                res.fault = std::to_string(last) + " then " + std::to_string(fno);
                            res.video_jumps += video ? 1 : 0;
                        }
                        last = fno;
                        res.frames++;
                        r->put_frame(k_types[s], f);
                    }
                    const int64_t el = av_diff_ms(av_now(), start), at = k_stalls[k].at_ms + 10 * cam;
                    if (k_stalls[k].ms != 0 && el / k_cycle_ms > stalled_cycle && el % k_cycle_ms >= at
                        && el % k_cycle_ms < at + 300) {
                        stalled_cycle = el / k_cycle_ms;
                        vesk_utility_sleep_ms(k_stalls[k].ms);
                    }
                    vesk_utility_sleep_ms(next < 200 ? next : 200);
                }
                if (res.fault.empty() && !r->is_free())
                    res.fault = "still holds";
                if (mng.delete_av_reader(r, __FILE__, __func__) != VESK_OK && res.fault.empty())
                    res.fault = "delete failed";
            });
            readers.push_back(start_thread(&bodies.back()));
        }
        vesk_utility_sleep_ms(k_reader_soak_ms);
        stop = true;
        for (pthread_t t : readers)
            pthread_join(t, nullptr);
    });
    pthread_join(rotation, nullptr);
    cams.join();
    EXPECT_EQ(0u, cams.refused.load());

    uint32_t video_jumps = 0;
    for (size_t i = 0; i < results.size(); i++) {
        SCOPED_TRACE("camera " + std::to_string(i / k_readers_per_cam) + " reader " + std::to_string(i % k_readers_per_cam));
        EXPECT_EQ("", results[i].fault);
        EXPECT_GT(results[i].frames, 0u);
        video_jumps += results[i].video_jumps;
    }
    const int logged = vesk_test::count_of(out, ", jump to blk[") + vesk_test::count_of(out, "] Block drop\n")
        + vesk_test::count_of(out, ", force skip ") + vesk_test::count_of(out, ", force reset history\n");
    EXPECT_GT(video_jumps, 0u);
    EXPECT_LE(static_cast<int>(video_jumps), logged);

    EXPECT_EQ(0u, mng.reader_count());
    // Without pressure only a leaked reference or user bit would keep a block.
    mng.set_av_max_cache(0xFFFFFFFF);
    const vesk_av_time late = vesk_test::at(av_now(), 20000);
    for (int pass = 0; pass < 64 && mng.pool_free_count() != k_av_pool_size; pass++)
        mng.rotate_pass(late);
    EXPECT_EQ(k_av_pool_size, mng.pool_free_count());
    EXPECT_LE(vesk_mem_av_total(), av_base); // other managers may free blocks meanwhile
}

// The process's cache never passes the forbid limit by more than one block, and empties after.
TEST(AvSoakTest, FullLoadStaysWithinBudgetAndReturnsEverything)
{
    constexpr uint32_t k_start = 2u << 20, k_forbid = 3u << 20;
    vesk_utility_av_mng* mng = vesk_utility_av_mng::instance();
    const uint32_t av_base = vesk_mem_av_total();
    ASSERT_EQ(VESK_OK, vesk_utility_set_av_max_cache(k_start, k_forbid));
    for (uint32_t ch = 0; ch < k_cams; ch++) {
        ASSERT_GE(mng->malloc_magic_ofset(ch, 0, 0, 0x500 + ch), 0);
        ASSERT_GE(mng->malloc_magic_ofset(ch, 1, 1, 0x600 + ch), 0);
    }
    std::atomic<uint32_t> peak {0};
    {
        cameras cams(*mng);
        std::thread sampler([&] {
            for (; !cams.stop.load(); vesk_utility_sleep_ms(1))
                if (vesk_mem_av_total() > peak.load())
                    peak.store(vesk_mem_av_total());
        });
        vesk_utility_sleep_ms(k_av_soak_ms);
        cams.join();
        sampler.join();
        EXPECT_LT(peak.load(), k_forbid + k_block_bytes[0] + 4096) << "refused frames: " << cams.refused.load();
        EXPECT_GT(peak.load(), k_start) << "the budget was never reached";
    }

    for (uint32_t ch = 0; ch < k_cams; ch++) {
        mng->release_magic_ofset(ch, 0, 0, 0);
        mng->release_magic_ofset(ch, 1, 1, 0);
    }
    for (int i = 0; i < 600 && vesk_mem_av_total() != av_base; i++)
        vesk_utility_sleep_ms(50);
    EXPECT_EQ(av_base, vesk_mem_av_total()) << "blocks still cached 30 s after the streams stopped";
    EXPECT_EQ(k_av_pool_size, mng->pool_free_count());
}
