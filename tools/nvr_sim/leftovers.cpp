// nvr_sim's closing check: once every reader is deleted, nothing may keep a block in the
// cache. A reference would pin its block forever; a user bit still taken would keep every new
// block of its stream pending until memory pressure. So a small probe block is pushed into
// every stream of every channel, and the cache must rotate all blocks out within a few ticks
// of 200 ms, with no reader left in its table.
#include <cstdio>
#include <string>

#include "nvr_sim.h"

using namespace vesk_soft;

namespace nvr_sim
{

bool check_leftovers(std::string& report)
{
    static const vesk_memmory_purpose k_purposes[VESK_AV_STREAM_NUM] = {0x9110C, 0x9110D, 0x9110E, 0x9110F};
    uint8_t payload[64] = {};
    for (uint32_t ch = 0; ch < k_max_channels; ch++) {
        for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++) {
            vesk_av_block_writer w;
            vesk_utility_av_writer_init(&w, ch, static_cast<vesk_av_stream_type>(t), k_purposes[t], 4096, 4);
            _tagVeskFrameHeader h = {};
            h.uiStartId = VESK_FRAME_STARTCODE;
            h.uiFrameType = 2;
            h.uiFrameNo = 1;
            h.uiLength = sizeof(payload);
            vesk_utility_av_writer_put(&w, &h, payload);
            vesk_utility_av_writer_close(&w);
        }
    }
    const int64_t start = now_ms();
    library_view v;
    // Blocks go once older than 199 ms, at the next 200 ms tick: 5 s is ample.
    for (;;) {
        v = read_library_view();
        if ((v.cached_blocks == 0 && v.readers == 0) || now_ms() - start > 5000)
            break;
        vesk_utility_sleep_ms(100);
    }
    char buf[256];
    const bool ok = v.cached_blocks == 0 && v.readers == 0;
    if (ok)
        snprintf(buf, sizeof(buf),
            "none: 0 readers in the cache's table, every block (with a probe block per stream) rotated out in %lld ms, "
            "so no reference and no user bit is left",
            static_cast<long long>(now_ms() - start));
    else
        snprintf(buf, sizeof(buf), "%u readers and %u blocks still in the cache 5 s after the probe blocks were pushed",
            v.readers, v.cached_blocks);
    report = buf;
    if (!ok)
        report += "\n" + av_dump();
    return ok;
}

} // namespace nvr_sim
