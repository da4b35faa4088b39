// nvr_sim consumers, each a reader on its own thread with its own watchdog:
//   recorder  per channel, unpaced stream user of the main stream; appends every payload to
//             chNN.h264 and must see every frame number (a gap is a lost frame);
//   live      per channel and viewer, paced (work mode 1): sleeps the interval the reader
//             returns, so it keeps the camera's rate and may skip when it falls behind;
//   snapshot  one thread with a snap user per channel, visiting the channels in turn and
//             taking the newest key frame. A snap user keeps the newest key-frame group of its
//             channel in the cache only while it is registered there, so each channel has its
//             own, bound for the whole run.
// Every frame is put back before the next get, so a consumer never holds more than one.
#include <cstdio>
#include <string>

#include "nvr_sim.h"

using namespace vesk_soft;

namespace nvr_sim
{

namespace
{

constexpr vesk_av_reader_purpose k_purpose_record = 0x7E01;
constexpr vesk_av_reader_purpose k_purpose_live = 0x7E02;
constexpr vesk_av_reader_purpose k_purpose_snap = 0x7E03;
constexpr vesk_watch_dog_purpose k_dog_base = 0x7E000;
constexpr unsigned k_dog_timeout_s = 10;
constexpr unsigned k_snap_every_ms = 2000;

struct consumer {
    sim* s = nullptr;
    consumer_stats* st = nullptr;
    vesk_av_reader* reader = nullptr;
    std::vector<vesk_av_reader*> snap_readers; // per channel
    unsigned long dog = 0;
    unsigned long thread = 0;
    FILE* out = nullptr;
};

std::vector<consumer> s_consumers;
// The logo frames readers hand out for a camera that is gone; they hold no block and carry
// no frame number of the stream.
std::vector<const _tagVeskFrameHeader*> s_logos;

bool is_logo(const _tagVeskFrameHeader* f)
{
    for (const _tagVeskFrameHeader* l : s_logos) {
        if (l == f)
            return true;
    }
    return false;
}

// Counts the frames missing between the expected number and this one.
void account(consumer_stats& st, uint32_t fno, uint32_t& expected, bool& started)
{
    if (started && fno != expected)
        st.frames_dropped.fetch_add(fno > expected ? fno - expected : 1);
    started = true;
    expected = fno + 1;
    st.frames_read.fetch_add(1);
}

void record_thread(void* arg)
{
    consumer& c = *static_cast<consumer*>(arg);
    sim& s = *c.s;
    consumer_stats& st = *c.st;
    const channel_state& chn = s.chn[st.chn];
    // Consumers start before the cameras: the first frame of the stream is number 1.
    uint32_t expected = 1;
    bool started = true;
    for (;;) {
        vesk_utility_fetch_dog(c.dog);
        if (s.draining.load() && (chn.main_frames.load() == 0 || (expected - 1) == chn.main_last_fno.load())) {
            st.drained.store(true);
            break;
        }
        if (s.stop_consumers.load())
            break;
        _tagVeskFrameHeader* f = nullptr;
        uint32_t next = 0;
        if (c.reader->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next) != VESK_OK) {
            vesk_utility_sleep_ms(10);
            continue;
        }
        if (is_logo(f)) {
            st.logo_frames.fetch_add(1);
            c.reader->put_frame(VESK_AV_STREAM_MAIN, f);
            vesk_utility_sleep_ms(next != 0 ? next : 40);
            continue;
        }
        account(st, f->uiFrameNo, expected, started);
        if (c.out != nullptr) {
            if (fwrite(f + 1, 1, f->uiLength, c.out) == f->uiLength)
                st.frames_written.fetch_add(1);
            else
                st.write_error = true;
        }
        c.reader->put_frame(VESK_AV_STREAM_MAIN, f);
    }
}

void live_thread(void* arg)
{
    consumer& c = *static_cast<consumer*>(arg);
    consumer_stats& st = *c.st;
    uint32_t expected = 0;
    bool started = false; // a viewer joins at the newest key frame
    while (!c.s->stop_consumers.load()) {
        vesk_utility_fetch_dog(c.dog);
        _tagVeskFrameHeader* f = nullptr;
        uint32_t next = 0;
        if (c.reader->get_frame(st.stream, &f, 0, &next) == VESK_OK) {
            if (is_logo(f))
                st.logo_frames.fetch_add(1);
            else
                account(st, f->uiFrameNo, expected, started);
            c.reader->put_frame(st.stream, f);
        }
        // The paced reader says when the next frame is due; 0 would spin.
        vesk_utility_sleep_ms(next == 0 ? 10 : (next > 200 ? 200 : next));
    }
}

void snap_thread(void* arg)
{
    consumer& c = *static_cast<consumer*>(arg);
    sim& s = *c.s;
    consumer_stats& st = *c.st;
    unsigned chn = 0;
    // The first snapshot waits for the cameras' first key frames.
    for (unsigned waited = 0; waited < k_snap_every_ms && !s.stop_consumers.load(); waited += 100)
        vesk_utility_sleep_ms(100);
    while (!s.stop_consumers.load()) {
        vesk_utility_fetch_dog(c.dog);
        // Forget the last position, so the reader starts again at the newest key frame.
        vesk_av_reader* reader = c.snap_readers[chn];
        reader->reset_history(VESK_AV_STREAM_MAIN);
        _tagVeskFrameHeader* f = nullptr;
        uint32_t next = 0;
        if (reader->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next) == VESK_OK) {
            if (is_logo(f)) {
                st.logo_frames.fetch_add(1);
            } else if (f->uiFrameType == VESK_FRAME_TYPE_I || f->uiFrameType == VESK_FRAME_TYPE_KEY2) {
                st.frames_read.fetch_add(1);
                if (!s.opt.out_dir.empty()) {
                    char path[64];
                    snprintf(path, sizeof(path), "/snap_ch%02u.h264", chn);
                    FILE* fp = vesk_utility_fopen(k_sim_user, "snapshot", (s.opt.out_dir + path).c_str(), "wb");
                    if (fp != nullptr) {
                        if (fwrite(f + 1, 1, f->uiLength, fp) == f->uiLength)
                            st.frames_written.fetch_add(1);
                        vesk_utility_fclose(__FILE__, __func__, fp);
                    }
                }
            } else {
                // Not a key frame: the reader did not start where a snap user should.
                st.misses.fetch_add(1);
                printf("nvr_sim: snapshot of camera %02u got frame %u of type %u\n", chn, f->uiFrameNo, f->uiFrameType);
            }
            reader->put_frame(VESK_AV_STREAM_MAIN, f);
        } else {
            st.misses.fetch_add(1);
            printf("nvr_sim: snapshot of camera %02u: no key frame in the cache\n", chn);
        }
        chn = (chn + 1) % s.opt.channels;
        for (unsigned waited = 0; waited < k_snap_every_ms && !s.stop_consumers.load(); waited += 100) {
            vesk_utility_fetch_dog(c.dog);
            vesk_utility_sleep_ms(100);
        }
    }
}

