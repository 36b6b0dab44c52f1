// Arithmetic on the poller's time values.
#include "dm_poller.h"

#include "platform_adapter.h"

namespace {

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kMsPerSecond = 1000;

int __sign(int64_t a, int64_t b) {
    return a == b ? 0 : (a > b ? 1 : -1);
}

} // namespace

int poller_time_cmp(const POLLER_TIME_ST* a, const POLLER_TIME_ST* b) {
    const int seconds = __sign(a->tv_sec, b->tv_sec);
    return seconds != 0 ? seconds : __sign(a->tv_nsec, b->tv_nsec);
}

int poller_time_diff_ms(POLLER_TIME_ST* difference, const POLLER_TIME_ST* a,
                        const POLLER_TIME_ST* b) {
    if (poller_time_cmp(a, b) <= 0)
        return -1;
    POLLER_TIME_ST result{a->tv_sec - b->tv_sec, a->tv_nsec - b->tv_nsec};
    while (result.tv_nsec < 0) {
        result.tv_nsec += kNsPerSecond;
        --result.tv_sec;
    }
    if (difference != nullptr)
        *difference = result;
    return static_cast<int32_t>(result.tv_nsec / kNsPerMs + result.tv_sec * kMsPerSecond);
}

void poller_time_add_ms(POLLER_TIME_ST* sum, const POLLER_TIME_ST* base, int32_t ms) {
    POLLER_TIME_ST result{base->tv_sec + ms / kMsPerSecond,
                          base->tv_nsec + ms % kMsPerSecond * kNsPerMs};
    while (result.tv_nsec >= kNsPerSecond) {
        result.tv_nsec -= kNsPerSecond;
        ++result.tv_sec;
    }
    *sum = result;
}

void poller_time_sub_ms(POLLER_TIME_ST* difference, const POLLER_TIME_ST* base, int32_t ms) {
    POLLER_TIME_ST result{base->tv_sec - ms / kMsPerSecond,
                          base->tv_nsec - ms % kMsPerSecond * kNsPerMs};
    while (result.tv_nsec < 0) {
        result.tv_nsec += kNsPerSecond;
        --result.tv_sec;
    }
    *difference = result;
}

int poller_ms_until(const POLLER_TIMER_ENTRY_ST* entry) {
    const MM_TIMESPEC_ST tick = mmGetTickCount();
    const POLLER_TIME_ST now{tick.tv_sec, tick.tv_nsec};
    return poller_time_diff_ms(nullptr, &entry->deadline, &now);
}
