#include "timers/works.h"

#include "support/require.h"
#include "support/system.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>

#include <vector>

namespace {

using bench::require;

class Libevent : public timers::Timers {
public:
    explicit Libevent(int flags) {
        event_config* config = event_config_new();
        event_config_set_flag(config, flags);
        base_ = event_base_new_with_config(config);
        event_config_free(config);
        require(base_ != nullptr, "event_base_new_with_config");
    }
    ~Libevent() override { event_base_free(base_); }

    void fire(size_t count) override {
        for (left_ = count; left_ != 0;)
            require(event_base_loop(base_, EVLOOP_ONCE) >= 0, "event_base_loop");
    }

protected:
    static void add(event* timer, uint32_t interval_ms) {
        const timeval interval = {interval_ms / 1000, interval_ms % 1000 * 1000};
        require(event_add(timer, &interval) == 0, "event_add");
    }
    static void count_one(evutil_socket_t /*fd*/, short /*events*/, void* self) {
        --static_cast<Libevent*>(self)->left_;
    }

    event_base* base_;
};

// A timer is made as it is armed, and any thread may do so.
class Shared : public Libevent {
public:
    explicit Shared(size_t count) : Libevent(0), events_(count) {}
    ~Shared() override {
        for (event* each : events_)
            release(each);
    }

    void arm(size_t number, uint32_t interval_ms) override {
        release(events_[number]);
        events_[number] = event_new(base_, -1, 0, count_one, static_cast<Libevent*>(this));
        add(events_[number], interval_ms);
    }
    void cancel(size_t number) override { release(std::exchange(events_[number], nullptr)); }

private:
    static void release(event* each) {
        if (each != nullptr)
            event_free(each);
    }

    std::vector<event*> events_;
};

// The heap alone: the caller has a place for each timer, and there is one thread.
class Heap : public Libevent {
public:
    explicit Heap(size_t count) : Libevent(EVENT_BASE_FLAG_NOLOCK), events_(count) {
        for (event& each : events_)
            require(event_assign(&each, base_, -1, 0, count_one, static_cast<Libevent*>(this)) == 0,
                    "event_assign");
    }
    ~Heap() override {
        for (event& each : events_)
            event_del(&each);
    }

    void arm(size_t number, uint32_t interval_ms) override { add(&events_[number], interval_ms); }
    void cancel(size_t number) override { event_del(&events_[number]); }

private:
    std::vector<event> events_;
};

const bench::Peer peer("libevent", [] {
    require(evthread_use_pthreads() == 0, "evthread_use_pthreads");
    timers::add<Shared>("libevent");
    timers::add<Heap>("libevent, its heap alone");
});

} // namespace
