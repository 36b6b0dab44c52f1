// The lock of what the OS layer knows of its threads and tasks.
//
// No signal is handled on a thread that holds it, so that a handler may ask what the lock guards. A
// holder calls nothing that may enter the dynamic linker, which has a lock of its own: whoever
// holds that (a library's constructor) may be waiting for this one. For both reasons it is held for
// a few loads and stores only. fork(2) waits for it, see forked_child.cpp.
#ifndef DM_VOS_RECORD_LOCK_H
#define DM_VOS_RECORD_LOCK_H

#include <csignal>
#include <mutex>

namespace dm {

// How often the calling thread keeps signals off, and its mask before. Not in the scopes that do
// it: these end while a cancelled thread unwinds as well, where the address sanitizer takes what
// they have on the stack for a part of the frames that are gone.
struct SignalsHeld {
    int times;
    sigset_t before;
};
[[gnu::tls_model("initial-exec")]] extern constinit thread_local SignalsHeld signals_held;

// Keeps signals from the calling thread for a scope.
class SignalsOff {
public:
    SignalsOff() { hold(); }
    SignalsOff(const SignalsOff&) = delete;
    SignalsOff& operator=(const SignalsOff&) = delete;
    ~SignalsOff() { let(); }

    static void hold();
    static void let();
};

// True on a thread in fork(2), whose handlers hold the locks of this layer while others' run.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local bool is_forking;

// A mutex that fork(2) waits for. A thread that is forking has it already.
class ForkMutex {
public:
    void lock() {
        if (!is_forking)
            mutex_.lock();
    }
    void unlock() {
        if (!is_forking)
            mutex_.unlock();
    }

private:
    std::mutex mutex_;
};

class RecordLock {
public:
    void lock() {
        SignalsOff::hold();
        mutex_.lock();
    }
    void unlock() {
        mutex_.unlock();
        SignalsOff::let();
    }

private:
    ForkMutex mutex_;
};

// Taken after the SPL lock and a timed lock's mutex, where those are held as well.
extern constinit RecordLock record_lock;

} // namespace dm

#endif
