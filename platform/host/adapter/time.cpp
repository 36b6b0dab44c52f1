/** Time: a steady clock, and sleeping by it. */
#include "platform_adapter.h"

#include <cerrno>
#include <ctime>

MM_TIMESPEC_ST mmGetTickCount(void) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, now.tv_nsec};
}

void mmSleep(uint32_t milliseconds) {
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += milliseconds / 1000;
    end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (end.tv_nsec >= 1000000000) {
        end.tv_nsec -= 1000000000;
        ++end.tv_sec;
    }
    // Up to a point in time, not for a span: an interrupted sleep goes on without drift.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}
