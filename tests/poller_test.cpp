#include "dm_poller.h"

#include "platform_adapter.h"
#include "support/framework.h"
#include "support/platform_hooks.h"
#include "support/threads.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

namespace {

using support::Call;
using support::Event;
using support::Fault;

using FdFunction = std::function<void(int fd, int events)>;
using TimerFunction = std::function<void(uint32_t interval_ms, int32_t elapsed_ms)>;

// What the clock shows, while no poll thread runs.
std::optional<MM_TIMESPEC_ST> stopped_clock;

int call_fd(int fd, int events, void* user_data, uint32_t /*len*/) {
    (**static_cast<FdFunction**>(user_data))(fd, events);
    return 0;
}

int call_timer(uint32_t interval_ms, int32_t elapsed_ms, void* user_data, uint32_t /*len*/) {
    (**static_cast<TimerFunction**>(user_data))(interval_ms, elapsed_ms);
    return 0;
}

// While it fails, poll() fails for more than one descriptor; counted are these and the others.
std::atomic<bool> poll_fails = false;
std::atomic<int> failing_polls = 0;
std::atomic<int> polls_of_one = 0;

class PollerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(poller_create(&poller_), 0);
        ASSERT_EQ(pipe(pipe_.data()), 0);
    }
    void TearDown() override {
        if (poller_ != nullptr)
            destroy();
        close(pipe_[0]);
        close(pipe_[1]);
    }

    // The poller is released when both ends of its notice pipe are closed.
    void watch_release() {
        support::on_close_file = [this, fds = std::to_array(poller_->notify_fd)](int fd) {
            if (fd == fds[0] || fd == fds[1])
                closed_.set();
        };
    }
    void await_release() {
        EXPECT_TRUE(closed_.wait(2));
        support::on_close_file = nullptr;
    }
    void destroy() {
        watch_release();
        EXPECT_EQ(poller_destory(std::exchange(poller_, nullptr)), 0);
        await_release();
        closed_.reset();
    }
    // Holds the poll thread in a callback while `meanwhile` runs.
    void while_held(const std::function<void()>& meanwhile) {
        held_.reset();
        go_.reset();
        const int fd = poller_->notify_fd[1]; // writable at any time
        ASSERT_EQ(add_fd(hold_, fd, POLLOUT), 0);
        run();
        ASSERT_TRUE(held_.wait());
        EXPECT_EQ(poller_fd_remove(poller_, fd, POLLOUT), 0);
        meanwhile();
        go_.set();
    }

    uint32_t state() const { return std::atomic_ref(poller_->state).load(); }
    bool reaches(uint32_t wanted) const {
        return support::eventually([&] { return state() == wanted; });
    }
    void run() {
        ASSERT_EQ(poller_run(poller_), 0);
        ASSERT_TRUE(reaches(POLLER_RUN));
    }

    int add_fd(FdFunction& function, int fd, int16_t events = POLLIN) {
        FdFunction* pointer = &function;
        return poller_fd_add(poller_, fd, events, call_fd, &pointer, sizeof(pointer));
    }
    int add_timer(TimerFunction& function, uint32_t ms, POLLER_TIMER_ENTRY_ST** timer = nullptr) {
        TimerFunction* pointer = &function;
        return poller_timer_add(poller_, ms, call_timer, &pointer, sizeof(pointer), timer);
    }

    POLLER_ST* poller_ = nullptr;
    std::array<int, 2> pipe_{};
    Event closed_;
    Event fires_;
    TimerFunction fired_ = [this](uint32_t, int32_t) { fires_.set(); };
    Event held_;
    Event go_;
    FdFunction hold_ = [this](int, int) {
        held_.set();
        EXPECT_TRUE(go_.wait());
    };
};

TEST_F(PollerTest, CallsBackWithItsOwnCopyOfTheData) {
    struct Seen {
        Event event;
        int fd = -1, events = 0;
    } seen;
    FdFunction on_input = [&](int fd, int events) {
        char byte = 0;
        EXPECT_EQ(read(fd, &byte, 1), 1);
        seen.fd = fd;
        seen.events = events;
        seen.event.set();
    };
    ASSERT_EQ(add_fd(on_input, pipe_[0]), 0);
    run();
    EXPECT_EQ(poller_run(poller_), 1) << "it runs already";
    ASSERT_EQ(write(pipe_[1], "x", 1), 1);
    ASSERT_TRUE(seen.event.wait());
    EXPECT_EQ(seen.fd, pipe_[0]);
    EXPECT_EQ(seen.events, POLLIN);
}

