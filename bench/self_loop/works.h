// The question: what does a request cost that a process sends to itself?
#pragma once

#include "support/require.h"
#include "support/system.h"

#include <memory>
#include <string>

namespace self_loop {

using bench::require;

inline constexpr const char* kWaiting = "self-loop request, the caller waits";
inline constexpr const char* kRealTime =
    "self-loop request, the caller waits, poll thread in real time";
inline constexpr const char* kChained = "self-loop request, the callback sends the next";

template<class Side, class... Args>
void add(const char* work, const std::string& name, Args... args) {
    bench::add_system(work, name, 400, [args...] { return std::make_unique<Side>(args...); });
}

} // namespace self_loop
