// An uncontended lock and unlock beside the C library's: the binary semaphore beside sem_t with a
// deadline, the recursive mutex beside a recursive pthread_mutex_t.
#include "ipmi_sm_low.h"
#include "ipmi_v_sm.h"

#include "support/cpu_time.h"
#include "support/ratio_reporter.h"

#include <pthread.h>
#include <semaphore.h>

#include <cstdlib>

namespace {

constexpr int kLocks = 10000; // of one batch
constexpr uint32_t kTimeoutMs = 1000;

void require(bool condition) {
    if (!condition)
        std::abort();
}

class Semaphore {
public:
    Semaphore() { require(vos_sm_bcreate("sem", 1, 0, &sm_) == 0); }
    ~Semaphore() { vos_sm_delete(sm_); }
    void lock() { require(vos_sm_p(sm_, kTimeoutMs) == 0); }
    void unlock() { require(vos_sm_v(sm_) == 0); }

private:
    THREAD_TIMED_MUTEX_ST* sm_ = nullptr;
};

// The deadline is made once: what a caller pays to compute it is not counted against the peer.
class PosixSemaphore {
public:
    PosixSemaphore() {
        require(sem_init(&sem_, 0, 1) == 0);
        get_abs_time(&deadline_, uint64_t{3600} * 1000);
    }
    ~PosixSemaphore() { sem_destroy(&sem_); }
    void lock() { require(sem_timedwait(&sem_, &deadline_) == 0); }
    void unlock() { require(sem_post(&sem_) == 0); }

private:
    sem_t sem_{};
    timespec deadline_{};
};

class Mutex {
public:
    Mutex() { require(thread_timed_mutex_init("mutx", &m_, THREAD_TIMED_MUTEX, 1) == 0); }
    ~Mutex() { thread_timed_mutex_destroy(&m_); }
    void lock() { require(thread_timed_mutex_lock(&m_, kTimeoutMs) == 0); }
    void unlock() { require(thread_timed_mutex_unlock(&m_) == 0); }

private:
    THREAD_TIMED_MUTEX_ST m_{};
};

class PosixMutex {
public:
    PosixMutex() {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        require(pthread_mutex_init(&mutex_, &attr) == 0);
        pthread_mutexattr_destroy(&attr);
    }
    ~PosixMutex() { pthread_mutex_destroy(&mutex_); }
    void lock() { require(pthread_mutex_lock(&mutex_) == 0); }
    void unlock() { require(pthread_mutex_unlock(&mutex_) == 0); }

private:
    pthread_mutex_t mutex_{};
};

template<class Lock>
void uncontended(benchmark::State& state) {
    Lock lock;
    for ([[maybe_unused]] auto iteration : state) {
        bench::time_iteration(state, [&] {
            for (int i = 0; i < kLocks; ++i) {
                lock.lock();
                lock.unlock();
            }
        });
    }
}

BENCHMARK(uncontended<Semaphore>)->Name("semaphore")->UseManualTime();
BENCHMARK(uncontended<PosixSemaphore>)->Name("semaphore/sem_t")->UseManualTime();
BENCHMARK(uncontended<Mutex>)->Name("mutex")->UseManualTime();
BENCHMARK(uncontended<PosixMutex>)->Name("mutex/pthread")->UseManualTime();

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv,
                      {{"binary semaphore against sem_t", "semaphore", "semaphore/sem_t", 3},
                       {"recursive mutex against pthread_mutex_t", "mutex", "mutex/pthread", 2}});
}
