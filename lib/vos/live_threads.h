// Which threads are still there.
//
// The identifier of a detached thread that has ended must not be given to the C library, which
// would read memory that is gone. So threads are recorded from their beginning to their end: those
// of osal_create_task(), and any other one from the moment that it becomes the owner of a recursive
// mutex or asks for its identifier. A thread is taken off the record while it ends, with the
// record's lock held, so that what is decided under the lock holds until it is done.
#ifndef DM_VOS_LIVE_THREADS_H
#define DM_VOS_LIVE_THREADS_H

#include <pthread.h>

namespace dm {

// A thread that osal_create_task() is about to create. It lives on the creator's stack, around
// pthread_create(), and brings together the two that can be first to know about the thread: the
// creator and the thread itself.
class ThreadBirth {
public:
    // `start` is what the thread will begin with, and tells it apart from others until then.
    explicit ThreadBirth(const void* start);
    ThreadBirth(const ThreadBirth&) = delete;
    ThreadBirth& operator=(const ThreadBirth&) = delete;
    ~ThreadBirth();

    // False when there is no memory to keep the identifier in; no thread must be created then.
    bool is_prepared() const { return is_prepared_; }

    // The thread was created. It may have ended already.
    void created(pthread_t id);

    // On the new thread, before anything else.
    static void begin(const void* start);

private:
    const void* start_;
    ThreadBirth* next_;
    bool is_prepared_;
    bool has_begun_ = false;
};

// A recursive mutex records its owner with every lock, so that has to cost next to nothing: one
// look at a flag, without a call into the dynamic linker.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local bool this_thread_is_recorded;
void start_record_of_this_thread();

// Records the calling thread until it ends.
inline void record_this_thread() {
    if (!this_thread_is_recorded) [[unlikely]]
        start_record_of_this_thread();
}

// Cancels a thread. Gives the result of pthread_cancel(), or ESRCH without a call for a thread of
// osal_create_task() that has ended and for what never was a thread. Leaves errno alone.
int cancel_thread(pthread_t id);

// True when a thread that was recorded once has ended.
bool has_ended(pthread_t id);

} // namespace dm

#endif
