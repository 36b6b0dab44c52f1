#include "ipmi_sm_low.h"

#include "base/log.h"
#include "base/memory.h"
#include "ipmi_v_sm.h"
#include "vos/live_threads.h"
#include "vos/timeout_rule.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace {

constinit dm::SubjectLog lock_log;

constexpr std::size_t kNameChars = sizeof(THREAD_TIMED_MUTEX_ST::name) - 1;

// What a lock keeps beside its fields is in the room behind its name, guarded by its mutex too.
//
// A unit that an unlock hands over is counted until somebody takes it. A wake-up alone says
// nothing: it may be spurious, and it may reach nobody, when the waiter is just timing out. So who
// wakes for whatever reason takes a unit that was handed over, and goes on waiting without one.
//
// The other counts the waiters that are still there: one that was cancelled stays in `wait_num`,
// but no unit is handed to it. Past the most that it can hold, a waiter takes what is handed to
// others.
template<class Count, std::size_t Offset>
struct HiddenCount {
    static_assert(Offset >= sizeof(THREAD_TIMED_MUTEX_ST::name));
    static_assert(Offset + sizeof(Count) <= offsetof(THREAD_TIMED_MUTEX_ST, mutex));
    static constexpr Count kMost = std::numeric_limits<Count>::max();

    static Count get(const THREAD_TIMED_MUTEX_ST* m) {
        Count count = 0;
        std::memcpy(&count, reinterpret_cast<const unsigned char*>(m) + Offset, sizeof(count));
        return count;
    }
    static void set(THREAD_TIMED_MUTEX_ST* m, int32_t value) {
        const auto count = static_cast<Count>(value);
        std::memcpy(reinterpret_cast<unsigned char*>(m) + Offset, &count, sizeof(count));
    }
};
using HandedOver = HiddenCount<uint8_t, 5>;
using LiveWaiters = HiddenCount<uint16_t, 6>;

// Holds a record's mutex for a scope, also when the thread is cancelled in it.
class RecordLock {
public:
    explicit RecordLock(THREAD_TIMED_MUTEX_ST* m) : m_(m) { pthread_mutex_lock(&m_->mutex); }
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;
    ~RecordLock() { pthread_mutex_unlock(&m_->mutex); }

private:
    THREAD_TIMED_MUTEX_ST* m_;
};

uint32_t __code(int status) {
    return static_cast<uint32_t>(status);
}

bool __is_owned_by(const THREAD_TIMED_MUTEX_ST* m, pthread_t self) {
    return m->owner != 0 && pthread_equal(m->owner, self) != 0;
}

void __take(THREAD_TIMED_MUTEX_ST* m, pthread_t self) {
    m->owner = self;
    m->locked = 1;
}

// ---- handing over, with the mutex held ----

// A mutex is handed over once, however often it is unlocked meanwhile. What does not fit in the
// count stays free, for __hand_on_free_unit().
void __hand_over(THREAD_TIMED_MUTEX_ST* m) {
    const int32_t handed = HandedOver::get(m);
    const int32_t most = m->type == THREAD_TIMED_MUTEX ? 1 : HandedOver::kMost;
    if (handed < std::min<int32_t>(LiveWaiters::get(m), most))
        HandedOver::set(m, handed + 1);
}

bool __take_handed_over(THREAD_TIMED_MUTEX_ST* m) {
    const int32_t handed = HandedOver::get(m);
    if (handed == 0)
        return false;
    HandedOver::set(m, handed - 1);
    return true;
}

// Who comes while a unit is handed over queues, even when another unit is free: nobody would unlock
// for him. So a waiter that has got its unit hands on what is free.
void __hand_on_free_unit(THREAD_TIMED_MUTEX_ST* m) {
    const int32_t unserved = LiveWaiters::get(m) - HandedOver::get(m);
    if (unserved <= 0 || m->count + unserved <= 0)
        return;
    __hand_over(m);
    pthread_cond_signal(&m->cond);
}

