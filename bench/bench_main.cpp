// Main of the benchmark programs: a private root, the layer initialised as the main
// application, then Google Benchmark with a reporter that adds the ratio of every
// "vesk_<x>" benchmark to its "baseline_<x>" twin.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <map>
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
        printf("\n%-48s %12s %12s %8s\n", "benchmark (vesk vs baseline)", "vesk ns", "base ns", "ratio");
        for (const auto& [name, t] : m_times) {
            if (name.rfind("vesk_", 0) != 0)
                continue;
            const auto base = m_times.find("baseline_" + name.substr(5));
            if (base == m_times.end() || base->second <= 0)
                continue;
            printf("%-48s %12.1f %12.1f %8.2f\n", name.substr(5).c_str(), t, base->second, t / base->second);
        }
    }

private:
    std::map<std::string, double> m_times;
};

}  // namespace

int main(int argc, char** argv)
{
    if (getenv("VESK_UTILITY_ROOT") == nullptr) {
        char tmpl[] = "/tmp/vesk_bench.XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            return 2;
        setenv("VESK_UTILITY_ROOT", tmpl, 1);
    }
    vesk_soft::vesk_utility_init(vesk_soft::VESK_UTILITY_OPS_MAIN_APP);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    ratio_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
