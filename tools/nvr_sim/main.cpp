// nvr_sim - a simulated recorder process. It initialises the layer as the main application in
// a private root beside its own proxy server, runs cameras and consumers against the A/V
// cache for a while, then shuts its threads down in order and checks that the cache holds
// nothing for anybody. See --help.
//
// Shutdown order: stop the cameras (their writers close their blocks), let the recorders read
// up to each channel's last frame, stop the other consumers, put everything back, delete the
// readers, then check the cache (leftovers.cpp).
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "nvr_sim.h"

using namespace vesk_soft;

using namespace nvr_sim;

namespace
{

std::atomic<bool> s_stop {false};
constexpr unsigned k_drain_limit_ms = 30000;

void on_signal(int)
{
    s_stop.store(true);
}

VESK_ERR on_reboot()
{
    // A dead consumer watchdog: the close_dog marker in the private root keeps the library
    // from calling this; should it come, the run has failed anyway.
    printf("nvr_sim: watchdog asked for a reboot\n");
    return VESK_OK;
}

void print_console_help(const options& opt, int proxy_pid)
{
    printf("nvr_sim: root %s, %u cameras, %u live viewers each, budget %u MB, %u s, pid %d, proxy server %s\n",
        opt.root.c_str(), opt.channels, opt.readers_per_channel, opt.budget_mb, opt.seconds, static_cast<int>(getpid()),
        proxy_pid > 0 ? "running" : "not running");
    printf("nvr_sim: the console answers from 30 s after start, e.g.:\n"
           "  VESK_UTILITY_ROOT=%s vesk_diag list\n",
        opt.root.c_str());
    fflush(stdout);
}

bool recorders_drained(const sim& s)
{
    for (const auto& c : s.consumers) {
        if (c->kind == consumer_kind::record && !c->drained.load())
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    static sim s;
    bool exit_now = false;
    if (!parse_options(argc, argv, s.opt, &exit_now))
        return 2;
    if (exit_now)
        return 0;
    if (!prepare_root(s.opt))
        return 2;
    if (!s.opt.input.empty() && !load_clip(s.opt.input, s.input))
        return 2;
    // Before the library starts its threads: the server is forked from a single-threaded
    // process, and it must listen before the layer's command client first connects.
    const int proxy_pid = start_proxy_server(s.opt);

    vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    vesk_utility_regist_reboot_func(on_reboot);
    const uint32_t budget = s.opt.budget_mb << 20;
    vesk_utility_set_av_max_cache(budget, budget / 4 * 5);
    for (unsigned ch = 0; ch < s.opt.channels; ch++)
        vesk_utility_set_chn_connect_status(ch, 1);
    print_console_help(s.opt, proxy_pid);

    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    s.start_ms = now_ms();
    // The second camera (or the only one) drops out for a third of the run, at most 12 s,
    // starting a third of the way in.
    s.drop_chn = s.opt.channels > 1 ? 1 : 0;
    s.drop_at_s = s.opt.seconds / 3;
    s.drop_for_s = s.opt.seconds >= 6 ? (s.opt.seconds / 3 < 12 ? s.opt.seconds / 3 : 12) : 0;
    register_event_observer(s);
    // Readers first, so every recorder sees its stream from the first frame.
    const bool consumers_ok = start_consumers(s);
    if (consumers_ok) {
        start_cameras(s);
        const bool tty = isatty(STDOUT_FILENO);
        const int64_t end = s.start_ms + s.opt.seconds * 1000LL;
        int64_t next_full = s.start_ms + s.opt.status_s * 1000LL;
        while (!s_stop.load() && now_ms() < end) {
            sleep_unless(s_stop, 1000);
            if (now_ms() >= next_full) {
                print_status(s, true);
                next_full += s.opt.status_s * 1000LL;
            } else if (tty) {
                print_status(s, false);
            }
        }
        if (tty)
            printf("\n");
        printf("nvr_sim: %s, stopping the cameras\n", s_stop.load() ? "interrupted" : "time is up");
        s.stop_sources.store(true);
        join_cameras(s);
        s.draining.store(true);
        const int64_t drain_from = now_ms();
        while (!recorders_drained(s) && now_ms() - drain_from < k_drain_limit_ms)
            vesk_utility_sleep_ms(20);
        printf("nvr_sim: recorders %s in %lld ms, stopping the consumers\n",
            recorders_drained(s) ? "drained" : "NOT drained", static_cast<long long>(now_ms() - drain_from));
    }
    s.stop_consumers.store(true);
    join_consumers(s);
    unregister_event_observer();

    std::string report;
    const bool clean = check_leftovers(report);
    const bool ok = print_summary(s, clean && consumers_ok, report);
    stop_proxy_server(proxy_pid);
    return ok ? 0 : 1;
}
