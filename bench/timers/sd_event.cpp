#include "timers/works.h"

#include "support/require.h"
#include "support/system.h"

#include <systemd/sd-event.h>

#include <vector>

namespace {

class SdEventTimers : public timers::Timers {
public:
    explicit SdEventTimers(size_t count) : sources_(count) {
        bench::require(sd_event_new(&event_) >= 0, "sd_event_new");
    }
    ~SdEventTimers() override {
        for (sd_event_source* source : sources_)
            sd_event_source_disable_unref(source);
        sd_event_unref(event_);
    }

    void arm(size_t number, uint32_t interval_ms) override {
        constexpr uint64_t accuracy_us = 1;
        release(number);
        bench::require(sd_event_add_time_relative(event_, &sources_[number], CLOCK_MONOTONIC,
                                                  uint64_t{interval_ms} * 1000, accuracy_us,
                                                  count_one, this) >= 0,
                       "sd_event_add_time_relative");
    }

    void cancel(size_t number) override { release(number); }

    // One timer a turn.
    void fire(size_t count) override {
        for (left_ = count; left_ != 0;)
            bench::require(sd_event_run(event_, UINT64_MAX) >= 0, "sd_event_run");
    }

private:
    void release(size_t number) {
        sources_[number] = sd_event_source_disable_unref(sources_[number]);
    }

    static int count_one(sd_event_source* /*source*/, uint64_t /*usec*/, void* self) {
        --static_cast<SdEventTimers*>(self)->left_;
        return 0;
    }

    sd_event* event_ = nullptr;
    std::vector<sd_event_source*> sources_;
};

const bench::Peer peer("sd-event", [] { timers::add<SdEventTimers>("sd-event"); });

} // namespace
