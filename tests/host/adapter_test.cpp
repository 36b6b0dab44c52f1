/** The operating-system adapter, where it is more than the system's own call. */
#include "platform_adapter.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <unistd.h>

namespace {

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

} // namespace
