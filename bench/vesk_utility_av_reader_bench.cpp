// A/V reader: the cost of one get_frame + put_frame (a frame handed out in place, and a frame
// joined from the blocks it was split over), and the share of one core that a full recorder
// load takes (32 cameras, four streams, four readers each), each against the bare minimum a
// consumer needs in the same run.
//
// Time is compressed: a second of load is processed in milliseconds, so every rotation pass
// is given a clock 200 ms ahead and sees each block past its minimum age. A pass then evicts
// whatever every user has finished with, so the lists hold what an on-time consumer still
// needs, minus the last 200 ms of finished blocks that the board would keep a little longer.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "vesk_utility.h"
#include "av/vesk_utility_av_mng.h"

using namespace vesk_soft;
using namespace vesk_utility;

namespace
{

constexpr uint32_t k_frame_type_p = 2;
constexpr uint32_t k_frame_type_data = 3; // audio and analytics frames
constexpr uint32_t k_gop = 50; // an I frame every 2 s at 25 fps

// Payload bytes come from here, as from a receiving module's buffer; nobody reads them back.
const uint8_t* payload_src()
{
    static const std::vector<uint8_t> buf = [] {
        std::vector<uint8_t> b(64 * 1024);
        for (size_t i = 0; i < b.size(); i++)
            b[i] = static_cast<uint8_t>(i * 131);
        return b;
    }();
    return buf.data();
}

_tagVeskFrameHeader make_header(uint32_t fno, uint32_t type, uint32_t len)
{
    _tagVeskFrameHeader h {};
    h.uiStartId = VESK_FRAME_STARTCODE;
    h.uiFrameType = type;
    h.uiFrameNo = fno;
    h.uiLength = len;
    h.ucCodec = 8;
    h.uiTimeStamp = fno * 3600; // 40 ms at 90 kHz
    return h;
}

vesk_av_time rotate_now()
{
    vesk_av_time t = av_now();
    t.nsec += 200 * 1000 * 1000;
    if (t.nsec >= 1000 * 1000 * 1000) {
        t.nsec -= 1000 * 1000 * 1000;
        t.sec++;
    }
    return t;
}

double process_cpu_s()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Minor page faults of the process so far: fresh memory the kernel had to map and zero.
double page_faults()
{
    rusage ru {};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_minflt);
}

// Sends standard output (the library's log) to /dev/null while alive.
class quiet_stdout
{
public:
    quiet_stdout()
    {
        fflush(stdout);
        m_saved = dup(1);
        const int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, 1);
        close(null_fd);
    }
    ~quiet_stdout()
    {
        fflush(stdout);
        dup2(m_saved, 1);
        close(m_saved);
    }
    quiet_stdout(const quiet_stdout&) = delete;
    quiet_stdout& operator=(const quiet_stdout&) = delete;

private:
    int m_saved;
};

uint32_t blk_cnt(vesk_utility_av_mng& mng, uint32_t ipc, uint32_t type)
{
    vesk_av_chn_blocks& chn = mng.chn_blocks(ipc);
    pthread_mutex_lock(&chn.lock);
    const uint32_t n = chn.lists[type].blk_cnt;
    pthread_mutex_unlock(&chn.lock);
    return n;
}

// Frames of one list that the writer split, and all frames of it (under the channel lock).
void count_split(vesk_utility_av_mng& mng, uint32_t ipc, uint32_t type, uint32_t& split, uint32_t& all)
{
    vesk_av_chn_blocks& chn = mng.chn_blocks(ipc);
    pthread_mutex_lock(&chn.lock);
    for (vesk_av_block* b = chn.lists[type].head; b != nullptr; b = b->next) {
        for (uint32_t i = 0; i < b->block->node_num; i++) {
            const vesk_av_frame_node* n = b->block->frame_index[i];
            split += n->stored_len < n->frame_len ? 1 : 0;
            all++;
        }
    }
    pthread_mutex_unlock(&chn.lock);
}

// ---- get_frame + put_frame -------------------------------------------------------------------
//
// One benchmark iteration is one get+put. Between runs of k_micro_chn x k_tick_frames reads
// (a 200 ms tick of 25 fps video on each of 8 cameras) the writers add the next tick's frames
// and rotation runs; that refill is left out by timing each run by hand and booking it on the
// run's last iteration (manual time).

