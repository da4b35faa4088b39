// nvr_sim status display and summary: per-channel rates from the cache's statistics, what the
// consumers read and lost, the cache against its budget, accounted memory and timer tasks.
// On a terminal a progress line is redrawn in place between the status blocks.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "nvr_sim.h"

using namespace vesk_soft;

namespace nvr_sim
{

namespace
{

struct kind_totals {
    uint64_t read = 0;
    uint64_t dropped = 0;
    uint64_t written = 0;
    uint64_t logos = 0;
    uint64_t misses = 0;
    unsigned count = 0;
};

kind_totals totals(const sim& s, consumer_kind k)
{
    kind_totals t;
    for (const auto& c : s.consumers) {
        if (c->kind != k)
            continue;
        t.count++;
        t.read += c->frames_read.load();
        t.dropped += c->frames_dropped.load();
        t.written += c->frames_written.load();
        t.logos += c->logo_frames.load();
        t.misses += c->misses.load();
    }
    return t;
}

const char* kind_name(consumer_kind k)
{
    return k == consumer_kind::record ? "record" : k == consumer_kind::live ? "live" : "snapshot";
}

} // namespace

void print_status(const sim& s, bool full)
{
    const double elapsed = (now_ms() - s.start_ms) / 1000.0;
    const library_view v = read_library_view();
    const kind_totals rec = totals(s, consumer_kind::record);
    const kind_totals live = totals(s, consumer_kind::live);
    const kind_totals snap = totals(s, consumer_kind::snap);
    char tasks[16];
    snprintf(tasks, sizeof(tasks), v.timer_tasks < 0 ? "?" : "%d", v.timer_tasks);
    char head[320];
    snprintf(head, sizeof(head),
        "[%5.1fs/%us] cache %.1f/%u MB, accounted %s, timer tasks %s | record %llu (drop %llu) | live %llu "
        "(drop %llu) | snap %llu",
        elapsed, s.opt.seconds, v.cache_mb, v.max_cache_mb, v.accounted.c_str(), tasks,
        static_cast<unsigned long long>(rec.read), static_cast<unsigned long long>(rec.dropped),
        static_cast<unsigned long long>(live.read), static_cast<unsigned long long>(live.dropped),
        static_cast<unsigned long long>(snap.read));
    if (!full) {
        // The progress line, redrawn in place.
        printf("\r\033[K%s", head);
        fflush(stdout);
        return;
    }
    if (isatty(STDOUT_FILENO))
        printf("\r\033[K");
    printf("nvr_sim status %s\n", head);
    // Rates cover the cache's last complete 10 s period; 0 before the first one ends.
    std::string line;
    for (unsigned ch = 0; ch < s.opt.channels; ch++) {
        vesk_stream_stat_info main = {}, sub = {}, audio = {}, smart = {};
        vesk_utility_get_stream_stat_info(ch, VESK_AV_STREAM_MAIN, &main);
        vesk_utility_get_stream_stat_info(ch, VESK_AV_STREAM_SUB, &sub);
        vesk_utility_get_stream_stat_info(ch, VESK_AV_STREAM_AUDIO, &audio);
        vesk_utility_get_stream_stat_info(ch, VESK_AV_STREAM_SMART, &smart);
        char cell[96];
        snprintf(cell, sizeof(cell), "  ch%02u %4.1ffps %5.0fkbps sub %4.1f/%4.0f a%4.1f s%3.1f%s", ch,
            static_cast<double>(main.fps), static_cast<double>(main.kbps), static_cast<double>(sub.fps),
            static_cast<double>(sub.kbps), static_cast<double>(audio.fps), static_cast<double>(smart.fps),
            s.chn[ch].disconnected.load() ? " OFF" : (main.disconnected ? " LOST" : ""));
        line += cell;
        if (ch % 2 == 1 || ch + 1 == s.opt.channels) {
            printf("%s\n", line.c_str());
            line.clear();
        }
    }
    printf("  consumers: %u record, %u live (%llu logo frames), snapshot %llu taken, %llu missed; %u readers\n",
        rec.count, live.count, static_cast<unsigned long long>(live.logos + rec.logos),
        static_cast<unsigned long long>(snap.read), static_cast<unsigned long long>(snap.misses), v.readers);
    fflush(stdout);
}

bool print_summary(const sim& s, bool leftovers_ok, const std::string& leftover_report)
{
    bool ok = leftovers_ok;
    printf("\n===== nvr_sim summary =====\n");
    printf("%-10s %4s %6s %10s %9s %9s %6s\n", "consumer", "chn", "stream", "read", "dropped", "written", "logos");
    for (const auto& c : s.consumers) {
        char written[24];
        if (c->kind == consumer_kind::record && s.opt.out_dir.empty())
            snprintf(written, sizeof(written), "-");
        else
            snprintf(written, sizeof(written), "%llu", static_cast<unsigned long long>(c->frames_written.load()));
        char chn[8];
        snprintf(chn, sizeof(chn), c->kind == consumer_kind::snap ? "all" : "%u", c->chn);
        printf("%-10s %4s %6s %10llu %9llu %9s %6llu%s%s%s\n", kind_name(c->kind), chn,
            c->stream == VESK_AV_STREAM_MAIN ? "main" : "sub", static_cast<unsigned long long>(c->frames_read.load()),
            static_cast<unsigned long long>(c->frames_dropped.load()), written,
            static_cast<unsigned long long>(c->logo_frames.load()),
            c->kind == consumer_kind::record && !c->drained.load() ? "  NOT DRAINED" : "",
            c->reader_free ? "" : "  READER NOT FREE", c->write_error ? "  WRITE ERROR" : "");
        if (!c->reader_free || c->write_error)
            ok = false;
        if (c->kind == consumer_kind::record) {
            // An unpaced consumer must see every frame the camera pushed, in order.
            const uint32_t pushed = s.chn[c->chn].main_frames.load();
            if (c->frames_dropped.load() != 0 || !c->drained.load() || c->frames_read.load() != pushed)
                ok = false;
        }
    }
    uint64_t pushed = 0, refused = 0;
    for (unsigned ch = 0; ch < s.opt.channels; ch++) {
        pushed += s.chn[ch].main_frames.load();
        refused += s.chn[ch].lost_on_push.load();
    }
    const kind_totals rec = totals(s, consumer_kind::record);
    const kind_totals live = totals(s, consumer_kind::live);
    const kind_totals snap = totals(s, consumer_kind::snap);
    printf("record:   %u consumers, %llu frames read of %llu pushed (%llu refused by the budget), %llu dropped, "
           "%llu written\n",
        rec.count, static_cast<unsigned long long>(rec.read), static_cast<unsigned long long>(pushed),
        static_cast<unsigned long long>(refused), static_cast<unsigned long long>(rec.dropped),
        static_cast<unsigned long long>(rec.written));
    printf("live:     %u consumers, %llu frames read, %llu dropped (paced viewers skip to keep up), %llu logo frames\n",
        live.count, static_cast<unsigned long long>(live.read), static_cast<unsigned long long>(live.dropped),
        static_cast<unsigned long long>(live.logos));
    printf("snapshot: %llu key frames taken, %llu missed, %llu logo frames\n",
        static_cast<unsigned long long>(snap.read), static_cast<unsigned long long>(snap.misses),
        static_cast<unsigned long long>(snap.logos));
    printf("events:   video loss raised %u times, observer saw %u starts and %u ends\n", s.events_raised.load(),
        s.event_starts.load(), s.event_ends.load());
    printf("leftovers: %s\n", leftover_report.c_str());
    printf("result:   %s\n", ok ? "OK" : "FAILED");
    fflush(stdout);
    return ok;
}

} // namespace nvr_sim
