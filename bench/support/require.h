// A measurement in which something went wrong measures nothing.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace bench {

// Ends the process when a condition does not hold, and says which and errno.
inline void require(bool condition, const char* what) {
    if (condition)
        return;
    std::perror(what);
    std::exit(2);
}

} // namespace bench