constexpr uint32_t k_micro_chn = 8;
constexpr uint32_t k_tick_frames = 5;

template <typename Fixture> void run_micro(benchmark::State& state, Fixture& fx)
{
    using clock = std::chrono::steady_clock;
    constexpr int64_t k_run = k_micro_chn * k_tick_frames;
    int64_t left = 0;
    int64_t done = 0;
    clock::time_point t0;
    for (auto _ : state) {
        if (left == 0) {
            fx.refill();
            left = k_run;
            t0 = clock::now();
        }
        const int64_t k = k_run - left;
        fx.read_one(static_cast<uint32_t>(k / k_tick_frames));
        left--;
        done++;
        if (left == 0 || done == static_cast<int64_t>(state.max_iterations))
            state.SetIterationTime(std::chrono::duration<double>(clock::now() - t0).count());
    }
    state.counters["frames/s"] = benchmark::Counter(static_cast<double>(done), benchmark::Counter::kIsRate);
}

// Stream shapes of the two cases.
//   in place: sub-stream video (I 15,000 B, P 2,000-2,599 B, about 0.5 Mbit/s) in 64 KiB blocks
//     whose 16-entry frame index fills before their data: no frame is ever split.
//   joined:   12,000 B frames in 8 KiB blocks: every frame starts in one block and ends in the
//     next or the one after (a block holds at most one frame start).
struct micro_shape {
    vesk_av_stream_type type;
    vesk_memmory_purpose purpose;
    uint32_t block_bytes;
    uint32_t max_frames;
    bool joined;
    double frames_per_block;
};

constexpr micro_shape k_in_place {VESK_AV_STREAM_SUB, 0x9110D, 64 * 1024, 16, false, 16.0};
constexpr micro_shape k_joined {VESK_AV_STREAM_MAIN, 0x9110C, 8 * 1024, 16, true, 8192.0 / 12084.0};

uint32_t micro_len(const micro_shape& s, uint32_t fno)
{
    if (s.joined)
        return 12000;
    return fno % k_gop == 0 ? 15000 : 2000 + fno * 7919 % 600;
}

// The cache side: a writer and a measured reader per camera, and optionally a slow consumer
// per camera (a recording that lags `lag_blocks` blocks behind), whose user bit keeps the
// blocks between it and the writer cached, so that the measured reader works on a longer list.
struct cache_fixture {
    const micro_shape& shape;
    std::unique_ptr<vesk_utility_av_mng> mng {new vesk_utility_av_mng()};
    vesk_av_block_writer w[k_micro_chn];
    vesk_av_reader* reader[k_micro_chn] = {};
    vesk_av_reader* slow[k_micro_chn] = {};
    uint32_t written = 0; // frames per camera
    uint32_t next_fno[k_micro_chn] = {};
    uint32_t slow_next[k_micro_chn] = {};
    uint32_t lag_frames = 0;
    uint64_t errors = 0;
    uint64_t blocks_seen = 0;
    uint64_t refills = 0;

