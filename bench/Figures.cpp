#include "Figures.hpp"

#include <malloc.h>
#include <sys/resource.h>
#include <time.h>

#include <cstdio>

namespace kelvane::bench {
namespace {

class CapturingReporter : public benchmark::ConsoleReporter {
public:
    // Plain text: the output is read by scripts and logs, not a terminal.
    CapturingReporter() : ConsoleReporter(OO_Tabular) {}

    std::map<std::string, Measured> results;

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
            Measured measured;
            measured.nanosecondsPerIteration =
                run.GetAdjustedRealTime() * benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                benchmark::GetTimeUnitMultiplier(run.time_unit);
            if (auto items = run.counters.find("items_per_second"); items != run.counters.end()) {
                measured.itemsPerSecond = items->second.value;
            }
            if (auto bytes = run.counters.find("bytes_per_second"); bytes != run.counters.end()) {
                measured.bytesPerSecond = bytes->second.value;
            }
            results[run.benchmark_name()] = measured;
        }
    }
};

}  // namespace

std::map<std::string, Measured> runAll(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    CapturingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.results;
}

void figure(const std::string& name, double value, const std::string& unit) {
    std::printf("figure %s %.4g %s\n", name.c_str(), value, unit.c_str());
}

double cpuSeconds(int who) {
    // The CPU-time clocks count the scheduler's own nanoseconds; getrusage's sum moved here in
    // steps of 10 ms for a thread, a tenth of a short measurement.
    timespec now{};
    clock_gettime(who == RUSAGE_THREAD ? CLOCK_THREAD_CPUTIME_ID : CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::size_t heapInUse() {
    auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace kelvane::bench
