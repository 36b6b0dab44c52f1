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
#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** A thread's handle. */
typedef pthread_t MM_THREAD;

/** What a new thread runs. The record is read before the creating call returns. */
typedef struct {
    void* (*proc)(void* arg); /**< the thread's routine; its result is the exit value */
    void* arg;                /**< given to proc */
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
    int64_t tv_sec;  /**< whole seconds */
    int64_t tv_nsec; /**< nanoseconds */
} MM_TIMESPEC_ST;

DM_ASSERT_SIZE(MM_USER_BLOCK_ST, 16);
DM_ASSERT_OFFSET(MM_USER_BLOCK_ST, proc, 0);
DM_ASSERT_OFFSET(MM_USER_BLOCK_ST, arg, 8);
DM_ASSERT_SIZE(MM_THREAD_ATTR_ST, 28);
DM_ASSERT_OFFSET(MM_THREAD_ATTR_ST, detach_flag, 0);
DM_ASSERT_OFFSET(MM_THREAD_ATTR_ST, priority_flag, 4);
DM_ASSERT_OFFSET(MM_THREAD_ATTR_ST, priority, 8);
DM_ASSERT_OFFSET(MM_THREAD_ATTR_ST, policy_flag, 12);
DM_ASSERT_OFFSET(MM_THREAD_ATTR_ST, policy, 16);
DM_ASSERT_OFFSET(MM_THREAD_ATTR_ST, stack_flag, 20);
DM_ASSERT_OFFSET(MM_THREAD_ATTR_ST, stack_size, 24);
DM_ASSERT_SIZE(MM_TIMESPEC_ST, 16);
DM_ASSERT_OFFSET(MM_TIMESPEC_ST, tv_sec, 0);
DM_ASSERT_OFFSET(MM_TIMESPEC_ST, tv_nsec, 8);

/**
 * Starts a joinable thread with default attributes (pthread_create(3)).
 * @param thread receives the handle, before the call returns.
 * @param block what the thread runs.
 * @return 0, or a positive errno: EINVAL for a missing argument, EAGAIN when there are too many.
 */
DM_API int mmCreateTask(MM_THREAD* thread, const MM_USER_BLOCK_ST* block);

/**
 * Starts a thread with the given attributes. Policy and priority are set explicitly, not inherited
 * from the creator (pthread_attr_setinheritsched(3)).
 * @param thread receives the handle, before the call returns.
 * @param block what the thread runs.
 * @param attr the attributes; read before the call returns.
 * @return 0, or a positive errno and no thread: EPERM when the process may not use the policy or
 *         priority, so that the caller can fall back to mmCreateTask(); EINVAL for a missing
 *         argument, a wrong policy, a priority that the policy does not have (a real-time one needs
 *         1 to 99) or a stack that is too small; EAGAIN when there are too many threads.
 */
DM_API int mmCreateTaskWithThreadAttr(MM_THREAD* thread, const MM_USER_BLOCK_ST* block,
                                      const MM_THREAD_ATTR_ST* attr);

/**
 * Names the calling thread (prctl(2), PR_SET_NAME).
 * @param name cut to 15 characters.
 * @return 0 or -1.
 */
DM_API int mmSetCurrentThreadName(const char* name);

/**
 * Locks a mutex (pthread_mutex_lock(3)).
 * @param mutex initialised.
 * @return 0 or a positive errno.
 */
DM_API int mmMutexLock(pthread_mutex_t* mutex);

/**
 * Unlocks a mutex (pthread_mutex_unlock(3)).
 * @param mutex initialised.
 * @return 0 or a positive errno.
 */
DM_API int mmMutexUnLock(pthread_mutex_t* mutex);

/**
 * Destroys a mutex (pthread_mutex_destroy(3)).
 * @param mutex not locked; its memory stays the caller's.
 * @return 0 or a positive errno.
 */
DM_API int mmMutexDestroy(pthread_mutex_t* mutex);

/**
 * Tells the time of a clock that counts steadily (clock_gettime(2), CLOCK_MONOTONIC).
 * @return the time.
 */
DM_API MM_TIMESPEC_ST mmGetTickCount(void);

/**
 * Sleeps for the whole time, whatever signals arrive. A cancellation point.
 * @param milliseconds the time.
 */
DM_API void mmSleep(uint32_t milliseconds);

/**
 * Reads at most @p size bytes from a descriptor (read(2)). A cancellation point.
 * @param fd the descriptor.
 * @param buffer receives the bytes.
 * @param size room in @p buffer, in bytes.
 * @return the number of bytes read, 0 at the end of the file, or -1 with errno set.
 */
DM_API int64_t mmReadFile(int fd, void* buffer, uint32_t size);

/**
 * Writes at most @p size bytes to a descriptor (write(2)). A cancellation point. Of up to PIPE_BUF
 * bytes a pipe takes all or none (pipe(7)).
 * @param fd the descriptor.
 * @param buffer the bytes.
 * @param size their number.
 * @return the number of bytes written, or -1 with errno set.
 */
DM_API int64_t mmWriteFile(int fd, const void* buffer, uint32_t size);

/**
 * Closes a descriptor (close(2)). A cancellation point.
 * @param fd the descriptor.
 * @return 0, or -1 with errno set.
 */
DM_API int mmCloseFile(int fd);

/**
 * Opens a socket (socket(2)).
 * @param family as for socket(2), AF_INET for example.
 * @param type as for socket(2), SOCK_DGRAM for example.
 * @param protocol as for socket(2).
 * @return the descriptor, which the caller closes; or -1 with errno set.
 */
DM_API int mmSocket(int family, int type, int protocol);

DM_END_DECLS

#endif
