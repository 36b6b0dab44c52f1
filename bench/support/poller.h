// A poller of the library's, running as long as its owner lives.
#pragma once

#include "dm_poller.h"
#include "support/require.h"

#include <unistd.h>

#include <atomic>

namespace bench {

class Poller {
public:
    Poller() {
        require(poller_create(&poller_) == 0, "poller_create");
        require(poller_run(poller_) == 0, "poller_run");
    }
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;
    // Waits until no callback will run any more. On the thread that made it.
    ~Poller() {
        constexpr useconds_t pause_us = 1000;
        poller_exit(poller_);
        while (std::atomic_ref(poller_->state).load() != POLLER_IDLE)
            usleep(pause_us);
        poller_destory(poller_);
    }

    POLLER_ST* get() const { return poller_; }

private:
    POLLER_ST* poller_ = nullptr;
};

} // namespace bench