    cache_fixture(const micro_shape& s, uint32_t lag_blocks)
        : shape(s)
    {
        lag_frames = static_cast<uint32_t>(lag_blocks * s.frames_per_block + 0.5);
        for (uint32_t ch = 0; ch < k_micro_chn; ch++) {
            mng->set_chn_connect_status(ch, 1);
            vesk_utility_av_writer_init(&w[ch], ch, s.type, s.purpose, s.block_bytes, s.max_frames);
            reader[ch] = mng->new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 0x100 + ch);
            reader[ch]->set_chn(ch);
            if (lag_blocks != 0) {
                slow[ch] = mng->new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 0x200 + ch);
                slow[ch]->set_chn(ch);
            }
        }
        // Reach the steady state before timing: the slow consumer at its distance.
        for (uint32_t n = 0; n < lag_frames / k_tick_frames + 4; n++) {
            refill();
            for (uint32_t ch = 0; ch < k_micro_chn; ch++)
                for (uint32_t f = 0; f < k_tick_frames; f++)
                    read_one(ch);
        }
        errors = 0;
        blocks_seen = 0;
        refills = 0;
    }

    ~cache_fixture()
    {
        for (uint32_t ch = 0; ch < k_micro_chn; ch++) {
            mng->delete_av_reader(reader[ch], __FILE__, __func__);
            if (slow[ch] != nullptr)
                mng->delete_av_reader(slow[ch], __FILE__, __func__);
        }
    }

    void refill()
    {
        for (uint32_t ch = 0; ch < k_micro_chn && slow[ch] != nullptr; ch++) {
            // It takes the first frame at once (and with it its user bit), then stays behind.
            while (slow_next[ch] == 0 || written - slow_next[ch] > lag_frames) {
                _tagVeskFrameHeader* f = nullptr;
                uint32_t next = 0;
                if (slow[ch]->get_frame(shape.type, &f, 0, &next) != VESK_OK)
                    break;
                slow_next[ch] = f->uiFrameNo + 1;
                slow[ch]->put_frame(shape.type, f);
            }
        }
        mng->rotate_pass(rotate_now());
        for (uint32_t f = 0; f < k_tick_frames; f++, written++) {
            const uint32_t len = micro_len(shape, written);
            const _tagVeskFrameHeader h
                = make_header(written, written % k_gop == 0 ? VESK_FRAME_TYPE_I : k_frame_type_p, len);
            for (uint32_t ch = 0; ch < k_micro_chn; ch++)
                errors += av_writer_put(mng.get(), &w[ch], &h, payload_src()) != VESK_OK ? 1 : 0;
        }
        // The list the next run's reads walk.
        blocks_seen += blk_cnt(*mng, 0, shape.type);
        refills++;
    }

    void read_one(uint32_t ch)
    {
        _tagVeskFrameHeader* f = nullptr;
        uint32_t next = 0;
        if (reader[ch]->get_frame(shape.type, &f, 0, &next) != VESK_OK) {
            errors++;
            return;
        }
        errors += f->uiFrameNo != next_fno[ch] ? 1 : 0;
        next_fno[ch] = f->uiFrameNo + 1;
        reader[ch]->put_frame(shape.type, f);
    }

    void report(benchmark::State& state)
    {
        uint32_t split = 0;
        uint32_t all = 0;
        for (uint32_t ch = 0; ch < k_micro_chn; ch++)
            count_split(*mng, ch, shape.type, split, all);
        if (errors != 0)
            state.SkipWithError("a frame was missing or out of order");
        else if (all == 0 || split != (shape.joined ? all : 0))
            state.SkipWithError("the cached frames are not all of the intended kind (in place / split)");
        state.counters["cached_blocks"] = refills != 0 ? static_cast<double>(blocks_seen) / refills : 0;
    }
};

void vesk_get_put_in_place(benchmark::State& state)
{
    cache_fixture fx(k_in_place, static_cast<uint32_t>(state.range(0)));
    run_micro(state, fx);
    fx.report(state);
}

void vesk_get_put_joined(benchmark::State& state)
{
    cache_fixture fx(k_joined, static_cast<uint32_t>(state.range(0)));
    run_micro(state, fx);
    fx.report(state);
}

// Baseline of the in-place case: the producer writes each frame's header into a slot and
// queues its address under a mutex; the consumer pops the address and reads the header.
// Baseline of the joined case: the producer writes each frame across 8 KiB buffers as the
// writer would and queues its pieces; the consumer pops them, copies them into a malloc'd
// buffer, reads the header and frees it.
struct pieces {
    const uint8_t* at[3];
    uint32_t len[3];
    uint32_t n;
    uint32_t total;
};

struct queue_fixture {
    static constexpr uint32_t k_bufs = 32; // per camera, more than a tick writes
    static constexpr uint32_t k_buf_bytes = 8 * 1024;
    static constexpr uint32_t k_slot_bytes = 15000 + sizeof(_tagVeskFrameHeader);

    const micro_shape& shape;
    pthread_mutex_t lock[k_micro_chn];
    std::deque<_tagVeskFrameHeader*> frames[k_micro_chn];
    std::deque<pieces> parts[k_micro_chn];
    std::vector<uint8_t> slots[k_micro_chn]; // in place: one frame slot per frame of a tick
    std::vector<std::unique_ptr<uint8_t[]>> bufs[k_micro_chn]; // joined: the 8 KiB ring
    uint32_t buf_idx[k_micro_chn] = {};
    uint32_t buf_off[k_micro_chn] = {};
    std::vector<uint8_t> scratch;
    uint32_t written = 0;
    uint32_t next_fno[k_micro_chn] = {};
    uint64_t errors = 0;

