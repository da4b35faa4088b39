// Shared helpers of the A/V tests.
#ifndef VESK_AV_TEST_BLOCKS_H
#define VESK_AV_TEST_BLOCKS_H

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vesk_utility.h"
#include "av/vesk_utility_av_mng.h"
#include "av/vesk_utility_av_note.h"
#include "av/vesk_utility_av_reader.h"
#include "core/vesk_utility_mem_account.h"
#include "test_support.h"

namespace vesk_test
{

using namespace vesk_soft;
using vesk_utility::vesk_utility_av_mng;

constexpr vesk_memmory_purpose k_av_purpose = 0x9110C;
constexpr uint32_t k_ipc = 3; // the channel of a feed and a consumer unless told

inline vesk_av_time at(const vesk_av_time& t, int64_t ms)
{
    const int64_t ns = static_cast<int64_t>(t.sec) * 1000000000 + t.nsec + ms * 1000000;
    return vesk_av_time {static_cast<uint32_t>(ns / 1000000000), static_cast<uint32_t>(ns % 1000000000)};
}

inline std::string list_ids(vesk_utility_av_mng& mng, uint32_t ipc, uint32_t type)
{
    vesk_utility::vesk_av_chn_blocks& chn = mng.chn_blocks(ipc);
    std::string ids;
    pthread_mutex_lock(&chn.lock);
    for (vesk_utility::vesk_av_block* b = chn.lists[type].head; b != nullptr; b = b->next)
        ids += (ids.empty() ? "" : ",") + std::to_string(b->blk_id);
    pthread_mutex_unlock(&chn.lock);
    return ids;
}

inline uint8_t pattern(uint32_t fno, uint32_t j)
{
    return static_cast<uint8_t>(fno * 31 + j);
}

inline bool intact(const _tagVeskFrameHeader* f)
{
    const auto* p = reinterpret_cast<const uint8_t*>(f + 1);
    for (uint32_t j = 0; j < f->uiLength; j++)
        if (p[j] != pattern(f->uiFrameNo, j))
            return false;
    return true;
}

inline _tagVeskFrameHeader frame_head(uint32_t fno, uint32_t type, uint32_t len)
{
    _tagVeskFrameHeader h {};
    h.uiStartId = VESK_FRAME_STARTCODE;
    h.uiFrameType = type;
    h.uiFrameNo = fno;
    h.uiLength = len;
    h.usWidth = 704;
    h.usHeight = 576;
    h.ucCodec = 8;
    return h;
}

// One camera stream written through the block writer: frames carrying pattern().
struct feed {
    vesk_utility_av_mng& mng;
    vesk_av_block_writer w;
    uint32_t ts = 0;
    uint16_t width = 704, height = 576;
    uint32_t sec = 0;
    feed(vesk_utility_av_mng& m, uint32_t block_bytes, vesk_av_stream_type type = VESK_AV_STREAM_MAIN,
        uint32_t ipc = k_ipc, uint32_t frames = 64)
        : mng(m)
    {
        EXPECT_EQ(VESK_OK, vesk_utility_av_writer_init(&w, ipc, type, k_av_purpose, block_bytes, frames));
        mng.set_chn_connect_status(ipc, 1);
    }
    void put(uint32_t fno, uint32_t type, uint32_t len = 100, uint32_t step_ms = 33)
    {
        _tagVeskFrameHeader h = frame_head(fno, type, len);
        h.usWidth = width;
        h.usHeight = height;
        h.uiTimeSec = sec;
        h.uiTimeStamp = ts;
        ts += step_ms * 90;
        std::vector<uint8_t> p(len);
        for (uint32_t j = 0; j < len; j++)
            p[j] = pattern(fno, j);
        ASSERT_EQ(VESK_OK, vesk_utility::av_writer_put(&mng, &w, &h, p.data()));
    }
};

// One consumer of channel k_ipc: a free-running reader, or a position note.
struct consumer {
    vesk_utility_av_mng& mng;
    const bool by_note;
    vesk_av_reader* r = nullptr;
    vesk_utility::vesk_av_note_reader api;
    vesk_read_av_list_note note {};
    uint32_t interval = 0; // the reader's wait after its last get
    consumer(vesk_utility_av_mng& m, bool note_api = false, vesk_av_reader_usr_type usr = VESK_AV_READER_STREAM_USER)
        : mng(m), by_note(note_api), api(&m)
    {
        if (!by_note) {
            r = mng.new_av_reader(VESK_AV_READER_FREE_RUN, usr, 0x77);
            EXPECT_EQ(VESK_OK, r->set_chn(k_ipc));
        }
    }
    ~consumer()
    {
        if (r != nullptr) {
            EXPECT_EQ(VESK_OK, mng.delete_av_reader(r, __FILE__, __func__));
        }
    }
    VESK_ERR get(_tagVeskFrameHeader** f, vesk_av_stream_type t = VESK_AV_STREAM_MAIN)
    {
        return by_note ? api.get_frame(k_ipc, t, &note, f, false) : r->get_frame(t, f, 0, &interval);
    }
    VESK_ERR put(_tagVeskFrameHeader* f, vesk_av_stream_type t = VESK_AV_STREAM_MAIN)
    {
        return by_note ? api.rel_frame(&note) : r->put_frame(t, f);
    }
    // The number of the frame got, checked and given back, or ~0u.
    uint32_t next(vesk_av_stream_type t = VESK_AV_STREAM_MAIN)
    {
        _tagVeskFrameHeader* f = nullptr;
        if (get(&f, t) != VESK_OK)
            return ~0u;
        EXPECT_TRUE(intact(f)) << "frame " << f->uiFrameNo;
        const uint32_t fno = f->uiFrameNo;
        EXPECT_EQ(VESK_OK, put(f, t));
        return fno;
    }
};

// A logo file: the 16-byte head declares w x h and len payload bytes, of which `actual` follow.
inline void write_nvr(const std::string& path, uint16_t w, uint32_t len, uint32_t actual)
{
    uint8_t head[16] = {};
    const uint16_t h = 288;
    memcpy(head + 4, &w, 2);
    memcpy(head + 6, &h, 2);
    memcpy(head + 8, &len, 4);
    FILE* fp = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, fp);
    fwrite(head, 1, sizeof(head), fp);
    for (uint32_t i = 0; i < actual; i++)
        fputc(static_cast<int>(i & 0xFF), fp);
    fclose(fp);
}

} // namespace vesk_test

#endif // VESK_AV_TEST_BLOCKS_H
