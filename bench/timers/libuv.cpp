#include "timers/works.h"

#include "support/require.h"
#include "support/system.h"

#include <uv.h>

#include <vector>

namespace {

class LibuvTimers : public timers::Timers {
public:
    explicit LibuvTimers(size_t count) : timers_(count) {
        bench::require(uv_loop_init(&loop_) == 0, "uv_loop_init");
        for (uv_timer_t& timer : timers_) {
            uv_timer_init(&loop_, &timer);
            timer.data = this;
        }
    }
    ~LibuvTimers() override {
        for (uv_timer_t& timer : timers_)
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }

    void arm(size_t number, uint32_t interval_ms) override {
        bench::require(uv_timer_start(&timers_[number], count_one, interval_ms, 0) == 0,
                       "uv_timer_start");
    }

    void cancel(size_t number) override { uv_timer_stop(&timers_[number]); }

    void hold() override { uv_update_time(&loop_); }

    void fire(size_t count) override {
        for (left_ = count; left_ != 0;)
            uv_run(&loop_, UV_RUN_ONCE);
    }

private:
    static void count_one(uv_timer_t* timer) { --static_cast<LibuvTimers*>(timer->data)->left_; }

    uv_loop_t loop_{};
    std::vector<uv_timer_t> timers_;
};

const bench::Peer peer("libuv", [] { timers::add<LibuvTimers>("libuv"); });

} // namespace
