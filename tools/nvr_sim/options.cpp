// nvr_sim options: parsing and the help text. Defaults suit a small board: eight cameras, one
// live viewer each, a 32 MB cache.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nvr_sim.h"

namespace nvr_sim
{

namespace
{

const char* const k_usage = "usage: nvr_sim [options]\n"
                            "A simulated recorder: cameras push frames into the A/V block cache through the block\n"
                            "writer; per channel a recording consumer (unpaced) and live viewers (paced) read them\n"
                            "back, a snapshot consumer takes the newest key frame every few seconds, and one camera\n"
                            "drops out for a while and raises a video-loss event. Ends after --seconds or at Ctrl-C,\n"
                            "then drains the recorders, deletes every reader and checks that the cache holds nothing\n"
                            "for anybody. Exit status 1 when a recorder lost a frame or anything was left behind.\n"
                            "\n"
                            "  --channels N             cameras, 1..32 (default 8)\n"
                            "  --readers-per-channel N  live viewers per camera, 0..8 (default 1)\n"
                            "  --budget-mb N            A/V cache budget in MB (default 32)\n"
                            "  --seconds N              run time (default 60)\n"
                            "  --status-seconds N       period of the status block (default 5)\n"
                            "  --input FILE             main stream from an H.264 Annex-B clip or an RTSP-interleaved\n"
                            "                           RTP capture, looped (default: synthetic frames)\n"
                            "  --out DIR                recordings: DIR/chNN.h264 (default: read and check only)\n"
                            "  --root DIR               private root (default: $VESK_UTILITY_ROOT, else a new\n"
                            "                           /tmp/nvr_sim.XXXXXX)\n"
                            "  --proxy-server PATH      the proxy server to start (default: beside nvr_sim)\n"
                            "  --help\n";

bool read_unsigned(const char* name, const char* text, unsigned lo, unsigned hi, unsigned& out)
{
    char* end = nullptr;
    const unsigned long v = strtoul(text, &end, 10);
    if (end == text || *end != '\0' || v < lo || v > hi) {
        fprintf(stderr, "nvr_sim: %s wants a number from %u to %u, not '%s'\n", name, lo, hi, text);
        return false;
    }
    out = static_cast<unsigned>(v);
    return true;
}

} // namespace

bool parse_options(int argc, char** argv, options& opt, bool* exit_now)
{
    *exit_now = false;
    for (int i = 1; i < argc; i++) {
        const char* a = argv[i];
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            fputs(k_usage, stdout);
            *exit_now = true;
            return true;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "nvr_sim: unknown option or missing value: %s\n%s", a, k_usage);
            return false;
        }
        const char* v = argv[++i];
        bool ok = true;
        if (strcmp(a, "--channels") == 0)
            ok = read_unsigned(a, v, 1, k_max_channels, opt.channels);
        else if (strcmp(a, "--readers-per-channel") == 0)
            ok = read_unsigned(a, v, 0, 8, opt.readers_per_channel);
        else if (strcmp(a, "--budget-mb") == 0)
            ok = read_unsigned(a, v, 4, 3000, opt.budget_mb);
        else if (strcmp(a, "--seconds") == 0)
            ok = read_unsigned(a, v, 1, 86400 * 7, opt.seconds);
        else if (strcmp(a, "--status-seconds") == 0)
            ok = read_unsigned(a, v, 1, 3600, opt.status_s);
        else if (strcmp(a, "--input") == 0)
            opt.input = v;
        else if (strcmp(a, "--out") == 0)
            opt.out_dir = v;
        else if (strcmp(a, "--root") == 0)
            opt.root = v;
        else if (strcmp(a, "--proxy-server") == 0)
            opt.proxy_server = v;
        else {
            fprintf(stderr, "nvr_sim: unknown option %s\n%s", a, k_usage);
            return false;
        }
        if (!ok)
            return false;
    }
    // 320 reader slots: a recorder, a snapshot reader and the viewers per camera.
    if (opt.channels * (2 + opt.readers_per_channel) > 320) {
        fprintf(stderr, "nvr_sim: %u cameras with %u viewers each need more than the cache's 320 readers\n",
            opt.channels, opt.readers_per_channel);
        return false;
    }
    return true;
}

} // namespace nvr_sim