// ---- waiting, with the mutex held; out of line, to keep the way to a free lock short ----

// A thread's place among the waiters. When it is cancelled there, its node and its share in
// `wait_num` stay, but nothing that was handed over stays with it.
class Waiter {
public:
    // The list is for inspection: a thread that cannot be listed waits all the same.
    Waiter(THREAD_TIMED_MUTEX_ST* m, pthread_t self)
        : m_(m), self_(self), is_counted_(LiveWaiters::get(m) < LiveWaiters::kMost) {
        thread_timed_mutex_list_add(m, self);
        ++m->wait_num;
        LiveWaiters::set(m, LiveWaiters::get(m) + is_counted_);
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter() {
        if (!has_left_)
            cancelled();
    }

    void leave() {
        thread_timed_mutex_list_del(m_, self_);
        --m_->wait_num;
        LiveWaiters::set(m_, LiveWaiters::get(m_) - is_counted_);
        has_left_ = true;
    }

private:
    // It may have used up a wake-up that was meant for another waiter, or be the last who could
    // take what was handed over. A semaphore's unit is then the one that it had reserved, and is
    // lost with it; a mutex has no such unit, and is free again.
    void cancelled() {
        const int32_t takers = LiveWaiters::get(m_) - is_counted_;
        LiveWaiters::set(m_, takers);
        const int32_t handed = HandedOver::get(m_);
        if (handed <= takers) {
            if (handed > 0)
                pthread_cond_signal(&m_->cond);
            return;
        }
        HandedOver::set(m_, takers);
        if (m_->type == THREAD_TIMED_MUTEX && m_->count < m_->max_count)
            ++m_->count;
    }

    THREAD_TIMED_MUTEX_ST* m_;
    pthread_t self_;
    bool is_counted_; // among those who are still there
    bool has_left_ = false;
};

void __wait_for_ever(THREAD_TIMED_MUTEX_ST* m) {
    do
        pthread_cond_wait(&m->cond, &m->mutex);
    while (!__take_handed_over(m));
}

// Waits until it has taken what was handed over, and gives 0 then, or until the time is over by the
// wall clock, and gives the result of pthread_cond_timedwait().
int __wait_for(THREAD_TIMED_MUTEX_ST* m, uint32_t ms) {
    timespec deadline{};
    get_abs_time(&deadline, ms);
    for (;;) {
        const int status = pthread_cond_timedwait(&m->cond, &m->mutex, &deadline);
        if (__take_handed_over(m))
            return 0;
        if (status != 0)
            return status;
    }
}

uint32_t __code_of_wait(int status) {
    if (status == 0)
        return 0;
    return status == ETIMEDOUT ? THREAD_TIMED_TIMEOUT : THREAD_TIMED_FAILED;
}

int64_t __monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// The same, with an eye on the monotonic clock.
int __wait_for_steadily(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms) {
    const int64_t start = __monotonic_ms();
    uint32_t remaining = timeout_ms;
    int status = 0;
    do {
        status = __wait_for(m, remaining);
        if (status != ETIMEDOUT)
            break;
        remaining = dm::remaining_ms(timeout_ms, __monotonic_ms() - start);
    } while (remaining != 0);
    return status;
}

[[gnu::noinline]] uint32_t __wait_for_unit(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms,
                                           pthread_t self) {
    if (timeout_ms == 0 && __is_owned_by(m, self)) {
        DM_LOG_ERROR_IN(lock_log, "thead_timed_sem_bin_or_count_lock",
                        "\r\nERROR: thread %u DEAD LOCK by %s.", static_cast<unsigned>(self),
                        m->name);
        return THREAD_TIMED_FAILED;
    }
    Waiter waiter(m, self);
    --m->count; // reserves a unit, and gives it back when it does not come
    int status = 0;
    if (timeout_ms == 0)
        __wait_for_ever(m);
    else
        status = __wait_for_steadily(m, timeout_ms);
    waiter.leave();
    if (status == 0)
        __hand_on_free_unit(m);
    else
        ++m->count;
    return __code_of_wait(status);
}

[[gnu::noinline]] uint32_t __wait_for_mutex(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms,
                                            pthread_t self) {
    Waiter waiter(m, self);
    int status = 0;
    if (timeout_ms == 0)
        __wait_for_ever(m);
    else
        status = __wait_for(m, timeout_ms);
    waiter.leave();
    return __code_of_wait(status);
}

// ---- the types of lock: local functions, which the dispatch below calls without detours ----

// A unit that is free is left to those who wait already: a newcomer queues behind them. Whoever
// unlocks hands the unit to a waiter, which has reserved it and so does not count it again.
uint32_t __lock_semaphore(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms, pthread_t self) {
    const RecordLock lock(m);
    if (m->count > 0 && m->wait_num <= 0)
        --m->count;
    else if (const uint32_t code = __wait_for_unit(m, timeout_ms, self); code != 0)
        return code;
    __take(m, self);
    return 0;
}

// Who may become its owner is on record first: with the lock's mutex held, it could wait for a
// thread that forks, and that thread's handlers for the lock.
uint32_t __lock_mutex(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms, pthread_t self) {
    dm::record_this_thread();
    const RecordLock lock(m);
    if (__is_owned_by(m, self)) {
        m->count = 0;
        ++m->nest_num;
    } else if (m->count >= 1) {
        --m->count;
    } else if (const uint32_t code = __wait_for_mutex(m, timeout_ms, self); code != 0) {
        return code;
    }
    __take(m, self);
    return 0;
}

uint32_t __unlock_semaphore(THREAD_TIMED_MUTEX_ST* m) {
    bool has_waiters = false;
    {
        const RecordLock lock(m);
        if (m->count < m->max_count)
            ++m->count;
        m->locked = 0;
        m->owner = 0;
        has_waiters = m->wait_num >= 1;
        if (has_waiters)
            __hand_over(m);
    }
    if (has_waiters)
        pthread_cond_signal(&m->cond);
    return 0;
}

// Asks who it is only where that matters, which is not in the common case.
struct CallingThread {
    operator pthread_t() const { return pthread_self(); }
};

template<class Thread>
uint32_t __unlock_mutex(THREAD_TIMED_MUTEX_ST* m, Thread self) {
    bool has_waiters = false;
    {
        const RecordLock lock(m);
        if (m->nest_num == 0) {
            m->locked = 0;
            m->owner = 0;
            // A waiter gets the mutex with the unit that was taken: the count stays, and keeps a
            // newcomer from it meanwhile.
            has_waiters = m->wait_num != 0;
            if (has_waiters)
                __hand_over(m);
            else if (m->count < m->max_count)
                ++m->count;
        } else if (pthread_equal(m->owner, self) != 0) {
            --m->nest_num;
        } else if (dm::has_ended(m->owner)) {
            m->nest_num = 0;
        }
    }
    if (has_waiters)
        pthread_cond_signal(&m->cond);
    return 0;
}

uint32_t __trylock_semaphore(THREAD_TIMED_MUTEX_ST* m, pthread_t self) {
    const RecordLock lock(m);
    if (m->count < 1 || m->wait_num >= 1)
        return THREAD_TIMED_FAILED;
    --m->count;
    __take(m, self);
    return 0;
}

uint32_t __trylock_mutex(THREAD_TIMED_MUTEX_ST* m, pthread_t self) {
    dm::record_this_thread();
    const RecordLock lock(m);
    if (__is_owned_by(m, self)) {
        m->count = 0;
        return 0;
    }
    if (m->count < 1)
        return THREAD_TIMED_FAILED;
    --m->count;
    __take(m, self);
    return 0;
}

uint32_t __lock_rwlock(THREAD_TIMED_MUTEX_ST* m, bool read) {
    const int status = read ? pthread_rwlock_rdlock(&m->rwlock) : pthread_rwlock_wrlock(&m->rwlock);
    return status == 0 ? 0 : THREAD_TIMED_FAILED;
}

uint32_t __trylock_rwlock(THREAD_TIMED_MUTEX_ST* m, bool read) {
    const int status =
        read ? pthread_rwlock_tryrdlock(&m->rwlock) : pthread_rwlock_trywrlock(&m->rwlock);
    return status == 0 ? 0 : THREAD_TIMED_FAILED;
}

uint32_t __unlock_rwlock(THREAD_TIMED_MUTEX_ST* m) {
    return pthread_rwlock_unlock(&m->rwlock) == 0 ? 0 : THREAD_TIMED_UNLOCK_FAILED;
}

} // namespace

