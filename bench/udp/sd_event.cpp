#include "udp/event_loop.h"

#include <systemd/sd-event.h>

namespace {

using udp::require;

struct SourceDeleter {
    void operator()(sd_event_source* source) const { sd_event_source_unref(source); }
};

using Source = std::unique_ptr<sd_event_source, SourceDeleter>;

class SdEvent {
public:
    class Timer;

    SdEvent() { require(sd_event_new(&event_) >= 0, "sd_event_new"); }
    SdEvent(const SdEvent&) = delete;
    SdEvent& operator=(const SdEvent&) = delete;
    ~SdEvent() {
        watches_.clear();
        sd_event_unref(event_);
    }

    void watch(int fd, std::function<void()> function) {
        Watch& watch = watches_.emplace_back(Watch{std::move(function), nullptr});
        const auto call = [](sd_event_source*, int, uint32_t, void* of) {
            static_cast<Watch*>(of)->function();
            return 0;
        };
        sd_event_source* source = nullptr;
        require(sd_event_add_io(event_, &source, fd, EPOLLIN, call, &watch) >= 0, "add_io");
        watch.source.reset(source);
    }
    void run() { sd_event_loop(event_); }
    void stop() { sd_event_exit(event_, 0); }

private:
    struct Watch {
        std::function<void()> function;
        Source source;
    };

    sd_event* event_ = nullptr;
    std::deque<Watch> watches_;
};

class SdEvent::Timer {
public:
    explicit Timer(const SdEvent& loop) : event_(loop.event_) {}
    void arm(uint64_t milliseconds) {
        const uint64_t microseconds = milliseconds * 1000;
        if (source_ == nullptr) {
            const auto ring = [](sd_event_source*, uint64_t, void*) {
                require(false, "a time-out");
                return 0;
            };
            sd_event_source* source = nullptr;
            require(sd_event_add_time_relative(event_, &source, CLOCK_MONOTONIC, microseconds, 0,
                                               ring, nullptr) >= 0,
                    "add_time");
            source_.reset(source);
            return;
        }
        require(sd_event_source_set_time_relative(source_.get(), microseconds) >= 0 &&
                    sd_event_source_set_enabled(source_.get(), SD_EVENT_ONESHOT) >= 0,
                "set_time");
    }
    void cancel() { sd_event_source_set_enabled(source_.get(), SD_EVENT_OFF); }

private:
    sd_event* const event_;
    Source source_;
};

const bench::Peer peer("sd-event",
                       [] { udp::add_event_loop<udp::WatchingLoop<SdEvent>>("sd-event"); });

} // namespace