TEST_F(PollerTest, FiresTimersInTheOrderOfTheirDeadlines) {
    std::vector<int> fired;
    int32_t elapsed_of_zero = 0;
    Event last;
    TimerFunction late = [&](uint32_t, int32_t) {
        fired.push_back(30);
        last.set();
    };
    TimerFunction first = [&](uint32_t, int32_t) { fired.push_back(1); };
    TimerFunction second = [&](uint32_t, int32_t) { fired.push_back(2); };
    TimerFunction removed = [&](uint32_t, int32_t) { fired.push_back(-1); };
    TimerFunction zero = [&](uint32_t, int32_t elapsed) { elapsed_of_zero = elapsed; };
    POLLER_TIMER_ENTRY_ST* handle = nullptr;
    ASSERT_EQ(add_timer(late, 30), 0);
    ASSERT_EQ(add_timer(first, 10), 0);
    ASSERT_EQ(add_timer(second, 10), 0);
    ASSERT_EQ(add_timer(zero, 0), 0);
    ASSERT_EQ(add_timer(removed, 5, &handle), 0);
    EXPECT_EQ(poller_timer_remove(poller_, &handle), 0);
    EXPECT_EQ(list_size(poller_->timer_list), 4U) << "at once while the poller is idle";
    run();
    ASSERT_TRUE(last.wait());
    EXPECT_EQ(fired, (std::vector<int>{1, 2, 30}));
    EXPECT_EQ(elapsed_of_zero, 1);
    EXPECT_TRUE(support::eventually([&] { return list_is_empty(poller_->timer_list) == 1; }));
}

// Timers that always add the next one must leave the loop its descriptors.
// However they come and go, the list has them by their deadlines, and those of one deadline in the
// order in which they came; also one that was put into the list by hand.
TEST_F(PollerTest, KeepsTimersInOrder) {
    std::mt19937 random(7);
    std::vector<POLLER_TIMER_ENTRY_ST*> armed;
    std::map<POLLER_TIMER_ENTRY_ST*, int> number;
    const auto removes_one = [&](size_t at) {
        std::swap(armed[at], armed.back());
        EXPECT_EQ(poller_timer_remove(poller_, &armed.back()), 0);
        armed.pop_back();
    };
    for (int i = 0; i < 3000; ++i) {
        stopped_clock = MM_TIMESPEC_ST{1000, i % 10 * 100000000};
        POLLER_TIMER_ENTRY_ST* made = nullptr;
        // From 2^31 on it is one that is over, and may have a deadline of negative nanoseconds.
        const uint32_t base_ms = i % 7 == 0 ? 0xFFFF0000U : 0;
        const auto interval_ms = static_cast<uint32_t>(base_ms + random() % 40 * 100);
        if (i == 2500) {
            ASSERT_EQ(poller_timer_init_entry(&made, interval_ms, nullptr), 0);
            list_insert_ascend(poller_->timer_list, made, poller_timer_deadline_cmp);
        } else {
            ASSERT_EQ(poller_timer_add(poller_, interval_ms, nullptr, nullptr, 1, &made), 0);
        }
        armed.push_back(made);
        number[made] = i;
        if (random() % 3 != 0)
            removes_one(random() % armed.size());
    }
    stopped_clock = std::nullopt;
    std::vector<POLLER_TIMER_ENTRY_ST*> listed;
    const auto note = [](void* item, void* to, uint32_t) {
        static_cast<std::vector<POLLER_TIMER_ENTRY_ST*>*>(to)->push_back(
            static_cast<POLLER_TIMER_ENTRY_ST*>(item));
    };
    list_iterate(poller_->timer_list, note, &listed, 0);
    std::ranges::sort(armed, [&](auto* a, auto* b) {
        const int order = poller_time_cmp(&a->deadline, &b->deadline);
        return order != 0 ? order < 0 : number[a] < number[b];
    });
    EXPECT_EQ(listed, armed);
    POLLER_TIMER_ENTRY_ST* stale = armed.front();
    while (!armed.empty())
        removes_one(random() % armed.size());
    EXPECT_EQ(poller_timer_remove(poller_, &stale), 0);
    EXPECT_EQ(list_size(poller_->timer_list), 0U);
}