THREAD_TIMED_MUTEX_ST* thread_timed_malloc_id(void) {
    auto m = dm::allocate<THREAD_TIMED_MUTEX_ST>();
    if (!m) {
        DM_LOG_ERROR(lock_log, "psm malloc fail!\n");
        return nullptr;
    }
    if (const int status = dm::zero(m.get()); status != 0) {
        DM_LOG_ERROR(lock_log, "memset_s fail: %d\n", status);
        return nullptr;
    }
    return m.release();
}

uint32_t thread_timed_mutex_init(const char* name, THREAD_TIMED_MUTEX_ST* m, int32_t type,
                                 int32_t initial_count) {
    if (m == nullptr)
        return THREAD_TIMED_NULL;
    if (const int status = memset_s(m->name, sizeof(m->name), 0, sizeof(m->name)); status != 0) {
        DM_LOG_ERROR(lock_log, "memset_s error\n");
        return __code(status);
    }
    if (const int status = strncpy_s(m->name, sizeof(m->name), name, kNameChars); status != 0) {
        DM_LOG_ERROR(lock_log, "strncpy_s error\n");
        return __code(status);
    }
    HandedOver::set(m, 0);
    LiveWaiters::set(m, 0);
    m->locked = 0;
    m->count = initial_count;
    m->max_count = type == THREAD_TIMED_COUNTING ? initial_count : 1;
    m->type = type;
    m->owner = 0;
    m->pwater_list = nullptr;
    m->pwater_list_tail = nullptr;
    m->wait_num = 0;
    m->nest_num = 0;
    switch (type) {
    case THREAD_TIMED_BINARY:
    case THREAD_TIMED_COUNTING:
    case THREAD_TIMED_MUTEX:
        if (const int status = pthread_mutex_init(&m->mutex, nullptr); status != 0)
            return __code(status);
        return __code(pthread_cond_init(&m->cond, nullptr));
    case THREAD_TIMED_RWLOCK:
        return __code(pthread_rwlock_init(&m->rwlock, nullptr));
    default:
        return THREAD_TIMED_BAD_TYPE;
    }
}

