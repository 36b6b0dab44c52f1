#include "outstanding.h"

#include <utility>

namespace dmcat {

void Outstanding::add(std::uint32_t sequence, std::shared_ptr<std::string> message,
                      std::int32_t retry) {
    const Clock::time_point now = Clock::now();
    requests_.push_back({sequence, std::move(message), retry, now, now + period_});
    by_sequence_[sequence] = std::prev(requests_.end());
}

std::optional<Outstanding::Request> Outstanding::take(std::uint32_t sequence) {
    const auto found = by_sequence_.find(sequence);
    if (found == by_sequence_.end())
        return std::nullopt;
    Request request = std::move(*found->second);
    requests_.erase(found->second);
    by_sequence_.erase(found);
    return request;
}

// All have the same period, so what falls due last goes to the end.
void Outstanding::postpone_first() {
    requests_.front().due = Clock::now() + period_;
    requests_.splice(requests_.end(), requests_, requests_.begin());
}

} // namespace dmcat
