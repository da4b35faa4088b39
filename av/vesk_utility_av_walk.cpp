// vesk_utility_av_walk - list walks shared by the readers and the frame API.
#include "av/vesk_utility_av_walk.h"

#include <cstring>

#include "core/vesk_utility_log.h"
#include "vesk_utility_memory.h"
#include "core/vesk_utility_purposes.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr uint32_t k_max_interval_ms = 1999;

bool later(const vesk_av_time& a, const vesk_av_time& b)
{
    return a.sec != b.sec ? a.sec > b.sec : a.nsec > b.nsec;
}

// The first frame after (b, idx): the next index, or index 0 of the next block that has
// frames (blocks holding only a continuation are passed). NULL when none is indexed yet.
vesk_av_frame_node* next_node(const vesk_av_block* b, uint32_t idx)
{
    if (idx + 1 < b->block->node_num)
        return av_node(b, idx + 1);
    for (const vesk_av_block* n = b->next; n != nullptr; n = n->next)
        if (n->block->node_num != 0)
            return av_node(n, 0);
    return nullptr;
}

} // namespace

vesk_av_block* av_find_blk(vesk_av_stream_list& list, uint64_t id)
{
    // Ids grow from head to tail (rotation may leave holes), so walk from the nearer end and
    // stop once past: a reader that keeps up finds its block next to the tail at once.
    if (list.head == nullptr || id < list.head->blk_id || id > list.tail->blk_id)
        return nullptr;
    if (id - list.head->blk_id <= list.tail->blk_id - id) {
        for (vesk_av_block* b = list.head; b != nullptr && b->blk_id <= id; b = b->next)
            if (b->blk_id == id)
                return b;
    } else {
        for (vesk_av_block* b = list.tail; b != nullptr && b->blk_id >= id; b = b->prev)
            if (b->blk_id == id)
                return b;
    }
    return nullptr;
}

bool av_start_point(uint32_t str_type, vesk_av_stream_list& list, vesk_av_block*& blk, int32_t& idx)
{
    if (!av_is_video(str_type)) {
        for (vesk_av_block* x = list.tail; x != nullptr; x = x->prev) {
            if (x->block->node_num != 0) {
                blk = x;
                idx = static_cast<int32_t>(x->block->node_num) - 1;
                return true;
            }
        }
        return false;
    }
    vesk_av_block* kb = nullptr;
    vesk_av_block* k2b = nullptr;
    for (vesk_av_block* x = list.tail; x != nullptr && (kb == nullptr || k2b == nullptr); x = x->prev) {
        if (kb == nullptr && x->block->key_flag != 0)
            kb = x;
        if (k2b == nullptr && x->block->key2_flag != 0)
            k2b = x;
    }
    if (k2b != nullptr
        && (kb == nullptr || later(k2b->block->key2_time, kb->block->key_time)
            || (k2b == kb && kb->block->last_key2_idx > kb->block->last_key_idx))) {
        blk = k2b;
        idx = static_cast<int32_t>(k2b->block->last_key2_idx);
        return true;
    }
    if (kb == nullptr)
        return false;
    blk = kb;
    idx = static_cast<int32_t>(kb->block->last_key_idx);
    return true;
}

bool av_next_key(vesk_av_block*& blk, int32_t& idx)
{
    int32_t from = idx;
    for (vesk_av_block* k = blk; k != nullptr; k = k->next, from = 0) {
        const vesk_IPC_stream_block_head* h = k->block;
        const bool ahead = (h->key_flag != 0 && static_cast<int32_t>(h->last_key_idx) >= from)
            || (h->key2_flag != 0 && static_cast<int32_t>(h->last_key2_idx) >= from);
        if (!ahead)
            continue;
        uint32_t j = h->first_idx > static_cast<uint32_t>(from) ? h->first_idx : static_cast<uint32_t>(from);
        for (; j < h->node_num; j++) {
            if (av_is_key(av_node(k, j)->frame_type)) {
                blk = k;
                idx = static_cast<int32_t>(j);
                return true;
            }
        }
    }
    return false;
}