uint32_t thread_timed_mutex_lock(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms) {
    if (m == nullptr)
        return THREAD_TIMED_NULL;
    switch (m->type) {
    case THREAD_TIMED_BINARY:
    case THREAD_TIMED_COUNTING:
        return __lock_semaphore(m, timeout_ms, pthread_self());
    case THREAD_TIMED_MUTEX:
        return __lock_mutex(m, timeout_ms, pthread_self());
    case THREAD_TIMED_RWLOCK:
        return __lock_rwlock(m, timeout_ms != 0);
    default:
        return THREAD_TIMED_BAD_TYPE;
    }
}

uint32_t thread_timed_mutex_trylock(THREAD_TIMED_MUTEX_ST* m, int32_t read) {
    if (!DM_CHECK(m != nullptr, "(m != ((void *)0))"))
        return THREAD_TIMED_NULL;
    switch (m->type) {
    case THREAD_TIMED_BINARY:
    case THREAD_TIMED_COUNTING:
        return __trylock_semaphore(m, pthread_self());
    case THREAD_TIMED_MUTEX:
        return __trylock_mutex(m, pthread_self());
    case THREAD_TIMED_RWLOCK:
        return __trylock_rwlock(m, read != 0);
    default:
        return THREAD_TIMED_BAD_TYPE;
    }
}

