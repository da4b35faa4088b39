// nvr_sim cameras: one receiving thread per channel feeds its four streams (main 25 fps with
// an I frame every 50, sub 25 fps, audio 50 fps, analytics 5 fps) into the A/V cache through
// block writers, on a 20 ms tick. The main stream is synthetic H.264-shaped data or the input
// clip, looped. One camera drops out for a while: its blocks are closed, its connect status
// goes to 0 and it raises the video-loss event until it comes back with a key frame.
#include <time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "nvr_sim.h"

using namespace vesk_soft;

namespace nvr_sim
{

namespace
{

// Frame types other than the key types the cache knows (1 and 18).
constexpr uint32_t k_type_p = 2;
constexpr uint32_t k_type_audio = 3;
constexpr uint32_t k_type_smart = 4;
constexpr uint8_t k_codec_h264 = 8;
constexpr unsigned k_gop = 50;
constexpr unsigned k_tick_ms = 20;

// Bytes per block and frame-index entries per stream: a main block holds about a second of
// 2 Mbit/s video, the others a few seconds of theirs.
struct stream_shape {
    vesk_av_stream_type type;
    vesk_memmory_purpose purpose; // an A/V budget purpose
    uint32_t block_bytes;
    uint32_t max_frames;
    unsigned every_ticks; // one frame every n ticks of 20 ms
    uint32_t ts_step; // 90 kHz units per frame
};
const stream_shape k_shapes[VESK_AV_STREAM_NUM] = {
    {VESK_AV_STREAM_MAIN, 0x9110C, 256 * 1024, 128, 2, 3600},
    {VESK_AV_STREAM_SUB, 0x9110D, 64 * 1024, 128, 2, 3600},
    {VESK_AV_STREAM_AUDIO, 0x9110E, 8 * 1024, 64, 1, 1800},
    {VESK_AV_STREAM_SMART, 0x9110F, 8 * 1024, 32, 10, 18000},
};

// Filler for synthetic payloads; sliced at random offsets.
std::vector<uint8_t> s_noise;

struct camera {
    sim* s = nullptr;
    unsigned chn = 0;
    unsigned long thread = 0;
    vesk_av_block_writer w[VESK_AV_STREAM_NUM];
    uint32_t fno[VESK_AV_STREAM_NUM] = {};
    uint32_t ts[VESK_AV_STREAM_NUM] = {};
    unsigned gop_pos = 0; // main-stream frames since the last I frame
    unsigned sub_gop_pos = 0;
    size_t clip_pos = 0;
    uint32_t rng = 0;
    std::vector<uint8_t> payload;
    std::vector<uint8_t> rtp_in;
    std::vector<uint8_t> rtp_out;
};

camera s_cams[k_max_channels];

uint32_t next_rand(uint32_t& x)
{
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

// size +- spread percent.
uint32_t jitter(camera& c, uint32_t size, unsigned spread)
{
    const uint32_t span = size * spread / 100;
    return size - span + next_rand(c.rng) % (2 * span + 1);
}

// Annex-B shaped synthetic video: parameter sets and an IDR slice for key frames, a
// non-IDR slice otherwise, then noise.
void synth_video(camera& c, bool key, uint32_t size)
{
    static const uint8_t k_sps_pps[] = {0, 0, 0, 1, 0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27, 0xE5,
        0x84, 0, 0, 0, 1, 0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};
    static const uint8_t k_idr[] = {0, 0, 0, 1, 0x65, 0x88, 0x84};
    static const uint8_t k_non_idr[] = {0, 0, 0, 1, 0x41, 0x9A, 0x02};
    c.payload.clear();
    if (key) {
        c.payload.insert(c.payload.end(), k_sps_pps, k_sps_pps + sizeof(k_sps_pps));
        c.payload.insert(c.payload.end(), k_idr, k_idr + sizeof(k_idr));
    } else {
        c.payload.insert(c.payload.end(), k_non_idr, k_non_idr + sizeof(k_non_idr));
    }
    if (size > c.payload.size()) {
        const size_t n = size - c.payload.size();
        const size_t at = next_rand(c.rng) % (s_noise.size() - n);
        c.payload.insert(
            c.payload.end(), s_noise.begin() + static_cast<long>(at), s_noise.begin() + static_cast<long>(at + n));
    }
}

void synth_bytes(camera& c, uint32_t size)
{
    const size_t at = next_rand(c.rng) % (s_noise.size() - size);
    c.payload.assign(s_noise.begin() + static_cast<long>(at), s_noise.begin() + static_cast<long>(at + size));
}

// The next clip frame as Annex-B in c.payload; RTP frames go through the depacketiser here,
// as a receiving module would do it on arrival. False when a frame does not convert.
bool clip_video(camera& c, bool* key)
{
    const clip& in = c.s->input;
    const clip_frame& f = in.frames[c.clip_pos];
    c.clip_pos = (c.clip_pos + 1) % in.frames.size();
    *key = f.key;
    if (!in.rtp) {
        c.payload = f.bytes;
        return true;
    }
    _tagVeskFrameHeader h = {};
    h.uiStartId = VESK_FRAME_STARTCODE;
    c.rtp_in.resize(sizeof(h));
    memcpy(c.rtp_in.data(), &h, sizeof(h));
    c.rtp_in.insert(c.rtp_in.end(), f.bytes.begin(), f.bytes.end());
    c.rtp_out.resize(c.rtp_in.size());
    _tagVesk_rtp_h264_param prm = {c.rtp_in.data(), static_cast<int32_t>(c.rtp_in.size()), c.rtp_out.data(),
        static_cast<int32_t>(c.rtp_out.size())};
    if (vesk_utility_RTPtoH264_InputData(&prm) != VESK_OK || prm.nOutSize < static_cast<int32_t>(sizeof(h)))
        return false;
    memcpy(&h, c.rtp_out.data(), sizeof(h));
    const uint8_t* body = c.rtp_out.data() + sizeof(h);
    c.payload.clear();
    bool key_here = false, has_sps = false;
    scan_access_unit(body, h.uiLength, &key_here, &has_sps);
    if (key_here && !has_sps)
        c.payload = in.param_sets;
    c.payload.insert(c.payload.end(), body, body + h.uiLength);
    return true;
}

void put(camera& c, unsigned type, uint32_t frame_type, uint16_t w, uint16_t h, uint8_t codec)
{
    _tagVeskFrameHeader hd = {};
    hd.uiStartId = VESK_FRAME_STARTCODE;
    hd.uiFrameType = frame_type;
    hd.uiFrameNo = ++c.fno[type];
    hd.uiTimeSec = static_cast<uint32_t>(time(nullptr));
    hd.uiLength = static_cast<uint32_t>(c.payload.size());
    hd.usWidth = w;
    hd.usHeight = h;
    hd.ucCodec = codec;
    hd.uiTimeStamp = c.ts[type];
    c.ts[type] += k_shapes[type].ts_step;
    const VESK_ERR ret = vesk_utility_av_writer_put(&c.w[type], &hd, c.payload.data());
    if (type != VESK_AV_STREAM_MAIN)
        return;
    channel_state& st = c.s->chn[c.chn];
    if (ret != VESK_OK)
        st.lost_on_push.fetch_add(1);
    st.main_frames.fetch_add(1);
    st.main_last_fno.store(hd.uiFrameNo);
}

void send_tick(camera& c, unsigned tick)
{
    if (tick % k_shapes[VESK_AV_STREAM_MAIN].every_ticks == 0) {
        if (c.s->input.frames.empty()) {
            const bool key = c.gop_pos == 0;
            synth_video(c, key, key ? jitter(c, 60000, 10) : jitter(c, 7000, 30));
            put(c, VESK_AV_STREAM_MAIN, key ? VESK_FRAME_TYPE_I : k_type_p, 1920, 1080, k_codec_h264);
        } else {
            bool key = false;
            if (clip_video(c, &key))
                put(c, VESK_AV_STREAM_MAIN, key ? VESK_FRAME_TYPE_I : k_type_p, c.s->input.width, c.s->input.height,
                    k_codec_h264);
        }
        c.gop_pos = (c.gop_pos + 1) % k_gop;
    }
    if (tick % k_shapes[VESK_AV_STREAM_SUB].every_ticks == 0) {
        const bool key = c.sub_gop_pos == 0;
        synth_video(c, key, key ? jitter(c, 14000, 10) : jitter(c, 1800, 30));
        put(c, VESK_AV_STREAM_SUB, key ? VESK_FRAME_TYPE_I : k_type_p, 640, 360, k_codec_h264);
        c.sub_gop_pos = (c.sub_gop_pos + 1) % k_gop;
    }
    // G.711 at 8 kHz: 160 bytes per 20 ms.
    synth_bytes(c, 160);
    put(c, VESK_AV_STREAM_AUDIO, k_type_audio, 0, 0, 0);
    if (tick % k_shapes[VESK_AV_STREAM_SMART].every_ticks == 0) {
        synth_bytes(c, jitter(c, 400, 50));
        put(c, VESK_AV_STREAM_SMART, k_type_smart, 0, 0, 0);
    }
}

void close_writers(camera& c)
{
    for (auto& w : c.w)
        vesk_utility_av_writer_close(&w);
}

// Drops the camera out (closing its blocks, as a receiver does when the session ends) or
// brings it back, starting again at a key frame.
void set_connected(camera& c, bool up)
{
    channel_state& st = c.s->chn[c.chn];
    if (!up) {
        close_writers(c);
        vesk_utility_set_chn_connect_status(c.chn, 0);
        st.disconnected.store(true);
        printf("nvr_sim: camera %02u disconnected\n", c.chn);
        set_video_loss(*c.s, c.chn, true);
    } else {
        vesk_utility_set_chn_connect_status(c.chn, 1);
        st.disconnected.store(false);
        c.gop_pos = 0;
        c.sub_gop_pos = 0;
        c.clip_pos = 0;
        printf("nvr_sim: camera %02u reconnected\n", c.chn);
        set_video_loss(*c.s, c.chn, false);
    }
}

void camera_thread(void* arg)
{
    camera& c = *static_cast<camera*>(arg);
    sim& s = *c.s;
    const bool drops = c.chn == s.drop_chn && s.drop_for_s != 0;
    const int64_t drop_from = s.start_ms + s.drop_at_s * 1000LL;
    const int64_t drop_until = drop_from + s.drop_for_s * 1000LL;
    int64_t last_loss_raise = 0;

    timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    // Spread the cameras over the tick so that their pushes do not all land at once.
    const long phase_ns = static_cast<long>(c.chn) * k_tick_ms * 1000000L / k_max_channels;
    next.tv_nsec += phase_ns;
    for (unsigned tick = 0; !s.stop_sources.load(std::memory_order_relaxed); tick++) {
        if (drops) {
            const int64_t t = now_ms();
            const bool down = t >= drop_from && t < drop_until;
            if (down != s.chn[c.chn].disconnected.load())
                set_connected(c, !down);
            if (down && t - last_loss_raise >= 1000) {
                // Refreshed while it lasts: the event stays active for its valid time.
                set_video_loss(s, c.chn, true);
                last_loss_raise = t;
            }
        }
        if (!s.chn[c.chn].disconnected.load(std::memory_order_relaxed))
            send_tick(c, tick);
        next.tv_nsec += k_tick_ms * 1000000L;
        while (next.tv_nsec >= 1000000000L) {
            next.tv_nsec -= 1000000000L;
            next.tv_sec++;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
    if (s.chn[c.chn].disconnected.load())
        set_connected(c, true);
    close_writers(c);
}

} // namespace

void start_cameras(sim& s)
{
    s_noise.resize(256 * 1024);
    uint32_t x = 0x9E3779B9u;
    for (auto& b : s_noise)
        b = static_cast<uint8_t>(next_rand(x) >> 24);
    for (unsigned ch = 0; ch < s.opt.channels; ch++) {
        camera& c = s_cams[ch];
        c.s = &s;
        c.chn = ch;
        c.rng = 0x12345u + ch * 7919u;
        for (unsigned t = 0; t < VESK_AV_STREAM_NUM; t++) {
            const stream_shape& sh = k_shapes[t];
            vesk_utility_av_writer_init(&c.w[t], ch, sh.type, sh.purpose, sh.block_bytes, sh.max_frames);
            c.ts[t] = next_rand(c.rng);
        }
        char name[32]; // start_thread keeps the first 15 characters
        snprintf(name, sizeof(name), "cam_ch%02u", ch);
        c.thread = start_thread(name, camera_thread, &c);
    }
}

void join_cameras(sim& s)
{
    for (unsigned ch = 0; ch < s.opt.channels; ch++)
        join_thread(s_cams[ch].thread);
}

} // namespace nvr_sim
