// A round of the soak: threads that work until it is over.
#ifndef SOAK_ROUND_H
#define SOAK_ROUND_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace soak {

using Random = std::mt19937_64;

// A number from `low` to `high`.
inline std::uint64_t any_of(Random& random, std::uint64_t low, std::uint64_t high) {
    return std::uniform_int_distribution<std::uint64_t>(low, high)(random);
}

class Round {
public:
    explicit Round(std::uint64_t seed) : seed_(seed) {}
    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;
    ~Round() { end(); }

    // Runs a step again and again on a thread of its own, each with its own random numbers.
    void add(std::function<void(Random&)> step) {
        Random random(seed_ + threads_.size());
        threads_.emplace_back([this, random, step = std::move(step)]() mutable {
            while (!over_)
                step(random);
        });
    }

    // Lets all steps finish.
    void end() {
        over_ = true;
        for (std::thread& thread : threads_)
            thread.join();
        threads_.clear();
    }

private:
    std::uint64_t seed_;
    std::atomic<bool> over_ = false;
    std::vector<std::thread> threads_;
};

inline void pause_for(std::chrono::milliseconds time) {
    std::this_thread::sleep_for(time);
}

} // namespace soak

#endif
