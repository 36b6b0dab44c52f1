#include "support/ratio_reporter.h"

#include <benchmark/benchmark.h>
#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <map>

namespace bench {

namespace {

class Collector : public benchmark::ConsoleReporter {
public:
    Collector() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration)
                times_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
        std::vector<Run> shown;
        std::ranges::copy_if(runs, std::back_inserter(shown),
                             [](const Run& run) { return run.aggregate_name == "median"; });
        if (!shown.empty())
            ConsoleReporter::ReportRuns(shown);
    }

    double median(const std::string& name) {
        std::vector<double>& times = times_[name];
        std::ranges::sort(times);
        return times.empty() ? 0 : times[times.size() / 2];
    }

private:
    std::map<std::string, std::vector<double>> times_;
};

// Where the scheduler puts two threads that wake each other decides more than what they do: on one
// processor both sides pay for their work, and for the same switches.
void stay_on_one_processor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof(one), &one);
}

} // namespace

int run(int argc, char** argv, const std::vector<Ratio>& ratios) {
    stay_on_one_processor();
    std::vector<std::string> words(argv, argv + argc);
    words.insert(words.begin() + 1, {"--benchmark_enable_random_interleaving=true",
                                     "--benchmark_repetitions=25", "--benchmark_min_time=0.05"});
    std::vector<char*> args;
    for (std::string& word : words)
        args.push_back(word.data());
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    int status = 0;
    for (const Ratio& ratio : ratios) {
        const double measured = collector.median(ratio.measured);
        const double against = collector.median(ratio.against);
        if (measured == 0 || against == 0)
            continue; // left out by a filter
        const bool kept = measured / against <= ratio.at_most;
        std::printf("%s: %.3f times (at most %.2f)%s\n", ratio.what.c_str(), measured / against,
                    ratio.at_most, kept ? "" : "  TOO MUCH");
        status = kept ? status : 1;
    }
    return status;
}

} // namespace bench
