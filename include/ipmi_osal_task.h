/**
 * @file ipmi_osal_task.h
 * Threads, with scheduling attributes derived from a priority.
 *
 * A thread is created detached: nobody joins it. It ends when its entry routine returns, or is
 * cancelled with osal_delete_task().
 *
 * Threads: everything may be called from any thread. osal_task_delay() is a cancellation point
 * (pthreads(7)), and so is every call that writes a log line. The library stays loaded once it is:
 * threads may go on in it while the process exits.
 *
 * Signals: a handler may call osal_get_self_id(), osal_get_process_id(), osal_task_lock() and
 * osal_task_unlock(), whatever of this layer it has interrupted.
 *
 * fork(2): in the child all threads but the one that forked have ended. It may create others.
 */
#ifndef IPMI_OSAL_TASK_H
#define IPMI_OSAL_TASK_H

#include "dm_export.h"

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/* Results of osal_create_task(). */
#define OSAL_TASK_NO_MEMORY (-1)  /**< no memory, or memset_s() failed */
#define OSAL_TASK_REFUSED 2       /**< pthread_create(3) failed */
#define OSAL_TASK_BAD_PARAMETER 5 /**< the priority is above 255 */

/* Results of osal_delete_task(). */
#define OSAL_TASK_GONE 1        /**< the thread does not exist any more */
#define OSAL_TASK_NOT_DELETED 6 /**< it could not be cancelled for another reason */

/** What both cells of a thread identifier hold when there is no thread. */
#define OSAL_NO_THREAD 0xFFFFFFFFU

/**
 * The entry routine of a thread.
 * @param arg as given to osal_create_task().
 * @return the thread's exit value, which nobody collects.
 */
typedef uint64_t (*OSAL_TASK_ENTRY)(uint64_t arg);

/** What a new thread begins with. The thread frees it, however it ends. */
typedef struct OSAL_TASK_PARA_ST {
    OSAL_TASK_ENTRY entry; /**< must not be null */
    uint64_t arg;          /**< given to entry */
    const char* name; /**< the creator's string, not a copy; null leaves the thread's name alone */
} OSAL_TASK_PARA_ST;

DM_ASSERT_SIZE(OSAL_TASK_PARA_ST, 24);
DM_ASSERT_OFFSET(OSAL_TASK_PARA_ST, entry, 0);
DM_ASSERT_OFFSET(OSAL_TASK_PARA_ST, arg, 8);
DM_ASSERT_OFFSET(OSAL_TASK_PARA_ST, name, 16);

extern DM_API uint64_t g_creatthreadoknum;   /**< successful pthread_create(3) calls */
extern DM_API uint64_t g_creatthreadfailnum; /**< failed pthread_create(3) calls */
extern DM_API uint32_t g_n_thread_count;     /**< the next task's number, see ipmi_v_task.h */

/**
 * Creates a detached thread.
 * @param name       the thread's name, of which the kernel keeps 15 bytes (prctl(2), PR_SET_NAME).
 *                   It is not copied: it must stay as it is until the thread has begun.
 * @param entry      must not be null.
 * @param priority   0 to 255.
 * @param flags      bit 0: pre-emptive, see set_thread_attr_by_prio_preempt(); otherwise see
 *                   set_thread_attr_by_prio(). Other bits are ignored.
 * @param stack_size in bytes; a size that pthread_attr_setstacksize(3) refuses, 0 for example,
 *                   leaves the default.
 * @param arg        given to @p entry.
 * @param out_tid_a  receives the thread's identifier, OSAL_NO_THREAD when pthread_create(3) failed;
 *                   left alone on other failures. Must not be null.
 * @param out_tid_b  receives the same.
 * @return 0; OSAL_TASK_BAD_PARAMETER; OSAL_TASK_NO_MEMORY; OSAL_TASK_REFUSED, among others when the
 *         process may not use SCHED_RR (EPERM, see sched(7)).
 */
DM_API int64_t osal_create_task(const char* name, OSAL_TASK_ENTRY entry, uint64_t priority,
                                uint32_t flags, uint64_t stack_size, uint64_t arg,
                                uint64_t* out_tid_a, uint64_t* out_tid_b);

/**
 * Cancels a thread (pthread_cancel(3)).
 *
 * The identifier of a thread from osal_create_task() may be given at any time, also when that
 * thread has ended: it is then judged without the C library, as a failed cancellation. That goes
 * for as long as the layer remembers: it knows 4096 threads, those alive and those that ended last,
 * by their identifiers, of which few are ever new. Any other thread must exist, as for
 * pthread_cancel(3). An identifier is used again by the C library once its thread has ended: a
 * thread that the caller made by other means, on the identifier of an ended one of this layer, is
 * known to be alive only after it has called osal_get_self_id().
 *
 * A thread that is being cancelled here does not end before the call has done its part. While its
 * destructors of thread-specific data run (pthread_key_create(3)), it may count as ended already.
 * @param thread the thread's identifier.
 * @return 0 when the cancellation was requested. When it failed, as for OSAL_NO_THREAD, errno
 *         decides, which neither a failed pthread_cancel(3) nor this call sets: OSAL_TASK_GONE if
 *         it reads ESRCH (3), otherwise OSAL_TASK_NOT_DELETED.
 */
DM_API uint64_t osal_delete_task(uint64_t thread);

/**
 * Tells who calls.
 * @return the calling thread's identifier, pthread_self(3).
 */
DM_API uint64_t osal_get_self_id(void);

/**
 * Tells which process calls.
 * @return the process's identifier, getpid(2).
 */
DM_API int32_t osal_get_process_id(void);

/**
 * Does nothing: the scheduler cannot be locked on this platform.
 * @return 0.
 */
DM_API uint64_t osal_task_lock(void);

/**
 * Does nothing, as osal_task_lock().
 * @return 0.
 */
DM_API uint64_t osal_task_unlock(void);

/**
 * Sleeps, or until a signal is handled (select(2)).
 * @param ms in milliseconds.
 * @return 0.
 */
DM_API uint64_t osal_task_delay(uint64_t ms);

/**
 * Fills thread attributes for a normal thread: system scope, SCHED_OTHER with priority 0 set
 * explicitly, detached.
 * @param priority ignored.
 * @param attr     initialised here; the caller destroys it with pthread_attr_destroy(3).
 * @return 0, or 1 for a null @p attr.
 */
DM_API uint64_t set_thread_attr_by_prio(uint64_t priority, pthread_attr_t* attr);

/**
 * The same for a pre-emptive thread: SCHED_RR. 0 to 255 is spread over the policy's priorities
 * from 1 on: with Linux's 1 to 99, 0 becomes 1, 25 becomes 10, 128 becomes 50 and 255 becomes 99.
 * @param priority 0 to 255.
 * @param attr     initialised here; the caller destroys it with pthread_attr_destroy(3).
 * @return 0, or 1 for a null @p attr.
 */
DM_API uint64_t set_thread_attr_by_prio_preempt(uint64_t priority, pthread_attr_t* attr);

/**
 * What a new thread runs: names the thread, calls the entry routine and frees the record.
 * @param record an OSAL_TASK_PARA_ST from malloc(3).
 * @return the entry routine's result.
 */
DM_API void* test_task(void* record);

DM_END_DECLS

#endif
