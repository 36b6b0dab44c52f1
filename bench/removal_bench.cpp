// What it costs to let go of requests that are pending, each with its timer: those of an interface
// that is removed, and those of a context that is destroyed. A cost is one pending request's.
#include "support/interface.h"
#include "support/measure.h"
#include "support/runner.h"
#include "support/signal.h"
#include "support/turns.h"

namespace {

constexpr double kAtMostNs = 2000;

// A context with an interface on which requests are pending.
class Pending {
public:
    explicit Pending(int64_t count) {
        turns_.join(context_.poller());
        turns_.run(1); // the poll thread has begun
        for (int64_t i = 0; i < count; ++i)
            bench::send_request(intf_, nullptr);
    }

    // Timers that are disarmed go with the poll thread's next turn.
    void remove_interface() {
        bench::require(dm_intf_deregister(intf_) == 0, "dm_intf_deregister");
        turns_.run(1);
    }

    // The pending requests have gone when the interface is closed.
    void destroy_context() {
        context_.destroy();
        closed_.await();
    }

private:
    static int send(DM_INTF_ST* /*intf*/, uint32_t /*type*/, DM_ADDR_ST* /*addr*/,
                    uint32_t /*addr_len*/, DM_DATA_ST* /*data*/, uint64_t /*req_id*/) {
        return 0;
    }
    static int close(DM_INTF_ST* intf) {
        bench::owner_of<Pending>(intf).closed_.give();
        return 0;
    }

    bench::Signal closed_;
    bench::Turns turns_;
    bench::Turns unused_; // the interface's descriptor
    bench::Context context_;
    DM_INTF_ST* intf_ = context_.add_interface(unused_.fd(), this, nullptr, send, close);
};

using Step = void (Pending::*)();

// A cost that grows with the number pending is not waited for.
bool is_too_dear(Step step) {
    constexpr int64_t count = 10000;
    Pending pending(count);
    const double start = bench::seconds_of(CLOCK_PROCESS_CPUTIME_ID);
    (pending.*step)();
    return bench::seconds_of(CLOCK_PROCESS_CPUTIME_ID) - start > 10 * kAtMostNs * 1e-9 * count;
}

void let_go(benchmark::State& state, int64_t count, Step step) {
    if (count > 10000 && is_too_dear(step)) {
        state.SkipWithError("10,000 were too dear already");
        return;
    }
    for ([[maybe_unused]] auto iteration : state) {
        Pending pending(count);
        bench::time_iteration(state, count, [&] { (pending.*step)(); });
    }
}

} // namespace

int main(int argc, char** argv) {
    std::vector<bench::Target> targets;
    for (const auto& [what, step] : {std::pair{"interface removed", &Pending::remove_interface},
                                     {"context destroyed", &Pending::destroy_context}})
        for (const int64_t count : {1000, 10000, 100000}) {
            const std::string work = what + std::string(", pending: ") + std::to_string(count);
            // Once a repetition: each begins and ends a context, which takes a tenth of a second.
            bench::add(work, "library", [count, step = step](benchmark::State& state) {
                let_go(state, count, step);
            })->Iterations(1);
            targets.push_back({work + ", for each", work + "/library", "", kAtMostNs});
        }
    return bench::run(argc, argv, targets);
}
