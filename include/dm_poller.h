/**
 * @file dm_poller.h
 * The event poller: one thread that watches descriptors and runs one-shot timers.
 *
 * All callbacks run on the poll thread ("do_poll"), one at a time and with no lock held. They may
 * add and remove descriptors and timers, and may destroy the poller.
 *
 * Descriptors and timers may be added and removed from any thread, the poll thread included. Such
 * a change does not wake the thread: it is picked up by the next pass of the loop, which begins
 * when the wait under way ends. A wait lasts 50 ms, or to the deadline of the first timer when one
 * is pending.
 *
 * A callback may be cancelled, or end its thread: the poller is then idle, as after poller_exit().
 *
 * The poll thread is not in a forked child (fork(2)). There poller_destory() on the parent's
 * running poller does nothing, poller_exit() is refused with 1, and no other call may be made; what
 * the child inherits of it goes with execve(2) or with the child. Neither has an effect on the
 * parent. A child that is forked in a callback is in the loop: it must end there, with _exit(2) or
 * execve(2).
 *
 * Results are positive errno numbers (errno(3)): 0, EINVAL (22), ENOMEM (12), the number of a
 * failed pipe(2) or fcntl(2), the code of a failed bounds-checked function; or 1 for a call that
 * is not allowed in the poller's state or on the calling thread.
 */
#ifndef DM_POLLER_H
#define DM_POLLER_H

#include "dm_export.h"
#include "dm_list.h"

#include <poll.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** States of a poller. */
enum {
    POLLER_IDLE = 0,   /**< created, or stopped after an exit notice */
    POLLER_RUN = 1,    /**< its thread runs */
    POLLER_EXIT = 2,   /**< its thread was asked to stop */
    POLLER_DESTORY = 3 /**< its thread was asked to stop and release it */
};

/** A poller. Callers hold it by pointer and do not change its fields. */
typedef struct POLLER_ST {
    uint32_t state;       /**< POLLER_IDLE to POLLER_DESTORY */
    int32_t notify_fd[2]; /**< read and write end of the notice pipe, -1 when not open */
    pthread_t owner_tid;  /**< the thread that created the poller */
    pthread_t thread;     /**< the poll thread */
    LIST_ST* fd_list;     /**< of POLLER_FD_ENTRY_ST */
    LIST_ST* timer_list;  /**< of POLLER_TIMER_ENTRY_ST, in the order of their deadlines */
    /* private fields of the library follow */
} POLLER_ST;

/**
 * Called on the poll thread when a descriptor has events.
 * @param fd the descriptor.
 * @param events the events that poll(2) returned (POLLIN and so on).
 * @param user_data the poller's copy of the data given with the descriptor, valid during the call;
 *                  null when there is none.
 * @param user_data_len its length in bytes, 0 when there is none.
 * @return ignored.
 */
typedef int (*POLLER_FD_CALLBACK)(int fd, int events, void* user_data, uint32_t user_data_len);

/**
 * Called on the poll thread when a timer is due.
 * @param interval_ms the interval given with the timer, in milliseconds.
 * @param elapsed_ms @p interval_ms or one more, as a signed number.
 * @param user_data the poller's copy of the data given with the timer, valid during the call;
 *                  null when there is none.
 * @param user_data_len its length in bytes, 0 when there is none.
 * @return ignored.
 */
typedef int (*POLLER_TIMER_CALLBACK)(uint32_t interval_ms, int32_t elapsed_ms, void* user_data,
                                     uint32_t user_data_len);

/** A point in time or a span, as mmGetTickCount() gives it. */
typedef struct POLLER_TIME_ST {
    int64_t tv_sec;  /**< whole seconds */
    int64_t tv_nsec; /**< nanoseconds, 0 to 999999999 */
} POLLER_TIME_ST;

/** A watched descriptor. */
typedef struct POLLER_FD_ENTRY_ST {
    int32_t fd;                  /**< the descriptor, not the entry's */
    int16_t events;              /**< events to watch, as in poll(2) */
    int16_t revents;             /**< always 0 */
    struct pollfd* slot;         /**< the entry's place in the array of the current pass, or null */
    POLLER_FD_CALLBACK callback; /**< called when it is ready, or null */
    void* unused;                /**< null; timers keep their callback in this place */
    void* user_data;             /**< the entry's own copy, or null */
    uint32_t user_data_len;      /**< its length in bytes */
    uint32_t removed;            /**< 1 once it is to go with the next sweep */
    /* private fields of the library follow */
} POLLER_FD_ENTRY_ST;

/** A pending timer. Its address is the timer's handle. */
typedef struct POLLER_TIMER_ENTRY_ST {
    POLLER_TIME_ST deadline;        /**< when it is due */
    uint32_t interval_ms;           /**< the interval given with it, in milliseconds */
    POLLER_TIMER_CALLBACK callback; /**< called when it is due, or null */
    void* user_data;                /**< the entry's own copy, or null */
    uint32_t user_data_len;         /**< its length in bytes */
    uint32_t removed;               /**< 1 once it is to go with the next sweep */
    /* private fields of the library follow */
} POLLER_TIMER_ENTRY_ST;