// An entry that was put into the list by hand fires, and the list keeps the order that it gave.
TEST_F(PollerTest, TimerPutInByHand) {
    const auto by_hand = [&](uint32_t ms) {
        POLLER_TIMER_ENTRY_ST* made = nullptr;
        EXPECT_EQ(poller_timer_init_entry(&made, ms, call_timer), 0);
        TimerFunction** copy = static_cast<TimerFunction**>(std::malloc(sizeof(copy)));
        *copy = &fired_;
        made->user_data = copy;
        EXPECT_EQ(list_append(poller_->timer_list, made), 0);
        return made;
    };
    by_hand(1);
    run();
    ASSERT_TRUE(fires_.wait());
    EXPECT_EQ(poller_exit(poller_), 0);
    ASSERT_TRUE(reaches(POLLER_IDLE));
    std::vector<uint32_t> order;
    ASSERT_EQ(add_timer(fired_, 100), 0);
    POLLER_TIMER_ENTRY_ST* stranger = by_hand(50);
    ASSERT_EQ(add_timer(fired_, 70), 0);
    EXPECT_EQ(poller_timer_remove(poller_, &stranger), 0);
    ASSERT_EQ(add_timer(fired_, 120), 0);
    const auto note = [](void* item, void* to, uint32_t) {
        static_cast<std::vector<uint32_t>*>(to)->push_back(
            static_cast<POLLER_TIMER_ENTRY_ST*>(item)->interval_ms);
    };
    list_iterate(poller_->timer_list, note, &order, 0);
    EXPECT_EQ(order, (std::vector<uint32_t>{100, 70, 120}));
}

// Threads that arm and cancel timers without an end do not keep the loop from its descriptors.
TEST_F(PollerTest, TimersOfOthersDoNotHoldTheLoop) {
    Event served;
    FdFunction serve = [&](int, int) { served.set(); };
    ASSERT_EQ(add_fd(serve, poller_->notify_fd[1], POLLOUT), 0); // writable at any time
    run();
    std::atomic<bool> ends = false;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            std::array<POLLER_TIMER_ENTRY_ST*, 256> timers{};
            while (!ends) {
                for (auto& timer : timers)
                    add_timer(fired_, 100000, &timer);
                for (auto& timer : timers)
                    poller_timer_remove(poller_, &timer);
            }
        });
    EXPECT_TRUE(served.wait(served.count() + 50));
    ends = true;
    threads.clear();
    destroy();
}

TEST_F(PollerTest, TimerThatReArmsItselfDoesNotHoldTheLoop) {
    TimerFunction again = [&, poller = poller_](uint32_t, int32_t) {
        TimerFunction* pointer = &again;
        poller_timer_add(poller, 0, call_timer, &pointer, sizeof(pointer), nullptr);
    };
    Event input;
    FdFunction on_input = [&](int, int) { input.set(); };
    ASSERT_EQ(add_timer(again, 0), 0);
    ASSERT_EQ(add_fd(on_input, pipe_[0]), 0);
    ASSERT_EQ(write(pipe_[1], "x", 1), 1);
    run();
    EXPECT_TRUE(input.wait(3));
    destroy();
}

// A handle that its callback clears must stay clear: no late store brings it back.
TEST_F(PollerTest, StoresTheHandleBeforeTheTimerFires) {
    using Handle = POLLER_TIMER_ENTRY_ST*;
    std::array<Handle, 500> handles{};
    run();
    for (Handle& handle : handles) {
        Handle* pointer = &handle;
        ASSERT_EQ(poller_timer_add(
                      poller_, 0,
                      [](uint32_t, int32_t, void* user_data, uint32_t) {
                          Handle& own = **static_cast<Handle**>(user_data);
                          EXPECT_NE(std::atomic_ref(own).exchange(nullptr), nullptr);
                          return 0;
                      },
                      &pointer, sizeof(pointer), &handle),
                  0);
    }
    EXPECT_TRUE(support::eventually([&] { return list_is_empty(poller_->timer_list) == 1; }));
    EXPECT_EQ(std::ranges::count(handles, nullptr), 500);
}