bool add(sim& s, consumer_kind kind, unsigned chn, unsigned index, vesk_av_stream_type stream)
{
    const vesk_av_reader_work_mode mode
        = kind == consumer_kind::live ? VESK_AV_READER_REAL_TIME : VESK_AV_READER_FREE_RUN;
    const vesk_av_reader_usr_type usr
        = kind == consumer_kind::snap ? VESK_AV_READER_SNAP_USER : VESK_AV_READER_STREAM_USER;
    const vesk_av_reader_purpose purpose = kind == consumer_kind::record ? k_purpose_record
        : kind == consumer_kind::live                                    ? k_purpose_live
                                                                         : k_purpose_snap;
    consumer c;
    c.s = &s;
    for (unsigned ch = 0; ch < s.opt.channels; ch++) {
        if (kind != consumer_kind::snap && ch != chn)
            continue;
        vesk_av_reader* r = vesk_utility_new_av_reader(mode, usr, purpose);
        if (r == nullptr || r->set_chn(ch) != VESK_OK) {
            fprintf(stderr, "nvr_sim: no reader for channel %u\n", ch);
            return false;
        }
        if (kind == consumer_kind::snap)
            c.snap_readers.push_back(r);
        else
            c.reader = r;
    }
    s.consumers.emplace_back(new consumer_stats);
    c.st = s.consumers.back().get();
    c.st->kind = kind;
    c.st->chn = chn;
    c.st->index = index;
    c.st->stream = stream;
    if (kind == consumer_kind::record && !s.opt.out_dir.empty()) {
        char path[32];
        snprintf(path, sizeof(path), "/ch%02u.h264", chn);
        c.out = vesk_utility_fopen(k_sim_user, "recording", (s.opt.out_dir + path).c_str(), "wb");
        if (c.out == nullptr) {
            fprintf(stderr, "nvr_sim: cannot write %s%s\n", s.opt.out_dir.c_str(), path);
            return false;
        }
        setvbuf(c.out, nullptr, _IOFBF, 256 * 1024);
    }
    vesk_utility_regist_dog(k_dog_base + static_cast<unsigned>(s_consumers.size()), k_dog_timeout_s, &c.dog);
    s_consumers.push_back(c);
    return true;
}

} // namespace