DM_ASSERT_OFFSET(POLLER_ST, state, 0);
DM_ASSERT_OFFSET(POLLER_ST, notify_fd, 4);
DM_ASSERT_OFFSET(POLLER_ST, owner_tid, 16);
DM_ASSERT_OFFSET(POLLER_ST, thread, 24);
DM_ASSERT_OFFSET(POLLER_ST, fd_list, 32);
DM_ASSERT_OFFSET(POLLER_ST, timer_list, 40);
DM_ASSERT_SIZE(POLLER_TIME_ST, 16);
DM_ASSERT_SIZE(POLLER_FD_ENTRY_ST, 48);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, fd, 0);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, events, 4);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, revents, 6);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, slot, 8);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, callback, 16);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, unused, 24);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, user_data, 32);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, user_data_len, 40);
DM_ASSERT_OFFSET(POLLER_FD_ENTRY_ST, removed, 44);
DM_ASSERT_SIZE(POLLER_TIMER_ENTRY_ST, 48);
DM_ASSERT_OFFSET(POLLER_TIMER_ENTRY_ST, deadline, 0);
DM_ASSERT_OFFSET(POLLER_TIMER_ENTRY_ST, interval_ms, 16);
DM_ASSERT_OFFSET(POLLER_TIMER_ENTRY_ST, callback, 24);
DM_ASSERT_OFFSET(POLLER_TIMER_ENTRY_ST, user_data, 32);
DM_ASSERT_OFFSET(POLLER_TIMER_ENTRY_ST, user_data_len, 40);
DM_ASSERT_OFFSET(POLLER_TIMER_ENTRY_ST, removed, 44);

/**
 * Creates an idle poller that belongs to the calling thread. Any thread.
 * @param poller receives the poller, to be released with poller_destory(); null on failure.
 * @return 0, EINVAL for a null @p poller, ENOMEM, the errno of pipe(2) or fcntl(2), or the code of
 *         a failed bounds-checked function or list_create().
 */
DM_API int poller_create(POLLER_ST** poller);

/**
 * Starts the poll thread, with SCHED_RR and priority 60 where the process may use them and default
 * attributes elsewhere. Only on the thread that created the poller.
 * @param poller an idle poller.
 * @return 0, EINVAL for a null poller, 1 when called on another thread than the creating one or
 *         when the poller runs already, or the result of the failed thread creation.
 */
DM_API int poller_run(POLLER_ST* poller);

/**
 * Asks the poll thread to stop after its current pass; the poller can then be run again. Only on
 * the thread that created the poller.
 * @param poller must not be null.
 * @return 0, or 1 when called on another thread than the creating one.
 */
DM_API int poller_exit(POLLER_ST* poller);

/**
 * Releases the poller: at once when it is idle or its thread has not begun yet, else by its own
 * thread as that leaves, with no callback cut short. Any thread; the handle must not be used
 * afterwards. While the thread is stopping after poller_exit() it does nothing: the poller is idle
 * then, and to be released by another call. Nor does it do anything in a forked child.
 * @param poller from poller_create().
 * @return 0, or EINVAL for a null poller.
 */
DM_API int poller_destory(POLLER_ST* poller);

/**
 * Watches a descriptor, which stays the caller's. Any thread.
 * @param poller the poller.
 * @param fd the descriptor, open as long as it is watched.
 * @param events the events to watch, as in poll(2).
 * @param callback may be null.
 * @param user_data copied; the caller's may go as soon as the call returns. Null for none.
 * @param user_data_len its length in bytes; 0 is refused even without user data, and below 0
 *                      nothing is copied.
 * @return 0, EINVAL for a null poller or a length of 0, ENOMEM, or the code of a failed
 *         bounds-checked function.
 */
DM_API int poller_fd_add(POLLER_ST* poller, int fd, int16_t events, POLLER_FD_CALLBACK callback,
                         const void* user_data, int32_t user_data_len);

/**
 * Stops watching: removes every entry of the descriptor whose events share a bit with @p events.
 * On another thread than the poll thread it does not wait for a callback that runs meanwhile. Any
 * thread.
 * @param poller the poller.
 * @param fd the descriptor.
 * @param events as in poll(2).
 * @return 0, whether or not there was one; EINVAL for a null poller.
 */
DM_API int poller_fd_remove(POLLER_ST* poller, int fd, int events);

/**
 * Arms a one-shot timer. It may fire up to a millisecond before its time, and one that a timer's
 * callback adds fires in the next pass at the earliest. Any thread.
 * @param poller the poller.
 * @param interval_ms time until it is due; values of 2^31 and above count as past.
 * @param callback may be null.
 * @param user_data copied; null for none.
 * @param user_data_len its length in bytes, above 0 even without user data.
 * @param timer receives the handle before the timer can fire; untouched on failure; may be null.
 *              The handle is dead once the timer has fired or was removed, and a later timer may
 *              get the same one: do not remove by a dead handle.
 * @return 0, EINVAL for a null poller or a length not above 0, ENOMEM, or the code of a failed
 *         bounds-checked function.
 */
