// What a test program puts in place of the platform's calls: it captures the log and lets single
// calls fail. Everything else goes on to the platform.
#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace support {

enum class Call {
    malloc,
    memset_s,
    memcpy_s,
    memmove_s,
    strncpy_s,
    strcpy_s,
    create_task_with_attr,
    create_task,
    count
};

constexpr int kInjectedStatus = 77; // what a bounds-checked function that is to fail returns

// While it lives, the n-th such call of this thread fails (1 is the next one), alone.
class Fault {
public:
    Fault(Call call, int nth);
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;
    ~Fault();

    bool fired() const;

private:
    Call call_;
};

// Runs `step` with the first such call failing, then the second, until a run sees no failure.
// Gives the number of failures.
int fail_each(Call call, const std::function<void()>& step);

// The next thread that the library creates does not begin before the function is called. Nobody has
// detached it.
std::function<pthread_t()> hold_next_task();

// Calls of mmWriteFile() go here when set; mmCloseFile() says so here before.
extern std::function<int64_t(int fd, const void* buffer, uint32_t size)> on_write_file;
extern std::function<void(int fd)> on_close_file;

// By how much the wall clock that the library reads is ahead of the system's.
extern std::atomic<int64_t> clock_offset_ms;
// Sets it back, so that each subject may write its next error line. (Ahead, waits would last
// longer.)
void skip_log_interval();

// The captured log. All lines are enabled.
struct LogLine {
    char level; // 'E', 'W', 'I' or 'D'
    std::string text;
};

std::vector<LogLine> log_lines();
// Skips the interval, too. Each test begins so.
void clear_log();
// How many captured lines of that level end in the text and name that operation.
int logged(char level, std::string_view text, std::string_view operation = "");
// The captured lines of that level, with "#" where the line's number is.
std::vector<std::string> lines_of(char level);
// The operations that captured lines of the framework and its transports name.
std::set<std::string> operations();

} // namespace support

// The function that a test program's own of that name stands in front of.
#define REAL(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))
