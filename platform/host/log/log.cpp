/**
 * The log service: one line a call, on stderr or in syslog(3).
 *
 * The environment chooses, and is read once, with the first call:
 *   DM_LOG_LEVEL   the lowest level written: debug, info, warning (the default), error; or none
 *   DM_LOG_TARGET  stderr (the default) or syslog
 * Anything else counts as the default.
 *
 * A line is "2024-05-31T12:00:00.250+02:00 WARNING 4711 4712 text": local time, level, process id,
 * thread id. syslog(3) has a time of its own, and gets the rest. All modules are treated alike.
 *
 * At the write no lock is held and no memory owned, so a thread may be cancelled there. The local
 * time takes a lock of the C library: a signal handler, or the child of a fork(2) of a process with
 * several threads, must not log.
 */
#include "platform_log.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <syslog.h>
#include <unistd.h>

namespace {

/** The longest line, with its line feed; a longer one is cut. It lies on the caller's stack. */
constexpr size_t __line_size = 1024;
static_assert(__line_size <= PIPE_BUF, "on a pipe too, lines of several threads stay whole");

struct __Level {
    const char* setting;
    const char* label;
    int priority;
};

/** Indexed by level. The last one is above all levels that a line can have. */
constexpr __Level __levels[] = {{"debug", "DEBUG", LOG_DEBUG},
                                {"info", "INFO", LOG_INFO},
                                {"warning", "WARNING", LOG_WARNING},
                                {"error", "ERROR", LOG_ERR},
                                {"none", "", 0}};

struct __Settings {
    int lowest_level;
    bool to_syslog;
};

int __lowest_level(const char* setting) {
    int level = 0;
    for (const __Level& candidate : __levels) {
        if (std::strcmp(setting, candidate.setting) == 0)
            return level;
        ++level;
    }
    return PLATFORM_LOG_WARNING;
}

__Settings __read_settings() {
    const char* level = std::getenv("DM_LOG_LEVEL");
    const char* target = std::getenv("DM_LOG_TARGET");
    return {level == nullptr ? PLATFORM_LOG_WARNING : __lowest_level(level),
            target != nullptr && std::strcmp(target, "syslog") == 0};
}

const __Settings& __settings() {
    static const __Settings settings = __read_settings();
    return settings;
}

bool __is_written(int level) {
    return level >= __settings().lowest_level && level <= PLATFORM_LOG_ERROR;
}

/** Puts the local time, as ISO 8601 has it, at the start of @p line. @return its length. */
size_t __put_time(char* line) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);

    const long offset = std::labs(local.tm_gmtoff) / 60;
    const int length =
        std::snprintf(line, __line_size, "%04d-%02d-%02dT%02d:%02d:%02d.%03ld%c%02ld:%02ld ",
                      local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                      local.tm_min, local.tm_sec, now.tv_nsec / 1000000,
                      local.tm_gmtoff < 0 ? '-' : '+', offset / 60, offset % 60);
    return static_cast<size_t>(length);
}

size_t __put_origin(char* line, size_t length, int level) {
    const int added = std::snprintf(line + length, __line_size - length, "%s %d %d ",
                                    __levels[level].label, getpid(), gettid());
    return length + static_cast<size_t>(added);
}

__attribute__((format(printf, 3, 0))) size_t __put_text(char* line, size_t length,
                                                        const char* format, va_list args) {
    char* text = line + length;
    const size_t room = __line_size - length;
    int added = std::vsnprintf(text, room, format, args);
    if (added < 0) {
        // The text cannot be had, but its format still tells what happened.
        added = std::snprintf(text, room, "%.*s", static_cast<int>(room) - 1, format);
    }
    const auto wanted = static_cast<size_t>(added);
    return length + (wanted < room ? wanted : room - 1);
}

/** Drops line ends behind the text. Any other control character but a tab becomes a space. */
size_t __make_one_line(char* line, size_t length) {
    while (line[length - 1] == '\n' || line[length - 1] == '\r')
        --length;
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        if ((byte < ' ' && byte != '\t') || byte == 0x7f)
            line[i] = ' ';
    }
    return length;
}

__attribute__((format(printf, 2, 0))) void __log(int level, const char* format, va_list args) {
    if (!__is_written(level))
        return;
    const int caller_errno = errno;
    char line[__line_size];
    const size_t time_length = __put_time(line);
    size_t length = __put_origin(line, time_length, level);
    errno = caller_errno; // "%m" is the caller's error
    length = __put_text(line, length, format, args);
    length = __make_one_line(line, length);

    if (__settings().to_syslog) {
        syslog(__levels[level].priority, "%.*s", static_cast<int>(length - time_length),
               line + time_length);
    } else {
        line[length++] = '\n'; // in place of the terminating zero at the latest
        while (write(STDERR_FILENO, line, length) < 0 && errno == EINTR) {
        }
    }
    errno = caller_errno;
}

} // namespace

int CheckLogLevel(int /*module*/, int level) {
    return __is_written(level) ? 1 : 0;
}

void DlogErrorInner(int /*module*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    __log(PLATFORM_LOG_ERROR, format, args);
    va_end(args);
}

void DlogWarnInner(int /*module*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    __log(PLATFORM_LOG_WARNING, format, args);
    va_end(args);
}

void DlogInfoInner(int /*module*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    __log(PLATFORM_LOG_INFO, format, args);
    va_end(args);
}

void DlogDebugInner(int /*module*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    __log(PLATFORM_LOG_DEBUG, format, args);
    va_end(args);
}
