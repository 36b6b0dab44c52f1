// How the library's poll threads are scheduled in a benchmark.
#pragma once

namespace bench {

// Poll threads that are made while one lives get the real-time priority that the library asks for,
// if the process may give it. All others are refused it, so that the library's threads are
// scheduled like those that they are compared with.
class RealTimeScope {
public:
    RealTimeScope();
    RealTimeScope(const RealTimeScope&) = delete;
    RealTimeScope& operator=(const RealTimeScope&) = delete;
    ~RealTimeScope();
};

} // namespace bench
