// What a turn of a loop costs that watches many descriptors, of which one is ready.
#include "support/bare_loop.h"
#include "support/measure.h"
#include "support/poller.h"
#include "support/runner.h"
#include "support/turns.h"

namespace {

constexpr int64_t kTurns = 1000; // of one batch

// Descriptors that are never ready.
class Quiet {
public:
    explicit Quiet(int count) {
        for (int i = 0; i < count; ++i) {
            fds_.push_back(eventfd(0, EFD_NONBLOCK));
            bench::require(fds_.back() >= 0, "eventfd");
        }
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;
    ~Quiet() {
        for (const int fd : fds_)
            close(fd);
    }

    const std::vector<int>& fds() const { return fds_; }

private:
    std::vector<int> fds_;
};

void bare(benchmark::State& state, int watched) {
    const Quiet quiet(watched - 1);
    bench::Turns turns;
    std::vector<int> fds = quiet.fds();
    fds.push_back(turns.fd());
    const bench::BareLoop loop(fds, [&](int /*fd*/) { turns.begin(); });
    bench::measure(state, kTurns, [&] { turns.run(kTurns); });
}

void library(benchmark::State& state, int watched) {
    const Quiet quiet(watched - 1);
    bench::Turns turns;
    const bench::Poller poller;
    for (const int fd : quiet.fds())
        bench::require(poller_fd_add(poller.get(), fd, POLLIN, nullptr, nullptr, 1) == 0,
                       "poller_fd_add");
    turns.join(poller.get());
    bench::measure(state, kTurns, [&] { turns.run(kTurns); });
}

} // namespace

int main(int argc, char** argv) {
    std::vector<bench::Target> targets;
    for (const int watched : {1, 10, 100, 1000}) {
        const std::string work = "turn of a loop, descriptors: " + std::to_string(watched);
        const auto add = [&](const char* system, auto function) {
            bench::add(work, system, [=](benchmark::State& state) { function(state, watched); });
        };
        add("bare poll", bare);
        add("library", library);
        targets.push_back(
            {work + ": library against bare poll", work + "/library", work + "/bare poll"});
    }
    return bench::run(argc, argv, targets);
}
