#include "support/runner.h"

#include "support/measure.h"
#include "support/results.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace bench {

namespace {

struct Options {
    bool quick = false;
    bool check = false;
    std::string json;
    std::vector<std::string> others; // Google Benchmark's
};

// The repetitions of one benchmark, an operation's cost in each.
struct Samples {
    int64_t number; // in the order of the registration
    std::string name;
    std::vector<double> processor;
    std::vector<double> wall;
    std::string why_skipped;
};

std::vector<LeftOut>& left_out() {
    static std::vector<LeftOut> rows;
    return rows;
}

class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration)
                take(run);
    }

    std::vector<Row> rows() {
        std::ranges::sort(samples_, {}, &Samples::number);
        std::vector<Row> rows;
        for (const Samples& of : samples_) {
            const size_t slash = of.name.rfind('/');
            const std::string work = of.name.substr(0, slash);
            const std::string system = of.name.substr(slash + 1);
            if (of.why_skipped.empty())
                rows.push_back({work, system, spread_of(of.processor), spread_of(of.wall),
                                of.processor.size()});
            else
                left_out().push_back({work, system, of.why_skipped});
        }
        return rows;
    }

private:
    void take(const Run& run) {
        constexpr double nanoseconds = 1e9;
        Samples& samples = samples_of(run.family_index, run.run_name.function_name);
        if (run.error_occurred) {
            samples.why_skipped = run.error_message;
            return;
        }
        const double unit = nanoseconds / run.counters.at(kOperations);
        samples.processor.push_back(run.real_accumulated_time * unit);
        samples.wall.push_back(run.counters.at(kWallSeconds) * unit);
    }

    Samples& samples_of(int64_t number, const std::string& name) {
        const auto found = std::ranges::find(samples_, number, &Samples::number);
        return found != samples_.end() ? *found
                                       : samples_.emplace_back(Samples{number, name, {}, {}, {}});
    }

    std::vector<Samples> samples_;
};

// Where the scheduler puts two threads that wake each other decides more than what they do: on one
// processor all systems pay for their work, and for the same switches.
void stay_on_one_processor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof(one), &one);
}

Options read_options(int argc, char** argv) {
    Options options;
    const std::vector<std::string> words(argv + 1, argv + argc);
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--quick")
            options.quick = true;
        else if (words[i] == "--check")
            options.check = true;
        else if (words[i] == "--json" && i + 1 < words.size())
            options.json = words[++i];
        else
            options.others.push_back(words[i]);
    }
    return options;
}

// @return false when there is an option that nobody knows.
bool initialize(const std::string& program, const Options& options) {
    std::vector<std::string> words = {program, "--benchmark_enable_random_interleaving=true"};
    if (options.quick)
        words.insert(words.end(), {"--benchmark_repetitions=5", "--benchmark_min_time=0.01"});
    else
        words.insert(words.end(), {"--benchmark_repetitions=15", "--benchmark_min_time=0.05"});
    words.insert(words.end(), options.others.begin(), options.others.end());
    std::vector<char*> args(words.size());
    std::ranges::transform(words, args.begin(), [](std::string& word) { return word.data(); });
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    return !benchmark::ReportUnrecognizedArguments(count, args.data());
}

} // namespace

benchmark::internal::Benchmark* add(const std::string& work, const std::string& system,
                                    std::function<void(benchmark::State&)> function) {
    return benchmark::RegisterBenchmark((work + "/" + system).c_str(), std::move(function))
        ->UseManualTime();
}

void leave_out(const std::string& work, const std::string& system, const std::string& why) {
    left_out().push_back({work, system, why});
}

int run(int argc, char** argv, const std::vector<Target>& targets) {
    const Options options = read_options(argc, argv);
    setenv("DM_LOG_LEVEL", "error", 0); // that the poll thread was refused real time is no news
    const std::string program = std::filesystem::path(argv[0]).filename();
    if (!initialize(program, options))
        return 2;
    stay_on_one_processor();
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    Results results = {program, collector.rows(), left_out(), {}};
    results.group();
    results.judge(targets);
    results.print();
    if (!options.json.empty() && !results.write_json(options.json)) {
        std::perror(options.json.c_str());
        return 2;
    }
    return options.check && !results.all_kept() ? 1 : 0;
}

} // namespace bench
