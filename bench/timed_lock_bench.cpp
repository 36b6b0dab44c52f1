// An uncontended lock and unlock beside the C library's: the binary semaphore beside sem_t with a
// deadline, the recursive mutex beside a recursive pthread_mutex_t.
#include "ipmi_sm_low.h"
#include "ipmi_v_sm.h"

#include "support/measure.h"
#include "support/require.h"
#include "support/runner.h"

#include <pthread.h>
#include <semaphore.h>

namespace {

using bench::require;

constexpr int kLocks = 10000; // of one batch
constexpr uint32_t kTimeoutMs = 1000;

class Semaphore {
public:
    Semaphore() { require(vos_sm_bcreate("sem", 1, 0, &sm_) == 0, "vos_sm_bcreate"); }
    ~Semaphore() { vos_sm_delete(sm_); }
    void lock() { require(vos_sm_p(sm_, kTimeoutMs) == 0, "vos_sm_p"); }
    void unlock() { require(vos_sm_v(sm_) == 0, "vos_sm_v"); }

private:
    THREAD_TIMED_MUTEX_ST* sm_ = nullptr;
};

// The deadline is made once: what a caller pays to compute it is not counted against the peer.
class PosixSemaphore {
public:
    PosixSemaphore() {
        require(sem_init(&sem_, 0, 1) == 0, "sem_init");
        get_abs_time(&deadline_, uint64_t{3600} * 1000);
    }
    ~PosixSemaphore() { sem_destroy(&sem_); }
    void lock() { require(sem_timedwait(&sem_, &deadline_) == 0, "sem_timedwait"); }
    void unlock() { require(sem_post(&sem_) == 0, "sem_post"); }

private:
    sem_t sem_{};
    timespec deadline_{};
};

class Mutex {
public:
    Mutex() {
        require(thread_timed_mutex_init("mutx", &m_, THREAD_TIMED_MUTEX, 1) == 0,
                "thread_timed_mutex_init");
    }
    ~Mutex() { thread_timed_mutex_destroy(&m_); }
    void lock() {
        require(thread_timed_mutex_lock(&m_, kTimeoutMs) == 0, "thread_timed_mutex_lock");
    }
    void unlock() { require(thread_timed_mutex_unlock(&m_) == 0, "thread_timed_mutex_unlock"); }

private:
    THREAD_TIMED_MUTEX_ST m_{};
};

class PosixMutex {
public:
    PosixMutex() {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        require(pthread_mutex_init(&mutex_, &attr) == 0, "pthread_mutex_init");
        pthread_mutexattr_destroy(&attr);
    }
    ~PosixMutex() { pthread_mutex_destroy(&mutex_); }
    void lock() { require(pthread_mutex_lock(&mutex_) == 0, "pthread_mutex_lock"); }
    void unlock() { require(pthread_mutex_unlock(&mutex_) == 0, "pthread_mutex_unlock"); }

private:
    pthread_mutex_t mutex_{};
};

template<class Lock>
void uncontended(benchmark::State& state) {
    Lock lock;
    bench::measure(state, kLocks, [&] {
        for (int i = 0; i < kLocks; ++i) {
            lock.lock();
            lock.unlock();
        }
    });
}

} // namespace

int main(int argc, char** argv) {
    const std::string semaphore = "binary semaphore, uncontended";
    const std::string mutex = "recursive mutex, uncontended";
    bench::add(semaphore, "sem_t with a deadline", uncontended<PosixSemaphore>);
    bench::add(semaphore, "library", uncontended<Semaphore>);
    bench::add(mutex, "pthread_mutex_t", uncontended<PosixMutex>);
    bench::add(mutex, "library", uncontended<Mutex>);
    return bench::run(argc, argv,
                      {{semaphore + ", against sem_t", semaphore + "/library",
                        semaphore + "/sem_t with a deadline", 1.5},
                       {mutex + ", against pthread_mutex_t", mutex + "/library",
                        mutex + "/pthread_mutex_t", 2.5}});
}
