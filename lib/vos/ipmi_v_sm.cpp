#include "ipmi_v_sm.h"

#include "base/atomic_field.h"
#include "base/log.h"

#include <sys/time.h>

#include <cstdlib>

pthread_mutex_t g_task_splmutex = PTHREAD_MUTEX_INITIALIZER;
uint64_t sm_threadid = 0;

namespace {

constinit dm::SubjectLog semaphore_log;

constexpr uint64_t kLocked = 1;
constexpr uint32_t kNullSemaphore = 1;
constexpr uint32_t kNoMemory = 2;
constexpr uint64_t kMsPerSecond = 1000;
constexpr uint64_t kNsPerUs = 1000;
constexpr uint64_t kNsPerMs = 1000000;
constexpr uint64_t kNsPerSecond = 1000000000;

} // namespace

void vos_spl_init(pthread_mutex_t* mutex) {
    if (mutex != nullptr && pthread_mutex_init(mutex, nullptr) != 0)
        DM_LOG_ERROR(semaphore_log, "pthread_mutex_init failed.\n");
}

uint64_t vos_spl_imp(pthread_mutex_t* mutex) {
    if (mutex == nullptr)
        return 0;
    if (pthread_mutex_lock(mutex) != 0) {
        DM_LOG_ERROR(semaphore_log, "pthread_mutex_lock failed. \n");
        return 0;
    }
    return kLocked;
}

void vos_splx(uint64_t level, pthread_mutex_t* mutex) {
    if (mutex == nullptr || level != kLocked)
        return;
    dm::store<uint64_t>(sm_threadid, 0);
    if (pthread_mutex_unlock(mutex) != 0)
        DM_LOG_ERROR(semaphore_log, "pthread_mutex_unlock failed .\n");
}

void get_abs_time(struct timespec* ts, uint64_t ms) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const uint64_t ns =
        static_cast<uint64_t>(now.tv_usec) * kNsPerUs + ms % kMsPerSecond * kNsPerMs;
    const uint64_t s = static_cast<uint64_t>(now.tv_sec) + ms / kMsPerSecond + ns / kNsPerSecond;
    ts->tv_sec = static_cast<time_t>(s);
    ts->tv_nsec = static_cast<long>(ns % kNsPerSecond);
}

uint32_t vos_sm_bcreate(const char* name, uint32_t initial_count, uint64_t /*flags*/,
                        THREAD_TIMED_MUTEX_ST** out_sm) {
    THREAD_TIMED_MUTEX_ST* sm = thread_timed_malloc_id();
    if (sm == nullptr)
        return kNoMemory;
    *out_sm = sm;
    return thread_timed_mutex_init(name, sm, THREAD_TIMED_BINARY,
                                   static_cast<int32_t>(initial_count));
}

uint32_t vos_sm_delete(THREAD_TIMED_MUTEX_ST* sm) {
    if (sm == nullptr)
        return kNullSemaphore;
    thread_timed_mutex_destroy(sm);
    std::free(sm);
    return 0;
}

uint32_t vos_sm_p(THREAD_TIMED_MUTEX_ST* sm, uint32_t timeout_ms) {
    return sm != nullptr ? thread_timed_mutex_lock(sm, timeout_ms) : kNullSemaphore;
}

uint32_t vos_sm_v(THREAD_TIMED_MUTEX_ST* sm) {
    if (sm == nullptr) {
        DM_LOG_ERROR(semaphore_log, "\r\nSM_V failed, sm_id=NULL.");
        return kNullSemaphore;
    }
    return thread_timed_mutex_unlock(sm);
}
