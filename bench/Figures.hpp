#pragma once

// Runs the registered Google Benchmarks and keeps what each reported, so that a suite can
// print its named figures (and their ratios to references measured in the same run) after
// the raw output, one line each: "figure <name> <value> <unit>".

#include <benchmark/benchmark.h>

#include <cstddef>
#include <map>
#include <string>

namespace kelvane::bench {

struct Measured {
    double nanosecondsPerIteration = 0;  // real time
    double itemsPerSecond = 0;
    double bytesPerSecond = 0;
};

// Runs the benchmarks selected on the command line; results by benchmark name.
std::map<std::string, Measured> runAll(int argc, char** argv);

void figure(const std::string& name, double value, const std::string& unit);

// CPU seconds (user plus system) of this process, or of its calling thread with RUSAGE_THREAD.
double cpuSeconds(int who = 0);  // 0 is RUSAGE_SELF
// Bytes of heap in use now.
std::size_t heapInUse();

}  // namespace kelvane::bench
