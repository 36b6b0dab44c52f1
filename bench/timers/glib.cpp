#include "timers/works.h"

#include "support/system.h"

#include <glib.h>

#include <vector>

namespace {

class GlibTimers : public timers::Timers {
public:
    explicit GlibTimers(size_t count) : sources_(count) {}
    ~GlibTimers() override { g_main_context_unref(context_); }

    // From here on the context alone keeps the source.
    void arm(size_t number, uint32_t interval_ms) override {
        sources_[number] = g_timeout_source_new(interval_ms);
        g_source_set_callback(sources_[number], count_one, this, nullptr);
        g_source_attach(sources_[number], context_);
        g_source_unref(sources_[number]);
    }

    void cancel(size_t number) override { g_source_destroy(sources_[number]); }

    void fire(size_t count) override {
        for (left_ = count; left_ != 0;)
            g_main_context_iteration(context_, TRUE);
    }

private:
    static gboolean count_one(gpointer self) {
        --static_cast<GlibTimers*>(self)->left_;
        return G_SOURCE_REMOVE;
    }

    GMainContext* context_ = g_main_context_new();
    std::vector<GSource*> sources_;
};

const bench::Peer peer("GLib", [] { timers::add<GlibTimers>("GLib"); });

} // namespace
