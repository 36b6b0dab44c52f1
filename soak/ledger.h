// The books of the soak: every request gets a number, and each number one outcome.
#ifndef SOAK_LEDGER_H
#define SOAK_LEDGER_H

#include <nlohmann/json.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace soak {

using Json = nlohmann::json;

// A number that threads count up.
using Counter = std::atomic<std::uint64_t>;

enum class Outcome : std::uint8_t {
    none,      // there is no such request
    open,      // it is under way
    answered,  // by its peer
    timed_out, // reported as such
    refused,   // the call that sent it failed
    gone,      // its interface or context was removed before
};

// The requests of one kind, in any number of threads. Its memory does not grow.
class Ledger {
public:
    // Most requests in a round.
    static constexpr std::size_t kMost = 1 << 20;

    Ledger() : outcomes_(kMost) {}

    // Forgets the numbers of the round before, none of which is open any more.
    void begin_round();

    // Gives the number of a new request, which is open; none when the round is full.
    static constexpr std::uint64_t kNone = ~std::uint64_t{0};
    std::uint64_t open();

    // Enters an outcome: counts as doubled if there is one already.
    void close(std::uint64_t number, Outcome outcome);

    // Enters `gone` for a request that is still open.
    void close_if_open(std::uint64_t number);

    // An answer has come that is not this request's.
    void count_mixed() { ++mixed_; }

    bool all_closed() const { return closed_ == opened_; }

    // What happened so far, in all rounds.
    Json report() const;

private:
    std::atomic<Outcome>* find(std::uint64_t number);

    std::vector<std::atomic<Outcome>> outcomes_;
    std::uint64_t round_ = 0;
    std::atomic<std::size_t> next_ = 0;
    Counter opened_ = 0;
    Counter closed_ = 0;
    Counter counts_[6] = {};
    Counter doubled_ = 0;
    Counter mixed_ = 0;
};

} // namespace soak

#endif
