// vesk_utility_av.h - the A/V block cache: the stream block records that receiving modules fill,
// the block writer that fills them correctly, the cache's push/rotation controls, readers,
// statistics and logo frames.
//
// Contract
//   A receiving module feeds the cache through a vesk_av_block_writer (below): the writer
//   allocates each block from the A/V budget, pushes it at once (so readers see frames while
//   it fills), indexes every frame, carries a frame that does not fit into the next block and
//   marks each block final when it moves on. From the push on the cache owns the block: the
//   rotation task (every 200 ms) frees it once it is older than 199 ms, unreferenced and no
//   longer needed, or under memory pressure. A block still receiving is never freed, so the
//   writer may keep writing into its current block; once marked final it must not touch it.
//
//   Every function is safe to call from any thread. Before vesk_utility_init they log
//   "Utility Module Not Init" and fail with VESK_ERR_NOT_INIT (NULL for handles).
#ifndef VESK_UTILITY_AV_H
#define VESK_UTILITY_AV_H

#include <cstddef>
#include <cstdint>

#include "vesk_utility_av_types.h"
#include "vesk_utility_types.h"

namespace vesk_soft
{

// ---- Enumerations ----------------------------------------------------------------------------

enum vesk_av_stream_type : uint32_t {
    VESK_AV_STREAM_MAIN = 0, // "VideoStream(Main)"
    VESK_AV_STREAM_SUB = 1, // "VideoStream(Sub)"
    VESK_AV_STREAM_AUDIO = 2, // "AudioStream"
    VESK_AV_STREAM_SMART = 3, // "SmartStream"
    VESK_AV_STREAM_NUM = 4,
};

// Encoder-stream selector of the frame API; vesk_utility_av_convert_type maps it to the cache's
// stream type.
enum vesk_enc_str_type : uint32_t {
    VESK_ENC_STR_MAIN = 0,
    VESK_ENC_STR_SUB = 1,
    VESK_ENC_STR_THIRD = 2, // a third video stream is carried as the sub stream
    VESK_ENC_STR_AUDIO = 3,
    VESK_ENC_STR_SMART = 4,
    VESK_ENC_STR_INVALID = 0xFFFFFFFF,
};

// 1: real-time paced reading; other values read without pacing.
enum vesk_av_reader_work_mode : uint32_t {
    VESK_AV_READER_FREE_RUN = 0,
    VESK_AV_READER_REAL_TIME = 1,
};

// 0: stream user (recording, live); non-zero: snap user (holds only the newest key-frame group).
enum vesk_av_reader_usr_type : uint32_t {
    VESK_AV_READER_STREAM_USER = 0,
    VESK_AV_READER_SNAP_USER = 1,
};

// Code naming the consumer, kept per user bit for the diagnostics.
typedef uint32_t vesk_av_reader_purpose;

// ---- Stream block ----------------------------------------------------------------------------
// The head of one buffer of consecutive frames of one stream of one camera. Fields are u32
// unless noted; address fields are pointer-sized (4 bytes on the board, 8 on 64-bit hosts).
//
//  32-bit:   0 lead_tag | 4 block_size | 8 reserved0 | 12 data_base* | 16 block_state
//           20 block_type | 24 receiving | 28 key_flag | 32 key2_flag | 36 reserved1
//           40 data_end | 44 commit_pos | 48 cont_len | 52 is_full | 56 node_num | 60 first_idx
//           64 last_key_idx | 68 last_key2_idx | 72 rcv_time | 80 key_time | 88 key2_time
//           96 codec | 100 width | 104 height | 108 payload_bytes | 112 trail_tag
//          116 reserved2 | 120 frame_index**                                       (124 bytes)
//  64-bit:  data_base at 16, everything after it 8 bytes later, frame_index at 128 (136 bytes)
//
// Frame positions (data_end, commit_pos, cont_len) count bytes from data_base. frame_index
// holds node_num addresses of frame nodes (vesk_av_frame_node, below).
struct vesk_av_time {
    uint32_t sec; // CLOCK_MONOTONIC
    uint32_t nsec;
};

struct vesk_IPC_stream_block_head {
    uint32_t lead_tag; // = trail_tag of the block whose last frame this one continues
    uint32_t block_size; // bytes of the whole buffer; counted into the cache total
    uint32_t reserved0; // carried
    uint8_t* data_base; // first byte of the frame data
    uint32_t block_state; // 1: final, no further writes
    uint32_t block_type; // vesk_av_stream_type; >= 4 is refused by the push
    uint32_t receiving; // non-zero while the writer still fills the block
    uint32_t key_flag; // the block holds the start of an I frame
    uint32_t key2_flag; // the block holds a frame of the second key type
    uint32_t reserved1; // carried
    uint32_t data_end; // write position: bytes of valid data
    uint32_t commit_pos; // bytes of data whose frames are complete and indexed
    uint32_t cont_len; // bytes at the start that end the previous block's last frame
    uint32_t is_full; // the writer found the buffer full
    uint32_t node_num; // frames indexed in this block
    uint32_t first_idx; // index of the first key frame (where a key-frame search starts)
    uint32_t last_key_idx; // index of the last I frame
    uint32_t last_key2_idx; // index of the last frame of the second key type
    vesk_av_time rcv_time; // when the block was created: the cache measures its age from it
    vesk_av_time key_time; // when the last I frame was written
    vesk_av_time key2_time; // when the last second-key frame was written
    uint32_t codec; // codec byte, width and height of the newest frame
    uint32_t width;
    uint32_t height;
    uint32_t payload_bytes; // sum of uiLength of the indexed frames
    uint32_t trail_tag; // carried as lead_tag by a block that continues the last frame
    uint32_t reserved2; // carried
    struct vesk_av_frame_node** frame_index; // node_num frame node addresses
};

// A frame inside a block: this 48-byte record, then the _tagVeskFrameHeader, then the
// payload, contiguous from the record on. The record and the header always lie wholly in the
// block; only the payload of the block's last frame may continue into the next block(s).
//
//   0 magic | 4 index | 8 offset | 12 frame_len | 16 stored_len | 20 frame_no | 24 frame_type
//  28 time_stamp | 32 write_time (8) | 40 reserved (8)                    (48 bytes, no addresses)
constexpr uint32_t VESK_AV_NODE_MAGIC = 0x4E564B31;
struct vesk_av_frame_node {
    uint32_t magic; // VESK_AV_NODE_MAGIC
    uint32_t index; // position in the block's frame index
    uint32_t offset; // of this record from data_base
    uint32_t frame_len; // header + payload bytes (36 + uiLength)
    uint32_t stored_len; // of frame_len, the bytes in this block; the rest continues
    uint32_t frame_no; // copies of the header's, for list walks that skip the header
    uint32_t frame_type;
    uint32_t time_stamp;
    vesk_av_time write_time; // when the writer indexed the frame
    uint32_t reserved[2];
};

static_assert(sizeof(vesk_av_frame_node) == 48, "frame node record is 48 bytes");
static_assert(sizeof(void*) != 4
        || (offsetof(vesk_IPC_stream_block_head, data_base) == 12
            && offsetof(vesk_IPC_stream_block_head, block_state) == 16
            && offsetof(vesk_IPC_stream_block_head, node_num) == 56
            && offsetof(vesk_IPC_stream_block_head, rcv_time) == 72 && offsetof(vesk_IPC_stream_block_head, codec) == 96
            && offsetof(vesk_IPC_stream_block_head, trail_tag) == 112
            && offsetof(vesk_IPC_stream_block_head, frame_index) == 120 && sizeof(vesk_IPC_stream_block_head) == 124),
    "stream block head on the 32-bit target");
static_assert(sizeof(void*) != 8
        || (offsetof(vesk_IPC_stream_block_head, data_base) == 16
            && offsetof(vesk_IPC_stream_block_head, block_state) == 24
            && offsetof(vesk_IPC_stream_block_head, node_num) == 64
            && offsetof(vesk_IPC_stream_block_head, rcv_time) == 80
            && offsetof(vesk_IPC_stream_block_head, codec) == 104
            && offsetof(vesk_IPC_stream_block_head, trail_tag) == 120
            && offsetof(vesk_IPC_stream_block_head, frame_index) == 128 && sizeof(vesk_IPC_stream_block_head) == 136),
    "stream block head on 64-bit hosts");

// ---- Caller-held records ---------------------------------------------------------------------

// Position of the frame API (vesk_utility_get_frame and the related calls below), held by the
// caller: the block and frame last handed out, so that the next call continues after it, and
// what the release must give back. Start it zeroed; the calls fill it. Do not copy a note that
// holds a frame: the release goes through the copy that holds it.
struct vesk_read_av_list_note {
    uint64_t blk_id; // block of the last frame handed out; 0: start at the newest key frame
    uint32_t frame_idx; // its index in that block
    uint32_t frame_no; // its frame number
    uint32_t ivr_ch; // channel and cache stream type the position belongs to
    uint32_t str_type;
    uint32_t ipc_idx; // IPC index the frame was taken from (where it is released)
    uint32_t held; // 0 nothing, 1 a frame in place (a block reference), 2 a joined copy
    _tagVeskFrameHeader* frame; // the frame handed out, until released
    uint32_t length; // its bytes: header + payload
    uint32_t dropped; // frames passed over since the note started (gaps, rotated-out blocks)
};

// Statistics of one cached stream (vesk_utility_get_stream_stat_info). Rates cover the last
// complete 10 s period; everything reads zero while the stream is disconnected.
struct vesk_stream_stat_info {
    uint32_t codec; // codec byte, width and height of the newest block
    uint32_t width;
    uint32_t height;
    float kbps;
    float fps;
    vesk_av_time newest_time; // receive time of the newest block
    _tagVeskFrameHeader last_frame; // header of the newest block's last frame
    uint32_t disconnected; // 1 once no new block arrived for 10 s
};

// Caller-side bit-rate meter over frame timestamps (vesk_utility_update_real_bps_info); start
// it zeroed. Results cover periods of at least 30 s of frame time.
struct vesk_bps_real_info {
    uint32_t period_start; // uiTimeSec of the period's first frame
    uint32_t width;
    uint32_t height;
    uint32_t period_bytes;
    uint32_t period_frames;
    uint32_t result_time; // wall clock seconds of the last result
    uint8_t fps; // integer part
    uint8_t fps_tenths;
    uint32_t kbps;
    uint8_t codec;
};

// ---- Block writer ----------------------------------------------------------------------------
// The way to feed the cache. One writer per stream; one thread at a time per writer.
//
//   vesk_av_block_writer w;
//   vesk_utility_av_writer_init(&w, ipc_idx, VESK_AV_STREAM_MAIN, purpose, 512 * 1024, 256);
//   for each received frame: vesk_utility_av_writer_put(&w, &header, payload);
//   at the end of the stream:  vesk_utility_av_writer_close(&w);
//
// Each block is one accounted allocation (user VESK_USER_AV_CACHE and `purpose`, which must be
// an A/V budget purpose: 0x9110C-0x9110F, 0x91111-0x91114) laid out as head | frame index of
// max_frames entries | block_bytes of data. The writer pushes a block as soon as it opens it;
// each frame is published under the channel lock. A frame that does not fit continues at the
// start of the next block (lead_tag = previous trail_tag, cont_len = its remaining bytes),
// across as many blocks as it needs. When the budget refuses a block the frame is dropped
// (VESK_ERR_NO_RESOURCE) and the next frame opens a block that does not claim continuation.
struct vesk_av_block_writer {
    uint32_t ipc_idx;
    vesk_av_stream_type type;
    vesk_memmory_purpose purpose;
    uint32_t block_bytes; // data bytes per block
    uint32_t max_frames; // frame index entries per block
    uint32_t next_tag; // last tag handed out (tags are never 0)
    vesk_IPC_stream_block_head* cur; // block being filled, NULL between blocks
};

// Fills *w. VESK_ERR_INVALID_PARAM for a NULL writer, ipc_idx >= 32, a type >= 4, a purpose
// outside the A/V budget, max_frames 0 or block_bytes too small for one frame node and header.
VESK_API VESK_ERR vesk_utility_av_writer_init(vesk_av_block_writer* w, uint32_t ipc_idx, vesk_av_stream_type type,
    vesk_memmory_purpose purpose, uint32_t block_bytes, uint32_t max_frames);
// Appends one frame (header + header->uiLength bytes of payload). The header must carry
// VESK_FRAME_STARTCODE (fatal otherwise). VESK_OK; VESK_ERR_NO_RESOURCE when the budget
// refused a block: the frame (or its rest) is lost.
VESK_API VESK_ERR vesk_utility_av_writer_put(
    vesk_av_block_writer* w, const _tagVeskFrameHeader* header, const void* payload);
// Marks the current block final (the cache may free it from now on). VESK_OK.
VESK_API VESK_ERR vesk_utility_av_writer_close(vesk_av_block_writer* w);

// ---- Cache -----------------------------------------------------------------------------------

// Hands a filled (or filling) block to the cache of camera ipc_idx; from now on the cache owns
// its memory. O(1); never waits for readers and never evicts. VESK_ERR_INVALID_PARAM for
// ipc_idx >= 32, NULL, or a block_type >= 4 (nothing else of the block is read then).
VESK_API VESK_ERR vesk_utility_push_av_block(uint32_t ipc_idx, vesk_IPC_stream_block_head* block);
// Rotation starts at start_rotate bytes of A/V blocks (which also becomes the cache budget)
// and the allocator refuses A/V blocks from forbid_malloc on. REQUIRES: forbid >= start
// (fatal otherwise).
VESK_API VESK_ERR vesk_utility_set_av_max_cache(uint32_t start_rotate, uint32_t forbid_malloc);
// Stored and reported only (0: camera not connected).
VESK_API VESK_ERR vesk_utility_set_chn_connect_status(uint32_t ipc_idx, uint32_t status);
// Swaps the IPC indexes of two recorder channels; both < 32.
VESK_API VESK_ERR vesk_utility_switch_av_ivr_ch(uint32_t ivr_ch_a, uint32_t ivr_ch_b);

// A consumer's cursor into one recorder channel's streams. Created by vesk_utility_new_av_reader,
// used by one thread at a time, destroyed by vesk_utility_delete_av_reader once it holds
// nothing.
class vesk_av_reader
{
public:
    // Binds the reader to recorder channel chn (< 32). VESK_ERR_OPERATE_FAIL for a bad channel;
    // changing channel while holding anything is fatal.
    virtual VESK_ERR set_chn(uint32_t chn) = 0;
    // The channel, 0xFFFFFFFF when not set. VESK_ERR_INVALID_PARAM for NULL.
    virtual VESK_ERR get_chn(uint32_t* chn) = 0;
    // Gives back this reader's user bit of one stream, so the cache stops keeping blocks for it.
    virtual VESK_ERR release_usr_magic(vesk_av_stream_type str_type) = 0;
    virtual VESK_ERR set_work_mode(vesk_av_reader_work_mode mode) = 0;
    virtual VESK_ERR reset_history(vesk_av_stream_type str_type) = 0;
    // The next frame of the stream and how long to wait before asking again.
    virtual VESK_ERR get_frame(
        vesk_av_stream_type str_type, _tagVeskFrameHeader** frame, uint32_t flag, uint32_t* next_interval)
        = 0;
    virtual VESK_ERR put_frame(vesk_av_stream_type str_type, _tagVeskFrameHeader* frame) = 0;
    virtual VESK_ERR get_block(vesk_av_stream_type str_type, vesk_IPC_stream_block_head** block, VESK_BOOL force) = 0;
    virtual VESK_ERR put_block(vesk_av_stream_type str_type, vesk_IPC_stream_block_head* block) = 0;
    // True while the reader holds no block, frame or copy.
    virtual bool is_free() = 0;
    virtual ~vesk_av_reader() { }

