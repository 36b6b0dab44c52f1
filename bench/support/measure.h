// What a benchmark times: batches of operations, by the processor time that they cost.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <ctime>

namespace bench {

// The names of the counters that a run carries from the stopwatch to the results.
inline constexpr const char* kOperations = "operations";
inline constexpr const char* kWallSeconds = "wall";

inline double seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Times one batch, as an iteration of a benchmark that bench::add() made or that has
// UseManualTime(). What counts is the processor time of all threads of the process, so that what
// else runs on the machine stays out of it; the time that passed is kept beside it. Reading the
// clocks costs a microsecond: a batch should last a hundred of them or more.
template<class Batch>
void time_iteration(benchmark::State& state, int64_t operations, Batch&& batch) {
    const double wall = seconds_of(CLOCK_MONOTONIC);
    const double processor = seconds_of(CLOCK_PROCESS_CPUTIME_ID);
    batch();
    state.SetIterationTime(seconds_of(CLOCK_PROCESS_CPUTIME_ID) - processor);
    state.counters[kWallSeconds] += seconds_of(CLOCK_MONOTONIC) - wall;
    state.counters[kOperations] += static_cast<double>(operations);
}

// Times batches of so many operations until the benchmark has enough, after an untimed one.
template<class Batch>
void measure(benchmark::State& state, int64_t operations, Batch&& batch) {
    batch();
    for ([[maybe_unused]] auto iteration : state)
        time_iteration(state, operations, batch);
}

} // namespace bench
