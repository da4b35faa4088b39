// Main of the benchmark programs: a private root, the layer initialised as the main
// application, then Google Benchmark with a reporter that adds the ratio of every
// "vesk_<x>" benchmark to its "baseline_<x>" twin. Where a "floor_<x>" runs too, its ratio to
// the baseline is printed beside: the least ratio any implementation of the layer's fixed
// rules (one pool mutex, a shared hold count, the timer's 100 ms sleeps) could reach.
//
// The proxy server runs beside the layer, as in the recorder (without it the command client
// would try to connect every 100 ms and log its faults). The layer logs to standard output:
// the tables keep the original one, the layer's messages go to "layer.log" in the private
// root, and the last line says how many there were.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ext/stdio_filebuf.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "vesk_utility.h"

namespace {

class ratio_reporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Iteration && r.iterations > 0)
                m_times[r.benchmark_name()] = r.GetAdjustedRealTime();
        }
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::ostream& out = GetOutputStream();
        char line[160];
        snprintf(line, sizeof(line), "\n%-48s %12s %12s %8s %8s\n", "benchmark (vesk vs baseline)", "vesk ns",
            "base ns", "ratio", "floor");
        out << line;
        for (const auto& [name, t] : m_times) {
            if (name.rfind("vesk_", 0) != 0)
                continue;
            const auto base = m_times.find("baseline_" + name.substr(5));
            if (base == m_times.end() || base->second <= 0)
                continue;
            const auto floor = m_times.find("floor_" + name.substr(5));
            char floor_ratio[16] = "-";
            if (floor != m_times.end())
                snprintf(floor_ratio, sizeof(floor_ratio), "%.2f", floor->second / base->second);
            snprintf(line, sizeof(line), "%-48s %12.1f %12.1f %8.2f %8s\n", name.substr(5).c_str(), t, base->second,
                t / base->second, floor_ratio);
            out << line;
        }
        out.flush();
    }

private:
    std::map<std::string, double> m_times;
};

// The layer's messages in the file at path (one "[UTL]" tag each; not all end a line).
long count_messages(const std::string& path)
{
    std::ifstream in(path);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    long n = 0;
    for (size_t at = text.find("[UTL]"); at != std::string::npos; at = text.find("[UTL]", at + 5))
        n++;
    return n;
}

// The proxy server for the main role in the private root, once its socket is there; 0 when it
// is not built or does not start (the layer then runs its commands in-process).
pid_t start_proxy_server(const std::string& root)
{
#ifdef VESK_BENCH_PROXY_SERVER
    const std::string sock = root + "/usr/lib/libmodel.socket";
    const pid_t pid = fork();
    if (pid == 0) {
        const int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, STDOUT_FILENO);
        execl(VESK_BENCH_PROXY_SERVER, VESK_BENCH_PROXY_SERVER, static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; pid > 0 && i < 100; i++) {
        if (access(sock.c_str(), F_OK) == 0)
            return pid;
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            break;
        usleep(20 * 1000);
    }
    fprintf(stderr, "bench: the proxy server did not start\n");
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
#else
    (void)root;
#endif
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv); // --help prints and exits here, on the terminal
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (getenv("VESK_UTILITY_ROOT") == nullptr) {
        char tmpl[] = "/tmp/vesk_bench.XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            return 2;
        setenv("VESK_UTILITY_ROOT", tmpl, 1);
    }
    const std::string root = getenv("VESK_UTILITY_ROOT");
    const std::string log_path = root + "/layer.log";
    mkdir((root + "/usr").c_str(), 0755);
    mkdir((root + "/usr/lib").c_str(), 0755);
    const pid_t proxy = start_proxy_server(root);
    fflush(stdout);
    const int table_fd = dup(STDOUT_FILENO);
    const int log_fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (table_fd < 0 || log_fd < 0 || dup2(log_fd, STDOUT_FILENO) < 0) {
        perror(log_path.c_str());
        return 2;
    }
    close(log_fd);
    __gnu_cxx::stdio_filebuf<char> table_buf(table_fd, std::ios::out);
    std::ostream table(&table_buf);

    vesk_soft::vesk_utility_init(vesk_soft::VESK_UTILITY_OPS_MAIN_APP);
    ratio_reporter reporter;
    reporter.SetOutputStream(&table);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    fflush(stdout);
    table << "layer messages: " << count_messages(log_path) << " in " << log_path << "\n";
    table.flush();
    if (proxy > 0) {
        kill(proxy, SIGTERM);
        waitpid(proxy, nullptr, 0);
    }
    return 0;
}
