/**
 * @file ipmi_sm_low.h
 * Timed locks: one record that serves as a binary or counting semaphore, as a recursive mutex with
 * an owner, or as a read-write lock.
 *
 * Threads: everything may be called from any thread once the record is initialised, until it is
 * destroyed; thread_timed_mutex_list_add() and thread_timed_mutex_list_del() only by who holds the
 * record's `mutex`. The locking calls are cancellation points (pthreads(7)) where they wait, and so
 * is every call that writes a log line.
 *
 * A lock that is unlocked while others wait is handed over: to one of the waiters, which has it as
 * soon as it wakes, also when its time is over just then. Nobody else can take it meanwhile, and a
 * waiter that wakes without it goes on waiting.
 *
 * Do not cancel a thread that may be waiting: it leaves `mutex` unlocked, but its waiter node, its
 * share in `wait_num` and the unit that it had reserved stay. From then on a semaphore or a mutex
 * is never free again: it passes only to who waits at the moment of an unlock. What had been handed
 * to the thread just before it was cancelled goes to another waiter; with none, a mutex is free for
 * this once.
 *
 * Time-outs are in milliseconds. A wait is bounded by the wall clock, on which the condition
 * variable runs; semaphores measure it with the monotonic clock as well, so that a wall clock that
 * is set ahead does not end it early: a wait above 1000 ms may end after 80 % of its time, a
 * shorter one never does. A wall clock that is set back makes every wait as much longer.
 *
 * A child of fork(2) finds its copies of locks as they were. One whose `mutex` another thread held
 * at that moment, or that others waited for, must be neither used nor destroyed in it: it hands
 * units to waiters that are not there, and pthread_cond_destroy(3) may wait for them for ever. An
 * owner that was another thread has ended in the child.
 *
 * Results are THREAD_TIMED_ codes, 0, or where noted the number of a failed call.
 */
#ifndef IPMI_SM_LOW_H
#define IPMI_SM_LOW_H

#include "dm_export.h"

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifndef PTHREAD_RWLOCK_INITIALIZER
#error "Strict C hides POSIX's read-write locks: define _POSIX_C_SOURCE as 200809L"
#endif

DM_BEGIN_DECLS

/** Types of lock. */
enum {
    THREAD_TIMED_BINARY = 0,   /**< binary semaphore; anybody may unlock it */
    THREAD_TIMED_COUNTING = 1, /**< counting semaphore; anybody may unlock it */
    THREAD_TIMED_MUTEX = 2,    /**< recursive mutex with an owner */
    THREAD_TIMED_RWLOCK = 3    /**< read-write lock, without time-outs */
};

#define THREAD_TIMED_NULL 0x20000201U          /**< the record is null */
#define THREAD_TIMED_TIMEOUT 0x20000203U       /**< not locked in time */
#define THREAD_TIMED_FAILED 0x20000204U        /**< dead lock, busy, or a failed wait */
#define THREAD_TIMED_UNLOCK_FAILED 0x20000205U /**< a read-write lock was not unlocked */
#define THREAD_TIMED_BAD_TYPE 0x20000213U      /**< there is no such type of lock */

/** A waiting thread. */
typedef struct THREAD_WAITER_NODE_ST {
    uint64_t tid;                       /**< the waiting thread, pthread_self(3) */
    struct THREAD_WAITER_NODE_ST* next; /**< who waits behind it, or null */
} THREAD_WAITER_NODE_ST;

/**
 * A lock. For inspection only, with `mutex` held. The 3 bytes behind `name` are not free: they hold
 * what was handed over and not yet taken, and who could take it. A record must not be copied.
 */
typedef struct THREAD_TIMED_MUTEX_ST {
    char name[5];                       /**< up to 4 characters, for the report of a dead lock */
    pthread_mutex_t mutex;              /**< guards all fields (types 0 to 2) */
    pthread_rwlock_t rwlock;            /**< type 3 */
    pthread_cond_t cond;                /**< waiters sleep here (types 0 to 2) */
    int32_t wait_num;                   /**< waiting threads */
    uint32_t locked;                    /**< 1 from a lock on, 0 from an unlock on */
    uint32_t nest_num;                  /**< further locks by the owner (type 2) */
    int32_t count;                      /**< free units; below 0 when waiters have reserved units */
    int32_t max_count;                  /**< unlocking does not raise count above it */
    int32_t type;                       /**< THREAD_TIMED_BINARY and so on */
    pthread_t owner;                    /**< who locked it last, 0 after an unlock */
    THREAD_WAITER_NODE_ST* pwater_list; /**< first waiting thread */
    THREAD_WAITER_NODE_ST* pwater_list_tail; /**< last one; undefined while there is no first */
} THREAD_TIMED_MUTEX_ST;