    explicit queue_fixture(const micro_shape& s)
        : shape(s)
    {
        for (uint32_t ch = 0; ch < k_micro_chn; ch++) {
            pthread_mutex_init(&lock[ch], nullptr);
            slots[ch].resize(k_tick_frames * k_slot_bytes);
            for (uint32_t i = 0; i < k_bufs; i++)
                bufs[ch].emplace_back(new uint8_t[k_buf_bytes]);
        }
    }

    ~queue_fixture()
    {
        for (auto& l : lock)
            pthread_mutex_destroy(&l);
    }

    void put_joined(uint32_t ch, const _tagVeskFrameHeader& h)
    {
        const uint32_t total = sizeof(h) + h.uiLength;
        scratch.resize(total);
        memcpy(scratch.data(), &h, sizeof(h));
        memcpy(scratch.data() + sizeof(h), payload_src(), h.uiLength);
        pieces p {};
        for (uint32_t done = 0; done < total;) {
            uint8_t* dst = bufs[ch][buf_idx[ch]].get() + buf_off[ch];
            const uint32_t room = k_buf_bytes - buf_off[ch];
            const uint32_t part = total - done < room ? total - done : room;
            memcpy(dst, scratch.data() + done, part);
            p.at[p.n] = dst;
            p.len[p.n] = part;
            p.n++;
            done += part;
            buf_off[ch] += part;
            if (buf_off[ch] == k_buf_bytes) {
                buf_off[ch] = 0;
                buf_idx[ch] = (buf_idx[ch] + 1) % k_bufs;
            }
        }
        p.total = total;
        pthread_mutex_lock(&lock[ch]);
        parts[ch].push_back(p);
        pthread_mutex_unlock(&lock[ch]);
    }

    void refill()
    {
        for (uint32_t f = 0; f < k_tick_frames; f++, written++) {
            const _tagVeskFrameHeader h = make_header(
                written, written % k_gop == 0 ? VESK_FRAME_TYPE_I : k_frame_type_p, micro_len(shape, written));
            for (uint32_t ch = 0; ch < k_micro_chn; ch++) {
                if (shape.joined) {
                    put_joined(ch, h);
                    continue;
                }
                auto* slot = reinterpret_cast<_tagVeskFrameHeader*>(slots[ch].data() + f * k_slot_bytes);
                memcpy(slot, &h, sizeof(h));
                pthread_mutex_lock(&lock[ch]);
                frames[ch].push_back(slot);
                pthread_mutex_unlock(&lock[ch]);
            }
        }
    }

    void read_one(uint32_t ch)
    {
        const _tagVeskFrameHeader* f = nullptr;
        if (!shape.joined) {
            pthread_mutex_lock(&lock[ch]);
            if (!frames[ch].empty()) {
                f = frames[ch].front();
                frames[ch].pop_front();
            }
            pthread_mutex_unlock(&lock[ch]);
            if (f == nullptr) {
                errors++;
                return;
            }
            errors += f->uiFrameNo != next_fno[ch] ? 1 : 0;
            next_fno[ch] = f->uiFrameNo + 1;
            return;
        }
        pieces p {};
        pthread_mutex_lock(&lock[ch]);
        if (!parts[ch].empty()) {
            p = parts[ch].front();
            parts[ch].pop_front();
        }
        pthread_mutex_unlock(&lock[ch]);
        auto* copy = static_cast<uint8_t*>(malloc(p.total));
        if (p.n == 0 || copy == nullptr) {
            errors++;
            free(copy);
            return;
        }
        for (uint32_t i = 0, pos = 0; i < p.n; pos += p.len[i], i++)
            memcpy(copy + pos, p.at[i], p.len[i]);
        f = reinterpret_cast<const _tagVeskFrameHeader*>(copy);
        errors += f->uiFrameNo != next_fno[ch] ? 1 : 0;
        next_fno[ch] = f->uiFrameNo + 1;
        benchmark::DoNotOptimize(copy);
        free(copy);
    }

