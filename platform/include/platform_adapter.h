/**
 * @file platform_adapter.h
 * The platform's operating-system adapter, as the library imports it: threads, mutexes, time and
 * descriptors. On Linux each call maps onto the POSIX call named with it.
 *
 * All functions may be called from any thread.
 */
#ifndef PLATFORM_ADAPTER_H
#define PLATFORM_ADAPTER_H

#include "dm_export.h"

#include <pthread.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** A thread's handle. */
typedef pthread_t MM_THREAD;

/** What a new thread runs. The record is read before the creating call returns. */
typedef struct {
    void* (*proc)(void* arg);
    void* arg;
} MM_USER_BLOCK_ST;

/** Attributes of a new thread; a value counts only when its flag is non-zero. */
typedef struct {
    int32_t detach_flag;   /**< non-zero: the thread starts detached */
    int32_t priority_flag; /**< non-zero: use priority */
    int32_t priority;      /**< scheduling priority, see sched(7) */
    int32_t policy_flag;   /**< non-zero: use policy */
    int32_t policy;        /**< SCHED_OTHER (0), which stands without flag, _FIFO (1) or _RR (2) */
    int32_t stack_flag;    /**< non-zero: use stack_size */
    uint32_t stack_size;   /**< stack size in bytes, at least PTHREAD_STACK_MIN */
} MM_THREAD_ATTR_ST;

/** A point in time or a span: seconds and nanoseconds (0 to 999999999). */
typedef struct {
    int64_t tv_sec;
    int64_t tv_nsec;
} MM_TIMESPEC_ST;

/**
 * Starts a joinable thread with default attributes (pthread_create(3)).
 * @param thread receives the handle, before the call returns.
 * @return 0, or a positive errno: EINVAL for a missing argument, EAGAIN when there are too many.
 */
DM_API int mmCreateTask(MM_THREAD* thread, const MM_USER_BLOCK_ST* block);

/**
 * Starts a thread with the given attributes. Policy and priority are set explicitly, not inherited
 * from the creator (pthread_attr_setinheritsched(3)).
 * @return 0, or a positive errno and no thread: EPERM when the process may not use the policy or
 *         priority, so that the caller can fall back to mmCreateTask(); EINVAL for a missing
 *         argument, a wrong policy, a priority that the policy does not have (a real-time one needs
 *         1 to 99) or a stack that is too small; EAGAIN when there are too many threads.
 */
DM_API int mmCreateTaskWithThreadAttr(MM_THREAD* thread, const MM_USER_BLOCK_ST* block,
                                      const MM_THREAD_ATTR_ST* attr);

/** Names the calling thread, cut to 15 characters (prctl(2), PR_SET_NAME). @return 0 or -1. */
DM_API int mmSetCurrentThreadName(const char* name);

/** Locks, unlocks or destroys a mutex (pthread_mutex_lock(3) and so on). @return 0 or an errno. */
DM_API int mmMutexLock(pthread_mutex_t* mutex);
DM_API int mmMutexUnLock(pthread_mutex_t* mutex);
DM_API int mmMutexDestroy(pthread_mutex_t* mutex);

/** @return the time of a clock that counts steadily (clock_gettime(2), CLOCK_MONOTONIC). */
DM_API MM_TIMESPEC_ST mmGetTickCount(void);

/** Sleeps for the whole of @p milliseconds, whatever signals arrive. A cancellation point. */
DM_API void mmSleep(uint32_t milliseconds);

/**
 * Reads at most @p size bytes from a descriptor (read(2)). A cancellation point.
 * @return the number of bytes read, 0 at the end of the file, or -1 with errno set.
 */
DM_API int64_t mmReadFile(int fd, void* buffer, uint32_t size);

/**
 * Writes at most @p size bytes to a descriptor (write(2)). A cancellation point.
 * @return the number of bytes written, or -1 with errno set.
 */
DM_API int64_t mmWriteFile(int fd, const void* buffer, uint32_t size);

/** Closes a descriptor (close(2)). A cancellation point. @return 0, or -1 with errno set. */
DM_API int mmCloseFile(int fd);

/** Opens a socket (socket(2)). @return the descriptor, or -1 with errno set. */
DM_API int mmSocket(int family, int type, int protocol);

DM_END_DECLS

#endif
