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

inline void hold_signals(sigset_t& before) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
}

inline void let_signals(const sigset_t& before) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Keeps signals from the calling thread for a scope.
class SignalsOff {
public:
    SignalsOff() { hold_signals(before_); }
    SignalsOff(const SignalsOff&) = delete;
    SignalsOff& operator=(const SignalsOff&) = delete;
    ~SignalsOff() { let_signals(before_); }

private:
    sigset_t before_;
};

class RecordLock {
public:
    void lock() {
        sigset_t before;
        hold_signals(before);
        mutex_.lock();
        before_ = before;
    }
    void unlock() {
        const sigset_t before = before_;
        mutex_.unlock();
        let_signals(before);
    }

private:
    std::mutex mutex_;
    sigset_t before_{}; // the holder's
};

// Taken after the SPL lock and a timed lock's mutex, where those are held as well.
extern constinit RecordLock record_lock;

} // namespace dm

#endif
