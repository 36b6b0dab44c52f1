#include "udp/event_loop.h"

#include <event2/event.h>
#include <event2/event_struct.h>

namespace {

using udp::require;

class Libevent {
public:
    class Timer;

    Libevent() = default;
    Libevent(const Libevent&) = delete;
    Libevent& operator=(const Libevent&) = delete;
    ~Libevent() {
        for (Watch& watch : watches_)
            event_del(&watch.watched);
        event_base_free(base_);
    }

    void watch(int fd, std::function<void()> function) {
        Watch& watch = watches_.emplace_back(Watch{std::move(function), {}});
        const auto call = [](evutil_socket_t, short, void* of) {
            static_cast<Watch*>(of)->function();
        };
        require(event_assign(&watch.watched, base_, fd, EV_READ | EV_PERSIST, call, &watch) == 0 &&
                    event_add(&watch.watched, nullptr) == 0,
                "event_add");
    }
    void run() { event_base_dispatch(base_); }
    void stop() { event_base_loopbreak(base_); }

private:
    struct Watch {
        std::function<void()> function;
        event watched;
    };

    event_base* base_ = event_base_new();
    std::deque<Watch> watches_;
};

class Libevent::Timer {
public:
    explicit Timer(const Libevent& loop) {
        const auto ring = [](evutil_socket_t, short, void*) { require(false, "a time-out"); };
        require(evtimer_assign(&event_, loop.base_, ring, nullptr) == 0, "evtimer_assign");
    }
    void arm(uint64_t milliseconds) {
        const timeval interval = {static_cast<time_t>(milliseconds / 1000), 0};
        require(evtimer_add(&event_, &interval) == 0, "evtimer_add");
    }
    void cancel() { evtimer_del(&event_); }

private:
    event event_{};
};

const bench::Peer peer("libevent",
                       [] { udp::add_event_loop<udp::WatchingLoop<Libevent>>("libevent"); });

} // namespace
