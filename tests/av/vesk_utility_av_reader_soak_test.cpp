// Soak: cameras pushing through the block writer while many readers on their own threads read
// frames and a rotation thread evicts under a small budget.
//
// Invariants: each reader sees frame numbers strictly increasing, +1 except where it resynced
// on a key frame; every payload is intact (joined copies included); when all stop, no block
// is referenced and no user bit is left.
// Duration: VESK_AV_READER_SOAK_MS (default 1000 ms).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "av_test_blocks.h"

using namespace vesk_soft;
using namespace vesk_utility;

TEST(AvReaderSoakTest, ReadersStayInOrderWhileCamerasPushAndRotationEvicts)
{
    const char* env = getenv("VESK_AV_READER_SOAK_MS");
    const int soak_ms = env != nullptr ? atoi(env) : 1000;
    constexpr uint32_t k_cams = 4;
    constexpr uint32_t k_readers_per_cam = 6;
    vesk_utility_av_mng mng;
    mng.set_av_max_cache(1u << 20);
    std::atomic<bool> stop {false};
    std::atomic<bool> writers_done {false};
    std::vector<std::thread> threads;

    for (uint32_t cam = 0; cam < k_cams; cam++) {
        mng.set_chn_connect_status(cam, 1);
        threads.emplace_back([&, cam] {
            vesk_av_block_writer w;
            vesk_utility_av_writer_init(&w, cam, VESK_AV_STREAM_MAIN, 0x9110C, 4096, 32);
            std::vector<uint8_t> p(9000);
            for (uint32_t n = 1; !stop.load(); n++) {
                _tagVeskFrameHeader h {};
                h.uiStartId = VESK_FRAME_STARTCODE;
                h.uiFrameType = n % 20 == 1 ? VESK_FRAME_TYPE_I : 2;
                h.uiFrameNo = n;
                h.uiLength = h.uiFrameType == VESK_FRAME_TYPE_I ? 9000 : 100 + n % 700; // I frames split
                for (uint32_t j = 0; j < h.uiLength; j++)
                    p[j] = static_cast<uint8_t>(n + j);
                av_writer_put(&mng, &w, &h, p.data());
                std::this_thread::yield();
            }
            av_writer_close(&mng, &w);
        });
    }
    std::thread rotation([&] {
        while (!writers_done.load()) {
            mng.rotate_pass(av_now());
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    std::atomic<uint32_t> frames {0};
    std::atomic<uint32_t> jumps {0};
    std::atomic<uint32_t> faults {0};
    std::vector<std::thread> readers;
    for (uint32_t cam = 0; cam < k_cams; cam++) {
        for (uint32_t k = 0; k < k_readers_per_cam; k++) {
            readers.emplace_back([&, cam, k] {
                vesk_av_reader* r = mng.new_av_reader(VESK_AV_READER_FREE_RUN,
                    k % 3 == 2 ? VESK_AV_READER_SNAP_USER : VESK_AV_READER_STREAM_USER, 0x900 + k);
                r->set_chn(cam);
                uint32_t last = 0;
                while (!stop.load()) {
                    _tagVeskFrameHeader* f = nullptr;
                    uint32_t next = 0;
                    if (r->get_frame(VESK_AV_STREAM_MAIN, &f, 1, &next) != VESK_OK) {
                        std::this_thread::yield();
                        continue;
                    }
                    const auto* p = reinterpret_cast<const uint8_t*>(f + 1);
                    for (uint32_t j = 0; j < f->uiLength; j++)
                        if (p[j] != static_cast<uint8_t>(f->uiFrameNo + j)) {
                            faults++;
                            break;
                        }
                    if (last != 0 && f->uiFrameNo != last + 1) {
                        if (f->uiFrameNo <= last || f->uiFrameType != VESK_FRAME_TYPE_I)
                            faults++;
                        jumps++;
                    }
                    last = f->uiFrameNo;
                    frames++;
                    r->put_frame(VESK_AV_STREAM_MAIN, f);
                    if (k % 2 == 1) // slow readers fall behind and resync
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                EXPECT_TRUE(r->is_free());
                EXPECT_EQ(VESK_OK, mng.delete_av_reader(r, __FILE__, __func__));
            });
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(soak_ms));
    stop = true;
    for (std::thread& t : readers)
        t.join();
    for (std::thread& t : threads)
        t.join();
    writers_done = true;
    rotation.join();

    EXPECT_EQ(0u, faults.load());
    EXPECT_GT(frames.load(), 0u);
    EXPECT_EQ(0u, mng.reader_count());
    for (uint32_t cam = 0; cam < k_cams; cam++) {
        vesk_av_chn_blocks& chn = mng.chn_blocks(cam);
        pthread_mutex_lock(&chn.lock);
        for (vesk_av_block* b = chn.lists[0].head; b != nullptr; b = b->next)
            EXPECT_EQ(0u, b->ref_cnt) << "block " << b->blk_id;
        pthread_mutex_unlock(&chn.lock);
        EXPECT_EQ(-1, mng.malloc_magic_ofset(cam, 0, 4, 0)) << "type 4 is refused";
        EXPECT_EQ(0, mng.malloc_magic_ofset(cam, 0, 0, 1)) << "every stream-user bit was given back";
        EXPECT_EQ(0, mng.malloc_magic_ofset(cam, 1, 0, 1)) << "every snap-user bit was given back";
    }
    mng.rotate_pass(vesk_test::at(av_now(), 20000));
    printf("frames %u, key-frame resyncs %u\n", frames.load(), jumps.load());
}
