// nvr_sim - a simulated recorder process: cameras feed the A/V block cache through the block
// writer, recording, live-view and snapshot consumers read it back, one camera drops out and
// raises a video-loss event. This header holds what the parts share: the options, the
// per-channel and per-consumer counters, and the entry points of each part.
#ifndef NVR_SIM_H
#define NVR_SIM_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vesk_utility.h"

namespace nvr_sim
{

// Module id of the simulator in the accounting, the timer, watchdog and event tables.
constexpr vesk_soft::vesk_user_id k_sim_user = 0x7E;
constexpr unsigned k_max_channels = 32;

struct options {
    unsigned channels = 8;
    unsigned readers_per_channel = 1; // live viewers per channel
    unsigned budget_mb = 32; // A/V cache budget (rotation start); refusal from 5/4 of it
    unsigned seconds = 60;
    unsigned status_s = 5; // period of the status block
    std::string input; // Annex-B clip or interleaved RTP capture; empty: synthetic
    std::string out_dir; // recordings; empty: read and check without writing
    std::string root; // private root; empty: $VESK_UTILITY_ROOT or a new /tmp directory
    std::string proxy_server; // empty: vesk_proxy_server beside this program
};

// Returns false (after printing why) when the arguments are not usable; *exit_now is set for
// --help.
bool parse_options(int argc, char** argv, options& opt, bool* exit_now);

// ---- Private root and the proxy server (box.cpp) -------------------------------------------

// Creates the directories, logo files, resolver files and the close_dog marker under the root
// and exports VESK_UTILITY_ROOT. Returns false when the root cannot be made.
bool prepare_root(options& opt);
// Starts vesk_proxy_server in its own process group and waits for its socket; 0 if it could
// not be started (the library then runs commands itself).
int start_proxy_server(const options& opt);
void stop_proxy_server(int pid);

// ---- Input clip (clip.cpp) -------------------------------------------------------------------

// One encoded video frame: Annex-B bytes of one access unit, or the interleaved RTP packets
// of one frame when the clip came from a capture.
struct clip_frame {
    std::vector<uint8_t> bytes;
    bool key = false;
};

struct clip {
    bool rtp = false; // frames hold interleaved RTP packets, to be depacketised on receipt
    std::vector<clip_frame> frames;
    std::vector<uint8_t> param_sets; // SPS and PPS (Annex-B), put in front of key frames lacking them
    uint16_t width = 0;
    uint16_t height = 0;
};

// Loads an Annex-B elementary stream (split into access units) or an RTSP-interleaved RTP
// capture (grouped into frames by RTP timestamp). False, with a message, when it holds no
// usable frame.
bool load_clip(const std::string& path, clip& out);
// Whether an Annex-B access unit holds an IDR slice, and whether it holds an SPS.
void scan_access_unit(const uint8_t* p, size_t n, bool* key, bool* has_sps);

// ---- Shared state ------------------------------------------------------------------------------

struct channel_state {
    // Written by the camera thread, read by the status display and the drain.
    std::atomic<uint32_t> main_frames {0}; // main-stream frames pushed
    std::atomic<uint32_t> main_last_fno {0}; // frame number of the newest one
    std::atomic<uint32_t> lost_on_push {0}; // frames the budget refused
    std::atomic<bool> disconnected {false};
};

enum class consumer_kind { record, live, snap };

struct consumer_stats {
    consumer_kind kind = consumer_kind::record;
    unsigned chn = 0;
    unsigned index = 0; // within its kind
    vesk_soft::vesk_av_stream_type stream = vesk_soft::VESK_AV_STREAM_MAIN;
    std::atomic<uint64_t> frames_read {0};
    std::atomic<uint64_t> frames_dropped {0}; // frame-number gaps
    std::atomic<uint64_t> frames_written {0};
    std::atomic<uint64_t> logo_frames {0};
    std::atomic<uint64_t> misses {0}; // snapshots that found no key frame
    std::atomic<bool> drained {false}; // a recorder read the channel's last frame
    bool reader_free = false; // is_free() before deletion
    bool write_error = false;
};

struct sim {
    options opt;
    clip input;
    channel_state chn[k_max_channels];
    std::vector<std::unique_ptr<consumer_stats>> consumers;
    std::atomic<bool> stop_sources {false};
    std::atomic<bool> draining {false}; // sources stopped: recorders finish at the last frame
    std::atomic<bool> stop_consumers {false};
    std::atomic<uint32_t> events_raised {0};
    std::atomic<uint32_t> event_starts {0};
    std::atomic<uint32_t> event_ends {0};
    unsigned drop_chn = 0; // the camera that drops out
    unsigned drop_at_s = 0; // when, seconds after the start, and for how long
    unsigned drop_for_s = 0;
    int64_t start_ms = 0;
};

// Monotonic milliseconds.
int64_t now_ms();
// Sleeps up to ms, in short steps, returning early once flag is set.
void sleep_unless(const std::atomic<bool>& flag, unsigned ms);

// Runs fn(arg) on a thread created and named through the library's thread registry. The
// thread enters and exits the registry itself; join_thread retrieves it.
unsigned long start_thread(const char* name, void (*fn)(void*), void* arg);
void join_thread(unsigned long hand);

// ---- Cameras (camera.cpp) ------------------------------------------------------------------------
void start_cameras(sim& s);
void join_cameras(sim& s);

// ---- Consumers (consumers.cpp) -------------------------------------------------------------------
// Creates the readers and their threads. False when the reader table is full.
bool start_consumers(sim& s);
// Joins the consumer threads, puts everything back and deletes the readers.
void join_consumers(sim& s);

// ---- Events (events.cpp) ---------------------------------------------------------------------------
void register_event_observer(sim& s);
void unregister_event_observer();
// Raises (1) or ends (0) the video-loss event of a channel.
void set_video_loss(sim& s, unsigned chn, bool active);

// ---- Library view (probe.cpp): what the console's diagnose commands show -------------------------
struct library_view {
    double cache_mb = -1; // blocks held by the A/V cache
    unsigned max_cache_mb = 0;
    unsigned readers = 0;
    unsigned cached_blocks = 0; // blocks in every stream list
    std::string accounted; // total of the accounted allocator, as the console prints it
    int timer_tasks = -1; // waiting and running tasks
};
library_view read_library_view();
// The A/V manager's dump (console client "诊断 块数据管理", command 1).
std::string av_dump();

// After every reader is deleted: pushes a probe block into every stream and waits for the cache
// to rotate everything out. False, with the dump in the report, when something stays.
bool check_leftovers(std::string& report);

// ---- Status display (status.cpp) ------------------------------------------------------------------
void print_status(const sim& s, bool full);
// Prints the summary and returns whether the run kept every frame for its unpaced consumers.
bool print_summary(const sim& s, bool leftovers_ok, const std::string& leftover_report);

} // namespace nvr_sim

#endif // NVR_SIM_H
