// How dmcat ends.
#ifndef DMCAT_EXIT_STATUS_H
#define DMCAT_EXIT_STATUS_H

#include <stdexcept>

namespace dmcat {

enum ExitStatus {
    kAnswered = 0,
    kTimedOut = 1,
    kWrongUsage = 2,
    kCannotWork = 3, // cannot open, send, read or write; every other exception ends so
    kRefused = 4,
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace dmcat

#endif
