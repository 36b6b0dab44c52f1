// Which threads are still there.
//
// The identifier of a detached thread that has ended must not be given to the C library, which
// would read memory that is gone. So threads are recorded from their beginning to their end: those
// of osal_create_task(), and any other one from the moment that it asks for a recursive mutex. A
// hook of its end takes a thread off the record; who cancels a thread pins it, and it ends when
// that is done. A thread that asks for its identifier where that was an ended one's is told from
// it, and like those that are not on record from then on.
#ifndef DM_VOS_LIVE_THREADS_H
#define DM_VOS_LIVE_THREADS_H

#include "ipmi_osal_task.h"
#include "ipmi_v_task.h"
#include "vos/record_lock.h"
#include "vos/thread_table.h"

#include <pthread.h>

#include <cstdint>

namespace dm {

// A task, told apart from the earlier and later ones of its number. Number 0 is no task.
struct TaskIdentity {
    uint32_t number;
    uint64_t incarnation;
};

class Birth;

// All that a creator hands to its thread. The thread frees it.
struct StartRecord {
    OSAL_TASK_PARA_ST para; // first: what test_task() is given points here
    TaskIdentity task;
    char name[VOS_TASK_NAME_SIZE]; // a task's, which has to outlive the task's block

    // While the thread has not begun, with record_lock held.
    StartRecord* next; // of the others that have not
    Birth* birth;      // null when the creator has done its part
};

// A thread that is about to be created. It lives on the creator's stack, around pthread_create(),
// for either of the two may be first to know about the thread: the creator or the thread itself.
class Birth {
public:
    explicit Birth(StartRecord& record);
    Birth(const Birth&) = delete;
    Birth& operator=(const Birth&) = delete;
    ~Birth();

    // The thread was created. It may have ended already.
    void created(pthread_t id);

private:
    friend class BegunThread;

    StartRecord* record_; // null when the thread has begun, or will
    bool has_begun_ = false;
};

// The calling thread, from its first step on. Without a Birth for `record`, which is then somebody
// else's, the thread is recorded all the same.
class BegunThread {
public:
    explicit BegunThread(const void* record);
    BegunThread(const BegunThread&) = delete;
    BegunThread& operator=(const BegunThread&) = delete;
    ~BegunThread();

private:
    StartRecord* outer_; // of a thread that runs test_task() in itself
};

// What a thread knows of itself, at a fixed place in its memory: looking there never enters the
// dynamic linker, and costs next to nothing.
struct ThisThread {
    bool is_recorded;
    bool is_told_apart; // from the ended thread that may have had its identifier
    StartRecord* start;
};
[[gnu::tls_model("initial-exec")]] extern constinit thread_local ThisThread this_thread;

void start_record_of_this_thread();
void tell_this_thread_apart();

// Records the calling thread until it ends.
inline void record_this_thread() {
    if (!this_thread.is_recorded) [[unlikely]]
        start_record_of_this_thread();
}

// A thread that does not end before this does. What cancels it may enter the dynamic linker, and
// so must not be done with a lock held.
class PinnedThread {
public:
    PinnedThread() = default;
    PinnedThread(const PinnedThread&) = delete;
    PinnedThread& operator=(const PinnedThread&) = delete;
    ~PinnedThread();

    // Once, with record_lock held. False for a thread that has ended, and for what never was one.
    bool pin(pthread_t id);

    // Gives the result of pthread_cancel(). With record_lock not held.
    int cancel() const { return pthread_cancel(id_); }

private:
    pthread_t id_{};
    ThreadEntry* entry_ = nullptr; // null for a thread that is not on record
};

// Cancels a thread. Gives the result of pthread_cancel(), or ESRCH without a call for a thread of
// osal_create_task() that has ended and for what never was a thread. Leaves errno alone then.
int cancel_thread(pthread_t id);

// True when a thread that was recorded once has ended.
bool has_ended(pthread_t id);

// In a child of fork(2), with record_lock held: no other thread has come along.
void keep_only_this_thread();

} // namespace dm

#endif
