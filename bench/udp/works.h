// The question: what do a UDP request and its answer cost, one at a time and with many under way?
#pragma once

#include "support/system.h"
#include "udp/datagram.h"

#include <memory>
#include <string>

namespace udp {

// How many requests are under way at a time.
inline constexpr int kDepths[] = {1, 64, 512};

inline std::string work(int depth) {
    return "UDP request to answer, " +
           (depth == 1 ? "one at a time" : std::to_string(depth) + " in flight");
}

// A batch is long beside its beginning and its end, when fewer are under way.
inline int batch(int depth) {
    return depth == 1 ? 400 : 10 * depth;
}

// Registers a system, whose constructor gets the depth and what else it wants.
template<class Side, class... Args>
void add(const std::string& name, Args... args) {
    static const int room = Socket().room();
    for (const int depth : kDepths) {
        if (depth > room)
            bench::leave_out(work(depth), name, "sockets here have no room for so many datagrams");
        else
            bench::add_system(work(depth), name, batch(depth),
                              [depth, args...] { return std::make_unique<Side>(depth, args...); });
    }
}

} // namespace udp