DM_API int poller_timer_add(POLLER_ST* poller, uint32_t interval_ms, POLLER_TIMER_CALLBACK callback,
                            const void* user_data, int32_t user_data_len,
                            POLLER_TIMER_ENTRY_ST** timer);

/**
 * Disarms a timer. A callback that runs already on the poll thread is not stopped or awaited. Any
 * thread.
 * @param poller the poller.
 * @param timer the variable that holds the handle; it is not cleared.
 * @return 0, whether or not there was such a timer; EINVAL for a null argument.
 */
DM_API int poller_timer_remove(POLLER_ST* poller, POLLER_TIMER_ENTRY_ST* const* timer);

/**
 * Makes a descriptor's entry, not yet listed. Any thread.
 * @param entry receives the entry, to be released with poller_entry_free().
 * @param fd the descriptor, which stays the caller's.
 * @param events the events to watch, as in poll(2).
 * @param callback may be null.
 * @return 0, ENOMEM, or the code of a failed memset_s().
 */
DM_API int poller_init_entry(POLLER_FD_ENTRY_ST** entry, int fd, int16_t events,
                             POLLER_FD_CALLBACK callback);

/**
 * Makes a timer's entry that is due @p interval_ms from now, not yet listed. Any thread.
 * @param entry receives the entry, to be released with poller_entry_free().
 * @param interval_ms in milliseconds; values of 2^31 and above count as past.
 * @param callback may be null.
 * @return 0, ENOMEM, or the code of a failed memset_s().
 */
DM_API int poller_timer_init_entry(POLLER_TIMER_ENTRY_ST** entry, uint32_t interval_ms,
                                   POLLER_TIMER_CALLBACK callback);

/**
 * Releases an entry of either kind with its copy of the user data. Any thread.
 * @param entry from poller_init_entry() or poller_timer_init_entry(); null is ignored.
 */
DM_API void poller_entry_free(void* entry);

/**
 * Compares two descriptors' entries, as a LIST_COMPARE. Any thread.
 * @param entry a POLLER_FD_ENTRY_ST.
 * @param key another one.
 * @return 0 when both have one descriptor and share an event, else 1.
 */
DM_API int poller_fd_entry_cmp(const void* entry, const void* key);

/**
 * Compares two timers' entries by their addresses, as a LIST_COMPARE. Any thread.
 * @param entry a POLLER_TIMER_ENTRY_ST.
 * @param key another one.
 * @return 0 for one and the same, 1 when @p entry has the greater address, else -1.
 */
DM_API int poller_timer_entry_cmp(const void* entry, const void* key);

/**
 * Compares two timers' entries by their deadlines, as a LIST_COMPARE. Any thread.
 * @param entry a POLLER_TIMER_ENTRY_ST.
 * @param key another one.
 * @return -1, 0 or 1 as @p entry is due before, with or after @p key.
 */
DM_API int poller_timer_deadline_cmp(const void* entry, const void* key);

/**
 * Compares two points in time. Any thread.
 * @param a a point in time.
 * @param b another one.
 * @return -1, 0 or 1 as @p a is before, at or behind @p b.
 */
DM_API int poller_time_cmp(const POLLER_TIME_ST* a, const POLLER_TIME_ST* b);

/**
 * Subtracts @p b from @p a. Any thread.
 * @param difference receives the difference when @p a is later; may be null.
 * @param a the later point in time.
 * @param b the earlier one.
 * @return the difference in whole milliseconds, cut to 32 bits; -1 when @p a is not later.
 */
DM_API int poller_time_diff_ms(POLLER_TIME_ST* difference, const POLLER_TIME_ST* a,
                               const POLLER_TIME_ST* b);

/**
 * Adds a time. Any thread.
 * @param sum receives @p base plus @p ms.
 * @param base a point in time.
 * @param ms in milliseconds.
 */
DM_API void poller_time_add_ms(POLLER_TIME_ST* sum, const POLLER_TIME_ST* base, int32_t ms);

/**
 * Subtracts a time. Any thread.
 * @param difference receives @p base less @p ms.
 * @param base a point in time.
 * @param ms in milliseconds.
 */
DM_API void poller_time_sub_ms(POLLER_TIME_ST* difference, const POLLER_TIME_ST* base, int32_t ms);

/**
 * Tells how long a timer still has. Any thread.
 * @param entry the timer's entry; must not be null.
 * @return the whole milliseconds until its deadline, -1 when that is now or past.
 */
DM_API int poller_ms_until(const POLLER_TIMER_ENTRY_ST* entry);

DM_END_DECLS

#endif