uint32_t thread_timed_mutex_unlock(THREAD_TIMED_MUTEX_ST* m) {
    if (m == nullptr)
        return THREAD_TIMED_NULL;
    switch (m->type) {
    case THREAD_TIMED_BINARY:
    case THREAD_TIMED_COUNTING:
        return __unlock_semaphore(m);
    case THREAD_TIMED_MUTEX:
        return __unlock_mutex(m, CallingThread());
    case THREAD_TIMED_RWLOCK:
        return __unlock_rwlock(m);
    default:
        return THREAD_TIMED_BAD_TYPE;
    }
}

uint32_t thread_timed_mutex_destroy(THREAD_TIMED_MUTEX_ST* m) {
    if (m == nullptr)
        return THREAD_TIMED_NULL;
    switch (m->type) {
    case THREAD_TIMED_BINARY:
    case THREAD_TIMED_COUNTING:
    case THREAD_TIMED_MUTEX:
        pthread_mutex_destroy(&m->mutex);
        pthread_cond_destroy(&m->cond);
        break;
    case THREAD_TIMED_RWLOCK:
        pthread_rwlock_destroy(&m->rwlock);
        break;
    default:
        break;
    }
    return 0;
}

int32_t thread_timed_mutex_list_add(THREAD_TIMED_MUTEX_ST* m, uint64_t tid) {
    if (m == nullptr)
        return 1;
    const bool is_first = m->pwater_list == nullptr;
    auto node = dm::allocate<THREAD_WAITER_NODE_ST>();
    if (!node) {
        if (!is_first)
            DM_LOG_ERROR(lock_log, "malloc m->pwater_list_tail->next fail!\n");
        return 1;
    }
    if (const int status = dm::zero(node.get()); status != 0) {
        DM_LOG_ERROR(lock_log, "memset_s fail: %d\n", status);
        return status;
    }
    node->tid = tid;
    if (is_first) {
        m->pwater_list = node.get();
    } else {
        if (m->pwater_list_tail == nullptr)
            m->pwater_list_tail = m->pwater_list;
        m->pwater_list_tail->next = node.get();
    }
    m->pwater_list_tail = node.release();
    return 0;
}

void thread_timed_mutex_list_del(THREAD_TIMED_MUTEX_ST* m, uint64_t tid) {
    if (m == nullptr || m->pwater_list == nullptr)
        return;
    THREAD_WAITER_NODE_ST* before = m->pwater_list;
    if (before->tid == tid) {
        // The tail stays as it is: an empty list gets a new one with the next node.
        m->pwater_list = before->next;
        std::free(before);
        return;
    }
    while (before->next != nullptr && before->next->tid != tid)
        before = before->next;
    const dm::Owned<THREAD_WAITER_NODE_ST> removed(before->next);
    if (!removed)
        return;
    if (m->pwater_list_tail == removed.get())
        m->pwater_list_tail = before;
    before->next = removed->next;
}

uint32_t thead_timed_sem_bin_or_count_lock(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms,
                                           pthread_t self) {
    return __lock_semaphore(m, timeout_ms, self);
}

uint32_t thead_timed_sem_mutex_lock(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms, pthread_t self) {
    return __lock_mutex(m, timeout_ms, self);
}

uint32_t thread_timed_sem_bin_or_count_unlock(THREAD_TIMED_MUTEX_ST* m) {
    return __unlock_semaphore(m);
}

uint32_t thread_timed_sem_mutex_unlock(THREAD_TIMED_MUTEX_ST* m, pthread_t self) {
    return __unlock_mutex(m, self);
}
