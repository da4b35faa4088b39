// vesk_utility_av_mng - the A/V block manager: the process-wide cache of stream blocks per
// camera and stream type, its descriptor pool, the rotation that frees blocks by age and
// pressure, the consumers' user bits and the reader registry.
#ifndef VESK_UTILITY_AV_MNG_H
#define VESK_UTILITY_AV_MNG_H

#include <pthread.h>

#include <cstdint>

#include "vesk_utility_av.h"
#include "vesk_utility_timer.h"
#include "vesk_utility_types.h"

#define VESK_ARRAY_DIM(a) (sizeof(a) / sizeof((a)[0]))

namespace vesk_utility
{

using vesk_soft::_tagVeskFrameHeader;
using vesk_soft::print_fn;
using vesk_soft::vesk_av_stream_type;
using vesk_soft::vesk_av_time;
using vesk_soft::VESK_ERR;
using vesk_soft::vesk_IPC_stream_block_head;
using vesk_soft::vesk_stream_stat_info;

constexpr uint32_t k_av_chn_num = 32;
constexpr uint32_t k_av_str_num = 4;
constexpr uint32_t k_av_reader_max = 320;
constexpr uint32_t k_av_usr_bits = 32;
constexpr uint32_t k_av_pool_size = 1216;
constexpr uint64_t k_av_first_blk_id = 9527;
constexpr uint32_t k_av_default_max_cache = 0x2800000; // 40 MiB
constexpr uint32_t k_av_rotate_ms = 200; // rhythm of the rotation task
constexpr uint32_t k_av_rotate_first_ms = 1000;
constexpr uint32_t k_av_rotate_regist_ms = 600; // registration only; every run asks 200
constexpr uint32_t k_av_rotate_batch = 256; // blocks freed per list and tick at most
constexpr uint32_t k_av_disconnect_ms = 9999; // no new block for longer: disconnected
constexpr uint32_t k_av_stat_period_ms = 9999;

class vesk_av_reader_v1;

// Block descriptor: one per cached block, from the pool (or a single allocation when the pool
// is empty). Linked into its stream list, or into the pool's free list through next/prev.
struct vesk_av_block {
    uint64_t blk_id;
    uint32_t ref_cnt; // readers holding the block: rotation never frees it then
    uint32_t pending_str_usr; // bit i: stream user i has not finished with it (all set at push)
    uint32_t pending_snap_usr; // the same for snap users
    vesk_IPC_stream_block_head* block; // owned from the push on
    vesk_av_block* prev;
    vesk_av_block* next;
};

// Statistics of one stream list, refreshed by the rotation tick. `info` is what
// vesk_utility_get_stream_stat_info hands out and what a disconnection clears.
struct vesk_av_stat {
    uint32_t last_frames; // node_num of the newest counted block
    uint32_t last_bytes; // its payload bytes
    vesk_av_time period_start;
    uint32_t period_frames;
    uint32_t period_bytes;
    vesk_stream_stat_info info;
};

struct vesk_av_stream_list {
    uint32_t str_type;
    uint32_t blk_cnt;
    uint32_t total_bytes; // sum of block_size over the chain
    uint64_t next_blk_id;
    vesk_av_block* head; // oldest
    vesk_av_block* tail; // newest
    vesk_av_stat stat;
    vesk_av_time seen_time; // when a new block (or growth) was last counted
    uint64_t counted_id; // id of the newest counted block (0: none)
};

struct vesk_av_chn_blocks {
    uint32_t ipc_idx; // this record's own index, never changed
    uint32_t connect_status; // stored and reported only
    pthread_mutex_t lock; // the channel lock: guards `lists`
    vesk_av_stream_list lists[k_av_str_num];
};

// Consumers of one recorder channel: [0] stream users, [1] snap users.
struct vesk_av_usr_magic {
    uint32_t mask[2][k_av_str_num];
    uint32_t purpose[2][k_av_str_num][k_av_usr_bits]; // diagnostics only
};

// Thread safety and lock order (outermost first):
//   1. s_av_lock, the library mutex of the cache: creation, the reader registry, the user-bit
//      tables (m_reader_cnt, m_readers, m_str_usr_magic);
//   2. a channel lock (m_chn_blocks[i].lock): that channel's four stream lists and every
//      descriptor and block head linked into them;
//   3. m_pool_lock: the descriptor free list.
// The allocator's budget lock is taken inside a channel lock (to read the A/V total), never
// the other way round. Blocks are freed after their channel lock is released.
class vesk_utility_av_mng final : public vesk_soft::vesk_diagnose_client
{
public:
    // The process's manager, created on first use with its rotation task and diagnose entry.
    static vesk_utility_av_mng* instance();

    // A manager of its own, without rotation task (tests and benchmarks drive rotate_pass);
    // only the process's manager registers with the diagnose agent, which keeps its clients
    // for the life of the process.
    explicit vesk_utility_av_mng(bool regist_diag = false);
    ~vesk_utility_av_mng() override;
    vesk_utility_av_mng(const vesk_utility_av_mng&) = delete;
    vesk_utility_av_mng& operator=(const vesk_utility_av_mng&) = delete;

    void set_av_max_cache(uint32_t bytes);
    uint32_t max_cache() const { return m_max_cache_bytes; }
    VESK_ERR set_chn_connect_status(uint32_t ipc_idx, uint32_t status);
    VESK_ERR switch_ivr_ch(uint32_t ivr_ch_a, uint32_t ivr_ch_b);
    // O(1): a pool descriptor, the tail link and three counters under the channel lock.
    VESK_ERR push_av_block(uint32_t ipc_idx, vesk_IPC_stream_block_head* block);