bool start_consumers(sim& s)
{
    for (unsigned t : {VESK_LOGO_NO_VIDEO, VESK_LOGO_NOT_CONNECT_CAMERA}) {
        for (VESK_BOOL large : {0, 1}) {
            _tagVeskFrameHeader* f = nullptr;
            uint32_t len = 0;
            if (vesk_utility_get_logo_frame(static_cast<vesk_logo_type>(t), large, &f, &len) == VESK_OK)
                s_logos.push_back(f);
        }
    }
    s_consumers.reserve(s.opt.channels * (2 + s.opt.readers_per_channel) + 1);
    for (unsigned ch = 0; ch < s.opt.channels; ch++) {
        if (!add(s, consumer_kind::record, ch, ch, VESK_AV_STREAM_MAIN))
            return false;
        // Viewers alternate between the sub stream (the usual live view) and the main one.
        for (unsigned v = 0; v < s.opt.readers_per_channel; v++) {
            if (!add(s, consumer_kind::live, ch, v, v % 2 == 0 ? VESK_AV_STREAM_SUB : VESK_AV_STREAM_MAIN))
                return false;
        }
    }
    if (!add(s, consumer_kind::snap, 0, 0, VESK_AV_STREAM_MAIN))
        return false;
    for (consumer& c : s_consumers) {
        char name[32]; // start_thread keeps the first 15 characters
        void (*fn)(void*) = c.st->kind == consumer_kind::record ? record_thread
            : c.st->kind == consumer_kind::live                 ? live_thread
                                                                : snap_thread;
        if (c.st->kind == consumer_kind::record)
            snprintf(name, sizeof(name), "rec_ch%02u", c.st->chn);
        else if (c.st->kind == consumer_kind::live)
            snprintf(name, sizeof(name), "live_ch%02u_%u", c.st->chn, c.st->index);
        else
            snprintf(name, sizeof(name), "snapshot");
        c.thread = start_thread(name, fn, &c);
    }
    return true;
}

void join_consumers(sim& s)
{
    (void)s;
    for (consumer& c : s_consumers) {
        join_thread(c.thread);
        vesk_utility_unregist_dog(c.dog);
        if (c.out != nullptr) {
            if (fflush(c.out) != 0)
                c.st->write_error = true;
            vesk_utility_fclose(__FILE__, __func__, c.out);
        }
        // Deleting a reader that still holds a block or a copy ends the process; one that is
        // not free is reported and kept instead, so the summary can say so.
        if (c.reader != nullptr)
            c.snap_readers.push_back(c.reader);
        c.st->reader_free = true;
        for (vesk_av_reader* r : c.snap_readers) {
            if (r->is_free())
                vesk_utility_delete_av_reader(r, __FILE__, __func__);
            else
                c.st->reader_free = false;
        }
        c.reader = nullptr;
        c.snap_readers.clear();
    }
    s_consumers.clear();
}

} // namespace nvr_sim
