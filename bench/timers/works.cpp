#include "timers/works.h"

#include "support/measure.h"
#include "support/runner.h"

#include <array>
#include <chrono>
#include <map>
#include <numeric>
#include <random>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace timers {

namespace {

constexpr size_t kBatch = 1000; // timers that are cancelled and armed again, one after another

// Timers of hours. A batch of them, drawn at random from all, is cancelled and armed again.
class Standing {
public:
    Standing(MakeTimers make, size_t armed, Intervals intervals)
        : intervals_(intervals), numbers_(armed + kBatch), timers_(make(numbers_.size())) {
        const double start = bench::seconds_of(CLOCK_PROCESS_CPUTIME_ID);
        const auto note_cost = [&] {
            constexpr double bearable_s = 0.5;
            is_too_dear_ = bench::seconds_of(CLOCK_PROCESS_CPUTIME_ID) - start > bearable_s;
        };
        std::iota(numbers_.begin(), numbers_.end(), size_t{0});
        for (size_t number = 0; number < numbers_.size() && !is_too_dear_; ++number) {
            timers_->arm(number, draw_interval());
            if (number % kBatch == 0)
                note_cost();
        }
        if (is_too_dear_)
            return;
        draw_batch();
        cancel_batch();
        arm_batch();
        note_cost();
    }

    // A cost that grows with the number of timers is not waited for again and again.
    bool is_too_dear() const { return is_too_dear_; }

    void draw_batch() {
        for (size_t i = 0; i < kBatch; ++i) {
            std::swap(numbers_[i], numbers_[draw(i, numbers_.size() - 1)]);
            batch_intervals_[i] = draw_interval();
        }
    }
    void cancel_batch() {
        for (size_t i = 0; i < kBatch; ++i)
            timers_->cancel(numbers_[i]);
        timers_->sweep();
    }
    void arm_batch() {
        for (size_t i = 0; i < kBatch; ++i)
            timers_->arm(numbers_[i], batch_intervals_[i]);
    }

private:
    template<class Integer>
    Integer draw(Integer least, Integer most) {
        return std::uniform_int_distribution<Integer>(least, most)(random_);
    }
    uint32_t draw_interval() {
        constexpr uint32_t least_ms = 10'000'000;
        return intervals_ == Intervals::equal ? least_ms : draw(least_ms, 10 * least_ms);
    }

    Intervals intervals_;
    bool is_too_dear_ = false;
    std::mt19937 random_{1};
    std::vector<size_t> numbers_; // the batch first
    std::array<uint32_t, kBatch> batch_intervals_{};
    std::unique_ptr<Timers> timers_;
};

// They are made once, and serve all repetitions.
Standing& standing_of(const std::string& system, MakeTimers make, size_t armed, Intervals kind) {
    static std::map<std::tuple<std::string, size_t, Intervals>, Standing> made;
    return made.try_emplace({system, armed, kind}, make, armed, kind).first->second;
}

void arm(benchmark::State& state, Standing& standing) {
    for ([[maybe_unused]] auto iteration : state) {
        standing.draw_batch();
        standing.cancel_batch();
        bench::time_iteration(state, kBatch, [&] { standing.arm_batch(); });
    }
}

void cancel(benchmark::State& state, Standing& standing) {
    for ([[maybe_unused]] auto iteration : state) {
        standing.draw_batch();
        bench::time_iteration(state, kBatch, [&] { standing.cancel_batch(); });
        standing.arm_batch();
    }
}

void fire(benchmark::State& state, MakeTimers make, size_t count) {
    constexpr uint32_t longest_ms = 10;
    std::mt19937 random(1);
    const auto timers = make(count);
    for ([[maybe_unused]] auto iteration : state) {
        timers->hold();
        for (size_t number = 0; number < count; ++number)
            timers->arm(number, static_cast<uint32_t>(1 + random() % longest_ms));
        std::this_thread::sleep_for(std::chrono::milliseconds(longest_ms + 1));
        bench::time_iteration(state, static_cast<int64_t>(count), [&] { timers->fire(count); });
    }
}

} // namespace

void add(const std::string& name, MakeTimers make) {
    // So many a repetition, for what is not timed may take far longer than what is.
    constexpr int batches = 10;
    constexpr int firings = 5;
    for (const Intervals kind : {Intervals::equal, Intervals::random})
        for (const size_t armed : kArmed) {
            const auto add_step = [&](const std::string& work, auto step) {
                bench::add(work, name, [=](benchmark::State& state) {
                    Standing& standing = standing_of(name, make, armed, kind);
                    if (standing.is_too_dear())
                        state.SkipWithError("making them ready took too long");
                    else
                        step(state, standing);
                })->Iterations(batches);
            };
            add_step(arming(armed, kind), arm);
            add_step(cancelling(armed, kind), cancel);
        }
    for (const size_t due : kDue)
        bench::add(firing(due), name, [=](benchmark::State& state) {
            fire(state, make, due);
        })->Iterations(firings);
}

} // namespace timers
