#include "support/platform_hooks.h"

#include "platform_adapter.h"
#include "platform_bounds.h"
#include "platform_log.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

extern "C" {
void* __libc_malloc(size_t size);
// The sanitizers' own, where one is linked.
void* __interceptor_malloc(size_t size) __attribute__((weak));
}

namespace support {

namespace {
std::shared_ptr<MM_USER_BLOCK_ST> held_task; // filled with the task that is not to begin yet

bool hold(const MM_USER_BLOCK_ST* block) {
    if (!held_task)
        return false;
    *std::exchange(held_task, nullptr) = *block;
    return true;
}
} // namespace

std::function<pthread_t()> hold_next_task() {
    auto task = std::make_shared<MM_USER_BLOCK_ST>();
    held_task = task;
    return [task] {
        pthread_t thread{};
        pthread_create(&thread, nullptr, task->proc, task->arg);
        return thread;
    };
}

std::function<int64_t(int fd, const void* buffer, uint32_t size)> on_write_file;
std::function<void(int fd)> on_close_file;

namespace {

struct Countdown {
    int left = 0; // 0: not armed
    bool fired = false;
};

thread_local constinit Countdown countdowns[static_cast<size_t>(Call::count)]{};

Countdown& countdown(Call call) {
    return countdowns[static_cast<size_t>(call)];
}

// malloc() is called before the sanitizers are ready.
#ifdef __clang__
#define NOT_INSTRUMENTED __attribute__((disable_sanitizer_instrumentation))
#else
#define NOT_INSTRUMENTED __attribute__((no_sanitize("address", "thread", "undefined")))
#endif

__attribute__((always_inline)) NOT_INSTRUMENTED inline bool fails(Call call) {
    Countdown* armed = &countdowns[static_cast<size_t>(call)];
    if (armed->left == 0 || --armed->left != 0)
        return false;
    armed->fired = true;
    return true;
}

std::mutex log_lock;
std::vector<LogLine> lines;

void capture(char level, const char* format, va_list args) {
    std::array<char, 1024> text{};
    std::vsnprintf(text.data(), text.size(), format, args);
    // What is allocated here is not the library's.
    const Countdown armed = std::exchange(countdown(Call::malloc), {});
    {
        const std::lock_guard lock(log_lock);
        lines.push_back({level, text.data()});
    }
    countdown(Call::malloc) = armed;
}

} // namespace

std::atomic<int64_t> clock_offset_ms;

void skip_log_interval() {
    clock_offset_ms -= 4000;
}

Fault::Fault(Call call, int nth) : call_(call) {
    countdown(call) = {nth, false};
}
Fault::~Fault() {
    countdown(call_) = {};
}
bool Fault::fired() const {
    return countdown(call_).fired;
}

int fail_each(Call call, const std::function<void()>& step) {
    for (int nth = 1;; ++nth) {
        Fault fault(call, nth);
        step();
        if (!fault.fired())
            return nth - 1;
    }
}

std::vector<LogLine> log_lines() {
    const std::lock_guard lock(log_lock);
    return lines;
}

void clear_log() {
    skip_log_interval();
    const std::lock_guard lock(log_lock);
    lines.clear();
}

namespace {
struct ClearLog : testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& /*info*/) override { clear_log(); }
};
[[maybe_unused]] const int added =
    (testing::UnitTest::GetInstance()->listeners().Append(new ClearLog), 0);
} // namespace

int logged(char level, std::string_view text, std::string_view operation) {
    const auto all = log_lines();
    const std::string named = std::string("] [").append(operation) + " ";
    return static_cast<int>(std::ranges::count_if(all, [&](const LogLine& line) {
        return line.level == level && std::string_view(line.text).ends_with(text) &&
               (operation.empty() || line.text.find(named) != std::string::npos);
    }));
}

std::vector<std::string> lines_of(char level) {
    std::vector<std::string> texts;
    for (const LogLine& line : log_lines()) {
        if (line.level != level)
            continue;
        std::string text = line.text;
        const size_t begin = text.find(':') + 1;
        const std::string number = text.substr(begin, text.find(']') - begin + 1);
        for (size_t at = 0; (at = text.find(number, at)) != std::string::npos; ++at)
            text.replace(at, number.size(), "#]");
        texts.push_back(text);
    }
    return texts;
}

std::set<std::string> operations() {
    std::set<std::string> named;
    for (const LogLine& line : log_lines()) {
        const size_t name = line.text.find("] [") + 3;
        if (line.text.starts_with("[lib/msg/"))
            named.insert(line.text.substr(name, line.text.find(' ', name) - name));
    }
    return named;
}

} // namespace support

using support::Call;
using support::fails;

extern "C" {

NOT_INSTRUMENTED void* malloc(size_t size) {
    if (fails(Call::malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

#define DEFINE_BOUNDED(name, Dest, Arg)                                                     \
    int name(Dest dest, size_t size, Arg arg, size_t count) {                               \
        static auto* const real = REAL(name);                                               \
        return fails(Call::name) ? support::kInjectedStatus : real(dest, size, arg, count); \
    }
DEFINE_BOUNDED(memset_s, void*, int)
DEFINE_BOUNDED(memcpy_s, void*, const void*)
DEFINE_BOUNDED(memmove_s, void*, const void*)
DEFINE_BOUNDED(strncpy_s, char*, const char*)

int strcpy_s(char* dest, size_t size, const char* src) {
    static auto* const real = REAL(strcpy_s);
    return fails(Call::strcpy_s) ? support::kInjectedStatus : real(dest, size, src);
}

int mmCreateTask(MM_THREAD* thread, const MM_USER_BLOCK_ST* block) {
    static auto* const real = REAL(mmCreateTask);
    if (fails(Call::create_task))
        return EAGAIN;
    return support::hold(block) ? 0 : real(thread, block);
}

int mmCreateTaskWithThreadAttr(MM_THREAD* thread, const MM_USER_BLOCK_ST* block,
                               const MM_THREAD_ATTR_ST* attr) {
    static auto* const real = REAL(mmCreateTaskWithThreadAttr);
    if (fails(Call::create_task_with_attr))
        return EPERM;
    return support::hold(block) ? 0 : real(thread, block, attr);
}

int64_t mmWriteFile(int fd, const void* buffer, uint32_t size) {
    static auto* const real = REAL(mmWriteFile);
    return support::on_write_file ? support::on_write_file(fd, buffer, size)
                                  : real(fd, buffer, size);
}

int mmCloseFile(int fd) {
    static auto* const real = REAL(mmCloseFile);
    if (support::on_close_file)
        support::on_close_file(fd);
    return real(fd);
}

int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    const int64_t ms = real.tv_sec * 1000 + real.tv_nsec / 1000000 + support::clock_offset_ms;
    *now = {ms / 1000, ms % 1000 * 1000};
    return 0;
}

int CheckLogLevel(int /*module*/, int /*level*/) {
    return 1;
}

// As writing a line is, each of these is a cancellation point.
#define DEFINE_LOG(name, level)                          \
    void name(int /*module*/, const char* format, ...) { \
        va_list args;                                    \
        va_start(args, format);                          \
        support::capture(level, format, args);           \
        va_end(args);                                    \
        pthread_testcancel();                            \
    }
DEFINE_LOG(DlogErrorInner, 'E')
DEFINE_LOG(DlogWarnInner, 'W')
DEFINE_LOG(DlogInfoInner, 'I')
DEFINE_LOG(DlogDebugInner, 'D')
}
