/** The operating-system adapter, where it is more than the system's own call. */
#include "platform_adapter.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

void* find_stack_size(void* size) {
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, static_cast<size_t*>(size));
    pthread_attr_destroy(&attr);
    return nullptr;
}

TEST(Adapter, AThreadGetsItsStack) {
    constexpr uint32_t mebibyte = 1U << 20;
    const MM_THREAD_ATTR_ST attr = {0, 0, 99, 0, SCHED_RR, 1, 3 * mebibyte};
    size_t size = 0;
    const MM_USER_BLOCK_ST block = {find_stack_size, &size};
    MM_THREAD thread = {};
    ASSERT_EQ(mmCreateTaskWithThreadAttr(&thread, &block, &attr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_GE(size, 3 * mebibyte);
    EXPECT_LT(size, 4 * mebibyte);
}

TEST(Adapter, ANameIsCut) {
    std::array<char, 16> name = {};
    EXPECT_EQ(mmSetCurrentThreadName("fifteen letters and more"), 0);
    ASSERT_EQ(prctl(PR_GET_NAME, name.data()), 0);
    EXPECT_STREQ(name.data(), "fifteen letters");
}

void* wait_for_ever(void* /*arg*/) {
    pause();
    return nullptr;
}

TEST(Adapter, ARefusedAttributeStartsNoThread) {
    const auto count_threads = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const std::array<MM_THREAD_ATTR_ST, 4> refused = {{
        {0, 1, 1000, 1, SCHED_RR, 0, 0}, // no such priority
        {0, 0, 0, 1, SCHED_RR, 0, 0},    // a priority is needed
        {0, 1, 1, 0, SCHED_RR, 0, 0},    // the default policy has no priorities
        {0, 0, 0, 0, 0, 1, 4096},        // below PTHREAD_STACK_MIN
    }};
    const auto before = count_threads();
    const MM_USER_BLOCK_ST block = {wait_for_ever, nullptr};
    for (const MM_THREAD_ATTR_ST& attr : refused) {
        MM_THREAD thread = {};
        EXPECT_EQ(mmCreateTaskWithThreadAttr(&thread, &block, &attr), EINVAL);
    }
    EXPECT_EQ(count_threads(), before);
}

std::atomic<int> signals = 0;

TEST(Adapter, SignalsDoNotShortenASleep) {
    struct sigaction count = {};
    count.sa_handler = [](int) { ++signals; };
    ASSERT_EQ(sigaction(SIGALRM, &count, nullptr), 0);
    const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every_5_ms, nullptr), 0);
    const MM_TIMESPEC_ST start = mmGetTickCount();
    mmSleep(999);
    const MM_TIMESPEC_ST end = mmGetTickCount();
    const itimerval never = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
    EXPECT_GE((end.tv_sec - start.tv_sec) * 1000000000 + end.tv_nsec - start.tv_nsec, 999000000);
    EXPECT_GT(signals, 0);
}

} // namespace
