// vesk_utility_av_writer - the block writer through which receiving modules feed the cache:
// accounted block allocation, frame nodes and index, key flags and times, continuation of a
// frame into the following blocks, and the final mark.
#include <cstdint>
#include <cstring>

#include "av/vesk_utility_av_mng.h"
#include "core/vesk_utility_log.h"
#include "core/vesk_utility_mem_account.h"
#include "core/vesk_utility_ground.h"

namespace vesk_utility
{

using namespace vesk_soft;

namespace
{

constexpr uint32_t k_node_and_head = sizeof(vesk_av_frame_node) + sizeof(_tagVeskFrameHeader);

// Head and index sit in front of the data, padded so that nodes are word-aligned.
uint32_t data_offset(uint32_t max_frames)
{
    const uint32_t raw = sizeof(vesk_IPC_stream_block_head) + max_frames * sizeof(vesk_av_frame_node*);
    return (raw + 7u) & ~7u;
}

uint32_t next_tag(vesk_av_block_writer* w)
{
    if (++w->next_tag == 0)
        w->next_tag = 1;
    return w->next_tag;
}

// Frame node records sit at the data offsets frames end on: keep them aligned for their
// 32-bit fields (an unaligned word access faults on the board). The padding is never read.
uint32_t next_node_offset(uint32_t end, uint32_t block_bytes)
{
    const uint32_t k_align = alignof(vesk_av_frame_node);
    const uint32_t aligned = (end + k_align - 1) / k_align * k_align;
    return aligned < block_bytes ? aligned : block_bytes;
}

// A new receiving block, pushed at once. NULL when the budget refuses it.
vesk_IPC_stream_block_head* open_block(vesk_av_block_writer* w)
{
    const uint32_t off = data_offset(w->max_frames);
    const uint32_t size = off + w->block_bytes;
    auto* mem = static_cast<uint8_t*>(vesk_malloc(VESK_USER_AV_CACHE, w->purpose, size, 8));
    if (mem == nullptr)
        return nullptr;
    auto* b = reinterpret_cast<vesk_IPC_stream_block_head*>(mem);
    memset(b, 0, sizeof(*b));
    b->block_size = size;
    b->data_base = mem + off;
    b->block_type = w->type;
    b->receiving = 1;
    b->frame_index = reinterpret_cast<vesk_av_frame_node**>(mem + sizeof(*b));
    b->rcv_time = av_now();
    b->trail_tag = next_tag(w);
    return b;
}

// Marks b final; from here on the cache may free it. REQUIRES: the channel lock.
void finish_locked(vesk_IPC_stream_block_head* b)
{
    b->receiving = 0;
    b->block_state = 1;
    b->commit_pos = b->data_end;
}

} // namespace

VESK_ERR av_writer_put(
    vesk_utility_av_mng* mng, vesk_av_block_writer* w, const _tagVeskFrameHeader* header, const void* payload)
{
    if (w == nullptr || header == nullptr || (payload == nullptr && header->uiLength != 0)) {
        VESK_ERR_FN("Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    VESK_ASSERT(header->uiStartId == VESK_FRAME_STARTCODE);
    // The stored frame (header and payload) is measured in 32 bits.
    if (header->uiLength > UINT32_MAX - sizeof(_tagVeskFrameHeader)) {
        VESK_ERR_FN("uiLength = %u, frame too long!\n", header->uiLength);
        return VESK_ERR_INVALID_PARAM;
    }
    pthread_mutex_t* lock = &mng->chn_blocks(w->ipc_idx).lock;
    const uint32_t frame_len = sizeof(_tagVeskFrameHeader) + header->uiLength;

    // The node record and the header always start in one block: move on when they do not fit
    // or the index is full.
    vesk_IPC_stream_block_head* b = w->cur;
    if (b != nullptr && (b->node_num == w->max_frames || w->block_bytes - b->data_end < k_node_and_head)) {
        pthread_mutex_lock(lock);
        b->is_full = 1;
        finish_locked(b);
        pthread_mutex_unlock(lock);
        w->cur = b = nullptr;
    }
    if (b == nullptr) {
        b = open_block(w);
        if (b == nullptr)
            return VESK_ERR_NO_RESOURCE;
        mng->push_av_block(w->ipc_idx, b);
        w->cur = b;
    }

    // Write outside the lock: nobody reads past data_end or node_num.
    const uint32_t idx = b->node_num;
    const uint32_t off = b->data_end;
    auto* node = reinterpret_cast<vesk_av_frame_node*>(b->data_base + off);
    const uint32_t room = w->block_bytes - off - sizeof(vesk_av_frame_node);
    const uint32_t stored = frame_len <= room ? frame_len : room;
    memset(node, 0, sizeof(*node));
    node->magic = VESK_AV_NODE_MAGIC;
    node->index = idx;
    node->offset = off;
    node->frame_len = frame_len;
    node->stored_len = stored;
    node->frame_no = header->uiFrameNo;
    node->frame_type = header->uiFrameType;
    node->time_stamp = header->uiTimeStamp;
    node->write_time = av_now();
    uint8_t* dst = b->data_base + off + sizeof(*node);
    memcpy(dst, header, sizeof(*header));
    const uint32_t first_payload = stored - sizeof(*header);
    if (first_payload != 0)
        memcpy(dst + sizeof(*header), payload, first_payload);

    pthread_mutex_lock(lock);
    b->frame_index[idx] = node;
    b->node_num = idx + 1;
    b->data_end = next_node_offset(off + sizeof(*node) + stored, w->block_bytes);
    if (stored == frame_len)
        b->commit_pos = b->data_end;
    b->payload_bytes += header->uiLength;
    if (header->uiFrameType == VESK_FRAME_TYPE_I) {
        if (b->key_flag == 0 && b->key2_flag == 0)
            b->first_idx = idx;
        b->key_flag = 1;
        b->last_key_idx = idx;
        b->key_time = node->write_time;
    } else if (header->uiFrameType == VESK_FRAME_TYPE_KEY2) {
        if (b->key_flag == 0 && b->key2_flag == 0)
            b->first_idx = idx;
        b->key2_flag = 1;
        b->last_key2_idx = idx;
        b->key2_time = node->write_time;
    }
    if (w->type == VESK_AV_STREAM_MAIN || w->type == VESK_AV_STREAM_SUB) {
        b->codec = header->ucCodec;
        b->width = header->usWidth;
        b->height = header->usHeight;
    }
    // Read before the unlock: a final block may be freed by rotation at any moment after it.
    uint32_t prev_tag = b->trail_tag;
    if (stored != frame_len) {
        b->is_full = 1;
        finish_locked(b);
    }
    pthread_mutex_unlock(lock);
    if (stored == frame_len)
        return VESK_OK;

    // The rest continues at the start of as many following blocks as it needs, each holding
    // nothing else until its continuation ends.
    w->cur = nullptr;
    const uint8_t* rest = static_cast<const uint8_t*>(payload) + first_payload;
    uint32_t left = frame_len - stored;
    while (left != 0) {
        vesk_IPC_stream_block_head* c = open_block(w);
        if (c == nullptr)
            return VESK_ERR_NO_RESOURCE; // the next block's lead_tag will not match: a drop
        const uint32_t part = left < w->block_bytes ? left : w->block_bytes;
        memcpy(c->data_base, rest, part);
        c->lead_tag = prev_tag;
        c->cont_len = part;
        c->data_end = next_node_offset(part, w->block_bytes);
        c->commit_pos = part;
        rest += part;
        left -= part;
        if (left != 0) {
            c->is_full = 1;
            c->receiving = 0;
            c->block_state = 1;
        }
        prev_tag = c->trail_tag;
        mng->push_av_block(w->ipc_idx, c);
        if (left == 0)
            w->cur = c;
    }
    return VESK_OK;
}

VESK_ERR av_writer_close(vesk_utility_av_mng* mng, vesk_av_block_writer* w)
{
    if (w == nullptr) {
        VESK_ERR_FN("Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    if (w->cur != nullptr) {
        pthread_mutex_t* lock = &mng->chn_blocks(w->ipc_idx).lock;
        pthread_mutex_lock(lock);
        finish_locked(w->cur);
        pthread_mutex_unlock(lock);
        w->cur = nullptr;
    }
    return VESK_OK;
}

} // namespace vesk_utility

namespace vesk_soft
{

using namespace vesk_utility;

VESK_ERR vesk_utility_av_writer_init(vesk_av_block_writer* w, uint32_t ipc_idx, vesk_av_stream_type type,
    vesk_memmory_purpose purpose, uint32_t block_bytes, uint32_t max_frames)
{
    if (w == nullptr || ipc_idx >= k_av_chn_num || type >= VESK_AV_STREAM_NUM
        || !is_av_budget_block(VESK_USER_AV_CACHE, purpose) || max_frames == 0 || max_frames > 0x10000
        || block_bytes < k_node_and_head || block_bytes > 0x4000000) {
        VESK_ERR_FN("Invalid Param");
        return VESK_ERR_INVALID_PARAM;
    }
    memset(w, 0, sizeof(*w));
    w->ipc_idx = ipc_idx;
    w->type = type;
    w->purpose = purpose;
    w->block_bytes = block_bytes;
    w->max_frames = max_frames;
    return VESK_OK;
}

} // namespace vesk_soft