DM_ASSERT_SIZE(THREAD_WAITER_NODE_ST, 16);
DM_ASSERT_OFFSET(THREAD_WAITER_NODE_ST, tid, 0);
DM_ASSERT_OFFSET(THREAD_WAITER_NODE_ST, next, 8);

/* The sizes of the POSIX types are the platform's: 40, 56 and 48 bytes with glibc on x86-64. */
/** Where a lock's condition variable is, in bytes: 104 with glibc on x86-64. */
#define THREAD_TIMED_COND_OFFSET (8 + sizeof(pthread_mutex_t) + sizeof(pthread_rwlock_t))
/** Where the fields behind it begin, in bytes: 152 with glibc on x86-64. */
#define THREAD_TIMED_STATE_OFFSET (THREAD_TIMED_COND_OFFSET + sizeof(pthread_cond_t))
DM_ASSERT_SIZE(THREAD_TIMED_MUTEX_ST, THREAD_TIMED_STATE_OFFSET + 48);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, name, 0);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, mutex, 8);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, rwlock, 8 + sizeof(pthread_mutex_t));
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, cond, THREAD_TIMED_COND_OFFSET);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, wait_num, THREAD_TIMED_STATE_OFFSET);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, locked, THREAD_TIMED_STATE_OFFSET + 4);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, nest_num, THREAD_TIMED_STATE_OFFSET + 8);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, count, THREAD_TIMED_STATE_OFFSET + 12);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, max_count, THREAD_TIMED_STATE_OFFSET + 16);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, type, THREAD_TIMED_STATE_OFFSET + 20);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, owner, THREAD_TIMED_STATE_OFFSET + 24);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, pwater_list, THREAD_TIMED_STATE_OFFSET + 32);
DM_ASSERT_OFFSET(THREAD_TIMED_MUTEX_ST, pwater_list_tail, THREAD_TIMED_STATE_OFFSET + 40);

/**
 * Allocates a record, to be initialised, destroyed, and then freed with free(3).
 * @return the record, all zero; null without memory or when memset_s() failed.
 */
DM_API THREAD_TIMED_MUTEX_ST* thread_timed_malloc_id(void);

/**
 * Initialises a lock.
 * @param name          its first 4 characters are kept.
 * @param m             the record, the caller's.
 * @param type          THREAD_TIMED_BINARY and so on.
 * @param initial_count units that are free at first: 1 for a mutex, or a binary semaphore that is
 *                      not taken. For a counting semaphore also the most that there can be; for the
 *                      other types that is 1.
 * @return 0; THREAD_TIMED_NULL; THREAD_TIMED_BAD_TYPE, with the plain fields set; or the number
 *         that memset_s(), strncpy_s() or a pthread_*_init() returned.
 */
DM_API uint32_t thread_timed_mutex_init(const char* name, THREAD_TIMED_MUTEX_ST* m, int32_t type,
                                        int32_t initial_count);

/**
 * Locks.
 *
 * A semaphore takes a unit that is free when nobody waits, and otherwise queues: whoever unlocks
 * hands the unit to one waiter. A mutex is locked again by its owner at once, and then needs one
 * unlock more.
 *
 * An owner is known by its thread's identifier, which the C library gives to another thread once
 * that one has ended. Where a thread ends with a semaphore, a later one may so be told of a dead
 * lock that there is not; one that ends with a mutex may leave it to a thread that then locks it as
 * its owner, at once.
 * @param m          the lock.
 * @param timeout_ms in milliseconds; 0 waits for ever. A semaphore then reports a dead lock, in the
 *                   log and with THREAD_TIMED_FAILED, to the thread that locked it last when there
 *                   was no unlock since: also to one that waits for events and asks for the second
 *                   before it came. For a read-write lock there is no time-out: anything but 0
 *                   takes a read lock, 0 the write lock.
 * @return 0, THREAD_TIMED_NULL, THREAD_TIMED_BAD_TYPE, THREAD_TIMED_TIMEOUT or THREAD_TIMED_FAILED.
 */
