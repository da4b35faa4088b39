// Hand-built stream blocks for the A/V cache tests: accounted like a receiving module's, with
// the fields the rotation rule reads set explicitly.
#ifndef VESK_AV_TEST_BLOCKS_H
#define VESK_AV_TEST_BLOCKS_H

#include <cstring>
#include <string>

#include "vesk_utility.h"
#include "vesk_utility_av_mng.h"
#include "vesk_utility_mem_account.h"

namespace vesk_test
{

constexpr vesk_soft::vesk_memmory_purpose k_av_purpose = 0x9110C;

// A final, unreferenced block of `data` bytes received at `rcv`.
inline vesk_soft::vesk_IPC_stream_block_head* make_block(
    uint32_t type, const vesk_soft::vesk_av_time& rcv, uint32_t data = 1024, bool key = false)
{
    const uint32_t size = sizeof(vesk_soft::vesk_IPC_stream_block_head) + data;
    auto* b = static_cast<vesk_soft::vesk_IPC_stream_block_head*>(
        vesk_utility::vesk_malloc(vesk_soft::VESK_USER_AV_CACHE, k_av_purpose, size, 8));
    memset(b, 0, sizeof(*b));
    b->block_size = size;
    b->data_base = reinterpret_cast<uint8_t*>(b + 1);
    b->block_type = type;
    b->block_state = 1;
    b->key_flag = key ? 1 : 0;
    b->rcv_time = rcv;
    return b;
}

inline vesk_soft::vesk_av_time at(const vesk_soft::vesk_av_time& t, int64_t ms)
{
    const int64_t ns = static_cast<int64_t>(t.sec) * 1000000000 + t.nsec + ms * 1000000;
    return vesk_soft::vesk_av_time {static_cast<uint32_t>(ns / 1000000000), static_cast<uint32_t>(ns % 1000000000)};
}

// Block ids of one list, oldest first, read under the channel lock.
inline std::string list_ids(vesk_utility::vesk_utility_av_mng& mng, uint32_t ipc, uint32_t type)
{
    vesk_utility::vesk_av_chn_blocks& chn = mng.chn_blocks(ipc);
    std::string ids;
    pthread_mutex_lock(&chn.lock);
    for (vesk_utility::vesk_av_block* b = chn.lists[type].head; b != nullptr; b = b->next)
        ids += (ids.empty() ? "" : ",") + std::to_string(b->blk_id);
    pthread_mutex_unlock(&chn.lock);
    return ids;
}

} // namespace vesk_test

#endif // VESK_AV_TEST_BLOCKS_H
