// Soak: 32 cameras x 4 streams written through the block writer into the process's cache at a
// recorder's frame rates, under a cache budget, with the rotation task running.
// Invariants: the A/V total never passes the forbid limit by more than one block; when the
// streams stop, rotation empties every list and the A/V total returns to where it started.
// Duration: VESK_AV_SOAK_MS (default 20 s; 5 s under emulation and sanitizers).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "av_test_blocks.h"
#include "test_support.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

struct stream_profile {
    vesk_av_stream_type type;
    vesk_memmory_purpose purpose;
    uint32_t block_bytes;
    uint32_t frame_bytes;
    uint32_t every; // one frame per this many 40 ms ticks
};

// Scaled-down bit rates (about 1.6 Mbit/s main per camera) still turn the budget over many times.
constexpr stream_profile k_profiles[4] = {
    {VESK_AV_STREAM_MAIN, 0x9110C, 64 * 1024, 8000, 1},
    {VESK_AV_STREAM_SUB, 0x9110D, 16 * 1024, 2000, 1},
    {VESK_AV_STREAM_AUDIO, 0x9110E, 4 * 1024, 320, 1},
    {VESK_AV_STREAM_SMART, 0x9110F, 4 * 1024, 200, 5},
};

} // namespace

TEST(AvSoakTest, FullLoadStaysWithinBudgetAndReturnsEverything)
{
    const char* env = getenv("VESK_AV_SOAK_MS");
#if defined(VESK_TEST_EMULATED) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr int k_default_ms = 5000;
#else
    constexpr int k_default_ms = 20000;
#endif
    const int soak_ms = env != nullptr ? atoi(env) : k_default_ms;
    constexpr uint32_t k_start = 2u << 20;
    constexpr uint32_t k_forbid = 3u << 20;
    vesk_utility_av_mng* mng = vesk_utility_av_mng::instance();
    const uint32_t av_base = vesk_mem_av_total();
    ASSERT_EQ(VESK_OK, vesk_utility_set_av_max_cache(k_start, k_forbid));

    // Stream users on the main streams and snap users on the sub streams leave eviction to pressure.
    for (uint32_t ch = 0; ch < 32; ch++) {
        ASSERT_GE(mng->malloc_magic_ofset(ch, 0, 0, 0x500 + ch), 0);
        ASSERT_GE(mng->malloc_magic_ofset(ch, 1, 1, 0x600 + ch), 0);
    }

    std::atomic<bool> stop {false};
    std::atomic<uint32_t> peak {0};
    std::atomic<uint32_t> refused {0};
    std::vector<std::thread> writers;
    for (const stream_profile& p : k_profiles) {
        writers.emplace_back([&, p] {
            std::vector<uint8_t> payload(2 * p.frame_bytes, 0x3C); // key frames are twice the size
            vesk_av_block_writer w[32];
            for (uint32_t ch = 0; ch < 32; ch++)
                vesk_utility_av_writer_init(&w[ch], ch, p.type, p.purpose, p.block_bytes, 128);
            for (uint32_t tick = 0; !stop.load(); tick++) {
                if (tick % p.every == 0) {
                    for (uint32_t ch = 0; ch < 32; ch++) {
                        _tagVeskFrameHeader h {};
                        h.uiStartId = VESK_FRAME_STARTCODE;
                        h.uiFrameType = tick % 25 == 0 ? VESK_FRAME_TYPE_I : 2;
                        h.uiFrameNo = tick;
                        h.uiLength = (tick % 25 == 0 ? 4 : 1) * p.frame_bytes / 2;
                        h.ucCodec = 8;
                        if (vesk_utility_av_writer_put(&w[ch], &h, payload.data()) != VESK_OK)
                            refused++;
                    }
                }
                vesk_utility_sleep_ms(40);
            }
            for (auto& one : w)
                vesk_utility_av_writer_close(&one);
        });
    }
    std::thread sampler([&] {
        while (!stop.load()) {
            const uint32_t t = vesk_mem_av_total();
            if (t > peak.load())
                peak.store(t);
            vesk_utility_sleep_ms(1);
        }
    });
    vesk_utility_sleep_ms(static_cast<unsigned>(soak_ms));
    stop = true;
    for (auto& t : writers)
        t.join();
    sampler.join();
    const uint32_t biggest_block = k_profiles[0].block_bytes + 4096;
    EXPECT_LT(peak.load(), k_forbid + biggest_block) << "refused frames: " << refused.load();
    EXPECT_GT(peak.load(), k_start) << "the budget was never reached: the soak proved nothing";

    // Streams stopped, users gone: rotation alone must empty every list.
    for (uint32_t ch = 0; ch < 32; ch++) {
        mng->release_magic_ofset(ch, 0, 0, 0);
        mng->release_magic_ofset(ch, 1, 1, 0);
    }
    uint32_t left = 1;
    for (int i = 0; i < 600 && left != 0; i++) {
        left = 0;
        for (uint32_t ch = 0; ch < 32; ch++) {
            vesk_av_chn_blocks& chn = mng->chn_blocks(ch);
            pthread_mutex_lock(&chn.lock);
            for (uint32_t t = 0; t < 4; t++)
                left += chn.lists[t].blk_cnt;
            pthread_mutex_unlock(&chn.lock);
        }
        if (left != 0)
            vesk_utility_sleep_ms(50);
    }
    EXPECT_EQ(0u, left) << "blocks still cached 30 s after the streams stopped";
    EXPECT_EQ(av_base, vesk_mem_av_total());
    EXPECT_EQ(k_av_pool_size, mng->pool_free_count());
}
