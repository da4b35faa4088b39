// nvr_sim events: the video-loss event of a camera that dropped out, and an observer that logs
// when events start and end. The event manager tells observers from its once-a-second check,
// whose first run is 30 s after start-up.
#include <cstdio>
#include <cstring>

#include "nvr_sim.h"

using namespace vesk_soft;

namespace nvr_sim
{

namespace
{

class event_logger final : public vesk_event_oberver
{
public:
    explicit event_logger(sim& s)
        : m_sim(s)
    {
    }
    void on_event(const vesk_event_detail_info* rec, unsigned slot) const override
    {
        const bool start = rec->is_trigger != 0;
        (start ? m_sim.event_starts : m_sim.event_ends).fetch_add(1);
        printf("nvr_sim: event %s: main %u sub %u index %u (%s), started %u%s (observer slot %u)\n",
            start ? "start" : "end", rec->detail.main_type, rec->detail.sub_type, rec->detail.index, rec->detail.text,
            rec->start_time, start ? "" : ", ended", slot);
        fflush(stdout);
    }

private:
    sim& m_sim;
};

event_logger* s_logger = nullptr;

} // namespace

void register_event_observer(sim& s)
{
    s_logger = new event_logger(s);
    vesk_utility_register_event_oberver(k_sim_user, s_logger);
}

void unregister_event_observer()
{
    if (s_logger != nullptr)
        vesk_utility_unregister_event_oberver(k_sim_user, s_logger);
    // The manager may be delivering to it on the timer thread until unregistration returns;
    // after that it is not called again, but it stays allocated for the life of the process.
}

void set_video_loss(sim& s, unsigned chn, bool active)
{
    vesk_event_info e = {};
    e.main_type = VESK_EVENT_CHANNEL_EVENT;
    e.local = 1; // the recorder itself noticed that the stream stopped
    e.sub_type = VESK_EVENT_SUB_VIDEO_LOSS;
    e.index = chn;
    e.level = 2;
    snprintf(e.source, sizeof(e.source), "192.168.1.%u", 100 + chn);
    snprintf(e.text, sizeof(e.text), "camera %02u video loss", chn);
    if (vesk_utility_set_event_state(&e, active ? 1 : 0) == VESK_OK && active)
        s.events_raised.fetch_add(1);
}

} // namespace nvr_sim
