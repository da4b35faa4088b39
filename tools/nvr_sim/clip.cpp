// nvr_sim input clips: an H.264 Annex-B elementary stream split into access units, or an
// RTSP-interleaved RTP capture grouped into frames by RTP timestamp. Key frames that lack the
// parameter sets get them in front, so a recording or snapshot may start at any key frame.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "nvr_sim.h"

using namespace vesk_soft;

namespace nvr_sim
{

namespace
{

// One NAL unit of an Annex-B buffer: [start, end) includes its start code.
struct nal_span {
    size_t start;
    size_t body; // first byte after the start code (the NAL header)
    size_t end;
};

std::vector<nal_span> split_nals(const uint8_t* p, size_t n)
{
    std::vector<nal_span> out;
    size_t i = 0;
    auto find_code = [&](size_t from, size_t* code_len) -> size_t {
        for (size_t k = from; k + 3 <= n; k++) {
            if (p[k] == 0 && p[k + 1] == 0) {
                if (p[k + 2] == 1) {
                    *code_len = 3;
                    return k;
                }
                if (k + 4 <= n && p[k + 2] == 0 && p[k + 3] == 1) {
                    *code_len = 4;
                    return k;
                }
            }
        }
        return n;
    };
    size_t len = 0;
    i = find_code(0, &len);
    while (i < n) {
        const size_t body = i + len;
        size_t next_len = 0;
        const size_t next = find_code(body, &next_len);
        if (body < next)
            out.push_back({i, body, next});
        i = next;
        len = next_len;
    }
    return out;
}

// Reads the picture size from an SPS (NAL header included). False when the SPS uses what
// this small parser does not follow (scaling matrices).
class bit_reader
{
public:
    explicit bit_reader(std::vector<uint8_t> rbsp)
        : m_b(std::move(rbsp))
    {
    }
    unsigned bit()
    {
        if (m_pos >= m_b.size() * 8) {
            m_bad = true;
            return 0;
        }
        const unsigned v = (m_b[m_pos / 8] >> (7 - m_pos % 8)) & 1;
        m_pos++;
        return v;
    }
    unsigned bits(int n)
    {
        unsigned v = 0;
        while (n-- > 0)
            v = (v << 1) | bit();
        return v;
    }
    unsigned ue()
    {
        int zeros = 0;
        while (bit() == 0 && !m_bad && zeros < 32)
            zeros++;
        return ((1u << zeros) - 1) + bits(zeros);
    }
    int se()
    {
        const unsigned v = ue();
        return (v & 1) ? static_cast<int>((v + 1) / 2) : -static_cast<int>(v / 2);
    }
    bool bad() const { return m_bad; }

private:
    std::vector<uint8_t> m_b;
    size_t m_pos = 0;
    bool m_bad = false;
};

bool sps_size(const uint8_t* p, size_t n, uint16_t* w, uint16_t* h)
{
    std::vector<uint8_t> rbsp;
    for (size_t i = 1; i < n; i++) { // drop emulation-prevention bytes
        if (i >= 3 && p[i] == 3 && p[i - 1] == 0 && p[i - 2] == 0)
            continue;
        rbsp.push_back(p[i]);
    }
    bit_reader br(std::move(rbsp));
    const unsigned profile = br.bits(8);
    br.bits(16); // constraint flags, level
    br.ue(); // sps id
    unsigned chroma = 1;
    if (profile == 100 || profile == 110 || profile == 122 || profile == 244 || profile == 44 || profile == 83
        || profile == 86 || profile == 118 || profile == 128 || profile == 138 || profile == 139 || profile == 134) {
        chroma = br.ue();
        if (chroma == 3)
            br.bit();
        br.ue();
        br.ue();
        br.bit();
        if (br.bit())
            return false; // scaling matrices
    }
    br.ue(); // log2_max_frame_num
    const unsigned poc_type = br.ue();
    if (poc_type == 0) {
        br.ue();
    } else if (poc_type == 1) {
        br.bit();
        br.se();
        br.se();
        const unsigned cycle = br.ue();
        for (unsigned i = 0; i < cycle && !br.bad(); i++)
            br.se();
    }
    br.ue(); // max_num_ref_frames
    br.bit();
    const unsigned mbs_w = br.ue() + 1;
    const unsigned map_h = br.ue() + 1;
    const unsigned frame_mbs_only = br.bit();
    if (!frame_mbs_only)
        br.bit();
    br.bit(); // direct_8x8
    unsigned cl = 0, cr = 0, ct = 0, cb = 0;
    if (br.bit()) {
        cl = br.ue();
        cr = br.ue();
        ct = br.ue();
        cb = br.ue();
    }
    if (br.bad())
        return false;
    const unsigned sub_w = chroma == 1 || chroma == 2 ? 2 : 1;
    const unsigned sub_h = (chroma == 1 ? 2 : 1) * (2 - frame_mbs_only);
    const unsigned width = mbs_w * 16 - sub_w * (cl + cr);
    const unsigned height = map_h * 16 * (2 - frame_mbs_only) - sub_h * (ct + cb);
    if (width == 0 || height == 0 || width > 0xFFFF || height > 0xFFFF)
        return false;
    *w = static_cast<uint16_t>(width);
    *h = static_cast<uint16_t>(height);
    return true;
}

bool read_all(const std::string& path, std::vector<uint8_t>& out)
{
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        fprintf(stderr, "nvr_sim: %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        out.insert(out.end(), buf, buf + n);
    fclose(f);
    return true;
}

// Remembers the first SPS and PPS seen, and the picture size.
void learn_param_sets(const uint8_t* p, size_t n, clip& c)
{
    if (!c.param_sets.empty())
        return;
    std::vector<uint8_t> sps, pps;
    for (const nal_span& s : split_nals(p, n)) {
        const unsigned type = p[s.body] & 0x1F;
        if (type == 7 && sps.empty()) {
            sps.assign(p + s.start, p + s.end);
            sps_size(p + s.body, s.end - s.body, &c.width, &c.height);
        } else if (type == 8 && pps.empty()) {
            pps.assign(p + s.start, p + s.end);
        }
    }
    if (!sps.empty() && !pps.empty()) {
        c.param_sets = sps;
        c.param_sets.insert(c.param_sets.end(), pps.begin(), pps.end());
    }
}

bool load_annex_b(const std::vector<uint8_t>& data, clip& c)
{
    const uint8_t* p = data.data();
    std::vector<nal_span> nals = split_nals(p, data.size());
    // An access unit starts at an AUD, SEI, SPS or PPS that follows a slice, or at a slice
    // whose first_mb_in_slice is 0 (its first bit is 1) when the unit already has one.
    size_t au_start = 0;
    bool au_has_slice = false;
    std::vector<std::pair<size_t, size_t>> aus;
    for (size_t k = 0; k < nals.size(); k++) {
        const nal_span& s = nals[k];
        const unsigned type = p[s.body] & 0x1F;
        const bool slice = type == 1 || type == 5;
        bool starts = false;
        if (au_has_slice) {
            if (type == 6 || type == 7 || type == 8 || type == 9)
                starts = true;
            else if (slice && s.body + 1 < s.end && (p[s.body + 1] & 0x80) != 0)
                starts = true;
        }
        if (starts) {
            aus.emplace_back(au_start, s.start);
            au_start = s.start;
            au_has_slice = false;
        }
        au_has_slice = au_has_slice || slice;
    }
    if (au_has_slice)
        aus.emplace_back(au_start, data.size());
    for (const auto& au : aus) {
        learn_param_sets(p + au.first, au.second - au.first, c);
        clip_frame f;
        bool has_sps = false;
        scan_access_unit(p + au.first, au.second - au.first, &f.key, &has_sps);
        if (f.key && !has_sps)
            f.bytes = c.param_sets;
        f.bytes.insert(f.bytes.end(), p + au.first, p + au.second);
        c.frames.push_back(std::move(f));
    }
    return true;
}

uint32_t be32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

bool load_rtp(const std::vector<uint8_t>& data, clip& c)
{
    c.rtp = true;
    size_t at = 0;
    clip_frame cur;
    uint32_t cur_ts = 0;
    bool skip = false; // a frame with payload type 98 ends the depacketiser early: left out
    auto finish = [&]() {
        if (cur.bytes.empty() || skip) {
            cur = clip_frame();
            return;
        }
        // Depacketise once here to learn key frames, parameter sets and the picture size.
        std::vector<uint8_t> out(cur.bytes.size());
        _tagVesk_rtp_h264_param prm
            = {cur.bytes.data(), static_cast<int32_t>(cur.bytes.size()), out.data(), static_cast<int32_t>(out.size())};
        if (vesk_utility_RTPtoH264_InputData(&prm) == VESK_OK && prm.nOutSize > 0) {
            learn_param_sets(out.data(), static_cast<size_t>(prm.nOutSize), c);
            bool has_sps = false;
            scan_access_unit(out.data(), static_cast<size_t>(prm.nOutSize), &cur.key, &has_sps);
            c.frames.push_back(std::move(cur));
        }
        cur = clip_frame();
    };
    while (at + 4 <= data.size() && data[at] == '$') {
        const size_t len = (size_t(data[at + 2]) << 8) | data[at + 3];
        if (at + 4 + len > data.size() || len < 12)
            break;
        const uint8_t* rtp = &data[at + 4];
        const bool is_rtcp = rtp[1] >= 200 && rtp[1] <= 204;
        if (!is_rtcp) {
            const uint32_t ts = be32(rtp + 4);
            if (!cur.bytes.empty() && ts != cur_ts) {
                finish();
                skip = false;
            }
            cur_ts = ts;
            skip = skip || (rtp[1] & 0x7F) == 98;
            cur.bytes.insert(cur.bytes.end(), &data[at], &data[at + 4 + len]);
        }
        at += 4 + len;
    }
    finish();
    return true;
}

} // namespace

void scan_access_unit(const uint8_t* p, size_t n, bool* key, bool* has_sps)
{
    *key = false;
    *has_sps = false;
    for (const nal_span& s : split_nals(p, n)) {
        const unsigned type = p[s.body] & 0x1F;
        *key = *key || type == 5;
        *has_sps = *has_sps || type == 7;
    }
}

bool load_clip(const std::string& path, clip& out)
{
    std::vector<uint8_t> data;
    if (!read_all(path, data))
        return false;
    if (data.empty()) {
        fprintf(stderr, "nvr_sim: %s is empty\n", path.c_str());
        return false;
    }
    if (data[0] == '$')
        load_rtp(data, out);
    else
        load_annex_b(data, out);
    size_t keys = 0;
    for (const clip_frame& f : out.frames)
        keys += f.key;
    if (out.frames.empty() || keys == 0 || !out.frames[0].key) {
        // Looping restarts at the first frame: it must be a key frame.
        while (!out.frames.empty() && !out.frames[0].key)
            out.frames.erase(out.frames.begin());
        if (out.frames.empty()) {
            fprintf(stderr, "nvr_sim: %s holds no H.264 key frame (Annex-B or '$'-interleaved RTP expected)\n",
                path.c_str());
            return false;
        }
    }
    if (out.param_sets.empty())
        fprintf(stderr, "nvr_sim: %s carries no SPS/PPS; recordings will not decode\n", path.c_str());
    printf("nvr_sim: %s: %s, %zu frames, %zu key frames, %ux%u\n", path.c_str(), out.rtp ? "RTP capture" : "Annex-B",
        out.frames.size(), keys, out.width, out.height);
    return true;
}

} // namespace nvr_sim
