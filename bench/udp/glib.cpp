#include "udp/event_loop.h"

#include <glib-unix.h>
#include <glib.h>

namespace {

using udp::require;

struct SourceDeleter {
    void operator()(GSource* source) const {
        g_source_destroy(source);
        g_source_unref(source);
    }
};

using Source = std::unique_ptr<GSource, SourceDeleter>;

class MainContext {
public:
    class Timer;

    MainContext() = default;
    MainContext(const MainContext&) = delete;
    MainContext& operator=(const MainContext&) = delete;
    ~MainContext() {
        watches_.clear();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

    void watch(int fd, std::function<void()> function) {
        Watch& watch = watches_.emplace_back(
            Watch{std::move(function), Source(g_unix_fd_source_new(fd, G_IO_IN))});
        const GUnixFDSourceFunc call = [](int, GIOCondition, void* of) -> gboolean {
            static_cast<Watch*>(of)->function();
            return G_SOURCE_CONTINUE;
        };
        g_source_set_callback(watch.source.get(), G_SOURCE_FUNC(call), &watch, nullptr);
        g_source_attach(watch.source.get(), context_);
    }
    void run() { g_main_loop_run(loop_); }
    void stop() { g_main_loop_quit(loop_); }

private:
    struct Watch {
        std::function<void()> function;
        Source source;
    };

    GMainContext* const context_ = g_main_context_new();
    GMainLoop* const loop_ = g_main_loop_new(context_, FALSE);
    std::deque<Watch> watches_;
};

// A source cannot be attached twice, so that each interval has its own.
class MainContext::Timer {
public:
    explicit Timer(const MainContext& loop) : context_(loop.context_) {}
    void arm(uint64_t milliseconds) {
        source_.reset(g_timeout_source_new(static_cast<guint>(milliseconds)));
        const auto ring = [](void*) -> gboolean {
            require(false, "a time-out");
            return G_SOURCE_REMOVE;
        };
        g_source_set_callback(source_.get(), ring, nullptr, nullptr);
        g_source_attach(source_.get(), context_);
    }
    void cancel() { source_.reset(); }

private:
    GMainContext* const context_;
    Source source_;
};

const bench::Peer peer("GLib", [] { udp::add_event_loop<udp::WatchingLoop<MainContext>>("GLib"); });

} // namespace
