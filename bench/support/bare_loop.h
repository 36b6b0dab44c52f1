// The floor under every loop: a thread around poll(2).
#pragma once

#include "support/require.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <functional>
#include <thread>
#include <vector>

namespace bench {

// Waits for descriptors, and for the one that ends it, and calls a function with each that is
// ready, on a thread of its own.
class BareLoop {
public:
    BareLoop(const std::vector<int>& fds, std::function<void(int)> on_ready)
        : on_ready_(std::move(on_ready)) {
        require(end_ >= 0, "eventfd");
        polled_.push_back({end_, POLLIN, 0});
        for (const int fd : fds)
            polled_.push_back({fd, POLLIN, 0});
        thread_ = std::thread([this] { run(); });
    }
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;
    ~BareLoop() {
        require(eventfd_write(end_, 1) == 0, "eventfd_write");
        thread_.join();
        close(end_);
    }

private:
    void run() {
        constexpr int idle_ms = 50;
        while (polled_[0].revents == 0) {
            int ready = poll(polled_.data(), polled_.size(), idle_ms);
            require(ready >= 0, "poll");
            for (size_t i = 0; ready > 0; ++i) {
                if (polled_[i].revents == 0)
                    continue;
                --ready;
                if (i != 0)
                    on_ready_(polled_[i].fd);
            }
        }
    }

    int end_ = eventfd(0, EFD_NONBLOCK);
    std::function<void(int)> on_ready_;
    std::vector<pollfd> polled_;
    std::thread thread_;
};

} // namespace bench
