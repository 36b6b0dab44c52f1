#include "ipmi_osal_task.h"

#include "support/platform_hooks.h"
#include "support/threads.h"
#include "vos/thread_table.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cerrno>

// Whether a start record is lost is for the address sanitizer to say.
namespace {

using support::Call;
using support::Fault;
using support::only_these_threads;

constexpr uint64_t kSmallStack = 65536;
constexpr uint64_t kUnset = 7;

struct Created {
    int64_t code = 0;
    std::array<uint64_t, 2> tids{kUnset, kUnset};
};

Created create(OSAL_TASK_ENTRY entry, void* arg = nullptr, uint64_t priority = 100,
               uint64_t stack_size = kSmallStack) {
    Created created;
    created.code =
        osal_create_task("a thread of many", entry, priority, 0, stack_size,
                         std::bit_cast<uint64_t>(arg), &created.tids[0], &created.tids[1]);
    return created;
}

uint64_t end_at_once(uint64_t /*arg*/) {
    return 0;
}

uint64_t sleep_for_ever(uint64_t began) {
    if (began != 0)
        std::bit_cast<support::Event*>(began)->set();
    for (;;)
        osal_task_delay(1000);
}

class OsalTask : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(only_these_threads(0)); }
    void TearDown() override { EXPECT_TRUE(only_these_threads(0)); }
};

// Scope, inheritance, policy, detached or not, priority.
std::array<int, 5> take_settings(pthread_attr_t& attr) {
    std::array<int, 5> is{};
    sched_param param{};
    pthread_attr_getscope(&attr, &is[0]);
    pthread_attr_getinheritsched(&attr, &is[1]);
    pthread_attr_getschedpolicy(&attr, &is[2]);
    pthread_attr_getdetachstate(&attr, &is[3]);
    pthread_attr_getschedparam(&attr, &param);
    pthread_attr_destroy(&attr);
    is[4] = param.sched_priority;
    return is;
}

TEST_F(OsalTask, APriorityBecomesAttributes) {
    std::array<int, 5> wanted{PTHREAD_SCOPE_SYSTEM, PTHREAD_EXPLICIT_SCHED, SCHED_OTHER,
                              PTHREAD_CREATE_DETACHED, 0};
    pthread_attr_t attr;
    EXPECT_EQ(set_thread_attr_by_prio(255, &attr), 0U);
    EXPECT_EQ(take_settings(attr), wanted);
    wanted[2] = SCHED_RR;
    for (const auto& [priority, value] :
         {std::pair{0U, 1}, {25U, 10}, {128U, 50}, {254U, 98}, {255U, 99}}) {
        EXPECT_EQ(set_thread_attr_by_prio_preempt(priority, &attr), 0U);
        wanted[4] = value;
        EXPECT_EQ(take_settings(attr), wanted);
    }
    EXPECT_EQ(set_thread_attr_by_prio(0, nullptr), 1U);
    EXPECT_EQ(set_thread_attr_by_prio_preempt(0, nullptr), 1U);
    EXPECT_NE(support::log_lines().back().text.find("] lib/vos/ipmi_osal_task.cpp::"),
              std::string::npos);
}

TEST_F(OsalTask, AFailedCreationLeavesNothing) {
    struct {
        int64_t code;
        uint64_t tid, priority, stack_size;
        int malloc_fails, memset_fails;
        const char* line;
    } const cases[] = {
        {5, kUnset, 256, 0, 0, 0, "para fail,ret = 5,ul_return_code = 0,ul_priority = 256\n"},
        {-1, kUnset, 255, 0, 1, 0, "] malloc fail\n"},
        {-1, kUnset, 255, 0, 0, 1, "] memset_s fail\n"},
        {2, OSAL_NO_THREAD, 255, uint64_t{1} << 48, 0, 0, "pthread_create fail, errno="},
    };
    const uint64_t failed = g_creatthreadfailnum;
    for (const auto& wanted : cases) {
        support::skip_log_interval();
        const Fault no_memory(Call::malloc, wanted.malloc_fails);
        const Fault not_zeroed(Call::memset_s, wanted.memset_fails);
        const Created created = create(end_at_once, nullptr, wanted.priority, wanted.stack_size);
        EXPECT_EQ(created.code, wanted.code);
        EXPECT_EQ(created.tids, (std::array{wanted.tid, wanted.tid}));
        EXPECT_NE(support::log_lines().back().text.find(wanted.line), std::string::npos);
    }
    EXPECT_EQ(g_creatthreadfailnum, failed + 1);
}

TEST_F(OsalTask, TheFateOfAnEndedThreadIsToldByErrno) {
    const uint64_t succeeded = g_creatthreadoknum;
    const Created created = create(end_at_once, nullptr, 255);
    EXPECT_EQ(g_creatthreadoknum, succeeded + 1);
    EXPECT_EQ(created.tids[0], created.tids[1]);
    ASSERT_TRUE(only_these_threads(0));
    for (const uint64_t gone : {created.tids[0], uint64_t{OSAL_NO_THREAD}, uint64_t{0}}) {
        for (const auto& [number, code] : {std::pair{ESRCH, 1U}, {EINTR, 6U}}) {
            errno = number;
            EXPECT_EQ(osal_delete_task(gone), code);
            EXPECT_EQ(errno, number);
        }
    }
}

// When it has not begun yet, when it may have ended, and when another one may have its identifier.
TEST_F(OsalTask, AThreadCanBeDeletedAtAnyTime) {
    for (int i = 0; i < support::rounds(1000); ++i) {
        EXPECT_EQ(osal_delete_task(create(sleep_for_ever).tids[0]), 0U);
        osal_delete_task(create(end_at_once).tids[0]);
    }
}

TEST_F(OsalTask, AThreadOfOtherMeansCanBeDeleted) {
    create(end_at_once, nullptr, 0, 0); // whose identifier the C library will use again
    ASSERT_TRUE(only_these_threads(0));
    support::Event began;
    pthread_t thread{};
    const auto sleep = [](void* event) -> void* {
        osal_get_self_id();
        sleep_for_ever(std::bit_cast<uint64_t>(event));
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, sleep, &began), 0);
    ASSERT_TRUE(began.wait());
    EXPECT_EQ(osal_delete_task(thread), 0U);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

// With identifiers that are each seen once, more than there is room for.
TEST(ThreadTable, ForgetsWhoEndedFirst) {
    constexpr pthread_t room = dm::ThreadTable::kEntries;
    static dm::ThreadTable table;
    table.enter(1, dm::ThreadState::live);
    for (pthread_t id = 2; id <= 3 * room; ++id)
        table.end(*table.enter(id, dm::ThreadState::starting));
    EXPECT_EQ(table.find(2 * room + 1), nullptr);
    for (pthread_t id = 2 * room + 2; id <= 3 * room; ++id) {
        ASSERT_EQ(table.find(id)->state, dm::ThreadState::ended);
        table.enter(id, dm::ThreadState::live); // again
    }
    EXPECT_FALSE(table.is_incomplete());
    EXPECT_EQ(table.enter(2, dm::ThreadState::live), nullptr);
    EXPECT_TRUE(table.is_incomplete());
    table.end_all_but(1);
    EXPECT_TRUE(table.find(3 * room)->is_gone());
    EXPECT_FALSE(table.find(1)->is_gone());
}

} // namespace
