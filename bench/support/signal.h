// The word that something is done. The standard library's semaphore would spin before it waits.
#pragma once

#include "support/require.h"

#include <semaphore.h>

#include <cerrno>

namespace bench {

class Signal {
public:
    Signal() { require(sem_init(&sem_, 0, 0) == 0, "sem_init"); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal() { sem_destroy(&sem_); }

    void give() { require(sem_post(&sem_) == 0, "sem_post"); }
    void await() {
        while (sem_wait(&sem_) != 0)
            require(errno == EINTR, "sem_wait");
    }

private:
    sem_t sem_{};
};

} // namespace bench
