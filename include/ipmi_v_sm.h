/**
 * @file ipmi_v_sm.h
 * The SPL lock, binary semaphores, and deadlines.
 *
 * Threads: everything may be called from any thread. vos_sm_p() is a cancellation point
 * (pthreads(7)) where it waits, and so is every call that writes a log line. A thread that is
 * cancelled while it waits leaves a semaphore that is never free again, see ipmi_sm_low.h: end it
 * otherwise, or let it wait with a time-out and look for its end between.
 *
 * A child of fork(2) must neither use nor delete a semaphore that others waited for at that moment,
 * see ipmi_sm_low.h.
 */
#ifndef IPMI_V_SM_H
#define IPMI_V_SM_H

#include "dm_export.h"
#include "ipmi_sm_low.h"

#include <pthread.h>
#include <stdint.h>
#include <time.h>

DM_BEGIN_DECLS

/**
 * The task layer's lock, see ipmi_v_task.h. It does not nest. In a child of fork(2) it is unlocked,
 * whoever held it.
 */
extern DM_API pthread_mutex_t g_task_splmutex;

/** 0 after every vos_splx() that unlocked; nothing in the library sets it to anything else. */
extern DM_API uint64_t sm_threadid;

/**
 * Initialises a mutex with default attributes.
 * @param mutex the caller's; null is ignored.
 */
DM_API void vos_spl_init(pthread_mutex_t* mutex);

/**
 * Locks a mutex. It does not nest: a thread that locks it twice blocks itself.
 * @param mutex initialised, or null.
 * @return the level to give to vos_splx(): 1 when locked, 0 when not, or for a null mutex.
 */
DM_API uint64_t vos_spl_imp(pthread_mutex_t* mutex);

/**
 * Unlocks a mutex when @p level is 1; does nothing for other levels.
 * @param level what vos_spl_imp() gave.
 * @param mutex null is ignored.
 */
DM_API void vos_splx(uint64_t level, pthread_mutex_t* mutex);

/**
 * Tells a deadline on the wall clock (gettimeofday(2)).
 * @param ts receives the time now plus @p ms; must not be null.
 * @param ms in milliseconds.
 */
DM_API void get_abs_time(struct timespec* ts, uint64_t ms);

/**
 * Creates a semaphore, to be released with vos_sm_delete().
 * @param name          the first 4 characters are kept, for the report of a dead lock.
 * @param initial_count what can be taken at first. Above 1, that many can be taken; giving never
 *                      raises the count above 1 again.
 * @param flags         ignored.
 * @param out_sm        receives the semaphore as soon as there is memory for it, also when the
 *                      initialisation then fails; it is the caller's to delete. Must not be null.
 * @return 0; 2 without memory; or what thread_timed_mutex_init() returned.
 */
DM_API uint32_t vos_sm_bcreate(const char* name, uint32_t initial_count, uint64_t flags,
                               THREAD_TIMED_MUTEX_ST** out_sm);

/**
 * Deletes a semaphore that no thread uses any more.
 * @param sm from vos_sm_bcreate(); it is freed.
 * @return 0, or 1 for null.
 */
DM_API uint32_t vos_sm_delete(THREAD_TIMED_MUTEX_ST* sm);

/**
 * Takes a semaphore.
 *
 * Who takes it last and gives nothing counts as its holder. So where a thread waits for events that
 * others give, its second wait for ever reports a dead lock, unless the next event was given
 * before: let it wait with a time-out. The holder is known by its identifier, which may be another
 * thread's once the holder has ended: that one is told of a dead lock as well.
 * @param sm         from vos_sm_bcreate().
 * @param timeout_ms in milliseconds; 0 waits for ever, and reports a dead lock when the caller
 *                   holds it already.
 * @return 0, 1 for null, or a THREAD_TIMED_ code.
 */
DM_API uint32_t vos_sm_p(THREAD_TIMED_MUTEX_ST* sm, uint32_t timeout_ms);

/**
 * Gives a semaphore, from any thread.
 * @param sm from vos_sm_bcreate().
 * @return 0, or 1 for null.
 */
DM_API uint32_t vos_sm_v(THREAD_TIMED_MUTEX_ST* sm);

DM_END_DECLS

#endif
