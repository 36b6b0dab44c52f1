// Runs benchmarks, repetitions of all of them interleaved at random on one processor, and reports
// what an operation costs each system, and the ratios that are to be kept.
//
// A program of bench/ is one question. Its benchmarks are named WORK/SYSTEM: the systems of one
// work do the same, the floor first, and are compared with one another.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace bench {

// A cost that is set in relation to another one, and the most that the ratio may be.
struct Target {
    std::string what;
    std::string measured; // name of a benchmark
    std::string against;  // of another one; empty: the cost itself, in nanoseconds
    std::optional<double> at_most = std::nullopt; // without: it is only shown
};

// Registers a system's way of doing a work, under a name without a slash. The function calls
// bench::measure(). Gives the registration, for what else is to be said of it.
benchmark::internal::Benchmark* add(const std::string& work, const std::string& system,
                                    std::function<void(benchmark::State&)> function);

// Notes that a work is not measured with a system, and why.
void leave_out(const std::string& work, const std::string& system, const std::string& why);

// Runs what is registered and prints a table. Options, besides those of Google Benchmark:
//   --quick      fewer and shorter repetitions
//   --check      exit status 1 when a target is not kept
//   --json FILE  writes the results
// Gives the exit status: 2 for an option that it does not know or a file that it cannot write.
int run(int argc, char** argv, const std::vector<Target>& targets);

} // namespace bench