uint32_t av_fetch_one_frame(
    const char* log_cls, uint32_t ivr_ch, uint32_t str_type, vesk_av_block* blk, uint32_t idx, av_fetch_out& out)
{
    if (blk == nullptr) {
        VESK_LOG_WARN(log_cls, "ch_%d block == NULL why?\n", ivr_ch);
        return FETCH_NO_BLK;
    }
    vesk_av_block* block = blk;
    const uint32_t frame_idx = idx;
    vesk_IPC_stream_block_head* h = blk->block;
    if (idx >= h->node_num) {
        VESK_LOG_ERR(log_cls,
            "ch_%d stream_type = %d, node_num = %d, frame_idx = %d why? VESK_AV_BLOCK_WAIT_RCV again\n", ivr_ch,
            str_type, h->node_num, idx);
        return FETCH_WAIT;
    }
    vesk_av_frame_node* node = av_node(blk, idx);
    VESK_ASSERT(node->magic == VESK_AV_NODE_MAGIC);
    auto* frame_header = reinterpret_cast<_tagVeskFrameHeader*>(node + 1);
    VESK_ASSERT(frame_header->uiStartId == VESK_FRAME_STARTCODE);

    const uint32_t frame_len = sizeof(_tagVeskFrameHeader) + frame_header->uiLength;
    const uint32_t here = node->offset + sizeof(*node);
    if (here + frame_len <= h->data_end) {
        out.frame = frame_header;
        out.copy = false;
    } else {
        VESK_ASSERT(frame_idx == block->block->node_num - 1);
        const uint32_t have = h->data_end - here;
        uint32_t pos = have;
        vesk_av_block* cur = blk;
        while (pos < frame_len) {
            vesk_av_block* next = cur->next;
            if (next == nullptr)
                return FETCH_WAIT;
            if (next->block->lead_tag != cur->block->trail_tag) {
                VESK_LOG_WARN(log_cls,
                    "ch_%d fetch[%llu_0x%x_%d] Fno[%u] type_0x%x, pos = %d, len = %d, cur[%llu_0x%x->next_0x%x] "
                    "next[%llu_0x%x] Block drop\n",
                    ivr_ch, static_cast<unsigned long long>(blk->blk_id), h->trail_tag, idx, frame_header->uiFrameNo,
                    frame_header->uiFrameType, pos, frame_len, static_cast<unsigned long long>(cur->blk_id),
                    cur->block->lead_tag, cur->block->trail_tag, static_cast<unsigned long long>(next->blk_id),
                    next->block->lead_tag);
                out.next_blk = next;
                return FETCH_DROP;
            }
            pos += next->block->cont_len;
            cur = next;
        }
        auto* copy
            = static_cast<uint8_t*>(vesk_utility_av_reader_malloc(VESK_USER_UTILITY, k_purpose_av_relay, frame_len));
        if (copy == nullptr)
            return FETCH_NO_MEM;
        memcpy(copy, frame_header, have);
        pos = have;
        vesk_av_block* cur_blk = blk;
        while (pos < frame_len) {
            cur_blk = cur_blk->next;
            VESK_ASSERT(cur_blk != NULL);
            uint32_t part = cur_blk->block->cont_len;
            if (part > frame_len - pos)
                part = frame_len - pos;
            memcpy(copy + pos, cur_blk->block->data_base, part);
            pos += part;
        }
        out.frame = reinterpret_cast<_tagVeskFrameHeader*>(copy);
        out.copy = true;
    }

    out.interval = 0;
    const vesk_av_frame_node* next = next_node(blk, idx);
    if (next != nullptr && next->frame_no == node->frame_no + 1) {
        const uint32_t ms = (next->time_stamp - node->time_stamp) / 90;
        out.interval = (ms == 0 || ms > k_max_interval_ms) ? k_av_default_interval_ms : ms;
    }
    return FETCH_OK;
}

} // namespace vesk_utility
