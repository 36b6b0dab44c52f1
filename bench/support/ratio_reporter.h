// Runs the registered benchmarks, repetitions of all of them interleaved at random, and prints
// ratios of their medians.
#pragma once

#include <string>
#include <vector>

namespace bench {

// "what: the first costs so many times the second", with the most that it may be.
struct Ratio {
    std::string what;
    std::string measured; // name of a benchmark
    std::string against;
    double at_most;
};

// Gives an exit status: 0 when all ratios are kept, 1 when one is not.
int run(int argc, char** argv, const std::vector<Ratio>& ratios);

} // namespace bench
