// Round-trip times of a series.
#ifndef DMCAT_STATISTICS_H
#define DMCAT_STATISTICS_H

#include <chrono>
#include <vector>

namespace dmcat {

class Statistics {
public:
    using Time = std::chrono::microseconds;

    struct Summary {
        Time min;
        Time median;
        Time p99;
        Time max;
    };

    void add(Time time) { times_.push_back(time); }
    bool empty() const { return times_.empty(); }

    // Percentiles are nearest ranks: the least of the times that so many percent of all do not
    // exceed. There must be a time.
    Summary summary() const;

private:
    std::vector<Time> times_;
};

} // namespace dmcat

#endif
