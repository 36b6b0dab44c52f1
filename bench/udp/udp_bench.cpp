#include "udp/bare.h"
#include "udp/library.h"

namespace {

using bench::Target;
using udp::work;

constexpr const char* kFloor = "bare sockets, frames of 4138 bytes";
constexpr const char* kDrained = "bare sockets, read until there is none";
constexpr const char* kDutiful = "bare sockets, with the buffers of a message";
constexpr const char* kLibrary = "library";
constexpr const char* kLibuv = "libuv, map and timer, frames of 4138 bytes";

std::string name(int depth, const char* system) {
    return work(depth) + "/" + system;
}

std::vector<Target> targets() {
    return {
        {work(1) + ": library against libuv with frames of its size", name(1, kLibrary),
         name(1, kLibuv), 1.0},
        {work(1) + ": library against bare sockets (aim: 1.10)", name(1, kLibrary),
         name(1, kFloor)},
        {work(64) + ": library against bare sockets (aim: 1.05)", name(64, kLibrary),
         name(64, kFloor), 1.10},
        // What two medians of the same cost may differ by.
        {"UDP request to answer: library, 512 in flight against 64", name(512, kLibrary),
         name(64, kLibrary), 1.05},
    };
}

} // namespace

int main(int argc, char** argv) {
    udp::add<udp::Bare<udp::Polls::each_time>>(kFloor);
    udp::add<udp::Bare<udp::Polls::when_empty>>(kDrained);
    udp::add<udp::Bare<udp::Polls::each_time, udp::Duties::stated>>(kDutiful);
    udp::add<udp::Library>(kLibrary);
    bench::add_peers();
    return bench::run(argc, argv, targets());
}