TEST_F(PollerTest, FailedTimerLeavesNothingBehind) {
    auto* const before = reinterpret_cast<POLLER_TIMER_ENTRY_ST*>(pipe_.data());
    POLLER_TIMER_ENTRY_ST* handle = before;
    TimerFunction none;
    for (const Call call : {Call::malloc, Call::memset_s, Call::memmove_s})
        EXPECT_GT(support::fail_each(call,
                                     [&] {
                                         if (add_timer(none, 1, &handle) == 0)
                                             poller_timer_remove(poller_, &handle);
                                         else
                                             EXPECT_EQ(handle, before);
                                         handle = before;
                                     }),
                  0);
    EXPECT_EQ(list_size(poller_->timer_list), 0U);
}

TEST_F(PollerTest, RunsAgainAfterExit) {
    for (int round = 0; round < 3; ++round) {
        while_held([this] {
            EXPECT_EQ(poller_exit(poller_), 0);
            EXPECT_EQ(poller_exit(poller_), 0) << "the second notice must not stop the next run";
        });
        ASSERT_TRUE(reaches(POLLER_IDLE));
        const auto* entry = static_cast<POLLER_FD_ENTRY_ST*>(list_first_item(poller_->fd_list));
        EXPECT_EQ(entry->slot, nullptr) << "the array is gone with the thread";
    }
    EXPECT_EQ(support::logged('W', "do poll exit, poll state = 2\n"), 3);
}

TEST_F(PollerTest, ExitFollowedByDestroyReleases) {
    watch_release();
    while_held([this] {
        EXPECT_EQ(poller_exit(poller_), 0);
        EXPECT_EQ(poller_destory(std::exchange(poller_, nullptr)), 0);
    });
    await_release();
}

// The request ends a long wait all the same.
TEST_F(PollerTest, DestroyedWithoutANotice) {
    TimerFunction never = [](uint32_t, int32_t) { FAIL(); };
    ASSERT_EQ(add_timer(never, 100000), 0);
    run();
    support::on_write_file = [](int, const void*, uint32_t) {
        errno = EIO;
        return -1;
    };
    destroy();
    support::on_write_file = nullptr;
}

// Calls that are half done when their thread is cancelled are finished.
TEST_F(PollerTest, CancelledCallsAreFinished) {
    std::thread([&] {
        POLLER_ST* poller = nullptr;
        EXPECT_EQ(poller_create(&poller), 0);
        destroy();
        poller_ = poller;
        Fault refused(Call::create_task_with_attr, 1);
        pthread_cancel(pthread_self());
        poller_run(poller);
        pthread_testcancel();
    }).join();
    ASSERT_TRUE(reaches(POLLER_RUN));
    TimerFunction never = [](uint32_t, int32_t) { FAIL(); };
    ASSERT_EQ(add_timer(never, 100000), 0);
    watch_release();
    std::thread([&] {
        pthread_cancel(pthread_self());
        poller_destory(std::exchange(poller_, nullptr));
        pthread_testcancel();
    }).join();
    await_release();
}

// While poll() keeps failing, the loop waits for notices in between, gets rid of what was removed,
// and can be ended.
TEST_F(PollerTest, SurvivesAFailingPoll) {
    FdFunction unused;
    ASSERT_EQ(add_fd(unused, pipe_[0]), 0);
    run();
    failing_polls = 0;
    polls_of_one = 0;
    poll_fails = true;
    EXPECT_TRUE(support::eventually([] { return failing_polls >= 4; }));
    EXPECT_GE(polls_of_one, failing_polls - 2);
    EXPECT_GE(support::logged('E', "do poll failed, ret = -1, errno:5\n"), 1);
    EXPECT_EQ(poller_fd_remove(poller_, pipe_[0], POLLIN), 0);
    EXPECT_TRUE(support::eventually([&] { return list_size(poller_->fd_list) == 1; }));
    ASSERT_EQ(add_fd(unused, pipe_[0]), 0);
    destroy();
    poll_fails = false;
}

// A callback that ends its thread leaves an idle poller.
TEST_F(PollerTest, CallbackEndsTheThread) {
    TimerFunction end = [](uint32_t, int32_t) { pthread_exit(nullptr); };
    ASSERT_EQ(add_timer(end, 0), 0);
    ASSERT_EQ(poller_run(poller_), 0);
    EXPECT_TRUE(support::eventually([&] { return list_is_empty(poller_->timer_list) == 1; }));
    EXPECT_TRUE(reaches(POLLER_IDLE));
    run();
    destroy();
}

