// vesk_example - a small process that initialises the layer as the main application, makes
// the allocations and handles a recorder's modules would, and prints what the resource
// manager's diagnose commands show about them: totals, per-module sizes, handles, counters
// and physical memory.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vesk_utility.h"
#include "api/vesk_utility_resource.h"

using namespace vesk_soft;

namespace {

int print_stdout(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vprintf(fmt, ap);
    va_end(ap);
    return n < 0 ? -1 : 0;
}

void run_command(int para, const char* what)
{
    printf("\n===== diagnose %d: %s =====\n", para, what);
    vesk_utility::vesk_utility_res_manage::instance()->diagnose(para, print_stdout);
    fflush(stdout);
}

// Module ids of a recorder, as its components would use them.
constexpr vesk_user_id k_record_module = 0x40;
constexpr vesk_user_id k_net_module = 0x51;
constexpr vesk_user_id k_gui_module = 0x62;

}  // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? atoi(argv[1]) : 1;
    if (rounds < 1)
        rounds = 1;
    vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP);

    std::vector<void*> blocks;
    for (int r = 0; r < rounds; r++) {
        // A recording module's index buffers, a network module's packets, GUI strings.
        for (int i = 0; i < 16; i++)
            blocks.push_back(vesk_utility_malloc(k_record_module, 0x4001, 64 * 1024, 4));
        for (int i = 0; i < 200; i++)
            blocks.push_back(vesk_utility_malloc(k_net_module, 0x5102, 1500, 4));
        blocks.push_back(vesk_utility_strdup(k_gui_module, 0x6201, "channel 1 - front door", 64));
        vesk_utility_note_malloc(k_net_module, 0x5199, 4096);
        vesk_utility_note_new(k_gui_module, 0x6202, 512);
        vesk_utility_note_new("record_task");
    }

    const int sock = vesk_utility_open_socket(k_net_module, "rtsp listener", AF_UNIX, SOCK_STREAM, 0);
    const int fd = vesk_utility_open(k_record_module, "index file", "/dev/null", O_RDONLY, 0);
    FILE* fp = vesk_utility_fopen(k_gui_module, "a name longer than thirty-one characters", "/dev/null", "r");

    run_command(1, "total accounted size");
    run_command(2, "accounted sizes by module and purpose");
    run_command(4, "handles");
    run_command(6, "note and class counters");
    run_command(9, "physical memory");

    vesk_utility_fclose(__FILE__, __func__, fp);
    vesk_utility_close(__FILE__, __func__, fd);
    vesk_utility_close_socket(__FILE__, __func__, sock);
    for (void* p : blocks)
        vesk_utility_free(__FILE__, __func__, p);
    vesk_utility_note_free(__FILE__, __func__, k_net_module, 0x5199, 4096);

    run_command(1, "total after the modules released their memory");
    return 0;
}