    void report(benchmark::State& state)
    {
        if (errors != 0)
            state.SkipWithError("a frame was missing or out of order");
    }
};

void baseline_get_put_in_place(benchmark::State& state)
{
    queue_fixture fx(k_in_place);
    run_micro(state, fx);
    fx.report(state);
}

void baseline_get_put_joined(benchmark::State& state)
{
    queue_fixture fx(k_joined);
    run_micro(state, fx);
    fx.report(state);
}

// ---- A full recorder load --------------------------------------------------------------------
//
// 32 cameras, each with
//   main  25 fps, I every 50 frames of 60,000 B, P 8,000-9,999 B  (2.0 Mbit/s), 256 KiB blocks
//   sub   25 fps, I every 50 frames of 15,000 B, P 2,000-2,599 B  (0.5 Mbit/s),  64 KiB blocks
//   audio 50 fps, 320 B (20 ms of 16-bit 8 kHz)                   (128 kbit/s),   8 KiB blocks
//   smart  5 fps, 200 B of analytics results                                      4 KiB blocks
// and four readers, each reading every frame of its two streams:
//   recording (main + audio), network relay (main + audio), live view in real-time mode
//   (sub + audio), analytics (sub + smart).
// One iteration is one second of this load as five 200 ms ticks: the writers put the tick's
// frames through the block writer, every reader reads until nothing is left (each stream's
// final empty call included, as a polling consumer makes it), and rotation runs a pass. The
// process CPU time of an iteration over one second is the share of one core the load takes.

constexpr uint32_t k_load_chn = 32;
constexpr uint32_t k_ticks_per_s = 5;

struct load_stream {
    vesk_av_stream_type type;
    vesk_memmory_purpose purpose;
    uint32_t block_bytes;
    uint32_t fps;
    uint32_t i_len; // 0: no key frames (audio, analytics)
    uint32_t len; // P frames: len + (fno * 7919) % span
    uint32_t span;
};

constexpr load_stream k_load[VESK_AV_STREAM_NUM] = {
    {VESK_AV_STREAM_MAIN, 0x9110C, 256 * 1024, 25, 60000, 8000, 2000},
    {VESK_AV_STREAM_SUB, 0x9110D, 64 * 1024, 25, 15000, 2000, 600},
    {VESK_AV_STREAM_AUDIO, 0x9110E, 8 * 1024, 50, 0, 320, 1},
    {VESK_AV_STREAM_SMART, 0x9110F, 4 * 1024, 5, 0, 200, 1},
};

struct load_reader {
    vesk_av_reader_work_mode mode;
    vesk_av_stream_type streams[2];
};

constexpr load_reader k_readers[] = {
    {VESK_AV_READER_FREE_RUN, {VESK_AV_STREAM_MAIN, VESK_AV_STREAM_AUDIO}}, // recording
    {VESK_AV_READER_FREE_RUN, {VESK_AV_STREAM_MAIN, VESK_AV_STREAM_AUDIO}}, // network relay
    {VESK_AV_READER_REAL_TIME, {VESK_AV_STREAM_SUB, VESK_AV_STREAM_AUDIO}}, // live view
    {VESK_AV_READER_FREE_RUN, {VESK_AV_STREAM_SUB, VESK_AV_STREAM_SMART}}, // analytics
};
constexpr uint32_t k_reader_num = sizeof(k_readers) / sizeof(k_readers[0]);

_tagVeskFrameHeader load_header(const load_stream& s, uint32_t fno)
{
    if (s.i_len != 0 && fno % k_gop == 0)
        return make_header(fno, VESK_FRAME_TYPE_I, s.i_len);
    return make_header(fno, s.i_len != 0 ? k_frame_type_p : k_frame_type_data, s.len + fno * 7919 % s.span);
}

// The frames one 40 ms tick of the load produces on every stream of a camera, each handed to
// deliver(stream, header); written counts frames per stream, bytes the payload of all cameras.
template <class Deliver> void load_tick(uint32_t (&written)[VESK_AV_STREAM_NUM], uint64_t& bytes, Deliver deliver)
{
    for (const load_stream& s : k_load) {
        for (uint32_t f = 0; f < s.fps / k_ticks_per_s; f++, written[s.type]++) {
            const _tagVeskFrameHeader h = load_header(s, written[s.type]);
            bytes += h.uiLength * k_load_chn;
            deliver(s, h);
        }
    }
}

