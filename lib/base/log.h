// The logging convention: every line names its place, error lines are rate-limited by subject.
//
// A subject is what has one source file by its design: a transport, the poller, the task table. It
// owns one dm::SubjectLog, which all of its files share however many they are. A call site is one
// line: DM_LOG_ERROR(udp_log, "memset_s fail: %d\n", status);
//
// A line carries the name of the operation that failed. That is the function it stands in, unless
// this is a mere part of the operation: such a line says the operation's name (the macros with
// _IN). A helper that several subjects share logs in its caller's name, through the site that it is
// given.
#ifndef DM_BASE_LOG_H
#define DM_BASE_LOG_H

#include "platform_log.h"

#include <atomic>
#include <cstdint>

namespace dm {

inline constexpr int kLogModule = 10;
inline constexpr const char* kLogModuleName = "device monitor";

// Lets at most one error line of a subject out in 3000 ms.
//
// Each call site counts the lines that it lost, and so does the subject. The counters decide
// nothing beyond the time stamp (the limit of a site is 1, so the first line within the interval is
// lost already); they are there for whoever looks at a core dump.
class SubjectLog {
public:
    bool admit(std::atomic<uint32_t>& site_count);

private:
    std::atomic<uint64_t> written_ms_{0}; // wall clock, 0 when nothing was written yet
    std::atomic<uint32_t> lost_{0};
};

// A place that logs, for the helpers that log in its name.
struct LogSite {
    SubjectLog& log;
    std::atomic<uint32_t>& lost;
    const char* path;
    int line;
    const char* operation;
};

inline bool log_enabled(int level) {
    return CheckLogLevel(kLogModule, level) == 1;
}

// Writes the warning of a failed argument or result check.
void log_failed_check(const char* path, int line, const char* operation, const char* condition);

} // namespace dm

#define DM_LOG_PREFIX "[%s:%d][%s] [%s %d] "
#define DM_LOG_LINE(write, path, line, operation, format, ...)                             \
    write(dm::kLogModule, DM_LOG_PREFIX format, path, line, dm::kLogModuleName, operation, \
          line __VA_OPT__(, ) __VA_ARGS__)

// This place, as a dm::LogSite.
#define DM_LOG_SITE(log) DM_LOG_SITE_IN(log, __func__)
#define DM_LOG_SITE_IN(log, operation)                               \
    (dm::LogSite{log,                                                \
                 []() -> std::atomic<uint32_t>& {                    \
                     static constinit std::atomic<uint32_t> lost{0}; \
                     return lost;                                    \
                 }(),                                                \
                 __FILE__, __LINE__, operation})

#define DM_LOG_ERROR_IN(log, operation, format, ...)                   \
    do {                                                               \
        static constinit std::atomic<uint32_t> lost{0};                \
        if ((log).admit(lost))                                         \
            DM_LOG_LINE(DlogErrorInner, __FILE__, __LINE__, operation, \
                        format __VA_OPT__(, ) __VA_ARGS__);            \
    } while (false)
#define DM_LOG_ERROR(log, format, ...) \
    DM_LOG_ERROR_IN(log, __func__, format __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_ERROR_AT(site, format, ...)                                          \
    do {                                                                            \
        if ((site).log.admit((site).lost))                                          \
            DM_LOG_LINE(DlogErrorInner, (site).path, (site).line, (site).operation, \
                        format __VA_OPT__(, ) __VA_ARGS__);                         \
    } while (false)

#define DM_LOG_GATED(level, write, operation, format, ...)                                        \
    do {                                                                                          \
        if (dm::log_enabled(level))                                                               \
            DM_LOG_LINE(write, __FILE__, __LINE__, operation, format __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

#define DM_LOG_WARNING(format, ...) \
    DM_LOG_GATED(PLATFORM_LOG_WARNING, DlogWarnInner, __func__, format __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_WARNING_IN(operation, format, ...) \
    DM_LOG_GATED(PLATFORM_LOG_WARNING, DlogWarnInner, operation, format __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_INFO_IN(operation, format, ...) \
    DM_LOG_GATED(PLATFORM_LOG_INFO, DlogInfoInner, operation, format __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_DEBUG_IN(operation, format, ...) \
    DM_LOG_GATED(PLATFORM_LOG_DEBUG, DlogDebugInner, operation, format __VA_OPT__(, ) __VA_ARGS__)

// True when the condition holds; else writes the warning, with the condition as `text` has it.
#define DM_CHECK_IN(operation, condition, text) \
    ((condition) || (dm::log_failed_check(__FILE__, __LINE__, operation, text), false))
#define DM_CHECK(condition, text) DM_CHECK_IN(__func__, condition, text)

// Writes the error line of a condition that does not hold, as `text` has it.
#define DM_LOG_ASSERT_IN(log, operation, text) \
    DM_LOG_ERROR_IN(log, operation, "[%s %d] Assert:%s\n", operation, __LINE__, text)
#define DM_LOG_ASSERT(log, text) DM_LOG_ASSERT_IN(log, __func__, text)
#define DM_LOG_ASSERT_AT(site, text) \
    DM_LOG_ERROR_AT(site, "[%s %d] Assert:%s\n", (site).operation, (site).line, text)

// The same for a close that failed.
#define DM_ASSERT_CLOSED_IN(log, operation, status, text) \
    do {                                                  \
        if ((status) != 0)                                \
            DM_LOG_ASSERT_IN(log, operation, text);       \
    } while (false)

#endif
