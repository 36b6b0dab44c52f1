// What the poller offers to the rest of the library beyond its exported interface.
#ifndef DM_POLLER_PRIVATE_H
#define DM_POLLER_PRIVATE_H

#include "dm_poller.h"

// Releases what a timer's user data refers to; runs once, when the timer's entry goes for good.
using POLLER_RELEASE = void (*)(void* user_data);

// As poller_timer_add(), with a timer that owns what its user data refers to: `release` is called
// with the timer's copy of the data after it fired or was removed, when no callback can use it any
// more. It runs with the timer list locked. A failed call leaves the data the caller's.
int __poller_timer_add_owning(POLLER_ST* poller, uint32_t interval_ms,
                              POLLER_TIMER_CALLBACK callback, const void* user_data,
                              int32_t user_data_len, POLLER_RELEASE release,
                              POLLER_TIMER_ENTRY_ST** timer);

// As poller_fd_remove(), and waits, unless called on the poll thread, until that is past a callback
// of the removed entries and past the wait that it is in: when the call has returned, no such
// callback runs, and the system keeps no file open for the sake of the descriptor's being watched
// (where the notice pipe fails, it may until the wait under way ends by itself).
int __poller_fd_remove_and_wait(POLLER_ST* poller, int fd, int events);

// On the poll thread, in the callback of a descriptor: false once the callback is not wanted any
// more, because its entry was removed or the poller is to stop.
bool __poller_callback_goes_on(POLLER_ST* poller);

// Ends the wait that the poll thread is in. At most one such notice is ever in the pipe. False when
// it could not be given.
bool __poller_wake(POLLER_ST* poller);

// Who has the poller, and what it does for him.
struct POLLER_OWNER {
    // Runs at the end of each pass, on the poll thread. True when the next one is to come within
    // the idle wait, however far the first timer is. Null for none.
    bool (*on_pass)(void* arg);
    // Runs once no callback will run any more because the poller was destroyed, on the thread that
    // releases it. From then on calls for the poller do nothing or are refused with EINVAL.
    void (*on_end)(void* arg);
    void* arg;
};

// Takes a share in the handle, whose memory stays until that is given up. Before the poller runs.
void __poller_hold(POLLER_ST* poller, const POLLER_OWNER& owner);
void __poller_drop(POLLER_ST* poller);

// As poller_destory(), and takes effect also while the thread is stopping after poller_exit().
void __poller_end(POLLER_ST* poller);

// True on the poller's own thread.
bool __poller_is_current(POLLER_ST* poller);

#endif
