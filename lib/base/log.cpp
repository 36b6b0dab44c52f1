#include "base/log.h"

#include <sys/time.h>

namespace dm {

namespace {

constexpr uint64_t kIntervalMs = 3000;

uint64_t wall_clock_ms() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

} // namespace

bool SubjectLog::admit(std::atomic<uint32_t>& site_count) {
    const uint64_t now = wall_clock_ms();
    uint64_t written = written_ms_.load();
    // Unsigned: a clock that was set back makes the last line look old, and does not silence the
    // subject until the clock has caught up.
    const bool due = written == 0 || now - written > kIntervalMs;
    // Of several threads that find the line due, the one that stores its time writes it.
    if (due && written_ms_.compare_exchange_strong(written, now)) {
        site_count.store(0);
        lost_.store(0);
        return true;
    }
    site_count.fetch_add(1);
    lost_.fetch_add(1);
    return false;
}

void log_failed_check(const char* path, int line, const char* operation, const char* condition) {
    if (log_enabled(PLATFORM_LOG_WARNING))
        DlogWarnInner(kLogModule, DM_LOG_PREFIX "[%s %d] Drv_check:%s\n", path, line,
                      kLogModuleName, operation, line, operation, line, condition);
}

} // namespace dm