// Reads per simulated second once every reader is under way.
constexpr uint32_t load_reads_per_s()
{
    uint32_t n = 0;
    for (const load_reader& r : k_readers)
        for (vesk_av_stream_type t : r.streams)
            n += k_load[t].fps;
    return n * k_load_chn;
}

// A reader of audio starts at the newest frame: up to a tick of audio is missed by each of the
// three audio readers of a camera.
constexpr uint64_t k_load_start_loss = 3 * k_load_chn * 50 / k_ticks_per_s;

void report_load(benchmark::State& state, double cpu_s, double faults, uint64_t reads, uint64_t bytes, uint64_t errors)
{
    const double n = static_cast<double>(state.iterations());
    if (errors != 0)
        state.SkipWithError("a frame was missing or out of order");
    else if (reads + k_load_start_loss < static_cast<uint64_t>(n * load_reads_per_s()))
        state.SkipWithError("the readers did not get every frame");
    state.counters["core_%"] = 100.0 * cpu_s / n; // an iteration stands for one second
    state.counters["reads/s"] = static_cast<double>(reads) / n;
    state.counters["MB_in/s"] = static_cast<double>(bytes) / n / 1e6;
    state.counters["faults/s"] = faults / n;
}

void vesk_recorder_load(benchmark::State& state)
{
    // The live view readers, polled in bursts, raise their pacing threshold over the first
    // ticks and log it for every camera on every run; what the readers got is checked here.
    const quiet_stdout quiet;
    const uint32_t main_block = static_cast<uint32_t>(state.range(0)) * 1024;
    std::unique_ptr<vesk_utility_av_mng> mng(new vesk_utility_av_mng());
    std::vector<vesk_av_block_writer> w(k_load_chn * VESK_AV_STREAM_NUM);
    std::vector<vesk_av_reader*> readers;
    std::vector<uint32_t> next_fno(k_load_chn * k_reader_num * 2, ~0u);
    for (uint32_t ch = 0; ch < k_load_chn; ch++) {
        mng->set_chn_connect_status(ch, 1);
        for (const load_stream& s : k_load) {
            const uint32_t bytes = s.type == VESK_AV_STREAM_MAIN ? main_block : s.block_bytes;
            vesk_utility_av_writer_init(&w[ch * VESK_AV_STREAM_NUM + s.type], ch, s.type, s.purpose, bytes, 256);
        }
        for (uint32_t r = 0; r < k_reader_num; r++) {
            vesk_av_reader* rd = mng->new_av_reader(k_readers[r].mode, VESK_AV_READER_STREAM_USER, 0x300 + r);
            rd->set_chn(ch);
            readers.push_back(rd);
        }
    }
    uint32_t written[VESK_AV_STREAM_NUM] = {};
    uint64_t reads = 0;
    uint64_t bytes = 0;
    uint64_t errors = 0;
    uint64_t split = 0;
    const double cpu0 = process_cpu_s();
    const double faults0 = page_faults();
    for (auto _ : state) {
        for (uint32_t tick = 0; tick < k_ticks_per_s; tick++) {
            load_tick(written, bytes, [&](const load_stream& s, const _tagVeskFrameHeader& h) {
                for (uint32_t ch = 0; ch < k_load_chn; ch++) {
                    vesk_av_block_writer& wr = w[ch * VESK_AV_STREAM_NUM + s.type];
                    if (av_writer_put(mng.get(), &wr, &h, payload_src()) != VESK_OK) {
                        errors++; // the budget refused a block
                        continue;
                    }
                    // A frame that did not fit leaves the writer in a block holding only its end.
                    split += wr.cur->node_num == 0 && wr.cur->cont_len != 0 ? 1 : 0;
                }
            });
            for (uint32_t i = 0; i < readers.size(); i++) {
                for (uint32_t j = 0; j < 2; j++) {
                    const vesk_av_stream_type t = k_readers[i % k_reader_num].streams[j];
                    uint32_t& expect = next_fno[i * 2 + j];
                    _tagVeskFrameHeader* f = nullptr;
                    uint32_t next = 0;
                    while (readers[i]->get_frame(t, &f, 0, &next) == VESK_OK) {
                        errors += expect != ~0u && f->uiFrameNo != expect ? 1 : 0;
                        expect = f->uiFrameNo + 1;
                        readers[i]->put_frame(t, f);
                        reads++;
                    }
                }
            }
            mng->rotate_pass(rotate_now());
        }
    }
    report_load(state, process_cpu_s() - cpu0, page_faults() - faults0, reads, bytes, errors);
    state.counters["split/s"] = static_cast<double>(split) / static_cast<double>(state.iterations());
    uint32_t cached = 0; // after the last pass: what rotation keeps (the lists stay bounded)
    for (uint32_t ch = 0; ch < k_load_chn; ch++)
        for (uint32_t t = 0; t < VESK_AV_STREAM_NUM; t++)
            cached += blk_cnt(*mng, ch, t);
    state.counters["cached_blocks"] = cached;
    for (vesk_av_reader* rd : readers)
        mng->delete_av_reader(rd, __FILE__, __func__);
}

