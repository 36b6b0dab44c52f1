/** The operating-system adapter, where it is more than the system's own call. */
#include "platform_adapter.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>

namespace {

void* note_start(void* started) {
    *static_cast<bool*>(started) = true;
    return nullptr;
}

TEST(Adapter, ARefusedAttributeIsTheCallersToHandle) {
    const std::array<MM_THREAD_ATTR_ST, 4> refused = {{
        {0, 1, 1000, 1, SCHED_RR, 0, 0}, // no such priority
        {0, 0, 0, 1, SCHED_RR, 0, 0},    // a priority is needed
        {0, 1, 1, 0, SCHED_RR, 0, 0},    // the default policy has no priorities
        {0, 0, 0, 0, 0, 1, 4096},        // below PTHREAD_STACK_MIN
    }};
    bool started = false;
    const MM_USER_BLOCK_ST block = {note_start, &started};
    MM_THREAD thread = {};
    for (const MM_THREAD_ATTR_ST& attr : refused)
        EXPECT_EQ(mmCreateTaskWithThreadAttr(&thread, &block, &attr), EINVAL);
    EXPECT_FALSE(started);
    ASSERT_EQ(mmCreateTask(&thread, &block), 0) << "the block is in order";
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_TRUE(started);
}

} // namespace
