// The library's timers, on a running poller.
#pragma once

#include "support/poller.h"
#include "support/signal.h"
#include "support/turns.h"
#include "timers/works.h"

#include <vector>

namespace timers {

class Library : public Timers {
public:
    explicit Library(size_t count) : handles_(count) {
        turns_.join(poller_.get());
        const Library* self = this;
        bench::require(poller_fd_add(poller_.get(), holding_.fd(), POLLIN, stand_still, &self,
                                     sizeof(self)) == 0,
                       "poller_fd_add");
    }

    void arm(size_t number, uint32_t interval_ms) override {
        const Library* self = this;
        bench::require(poller_timer_add(poller_.get(), interval_ms, count_one, &self, sizeof(self),
                                        &handles_[number]) == 0,
                       "poller_timer_add");
    }

    void cancel(size_t number) override { poller_timer_remove(poller_.get(), &handles_[number]); }

    void sweep() override { turns_.run(1); }

    void hold() override { holding_.run(0); }

    void fire(size_t count) override {
        left_ = count;
        may_go_on_.give();
        fired_.await();
    }

private:
    static Library& of(void* user_data) { return **static_cast<Library**>(user_data); }

    static int stand_still(int /*fd*/, int /*events*/, void* user_data, uint32_t /*len*/) {
        of(user_data).holding_.begin();
        of(user_data).may_go_on_.await();
        return 0;
    }
    static int count_one(uint32_t /*interval_ms*/, int32_t /*elapsed_ms*/, void* user_data,
                         uint32_t /*len*/) {
        if (--of(user_data).left_ == 0)
            of(user_data).fired_.give();
        return 0;
    }

    std::vector<POLLER_TIMER_ENTRY_ST*> handles_;
    bench::Turns turns_;
    bench::Turns holding_;
    bench::Signal may_go_on_;
    bench::Signal fired_;
    bench::Poller poller_;
};

} // namespace timers
