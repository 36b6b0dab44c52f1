// The question: what does a timer cost, by the number of timers that are armed?
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace timers {

enum class Intervals { equal, random };

inline constexpr size_t kArmed[] = {1000, 10000, 100000};
inline constexpr size_t kDue[] = {1000, 10000};

inline std::string among(size_t armed, Intervals intervals) {
    return " among " + std::to_string(armed) +
           (intervals == Intervals::equal ? " equal ones" : " random ones");
}
inline std::string arming(size_t armed, Intervals intervals) {
    return "timer armed" + among(armed, intervals);
}
inline std::string cancelling(size_t armed, Intervals intervals) {
    return "timer cancelled" + among(armed, intervals);
}
inline std::string firing(size_t due) {
    return "timer fired, one of " + std::to_string(due) + " that are due";
}

// The one-shot timers of a loop, known by their numbers. Those of a system whose loop has no thread
// of its own stand still between the calls.
class Timers {
public:
    Timers() = default;
    Timers(const Timers&) = delete;
    Timers& operator=(const Timers&) = delete;
    virtual ~Timers() = default;

    // Arms a timer that is not armed. What is called when it is due counts it.
    virtual void arm(size_t number, uint32_t interval_ms) = 0;

    // Disarms an armed timer.
    virtual void cancel(size_t number) = 0;

    // Does what cancelled timers have left to the loop.
    virtual void sweep() {}

    // Lets no timer fire before fire() is called, and brings what the loop takes for the time up to
    // date.
    virtual void hold() {}

    // Runs the loop until so many timers have fired, all of which are due.
    virtual void fire(size_t count) = 0;

protected:
    size_t left_ = 0; // still to fire
};

using MakeTimers = std::unique_ptr<Timers> (*)(size_t count); // for the numbers below `count`

// Registers a system for all works.
void add(const std::string& name, MakeTimers make);

template<class Kind>
void add(const std::string& name) {
    add(name,
        [](size_t count) -> std::unique_ptr<Timers> { return std::make_unique<Kind>(count); });
}

} // namespace timers