// The naive design: the receiving side copies every frame once for each reader that consumes
// its stream into a malloc'd buffer and queues it under the reader's mutex; the reader pops
// it, reads the header and frees it.
void baseline_recorder_load(benchmark::State& state)
{
    struct queue {
        pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
        std::deque<_tagVeskFrameHeader*> frames;
    };
    std::vector<queue> queues(k_load_chn * k_reader_num * 2);
    std::vector<uint32_t> next_fno(queues.size(), 0);
    uint32_t written[VESK_AV_STREAM_NUM] = {};
    uint64_t reads = 0;
    uint64_t bytes = 0;
    uint64_t errors = 0;
    const double cpu0 = process_cpu_s();
    const double faults0 = page_faults();
    for (auto _ : state) {
        for (uint32_t tick = 0; tick < k_ticks_per_s; tick++) {
            load_tick(written, bytes, [&](const load_stream& s, const _tagVeskFrameHeader& h) {
                for (uint32_t q = 0; q < queues.size(); q++) {
                    if (k_readers[q / 2 % k_reader_num].streams[q % 2] != s.type)
                        continue;
                    auto* copy = static_cast<uint8_t*>(malloc(sizeof(h) + h.uiLength));
                    memcpy(copy, &h, sizeof(h));
                    memcpy(copy + sizeof(h), payload_src(), h.uiLength);
                    pthread_mutex_lock(&queues[q].lock);
                    queues[q].frames.push_back(reinterpret_cast<_tagVeskFrameHeader*>(copy));
                    pthread_mutex_unlock(&queues[q].lock);
                }
            });
            for (uint32_t q = 0; q < queues.size(); q++) {
                for (;;) {
                    _tagVeskFrameHeader* f = nullptr;
                    pthread_mutex_lock(&queues[q].lock);
                    if (!queues[q].frames.empty()) {
                        f = queues[q].frames.front();
                        queues[q].frames.pop_front();
                    }
                    pthread_mutex_unlock(&queues[q].lock);
                    if (f == nullptr)
                        break;
                    errors += f->uiFrameNo != next_fno[q] ? 1 : 0;
                    next_fno[q] = f->uiFrameNo + 1;
                    free(f);
                    reads++;
                }
            }
        }
    }
    report_load(state, process_cpu_s() - cpu0, page_faults() - faults0, reads, bytes, errors);
}

} // namespace

// Arguments: blocks a slow consumer keeps cached behind the measured reader (0: none).
BENCHMARK(baseline_get_put_in_place)->Arg(0)->UseManualTime();
BENCHMARK(vesk_get_put_in_place)->Arg(0)->Arg(32)->UseManualTime();
BENCHMARK(baseline_get_put_joined)->Arg(0)->UseManualTime();
BENCHMARK(vesk_get_put_joined)->Arg(0)->Arg(32)->UseManualTime();
// Argument: KiB of the main stream's blocks (the baseline does not use it).
BENCHMARK(baseline_recorder_load)->Arg(256)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(vesk_recorder_load)->Arg(256)->Arg(64)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