    vesk_av_reader() = default;
    vesk_av_reader(const vesk_av_reader&) = delete;
    vesk_av_reader& operator=(const vesk_av_reader&) = delete;
};

// NULL when all 320 reader slots are taken ("AV Reader OverFlow, Max:320").
VESK_API vesk_av_reader* vesk_utility_new_av_reader(
    vesk_av_reader_work_mode mode, vesk_av_reader_usr_type usr_type, vesk_av_reader_purpose purpose);
// Destroys a reader that holds nothing; one that still holds references ends the process.
// NULL: warning, VESK_OK.
VESK_API VESK_ERR vesk_utility_delete_av_reader(vesk_av_reader* reader, const char* file, const char* func);

// ---- Statistics ------------------------------------------------------------------------------

// Statistics of recorder channel ivr_ch's stream. VESK_ERR_INVALID_PARAM for ivr_ch > 31, NULL
// or a type >= 4 (output zeroed).
VESK_API VESK_ERR vesk_utility_get_stream_stat_info(
    uint32_t ivr_ch, vesk_av_stream_type type, vesk_stream_stat_info* info);
// Header of the stream's newest frame; all zeros while the stream is disconnected.
VESK_API VESK_ERR vesk_utility_get_last_frame_head(
    uint32_t ivr_ch, vesk_av_stream_type type, _tagVeskFrameHeader& header);
// The newest I frame still in the cache of recorder channel ivr_ch's main or sub stream: when
// the writer indexed it (*key_time, the block's key time on the monotonic clock) and its
// header's uiTimeSec (*frame_sec). A frame counts once its header is cached, even while the
// rest of its payload is still arriving.
// The resolution of the stream's newest frame, from its header: it follows a camera's change
// of resolution from the first frame after it.
// Both: VESK_ERR_INVALID_PARAM for ivr_ch > 31, another stream type or a NULL output;
// VESK_ERR_OPERATE_FAIL (not logged: made to be polled) when the channel is marked not
// connected (vesk_utility_set_chn_connect_status 0), the stream has sent nothing for 10 s, or
// nothing suitable is cached.
VESK_API VESK_ERR vesk_utility_get_last_valid_I_time(
    uint32_t ivr_ch, vesk_av_stream_type stream, vesk_av_time* key_time, uint32_t* frame_sec);
VESK_API VESK_ERR vesk_utility_get_video_resolution(
    uint32_t ivr_ch, vesk_av_stream_type stream, uint32_t* width, uint32_t* height);
// Feeds one frame into a caller-held meter; name labels the messages.
VESK_API VESK_ERR vesk_utility_update_real_bps_info(
    const char* name, vesk_bps_real_info* info, const _tagVeskFrameHeader* header);
// Prints the meter's last result.
VESK_API VESK_ERR vesk_utility_dump_real_bps(const char* name, const vesk_bps_real_info* info);
// The cache stream type of an encoder stream; VESK_AV_STREAM_NUM for an unknown one.
VESK_API vesk_av_stream_type vesk_utility_av_convert_type(vesk_enc_str_type enc_type);

// ---- Frame API -------------------------------------------------------------------------------
// Reads one channel's stream frame by frame without a reader object: the caller keeps the
// position in a vesk_read_av_list_note. While the note holds a frame, the frame is the cache's
// own bytes (the block is referenced, so rotation keeps it) or, for a frame split over blocks,
// an accounted copy joined from the pieces; either way it stays valid until released.
//
// Unlike a reader, a note holds no user bit: between a release and the next get the cache
// does not wait for it. A caller that falls so far behind that the frames after its position
// were rotated out continues with the oldest cached frames; on video a frame-number gap (from
// rotation, lost blocks or a broken continuation) moves it on to the next key frame (I or the
// second key type), and `dropped` counts the frames passed over. Only cached frames are handed
// out (no logo frames).
//
//   vesk_read_av_list_note note = {};
//   _tagVeskFrameHeader* f;
//   while (running) {
//       if (vesk_utility_get_frame(ch, VESK_ENC_STR_MAIN, &note, &f) != VESK_OK) { sleep; continue; }
//       use f (f->uiLength payload bytes follow the header);
//       vesk_utility_rel_frame(&note);
//   }
//
// Results: VESK_OK with *frame set; VESK_ERR_OPERATE_FAIL when nothing new is cached yet;
// VESK_ERR_NO_RESOURCE when a joined copy could not be allocated (try again);
// VESK_ERR_INVALID_PARAM for ivr_ch >= 32, an unknown stream, a NULL note or frame, or a get
// for another channel or stream while the note still holds a frame. One thread at a time per
// note.

// The next frame after the note's position (the newest key frame, or for audio and smart data
// the newest frame, when the note is new or was last used for another channel, stream or IPC
// mapping). Asked again while the note holds a frame, it hands out that frame again.
VESK_API VESK_ERR vesk_utility_get_frame(
    uint32_t ivr_ch, vesk_enc_str_type enc_type, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame);
// Starts the note over at the newest key frame (newest frame for audio and smart data) and
// hands it out. REQUIRES: the note holds nothing (fatal otherwise).
VESK_API VESK_ERR vesk_utility_first_get_frame(
    uint32_t ivr_ch, vesk_enc_str_type enc_type, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame);
// Releases the frame the note holds and keeps the position. A note that holds nothing: VESK_OK.
// A note whose reference is no longer held (released through a copy of it) is fatal.
VESK_API VESK_ERR vesk_utility_rel_frame(vesk_read_av_list_note* note);
// vesk_utility_rel_frame on notes[0..count-1]. VESK_ERR_INVALID_PARAM for a NULL array.
VESK_API VESK_ERR vesk_utility_rel_frame_multy(vesk_read_av_list_note* notes, uint32_t count);

// The same for the channel's analytics (smart) stream: every frame stands alone, so a gap is
// counted in `dropped` but nothing is skipped.
VESK_API VESK_ERR vesk_utility_ivs_get_frame(
    uint32_t ivr_ch, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame);
VESK_API VESK_ERR vesk_utility_ivs_first_get_frame(
    uint32_t ivr_ch, vesk_read_av_list_note* note, _tagVeskFrameHeader** frame);
VESK_API VESK_ERR vesk_utility_ivs_rel_frame(vesk_read_av_list_note* note);
VESK_API VESK_ERR vesk_utility_ivs_rel_frame_multy(vesk_read_av_list_note* notes, uint32_t count);

// ---- Logo frames -----------------------------------------------------------------------------

enum vesk_logo_type : uint32_t {
    VESK_LOGO_NO_VIDEO = 1,
    VESK_LOGO_NO_REC_FILE = 2,
    VESK_LOGO_LOCK_OPS = 3,
    VESK_LOGO_COMPANY = 4,
    VESK_LOGO_NOT_SUPPORT = 5,
    VESK_LOGO_SVAC = 6,
    VESK_LOGO_NO_AUTHORITY = 7,
    VESK_LOGO_GUI_UNMATCH = 8,
    VESK_LOGO_NOT_CONNECT_CAMERA = 9,
    VESK_LOGO_NOT_SUPPORT_VIDEO_TYPE = 10,
};

// The prepared frame of a logo (header + payload; length counts both), loaded at init. The
// other size of the same logo stands in when the asked one is missing. VESK_ERR_OPERATE_FAIL
// (frame NULL) when neither is loaded or an output is NULL. Frames live for the process.
VESK_API VESK_ERR vesk_utility_get_logo_frame(
    vesk_logo_type type, VESK_BOOL large, _tagVeskFrameHeader** frame, uint32_t* length);

} // namespace vesk_soft

#endif // VESK_UTILITY_AV_H
