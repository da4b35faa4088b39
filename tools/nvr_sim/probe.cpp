// nvr_sim's view of the library: the reports of the console's diagnose commands (A/V cache
// dump, accounted total, timer tasks), run in-process through each service's
// vesk_diagnose_client interface and read back as text. This is the one file that reaches
// past the public header: the console's socket serves one client at a time and only from 30 s
// after start-up, and it stays free for the developer's vesk_diag.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "nvr_sim.h"
#include "sched/vesk_utility_timer.h"
#include "av/vesk_utility_av_mng.h"
#include "api/vesk_utility_resource.h"

namespace nvr_sim
{

namespace
{

thread_local std::string* t_capture = nullptr;

int capture_print(const char* fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    if (t_capture != nullptr)
        t_capture->append(buf);
    return 0;
}

std::string run(vesk_soft::vesk_diagnose_client* client, int para)
{
    std::string out;
    t_capture = &out;
    client->diagnose(para, capture_print);
    t_capture = nullptr;
    return out;
}

} // namespace

std::string av_dump()
{
    return run(vesk_utility::vesk_utility_av_mng::instance(), 1);
}

library_view read_library_view()
{
    library_view v;
    std::istringstream dump(av_dump());
    std::string line;
    while (std::getline(dump, line)) {
        unsigned readers = 0, total = 0, max = 0, blocks = 0;
        double mb = 0;
        if (sscanf(line.c_str(), "Current AV Reader Count:%u, total_cache = %uMB, max_cache = %uMB", &readers, &total,
                &max)
            == 3) {
            v.readers = readers;
            v.max_cache_mb = max;
        } else if (line.find("Occupy [") != std::string::npos
            && sscanf(line.c_str() + line.find("Occupy [") + 8, "%u", &blocks) == 1) {
            v.cached_blocks += blocks;
        } else if (sscanf(line.c_str(), "Block Manage Consume %lfMB", &mb) == 1) {
            v.cache_mb = mb;
        }
    }
    vesk_utility::vesk_utility_res_manage* res = vesk_utility::vesk_utility_res_manage::instance();
    std::string total = run(res, 1);
    const size_t eq = total.find("= ");
    v.accounted = eq == std::string::npos ? "?" : total.substr(eq + 2, total.find('\n') - eq - 2);
    // Timer tasks: one row per task, "<n>  0x<user> 0x<purpose> ...", in all four tables; a
    // table the service is changing at this moment is skipped ("try lock fail").
    std::istringstream tasks(run(res->get_timer(), 1));
    int n = 0;
    bool complete = true;
    while (std::getline(tasks, line)) {
        int idx = 0;
        unsigned usr = 0;
        if (sscanf(line.c_str(), "%d 0x%x", &idx, &usr) == 2)
            n++;
        if (line.find("try lock fail") != std::string::npos)
            complete = false;
    }
    v.timer_tasks = complete ? n : -1;
    return v;
}

} // namespace nvr_sim
