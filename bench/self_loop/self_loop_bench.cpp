#include "self_loop/bare.h"
#include "self_loop/library.h"

#include <pthread.h>

namespace {

using bench::require;
using bench::Target;
using self_loop::kChained;
using self_loop::kRealTime;
using self_loop::kWaiting;

constexpr const char* kFloor = "bare pipe and a thread";
constexpr const char* kAlone = "bare pipe, all in one thread";
constexpr const char* kLibrary = "library";

bool may_use_real_time() {
    const sched_param lowest{1};
    const sched_param none{0};
    if (pthread_setschedparam(pthread_self(), SCHED_RR, &lowest) != 0)
        return false;
    require(pthread_setschedparam(pthread_self(), SCHED_OTHER, &none) == 0,
            "pthread_setschedparam");
    return true;
}

void add_real_time() {
    if (may_use_real_time()) {
        self_loop::add<self_loop::BareWithThread>(kRealTime, kFloor,
                                                  self_loop::Scheduling::real_time);
        self_loop::add<bench::OneByOne<self_loop::RealTimeLibrary>>(kRealTime, kLibrary);
        return;
    }
    for (const char* system : {kFloor, kLibrary})
        bench::leave_out(kRealTime, system, "this process may not give that priority");
}

Target target(const char* work, const char* floor, double at_most) {
    const std::string name = work;
    return {name + ": library against " + floor, name + "/" + kLibrary, name + "/" + floor,
            at_most};
}

} // namespace

int main(int argc, char** argv) {
    self_loop::add<self_loop::BareWithThread>(kWaiting, kFloor, self_loop::Scheduling::normal);
    self_loop::add<bench::OneByOne<self_loop::Library>>(kWaiting, kLibrary);
    add_real_time();
    self_loop::add<self_loop::BareAlone>(kChained, kAlone);
    self_loop::add<self_loop::Library>(kChained, kLibrary);
    bench::add_peers();
    return bench::run(argc, argv,
                      {target(kWaiting, kFloor, 1.25), target(kRealTime, kFloor, 1.25),
                       target(kChained, kAlone, 1.6)});
}
