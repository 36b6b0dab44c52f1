#include "support/system.h"
#include "timers/library.h"

int main(int argc, char** argv) {
    using timers::Intervals;
    timers::add<timers::Library>("library");
    bench::add_peers();
    std::vector<bench::Target> targets;
    for (const auto work : {timers::arming, timers::cancelling})
        for (const Intervals kind : {Intervals::equal, Intervals::random})
            for (const size_t armed : timers::kArmed) {
                const std::string name = work(armed, kind);
                targets.push_back({name + ": library against libevent", name + "/library",
                                   name + "/libevent", 4});
            }
    for (const size_t due : timers::kDue) {
        const std::string name = timers::firing(due);
        targets.push_back(
            {name + ": library against libuv", name + "/library", name + "/libuv", 1.2});
    }
    return bench::run(argc, argv, targets);
}