    vesk_soft::vesk_av_reader* new_av_reader(vesk_soft::vesk_av_reader_work_mode mode,
        vesk_soft::vesk_av_reader_usr_type usr_type, vesk_soft::vesk_av_reader_purpose purpose);
    VESK_ERR delete_av_reader(vesk_soft::vesk_av_reader* reader, const char* file, const char* func);
    uint32_t reader_count();

    // The lowest free user bit of (ivr_ch, user table, stream) with its purpose, or -1.
    // REQUIRES: ivr_ch < 32 (fatal otherwise).
    int32_t malloc_magic_ofset(uint32_t ivr_ch, uint32_t usr_type, uint32_t str_type, uint32_t purpose);
    void release_magic_ofset(uint32_t ivr_ch, uint32_t usr_type, uint32_t str_type, int32_t ofset);

    VESK_ERR get_stream_stat_info(uint32_t ivr_ch, uint32_t str_type, vesk_stream_stat_info* info);
    VESK_ERR get_last_frame_info(uint32_t ivr_ch, uint32_t str_type, _tagVeskFrameHeader& header);

    // 1 dump; 2/3 reader debug traces on/off.
    VESK_ERR diagnose(int para, print_fn print) override;
    bool debug_print() const { return __atomic_load_n(&m_debug_print, __ATOMIC_RELAXED) != 0; }

    // One rotation pass over every list at monotonic time `now`: statistics, then eviction.
    void rotate_pass(const vesk_av_time& now);
    // The timer task: one pass, next run after 200 ms. user_param is the manager (fatal NULL).
    static vesk_soft::vesk_timer_ret_code rotate_block(
        void* user_param, unsigned* next_ms, vesk_soft::vesk_timer_task_type* task_type);

    // For readers, the writer and tests: the channel record of an IPC index and the IPC index
    // of a recorder channel (both < 32). The lists may be read only under the record's lock.
    vesk_av_chn_blocks& chn_blocks(uint32_t ipc_idx) { return m_chn_blocks[ipc_idx]; }
    uint32_t ipc_of(uint32_t ivr_ch);
    // Descriptors in the free list (REQUIRES nothing; takes the pool lock).
    uint32_t pool_free_count();

private:
    void proc_init(bool regist_diag);
    vesk_av_block* proc_malloc_av_block();
    void proc_push_av_block(vesk_av_stream_list& list, vesk_IPC_stream_block_head* block);
    void proc_free_av_block(vesk_av_block* blk);
    // Finds the recorder channel mapped to ipc_idx and copies its masks (all ones, with a
    // warning, when none maps to it). purpose tables may be NULL.
    void proc_get_magic_by_ipc_idx(uint32_t ipc_idx, uint32_t str_type, uint32_t& str_mask, uint32_t& snap_mask,
        uint32_t (*str_purpose)[k_av_usr_bits], uint32_t (*snap_purpose)[k_av_usr_bits]);
    // Unlinks the blocks that may go into out (at most cap); returns how many. REQUIRES: the
    // channel lock of ipc_idx. O(blk_cnt).
    uint32_t proc_rotate_blk(
        uint32_t ipc_idx, vesk_av_stream_list& list, vesk_av_block** out, uint32_t cap, const vesk_av_time& now);
    // Statistics step of a tick (vesk_utility_av_stat.cpp). REQUIRES: the channel lock.
    void proc_update_stat(vesk_av_stream_list& list, const vesk_av_time& now);
    void dump(print_fn print);

    uint32_t m_max_cache_bytes = k_av_default_max_cache;
    uint32_t m_reader_cnt = 0; // GUARDED_BY(s_av_lock)
    vesk_av_reader_v1* m_readers[k_av_reader_max] = {}; // GUARDED_BY(s_av_lock)
    uint32_t m_ivr_to_ipc_idx[k_av_chn_num] = {}; // written by switch_ivr_ch under s_av_lock
    vesk_av_chn_blocks m_chn_blocks[k_av_chn_num];
    vesk_av_usr_magic m_str_usr_magic[k_av_chn_num] = {}; // GUARDED_BY(s_av_lock)
    pthread_mutex_t m_pool_lock;
    vesk_av_block* m_av_block_pool = nullptr; // k_av_pool_size descriptors in one allocation
    vesk_av_block* m_pool_last = nullptr; // its last descriptor
    vesk_av_block* m_free_head = nullptr; // GUARDED_BY(m_pool_lock)
    uint32_t m_debug_print = 0;
};

// Monotonic now, and the difference a - b in milliseconds.
vesk_av_time av_now();
int64_t av_diff_ms(const vesk_av_time& a, const vesk_av_time& b);

// The block writer against a given manager (the exported functions use the process's).
VESK_ERR av_writer_put(vesk_utility_av_mng* mng, vesk_soft::vesk_av_block_writer* w, const _tagVeskFrameHeader* header,
    const void* payload);
VESK_ERR av_writer_close(vesk_utility_av_mng* mng, vesk_soft::vesk_av_block_writer* w);

// Logo table loading at init (vesk_utility_av_logo.cpp).
void load_logo_frame();

} // namespace vesk_utility

#endif // VESK_UTILITY_AV_MNG_H