TEST_F(PollerTest, DestroyedBeforeItsThreadBegins) {
    const auto begin = support::hold_next_task();
    ASSERT_EQ(poller_run(poller_), 0);
    EXPECT_EQ(poller_run(poller_), 1);
    watch_release();
    EXPECT_EQ(poller_destory(std::exchange(poller_, nullptr)), 0);
    EXPECT_EQ(closed_.count(), 2) << "at once; the thread that begins finds nothing to do";
    await_release();
    begin();
    EXPECT_TRUE(support::only_these_threads(0));
}

TEST_F(PollerTest, FallsBackToDefaultThreadAttributes) {
    {
        Fault refused(Call::create_task_with_attr, 1);
        run();
    }
    EXPECT_EQ(support::logged('W', "The system does not support ajusting sched priority, try using "
                                   "default thread prority\n"),
              1);
    destroy();
    ASSERT_EQ(poller_create(&poller_), 0);
    Fault refused(Call::create_task_with_attr, 1);
    Fault failed(Call::create_task, 1);
    EXPECT_EQ(poller_run(poller_), EAGAIN);
    EXPECT_EQ(poller_run(poller_), 0) << "it can be tried again";
    ASSERT_TRUE(reaches(POLLER_RUN));
}

// The pass that cannot grow its array must not look at the slots of the old one.
TEST_F(PollerTest, PassWithoutAnArrayDispatchesNothing) {
    for (const Call call : {Call::malloc, Call::memset_s}) {
        std::atomic<bool> failing = false;
        std::unique_ptr<Fault> fault;
        Event calls;
        Event after;
        FdFunction on_input = [&](int fd, int events) {
            EXPECT_FALSE(failing);
            EXPECT_EQ(fd, pipe_[0]);
            EXPECT_EQ(events, POLLIN);
            calls.set();
        };
        // Behind the pass without an array comes its timer step, and then a pass with one.
        TimerFunction end_of_failure = [&](uint32_t, int32_t) {
            EXPECT_TRUE(fault->fired());
            fault.reset();
            failing = false;
            after.set();
        };
        TimerFunction grow = [&](uint32_t, int32_t) {
            for (int i = 0; i < 20; ++i)
                ASSERT_EQ(add_fd(on_input, pipe_[0]), 0);
            ASSERT_EQ(add_timer(end_of_failure, 0), 0);
            failing = true;
            fault = std::make_unique<Fault>(call, 1);
        };
        ASSERT_EQ(write(pipe_[1], "x", 1), 1);
        ASSERT_EQ(add_fd(on_input, pipe_[0]), 0);
        ASSERT_EQ(add_timer(grow, 20), 0);
        run();
        ASSERT_TRUE(after.wait());
        ASSERT_TRUE(calls.wait(calls.count() + 21));
        support::skip_log_interval();
        destroy();
        ASSERT_EQ(poller_create(&poller_), 0);
    }
    EXPECT_EQ(support::logged('E', "malloc fail. errno=12."), 1);
}

} // namespace

extern "C" int poll(pollfd* fds, nfds_t count, int timeout) {
    static auto* const real = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
    if (!poll_fails)
        return real(fds, count, timeout);
    ++(count > 1 ? failing_polls : polls_of_one);
    errno = EIO;
    return count > 1 ? -1 : real(fds, count, timeout);
}

namespace {

TEST(PollerTime, CarriesAndBorrows) {
    const POLLER_TIME_ST base{10, 999000000};
    POLLER_TIME_ST result{};
    poller_time_add_ms(&result, &base, 2001);
    EXPECT_EQ(result.tv_sec, 13);
    EXPECT_EQ(result.tv_nsec, 0);
    poller_time_sub_ms(&result, &base, 2999);
    EXPECT_EQ(result.tv_sec, 8);
    EXPECT_EQ(result.tv_nsec, 0);
    const POLLER_TIME_ST later{12, 1999999};
    EXPECT_EQ(poller_time_diff_ms(&result, &later, &base), 1002);
    EXPECT_EQ(result.tv_nsec, 2999999);
    EXPECT_EQ(poller_time_diff_ms(&result, &base, &later), -1);
    EXPECT_EQ(poller_time_diff_ms(nullptr, &base, &base), -1);
    EXPECT_EQ(poller_time_cmp(&base, &later), -1);
}

} // namespace

MM_TIMESPEC_ST mmGetTickCount() {
    static auto* const real =
        reinterpret_cast<decltype(&mmGetTickCount)>(dlsym(RTLD_NEXT, "mmGetTickCount"));
    return stopped_clock ? *stopped_clock : real();
}
