#include "statistics.h"

#include <algorithm>

namespace dmcat {

namespace {

// Of sorted times, with percent from 1 to 100.
Statistics::Time percentile(const std::vector<Statistics::Time>& times, std::size_t percent) {
    const std::size_t rank = (times.size() * percent + 99) / 100;
    return times[rank - 1];
}

} // namespace

Statistics::Summary Statistics::summary() const {
    std::vector<Time> sorted = times_;
    std::sort(sorted.begin(), sorted.end());
    return {sorted.front(), percentile(sorted, 50), percentile(sorted, 99), sorted.back()};
}

} // namespace dmcat
