// The logging convention: every line names its place, error lines are rate-limited by source file.
//
// A call site is one line: DM_LOG_ERROR("memset_s fail: %d\n", status);
#ifndef DM_BASE_LOG_H
#define DM_BASE_LOG_H

#include "platform_log.h"

#include <atomic>
#include <cstdint>

namespace dm {

inline constexpr int kLogModule = 10;
inline constexpr const char* kLogModuleName = "device monitor";

// Lets at most one error line of a source file out in 3000 ms.
//
// Each call site counts the lines that it lost, and so does the file. The counters decide nothing
// beyond the time stamp (the limit of a site is 1, so the first line within the interval is lost
// already); they are there for whoever looks at a core dump.
class LogLimiter {
public:
    bool admit(std::atomic<uint32_t>& site_count);

private:
    std::atomic<uint64_t> written_ms_{0}; // wall clock, 0 when nothing was written yet
    std::atomic<uint32_t> file_count_{0};
};

inline bool log_enabled(int level) {
    return CheckLogLevel(kLogModule, level) == 1;
}

// Writes the warning of a failed argument or result check.
void log_failed_check(const char* path, int line, const char* function, const char* condition);

} // namespace dm

namespace {
// One limiter for each source file that includes this header.
[[maybe_unused]] constinit dm::LogLimiter file_log_limiter; // NOLINT(misc-definitions-in-headers)
} // namespace

#define DM_LOG_PREFIX "[%s:%d][%s] [%s %d] "
#define DM_LOG_LINE(write, format, ...)                                                           \
    write(dm::kLogModule, DM_LOG_PREFIX format, __FILE__, __LINE__, dm::kLogModuleName, __func__, \
          __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define DM_LOG_ERROR(format, ...)                                           \
    do {                                                                    \
        static constinit std::atomic<uint32_t> site_count{0};               \
        if (file_log_limiter.admit(site_count))                             \
            DM_LOG_LINE(DlogErrorInner, format __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

#define DM_LOG_AT(level, write, format, ...)                       \
    do {                                                           \
        if (dm::log_enabled(level))                                \
            DM_LOG_LINE(write, format __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

#define DM_LOG_WARNING(format, ...) \
    DM_LOG_AT(PLATFORM_LOG_WARNING, DlogWarnInner, format __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_INFO(format, ...) \
    DM_LOG_AT(PLATFORM_LOG_INFO, DlogInfoInner, format __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_DEBUG(format, ...) \
    DM_LOG_AT(PLATFORM_LOG_DEBUG, DlogDebugInner, format __VA_OPT__(, ) __VA_ARGS__)

// True when the condition holds; else writes the warning, with the condition as `text` has it.
#define DM_CHECK(condition, text) \
    ((condition) || (dm::log_failed_check(__FILE__, __LINE__, __func__, text), false))

// Writes the error line of a condition that does not hold, as `text` has it.
#define DM_LOG_ASSERT(text) DM_LOG_ERROR("[%s %d] Assert:%s\n", __func__, __LINE__, text)

// The same for a close that failed.
#define DM_ASSERT_CLOSED(status, text) \
    do {                               \
        if ((status) != 0)             \
            DM_LOG_ASSERT(text);       \
    } while (false)

#endif
