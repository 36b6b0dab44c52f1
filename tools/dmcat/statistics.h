// Round-trip times of a series.
#ifndef DMCAT_STATISTICS_H
#define DMCAT_STATISTICS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace dmcat {

// Counts times in buckets, so that a series may last for any time in the same 58 KiB. A bucket is
// less than 1 % wide.
class Statistics {
public:
    using Time = std::chrono::microseconds;

    struct Summary {
        Time min;
        Time median;
        Time p99;
        Time max;
    };

    // A negative time counts as 0.
    void add(Time time);
    bool empty() const { return count_ == 0; }

    // Percentiles are nearest ranks: the least of the times that so many percent of all do not
    // exceed. They are right to 1 %, and exact below 256 us, as the least and the largest are.
    // There must be a time.
    Summary summary() const;

private:
    Time percentile(std::uint64_t percent) const;

    std::vector<std::uint64_t> buckets_;
    std::uint64_t count_ = 0;
    Time min_ = Time::max();
    Time max_ = Time::min();
};

} // namespace dmcat

#endif
