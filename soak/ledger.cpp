#include "ledger.h"

namespace soak {

namespace {

// A number is the round, and the place in it.
constexpr unsigned kRoundShift = 32;

} // namespace

void Ledger::begin_round() {
    ++round_;
    next_ = 0;
    for (std::atomic<Outcome>& outcome : outcomes_)
        outcome = Outcome::none;
}

std::uint64_t Ledger::open() {
    const std::size_t place = next_++;
    if (place >= kMost)
        return kNone;
    ++opened_;
    outcomes_[place] = Outcome::open;
    return (round_ << kRoundShift) + place;
}

std::atomic<Outcome>* Ledger::find(std::uint64_t number) {
    const std::uint64_t place = number & (kMost - 1);
    return number == (round_ << kRoundShift) + place ? &outcomes_[place] : nullptr;
}

void Ledger::close(std::uint64_t number, Outcome outcome) {
    std::atomic<Outcome>* entry = find(number);
    auto open = Outcome::open;
    if (entry == nullptr || !entry->compare_exchange_strong(open, outcome)) {
        ++doubled_;
        return;
    }
    ++counts_[static_cast<std::size_t>(outcome)];
    ++closed_;
}

void Ledger::close_if_open(std::uint64_t number) {
    if (const auto* entry = find(number); entry != nullptr && *entry == Outcome::open)
        close(number, Outcome::gone);
}

Json Ledger::report() const {
    const auto count = [this](Outcome outcome) {
        return counts_[static_cast<std::size_t>(outcome)].load();
    };
    return {{"sent", opened_.load()},
            {"answered", count(Outcome::answered)},
            {"timed_out", count(Outcome::timed_out)},
            {"refused", count(Outcome::refused)},
            {"gone", count(Outcome::gone)},
            {"doubled", doubled_.load()},
            {"mixed", mixed_.load()}};
}

} // namespace soak
