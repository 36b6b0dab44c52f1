#include "ipmi_sm_low.h"
#include "ipmi_v_sm.h"

#include "support/platform_hooks.h"
#include "support/threads.h"
#include "vos/timeout_rule.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <functional>
#include <vector>

// Whether a waiter node is lost is for the address sanitizer to say.
namespace {

using namespace std::chrono_literals;
using support::Call;
using support::Fault;
using Tids = std::vector<uint64_t>;

// What this thread's next waits are instead: a step without the mutex, and a result.
struct Wait {
    int result = 0;
    std::function<void()> step = [] {};
};
thread_local std::vector<Wait> next_waits;

// Plays the next one, or gives -1.
int play_wait(pthread_mutex_t* mutex) {
    if (next_waits.empty())
        return -1;
    const Wait wait = next_waits.front();
    next_waits.erase(next_waits.begin());
    pthread_mutex_unlock(mutex);
    wait.step();
    pthread_mutex_lock(mutex);
    pthread_testcancel();
    return wait.result;
}

constexpr uint32_t kLong = 600000; // even on a clock that was set back often

// A lock, with looks at its fields while threads use it.
class Lock {
public:
    Lock(int32_t type, int32_t count, const char* name = "lock") {
        EXPECT_EQ(thread_timed_mutex_init(name, &m_, type, count), 0U);
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() {
        while (m_.pwater_list != nullptr)
            thread_timed_mutex_list_del(&m_, m_.pwater_list->tid);
        EXPECT_EQ(thread_timed_mutex_destroy(&m_), 0U);
    }

    uint32_t lock(uint32_t timeout_ms = 0) { return thread_timed_mutex_lock(&m_, timeout_ms); }
    uint32_t trylock(int32_t read = 0) { return thread_timed_mutex_trylock(&m_, read); }
    uint32_t unlock() { return thread_timed_mutex_unlock(&m_); }

    template<class T>
    T get(T THREAD_TIMED_MUTEX_ST::*field) {
        pthread_mutex_lock(&m_.mutex);
        const T value = m_.*field;
        pthread_mutex_unlock(&m_.mutex);
        return value;
    }
    int32_t count() { return get(&THREAD_TIMED_MUTEX_ST::count); }
    uint32_t nest_num() { return get(&THREAD_TIMED_MUTEX_ST::nest_num); }
    int waiting() { return get(&THREAD_TIMED_MUTEX_ST::wait_num); }
    bool is_awaited(int waiters = 1) {
        return support::eventually([=, this] { return waiting() == waiters; });
    }
    Tids waiters() const {
        Tids tids;
        for (const auto* node = m_.pwater_list; node != nullptr; node = node->next)
            tids.push_back(node->tid);
        return tids;
    }
    THREAD_TIMED_MUTEX_ST& record() { return m_; }

private:
    THREAD_TIMED_MUTEX_ST m_{};
};

TEST(TimeoutRule, ALongWaitIsOverAfterFourFifths) {
    EXPECT_EQ(dm::remaining_ms(1000, 999), 1U);
    EXPECT_EQ(dm::remaining_ms(1000, 1000), 0U);
    EXPECT_EQ(dm::remaining_ms(1500, 1199), 301U);
    EXPECT_EQ(dm::remaining_ms(UINT_MAX, 3435973835), UINT_MAX - 3435973835);
    EXPECT_EQ(dm::remaining_ms(UINT_MAX, 3435973836), 0U);
}

TEST(TimedLock, ARecordIsInitialisedByItsType) {
    THREAD_TIMED_MUTEX_ST m{};
    EXPECT_EQ(thread_timed_mutex_init("watcher", &m, 7, 3), THREAD_TIMED_BAD_TYPE);
    EXPECT_STREQ(m.name, "watc");
    EXPECT_EQ(m.count, 3);
    EXPECT_EQ(m.max_count, 1);
    EXPECT_EQ(thread_timed_mutex_unlock(&m), THREAD_TIMED_BAD_TYPE);
    EXPECT_EQ(thread_timed_mutex_trylock(nullptr, 0), THREAD_TIMED_NULL);
    EXPECT_EQ(support::logged('W', "] Drv_check:(m != ((void *)0))\n"), 1);
    Lock lock(THREAD_TIMED_RWLOCK, 1);
    for (const uint32_t timeout_ms : {5U, 0U}) { // to read, and to write
        EXPECT_EQ(lock.lock(timeout_ms), 0U);
        EXPECT_EQ(lock.trylock(1), timeout_ms != 0 ? 0U : THREAD_TIMED_FAILED);
        EXPECT_EQ(lock.trylock(0), THREAD_TIMED_FAILED);
        EXPECT_EQ(lock.unlock(), 0U);
        EXPECT_TRUE(timeout_ms == 0 || lock.unlock() == 0);
    }
}

TEST(TimedLock, ABinarySemaphoreReportsADeadLock) {
    Lock sem(THREAD_TIMED_BINARY, 1, "sensors");
    EXPECT_EQ(sem.lock(), 0U);
    EXPECT_EQ(sem.trylock(), THREAD_TIMED_FAILED);
    EXPECT_EQ(sem.lock(), THREAD_TIMED_FAILED);
    const auto self = std::to_string(static_cast<unsigned>(pthread_self()));
    EXPECT_EQ(support::logged('E', "] \r\nERROR: thread " + self + " DEAD LOCK by sens."), 1);
    EXPECT_EQ(sem.count(), 0);
    std::thread([&] { EXPECT_EQ(sem.unlock(), 0U); }).join(); // anybody may
    EXPECT_EQ(sem.count(), 1);
    EXPECT_EQ(sem.waiters(), Tids());
}

TEST(TimedLock, AFreeUnitIsNotForANewcomerWhileOthersWait) {
    Lock sem(THREAD_TIMED_COUNTING, 3);
    while (sem.trylock() == 0) {
    }
    EXPECT_EQ(sem.unlock(), 0U);
    sem.record().wait_num = 1;
    EXPECT_EQ(sem.trylock(), THREAD_TIMED_FAILED);
    EXPECT_EQ(sem.lock(1), THREAD_TIMED_TIMEOUT);
    sem.record().wait_num = 0;
    EXPECT_EQ(sem.trylock(), 0U);
}

TEST(TimedLock, AMutexCountsItsOwnersLocks) {
    Lock mutex(THREAD_TIMED_MUTEX, 1);
    std::thread([&] {
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(mutex.lock(5), 0U);
        EXPECT_EQ(mutex.trylock(), 0U);
        std::thread([&] { EXPECT_EQ(mutex.unlock(), 0U); }).join(); // no owner, no effect
        EXPECT_EQ(mutex.nest_num(), 2U);
    }).detach();
    // The owner ends: the first unlock takes off all, the second one releases.
    EXPECT_TRUE(support::eventually([&] { return mutex.nest_num() == 2; }));
    EXPECT_TRUE(support::eventually([&] { return mutex.unlock() == 0 && mutex.nest_num() == 0; }));
    EXPECT_EQ(mutex.trylock(), THREAD_TIMED_FAILED);
    for (int i = 0; i < 2; ++i) { // once too often
        EXPECT_EQ(mutex.unlock(), 0U);
        EXPECT_EQ(mutex.count(), 1);
    }
}

TEST(TimedLock, TheWaiterListKeepsItsOrder) {
    Lock lock(THREAD_TIMED_BINARY, 1);
    THREAD_TIMED_MUTEX_ST* m = &lock.record();
    for (const uint64_t tid : {1U, 2U, 1U, 3U})
        EXPECT_EQ(thread_timed_mutex_list_add(m, tid), 0);
    for (const uint64_t tid : {1U, 3U, 4U})
        thread_timed_mutex_list_del(m, tid);
    m->pwater_list_tail = nullptr;
    thread_timed_mutex_list_del(m, 1);
    for (const auto& [call, code, line] :
         {std::tuple{Call::malloc, 1, "] malloc m->pwater_list_tail->next fail!\n"},
          {Call::memset_s, 77, "] memset_s fail: 77\n"}}) {
        support::skip_log_interval();
        const Fault fault(call, 1);
        EXPECT_EQ(thread_timed_mutex_list_add(m, 7), code);
        EXPECT_EQ(support::logged('E', line), 1);
    }
    EXPECT_EQ(thread_timed_mutex_list_add(m, 5), 0);
    EXPECT_EQ(lock.waiters(), Tids({2, 5}));
}

// A wake-up that brings nothing decides nothing: the deadline of 20 ms is long over, by the wall
// clock, and a semaphore's wait goes on. If it is unlocked for a waiter just when his time is over,
// he has the lock all the same, and nobody else has it meanwhile.
TEST(TimedLock, AWaitEndsWithTheLockOrForItsReason) {
    for (const int row : {0, 1, 2, 3}) {
        const int32_t type = row < 2 ? THREAD_TIMED_BINARY : THREAD_TIMED_MUTEX;
        const int last = row % 2 == 0 ? 0 : ETIMEDOUT;
        Lock lock(type, 1);
        lock.lock();
        std::thread([&] {
            next_waits = {{}, {}};
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(lock.lock(20), THREAD_TIMED_TIMEOUT);
            EXPECT_TRUE(type == THREAD_TIMED_MUTEX ||
                        std::chrono::steady_clock::now() - start > 19ms);
            next_waits = {{EINVAL}};
            EXPECT_EQ(lock.lock(20), THREAD_TIMED_FAILED);
            EXPECT_EQ(lock.count(), 0);
            next_waits.assign(last == 0 ? 1 : 0, {});
            next_waits.push_back({last, [&] {
                                      lock.unlock();
                                      EXPECT_EQ(lock.count(), 0);
                                      EXPECT_EQ(lock.trylock(), THREAD_TIMED_FAILED);
                                  }});
            EXPECT_EQ(lock.lock(last == 0 ? 0 : 5), 0U);
            EXPECT_TRUE(next_waits.empty());
            EXPECT_EQ(lock.unlock(), 0U);
        }).join();
        EXPECT_EQ(lock.count(), 1);
        EXPECT_EQ(lock.waiters(), Tids());
    }
}

// It leaves the mutex unlocked, and what Waiter says in the library: what was handed to it goes to
// another one, or a mutex is free again; a semaphore's unit is the one that it had reserved.
TEST(TimedLock, ACancelledWaiterKeepsNothingFromOthers) {
    struct {
        int32_t type;
        bool handed, alone;
        int32_t count;
    } const cases[] = {
        {THREAD_TIMED_BINARY, false, true, -1}, {THREAD_TIMED_MUTEX, false, true, 0},
        {THREAD_TIMED_BINARY, true, true, 0},   {THREAD_TIMED_MUTEX, true, true, 1},
        {THREAD_TIMED_BINARY, true, false, -1}, {THREAD_TIMED_MUTEX, true, false, 0},
    };
    for (const auto& wanted : cases) {
        Lock lock(wanted.type, 1);
        lock.lock();
        std::thread other([&] { EXPECT_TRUE(wanted.alone || lock.lock(kLong) == 0); });
        EXPECT_TRUE(wanted.alone || lock.is_awaited());
        std::thread([&] {
            next_waits = {{0, [&] {
                               EXPECT_TRUE(!wanted.handed || lock.unlock() == 0);
                               pthread_cancel(pthread_self());
                           }}};
            lock.lock();
        }).join();
        other.join();
        EXPECT_EQ(lock.waiting(), 1);
        EXPECT_EQ(lock.waiters().size(), 1U);
        EXPECT_EQ(lock.count(), wanted.count);
    }
}

// However many were cancelled, what is given while nobody waits is kept for none of them.
TEST(TimedLock, ManyCancelledWaitersAreNoWaiters) {
    Lock sem(THREAD_TIMED_BINARY, 0);
    for (int i = 0; i < 300; ++i)
        std::thread([&] {
            next_waits = {{0, [] { pthread_cancel(pthread_self()); }}};
            sem.lock();
        }).join();
    sem.unlock();
    EXPECT_EQ(sem.lock(1), THREAD_TIMED_TIMEOUT);
}

// The second of two units goes to who came while the first was on its way.
TEST(TimedLock, AFreeUnitReachesWhoQueuesBehindAHandOver) {
    Lock sem(THREAD_TIMED_BINARY, 0);
    support::clock_offset_ms = 0;
    std::thread second;
    std::thread([&] {
        next_waits = {{0, [&] {
                           for (int i = 0; i < 3; ++i) {
                               sem.unlock();
                               EXPECT_EQ(sem.count(), std::min(i, 1));
                           }
                           second = std::thread([&] { EXPECT_EQ(sem.lock(5000), 0U); });
                           EXPECT_TRUE(sem.is_awaited(2));
                       }}};
        EXPECT_EQ(sem.lock(), 0U);
    }).join();
    second.join();
    EXPECT_EQ(sem.count(), 0);
}

// Never more owners than units, no unit lost, and each thread gets its turns. Where waits time out,
// locks are held for about as long.
TEST(TimedLock, UnitsAreKeptUnderContention) {
    support::clock_offset_ms = 0;
    for (const int32_t type : {THREAD_TIMED_BINARY, THREAD_TIMED_COUNTING, THREAD_TIMED_MUTEX}) {
        for (const uint32_t timeout_ms : {0U, 1U}) {
            const int units = type == THREAD_TIMED_COUNTING ? 2 : 1;
            Lock lock(type, units);
            std::atomic<int> inside = 0;
            const auto take_turns = [&] {
                for (int turns = timeout_ms == 0 ? support::rounds(20000) : 100; turns > 0;) {
                    if (lock.lock(timeout_ms) != 0)
                        continue;
                    --turns;
                    EXPECT_LE(++inside, units);
                    std::this_thread::sleep_for(timeout_ms * 990us);
                    --inside;
                    EXPECT_EQ(lock.unlock(), 0U);
                }
            };
            std::vector<std::jthread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back(take_turns);
            threads.clear();
            EXPECT_EQ(lock.count(), units);
            EXPECT_EQ(lock.waiters(), Tids());
        }
    }
}

} // namespace

extern "C" {

int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    const int result = play_wait(mutex);
    return result >= 0 ? result : REAL(pthread_cond_wait)(cond, mutex);
}
int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline) {
    const int result = play_wait(mutex);
    return result >= 0 ? result : REAL(pthread_cond_timedwait)(cond, mutex, deadline);
}
}