DM_API uint32_t thread_timed_mutex_lock(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms);

/**
 * Locks if that needs no wait. A mutex is also locked again by its owner, but must not be unlocked
 * once more for that.
 * @param m    the lock.
 * @param read for a read-write lock: anything but 0 tries a read lock, 0 the write lock.
 * @return 0, THREAD_TIMED_NULL, THREAD_TIMED_BAD_TYPE, or THREAD_TIMED_FAILED when it is busy.
 */
DM_API uint32_t thread_timed_mutex_trylock(THREAD_TIMED_MUTEX_ST* m, int32_t read);

/**
 * Unlocks. A semaphore may be unlocked by anybody. So may a mutex that was locked once; one that
 * was locked again loses a nesting level when its owner unlocks it, all of them when its owner has
 * ended (the next unlock then releases it), and none otherwise.
 * @param m the lock.
 * @return 0, THREAD_TIMED_NULL, THREAD_TIMED_BAD_TYPE or THREAD_TIMED_UNLOCK_FAILED.
 */
DM_API uint32_t thread_timed_mutex_unlock(THREAD_TIMED_MUTEX_ST* m);

/**
 * Destroys a lock that no thread uses any more. The record and waiter nodes that cancelled threads
 * left are not freed. A record with a negative type is left alone.
 * @param m the lock; the record stays the caller's.
 * @return 0, or THREAD_TIMED_NULL.
 */
DM_API uint32_t thread_timed_mutex_destroy(THREAD_TIMED_MUTEX_ST* m);

/**
 * Appends a thread to the waiter list, with the record's `mutex` held.
 * @param m   the lock.
 * @param tid the thread, pthread_self(3).
 * @return 0; 1 for a null record or without memory; or the number that memset_s() returned.
 */
DM_API int32_t thread_timed_mutex_list_add(THREAD_TIMED_MUTEX_ST* m, uint64_t tid);

/**
 * Removes a thread's first node from the waiter list, if there is one, with the record's `mutex`
 * held.
 * @param m   the lock; null is ignored.
 * @param tid the thread, pthread_self(3).
 */
DM_API void thread_timed_mutex_list_del(THREAD_TIMED_MUTEX_ST* m, uint64_t tid);

/**
 * Locks a semaphore: what thread_timed_mutex_lock() does for these types.
 * @param m          must not be null.
 * @param timeout_ms in milliseconds; 0 waits for ever.
 * @param self       the calling thread, pthread_self(3).
 * @return 0, THREAD_TIMED_TIMEOUT or THREAD_TIMED_FAILED.
 */
DM_API uint32_t thead_timed_sem_bin_or_count_lock(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms,
                                                  pthread_t self);

/**
 * Locks a mutex: what thread_timed_mutex_lock() does for this type.
 * @param m          must not be null.
 * @param timeout_ms in milliseconds; 0 waits for ever.
 * @param self       the calling thread, pthread_self(3).
 * @return 0, THREAD_TIMED_TIMEOUT or THREAD_TIMED_FAILED.
 */
DM_API uint32_t thead_timed_sem_mutex_lock(THREAD_TIMED_MUTEX_ST* m, uint32_t timeout_ms,
                                           pthread_t self);

/**
 * Unlocks a semaphore, as thread_timed_mutex_unlock() does.
 * @param m must not be null.
 * @return 0.
 */
DM_API uint32_t thread_timed_sem_bin_or_count_unlock(THREAD_TIMED_MUTEX_ST* m);

/**
 * Unlocks a mutex, as thread_timed_mutex_unlock() does.
 * @param m    must not be null.
 * @param self the calling thread, pthread_self(3).
 * @return 0.
 */
DM_API uint32_t thread_timed_sem_mutex_unlock(THREAD_TIMED_MUTEX_ST* m, pthread_t self);

DM_END_DECLS

#endif
